// Replay driver for the fuzz targets in the ordinary (g++) build: runs every file of a
// seed directory through the target, then a fixed number of pseudo-random mutations of
// those seeds. The mutations come from a fixed-seed generator, so every run of the test
// feeds the same inputs. A failing property aborts the process, as under libFuzzer.
//
//   fuzz_replay_<target> <seed dir> [mutations] [seed]
#include <dirent.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "fuzz/fuzz_util.h"

namespace {

using Bytes = std::vector<uint8_t>;

// xorshift64*: small, fast and the same on every machine.
struct Rng {
  uint64_t s;
  uint64_t next() {
    s ^= s >> 12;
    s ^= s << 25;
    s ^= s >> 27;
    return s * 0x2545F4914F6CDD1DULL;
  }
  size_t below(size_t n) { return n ? static_cast<size_t>(next() % n) : 0; }
};

std::vector<Bytes> loadSeeds(const std::string &dir) {
  std::vector<std::string> names;
  if (DIR *d = opendir(dir.c_str())) {
    while (dirent *e = readdir(d))
      if (e->d_name[0] != '.') names.emplace_back(e->d_name);
    closedir(d);
  }
  std::sort(names.begin(), names.end());   // directory order is not stable
  std::vector<Bytes> seeds;
  for (const std::string &n : names) {
    std::ifstream f(dir + "/" + n, std::ios::binary);
    seeds.emplace_back(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
  }
  return seeds;
}

// Byte-level mutations in the spirit of libFuzzer's: flips, replacements with
// interesting values, inserts, erases, duplicated runs and splices with another seed.
Bytes mutate(const Bytes &base, const std::vector<Bytes> &seeds, Rng &rng) {
  static constexpr uint8_t kInteresting[] = {0x00, 0x01, 0x7F, 0x80, 0xFF, 0xAA, 0xAB, 0xBA,
                                             0xCA, 0xAC, '0',  '9',  ' ',  '\'', '{',  '}',
                                             '[',  ']',  '|',  '%',  '(',  '~',  ')',  '?',
                                             '-',  ',',  '.',  ':',  'x',  '\n', '\t', '"'};
  Bytes b = base;
  const size_t steps = 1 + rng.below(4);
  for (size_t i = 0; i < steps; i++) {
    switch (rng.below(7)) {
      case 0:
        if (!b.empty()) b[rng.below(b.size())] ^= static_cast<uint8_t>(1u << rng.below(8));
        break;
      case 1:
        if (!b.empty()) b[rng.below(b.size())] = kInteresting[rng.below(sizeof kInteresting)];
        break;
      case 2:
        b.insert(b.begin() + static_cast<long>(rng.below(b.size() + 1)),
                 kInteresting[rng.below(sizeof kInteresting)]);
        break;
      case 3:
        if (!b.empty()) {
          const size_t at = rng.below(b.size());
          const size_t n = std::min(b.size() - at, 1 + rng.below(8));
          b.erase(b.begin() + static_cast<long>(at), b.begin() + static_cast<long>(at + n));
        }
        break;
      case 4:
        if (!b.empty()) {
          const size_t at = rng.below(b.size());
          const size_t n = std::min(b.size() - at, 1 + rng.below(16));
          const Bytes run(b.begin() + static_cast<long>(at), b.begin() + static_cast<long>(at + n));
          b.insert(b.begin() + static_cast<long>(rng.below(b.size() + 1)), run.begin(), run.end());
        }
        break;
      case 5:
        if (!b.empty()) b[rng.below(b.size())] = static_cast<uint8_t>(rng.next());
        break;
      default: {
        const Bytes &other = seeds[rng.below(seeds.size())];
        if (other.empty()) break;
        const size_t from = rng.below(other.size());
        const size_t n = std::min(other.size() - from, 1 + rng.below(32));
        b.insert(b.begin() + static_cast<long>(rng.below(b.size() + 1)), other.begin() + static_cast<long>(from),
                 other.begin() + static_cast<long>(from + n));
        break;
      }
    }
  }
  if (b.size() > 4096) b.resize(4096);
  return b;
}

// The input being run, shown in hex on stderr when the target aborts.
const Bytes *g_current = nullptr;

void showInputOnAbort(int sig) {
  static const char kHex[] = "0123456789abcdef";
  static const char kHead[] = "\nreplay: input that failed (hex):\n";
  if (write(2, kHead, sizeof kHead - 1) < 0) _exit(128 + sig);
  if (g_current) {
    for (uint8_t c : *g_current) {
      const char pair[2] = {kHex[c >> 4], kHex[c & 15]};
      if (write(2, pair, 2) < 0) break;
    }
  }
  if (write(2, "\n", 1) < 0) _exit(128 + sig);
  signal(sig, SIG_DFL);
  raise(sig);
}

void runOne(const Bytes &b) {
  // Hand over a copy of exactly the input's size, as libFuzzer does.
  std::vector<uint8_t> copy(b);
  g_current = &b;
  LLVMFuzzerTestOneInput(copy.empty() ? nullptr : copy.data(), copy.size());
  g_current = nullptr;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc < 2) {
    fprintf(stderr, "usage: %s <seed dir> [mutations] [seed]\n", argv[0]);
    return 2;
  }
  const std::string dir = argv[1];
  const size_t mutations = argc > 2 ? strtoul(argv[2], nullptr, 0) : 3000;
  Rng rng{argc > 3 ? strtoull(argv[3], nullptr, 0) : 0x6B69767475ULL};
  if (rng.s == 0) rng.s = 1;

  // Seeds first: a target may change the working directory when it starts.
  std::vector<Bytes> seeds = loadSeeds(dir);
  if (seeds.empty()) {
    fprintf(stderr, "no seeds in %s\n", dir.c_str());
    return 2;
  }
  signal(SIGABRT, showInputOnAbort);
  signal(SIGSEGV, showInputOnAbort);
  LLVMFuzzerInitialize(&argc, &argv);

  const auto t0 = std::chrono::steady_clock::now();
  // FUZZ_TIMING=1 shows what each seed costs.
  const bool timing = getenv("FUZZ_TIMING") != nullptr;
  for (size_t i = 0; i < seeds.size(); i++) {
    const auto s0 = std::chrono::steady_clock::now();
    runOne(seeds[i]);
    if (timing)
      fprintf(stderr, "seed %zu: %.2f ms\n", i,
              std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - s0).count());
  }
  runOne({});
  for (size_t i = 0; i < mutations; i++) runOne(mutate(seeds[rng.below(seeds.size())], seeds, rng));
  const double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  fprintf(stderr, "%zu seeds and %zu mutations replayed in %.2f s\n", seeds.size(), mutations, secs);
  return 0;
}
