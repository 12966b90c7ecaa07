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

// ---------------------------------------------------------------------------------------
// Additions: node records, inspection of the last parse, reply hooks, kept graphs.

// One node of the command graph.
struct kiv_parseNode_t {
  // flags
  kiv_uint8 node : 1;           // takes part in chains (root, keyword, parameter, braces,
                                // end node, dummy node)
  kiv_uint8 isKeyword : 1;
  kiv_uint8 isParam : 1;
  kiv_uint8 isGroupStart : 1;   // "{"
  kiv_uint8 isGroupEnd : 1;     // "}"
  kiv_uint8 isOptionStart : 1;  // "["
  kiv_uint8 isAlternative : 1;  // "|"
  kiv_uint8 endCommand : 1;     // "<cr>"
  // attributes
  kiv_uint8 repeat : 1;         // carries a repeat range
  kiv_uint8 selfCut : 1;        // matched max_repeat times: its self link no longer counts
  kiv_uint8 attrSpare : 6;
  kiv_uint16 len;               // text length; a parameter's value size after a match
  kiv_uint16 prevIndex;         // matched before this node on the current path
  kiv_uint16 nextIndex;         // matched after this node; 0 ends the path
  kiv_uint16 groupIndex;        // "{" of the group an alternative ends in
  kiv_uint16 repeatCount;       // times matched on the current path
  kiv_uint16 min_repeat;
  kiv_uint16 max_repeat;
  kiv_uint16 readCount;         // values already handed out
  void *text;                   // keyword/brace/"<cr>" text, or a parameter's value slot
  const kiv_paramType_t *paramType;
  const char *help;
};

// Candidate node indices collected for help, completion and error reports.
struct kiv_candidateList_t {
  kiv_uint32 index[MAX_TOKENS];
  kiv_uint32 count;
};

// Node index of a saved-path word (as handed to a handler or advanced by
// ciscoCmdGetNextToken); 0 for a null or foreign word. The dispatcher uses it to collect
// the candidates after the last accepted node.
kiv_uint32 ciscoCmdParserPathNodeIndex(const void *savedPath);

// Read-only view of the last parse (diagnostics and tests).
const kiv_parseNode_t *ciscoCmdParserNode(kiv_uint32 index);   // null past MAX_TOKENS
int ciscoCmdParserLinked(kiv_uint32 from, kiv_uint32 to);      // 1 when `to` may follow `from`
kiv_uint32 ciscoCmdParserNodeUsed(void);
kiv_uint32 ciscoCmdParserTempBufferUsed(void);
kiv_uint32 ciscoCmdParserValueStart(void);                     // end of the reserved slots
const kiv_candidateList_t *ciscoCmdParserCandidates(void);

// Binary reply used by the help printer when the output mode has bits 0 and 1 clear:
// start a message, add one string item per candidate text, finish the message.
struct kiv_replyHooks_t {
  void (*start)(void);
  void (*addString)(const char *text);
  void (*finish)(void);
};
void ciscoCmdParserSetReplyHooks(const kiv_replyHooks_t *hooks);   // null: no reply

// Kept graphs. Each row of `rows` has its graph compiled on its first parse and reused for
// every later parse, help listing and completion; only the node records are copied per
// parse. A kept row's usage and parameter types must not change while it is kept. The
// engine keeps the rows of every group tree given to kiv_userInit; other rows (a row made
// on the fly) are built from their usage for each parse. Registering rows twice is a no-op.
void ciscoCmdParserKeepRows(const kiv_cmd_t *rows, kiv_uint32 count);
// Forgets the compiled graphs; kept rows compile again on their next parse (for a program
// that rewrites a kept row).
void ciscoCmdParserForgetGraphs(void);
// Forgets the graphs and which rows are kept (kiv_init).
void ciscoCmdParserDropKeptRows(void);
// Number of graphs compiled and kept so far.
kiv_uint32 ciscoCmdParserKeptGraphs(void);
