#include "engine_fixture.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

StdoutCapture::StdoutCapture() {
  fflush(stdout);
  char path[] = "/tmp/kivengineXXXXXX";
  file_ = mkstemp(path);
  unlink(path);
  saved_ = dup(1);
  dup2(file_, 1);
}

std::string StdoutCapture::take() {
  if (done_) return {};
  done_ = true;
  fflush(stdout);
  dup2(saved_, 1);
  close(saved_);
  std::string out;
  lseek(file_, 0, SEEK_SET);
  char buf[4096];
  for (ssize_t n; (n = read(file_, buf, sizeof buf)) > 0;) out.append(buf, static_cast<size_t>(n));
  close(file_);
  return out;
}

StdoutCapture::~StdoutCapture() { take(); }

void engine_setUp(const kiv_group_t *root, kiv_uint32 maxDepth) {
  if (kiv_init(1, 256, 256) != 0) abort();
  if (kiv_userInit("3100", 1, 0xC0, maxDepth, root) != 0) abort();
}

LineResult engine_run(const std::string &line, bool tab) {
  std::vector<char> copy(line.begin(), line.end());
  copy.push_back('\0');
  StdoutCapture cap;
  if (tab) kiv_setCompletion(0, 1);
  const int rc = kiv_cmdProcess(0, copy.data(), kiv_outputBuffer, KIV_OUTBUF_SIZE);
  if (tab) kiv_setCompletion(0, 0);
  LineResult r{cap.take(), rc, kiv_outputBuffer};
  return r;
}
