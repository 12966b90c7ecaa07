// Two boards on one host under the usbfs bed, with the unmodified tool and the real
// libusb-0.1: choosing an adapter, staying with it when it is pulled, taking it back.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <chrono>
#include <functional>

#include "../shell/terminal.h"
#include "capture_reader.h"
#include "sim/usbfs/usbfs_bed.h"

#ifndef KIV_UMOCKDEV_MISSING
namespace {

constexpr char kReg[] = "0x4A180048";
constexpr char kWrite[] = "reg set 0x4A180048 0x5a5a5a5a\n";

// A host with board A (port 1-3.1, serial A1) and board B (port 1-2, serial B2), B plugged
// first; or A alone, or only a decoy. Each board keeps its own state directory. One bed at
// a time in a process (each makes its own /sys and /dev for the children).
struct Bench {
  std::string dir = make_temp_dir("boards");
  EnvVars boardEnv;   // the boards read it when the bed attaches them
  ScopedEnv env{boardEnv};
  UsbfsBed bed{dir + "/bed"};
  int a = -1, b = -1;

  explicit Bench(int adapters = 2, const std::string &serialA = "A1", const std::string &serialB = "B2",
                 const EnvVars &faults = {})
      : boardEnv(with(faults)) {
    if (adapters == 0) bed.plug_decoy();
    if (adapters == 2) b = bed.plug_adapter_at("1-2", serialB, dir + "/B");
    if (adapters >= 1) a = bed.plug_adapter_at("1-3.1", serialA, dir + "/A");
  }
  static EnvVars with(EnvVars extra) {
    extra.emplace_back("KIVTOOL_SIM_FLASH_WIP_MS", "0");
    return extra;
  }

  ToolResult run(const std::vector<std::string> &args, const std::string &input = {}, EnvVars extra = {},
                 std::function<void(size_t)> beforeLine = {}) {
    ToolRun r;
    r.args = args;
    r.input = input;
    r.cwd = dir;
    r.sim = false;
    r.env = std::move(extra);
    r.beforeLine = std::move(beforeLine);
    r.timeoutMs = 60000;
    for (auto &kv : bed.child_env(false)) r.env.push_back(kv);
    return run_tool(r);
  }
};

// A register of a board as the board keeps it (read on that board alone, in-process).
std::string board_reg(const std::string &boardDir, const char *addr = kReg) {
  ToolRun r;
  r.args = {"reg", "get", addr};
  r.env = {{"KIVTOOL_SIM", boardDir}};
  const std::string out = run_tool(r).out;
  const size_t eq = out.find("]=0x");
  return eq == std::string::npos ? out : out.substr(eq + 2, out.find('\n', eq) - eq - 2);
}

class Boards : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string why;
    if (!usbfs_bed_available(why)) FAIL() << why;
  }
};

// Each way of naming an adapter reaches that board alone, whichever comes first on the bus.
TEST_F(Boards, SelectorReachesOnlyTheNamedBoard) {
  struct Case {
    std::vector<std::string> opts;
    EnvVars env;
    bool wantA;
  };
  const std::vector<Case> cases = {
      {{"-a", "path:1-3.1"}, {}, true},
      {{"--adapter", "1-2"}, {}, false},
      {{"--adapter=serial:A1"}, {}, true},
      {{"-a", "serial:B2"}, {}, false},
      {{}, {{"KIVTOOL_ADAPTER", "path:1-3.1"}}, true},
      {{"-a", "1-2"}, {{"KIVTOOL_ADAPTER", "path:1-3.1"}}, false},   // the option wins
      {{"-a", "dev:"}, {}, true},                                    // A's bus/dev filled in below
  };
  for (Case c : cases) {
    Bench bench;
    if (c.opts.size() == 2 && c.opts[1] == "dev:") c.opts[1] = "dev:" + bench.bed.node_of(bench.a).substr(13);
    std::vector<std::string> args = c.opts;
    for (const char *w : {"reg", "set", kReg, "0x5a5a5a5a"}) args.push_back(w);
    const std::string what = c.opts.empty() ? c.env[0].second : c.opts.back();
    const ToolResult res = bench.run(args, {}, c.env);
    EXPECT_NE(res.out.find("Success!!"), std::string::npos) << what << "\n" << res.out << res.err;
    EXPECT_EQ(res.err, "") << what;
    const int chosen = c.wantA ? bench.a : bench.b, other = c.wantA ? bench.b : bench.a;
    EXPECT_GT(bench.bed.claims_of(chosen), 0u) << what;
    EXPECT_EQ(bench.bed.claims_of(other), 0u) << what;
    bench.bed.flush_boards();
    EXPECT_EQ(board_reg(bench.dir + (c.wantA ? "/A" : "/B")), "0x5A5A5A5A") << what;
    EXPECT_EQ(board_reg(bench.dir + (c.wantA ? "/B" : "/A")), "0x0000") << what;
  }
}

