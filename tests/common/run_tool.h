// Runs build/kivtool as a user would (one-shot arguments or piped input) and captures
// what it prints. Used by the black-box tests.
#pragma once

#include <cstdlib>
#include <functional>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

using EnvVars = std::vector<std::pair<std::string, std::string>>;   // name, value

struct ToolResult {
  std::string out;   // standard output, byte for byte
  std::string err;   // standard error
  int status = -1;   // exit status, or 128 + signal
  bool timedOut = false;
};

struct ToolRun {
  std::vector<std::string> args;                          // program arguments
  std::string input;                                      // written to standard input
  EnvVars env;                                            // added to the environment
  std::string cwd;                                        // working directory (default: a fresh temp dir)
  int timeoutMs = 20000;
  bool sim = true;                                        // set KIVTOOL_SIM=<cwd>/sim unless env has it
  int uid = -1;                                           // run as this user (needs root), -1: as we are
  std::string program;                                    // another copy of the tool (default: the build's)
  // When set, `input` goes in one line at a time: line i (from 1) is written once standard
  // output holds i closing lines ("Success!!" or "Errno :"), right after beforeLine(i) ran.
  std::function<void(size_t)> beforeLine;
};

ToolResult run_tool(const ToolRun &run);

// A fresh empty directory under the system temp directory, removed at exit.
std::string make_temp_dir(const char *tag = "kivtest");
void write_file(const std::string &path, const std::string &content);
std::string read_file(const std::string &path);
// How often `what` occurs in `text` (overlapping occurrences included).
size_t count_of(const std::string &text, const std::string &what);

// Environment variables set for the lifetime of the object, removed at its end.
struct ScopedEnv {
  std::vector<std::string> names;
  explicit ScopedEnv(const EnvVars &vars) {
    for (const auto &[k, v] : vars) setenv(names.emplace_back(k).c_str(), v.c_str(), 1);
  }
  ScopedEnv(std::initializer_list<std::pair<std::string, std::string>> vars) : ScopedEnv(EnvVars(vars)) {}
  ~ScopedEnv() {
    for (const std::string &k : names) unsetenv(k.c_str());
  }
  ScopedEnv(const ScopedEnv &) = delete;
  ScopedEnv &operator=(const ScopedEnv &) = delete;
};

// The start-up text printed before a one-shot command's own output.
extern const char *const kSdkLine;   // "# SDK version 040a0000\r\n#\r\n"
