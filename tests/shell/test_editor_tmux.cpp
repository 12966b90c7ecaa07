// The line editor as a terminal shows it (tmux), and the real tool's terminal hygiene.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "run_tool.h"
#include "shell/kivshell.h"
#include "shell_test_util.h"

namespace {

constexpr const char *kLoopVar = "KIVSHELL_EDITOR_LOOP";
const std::string P = PtyEditor::kPrompt;

// Editor-loop mode of this program: read lines with the editor and show each one.
[[noreturn]] void editorLoop() {
  std::snprintf(kiv_prompt, sizeof kiv_prompt, "%s", PtyEditor::kPrompt);
  kiv_promptLen = static_cast<int>(std::strlen(kiv_prompt));
  static char line[KIV_LINE_SIZE];
  for (;;) {
    int n = kiv_readLine(line, 0);
    if (n <= 0 || std::strcmp(line, "exit\n") == 0) std::exit(0);
    line[n - 1] = '\0';
    std::printf("=> [%s]\n", line);
  }
}

const bool g_loopMode = [] {
  if (std::getenv(kLoopVar)) editorLoop();
  return false;
}();

#define NEED_TMUX()                                     \
  do {                                                  \
    if (!Tmux::available()) GTEST_SKIP() << "no tmux"; \
  } while (0)

std::string loopCommand() { return "'" + self_exe() + "'"; }

// The rows of a screen capture.
std::vector<std::string> rows(const std::string &screen) {
  std::vector<std::string> out;
  size_t start = 0;
  while (start < screen.size()) {
    size_t nl = screen.find('\n', start);
    if (nl == std::string::npos) nl = screen.size();
    out.push_back(screen.substr(start, nl - start));
    start = nl + 1;
  }
  return out;
}

TEST(EditorScreen, TypingEditingInTheMiddleAndHistory) {
  NEED_TMUX();
  Tmux t(loopCommand(), 80, 24, {{kLoopVar, "1"}});
  ASSERT_TRUE(t.ok());
  ASSERT_TRUE(t.waitScreen("<HX5200/>"));  // rows come back without trailing blanks
  t.type("hello wrld");
  for (int i = 0; i < 3; ++i) t.key("Left");
  t.type("o");
  std::string s;
  ASSERT_TRUE(t.waitScreen("hello world", &s)) << s;
  EXPECT_EQ(rows(s)[0], P + "hello world");
  EXPECT_EQ(t.cursor(), std::make_pair(18, 0));
  t.key("Enter");
  t.type("second");
  t.key("Enter");
  ASSERT_TRUE(t.waitScreen("=> [second]", &s)) << s;
  t.key("Up");
  t.key("Up");
  ASSERT_TRUE(t.waitScreen(P + "hello world\n", &s));
  t.key("Home");
  t.type(">");
  t.key("Enter");
  ASSERT_TRUE(t.waitScreen("=> [>hello world]", &s)) << s;
  auto r = rows(s);
  ASSERT_GE(r.size(), 6u);
  EXPECT_EQ(r[0], P + "hello world");
  EXPECT_EQ(r[1], "=> [hello world]");
  EXPECT_EQ(r[2], P + "second");
  EXPECT_EQ(r[3], "=> [second]");
  EXPECT_EQ(r[4], P + ">hello world");
  EXPECT_EQ(r[5], "=> [>hello world]");
}

TEST(EditorScreen, LinesLongerThanTheWidthAt80And40Columns) {
  NEED_TMUX();
  for (int width : {80, 40}) {
    Tmux t(loopCommand(), width, 24, {{kLoopVar, "1"}});
    ASSERT_TRUE(t.ok());
    ASSERT_TRUE(t.waitScreen("<HX5200/>"));  // rows come back without trailing blanks
    std::string text;
    for (int i = 0; i < 130; ++i) text.push_back(static_cast<char>('a' + i % 26));
    t.type(text);
    std::string full = P + text;
    std::string s;
    const std::string lastRow = full.substr(full.size() - full.size() % width);
    ASSERT_TRUE(t.waitScreen(lastRow + "\n", &s)) << s;
    auto r = rows(s);
    size_t nrows = (full.size() + width - 1) / width;
    for (size_t i = 0; i < nrows; ++i) EXPECT_EQ(r[i], full.substr(i * width, width)) << "width " << width;
    EXPECT_EQ(t.cursor(), std::make_pair(static_cast<int>(full.size() % width), static_cast<int>(nrows - 1)));
    // Home, insert at the front, then the whole line shifts across the rows.
    t.key("Home");
    t.type("#");
    std::string shifted = P + "#" + text;
    ASSERT_TRUE(t.waitScreen(shifted.substr(0, width) + "\n", &s)) << s;
    EXPECT_EQ(t.cursor(), std::make_pair(static_cast<int>(P.size() + 1), 0));
    t.key("End");
    t.key("Enter");
    ASSERT_TRUE(t.waitScreen("=> [#", &s)) << s;
    r = rows(s);
    for (size_t i = 0; i < (shifted.size() + width - 1) / width; ++i)
      EXPECT_EQ(r[i], shifted.substr(i * width, width)) << "width " << width;
  }
}

TEST(EditorScreen, ResizeWhileEditingALongLine) {
  NEED_TMUX();
  Tmux t(loopCommand(), 80, 24, {{kLoopVar, "1"}});
  ASSERT_TRUE(t.ok());
  ASSERT_TRUE(t.waitScreen("<HX5200/>"));  // rows come back without trailing blanks
  std::string text;
  for (int i = 0; i < 100; ++i) text.push_back(static_cast<char>('A' + i % 26));
  t.type(text);
  const std::string full = P + text;
  std::string s;
  ASSERT_TRUE(t.waitScreen(full.substr(80) + "\n", &s)) << s;
  t.key("Left");
  t.key("Left");
  t.resize(40, 24);
  // The prompt and the line as held, wrapped at 40, nothing left over below.
  std::string want;
  for (size_t i = 0; i < full.size(); i += 40) want += full.substr(i, 40) + "\n";
  bool seen = false;
  for (int i = 0; i < 100 && !seen; ++i) {
    s = t.screen();
    seen = s.find(want) != std::string::npos && s.size() >= want.size() &&
           s.compare(s.size() - want.size(), want.size(), want) == 0;
    if (!seen) usleep(20000);
  }
  EXPECT_TRUE(seen) << s;
  EXPECT_EQ(t.cursor(), std::make_pair(static_cast<int>((full.size() - 2) % 40),
                                       static_cast<int>(rows(s).size() - 1)));
  t.type("!");
  t.key("Enter");
  ASSERT_TRUE(t.waitScreen("=> [", &s)) << s;
  std::string joined;
  for (auto &row : rows(s)) joined += row;
  EXPECT_NE(joined.find("=> [" + text.substr(0, 98) + "!" + text.substr(98) + "]"), std::string::npos) << s;
}

TEST(ToolTerminal, SettingsAreTheSameBeforeAndAfterARun) {
  NEED_TMUX();
  std::string dir = make_temp_dir("kivstty");
  std::string script = "stty -g > " + dir + "/before; KIVTOOL_SIM=" + dir + "/sim '" KIVTOOL_PATH "'; stty -g > " +
                       dir + "/after; echo DONE-$?";
  Tmux t("sh -c \"" + script + "\"", 80, 24);
  ASSERT_TRUE(t.ok());
  std::string s;
  ASSERT_TRUE(t.waitScreen("# SDK version 040a0000", &s)) << s;
  t.type("abc");
  t.key("C-c");   // ignored while typing
  t.key("BSpace");
  t.key("BSpace");
  t.key("BSpace");
  t.type("exit");
  t.key("Enter");
  ASSERT_TRUE(t.waitScreen("DONE-0", &s)) << s;
  std::string before = read_file(dir + "/before"), after = read_file(dir + "/after");
  EXPECT_FALSE(before.empty());
  EXPECT_EQ(before, after);
}

}  // namespace
