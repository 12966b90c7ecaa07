// Matching typed tokens, candidate lists, help output and the values handed to handlers.
#include "parser_fixture.h"

using Match = ParserTest;

static const char *kReg =
    "{ set'Set content of register' { %d'Reg Address' %d'Data' } | get'Get content of register' { %d'Address' } }";

TEST_F(Match, CompleteIncompleteRefusedAndSurplusLines) {
  EXPECT_EQ(parse(kReg, {"set", "0x10", "2"}), 3);
  EXPECT_EQ(token_, nullptr);
  EXPECT_EQ(values(), (S{"set/0", "16/4", "2/4"}));

  EXPECT_EQ(parse(kReg, {"set", "1"}), -2);   // incomplete after two tokens
  EXPECT_EQ(token_, nullptr);
  EXPECT_EQ(saved_, ciscoCmdParserCandidates());
  kiv_candEntry_t e[4];
  ASSERT_EQ(ciscoCmdParserListCandidates(e, 4), 1u);
  EXPECT_TRUE(!strcmp(e[0].text, "%d") && !strcmp(e[0].help, "Data"));

  EXPECT_EQ(parse(kReg, {"sets"}), -1);   // keywords match whole words only
  EXPECT_STREQ(token_, "sets");
  EXPECT_EQ(cands(), (S{"set", "get"}));
  EXPECT_EQ(parse(kReg, {"get", "5", "6", "7"}), 2);   // only the end may follow: surplus ignored
  EXPECT_STREQ(token_, "6");
  EXPECT_EQ(values(), (S{"get/0", "5/4"}));
}

TEST_F(Match, CandidatesInNodeOrderAndTheHelpList) {
  const char *u = "{ zeta'z' | alpha'a' | %d'n' | mid } [ opt ]";
  parse(u);
  EXPECT_EQ(cands(), (S{"zeta", "alpha", "%d", "mid"}));
  kiv_candEntry_t e[8];
  EXPECT_EQ(ciscoCmdParserListCandidates(e, 2), 2u);   // capacity is respected

  EXPECT_EQ(parse(u, {"mid"}), 1);
  EXPECT_EQ(candsAfter(ciscoCmdParserPathNodeIndex(saved_)), (S{"opt", "<cr>"}));
  testing::internal::CaptureStdout();
  ciscoCmdParserShowHelp(e, ciscoCmdParserListCandidates(e, 8));
  EXPECT_EQ(testing::internal::GetCapturedStdout().substr(0, 28), "opt                       \n<");   // no help: empty

  // output mode with bits 0 and 1 clear: the texts go into a reply, nothing is printed
  static std::string reply;
  static const kiv_replyHooks_t hooks = {[] { reply += "<"; }, [](const char *t) { reply += t; }, [] { reply += ">"; }};
  ciscoCmdParserSetReplyHooks(&hooks);
  ciscoCmdParserSetOutputMode(4);
  testing::internal::CaptureStdout();
  ciscoCmdParserShowHelp(e, 2);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(reply, "<opt<cr>>");
  ciscoCmdParserSetOutputMode(1);
  ciscoCmdParserSetReplyHooks(nullptr);
}

TEST_F(Match, RepeatedParameterLimitsAndValueOrder) {
  const char *u = "k (1~3)%d z";
  EXPECT_EQ(parse(u, {"k", "1", "2", "3", "z"}), 5);
  EXPECT_EQ(values(), (S{"k/0", "1/4", "2/4", "3/4", "z/0"}));
  EXPECT_FALSE(linked(2, 2));   // self link gone at the maximum
  EXPECT_EQ(parse(u, {"k", "1", "2", "3", "4"}), -5);
  EXPECT_EQ(cands(), S{"z"});
  EXPECT_EQ(parse(u, {"k", "1", "2"}), -3);
  EXPECT_EQ(cands(), (S{"%d", "z"}));

  EXPECT_EQ(parse("(2~3)%d z", {"1"}), -1);   // below the minimum only the repeat is offered
  EXPECT_EQ(cands(), S{"%d"});
  EXPECT_EQ(parse("(2~3)%d z", {"1", "2"}), -2);
  EXPECT_EQ(cands(), (S{"%d", "z"}));
}

