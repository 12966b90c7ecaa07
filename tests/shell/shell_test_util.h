// Helpers for the shell tests: the line editor run in a pseudo-terminal, and tmux sessions.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

// Runs kiv_readLine in a child process whose terminal is a pseudo-terminal, so that
// the exact bytes the editor writes can be compared. Each read is one request:
// begin() starts it (the prompt is on the screen when it returns), keys() types,
// finish() collects the returned line and the bytes written since begin().
class PtyEditor {
 public:
  struct Result {
    int ret = -2;              // kiv_readLine's result (-2: child gave no answer)
    std::string line;          // the line buffer after the read
    bool termiosRestored = false;
    std::string screen;        // bytes written to the terminal during the read
  };

  static constexpr const char *kPrompt = "<HX5200/> ";

  explicit PtyEditor(int cols = 80, int rows = 24);
  ~PtyEditor();
  PtyEditor(const PtyEditor &) = delete;
  PtyEditor &operator=(const PtyEditor &) = delete;

  bool ok() const { return pid_ > 0; }
  // Starts a read with the given last terminator and pre-loaded line text.
  std::string begin(signed char lastTerminator = 0, const std::string &preload = {});
  void keys(const std::string &bytes);
  // Waits until the terminal output contains `needle` (consumed output is kept).
  bool waitFor(const std::string &needle, int timeoutMs = 5000);
  Result finish(int timeoutMs = 5000);
  // Enter a whole line (one read) and return its result.
  Result line(const std::string &text);
  void resize(int cols, int rows);
  // Closes the terminal's master side: the child sees end of input.
  void hangUp();

 private:
  void pump(int timeoutMs);
  int master_ = -1;
  int ctl_ = -1;     // requests to the child
  int res_ = -1;     // results from the child
  pid_t pid_ = -1;
  std::string out_;  // terminal output not yet handed out
};

// A program (the tool) run with a pseudo-terminal as its console.
class PtySession {
 public:
  PtySession(const std::string &program, const std::vector<std::string> &args,
             const std::vector<std::pair<std::string, std::string>> &env, const std::string &cwd);
  ~PtySession();
  PtySession(const PtySession &) = delete;
  PtySession &operator=(const PtySession &) = delete;

  bool ok() const { return pid_ > 0; }
  void keys(const std::string &bytes);
  // Waits until the output after `from` contains needle; returns its position or npos.
  size_t waitFor(const std::string &needle, size_t from = 0, int timeoutMs = 5000);
  const std::string &output() const { return out_; }
  // Waits for the program to end; its exit status or -1.
  int wait(int timeoutMs = 5000);

 private:
  void pump(int timeoutMs);
  int master_ = -1;
  pid_t pid_ = -1;
  std::string out_;
};

// A tmux server on its own socket with one session of a fixed size.
class Tmux {
 public:
  static bool available();
  Tmux(const std::string &command, int cols, int rows,
       const std::vector<std::pair<std::string, std::string>> &env = {});
  ~Tmux();
  Tmux(const Tmux &) = delete;
  Tmux &operator=(const Tmux &) = delete;

  bool ok() const { return ok_; }
  // Sends literal text (-l) or tmux key names.
  void type(const std::string &text);
  void key(const std::string &name);
  void resize(int cols, int rows);
  std::string screen();   // visible pane, trailing blanks of each row trimmed
  // Polls the pane until `pred` holds for its text; returns the last capture.
  bool waitScreen(const std::string &needle, std::string *last = nullptr, int timeoutMs = 5000);
  std::pair<int, int> cursor();  // (x, y)
  bool alive();

 private:
  int run(const std::vector<std::string> &args, std::string *out = nullptr);
  std::string socket_;
  std::string dir_;
  bool ok_ = false;
};

// Path of this test program (for running it in its editor-loop mode inside tmux).
std::string self_exe();
