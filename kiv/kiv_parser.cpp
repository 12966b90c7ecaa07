// Command engine: tables, users, groups, tokeniser, dispatch and the report line.
//
// One line at a time: the line is cut into tokens, the built-in list words are recognised,
// the first word is looked up in the current group (exact name, sub-group, unique prefix),
// and the command row found is run, either through the usage-grammar parser or with its
// raw tokens. After the command the engine reports "Success!!" or the error code.
#include "kiv/kiv_parser.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <optional>

#include "kiv/hx_utils.h"
#include "kiv/kiv_assert.h"
#include "kiv/kiv_ciscoParser.h"

char kiv_outputBuffer[KIV_OUTBUF_SIZE];
char kiv_pathBuffer[KIV_PATHBUF_SIZE];

// Stringised here, not through KIV_ASSERT_IN, so that the report shows the condition as
// written (macro names unexpanded).
#define KIV_ASSERT(cond)                                                       \
  do {                                                                         \
    if (!(cond)) kiv_assertFailed("kiv/kiv_parser", __func__, __LINE__, #cond); \
  } while (0)
#define ISSET(flags, bit) (((flags) & (bit)) != 0)

namespace {

// ---- engine state --------------------------------------------------------------------

// What the dispatch of a line came to. Every dispatch step takes the status so far and
// returns the new one; a step that decides nothing hands the status it got back.
enum class Status : kiv_uint8 {
  None,
  Run,              // a handler ran (its result decides the report line)
  GroupEntered,
  DepthExhausted,
  Usage,            // a raw row's usage line was shown
  Incomplete,       // candidates or a group listing were shown
  CmdHelp,
  GroupListed,
  Completed,        // a word was completed into the output buffer
};

// List modes set by the tokeniser.
enum : kiv_uint8 { kListNone = 0, kListLs = 1, kListQuestion = 2, kListHelp = 3, kListPartial = 4 };

// User state flags.
constexpr kiv_uint8 kShow40 = 0x01;
constexpr kiv_uint8 kShow80 = 0x02;
constexpr kiv_uint8 kCompletion = 0x04;
constexpr kiv_uint8 kStructured = 0x40;
constexpr kiv_uint8 kErrorFlag = 0x80;

constexpr kiv_uint32 kNameSize = 16;
constexpr kiv_uint32 kErrTextSize = 16;
constexpr kiv_uint32 kNextGroupNameSize = 32;
constexpr kiv_uint32 kScratchSize = 1024;
constexpr kiv_uint32 kMaxCandidates = 256;
// Completion rounds rewrite a token to a strictly longer text each time; the bound only
// guards against a parser that would not.
constexpr int kMaxCompletionRounds = 256;

struct User {
  kiv_uint32 searchLevel = 0;
  kiv_uint32 depth = 0;
  kiv_uint32 userFlags = 0;
  kiv_uint32 outputMode = 1;
  kiv_uint32 busy = 0;
  kiv_uint32 registered = 0;
  kiv_uint32 maxDepth = 0;
  std::unique_ptr<const kiv_group_t *[]> groupStack;
  kiv_uint8 state = 0;
  kiv_uint32 outCount[2] = {0, 0};
  kiv_uint32 outError = 0;
  alignas(4) kiv_uint8 saved[KIV_MAXDIRSTACKDEPTH] = {};
  kiv_uint32 used = 0;
};

struct RegistryEntry {
  char name[kNameSize + 1];
  kiv_uint32 id;
};

// Session state: set up by kiv_init and kiv_userInit, kept from line to line.
struct Engine {
  bool initialised = false;
  kiv_uint32 maxUsers = 0;
  kiv_uint32 tokenSize = 0;
  kiv_uint32 maxTokens = 0;
  std::unique_ptr<User[]> users;
  std::unique_ptr<RegistryEntry[]> registry;
  std::unique_ptr<char[]> tokenStore;   // maxTokens buffers of tokenSize bytes
  std::unique_ptr<char *[]> tokens;     // maxTokens + 1 pointers, null-terminated
  std::unique_ptr<char[]> scratch;      // line-sized: joined lines, name lists
  std::unique_ptr<char[]> indexString;  // KIV_INDEX2STRING_SIZE texts of 4 bytes
  const kiv_cmd_t *currentCmd = nullptr;   // the row running or run last
  char nextGroupName[kNextGroupNameSize + 1] = {};
};

Engine g;

// Saved-argument hand-out of the running command: the groups' records are served oldest
// group first; kSavedSegments bounds the number of groups that fit on the save stack.
constexpr kiv_uint32 kSavedSegments = KIV_MAXDIRSTACKDEPTH / 8;
struct SavedSegment {
  kiv_uint32 start;
  kiv_uint32 end;
};
struct SavedArguments {
  SavedSegment segments[kSavedSegments];
  kiv_uint32 count = 0;
  kiv_uint32 index = 0;
  kiv_uint32 pos = 0;
  const kiv_uint8 *base = nullptr;
};

// Per-line state: reset by beginLine() (when kiv_cmdProcess takes a line, and at kiv_init).
struct Line {
  kiv_uint32 uid = 0;
  kiv_uint32 tokenCount = 0;
  kiv_uint32 curToken = 0;       // the word dispatch is looking at
  kiv_uint8 listMode = kListNone;
  char errText[kErrTextSize] = {};
  char *outBuf = nullptr;        // the caller's output buffer (text for the editor)
  kiv_uint32 outSize = 0;
  kiv_uint32 outUsed = 0;
  SavedArguments saved;          // arguments of enclosing groups, for the running handler
  bool failed = false;           // what kiv_lineFailed() reports
};

Line L;

void beginLine(kiv_uint32 uid, char *outBuf, kiv_uint32 outSize) {
  L = Line{};
  L.uid = uid;
  L.outBuf = outBuf;
  L.outSize = outBuf ? outSize : 0;
}

constexpr const char *kUpWords[] = {".."};
constexpr const char *kExitWords[] = {"exit"};   // kept; no dispatch step consults it
constexpr struct {
  const char *word;
  kiv_uint8 mode;
} kListWords[] = {{"?", kListQuestion}, {"ls", kListLs}, {"help", kListHelp}};
constexpr const char *kEndName = "<cr>";
constexpr const char *kEndHelp = "Acceptable command. Press <Return> to commit command...";

User *userOf(kiv_uint32 uid) {
  if (!g.initialised || uid >= g.maxUsers || !g.users[uid].registered) return nullptr;
  return &g.users[uid];
}

bool visible(const User &u, kiv_uint32 flags) {
  if (ISSET(flags, KIV_SHOW_0X40) && !ISSET(u.state, kShow40)) return false;
  if (ISSET(flags, KIV_SHOW_0X80) && !ISSET(u.state, kShow80)) return false;
  return true;
}

const kiv_group_t *groupAt(const User &u, kiv_uint32 level) { return u.groupStack[level]; }

// ---- output buffer ------------------------------------------------------------------

// Appends text to the caller's output buffer, always leaving it terminated.
void outAppend(const char *text) {
  if (L.outBuf == nullptr || L.outSize == 0) return;
  const size_t room = L.outSize - 1 - L.outUsed;
  size_t n = std::strlen(text);
  if (n > room) n = room;
  std::memcpy(L.outBuf + L.outUsed, text, n);
  L.outUsed += static_cast<kiv_uint32>(n);
  L.outBuf[L.outUsed] = '\0';
}

void outClear() {
  if (L.outBuf && L.outSize) std::memset(L.outBuf, 0, L.outSize);
  L.outUsed = 0;
}

// Joins tokens [from, tokenCount) with single blanks into the output buffer.
void outJoinTokens(kiv_uint32 from) {
  for (kiv_uint32 i = from; i < L.tokenCount; i++) {
    if (i > from) outAppend(" ");
    outAppend(g.tokens[i]);
  }
}

// Joins all tokens with single blanks into the scratch buffer (bounded).
const char *joinTokens() {
  char *s = g.scratch.get();
  size_t used = 0;
  s[0] = '\0';
  for (kiv_uint32 i = 0; i < L.tokenCount; i++) {
    const size_t n = std::strlen(g.tokens[i]);
    if (used + n + 2 > kScratchSize) break;
    if (i) s[used++] = ' ';
    std::memcpy(s + used, g.tokens[i], n);
    used += n;
    s[used] = '\0';
  }
  return s;
}

// Lines that say the typed line was not understood or ran nothing (a parameter missing).
constexpr const char *kFailureLines[] = {"Unknown command", "ambiguous command", "Incomplete command"};

void writeLine(const char *text) {
  puts(text);
  for (const char *f : kFailureLines)
    if (std::strcmp(text, f) == 0) L.failed = true;
}

// Copies text into a token buffer (bounded by the token size).
void setToken(char *tok, const char *text) {
  std::strncpy(tok, text, g.tokenSize - 1);
  tok[g.tokenSize - 1] = '\0';
}

// The completed line goes to the output buffer for the editor to start the next line with.
Status completedLine() {
  outClear();
  outJoinTokens(0);
  return Status::Completed;
}

// ---- tokeniser -----------------------------------------------------------------------

// Ends the token collected in the current buffer. Returns false when scanning stops.
bool endToken(kiv_uint32 len) {
  char *tok = g.tokens[L.tokenCount];
  tok[len] = '\0';
  if (L.tokenCount >= g.maxTokens - 1) return false;   // the token is dropped
  for (const auto &lw : kListWords) {
    if (std::strcmp(tok, lw.word) == 0) {
      L.listMode = lw.mode;
      return false;
    }
  }
  if (len > 0 && tok[len - 1] == '?') {
    tok[len - 1] = '\0';
    L.tokenCount++;
    L.listMode = kListPartial;
    return false;
  }
  L.tokenCount++;
  return true;
}

// Cuts the line into tokens: blanks and tabs separate, '"' quotes (a quote inside a plain
// token restarts it as a quoted one), an unterminated quoted token is dropped. A token
// that reaches the token size fails the whole line.
bool tokenise(const char *line) {
  enum { Between, Plain, Quoted } state = Between;
  kiv_uint32 len = 0;
  for (const char *p = line;; p++) {
    const char c = *p;
    if (c == '\0') {
      if (state == Plain) endToken(len);
      return true;
    }
    switch (state) {
      case Between:
        if (c == ' ' || c == '\t') break;
        len = 0;
        if (c == '"') {
          state = Quoted;
          break;
        }
        state = Plain;
        g.tokens[L.tokenCount][len++] = c;
        break;
      case Plain:
        if (c == ' ' || c == '\t') {
          state = Between;
          if (!endToken(len)) return true;
          break;
        }
        if (c == '"') {
          state = Quoted;
          len = 0;
          break;
        }
        g.tokens[L.tokenCount][len++] = c;
        break;
      case Quoted:
        if (c == '"') {
          state = Between;
          if (!endToken(len)) return true;
          break;
        }
        g.tokens[L.tokenCount][len++] = c;
        break;
    }
    if (len >= g.tokenSize) return false;
  }
}

// ---- lookup --------------------------------------------------------------------------

bool nameMatches(const char *name, const char *word, bool prefix) {
  if (!name) return false;
  return prefix ? std::strncmp(name, word, std::strlen(word)) == 0 : std::strcmp(name, word) == 0;
}

const kiv_cmd_t *findCmd(const User &u, const kiv_group_t *grp, const char *word, bool prefix) {
  for (kiv_uint32 i = 0; i < grp->cmdCount; i++) {
    const kiv_cmd_t *c = &grp->cmds[i];
    if (visible(u, c->cmdFlags & 0xFFu) && nameMatches(c->cmdName, word, prefix)) return c;
  }
  return nullptr;
}

const kiv_group_t *findGroup(const User &u, const kiv_group_t *grp, const char *word, bool prefix) {
  for (kiv_uint32 i = 0; i < grp->subGroupCount; i++) {
    const kiv_group_t *s = &grp->subGroups[i];
    if (visible(u, s->groupFlags) && nameMatches(s->groupName, word, prefix)) return s;
  }
  return nullptr;
}

// Counts visible commands and sub-groups (recursively) whose names begin with word.
kiv_uint32 countPrefix(const User &u, const kiv_group_t *grp, const char *word, int depth = 0) {
  kiv_uint32 n = 0;
  for (kiv_uint32 i = 0; i < grp->cmdCount; i++)
    if (visible(u, grp->cmds[i].cmdFlags & 0xFFu) && nameMatches(grp->cmds[i].cmdName, word, true))
      n++;
  if (depth >= 16) return n;   // group tables are trees; this only bounds a broken one
  for (kiv_uint32 i = 0; i < grp->subGroupCount; i++) {
    const kiv_group_t *s = &grp->subGroups[i];
    if (!visible(u, s->groupFlags)) continue;
    if (nameMatches(s->groupName, word, true)) n++;
    n += countPrefix(u, s, word, depth + 1);
  }
  return n;
}

// ---- running a command ---------------------------------------------------------------

void setError(User &u, kiv_int32 result) {
  u.state |= kErrorFlag;
  hx_itoa(result, L.errText);
}

kiv_uint32 pad4(kiv_uint32 n) { return (n + 3u) & ~3u; }

// Prepares the hand-out of the arguments saved by enclosing groups.
void prepareSavedArguments(const User &u) {
  SavedArguments &sa = L.saved;
  sa.count = 0;
  sa.index = 0;
  sa.pos = 0;
  sa.base = u.saved;
  // Walk the footers from the top of the stack down; each names its group's records.
  kiv_uint32 top = u.used;
  SavedSegment rev[kSavedSegments];
  kiv_uint32 n = 0;
  while (top >= sizeof(kiv_uint32) && n < kSavedSegments) {
    kiv_uint16 total;
    std::memcpy(&total, u.saved + top - 2, 2);
    if (total + sizeof(kiv_uint32) > top) break;
    rev[n++] = {top - 4 - total, top - 4};
    top -= total + 4;
  }
  for (kiv_uint32 i = 0; i < n; i++) sa.segments[i] = rev[n - 1 - i];
  sa.count = n;
  if (n) sa.pos = sa.segments[0].start;
}

kiv_int32 callHandler(kiv_cmdFunc fn, kiv_uint32 uid, kiv_int32 argc, void **argv) {
  prepareSavedArguments(g.users[L.uid]);
  const kiv_int32 r = fn ? fn(uid, argc, argv) : 0;
  L.saved.count = 0;
  return r;
}

// ---- grammar-parsed rows: run, help and completion -------------------------------------

// The tokens after the command word, as the usage-grammar parser sees them; a checker may
// hand the rest of the line over to another row.
struct GrammarLine {
  const kiv_cmd_t *cmd;
  char **args;
  kiv_int32 nargs;
};

// One parse result (see ciscoCmdParser).
struct Parse {
  kiv_int32 n = 0;
  void *saved = nullptr;
  char *token = nullptr;
};

GrammarLine startGrammarLine(const kiv_cmd_t *row, kiv_int32 argc) {
  g.currentCmd = row;
  return {row, &g.tokens[L.curToken + 1], argc > 0 ? argc - 1 : 0};
}

// Parses the line, following hand-overs to other rows. False when a hand-over ends the
// request (it consumed nothing, or went to a row without a grammar).
bool parseLine(GrammarLine &gl, Parse &p) {
  for (;;) {
    p = Parse{};
    const kiv_cmd_t *cmd = gl.cmd;
    p.n = ciscoCmdParser(gl.nargs, gl.args, &cmd, &p.saved, &p.token);
    if (cmd == gl.cmd || cmd == nullptr) return true;
    const kiv_int32 drop = p.token ? (p.n < 0 ? -p.n : p.n) : gl.nargs;
    gl.args += drop;
    gl.nargs -= drop;
    ciscoCmdParserReset();
    gl.cmd = cmd;
    g.currentCmd = cmd;
    if (drop <= 0 || !ISSET(cmd->cmdFlags, KIV_USECISCOCMDPARSER)) return false;
  }
}

// Collects the candidates that may follow the accepted tokens (a refusal, n < 0, has
// collected them already).
void collectCandidates(const Parse &p) {
  if (p.n > 0) {
    void *saved = p.saved;
    void *value = nullptr;
    kiv_uint32 size = 0;
    for (kiv_int32 i = 0; i < p.n - 1; i++) ciscoCmdGetNextToken(&value, &size, &saved);
    KIV_ASSERT(saved!=NULL);
    ciscoCmdParserGetCandidate(ciscoCmdParserPathNodeIndex(saved), nullptr);
  } else if (p.n == 0) {
    ciscoCmdParserGetRootCandidate();
  }
}

enum class Resolution { Shown, Completed, Retry };

// Shows the collected candidates, or rewrites the refused token to the one candidate that
// begins with it (or else contains it). A rewrite is parsed again (Retry), unless
// `completing`, where it ends the request in the output buffer.
Resolution resolveToken(const Parse &p, bool completing) {
  const bool textMode = (g.users[L.uid].outputMode & 3u) != 0;
  char *token = p.token;
  const kiv_int32 n = p.n;
  kiv_candEntry_t entries[kMaxCandidates];
  kiv_uint32 total = ciscoCmdParserListCandidates(entries, kMaxCandidates);
  if (total == 0) return Resolution::Shown;
  KIV_ASSERT(total>0);
  if (token == nullptr) {
    printf("\n");
    ciscoCmdParserShowHelp(entries, total);
    return Resolution::Shown;
  }

  // Entries that begin with the token (compared over the token's length), or that
  // contain it anywhere.
  const size_t tokLen = std::strlen(token);
  auto begins = [&](kiv_uint32 i) { return std::strncmp(entries[i].text, token, tokLen) == 0; };
  auto contains = [&](kiv_uint32 i) { return std::strstr(entries[i].text, token) != nullptr; };
  kiv_uint32 match = 0;
  auto count = [&](auto pred) {
    kiv_uint32 matches = 0;
    for (kiv_uint32 i = 0; i < total; i++)
      if (entries[i].text && pred(i) && matches++ == 0) match = i;
    return matches;
  };
  // A rewrite that would leave the token as it is cannot make progress: such a token
  // is reported as refused instead of tried again.
  auto sameText = [&] { return std::strcmp(entries[match].text, token) == 0; };
  // Keeps only the entries that begin with the token and shows them after a newline.
  auto showPrefixed = [&] {
    for (kiv_uint32 i = 0; i < total; i++)
      if (entries[i].text && !begins(i)) entries[i].text = nullptr;
    printf("\n");
    ciscoCmdParserShowHelp(entries, total);
    return Resolution::Shown;
  };

  kiv_uint32 matches = count(begins);
  const bool stuck = matches == 1 && sameText();
  if (matches == 1 && !stuck) {
    setToken(token, entries[match].text);
    if (completing) return Resolution::Completed;
    if (!textMode) {
      printf("\n");
      ciscoCmdParserShowHelp(entries, total);
      return Resolution::Shown;
    }
    printf("%dth token best matched for '%s'\n", -n, token);
    return Resolution::Retry;
  }
  if (matches > 1) return showPrefixed();
  // No entry begins with the token: try those that contain it.
  total = ciscoCmdParserListCandidates(entries, kMaxCandidates);
  matches = stuck ? 0 : count(contains);
  if (matches == 1 && sameText()) matches = 0;
  if (matches == 1) {
    setToken(token, entries[match].text);
    if (completing) return Resolution::Completed;
    if (textMode) printf("\n%dth token best matched for '%s'\n", -n, token);
    return Resolution::Retry;
  }
  if (matches == 0) {
    if (textMode) printf("\nError on %dth token '%s'\n\n", -n, token);
    printf("\n");
    ciscoCmdParserShowHelp(entries, total);
    return Resolution::Shown;
  }
  return showPrefixed();
}

// Parses the tokens after the command word at L.curToken and calls the handler (its
// result in `result`); a line the grammar refuses shows its candidates, a refused token
// with one matching candidate is corrected and the line parsed again.
Status runGrammarRow(const kiv_cmd_t *row, kiv_int32 argc, kiv_int32 &result, Status st) {
  GrammarLine gl = startGrammarLine(row, argc);
  result = 0;
  for (int round = 0; round < kMaxCompletionRounds; round++) {
    Parse p;
    if (!parseLine(gl, p)) break;
    if (p.n > 0 || (p.n == 0 && p.token == nullptr)) {
      result = callHandler(gl.cmd->cmdHandler, 0, p.n, &p.saved);
      ciscoCmdParserReset();
      return Status::Run;
    }
    collectCandidates(p);
    st = Status::Incomplete;
    if (resolveToken(p, false) != Resolution::Retry) {
      if (p.token != nullptr) L.failed = true;   // stopped at a token nothing accepts
      break;
    }
    ciscoCmdParserReset();
  }
  ciscoCmdParserReset();
  return st;
}

// Help (`completing` false) or completion of the tokens after the command word.
Status helpOrCompleteGrammarRow(const kiv_cmd_t *row, kiv_int32 argc, Status st, bool completing) {
  GrammarLine gl = startGrammarLine(row, argc);
  for (int round = 0; round < kMaxCompletionRounds; round++) {
    Parse p;
    if (!parseLine(gl, p)) break;
    if (p.n == 0) {
      printf("%-25s %s\n", kEndName, kEndHelp);
      ciscoCmdParserReset();
      return Status::Incomplete;
    }
    collectCandidates(p);
    st = Status::Incomplete;
    const Resolution r = resolveToken(p, completing);
    if (r == Resolution::Completed) st = completedLine();
    if (r != Resolution::Retry) break;
    ciscoCmdParserReset();
  }
  ciscoCmdParserReset();
  return st;
}

// Shows what may follow the tokens after the command word.
Status helpGrammarRow(const kiv_cmd_t *row, kiv_int32 argc, Status st) {
  return helpOrCompleteGrammarRow(row, argc, st, false);
}

// Completes the last token after the command word into the output buffer.
Status completeGrammarRow(const kiv_cmd_t *row, kiv_int32 argc, Status st) {
  return helpOrCompleteGrammarRow(row, argc, st, true);
}

// ---- dispatch ------------------------------------------------------------------------

Status dispatch(User &u, Status st);

// Runs a found command row; `byPrefix` when the row was found by a unique prefix.
Status runCommand(User &u, const kiv_cmd_t *cmd, bool byPrefix, Status st) {
  const bool completing = ISSET(u.state, kCompletion);
  if (completing && (!ISSET(cmd->cmdFlags, KIV_USECISCOCMDPARSER) || byPrefix)) {
    setToken(g.tokens[L.curToken], cmd->cmdName);
    return completedLine();
  }
  const kiv_int32 argc = static_cast<kiv_int32>(L.tokenCount - L.curToken);
  if (!ISSET(cmd->cmdFlags, KIV_USECISCOCMDPARSER)) {
    if (argc < cmd->minArgs) {
      if (!byPrefix) return st;
      printf("%-20s usage:%s\n", cmd->cmdName, cmd->cmdUsage ? cmd->cmdUsage : "");
      return Status::Usage;
    }
    g.currentCmd = cmd;
    const kiv_int32 r = callHandler(cmd->cmdHandler, L.uid, argc,
                                    reinterpret_cast<void **>(&g.tokens[L.curToken]));
    if (r != 0) setError(u, r);
    return Status::Run;
  }
  if (completing) return completeGrammarRow(cmd, argc, st);
  kiv_int32 r = 0;
  st = runGrammarRow(cmd, argc, r, st);
  if (r != 0 && st != Status::Incomplete) setError(u, r);
  return st;
}

enum class Entry { Entered, DepthExhausted, Refused };

// Enters `sub` one level below the search level, consuming its entry arguments.
Entry enterGroup(User &u, const kiv_group_t *sub) {
  if (u.searchLevel + 1 >= u.maxDepth) return Entry::DepthExhausted;
  const kiv_uint32 newDepth = u.searchLevel + 1;
  if (ISSET(sub->groupFlags, KIV_GROUP_ENTRYARGS)) {
    kiv_uint32 count = L.tokenCount - L.curToken;
    u.depth = u.searchLevel;
    const kiv_int32 d = kiv_changeCmdGroup(L.uid, sub->groupName, 0,
                                           reinterpret_cast<void **>(&g.tokens[L.curToken]), &count);
    if (d < 0) return Entry::Refused;
    L.curToken += count;
  } else {
    u.groupStack[newDepth] = sub;
    u.depth = newDepth;
  }
  u.searchLevel = newDepth;
  return Entry::Entered;
}

// Leaves the groups entered while one line ran inside them.
void restoreLevel(User &u, kiv_uint32 oldDepth, kiv_uint32 oldLevel) {
  if (u.depth > oldDepth) kiv_exitCmdGroup(L.uid, static_cast<kiv_int32>(oldDepth));
  u.depth = oldDepth;
  u.searchLevel = oldLevel;
}

// Tries the current word as a sub-group: nothing when it names none, else the status
// after entering it (and running the rest of the line inside it).
std::optional<Status> kiv_groupCheck(User &u, bool prefix, Status st) {
  const kiv_int32 argCnt = static_cast<kiv_int32>(L.tokenCount - L.curToken);
  KIV_ASSERT(argCnt!=0);
  const kiv_group_t *grp = groupAt(u, u.searchLevel);
  const kiv_group_t *sub = findGroup(u, grp, g.tokens[L.curToken], prefix);
  if (sub == nullptr) return std::nullopt;
  if (u.searchLevel + 1 >= u.maxDepth) return Status::DepthExhausted;
  if (ISSET(u.state, kCompletion)) {
    setToken(g.tokens[L.curToken], sub->groupName);
    return completedLine();
  }
  const kiv_uint32 oldDepth = u.depth;
  const kiv_uint32 oldLevel = u.searchLevel;
  L.curToken++;
  switch (enterGroup(u, sub)) {
    case Entry::DepthExhausted: return Status::DepthExhausted;
    case Entry::Refused: return st;
    case Entry::Entered: break;
  }
  if (L.curToken >= L.tokenCount) return Status::GroupEntered;   // the group is entered
  // Further tokens: run them inside the group, then come back.
  st = dispatch(u, Status::GroupEntered);
  restoreLevel(u, oldDepth, oldLevel);
  return st;
}

// Ordinary dispatch of tokens [curToken, tokenCount) in the group at the search level.
Status dispatch(User &u, Status st) {
  if (L.curToken >= L.tokenCount) return st;
  const kiv_group_t *grp = groupAt(u, u.searchLevel);
  const char *word = g.tokens[L.curToken];
  const bool completing = ISSET(u.state, kCompletion);

  if (const kiv_cmd_t *cmd = findCmd(u, grp, word, false)) {
    st = runCommand(u, cmd, false, st);
    if (st == Status::Incomplete) writeLine("Incomplete command");
    return st;
  }
  if (auto entered = kiv_groupCheck(u, false, st)) return *entered;

  const kiv_uint32 matches = countPrefix(u, grp, word);
  if (matches == 0) {
    if (!completing) writeLine("Unknown command");
    return st;
  }
  if (matches == 1) {
    if (const kiv_cmd_t *cmd = findCmd(u, grp, word, true)) {
      st = runCommand(u, cmd, true, st);
    } else if (auto entered = kiv_groupCheck(u, true, st)) {
      return *entered;
    }
    switch (st) {
      case Status::Run:
      case Status::GroupEntered:
      case Status::Usage:
      case Status::Completed:
        break;
      case Status::Incomplete:
        writeLine("Incomplete command");
        break;
      default:
        writeLine("Unknown command");
        break;
    }
    return st;
  }
  // Several: list the commands that begin with the word.
  char *list = g.scratch.get();
  size_t used = 0;
  list[0] = '\0';
  for (kiv_uint32 i = 0; i < grp->cmdCount; i++) {
    const kiv_cmd_t *c = &grp->cmds[i];
    if (!visible(u, c->cmdFlags & 0xFFu) || !nameMatches(c->cmdName, word, true)) continue;
    const size_t n = std::strlen(c->cmdName);
    if (used + n + 2 > kScratchSize) break;
    std::memcpy(list + used, c->cmdName, n);
    used += n;
    list[used++] = '\n';
    list[used] = '\0';
  }
  printf("\n%s", list);
  if (!completing) writeLine("ambiguous command");
  return st;
}

// ---- listing and help ----------------------------------------------------------------

void listGroup(const User &u, const kiv_group_t *grp, kiv_uint8 mode) {
  kiv_uint32 column = 0;
  auto shortName = [&column](const char *text) {
    printf("%-20s", text);
    if (++column % 3 == 0) printf("\n");
  };
  for (kiv_uint32 i = 0; i < grp->cmdCount; i++) {
    const kiv_cmd_t *c = &grp->cmds[i];
    if (!visible(u, c->cmdFlags & 0xFFu)) continue;
    if (mode == kListLs) {
      shortName(c->cmdName);
      continue;
    }
    printf("%-20s %s\n", c->cmdName, c->cmdHelp ? c->cmdHelp : "");
    if (mode == kListHelp && !ISSET(c->cmdFlags, KIV_USECISCOCMDPARSER))
      printf("\t\t\tusage:%s\n", c->cmdUsage ? c->cmdUsage : "");
  }
  for (kiv_uint32 i = 0; i < grp->subGroupCount; i++) {
    const kiv_group_t *s = &grp->subGroups[i];
    if (!visible(u, s->groupFlags) || ISSET(s->groupFlags, KIV_GROUP_ENTRYARGS)) continue;
    if (mode == kListLs) {
      char name[KIV_PATHBUF_SIZE];
      snprintf(name, sizeof name, "[%s]", s->groupName);
      shortName(name);
    } else {
      printf("%-20s %s\n", s->groupName, s->groupHelp ? s->groupHelp : "");
    }
  }
  if (mode == kListLs && column % 3 != 0) printf("\n");
}

Status commandHelp(const kiv_cmd_t *cmd) {
  if (!ISSET(cmd->cmdFlags, KIV_USECISCOCMDPARSER)) {
    printf("%-20s %s\n", cmd->cmdName, cmd->cmdHelp ? cmd->cmdHelp : "");
    printf("%20s usage: %s\n", "", cmd->cmdUsage ? cmd->cmdUsage : "");
  } else {
    helpGrammarRow(cmd, static_cast<kiv_int32>(L.tokenCount - L.curToken), Status::None);
  }
  return Status::CmdHelp;
}

// Help for the words before a list word, or on a partial last word.
Status listWithWord(User &u, Status st) {
  const kiv_group_t *grp = groupAt(u, u.searchLevel);
  const char *word = g.tokens[L.curToken];

  if (L.listMode == kListPartial && L.tokenCount - L.curToken == 1) {
    // A single partial word: every command (and group) that begins with it.
    kiv_uint32 shown = 0;
    for (kiv_uint32 i = 0; i < grp->cmdCount; i++) {
      const kiv_cmd_t *c = &grp->cmds[i];
      if (!visible(u, c->cmdFlags & 0xFFu) || !nameMatches(c->cmdName, word, true)) continue;
      printf("%-20s %s\n", c->cmdName, c->cmdHelp ? c->cmdHelp : "");
      shown++;
    }
    for (kiv_uint32 i = 0; i < grp->subGroupCount; i++) {
      const kiv_group_t *s = &grp->subGroups[i];
      if (!visible(u, s->groupFlags) || ISSET(s->groupFlags, KIV_GROUP_ENTRYARGS) ||
          !nameMatches(s->groupName, word, true))
        continue;
      printf("%-20s %s\n", s->groupName, s->groupHelp ? s->groupHelp : "");
      shown++;
    }
    if (shown == 0) {
      writeLine("Unknown command");
      return st;
    }
    return Status::CmdHelp;
  }

  const kiv_cmd_t *cmd = findCmd(u, grp, word, false);
  const kiv_group_t *sub = cmd ? nullptr : findGroup(u, grp, word, false);
  if (!cmd && !sub) {
    const kiv_uint32 matches = countPrefix(u, grp, word);
    if (matches > 1) {
      writeLine("ambiguous command");
      return st;
    }
    // Help on a partial last word names its command in full: no abbreviation there.
    if (matches == 0 || L.listMode == kListPartial) {
      writeLine("Unknown command");
      return st;
    }
    cmd = findCmd(u, grp, word, true);
    if (cmd) setToken(g.tokens[L.curToken], cmd->cmdName);
    sub = cmd ? nullptr : findGroup(u, grp, word, true);
    if (sub) setToken(g.tokens[L.curToken], sub->groupName);
    if (!cmd && !sub) {
      writeLine("Unknown command");
      return st;
    }
  }
  if (cmd) return commandHelp(cmd);
  // A sub-group: entered for the listing only.
  const kiv_uint32 oldDepth = u.depth;
  const kiv_uint32 oldLevel = u.searchLevel;
  L.curToken++;
  switch (enterGroup(u, sub)) {
    case Entry::Entered:
      if (L.curToken >= L.tokenCount) {
        listGroup(u, groupAt(u, u.searchLevel),
                  L.listMode == kListPartial ? static_cast<kiv_uint8>(kListQuestion) : L.listMode);
        st = Status::GroupListed;
      } else {
        st = listWithWord(u, st);
      }
      break;
    case Entry::DepthExhausted:
      st = Status::DepthExhausted;
      break;
    case Entry::Refused:
      break;
  }
  restoreLevel(u, oldDepth, oldLevel);
  return st;
}

Status listOrHelp(User &u) {
  if (L.curToken >= L.tokenCount) {
    if (L.listMode == kListPartial) return Status::None;
    listGroup(u, groupAt(u, u.searchLevel), L.listMode);
    return Status::Incomplete;
  }
  return listWithWord(u, Status::None);
}

// Text the line editor starts the next line with after a help or completion request.
void preloadAfterRequest(const User &u, const char *line) {
  if (L.outUsed != 0) return;
  if (L.listMode == kListQuestion || L.listMode == kListHelp || L.listMode == kListLs) {
    outJoinTokens(0);
    if (L.tokenCount) outAppend(" ");
  } else if (L.listMode == kListPartial) {
    outJoinTokens(0);
  } else if (ISSET(u.state, kCompletion)) {
    outAppend(line);
  }
}

// Prints the report line after a command ran: "Success!!" or the error code. True when
// the command succeeded.
bool reportResult(const User &u) {
  const bool script = std::strcmp(g.registry[L.uid].name, "script") == 0;
  if (!ISSET(u.state, kErrorFlag) && u.outError == 0) {
    if (L.outUsed == 0 && !script) writeLine("Success!!");
    return true;
  }
  L.failed = true;
  if (ISSET(u.state, kErrorFlag)) {
    if (script) printf("Script: %s ", joinTokens());
    if (L.errText[0])
      printf("Errno : %s\n", L.errText);
    else
      writeLine("Error!!");
  }
  return false;
}

// Keeps the command graphs of every row in the group tree below grp, so that each row's
// grammar is compiled once.
void keepGraphs(const kiv_group_t *grp, kiv_uint32 depth) {
  if (grp == nullptr || depth > KIV_MAXDIRSTACKDEPTH) return;
  if (grp->cmds) ciscoCmdParserKeepRows(grp->cmds, grp->cmdCount);
  if (grp->subGroups)
    for (kiv_uint32 i = 0; i < grp->subGroupCount; i++) keepGraphs(&grp->subGroups[i], depth + 1);
}

}  // namespace

// ---- public interface ------------------------------------------------------------------

kiv_int32 kiv_init(kiv_uint32 maxUsers, kiv_uint32 tokenSize, kiv_uint32 maxTokens) {
  if (maxUsers == 0 || tokenSize < 2 || maxTokens < 2) return -1;
  g = Engine{};
  ciscoCmdParserDropKeptRows();
  g.users.reset(new (std::nothrow) User[maxUsers]);
  g.registry.reset(new (std::nothrow) RegistryEntry[maxUsers]);
  g.tokenStore.reset(new (std::nothrow) char[static_cast<size_t>(tokenSize) * maxTokens]);
  g.tokens.reset(new (std::nothrow) char *[maxTokens + 1]);
  if (!g.users || !g.registry || !g.tokenStore || !g.tokens) return -1;
  g.scratch.reset(new (std::nothrow) char[kScratchSize]);
  if (!g.scratch) return static_cast<kiv_int32>(KIV_NOUSER);
  g.indexString.reset(new (std::nothrow) char[KIV_INDEX2STRING_SIZE * 4]);
  char *indexString = g.indexString.get();
  KIV_ASSERT(indexString!=NULL);
  for (kiv_uint32 i = 0; i < KIV_INDEX2STRING_SIZE; i++)
    snprintf(indexString + 4 * i, 4, "%u", i);
  for (kiv_uint32 i = 0; i < maxUsers; i++) {
    g.registry[i].name[0] = '\0';
    g.registry[i].id = KIV_NOUSER;
  }
  for (kiv_uint32 i = 0; i < maxTokens; i++) {
    g.tokens[i] = g.tokenStore.get() + static_cast<size_t>(i) * tokenSize;
    g.tokens[i][0] = '\0';
  }
  g.tokens[maxTokens] = nullptr;
  g.maxUsers = maxUsers;
  g.tokenSize = tokenSize;
  g.maxTokens = maxTokens;
  g.initialised = true;
  beginLine(0, nullptr, 0);
  return 0;
}

kiv_uint32 kiv_userInit(const char *name, kiv_uint32 outputMode, kiv_uint32 userFlags,
                        kiv_uint32 maxDepth, const kiv_group_t *root) {
  if (!g.initialised || name == nullptr || root == nullptr || maxDepth == 0) return KIV_NOUSER;
  if (std::strlen(name) > kNameSize) return KIV_NOUSER;
  kiv_uint32 freeSlot = KIV_NOUSER;
  for (kiv_uint32 i = 0; i < g.maxUsers; i++) {
    if (g.registry[i].id == KIV_NOUSER) {
      if (freeSlot == KIV_NOUSER) freeSlot = i;
    } else if (std::strcmp(g.registry[i].name, name) == 0) {
      return KIV_NOUSER;   // already registered
    }
  }
  if (freeSlot == KIV_NOUSER) return KIV_NOUSER;
  User &u = g.users[freeSlot];
  u = User{};
  u.groupStack.reset(new (std::nothrow) const kiv_group_t *[maxDepth]);
  if (!u.groupStack) return KIV_NOUSER;
  for (kiv_uint32 i = 0; i < maxDepth; i++) u.groupStack[i] = nullptr;
  u.groupStack[0] = root;
  u.maxDepth = maxDepth;
  u.userFlags = userFlags;
  u.outputMode = outputMode == 0 ? 1 : outputMode;
  if (ISSET(userFlags, 0x40u)) u.state |= kShow40;
  if (ISSET(userFlags, 0x80u)) u.state |= kShow80;
  u.registered = 1;
  std::strcpy(g.registry[freeSlot].name, name);
  g.registry[freeSlot].id = freeSlot;
  keepGraphs(root, 0);
  ciscoCmdParserSetOutputMode(u.outputMode);
  return freeSlot;
}

void kiv_setCompletion(kiv_uint32 uid, int on) {
  User *u = userOf(uid);
  if (!u) return;
  if (on)
    u->state |= kCompletion;
  else
    u->state &= static_cast<kiv_uint8>(~kCompletion);
}

const kiv_cmd_t *kiv_currentCmd(void) { return g.currentCmd; }

bool kiv_lineFailed(void) { return L.failed; }

void kiv_markLineFailed(void) { L.failed = true; }

kiv_int32 kiv_cmdProcess(kiv_uint32 uid, char *line, char *outBuf, kiv_uint32 outSize) {
  User *pu = userOf(uid);
  if (pu == nullptr || line == nullptr) return -1;
  User &u = *pu;
  beginLine(uid, outBuf, outSize);

  if (!tokenise(line)) {
    L.failed = true;
    return -1;
  }
  u.searchLevel = ISSET(u.outputMode, 4u) ? 0 : u.depth;
  ciscoCmdParserSetOutputMode(u.outputMode);

  if (std::strcmp(line, kUpWords[0]) == 0 && u.depth > 0) {
    kiv_exitCmdGroup(uid, static_cast<kiv_int32>(u.depth - 1));
    u.searchLevel = u.depth;
    L.tokenCount = 0;
  }

  u.state &= static_cast<kiv_uint8>(~kErrorFlag);
  u.outError = 0;
  outClear();
  u.busy = 1;

  bool ok;
  if (L.listMode != kListNone) {
    ok = listOrHelp(u) == Status::Incomplete;
    preloadAfterRequest(u, line);
  } else {
    const Status st = dispatch(u, Status::None);
    // Nothing produces structured output records, so output modes 1 and 2 print nothing
    // more here.
    if (st == Status::Run || st == Status::Incomplete)
      ok = reportResult(u);
    else
      ok = st == Status::GroupEntered;
    if (ISSET(u.state, kCompletion)) preloadAfterRequest(u, line);
  }
  u.busy = 0;
  return ok ? 0 : -1;
}

kiv_int32 kiv_getPrompt(kiv_uint32 uid, char *buf, kiv_uint32 size) {
  if (buf == nullptr || size == 0) return -1;
  User *u = userOf(uid);
  const char *error = "<prompt error>";
  if (u == nullptr) {
    snprintf(buf, size, "%s", error);
    return -1;
  }
  char path[KIV_PATHBUF_SIZE * 2];
  size_t used = 0;
  bool fits = true;
  auto add = [&](const char *text) {
    const size_t n = std::strlen(text);
    if (used + n >= sizeof path) {
      fits = false;
      return;
    }
    std::memcpy(path + used, text, n);
    used += n;
    path[used] = '\0';
  };
  add("<");
  const kiv_group_t *cur = u->groupStack[u->depth];
  if (cur && cur->promptText) {
    add(cur->promptText);
  } else {
    for (kiv_uint32 i = 0; i <= u->depth && i < u->maxDepth; i++) {
      if (!u->groupStack[i]) break;
      add(u->groupStack[i]->groupName ? u->groupStack[i]->groupName : "");
      add("/");
    }
  }
  add(">");
  if (!fits || used + 1 > size) {
    snprintf(buf, size, "%s", error);
    return -1;
  }
  std::memcpy(buf, path, used + 1);
  return 0;
}

const char *kiv_index2string(kiv_uint32 index) {
  KIV_ASSERT(index<KIV_INDEX2STRING_SIZE);
  if (!g.indexString) return "";
  return g.indexString.get() + 4 * index;
}

void kiv_setNextGroupName(const char *nextGroupName) {
  KIV_ASSERT(nextGroupName!=NULL);
  std::strncpy(g.nextGroupName, nextGroupName, kNextGroupNameSize);
  g.nextGroupName[kNextGroupNameSize] = '\0';
}

kiv_int32 kiv_changeCmdGroup(kiv_uint32 uid, const char *name, kiv_uint32 prefix,
                             void **saved, kiv_uint32 *count) {
  User *pu = userOf(uid);
  if (pu == nullptr || name == nullptr) return -1;
  User &u = *pu;
  const kiv_group_t *grp = groupAt(u, u.depth);
  const kiv_group_t *sub = findGroup(u, grp, name, prefix != 0);
  if (sub == nullptr) return -1;
  if (u.depth + 1 >= u.maxDepth) return -1;
  const kiv_uint32 newDepth = u.depth + 1;
  kiv_uint32 consumed = 0;
  if (ISSET(sub->groupFlags, KIV_GROUP_ENTRYARGS)) {
    const kiv_uint32 want = KIV_GROUP_ENTRYARGCOUNT(sub->groupFlags);
    KIV_ASSERT(saved!=NULL);
    const kiv_uint32 have = count ? *count : 0;
    if (have < want) return -1;
    kiv_uint32 required = sizeof(kiv_uint32);   // the footer
    for (kiv_uint32 i = 0; i < want; i++) {
      if (saved[i] == nullptr) return -1;
      required += sizeof(kiv_int32) + pad4(static_cast<kiv_uint32>(std::strlen(static_cast<const char *>(saved[i]))) + 1);
    }
    const kiv_uint32 used = u.used;
    KIV_ASSERT(KIV_MAXDIRSTACKDEPTH - used >=required);
    kiv_uint8 *p = u.saved + used;
    kiv_uint32 total = 0;
    for (kiv_uint32 i = 0; i < want; i++) {
      const char *text = static_cast<const char *>(saved[i]);
      const kiv_uint32 len = static_cast<kiv_uint32>(std::strlen(text));
      const kiv_int32 lenWord = -static_cast<kiv_int32>(len);
      std::memcpy(p + total, &lenWord, 4);
      total += 4;
      std::memset(p + total, 0, pad4(len + 1));
      std::memcpy(p + total, text, len);
      total += pad4(len + 1);
    }
    const kiv_uint16 level = static_cast<kiv_uint16>(newDepth);
    const kiv_uint16 totalLen = static_cast<kiv_uint16>(total);
    std::memcpy(p + total, &level, 2);
    std::memcpy(p + total + 2, &totalLen, 2);
    u.used += total + 4;
    consumed = want;
  }
  if (count) *count = consumed;
  u.groupStack[newDepth] = sub;
  u.depth = newDepth;
  return static_cast<kiv_int32>(newDepth);
}

kiv_int32 kiv_exitCmdGroup(kiv_uint32 uid, kiv_int32 toLevel) {
  User *pu = userOf(uid);
  if (pu == nullptr) return -1;
  User &u = *pu;
  if (toLevel < 0) toLevel = static_cast<kiv_int32>(u.depth) + toLevel;
  if (toLevel < 0 || static_cast<kiv_uint32>(toLevel) >= u.depth) return -1;
  for (kiv_uint32 curHierarchy = u.depth; curHierarchy > static_cast<kiv_uint32>(toLevel); curHierarchy--) {
    KIV_ASSERT(curHierarchy>0);
    const kiv_group_t *grp = u.groupStack[curHierarchy];
    if (grp && ISSET(grp->groupFlags, KIV_GROUP_ENTRYARGS)) {
      const kiv_uint32 used = u.used;
      KIV_ASSERT(used>=sizeof(kiv_uint32));
      kiv_uint16 footer[2];
      std::memcpy(footer, u.saved + used - 4, 4);
      const kiv_uint16 *level = &footer[0];
      const kiv_uint16 *totalLen = &footer[1];
      KIV_ASSERT(curHierarchy==(kiv_uint32)*level);
      KIV_ASSERT((*totalLen+sizeof(kiv_uint32))<=used);
      u.used -= *totalLen + 4u;
    }
    u.groupStack[curHierarchy] = nullptr;
  }
  u.depth = static_cast<kiv_uint32>(toLevel);
  if (u.searchLevel > u.depth) u.searchLevel = u.depth;
  return 0;
}

kiv_int32 kiv_getNextCmdToken(void **argv, void **nextToken, kiv_uint32 *size) {
  KIV_ASSERT(nextToken && size);
  void **savedData = argv;
  KIV_ASSERT(savedData!=NULL);
  // Arguments saved by enclosing groups come first, oldest group first.
  SavedArguments &sa = L.saved;
  while (sa.index < sa.count) {
    const SavedSegment &seg = sa.segments[sa.index];
    if (sa.pos >= seg.end) {
      if (++sa.index < sa.count) sa.pos = sa.segments[sa.index].start;
      continue;
    }
    const kiv_uint8 *head = sa.base + seg.start;
    const kiv_uint8 *thisRec = sa.base + sa.pos;
    // `this` is the record about to be served.
    if (((kiv_memaddr)thisRec & 0x1) != 0)
      kiv_assertFailed("kiv/kiv_parser", __func__, __LINE__, "((kiv_memaddr)this & 0x1) ==0");
    const kiv_uint32 used = seg.end + 4 - seg.start;
    KIV_ASSERT(used>=3*sizeof(kiv_uint32));
    // The position must fall on a record boundary of its group.
    const kiv_uint8 *last = head;
    while (last < thisRec) {
      kiv_int32 len;
      std::memcpy(&len, last, 4);
      const kiv_uint32 n = len < 0 ? pad4(static_cast<kiv_uint32>(-len) + 1) : pad4(static_cast<kiv_uint32>(len));
      last += 4 + n;
    }
    if (!(last >= head && last <= thisRec))
      kiv_assertFailed("kiv/kiv_parser", __func__, __LINE__, "last >= head &&last<= this");
    KIV_ASSERT(IS4BYTEALIGNED((kiv_memaddr)last));
    if (last != thisRec) kiv_assertFailed("kiv/kiv_parser", __func__, __LINE__, "last==this");
    kiv_int32 len;
    std::memcpy(&len, thisRec, 4);
    *nextToken = const_cast<kiv_uint8 *>(thisRec + 4);
    if (len < 0) {
      *size = 0;
      sa.pos += 4 + pad4(static_cast<kiv_uint32>(-len) + 1);
    } else {
      *size = static_cast<kiv_uint32>(len);
      sa.pos += 4 + pad4(static_cast<kiv_uint32>(len));
    }
    return 0;
  }
  return ciscoCmdGetNextToken(nextToken, size, savedData);
}

// Parses and runs (helpMode 0), shows what may follow (1) or completes (2) the tokens
// after the command word the dispatcher is at.
kiv_int32 kiv_ciscoCmdProcesser(kiv_int32 argc, const kiv_cmd_t *thisCmd, kiv_uint32 helpMode) {
  KIV_ASSERT(thisCmd!=NULL);
  KIV_ASSERT(ISSET(thisCmd->cmdFlags, KIV_USECISCOCMDPARSER));
  KIV_ASSERT(argc>=0);
  switch (helpMode) {
    case 0: {
      kiv_int32 result = 0;
      runGrammarRow(thisCmd, argc, result, Status::None);
      return result;
    }
    case 2:
      completeGrammarRow(thisCmd, argc, Status::None);
      return 0;
    default:
      helpGrammarRow(thisCmd, argc, Status::None);
      return 0;
  }
}
