// Matching typed tokens, candidate lists, help output and the values handed to handlers.
#include "parser_fixture.h"

using Match = ParserTest;
using V = std::vector<Value>;
using S = std::vector<std::string>;

static const char *kReg =
    "{ set'Set content of register' { %d'Reg Address' %d'Data' } | get'Get content of register' { %d'Address' } }";

TEST_F(Match, ResultsForCompleteIncompleteRefusedAndSurplusLines) {
  EXPECT_EQ(parse(kReg, {"set", "0x10", "2"}), 3);
  EXPECT_EQ(token_, nullptr);
  EXPECT_EQ(values(), (V{{"set", 0}, {"16", 4}, {"2", 4}}));

  EXPECT_EQ(parse(kReg, {"set", "1"}), -2);   // incomplete after two tokens
  EXPECT_EQ(token_, nullptr);
  EXPECT_EQ(saved_, ciscoCmdParserCandidates());
  kiv_candEntry_t e[4];
  ASSERT_EQ(ciscoCmdParserListCandidates(e, 4), 1u);
  EXPECT_STREQ(e[0].text, "%d");
  EXPECT_STREQ(e[0].help, "Data");

  EXPECT_EQ(parse(kReg, {"set", "x", "1"}), -2);   // checker refused token 2
  EXPECT_STREQ(token_, "x");
  EXPECT_EQ(cands(), S{"%d"});

  EXPECT_EQ(parse(kReg, {"sets"}), -1);   // keywords match whole words only
  EXPECT_STREQ(token_, "sets");
  EXPECT_EQ(cands(), (S{"set", "get"}));

  EXPECT_EQ(parse(kReg), -1);   // nothing typed, arguments needed
  EXPECT_EQ(token_, nullptr);
  EXPECT_EQ(cands(), (S{"set", "get"}));

  EXPECT_EQ(parse(kReg, {"get", "5", "6", "7"}), 2);   // only the end may follow: surplus ignored
  EXPECT_STREQ(token_, "6");
  EXPECT_EQ(values(), (V{{"get", 0}, {"5", 4}}));

  EXPECT_EQ(parse("{}"), 0);
  EXPECT_EQ(saved_, nullptr);
  EXPECT_EQ(parse("{}", {"junk"}), 0);
  EXPECT_STREQ(token_, "junk");
  EXPECT_EQ(saved_, nullptr);
}

TEST_F(Match, CandidatesInNodeOrderWithHelpAndTheEnd) {
  parse("{ zeta'z' | alpha'a' | %d'n' | mid } [ opt ]");
  EXPECT_EQ(cands(), (S{"zeta", "alpha", "%d", "mid"}));
  kiv_candEntry_t e[8];
  EXPECT_EQ(ciscoCmdParserListCandidates(e, 2), 2u);   // capacity is respected
  ASSERT_EQ(ciscoCmdParserListCandidates(e, 8), 4u);
  EXPECT_STREQ(e[3].help, "");   // a missing help shows as an empty text

  EXPECT_EQ(parse("{ zeta'z' | alpha'a' | %d'n' | mid } [ opt ]", {"mid"}), 1);
  EXPECT_EQ(candsAfter(ciscoCmdParserPathNodeIndex(saved_)), (S{"opt", "<cr>"}));
  testing::internal::CaptureStdout();
  kiv_uint32 n = ciscoCmdParserListCandidates(e, 8);
  ciscoCmdParserShowHelp(e, n);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "opt                       \n"
            "<cr>                      Acceptable command. Press <Return> to commit command...\n\n");
}

TEST_F(Match, RepeatedParameterLimitsAndValueOrder) {
  const char *u = "k (1~3)%d z";
  EXPECT_EQ(parse(u, {"k", "1", "2", "3", "z"}), 5);
  EXPECT_EQ(values(), (V{{"k", 0}, {"1", 4}, {"2", 4}, {"3", 4}, {"z", 0}}));
  EXPECT_FALSE(linked(2, 2));   // self link gone at the maximum

  EXPECT_EQ(parse(u, {"k", "1", "2", "3", "4"}), -5);
  EXPECT_STREQ(token_, "4");
  EXPECT_EQ(cands(), S{"z"});

  EXPECT_EQ(parse(u, {"k", "1", "2"}), -3);
  EXPECT_TRUE(linked(2, 2));
  EXPECT_EQ(cands(), (S{"%d", "z"}));

  // below the minimum only the repeated node is offered
  EXPECT_EQ(parse("(2~3)%d z", {"1"}), -1);
  EXPECT_EQ(token_, nullptr);
  EXPECT_EQ(cands(), S{"%d"});
  EXPECT_EQ(parse("(2~3)%d z", {"1", "2"}), -2);
  EXPECT_EQ(cands(), (S{"%d", "z"}));
}

TEST_F(Match, RepeatedKeywordsTextsAndAddressesKeepTypedOrder) {
  EXPECT_EQ(parse("(1~3)go %d", {"go", "go", "go", "7"}), 4);
  EXPECT_EQ(values(), (V{{"go", 2}, {"go", 0}, {"go", 0}, {"7", 4}}));

  EXPECT_EQ(parse("(1~3)%d (1~3)%s", {"1", "2", "a", "b", "c"}), 5);
  EXPECT_EQ(values(), (V{{"1", 4}, {"2", 4}, {"a", 0}, {"b", 0}, {"c", 0}}));
  // text values are the typed tokens themselves (values are handed out once per parse)
  parse("(1~3)%d (1~3)%s", {"1", "2", "a", "b", "c"});
  void *cursor = saved_, *p = nullptr;
  kiv_uint32 size;
  for (int i = 0; i < 4; i++) ciscoCmdGetNextToken(&p, &size, &cursor);
  EXPECT_EQ(p, argv_[3]);

  EXPECT_EQ(parse("(1~2)%mac", {"0:1:2:3:4:5", "a-b-c-d-e-f"}), 2);
  EXPECT_EQ(values(), (V{{std::string("\0\1\2\3\4\5", 6), 6}, {"\x0a\x0b\x0c\x0d\x0e\x0f", 6}}));
  EXPECT_EQ(ciscoCmdParserNodeUsed(), 2u);
}