TEST_F(Match, RepeatedKeywordsTextsAndAddressesKeepTypedOrder) {
  EXPECT_EQ(parse("(1~3)go %d", {"go", "go", "go", "7"}), 4);
  EXPECT_EQ(values(), (S{"go/2", "go/0", "go/0", "7/4"}));
  EXPECT_EQ(parse("(1~3)%d (1~3)%s", {"1", "2", "a", "b", "c"}), 5);
  EXPECT_EQ(values(), (S{"1/4", "2/4", "a/0", "b/0", "c/0"}));
  EXPECT_EQ(parse("(1~2)%mac", {"0:1:2:3:4:5", "a-b-c-d-e-f"}), 2);
  EXPECT_EQ(values(), (S{std::string("\0\1\2\3\4\5/6", 8), "\x0a\x0b\x0c\x0d\x0e\x0f/6"}));

  // text values are the typed tokens themselves
  parse("(1~3)%s", {"a", "b"});
  void *cursor = saved_, *p = nullptr;
  kiv_uint32 size;
  ciscoCmdGetNextToken(&p, &size, &cursor);
  EXPECT_TRUE(ciscoCmdGetNextToken(&p, &size, &cursor) == 0 && p == argv_[1]);
  EXPECT_EQ(ciscoCmdGetNextToken(&p, &size, &cursor), -1);
}

// Command-specific types: one offers three named values, one redirects to another command.
static kiv_int32 pickValues(kiv_uint32 room, kiv_candEntry_t *entries) {
  static const kiv_candEntry_t all[] = {{"1", "one"}, {"2", "two"}, {"3", "three"}};
  for (kiv_uint32 i = 0; entries && i < room && i < 3; i++) entries[i] = all[i];
  return entries ? (kiv_int32)(room < 3 ? room : 3) : 3;
}
static kiv_cmd_t gOther = {"other", "", "%d", nullptr, KIV_USECISCOCMDPARSER, 0, 0, 0, nullptr};
static kiv_int32 jumpChecker(void **, char *token, kiv_uint32, kiv_memaddr *redirect) {
  *redirect = reinterpret_cast<kiv_memaddr>(&gOther);
  return strcmp(token, "go") ? -1 : 0;
}
static const kiv_paramType_t kOwn[] = {{"%pick", 4, kiv_checkDynCmdParam_Number, pickValues, "a pick"},
                                       {"%jump", 0, jumpChecker, nullptr, "jump"}};

TEST_F(Match, ValuesFunctionsAndRedirectingCheckers) {
  parse("(1~5)%pick", {}, kOwn, 2);
  EXPECT_EQ(cands(), (S{"1", "2", "3"}));
  EXPECT_EQ(node(1).max_repeat, 3u);
  EXPECT_EQ(parse("(1~5)%pick z", {"1", "2", "3", "1"}, kOwn, 2), -4);   // capped at 3 while matching too
  EXPECT_EQ(cands(), S{"z"});

  EXPECT_EQ(parse("k %jump %d", {"k", "go", "5"}, kOwn, 2), 2);
  EXPECT_EQ(parsed_, &gOther);
  EXPECT_EQ(token_, argv_[2]);
  EXPECT_EQ(ciscoCmdParserPathNodeIndex(saved_), 1u);   // the path starts at "k"
}

static S gHandled;
static kiv_int32 recordHandler(kiv_uint32, kiv_int32 argc, void **argv) {
  void *p;
  kiv_uint32 size;
  for (kiv_int32 i = 0; i < argc && ciscoCmdGetNextToken(&p, &size, argv) == 0; i++)
    gHandled.push_back(size == 4 ? std::to_string(*static_cast<kiv_uint32 *>(p)) : static_cast<const char *>(p));
  return 0;
}

TEST_F(Match, RunStringParsesCallsTheHandlerAndResets) {
  kiv_cmd_t cmd = {"t", "", "k (1~3)%d z", recordHandler, KIV_USECISCOCMDPARSER, 0, 0, 0, nullptr};
  char line[] = "k,1, 2,z", bad[] = "k x", empty[] = "";
  EXPECT_EQ(ciscoCmdRunString(line, &cmd, ", "), 4);
  EXPECT_EQ(gHandled, (S{"k", "1", "2", "z"}));
  EXPECT_EQ(ciscoCmdParserNodeUsed() + ciscoCmdParserTempBufferUsed(), 0u);
  EXPECT_EQ(ciscoCmdRunString(bad, &cmd, " "), -2);
  EXPECT_EQ(ciscoCmdRunString(empty, &cmd, " "), 0);
  EXPECT_EQ(gHandled.size(), 4u);   // not called again
}
