// Usage grammar, command graph, matching, candidates and value hand-out.
#pragma once

#include "kiv/kiv_types.h"

#define MAX_TOKENS 2048
#define MAX_CMD_TEMPBUFFER 8000

// Parse the typed tokens after the command word against (*thisCmd)'s usage grammar.
//  n > 0: all accepted; *savedData = first node of the path; *token = first token not
//         consumed (surplus after a complete command, or after a redirect) or null.
//  0:     nothing typed and the command is complete (or a surplus token after a complete
//         empty command, handed back in *token).
//  n < 0: *token non-null: token -n was refused; null: the line is incomplete after -n
//         accepted tokens. *savedData points at the candidate list.
kiv_int32 ciscoCmdParser(kiv_int32 argc, char **argv, const kiv_cmd_t **thisCmd,
                         void **savedData, char **token);
// One value along the saved path: 0 with a value, -1 when the path is used up.
kiv_int32 ciscoCmdGetNextToken(void **nextToken, kiv_uint32 *size, void **savedData);
void ciscoCmdParserGetCandidate(kiv_uint32 lastTokenNode, void *unused);
void ciscoCmdParserGetRootCandidate(void);
kiv_uint32 ciscoCmdParserListCandidates(kiv_candEntry_t *entries, kiv_uint32 capacity);
kiv_int32 ciscoCmdParserShowHelp(kiv_candEntry_t *entries, kiv_uint32 total);
kiv_int32 ciscoCmdParserFlushTmpBuffer(void);
void ciscoCmdPrintSynopsis(const char *title, const char *usage);
kiv_int32 ciscoCmdRunString(char *line, const kiv_cmd_t *command, const char *delimiters);
// Parser reset: counters, candidate count and the redirect word back to 0.
void ciscoCmdParserReset(void);
// Output mode of the session, consulted by the help printer (bits 0 and 1 clear: binary).
void ciscoCmdParserSetOutputMode(kiv_uint32 mode);
