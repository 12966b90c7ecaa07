// Small text, number and dump helpers of the command engine, and the range-list
// parsers that command handlers use for port lists.
#pragma once

#include <cstddef>

#include "kiv/kiv_types.h"

// Hex dump of `len` bytes at `addr`: optional title, rows of 16 bytes with the row
// address, the bytes and their characters, then a newline.
void hx_hexDump(const void *addr, kiv_uint32 len, const char *title);

// Compares two areas. Equal: 0, nothing printed. Different: prints both areas as hex rows
// (differing bytes highlighted) separated by a dashed line and returns 1.
int hx_compareDump(const void *a, const void *b, kiv_uint32 len, const char *title);

// Dotted IPv4 text to an address in network byte order (first number in the first byte).
// Accepts 1 to 4 numbers (decimal, 0-octal, 0x-hex); returns 1 on success, 0 on refusal.
int hx_inetAton(const char *text, kiv_uint32 *addr);

// Writes the four bytes of `addr` (as stored in memory, lowest address first) as a dotted
// decimal text into buf; returns the position just past the terminator.
char *inet_ntoa_r(kiv_uint32 addr, char *buf);

// "%u.%u.%u.%u" of the four bytes into buf; null when the text does not fit `size`.
char *hx_ipToStr(const kiv_uint8 *addr, char *buf, kiv_uint32 size);

// Value of a hexadecimal digit. Letters give their distance from 'a'/'A' (0..5): this
// routine has always worked that way and callers rely on it.
int hx_hexDigit(char c);

// MAC text conversion: ':' or '-' separate the bytes, blanks are skipped, any other
// non-hex character ends the walk. 0 when exactly five separators were seen, else -1.
int strToMac(kiv_uint8 *pMac, const char *pStr);
// "%02x:%02x:%02x:%02x:%02x:%02x" into buf (at least 18 bytes); returns 0.
int hx_macToStr(const kiv_uint8 *mac, char *buf);

// Decimal text of a signed value into buf (at least 12 bytes); returns buf.
char *hx_itoa(kiv_int32 value, char *buf);

// Without `bit`: 1 when at most one bit is set. With `bit`: 1 and the bit number when
// exactly one bit is set, else 0.
int hx_isPowerOf2(kiv_uint32 value, kiv_uint32 *bit);

// Mask with the top `length` bits set (0 gives 0, 32 and above all ones).
kiv_uint32 hx_prefixToMask(kiv_uint32 length);

// Reads decimal digits at *text and advances it; each digit multiplies the value by 20
// first (the factor the repeat bounds of usage grammars have always been read with).
kiv_uint32 hx_readRepeatDigits(const char **text);

// Copies at most n characters of src, stopping at its terminator (not copied), turning
// upper-case letters into lower case.
void hx_strToLower(char *dest, const char *src, size_t n);
// Copies up to n characters including the terminator and zero-pads the rest; returns dest.
char *hx_strncpy(char *dest, const char *src, size_t n);
int hx_strncasecmp(const char *a, const char *b, size_t n);
int hx_strncmp(const char *a, const char *b, size_t n);
void *hx_memcpy(void *dest, const void *src, size_t n);

// Port list ("1-3,5", "none") to a 32-bit mask: value v sets bit v - lo. Numbers are read
// as 8-bit values. Prints the reason and returns -1 on bad input, 0 otherwise.
int hx_portListToMask(const char *text, kiv_uint16 lo, kiv_uint16 hi, kiv_uint32 *mask);
// Port list to a bitmap of `words` 32-bit words: value v sets bit (v - lo) % 32 of word
// (v - lo) / 32. Full-width numbers. Prints the reason and returns -1 on bad input.
int hx_portListToBitmap(const char *text, kiv_uint16 lo, kiv_uint16 hi, kiv_uint32 *bitmap,
                        kiv_uint32 words);
// A single number or "from-to" within lo..hi. Prints the reason and returns -1 on bad input.
int hx_parseRange(const char *text, kiv_uint16 lo, kiv_uint16 hi, kiv_uint16 *from,
                  kiv_uint16 *to);
