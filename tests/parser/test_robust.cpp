// Consistency checks, bounded buffers, termination on cyclic grammars and the equivalence
// of the cheap clearing with clearing everything.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>

#include <algorithm>
#include <random>

#include "parser_fixture.h"

using Robust = ParserTest;

TEST_F(Robust, ConsistencyChecksReportFunctionAndCondition) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_PARSER_ASSERT(parse("k %bogus"), "_createParamNode", "thisNode->paramType!=NULL");
  EXPECT_PARSER_ASSERT(parse(nullptr), "_splitCmdFormatTokens", "_thisCommand->cmdUsage!=NULL");
  static const std::string longUsage(MAX_CMD_TEMPBUFFER, 'a');
  EXPECT_PARSER_ASSERT(parse(longUsage.c_str()), "_splitCmdFormatTokens",
                       "strlen(_thisCommand->cmdUsage)<MAX_CMD_TEMPBUFFER");
  EXPECT_PARSER_ASSERT(parse("k ( x"), "_createCommandGraph", "repeater!=NULL");
  EXPECT_PARSER_ASSERT(ciscoCmdParser(0, nullptr, nullptr, nullptr, nullptr), "ciscoCmdParser",
                       "thisCmd && *thisCmd && savedData");
  EXPECT_PARSER_ASSERT(ciscoCmdParserShowHelp(nullptr, 1), "ciscoCmdParserShowHelp", "list && totalEntries>0");
  EXPECT_PARSER_ASSERT(ciscoCmdGetNextToken(nullptr, nullptr, nullptr), "ciscoCmdGetNextToken", "nextToken && size");
  EXPECT_PARSER_ASSERT(ciscoCmdPrintSynopsis("t", nullptr), "ciscoCmdPrintSynopsis", "cmdUsage!=NULL");
  // a line that ends where nothing can follow and the end is out of reach
  EXPECT_PARSER_ASSERT(parse("a { }", {"a"}), "_processUserCommand", "_candidate.count");
}

TEST_F(Robust, OversizedGrammarsAreRefusedNotOverrun) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  // 2046 keywords + "<cr>" + root reach MAX_TOKENS nodes; 3000 would overrun the arrays.
  for (int words : {2046, 3000}) {
    std::string usage;
    for (int i = 0; i < words; i++) usage += "a ";
    EXPECT_PARSER_ASSERT(parse(usage.c_str()), "ciscoCmdParser", "totalNodes >0 && totalNodes <MAX_TOKENS");
  }
  std::string fits;
  for (int i = 0; i < 2045; i++) fits += "a ";
  EXPECT_EQ(parse(fits.c_str()), -1);
  EXPECT_EQ(ciscoCmdParserNodeUsed(), 2046u);

  static const kiv_paramType_t big[] = {{"%big", 3000, kiv_checkDynCmdParam_String, nullptr, "big"}};
  EXPECT_EQ(parse("%big %big", {}, big, 1), -1);
  EXPECT_PARSER_ASSERT(parse("%big %big %big", {}, big, 1), "_createCommandGraph",
                       "_tempBufferUsed+size<=MAX_CMD_TEMPBUFFER");
}

// Fills its whole value area.
static kiv_int32 fillChecker(void **slot, char *, kiv_uint32 maxSize, kiv_memaddr *) {
  memset(*slot, 0x5A, maxSize);
  return (kiv_int32)maxSize;
}

TEST_F(Robust, RepeatedValuesThatWouldOverflowTheValueBufferRefuseTheToken) {
  static const kiv_paramType_t big[] = {{"%big", 1000, fillChecker, nullptr, "big"}};
  std::vector<std::string> words(20, "7");
  kiv_int32 n = parse("(1~255)%big", words, big, 1);
  // slot 1000, each later value 1004: seven values fit into 8000 bytes, the eighth not
  EXPECT_EQ(n, -8);
  EXPECT_STREQ(token_, "7");
  EXPECT_LE(ciscoCmdParserTempBufferUsed(), (kiv_uint32)MAX_CMD_TEMPBUFFER);
}

