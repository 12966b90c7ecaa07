// Command table of the root group and the handlers of its rows.
#pragma once

#include <cstring>

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

// Helpers for handlers: take the next parsed value.
// A keyword or text value: its text. A number: nullptr (use cmd_nextU32).
inline bool cmd_next(void **argv, void **ptr, kiv_uint32 *size) {
  return kiv_getNextCmdToken(argv, ptr, size) == 0;
}
inline const char *cmd_nextStr(void **argv) {
  void *p = nullptr;
  kiv_uint32 sz = 0;
  if (kiv_getNextCmdToken(argv, &p, &sz) != 0) return nullptr;
  return static_cast<const char *>(p);
}
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
