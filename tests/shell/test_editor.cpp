// The console line editor in a real pseudo-terminal: exact bytes written for keys.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "shell_test_util.h"

namespace {

const std::string P = PtyEditor::kPrompt;   // 10 columns
const std::string ESC = "\x1b";
const std::string LEFT = ESC + "[D", RIGHT = ESC + "[C", UP = ESC + "[A", DOWN = ESC + "[B";
const std::string HOME = ESC + "[H", END = ESC + "[F", DEL = ESC + "[3~";

// Runs one read: keys typed after the prompt, ending with whatever the keys end with.
PtyEditor::Result read1(PtyEditor &ed, const std::string &keys) {
  ed.begin();
  ed.keys(keys);
  return ed.finish();
}

std::string redrawn(const std::string &text) { return "\r" + P + text + ESC + "[J"; }

TEST(Editor, CursorMovesWithBackspacesUpToThreeThenEscapeSequence) {
  PtyEditor ed;
  ASSERT_TRUE(ed.ok());
  auto r = read1(ed, "abcd" + LEFT + LEFT + LEFT + "\r");
  EXPECT_EQ(r.ret, 5);
  EXPECT_EQ(r.line, "abcd\n");
  EXPECT_EQ(r.screen, P + "abcd\b\b\bbcd\r\n");
  EXPECT_TRUE(r.termiosRestored);

  r = read1(ed, "abcd" + HOME + END + "\r");
  EXPECT_EQ(r.screen, P + "abcd" + ESC + "[4D" + "abcd\r\n");

  // ESC [ 1 ~ is home, its tail is swallowed; ESC O H and ESC [ 4 ~ work too.
  r = read1(ed, "abc" + ESC + "[1~" + "X" + ESC + "[4~" + ESC + "OH" + RIGHT + "\r");
  EXPECT_EQ(r.line, "Xabc\n");
  EXPECT_EQ(r.screen, P + "abc\b\b\bXabc\b\b\b" + "abc" + ESC + "[4D" + "X" + "abc\r\n");
}

TEST(Editor, InsertAndDeleteInTheMiddleRedrawTheTail) {
  PtyEditor ed;
  ASSERT_TRUE(ed.ok());
  auto r = read1(ed, "ac" + LEFT + "b\r");
  EXPECT_EQ(r.line, "abc\n");
  EXPECT_EQ(r.screen, P + "ac\bbc\bc\r\n");

  r = read1(ed, "abc" + LEFT + LEFT + "\x7f\r");   // DEL key deletes before the cursor
  EXPECT_EQ(r.line, "bc\n");
  EXPECT_EQ(r.screen, P + "abc\b\b" + "\b" + "bc \b\b\b" + "bc\r\n");

  r = read1(ed, "abc" + HOME + DEL + "\r");     // forward delete under the cursor
  EXPECT_EQ(r.line, "bc\n");
  EXPECT_EQ(r.screen, P + "abc\b\b\b" + "bc \b\b\b" + "bc\r\n");

  r = read1(ed, "abc\b\r");                     // backspace at the end
  EXPECT_EQ(r.line, "ab\n");
  EXPECT_EQ(r.screen, P + "abc\b \b\r\n");

  // Nothing to delete at the start or under the end; control characters (Ctrl-C
  // included) are ignored; unknown sequences ring the bell and ESC [ 5 ~ is eaten whole.
  r = read1(ed, HOME + "\x7f" + END + DEL + "a\x03\x01" + ESC + "[5~" + ESC + "[Zb\r");
  EXPECT_EQ(r.line, "ab\n");
  EXPECT_EQ(r.screen, P + "a\a\ab\r\n");
}

TEST(Editor, EnterTabAndQuestionMarkEndTheLine) {
  PtyEditor ed;
  ASSERT_TRUE(ed.ok());
  auto r = read1(ed, "\r");
  EXPECT_EQ(r.ret, 1);
  EXPECT_EQ(r.line, "\n");
  EXPECT_EQ(r.screen, P + "\r\n");

  r = read1(ed, "re\t");
  EXPECT_EQ(r.ret, 4);
  EXPECT_EQ(r.line, "re\t\n");
  EXPECT_EQ(r.screen, P + "re");
  EXPECT_TRUE(r.termiosRestored);

  r = read1(ed, "reg ?");
  EXPECT_EQ(r.line, "reg ?\n");
  EXPECT_EQ(r.screen, P + "reg \r\n");

  r = read1(ed, "ab" + LEFT + "?");
  EXPECT_EQ(r.line, "a?b\n");
  EXPECT_EQ(r.screen, P + "ab\b?b\b\r\n");

  // History holds "reg " ('?' dropped) and "a?" (its last character dropped); neither
  // the empty line nor the completion request was stored.
  r = read1(ed, UP + UP + UP + "\r");
  EXPECT_EQ(r.line, "reg \n");
  EXPECT_EQ(r.screen, P + redrawn("a?") + redrawn("reg ") + "\a\r\n");
}

TEST(Editor, HistoryKeepsFifteenLinesAndRingsAtBothEnds) {
  PtyEditor ed;
  ASSERT_TRUE(ed.ok());
  auto r = read1(ed, UP + DOWN + "\r");
  EXPECT_EQ(r.screen, P + "\a\a\r\n");

  for (int i = 1; i <= 16; ++i) ASSERT_EQ(ed.line("l" + std::to_string(i)).ret, static_cast<int>(std::to_string(i).size()) + 2);

  // Browse back to the oldest kept line ("l1" was pushed out), one more rings.
  std::string keys;
  for (int i = 0; i < 16; ++i) keys += UP;
  r = read1(ed, keys + "\r");
  EXPECT_EQ(r.line, "l2\n");
  const std::string tail = redrawn("l2") + "\a\r\n";
  ASSERT_GE(r.screen.size(), tail.size());
  EXPECT_EQ(r.screen.substr(r.screen.size() - tail.size()), tail);
  EXPECT_EQ(std::count(r.screen.begin(), r.screen.end(), '\a'), 1);

  // The line being typed survives a trip into a full history (scratch slot) and back;
  // forward at the newest line rings.
  r = read1(ed, "xy" + UP + DOWN + DOWN + "\r");
  EXPECT_EQ(r.line, "xy\n");
  EXPECT_EQ(r.screen, P + "xy" + redrawn("l2") + redrawn("xy") + "\a\r\n");

  // An edited history line is kept in its slot while browsing.
  r = read1(ed, UP + "!" + UP + DOWN + "\r");
  EXPECT_EQ(r.line, "xy!\n");
}

TEST(Editor, LongLinesWrapAtTheTerminalWidth) {
  PtyEditor ed(80, 24);
  ASSERT_TRUE(ed.ok());
  const std::string a75(75, 'a');
  // The 70th character fills the 80-column row: the editor moves to the next row itself
  // (newline + backspace); moving left across the row boundary goes up and across.
  auto r = read1(ed, a75 + LEFT + LEFT + LEFT + LEFT + LEFT + LEFT + HOME + END + "\r");
  EXPECT_EQ(r.line, a75 + "\n");
  const std::string want = P + std::string(70, 'a') + "\r\n\b" + std::string(5, 'a') + "\b\b\b\b\b" + ESC +
                           "[1A" + ESC + "[79C" + ESC + "[69D" + std::string(70, 'a') + "a\b" +
                           std::string(5, 'a') + "\r\n";
  EXPECT_EQ(r.screen, want);

  // Home from the second row goes up and across.
  r = read1(ed, a75 + HOME + "\r");
  EXPECT_NE(r.screen.find(std::string(5, 'a') + "\r" + ESC + "[1A" + ESC + "[10C"), std::string::npos);

  // At most 1022 characters are taken; Tab on a full line is ignored too.
  r = read1(ed, std::string(1030, 'k') + "\t\r");
  EXPECT_EQ(r.ret, 1023);
  EXPECT_EQ(r.line, std::string(1022, 'k') + "\n");
}

TEST(Editor, PreloadedTextIsEditedFurther) {
  PtyEditor ed;
  ASSERT_TRUE(ed.ok());
  ed.begin('?', "reg ");
  ed.keys("read\r");
  auto r = ed.finish();
  EXPECT_EQ(r.line, "reg read\n");
  EXPECT_EQ(r.screen, P + redrawn("reg ") + "read\r\n");

  ed.begin('\t', "vlan");
  ed.keys("\x7f" "x\r");
  r = ed.finish();
  EXPECT_EQ(r.line, "vlax\n");

  // Without a help or completion terminator old buffer contents are not shown.
  ed.begin(0, "junk");
  ed.keys("\r");
  r = ed.finish();
  EXPECT_EQ(r.line, "\n");
  EXPECT_EQ(r.screen, P + "\r\n");
}

TEST(Editor, ResizeRedrawsTheLineAtTheNewWidth) {
  PtyEditor ed(80, 24);
  ASSERT_TRUE(ed.ok());
  const std::string line(100, 'r');
  ed.begin();
  ed.keys(line);
  ASSERT_TRUE(ed.waitFor("\b" + std::string(30, 'r')));
  ed.resize(40, 24);
  // Two rows up (110 columns at width 40), prompt and line again, wrapping at 40.
  const std::string redraw = ESC + "[2A\r" + P + std::string(30, 'r') + "r\b" + std::string(40, 'r') + "r\b" +
                             std::string(30, 'r') + ESC + "[J";
  ASSERT_TRUE(ed.waitFor(redraw));
  ed.keys(LEFT + LEFT + "\r");
  auto r = ed.finish();
  EXPECT_EQ(r.line, line + "\n");
  EXPECT_NE(r.screen.find(redraw + "\b\b" + "rr\r\n"), std::string::npos);
}

TEST(Editor, EndOfInputReturnsMinusOne) {
  PtyEditor ed;
  ASSERT_TRUE(ed.ok());
  ed.begin();
  ed.keys("abc");
  ASSERT_TRUE(ed.waitFor("abc"));
  ed.hangUp();
  auto r = ed.finish();
  EXPECT_EQ(r.ret, -1);
}

}  // namespace
