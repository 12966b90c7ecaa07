// Splitting usage strings and the shape of the command graph built from them.
#include "parser_fixture.h"

using Graph = ParserTest;

TEST_F(Graph, HelpTextsAttachToTheLastTokenAndEmptyHelpShiftsTheNextPiece) {
  // 1 x, 2 %d, 3 y, 4 %d, 5 z, 6 Shifted, 7 <cr>
  parse("x %d'Address' y %d 'Data' z''w'Shifted'");
  EXPECT_EQ(ciscoCmdParserNodeUsed(), 7u);
  EXPECT_STREQ(node(2).help, "Address");
  EXPECT_STREQ(node(4).help, "Data");   // a blank before the quote changes nothing
  EXPECT_EQ(node(3).help, nullptr);
  EXPECT_STREQ(node(5).help, "w");      // "''" vanished: the grammar piece became help
  EXPECT_TRUE(node(6).isKeyword);
  EXPECT_EQ(text(6), "Shifted");
  EXPECT_STREQ(node(6).help, nullptr);
  EXPECT_TRUE(node(7).endCommand);
}

TEST_F(Graph, NodeKindsAsBuilt) {
  // 1 a, 2 {, 3 b, 4 |, 5 %s, 6 }, 7 @, 8 <any>, 9 <cr>
  parse("a { b | %s } @ <any>");
  EXPECT_TRUE(node(0).node);
  EXPECT_TRUE(node(1).node && node(1).isKeyword);
  EXPECT_EQ(node(1).len, 1u);
  EXPECT_TRUE(node(2).node && node(2).isGroupStart);
  EXPECT_TRUE(node(4).isAlternative && !node(4).node);
  EXPECT_EQ(node(4).text, nullptr);
  EXPECT_TRUE(node(5).isParam && node(5).paramType && !strcmp(node(5).paramType->name, "%s"));
  EXPECT_TRUE(node(6).node && node(6).isGroupEnd);
  EXPECT_EQ(node(3).groupIndex, 2u);
  EXPECT_EQ(node(5).groupIndex, 2u);
  // unknown punctuation leaves a blank, unlinked node
  const kiv_parseNode_t &blank = node(7);
  EXPECT_FALSE(blank.node || blank.isKeyword || blank.isParam || blank.isOptionStart);
  for (kiv_uint32 i = 0; i <= 9; i++) EXPECT_FALSE(linked(i, 7) || linked(7, i));
  // a grammar token starting with "<" is an end node reading "<cr>"
  for (kiv_uint32 i : {8u, 9u}) {
    EXPECT_TRUE(node(i).node && node(i).endCommand);
    EXPECT_EQ(text(i), "<cr>");
    EXPECT_EQ(node(i).len, 4u);
    EXPECT_STREQ(node(i).help, "Acceptable command. Press <Return> to commit command...");
  }
}

TEST_F(Graph, AlternativesAndOptionShapes) {
  // 1 P, 2 {, 3 a, 4 |, 5 b, 6 }, 7 N, 8 <cr>
  parse("P { a | b } N");
  EXPECT_TRUE(linked(1, 2) && linked(2, 3) && linked(2, 5) && linked(3, 6) && linked(5, 6) && linked(6, 7));
  EXPECT_FALSE(linked(3, 5) || linked(1, 6) || linked(2, 6));

  // 1 P, 2 [, 3 x, 4 ], 5 N: P may skip the option
  parse("P [ x ] N");
  EXPECT_TRUE(linked(1, 2) && linked(2, 3) && linked(3, 4) && linked(4, 5) && linked(1, 5));
  EXPECT_TRUE(node(2).isOptionStart && !node(2).node);
  EXPECT_FALSE(node(4).node);

  // "[" directly after "[": a dummy node carries the outer option
  // 1 [, 2 dummy, 3 [, 4 x, 5 ], 6 ], 7 <cr>
  parse("[ [ x ] ]");
  EXPECT_EQ(ciscoCmdParserNodeUsed(), 7u);
  EXPECT_TRUE(node(2).node);
  EXPECT_FALSE(node(2).isKeyword || node(2).isParam || node(2).endCommand || node(2).isOptionStart);
  EXPECT_TRUE(linked(1, 2) && linked(2, 3) && node(3).isOptionStart);
  EXPECT_EQ(candsAfter(0), (std::vector<std::string>{"x", "<cr>"}));
}

