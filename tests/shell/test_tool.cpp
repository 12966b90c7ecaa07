// The program as a user runs it: start-up text, one-shot arguments, piped input, the
// main loop in front of the command engine, and pre-loading after help and completion.
#include <gtest/gtest.h>

#include <string>

#include "run_tool.h"
#include "shell_test_util.h"

namespace {

const std::string kStart = std::string("#\r\n# Quorvex KIV Tool build 20210719\r\n#\r\n") + kSdkLine;
const std::string kListing = "reg                 mib";   // start of the root listing
const std::string kTooLong = "kivshell: command line too long\n";

// Runs the tool on the simulated board; returns its output after the start-up text that
// `prefix` names, or the whole output marked as unexpected.
std::string run(const std::vector<std::string> &args, const std::string &input = {}, int wantStatus = 0,
                const std::string &cwd = {}) {
  ToolRun r;
  r.args = args;
  r.input = input;
  r.cwd = cwd;
  ToolResult res = run_tool(r);
  EXPECT_EQ(res.status, wantStatus) << res.out << res.err;
  const std::string prefix = args.empty() ? kStart : kSdkLine;
  if (res.out.compare(0, prefix.size(), prefix) != 0) return "UNEXPECTED START:" + res.out;
  return res.out.substr(prefix.size());
}

TEST(Tool, StartUpTextAndTheChipCheck) {
  EXPECT_EQ(run({}, ""), "");                      // banner + SDK line, then nothing
  EXPECT_NE(run({"ls"}).find(kListing), std::string::npos);   // SDK line only
  // Without an adapter the chip check warns once, whatever the interface, and the tool
  // still runs the loop.
  for (const char *iface : {"i2c", "smi", "spi"}) {
    ToolRun r;
    r.sim = false;
    r.input = "\n\n";
    r.cwd = make_temp_dir();
    write_file(r.cwd + "/kivcfg.txt", std::string("interface ") + iface + "\n");
    ToolResult res = run_tool(r);
    EXPECT_EQ(res.status, 0);
    const std::string warn = "This KIV build is not match with current chip version\n";
    EXPECT_EQ(res.out.find(warn), res.out.rfind(warn));
    EXPECT_NE(res.out.find(warn), std::string::npos) << iface;
  }
  ToolRun bad;
  bad.env = {{"KIVTOOL_SIM", "/proc/version/board"}};
  ToolResult res = run_tool(bad);
  EXPECT_EQ(res.status, 1);
  EXPECT_NE(res.err.find("kivshell:"), std::string::npos);
}

TEST(Tool, ConfigurationMessagesPrecedeTheBringUp) {
  std::string dir = make_temp_dir();
  write_file(dir + "/kivcfg.txt",
             "# before debug\ndebug 3\n# board\ninterface spi\nmdcaddrid 0x1f\ni2caddrid 0x6\ncolour red\n");
  EXPECT_TRUE(run({"reg", "get", "0x103ff0"}, {}, 0, dir)
                  .starts_with("skip # board\n\r\ninterface spi\r\nmdcaddrid 31\r\ni2caddress 0\r\nno match\r\n"));
}

TEST(Tool, OneShotJoinsTheWordsIntoOneTypedLine) {
  const std::string typed = run({}, "reg get 0x4a000000\n");
  EXPECT_NE(typed.find("Success!!"), std::string::npos) << typed;
  EXPECT_EQ(run({"reg", "get", "0x4a000000"}), typed);
  EXPECT_EQ(run({"reg get", "0x4a000000"}), typed);
  const std::string help = run({}, "reg ?\n");   // a last word ending in '?' asks for help
  EXPECT_NE(help.find("indirget"), std::string::npos) << help;
  EXPECT_EQ(run({"reg", "?"}), help);
  // 1023 characters with the blanks fit the line buffer, one more does not.
  EXPECT_EQ(run({std::string(1022, 'z')}).find("too long"), std::string::npos);
  EXPECT_TRUE(run({std::string(1023, 'z')}, {}, 1).ends_with(kTooLong));
  EXPECT_TRUE(run(std::vector<std::string>(600, "ab"), {}, 1).ends_with(kTooLong));
  run({""});
  run({"", "", ""});
  EXPECT_EQ(run({"\n"}), "");
}

TEST(Tool, PipedLinesOnlyTheBareExitEndsTheLoop) {
  EXPECT_EQ(run({}, "exit\nls\n"), "");
  EXPECT_EQ(run({}, "exit\r\nls\r\n"), "");
  EXPECT_NE(run({}, " exit\nls\n").find(kListing), std::string::npos);
  EXPECT_NE(run({}, "exit \nls\n").find(kListing), std::string::npos);
  EXPECT_EQ(run({}, "\n\n\r\n\n"), "");                  // empty lines dispatch nothing
  EXPECT_EQ(run({}, "\n\nls\n\n"), run({}, "ls"));        // a last line without newline runs
  // NUL bytes and over-long lines: no prompt, no echo, no crash.
  std::string odd = run({}, std::string(5000, 'q') + "\n" + std::string("a\0b\n", 4));
  EXPECT_EQ(odd.find("qqqq"), std::string::npos);
  EXPECT_EQ(odd.find("<HX5200"), std::string::npos);
}

TEST(Tool, HelpAndCompletionPreloadTheNextLine) {
  const std::string dir = make_temp_dir();
  PtySession s(KIVTOOL_PATH, {{"KIVTOOL_SIM", dir + "/sim"}}, dir);
  const std::string P = "<HX5200/> ";
  std::string startOnTty;   // the terminal shows each "\n" as "\r\n"
  for (char c : kStart) startOnTty += c == '\n' ? std::string("\r\n") : std::string(1, c);
  ASSERT_EQ(s.waitFor(startOnTty + P), 0u) << s.output();

  s.keys("reg ?");   // '?' not echoed; listing; then "reg " is typed again for us
  size_t at = s.waitFor(P + "\r" + P + "reg \x1b[J");
  ASSERT_NE(at, std::string::npos) << s.output();
  EXPECT_NE(s.output().find(P + "reg \r\n"), std::string::npos);
  s.keys("get 0x4a000000\r");
  at = s.waitFor("Success!!\r\n", at);
  ASSERT_NE(at, std::string::npos) << s.output();
  at += 11;   // after an ordinary command the next line starts empty
  ASSERT_NE(s.waitFor(P, at), std::string::npos);   // typed before raw mode it would be flushed
  s.keys("vl");
  ASSERT_NE(s.waitFor(P + "vl", at), std::string::npos);
  EXPECT_EQ(s.output().substr(at), P + "vl");
  s.keys("\t");   // completion: the completed word comes back pre-loaded
  ASSERT_NE(s.waitFor("\r" + P + "vlan", at), std::string::npos) << s.output();
  s.keys(std::string(8, 0x7f) + "exit\r");
  EXPECT_EQ(s.wait(), 0) << s.output();
}

}  // namespace
