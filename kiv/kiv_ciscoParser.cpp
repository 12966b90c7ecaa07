// Usage grammar parser: splits a command's usage string into grammar tokens, builds the
// command graph from them, walks typed tokens through the graph, collects the candidates
// that may follow, and hands the converted values to the command's handler.
//
// All state is one static instance: one command is parsed at a time. The rows of the
// engine's tables are compiled once, on their first parse, and each later parse loads the
// kept graph (node records copied, links shared) instead of building it again; other rows
// are built for each parse.

#include "kiv/kiv_ciscoParser.h"

#include <cctype>
#include <cstring>

#include "kiv/hx_utils.h"
#include "kiv/kiv_assert.h"
#include "kiv/kiv_ciscoParserParamChecker.h"

#define PARSER_FILE "kiv/kiv_ciscoParser"

namespace {

constexpr kiv_uint32 kStackDepth = 1024;
constexpr const char *kEndText = "<cr>";
constexpr const char *kEndHelp = "Acceptable command. Press <Return> to commit command...";
// Lines handed to ciscoCmdRunString keep at most as many tokens as the engine's tokeniser.
constexpr kiv_int32 kRunStringMaxTokens = 255;

struct kiv_grammarToken_t {
  char *text;
  const char *help;
};

struct kiv_indexStack_t {
  kiv_int32 top;
  kiv_uint32 entry[kStackDepth];
};

constexpr kiv_uint32 roundUp4(kiv_uint32 v) { return (v + 3u) & ~3u; }

// Re-entrant tokenizer with a single separator character, as strtok_r(text, "c", save)
// cuts: runs of the separator count as one and empty pieces vanish. The first call passes
// the text, later calls null.
char *cutAt(char *text, char sep, char **save) {
  char *p = text ? text : *save;
  while (*p == sep) p++;
  if (*p == '\0') {
    *save = p;
    return nullptr;
  }
  char *piece = p;
  p = strchrnul(p, sep);
  if (*p != '\0') *p++ = '\0';
  *save = p;
  return piece;
}

}  // namespace

// ---------------------------------------------------------------------------------------
// Parser state

// A command graph: pristine node records (index 0 the root, the last the end node), the
// link rows as bit sets (bit b of row a: node b may directly follow node a) and the value
// slots its parameter nodes reserve at the start of the value buffer.
struct kiv_graph_t {
  const kiv_parseNode_t *nodes;
  const uint64_t *links;
  kiv_uint32 total;       // nodes including the root and the end node
  kiv_uint32 stride;      // 64-bit words per link row
  kiv_uint32 slotBytes;
};

constexpr kiv_uint32 kBuildStride = (MAX_TOKENS + 1 + 63) / 64;

static const kiv_cmd_t *_thisCommand;
static kiv_parseNode_t _nodes[MAX_TOKENS];   // the graph being walked, with this line's path
static kiv_uint32 _nodeUsed;
alignas(8) static kiv_uint8 _tempBuffer[MAX_CMD_TEMPBUFFER];
static kiv_uint32 _tempBufferUsed;
static kiv_uint32 _nonRepeatingTempBufferStart;
static kiv_candidateList_t _candidate;
static kiv_memaddr _redirectCommand;
static const uint64_t *_linkRows;            // link rows of the graph being walked
static kiv_uint32 _linkStride;

// Building: the usage copy the grammar tokens point into, the tokens, the stacks and the
// link rows of the graph being built (rows and columns below _buildHigh may be set; all
// others are zero).
static char _usageCopy[MAX_CMD_TEMPBUFFER];
static kiv_grammarToken_t _tokens[MAX_TOKENS];
static kiv_uint32 _tokensFilled;   // entries of _tokens written since they were last cleared
static uint64_t _buildLinks[MAX_TOKENS * kBuildStride];
static kiv_uint32 _buildHigh;
static kiv_indexStack_t _groupStack, _pendingStack, _optionStack, _optionLevelStack;

static kiv_uint32 _outputMode = 1;
static const kiv_replyHooks_t *_replyHooks;
static char _synopsisCopy[MAX_CMD_TEMPBUFFER];

// Nodes whose readCount is not 0; while there are none, resetting read counts is a no-op.
static kiv_uint32 _readCountsSet;

// Walk marks: a node is visited/listed in the current walk when its stamp equals the
// walk's generation. Keeps candidate collection and end reachability finite on cyclic
// grammars ("[ ] [ ]", self-linked pass-through nodes) without changing their results.
static kiv_uint32 _visitStamp[MAX_TOKENS];
static kiv_uint32 _listStamp[MAX_TOKENS];
static kiv_uint32 _walkGen;

static bool _validIndex(kiv_int32 index) { return index >= 0 && index < (kiv_int32)MAX_TOKENS; }

static void _setLink(kiv_uint32 from, kiv_uint32 to) {
  const kiv_uint32 high = (from > to ? from : to) + 1;
  if (high > _buildHigh) _buildHigh = high;
  _buildLinks[from * kBuildStride + to / 64] |= uint64_t{1} << (to % 64);
}

// Whether node b may directly follow node a in the graph being walked. A repeatable node
// loses its self link once it has been matched as often as it may be.
static bool _linked(kiv_uint32 a, kiv_uint32 b) {
  if (a > _nodeUsed || b / 64 >= _linkStride) return false;
  if (a == b && _nodes[a].selfCut) return false;
  return (_linkRows[a * _linkStride + b / 64] >> (b % 64)) & 1u;
}

static bool _isMatchable(const kiv_parseNode_t &n) { return n.isKeyword || n.isParam || n.endCommand; }

static kiv_uint32 _newWalk() {
  if (++_walkGen == 0) {
    memset(_visitStamp, 0, sizeof _visitStamp);
    memset(_listStamp, 0, sizeof _listStamp);
    _walkGen = 1;
  }
  return _walkGen;
}

// Zeroes the link rows the last build set.
static void _clearBuild() {
  const kiv_uint32 words = (_buildHigh + 63) / 64;
  for (kiv_uint32 row = 0; row < _buildHigh; row++) memset(&_buildLinks[row * kBuildStride], 0, words * 8);
  _buildHigh = 0;
}

static void _clearNode(kiv_uint32 i) { memset(&_nodes[i], 0, sizeof(kiv_parseNode_t)); }

