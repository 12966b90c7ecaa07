#include "run_tool.h"

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string_view>

const char *const kSdkLine = "# SDK version 040a0000\r\n#\r\n";

namespace {
std::vector<std::string> &tempDirs() {
  static std::vector<std::string> dirs;
  static const int registered = std::atexit([] {
    std::error_code ec;
    if (!getenv("KIVTEST_KEEP"))
      for (auto &d : tempDirs()) std::filesystem::remove_all(d, ec);
  });
  (void)registered;
  return dirs;
}
}  // namespace

std::string make_temp_dir(const char *tag) {
  std::string tmpl = (std::filesystem::temp_directory_path() / (std::string(tag) + "-XXXXXX")).string();
  std::vector<char> buf(tmpl.begin(), tmpl.end());
  buf.push_back('\0');
  if (!mkdtemp(buf.data())) return {};
  std::string dir(buf.data());
  tempDirs().push_back(dir);
  return dir;
}

void write_file(const std::string &path, const std::string &content) {
  std::ofstream f(path, std::ios::binary | std::ios::trunc);
  f << content;
}

size_t count_of(const std::string &text, const std::string &what) {
  size_t n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

std::string read_file(const std::string &path) {
  std::ifstream f(path, std::ios::binary);
  std::stringstream ss;
  ss << f.rdbuf();
  return ss.str();
}

ToolResult run_tool(const ToolRun &run) {
  ToolResult res;
  std::string cwd = run.cwd.empty() ? make_temp_dir() : run.cwd;
  int inPipe[2], outPipe[2], errPipe[2];
  // Close-on-exec: a tool started meanwhile from another thread must not inherit these ends
  // (it would hold this run's input open, and this run would never see end of input).
  if (pipe2(inPipe, O_CLOEXEC) || pipe2(outPipe, O_CLOEXEC) || pipe2(errPipe, O_CLOEXEC)) return res;
  // Everything the child needs is made here: between fork and exec a child of a threaded
  // process may only make system calls (another thread may have held the allocator's lock).
  std::vector<std::string> envText;
  bool hasSim = false;
  for (char **e = environ; *e; ++e) {
    const std::string_view kv(*e);
    const std::string_view key = kv.substr(0, kv.find('='));
    bool dropped = key == "KIVTOOL_SIM" || key == "KIVTOOL_SIM_FAULTS" || key == "KIVTOOL_PCAP" ||
                   key == "KIVTOOL_TRACE";
    for (const auto &[k, v] : run.env) dropped = dropped || key == k;
    if (!dropped) envText.emplace_back(kv);
  }
  for (const auto &[k, v] : run.env) {
    envText.push_back(k + "=" + v);
    hasSim = hasSim || k == "KIVTOOL_SIM";
  }
  if (run.sim && !hasSim) envText.push_back("KIVTOOL_SIM=" + cwd + "/sim");
  std::vector<char *> envp;
  for (std::string &kv : envText) envp.push_back(kv.data());
  envp.push_back(nullptr);
  const std::string program = run.program.empty() ? KIVTOOL_PATH : run.program;
  std::vector<char *> argv;
  argv.push_back(const_cast<char *>(program.c_str()));
  for (auto &arg : run.args) argv.push_back(const_cast<char *>(arg.c_str()));
  argv.push_back(nullptr);

  pid_t pid = fork();
  if (pid == 0) {
    dup2(inPipe[0], 0);
    dup2(outPipe[1], 1);
    dup2(errPipe[1], 2);
    for (int fd : {inPipe[0], inPipe[1], outPipe[0], outPipe[1], errPipe[0], errPipe[1]}) close(fd);
    if (chdir(cwd.c_str()) != 0) _exit(126);
    if (run.uid >= 0 && (setgroups(0, nullptr) != 0 || setgid((gid_t)run.uid) != 0 || setuid((uid_t)run.uid) != 0))
      _exit(125);
    execve(program.c_str(), argv.data(), envp.data());
    _exit(127);
  }
  close(inPipe[0]);
  close(outPipe[1]);
  close(errPipe[1]);
  signal(SIGPIPE, SIG_IGN);
  // The input still to go, one line at a time when the run waits between lines.
  std::vector<std::string> lines;
  if (run.beforeLine) {
    for (size_t at = 0; at < run.input.size();) {
      const size_t nl = run.input.find('\n', at);
      const size_t end = nl == std::string::npos ? run.input.size() : nl + 1;
      lines.push_back(run.input.substr(at, end - at));
      at = end;
    }
  } else {
    lines.push_back(run.input);
  }
  size_t line = 0, written = 0;
  bool released = true;   // the current line may be written
  auto closings = [&res] { return count_of(res.out, "Success!!") + count_of(res.out, "Errno :"); };
  if (run.input.empty()) {
    close(inPipe[1]);
    inPipe[1] = -1;
  } else {
    fcntl(inPipe[1], F_SETFL, O_NONBLOCK);
  }
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(run.timeoutMs);
  bool outOpen = true, errOpen = true;
  while (outOpen || errOpen) {
    pollfd fds[3];
    int n = 0;
    if (outOpen) fds[n++] = {outPipe[0], POLLIN, 0};
    if (errOpen) fds[n++] = {errPipe[0], POLLIN, 0};
    if (inPipe[1] >= 0 && !released && closings() >= line) {
      run.beforeLine(line);
      released = true;
    }
    if (inPipe[1] >= 0 && released) fds[n++] = {inPipe[1], POLLOUT, 0};
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count();
    if (left <= 0) {
      res.timedOut = true;
      kill(pid, SIGKILL);
      break;
    }
    if (poll(fds, n, (int)std::min<long long>(left, 200)) < 0) continue;
    for (int i = 0; i < n; i++) {
      if (!fds[i].revents) continue;
      if (fds[i].fd == inPipe[1]) {
        const std::string &text = lines[line];
        ssize_t w = write(inPipe[1], text.data() + written, text.size() - written);
        if (w > 0) written += (size_t)w;
        if (w >= 0 && written == text.size() && line + 1 < lines.size()) {
          ++line;
          written = 0;
          released = false;
        } else if (w < 0 || written == text.size()) {
          close(inPipe[1]);
          inPipe[1] = -1;
        }
        continue;
      }
      char buf[65536];
      ssize_t r = read(fds[i].fd, buf, sizeof buf);
      if (r <= 0) {
        if (fds[i].fd == outPipe[0]) outOpen = false; else errOpen = false;
        continue;
      }
      (fds[i].fd == outPipe[0] ? res.out : res.err).append(buf, (size_t)r);
    }
  }
  if (inPipe[1] >= 0) close(inPipe[1]);
  close(outPipe[0]);
  close(errPipe[0]);
  int st = 0;
  waitpid(pid, &st, 0);
  res.status = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
  return res;
}
