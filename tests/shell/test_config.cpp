// kivcfg.txt and the prompt / pre-load rules, in-process.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <string>

#include "access/access.h"
#include "kiv/kiv_parser.h"
#include "run_tool.h"
#include "shell/kivshell.h"

namespace {

class ConfigFile : public ::testing::Test {
 protected:
  void SetUp() override {
    oldCwd_ = std::filesystem::current_path();
    dir_ = make_temp_dir("kivcfg");
    std::filesystem::current_path(dir_);
    reset();
  }
  void TearDown() override {
    access_if_set(ACCESS_IF_I2C);
    std::filesystem::current_path(oldCwd_);
  }
  static void reset() {
    access_if_set(ACCESS_IF_RESERVED);   // a code the file cannot select: shows any change
    i2caddrid = 4;
    mdcaddrid = 24;
  }
  // Loads `content` as kivcfg.txt; returns what was printed.
  std::string load(const std::string &content) {
    write_file(dir_ + "/kivcfg.txt", content);
    ::testing::internal::CaptureStdout();
    kiv_loadConfig();
    fflush(stdout);
    return ::testing::internal::GetCapturedStdout();
  }
  std::filesystem::path oldCwd_;
  std::string dir_;
};

TEST_F(ConfigFile, ValuesComeFromAFixedColumn) {
  const struct {
    const char *line;
    unsigned iface, i2c, mdc;
  } cases[] = {
      {"interface spi\n", 2, 4, 24},   {"interface smi\n", 1, 4, 24},  {"interface i2cfoo\n", 0, 4, 24},
      {"interface=spi\n", 2, 4, 24},   {"interface uart\n", 3, 4, 24}, {"interface  smi\n", 3, 4, 24},
      {"Interface smi\n", 3, 4, 24},   {"i2caddrid 9\n", 3, 1, 24},    {"i2caddrid 5\r\n", 3, 5, 24},
      {"i2caddrid 0x6\n", 3, 0, 24},   {"i2caddrid q\n", 3, 4, 24},    {"mdcaddrid 31\n", 3, 4, 31},
      {"mdcaddrid 0x1f\n", 3, 4, 31},  {"mdcaddrid 123\n", 3, 4, 12},  {"mdcaddrid 7a\n", 3, 4, 7},
      {"mdcaddrid 0X10\n", 3, 4, 16},  {"mdcaddrid 0x1ff\n", 3, 4, 31}, {"mdcaddrid:5\r\n", 3, 4, 5},
      {"mdcaddrid z\n", 3, 4, 24},     {"interface spi", 2, 4, 24},    // no final newline
  };
  for (const auto &c : cases) {
    reset();
    EXPECT_EQ(load(c.line), "") << c.line;   // debug level 0: silent
    EXPECT_EQ(access_if, c.iface) << c.line;
    EXPECT_EQ(i2caddrid, c.i2c) << c.line;
    EXPECT_EQ(mdcaddrid, c.mdc) << c.line;
  }
}

TEST_F(ConfigFile, DebugLevelGovernsTheMessagesOfLaterLines) {
  const std::string body = "# note\nfoo\ninterface smi\ni2caddrid 3\ni2caddrid q\nmdcaddrid 0x0a\nmdcaddrid z\n";
  const std::string level2 = "interface smi\r\ni2caddress 3\r\ni2caddrid is not a number: q\r\n"
                             "mdcaddrid 10\r\nmdcaddrid is not a number: z\r\n";
  EXPECT_EQ(load(body + "debug 3\n" + body), "skip # note\n\r\nno match\r\n" + level2);
  EXPECT_EQ(load("debug 2\n" + body), level2);
  EXPECT_EQ(load("debug 1\n" + body), "interface smi\r\n");
  EXPECT_EQ(load("debug 12\n" + body), "interface smi\r\n");   // only column 6 counts
  EXPECT_EQ(load("debug x\n" + body), "");
  EXPECT_EQ(load("debug 3\n\nInterface smi\n"), "no match\r\nno match\r\n");
}

TEST_F(ConfigFile, MissingFileLongLinesAndJunkAreHarmless) {
  ::testing::internal::CaptureStdout();
  kiv_loadConfig();
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(access_if, ACCESS_IF_RESERVED);
  // A line longer than one read is taken in pieces; the rest is a line of its own.
  EXPECT_EQ(load("debug 3\nmdcaddrid 17" + std::string(300, 'z') + "\ninterface spi"),
            "mdcaddrid 17\r\nno match\r\ninterface spi\r\n");
  EXPECT_EQ(mdcaddrid, 17);
  std::string junk(3000, '\0');
  for (size_t i = 0; i < junk.size(); ++i) junk[i] = static_cast<char>(i * 37);
  load(junk);
}

TEST(Prompt, PathUpToTabAndPreloadAfterHelpOrCompletion) {
  char prompt[KIV_PROMPT_SIZE] = {};
  static char line[KIV_LINE_SIZE];
  auto build = [&](const char *path, const char *out, signed char term) {
    std::snprintf(kiv_pathBuffer, KIV_PATHBUF_SIZE, "%s", path);
    std::snprintf(kiv_outputBuffer, KIV_OUTBUF_SIZE, "%s", out);
    std::strcpy(line, "old");
    EXPECT_EQ(kiv_buildPrompt(prompt, KIV_PROMPT_SIZE, line, term), 0);
    return std::string(prompt) + "|" + line;
  };
  EXPECT_EQ(build("<HX5200/>", "reg read ", '?'), "<HX5200/> |reg read ");
  EXPECT_EQ(build("<HX5200/vlan>\tjunk", "vlan ", '\t'), "<HX5200/vlan> |vlan ");
  EXPECT_EQ(build("<HX5200/>", "reg read ", 0), "<HX5200/> |");
  EXPECT_EQ(build("<HX5200/>", "reg read ", 'x'), "<HX5200/> |");
  EXPECT_EQ(build("", "reg read ", '?'), " |");
  // Bounded: a long path fills the prompt buffer, an unterminated output buffer the line.
  std::string longPath(KIV_PATHBUF_SIZE - 1, 'p');
  std::string longOut(KIV_OUTBUF_SIZE, 'o');
  EXPECT_EQ(build(longPath.c_str(), longOut.c_str(), '\t'),
            std::string(KIV_PROMPT_SIZE - 2, 'p') + " |" + std::string(KIV_LINE_SIZE - 2, 'o'));
}

}  // namespace