// ---------------------------------------------------------------------------------------
// Index stacks (entries are node indices; -1 may be pushed and comes back as -1)

static void _emptyStack(kiv_indexStack_t *ps) { ps->top = -1; }

static kiv_int32 _pushStack(kiv_indexStack_t *ps, kiv_int32 value) {
  if (ps->top >= (kiv_int32)kStackDepth - 1) return -1;
  ps->entry[++ps->top] = (kiv_uint32)value;
  return 0;
}

static kiv_int32 _popStack(kiv_indexStack_t *ps) {
  if (ps->top < 0) return -1;
  return (kiv_int32)ps->entry[ps->top--];
}

static kiv_int32 _peekStack(const kiv_indexStack_t *ps) {
  if (ps->top < 0) return -1;
  return (kiv_int32)ps->entry[ps->top];
}

static kiv_int32 _replaceStackTop(kiv_indexStack_t *ps, kiv_int32 value) {
  if (ps->top >= (kiv_int32)kStackDepth - 1) return -1;
  KIV_ASSERT_IN(PARSER_FILE, ps->top>=0);
  ps->entry[ps->top] = (kiv_uint32)value;
  return 0;
}

static bool _isChainNode(kiv_int32 index) { return _validIndex(index) && _nodes[index].node; }

// ---------------------------------------------------------------------------------------
// Splitting the usage string

// Cuts the private usage copy into grammar tokens. Pieces between runs of "'" alternate
// grammar text and help text; grammar pieces are cut at spaces. A help piece becomes the
// help of the last token appended so far. "<cr>" is appended last.
// Only MAX_TOKENS entries are stored; a usage with more tokens returns a count that makes
// the node total reach MAX_TOKENS, which the parse refuses.
static kiv_uint32 _splitCmdFormatTokens(void) {
  KIV_ASSERT_IN(PARSER_FILE, _thisCommand->cmdUsage!=NULL);
  KIV_ASSERT_IN(PARSER_FILE, strlen(_thisCommand->cmdUsage)<MAX_CMD_TEMPBUFFER);

  strncpy(_usageCopy, _thisCommand->cmdUsage, MAX_CMD_TEMPBUFFER - 1);
  _usageCopy[MAX_CMD_TEMPBUFFER - 1] = '\0';
  memset(_tokens, 0, _tokensFilled * sizeof(kiv_grammarToken_t));
  _tokensFilled = 0;

  kiv_uint32 index = 0;
  auto append = [&index](char *text) {
    if (index < MAX_TOKENS) {
      _tokens[index] = {text, nullptr};
      _tokensFilled = index + 1;
    }
    index++;
  };

  char *quoteSave = nullptr;
  bool helpPiece = false;
  for (char *piece = cutAt(_usageCopy, '\'', &quoteSave); piece;
       piece = cutAt(nullptr, '\'', &quoteSave), helpPiece = !helpPiece) {
    if (helpPiece) {
      if (index > 0 && index <= MAX_TOKENS) _tokens[index - 1].help = piece;
      continue;
    }
    char *spaceSave = nullptr;
    for (char *tok = cutAt(piece, ' ', &spaceSave); tok; tok = cutAt(nullptr, ' ', &spaceSave))
      append(tok);
  }
  append(const_cast<char *>(kEndText));
  KIV_ASSERT_IN(PARSER_FILE, index>0);
  return index;
}

// ---------------------------------------------------------------------------------------
// Node makers

static void _setRepeatRange(kiv_parseNode_t *thisNode, kiv_uint32 minimum, kiv_uint32 maximum, bool keepZeroMin) {
  if (minimum == 0 && maximum == 0) return;
  thisNode->repeat = 1;
  thisNode->min_repeat = (kiv_uint16)((minimum == 0 && !keepZeroMin) ? 1 : minimum);
  thisNode->max_repeat = (kiv_uint16)maximum;
}

static void _createKeywordNode(kiv_uint32 n, char *text, const char *help, kiv_uint32 minimum, kiv_uint32 maximum) {
  kiv_parseNode_t *thisNode = &_nodes[n];
  thisNode->node = 1;
  thisNode->isKeyword = 1;
  thisNode->text = text;
  thisNode->len = (kiv_uint16)strlen(text);
  thisNode->help = help;
  _setRepeatRange(thisNode, minimum, maximum, false);
}

// Makes a parameter node whose value slot starts at the current end of the value buffer.
// Returns the bytes to reserve for it (the type's maxSize rounded up to 4).
static kiv_uint32 _createParamNode(kiv_uint32 n, char *text, const char *help, kiv_uint32 minimum, kiv_uint32 maximum) {
  kiv_parseNode_t *thisNode = &_nodes[n];
  thisNode->paramType = kiv_findParamType(_thisCommand, text);
  KIV_ASSERT_IN(PARSER_FILE, thisNode->paramType!=NULL);
  thisNode->node = 1;
  thisNode->isParam = 1;
  thisNode->help = help;
  thisNode->len = 0;
  _setRepeatRange(thisNode, minimum, maximum, false);
  KIV_ASSERT_IN(PARSER_FILE, IS4BYTEALIGNED((kiv_memaddr)_tempBuffer+_tempBufferUsed));
  thisNode->text = _tempBuffer + _tempBufferUsed;
  return roundUp4(thisNode->paramType->maxSize);
}

static void _createPunctNode(kiv_uint32 n, char *text) {
  _nodes[n].text = text;
  _nodes[n].len = (kiv_uint16)strlen(text);
}

static void _createEndNode(kiv_uint32 n) {
  kiv_parseNode_t *thisNode = &_nodes[n];
  thisNode->node = 1;
  thisNode->endCommand = 1;
  thisNode->text = const_cast<char *>(kEndText);
  thisNode->len = 4;
  thisNode->help = kEndHelp;
}

// ---------------------------------------------------------------------------------------
// Linking

// Links every pending node down to the next marker ("[", "]", "|" entry or a "{") to n.
static void _linkPending(kiv_uint32 n) {
  while (_pendingStack.top >= 0) {
    kiv_int32 p = _popStack(&_pendingStack);
    if (_validIndex(p)) _setLink((kiv_uint32)p, n);
    kiv_int32 next = _peekStack(&_pendingStack);
    if (!_isChainNode(next) || _nodes[next].isGroupStart) break;
  }
  if (_nodes[n].repeat) _setLink(n, n);
}

