// Text, number and dump helpers of the command engine, and the port-list parsers.
#include "kiv/hx_utils.h"

#include <assert.h>

#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstring>

// The C runtime's assertion handler; declared here because <assert.h> hides it when
// NDEBUG is set, and these checks stay on in every build.
extern "C" [[noreturn]] void __assert_fail(const char *assertion, const char *file, unsigned int line,
                                           const char *function) noexcept;

namespace {

// Reports a broken precondition of a helper through the C runtime's assertion handler,
// naming this source file the way the engine's own reports do.
[[noreturn]] void utilAssert(const char *cond, int line, const char *func) {
  __assert_fail(cond, "kiv/hx_utils", static_cast<unsigned>(line), func);
}

constexpr int kRowBytes = 16;

// Prints one row of `n` (1..16) bytes for the hex dump.
void hexDumpRow(const kiv_uint8 *row, int n) {
  char chars[kRowBytes + 1];
  printf("\n%08x ", static_cast<kiv_uint32>(reinterpret_cast<kiv_memaddr>(row)));
  for (int i = 0; i < n; i++) {
    if (i == 8) printf("  ");
    printf("%02x ", row[i]);
    chars[i] = row[i] < 0x20 ? ' ' : static_cast<char>(row[i]);
  }
  chars[n] = '\0';
  for (int i = n; i < kRowBytes; i++) printf("   ");
  if (n < 8) printf("  ");
  printf("  %s", chars);
}

// Prints one area of the compare dump, highlighting bytes that differ from `other`.
void compareDumpArea(const kiv_uint8 *p, const kiv_uint8 *other, kiv_uint32 len) {
  for (kiv_uint32 off = 0; off < len; off += kRowBytes) {
    const int n = static_cast<int>(len - off < kRowBytes ? len - off : kRowBytes);
    char chars[kRowBytes + 1];
    printf("\n%08x ", static_cast<kiv_uint32>(reinterpret_cast<kiv_memaddr>(p + off)));
    for (int i = 0; i < n; i++) {
      const kiv_uint8 b = p[off + i];
      if (b != other[off + i])
        printf("\x1b[41;33m%02x\x1b[m ", b);
      else
        printf("%02x ", b);
      chars[i] = (b < 0x20 || b > 0x7e) ? '.' : static_cast<char>(b);
    }
    chars[n] = '\0';
    for (int i = n; i < kRowBytes; i++) printf("   ");
    printf("  %s", chars);
  }
}

bool isDigit(char c) { return c >= '0' && c <= '9'; }

}  // namespace

void hx_hexDump(const void *addr, kiv_uint32 len, const char *title) {
  if (title) printf("%s", title);
  const auto *p = static_cast<const kiv_uint8 *>(addr);
  for (kiv_uint32 off = 0; off < len; off += kRowBytes)
    hexDumpRow(p + off, static_cast<int>(len - off < kRowBytes ? len - off : kRowBytes));
  printf("\n");
}

int hx_compareDump(const void *a, const void *b, kiv_uint32 len, const char *title) {
  if (len == 0 || std::memcmp(a, b, len) == 0) return 0;
  if (title) printf("%s", title);
  const auto *pa = static_cast<const kiv_uint8 *>(a);
  const auto *pb = static_cast<const kiv_uint8 *>(b);
  compareDumpArea(pa, pb, len);
  printf("\n--------");
  compareDumpArea(pb, pa, len);
  printf("\n");
  return 1;
}

