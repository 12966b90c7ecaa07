// The board under the real tool: state carried from one run to the next, knobs and faults
// reaching the tool's start-up.
#include <gtest/gtest.h>

#include "run_tool.h"

namespace {
ToolResult run_in(const std::string &cwd, std::vector<std::string> args,
                  std::vector<std::pair<std::string, std::string>> env = {}) {
  ToolRun r;
  r.cwd = cwd;
  r.args = std::move(args);
  r.env = std::move(env);
  ToolResult res = run_tool(r);
  EXPECT_FALSE(res.timedOut);
  EXPECT_EQ(res.status, 0);
  return res;
}
}  // namespace

TEST(Tool, RegistersAndPagePersistBetweenRuns) {
  std::string cwd = make_temp_dir("kivsim");
  run_in(cwd, {"reg", "set", "0x180048", "0x200"});
  run_in(cwd, {"reg", "chgpage", "cpu"});
  ToolResult r = run_in(cwd, {"reg", "chgpage", "current"});
  EXPECT_EQ(r.out, std::string(kSdkLine) + "Current Page: 0x42\r\nSuccess!!\n");
  run_in(cwd, {"reg", "chgpage", "swcore"});
  r = run_in(cwd, {"reg", "get", "0x180048"});
  EXPECT_EQ(r.out, std::string(kSdkLine) + "[0x180048]=0x0200\nSuccess!!\n");
}

TEST(Tool, GenerationKnobAndUnplugReachStartUp) {
  std::string cwd = make_temp_dir("kivsim");
  ToolResult r = run_in(cwd, {"reg", "get", "0x0"}, {{"KIVTOOL_SIM_CHIP_GEN", "3"}});
  EXPECT_NE(r.out.find("This KIV build is not match with current chip version"), std::string::npos);
  // The adapter leaves at its first command: the tool carries on without it, and no register
  // access reaches the board.
  r = run_in(cwd, {"reg", "set", "0x40", "0x1"}, {{"KIVTOOL_SIM_FAULTS", "unplug@1"}});
  EXPECT_EQ(r.out.find("[0x0040]=0x0001"), std::string::npos);
  r = run_in(cwd, {"reg", "get", "0x40"});
  EXPECT_EQ(r.out, std::string(kSdkLine) + "[0x0040]=0x0000\nSuccess!!\n");
}
