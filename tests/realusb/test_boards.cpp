// Two boards on one host under the usbfs bed, with the unmodified tool and the real
// libusb-0.1: choosing an adapter, staying with it when it is pulled, taking it back.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>

#include "run_tool.h"
#include "sim/usbfs/usbfs_bed.h"

#ifndef KIV_UMOCKDEV_MISSING
namespace {

constexpr char kReg[] = "0x4A180048";
constexpr char kWrite[] = "reg set 0x4A180048 0x5a5a5a5a\n";

// A host with board A (port 1-3.1, serial A1) and board B (port 1-2, serial B2), B plugged
// first. Each board keeps its own state directory.
struct Bench {
  std::string dir = make_temp_dir("boards");
  EnvVars boardEnv;   // the boards read it when the bed attaches them
  ScopedEnv env{boardEnv};
  UsbfsBed bed{dir + "/bed"};
  int a = -1, b = -1;

  explicit Bench(const std::string &serialA = "A1", const std::string &serialB = "B2", bool withB = true,
                 const EnvVars &faults = {})
      : boardEnv(with(faults)) {
    if (withB) b = bed.plug_adapter_at("1-2", serialB, dir + "/B");
    a = bed.plug_adapter_at("1-3.1", serialA, dir + "/A");
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

// What the tool prints for a script when no adapter is there at all.
std::string output_without_adapter(const std::vector<std::string> &args, const std::string &input = {}) {
  std::string dir = make_temp_dir("noadapter");
  UsbfsBed bed(dir + "/bed");
  bed.plug_decoy();
  ToolRun r;
  r.args = args;
  r.input = input;
  r.cwd = dir;
  r.sim = false;
  r.env = bed.child_env(false);
  return run_tool(r).out;
}

size_t lines(const std::string &s) { return (size_t)std::count(s.begin(), s.end(), '\n'); }

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
  const std::string absent = output_without_adapter(cmd);
  for (const char *sel : {"path:9-9", "serial:nobody", "dev:001/099", "serial:S"}) {
    Bench bench("S", "S");
    std::vector<std::string> args = {"-a", sel};
    args.insert(args.end(), cmd.begin(), cmd.end());
    const ToolResult res = bench.run(args);
    EXPECT_EQ(res.out, absent) << sel;
    EXPECT_EQ(lines(res.err), 1u) << sel << ": " << res.err;
    EXPECT_NE(res.err.find(std::string(sel) == "serial:S" ? "2 USB I/O adapters match" : "no USB I/O adapter matches"),
              std::string::npos) << res.err;
    EXPECT_NE(res.err.find("1-2 serial S, 1-3.1 serial S"), std::string::npos) << res.err;
    EXPECT_EQ(bench.bed.claims_of(bench.a) + bench.bed.claims_of(bench.b), 0u) << sel;
  }
  for (const char *sel : {"bogus", "path:1-", "path:1-3..1", "dev:1", "dev:0/5", "serial:", "usb:1-2"}) {
    ToolRun r;
    r.args = {"-a", sel, "reg", "get", kReg};
    const ToolResult res = run_tool(r);
    EXPECT_EQ(res.status, 2) << sel;
    EXPECT_EQ(res.out, "") << sel;
    EXPECT_EQ(lines(res.err), 1u) << sel << ": " << res.err;
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
  std::string dir = make_temp_dir("one");
  ToolResult one;
  {
    UsbfsBed bed(dir + "/bed");
    bed.plug_adapter_at("1-3.1", "A1", dir + "/A");
    ToolRun r;
    r.args = {"reg", "get", kReg};
    r.cwd = dir;
    r.sim = false;
    r.env = bed.child_env(false);
    one = run_tool(r);
  }
  Bench bench;   // a bed of its own (one bed at a time in a process)
  const ToolResult res = bench.run({"reg", "get", kReg});
  EXPECT_EQ(res.out, one.out);
  EXPECT_EQ(one.err, "");
  ASSERT_EQ(lines(res.err), 1u) << res.err;
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
  struct Case {
    const char *what;
    std::vector<std::string> opts;
    std::string input;
    EnvVars faults;   // unplug@n pulls A at its n-th command header
  };
  const std::vector<Case> cases = {
      {"reg set", {"-a", "path:1-3.1"}, std::string("reg get 0x4A180048\n") + kWrite + "reg get 0x4A180048\n", {}},
      {"after chgpage", {"-a", "serial:A1"}, std::string("reg chgpage spic\n") + kWrite, {}},
      {"spi update", {"-a", "1-3.1"}, "spi update img.bin\nspi verify img.bin\n", {{"KIVTOOL_SIM_FAULTS", "unplug@40"}}},
  };
  for (const Case &c : cases) {
    ToolResult seen[2];
    for (bool withB : {false, true}) {
      Bench bench("A1", "B2", withB, c.faults);
      write_file(bench.dir + "/img.bin", image);
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

}  // namespace
#endif
