// Runs the tool on a fresh simulated board with piped command lines.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "run_tool.h"

struct Session {
  ToolResult res;
  std::string cwd;
};

inline Session run_lines(const std::vector<std::string> &lines,
                         std::vector<std::pair<std::string, std::string>> env = {}, int timeoutMs = 20000) {
  ToolRun r;
  for (const auto &l : lines) r.input += l + "\n";
  r.env = std::move(env);
  r.timeoutMs = timeoutMs;
  r.cwd = make_temp_dir("mibvlan-tool");
  Session s;
  s.cwd = r.cwd;
  s.res = run_tool(r);
  return s;
}

// Text after the first occurrence of `marker` (empty when absent).
inline std::string after(const std::string &out, const std::string &marker) {
  const size_t p = out.find(marker);
  return p == std::string::npos ? std::string() : out.substr(p + marker.size());
}

inline size_t count(const std::string &hay, const std::string &needle) {
  size_t n = 0;
  for (size_t p = hay.find(needle); p != std::string::npos; p = hay.find(needle, p + needle.size())) ++n;
  return n;
}

#define EXPECT_HAS(out, text) EXPECT_NE((out).find(text), std::string::npos) << "missing: " << (text)
#define EXPECT_LACKS(out, text) EXPECT_EQ((out).find(text), std::string::npos) << "unexpected: " << (text)