// Nothing is opened when no adapter or several match; a malformed selector stops at once.
TEST_F(Boards, NoMatchSharedSerialAndMalformedSelectors) {
  const std::vector<std::string> cmd = {"reg", "get", kReg};
  const std::string absent = Bench(0).run(cmd).out;   // what it prints with no adapter at all
  for (const char *sel : {"path:9-9", "serial:nobody", "dev:001/099", "serial:S"}) {
    Bench bench(2, "S", "S");
    std::vector<std::string> args = {"-a", sel};
    args.insert(args.end(), cmd.begin(), cmd.end());
    const ToolResult res = bench.run(args);
    EXPECT_EQ(res.out, absent) << sel;
    EXPECT_EQ(count_of(res.err, "\n"), 1u) << sel << ": " << res.err;
    EXPECT_NE(res.err.find(std::string(sel) == "serial:S" ? "2 USB I/O adapters match" : "no USB I/O adapter matches"),
              std::string::npos) << res.err;
    EXPECT_NE(res.err.find("1-2 serial S, 1-3.1 serial S"), std::string::npos) << res.err;
    EXPECT_EQ(bench.bed.claims_of(bench.a) + bench.bed.claims_of(bench.b), 0u) << sel;
  }
  for (const char *sel : {"bogus", "path:1-", "path:1-3..1", "dev:1", "dev:0/5", "serial:", "usb:1-2", ""}) {
    ToolRun r;
    r.args = {"-a", sel, "reg", "get", kReg};
    const ToolResult res = run_tool(r);
    EXPECT_EQ(res.status, 2) << sel;
    EXPECT_EQ(res.out, "") << sel;
    EXPECT_EQ(count_of(res.err, "\n"), 1u) << sel << ": " << res.err;
  }
  ToolRun r;
  r.args = {"reg", "get", kReg};
  r.env = {{"KIVTOOL_ADAPTER", "nonsense"}};
  EXPECT_EQ(run_tool(r).status, 2);
  r.args = {"-a"};
  EXPECT_EQ(run_tool(r).status, 2);
}

// With no selector the first adapter is taken as before; standard error names it.
TEST_F(Boards, WithoutSelectorTheFirstIsTakenAndNamed) {
  const ToolResult one = Bench(1).run({"reg", "get", kReg});
  Bench bench;
  const ToolResult res = bench.run({"reg", "get", kReg});
  EXPECT_EQ(res.out, one.out);
  EXPECT_EQ(one.err, "");
  ASSERT_EQ(count_of(res.err, "\n"), 1u) << res.err;
  const int taken = bench.bed.claims_of(bench.a) ? bench.a : bench.b;
  EXPECT_EQ(bench.bed.claims_of(taken == bench.a ? bench.b : bench.a), 0u);
  EXPECT_NE(res.err.find("took " + bench.bed.node_of(taken) + " at port " + (taken == bench.a ? "1-3.1" : "1-2")),
            std::string::npos) << res.err;

  const ToolResult list = bench.run({"--list-adapters"});
  EXPECT_EQ(list.status, 0);
  EXPECT_EQ(list.out, "node\tport path\tserial\tthis user can open it\n" + bench.bed.node_of(bench.b) +
                          "\t1-2\tB2\tyes\n" + bench.bed.node_of(bench.a) + "\t1-3.1\tA1\tyes\n");
}

