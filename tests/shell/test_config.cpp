// kivcfg.txt reading and the prompt / pre-load rules, in-process.
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

struct Settings {
  unsigned iface;
  unsigned i2c;
  unsigned mdc;
};

class ConfigFile : public ::testing::Test {
 protected:
  void SetUp() override {
    oldCwd_ = std::filesystem::current_path();
    dir_ = make_temp_dir("kivcfg");
    ASSERT_EQ(chdir(dir_.c_str()), 0);
    access_if_set(ACCESS_IF_RESERVED);   // a value the file cannot select, to see changes
    i2caddrid = 4;
    mdcaddrid = 24;
  }
  void TearDown() override {
    access_if_set(ACCESS_IF_I2C);
    i2caddrid = 4;
    mdcaddrid = 24;
    std::filesystem::current_path(oldCwd_);
  }
  // Loads `content` as kivcfg.txt and returns what was printed.
  std::string load(const std::string &content) {
    write_file(dir_ + "/kivcfg.txt", content);
    ::testing::internal::CaptureStdout();
    kiv_loadConfig();
    fflush(stdout);
    return ::testing::internal::GetCapturedStdout();
  }
  Settings now() const { return {access_if, i2caddrid, mdcaddrid}; }

  std::filesystem::path oldCwd_;
  std::string dir_;
};

TEST_F(ConfigFile, InterfaceKeyUsesFirstThreeCharactersOfTheFixedColumn) {
  EXPECT_EQ(load("interface spi\n"), "");
  EXPECT_EQ(access_if, ACCESS_IF_SPI);
  load("interface smi\n");
  EXPECT_EQ(access_if, ACCESS_IF_SMI);
  load("interface i2cfoo\n");
  EXPECT_EQ(access_if, ACCESS_IF_I2C);
  // Any separator character: the value column is fixed.
  load("interface=spi\n");
  EXPECT_EQ(access_if, ACCESS_IF_SPI);
  // Unknown values and a shifted value column change nothing, silently, at any level.
  EXPECT_EQ(load("debug 3\ninterface uart\ninterface  smi\n"), "");
  EXPECT_EQ(access_if, ACCESS_IF_SPI);
  // Keys are case-sensitive.
  EXPECT_EQ(load("debug 3\nInterface smi\n"), "no match\r\n");
  EXPECT_EQ(access_if, ACCESS_IF_SPI);
}

TEST_F(ConfigFile, I2cAddressIdTakesOneDigitMaskedToThreeBits) {
  load("i2caddrid 9\n");
  EXPECT_EQ(i2caddrid, 1);
  load("i2caddrid 5\n");
  EXPECT_EQ(i2caddrid, 5);
  // The leading digit wins over the hexadecimal form.
  load("i2caddrid 0x6\n");
  EXPECT_EQ(i2caddrid, 0);
  load("i2caddrid 73\n");
  EXPECT_EQ(i2caddrid, 7);
  EXPECT_EQ(load("debug 2\ni2caddrid 3\ni2caddrid q\n"), "i2caddress 3\r\ni2caddrid is not a number: q\r\n");
  EXPECT_EQ(i2caddrid, 3);
  EXPECT_EQ(load("debug 1\ni2caddrid 6\ni2caddrid q\n"), "");
  EXPECT_EQ(i2caddrid, 6);
}

TEST_F(ConfigFile, MdcAddressIdDecimalAndHexForms) {
  const struct {
    const char *line;
    unsigned want;
  } cases[] = {
      {"mdcaddrid 31\n", 31}, {"mdcaddrid 0x1f\n", 31}, {"mdcaddrid 123\n", 12}, {"mdcaddrid 7a\n", 7},
      {"mdcaddrid 0X10\n", 16}, {"mdcaddrid 0x1ff\n", 31}, {"mdcaddrid 99\n", 99}, {"mdcaddrid:5\n", 5},
  };
  for (const auto &c : cases) {
    mdcaddrid = 24;
    load(c.line);
    EXPECT_EQ(mdcaddrid, c.want) << c.line;
  }
  EXPECT_EQ(load("debug 2\nmdcaddrid 0x0a\nmdcaddrid 12\nmdcaddrid z\n"),
            "mdcaddrid 10\r\nmdcaddrid 12\r\nmdcaddrid is not a number: z\r\n");
  EXPECT_EQ(mdcaddrid, 12);
}