// Closes a run of options at node n: the node before the run may skip it, every option's
// end leads to every other option's start and to n.
static void _linkAllOptions(kiv_uint32 n) {
  kiv_uint32 ends[kStackDepth / 2];
  kiv_uint32 starts[kStackDepth / 2];
  kiv_uint32 pairs = 0;
  kiv_int32 before = -1;

  _popStack(&_optionLevelStack);
  for (;;) {
    kiv_int32 nodeIndex = _popStack(&_optionStack);
    if (nodeIndex <= 0 || _isChainNode(nodeIndex)) {
      before = nodeIndex;
      break;
    }
    KIV_ASSERT_IN(PARSER_FILE, nodeIndex&&!_nodes[nodeIndex].node);
    kiv_uint32 end = (kiv_uint32)nodeIndex;
    nodeIndex = _popStack(&_optionStack);
    if (!_validIndex(nodeIndex)) nodeIndex = 0;   // a missing start fails the check below
    KIV_ASSERT_IN(PARSER_FILE, nodeIndex&&!_nodes[nodeIndex].node);
    if (pairs < kStackDepth / 2) {
      ends[pairs] = end;
      starts[pairs] = (kiv_uint32)nodeIndex;
      pairs++;
    }
  }
  if (_isChainNode(before)) _setLink((kiv_uint32)before, n);
  for (kiv_uint32 i = 0; i < pairs; i++)
    for (kiv_uint32 j = 0; j < pairs; j++)
      if (i != j) _setLink(ends[i], starts[j]);
  for (kiv_uint32 i = 0; i < pairs; i++) _setLink(ends[i], n);
}

static void _closeOptionRunIfOpen(kiv_uint32 n) {
  if (_peekStack(&_optionLevelStack) == 0) _linkAllOptions(n);
}

// Closes the group started at g with the "}" at n: every alternative's last node leads to n.
static void _closeGroup(kiv_uint32 n, kiv_int32 g) {
  while (_pendingStack.top >= 0) {
    kiv_int32 p = _popStack(&_pendingStack);
    if (p < 0 || !_validIndex(p)) break;
    if (_nodes[p].isAlternative) continue;
    if (_nodes[p].isGroupStart) break;
    _nodes[p].groupIndex = (kiv_uint16)g;
    _setLink((kiv_uint32)p, n);
  }
}

// ---------------------------------------------------------------------------------------
// Building the graph

// One grammar token of each kind makes node n: it is linked from the pending nodes and
// pushed as pending itself (or opens/closes an option run or a braced group).

struct kiv_repeat_t {
  kiv_uint32 minimum;
  kiv_uint32 maximum;
};

// Reads the "min~max" of a "(min~max)" prefix for node n.
static void _readRepeatRange(kiv_uint32 n, const char *repeater, kiv_repeat_t *range) {
  const char *lower = repeater;
  const char *upper = strchr(repeater, '~');
  // Each digit weighs 20, not 10: "(1~9)" reads as written, "(1~10)" gives a maximum
  // of 20. Kept as it is.
  range->minimum = hx_readRepeatDigits(&lower) & 0xFFu;
  if (upper) {
    upper++;
    range->maximum = hx_readRepeatDigits(&upper) & 0xFFu;
  }
  _nodes[n].repeat = 1;
}

// A node that others lead to and that leads on: linked from the pending nodes, closing
// an option run that ends before it.
static void _chainNode(kiv_uint32 n) {
  _linkPending(n);
  _closeOptionRunIfOpen(n);
  _pushStack(&_pendingStack, (kiv_int32)n);
}

static void _addEndToken(kiv_uint32 n) {
  _createEndNode(n);
  _chainNode(n);
}

static void _addKeywordToken(kiv_uint32 n, char *token, const char *help, kiv_repeat_t range) {
  _createKeywordNode(n, token, help, range.minimum, range.maximum);
  _chainNode(n);
}

// "[": goes on with the current run of options, or opens a new run (one level deeper).
// A "[" right after "[" first gets a dummy node standing for the outer option's content,
// which moves n on. False when that leaves no room for the "[" itself.
static bool _addOptionStart(kiv_uint32 *pn, char *token, kiv_repeat_t range) {
  kiv_uint32 n = *pn;
  if (_peekStack(&_optionLevelStack) == 0) {
    _createPunctNode(n, token);
    _nodes[n].isOptionStart = 1;
    _setRepeatRange(&_nodes[n], range.minimum, range.maximum, true);
    _linkPending(n);
    kiv_int32 a = _peekStack(&_groupStack);
    if (_validIndex(a)) _setLink((kiv_uint32)a, n);
    _replaceStackTop(&_optionLevelStack, 1);
    _pushStack(&_optionStack, (kiv_int32)n);
    _pushStack(&_pendingStack, (kiv_int32)n);
    _pushStack(&_groupStack, a);
    return true;
  }
  kiv_int32 lastOption = _peekStack(&_optionStack);
  if (_validIndex(lastOption) && _nodes[lastOption].isOptionStart &&
      (_peekStack(&_optionLevelStack) != 1 || !_isChainNode(_peekStack(&_pendingStack)))) {
    _nodes[n].node = 1;
    _linkPending(n);
    _pushStack(&_pendingStack, (kiv_int32)n);
    n++;
    _nodeUsed++;
    *pn = n;
    if (n >= MAX_TOKENS) return false;
    _clearNode(n);
  }
  _createPunctNode(n, token);
  _nodes[n].isOptionStart = 1;
  _setRepeatRange(&_nodes[n], range.minimum, range.maximum, true);
  kiv_int32 p = _peekStack(&_pendingStack);
  _linkPending(n);
  _pushStack(&_groupStack, p);
  _pushStack(&_optionStack, p);
  _pushStack(&_optionStack, (kiv_int32)n);
  _pushStack(&_optionLevelStack, 1);
  _pushStack(&_pendingStack, (kiv_int32)n);
  return true;
}

// "]": ends one option; the run stays open until a node that is no "[" follows.
static void _addOptionEnd(kiv_uint32 n, char *token) {
  _createPunctNode(n, token);
  _linkPending(n);
  _closeOptionRunIfOpen(n);
  kiv_int32 level = _peekStack(&_optionLevelStack);
  if (level >= 0) {
    _replaceStackTop(&_optionLevelStack, level - 1);
    _pushStack(&_optionStack, (kiv_int32)n);
  }
  _pushStack(&_pendingStack, (kiv_int32)n);
  _popStack(&_groupStack);
}