int hx_inetAton(const char *text, kiv_uint32 *addr) {
  if (text == nullptr || addr == nullptr || !isDigit(*text)) return 0;
  uint64_t parts[4] = {0, 0, 0, 0};
  int count = 0;
  const char *cp = text;
  for (;;) {
    // Each number must begin with a digit; 0x means hexadecimal, a leading 0 octal.
    if (!isDigit(*cp)) return 0;
    uint64_t val = 0;
    unsigned base = 10;
    if (*cp == '0') {
      cp++;
      if (*cp == 'x' || *cp == 'X') {
        base = 16;
        cp++;
      } else {
        base = 8;
      }
    }
    for (;; cp++) {
      const char c = *cp;
      unsigned d;
      if (isDigit(c)) {
        d = static_cast<unsigned>(c - '0');
        if (d >= base) return 0;
      } else if (base == 16 && c >= 'a' && c <= 'f') {
        d = static_cast<unsigned>(c - 'a' + 10);
      } else if (base == 16 && c >= 'A' && c <= 'F') {
        d = static_cast<unsigned>(c - 'A' + 10);
      } else {
        break;
      }
      val = val * base + d;
      if (val > 0xFFFFFFFFull) return 0;  // no part may exceed 32 bits
    }
    if (*cp == '.') {
      if (count >= 3) return 0;  // more than four numbers
      parts[count++] = val;
      cp++;
      continue;
    }
    parts[count++] = val;
    break;
  }
  if (*cp != '\0' && !std::isspace(static_cast<unsigned char>(*cp))) return 0;
  uint64_t v = 0;
  switch (count) {
    case 1:
      v = parts[0];
      break;
    case 2:
      if (parts[0] > 0xFF || parts[1] > 0xFFFFFF) return 0;
      v = parts[0] << 24 | parts[1];
      break;
    case 3:
      if (parts[0] > 0xFF || parts[1] > 0xFF || parts[2] > 0xFFFF) return 0;
      v = parts[0] << 24 | parts[1] << 16 | parts[2];
      break;
    default:
      if (parts[0] > 0xFF || parts[1] > 0xFF || parts[2] > 0xFF || parts[3] > 0xFF) return 0;
      v = parts[0] << 24 | parts[1] << 16 | parts[2] << 8 | parts[3];
      break;
  }
  const kiv_uint8 bytes[4] = {static_cast<kiv_uint8>(v >> 24), static_cast<kiv_uint8>(v >> 16),
                              static_cast<kiv_uint8>(v >> 8), static_cast<kiv_uint8>(v)};
  std::memcpy(addr, bytes, 4);
  return 1;
}

char *inet_ntoa_r(kiv_uint32 addr, char *buf) {
  if (buf == nullptr) utilAssert("p!=NULL", __LINE__, __func__);
  kiv_uint8 bytes[4];
  std::memcpy(bytes, &addr, 4);
  char *p = buf;
  for (int i = 0; i < 4; i++) {
    if (i) *p++ = '.';
    p += std::sprintf(p, "%u", bytes[i]);
  }
  return p + 1;  // sprintf already wrote the terminator
}

char *hx_ipToStr(const kiv_uint8 *addr, char *buf, kiv_uint32 size) {
  char text[16];
  const int n = std::snprintf(text, sizeof text, "%u.%u.%u.%u", addr[0], addr[1], addr[2], addr[3]);
  if (n < 0 || static_cast<kiv_uint32>(n) > size) return nullptr;
  // A text exactly `size` long is still copied (without room for a terminator when it
  // fills the buffer completely), as callers size their buffers generously.
  std::memcpy(buf, text, static_cast<size_t>(n) < size ? static_cast<size_t>(n) + 1 : size);
  return buf;
}

int hx_hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a';
  if (c >= 'A' && c <= 'F') return c - 'A';
  return 0;
}

int strToMac(kiv_uint8 *pMac, const char *pStr) {
  if (pMac == nullptr) utilAssert("pMac != NULL", __LINE__, __func__);
  if (pStr == nullptr) utilAssert("pStr != NULL", __LINE__, __func__);
  std::memset(pMac, 0, 6);
  int idx = 0;
  int separators = 0;
  for (const char *p = pStr; *p; p++) {
    const char c = *p;
    if (c == ' ') continue;
    if (c == ':' || c == '-') {
      separators++;
      if (separators > 5) return -1;  // a sixth separator would step past the last byte
      idx++;
      continue;
    }
    int d;
    if (c >= '0' && c <= '9')
      d = c - '0';
    else if (c >= 'a' && c <= 'f')
      d = c - 'a' + 10;
    else if (c >= 'A' && c <= 'F')
      d = c - 'A' + 10;
    else
      break;
    pMac[idx] = static_cast<kiv_uint8>(pMac[idx] * 16 + d);
  }
  return separators == 5 ? 0 : -1;
}

int hx_macToStr(const kiv_uint8 *mac, char *buf) {
  std::sprintf(buf, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4],
               mac[5]);
  return 0;
}

char *hx_itoa(kiv_int32 value, char *buf) {
  // Work on the magnitude as an unsigned value so that the most negative value works too.
  kiv_uint32 mag = value < 0 ? 0u - static_cast<kiv_uint32>(value) : static_cast<kiv_uint32>(value);
  char tmp[12];
  int n = 0;
  do {
    tmp[n++] = static_cast<char>('0' + mag % 10);
    mag /= 10;
  } while (mag);
  char *p = buf;
  if (value < 0) *p++ = '-';
  while (n) *p++ = tmp[--n];
  *p = '\0';
  return buf;
}