TEST_F(ConfigFile, DebugLevelGovernsMessagesOfLaterLinesOnly) {
  const std::string body = "# comment\nfoo bar\ninterface smi\n";
  EXPECT_EQ(load(body + "debug 3\n" + body),
            "skip # comment\n\r\nno match\r\ninterface smi\r\n");
  EXPECT_EQ(load("debug 2\n" + body), "interface smi\r\n");
  EXPECT_EQ(load("debug 1\n" + body), "interface smi\r\n");
  EXPECT_EQ(load("debug 0\n" + body), "");
  // Only column 6 counts: "12" is level 1, a non-digit is level 0.
  EXPECT_EQ(load("debug 12\n" + body), "interface smi\r\n");
  EXPECT_EQ(load("debug x\n" + body), "");
  // An empty line is an unknown key.
  EXPECT_EQ(load("debug 3\n\n"), "no match\r\n");
  Settings s = now();
  EXPECT_EQ(s.iface, ACCESS_IF_SMI);
}

TEST_F(ConfigFile, MissingFileAndOverlongLinesAreHarmless) {
  std::filesystem::remove(dir_ + "/kivcfg.txt");
  ::testing::internal::CaptureStdout();
  kiv_loadConfig();
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(access_if, ACCESS_IF_RESERVED);
  EXPECT_EQ(mdcaddrid, 24);

  // A line longer than the read is taken in pieces: the rest is a line of its own.
  std::string longLine = "mdcaddrid 17" + std::string(300, 'z') + "\n";
  EXPECT_EQ(load("debug 3\n" + longLine + "interface spi"), "mdcaddrid 17\r\nno match\r\ninterface spi\r\n");
  EXPECT_EQ(mdcaddrid, 17);
  EXPECT_EQ(access_if, ACCESS_IF_SPI);   // a last line without newline still counts

  // Binary junk does not upset the reader.
  std::string junk(2000, '\0');
  for (size_t i = 0; i < junk.size(); ++i) junk[i] = static_cast<char>(i * 37);
  load(junk);
}

// ---- prompt and pre-load ----------------------------------------------------------------

class Prompt : public ::testing::Test {
 protected:
  void SetUp() override {
    std::memset(kiv_pathBuffer, 0, KIV_PATHBUF_SIZE);
    std::memset(kiv_outputBuffer, 0, KIV_OUTBUF_SIZE);
    std::memset(line_, 'L', sizeof line_);
    line_[sizeof line_ - 1] = '\0';
  }
  std::string build(signed char term) {
    EXPECT_EQ(kiv_buildPrompt(prompt_, KIV_PROMPT_SIZE, line_, term), 0);
    return prompt_;
  }
  char prompt_[KIV_PROMPT_SIZE + 8] = {};
  char line_[KIV_LINE_SIZE + 8];
};

TEST_F(Prompt, PathUpToTabThenBlank) {
  std::strcpy(kiv_pathBuffer, "<HX5200/>");
  EXPECT_EQ(build(0), "<HX5200/> ");
  std::strcpy(kiv_pathBuffer, "<HX5200/vlan>\tjunk");
  EXPECT_EQ(build(0), "<HX5200/vlan> ");
  std::memset(kiv_pathBuffer, 'p', KIV_PATHBUF_SIZE - 1);
  std::string p = build(0);
  EXPECT_EQ(p.size(), static_cast<size_t>(KIV_PROMPT_SIZE - 1));
  EXPECT_EQ(p.back(), ' ');
}

TEST_F(Prompt, PreloadOnlyAfterHelpOrCompletionWithAPath) {
  std::strcpy(kiv_pathBuffer, "<HX5200/>");
  std::strcpy(kiv_outputBuffer, "reg read ");
  build('?');
  EXPECT_STREQ(line_, "reg read ");
  std::strcpy(line_, "x");
  build('\t');
  EXPECT_STREQ(line_, "reg read ");
  build(0);
  EXPECT_STREQ(line_, "");
  build('a');
  EXPECT_STREQ(line_, "");
  kiv_pathBuffer[0] = '\0';
  std::strcpy(line_, "x");
  build('?');
  EXPECT_STREQ(line_, "");
  // An output buffer without a terminator is cut to what the editor can hold.
  std::strcpy(kiv_pathBuffer, "<HX5200/>");
  std::memset(kiv_outputBuffer, 'o', KIV_OUTBUF_SIZE);
  build('\t');
  EXPECT_EQ(std::strlen(line_), static_cast<size_t>(KIV_LINE_SIZE - 2));
}

}  // namespace
