// Fuzz target: the six parameter checkers of the usage grammar, the dotted-address and MAC
// conversions under them, and the three range-list parsers that handlers use for port lists.
//
// Input: one selector byte, for the range parsers four bytes of bounds and a word count,
// then the token text. The token is copied into a buffer of its exact size so that any
// read past its terminator is caught.
#include <array>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz/fuzz_util.h"
#include "kiv/hx_utils.h"
#include "kiv/kiv_ciscoParserParamChecker.h"

namespace {

constexpr kiv_memaddr kRedirectUntouched = 0x5A5A5A5Au;

// Runs one built-in checker as the matcher does: the slot points at aligned storage of the
// type's size, the redirect word is primed with a marker.
void runChecker(const kiv_paramType_t &type, char *token) {
  const std::string typed(token);   // the network checker cuts the token in place
  alignas(8) std::array<uint8_t, 16> storage{};
  void *slot = storage.data();
  kiv_memaddr redirect = kRedirectUntouched;
  const kiv_int32 r = type.checker(&slot, token, type.maxSize, &redirect);

  FUZZ_CHECK(r == -1 || (r >= 0 && static_cast<kiv_uint32>(r) <= type.maxSize));
  // Built-in checkers never hand the line to another command: on refusal they clear the
  // word (the network checker leaves it), on acceptance they leave it alone.
  if (r < 0 && type.checker != kiv_checkDynCmdParam_Net)
    FUZZ_CHECK(redirect == 0);
  else
    FUZZ_CHECK(redirect == kRedirectUntouched);
  if (r < 0) return;

  const bool textType = type.maxSize == 0;
  if (textType) {
    // Text types hand out the typed token itself.
    FUZZ_CHECK(slot == token);
    if (type.checker == kiv_checkDynCmdParam_Str) FUZZ_CHECK(isalpha(static_cast<unsigned char>(token[0])));
  } else {
    FUZZ_CHECK(slot == storage.data());
    if (type.checker == kiv_checkDynCmdParam_Number) {
      kiv_uint32 v;
      memcpy(&v, storage.data(), 4);
      FUZZ_CHECK(!isalpha(static_cast<unsigned char>(token[0])));
      FUZZ_CHECK(strchr(token, '.') == nullptr);
      // Zero only from its fixed spellings; any other text that converts to 0 is refused.
      static constexpr const char *kZeros[] = {"0", "0x0", "0x00", "0x000", "0x0000", "00", "000", "0000"};
      bool zeroSpelling = false;
      for (const char *z : kZeros) zeroSpelling = zeroSpelling || strcmp(token, z) == 0;
      // Otherwise the value is what strtoul makes of the text (kept to 32 bits), and the
      // conversion itself must not have given 0.
      const unsigned long full = strtoul(typed.c_str(), nullptr, 0);
      FUZZ_CHECK(zeroSpelling ? v == 0 : (full != 0 && v == static_cast<kiv_uint32>(full)));
    }
    if (type.checker == kiv_checkDynCmdParam_Net) FUZZ_CHECK(typed.find('/') != std::string::npos);
  }
}

// Port-list parsers: bits set only for values inside lo..hi.
void runRangeParsers(uint8_t which, kiv_uint16 lo, kiv_uint16 hi, kiv_uint32 words, const char *text) {
  switch (which % 3) {
    case 0: {
      kiv_uint32 mask = 0xDEADBEEF;
      const int r = hx_portListToMask(text, lo, hi, &mask);
      FUZZ_CHECK(r == 0 || r == -1);
      if (r != 0) {
        FUZZ_CHECK(mask == 0);
      } else if (hi >= lo && hi - lo < 31) {
        FUZZ_CHECK((mask >> (hi - lo + 1)) == 0);
      } else if (hi < lo) {
        FUZZ_CHECK(mask == 0 || strcmp(text, "none") == 0);
      }
      break;
    }
    case 1: {
      // Exactly `words` words: a bit past them would be an overrun.
      std::vector<kiv_uint32> bitmap(words ? words : 1, 0xFFFFFFFFu);
      const int r = hx_portListToBitmap(text, lo, hi, bitmap.data(), words);
      FUZZ_CHECK(r == 0 || r == -1);
      for (kiv_uint32 w = 0; w < words; w++) {
        for (kiv_uint32 b = 0; b < 32; b++) {
          if (!(bitmap[w] >> b & 1u)) continue;   // items before a bad one may have set bits
          FUZZ_CHECK(static_cast<uint64_t>(lo) + w * 32u + b <= hi);
        }
      }
      break;
    }
    default: {
      kiv_uint16 from = 0xAAAA, to = 0x5555;
      const int r = hx_parseRange(text, lo, hi, &from, &to);
      FUZZ_CHECK(r == 0 || r == -1);
      if (r == 0) FUZZ_CHECK(from <= to && to <= hi && from >= lo);
      break;
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  fuzz_quietStdout();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  ByteReader in(data, size);
  const uint8_t selector = in.u8();
  kiv_uint16 lo = 0, hi = 0;
  kiv_uint32 words = 0;
  if (selector >= 0x80) {
    lo = in.u16() % 300;
    hi = in.u16() % 1100;
    words = in.u8() % 40;
  }
  size_t n = 0;
  const uint8_t *rest = in.rest(&n);
  if (n > 600) n = 600;
  std::vector<char> token(rest, rest + n);
  token.push_back('\0');
  char *text = token.data();

  if (selector >= 0x80) {
    runRangeParsers(selector, lo, hi, words, text);
    return 0;
  }
  switch (selector % 8) {
    case 6: {
      kiv_uint32 addr = 0;
      const int ok = hx_inetAton(text, &addr);
      FUZZ_CHECK(ok == 0 || ok == 1);
      FUZZ_CHECK(ok == 0 || isdigit(static_cast<unsigned char>(text[0])));
      break;
    }
    case 7: {
      std::array<kiv_uint8, 6> mac{};
      const int r = strToMac(mac.data(), text);
      FUZZ_CHECK(r == 0 || r == -1);
      std::array<char, 18> buf{};
      hx_macToStr(mac.data(), buf.data());
      break;
    }
    default:
      runChecker(kiv_builtinParamTypes[selector % 8 % kiv_builtinParamTypeCount], text);
      break;
  }
  return 0;
}
