// What a terminal (tmux) shows while lines are edited, and the real tool's terminal hygiene.
#include <gtest/gtest.h>

#include <string>

#include "run_tool.h"
#include "shell_test_util.h"

namespace {

const std::string P = kLoopPrompt;

#define NEED_TMUX() \
  if (!Tmux::available()) GTEST_SKIP() << "tmux is not installed"

std::string loop() { return std::string(kLoopVar) + "=1 exec '" + self_exe() + "'"; }

// The rows `text` takes when wrapped at `width`.
std::vector<std::string> wrapped(const std::string &text, size_t width) {
  std::vector<std::string> rows;
  for (size_t i = 0; i < text.size(); i += width) rows.push_back(text.substr(i, width));
  return rows;
}

std::vector<std::string> head(std::vector<std::string> rows, size_t n) {
  rows.resize(std::min(rows.size(), n));
  return rows;
}

TEST(EditorScreen, EditingInTheMiddleAndHistory) {
  NEED_TMUX();
  Tmux t(loop(), 80);
  ASSERT_TRUE(t.waitRow("<HX5200/>"));
  t.type("hello wrld");
  for (int i = 0; i < 3; ++i) t.key("Left");
  t.type("o");
  ASSERT_TRUE(t.waitRow(P + "hello world"));
  EXPECT_EQ(t.cursor(), std::make_pair(18, 0));
  t.key("Enter");
  t.type("second");
  t.key("Enter");
  ASSERT_TRUE(t.waitRow("|second]"));
  t.key("Up");
  t.key("Up");
  t.key("Home");
  t.type(">");
  t.key("Enter");
  ASSERT_TRUE(t.waitRow("|>hello world]"));
  EXPECT_EQ(t.rows(), (std::vector<std::string>{P + "hello world", "=> [12|hello world]>>", P + "second",
                                                "=> [7|second]>>", P + ">hello world", "=> [13|>hello world]>>",
                                                "<HX5200/>"}));
}

TEST(EditorScreen, LongLinesAt80And40Columns) {
  NEED_TMUX();
  std::string text;
  for (int i = 0; i < 130; ++i) text.push_back(static_cast<char>('a' + i % 26));
  for (size_t width : {80u, 40u}) {
    Tmux t(loop(), static_cast<int>(width));
    ASSERT_TRUE(t.waitRow("<HX5200/>"));
    t.type(text);
    auto want = wrapped(P + text, width);
    ASSERT_TRUE(t.waitRow(want.back()));
    EXPECT_EQ(t.rows(), want);
    EXPECT_EQ(t.cursor(), std::make_pair(static_cast<int>(want.back().size()), static_cast<int>(want.size() - 1)));
    // Insert at the front: the whole line shifts across the rows.
    t.key("Home");
    t.type("#");
    want = wrapped(P + "#" + text, width);
    ASSERT_TRUE(t.waitRow(want[0]));
    EXPECT_EQ(t.cursor(), std::make_pair(11, 0));
    t.key("End");
    t.key("Enter");
    ASSERT_TRUE(t.waitRow("=> [132|#"));
    EXPECT_EQ(head(t.rows(), want.size()), want) << width;
  }
}

TEST(EditorScreen, ResizeWhileEditingALongLine) {
  NEED_TMUX();
  std::string text;
  for (int i = 0; i < 100; ++i) text.push_back(static_cast<char>('A' + i % 26));
  Tmux t(loop(), 80);
  ASSERT_TRUE(t.waitRow("<HX5200/>"));
  t.type(text);
  ASSERT_TRUE(t.waitRow((P + text).substr(80)));
  t.key("Left");
  t.key("Left");
  t.resize(40);
  // Prompt and line as held, wrapped at 40, and nothing else on the screen.
  const auto want = wrapped(P + text, 40);
  std::vector<std::string> rows;
  for (int i = 0; i < 250 && rows != want; ++i) {
    rows = t.rows();
    if (rows != want) usleep(20000);
  }
  EXPECT_EQ(rows, want);
  EXPECT_EQ(t.cursor(), std::make_pair(28, 2));
  t.type("!");
  t.key("Enter");
  ASSERT_TRUE(t.waitRow("=> [102|"));
  std::string all;
  for (auto &row : t.rows()) all += row;
  EXPECT_NE(all.find("|" + text.substr(0, 98) + "!" + text.substr(98) + "]>>"), std::string::npos) << all;
}

TEST(ToolTerminal, SettingsAreTheSameBeforeAndAfterARun) {
  NEED_TMUX();
  const std::string dir = make_temp_dir("kivstty");
  Tmux t("cd " + dir + " && stty -g > before; KIVTOOL_SIM=sim '" KIVTOOL_PATH "'; stty -g > after; echo DONE-$?; sleep 20",
         80);
  ASSERT_TRUE(t.waitRow("<HX5200/>"));
  t.type("abc");
  t.key("C-c");   // ignored while typing
  for (int i = 0; i < 3; ++i) t.key("BSpace");
  t.type("exit");
  t.key("Enter");
  ASSERT_TRUE(t.waitRow("DONE-0"));
  EXPECT_FALSE(read_file(dir + "/before").empty());
  EXPECT_EQ(read_file(dir + "/before"), read_file(dir + "/after"));
}

}  // namespace
