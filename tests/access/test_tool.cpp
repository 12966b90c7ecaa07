// The tool as a whole: adapter bring-up output with no adapter on the real USB library, the
// silent bring-up on the simulated board, and captures and faults through the board.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "pcap_reader.h"
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

TEST(Board, CaptureOfTheBringUp) {
  const std::string dir = make_temp_dir("kivaccess");
  const ToolResult res = start("", true, {{"KIVTOOL_PCAP", dir + "/cap.pcap"}}, dir);
  ASSERT_FALSE(res.timedOut);
  std::vector<UsbRecord> all;
  ASSERT_TRUE(read_pcap(dir + "/cap.pcap", all));
  // Three configuration steps, then the chip check: read the page, select page 0, read the
  // generation register, put the page back.
  EXPECT_EQ(command_codes(all), (std::vector<uint8_t>{0x11, 0x21, 0x41, 0x14, 0x13, 0x14, 0x13}));
  const auto outs = out_payloads(all);
  ASSERT_GE(outs.size(), 7u);
  EXPECT_EQ(std::vector<uint8_t>(outs[6].begin() + 24, outs[6].end()), (std::vector<uint8_t>{0xF0, 0x3F, 0x10}));
  EXPECT_EQ(all[0].bus, 1);
  EXPECT_NE(all[0].devnum, 0);
}

}  // namespace