TEST_F(Graph, OptionRunsAnyOrderInsideGroupsButChainedAtTopLevel) {
  // Inside a group every option of the run is reachable from the group start.
  EXPECT_EQ(parse("{ [ x ] [ y ] }"), 0);   // complete without arguments
  EXPECT_EQ(candsAfter(0), (std::vector<std::string>{"x", "y", "<cr>"}));
  EXPECT_EQ(parse("{ [ x ] [ y ] }", {"y", "x"}), 2);
  EXPECT_EQ(parse("{ [ x ] [ y ] }", {"x", "x"}), -2);
  EXPECT_STREQ(token_, "x");

  // At top level only the first option starts the run: y only after x.
  EXPECT_EQ(parse("[ x ] [ y ]", {"y"}), -1);
  EXPECT_STREQ(token_, "y");
  EXPECT_EQ(cands(), (std::vector<std::string>{"x", "<cr>"}));
  EXPECT_EQ(parse("[ x ] [ y ]", {"x", "y"}), 2);
  EXPECT_EQ(parse("[ x ] [ y ]", {"x"}), 1);
  EXPECT_EQ(candsAfter(node(0).nextIndex), (std::vector<std::string>{"y", "<cr>"}));
}

TEST_F(Graph, EmptyGroupAcceptsNothing) {
  EXPECT_EQ(parse("{ }"), -1);
  EXPECT_EQ(token_, nullptr);
  EXPECT_EQ(ciscoCmdParserCandidates()->count, 0u);
  EXPECT_EQ(parse("{ }", {"a"}), -1);
  EXPECT_STREQ(token_, "a");
  // "{}" is one token: a group start whose end is the command end.
  EXPECT_EQ(parse("{}"), 0);
  EXPECT_EQ(saved_, nullptr);
}

TEST_F(Graph, RepeatRanges) {
  // 1 k, 2 %d(2~3), 3 %d(0~5), 4 %d(1~10), 5 [(0~2), 6 x, 7 ], 8 (3)
  parse("k (2~3)%d (0~5)%d (1~10)%d (0~2)[ x ] (3)");
  EXPECT_TRUE(node(2).repeat && node(2).isParam);
  EXPECT_EQ(node(2).min_repeat, 2u);
  EXPECT_EQ(node(2).max_repeat, 3u);
  EXPECT_TRUE(linked(2, 2));
  EXPECT_EQ(node(3).min_repeat, 1u);   // a zero minimum reads as 1
  EXPECT_EQ(node(3).max_repeat, 5u);
  EXPECT_EQ(node(4).max_repeat, 20u);  // bounds are read with a factor of 20 per digit
  EXPECT_TRUE(node(5).repeat && node(5).isOptionStart);
  EXPECT_EQ(node(5).min_repeat, 0u);   // "[" keeps its minimum as written
  EXPECT_EQ(node(5).max_repeat, 2u);
  EXPECT_TRUE(node(8).repeat);         // a bare repeater: blank node, unlinked
  EXPECT_FALSE(node(8).node || linked(7, 8));
  EXPECT_FALSE(node(1).repeat || linked(1, 1));
}

TEST_F(Graph, ValueSlotsAreReservedInTypeSizeRoundedToFour) {
  parse("%d %ip %net %mac %s");
  const auto *base = static_cast<const kiv_uint8 *>(node(1).text);
  const kiv_uint32 expect[] = {0, 4, 8, 16, 24};
  for (kiv_uint32 i = 0; i < 5; i++)
    EXPECT_EQ(static_cast<const kiv_uint8 *>(node(i + 1).text) - base, (long)expect[i]) << i;
  EXPECT_EQ(ciscoCmdParserValueStart(), 24u);
  EXPECT_EQ(ciscoCmdParserTempBufferUsed(), 24u);
  ciscoCmdParserFlushTmpBuffer();
  EXPECT_EQ(ciscoCmdParserTempBufferUsed(), 0u);
  EXPECT_EQ(ciscoCmdParserValueStart(), 0u);
}

TEST_F(Graph, CommandTypesAreFoundBeforeTheBuiltIns) {
  static const kiv_paramType_t own[] = {
      {"%d", 8, kiv_checkDynCmdParam_Number, nullptr, "own number"},
      {"%port", 4, kiv_checkDynCmdParam_Number, nullptr, "a port"}};
  parse("%d %port %ip", {}, own, 2);
  EXPECT_EQ(node(1).paramType, &own[0]);
  EXPECT_EQ(node(2).paramType, &own[1]);
  EXPECT_STREQ(node(3).paramType->name, "%ip");
  EXPECT_EQ(ciscoCmdParserValueStart(), 16u);
}