// A command-specific type that offers three named values.
static kiv_int32 pickValues(kiv_uint32 room, kiv_candEntry_t *entries) {
  static const kiv_candEntry_t all[] = {{"1", "one"}, {"2", "two"}, {"3", "three"}};
  if (!entries) return 3;
  kiv_uint32 n = room < 3 ? room : 3;
  for (kiv_uint32 i = 0; i < n; i++) entries[i] = all[i];
  return (kiv_int32)n;
}
static const kiv_paramType_t kPick[] = {{"%pick", 4, kiv_checkDynCmdParam_Number, pickValues, "a pick"}};

TEST_F(Match, ValuesFunctionListsEntriesAndBoundsRepeats) {
  parse("(1~5)%pick", {}, kPick, 1);
  EXPECT_EQ(cands(), (S{"1", "2", "3"}));
  EXPECT_EQ(node(1).max_repeat, 3u);
  // the values function's count caps the repeats while matching, too
  EXPECT_EQ(parse("(1~5)%pick z", {"1", "2", "3", "1"}, kPick, 1), -4);
  EXPECT_EQ(cands(), S{"z"});
  EXPECT_EQ(parse("(1~5)%pick z", {"1", "2", "3", "z"}, kPick, 1), 4);
}

static kiv_cmd_t gOther = {"other", "", "%d", nullptr, KIV_USECISCOCMDPARSER, 0, 0, 0, nullptr};
static kiv_int32 jumpChecker(void **, char *token, kiv_uint32, kiv_memaddr *redirect) {
  if (strcmp(token, "go") != 0) return -1;
  *redirect = reinterpret_cast<kiv_memaddr>(&gOther);
  return 0;
}
static const kiv_paramType_t kJump[] = {{"%jump", 0, jumpChecker, nullptr, "jump"}};

TEST_F(Match, RedirectingCheckerSwitchesTheCommand) {
  kiv_cmd_t cmd = {"t", "", "k %jump %d", nullptr, (kiv_uint16)(1 | KIV_PARAMTABLE_FLAGS(1)), 0, 0, 0, kJump};
  char a0[] = "k", a1[] = "go", a2[] = "5";
  char *argv[] = {a0, a1, a2, nullptr};
  const kiv_cmd_t *c = &cmd;
  void *saved = nullptr;
  char *token = nullptr;
  EXPECT_EQ(ciscoCmdParser(3, argv, &c, &saved, &token), 2);
  EXPECT_EQ(c, &gOther);
  EXPECT_EQ(token, a2);
  EXPECT_EQ(ciscoCmdParserPathNodeIndex(saved), 1u);   // path starts at "k"
}

static V gHandled;
static kiv_int32 recordHandler(kiv_uint32, kiv_int32 argc, void **argv) {
  gHandled.clear();
  void *p;
  kiv_uint32 size;
  for (kiv_int32 i = 0; i < argc && ciscoCmdGetNextToken(&p, &size, argv) == 0; i++)
    gHandled.push_back(size == 4 ? Value{std::to_string(*static_cast<kiv_uint32 *>(p)), 4}
                                 : Value{static_cast<const char *>(p), size});
  return 0;
}

TEST_F(Match, RunStringParsesCallsTheHandlerAndResets) {
  kiv_cmd_t cmd = {"t", "", "k (1~3)%d z", recordHandler, KIV_USECISCOCMDPARSER, 0, 0, 0, nullptr};
  char line[] = "k,1, 2,z";
  EXPECT_EQ(ciscoCmdRunString(line, &cmd, ", "), 4);
  EXPECT_EQ(gHandled, (V{{"k", 0}, {"1", 4}, {"2", 4}, {"z", 0}}));
  EXPECT_EQ(ciscoCmdParserNodeUsed(), 0u);
  EXPECT_EQ(ciscoCmdParserTempBufferUsed(), 0u);

  gHandled.clear();
  char bad[] = "k x";
  EXPECT_EQ(ciscoCmdRunString(bad, &cmd, " "), -2);
  char empty[] = "";
  EXPECT_EQ(ciscoCmdRunString(empty, &cmd, " "), 0);
  EXPECT_TRUE(gHandled.empty());
}

static std::string gReply;
TEST_F(Match, HelpAndSynopsisFollowTheOutputMode) {
  static const kiv_replyHooks_t hooks = {[] { gReply += "<"; }, [](const char *t) { gReply += t; gReply += ","; },
                                         [] { gReply += ">"; }};
  kiv_candEntry_t e[] = {{"a", "x"}, {nullptr, nullptr}, {"b", nullptr}};
  ciscoCmdParserSetReplyHooks(&hooks);
  ciscoCmdParserSetOutputMode(0);
  testing::internal::CaptureStdout();
  ciscoCmdParserShowHelp(e, 3);
  ciscoCmdPrintSynopsis("Title", kReg);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(gReply, "<a,b,>");

  ciscoCmdParserSetOutputMode(2);
  testing::internal::CaptureStdout();
  ciscoCmdParserShowHelp(e, 3);
  ciscoCmdPrintSynopsis("Title", kReg);
  ciscoCmdPrintSynopsis(nullptr, "a\tb 'c'");
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "a                         x\nb                         \n\nTitle\n");
  ciscoCmdParserSetReplyHooks(nullptr);
}