int hx_isPowerOf2(kiv_uint32 value, kiv_uint32 *bit) {
  if (bit == nullptr) return (value & (value - 1)) == 0 ? 1 : 0;
  for (kiv_uint32 k = 0; k < 32; k++) {
    if ((1u << k) == value) {
      *bit = k;
      return 1;
    }
  }
  return 0;
}

kiv_uint32 hx_prefixToMask(kiv_uint32 length) {
  if (length == 0) return 0;
  if (length >= 32) return 0xFFFFFFFFu;
  return ~((1u << (32 - length)) - 1u);
}

kiv_uint32 hx_readRepeatDigits(const char **text) {
  kiv_uint32 value = 0;
  while (isDigit(**text)) {
    value = value * 20 + static_cast<kiv_uint32>(**text - '0');
    (*text)++;
  }
  return value;
}

void hx_strToLower(char *dest, const char *src, size_t n) {
  for (size_t i = 0; i < n && src[i]; i++)
    dest[i] = (src[i] >= 'A' && src[i] <= 'Z') ? static_cast<char>(src[i] - 'A' + 'a') : src[i];
}

char *hx_strncpy(char *dest, const char *src, size_t n) {
  size_t i = 0;
  for (; i < n && src[i]; i++) dest[i] = src[i];
  for (; i < n; i++) dest[i] = '\0';
  return dest;
}

int hx_strncasecmp(const char *a, const char *b, size_t n) {
  for (size_t i = 0; i < n; i++) {
    const int ca = std::tolower(static_cast<unsigned char>(a[i]));
    const int cb = std::tolower(static_cast<unsigned char>(b[i]));
    if (ca != cb) return ca - cb;
    if (ca == 0) break;
  }
  return 0;
}

int hx_strncmp(const char *a, const char *b, size_t n) {
  for (size_t i = 0; i < n; i++) {
    const int ca = static_cast<unsigned char>(a[i]);
    const int cb = static_cast<unsigned char>(b[i]);
    if (ca != cb) return ca - cb;
    if (ca == 0) break;
  }
  return 0;
}

void *hx_memcpy(void *dest, const void *src, size_t n) {
  if (n) std::memcpy(dest, src, n);
  return dest;
}

// ---------------------------------------------------------------------------------------
// Port lists: items separated by ',', each a number or "from-to".

namespace {

constexpr const char *kTooLong = "Input string too long";
constexpr const char *kFirstDigit = "Input character should be 0~9 at the first";
constexpr const char *kDigitAfterDash = "Input character should be 0~9 after '-'";
constexpr const char *kRangeError = "Input Range Error";
constexpr const char *kInputError = "Input error";

// How the numbers of a list are read and checked.
struct ListRules {
  kiv_uint16 lo;
  kiv_uint16 hi;
  bool strict;      // at most 3 digits and checked against lo..hi (else only against hi)
  uint64_t width;   // mask a number is kept to before it is checked
};

// Checks one finished number; prints the range message and returns false when it is out.
bool numberInRange(const ListRules &r, uint64_t value, int digits) {
  bool bad;
  if (r.strict)
    bad = digits > 3 || value < r.lo || value > r.hi || (value == 0 && r.lo != 0);
  else
    bad = value > r.hi || (value == 0 && r.lo != 0);
  if (bad) printf("Input range from %d to %d\n", r.lo, r.hi);
  return !bad;
}

// Walks the list and calls `emit(from, to)` for each item. 0, or -1 after a message.
template <typename Emit>
int walkList(const char *text, const ListRules &r, Emit emit) {
  enum { Start, From, Dash, To } state = Start;
  uint64_t value = 0, from = 0;
  int digits = 0;
  auto readValue = [&]() -> uint64_t { return value & r.width; };
  for (const char *p = text;; p++) {
    const char c = *p;
    switch (state) {
      case Start:
        if (c == '\0') return 0;
        if (!isDigit(c)) {
          puts(kFirstDigit);
          return -1;
        }
        value = static_cast<uint64_t>(c - '0');
        digits = 1;
        state = From;
        break;
      case From:
      case To:
        if (isDigit(c)) {
          if (value < 0xFFFFFFFFull) value = value * 10 + static_cast<uint64_t>(c - '0');
          digits++;
          break;
        }
        if (!numberInRange(r, readValue(), digits)) return -1;
        if (state == From) {
          from = readValue();
          if (c == '-') {
            state = Dash;
            break;
          }
          emit(from, from);
        } else {
          if (c == '-') {
            puts(kDigitAfterDash);
            return -1;
          }
          if (readValue() < from) {
            puts(kRangeError);
            return -1;
          }
          emit(from, readValue());
        }
        if (c == '\0') return 0;
        state = Start;  // c is ','
        break;
      case Dash:
        if (c == '\0') {
          puts(kInputError);
          return -1;
        }
        if (!isDigit(c)) {
          puts(kDigitAfterDash);
          return -1;
        }
        value = static_cast<uint64_t>(c - '0');
        digits = 1;
        state = To;
        break;
    }
  }
}

bool onlyChars(const char *text, bool allowComma) {
  for (const char *p = text; *p; p++)
    if (!isDigit(*p) && *p != '-' && !(allowComma && *p == ',')) return false;
  return true;
}

}  // namespace

