// Helpers for the shell tests: a program on a pseudo-terminal, tmux sessions, and an
// editor-loop mode of the test program itself.
#pragma once

#include <sys/types.h>

#include <string>
#include <utility>
#include <vector>

using Env = std::vector<std::pair<std::string, std::string>>;

// With this variable set the test program only reads lines with kiv_readLine (prompt
// kLoopPrompt) and prints each as "=> [<result>|<line>]\n"; it ends with status 0 on
// "exit" and 3 at end of input.
constexpr const char *kLoopVar = "KIVSHELL_EDITOR_LOOP";
constexpr const char *kLoopPrompt = "<HX5200/> ";
std::string self_exe();

// A program run with a pseudo-terminal (cols x 24) as its console.
class PtySession {
 public:
  PtySession(const std::string &program, const Env &env, const std::string &cwd = "/", int cols = 80);
  ~PtySession();
  PtySession(const PtySession &) = delete;
  PtySession &operator=(const PtySession &) = delete;

  void keys(const std::string &bytes);
  // Position of needle in the output at or after `from`, waiting up to 5 s; npos if absent.
  size_t waitFor(const std::string &needle, size_t from = 0);
  // Bytes written from `from` up to the next loop-mode report, which is consumed and
  // stored in *report as "<result>|<line without its newline>".
  std::string untilReport(size_t &from, std::string *report = nullptr);
  const std::string &output() const { return out_; }
  void resize(int cols);
  void hangUp();
  int wait();   // exit status, or -1

 private:
  void pump(int timeoutMs);
  int master_ = -1;
  pid_t pid_ = -1;
  std::string out_;
};

// A tmux server on a private socket running `command` in a cols x 24 window.
class Tmux {
 public:
  static bool available();
  Tmux(const std::string &command, int cols);
  ~Tmux();
  Tmux(const Tmux &) = delete;
  Tmux &operator=(const Tmux &) = delete;

  void type(const std::string &text) { tmux({"send-keys", "-t", "t", "-l", text}); }
  void key(const std::string &name) { tmux({"send-keys", "-t", "t", name}); }
  void resize(int cols) { tmux({"resize-window", "-t", "t", "-x", std::to_string(cols), "-y", "24"}); }
  // Visible rows without trailing blanks, empty trailing rows dropped.
  std::vector<std::string> rows();
  // Polls until a row contains needle; returns false after 5 s.
  bool waitRow(const std::string &needle);
  std::pair<int, int> cursor();   // (x, y)

 private:
  std::string tmux(std::vector<std::string> args);
  std::string socket_;
};
