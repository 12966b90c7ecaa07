// The tool's start-up: the bring-up with no adapter on the real USB library, the silent
// bring-up on the simulated board, and its capture.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "pcap_reader.h"
#include "run_tool.h"

namespace {

const std::string kBanner = "#\r\n# Quorvex KIV Tool build 20210719\r\n#\r\n# SDK version 040a0000\r\n#\r\n";
const char *const kMismatch = "This KIV build is not match with current chip version\n";

ToolResult start(const std::string &cfg, bool sim, const std::string &pcap = "") {
  ToolRun r;
  r.cwd = make_temp_dir("kivaccess");
  if (!cfg.empty()) write_file(r.cwd + "/kivcfg.txt", cfg);
  r.sim = sim;
  if (!pcap.empty()) r.env = {{"KIVTOOL_PCAP", r.cwd + "/" + pcap}};
  ToolResult res = run_tool(r);
  EXPECT_FALSE(res.timedOut);
  EXPECT_EQ(res.status, 0);
  if (!pcap.empty()) res.err = r.cwd + "/" + pcap;
  return res;
}

}  // namespace

// With no adapter the chip check's first access reports it (I2C read, or the first MDIO
// write of SMI; SPI says nothing) and the check fails right after.
TEST(Startup, NoAdapterOnEveryInterface) {
  const std::string tail =
      " \033[1;31;40m kivshell: USBIO device Not Found. Only be available for offline test! \033[0m \n";
  const std::pair<const char *, std::string> cases[] = {
      {"", "HX5200_USB_I2C_READ_NEW_1363" + tail},
      {"interface smi\n", "HX5200_SMI_WRITE_HXK_1713" + tail},
      {"interface spi\n", ""},
  };
  for (const auto &[cfg, msg] : cases) {
    const ToolResult res = start(cfg, false);
    EXPECT_EQ(res.out, kBanner + msg + kMismatch) << cfg;
  }
}

TEST(Startup, BoardBringUpIsSilentAndCaptured) {
  for (const char *cfg : {"interface smi\n", "interface spi\n"}) {
    const ToolResult res = start(cfg, true);
    EXPECT_EQ(res.out, kBanner) << cfg;
  }
  const ToolResult res = start("", true, "cap.pcap");
  std::vector<UsbRecord> all;
  ASSERT_TRUE(read_pcap(res.err, all));
  // Three configuration steps, then the chip check: read the page, select page 0, read the
  // generation register, put the page back.
  EXPECT_EQ(command_codes(all), (std::vector<uint8_t>{0x11, 0x21, 0x41, 0x14, 0x13, 0x14, 0x13}));
  const auto outs = out_payloads(all);
  ASSERT_GE(outs.size(), 9u);
  EXPECT_EQ(std::vector<uint8_t>(outs[3].begin() + 24, outs[3].end()), (std::vector<uint8_t>{0x01, 0xFF, 0xFF}));
  EXPECT_EQ(outs[5], (std::vector<uint8_t>{0, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF}));
  EXPECT_EQ(std::vector<uint8_t>(outs[6].begin() + 24, outs[6].end()), (std::vector<uint8_t>{0xF0, 0x3F, 0x10}));
  EXPECT_EQ(outs[8], (std::vector<uint8_t>{0x4A, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF}));
}