static void _addGroupStart(kiv_uint32 n, char *token, kiv_repeat_t range) {
  _createPunctNode(n, token);
  _nodes[n].node = 1;
  _nodes[n].isGroupStart = 1;
  _setRepeatRange(&_nodes[n], range.minimum, range.maximum, false);
  _linkPending(n);
  _closeOptionRunIfOpen(n);
  _pushStack(&_groupStack, (kiv_int32)n);
  _pushStack(&_pendingStack, (kiv_int32)n);
  _pushStack(&_pendingStack, (kiv_int32)n);
}

// "|": the next alternative starts from the group's "{" again.
static void _addAlternative(kiv_uint32 n) {
  _nodes[n].isAlternative = 1;
  _pushStack(&_pendingStack, (kiv_int32)n);
  _pushStack(&_pendingStack, _peekStack(&_groupStack));
}

static void _addGroupEnd(kiv_uint32 n, char *token) {
  _createPunctNode(n, token);
  _nodes[n].node = 1;
  _nodes[n].isGroupEnd = 1;
  kiv_int32 g = _popStack(&_groupStack);
  _closeGroup(n, g);
  _closeOptionRunIfOpen(n);
  _pushStack(&_pendingStack, (kiv_int32)n);
}

// Builds the graph from the split tokens. Returns the node total including the root.
// A total at or above MAX_TOKENS stops the build there and is refused by the caller; the
// value slots are bounded by MAX_CMD_TEMPBUFFER (a usage reserving more is refused by
// a consistency check instead of writing past the buffer).
static kiv_uint32 _createCommandGraph(void) {
  _emptyStack(&_groupStack);
  _emptyStack(&_pendingStack);
  _emptyStack(&_optionStack);
  _emptyStack(&_optionLevelStack);
  KIV_ASSERT_IN(PARSER_FILE, _nodeUsed>0);

  _clearNode(0);
  _nodes[0].node = 1;
  _pushStack(&_pendingStack, 0);

  kiv_uint32 n = 1;
  kiv_uint32 t = 0;
  while (n < _nodeUsed + 1) {
    if (n >= MAX_TOKENS || t >= _tokensFilled) return n > MAX_TOKENS ? n : MAX_TOKENS;
    _clearNode(n);
    char *token = _tokens[t].text;
    const char *help = _tokens[t].help;
    kiv_repeat_t range = {0, 0};
    if (token[0] == '(') {
      char *rest = nullptr;
      char *repeater = cutAt(token + 1, ')', &rest);
      KIV_ASSERT_IN(PARSER_FILE, repeater!=NULL);
      _readRepeatRange(n, repeater, &range);
      token = rest;
    }

    switch (token[0]) {
      case '<': _addEndToken(n); break;   // "<cr>"
      case '%': {
        // The parameter's value slot is reserved at the end of the value buffer.
        kiv_uint32 size = _createParamNode(n, token, help, range.minimum, range.maximum);
        KIV_ASSERT_IN(PARSER_FILE, _tempBufferUsed+size<=MAX_CMD_TEMPBUFFER);
        _tempBufferUsed += size;
        KIV_ASSERT_IN(PARSER_FILE, IS4BYTEALIGNED(_tempBufferUsed));
        _chainNode(n);
        break;
      }
      case '[':
        if (!_addOptionStart(&n, token, range)) return MAX_TOKENS;
        break;
      case ']': _addOptionEnd(n, token); break;
      case '{': _addGroupStart(n, token, range); break;
      case '|': _addAlternative(n); break;
      case '}': _addGroupEnd(n, token); break;
      default:
        if (isalnum((unsigned char)token[0])) _addKeywordToken(n, token, help, range);
        // Anything else leaves a blank, unlinked node.
        break;
    }
    n++;
    t++;
  }
  return n;
}

// ---------------------------------------------------------------------------------------
// Walking the graph

static bool _onPath(kiv_uint32 j) {
  kiv_uint32 k = _nodes[0].nextIndex;
  for (kiv_uint32 steps = 0; k != 0 && steps < MAX_TOKENS; steps++) {
    if (k == j) return true;
    k = _nodes[k].nextIndex;
  }
  return false;
}

// Follows the highest-numbered successor from a until the end node (yes), a keyword or
// parameter (no), a dead end or a node already seen (no).
static bool _endReachable(kiv_uint32 a, kiv_uint32 endNode) {
  kiv_uint32 gen = _newWalk();
  for (;;) {
    if (a > _nodeUsed || _visitStamp[a] == gen) return false;
    _visitStamp[a] = gen;
    const uint64_t *row = &_linkRows[a * _linkStride];
    kiv_int32 b = -1;
    for (kiv_int32 w = (kiv_int32)_linkStride - 1; w >= 0 && b < 0; w--) {
      uint64_t bits = row[w];
      if (w == (kiv_int32)(a / 64) && _nodes[a].selfCut) bits &= ~(uint64_t{1} << (a % 64));
      if (bits) b = w * 64 + 63 - __builtin_clzll(bits);
    }
    if (b < 0) return false;
    if ((kiv_uint32)b == endNode) return true;
    if (_nodes[b].isKeyword || _nodes[b].isParam) return false;
    a = (kiv_uint32)b;
  }
}

// First node at or after j (below end) that may follow a; end when none.
static kiv_uint32 _nextLinked(kiv_uint32 a, kiv_uint32 j, kiv_uint32 end) {
  const uint64_t *row = &_linkRows[a * _linkStride];
  for (kiv_uint32 w = j / 64; w < _linkStride && w * 64 < end; w++) {
    uint64_t bits = row[w];
    if (w == j / 64) bits &= ~uint64_t{0} << (j % 64);
    if (w == a / 64 && _nodes[a].selfCut) bits &= ~(uint64_t{1} << (a % 64));
    if (bits) {
      const kiv_uint32 b = w * 64 + (kiv_uint32)__builtin_ctzll(bits);
      return b < end ? b : end;
    }
  }
  return end;
}

