// Built-in parameter types: lookup, conversions and refusals.
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <string>

#include "kiv/kiv_ciscoParserParamChecker.h"

namespace {

// Runs a checker on a copy of `text` with an aligned value slot.
struct Check {
  alignas(8) std::array<kiv_uint8, 8> value{};
  char token[64];
  kiv_memaddr redirect = 0x1234;
  void *slot = value.data();
  kiv_int32 operator()(kiv_paramChecker fn, const char *text) {
    std::strncpy(token, text, sizeof token - 1);
    token[sizeof token - 1] = '\0';
    value.fill(0xEE);
    slot = value.data();
    redirect = 0x1234;
    return fn(&slot, token, 8, &redirect);
  }
  kiv_uint32 u32() const {
    kiv_uint32 v;
    std::memcpy(&v, value.data(), 4);
    return v;
  }
  std::string bytes(size_t n) const { return std::string(reinterpret_cast<const char *>(value.data()), n); }
};

TEST(ParamTypes, TableAndLookup) {
  // (The value sizes show in the parser's slot layout.)
  ASSERT_EQ(kiv_builtinParamTypeCount, 6u);
  const char *rows[6][2] = {{"%s", "Any text string"},
                            {"%str", "A text string begins with A-Z,a-z"},
                            {"%d", "A numeric number"},
                            {"%ip", "An IP address. X.X.X.X (X=0~255)"},
                            {"%net", "An IP address and CIDR. X.X.X.X/Y (X=0~255,Y=0~32)"},
                            {"%mac", "A MAC address. 00:11:22:33:44:55"}};
  for (int i = 0; i < 6; i++) {
    EXPECT_STREQ(kiv_builtinParamTypes[i].help, rows[i][1]);
    EXPECT_EQ(kiv_findParamType(nullptr, rows[i][0]), &kiv_builtinParamTypes[i]);
  }
  EXPECT_EQ(kiv_findParamType(nullptr, "%"), nullptr);

  // A command's own table is searched first, and only as many rows as its flags say.
  static const kiv_paramType_t own[] = {{"%d", 2, kiv_checkDynCmdParam_Number, nullptr, "own number"},
                                        {"%port", 4, kiv_checkDynCmdParam_Number, nullptr, "port"}};
  kiv_cmd_t cmd{"x", "", "", nullptr, KIV_USECISCOCMDPARSER | KIV_PARAMTABLE_FLAGS(1), 0, 0, 0, own};
  EXPECT_EQ(kiv_findParamType(&cmd, "%d"), &own[0]);
  EXPECT_EQ(kiv_findParamType(&cmd, "%port"), nullptr);
  cmd.cmdFlags = static_cast<kiv_uint16>(KIV_USECISCOCMDPARSER | KIV_PARAMTABLE_FLAGS(2));
  EXPECT_EQ(kiv_findParamType(&cmd, "%port"), &own[1]);
  EXPECT_EQ(kiv_findParamType(&cmd, "%ip"), &kiv_builtinParamTypes[3]);
}

TEST(ParamTypes, NumberAndText) {
  Check c;
  struct {
    const char *text;
    kiv_int32 rc;
    kiv_uint32 value;
  } cases[] = {
      {"0x10", 4, 16},       {"0000", 4, 0},        {"0", 4, 0},          {"0x0000", 4, 0},
      {"-1", 4, 4294967295u}, {"12ab", 4, 12},      {"010", 4, 8},        {"4294967295", 4, 4294967295u},
      {"0x00000", -1, 0},    {"0.5", -1, 0},        {"abc", -1, 0},       {"0x", -1, 0},
  };
  for (const auto &k : cases) {
    SCOPED_TRACE(k.text);
    ASSERT_EQ(c(kiv_checkDynCmdParam_Number, k.text), k.rc);
    if (k.rc == 4) {
      EXPECT_EQ(c.u32(), k.value);
    } else {
      EXPECT_EQ(c.redirect, 0u);   // a refusal clears the redirect word
    }
  }
  // Text types: the value is the typed text itself; "%str" wants a letter first.
  EXPECT_EQ(c(kiv_checkDynCmdParam_String, "any 1 text"), 0);
  EXPECT_EQ(c.slot, static_cast<void *>(c.token));
  EXPECT_EQ(c(kiv_checkDynCmdParam_Str, "zed"), 0);
  EXPECT_EQ(c.slot, static_cast<void *>(c.token));
  EXPECT_EQ(c(kiv_checkDynCmdParam_Str, "1abc"), -1);
  EXPECT_EQ(c.redirect, 0u);
}

TEST(ParamTypes, IpAddress) {
  Check c;
  struct {
    const char *text;
    bool ok;
    std::array<kiv_uint8, 4> bytes;
  } cases[] = {
      {"10.1", true, {10, 0, 0, 1}},          {"1.2.3.4 ", true, {1, 2, 3, 4}},
      {"192.168.300", true, {192, 168, 1, 44}},   // three numbers: last up to 65535
      {"0x7f.1", true, {127, 0, 0, 1}},       {"010.0.0.1", true, {8, 0, 0, 1}},
      {"3232235777", true, {192, 168, 1, 1}}, {"256.1.1.1", false, {}},
      {"1.2.3.4.5", false, {}},               {"1.2.3.4x", false, {}},
      {".1.2.3", false, {}},                  {"08.1.1.1", false, {}},
      {"1.16777216", false, {}},              {"4294967296", false, {}},
  };
  for (const auto &k : cases) {
    SCOPED_TRACE(k.text);
    const kiv_int32 rc = c(kiv_checkDynCmdParam_Ip, k.text);
    if (k.ok) {
      ASSERT_EQ(rc, 4);
      EXPECT_EQ(std::memcmp(c.value.data(), k.bytes.data(), 4), 0);
    } else {
      EXPECT_EQ(rc, -1);
      EXPECT_EQ(c.redirect, 0u);
    }
  }
}

TEST(ParamTypes, NetworkAndMac) {
  Check c;
  ASSERT_EQ(c(kiv_checkDynCmdParam_Net, "192.168.1.0/24"), 5);
  EXPECT_EQ(c.bytes(5), std::string("\xc0\xa8\x01\x00\x00", 5));   // the prefix byte is stored as 0
  EXPECT_STREQ(c.token, "192.168.1.0");   // cut in place at '/'
  EXPECT_EQ(c(kiv_checkDynCmdParam_Net, "10.0.0.0/99"), 5);   // no upper bound on the prefix
  for (const char *bad : {"192.168.1.0", "/24", "1.2.3.4/2x", "300.1.1.1/8", ""}) {
    SCOPED_TRACE(bad);
    EXPECT_EQ(c(kiv_checkDynCmdParam_Net, bad), -1);
    EXPECT_EQ(c.redirect, 0x1234u);   // left alone by this checker
  }

  ASSERT_EQ(c(kiv_checkDynCmdParam_Mac, "00-11-22-33-44-55"), 6);
  EXPECT_EQ(c.bytes(6), std::string("\x00\x11\x22\x33\x44\x55", 6));
  ASSERT_EQ(c(kiv_checkDynCmdParam_Mac, "0:1:2:3:4:5"), 6);
  EXPECT_EQ(c.bytes(6), std::string("\0\1\2\3\4\5", 6));
  ASSERT_EQ(c(kiv_checkDynCmdParam_Mac, "aB:Cd:1:2:3:123"), 6);   // extra digits push out older ones
  EXPECT_EQ(c.bytes(6), std::string("\xab\xcd\x01\x02\x03\x23", 6));
  EXPECT_EQ(c(kiv_checkDynCmdParam_Mac, "00:11:22:33:44"), -1);
  EXPECT_EQ(c.redirect, 0u);
  EXPECT_EQ(c(kiv_checkDynCmdParam_Mac, "0:1:2:3:4:5:6"), -1);
  EXPECT_EQ(c(kiv_checkDynCmdParam_Mac, "0:1:2g:3:4:5"), -1);   // the walk ends at 'g'
}

TEST(ParamTypesDeath, MisalignedNumberSlot) {
  alignas(4) char storage[8] = {};
  char token[] = "5";
  void *slot = storage + 1;
  kiv_memaddr redirect = 0;
  // The report goes to stdout; send it to stderr where the death test looks.
  EXPECT_DEATH((dup2(2, 1), kiv_checkDynCmdParam_Number(&slot, token, 4, &redirect)),
               "\nkiv/kiv_ciscoParserParamChecker:kiv_checkDynCmdParam_Number:[0-9]+:"
               "'IS4BYTEALIGNED\\(I32_value\\(token\\)\\)'");
}

}  // namespace
