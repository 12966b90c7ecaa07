// A real terminal for the shell tests: `command` run by sh in a fresh directory, in a
// cols x 24 tmux window, with every byte it writes recorded.
#pragma once

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "run_tool.h"

inline std::string quoted(const std::string &s) {   // one word for sh
  std::string q = "'";
  for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return q + "'";
}

// Polls `done` for up to 5 s.
inline bool poll_until(const std::function<bool()> &done) {
  for (auto end = std::chrono::steady_clock::now() + std::chrono::seconds(5); !done();) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

class Term {
 public:
  // The command first waits for an end of input (Ctrl-D, not echoed), so recording starts
  // before it writes anything; its exit status lands in the file "status".
  explicit Term(const std::string &command, int cols = 80) : dir(make_temp_dir("kivterm")) {
    const std::string script = "cd " + quoted(dir) + "; trap '' HUP; read _; " + command + "; echo $? > status";
    tmux("new-session -d -s t -y 24 -x " + std::to_string(cols) + " " + quoted(script));
    tmux("pipe-pane -t t " + quoted("cat >> " + quoted(dir + "/pane.out")));
    tmux("send-keys -t t C-d");
  }
  ~Term() { tmux("kill-server"); }
  Term(const Term &) = delete;
  Term &operator=(const Term &) = delete;

  void keys(const std::string &bytes) const { tmux("send-keys -t t -l " + quoted(bytes)); }
  void resize(int cols) const { tmux("resize-window -t t -y 24 -x " + std::to_string(cols)); }

  // The command's exit status, or -1 after 5 s; with hangUp the terminal is closed first
  // (the command ignores the hang-up signal and sees the end of its input).
  int wait(bool hangUp = false) const {
    if (hangUp) tmux("kill-server");
    std::string status;
    poll_until([&] { return !(status = read_file(dir + "/status")).empty(); });
    return status.empty() ? -1 : std::atoi(status.c_str());
  }

  // What the command wrote so far; the position of needle at or after `from` once it
  // comes (npos after 5 s).
  std::string output() const { return read_file(dir + "/pane.out"); }
  size_t waitFor(const std::string &needle, size_t from = 0) const {
    size_t at = std::string::npos;
    poll_until([&] { return (at = output().find(needle, from)) != std::string::npos; });
    return at;
  }

  // Visible rows without trailing blanks, empty trailing rows dropped; polled until they
  // are `want` (the last rows seen).
  std::vector<std::string> rows(const std::vector<std::string> &want) const {
    std::vector<std::string> seen;
    poll_until([&] {
      const std::string text = tmux("capture-pane -p -t t");
      seen.clear();
      for (size_t start = 0, nl; start < text.size(); start = nl + 1) {
        nl = std::min(text.find('\n', start), text.size());
        std::string row = text.substr(start, nl - start);
        seen.push_back(row.erase(row.find_last_not_of(' ') + 1));
      }
      while (!seen.empty() && seen.back().empty()) seen.pop_back();
      return seen == want;
    });
    return seen;
  }
  std::string screen() const { return tmux("capture-pane -p -t t"); }   // the visible rows
  std::string tty() const {   // the pane's terminal device
    std::string t = tmux("display-message -p -t t '#{pane_tty}'");
    return t.substr(0, t.find('\n'));
  }
  std::pair<int, int> cursor() const {   // (x, y)
    int x = -1, y = -1;
    std::sscanf(tmux("display-message -p -t t '#{cursor_x} #{cursor_y}'").c_str(), "%d %d", &x, &y);
    return {x, y};
  }

  const std::string dir;

 private:
  std::string tmux(const std::string &args) const {
    std::string out;
    fflush(nullptr);
    if (FILE *p = popen(("tmux -f /dev/null -S " + dir + "/sock " + args + " 2>/dev/null").c_str(), "r")) {
      char buf[4096];
      for (size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
      pclose(p);
    }
    return out;
  }
};
