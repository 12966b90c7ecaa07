// Fuzz target: the usage-grammar splitter, the command-graph builder and the matcher, on
// grammars made by the fuzzer. A command row whose usage is the input's first line is
// parsed with the following lines as typed tokens; then the values are handed out, the
// candidates listed and printed, and the same words run once more as a string and, as a
// typed line, through the engine's dispatcher (run, help or completion), whose completion
// rounds and error reports then work on the fuzzed grammar.
//
// Input: one flag byte, one byte for the command's own parameter type and the dispatch
// mode, the usage, then one token per line.
//
// A usage naming an unknown "%" type, or of MAX_CMD_TEMPBUFFER characters or more, stops
// the program by design: such inputs are not parsed. Other grammar mistakes that the
// parser's consistency checks stop on by design (see kExpectedStops) are caught through the
// engine's check hook and end the input quietly; any other check that fails,
// and any overrun or hang, is a finding.
#include <array>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/fuzz_util.h"
#include "kiv/kiv_assert.h"
#include "kiv/kiv_ciscoParser.h"
#include "kiv/kiv_parser.h"
#include "kiv/kiv_ciscoParserParamChecker.h"

namespace {

constexpr size_t kMaxWords = 64;
constexpr kiv_uint32 kEntries = 256;   // as many candidate entries as the dispatcher has

// ---- a command's own parameter types --------------------------------------------------
// "%port" offers a list of values (the count chosen by the input, at least one); "%go"
// accepts "go" and hands the line to another command, as a checker may.
uint8_t g_portCount = 1;
const kiv_cmd_t g_otherCmd = {"other", "other", "{ x }", nullptr, KIV_USECISCOCMDPARSER, 0, 0, 0, nullptr};

constexpr std::array<const char *, 8> kPortTexts = {"p0", "p1", "p2", "p3", "p4", "p5", "p6", "p7"};

kiv_int32 portValues(kiv_uint32 room, kiv_candEntry_t *entries) {
  if (entries == nullptr) return g_portCount;
  kiv_uint32 n = g_portCount < room ? g_portCount : room;
  for (kiv_uint32 i = 0; i < n; i++) entries[i] = {kPortTexts[i % kPortTexts.size()], "a port"};
  return static_cast<kiv_int32>(n);
}

kiv_int32 portChecker(void **slot, char *token, kiv_uint32, kiv_memaddr *redirect) {
  if (token == nullptr || token[0] != 'p') {
    *redirect = 0;
    return -1;
  }
  *slot = token;
  return 0;
}

kiv_int32 goChecker(void **slot, char *token, kiv_uint32, kiv_memaddr *redirect) {
  if (token == nullptr || strcmp(token, "go") != 0) {
    *redirect = 0;
    return -1;
  }
  *slot = token;
  *redirect = reinterpret_cast<kiv_memaddr>(&g_otherCmd);
  return 0;
}

const std::array<kiv_paramType_t, 2> kOwnTypes = {{
    {"%port", 0, portChecker, portValues, "A port of the list"},
    {"%go", 0, goChecker, nullptr, "Hands over to another command"},
}};

// ---- stops by design -------------------------------------------------------------------

// Consistency checks that a grammar mistake trips by design: repeaters without bounds
// text, value slots or items beyond the parser's buffers, broken option runs, and a graph
// with a dead end after an accepted word.
constexpr std::array<std::string_view, 7> kExpectedStops = {
    "repeater!=NULL",
    "nodeIndex&&!_nodes[nodeIndex].node",
    "ps->top>=0",
    "totalNodes >0 && totalNodes <MAX_TOKENS",
    "_tempBufferUsed+size<=MAX_CMD_TEMPBUFFER",
    "_candidate.count",
    "thisNode->paramType!=NULL",
};

struct ConsistencyStop {};

// True when the usage is one the parser is meant to take at all.
bool buildable(const std::string &usage, const kiv_cmd_t &cmd) {
  if (usage.size() >= MAX_CMD_TEMPBUFFER) return false;
  // Every "%" item (after an optional repeater) must name a known type.
  for (size_t pos = usage.find('%'); pos != std::string::npos; pos = usage.find('%', pos + 1)) {
    const char before = pos ? usage[pos - 1] : ' ';
    if (before != ' ' && before != ')' && before != '\'') continue;   // inside a word or a help text
    const size_t end = usage.find_first_of(" '", pos);
    const std::string name = usage.substr(pos, end == std::string::npos ? std::string::npos : end - pos);
    if (kiv_findParamType(&cmd, name.c_str()) == nullptr) return false;
  }
  return true;
}

// ---- running ---------------------------------------------------------------------------

// Hands out every value along a saved path, as a handler does; returns how many came.
kiv_int32 drain(void *saved, kiv_int32 limit) {
  kiv_int32 got = 0;
  void *value = nullptr;
  kiv_uint32 size = 0;
  while (got <= limit && ciscoCmdGetNextToken(&value, &size, &saved) == 0) {
    FUZZ_CHECK(value != nullptr);
    // Texts come with size 0 (or a repeated keyword's length the first time); numbers and
    // addresses are read whole.
    std::array<uint8_t, 8> copy{};
    if (size == 0)
      (void)strlen(static_cast<const char *>(value));
    else
      memcpy(copy.data(), value, size < copy.size() ? size : copy.size());
    got++;
  }
  return got;
}

// The rows of one input: built for each parse, or kept. The engine's root group for the
// dispatch mode has one row, refilled for every input (the engine keeps its graph).
kiv_cmd_t g_plainRow, g_keptRow;
kiv_cmd_t g_dispatchRow;
const kiv_group_t g_dispatchRoot = {"FUZZ", "fuzzed grammars", nullptr, &g_dispatchRow, nullptr, 1, 0, 0};

kiv_int32 g_handlerValues = -1;
kiv_int32 recordingHandler(kiv_uint32, kiv_int32 argc, void **argv) {
  g_handlerValues = drain(*argv, argc);
  return 0;
}

void listAndShow() {
  std::array<kiv_candEntry_t, kEntries> entries{};
  const kiv_uint32 n = ciscoCmdParserListCandidates(entries.data(), kEntries);
  FUZZ_CHECK(n <= kEntries);
  for (kiv_uint32 i = 0; i < n; i++) {
    FUZZ_CHECK(entries[i].text != nullptr);
    (void)strlen(entries[i].text);
  }
  if (n > 0) ciscoCmdParserShowHelp(entries.data(), n);
}

void exercise(const kiv_cmd_t &row, uint8_t flags, std::vector<std::vector<char>> &words, std::vector<char *> &argv,
              kiv_int32 argc);
void dispatch(const kiv_cmd_t &row, const std::vector<std::vector<char>> &words, uint8_t mode);
void consistencyHook(const char *file, const char *func, int line, const char *cond);

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  fuzz_quietStdout();
  kiv_assertHookSet(consistencyHook);
  ciscoCmdParserSetOutputMode(1);
  if (kiv_init(1, 256, 256) != 0) abort();
  if (kiv_userInit("3100", 1, 0xC0, 4, &g_dispatchRoot) != 0) abort();
  ciscoCmdParserKeepRows(&g_keptRow, 1);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  ByteReader in(data, size);
  const uint8_t flags = in.u8();
  const uint8_t typeByte = in.u8();
  g_portCount = static_cast<uint8_t>(1 + (typeByte & 0x3F) % 12);
  size_t n = 0;
  const char *text = reinterpret_cast<const char *>(in.rest(&n));
  std::string_view rest(text, n);
  rest = rest.substr(0, rest.find('\0'));

