// Helpers for the register and configuration command tests: piped sessions on the
// simulated board compared byte for byte, and the register accesses seen in a capture.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "capture_reader.h"
#include "tool_output.h"

inline const std::string kOk = "Success!!\n";
inline std::string errnoLine(int code) { return "Errno : " + std::to_string(code) + "\n"; }

using Step = std::pair<std::string, std::string>;   // a typed line, what the tool prints for it

// Runs the lines as one piped session on a fresh board; returns the output after the
// start-up text.
inline std::string runSession(const std::vector<std::string> &lines, const EnvVars &env = {}) {
  ToolRun run;
  for (const std::string &l : lines) run.input += l + "\n";
  run.env = env;
  return tool_output(run);
}

inline void expectSession(const std::vector<Step> &steps, const EnvVars &env = {}) {
  std::vector<std::string> lines;
  std::string expected;
  for (const auto &[line, out] : steps) {
    lines.push_back(line);
    expected += out;
  }
  EXPECT_EQ(runSession(lines, env), expected);
}

// Names of the registers the register commands reach, as the transports carry them (24 bits).
struct RegName {
  uint32_t addr;
  const char *name;
};
inline constexpr RegName kRegNames[] = {
    {0xFFFF11, "INDIR_CTRL"},   {0xFFFF15, "INDIR_DATA"},  {0x180048, "PHY_ACCESS_CFG"},
    {0x18004C, "PHY_ACCESS_CMD"}, {0x180050, "PHY_ACCESS_AUX"}, {0x450040, "MDX_CFG"},
    {0x450044, "MDX_PHY_ID"},   {0x450048, "MDX_CMD"},     {0x640008, "MDX_PIN_CTL"},
    {0x4B0000, "L2_MC_LOOKUP_CTRL"},
};

// Register accesses of the I2C register transfers in a capture file, in order: "R:<name>"
// for a read, "W:<name>" for a write, blank-separated; a register without a name above
// shows its 24-bit address in hex.
inline std::string registerAccesses(const std::string &pcapPath) {
  using namespace usbio_proto;
  std::string seq;
  for (const auto &c : command_headers(pcapPath)) {
    if (c.size() < kHeader + 3 || (c[8] != kCodeI2cWrite && c[8] != kCodeI2cRead)) continue;
    const uint32_t addr = unsigned(c[24]) | unsigned(c[25]) << 8 | unsigned(c[26]) << 16;
    char hex[8];
    std::snprintf(hex, sizeof hex, "%06X", addr);
    const char *name = hex;
    for (const RegName &r : kRegNames)
      if (r.addr == addr) name = r.name;
    if (!seq.empty()) seq += ' ';
    seq += c[8] == kCodeI2cWrite ? "W:" : "R:";
    seq += name;
  }
  return seq;
}
