// kivcfg.txt and the prompt / pre-load rules, in-process.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <string>

#include "access/access.h"
#include "kiv/kiv_parser.h"
#include "run_tool.h"
#include "shell/kivshell.h"

namespace {

// Loads `content` as kivcfg.txt (none when empty) over the defaults, with an interface
// code the file cannot select so that any change shows; returns what was printed.
std::string load(const std::string &content) {
  access_if_set(ACCESS_IF_RESERVED);
  i2caddrid = 4;
  mdcaddrid = 24;
  const auto home = std::filesystem::current_path();
  std::filesystem::current_path(make_temp_dir("kivcfg"));
  if (!content.empty()) write_file("kivcfg.txt", content);
  ::testing::internal::CaptureStdout();
  kiv_loadConfig();
  fflush(stdout);
  std::filesystem::current_path(home);
  return ::testing::internal::GetCapturedStdout();
}

TEST(ConfigFile, ValuesComeFromAFixedColumn) {
  const struct { const char *line; unsigned iface, i2c, mdc; } cases[] = {
      {"interface spi\n", 2, 4, 24},   {"interface smi\n", 1, 4, 24},  {"interface i2cfoo\n", 0, 4, 24},
      {"interface uart\n", 3, 4, 24},  {"interface  smi\n", 3, 4, 24}, {"Interface smi\n", 3, 4, 24},
      {"i2caddrid 9\n", 3, 1, 24},     {"i2caddrid 5\r\n", 3, 5, 24},  {"i2caddrid 0x6\n", 3, 0, 24},
      {"i2caddrid q\n", 3, 4, 24},     {"mdcaddrid 0x1f\n", 3, 4, 31}, {"mdcaddrid 123\n", 3, 4, 12},
      {"mdcaddrid 7a\n", 3, 4, 7},     {"mdcaddrid 0X10\n", 3, 4, 16}, {"mdcaddrid 0x1ff\n", 3, 4, 31},
      {"mdcaddrid:5\r\n", 3, 4, 5},   {"mdcaddrid z\n", 3, 4, 24},    {"interface spi", 2, 4, 24},   // no final newline
  };
  for (const auto &c : cases) {
    EXPECT_EQ(load(c.line), "") << c.line;   // debug level 0: silent
    EXPECT_EQ(access_if, c.iface) << c.line;
    EXPECT_EQ(i2caddrid, c.i2c) << c.line;
    EXPECT_EQ(mdcaddrid, c.mdc) << c.line;
  }
}

TEST(ConfigFile, DebugLevelGovernsTheMessagesOfLaterLines) {
  const std::string body = "# note\nfoo\ninterface smi\ni2caddrid 3\ni2caddrid q\nmdcaddrid 0x0a\nmdcaddrid z\n";
  const std::string level2 = "interface smi\r\ni2caddress 3\r\ni2caddrid is not a number: q\r\n"
                             "mdcaddrid 10\r\nmdcaddrid is not a number: z\r\n";
  EXPECT_EQ(load(body + "debug 3\n" + body), "skip # note\n\r\nno match\r\n" + level2);
  EXPECT_EQ(load("debug 2\n" + body), level2);
  EXPECT_EQ(load("debug 1\n" + body), "interface smi\r\n");
  EXPECT_EQ(load("debug 12\n" + body), "interface smi\r\n");   // only column 6 counts
  EXPECT_EQ(load("debug x\n" + body), "");
  EXPECT_EQ(load("debug 3\n\nInterface smi\n"), "no match\r\nno match\r\n");
  // No file: nothing printed, nothing changed.
  EXPECT_EQ(load(""), "");
  EXPECT_EQ(access_if, ACCESS_IF_RESERVED);
  // A line longer than one read is taken in pieces; the rest is a line of its own.
  EXPECT_EQ(load("debug 3\nmdcaddrid 17" + std::string(300, 'z') + "\ninterface spi"),
            "mdcaddrid 17\r\nno match\r\ninterface spi\r\n");
  EXPECT_EQ(mdcaddrid, 17);
}

TEST(Prompt, PathUpToTabAndPreloadAfterHelpOrCompletion) {
  char prompt[KIV_PROMPT_SIZE] = {};
  static char line[KIV_LINE_SIZE];
  auto build = [&](const std::string &path, const std::string &out, signed char term) {
    std::snprintf(kiv_pathBuffer, KIV_PATHBUF_SIZE, "%s", path.c_str());
    std::snprintf(kiv_outputBuffer, KIV_OUTBUF_SIZE, "%s", out.c_str());
    std::strcpy(line, "old");
    EXPECT_EQ(kiv_buildPrompt(prompt, KIV_PROMPT_SIZE, line, term), 0);
    return std::string(prompt) + "|" + line;
  };
  EXPECT_EQ(build("<HX5200/vlan>\tjunk", "vlan ", '\t'), "<HX5200/vlan> |vlan ");
  EXPECT_EQ(build("<HX5200/>", "reg read ", 'x'), "<HX5200/> |");   // '?' and 0: see Tool.TerminalSession
  EXPECT_EQ(build("", "reg read ", '?'), " |");
  // Bounded: a long path fills the prompt buffer, a full output buffer the line.
  EXPECT_EQ(build(std::string(300, 'p'), std::string(KIV_OUTBUF_SIZE, 'o'), '\t'),
            std::string(KIV_PROMPT_SIZE - 2, 'p') + " |" + std::string(KIV_LINE_SIZE - 2, 'o'));
  // A smaller size is honoured: 5 bytes hold three characters, the blank and the NUL.
  std::memset(prompt, 'x', sizeof prompt);
  kiv_buildPrompt(prompt, 5, line, 0);
  EXPECT_STREQ(prompt, "ppp ");
}

}  // namespace
