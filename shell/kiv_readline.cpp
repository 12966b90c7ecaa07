// Console line editor: reads one line from a terminal in non-canonical mode, echoes and
// edits it with ANSI escape sequences, keeps a 15-line history and follows the terminal
// width. The line comes back with its terminator: newline after Enter, "\t\n" after a
// completion request, "?\n" after a help request.
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "shell/kivshell.h"

// The prompt the editor draws before each line; the main loop writes it (kiv_buildPrompt).
char kiv_prompt[KIV_PROMPT_SIZE];
int kiv_promptLen;

namespace {

constexpr int kMaxChars = KIV_LINE_SIZE - 2;  // room for the newline and the NUL
constexpr int kHistoryLines = 15;
constexpr int kScratchSlot = 15;              // used while browsing back from a full history
constexpr int kDefaultWidth = 80;
constexpr char kBell = 7;
constexpr char kBackspace = 8;

constexpr unsigned kFlagCleanupRegistered = 1u << 0;
constexpr unsigned kFlagResizeInstalled = 1u << 1;
constexpr unsigned kFlagRawMode = 1u << 2;

constexpr tcflag_t kRawClearedLocalFlags = ISIG | ICANON | ECHO | ECHONL;

struct HistorySlot {
  bool used = false;
  std::array<char, KIV_LINE_SIZE> text{};
};

struct Editor {
  char *line = nullptr;
  int len = 0;
  int cursor = 0;
  int col = 0;   // screen column of the cursor, prompt included
  int row = 0;   // rows below the prompt's first row
  int width = kDefaultWidth;
  termios saved{};
  termios raw{};
  unsigned flags = 0;
  struct sigaction prevResize {};
  sigset_t prevMask{};   // signal mask outside a read
  sigset_t waitMask{};   // the same without the resize signal: used while waiting for a key
  std::array<HistorySlot, kHistoryLines + 1> history{};
  int historyCount = 0;
  int historyIndex = 0;
};

Editor ed;

// A descriptor watched beside the keyboard while waiting for a key (kiv_readLineWatch).
struct Watch {
  int fd = -1;
  int (*check)(void) = nullptr;
  void (*report)(int) = nullptr;
};
Watch g_watch;

volatile sig_atomic_t g_resizePending = 0;
volatile sig_atomic_t g_rawActive = 0;   // raw mode, as the ending-signal handler sees it

// Signals that end the process by default and may come while the terminal is raw.
constexpr std::array<int, 3> kEndingSignals = {SIGTERM, SIGHUP, SIGQUIT};

void bell() { putchar(kBell); }

int promptLength() { return std::clamp(kiv_promptLen, 0, KIV_PROMPT_SIZE - 1); }

// The character after the cursor, passed to the echo so that a row wrap shows it.
char nextChar() { return ed.cursor + 1 < ed.len ? ed.line[ed.cursor + 1] : '\0'; }

// Writes the character under the cursor (a blank past the end) and advances. At the
// right edge the terminal is moved onto the next row by writing `wrapChar` (a newline
// when none) and a backspace.
void echoChar(char wrapChar) {
  const char c = ed.cursor < ed.len ? ed.line[ed.cursor] : '\0';
  putchar(c != '\0' ? c : ' ');
  if (++ed.col >= ed.width) {
    ++ed.row;
    ed.col = 0;
    putchar(wrapChar != '\0' ? wrapChar : '\n');
    putchar(kBackspace);
  }
  ++ed.cursor;
}

void echoToEnd() {
  while (ed.cursor < ed.len) echoChar(nextChar());
}

void moveLeft(int n) {
  n = std::min(n, ed.cursor);
  if (n <= 0) return;
  ed.cursor -= n;
  if (n > ed.col) {
    if (ed.col != 0) {
      putchar('\r');
      n -= ed.col;
    }
    // Rows to go up; an exact multiple of the width lands on column 0.
    const int k = (n + ed.width - 1) / ed.width;
    printf("\x1b[%dA", k);
    ed.row -= k;
    ed.col = ed.width * k - n;
    if (ed.col > 0) printf("\x1b[%dC", ed.col);
  } else {
    ed.col -= n;
    if (n < 4) {
      while (n-- > 0) putchar(kBackspace);
    } else {
      printf("\x1b[%dD", n);
    }
  }
}

void printPrompt() {
  kiv_prompt[KIV_PROMPT_SIZE - 1] = '\0';
  fputs(kiv_prompt, stdout);
  ed.cursor = 0;
  ed.row = 0;
  ed.col = promptLength();
  // A prompt wider than the terminal already wrapped.
  if (ed.col >= ed.width) {
    ed.row = ed.col / ed.width;
    ed.col %= ed.width;
  }
}

// Goes up `rowsUp` rows, redraws prompt and line, erases what is below and leaves the
// cursor `fromEnd` characters before the end.
void redraw(int rowsUp, int fromEnd) {
  if (rowsUp > 0) printf("\x1b[%dA", rowsUp);
  putchar('\r');
  printPrompt();
  echoToEnd();
  fputs("\x1b[J", stdout);
  moveLeft(fromEnd);
}

void insertChar(char c) {
  if (ed.len >= kMaxChars) return;
  if (ed.cursor == ed.len) {
    ed.line[ed.len++] = c;
    ed.line[ed.len] = '\0';
    echoChar('\0');
    return;
  }
  std::memmove(ed.line + ed.cursor + 1, ed.line + ed.cursor, static_cast<size_t>(ed.len - ed.cursor));
  ed.line[ed.cursor] = c;
  ed.line[++ed.len] = '\0';
  const int back = ed.len - ed.cursor - 1;
  echoToEnd();
  moveLeft(back);
}

void deleteAtCursor() {
  if (ed.cursor >= ed.len) return;
  std::memmove(ed.line + ed.cursor, ed.line + ed.cursor + 1, static_cast<size_t>(ed.len - ed.cursor - 1));
  ed.line[--ed.len] = '\0';
  const int at = ed.cursor;
  echoToEnd();
  echoChar('\0');  // blank over the old last character
  moveLeft(ed.cursor - at);
}

// ---- history ----------------------------------------------------------------------------

void storeIntoSlot(HistorySlot &slot, int len) {
  std::memcpy(slot.text.data(), ed.line, static_cast<size_t>(len));
  slot.text[static_cast<size_t>(len)] = '\0';
  slot.used = true;
}

// Keeps the line being edited in the current slot while browsing.
void keepEditedLine() {
  HistorySlot &slot = ed.history[static_cast<size_t>(ed.historyIndex)];
  if (ed.len > 0 || !slot.used) storeIntoSlot(slot, ed.len);
}

void recallCurrentSlot() {
  const HistorySlot &slot = ed.history[static_cast<size_t>(ed.historyIndex)];
  ed.len = slot.used ? static_cast<int>(strnlen(slot.text.data(), kMaxChars)) : 0;
  std::memcpy(ed.line, slot.text.data(), static_cast<size_t>(ed.len));
  ed.line[ed.len] = '\0';
  redraw(ed.row, 0);
}

void historyBack() {
  if (ed.historyIndex < 1) {
    bell();
    return;
  }
  keepEditedLine();
  --ed.historyIndex;
  recallCurrentSlot();
}

void historyForward() {
  if (ed.historyIndex >= ed.historyCount) {
    bell();
    return;
  }
  keepEditedLine();
  ++ed.historyIndex;
  recallCurrentSlot();
}

void addToHistory(bool dropLast) {
  if (ed.historyCount == kHistoryLines) {
    std::move(ed.history.begin() + 1, ed.history.begin() + kHistoryLines, ed.history.begin());
    --ed.historyCount;
  }
  storeIntoSlot(ed.history[static_cast<size_t>(ed.historyCount)], dropLast ? ed.len - 1 : ed.len);
  ++ed.historyCount;
  ed.historyIndex = ed.historyCount;
}

// ---- terminal and resize ------------------------------------------------------------------

void onResizeSignal(int) { g_resizePending = 1; }

// Takes the width the terminal reports; for a resize while editing, redraws the line.
void followWidth(bool redrawLine) {
  winsize ws{};
  if (ioctl(0, TIOCGWINSZ, &ws) != 0 || ws.ws_col == 0) return;
  ed.width = ws.ws_col;
  if (redrawLine) {
    const int rowsUp = std::max(ed.row, (promptLength() + ed.cursor) / ed.width);
    redraw(rowsUp, ed.len - ed.cursor);
    fflush(stdout);
  }
}

void installResizeHandler() {
  struct sigaction sa {};
  sa.sa_handler = onResizeSignal;
  sigemptyset(&sa.sa_mask);
  sa.sa_flags = 0;  // a resize ends the wait for a key, so the line is redrawn at once
  g_resizePending = 0;
  sigaction(SIGWINCH, &sa, &ed.prevResize);
  // The resize signal is held back except while waiting for a key, so it cannot slip in
  // between the check for a pending resize and the wait (and be missed until a key comes).
  sigset_t resize;
  sigemptyset(&resize);
  sigaddset(&resize, SIGWINCH);
  sigprocmask(SIG_BLOCK, &resize, &ed.prevMask);
  ed.waitMask = ed.prevMask;
  sigdelset(&ed.waitMask, SIGWINCH);
  ed.flags |= kFlagResizeInstalled;
  followWidth(false);
}

// The process ends on one of kEndingSignals: a raw terminal gets its settings back first
// (at once: output held by the terminal must not keep the process alive), then the signal
// takes its default course, which the handler's one-shot installation has restored.
void onEndingSignal(int sig) {
  if (g_rawActive) tcsetattr(0, TCSANOW, &ed.saved);
  raise(sig);
}

// Installed once, for the signals whose default action is in force (an ignored one, as under
// nohup, stays ignored).
void installEndingHandlers() {
  struct sigaction sa {};
  sa.sa_handler = onEndingSignal;
  sigemptyset(&sa.sa_mask);
  sa.sa_flags = SA_RESETHAND | SA_NODEFER;
  for (int sig : kEndingSignals) {
    struct sigaction prev {};
    if (sigaction(sig, nullptr, &prev) == 0 && prev.sa_handler == SIG_DFL) sigaction(sig, &sa, nullptr);
  }
}

void restoreTerminal() {
  if (ed.flags & kFlagRawMode) {
    g_rawActive = 0;
    tcsetattr(0, TCSAFLUSH, &ed.saved);
    ed.flags &= ~kFlagRawMode;
  }
  if (ed.flags & kFlagResizeInstalled) {
    sigaction(SIGWINCH, &ed.prevResize, nullptr);
    sigprocmask(SIG_SETMASK, &ed.prevMask, nullptr);
    ed.flags &= ~kFlagResizeInstalled;
  }
  fflush(stdout);
}

void cleanupAtExit() { restoreTerminal(); }

// The watched descriptor is readable: when its check has something to report, the report
// gets lines of its own below the line being typed, then prompt and line are drawn again
// with the cursor where it was.
void serveWatch() {
  const int code = g_watch.check();
  if (code < 0) return;
  const int fromEnd = ed.len - ed.cursor;
  echoToEnd();
  putchar('\n');
  g_watch.report(code);
  redraw(0, fromEnd);
  fflush(stdout);
}

// One key byte (0..255), or -1 at end of input or on a read error.
int readKey() {
  fflush(stdout);
  for (;;) {
    if (g_resizePending) {
      g_resizePending = 0;
      followWidth(true);
    }
    fd_set in;
    FD_ZERO(&in);
    FD_SET(0, &in);
    const bool watching = g_watch.fd >= 0 && g_watch.fd < FD_SETSIZE;
    if (watching) FD_SET(g_watch.fd, &in);
    const int ready = pselect(watching ? std::max(g_watch.fd, 0) + 1 : 1, &in, nullptr, nullptr, nullptr, &ed.waitMask);
    if (ready < 0 && errno == EINTR) continue;
    if (ready > 0 && watching && FD_ISSET(g_watch.fd, &in)) {
      serveWatch();
      if (!FD_ISSET(0, &in)) continue;
    }
    unsigned char c = 0;
    const ssize_t r = read(0, &c, 1);
    if (r == 1) return c;
    if (r < 0 && errno == EINTR) continue;
    return -1;
  }
}

// Escape sequences. Returns -1 when input ends inside one.
int handleEscape() {
  int c = readKey();
  if (c < 0) return -1;
  if (c == '[' || c == 'O') {
    c = readKey();
    if (c < 0) return -1;
  }
  switch (c) {
    case '1':
    case 'H':
      moveLeft(ed.cursor);
      break;
    case '3':
      deleteAtCursor();
      break;
    case '4':
    case 'F':
      echoToEnd();
      break;
    case 'A':
      historyBack();
      break;
    case 'B':
      historyForward();
      break;
    case 'C':
      if (ed.cursor < ed.len) echoChar(nextChar());
      break;
    case 'D':
      moveLeft(1);
      break;
    default:
      bell();
      break;
  }
  // Sequences such as ESC [ 3 ~ and ESC [ 5 ~ are consumed whole.
  if (c >= '1' && c <= '9') {
    int d;
    do {
      d = readKey();
      if (d < 0) return -1;
    } while (d != '~');
  }
  return 0;
}

// Stores the Tab or '?' that ends a completion or help request at the cursor.
void storeRequestChar(char c) {
  if (ed.cursor == ed.len) {
    ed.line[ed.len++] = c;
    ed.line[ed.len] = '\0';
  } else {
    insertChar(c);
  }
}

int finishRead(int key) {
  restoreTerminal();
  ed.history[kScratchSlot].used = false;
  if (ed.len > 0 && key != '\t') addToHistory(key == '?');
  ed.line[ed.len++] = '\n';
  ed.line[ed.len] = '\0';
  return ed.len;
}

}  // namespace