int hx_portListToMask(const char *text, kiv_uint16 lo, kiv_uint16 hi, kiv_uint32 *mask) {
  *mask = 0;
  if (text == nullptr) return -1;
  const size_t len = std::strlen(text);
  if (len >= 255) {
    puts(kTooLong);
    return -1;
  }
  if (std::strcmp(text, "0") == 0 && lo != 0) {
    puts("Error!! range from > 0");
    return -1;
  }
  if (len == 1 && isDigit(text[0]) && text[0] - '0' < lo) {
    printf("Error!! range from %d\n", lo);
    return -1;
  }
  if (std::strcmp(text, "none") == 0) return 0;
  if (!onlyChars(text, true)) {
    puts("Input character should be { 0 1 2 3 4 5 6 7 8 9 - , } only");
    return -1;
  }
  kiv_uint32 m = 0;
  const int rc = walkList(text, ListRules{lo, hi, true, 0xFF}, [&](uint64_t f, uint64_t t) {
    for (uint64_t v = f; v <= t; v++)
      if (v - lo < 32) m |= 1u << (v - lo);
  });
  if (rc == 0) *mask = m;
  return rc;
}

int hx_portListToBitmap(const char *text, kiv_uint16 lo, kiv_uint16 hi, kiv_uint32 *bitmap,
                        kiv_uint32 words) {
  for (kiv_uint32 i = 0; i < words; i++) bitmap[i] = 0;
  if (text == nullptr) return -1;
  if (std::strlen(text) >= 255) {
    puts(kTooLong);
    return -1;
  }
  if (std::strcmp(text, "0") == 0 && lo != 0) {
    puts("Error!! range from 1");
    return -1;
  }
  if (std::strcmp(text, "none") == 0) return 0;
  if (!onlyChars(text, true)) {
    puts("Input character should be { 0 1 2 3 4 5 6 7 8 9 - , } only");
    return -1;
  }
  return walkList(text, ListRules{lo, hi, false, 0xFFFFFFFF}, [&](uint64_t f, uint64_t t) {
    // Values below lo pass the checks of this variant; they have no bit to set.
    for (uint64_t v = f < lo ? lo : f; v <= t; v++) {
      const uint64_t bit = v - lo;
      if (bit / 32 < words) bitmap[bit / 32] |= 1u << (bit % 32);
    }
  });
}

int hx_parseRange(const char *text, kiv_uint16 lo, kiv_uint16 hi, kiv_uint16 *from,
                  kiv_uint16 *to) {
  if (text == nullptr) return -1;
  if (std::strlen(text) >= 255) {
    puts(kTooLong);
    return -1;
  }
  if (!onlyChars(text, false)) {
    puts("Input character should be { 0 1 2 3 4 5 6 7 8 9 - } only");
    return -1;
  }
  bool got = false;
  uint64_t f = 0, t = 0;
  const int rc = walkList(text, ListRules{lo, hi, true, 0xFFFF}, [&](uint64_t a, uint64_t b) {
    f = a;
    t = b;
    got = true;
  });
  if (rc != 0) return rc;
  if (!got) {
    puts(kInputError);
    return -1;
  }
  *from = static_cast<kiv_uint16>(f);
  *to = static_cast<kiv_uint16>(t);
  return 0;
}
