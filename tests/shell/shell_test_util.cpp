#include "shell_test_util.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>

#include "run_tool.h"
#include "shell/kivshell.h"

namespace {

// Written by the child to its terminal after each read, so the parent knows it has seen
// every byte of that read.
constexpr char kEndMark[] = "\x01\x02" "END" "\x02\x01";

bool readAll(int fd, void *buf, size_t n) {
  auto *p = static_cast<char *>(buf);
  while (n > 0) {
    ssize_t r = read(fd, p, n);
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) return false;
    p += r;
    n -= static_cast<size_t>(r);
  }
  return true;
}

bool writeAll(int fd, const void *buf, size_t n) {
  auto *p = static_cast<const char *>(buf);
  while (n > 0) {
    ssize_t r = write(fd, p, n);
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) return false;
    p += r;
    n -= static_cast<size_t>(r);
  }
  return true;
}

bool sameSettings(const termios &a, const termios &b) {
  return a.c_iflag == b.c_iflag && a.c_oflag == b.c_oflag && a.c_cflag == b.c_cflag &&
         a.c_lflag == b.c_lflag && std::memcmp(a.c_cc, b.c_cc, sizeof a.c_cc) == 0;
}

[[noreturn]] void editorChild(int ctl, int res) {
  signal(SIGHUP, SIG_IGN);
  std::snprintf(kiv_prompt, sizeof kiv_prompt, "%s", PtyEditor::kPrompt);
  kiv_promptLen = static_cast<int>(std::strlen(kiv_prompt));
  static char line[KIV_LINE_SIZE];
  for (;;) {
    unsigned char hdr[3];
    if (!readAll(ctl, hdr, sizeof hdr)) _exit(0);
    size_t n = hdr[1] | (static_cast<size_t>(hdr[2]) << 8);
    if (n > KIV_LINE_SIZE - 1) _exit(3);
    if (n > 0 && !readAll(ctl, line, n)) _exit(0);
    line[n] = '\0';
    termios before{}, after{};
    tcgetattr(0, &before);
    int32_t ret = kiv_readLine(line, static_cast<signed char>(hdr[0]));
    tcgetattr(0, &after);
    int32_t same = sameSettings(before, after) ? 1 : 0;
    fputs(kEndMark, stdout);
    fflush(stdout);
    int32_t len = static_cast<int32_t>(strnlen(line, KIV_LINE_SIZE));
    if (!writeAll(res, &ret, 4) || !writeAll(res, &same, 4) || !writeAll(res, &len, 4) ||
        !writeAll(res, line, static_cast<size_t>(len)))
      _exit(0);
  }
}

}  // namespace

PtyEditor::PtyEditor(int cols, int rows) {
  int ctlPipe[2], resPipe[2];
  if (pipe(ctlPipe) != 0) return;
  if (pipe(resPipe) != 0) {
    close(ctlPipe[0]);
    close(ctlPipe[1]);
    return;
  }
  winsize ws{};
  ws.ws_col = static_cast<unsigned short>(cols);
  ws.ws_row = static_cast<unsigned short>(rows);
  fflush(stdout);
  fflush(stderr);
  pid_t pid = forkpty(&master_, nullptr, nullptr, &ws);
  if (pid == 0) {
    close(ctlPipe[1]);
    close(resPipe[0]);
    editorChild(ctlPipe[0], resPipe[1]);
  }
  close(ctlPipe[0]);
  close(resPipe[1]);
  ctl_ = ctlPipe[1];
  res_ = resPipe[0];
  pid_ = pid;
  if (pid > 0) fcntl(master_, F_SETFL, fcntl(master_, F_GETFL) | O_NONBLOCK);
}

