// Splitting usage strings and the shape of the command graph built from them.
#include "parser_fixture.h"

using Graph = ParserTest;

TEST_F(Graph, HelpTextsAndNodeKinds) {
  // 1 x, 2 %d, 3 y, 4 %d, 5 z, 6 Shifted, 7 <cr>
  parse("x %d'Address' y %d 'Data' z''w'Shifted'");
  EXPECT_STREQ(node(2).help, "Address");
  EXPECT_STREQ(node(4).help, "Data");   // a blank before the quote changes nothing
  EXPECT_EQ(node(3).help, nullptr);
  EXPECT_STREQ(node(5).help, "w");      // "''" vanished: the next grammar piece became help
  EXPECT_TRUE(node(6).isKeyword && !strcmp(static_cast<const char *>(node(6).text), "Shifted"));
  EXPECT_EQ(ciscoCmdParserNodeUsed(), 7u);

  // 1 a, 2 {, 3 b, 4 |, 5 %s, 6 }, 7 @, 8 <any>, 9 <cr>
  parse("a { b | %s } @ <any>");
  EXPECT_TRUE(node(2).node && node(2).isGroupStart && node(6).node && node(6).isGroupEnd);
  EXPECT_TRUE(node(4).isAlternative && !node(4).node && !node(4).text);
  EXPECT_EQ(node(3).groupIndex, 2u);
  EXPECT_EQ(node(5).groupIndex, 2u);
  EXPECT_FALSE(node(7).node || node(7).isKeyword || linked(6, 7) || linked(7, 8));   // blank, unlinked
  for (kiv_uint32 i : {8u, 9u}) {   // a token starting with "<" is an end node reading "<cr>"
    EXPECT_TRUE(node(i).endCommand && node(i).len == 4 && !strcmp(static_cast<const char *>(node(i).text), "<cr>"));
    EXPECT_STREQ(node(i).help, "Acceptable command. Press <Return> to commit command...");
  }
}

TEST_F(Graph, AlternativeOptionAndDummyShapes) {
  parse("P { a | b } N");   // 1 P, 2 {, 3 a, 4 |, 5 b, 6 }, 7 N
  EXPECT_TRUE(linked(1, 2) && linked(2, 3) && linked(2, 5) && linked(3, 6) && linked(5, 6) && linked(6, 7));
  EXPECT_FALSE(linked(3, 5) || linked(1, 6) || linked(2, 6));

  parse("P [ x ] N");   // 1 P, 2 [, 3 x, 4 ], 5 N: P may skip the option
  EXPECT_TRUE(linked(1, 2) && linked(2, 3) && linked(3, 4) && linked(4, 5) && linked(1, 5));
  EXPECT_TRUE(node(2).isOptionStart && !node(2).node && !node(4).node);

  parse("[ [ x ] ]");   // 1 [, 2 dummy, 3 [, 4 x, 5 ], 6 ], 7 <cr>
  EXPECT_EQ(ciscoCmdParserNodeUsed(), 7u);
  EXPECT_TRUE(node(2).node && !node(2).isKeyword && !node(2).isOptionStart && linked(1, 2) && linked(2, 3));
  EXPECT_EQ(candsAfter(0), (S{"x", "<cr>"}));
}

TEST_F(Graph, OptionRunsAnyOrderInsideGroupsChainedAtTopLevel) {
  EXPECT_EQ(parse("{ [ x ] [ y ] }"), 0);   // complete without arguments
  EXPECT_EQ(candsAfter(0), (S{"x", "y", "<cr>"}));
  EXPECT_EQ(parse("{ [ x ] [ y ] }", {"y", "x"}), 2);
  EXPECT_EQ(parse("{ [ x ] [ y ] }", {"x", "x"}), -2);   // each option at most once
  EXPECT_STREQ(token_, "x");

  // At top level only the first option starts the run: y only after x.
  EXPECT_EQ(parse("[ x ] [ y ]", {"y"}), -1);
  EXPECT_EQ(cands(), (S{"x", "<cr>"}));
  EXPECT_EQ(parse("[ x ] [ y ]", {"x"}), 1);
  EXPECT_EQ(candsAfter(node(0).nextIndex), (S{"y", "<cr>"}));
  EXPECT_EQ(parse("[ x ] [ y ]", {"x", "y"}), 2);
}

TEST_F(Graph, EmptyGroupAcceptsNothing) {
  EXPECT_EQ(parse("{ }"), -1);
  EXPECT_EQ(token_, nullptr);
  EXPECT_EQ(ciscoCmdParserCandidates()->count, 0u);
  EXPECT_EQ(parse("{ }", {"a"}), -1);
  EXPECT_STREQ(token_, "a");
}

TEST_F(Graph, RepeatRanges) {
  // 1 k, 2 (2~3)%d, 3 (0~5)%d, 4 (1~10)%d, 5 (0~2)[, 6 x, 7 ], 8 (3)
  parse("k (2~3)%d (0~5)%d (1~10)%d (0~2)[ x ] (3)");
  EXPECT_TRUE(node(2).repeat && node(2).min_repeat == 2 && node(2).max_repeat == 3 && linked(2, 2));
  EXPECT_TRUE(node(3).min_repeat == 1 && node(3).max_repeat == 5);   // a zero minimum reads as 1
  EXPECT_EQ(node(4).max_repeat, 20u);                                 // 20 per digit
  EXPECT_TRUE(node(5).repeat && node(5).min_repeat == 0 && node(5).max_repeat == 2);   // "[" keeps 0
  EXPECT_TRUE(node(8).repeat && !node(8).node && !linked(7, 8));     // bare repeater: blank node
  EXPECT_FALSE(node(1).repeat || linked(1, 1));
}

TEST_F(Graph, ValueSlots) {
  parse("%d %ip %net %mac %s");
  const auto *base = static_cast<const kiv_uint8 *>(node(1).text);
  const long expect[] = {0, 4, 8, 16, 24};
  for (kiv_uint32 i = 0; i < 5; i++) EXPECT_EQ(static_cast<const kiv_uint8 *>(node(i + 1).text) - base, expect[i]);
  EXPECT_EQ(ciscoCmdParserValueStart(), 24u);
  ciscoCmdParserFlushTmpBuffer();
  EXPECT_EQ(ciscoCmdParserTempBufferUsed() + ciscoCmdParserValueStart(), 0u);
  // the command's own table comes before the built-ins and sizes the slots
  static const kiv_paramType_t own[] = {{"%d", 8, kiv_checkDynCmdParam_Number, nullptr, "own"}};
  parse("%d %ip", {}, own, 1);
  EXPECT_TRUE(node(1).paramType == &own[0] && ciscoCmdParserValueStart() == 12u);
}