  const size_t nl = rest.find('\n');
  // The usage lives in a buffer of its exact size, so that reading past it is caught.
  const std::string usageText(rest.substr(0, nl));
  std::vector<char> usage(usageText.begin(), usageText.end());
  usage.push_back('\0');
  rest = nl == std::string_view::npos ? std::string_view() : rest.substr(nl + 1);

  std::vector<std::vector<char>> words;
  while (!rest.empty() && words.size() < kMaxWords) {
    const size_t e = rest.find('\n');
    const std::string_view w = rest.substr(0, e);
    words.emplace_back(w.begin(), w.end());
    words.back().push_back('\0');
    rest = e == std::string_view::npos ? std::string_view() : rest.substr(e + 1);
  }
  std::vector<char *> argv;
  for (auto &w : words) argv.push_back(w.data());
  argv.push_back(nullptr);
  const kiv_int32 argc = static_cast<kiv_int32>(words.size());

  const bool ownTypes = flags & 1;
  // Flag 2: the row's graph is kept (compiled once, loaded for every later parse of this
  // input) instead of built for each parse.
  ciscoCmdParserForgetGraphs();
  kiv_cmd_t &row = (flags & 2) ? g_keptRow : g_plainRow;
  row = {"t",
                         "fuzzed",
                         usage.data(),
                         recordingHandler,
                         static_cast<kiv_uint16>(KIV_USECISCOCMDPARSER | KIV_PARAMTABLE_FLAGS(ownTypes ? 2 : 0)),
                         0,
                         0,
                         0,
                         ownTypes ? kOwnTypes.data() : nullptr};
  if (!buildable(usageText, row)) return 0;

