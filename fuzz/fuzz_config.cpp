// Fuzz target: the reader of the configuration file "kivcfg.txt". The input is written as
// the file in a scratch working directory and read with kiv_loadConfig, as at start-up.
#include <unistd.h>

#include <cstdio>

#include "access/access.h"
#include "fuzz/fuzz_util.h"
#include "shell/kivshell.h"

namespace {

// The reader keeps its file open for the life of the process, as the tool does; here the
// harness closes each one after the read so that thousands of reads do not run out of
// descriptors.
FILE *g_opened = nullptr;

FILE *trackingFopen(const char *path, const char *mode) {
  g_opened = fopen(path, mode);
  return g_opened;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  fuzz_quietStdout();
  const std::string dir = fuzz_tempDir("kivfuzz-cfg");
  if (dir.empty() || chdir(dir.c_str()) != 0) abort();
  platform_fopen_set(trackingFopen);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  FILE *f = fopen("kivcfg.txt", "wb");
  if (!f) abort();
  if (size && fwrite(data, 1, size, f) != size) abort();
  fclose(f);

  access_if_set(ACCESS_IF_I2C);
  i2caddrid = 4;
  mdcaddrid = 24;
  kiv_loadConfig();
  if (g_opened) {
    fclose(g_opened);
    g_opened = nullptr;
  }

  // The file can only choose I2C, SMI or SPI, and the I2C id keeps three bits.
  FUZZ_CHECK(access_if <= ACCESS_IF_SPI);
  FUZZ_CHECK(i2caddrid <= 7);
  return 0;
}
