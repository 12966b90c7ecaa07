// Usage grammar parser: splits a command's usage string into grammar tokens, builds the
// command graph from them, walks typed tokens through the graph, collects the candidates
// that may follow, and hands the converted values to the command's handler.
//
// All state is one static instance: one command is parsed at a time. The graph is rebuilt
// from the usage string on every parse.

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

static const kiv_cmd_t *_thisCommand;
static char _usageCopy[MAX_CMD_TEMPBUFFER];
static kiv_grammarToken_t _tokens[MAX_TOKENS];
static kiv_uint32 _tokensFilled;   // entries of _tokens written since they were last cleared
static kiv_parseNode_t _nodes[MAX_TOKENS];
static kiv_uint32 _nodeUsed;
static kiv_uint8 _links[MAX_TOKENS][MAX_TOKENS + 1];
alignas(8) static kiv_uint8 _tempBuffer[MAX_CMD_TEMPBUFFER];
static kiv_uint32 _tempBufferUsed;
static kiv_uint32 _nonRepeatingTempBufferStart;
static kiv_indexStack_t _groupStack, _pendingStack, _optionStack, _optionLevelStack;
static kiv_candidateList_t _candidate;
static kiv_memaddr _redirectCommand;

static kiv_uint32 _outputMode = 1;
static const kiv_replyHooks_t *_replyHooks;
static char _synopsisCopy[MAX_CMD_TEMPBUFFER];

// Clearing cost follows use: node records, link rows and link columns at or above
// _dirtyNodes are known to be zero, so clearing only has to cover [0, _dirtyNodes).
// Every write of a record or a link raises the mark first.
static kiv_uint32 _dirtyNodes = MAX_TOKENS;   // unknown at start: the first clear is full
static kiv_uint16 _rowEnd[MAX_TOKENS];         // per row: columns at or above are zero
static bool _fullClear;
// Nodes whose readCount is not 0; while there are none, resetting read counts is a no-op.
static kiv_uint32 _readCountsSet;

// Walk marks: a node is visited/listed in the current walk when its stamp equals the
// walk's generation. Keeps candidate collection and end reachability finite on cyclic
// grammars ("[ ] [ ]", self-linked pass-through nodes) without changing their results.
static kiv_uint32 _visitStamp[MAX_TOKENS];
static kiv_uint32 _listStamp[MAX_TOKENS];
static kiv_uint32 _walkGen;

static bool _validIndex(kiv_int32 index) { return index >= 0 && index < (kiv_int32)MAX_TOKENS; }

static void _touch(kiv_uint32 index) {
  if (index + 1 > _dirtyNodes) _dirtyNodes = index + 1;
}

static void _setLink(kiv_uint32 from, kiv_uint32 to) {
  _touch(from > to ? from : to);
  if (to + 1 > _rowEnd[from]) _rowEnd[from] = (kiv_uint16)(to + 1);
  _links[from][to] = 1;
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

// ---------------------------------------------------------------------------------------
// Clearing

static void _clearAllNodes() {
  kiv_uint32 count = _fullClear ? MAX_TOKENS : _dirtyNodes;
  memset(_nodes, 0, count * sizeof(kiv_parseNode_t));
  _readCountsSet = 0;
}

static void _clearAllLinks() {
  if (_fullClear) {
    memset(_links, 0, sizeof _links);
    memset(_rowEnd, 0, sizeof _rowEnd);
  } else {
    for (kiv_uint32 row = 0; row < _dirtyNodes; row++) {
      memset(_links[row], 0, _rowEnd[row]);
      _rowEnd[row] = 0;
    }
  }
  // Records were cleared just before the split; with the links gone nothing is dirty.
  _dirtyNodes = 0;
}

// Zero node i's record, its column and its row.
static void _clearNode(kiv_uint32 i) {
  memset(&_nodes[i], 0, sizeof(kiv_parseNode_t));
  if (_fullClear) {
    for (kiv_uint32 row = 0; row < MAX_TOKENS; row++) _links[row][i] = 0;
    memset(_links[i], 0, MAX_TOKENS + 1);
    _rowEnd[i] = 0;
  } else if (i < _dirtyNodes) {
    // At or above the mark, row i and column i are zero already: nothing a link write
    // touched lies there.
    for (kiv_uint32 row = 0; row < _dirtyNodes; row++) _links[row][i] = 0;
    memset(_links[i], 0, _dirtyNodes);
    _rowEnd[i] = 0;
  }
  _touch(i);
}

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
    if (a >= MAX_TOKENS || _visitStamp[a] == gen) return false;
    _visitStamp[a] = gen;
    kiv_int32 b = -1;
    kiv_int32 top = (kiv_int32)_rowEnd[a] - 1;   // nothing is linked above
    if (top > (kiv_int32)_nodeUsed) top = (kiv_int32)_nodeUsed;
    for (kiv_int32 j = top; j >= 0; j--) {
      if (_links[a][j]) {
        b = j;
        break;
      }
    }
    if (b < 0) return false;
    if ((kiv_uint32)b == endNode) return true;
    if (_nodes[b].isKeyword || _nodes[b].isParam) return false;
    a = (kiv_uint32)b;
  }
}

