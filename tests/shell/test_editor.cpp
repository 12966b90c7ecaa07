// The console line editor on a real pseudo-terminal: the exact bytes written for keys
// (the terminal shows the editor's "\n" as "\r\n").
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "shell_test_util.h"

namespace {

const std::string P = kLoopPrompt;   // 10 columns
const std::string ESC = "\x1b";
const std::string LEFT = ESC + "[D", RIGHT = ESC + "[C", UP = ESC + "[A", DOWN = ESC + "[B";
const std::string HOME = ESC + "[H", END = ESC + "[F", DEL = ESC + "[3~";

std::string redrawn(const std::string &text) { return "\r" + P + text + ESC + "[J"; }

// This test program in its editor-loop mode on a terminal `cols` wide.
struct Editor {
  explicit Editor(int cols = 80) : s(self_exe(), {{kLoopVar, "1"}}, "/", cols) {}
  // One read: waits for its prompt (raw mode is on by then), types, and returns what
  // was written from the prompt on; the read's result goes to `report`.
  std::string read(const std::string &keys) {
    pos = s.waitFor(P, pos);
    s.keys(keys);
    return s.untilReport(pos, &report);
  }
  PtySession s;
  size_t pos = 0;
  std::string report;
};

TEST(Editor, CursorMovesWithBackspacesOrEscapeSequences) {
  Editor ed;
  EXPECT_EQ(ed.read("abcd" + LEFT + LEFT + LEFT + "\r"), P + "abcd\b\b\bbcd\r\n");
  EXPECT_EQ(ed.report, "5|abcd");
  EXPECT_EQ(ed.read("abcd" + HOME + END + "\r"), P + "abcd" + ESC + "[4D" + "abcd\r\n");
  // ESC [ 1 ~ is home (its tail swallowed); ESC [ 4 ~ end; ESC O H home.
  EXPECT_EQ(ed.read("abc" + ESC + "[1~X" + ESC + "[4~" + ESC + "OH" + RIGHT + "\r"),
            P + "abc\b\b\bXabc\b\b\babc" + ESC + "[4DXabc\r\n");
  EXPECT_EQ(ed.report, "5|Xabc");
}

TEST(Editor, InsertAndDeleteRedrawTheRestOfTheLine) {
  Editor ed;
  EXPECT_EQ(ed.read("ac" + LEFT + "b\r"), P + "ac\bbc\bc\r\n");
  EXPECT_EQ(ed.report, "4|abc");
  EXPECT_EQ(ed.read("abc" + LEFT + LEFT + "\x7f\r"), P + "abc\b\b\bbc \b\b\bbc\r\n");
  EXPECT_EQ(ed.report, "3|bc");
  EXPECT_EQ(ed.read("abc" + HOME + DEL + "\r"), P + "abc\b\b\bbc \b\b\bbc\r\n");
  EXPECT_EQ(ed.read("abc\b\r"), P + "abc\b \b\r\n");
  // Nothing to delete at either end; control characters (Ctrl-C too) are ignored;
  // unknown sequences ring the bell and ESC [ 5 ~ is eaten whole.
  EXPECT_EQ(ed.read(HOME + "\x7f" + END + DEL + "a\x03\x01" + ESC + "[5~" + ESC + "[Zb\r"), P + "a\a\ab\r\n");
  EXPECT_EQ(ed.report, "3|ab");
}

TEST(Editor, TabAndQuestionMarkEndTheLineAndShapeTheHistory) {
  Editor ed;
  EXPECT_EQ(ed.read("\r"), P + "\r\n");
  EXPECT_EQ(ed.report, "1|");
  EXPECT_EQ(ed.read("re\t"), P + "re");           // no echo, no newline
  EXPECT_EQ(ed.report, "4|re\t");
  EXPECT_EQ(ed.read("reg ?"), P + "reg \r\n");     // '?' not echoed at the end
  EXPECT_EQ(ed.report, "6|reg ?");
  EXPECT_EQ(ed.read("ab" + LEFT + "?"), P + "ab\b?b\b\r\n");
  EXPECT_EQ(ed.report, "4|a?b");
  // Stored: "reg " and "a?" (the last character dropped after '?'); not the empty
  // line, not the completion request.
  EXPECT_EQ(ed.read(UP + UP + UP + "\r"), P + redrawn("a?") + redrawn("reg ") + "\a\r\n");
  EXPECT_EQ(ed.report, "5|reg ");
}

TEST(Editor, HistoryKeepsFifteenLines) {
  Editor ed;
  EXPECT_EQ(ed.read(UP + DOWN + "\r"), P + "\a\a\r\n");
  for (int i = 1; i <= 16; ++i) ed.read("l" + std::to_string(i) + "\r");
  // "l1" was pushed out: fifteen steps back reach "l2", the sixteenth rings.
  std::string screen = ed.read(std::string() + UP + UP + UP + UP + UP + UP + UP + UP + UP + UP + UP + UP + UP +
                               UP + UP + UP + "\r");
  EXPECT_EQ(ed.report, "3|l2");
  EXPECT_EQ(std::count(screen.begin(), screen.end(), '\a'), 1);
  EXPECT_TRUE(screen.ends_with(redrawn("l2") + "\a\r\n"));
  // The line being typed survives a trip into the full history and back.
  EXPECT_EQ(ed.read("xy" + UP + DOWN + DOWN + "\r"), P + "xy" + redrawn("l2") + redrawn("xy") + "\a\r\n");
  // Edits to a recalled line stay in its slot while browsing.
  ed.read(UP + "!" + UP + DOWN + "\r");
  EXPECT_EQ(ed.report, "4|xy!");
}

TEST(Editor, LongLinesWrapAtTheTerminalWidth) {
  Editor ed(80);
  const std::string a75(75, 'a');
  // The 70th character fills the row: the editor moves on with newline + backspace
  // (the next character + backspace when redrawing); crossing rows goes up and across.
  EXPECT_EQ(ed.read(a75 + LEFT + LEFT + LEFT + LEFT + LEFT + LEFT + HOME + END + "\r"),
            P + std::string(70, 'a') + "\r\n\b" + "aaaaa" + "\b\b\b\b\b" + ESC + "[1A" + ESC + "[79C" + ESC +
                "[69D" + std::string(70, 'a') + "a\b" + "aaaaa" + "\r\n");
  EXPECT_TRUE(ed.read(a75 + HOME + "\r").starts_with(P + std::string(70, 'a') + "\r\n\baaaaa\r" + ESC + "[1A" + ESC +
                                                      "[10C"));
  // At most 1022 characters; a Tab on a full line is ignored too.
  ed.read(std::string(1030, 'k') + "\t\r");
  EXPECT_EQ(ed.report, "1023|" + std::string(1022, 'k'));
}

TEST(Editor, ResizeRedrawsAtTheNewWidth) {
  Editor ed(80);
  ed.pos = ed.s.waitFor(P);
  ed.s.keys(std::string(100, 'r'));
  ASSERT_NE(ed.s.waitFor("\b" + std::string(30, 'r'), ed.pos), std::string::npos);
  ed.s.resize(40);
  // Two rows up (110 columns at width 40), then prompt and line wrapped at 40.
  const std::string redraw = ESC + "[2A\r" + P + std::string(30, 'r') + "r\b" + std::string(40, 'r') + "r\b" +
                             std::string(30, 'r') + ESC + "[J";
  ASSERT_NE(ed.s.waitFor(redraw, ed.pos), std::string::npos) << ed.s.output();
  ed.s.keys(LEFT + LEFT + "\r");
  EXPECT_TRUE(ed.s.untilReport(ed.pos, &ed.report).ends_with(redraw + "\b\brr\r\n"));
  EXPECT_EQ(ed.report, "101|" + std::string(100, 'r'));
}

TEST(Editor, EndOfInputEndsTheRead) {
  Editor ed;
  ed.s.waitFor(P);
  ed.s.keys("abc");
  ed.s.waitFor("abc");
  ed.s.hangUp();
  EXPECT_EQ(ed.s.wait(), 3);
}

}  // namespace
