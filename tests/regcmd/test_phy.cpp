// `phy`, `gphy`, `mmd` and `mdx` on the simulated board, time-outs through the busy knobs.
#include "regcmd_util.h"

namespace {

TEST(PhyCommand, PagedRegistersExtensionPagesTheClause45SpaceAndTheMdxMaster) {
  expectSession({
      {"phy write 1 0 5 0xbeef", kOk},
      {"phy read 1 0 5", "reg value: beef\n" + kOk},
      {"phy read 2 0 5", "reg value: 0000\n" + kOk},
      {"phy read 1 3 5", "reg value: 0000\n" + kOk},
      {"phy write 4 0 31 5", kOk},
      {"gphy writeext 0x20 3 0x55", kOk},
      {"gphy readext 0x20 3", "reg value: 0055\n" + kOk},
      {"gphy readext 0x21 3", "reg value: 0000\n" + kOk},
      {"phy read 4 0 31", "reg value: 0005\n" + kOk},
      {"phy read 4 31 3", "reg value: 0000\n" + kOk},   // page 31 itself is untouched
      {"phy linkst 1", "phy linkst: not supported\n" + errnoLine(-1)},
      // MMD registers per PHY and device.
      {"mmd write 2 1 0x900 0x77", "MMD Over\n" + kOk},
      {"mmd read 2 1 0x900", "reg value: 0077\nMMD Over\n" + kOk},
      {"mmd read 3 1 0x900", "reg value: 0000\nMMD Over\n" + kOk},
      {"mmd read 2 7 0x900", "reg value: 0000\nMMD Over\n" + kOk},
      // The MDX master: range checks, configuration, and a round trip that releases the pins.
      {"mdx init 32 8", "baud rate range is 0~0x1F\n" + errnoLine(-1)},
      {"mdx init 5 12", "preamble is 0, 8, 16 or 32\n" + errnoLine(-1)},
      {"mdx init 0 8", errnoLine(-2)},
      {"mdx init 6 16", kOk},
      {"reg get 0x450040", "[0x450040]=0x0C08\n" + kOk},
      {"mdx set 32 1 1", "PHY ID range is 0~0x1F\n" + errnoLine(-1)},
      {"mdx set 261 4 0xabc", "[0x0004]=0x0ABC\n" + kOk},   // PHY ID is the low byte: 5
      {"mdx get 5 4", "[0x0004]=0x0ABC\n" + kOk},
      {"mdx get 6 4", "[0x0004]=0x0000\n" + kOk},
      {"mdx get 5 3", "[0x0003]=0xDC95\n" + kOk},
      {"reg get 0x640008", "[0x640008]=0x0010\n" + kOk},
  });
}

// Busy units: a PHY that stays busy fails reads (MMD does not wait; the SMI channel master
// gives up after twenty polls), a stuck MDX controller gives -11 and still releases the pins.
TEST(PhyCommand, BusyUnitsTimeOut) {
  expectSession({{"phy read 4 0 2", "reg value: 001c\n" + kOk}}, {{"KIVTOOL_SIM_PHY_BUSY", "999"}});
  expectSession({{"smi channel get 3 0 2", "Page: 0x000 Reg: 2 value:0x001c\r\n" + kOk}},
                {{"KIVTOOL_SIM_PHY_BUSY", "19"}});
  expectSession({{"smi channel get 3 0 2", errnoLine(-1)}, {"smi channel set 3 0 2 1", errnoLine(-1)}},
                {{"KIVTOOL_SIM_PHY_BUSY", "20"}});
  expectSession({{"phy read 4 0 2", errnoLine(-1)},
                 {"gphy readext 1 2", errnoLine(-1)},
                 {"mmd read 1 1 2", "reg value: 0000\nMMD Over\n" + kOk},
                 {"mdx get 5 4", errnoLine(-11)},
                 {"reg get 0x640008", "[0x640008]=0x0010\n" + kOk}},
                {{"KIVTOOL_SIM_PHY_BUSY", "-1"}, {"KIVTOOL_SIM_MDX_BUSY", "-1"}});
}

// The register accesses each command makes, in order and in number, as the adapter sees
// them; a marker read separates them from the start-up accesses.
TEST(RegisterAccessOrder, EachCommandMakesExactlyItsAccesses) {
  // Start, wait until idle, start again, and for reads take the data.
  const std::string rd = "R:PHY_ACCESS_CMD W:PHY_ACCESS_CMD R:PHY_ACCESS_CMD R:PHY_ACCESS_CMD";
  const std::string wr = "R:PHY_ACCESS_CMD W:PHY_ACCESS_CMD R:PHY_ACCESS_CMD";
  const std::string mdxPin = "R:MDX_PIN_CTL W:MDX_PIN_CTL";
  const std::string mcLookup = "R:L2_MC_LOOKUP_CTRL W:L2_MC_LOOKUP_CTRL";
  const struct {
    std::string line, accesses;
  } cases[] = {
      {"reg setbit 0x2F0000 1 1", "R:2F0000 W:2F0000"},
      {"reg indirset 0x20 1", "W:INDIR_DATA W:INDIR_CTRL R:INDIR_CTRL"},
      {"reg indirget 0x20", "W:INDIR_CTRL R:INDIR_CTRL R:INDIR_DATA"},
      {"smi extaccess get", ""},
      {"smi channel get 3 0 2",
       "R:PHY_ACCESS_CFG W:PHY_ACCESS_CFG R:PHY_ACCESS_AUX W:PHY_ACCESS_AUX W:PHY_ACCESS_CMD R:PHY_ACCESS_CMD"},
      {"mmd read 1 7 0x3c", "R:PHY_ACCESS_CMD W:PHY_ACCESS_AUX W:PHY_ACCESS_CMD R:PHY_ACCESS_CMD R:PHY_ACCESS_CMD"},
      {"mmd write 1 7 0x3c 5", "R:PHY_ACCESS_CMD W:PHY_ACCESS_AUX W:PHY_ACCESS_CMD R:PHY_ACCESS_CMD"},
      {"phy read 1 2 3", rd},
      {"gphy readext 1 2", rd + " " + wr + " " + wr + " " + rd + " " + wr},
      {"mdx init 6 16", "R:MDX_CFG W:MDX_CFG"},
      {"mdx get 5 4", mdxPin + " R:MDX_PHY_ID W:MDX_PHY_ID W:MDX_CMD R:MDX_CMD " + mdxPin},
      {"vlan mode multicast set 1 1 16", mcLookup + " " + mcLookup + " " + mcLookup},
  };
  for (const auto &c : cases) {
    const std::string dir = make_temp_dir("order");
    runSession({"reg get 0xABCDEF", c.line}, {{"KIVTOOL_PCAP", dir + "/cap.pcap"}});
    const std::string all = registerAccesses(dir + "/cap.pcap");
    const std::string marker = "R:ABCDEF";
    const size_t at = all.find(marker);
    ASSERT_NE(at, std::string::npos) << c.line;
    EXPECT_EQ(all.substr(std::min(all.size(), at + marker.size() + 1)), c.accesses) << c.line;
  }
}

}  // namespace
