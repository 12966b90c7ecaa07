// What the flash and fault tests share: reproducible image bytes, the calibration pattern,
// and a board kept in a working directory that the tool runs against.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string>
#include <utility>

#include "tool_output.h"

// The pattern the calibration keeps at 0x40010 of the flash.
inline const std::string kCalPattern("\x99\x99\x96\x96\x3F\xCC\x66\xFC\xC0\x33\xCC\x03\xE5\xDC\x31\x62", 16);

inline std::string random_bytes(size_t n, unsigned seed) {
  std::string s(n, '\0');
  uint32_t x = seed * 2654435761u + 1;
  for (auto &c : s) c = (char)((x = x * 1103515245u + 12345u) >> 16);
  return s;
}

// A 4 MiB flash of random bytes that carries the calibration pattern, so the calibration
// before an update leaves it alone.
inline std::string random_flash(unsigned seed) {
  std::string f = random_bytes(4u << 20, seed);
  f.replace(0x40010, kCalPattern.size(), kCalPattern);
  return f;
}

// One board (state in <cwd>/sim, files in cwd) used by several runs of the tool; either
// erased or starting from the given flash image.
struct Bench {
  std::string cwd = make_temp_dir("kivflash");
  Bench() = default;
  explicit Bench(const std::string &flash) {
    mkdir((cwd + "/sim").c_str(), 0755);
    put("sim/flash.bin", flash);
  }
  // Runs the lines piped in; returns what follows the start-up text.
  std::string run(const std::string &lines, EnvVars env = {}, std::string *err = nullptr) const {
    ToolRun r;
    r.input = lines;
    r.env = std::move(env);
    r.cwd = cwd;
    r.timeoutMs = 60000;
    return tool_output(r, 0, err);
  }
  std::string flash() const { return read_file(cwd + "/sim/flash.bin"); }
  void put(const std::string &name, const std::string &content) const { write_file(cwd + "/" + name, content); }
};
