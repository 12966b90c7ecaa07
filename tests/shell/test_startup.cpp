// The program as a user runs it: start-up text, one-shot mode, piped input, kivcfg.txt.
#include <gtest/gtest.h>

#include <string>

#include "run_tool.h"

namespace {

const std::string kBanner = "#\r\n# Quorvex KIV Tool build 20210719\r\n#\r\n";
const std::string kSdk = kSdkLine;

bool startsWith(const std::string &s, const std::string &p) { return s.compare(0, p.size(), p) == 0; }
size_t count(const std::string &s, const std::string &needle) {
  size_t n = 0;
  for (size_t at = s.find(needle); at != std::string::npos; at = s.find(needle, at + 1)) ++n;
  return n;
}

ToolResult tool(std::vector<std::string> args, std::string input = {}, std::string cwd = {}) {
  ToolRun r;
  r.args = std::move(args);
  r.input = std::move(input);
  r.cwd = std::move(cwd);
  ToolResult res = run_tool(r);
  EXPECT_FALSE(res.timedOut);
  return res;
}

TEST(Startup, BannerOnlyWithoutArgumentsSdkLineAlways) {
  ToolResult inter = tool({}, "");
  EXPECT_EQ(inter.status, 0);
  EXPECT_TRUE(startsWith(inter.out, kBanner + kSdk)) << inter.out;
  // On the simulated board the chip answers: no adapter or chip-version complaints.
  EXPECT_EQ(inter.out.find("kivshell: USBIO"), std::string::npos) << inter.out;
  EXPECT_EQ(inter.out.find("not match"), std::string::npos) << inter.out;
  EXPECT_EQ(inter.err, "");

  ToolResult once = tool({"ls"});
  EXPECT_EQ(once.status, 0);
  EXPECT_TRUE(startsWith(once.out, kSdk)) << once.out;
  EXPECT_EQ(once.out.find("Quorvex"), std::string::npos);
}

TEST(Startup, WithoutAnAdapterTheChipCheckWarnsOnceAndTheToolGoesOn) {
  ToolRun r;
  r.sim = false;   // real libusb: no adapter on this machine
  r.input = "\n\nexit\n";
  ToolResult res = run_tool(r);
  EXPECT_EQ(res.status, 0);
  EXPECT_EQ(count(res.out, "This KIV build is not match with current chip version\n"), 1u) << res.out;
  EXPECT_TRUE(startsWith(res.out, kBanner + kSdk));
}

TEST(Startup, UnusableBoardDirectoryIsAClearError) {
  ToolRun r;
  r.env = {{"KIVTOOL_SIM", "/proc/version/nope"}};
  ToolResult res = run_tool(r);
  EXPECT_EQ(res.status, 1);
  EXPECT_NE(res.err.find("kivshell:"), std::string::npos);
}

TEST(OneShot, ArgumentsMustFitTheLineBuffer) {
  // Joined with a blank after each word, 1023 characters fit (with the NUL).
  ToolResult fits = tool({std::string(1022, 'z')});
  EXPECT_EQ(fits.status, 0);
  EXPECT_EQ(fits.out.find("too long"), std::string::npos);

  ToolResult over = tool({std::string(1023, 'z')});
  EXPECT_EQ(over.status, 1);
  EXPECT_TRUE(over.out.size() >= 32 && over.out.substr(over.out.size() - 32) == "kivshell: command line too long\n")
      << over.out;
  ToolResult many = tool(std::vector<std::string>(600, "ab"));
  EXPECT_EQ(many.status, 1);

  // Empty arguments are harmless.
  EXPECT_EQ(tool({""}).status, 0);
  EXPECT_EQ(tool({"", "", ""}).status, 0);
  EXPECT_EQ(tool({"\n"}).status, 0);
}

TEST(PipedInput, PlainLinesEndOfInputAndLongLines) {
  // CR LF lines, a last line without newline, NUL bytes and a very long line: no
  // prompt or echo appears, nothing hangs or crashes.
  std::string in = "\r\n\r\n";
  in += std::string(5000, 'q') + "\n";
  in += std::string("a\0b\n", 4);
  in += "exi";
  ToolResult res = tool({}, in);
  EXPECT_EQ(res.status, 0);
  EXPECT_EQ(res.out.find("<HX5200"), std::string::npos) << res.out;
  EXPECT_EQ(res.out.find("qqqq"), std::string::npos);
}

TEST(Config, DebugMessagesComeBeforeTheAdapterBringUp) {
  std::string dir = make_temp_dir();
  write_file(dir + "/kivcfg.txt",
             "# before debug\n"
             "debug 3\n"
             "# board\n"
             "interface spi\n"
             "mdcaddrid 0x1f\n"
             "i2caddrid 0x6\n"
             "colour red\n");
  ToolResult res = tool({"ls"}, {}, dir);
  EXPECT_EQ(res.status, 0);
  EXPECT_TRUE(startsWith(res.out, kSdk + "skip # board\n\r\ninterface spi\r\nmdcaddrid 31\r\n"
                                         "i2caddress 0\r\nno match\r\n"))
      << res.out;
}

TEST(Config, InterfaceFromTheFileIsBroughtUp) {
  // Without an adapter every interface complains; the I2C, SMI and SPI paths each run.
  for (const char *iface : {"i2c", "smi", "spi"}) {
    ToolRun r;
    r.sim = false;
    r.args = {"ls"};
    r.cwd = make_temp_dir();
    write_file(r.cwd + "/kivcfg.txt", std::string("interface ") + iface + "\n");
    ToolResult res = run_tool(r);
    EXPECT_EQ(res.status, 0) << iface;
    EXPECT_NE(res.out.find("This KIV build is not match with current chip version\n"), std::string::npos)
        << iface << res.out;
  }
}

}  // namespace
