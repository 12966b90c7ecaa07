// Command engine: tables, users, groups, tokeniser, dispatch and the report line.
#pragma once

#include "kiv/kiv_types.h"

// Engine output buffer (1024 bytes) and path buffer (256 bytes), owned by the engine and
// shared with the shell: after a help or completion request the output buffer holds the
// text to pre-load into the line editor.
#define KIV_OUTBUF_SIZE 1024
#define KIV_PATHBUF_SIZE 256
extern char kiv_outputBuffer[KIV_OUTBUF_SIZE];
extern char kiv_pathBuffer[KIV_PATHBUF_SIZE];

// Initialise the engine for `maxUsers` users, tokens of `tokenSize` bytes, `maxTokens`
// tokens per line. 0 on success, -1 (or 9999) when memory is missing.
kiv_int32 kiv_init(kiv_uint32 maxUsers, kiv_uint32 tokenSize, kiv_uint32 maxTokens);

// Register a user with its root group. Returns the user id, or KIV_NOUSER (9999).
kiv_uint32 kiv_userInit(const char *name, kiv_uint32 outputMode, kiv_uint32 userFlags,
                        kiv_uint32 maxDepth, const kiv_group_t *root);

// Process one line for a user (the terminator already removed by the caller).
kiv_int32 kiv_cmdProcess(kiv_uint32 uid, char *line, char *outBuf, kiv_uint32 outSize);

// Whether the last line given to kiv_cmdProcess failed: an unknown or ambiguous word, a
// refused token, a command that ended with an error report, or a handler that marked its
// line with kiv_markLineFailed (a failure it shows only through its messages).
bool kiv_lineFailed(void);
void kiv_markLineFailed(void);

// Set or clear the user's completion flag (state flag bit 2) around a Tab request.
void kiv_setCompletion(kiv_uint32 uid, int on);

// Write "<path>" for the user into buf (size bytes).
kiv_int32 kiv_getPrompt(kiv_uint32 uid, char *buf, kiv_uint32 size);

// Hand out the next value to a handler: first the arguments saved by enclosing groups,
// then the parsed values of the current command. 0 with a value, -1 when none is left.
kiv_int32 kiv_getNextCmdToken(void **argv, void **nextToken, kiv_uint32 *size);

// Generic group operations.
kiv_int32 kiv_changeCmdGroup(kiv_uint32 uid, const char *name, kiv_uint32 prefix,
                             void **savedArguments, kiv_uint32 *count);
kiv_int32 kiv_exitCmdGroup(kiv_uint32 uid, kiv_int32 level);
void kiv_setNextGroupName(const char *name);
const char *kiv_index2string(kiv_uint32 index);

// The command row whose handler is running (or was run last); null before any command.
const kiv_cmd_t *kiv_currentCmd(void);

// Runs a grammar-parsed row on the current line's tokens after its command word:
// helpMode 0 parses and calls the handler, 1 shows what may follow, 2 completes into the
// output buffer. argc counts the tokens from the command word on. Returns the handler's
// result (0 in the help modes).
kiv_int32 kiv_ciscoCmdProcesser(kiv_int32 argc, const kiv_cmd_t *thisCmd, kiv_uint32 helpMode);

// Entry-argument groups (KIV_GROUP_ENTRYARGS) take the number of arguments kept in group
// flag bits 8..15 (0 means one).
#define KIV_GROUP_ENTRYARGCOUNT(flags) \
  ((((flags) >> 8) & 0xFFu) ? (((flags) >> 8) & 0xFFu) : 1u)
#define KIV_GROUP_ENTRYARGS_N(n) ((kiv_uint16)(KIV_GROUP_ENTRYARGS | (((n) & 0xFFu) << 8)))

// The root group handed to kiv_userInit by the shell.
extern const kiv_group_t hx5200_rootGroup;