  try {
    exercise(row, flags, words, argv, argc);
  } catch (const ConsistencyStop &) {
  }
  ciscoCmdParserReset();
  if (flags & 128) {
    try {
      dispatch(row, words, typeByte >> 6);
    } catch (const ConsistencyStop &) {
    }
    ciscoCmdParserReset();
  }
  return 0;
}

namespace {

void exercise(const kiv_cmd_t &row, uint8_t flags, std::vector<std::vector<char>> &words, std::vector<char *> &argv,
              kiv_int32 argc) {
  const kiv_cmd_t *cmd = &row;
  void *saved = nullptr;
  char *token = nullptr;
  const kiv_int32 r = ciscoCmdParser(argc, argv.data(), &cmd, &saved, &token);
  FUZZ_CHECK(r <= argc);
  FUZZ_CHECK(r >= -(argc + 1));
  if (cmd != &row) {
    // Only the hand-over type may redirect, and only with its own target.
    FUZZ_CHECK(row.paramTypes != nullptr && cmd == &g_otherCmd && r > 0);
  } else if (r > 0) {
    if (flags & 4) {
      // Help after complete tokens: up to the last accepted node, then what may follow.
      void *path = saved;
      void *value = nullptr;
      kiv_uint32 sz = 0;
      for (kiv_int32 i = 0; i < r - 1; i++) FUZZ_CHECK(ciscoCmdGetNextToken(&value, &sz, &path) == 0);
      ciscoCmdParserGetCandidate(ciscoCmdParserPathNodeIndex(path), nullptr);
      listAndShow();
    } else {
      // A handler receives exactly one value per accepted token.
      FUZZ_CHECK(drain(saved, r) == r);
    }
  } else if (r < 0) {
    listAndShow();
  }
  if (flags & 8) {
    ciscoCmdParserGetRootCandidate();
    listAndShow();
  }
  ciscoCmdParserReset();

  if (flags & 16) ciscoCmdPrintSynopsis(flags & 32 ? "title" : nullptr, row.cmdUsage);
  if (flags & 64) {
    // The same words once more through the string runner, which parses and calls the
    // handler itself.
    std::string line;
    for (auto &w : words) {
      line += w.data();
      line += ' ';
    }
    std::vector<char> buf(line.begin(), line.end());
    buf.push_back('\0');
    g_handlerValues = -1;
    const kiv_int32 rr = ciscoCmdRunString(buf.data(), &row, " ");
    if (rr > 0 && g_handlerValues >= 0) FUZZ_CHECK(g_handlerValues == rr);
  }
}

// The words as one typed line after the command word, through kiv_cmdProcess: mode 0 runs
// it, 1 asks for help on what follows ("?"), 2 asks for completion (Tab), 3 help on the
// last word ("word?").
void dispatch(const kiv_cmd_t &row, const std::vector<std::vector<char>> &words, uint8_t mode) {
  g_dispatchRow = row;
  std::string line = "t";
  for (const auto &w : words) {
    if (line.size() + w.size() + 2 > KIV_OUTBUF_SIZE - 2) break;
    line += ' ';
    line += w.data();
  }
  if (mode == 1) line += " ?";
  if (mode == 3) line += '?';
  std::vector<char> buf(line.begin(), line.end());
  buf.push_back('\0');
  if (mode == 2) kiv_setCompletion(0, 1);
  kiv_cmdProcess(0, buf.data(), kiv_outputBuffer, KIV_OUTBUF_SIZE);
  kiv_setCompletion(0, 0);
  FUZZ_CHECK(strnlen(kiv_outputBuffer, KIV_OUTBUF_SIZE) < KIV_OUTBUF_SIZE);
}

// Hook of the engine's consistency checks: a stop by design ends the input, any other is
// reported like a crash.
void consistencyHook(const char *file, const char *func, int line, const char *cond) {
  for (std::string_view expected : kExpectedStops)
    if (expected == cond) throw ConsistencyStop{};
  fprintf(stderr, "\n%s:%s:%d:'%s'\n", file, func, line, cond);
}

}  // namespace
