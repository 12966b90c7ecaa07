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

#include "kiv/hx_utils.h"
#include "kiv/kiv_ciscoParser.h"

char kiv_outputBuffer[KIV_OUTBUF_SIZE];
char kiv_pathBuffer[KIV_PATHBUF_SIZE];

// A failed consistency check reports where it failed and stops the program: printing the
// report first lets the engineer see it before the process ends.
void kiv_assertFailed(const char *file, const char *func, int line, const char *cond) {
  printf("\n%s:%s:%d:'%s'", file, func, line, cond);
  fflush(stdout);
  abort();
}

// Stringised here, not through KIV_ASSERT_IN, so that the report shows the condition as
// written (macro names unexpanded).
#define KIV_ASSERT(cond)                                                       \
  do {                                                                         \
    if (!(cond)) kiv_assertFailed("kiv/kiv_parser", __func__, __LINE__, #cond); \
  } while (0)
#define ISSET(flags, bit) (((flags) & (bit)) != 0)

namespace {

// ---- engine state --------------------------------------------------------------------

// Dispatch status of the current line.
enum : kiv_int32 {
  kStatusNone = 0,
  kStatusRun = 1,
  kStatusGroupEntered = 2,
  kStatusDepthExhausted = 11,
  kStatusUsage = 12,
  kStatusIncomplete = 13,
  kStatusCmdHelp = 14,
  kStatusGroupListed = 16,
  kStatusCompleted = 18,
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
};

Engine g;

// Per-line state.
kiv_uint32 g_tokenCount = 0;
kiv_uint32 g_curToken = 0;
kiv_uint8 g_listMode = kListNone;
kiv_int32 g_status = kStatusNone;
char g_errText[kErrTextSize];
char g_nextGroupName[kNextGroupNameSize + 1];
char *g_outBuf = nullptr;
kiv_uint32 g_outSize = 0;
kiv_uint32 g_outUsed = 0;
kiv_uint32 g_uid = 0;
const kiv_cmd_t *g_currentCmd = nullptr;

// Saved-argument hand-out of the running command: the groups' records are served oldest
// group first; kSavedSegments bounds the number of groups that fit on the save stack.
constexpr kiv_uint32 kSavedSegments = KIV_MAXDIRSTACKDEPTH / 8;
struct SavedSegment {
  kiv_uint32 start;
  kiv_uint32 end;
};
SavedSegment g_segments[kSavedSegments];
kiv_uint32 g_segmentCount = 0;
kiv_uint32 g_segmentIndex = 0;
kiv_uint32 g_segmentPos = 0;
const kiv_uint8 *g_savedBase = nullptr;

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
  if (g_outBuf == nullptr || g_outSize == 0) return;
  const size_t room = g_outSize - 1 - g_outUsed;
  size_t n = std::strlen(text);
  if (n > room) n = room;
  std::memcpy(g_outBuf + g_outUsed, text, n);
  g_outUsed += static_cast<kiv_uint32>(n);
  g_outBuf[g_outUsed] = '\0';
}

void outClear() {
  if (g_outBuf && g_outSize) std::memset(g_outBuf, 0, g_outSize);
  g_outUsed = 0;
}

// Joins tokens [from, g_tokenCount) with single blanks into the output buffer.
void outJoinTokens(kiv_uint32 from) {
  for (kiv_uint32 i = from; i < g_tokenCount; i++) {
    if (i > from) outAppend(" ");
    outAppend(g.tokens[i]);
  }
}

// Joins all tokens with single blanks into the scratch buffer (bounded).
const char *joinTokens() {
  char *s = g.scratch.get();
  size_t used = 0;
  s[0] = '\0';
  for (kiv_uint32 i = 0; i < g_tokenCount; i++) {
    const size_t n = std::strlen(g.tokens[i]);
    if (used + n + 2 > kScratchSize) break;
    if (i) s[used++] = ' ';
    std::memcpy(s + used, g.tokens[i], n);
    used += n;
    s[used] = '\0';
  }
  return s;
}

void writeLine(const char *text) { puts(text); }

// Copies text into a token buffer (bounded by the token size).
void setToken(char *tok, const char *text) {
  std::strncpy(tok, text, g.tokenSize - 1);
  tok[g.tokenSize - 1] = '\0';
}

// ---- tokeniser -----------------------------------------------------------------------

// Ends the token collected in the current buffer. Returns false when scanning stops.
bool endToken(kiv_uint32 len) {
  char *tok = g.tokens[g_tokenCount];
  tok[len] = '\0';
  if (g_tokenCount >= g.maxTokens - 1) return false;   // the token is dropped
  for (const auto &lw : kListWords) {
    if (std::strcmp(tok, lw.word) == 0) {
      g_listMode = lw.mode;
      return false;
    }
  }
  if (len > 0 && tok[len - 1] == '?') {
    tok[len - 1] = '\0';
    g_tokenCount++;
    g_listMode = kListPartial;
    return false;
  }
  g_tokenCount++;
  return true;
}

// Cuts the line into tokens: blanks and tabs separate, '"' quotes (a quote inside a plain
// token restarts it as a quoted one), an unterminated quoted token is dropped. A token
// that reaches the token size fails the whole line.
bool tokenise(const char *line) {
  g_tokenCount = 0;
  g_listMode = kListNone;
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
        g.tokens[g_tokenCount][len++] = c;
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
        g.tokens[g_tokenCount][len++] = c;
        break;
      case Quoted:
        if (c == '"') {
          state = Between;
          if (!endToken(len)) return true;
          break;
        }
        g.tokens[g_tokenCount][len++] = c;
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
  hx_itoa(result, g_errText);
}

// Prepares the hand-out of the arguments saved by enclosing groups.
void prepareSavedArguments(const User &u) {
  g_segmentCount = 0;
  g_segmentIndex = 0;
  g_segmentPos = 0;
  g_savedBase = u.saved;
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
  for (kiv_uint32 i = 0; i < n; i++) g_segments[i] = rev[n - 1 - i];
  g_segmentCount = n;
  if (n) g_segmentPos = g_segments[0].start;
}

kiv_int32 callHandler(kiv_cmdFunc fn, kiv_uint32 uid, kiv_int32 argc, void **argv) {
  prepareSavedArguments(g.users[g_uid]);
  const kiv_int32 r = fn ? fn(uid, argc, argv) : 0;
  g_segmentCount = 0;
  return r;
}

kiv_int32 dispatch(User &u);

// Runs a found command row; `byPrefix` when the row was found by a unique prefix.
void runCommand(User &u, const kiv_cmd_t *cmd, bool byPrefix) {
  const bool completing = ISSET(u.state, kCompletion);
  if (completing && (!ISSET(cmd->cmdFlags, KIV_USECISCOCMDPARSER) || byPrefix)) {
    setToken(g.tokens[g_curToken], cmd->cmdName);
    outClear();
    outJoinTokens(0);
    g_status = kStatusCompleted;
    return;
  }
  const kiv_int32 argc = static_cast<kiv_int32>(g_tokenCount - g_curToken);
  if (!ISSET(cmd->cmdFlags, KIV_USECISCOCMDPARSER)) {
    if (argc < cmd->minArgs) {
      if (byPrefix) {
        printf("%-20s usage:%s\n", cmd->cmdName, cmd->cmdUsage ? cmd->cmdUsage : "");
        g_status = kStatusUsage;
      }
      return;
    }
    g_currentCmd = cmd;
    const kiv_int32 r = callHandler(cmd->cmdHandler, g_uid, argc,
                                    reinterpret_cast<void **>(&g.tokens[g_curToken]));
    if (r != 0) setError(u, r);
    g_status = kStatusRun;
    return;
  }
  const kiv_int32 r = kiv_ciscoCmdProcesser(argc, cmd, completing ? 2 : 0);
  if (r != 0 && g_status != kStatusIncomplete) setError(u, r);
}

// Tries the current word as a sub-group. Returns true when the word named one.
bool kiv_groupCheck(User &u, bool prefix);

// Ordinary dispatch of tokens [g_curToken, g_tokenCount) in the group at the search level.
kiv_int32 dispatch(User &u) {
  if (g_curToken >= g_tokenCount) return 0;
  const kiv_group_t *grp = groupAt(u, u.searchLevel);
  const char *word = g.tokens[g_curToken];
  const bool completing = ISSET(u.state, kCompletion);

  if (const kiv_cmd_t *cmd = findCmd(u, grp, word, false)) {
    runCommand(u, cmd, false);
    if (g_status == kStatusIncomplete) writeLine("Incomplete command");
    return 0;
  }
  if (g_status == kStatusIncomplete) {
    writeLine("Incomplete command");
    return 0;
  }
  if (kiv_groupCheck(u, false)) return 0;

  const kiv_uint32 matches = countPrefix(u, grp, word);
  if (matches == 0) {
    if (!completing) writeLine("Unknown command");
    return 0;
  }
  if (matches == 1) {
    if (const kiv_cmd_t *cmd = findCmd(u, grp, word, true)) {
      runCommand(u, cmd, true);
    } else if (kiv_groupCheck(u, true)) {
      return 0;
    }
    switch (g_status) {
      case kStatusRun:
      case kStatusGroupEntered:
      case kStatusUsage:
      case kStatusCompleted:
        break;
      case kStatusIncomplete:
        writeLine("Incomplete command");
        break;
      default:
        writeLine("Unknown command");
        break;
    }
    return 0;
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
  return 0;
}

// Enters `sub` one level below the search level, consuming its entry arguments.
// Returns false (with the status set) when the group cannot be entered.
bool enterGroup(User &u, const kiv_group_t *sub) {
  if (u.searchLevel + 1 >= u.maxDepth) {
    g_status = kStatusDepthExhausted;
    return false;
  }
  const kiv_uint32 newDepth = u.searchLevel + 1;
  if (ISSET(sub->groupFlags, KIV_GROUP_ENTRYARGS)) {
    kiv_uint32 count = g_tokenCount - g_curToken;
    u.depth = u.searchLevel;
    const kiv_int32 d = kiv_changeCmdGroup(g_uid, sub->groupName, 0,
                                           reinterpret_cast<void **>(&g.tokens[g_curToken]), &count);
    if (d < 0) return false;
    g_curToken += count;
  } else {
    u.groupStack[newDepth] = sub;
    u.depth = newDepth;
  }
  u.searchLevel = newDepth;
  return true;
}

bool kiv_groupCheck(User &u, bool prefix) {
  const kiv_int32 argCnt = static_cast<kiv_int32>(g_tokenCount - g_curToken);
  KIV_ASSERT(argCnt!=0);
  const kiv_group_t *grp = groupAt(u, u.searchLevel);
  const kiv_group_t *sub = findGroup(u, grp, g.tokens[g_curToken], prefix);
  if (sub == nullptr) return false;
  if (u.searchLevel + 1 >= u.maxDepth) {
    g_status = kStatusDepthExhausted;
    return true;
  }
  if (ISSET(u.state, kCompletion)) {
    setToken(g.tokens[g_curToken], sub->groupName);
    outClear();
    outJoinTokens(0);
    g_status = kStatusCompleted;
    return true;
  }
  const kiv_uint32 oldDepth = u.depth;
  const kiv_uint32 oldLevel = u.searchLevel;
  g_curToken++;
  if (!enterGroup(u, sub)) return true;
  g_status = kStatusGroupEntered;
  if (g_curToken >= g_tokenCount) return true;   // the group is entered
  // Further tokens: run them inside the group, then come back.
  dispatch(u);
  if (u.depth > oldDepth) kiv_exitCmdGroup(g_uid, static_cast<kiv_int32>(oldDepth));
  u.depth = oldDepth;
  u.searchLevel = oldLevel;
  return true;
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

void commandHelp(const kiv_cmd_t *cmd, kiv_uint32 helpMode) {
  if (!ISSET(cmd->cmdFlags, KIV_USECISCOCMDPARSER)) {
    printf("%-20s %s\n", cmd->cmdName, cmd->cmdHelp ? cmd->cmdHelp : "");
    printf("%20s usage: %s\n", "", cmd->cmdUsage ? cmd->cmdUsage : "");
  } else {
    kiv_ciscoCmdProcesser(static_cast<kiv_int32>(g_tokenCount - g_curToken), cmd, helpMode);
  }
  g_status = kStatusCmdHelp;
}

// Help for the words before a list word, or on a partial last word.
void listWithWord(User &u) {
  const kiv_group_t *grp = groupAt(u, u.searchLevel);
  const char *word = g.tokens[g_curToken];

  if (g_listMode == kListPartial && g_tokenCount - g_curToken == 1) {
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
    if (shown == 0)
      writeLine("Unknown command");
    else
      g_status = kStatusCmdHelp;
    return;
  }

  const kiv_cmd_t *cmd = findCmd(u, grp, word, false);
  const kiv_group_t *sub = cmd ? nullptr : findGroup(u, grp, word, false);
  if (!cmd && !sub) {
    const kiv_uint32 matches = countPrefix(u, grp, word);
    if (matches > 1) {
      writeLine("ambiguous command");
      return;
    }
    // Help on a partial last word names its command in full: no abbreviation there.
    if (matches == 0 || g_listMode == kListPartial) {
      writeLine("Unknown command");
      return;
    }
    cmd = findCmd(u, grp, word, true);
    if (cmd) setToken(g.tokens[g_curToken], cmd->cmdName);
    sub = cmd ? nullptr : findGroup(u, grp, word, true);
    if (sub) setToken(g.tokens[g_curToken], sub->groupName);
    if (!cmd && !sub) {
      writeLine("Unknown command");
      return;
    }
  }
  if (cmd) {
    commandHelp(cmd, 1);
    return;
  }
  // A sub-group: entered for the listing only.
  const kiv_uint32 oldDepth = u.depth;
  const kiv_uint32 oldLevel = u.searchLevel;
  g_curToken++;
  if (enterGroup(u, sub)) {
    if (g_curToken >= g_tokenCount) {
      listGroup(u, groupAt(u, u.searchLevel), g_listMode == kListPartial ? static_cast<kiv_uint8>(kListQuestion) : g_listMode);
      g_status = kStatusGroupListed;
    } else {
      listWithWord(u);
    }
  }
  if (u.depth > oldDepth) kiv_exitCmdGroup(g_uid, static_cast<kiv_int32>(oldDepth));
  u.depth = oldDepth;
  u.searchLevel = oldLevel;
}

void listOrHelp(User &u) {
  if (g_curToken >= g_tokenCount) {
    if (g_listMode == kListPartial) return;
    listGroup(u, groupAt(u, u.searchLevel), g_listMode);
    g_status = kStatusIncomplete;
    return;
  }
  listWithWord(u);
}

// Text the line editor starts the next line with after a help or completion request.
void preloadAfterRequest(const User &u, const char *line) {
  if (g_outUsed != 0) return;
  if (g_listMode == kListQuestion || g_listMode == kListHelp || g_listMode == kListLs) {
    outJoinTokens(0);
    if (g_tokenCount) outAppend(" ");
  } else if (g_listMode == kListPartial) {
    outJoinTokens(0);
  } else if (ISSET(u.state, kCompletion)) {
    outAppend(line);
  }
}

// ---- saved arguments -----------------------------------------------------------------

kiv_uint32 pad4(kiv_uint32 n) { return (n + 3u) & ~3u; }

}  // namespace

// ---- public interface ------------------------------------------------------------------

kiv_int32 kiv_init(kiv_uint32 maxUsers, kiv_uint32 tokenSize, kiv_uint32 maxTokens) {
  if (maxUsers == 0 || tokenSize < 2 || maxTokens < 2) return -1;
  g = Engine{};
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
  g_tokenCount = 0;
  g_currentCmd = nullptr;
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

const kiv_cmd_t *kiv_currentCmd(void) { return g_currentCmd; }

kiv_int32 kiv_cmdProcess(kiv_uint32 uid, char *line, char *outBuf, kiv_uint32 outSize) {
  User *pu = userOf(uid);
  if (pu == nullptr || line == nullptr) return -1;
  User &u = *pu;
  g_uid = uid;
  g_outBuf = outBuf;
  g_outSize = outBuf ? outSize : 0;
  g_outUsed = 0;

  if (!tokenise(line)) return -1;
  u.searchLevel = ISSET(u.outputMode, 4u) ? 0 : u.depth;
  ciscoCmdParserSetOutputMode(u.outputMode);

  if (std::strcmp(line, kUpWords[0]) == 0 && u.depth > 0) {
    kiv_exitCmdGroup(uid, static_cast<kiv_int32>(u.depth - 1));
    u.searchLevel = u.depth;
    g_tokenCount = 0;
  }

  g_curToken = 0;
  g_status = kStatusNone;
  g_errText[0] = '\0';
  u.state &= static_cast<kiv_uint8>(~kErrorFlag);
  u.outError = 0;
  outClear();
  u.busy = 1;

  bool ok;
  if (g_listMode != kListNone) {
    listOrHelp(u);
    ok = g_status == kStatusIncomplete;
    preloadAfterRequest(u, line);
  } else {
    dispatch(u);
    // Nothing produces structured output records, so output modes 1 and 2 print nothing
    // more here.
    if (g_status == kStatusRun || g_status == kStatusIncomplete) {
      const bool script = std::strcmp(g.registry[uid].name, "script") == 0;
      if (!ISSET(u.state, kErrorFlag) && u.outError == 0) {
        ok = true;
        if (g_outUsed == 0 && !script) writeLine("Success!!");
      } else {
        ok = false;
        if (ISSET(u.state, kErrorFlag)) {
          if (script) printf("Script: %s ", joinTokens());
          if (g_errText[0])
            printf("Errno : %s\n", g_errText);
          else
            writeLine("Error!!");
        }
      }
    } else {
      ok = g_status == kStatusGroupEntered;
    }
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
  std::strncpy(g_nextGroupName, nextGroupName, kNextGroupNameSize);
  g_nextGroupName[kNextGroupNameSize] = '\0';
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
  while (g_segmentIndex < g_segmentCount) {
    const SavedSegment &seg = g_segments[g_segmentIndex];
    if (g_segmentPos >= seg.end) {
      if (++g_segmentIndex < g_segmentCount) g_segmentPos = g_segments[g_segmentIndex].start;
      continue;
    }
    const kiv_uint8 *head = g_savedBase + seg.start;
    const kiv_uint8 *thisRec = g_savedBase + g_segmentPos;
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
      g_segmentPos += 4 + pad4(static_cast<kiv_uint32>(-len) + 1);
    } else {
      *size = static_cast<kiv_uint32>(len);
      g_segmentPos += 4 + pad4(static_cast<kiv_uint32>(len));
    }
    return 0;
  }
  return ciscoCmdGetNextToken(nextToken, size, savedData);
}

// Parses and runs (helpMode 0), shows what may follow (1) or completes (2) the tokens
// after the command word at g_curToken.
kiv_int32 kiv_ciscoCmdProcesser(kiv_int32 argc, const kiv_cmd_t *thisCmd, kiv_uint32 helpMode) {
  KIV_ASSERT(thisCmd!=NULL);
  KIV_ASSERT(ISSET(thisCmd->cmdFlags, KIV_USECISCOCMDPARSER));
  KIV_ASSERT(argc>=0);
  User &u = g.users[g_uid];
  const bool textMode = (u.outputMode & 3u) != 0;
  char **args = &g.tokens[g_curToken + 1];
  kiv_int32 nargs = argc > 0 ? argc - 1 : 0;
  kiv_candEntry_t entries[kMaxCandidates];
  g_currentCmd = thisCmd;

  for (int round = 0; round < kMaxCompletionRounds; round++) {
    void *saved = nullptr;
    char *token = nullptr;
    const kiv_cmd_t *cmd = thisCmd;
    kiv_int32 n = ciscoCmdParser(nargs, args, &cmd, &saved, &token);
    if (cmd != thisCmd && cmd != nullptr) {
      // A checker handed the line over to another command.
      const kiv_int32 drop = token ? (n < 0 ? -n : n) : nargs;
      args += drop;
      nargs -= drop;
      ciscoCmdParserReset();
      thisCmd = cmd;
      g_currentCmd = cmd;
      if (drop <= 0) break;
      round--;   // not a completion round: each hand-over consumes tokens
      if (!ISSET(thisCmd->cmdFlags, KIV_USECISCOCMDPARSER)) return 0;
      continue;
    }
    if (helpMode == 0 && (n > 0 || (n == 0 && token == nullptr))) {
      g_status = kStatusRun;
      const kiv_int32 r = callHandler(thisCmd->cmdHandler, 0, n, &saved);
      ciscoCmdParserReset();
      return r;
    }
    if (n > 0) {
      void *value = nullptr;
      kiv_uint32 size = 0;
      for (kiv_int32 i = 0; i < n - 1; i++) ciscoCmdGetNextToken(&value, &size, &saved);
      KIV_ASSERT(saved!=NULL);
      ciscoCmdParserGetCandidate(ciscoCmdParserPathNodeIndex(saved), nullptr);
    } else if (n == 0) {
      if (helpMode != 0) {
        printf("%-25s %s\n", kEndName, kEndHelp);
        g_status = kStatusIncomplete;
        ciscoCmdParserReset();
        return 0;
      }
      ciscoCmdParserGetRootCandidate();
    }

    g_status = kStatusIncomplete;
    kiv_uint32 total = ciscoCmdParserListCandidates(entries, kMaxCandidates);
    if (total == 0) break;
    KIV_ASSERT(total>0);
    if (token == nullptr) {
      printf("\n");
      ciscoCmdParserShowHelp(entries, total);
      break;
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
    };
    // Rewrites the token to the one matching entry; true when the request ends there.
    auto completeToken = [&] {
      setToken(token, entries[match].text);
      if (helpMode != 2) return false;
      outClear();
      outJoinTokens(0);
      g_status = kStatusCompleted;
      return true;
    };

    kiv_uint32 matches = count(begins);
    const bool stuck = matches == 1 && sameText();
    if (matches == 1 && !stuck) {
      if (completeToken()) break;
      if (!textMode) {
        printf("\n");
        ciscoCmdParserShowHelp(entries, total);
        break;
      }
      printf("%dth token best matched for '%s'\n", -n, token);
      ciscoCmdParserReset();
      continue;
    }
    if (matches > 1) {
      showPrefixed();
      break;
    }
    // No entry begins with the token: try those that contain it.
    total = ciscoCmdParserListCandidates(entries, kMaxCandidates);
    matches = stuck ? 0 : count(contains);
    if (matches == 1 && sameText()) matches = 0;
    if (matches == 1) {
      if (completeToken()) break;
      if (textMode) printf("\n%dth token best matched for '%s'\n", -n, token);
      ciscoCmdParserReset();
      continue;
    }
    if (matches == 0) {
      if (textMode) printf("\nError on %dth token '%s'\n\n", -n, token);
      printf("\n");
      ciscoCmdParserShowHelp(entries, total);
      break;
    }
    showPrefixed();
    break;
  }
  ciscoCmdParserReset();
  return 0;
}
