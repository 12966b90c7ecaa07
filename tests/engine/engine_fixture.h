// In-process helpers for the engine tests: run a line through kiv_cmdProcess and capture
// what it prints on stdout.
#pragma once

#include <string>

#include "kiv/kiv_parser.h"

// Captures stdout (file descriptor 1) between construction and take().
class StdoutCapture {
 public:
  StdoutCapture();
  ~StdoutCapture();
  std::string take();

 private:
  int saved_ = -1;
  int file_ = -1;
  bool done_ = false;
};

// Engine set up with one user on `root` (user flags 0xC0, depth 4, output mode 1).
void engine_setUp(const kiv_group_t *root, kiv_uint32 maxDepth = 4);

struct LineResult {
  std::string out;   // printed text
  int rc;            // kiv_cmdProcess result
  std::string buf;   // output buffer after the line
};

// Runs one line for user 0 (completion flag set when `tab`).
LineResult engine_run(const std::string &line, bool tab = false);
