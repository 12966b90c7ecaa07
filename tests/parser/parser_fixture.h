// Helpers for the grammar parser tests: parse a usage string against typed words and look
// at the graph, the candidates and the values that come out.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "kiv/kiv_ciscoParser.h"
#include "kiv/kiv_ciscoParserParamChecker.h"

// Matches the report line of a failed consistency check in a parser function. The report
// goes to stdout, so the death statement routes stdout to stderr first.
inline std::string assertRe(const char *func, const std::string &cond) {
  std::string re = std::string("kiv/kiv_ciscoParser:") + func + ":[0-9]+:'";
  for (char c : cond) re += (strchr("\\^$.|?*+()[]{}", c) ? "\\" : "") + std::string(1, c);
  return re + "'";
}
#define EXPECT_PARSER_ASSERT(stmt, func, cond) \
  EXPECT_DEATH({ dup2(STDERR_FILENO, STDOUT_FILENO); stmt; }, assertRe(func, cond))

using S = std::vector<std::string>;

class ParserTest : public ::testing::Test {
 protected:
  void TearDown() override {
    ciscoCmdParserReset();
    ciscoCmdParserDropKeptRows();
  }

  // Parses with the row's graph built for this parse, or (keep) compiled once and reused
  // while the usage stays the same; `parsed_` is the command the parser ended on.
  kiv_int32 parse(const char *usage, S words = {}, const kiv_paramType_t *types = nullptr, unsigned rows = 0,
                  bool keep = false) {
    kiv_cmd_t &row = keep ? kept_ : cmd_;
    if (keep && (row.cmdUsage != usage || row.paramTypes != types)) ciscoCmdParserForgetGraphs();
    row = {"t", "", usage, nullptr, (kiv_uint16)(KIV_USECISCOCMDPARSER | KIV_PARAMTABLE_FLAGS(rows)), 0, 0, 0, types};
    if (keep) ciscoCmdParserKeepRows(&kept_, 1);
    words_ = std::move(words);
    argv_.clear();
    for (auto &w : words_) argv_.push_back(w.data());
    argv_.push_back(nullptr);
    parsed_ = &row;
    return ciscoCmdParser((kiv_int32)words_.size(), argv_.data(), &parsed_, &saved_, &token_);
  }

  static const kiv_parseNode_t &node(kiv_uint32 i) { return *ciscoCmdParserNode(i); }
  static bool linked(kiv_uint32 a, kiv_uint32 b) { return ciscoCmdParserLinked(a, b) != 0; }

  // Candidate texts as the help list shows them.
  static S cands() {
    kiv_candEntry_t e[64];
    kiv_uint32 n = ciscoCmdParserListCandidates(e, 64);
    S out;
    for (kiv_uint32 i = 0; i < n; i++) out.emplace_back(e[i].text);
    return out;
  }
  static S candsAfter(kiv_uint32 nodeIndex) {
    ciscoCmdParserGetCandidate(nodeIndex, nullptr);
    return cands();
  }

  // Every value along the saved path as "text/size": numbers (size 4) in decimal, other
  // sized values as their bytes.
  S values() {
    S out;
    void *cursor = saved_, *p = nullptr;
    kiv_uint32 size = 0, v = 0;
    while (ciscoCmdGetNextToken(&p, &size, &cursor) == 0 && out.size() < 300) {
      const char *c = static_cast<const char *>(p);
      out.push_back((size == 4 ? (memcpy(&v, p, 4), std::to_string(v)) : size ? std::string(c, size) : c) + "/" +
                    std::to_string(size));
    }
    return out;
  }

  kiv_cmd_t cmd_{}, kept_{};
  const kiv_cmd_t *parsed_ = nullptr;
  S words_;
  std::vector<char *> argv_;
  void *saved_ = nullptr;
  char *token_ = nullptr;
};