PtyEditor::~PtyEditor() {
  if (ctl_ >= 0) close(ctl_);
  hangUp();
  if (pid_ > 0) {
    for (int i = 0; i < 200; ++i) {
      if (waitpid(pid_, nullptr, WNOHANG) == pid_) {
        pid_ = -1;
        break;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
  }
  if (res_ >= 0) close(res_);
}

void PtyEditor::pump(int timeoutMs) {
  if (master_ < 0) return;
  pollfd p{master_, POLLIN, 0};
  if (poll(&p, 1, timeoutMs) <= 0) return;
  char buf[4096];
  for (;;) {
    ssize_t r = read(master_, buf, sizeof buf);
    if (r <= 0) break;
    out_.append(buf, static_cast<size_t>(r));
  }
}

bool PtyEditor::waitFor(const std::string &needle, int timeoutMs) {
  auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (out_.find(needle) == std::string::npos) {
    if (master_ < 0 || std::chrono::steady_clock::now() > end) return false;
    pump(20);
  }
  return true;
}

std::string PtyEditor::begin(signed char lastTerminator, const std::string &preload) {
  std::string req;
  req.push_back(static_cast<char>(lastTerminator));
  req.push_back(static_cast<char>(preload.size() & 0xFF));
  req.push_back(static_cast<char>(preload.size() >> 8));
  req += preload;
  writeAll(ctl_, req.data(), req.size());
  // The prompt is written once raw mode is on; keys sent before that would be flushed.
  waitFor(lastTerminator == '\t' || lastTerminator == '?' ? "\x1b[J" : kPrompt);
  return out_;
}

void PtyEditor::keys(const std::string &bytes) {
  if (master_ >= 0) writeAll(master_, bytes.data(), bytes.size());
}

PtyEditor::Result PtyEditor::finish(int timeoutMs) {
  Result r;
  auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  pollfd p{res_, POLLIN, 0};
  while (poll(&p, 1, 0) <= 0) {
    if (std::chrono::steady_clock::now() > end) return r;
    if (master_ >= 0)
      pump(10);
    else
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  int32_t ret = 0, same = 0, len = 0;
  if (!readAll(res_, &ret, 4) || !readAll(res_, &same, 4) || !readAll(res_, &len, 4)) return r;
  r.line.resize(static_cast<size_t>(len));
  if (len > 0 && !readAll(res_, r.line.data(), static_cast<size_t>(len))) return r;
  r.ret = ret;
  r.termiosRestored = same != 0;
  if (master_ >= 0) {
    waitFor(kEndMark, timeoutMs);
    size_t at = out_.find(kEndMark);
    if (at != std::string::npos) {
      r.screen = out_.substr(0, at);
      out_.erase(0, at + sizeof kEndMark - 1);
    }
  } else {
    r.screen = out_;
    out_.clear();
  }
  return r;
}

PtyEditor::Result PtyEditor::line(const std::string &text) {
  begin();
  keys(text + "\r");
  return finish();
}

void PtyEditor::resize(int cols, int rows) {
  winsize ws{};
  ws.ws_col = static_cast<unsigned short>(cols);
  ws.ws_row = static_cast<unsigned short>(rows);
  if (master_ >= 0) ioctl(master_, TIOCSWINSZ, &ws);
}

void PtyEditor::hangUp() {
  if (master_ >= 0) {
    pump(0);
    close(master_);
    master_ = -1;
  }
}

// ---- a program on a pseudo-terminal ---------------------------------------------------------

PtySession::PtySession(const std::string &program, const std::vector<std::string> &args,
                       const std::vector<std::pair<std::string, std::string>> &env, const std::string &cwd) {
  winsize ws{};
  ws.ws_col = 80;
  ws.ws_row = 24;
  fflush(stdout);
  fflush(stderr);
  pid_t pid = forkpty(&master_, nullptr, nullptr, &ws);
  if (pid == 0) {
    if (chdir(cwd.c_str()) != 0) _exit(126);
    for (auto &[k, v] : env) setenv(k.c_str(), v.c_str(), 1);
    std::vector<char *> argv;
    argv.push_back(const_cast<char *>(program.c_str()));
    for (auto &a : args) argv.push_back(const_cast<char *>(a.c_str()));
    argv.push_back(nullptr);
    execv(program.c_str(), argv.data());
    _exit(127);
  }
  pid_ = pid;
  if (pid > 0) fcntl(master_, F_SETFL, fcntl(master_, F_GETFL) | O_NONBLOCK);
}

PtySession::~PtySession() {
  if (pid_ > 0) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  if (master_ >= 0) close(master_);
}

void PtySession::pump(int timeoutMs) {
  pollfd p{master_, POLLIN, 0};
  if (poll(&p, 1, timeoutMs) <= 0) return;
  char buf[4096];
  for (;;) {
    ssize_t r = read(master_, buf, sizeof buf);
    if (r <= 0) break;
    out_.append(buf, static_cast<size_t>(r));
  }
}

void PtySession::keys(const std::string &bytes) { writeAll(master_, bytes.data(), bytes.size()); }

size_t PtySession::waitFor(const std::string &needle, size_t from, int timeoutMs) {
  auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  for (;;) {
    size_t at = out_.find(needle, from);
    if (at != std::string::npos) return at;
    if (std::chrono::steady_clock::now() > end) return std::string::npos;
    pump(20);
  }
}

int PtySession::wait(int timeoutMs) {
  auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (pid_ > 0) {
    pump(10);
    int status = 0;
    if (waitpid(pid_, &status, WNOHANG) == pid_) {
      pid_ = -1;
      pump(0);
      return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    if (std::chrono::steady_clock::now() > end) return -1;
  }
  return -1;
}

// ---- tmux ---------------------------------------------------------------------------------

bool Tmux::available() { return system("tmux -V >/dev/null 2>&1") == 0; }

int Tmux::run(const std::vector<std::string> &args, std::string *out) {
  int pfd[2];
  if (pipe(pfd) != 0) return -1;
  fflush(stdout);
  pid_t pid = fork();
  if (pid == 0) {
    dup2(pfd[1], 1);
    int devnull = open("/dev/null", O_RDWR);
    dup2(devnull, 0);
    dup2(devnull, 2);
    close(pfd[0]);
    close(pfd[1]);
    std::vector<char *> argv;
    static std::string tmux = "tmux";
    argv.push_back(tmux.data());
    for (auto &a : args) argv.push_back(const_cast<char *>(a.c_str()));
    argv.push_back(nullptr);
    execvp("tmux", argv.data());
    _exit(127);
  }
  close(pfd[1]);
  std::string data;
  char buf[4096];
  ssize_t r;
  while ((r = read(pfd[0], buf, sizeof buf)) > 0) data.append(buf, static_cast<size_t>(r));
  close(pfd[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  if (out) *out = data;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

Tmux::Tmux(const std::string &command, int cols, int rows,
           const std::vector<std::pair<std::string, std::string>> &env) {
  dir_ = make_temp_dir("kivtmux");
  socket_ = dir_ + "/sock";
  std::string cmd = "cd '" + dir_ + "' && exec env";
  for (auto &[k, v] : env) cmd += " '" + k + "=" + v + "'";
  cmd += " " + command;
  ok_ = run({"-S", socket_, "-f", "/dev/null", "new-session", "-d", "-s", "t", "-x", std::to_string(cols), "-y",
             std::to_string(rows), "sh", "-c", cmd}) == 0;
  if (ok_) run({"-S", socket_, "set-option", "-t", "t", "remain-on-exit", "on"});
}

Tmux::~Tmux() {
  if (!socket_.empty()) run({"-S", socket_, "kill-server"});
}

void Tmux::type(const std::string &text) { run({"-S", socket_, "send-keys", "-t", "t", "-l", text}); }
void Tmux::key(const std::string &name) { run({"-S", socket_, "send-keys", "-t", "t", name}); }

void Tmux::resize(int cols, int rows) {
  run({"-S", socket_, "resize-window", "-t", "t", "-x", std::to_string(cols), "-y", std::to_string(rows)});
}

std::string Tmux::screen() {
  std::string out;
  run({"-S", socket_, "capture-pane", "-p", "-t", "t"}, &out);
  std::string trimmed;
  size_t start = 0;
  while (start < out.size()) {
    size_t nl = out.find('\n', start);
    if (nl == std::string::npos) nl = out.size();
    std::string row = out.substr(start, nl - start);
    while (!row.empty() && row.back() == ' ') row.pop_back();
    trimmed += row + "\n";
    start = nl + 1;
  }
  while (trimmed.size() >= 2 && trimmed.compare(trimmed.size() - 2, 2, "\n\n") == 0) trimmed.pop_back();
  return trimmed;
}

bool Tmux::waitScreen(const std::string &needle, std::string *last, int timeoutMs) {
  auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  for (;;) {
    std::string s = screen();
    if (last) *last = s;
    if (s.find(needle) != std::string::npos) return true;
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

std::pair<int, int> Tmux::cursor() {
  std::string out;
  run({"-S", socket_, "display-message", "-p", "-t", "t", "#{cursor_x} #{cursor_y}"}, &out);
  int x = -1, y = -1;
  std::sscanf(out.c_str(), "%d %d", &x, &y);
  return {x, y};
}

bool Tmux::alive() {
  std::string out;
  run({"-S", socket_, "display-message", "-p", "-t", "t", "#{pane_dead}"}, &out);
  return out.rfind("0", 0) == 0;
}

std::string self_exe() {
  char buf[4096];
  ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
  if (n <= 0) return {};
  return std::string(buf, static_cast<size_t>(n));
}