// Board A is pulled while B stays: what follows fails as with A alone on the host (same
// console output), and B is never opened. Also when A goes in the middle of an update.
TEST_F(Boards, PulledAdapterNeverMovesTheSessionToAnother) {
  std::string image(3000, '\0');
  for (size_t i = 0; i < image.size(); ++i) image[i] = (char)(i * 13 + 1);
  // One image file for both runs: `spi update` prints its times. Reading it must not change
  // them, so its access time is set ahead of the others.
  const std::string img = make_temp_dir("img") + "/img.bin";
  write_file(img, image);
  const timespec times[2] = {{time(nullptr) + 3600, 0}, {time(nullptr) - 120, 0}};
  utimensat(AT_FDCWD, img.c_str(), times, 0);
  struct Case {
    const char *what;
    std::vector<std::string> opts;
    std::string input;
    EnvVars faults;   // unplug@n pulls A at its n-th command header
  };
  const std::vector<Case> cases = {
      {"reg set", {"-a", "path:1-3.1"}, std::string("reg get 0x4A180048\n") + kWrite + "reg get 0x4A180048\n", {}},
      {"after chgpage", {"-a", "serial:A1"}, std::string("reg chgpage spic\n") + kWrite, {}},
      {"spi update", {"-a", "1-3.1"}, "spi update " + img + "\nspi verify " + img + "\n", {{"KIVTOOL_SIM_FAULTS", "unplug@300"}}},
  };
  for (const Case &c : cases) {
    ToolResult seen[2];
    for (bool withB : {false, true}) {
      Bench bench(withB ? 2 : 1, "A1", "B2", c.faults);
      seen[withB] = bench.run(c.opts, c.input, {}, [&](size_t line) {
        if (line == 1 && c.faults.empty()) bench.bed.pull(bench.a);
      });
      EXPECT_FALSE(seen[withB].timedOut) << c.what;
      if (!withB) continue;
      EXPECT_EQ(bench.bed.claims_of(bench.b), 0u) << c.what;
      bench.bed.flush_boards();
      EXPECT_EQ(board_reg(bench.dir + "/B"), "0x0000") << c.what;
      const std::string flashB = read_file(bench.dir + "/B/flash.bin");
      EXPECT_EQ(flashB.find_first_not_of('\xff'), std::string::npos) << c.what;
    }
    EXPECT_EQ(seen[1].out, seen[0].out) << c.what;
    EXPECT_EQ(count_of(seen[1].out, "Matched"), 0u) << c.what;
    EXPECT_NE(seen[1].err.find("is not on the bus; no other adapter is opened"), std::string::npos) << c.what << seen[1].err;
  }
}

// A plugged back (as a new device) is taken again at the next reconnect: in the same port
// always, in another port only when it was chosen by serial number.
TEST_F(Boards, PluggedBackIsTakenAgainInItsPortOrBySerial) {
  struct Case {
    const char *sel, *port;
    bool back;
  };
  for (const Case &c : {Case{"path:1-3.1", "", true}, Case{"path:1-3.1", "1-4", false},
                        Case{"serial:A1", "1-4", true}, Case{"dev:001/003", "", true}}) {
    Bench bench;
    const ToolResult res = bench.run({"-a", c.sel}, std::string(kWrite) + "reg set 0x4A180048 0x77\n", {},
                                     [&](size_t line) {
                                       if (line != 1) return;
                                       bench.bed.pull(bench.a);
                                       bench.bed.plug_back(bench.a, c.port);
                                     });
    const std::string what = std::string(c.sel) + " back into " + (*c.port ? c.port : "its port");
    EXPECT_EQ(count_of(res.out, "Success!!"), c.back ? 2u : 1u) << what << "\n" << res.out;
    EXPECT_EQ(bench.bed.claims_of(bench.b), 0u) << what;
    bench.bed.flush_boards();
    EXPECT_EQ(board_reg(bench.dir + "/A"), c.back ? "0x0077" : "0x5A5A5A5A") << what;
  }
}

