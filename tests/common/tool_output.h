// The black-box tests' common run: the tool must end in time with the expected status;
// what they compare is its standard output after the start-up text.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "run_tool.h"

// What the tool prints first: the banner and the SDK line (the SDK line alone when it is
// given a one-shot command).
inline const std::string kBanner = "#\r\n# Quorvex KIV Tool build 20210719\r\n#\r\n";

// Runs the tool; returns standard output after the start-up text, its standard error in
// `err` when asked for.
inline std::string tool_output(const ToolRun &run, int status = 0, std::string *err = nullptr) {
  const ToolResult res = run_tool(run);
  EXPECT_FALSE(res.timedOut);
  EXPECT_EQ(res.status, status) << res.out << res.err;
  if (err) *err = res.err;
  const std::string start = (run.args.empty() ? kBanner : "") + kSdkLine;
  if (!res.out.starts_with(start)) return "UNEXPECTED START:" + res.out;
  return res.out.substr(start.size());
}
