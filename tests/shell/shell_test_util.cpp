#include "shell_test_util.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "run_tool.h"
#include "shell/kivshell.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr auto kWait = std::chrono::seconds(5);
constexpr char kReportStart[] = "=> [";
constexpr char kReportEnd[] = "]>>";

[[noreturn]] void editorLoop() {
  signal(SIGHUP, SIG_IGN);   // a hung-up terminal must show up as end of input
  std::snprintf(kiv_prompt, sizeof kiv_prompt, "%s", kLoopPrompt);
  kiv_promptLen = static_cast<int>(std::strlen(kiv_prompt));
  static char line[KIV_LINE_SIZE];
  for (;;) {
    int n = kiv_readLine(line, 0);
    if (n <= 0) std::exit(3);
    if (std::strcmp(line, "exit\n") == 0) std::exit(0);
    if (line[n - 1] == '\n') line[n - 1] = '\0';
    std::printf("%s%d|%s%s\n", kReportStart, n, line, kReportEnd);
  }
}

const bool g_loopMode = [] {
  if (std::getenv(kLoopVar)) editorLoop();
  return false;
}();

}  // namespace

std::string self_exe() {
  char buf[4096];
  ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
  return n > 0 ? std::string(buf, static_cast<size_t>(n)) : std::string();
}

// ---- a program on a pseudo-terminal ---------------------------------------------------------

PtySession::PtySession(const std::string &program, const Env &env, const std::string &cwd, int cols) {
  winsize ws{};
  ws.ws_col = static_cast<unsigned short>(cols);
  ws.ws_row = 24;
  fflush(nullptr);
  pid_ = forkpty(&master_, nullptr, nullptr, &ws);
  if (pid_ == 0) {
    if (chdir(cwd.c_str()) != 0) _exit(126);
    for (auto &[k, v] : env) setenv(k.c_str(), v.c_str(), 1);
    execl(program.c_str(), program.c_str(), static_cast<char *>(nullptr));
    _exit(127);
  }
  if (pid_ > 0) fcntl(master_, F_SETFL, fcntl(master_, F_GETFL) | O_NONBLOCK);
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
  if (master_ < 0 || poll(&p, 1, timeoutMs) <= 0) return;
  char buf[4096];
  ssize_t r;
  while ((r = read(master_, buf, sizeof buf)) > 0) out_.append(buf, static_cast<size_t>(r));
}

void PtySession::keys(const std::string &bytes) {
  for (size_t done = 0; master_ >= 0 && done < bytes.size();) {
    ssize_t r = write(master_, bytes.data() + done, bytes.size() - done);
    if (r > 0) done += static_cast<size_t>(r);
    else pump(10);   // let the program drain its echo
  }
}

size_t PtySession::waitFor(const std::string &needle, size_t from) {
  for (auto end = Clock::now() + kWait;;) {
    size_t at = out_.find(needle, from);
    if (at != std::string::npos || Clock::now() > end) return at;
    pump(20);
  }
}

std::string PtySession::untilReport(size_t &from, std::string *report) {
  size_t start = waitFor(kReportStart, from);
  size_t end = start == std::string::npos ? start : waitFor(kReportEnd, start);
  if (end == std::string::npos) return "<no report>";
  std::string screen = out_.substr(from, start - from);
  if (report) *report = out_.substr(start + 4, end - start - 4);
  from = waitFor("\r\n", end) + 2;
  return screen;
}

void PtySession::resize(int cols) {
  winsize ws{};
  ws.ws_col = static_cast<unsigned short>(cols);
  ws.ws_row = 24;
  ioctl(master_, TIOCSWINSZ, &ws);
}

void PtySession::hangUp() {
  pump(0);
  close(master_);
  master_ = -1;
}

int PtySession::wait() {
  for (auto end = Clock::now() + kWait; pid_ > 0 && Clock::now() < end;) {
    int status = 0;
    if (waitpid(pid_, &status, WNOHANG) == pid_) {
      pid_ = -1;
      pump(0);
      return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    if (master_ >= 0) pump(10);
    else std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return -1;
}

// ---- tmux ---------------------------------------------------------------------------------

bool Tmux::available() { return system("tmux -V >/dev/null 2>&1") == 0; }

std::string Tmux::tmux(std::vector<std::string> args) {
  args.insert(args.begin(), {"tmux", "-S", socket_, "-f", "/dev/null"});
  int pfd[2];
  if (pipe(pfd) != 0) return {};
  fflush(nullptr);
  pid_t pid = fork();
  if (pid == 0) {
    dup2(pfd[1], 1);
    int devNull = open("/dev/null", O_WRONLY);
    if (devNull >= 0) dup2(devNull, 2);
    close(pfd[0]);
    close(pfd[1]);
    std::vector<char *> argv;
    for (auto &a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    execvp("tmux", argv.data());
    _exit(127);
  }
  close(pfd[1]);
  std::string out;
  char buf[4096];
  ssize_t r;
  while ((r = read(pfd[0], buf, sizeof buf)) > 0) out.append(buf, static_cast<size_t>(r));
  close(pfd[0]);
  waitpid(pid, nullptr, 0);
  return out;
}

Tmux::Tmux(const std::string &command, int cols) {
  socket_ = make_temp_dir("kivtmux") + "/sock";
  tmux({"new-session", "-d", "-s", "t", "-x", std::to_string(cols), "-y", "24", "sh", "-c", command});
}

Tmux::~Tmux() { tmux({"kill-server"}); }

std::vector<std::string> Tmux::rows() {
  std::string text = tmux({"capture-pane", "-p", "-t", "t"});
  std::vector<std::string> out;
  for (size_t start = 0, nl; start < text.size(); start = nl + 1) {
    nl = text.find('\n', start);
    if (nl == std::string::npos) nl = text.size();
    std::string row = text.substr(start, nl - start);
    row.erase(row.find_last_not_of(' ') + 1);
    out.push_back(row);
  }
  while (!out.empty() && out.back().empty()) out.pop_back();
  return out;
}

bool Tmux::waitRow(const std::string &needle) {
  for (auto end = Clock::now() + kWait; Clock::now() < end;) {
    for (auto &row : rows())
      if (row.find(needle) != std::string::npos) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return false;
}

std::pair<int, int> Tmux::cursor() {
  int x = -1, y = -1;
  std::sscanf(tmux({"display-message", "-p", "-t", "t", "#{cursor_x} #{cursor_y}"}).c_str(), "%d %d", &x, &y);
  return {x, y};
}