// Runs fn in a child with a time limit; returns the child's wait status.
template <class F>
static int runLimited(F fn, unsigned seconds = 10) {
  fflush(stdout);
  pid_t pid = fork();
  if (pid == 0) {
    alarm(seconds);
    int devnull = open("/dev/null", O_WRONLY);
    dup2(devnull, STDOUT_FILENO);
    _exit(fn() ? 0 : 3);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return status;
}

TEST_F(Robust, CyclicGrammarsTerminate) {
  const char *grammars[] = {"[ ] [ ]",        "[ ] [ ] x",   "(2~3){ a }",  "(2~3){ }",    "(1~2)[ x ]",
                            "(1~2)[ ] (1~2)[ ]", "[ [ ] ]",  "(1~2)} x",    "| | x",       "] ] [ a",
                            "{ (2~3)[ | ] }", "(1~2){ (1~2){ a } }", "[ x ] [ (1~2)[ y ] ]"};
  for (const char *g : grammars) {
    int status = runLimited([this, g] {
      for (auto words : {std::vector<std::string>{}, {"a"}, {"x", "y"}, {"x", "x", "x"}}) {
        parse(g, words);
        cands();
      }
      return true;
    });
    // a grammar may legitimately stop at a consistency check (abort); it must not hang or crash
    EXPECT_TRUE((WIFEXITED(status) && WEXITSTATUS(status) == 0) || (WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT))
        << g << " status " << status;
  }
}

namespace {
struct Snapshot {
  kiv_int32 result = 0;
  std::string token;
  std::vector<std::string> nodes;
  std::vector<kiv_uint32> links;
  std::vector<kiv_uint32> cand;
  bool operator==(const Snapshot &) const = default;
};

std::string describe(const kiv_parseNode_t &n) {
  char buf[160];
  snprintf(buf, sizeof buf, "%d%d%d%d%d%d%d%d r%d len%u p%u n%u g%u rc%u min%u max%u rd%u t%p h%p", n.node,
           n.isKeyword, n.isParam, n.isGroupStart, n.isGroupEnd, n.isOptionStart, n.isAlternative, n.endCommand,
           n.repeat, n.len, n.prevIndex, n.nextIndex, n.groupIndex, n.repeatCount, n.min_repeat, n.max_repeat,
           n.readCount, n.isParam ? nullptr : n.text, static_cast<const void *>(n.help));
  return buf;
}
// Candidate walk written plainly from the graph as the parser exposes it: every column of
// every row, recursing through pass-through nodes (a visited set only guards cycles).
void plainCandidates(kiv_uint32 a, std::vector<bool> &visited, std::vector<kiv_uint32> &list) {
  const kiv_uint32 used = ciscoCmdParserNodeUsed();
  auto onPath = [](kiv_uint32 j) {
    for (kiv_uint32 k = ciscoCmdParserNode(0)->nextIndex, steps = 0; k && steps < MAX_TOKENS; steps++) {
      if (k == j) return true;
      k = ciscoCmdParserNode(k)->nextIndex;
    }
    return false;
  };
  visited[a] = true;
  for (kiv_uint32 j = 0; j <= used; j++) {
    if (!ciscoCmdParserLinked(a, j)) continue;
    const kiv_parseNode_t &n = *ciscoCmdParserNode(j);
    if (!(n.isKeyword || n.isParam || n.endCommand)) {
      if (j == a) j++;
      if (j <= used && !visited[j]) plainCandidates(j, visited, list);
      continue;
    }
    if (j == a ? !(n.repeat && n.repeatCount < n.max_repeat) : onPath(j)) continue;
    if (std::find(list.begin(), list.end(), j) == list.end()) list.push_back(j);
    if (n.repeat && n.repeatCount < n.min_repeat) break;
  }
}
}  // namespace

// The cheap clearing must give exactly what clearing everything gives, also after a larger
// grammar left links and records behind.
TEST_F(Robust, CheapClearingMatchesFullClearingOnRandomGrammars) {
  static const char *pieces[] = {"[", "]", "{", "}", "|", "a", "b", "%d", "(1~2)a", "(2~3){", "(1~2)[", "(2~3)%d", "<x>"};
  std::mt19937 rng(20240611);
  const std::vector<std::vector<std::string>> lines = {{}, {"a"}, {"b", "1"}, {"1", "2", "a"}, {"a", "a", "b"}};
  int clean = 0;
  for (int round = 0; round < 150; round++) {
    std::string g;
    int len = 1 + (int)(rng() % 12);
    for (int i = 0; i < len; i++) g += std::string(pieces[rng() % (sizeof pieces / sizeof *pieces)]) + " ";
    int status = runLimited([this, g, &lines] {
      for (const auto &words : lines) {
        Snapshot snap[2];
        for (int full = 0; full < 2; full++) {
          ciscoCmdParserSetFullClear(full != 0);
          parse("x { y [ z ] | w } (1~3)%d [ a ] [ b ] { c | d | e | f | g | h | i | j | k }", {"y", "z"});
          Snapshot &s = snap[full];
          s.result = parse(g.c_str(), words);
          s.token = token_ ? token_ : "";
          kiv_uint32 total = ciscoCmdParserNodeUsed() + 1;
          for (kiv_uint32 i = 0; i < total; i++) s.nodes.push_back(describe(node(i)));
          for (kiv_uint32 a = 0; a < 128; a++)
            for (kiv_uint32 b = 0; b < 128; b++)
              if (linked(a, b)) {
                if (a >= total || b >= total) return false;   // stale link outside the graph
                s.links.push_back(a * 4096 + b);
              }
          const kiv_candidateList_t *c = ciscoCmdParserCandidates();
          s.cand.assign(c->index, c->index + c->count);
          // the parser's walk from every node gives what the plain walk gives
          for (kiv_uint32 k = 0; k < total; k++) {
            std::vector<bool> visited(total + 1);
            std::vector<kiv_uint32> plain;
            plainCandidates(k, visited, plain);
            ciscoCmdParserGetCandidate(k, nullptr);
            if (std::vector<kiv_uint32>(c->index, c->index + c->count) != plain) return false;
          }
        }
        if (!(snap[0] == snap[1])) return false;
      }
      return true;
    });
    bool ok = WIFEXITED(status) && WEXITSTATUS(status) == 0;
    clean += ok;
    EXPECT_TRUE(ok || (WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT)) << "grammar '" << g << "' status " << status;
  }
  EXPECT_GT(clean, 100);   // most random grammars run through without a consistency stop
}