static void _collectFrom(kiv_uint32 a, kiv_uint32 gen) {
  _visitStamp[a] = gen;
  const kiv_uint32 end = _nodeUsed + 1 < MAX_TOKENS ? _nodeUsed + 1 : MAX_TOKENS;
  // A walk visits every node: read counts handed out before start again from 0.
  if (_readCountsSet) {
    for (kiv_uint32 j = 0; j < end; j++) _nodes[j].readCount = 0;
    _readCountsSet = 0;
  }
  if (a > _nodeUsed) return;
  for (kiv_uint32 j = _nextLinked(a, 0, end); j < end; j = _nextLinked(a, j + 1, end)) {
    kiv_parseNode_t &cand = _nodes[j];
    if (!_isMatchable(cand)) {
      // A self-linked pass-through node continues with the node after it.
      if (j == a) j++;
      if (j < end && _visitStamp[j] != gen) _collectFrom(j, gen);
      continue;
    }
    if (j == a) {
      if (!(cand.repeat && cand.repeatCount < cand.max_repeat)) continue;
    } else if (_onPath(j)) {
      continue;
    }
    if (_listStamp[j] != gen && _candidate.count < MAX_TOKENS) {
      _listStamp[j] = gen;
      _candidate.index[_candidate.count++] = j;
    }
    if (cand.repeat && cand.repeatCount < cand.min_repeat) break;
  }
}

static void _collectCandidates(kiv_uint32 a) {
  _candidate.count = 0;
  if (a >= MAX_TOKENS) return;
  _collectFrom(a, _newWalk());
}

// ---------------------------------------------------------------------------------------
// Matching

static bool _acceptKeyword(kiv_uint32 index, char *token) {
  kiv_parseNode_t *thisNode = &_nodes[index];
  if (strcmp(static_cast<const char *>(thisNode->text), token) != 0) return false;
  if (thisNode->repeat && thisNode->repeatCount != 0) {
    // Later occurrence: record {0, pointer to the keyword text}.
    if (_tempBufferUsed + 4 + sizeof(void *) > MAX_CMD_TEMPBUFFER) return false;
    kiv_uint32 sizeWord = 0;
    memcpy(_tempBuffer + _tempBufferUsed, &sizeWord, 4);
    memcpy(_tempBuffer + _tempBufferUsed + 4, &thisNode->text, sizeof(void *));
    _tempBufferUsed += 4 + (kiv_uint32)sizeof(void *);
  }
  return true;
}

static bool _acceptParam(kiv_uint32 index, char *token) {
  kiv_parseNode_t *thisNode = &_nodes[index];
  const kiv_paramType_t *type = thisNode->paramType;
  if (!type || !type->checker) return false;
  kiv_int32 result;
  _redirectCommand = 0;
  if (!thisNode->repeat || thisNode->repeatCount == 0) {
    result = type->checker(&thisNode->text, token, type->maxSize, &_redirectCommand);
  } else {
    if (thisNode->max_repeat != 0 && type->values) {
      thisNode->max_repeat = (kiv_uint16)type->values(0, nullptr);
      KIV_ASSERT_IN(PARSER_FILE, thisNode->max_repeat>0);
    }
    // Later value: a record {size, data} appended after the reserved slots. A value that
    // would not fit the buffer refuses the token.
    kiv_uint32 room = roundUp4(type->maxSize);
    if (room < sizeof(void *)) room = sizeof(void *);
    if (_tempBufferUsed + 4 + room > MAX_CMD_TEMPBUFFER) return false;
    kiv_uint8 *record = _tempBuffer + _tempBufferUsed;
    kiv_uint32 sizeWord = 4;
    memcpy(record, &sizeWord, 4);
    _tempBufferUsed += 4;
    void *slot = record + 4;   // the data word holds its own address
    memcpy(record + 4, &slot, sizeof slot);
    result = type->checker(&slot, token, type->maxSize, &_redirectCommand);
    if (result > 0) {
      sizeWord = (kiv_uint32)result;
      memcpy(record, &sizeWord, 4);
      _tempBufferUsed += roundUp4((kiv_uint32)result);
    } else if (result == 0) {
      sizeWord = 0;
      memcpy(record, &sizeWord, 4);
      memcpy(record + 4, &slot, sizeof slot);
      _tempBufferUsed += (kiv_uint32)sizeof(void *);
    } else {
      _tempBufferUsed -= 4;
    }
  }
  KIV_ASSERT_IN(PARSER_FILE, IS4BYTEALIGNED(_tempBufferUsed));
  if (result < 0) return false;
  kiv_uint32 tokenSize = (kiv_uint32)result;
  KIV_ASSERT_IN(PARSER_FILE, tokenSize<= thisNode->paramType->maxSize);
  thisNode->len = (kiv_uint16)tokenSize;
  return true;
}

struct kiv_matchResult_t {
  kiv_int32 count;
  kiv_uint32 first;
  kiv_uint32 last;
  char *token;
};

