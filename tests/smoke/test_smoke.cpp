#include <gtest/gtest.h>

#include "run_tool.h"

TEST(Smoke, ToolRuns) {
  ToolRun r;
  r.args = {"ls"};
  ToolResult res = run_tool(r);
  EXPECT_FALSE(res.timedOut);
  EXPECT_EQ(res.status, 0);
}
