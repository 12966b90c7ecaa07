// Text, number and dump helpers and the port-list parsers.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <utility>

#include "engine_fixture.h"
#include "kiv/hx_utils.h"

namespace {

// The "%08x" row address of p.
std::string rowAddr(const void *p) {
  char text[16];
  snprintf(text, sizeof text, "%08x", static_cast<unsigned>(reinterpret_cast<kiv_memaddr>(p)));
  return text;
}

TEST(Utils, HexAndCompareDumps) {
  alignas(16) static const char data[20] = "ABCDEFGHIJ\x01KLMNOPQ";
  EXPECT_EQ(captured([] { hx_hexDump(data, 20, "title:"); }),
            "title:\n" + rowAddr(data) + " 41 42 43 44 45 46 47 48   49 4a 01 4b 4c 4d 4e 4f   ABCDEFGHIJ KLMNO\n" +
                rowAddr(data + 16) + " 50 51 00 00 " + std::string(12 * 3 + 2, ' ') + "  PQ  \n");
  EXPECT_EQ(captured([] { hx_hexDump(data, 0, nullptr); }), "\n");

  alignas(16) static char a[4] = {'a', 'b', 'c', 'd'};
  alignas(16) static char b[4] = {'a', 'X', 'c', '\x7f'};
  EXPECT_EQ(captured([] { EXPECT_EQ(hx_compareDump(a, a, 4, "t"), 0); }), "");
  const std::string pad(12 * 3, ' ');
  EXPECT_EQ(captured([] { EXPECT_EQ(hx_compareDump(a, b, 4, "T"), 1); }),
            "T\n" + rowAddr(a) + " 61 \x1b[41;33m62\x1b[m 63 \x1b[41;33m64\x1b[m " + pad + "  abcd\n--------\n" +
                rowAddr(b) + " 61 \x1b[41;33m58\x1b[m 63 \x1b[41;33m7f\x1b[m " + pad + "  aXc.\n");
}

TEST(Utils, AddressAndMacText) {
  char buf[32];
  const kiv_uint8 bytes[4] = {192, 168, 0, 10};
  kiv_uint32 addr;
  std::memcpy(&addr, bytes, 4);
  char *end = inet_ntoa_r(addr, buf);
  EXPECT_STREQ(buf, "192.168.0.10");
  EXPECT_EQ(end, buf + std::strlen("192.168.0.10") + 1);
  EXPECT_EQ(hx_ipToStr(bytes, buf, sizeof buf), buf);
  EXPECT_STREQ(buf, "192.168.0.10");
  EXPECT_EQ(hx_ipToStr(bytes, buf, 5), nullptr);
  const kiv_uint8 mac[6] = {0, 0x1a, 0xff, 3, 4, 0xb0};
  EXPECT_EQ(hx_macToStr(mac, buf), 0);
  EXPECT_STREQ(buf, "00:1a:ff:03:04:b0");
  kiv_uint8 out[6];
  EXPECT_EQ(strToMac(out, " 00 : 1a:ff-3-4-b0"), 0);
  EXPECT_EQ(std::memcmp(out, mac, 6), 0);
  EXPECT_DEATH(strToMac(nullptr, "1"), "pMac != NULL");
}

TEST(Utils, NumbersAndStrings) {
  char buf[16];
  EXPECT_STREQ(hx_itoa(0, buf), "0");
  EXPECT_STREQ(hx_itoa(INT32_MIN, buf), "-2147483648");

  for (auto [c, v] : {std::pair{'7', 7}, {'a', 0}, {'F', 5}, {'g', 0}})   // letters count from 'a', without adding ten
    EXPECT_EQ(hx_hexDigit(c), v) << c;

  kiv_uint32 bit = 99;
  EXPECT_EQ(hx_isPowerOf2(0, nullptr) + hx_isPowerOf2(64, nullptr) + hx_isPowerOf2(6, nullptr), 2);
  EXPECT_EQ(hx_isPowerOf2(0x80000000u, &bit), 1);
  EXPECT_EQ(bit, 31u);
  EXPECT_EQ(hx_isPowerOf2(0, &bit) + hx_isPowerOf2(12, &bit), 0);
  EXPECT_EQ(hx_prefixToMask(0), 0u);
  EXPECT_EQ(hx_prefixToMask(24), 0xFFFFFF00u);
  EXPECT_EQ(hx_prefixToMask(32), 0xFFFFFFFFu);

  char lower[8] = "xxxxxxx";
  hx_strToLower(lower, "AbC", 7);
  EXPECT_STREQ(lower, "abcxxxx");   // the terminator is not copied
  char padded[7] = "zzzzzz";
  EXPECT_EQ(hx_strncpy(padded, "ab", 5), padded);
  EXPECT_EQ(std::memcmp(padded, "ab\0\0\0z", 6), 0);
  EXPECT_EQ(hx_strncasecmp("HeLLo", "helloX", 5), 0);
}

struct MaskCase {
  const char *text;
  int rc;
  kiv_uint32 mask;
  const char *out;
};

TEST(Utils, PortListToMask) {
  const MaskCase cases[] = {
      {"1-3,5", 0, 0x17, ""},
      {"16", 0, 0x8000, ""},
      {"1,", 0, 0x1, ""},
      {"none", 0, 0, ""},
      {"3-1", -1, 0, "Input Range Error\n"},
      {"17", -1, 0, "Input range from 1 to 16\n"},
      {"1,,2", -1, 0, "Input character should be 0~9 at the first\n"},
      {"0", -1, 0, "Error!! range from > 0\n"},
      {"1-", -1, 0, "Input error\n"},
      {"1--2", -1, 0, "Input character should be 0~9 after '-'\n"},
      {"1-2-3", -1, 0, "Input character should be 0~9 after '-'\n"},
      {"1 2", -1, 0, "Input character should be { 0 1 2 3 4 5 6 7 8 9 - , } only\n"},
      {"0001", -1, 0, "Input range from 1 to 16\n"},
      {"2,0", -1, 0, "Input range from 1 to 16\n"},
      {"265", 0, 1u << 8, ""},                         // numbers are kept to 8 bits: 9
      {"300", -1, 0, "Input range from 1 to 16\n"},   // 44
  };
  for (const auto &k : cases) {
    SCOPED_TRACE(k.text);
    kiv_uint32 mask = 0xdead;
    int rc = 0;
    const std::string out = captured([&] { rc = hx_portListToMask(k.text, 1, 16, &mask); });
    EXPECT_EQ(rc, k.rc);
    EXPECT_EQ(out, k.out);
    EXPECT_EQ(mask, k.mask);
  }
  kiv_uint32 mask = 0;
  EXPECT_EQ(captured([&] { hx_portListToMask("1", 2, 16, &mask); }), "Error!! range from 2\n");
  EXPECT_EQ(captured([&] { EXPECT_EQ(hx_portListToMask("0-2", 0, 7, &mask), 0); }), "");
  EXPECT_EQ(mask, 0x7u);
  const std::string longText(255, '1');
  EXPECT_EQ(captured([&] { hx_portListToMask(longText.c_str(), 1, 16, &mask); }), "Input string too long\n");
}

TEST(Utils, PortListToBitmapAndRange) {
  kiv_uint32 words[3] = {1, 2, 3};
  EXPECT_EQ(captured([&] { EXPECT_EQ(hx_portListToBitmap("1-3,33,64", 1, 100, words, 3), 0); }), "");
  EXPECT_TRUE(words[0] == 0x7u && words[1] == 0x80000001u && words[2] == 0u);   // 33, 64: bits 32, 63
  EXPECT_EQ(captured([&] { hx_portListToBitmap("0", 1, 100, words, 3); }), "Error!! range from 1\n");
  EXPECT_EQ(captured([&] { hx_portListToBitmap("101", 1, 100, words, 3); }), "Input range from 1 to 100\n");
  // Values beyond the given words have no bit and are not written anywhere.
  kiv_uint32 guard[4] = {0, 0, 0, 0x5a5a5a5a};
  EXPECT_EQ(captured([&] { EXPECT_EQ(hx_portListToBitmap("96-100", 1, 100, guard, 3), 0); }), "");
  EXPECT_EQ(guard[2], 0x80000000u);
  EXPECT_EQ(guard[3], 0x5a5a5a5au);

  kiv_uint16 from = 0, to = 0;
  EXPECT_EQ(captured([&] { EXPECT_EQ(hx_parseRange("3-9", 1, 16, &from, &to), 0); }), "");
  EXPECT_EQ(from * 100 + to, 309);
  EXPECT_EQ(captured([&] { EXPECT_EQ(hx_parseRange("7", 1, 16, &from, &to), 0); }), "");
  EXPECT_EQ(from * 100 + to, 707);
  EXPECT_EQ(captured([&] { hx_parseRange("1,2", 1, 16, &from, &to); }),
            "Input character should be { 0 1 2 3 4 5 6 7 8 9 - } only\n");
  EXPECT_EQ(captured([&] { hx_parseRange("9-3", 1, 16, &from, &to); }), "Input Range Error\n");
  EXPECT_EQ(captured([&] { hx_parseRange("0-3", 1, 16, &from, &to); }), "Input range from 1 to 16\n");
}

}  // namespace