// Walks argv through the graph of totalNodes nodes.
static kiv_matchResult_t _processUserCommand(kiv_uint32 totalNodes, kiv_int32 argc, char **argv) {
  const kiv_uint32 endNode = totalNodes - 1;
  kiv_uint32 lastNodeIndex = 0;
  kiv_uint32 firstAcceptedNodeIndex = 0;
  kiv_int32 accepted = 0;
  kiv_int32 i = 0;
  char *token = (argc > 0 && argv) ? argv[0] : nullptr;
  _candidate.count = 0;

  if (!token) {
    if (_endReachable(0, endNode)) return {0, 0, 0, nullptr};
    return {-1, 0, 0, nullptr};
  }

  while (i < argc && token) {
    _collectCandidates(lastNodeIndex);
    kiv_uint32 thisNodeIndex = 0;
    bool taken = false;
    for (kiv_uint32 c = 0; c < _candidate.count && !taken; c++) {
      kiv_uint32 index = _candidate.index[c];
      const kiv_parseNode_t *thisNode = &_nodes[index];
      if (thisNode->isKeyword) {
        taken = _acceptKeyword(index, token);
      } else if (thisNode->isParam) {
        taken = _acceptParam(index, token);
      } else if (_candidate.count == 1) {
        // Only the end can follow: the rest of the line is surplus and ignored.
        KIV_ASSERT_IN(PARSER_FILE, thisNode->endCommand);
        return {accepted, firstAcceptedNodeIndex, lastNodeIndex, token};
      }
      if (taken) thisNodeIndex = index;
    }
    if (!taken) return {-(accepted + 1), firstAcceptedNodeIndex, lastNodeIndex, token};

    char *following = (i + 1 < argc) ? argv[i + 1] : nullptr;
    if (_redirectCommand) return {accepted + 1, firstAcceptedNodeIndex, lastNodeIndex, following};

    if (lastNodeIndex == 0) firstAcceptedNodeIndex = thisNodeIndex;
    kiv_parseNode_t *thisNode = &_nodes[thisNodeIndex];
    if (!thisNode->repeat) {
      KIV_ASSERT_IN(PARSER_FILE, lastNodeIndex!=thisNodeIndex);
      _nodes[lastNodeIndex].nextIndex = (kiv_uint16)thisNodeIndex;
      thisNode->prevIndex = (kiv_uint16)lastNodeIndex;
    } else {
      if (thisNode->repeatCount == 0) {
        _nodes[lastNodeIndex].nextIndex = (kiv_uint16)thisNodeIndex;
        thisNode->prevIndex = (kiv_uint16)lastNodeIndex;
      }
      thisNode->repeatCount++;
      if (thisNode->repeatCount == thisNode->max_repeat) thisNode->selfCut = 1;
    }
    lastNodeIndex = thisNodeIndex;
    accepted++;
    i++;
    token = following;
  }

  if (!_endReachable(lastNodeIndex, endNode)) {
    _collectCandidates(lastNodeIndex);
    KIV_ASSERT_IN(PARSER_FILE, _candidate.count);
    return {-accepted, firstAcceptedNodeIndex, lastNodeIndex, nullptr};
  }
  KIV_ASSERT_IN(PARSER_FILE, firstAcceptedNodeIndex);
  return {accepted, firstAcceptedNodeIndex, lastNodeIndex, nullptr};
}

// ---------------------------------------------------------------------------------------
// Kept graphs: rows registered with ciscoCmdParserKeepRows are compiled on their first
// parse into the arenas below and loaded from there for every later parse. Rows not
// registered, and rows that no longer fit, are built for each parse.

namespace {
constexpr kiv_uint32 kKeptRanges = 32;
constexpr kiv_uint32 kKeptRows = 512;
constexpr kiv_uint32 kNodeArena = 8192;
constexpr kiv_uint32 kLinkArena = 16384;   // 64-bit words
constexpr kiv_uint32 kTextArena = 65536;
constexpr kiv_int16 kNotCompiled = -1;
constexpr kiv_int16 kNoRoom = -2;

struct kiv_keptRange_t {
  const kiv_cmd_t *rows;
  kiv_uint32 count;
  kiv_uint32 firstSlot;
};
}  // namespace

static kiv_keptRange_t _keptRanges[kKeptRanges];
static kiv_uint32 _keptRangeCount;
static kiv_uint32 _keptSlotsUsed;
static kiv_int16 _keptSlot[kKeptRows];        // graph index, kNotCompiled or kNoRoom
static kiv_graph_t _keptGraphs[kKeptRows];
static kiv_uint32 _keptGraphCount;
static kiv_parseNode_t _nodeArena[kNodeArena];
static uint64_t _linkArena[kLinkArena];
static char _textArena[kTextArena];
static kiv_uint32 _nodeArenaUsed, _linkArenaUsed, _textArenaUsed;

// The registration slot of a row, or null when the row is not kept.
static kiv_int16 *_keptSlotOf(const kiv_cmd_t *row) {
  const auto at = reinterpret_cast<kiv_memaddr>(row);
  for (kiv_uint32 r = 0; r < _keptRangeCount; r++) {
    const kiv_keptRange_t &k = _keptRanges[r];
    const auto base = reinterpret_cast<kiv_memaddr>(k.rows);
    if (at >= base && at < base + k.count * sizeof(kiv_cmd_t) && (at - base) % sizeof(kiv_cmd_t) == 0)
      return &_keptSlot[k.firstSlot + (at - base) / sizeof(kiv_cmd_t)];
  }
  return nullptr;
}

// Copies the graph just built (nodes in _nodes, links in _buildLinks) into the arenas;
// null when it does not fit. Texts that pointed into the usage copy point into the
// graph's own copy of it.
static const kiv_graph_t *_keepBuiltGraph(kiv_uint32 total) {
  const kiv_uint32 stride = (total + 63) / 64;
  const size_t usageLen = strlen(_thisCommand->cmdUsage) + 1;
  if (_keptGraphCount >= kKeptRows || total > kNodeArena - _nodeArenaUsed ||
      total * stride > kLinkArena - _linkArenaUsed || usageLen > kTextArena - _textArenaUsed)
    return nullptr;
  char *text = &_textArena[_textArenaUsed];
  memcpy(text, _usageCopy, usageLen);
  const auto relocate = [&](auto p) {
    const char *c = static_cast<const char *>(p);
    return (c >= _usageCopy && c < _usageCopy + usageLen) ? text + (c - _usageCopy) : c;
  };
  kiv_parseNode_t *nodes = &_nodeArena[_nodeArenaUsed];
  for (kiv_uint32 i = 0; i < total; i++) {
    nodes[i] = _nodes[i];
    if (!nodes[i].isParam && nodes[i].text) nodes[i].text = const_cast<char *>(relocate(nodes[i].text));
    if (nodes[i].help) nodes[i].help = relocate(nodes[i].help);
  }
  uint64_t *links = &_linkArena[_linkArenaUsed];
  for (kiv_uint32 a = 0; a < total; a++) memcpy(&links[a * stride], &_buildLinks[a * kBuildStride], stride * 8);
  _textArenaUsed += (kiv_uint32)usageLen;
  _nodeArenaUsed += total;
  _linkArenaUsed += total * stride;
  _keptGraphs[_keptGraphCount] = {nodes, links, total, stride, _tempBufferUsed};
  return &_keptGraphs[_keptGraphCount++];
}

