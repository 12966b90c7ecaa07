// Runs a command line through the engine with its console output thrown away, for the
// benchmarks that time or count whole commands.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "kiv/kiv_parser.h"

inline void run_line(kiv_uint32 uid, const std::string &text) {
  std::vector<char> line(text.begin(), text.end());
  line.push_back('\0');
  std::fflush(stdout);
  const int keep = dup(1), devnull = open("/dev/null", O_WRONLY);
  dup2(devnull, 1);
  kiv_cmdProcess(uid, line.data(), kiv_outputBuffer, KIV_OUTBUF_SIZE);
  std::fflush(stdout);
  dup2(keep, 1);
  close(keep);
  close(devnull);
}
