// The main loop with the command engine behind it: which lines reach the engine, how the
// one-shot line is formed, and what the editor starts with after help or completion.
#include <gtest/gtest.h>

#include <string>

#include "run_tool.h"
#include "shell_test_util.h"

namespace {

const std::string kStart = std::string("#\r\n# Quorvex KIV Tool build 20210719\r\n#\r\n") + kSdkLine;
const std::string kListingStart = "reg                 mib";   // the root listing of "ls"

// Output of piped input after the start-up text.
std::string piped(const std::string &input) {
  ToolRun r;
  r.input = input;
  ToolResult res = run_tool(r);
  EXPECT_EQ(res.status, 0);
  EXPECT_EQ(res.out.compare(0, kStart.size(), kStart), 0) << res.out;
  return res.out.size() >= kStart.size() ? res.out.substr(kStart.size()) : res.out;
}

// Output of a one-shot run after the SDK line.
std::string oneShot(const std::vector<std::string> &args) {
  ToolRun r;
  r.args = args;
  ToolResult res = run_tool(r);
  EXPECT_EQ(res.status, 0);
  const std::string sdk = kSdkLine;
  EXPECT_EQ(res.out.compare(0, sdk.size(), sdk), 0) << res.out;
  return res.out.size() >= sdk.size() ? res.out.substr(sdk.size()) : res.out;
}

TEST(MainLoop, OnlyTheBareWordExitEnds) {
  EXPECT_EQ(piped("exit\nls\n"), "");
  EXPECT_EQ(piped("exit\r\nls\r\n"), "");
  EXPECT_NE(piped(" exit\nls\n").find(kListingStart), std::string::npos);
  EXPECT_NE(piped("exit \nls\n").find(kListingStart), std::string::npos);
  // End of input ends the loop as well, with or without a final newline.
  EXPECT_EQ(piped("ls"), piped("ls\n"));
}

TEST(MainLoop, EmptyLinesDispatchNothing) {
  EXPECT_EQ(piped("\n\n\r\n\n"), "");
  EXPECT_EQ(piped("\n\nls\n\n"), piped("ls\n"));
}

TEST(OneShot, WordsAreJoinedWithBlanksLikeATypedLine) {
  const std::string typed = piped("reg get 0x4a000000\n");
  EXPECT_NE(typed.find("Success!!"), std::string::npos) << typed;
  EXPECT_EQ(oneShot({"reg", "get", "0x4a000000"}), typed);
  EXPECT_EQ(oneShot({"reg get", "0x4a000000"}), typed);
  // A last word ending in '?' asks for help, just as typing it.
  const std::string help = piped("reg ?\n");
  EXPECT_NE(help.find("indirget"), std::string::npos) << help;
  EXPECT_EQ(oneShot({"reg", "?"}), help);
}

TEST(Console, HelpAndCompletionPreloadTheNextLine) {
  std::string dir = make_temp_dir();
  PtySession s(KIVTOOL_PATH, {}, {{"KIVTOOL_SIM", dir + "/sim"}}, dir);
  ASSERT_TRUE(s.ok());
  const std::string P = "<HX5200/> ";
  // The terminal turns each "\n" into "\r\n".
  std::string startOnTty;
  for (char c : kStart) startOnTty += c == '\n' ? std::string("\r\n") : std::string(1, c);
  size_t at = s.waitFor(startOnTty + P);
  ASSERT_EQ(at, 0u) << s.output();

  // Help: the '?' is not echoed, the listing follows, then the line starts again with
  // the text the engine left, ready for more.
  s.keys("reg ?");
  at = s.waitFor(P + "\r" + P + "reg \x1b[J");
  ASSERT_NE(at, std::string::npos) << s.output();
  EXPECT_NE(s.output().find(P + "reg \r\n"), std::string::npos);
  s.keys("get 0x4a000000\r");
  at = s.waitFor("Success!!\r\n", at);
  ASSERT_NE(at, std::string::npos) << s.output();
  // After an ordinary command the next line starts empty.
  at += 11;
  ASSERT_NE(s.waitFor(P, at), std::string::npos);
  s.keys("vl");
  ASSERT_NE(s.waitFor("vl", at), std::string::npos);
  EXPECT_EQ(s.output().substr(at), P + "vl");

  // Completion: Tab is not echoed; the completed word is pre-loaded.
  s.keys("\t");
  ASSERT_NE(s.waitFor("\r" + P + "vlan", at), std::string::npos) << s.output();
  s.keys(std::string(8, 0x7f) + "exit\r");
  EXPECT_EQ(s.wait(), 0) << s.output();
}

}  // namespace
