// In-process helpers for the engine tests: run a line through kiv_cmdProcess and capture
// what it prints on stdout.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <initializer_list>
#include <string>

#include "kiv/kiv_parser.h"

// Engine set up with one user on `root` (user flags 0xC0, depth `maxDepth`, output mode 1).
inline void engine_setUp(const kiv_group_t *root, kiv_uint32 maxDepth = 4) {
  if (kiv_init(1, 256, 256) != 0 || kiv_userInit("3100", 1, 0xC0, maxDepth, root) != 0) abort();
}

struct LineResult {
  std::string out;   // printed text
  int rc;            // kiv_cmdProcess result
  std::string buf;   // output buffer after the line
};

// Runs one line for user 0 (completion flag set when `tab`).
inline LineResult engine_run(std::string line, bool tab = false) {
  testing::internal::CaptureStdout();
  kiv_setCompletion(0, tab);
  const int rc = kiv_cmdProcess(0, line.data(), kiv_outputBuffer, KIV_OUTBUF_SIZE);
  kiv_setCompletion(0, 0);
  return {testing::internal::GetCapturedStdout(), rc, kiv_outputBuffer};
}

// One line (with the completion flag when `tab`) and what it must print (and return,
// unless kAnyRc; and leave in the output buffer, when given).
constexpr int kAnyRc = 1 << 30;
struct Step {
  std::string line, out;
  int rc = kAnyRc;
  const char *buf = nullptr;
};
inline void engine_expect(std::initializer_list<Step> steps, bool tab = false) {
  for (const Step &s : steps) {
    const LineResult r = engine_run(s.line, tab);
    EXPECT_EQ(r.out, s.out) << s.line;
    if (s.rc != kAnyRc) {
      EXPECT_EQ(r.rc, s.rc) << s.line;
    }
    if (s.buf) {
      EXPECT_EQ(r.buf, s.buf) << s.line;
    }
  }
}

// What fn prints on stdout.
template <typename Fn>
std::string captured(Fn fn) {
  testing::internal::CaptureStdout();
  fn();
  return testing::internal::GetCapturedStdout();
}