// The graph just built in _nodes and _buildLinks; a kept row's graph is copied to the
// arenas on the way (its slot says where, or that it did not fit).
static kiv_graph_t _builtGraph(kiv_uint32 totalNodes, kiv_int16 *slot) {
  if (slot) {
    const kiv_graph_t *kept = _keepBuiltGraph(totalNodes);
    *slot = kept ? (kiv_int16)(kept - _keptGraphs) : kNoRoom;
  }
  return {_nodes, _buildLinks, totalNodes, kBuildStride, _tempBufferUsed};
}

// Makes g the graph to walk: fresh node records (no path, no values) and its links.
static void _loadGraph(const kiv_graph_t &g) {
  if (g.nodes != _nodes) memcpy(_nodes, g.nodes, g.total * sizeof(kiv_parseNode_t));
  _nodeUsed = g.total - 1;
  _linkRows = g.links;
  _linkStride = g.stride;
  _readCountsSet = 0;
  _tempBufferUsed = g.slotBytes;
  _nonRepeatingTempBufferStart = g.slotBytes;
}

void ciscoCmdParserKeepRows(const kiv_cmd_t *rows, kiv_uint32 count) {
  if (!rows || count == 0 || _keptRangeCount >= kKeptRanges || count > kKeptRows - _keptSlotsUsed) return;
  for (kiv_uint32 r = 0; r < _keptRangeCount; r++)
    if (_keptRanges[r].rows == rows) return;
  _keptRanges[_keptRangeCount++] = {rows, count, _keptSlotsUsed};
  for (kiv_uint32 i = 0; i < count; i++) _keptSlot[_keptSlotsUsed + i] = kNotCompiled;
  _keptSlotsUsed += count;
}

void ciscoCmdParserForgetGraphs(void) {
  for (kiv_uint32 i = 0; i < _keptSlotsUsed; i++) _keptSlot[i] = kNotCompiled;
  _keptGraphCount = _nodeArenaUsed = _linkArenaUsed = _textArenaUsed = 0;
  // The graph being walked may live in the arenas: walk an empty one until the next parse.
  _linkRows = _buildLinks;
  _linkStride = kBuildStride;
  _nodeUsed = 0;
}

void ciscoCmdParserDropKeptRows(void) {
  ciscoCmdParserForgetGraphs();
  _keptRangeCount = _keptSlotsUsed = 0;
}

kiv_uint32 ciscoCmdParserKeptGraphs(void) { return _keptGraphCount; }

// ---------------------------------------------------------------------------------------
// Public interface

kiv_int32 ciscoCmdParser(kiv_int32 argc, char **argv, const kiv_cmd_t **thisCmd, void **savedData, char **token) {
  KIV_ASSERT_IN(PARSER_FILE, thisCmd && *thisCmd && savedData);

  _thisCommand = *thisCmd;
  _redirectCommand = 0;
  kiv_int16 *slot = _keptSlotOf(_thisCommand);
  if (slot && *slot >= 0) {
    _loadGraph(_keptGraphs[*slot]);
  } else {
    // Built from the usage string: on a kept row's first parse, or for every parse of a
    // row that is not kept.
    _clearBuild();
    _tempBufferUsed = 0;
    _nonRepeatingTempBufferStart = 0;
    _nodeUsed = _splitCmdFormatTokens();
    KIV_ASSERT_IN(PARSER_FILE, _nodeUsed>0);
    kiv_uint32 totalNodes = _createCommandGraph();
    KIV_ASSERT_IN(PARSER_FILE, totalNodes >0 && totalNodes <MAX_TOKENS);
    KIV_ASSERT_IN(PARSER_FILE, IS4BYTEALIGNED(_tempBufferUsed));
    _loadGraph(_builtGraph(totalNodes, slot && *slot == kNotCompiled ? slot : nullptr));
  }

  kiv_matchResult_t r = _processUserCommand(_nodeUsed + 1, argc, argv);
  if (token) *token = r.token;
  if (r.count > 0) {
    *savedData = r.first ? &_nodes[r.first] : nullptr;
    if (_redirectCommand) *thisCmd = reinterpret_cast<const kiv_cmd_t *>(_redirectCommand);
  } else if (r.count == 0) {
    *savedData = nullptr;
  } else {
    _collectCandidates(r.last);
    *savedData = &_candidate;
  }
  return r.count;
}

static kiv_parseNode_t *_pathNode(const void *savedPath) {
  if (!savedPath) return nullptr;
  auto addr = reinterpret_cast<kiv_memaddr>(savedPath);
  auto base = reinterpret_cast<kiv_memaddr>(&_nodes[0]);
  if (addr < base || addr >= base + sizeof _nodes || (addr - base) % sizeof(kiv_parseNode_t) != 0) return nullptr;
  return &_nodes[(addr - base) / sizeof(kiv_parseNode_t)];
}

kiv_uint32 ciscoCmdParserPathNodeIndex(const void *savedPath) {
  kiv_parseNode_t *n = _pathNode(savedPath);
  return n ? (kiv_uint32)(n - _nodes) : 0;
}

kiv_int32 ciscoCmdGetNextToken(void **nextToken, kiv_uint32 *size, void **savedData) {
  KIV_ASSERT_IN(PARSER_FILE, nextToken && size);
  KIV_ASSERT_IN(PARSER_FILE, savedData!=NULL);
  if (*savedData == nullptr) return -1;
  kiv_parseNode_t *n = _pathNode(*savedData);
  if (!n) {
    *savedData = nullptr;
    return -1;
  }

  if (!n->repeat) {
    *size = n->isKeyword ? 0 : n->len;
    *nextToken = n->text;
  } else if (n->readCount == 0 || n->readCount >= n->repeatCount ||
             _nonRepeatingTempBufferStart + 4 > _tempBufferUsed) {
    KIV_ASSERT_IN(PARSER_FILE, IS4BYTEALIGNED((kiv_memaddr)nextToken));
    *size = n->len;
    *nextToken = n->text;
  } else {
    KIV_ASSERT_IN(PARSER_FILE, IS4BYTEALIGNED((kiv_memaddr)_tempBuffer+_nonRepeatingTempBufferStart));
    kiv_uint8 *record = _tempBuffer + _nonRepeatingTempBufferStart;
    kiv_uint32 sizeWord;
    memcpy(&sizeWord, record, 4);
    if (sizeWord == 0) {
      void *pointer;
      memcpy(&pointer, record + 4, sizeof pointer);
      *nextToken = pointer;
      _nonRepeatingTempBufferStart += 4 + (kiv_uint32)sizeof(void *);
    } else {
      *nextToken = record + 4;
      _nonRepeatingTempBufferStart += 4 + roundUp4(sizeWord);
    }
    *size = sizeWord;
  }

  if (n->repeat) {
    if (n->readCount++ == 0) _readCountsSet++;
    if (n->readCount < n->repeatCount) return 0;
  }
  *savedData = n->nextIndex ? &_nodes[n->nextIndex] : nullptr;
  return 0;
}

