// The tool as a whole: adapter bring-up output with no adapter on the real USB library, the
// silent bring-up on the simulated board, and captures and faults through the board.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "fake_adapter.h"
#include "run_tool.h"

namespace {

const std::string kNotFound =
    " \033[1;31;40m kivshell: USBIO device Not Found. Only be available for offline test! \033[0m \n";
const char *const kMismatch = "This KIV build is not match with current chip version";

size_t count(const std::string &hay, const std::string &needle) {
  size_t n = 0;
  for (size_t p = hay.find(needle); p != std::string::npos; p = hay.find(needle, p + 1)) ++n;
  return n;
}

ToolResult start(const std::string &cfg, bool sim, std::vector<std::pair<std::string, std::string>> env = {},
                 std::string cwd = "") {
  ToolRun r;
  r.cwd = cwd.empty() ? make_temp_dir("kivaccess") : cwd;
  if (!cfg.empty()) write_file(r.cwd + "/kivcfg.txt", cfg);
  r.sim = sim;
  r.env = std::move(env);
  return run_tool(r);
}

TEST(NoAdapter, I2cStartupReportsTheMissingAdapterOnce) {
  const ToolResult res = start("", false);
  ASSERT_FALSE(res.timedOut);
  EXPECT_EQ(res.status, 0);
  const std::string msg = "HX5200_USB_I2C_READ_NEW_1363" + kNotFound;
  EXPECT_EQ(count(res.out, msg), 1u) << res.out;
  EXPECT_EQ(count(res.out, "USBIO"), 1u);
  const size_t at = res.out.find(msg);
  ASSERT_NE(at, std::string::npos);
  EXPECT_EQ(res.out.find(kMismatch), at + msg.size());  // the chip check fails right after
}

TEST(NoAdapter, SmiStartupStopsAtTheFirstMdioWrite) {
  const ToolResult res = start("interface smi\n", false);
  ASSERT_FALSE(res.timedOut);
  const std::string msg = "HX5200_SMI_WRITE_HXK_1713" + kNotFound;
  EXPECT_EQ(count(res.out, msg), 1u) << res.out;
  EXPECT_EQ(count(res.out, "USBIO"), 1u);
  EXPECT_EQ(res.out.find(kMismatch), res.out.find(msg) + msg.size());
}

TEST(NoAdapter, SpiStartupIsSilentApartFromTheChipCheck) {
  const ToolResult res = start("interface spi\n", false);
  ASSERT_FALSE(res.timedOut);
  EXPECT_EQ(res.status, 0);
  EXPECT_EQ(count(res.out, "USBIO"), 0u) << res.out;
  EXPECT_EQ(count(res.out, kMismatch), 1u) << res.out;
}

TEST(Board, BringUpIsSilentOnEveryInterface) {
  for (const char *cfg : {"", "interface smi\n", "interface spi\n"}) {
    const ToolResult res = start(cfg, true);
    ASSERT_FALSE(res.timedOut);
    EXPECT_EQ(res.status, 0);
    EXPECT_EQ(res.out.find("USBIO"), std::string::npos) << cfg << res.out;
    EXPECT_EQ(res.out.find(kMismatch), std::string::npos) << cfg << res.out;
  }
}

// Command headers (OUT payloads starting with the magic) from a capture of the tool.
std::vector<std::vector<uint8_t>> headers_in(const std::string &pcap, std::vector<UsbRecord> &all) {
  uint32_t link = 0;
  EXPECT_TRUE(read_pcap(pcap, link, all));
  EXPECT_EQ(link, 220u);
  std::vector<std::vector<uint8_t>> hs;
  for (const UsbRecord &r : all)
    if (r.type == 'S' && r.ep == 0x02 && r.data.size() >= 24 && r.data[0] == 0x01 && r.data[1] == 0xFE)
      hs.push_back(r.data);
  return hs;
}

TEST(Board, CaptureOfTheBringUp) {
  const std::string dir = make_temp_dir("kivaccess");
  const ToolResult res = start("", true, {{"KIVTOOL_PCAP", dir + "/cap.pcap"}}, dir);
  ASSERT_FALSE(res.timedOut);
  std::vector<UsbRecord> all;
  const auto hs = headers_in(dir + "/cap.pcap", all);
  // Three configuration steps, then the chip check: read page, write page, read the
  // generation register, write the page back.
  std::vector<uint8_t> codes;
  for (const auto &h : hs) codes.push_back(h[8]);
  EXPECT_EQ(codes, (std::vector<uint8_t>{0x11, 0x21, 0x41, 0x14, 0x13, 0x14, 0x13}));
  ASSERT_GE(hs.size(), 6u);
  EXPECT_EQ(std::vector<uint8_t>(hs[5].begin() + 24, hs[5].end()), (std::vector<uint8_t>{0xF0, 0x3F, 0x10}));
  ASSERT_FALSE(all.empty());
  EXPECT_EQ(all[0].bus, 1);
  EXPECT_NE(all[0].devnum, 0);

  if (system("command -v tshark >/dev/null 2>&1") != 0) return;
  const std::string cmd = "tshark -r " + dir + "/cap.pcap -T fields -e usb.capdata 2>/dev/null | tr -d ':'";
  FILE *p = popen(cmd.c_str(), "r");
  ASSERT_NE(p, nullptr);
  std::string out;
  char buf[512];
  while (fgets(buf, sizeof buf, p)) out += buf;
  pclose(p);
  EXPECT_NE(out.find("01fe02fd03fc1b0014010000000400000000000000000003f03f10\n"), std::string::npos) << out;
}

TEST(Board, FaultsSeenThroughTheCapture) {
  // A NAK on the chip check's first read: the same header goes out again.
  std::string dir = make_temp_dir("kivaccess");
  ToolResult res = start("", true, {{"KIVTOOL_PCAP", dir + "/cap.pcap"}, {"KIVTOOL_SIM_FAULTS", "nak@4"}}, dir);
  ASSERT_FALSE(res.timedOut);
  EXPECT_EQ(res.out.find(kMismatch), std::string::npos) << res.out;
  std::vector<UsbRecord> all;
  auto hs = headers_in(dir + "/cap.pcap", all);
  ASSERT_GE(hs.size(), 5u);
  EXPECT_EQ(hs[3], hs[4]);

  // Lost completion of a write, then two NAKs: full rerun, then a reconnection.
  dir = make_temp_dir("kivaccess");
  res = start("", true,
              {{"KIVTOOL_PCAP", dir + "/cap.pcap"}, {"KIVTOOL_SIM_FAULTS", "nocomplete@5,nak@7,nak@8"}}, dir);
  ASSERT_FALSE(res.timedOut);
  EXPECT_EQ(res.out.find(kMismatch), std::string::npos) << res.out;
  hs = headers_in(dir + "/cap.pcap", all);
  std::vector<uint8_t> codes;
  for (const auto &h : hs) codes.push_back(h[8]);
  EXPECT_EQ(codes, (std::vector<uint8_t>{0x11, 0x21, 0x41, 0x14, 0x13, 0x13, 0x14, 0x14, 0x11, 0x21, 0x41, 0x14,
                                         0x13}));

  // The adapter leaves the bus: the check fails once, the tool still ends normally.
  res = start("", true, {{"KIVTOOL_SIM_FAULTS", "unplug@4"}});
  ASSERT_FALSE(res.timedOut);
  EXPECT_EQ(res.status, 0);
  EXPECT_EQ(count(res.out, kMismatch), 1u) << res.out;
}

}  // namespace