// The tool at a terminal (a tmux pane) in the bench's directory, with the bed's environment
// and `env`.
std::string at_terminal(Bench &bench, const EnvVars &env) {
  std::string cmd = "(cd " + ::quoted(bench.dir) + " && env";
  for (const auto &[k, v] : bench.bed.child_env(false)) cmd += " " + ::quoted(k + "=" + v);
  for (const auto &[k, v] : env) cmd += " " + ::quoted(k + "=" + v);
  return cmd + " " + ::quoted(KIVTOOL_PATH) + " -a serial:A1)";
}

// At the prompt the adapter's leaving and coming back show at once, without a key, and the
// line being typed is drawn again; the other board's adapter coming and going shows nothing.
TEST_F(Boards, PromptShowsTheAdapterLeavingAndComingBack) {
  constexpr char kGone[] = "kivshell: USBIO device Disconnected.", kBack[] = "kivshell: USBIO device Connected.";
  constexpr size_t npos = std::string::npos;
  Bench bench;
  const std::string pcap = bench.dir + "/prompt.pcap";
  {
    Term t(at_terminal(bench, {{"KIVTOOL_PCAP", pcap}}));
    ASSERT_NE(t.waitFor("<HX5200/> "), npos) << t.output();
    t.keys("reg get 0x4A18");
    ASSERT_NE(t.waitFor("0x4A18"), npos);
    bench.bed.pull(bench.b);
    bench.bed.plug_back(bench.b);
    size_t mark = t.output().size();
    bench.bed.pull(bench.a);
    const size_t gone = t.waitFor(kGone, mark);
    ASSERT_NE(gone, npos) << t.output();
    EXPECT_EQ(t.output().find("kivshell: USBIO device"), gone) << "another adapter gave a message";
    EXPECT_NE(t.waitFor("<HX5200/> reg get 0x4A18", gone), npos) << t.output();
    mark = t.output().size();
    bench.bed.plug_back(bench.a, "1-5");   // by serial: any port
    const size_t back = t.waitFor(kBack, mark);
    ASSERT_NE(back, npos) << t.output();
    EXPECT_NE(t.waitFor("<HX5200/> reg get 0x4A18", back), npos) << t.output();
    t.keys("0048\r");
    EXPECT_NE(t.waitFor("Success!!", mark), npos) << t.output();
    EXPECT_EQ(t.output().find("Not Found"), npos) << t.output();
    mark = t.output().size();
    bench.bed.pull(bench.a);   // a quick replug: both show
    bench.bed.plug_back(bench.a);
    EXPECT_TRUE(t.waitFor(kGone, mark) != npos && t.waitFor(kBack, mark) != npos) << t.output().substr(mark);
    t.keys("exit\r");
    EXPECT_EQ(t.wait(), 0);
  }
  EXPECT_EQ(bench.bed.claims_of(bench.b), 0u);
  std::vector<UsbRecord> recs;
  ASSERT_TRUE(read_pcap(pcap, recs));
  std::vector<uint8_t> configs;
  for (const UsbRecord &rec : recs)
    if (rec.data.size() == 24 && rec.data[0] == 0x01 && (rec.data[8] & 0x0F) == 1) configs.push_back(rec.data[8]);
  EXPECT_EQ(configs, (std::vector<uint8_t>{0x11, 0x21, 0x41, 0x11, 0x21, 0x41, 0x11, 0x21, 0x41}))
      << "start-up, then each reconnect";

  // Turned off: the next access finds out instead.
  Term t(at_terminal(bench, {{"KIVTOOL_HOTPLUG", "0"}}));
  ASSERT_NE(t.waitFor("<HX5200/> "), npos) << t.output();
  bench.bed.pull(bench.a);
  std::this_thread::sleep_for(std::chrono::milliseconds(700));
  EXPECT_EQ(t.output().find("USBIO device"), npos) << t.output();
  t.keys("exit\r");
  EXPECT_EQ(t.wait(), 0);
}

}  // namespace
#endif
