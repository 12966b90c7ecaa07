// Basic types, table rows and consistency checks shared by the command engine
// and the command handlers.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>

typedef uint8_t kiv_uint8;
typedef uint16_t kiv_uint16;
typedef uint32_t kiv_uint32;
typedef int8_t kiv_int8;
typedef int16_t kiv_int16;
typedef int32_t kiv_int32;
typedef uintptr_t kiv_memaddr;

// cmdFlags bits
#define KIV_USECISCOCMDPARSER 0x01u
#define KIV_SHOW_0X40 0x40u
#define KIV_SHOW_0X80 0x80u
// Number of rows in a command's own parameter-type table, kept in cmdFlags bits 8..15.
#define KIV_PARAMTABLE_ROWS(flags) (((flags) >> 8) & 0xFFu)
#define KIV_PARAMTABLE_FLAGS(rows) ((kiv_uint16)(((rows) & 0xFFu) << 8))

// Group flag: entering the group by name consumes arguments saved for the commands inside.
#define KIV_GROUP_ENTRYARGS 0x01u

#define KIV_MAXDIRSTACKDEPTH 128
#define KIV_INDEX2STRING_SIZE 200
#define KIV_NOUSER 9999u

#define IS4BYTEALIGNED(x) ((((kiv_memaddr)(x)) & 0x3u) == 0)

// Command handler: (user id, number of parsed values or raw tokens, argument cursor).
// For grammar-parsed rows the cursor is the address of the saved-path word and values
// are taken with kiv_getNextCmdToken; for raw rows it is the token list (char **),
// starting at the command word.
typedef kiv_int32 (*kiv_cmdFunc)(kiv_uint32 uid, kiv_int32 argc, void **argv);

// One candidate shown in help and completion lists.
struct kiv_candEntry_t {
  const char *text;
  const char *help;
};

// Parameter checker: converts `token` into the storage that *slot points at (or replaces
// *slot by the token itself for text types). Returns the value size (>= 0) or -1 to refuse.
// `redirect` is the parser's redirect word: a command row pointer stored there makes the
// dispatcher continue the line with that command.
typedef kiv_int32 (*kiv_paramChecker)(void **slot, char *token, kiv_uint32 maxSize,
                                      kiv_memaddr *redirect);
// Values function of a parameter type: (0, nullptr) returns how many values the type
// offers; (room, entries) fills up to room entries and returns how many it filled.
typedef kiv_int32 (*kiv_paramValues)(kiv_uint32 room, kiv_candEntry_t *entries);

struct kiv_paramType_t {
  const char *name;
  kiv_uint32 maxSize;
  kiv_paramChecker checker;
  kiv_paramValues values;
  const char *help;
};

struct kiv_cmd_t {
  const char *cmdName;
  const char *cmdHelp;
  const char *cmdUsage;
  kiv_cmdFunc cmdHandler;
  kiv_uint16 cmdFlags;      // bit 0 KIV_USECISCOCMDPARSER, 0x40/0x80 visibility,
                            // bits 8..15 rows of paramTypes
  kiv_uint8 minArgs;        // raw rows only
  kiv_uint8 reserved0;
  kiv_uint32 reserved1;
  const kiv_paramType_t *paramTypes;
};

struct kiv_group_t {
  const char *groupName;
  const char *groupHelp;
  const char *promptText;       // shown between '<' and '>' instead of the path, or null
  const kiv_cmd_t *cmds;
  const kiv_group_t *subGroups;
  kiv_uint16 cmdCount;
  kiv_uint16 subGroupCount;
  kiv_uint16 groupFlags;        // KIV_GROUP_ENTRYARGS, 0x40/0x80 visibility
};
