// Consistency checks, bounded buffers, termination on cyclic grammars, and the equivalence
// of a kept (compiled once) graph and the candidate walk with a fresh build and a plain walk.
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
  // a line that ends where nothing can follow and the end is out of reach
  EXPECT_PARSER_ASSERT(parse("a { }", {"a"}), "_processUserCommand", "_candidate.count");
}

// Fills its whole value area.
static kiv_int32 fillChecker(void **slot, char *, kiv_uint32 maxSize, kiv_memaddr *) {
  memset(*slot, 0x5A, maxSize);
  return (kiv_int32)maxSize;
}

TEST_F(Robust, OversizedGrammarsAndValuesAreRefusedNotOverrun) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  // 2045 keywords + "<cr>" + root fit; 2046 reach MAX_TOKENS nodes; 3000 exceed every array.
  std::string usage;
  for (int i = 0; i < 2045; i++) usage += "a ";
  EXPECT_EQ(parse(usage.c_str()), -1);
  for (int extra : {1, 955}) {
    std::string more = usage + std::string(2 * extra, ' ');
    for (int i = 0; i < extra; i++) more[usage.size() + 2 * i] = 'a';
    EXPECT_PARSER_ASSERT(parse(more.c_str()), "ciscoCmdParser", "totalNodes >0 && totalNodes <MAX_TOKENS");
  }
  static const kiv_paramType_t big[] = {{"%big", 3000, fillChecker, nullptr, "big"}};
  EXPECT_EQ(parse("%big %big", {}, big, 1), -1);
  EXPECT_PARSER_ASSERT(parse("%big %big %big", {}, big, 1), "_createCommandGraph",
                       "_tempBufferUsed+size<=MAX_CMD_TEMPBUFFER");

  // Repeated values: slot 1000, each later value 1004 bytes; the eighth does not fit.
  static const kiv_paramType_t k1000[] = {{"%big", 1000, fillChecker, nullptr, "big"}};
  EXPECT_EQ(parse("(1~255)%big", S(20, "7"), k1000, 1), -8);
  EXPECT_LE(ciscoCmdParserTempBufferUsed(), (kiv_uint32)MAX_CMD_TEMPBUFFER);
}

namespace {
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

// A node record with its texts by content (a kept graph has its own copy of them); typed
// text values live in each parse's own words and are left out.
std::string describe(const kiv_parseNode_t &c) {
  const kiv_uint16 f[] = {c.len, c.prevIndex, c.nextIndex, c.groupIndex, c.repeatCount, c.min_repeat, c.max_repeat, c.readCount};
  const char *text = c.isParam || !c.text ? "-" : static_cast<const char *>(c.text);
  return std::string(reinterpret_cast<const char *>(&c), 2) + std::string(reinterpret_cast<const char *>(f), sizeof f) +
         text + "/" + (c.help ? c.help : "-") + "/" + std::to_string(c.paramType != nullptr);
}

// Everything one parse leaves behind; false when a link lies outside the graph or the
// parser's candidate walk from some node differs from the plain walk.
bool snapshot(kiv_int32 result, S &out) {
  kiv_uint32 total = ciscoCmdParserNodeUsed() + 1;
  out.push_back(std::to_string(result));
  for (kiv_uint32 i = 0; i < total; i++) out.push_back(describe(*ciscoCmdParserNode(i)));
  for (kiv_uint32 a = 0; a < 128; a++)
    for (kiv_uint32 b = 0; b < 128; b++)
      if (ciscoCmdParserLinked(a, b)) {
        if (a >= total || b >= total) return false;
        out.push_back(std::to_string(a) + ">" + std::to_string(b));
      }
  const kiv_candidateList_t *c = ciscoCmdParserCandidates();
  for (kiv_uint32 i = 0; i < c->count; i++) out.push_back("c" + std::to_string(c->index[i]));
  for (kiv_uint32 k = 0; k < total; k++) {
    std::vector<bool> visited(total + 1);
    std::vector<kiv_uint32> plain;
    plainCandidates(k, visited, plain);
    ciscoCmdParserGetCandidate(k, nullptr);
    if (std::vector<kiv_uint32>(c->index, c->index + c->count) != plain) return false;
  }
  return true;
}

// Runs fn in a child with a time limit; true when it finished well or stopped at a
// consistency check (abort), false when it hung, crashed or returned false.
template <class F>
bool runLimited(F fn, int *cleanRuns) {
  fflush(stdout);
  pid_t pid = fork();
  if (pid == 0) {
    alarm(10);
    dup2(open("/dev/null", O_WRONLY), STDOUT_FILENO);
    _exit(fn() ? 0 : 3);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  bool clean = WIFEXITED(status) && WEXITSTATUS(status) == 0;
  *cleanRuns += clean;
  return clean || (WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT);
}
}  // namespace

// Cyclic grammars (self-linked "{" and "[" repeaters, runs of empty options) must terminate;
// random grammars must give the same graph, result and candidates from their kept graph,
// reused after other lines and another grammar walked it, as from a fresh build.
TEST_F(Robust, CyclicAndRandomGrammarsTerminateAndKeptGraphsMatchFreshBuilds) {
  std::vector<std::string> grammars = {"[ ] [ ]",   "[ ] [ ] x",  "(2~3){ a }",        "(2~3){ }",
                                       "(1~2)[ x ]", "[ [ ] ]",   "(1~2)[ ] (1~2)[ ]", "| | x",
                                       "] ] [ a",   "(1~2)} x",   "{ (2~3)[ | ] }",    "[ x ] [ (1~2)[ y ] ]"};
  static const char *pieces[] = {"[", "]", "{", "}", "|", "a", "b", "%d", "(1~2)a", "(2~3){", "(1~2)[", "(2~3)%d", "<x>"};
  std::mt19937 rng(20240611);
  while (grammars.size() < 160) {
    std::string g;
    for (int i = 0, len = 1 + (int)(rng() % 12); i < len; i++) g += std::string(pieces[rng() % 13]) + " ";
    grammars.push_back(g);
  }
  const std::vector<S> lines = {{}, {"a"}, {"b", "1"}, {"1", "2", "a"}, {"a", "a", "b"}, {"x", "y"}};
  int clean = 0;
  for (const std::string &g : grammars) {
    bool ok = runLimited([this, &g, &lines] {
      for (const auto &words : lines) {
        S snap[2];
        for (int keep = 0; keep < 2; keep++) {
          if (keep) parse(g.c_str(), words, nullptr, 0, true);
          parse("x { y [ z ] | w } (1~3)%d [ a ] [ b ] { c | d | e | f | g | h | i | j | k }", {"y", "z"});
          kiv_int32 r = parse(g.c_str(), words, nullptr, 0, keep != 0);
          if (!snapshot(r, snap[keep])) return false;
        }
        if (snap[0] != snap[1]) return false;
      }
      return true;
    }, &clean);
    EXPECT_TRUE(ok) << "grammar '" << g << "'";
  }
  EXPECT_GT(clean, 120);   // most grammars run through without a consistency stop
}
