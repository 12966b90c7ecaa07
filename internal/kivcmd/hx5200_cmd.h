// Command table of the root group and the handlers of its rows.
#pragma once

#include <array>
#include <cstddef>
#include <cstring>
#include <string_view>

#include "kiv/kiv_parser.h"

extern const kiv_cmd_t hx5200_cmdTable[52];
extern const kiv_group_t hx3100_group;   // kept in the tables, attached to nothing

// Handlers (one per table row; several rows share the not-supported handler).
kiv_int32 hx5200_cmd_reg(kiv_uint32 uid, kiv_int32 argc, void **argv);
kiv_int32 hx5200_cmd_smi(kiv_uint32 uid, kiv_int32 argc, void **argv);
kiv_int32 hx5200_cmd_mmd(kiv_uint32 uid, kiv_int32 argc, void **argv);
kiv_int32 hx5200_cmd_mdx(kiv_uint32 uid, kiv_int32 argc, void **argv);
kiv_int32 hx5200_cmd_phy(kiv_uint32 uid, kiv_int32 argc, void **argv);   // phy and gphy
kiv_int32 hx5200_cmd_set(kiv_uint32 uid, kiv_int32 argc, void **argv);
kiv_int32 hx5200_cmd_get(kiv_uint32 uid, kiv_int32 argc, void **argv);
kiv_int32 hx5200_cmd_init(kiv_uint32 uid, kiv_int32 argc, void **argv);
kiv_int32 hx5200_cmd_mib(kiv_uint32 uid, kiv_int32 argc, void **argv);
kiv_int32 hx5200_cmd_vlan(kiv_uint32 uid, kiv_int32 argc, void **argv);
kiv_int32 hx5200_cmd_spi(kiv_uint32 uid, kiv_int32 argc, void **argv);
// Rows whose behaviour is not described: prints "<command> <first word>: not supported".
kiv_int32 hx5200_cmd_notSupported(kiv_uint32 uid, kiv_int32 argc, void **argv);

// Shell settings changed by `set` and read by other commands.
extern uint8_t hx_mibFormat;    // 0 decimal, 1 hexadecimal
extern uint8_t hx_chipVersion;  // 0..3 = versions a..d, default 1

// ---- usage grammars -------------------------------------------------------------------
// Each family's grammar lives in the family's source file, next to its handler.
extern const char hx5200_usageReg[];
extern const char hx5200_usageSmi[];
extern const char hx5200_usageMmd[];
extern const char hx5200_usageMdx[];
extern const char hx5200_usagePhy[];
extern const char hx5200_usageGphy[];
extern const char hx5200_usageMib[];
extern const char hx5200_usageVlan[];
extern const char hx5200_usageSet[];
extern const char hx5200_usageGet[];
extern const char hx5200_usageSpi[];

// ---- token readers ---------------------------------------------------------------------
// A handler pulls its values in grammar order. Keywords and text come with size 0, numbers
// ("%d") with size 4.

// One value: a keyword or text (`word`), or a number (`num`); `present` false when the
// values are used up.
struct cmd_arg_t {
  const char *word = nullptr;
  kiv_uint32 num = 0;
  bool present = false;
};
inline cmd_arg_t cmd_nextArg(void **argv) {
  cmd_arg_t a;
  void *p = nullptr;
  kiv_uint32 sz = 0;
  if (kiv_getNextCmdToken(argv, &p, &sz) != 0 || p == nullptr) return a;
  a.present = true;
  if (sz == 0)
    a.word = static_cast<const char *>(p);
  else if (sz == 4)
    std::memcpy(&a.num, p, 4);
  return a;
}

// The next value as text (a keyword, "%s" text), null when none is left.
inline const char *cmd_nextStr(void **argv) {
  void *p = nullptr;
  kiv_uint32 sz = 0;
  if (kiv_getNextCmdToken(argv, &p, &sz) != 0) return nullptr;
  return static_cast<const char *>(p);
}

// The next keyword or text; "" for a number or when none is left.
inline const char *cmd_nextWord(void **argv) {
  const cmd_arg_t a = cmd_nextArg(argv);
  return a.word ? a.word : "";
}

// The next number into *value; false (value untouched) for a keyword or when none is left.
inline bool cmd_nextU32(void **argv, kiv_uint32 *value) {
  void *p = nullptr;
  kiv_uint32 sz = 0;
  if (kiv_getNextCmdToken(argv, &p, &sz) != 0 || p == nullptr) return false;
  if (sz == 4) {
    std::memcpy(value, p, 4);
    return true;
  }
  return false;
}

// The next number; 0 for a keyword or when none is left.
inline kiv_uint32 cmd_nextNum(void **argv) {
  kiv_uint32 v = 0;
  cmd_nextU32(argv, &v);
  return v;
}

// The next number, remembered in *last; when none is typed, the number taken before.
inline kiv_uint32 cmd_nextNumOrLast(void **argv, kiv_uint32 *last) {
  kiv_uint32 v = 0;
  if (cmd_nextU32(argv, &v)) *last = v;
  return *last;
}

// Takes the next numbers in order; false when one is missing.
template <typename... Rest>
bool cmd_takeNums(void **argv, kiv_uint32 &first, Rest &...rest) {
  if (!cmd_nextU32(argv, &first)) return false;
  if constexpr (sizeof...(rest) > 0) return cmd_takeNums(argv, rest...);
  return true;
}

inline bool cmd_wordIs(const char *word, std::string_view keyword) {
  return word != nullptr && keyword == word;
}

// ---- subcommands -----------------------------------------------------------------------
// A family handler takes its first word and runs the row of its table with that word.
// Rows hold the family's handler type (most families: cmd_subFn).
using cmd_subFn = kiv_int32 (*)(void **argv);
template <typename Fn = cmd_subFn>
struct cmd_sub_t {
  std::string_view word;
  Fn fn;
};

// The row for `word`, or null (also for a null word).
template <typename Fn, size_t N>
const cmd_sub_t<Fn> *cmd_findSub(const std::array<cmd_sub_t<Fn>, N> &table, const char *word) {
  if (word == nullptr) return nullptr;
  for (const cmd_sub_t<Fn> &row : table)
    if (row.word == word) return &row;
  return nullptr;
}

// Runs the row for `word`, or returns `otherwise` when there is none.
template <size_t N>
kiv_int32 cmd_runSub(const std::array<cmd_sub_t<>, N> &table, const char *word, void **argv,
                     kiv_int32 otherwise) {
  const cmd_sub_t<> *row = cmd_findSub(table, word);
  return row ? row->fn(argv) : otherwise;
}