void kiv_readLineWatch(int fd, int (*check)(void), void (*report)(int)) {
  g_watch = fd >= 0 && check && report ? Watch{fd, check, report} : Watch{};
}

int kiv_readLine(char *line, signed char lastTerminator) {
  ed.line = line;
  ed.len = 0;
  ed.cursor = 0;
  ed.row = 0;

  if (tcgetattr(0, &ed.saved) == 0) {
    ed.raw = ed.saved;
    ed.raw.c_lflag &= ~kRawClearedLocalFlags;
    if (!(ed.flags & kFlagCleanupRegistered)) installEndingHandlers();
    std::atomic_signal_fence(std::memory_order_seq_cst);   // the saved settings before the flag
    g_rawActive = 1;
    tcsetattr(0, TCSAFLUSH, &ed.raw);
    ed.flags |= kFlagRawMode;
  }
  if (!(ed.flags & kFlagResizeInstalled)) installResizeHandler();
  if (!(ed.flags & kFlagCleanupRegistered)) {
    atexit(cleanupAtExit);
    ed.flags |= kFlagCleanupRegistered;
  }

  printPrompt();
  if (lastTerminator == '\t' || lastTerminator == '?') {
    // Continue after the text left by the help or completion request. A Tab in it is the
    // request's own (a completion that did not complete hands the line back as typed); it
    // is dropped so that the line holds what the screen shows.
    ed.len = static_cast<int>(strnlen(line, kMaxChars));
    ed.len = static_cast<int>(std::remove(line, line + ed.len, '\t') - line);
    line[ed.len] = '\0';
    redraw(0, 0);
  } else {
    line[0] = '\0';
  }

  for (;;) {
    const int c = readKey();
    if (c < 0) return -1;
    switch (c) {
      case 127:
      case kBackspace:
        if (ed.cursor > 0) {
          moveLeft(1);
          deleteAtCursor();
        }
        break;
      case '\n':
      case '\r':
        echoToEnd();
        putchar('\n');
        return finishRead(c);
      case '\t':
        if (ed.len >= kMaxChars) break;  // a full line takes nothing more
        storeRequestChar('\t');
        return finishRead(c);
      case '?':
        if (ed.len >= kMaxChars) break;
        storeRequestChar('?');
        putchar('\n');
        return finishRead(c);
      case 27:
        if (handleEscape() < 0) return -1;
        break;
      default:
        if (c >= 32 && c != 155) insertChar(static_cast<char>(c));
        break;
    }
  }
}
