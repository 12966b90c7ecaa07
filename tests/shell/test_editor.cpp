// The console line editor on a real terminal: the exact bytes written for keys (the
// terminal shows each "\n" as "\r\n") and what the screen shows.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <string>

#include "shell/kivshell.h"
#include "terminal.h"

namespace {

const std::string P = "<HX5200/> ";   // 10 columns
const std::string ESC = "\x1b";
const std::string LEFT = ESC + "[D", RIGHT = ESC + "[C", UP = ESC + "[A", DOWN = ESC + "[B";
const std::string HOME = ESC + "[H", END = ESC + "[F", DEL = ESC + "[3~";

// With KIVSHELL_EDITOR_LOOP set this program only reads lines with the editor and reports
// each as "=> [<result>|<line>]>>"; it ends with status 0 on "exit", 3 at end of input.
const bool g_loopMode = [] {
  if (!std::getenv("KIVSHELL_EDITOR_LOOP")) return false;
  std::snprintf(kiv_prompt, sizeof kiv_prompt, "%s", P.c_str());
  kiv_promptLen = static_cast<int>(P.size());
  static char line[KIV_LINE_SIZE];
  int n;
  while ((n = kiv_readLine(line, 0)) > 0 && std::strcmp(line, "exit\n") != 0) {
    line[n - 1] = '\0';
    std::printf("=> [%d|%s]>>\n", n, line);
  }
  std::exit(n > 0 ? 0 : 3);
}();

// The editor loop on a terminal `cols` wide.
struct Loop {
  explicit Loop(int cols = 80)
      : t("KIVSHELL_EDITOR_LOOP=1 " + quoted(std::filesystem::read_symlink("/proc/self/exe")), cols) {}
  // One read: waits for its prompt (raw mode is on by then), types, and returns what was
  // written from the prompt on; the read's result goes to `report`.
  std::string read(const std::string &keys) {
    pos = t.waitFor(P, pos);
    if (!keys.empty()) t.keys(keys);
    const size_t start = t.waitFor("=> [", pos), end = t.waitFor("]>>\r\n", start);
    if (end == std::string::npos) return "<no report>";
    const std::string out = t.output(), screen = out.substr(pos, start - pos);
    report = out.substr(start + 4, end - start - 4);
    pos = end + 5;
    return screen;
  }
  Term t;
  size_t pos = 0;
  std::string report;
};

std::string redrawn(const std::string &text) { return "\r" + P + text + ESC + "[J"; }
std::string times(int n, const std::string &s) { return n > 0 ? s + times(n - 1, s) : ""; }
std::string letters(size_t n) { return n ? letters(n - 1) + static_cast<char>('a' + (n - 1) % 26) : ""; }

// The rows `text` takes when wrapped at `width`.
std::vector<std::string> wrapped(const std::string &text, size_t width) {
  std::vector<std::string> rows;
  for (size_t i = 0; i < text.size(); i += width) rows.push_back(text.substr(i, width));
  return rows;
}

TEST(Editor, KeysWriteTheseBytesWithinAndAcrossRows) {
  Loop ed;
  // Left by 3 is three backspaces, by 4 an escape sequence.
  EXPECT_EQ(ed.read("abcd" + times(3, LEFT) + "\r"), P + "abcd\b\b\bbcd\r\n");
  EXPECT_EQ(ed.report, "5|abcd");
  EXPECT_EQ(ed.read("abcd" + HOME + END + "\r"), P + "abcd" + ESC + "[4D" + "abcd\r\n");
  // ESC [ 1 ~ is home (its tail swallowed); ESC [ 4 ~ end; ESC O H home.
  EXPECT_EQ(ed.read("abc" + ESC + "[1~X" + ESC + "[4~" + ESC + "OH" + RIGHT + "\r"),
            P + "abc\b\b\bXabc\b\b\babc" + ESC + "[4DXabc\r\n");
  EXPECT_EQ(ed.report, "5|Xabc");
  // Insert and delete redraw the rest of the line and come back.
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
  // The 70th character fills the row: the editor moves on with newline + backspace
  // (the next character + backspace when redrawing); crossing rows goes up and across.
  EXPECT_EQ(ed.read(std::string(75, 'a') + times(6, LEFT) + HOME + END + "\r"),
            P + std::string(70, 'a') + "\r\n\b" + "aaaaa" + "\b\b\b\b\b" + ESC + "[1A" + ESC + "[79C" + ESC +
                "[69D" + std::string(70, 'a') + "a\b" + "aaaaa" + "\r\n");
  // At most 1022 characters; a Tab on a full line is ignored too.
  ed.read(std::string(1030, 'k') + "\t\r");
  EXPECT_EQ(ed.report, "1023|" + std::string(1022, 'k'));
  // A hung-up terminal is the end of input.
  ed.t.waitFor(P, ed.pos);
  EXPECT_EQ(ed.t.wait(true), 3);
}

TEST(Editor, TabAndQuestionMarkEndTheLineHistoryKeepsFifteenLines) {
  Loop ed;
  EXPECT_EQ(ed.read(UP + DOWN + "\r"), P + "\a\a\r\n");   // no history yet
  EXPECT_EQ(ed.report, "1|");
  EXPECT_EQ(ed.read("re\t"), P + "re");           // no echo, no newline
  EXPECT_EQ(ed.report, "4|re\t");
  EXPECT_EQ(ed.read("reg ?"), P + "reg \r\n");     // '?' not echoed at the end
  EXPECT_EQ(ed.report, "6|reg ?");
  EXPECT_EQ(ed.read("ab" + LEFT + "?"), P + "ab\b?b\b\r\n");
  EXPECT_EQ(ed.report, "4|a?b");
  // Stored: "reg " and "a?" (the last character dropped after '?'); not the empty
  // line, not the completion request.
  EXPECT_EQ(ed.read(times(3, UP) + "\r"), P + redrawn("a?") + redrawn("reg ") + "\a\r\n");
  EXPECT_EQ(ed.report, "5|reg ");

  for (int i = 1; i <= 16; ++i) ed.read("l" + std::to_string(i) + "\r");
  // "l1" was pushed out: fifteen steps back reach "l2", the sixteenth rings.
  const std::string screen = ed.read(times(16, UP) + "\r");
  EXPECT_EQ(ed.report, "3|l2");
  EXPECT_EQ(std::count(screen.begin(), screen.end(), '\a'), 1);
  EXPECT_TRUE(screen.ends_with(redrawn("l2") + "\a\r\n"));
  // The line being typed survives a trip into the full history and back.
  EXPECT_EQ(ed.read("xy" + UP + DOWN + DOWN + "\r"), P + "xy" + redrawn("l2") + redrawn("xy") + "\a\r\n");
  // Edits to a recalled line stay in its slot while browsing.
  ed.read(UP + "!" + UP + DOWN + "\r");
  EXPECT_EQ(ed.report, "4|xy!");
}

// What the screen shows: a typed line across rows, the redraw at a new width, and an
// insert at the front that shifts the whole line across the rows.
TEST(Editor, ScreenAfterTypingResizingAndInserting) {
  Loop ed(80);
  const std::string text = letters(100);
  ed.pos = ed.t.waitFor(P);
  ed.t.keys(text + LEFT + LEFT);
  ASSERT_NE(ed.t.waitFor(text.substr(70) + "\b\b", ed.pos), std::string::npos);
  auto want = wrapped(P + text, 80);
  EXPECT_EQ(ed.t.rows(want), want);
  EXPECT_EQ(ed.t.cursor(), std::make_pair(28, 1));
  ed.t.resize(40);
  // Two rows up (108 columns at width 40), then prompt and line wrapped at 40, and back
  // to the cursor.
  const std::string redraw = ESC + "[2A\r" + P + text.substr(0, 30) + text[30] + "\b" + text.substr(30, 40) +
                             text[70] + "\b" + text.substr(70) + ESC + "[J\b\b";
  EXPECT_NE(ed.t.waitFor(redraw, ed.pos), std::string::npos) << ed.t.output();
  want = wrapped(P + text, 40);
  EXPECT_EQ(ed.t.rows(want), want);
  EXPECT_EQ(ed.t.cursor(), std::make_pair(28, 2));
  ed.t.keys("!" + HOME + "#");
  const std::string line = "#" + text.substr(0, 98) + "!" + text.substr(98);
  want = wrapped(P + line, 40);
  EXPECT_EQ(ed.t.rows(want), want);
  EXPECT_EQ(ed.t.cursor(), std::make_pair(11, 0));
  ed.t.keys("\r");
  ed.read("");
  EXPECT_EQ(ed.report, "103|" + line);
}

}  // namespace
