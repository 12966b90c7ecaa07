// Helpers for the register and configuration command tests: piped sessions on the
// simulated board compared byte for byte, and the adapter commands seen in a capture.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "run_tool.h"

inline const std::string kOk = "Success!!\n";
inline std::string errnoLine(int code) { return "Errno : " + std::to_string(code) + "\n"; }

using Env = std::vector<std::pair<std::string, std::string>>;
using Step = std::pair<std::string, std::string>;   // a typed line, what the tool prints for it

// Runs the lines as one piped session on a fresh board; returns the output after the
// start-up text (taken from a session without lines).
inline std::string runSession(const std::vector<std::string> &lines, const Env &env = {}) {
  static const std::string prefix = run_tool(ToolRun{}).out;
  ToolRun run;
  for (const std::string &l : lines) run.input += l + "\n";
  run.env = env;
  const ToolResult res = run_tool(run);
  EXPECT_TRUE(!res.timedOut && res.status == 0);
  EXPECT_TRUE(res.out.starts_with(prefix)) << res.out;
  return res.out.substr(std::min(prefix.size(), res.out.size()));
}

inline void expectSession(const std::vector<Step> &steps, const Env &env = {}) {
  std::vector<std::string> lines;
  std::string expected;
  for (const auto &[line, out] : steps) {
    lines.push_back(line);
    expected += out;
  }
  EXPECT_EQ(runSession(lines, env), expected);
}

// Command headers the host sent to the adapter (bulk OUT submits that start with the
// magic), in order, from a pcap file of link type 220.
inline std::vector<std::vector<uint8_t>> capturedCommands(const std::string &pcap) {
  std::vector<std::vector<uint8_t>> cmds;
  const auto *p = reinterpret_cast<const uint8_t *>(pcap.data());
  auto u32 = [&](size_t off) { return uint32_t(p[off]) | uint32_t(p[off + 1]) << 8 | uint32_t(p[off + 2]) << 16 | uint32_t(p[off + 3]) << 24; };
  static const uint8_t kMagic[6] = {0x01, 0xFE, 0x02, 0xFD, 0x03, 0xFC};
  for (size_t off = 24; off + 16 + 64 <= pcap.size();) {
    const size_t incl = u32(off + 8);
    const size_t rec = off + 16;
    if (rec + incl > pcap.size() || incl < 64) break;
    const bool outSubmit = p[rec + 8] == 'S' && p[rec + 10] == 0x02;
    if (outSubmit && incl >= 64 + 24 && std::equal(kMagic, kMagic + 6, p + rec + 64))
      cmds.emplace_back(p + rec + 64, p + rec + incl);
    off = rec + incl;
  }
  return cmds;
}

// Register accesses of the I2C register transfers in a capture, in order: "R2F0000" for a
// read, "W2F0000" for a write (the 24-bit address the transport carries), blank-separated.
inline std::string registerAccesses(const std::string &pcap) {
  std::string seq;
  for (const auto &c : capturedCommands(pcap)) {
    if (c.size() < 27 || (c[8] != 0x13 && c[8] != 0x14)) continue;
    char buf[16];
    std::snprintf(buf, sizeof buf, "%s%c%06X", seq.empty() ? "" : " ", c[8] == 0x13 ? 'W' : 'R',
                  unsigned(c[24]) | unsigned(c[25]) << 8 | unsigned(c[26]) << 16);
    seq += buf;
  }
  return seq;
}