// First column at or after j (below end) whose link byte in row is set; end when none.
static kiv_uint32 _nextLinked(const kiv_uint8 *row, kiv_uint32 j, kiv_uint32 end) {
  while (j + 8 <= end) {
    uint64_t word;
    memcpy(&word, row + j, 8);
    if (word) break;
    j += 8;
  }
  while (j < end && !row[j]) j++;
  return j;
}

static void _collectFrom(kiv_uint32 a, kiv_uint32 gen) {
  _visitStamp[a] = gen;
  const kiv_uint32 end = _nodeUsed + 1 < MAX_TOKENS ? _nodeUsed + 1 : MAX_TOKENS;
  for (kiv_uint32 j = 0; j < end; j++) {
    // With no read count to reset, unlinked columns need no visit.
    if (_readCountsSet == 0 && (j = _nextLinked(_links[a], j, end)) >= end) break;
    kiv_parseNode_t &cand = _nodes[j];
    if (_readCountsSet && cand.readCount) {
      cand.readCount = 0;
      _readCountsSet--;
    }
    if (!_links[a][j]) continue;
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
      if (thisNode->repeatCount == thisNode->max_repeat) _links[thisNodeIndex][thisNodeIndex] = 0;
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
// Public interface

kiv_int32 ciscoCmdParser(kiv_int32 argc, char **argv, const kiv_cmd_t **thisCmd, void **savedData, char **token) {
  KIV_ASSERT_IN(PARSER_FILE, thisCmd && *thisCmd && savedData);

  _clearAllNodes();
  _thisCommand = *thisCmd;
  // A parse rebuilds every node, so value slots of an earlier parse are dead.
  _tempBufferUsed = 0;
  _nonRepeatingTempBufferStart = 0;
  _redirectCommand = 0;
  _nodeUsed = _splitCmdFormatTokens();
  KIV_ASSERT_IN(PARSER_FILE, _nodeUsed>0);
  _clearAllLinks();
  kiv_uint32 totalNodes = _createCommandGraph();
  KIV_ASSERT_IN(PARSER_FILE, totalNodes >0 && totalNodes <MAX_TOKENS);
  KIV_ASSERT_IN(PARSER_FILE, IS4BYTEALIGNED(_tempBufferUsed));
  _nonRepeatingTempBufferStart = _tempBufferUsed;

  kiv_matchResult_t r = _processUserCommand(totalNodes, argc, argv);
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

void ciscoCmdParserSetFullClear(bool full) { _fullClear = full; }

const kiv_parseNode_t *ciscoCmdParserNode(kiv_uint32 index) { return index < MAX_TOKENS ? &_nodes[index] : nullptr; }

int ciscoCmdParserLinked(kiv_uint32 from, kiv_uint32 to) {
  return (from < MAX_TOKENS && to <= MAX_TOKENS) ? _links[from][to] : 0;
}

kiv_uint32 ciscoCmdParserNodeUsed(void) { return _nodeUsed; }
kiv_uint32 ciscoCmdParserTempBufferUsed(void) { return _tempBufferUsed; }
kiv_uint32 ciscoCmdParserValueStart(void) { return _nonRepeatingTempBufferStart; }
const kiv_candidateList_t *ciscoCmdParserCandidates(void) { return &_candidate; }
