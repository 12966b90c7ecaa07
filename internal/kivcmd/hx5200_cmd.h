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
//
// Missing has one meaning for every reader: no value is left on the line, or the next value
// is not of the kind the reader asks for (a number where text is asked, text where a number
// is asked; the value is taken either way). Every reader reports it the same way: text
// readers return null, number readers return false and leave their output as it was, and
// the readers with a fallback return the fallback their caller names. No reader hands out a
// number's bytes as text.

// One value: a keyword or text (`word`), or a number (`num`); `present` false when missing
// (a value that is neither, such as an address, counts as missing too).
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
  if (sz == 0) {
    a.word = static_cast<const char *>(p);
    a.present = true;
  } else if (sz == 4) {
    std::memcpy(&a.num, p, 4);
    a.present = true;
  }
  return a;
}

// The next keyword or text; null when missing.
inline const char *cmd_nextStr(void **argv) { return cmd_nextArg(argv).word; }

// The next number into *value; false (value untouched) when missing.
inline bool cmd_nextU32(void **argv, kiv_uint32 *value) {
  const cmd_arg_t a = cmd_nextArg(argv);
  if (a.word != nullptr || !a.present) return false;
  *value = a.num;
  return true;
}

// The next number; `fallback` when missing.
inline kiv_uint32 cmd_nextNumOr(void **argv, kiv_uint32 fallback) {
  kiv_uint32 v = fallback;
  cmd_nextU32(argv, &v);
  return v;
}

// cmd_nextNumOr with the number taken before as the fallback; a number taken replaces it
// (the `mib` subcommands reuse the last port this way).
inline kiv_uint32 cmd_nextNumOrLast(void **argv, kiv_uint32 *last) {
  *last = cmd_nextNumOr(argv, *last);
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
// Rows hold the family's handler type (most families: cmd_subFn). A table is declared with
// std::to_array so that its size is counted by the compiler, and it has exactly one row
// per first word of the family's grammar (checked by the tests through hx5200_subWords).
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

// A family's subcommand table seen by its words only.
struct cmd_subWords_t {
  const void *rows;
  size_t count;
  std::string_view (*wordAt)(const void *rows, size_t i);
  std::string_view word(size_t i) const { return wordAt(rows, i); }
};
template <typename Fn, size_t N>
constexpr cmd_subWords_t cmd_subWords(const std::array<cmd_sub_t<Fn>, N> &table) {
  return {table.data(), N, [](const void *rows, size_t i) { return static_cast<const cmd_sub_t<Fn> *>(rows)[i].word; }};
}

// The subcommand table that a command row's handler runs (rows sharing a handler share
// it); null for the handlers that take no subcommand word (the rows the tool does not
// provide). A new family handler is listed here with its table.
const cmd_subWords_t *hx5200_subWords(kiv_cmdFunc handler);
extern const cmd_subWords_t hx5200_wordsReg, hx5200_wordsSmi, hx5200_wordsMmd, hx5200_wordsMdx,
    hx5200_wordsPhy, hx5200_wordsMib, hx5200_wordsVlan, hx5200_wordsSet, hx5200_wordsGet, hx5200_wordsSpi;
