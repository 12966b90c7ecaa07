// Helpers for the grammar parser tests: parse a usage string against typed words and
// look at the graph, the candidates and the values that come out.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "kiv/kiv_ciscoParser.h"
#include "kiv/kiv_ciscoParserParamChecker.h"

// Turns a literal text into a POSIX extended regular expression matching it.
inline std::string reLiteral(const std::string &s) {
  std::string out;
  for (char c : s) {
    if (strchr("\\^$.|?*+()[]{}", c)) out += '\\';
    out += c;
  }
  return out;
}

// The report line of a failed consistency check in a parser function.
inline std::string assertRe(const char *func, const char *cond) {
  return "kiv/kiv_ciscoParser:" + std::string(func) + ":[0-9]+:" + reLiteral(std::string("'") + cond + "'");
}

// Death statements print the report on stdout: route it to stderr for the matcher.
#define EXPECT_PARSER_ASSERT(stmt, func, cond) \
  EXPECT_DEATH({ dup2(STDERR_FILENO, STDOUT_FILENO); stmt; }, assertRe(func, cond))

struct Value {
  std::string text;   // keyword/text value, or the number in decimal
  kiv_uint32 size;
  bool operator==(const Value &o) const { return text == o.text && size == o.size; }
};
inline std::ostream &operator<<(std::ostream &os, const Value &v) { return os << v.text << "/" << v.size; }

class ParserTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ciscoCmdParserSetFullClear(false);
    ciscoCmdParserSetOutputMode(1);
  }
  void TearDown() override { ciscoCmdParserReset(); }

  kiv_int32 parse(const char *usage, std::vector<std::string> words = {},
                  const kiv_paramType_t *types = nullptr, unsigned rows = 0) {
    cmd_ = {"t", "test", usage, nullptr, (kiv_uint16)(KIV_USECISCOCMDPARSER | KIV_PARAMTABLE_FLAGS(rows)),
            0, 0, 0, types};
    words_ = std::move(words);
    argv_.clear();
    for (auto &w : words_) argv_.push_back(w.data());
    argv_.push_back(nullptr);
    const kiv_cmd_t *c = &cmd_;
    saved_ = nullptr;
    token_ = nullptr;
    return ciscoCmdParser((kiv_int32)words_.size(), argv_.data(), &c, &saved_, &token_);
  }

  static const kiv_parseNode_t &node(kiv_uint32 i) { return *ciscoCmdParserNode(i); }
  static std::string text(kiv_uint32 i) { return static_cast<const char *>(node(i).text); }
  static bool linked(kiv_uint32 a, kiv_uint32 b) { return ciscoCmdParserLinked(a, b) != 0; }

  // Candidate texts as the help list shows them.
  static std::vector<std::string> cands() {
    kiv_candEntry_t e[64];
    kiv_uint32 n = ciscoCmdParserListCandidates(e, 64);
    std::vector<std::string> out;
    for (kiv_uint32 i = 0; i < n; i++) out.emplace_back(e[i].text);
    return out;
  }
  static std::vector<std::string> candsAfter(kiv_uint32 nodeIndex) {
    ciscoCmdParserGetCandidate(nodeIndex, nullptr);
    return cands();
  }

  // Every value along the saved path; numbers (size 4) in decimal, other sized values
  // (a repeatable keyword's first time, addresses) as their bytes.
  std::vector<Value> values() {
    std::vector<Value> out;
    void *cursor = saved_;
    void *p = nullptr;
    kiv_uint32 size = 0;
    while (ciscoCmdGetNextToken(&p, &size, &cursor) == 0 && out.size() < 300) {
      if (size == 4) {
        kiv_uint32 v;
        memcpy(&v, p, 4);
        out.push_back({std::to_string(v), size});
      } else if (size == 0) {
        out.push_back({static_cast<const char *>(p), size});
      } else {
        out.push_back({std::string(static_cast<const char *>(p), size), size});
      }
    }
    return out;
  }

  kiv_cmd_t cmd_{};
  std::vector<std::string> words_;
  std::vector<char *> argv_;
  void *saved_ = nullptr;
  char *token_ = nullptr;
};