void ciscoCmdParserGetCandidate(kiv_uint32 lastTokenNode, void *) { _collectCandidates(lastTokenNode); }

void ciscoCmdParserGetRootCandidate(void) { _collectCandidates(0); }

kiv_uint32 ciscoCmdParserListCandidates(kiv_candEntry_t *entries, kiv_uint32 capacity) {
  kiv_uint32 filled = 0;
  if (!entries) return 0;
  for (kiv_uint32 c = 0; c < _candidate.count && filled < capacity; c++) {
    kiv_parseNode_t &node = _nodes[_candidate.index[c]];
    const char *help = node.help ? node.help : "";
    if (node.isKeyword || node.endCommand) {
      entries[filled++] = {static_cast<const char *>(node.text), help};
    } else if (node.isParam && node.paramType) {
      const kiv_paramType_t *type = node.paramType;
      if (!type->values) {
        entries[filled++] = {type->name, help};
        continue;
      }
      kiv_int32 r = type->values(capacity - filled, &entries[filled]);
      if (r < 1) continue;
      kiv_uint32 added = (kiv_uint32)r;
      if (added > capacity - filled) added = capacity - filled;
      if (node.repeat) {
        node.max_repeat = (kiv_uint16)r;
        if (node.repeatCount >= node.max_repeat) added = 1;
      }
      filled += added;
    }
  }
  return filled;
}

kiv_int32 ciscoCmdParserShowHelp(kiv_candEntry_t *list, kiv_uint32 totalEntries) {
  KIV_ASSERT_IN(PARSER_FILE, list && totalEntries>0);
  if ((_outputMode & 3u) == 0) {
    if (_replyHooks) {
      if (_replyHooks->start) _replyHooks->start();
      for (kiv_uint32 i = 0; i < totalEntries; i++)
        if (list[i].text && _replyHooks->addString) _replyHooks->addString(list[i].text);
      if (_replyHooks->finish) _replyHooks->finish();
    }
    return 0;
  }
  for (kiv_uint32 i = 0; i < totalEntries; i++)
    if (list[i].text) printf("%-25s %s\n", list[i].text, list[i].help ? list[i].help : "");
  printf("\n");
  return 0;
}

kiv_int32 ciscoCmdParserFlushTmpBuffer(void) {
  if (_tempBufferUsed != 0) {
    KIV_ASSERT_IN(PARSER_FILE, IS4BYTEALIGNED(_tempBufferUsed));
    _tempBufferUsed = 0;
    _nonRepeatingTempBufferStart = 0;
  }
  return 0;
}

// Walks the usage like the splitter does (tabs inside tokens become spaces) and counts
// its tokens; prints only the title. Text output mode only.
void ciscoCmdPrintSynopsis(const char *title, const char *cmdUsage) {
  KIV_ASSERT_IN(PARSER_FILE, cmdUsage!=NULL);
  if ((_outputMode & 3u) == 0) return;
  strncpy(_synopsisCopy, cmdUsage, MAX_CMD_TEMPBUFFER - 1);
  _synopsisCopy[MAX_CMD_TEMPBUFFER - 1] = '\0';
  if (title) printf("%s\n", title);
  kiv_uint32 count = 0;
  char *quoteSave = nullptr;
  bool helpPiece = false;
  for (char *piece = cutAt(_synopsisCopy, '\'', &quoteSave); piece;
       piece = cutAt(nullptr, '\'', &quoteSave), helpPiece = !helpPiece) {
    if (helpPiece) continue;
    char *spaceSave = nullptr;
    for (char *tok = cutAt(piece, ' ', &spaceSave); tok; tok = cutAt(nullptr, ' ', &spaceSave)) {
      for (char *c = tok; *c; c++)
        if (*c == '\t') *c = ' ';
      count++;
    }
  }
  (void)count;
}

kiv_int32 ciscoCmdRunString(char *line, const kiv_cmd_t *command, const char *delimiters) {
  if (!line || !*line) return 0;
  if (!delimiters) delimiters = " \t";
  char *argv[kRunStringMaxTokens];
  kiv_int32 argc = 0;
  for (char *tok = strtok(line, delimiters); tok && argc < kRunStringMaxTokens; tok = strtok(nullptr, delimiters))
    argv[argc++] = tok;
  const kiv_cmd_t *cmd = command;
  void *saved = nullptr;
  char *token = nullptr;
  kiv_int32 result = ciscoCmdParser(argc, argv, &cmd, &saved, &token);
  if (result > 0 && cmd && cmd->cmdHandler) cmd->cmdHandler(0, result, &saved);
  ciscoCmdParserReset();
  return result;
}

void ciscoCmdParserReset(void) {
  _nonRepeatingTempBufferStart = 0;
  _tempBufferUsed = 0;
  _nodeUsed = 0;
  _candidate.count = 0;
  _redirectCommand = 0;
}

void ciscoCmdParserSetOutputMode(kiv_uint32 mode) { _outputMode = mode; }

void ciscoCmdParserSetReplyHooks(const kiv_replyHooks_t *hooks) { _replyHooks = hooks; }


const kiv_parseNode_t *ciscoCmdParserNode(kiv_uint32 index) { return index < MAX_TOKENS ? &_nodes[index] : nullptr; }

int ciscoCmdParserLinked(kiv_uint32 from, kiv_uint32 to) {
  return (from < MAX_TOKENS && to <= MAX_TOKENS && _linked(from, to)) ? 1 : 0;
}

kiv_uint32 ciscoCmdParserNodeUsed(void) { return _nodeUsed; }
kiv_uint32 ciscoCmdParserTempBufferUsed(void) { return _tempBufferUsed; }
kiv_uint32 ciscoCmdParserValueStart(void) { return _nonRepeatingTempBufferStart; }
const kiv_candidateList_t *ciscoCmdParserCandidates(void) { return &_candidate; }
