// The program as a user runs it: start-up text, one-shot arguments, piped input, the
// main loop in front of the command engine, and a session on a terminal.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "tool_output.h"
#include "terminal.h"

namespace {

const std::string kStart = kBanner + kSdkLine;
const std::string kTooLong = "kivshell: command line too long\n";

// Runs the tool on the simulated board; returns its output after the start-up text
// (banner and SDK line without arguments, the SDK line alone with them).
std::string run(const std::vector<std::string> &args, const std::string &input = {}, int wantStatus = 0,
                const std::string &cwd = {}) {
  ToolRun r;
  r.args = args;
  r.input = input;
  r.cwd = cwd;
  return tool_output(r, wantStatus);
}

TEST(Tool, OneShotJoinsTheWordsIntoOneTypedLineAfterTheConfiguration) {
  const std::string typed = run({}, "reg get 0x4a000000\n");
  EXPECT_NE(typed.find("Success!!"), std::string::npos) << typed;
  EXPECT_EQ(run({"reg", "get", "0x4a000000"}), typed);
  EXPECT_EQ(run({"reg get", "0x4a000000"}), typed);
  EXPECT_EQ(run({"reg", "?"}), run({}, "reg ?\n"));   // help (its text: see tests/engine)
  // 1023 characters with the blanks fit the line buffer, one more does not.
  EXPECT_EQ(run({std::string(1022, 'z')}).find("too long"), std::string::npos);
  EXPECT_TRUE(run({std::string(1023, 'z')}, {}, 1).ends_with(kTooLong));
  EXPECT_TRUE(run(std::vector<std::string>(600, "ab"), {}, 1).ends_with(kTooLong));
  run({"", "", ""});
  EXPECT_EQ(run({"\n"}), "");
  // kivcfg.txt is read first: its messages come before anything of the bring-up (the
  // start-up text is checked by every run; the chip check without an adapter: see tests/access).
  const std::string cwd = make_temp_dir();
  write_file(cwd + "/kivcfg.txt", "# before debug\ndebug 3\n# board\ninterface spi\nmdcaddrid 0x1f\ni2caddrid 0x6\nx\n");
  EXPECT_TRUE(run({"reg", "get", "0x103ff0"}, {}, 0, cwd)
                  .starts_with("skip # board\n\r\ninterface spi\r\nmdcaddrid 31\r\ni2caddress 0\r\nno match\r\n"));
}

TEST(Tool, PipedLinesOnlyTheBareExitEndsTheLoop) {
  EXPECT_EQ(run({}, "exit\r\nls\r\n"), "");   // "exit" and " exit ": see tests/engine
  EXPECT_EQ(run({}, "\n\n\r\n\n"), "");                  // empty lines dispatch nothing
  EXPECT_EQ(run({}, "\n\nls\n\n"), run({}, "ls"));        // a last line without newline runs
  // A script line is never a completion request: a Tab is a blank.
  EXPECT_EQ(run({}, "reg set 0x4a180048 0x99\t\nreg\tget\t0x4a180048\t\n"),
            "[0x4A180048]=0x0099\nSuccess!!\n[0x4A180048]=0x0099\nSuccess!!\n");
  // NUL bytes and over-long lines: no prompt, no echo, no crash.
  const std::string odd = run({}, std::string(5000, 'q') + "\n" + std::string("a\0b\n", 4));
  EXPECT_EQ(odd.find("qqqq"), std::string::npos);
  EXPECT_EQ(odd.find("<HX5200"), std::string::npos);
}

// Options before the command words, and the exit status: failures count only with -e, in
// a one-shot line and in a script (which then stops at the failing line and names it).
TEST(Tool, OptionsAndExitStatus) {
  const std::string cwd = make_temp_dir();
  write_file(cwd + "/other.bin", std::string(300, 'x'));   // not what the fresh flash holds
  const std::string listing = run({"ls"});
  const struct {
    std::vector<std::string> args;
    std::string input;
    int status;
    std::string err;
  } cases[] = {
      {{"-e", "reg", "set", "0x4a000000"}, "", 1, ""},   // "Incomplete command": nothing ran
      {{"-e", "reg", "?"}, "", 0, ""},   // help
      {{"-e", "foo"}, "", 1, ""},
      {{"--errexit", "re"}, "", 1, ""},   // ambiguous command
      {{"-e", "reg", "get", "zz"}, "", 1, ""},
      {{"-e", "reg", "g", "0x1"}, "", 1, ""},   // a token several words begin with
      {{"-e", "reg", std::string(256, 'a')}, "", 1, ""},   // a token too long, refused silently
      {{"-e", "nic", "all"}, "", 1, ""},                   // Errno
      {{"-e", "spi", "verify", "other.bin"}, "", 1, ""},   // mismatch: only in the messages
      {{"-e", "spi", "verify", "none.bin"}, "", 1, "spi: none.bin: No such file or directory\n"},
      {{"-e", "--", "ls"}, "", 0, ""},
      {{"foo"}, "", 0, ""},
      {{"spi", "verify", "other.bin"}, "", 0, ""},
      {{"-e"}, "ls\nreg ?\nreg get ?\n", 0, ""},
      {{"-e"}, "ls\n\nfoo\nls\n", 1, "kivtool: line 3 failed: foo\n"},
      {{"-e"}, "ls\r\nspi verify other.bin\r\nls\r\n", 1, "kivtool: line 2 failed: spi verify other.bin\n"},
      {{}, "ls\n\nfoo\nls\n", 0, ""},
      // A script line that does not fit is not run cut short (the cut line would write 0x12).
      {{"-e"}, "ls\nreg set 0x4a180048" + std::string(1010, ' ') + "0x1234\nls\n", 1,
       "kivtool: line 2 not run: 1034 characters, at most 1022 fit\n"},
      {{}, "reg set 0x100" + std::string(1010, ' ') + "0x12\r\nreg get 0x100\n", 0,
       "kivtool: line 1 not run: 1028 characters, at most 1022 fit\n"},
      {{"-e"}, std::string(1022, 'l') + "\r\n", 1, "kivtool: line 1 failed: " + std::string(1022, 'l') + "\n"},
      {{"-x", "ls"}, "", 2, "kivtool: unknown option '-x' (kivtool --help lists them)\n"},
      {{"--errexit=1"}, "", 2, "kivtool: unknown option '--errexit=1' (kivtool --help lists them)\n"},
  };
  for (const auto &c : cases) {
    ToolRun r;
    r.args = c.args;
    r.input = c.input;
    r.cwd = cwd;
    const ToolResult res = run_tool(r);
    const std::string what = c.args.empty() ? c.input : c.args.back().substr(0, 20);
    EXPECT_EQ(res.status, c.status) << what << res.out;
    EXPECT_EQ(res.err, c.err) << what;
    if (c.status == 2) {
      EXPECT_EQ(res.out, "") << what;
    } else if (c.status == 1 && !c.input.empty()) {   // the script stopped: no second listing
      EXPECT_EQ(res.out.find(listing), res.out.rfind(listing)) << what;
    }
    EXPECT_EQ(res.out.find("[0x0100]=0x0012"), std::string::npos) << what;
  }
  // Help and version: on standard output, without the start-up.
  ToolRun r;
  r.args = {"--help"};
  ToolResult res = run_tool(r);
  EXPECT_EQ(res.status, 0);
  EXPECT_TRUE(res.out.starts_with("Usage: kivtool [options] [command words]\n")) << res.out;
  for (const char *word : {"--errexit", "KIVTOOL_SIM=", "KIVTOOL_SIM_FAULTS=", "KIVTOOL_PCAP=", "KIVTOOL_TRACE=", "KIVTOOL_FLASH_FULL=",
                           "--adapter SEL", "--list-adapters", "KIVTOOL_ADAPTER=", "KIVTOOL_HOTPLUG=0",
                           "Exit status", "README.md"})
    EXPECT_NE(res.out.find(word), std::string::npos) << word;
  r.args = {"-h"};
  EXPECT_EQ(run_tool(r).out, res.out);
  r.args = {"--version", "ls"};
  res = run_tool(r);
  EXPECT_EQ(res.out, "kivtool (Quorvex KIV Tool) build 20210719, SDK version 040a0000\n");
  EXPECT_EQ(res.status, 0);
}

// Through one pipe standard output and standard error keep their order. Closed standard
// descriptors never go to the board's files (its state survives the run), and output that
// cannot be written makes the run fail, said on standard error while it works: -e,
// one-shot and --help alike.
TEST(Tool, ClosedAndFullOutputs) {
  const std::string dir = make_temp_dir();
  auto sh = [&](const std::string &cmd) {
    const std::string full = "cd " + dir + " && export KIVTOOL_SIM=sim K=" + quoted(KIVTOOL_PATH) + " && " + cmd +
                             " 2>err; echo $? > code";
    EXPECT_EQ(system(("sh -c " + quoted(full)).c_str()), 0);
    return read_file(dir + "/code") + read_file(dir + "/err");
  };
  EXPECT_EQ(sh("KIVTOOL_SIM_FLASH_OWNED=1 \"$K\" spi rdid 2>&1 | cat > out"), "0\n");
  EXPECT_EQ(read_file(dir + "/out"),
            std::string(kSdkLine) + "spi: could not own the flash (code -11)\nSPI Flash CMD Over\nSuccess!!\n");
  EXPECT_EQ(sh("\"$K\" reg set 0x100 0x5a5a >&-"), "1\nkivtool: write error: Bad file descriptor\n");
  EXPECT_EQ(sh("(\"$K\" reg set 0x104 0x77 2>&- <&- >out)"), "0\n");
  EXPECT_EQ(sh("echo 'reg set 0x108 9' | \"$K\" >&-"), "1\nkivtool: write error: Bad file descriptor\n");
  EXPECT_EQ(sh("\"$K\" reg get 0x100 > out && \"$K\" reg get 0x104 >> out && \"$K\" reg get 0x108 >> out"), "0\n");
  EXPECT_EQ(read_file(dir + "/out"), std::string(kSdkLine) + "[0x0100]=0x5A5A\nSuccess!!\n" + kSdkLine +
                                         "[0x0104]=0x0077\nSuccess!!\n" + kSdkLine + "[0x0108]=0x0009\nSuccess!!\n");
  for (const char *cmd : {"\"$K\" -e reg get 0 > /dev/full", "\"$K\" reg get 0 > /dev/full",
                          "\"$K\" --help > /dev/full", "echo ls | \"$K\" > /dev/full"})
    EXPECT_EQ(sh(cmd), "1\nkivtool: write error: No space left on device\n") << cmd;
  EXPECT_EQ(sh("printf 'ls\\nreg set 0x10c 1\\n' | \"$K\" -e > /dev/full"),
            "1\nkivtool: line 1 failed: ls\nkivtool: write error: No space left on device\n");
  EXPECT_EQ(sh("\"$K\" reg get 0x10c > out"), "0\n");   // the script stopped before its second line
  EXPECT_EQ(read_file(dir + "/out"), std::string(kSdkLine) + "[0x010C]=0x0000\nSuccess!!\n");
}

// A failure whose cause the tool knows gets one hint on standard error, after the
// command's own output, when standard error is a terminal; the same cause is not named
// again on the next line. Through a pipe nothing is added.
TEST(Tool, HintsOnATerminalOnly) {
  const struct {
    EnvVars env;
    const char *cfg, *hint;
  } cases[] = {
      {{{"KIVTOOL_SIM", "sim1"}, {"KIVTOOL_SIM_FAULTS", "unplug@4"}}, "", "the USB I/O adapter left the bus (unplugged?)"},
      {{{"KIVTOOL_SIM", "sim2"}}, "i2caddrid 5", "nothing answers at I2C device address 0xaa (i2caddrid 5)"},
      {{}, "", "no USB I/O adapter (0c55:5731) found"},
  };
  std::string script;
  for (const auto &c : cases) {
    ToolRun r;
    r.cwd = make_temp_dir();
    write_file(r.cwd + "/kivcfg.txt", std::string(c.cfg) + "\n");
    r.env = c.env;
    r.sim = !c.env.empty();
    r.args = {"reg", "get", "0x4a000000"};
    const ToolResult res = run_tool(r);
    EXPECT_EQ(res.err, "") << c.hint;
    EXPECT_NE(res.out.find("Errno : "), std::string::npos) << c.hint << res.out;
    script += std::string(script.empty() ? "" : "; ") + "echo '" + c.cfg + "' > kivcfg.txt; ";
    for (const auto &[k, v] : c.env) script += k + "=" + v + " ";
    script += quoted(KIVTOOL_PATH) + " reg get 0x4a000000; echo END";
  }
  Term t(script);
  ASSERT_NE(t.waitFor("END\r\n", t.waitFor("END\r\n", t.waitFor("END\r\n") + 1) + 1), std::string::npos)
      << t.output();
  const std::string out = t.output();
  size_t from = 0;
  for (const auto &c : cases) {
    // The chip check at start-up fails first, then the command: the hint comes once, after
    // the mismatch line.
    const size_t end = out.find("END\r\n", from);
    const std::string run = out.substr(from, end - from);
    const size_t mismatch = run.find("This KIV build is not match with current chip version\r\n");
    const size_t hint = run.find(std::string("kivtool: hint: ") + c.hint);
    EXPECT_TRUE(mismatch < hint && hint < run.find("Errno : ")) << run;
    EXPECT_EQ(run.find("kivtool: hint:"), run.rfind("kivtool: hint:")) << run;
    from = end + 1;
  }
}

// On a terminal: the board in use is named, help and completion pre-load the next line
// (without the Tab of a completion that did not complete), Ctrl-C is ignored while typing,
// and the terminal's settings are the same after the run.
TEST(Tool, TerminalSession) {
  Term t("stty -g > before; KIVTOOL_SIM=sim " + quoted(KIVTOOL_PATH) + "; s=$?; stty -g > after; (exit $s)");
  const std::string P = "<HX5200/> ";
  std::string startOnTty;   // the terminal shows each "\n" as "\r\n"
  for (char c : kStart) startOnTty += c == '\n' ? std::string("\r\n") : std::string(1, c);
  const std::string board = "kivtool: simulated board in " + std::filesystem::canonical(t.dir).string() +
                            "/sim (remove the directory to power-cycle it)\r\n";
  ASSERT_EQ(t.waitFor(startOnTty + board + P), 0u) << t.output();

  t.keys("reg ?");   // '?' not echoed; listing; then "reg " is typed again for us
  size_t at = t.waitFor(P + "\r" + P + "reg \x1b[J");
  ASSERT_NE(at, std::string::npos) << t.output();
  EXPECT_NE(t.output().find(P + "reg \r\n"), std::string::npos);
  t.keys("get 0x4a000000\r");
  at = t.waitFor("Success!!\r\n", at);
  ASSERT_NE(at, std::string::npos) << t.output();
  at += 11;   // after an ordinary command the next line starts empty
  ASSERT_NE(t.waitFor(P, at), std::string::npos);   // typed before raw mode it would be flushed
  t.keys("vl");
  ASSERT_NE(t.waitFor(P + "vl", at), std::string::npos);
  EXPECT_EQ(t.output().substr(at), P + "vl");
  t.keys("\t");   // completion: the completed word comes back pre-loaded
  ASSERT_NE(t.waitFor("\r" + P + "vlan", at), std::string::npos) << t.output();
  // A word nothing completes comes back as typed, and typing goes on where it stands.
  t.keys(std::string(4, 0x7f) + "reg gex\t");
  ASSERT_NE(at = t.waitFor("\r" + P + "reg gex", at), std::string::npos) << t.output();
  t.keys("\x7ft 0x4a000000\r");
  ASSERT_NE(t.waitFor("Success!!\r\n" + P, at), std::string::npos) << t.output();
  const std::string screen = t.screen();
  EXPECT_NE(screen.find(P + "reg get 0x4a000000\n[0x4A000000]=0x0000\nSuccess!!\n"), std::string::npos) << screen;
  t.keys(std::string(8, 0x7f) + "\x03" + "exit\r");
  EXPECT_EQ(t.wait(), 0) << t.output();
  EXPECT_FALSE(read_file(t.dir + "/before").empty());
  EXPECT_EQ(read_file(t.dir + "/before"), read_file(t.dir + "/after"));
}

// A signal that ends the tool at the prompt, where the terminal is raw, leaves `stty -a` as
// it was, and the tool ends by that signal (the signals are reset to their defaults first:
// the harness ignores the hang-up).
TEST(Tool, EndingSignalsAtThePromptRestoreTheTerminal) {
  for (const int sig : {SIGTERM, SIGHUP, SIGINT, SIGALRM, SIGUSR1, SIGPIPE}) {
    Term t("export KIVTOOL_SIM=sim K=" + quoted(KIVTOOL_PATH) + "; ulimit -c 0; stty -a > before; " +
           "env --default-signal sh -c 'echo $$ > pid; exec \"$K\"'; echo $? > code; stty -a > after");
    ASSERT_NE(t.waitFor("<HX5200/> "), std::string::npos) << t.output();
    ASSERT_EQ(kill(std::atoi(read_file(t.dir + "/pid").c_str()), sig), 0);
    t.wait();
    EXPECT_EQ(std::atoi(read_file(t.dir + "/code").c_str()), 128 + sig) << sig;
    EXPECT_FALSE(read_file(t.dir + "/before").empty());
    EXPECT_EQ(read_file(t.dir + "/before"), read_file(t.dir + "/after")) << sig;
  }
}

// A stop at the prompt gives the terminal its own settings back; the continue (`fg` of a
// job-control shell, after each file "go") takes raw mode again and draws the prompt and the
// line typed so far, which then runs once.
TEST(Tool, StopAndContinueAtThePrompt) {
  Term t("bash -c " + quoted("set -m; stty -a > before; env --default-signal KIVTOOL_SIM=sim " +
                             quoted(KIVTOOL_PATH) + " & echo $! > pid; fg; while kill -0 $(cat pid) 2>/dev/null; do "
                             "until rm go 2>/dev/null; do sleep 0.05; done; fg; done; stty -a > after"));
  ASSERT_NE(t.waitFor("<HX5200/> "), std::string::npos) << t.output();
  const pid_t pid = std::atoi(read_file(t.dir + "/pid").c_str());
  const int tty = open(t.tty().c_str(), O_RDONLY | O_NOCTTY);
  ASSERT_GE(tty, 0) << t.tty();
  auto cooked = [tty] {
    termios tio{};
    return tcgetattr(tty, &tio) == 0 && (tio.c_lflag & (ICANON | ECHO)) == (ICANON | ECHO);
  };
  auto state = [pid] {
    const std::string stat = read_file("/proc/" + std::to_string(pid) + "/stat");
    const size_t paren = stat.rfind(')');
    return paren == std::string::npos || paren + 2 >= stat.size() ? '?' : stat[paren + 2];
  };
  t.keys("reg get 0x4a0");
  ASSERT_NE(t.waitFor("0x4a0"), std::string::npos);
  EXPECT_FALSE(cooked());
  for (const int stop : {SIGTSTP, SIGSTOP}) {
    const size_t before = t.output().size();
    ASSERT_EQ(kill(pid, stop), 0);
    ASSERT_TRUE(poll_until([&] { return state() == 'T'; }));
    EXPECT_TRUE(poll_until(cooked)) << stop;   // as the shell gets it back
    write_file(t.dir + "/go", "");
    EXPECT_NE(t.waitFor("\r<HX5200/> reg get 0x4a0\x1b[J", before), std::string::npos) << stop;
    EXPECT_TRUE(poll_until([&] { return !cooked(); })) << stop;
  }
  close(tty);
  t.keys("00000\r");   // on a cooked terminal this would show twice
  ASSERT_NE(t.waitFor("Success!!"), std::string::npos) << t.output();
  EXPECT_EQ(count_of(t.screen(), "reg get 0x4a000000\n[0x4A000000]=0x0000\nSuccess!!"), 1u) << t.screen();
  EXPECT_EQ(count_of(t.screen(), "0x4a000000"), 1u) << t.screen();
  t.keys("exit\r");
  EXPECT_EQ(t.wait(), 0);
  EXPECT_FALSE(read_file(t.dir + "/before").empty());
  EXPECT_EQ(read_file(t.dir + "/before"), read_file(t.dir + "/after"));
}

}  // namespace
