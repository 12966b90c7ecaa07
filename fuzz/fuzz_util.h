// Small helpers shared by the fuzz targets: a byte reader over the input, a scratch
// directory, and a quiet standard output (the tool prints a lot; the fuzzer reports on
// stderr).
#pragma once

#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

// Every target provides these two (libFuzzer calls them; so does the replay driver).
extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

// Stops the fuzz run at once when a property of the code under test does not hold; the
// fuzzer keeps the input that did it.
#define FUZZ_CHECK(cond)                                                              \
  do {                                                                                \
    if (!(cond)) {                                                                    \
      fprintf(stderr, "fuzz check failed: %s (%s:%d)\n", #cond, __FILE__, __LINE__); \
      abort();                                                                        \
    }                                                                                 \
  } while (0)

// Reads an input front to back; past the end every read gives zeros.
class ByteReader {
 public:
  ByteReader(const uint8_t *data, size_t size) : data_(data), size_(size) {}

  bool empty() const { return pos_ >= size_; }
  size_t left() const { return pos_ < size_ ? size_ - pos_ : 0; }

  uint8_t u8() { return pos_ < size_ ? data_[pos_++] : 0; }
  uint16_t u16() {
    const uint16_t hi = u8();
    return static_cast<uint16_t>(hi << 8 | u8());
  }
  uint32_t u32() {
    const uint32_t hi = u16();
    return hi << 16 | u16();
  }
  // Up to n bytes (fewer at the end of the input).
  size_t take(uint8_t *out, size_t n) {
    const size_t k = n < left() ? n : left();
    if (k) memcpy(out, data_ + pos_, k);
    pos_ += k;
    return k;
  }
  // The rest of the input.
  const uint8_t *rest(size_t *n) {
    *n = left();
    const uint8_t *p = data_ + (pos_ < size_ ? pos_ : size_);
    pos_ = size_;
    return p;
  }

 private:
  const uint8_t *data_;
  size_t size_;
  size_t pos_ = 0;
};

// A fresh directory under the temp directory, removed when the process exits normally;
// empty string on failure. One per process.
inline std::string fuzz_tempDir(const char *tag) {
  static std::string dir;
  if (!dir.empty()) return dir;
  // Memory-backed when possible: targets write files on every input.
  const char *base = getenv("TMPDIR");
  if (!base || !*base) base = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
  std::string tmpl = std::string(base) + "/" + tag + "-XXXXXX";
  if (!mkdtemp(tmpl.data())) return {};
  dir = tmpl;
  atexit([] {
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
  });
  return dir;
}

// Sends the tool's console output to /dev/null unless FUZZ_VERBOSE is set.
inline void fuzz_quietStdout() {
  if (getenv("FUZZ_VERBOSE")) return;
  if (!freopen("/dev/null", "w", stdout)) abort();
}
