// Cost of parsing a command line against its usage grammar. Each row's graph is compiled on
// its first parse and kept, so a line costs loading the kept graph's node records and
// walking it. BM_CompileEveryRow is the one-time cost: every row of the table compiled.
// bench/compare_parser.sh runs an earlier revision's cases side by side with these.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "internal/kivcmd/hx5200_cmd.h"
#include "kiv/kiv_ciscoParser.h"
#include "kiv/kiv_parser.h"

namespace {

constexpr kiv_uint32 kUser = 0;

void engineUp() {
  static bool up = false;
  if (up) return;
  kiv_init(1, 256, 256);
  kiv_userInit("3100", 1, 0xC0, 4, &hx5200_rootGroup);
  up = true;
}

// Sends stdout to /dev/null while a printing case runs (the report goes to stdout later).
class QuietStdout {
 public:
  QuietStdout() {
    fflush(stdout);
    saved_ = dup(STDOUT_FILENO);
    int devnull = open("/dev/null", O_WRONLY);
    dup2(devnull, STDOUT_FILENO);
    close(devnull);
  }
  ~QuietStdout() {
    fflush(stdout);
    dup2(saved_, STDOUT_FILENO);
    close(saved_);
  }

 private:
  int saved_;
};

// One line through the whole engine: tokeniser, lookup, parse, handler or help, report.
void runLine(benchmark::State &state, const char *text, bool completing) {
  engineUp();
  QuietStdout quiet;
  char line[KIV_OUTBUF_SIZE];
  for (auto _ : state) {
    strncpy(line, text, sizeof line - 1);
    line[sizeof line - 1] = '\0';
    if (completing) kiv_setCompletion(kUser, 1);
    kiv_cmdProcess(kUser, line, kiv_outputBuffer, KIV_OUTBUF_SIZE);
    if (completing) kiv_setCompletion(kUser, 0);
    benchmark::DoNotOptimize(kiv_outputBuffer[0]);
  }
}

void BM_RegSetDispatch(benchmark::State &state) { runLine(state, "reg set 0x4A180048 5", false); }
void BM_VlanIgretagSet(benchmark::State &state) { runLine(state, "vlan igretag set entry 1 2 3 4 1", false); }
void BM_SpiHelpList(benchmark::State &state) { runLine(state, "spi ?", false); }
void BM_TabCompletion(benchmark::State &state) { runLine(state, "reg getbu", true); }
void BM_RefusedToken(benchmark::State &state) { runLine(state, "reg set zz 5", false); }

// The parser alone: "reg set 0x4A180048 5" against the reg grammar, values taken, reset.
void BM_RegSetParseOnly(benchmark::State &state) {
  engineUp();
  char w0[] = "set", w1[] = "0x4A180048", w2[] = "5";
  char *argv[] = {w0, w1, w2, nullptr};
  for (auto _ : state) {
    const kiv_cmd_t *cmd = &hx5200_cmdTable[0];
    void *saved = nullptr;
    char *token = nullptr;
    kiv_int32 n = ciscoCmdParser(3, argv, &cmd, &saved, &token);
    void *value;
    kiv_uint32 size;
    for (kiv_int32 i = 0; i < n; i++) ciscoCmdGetNextToken(&value, &size, &saved);
    ciscoCmdParserReset();
    benchmark::DoNotOptimize(n);
  }
}

// Every row of the table parsed once with nothing typed, after the kept graphs were
// forgotten: what compiling the whole table costs, once per run.
void BM_CompileEveryRow(benchmark::State &state) {
  engineUp();
  char *argv[] = {nullptr};
  for (auto _ : state) {
    ciscoCmdParserForgetGraphs();
    for (const kiv_cmd_t &row : hx5200_cmdTable) {
      const kiv_cmd_t *cmd = &row;
      void *saved = nullptr;
      char *token = nullptr;
      benchmark::DoNotOptimize(ciscoCmdParser(0, argv, &cmd, &saved, &token));
      ciscoCmdParserReset();
    }
  }
  state.counters["kept"] = ciscoCmdParserKeptGraphs();
}

}  // namespace

BENCHMARK(BM_RegSetParseOnly);
BENCHMARK(BM_RegSetDispatch);
BENCHMARK(BM_VlanIgretagSet);
BENCHMARK(BM_SpiHelpList);
BENCHMARK(BM_TabCompletion);
BENCHMARK(BM_RefusedToken);
BENCHMARK(BM_CompileEveryRow);

BENCHMARK_MAIN();
