// The unmodified tool with the real libusb-0.1, against the simulated board served at the
// kernel's usbfs interface. Every script is also run on the in-process board
// (KIVTOOL_SIM): standard output must match byte for byte and the captured USB payloads
// must be the same, so the two paths are one board seen through two boundaries.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <functional>

#include "access/usbio.h"
#include "capture_reader.h"
#include "run_tool.h"
#include "sim/usbfs/usbfs_bed.h"

#ifdef KIV_UMOCKDEV_MISSING
TEST(RealUsb, NeedsUmockdev) {
  FAIL() << "umockdev was not found when the tests were configured: install the Debian packages "
            "umockdev, libumockdev-dev and libumockdev0 (make deps), then run make test again";
}
#else
namespace {

struct Script {
  std::vector<std::string> args;   // one-shot words, or
  std::string input;               // piped lines
  std::string cfg;                 // kivcfg.txt
  std::string faults;              // KIVTOOL_SIM_FAULTS
  std::vector<std::pair<std::string, std::string>> files;   // name, content
  // Board knobs: the flash's busy time counts status polls only, so that both runs see
  // the same polls whatever their speed.
  EnvVars knobs = {{"KIVTOOL_SIM_FLASH_WIP_MS", "0"}};
  std::string cwd;                 // shared by the two runs of a comparison (same file times)
};

struct Seen {
  ToolResult res;
  std::vector<std::vector<uint8_t>> payloads;   // every captured transfer that carried data
  std::vector<uint8_t> codes;                   // the command code of each header among them
  std::string flash;                            // the board's flash image afterwards
  std::vector<std::string> claimed;             // usbfs: nodes whose interface 0 was claimed
};

// The working directory with the script's files. Their times are set once, the access time
// ahead of the status change time, so that reading a file leaves its times as they are.
std::string prepare(Script &s) {
  if (!s.cwd.empty()) return s.cwd;
  s.cwd = make_temp_dir("realusb");
  if (!s.cfg.empty()) write_file(s.cwd + "/kivcfg.txt", s.cfg);
  const time_t now = time(nullptr);
  const timespec times[2] = {{now + 3600, 0}, {now - 120, 0}};
  for (const auto &[name, content] : s.files) {
    write_file(s.cwd + "/" + name, content);
    utimensat(AT_FDCWD, (s.cwd + "/" + name).c_str(), times, 0);
  }
  return s.cwd;
}

// The board's faults and knobs. It reads them from the environment when it is attached:
// the tool's on the in-process board, this process's on the usbfs bed.
EnvVars board_env(const Script &s) {
  EnvVars env = s.knobs;
  if (!s.faults.empty()) env.emplace_back("KIVTOOL_SIM_FAULTS", s.faults);
  return env;
}

// Runs the script with the board settings in `r` (each run has its own board and capture,
// named by `tag`) and reads back what the board saw.
Seen run_script(Script &s, const std::string &tag, ToolRun r) {
  r.args = s.args;
  r.input = s.input;
  r.cwd = prepare(s);
  r.timeoutMs = 60000;
  r.env.emplace_back("KIVTOOL_PCAP", s.cwd + "/" + tag + ".pcap");
  Seen seen;
  seen.res = run_tool(r);
  std::vector<UsbRecord> recs;
  EXPECT_TRUE(read_pcap(s.cwd + "/" + tag + ".pcap", recs)) << "capture of " << tag;
  for (const UsbRecord &rec : recs) {
    if (rec.data.empty()) continue;
    seen.payloads.push_back(rec.data);
    // Command headers and the responses that repeat them.
    if (rec.data.size() >= 24 && rec.data[0] == 0x01 && rec.data[1] == 0xFE && rec.data[2] == 0x02)
      seen.codes.push_back(rec.data[8]);
  }
  seen.flash = read_file(s.cwd + "/" + tag + "/flash.bin");
  return seen;
}

Seen on_sim(Script &s) {
  ToolRun r;
  r.env = board_env(s);
  r.env.emplace_back("KIVTOOL_SIM", prepare(s) + "/sim");
  return run_script(s, "sim", r);
}

void plug_decoy_then_adapter(UsbfsBed &bed) {
  bed.plug_unrelated();
  bed.plug_decoy();
  bed.plug_adapter();
}

// build/kivtool under the bed: no KIVTOOL_SIM, the bed's environment.
Seen on_usbfs(Script &s, const std::function<void(UsbfsBed &, ToolRun &)> &setup = {}) {
  ScopedEnv env(board_env(s));
  UsbfsBed bed(prepare(s) + "/usbfs");
  ToolRun r;
  if (setup) setup(bed, r);
  else plug_decoy_then_adapter(bed);
  r.sim = false;
  for (auto &kv : bed.child_env(r.uid >= 0)) r.env.push_back(kv);
  Seen seen = run_script(s, "usbfs", r);
  EXPECT_GT(bed.ioctls_served(), 0u) << "the tool never reached the usbfs bed";
  seen.claimed = bed.claimed_nodes();
  return seen;
}

void expect_same(const Seen &usbfs, const Seen &sim, const std::string &what) {
  EXPECT_FALSE(usbfs.res.timedOut) << what;
  EXPECT_EQ(usbfs.res.status, sim.res.status) << what;
  EXPECT_EQ(usbfs.res.out, sim.res.out) << what << "\nstderr: " << usbfs.res.err;
  EXPECT_EQ(usbfs.payloads.size(), sim.payloads.size()) << what;
  for (size_t i = 0; i < std::min(usbfs.payloads.size(), sim.payloads.size()); ++i) {
    if (usbfs.payloads[i] == sim.payloads[i]) continue;
    ADD_FAILURE() << what << ": transfer " << i << " differs: usbfs " << hex_of(usbfs.payloads[i], 48, " ")
                  << ", in-process " << hex_of(sim.payloads[i], 48, " ");
    break;
  }
}

Seen compare(Script s, const std::string &what) {
  Seen sim = on_sim(s);
  Seen usbfs = on_usbfs(s);
  expect_same(usbfs, sim, what);
  return usbfs;
}

class RealUsb : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string why;
    if (!usbfs_bed_available(why)) FAIL() << why;
  }
};

// ---- transfers per interface ------------------------------------------------------------

TEST_F(RealUsb, RegisterReadAndWriteOnEachInterface) {
  for (const char *iface : {"i2c", "smi", "spi"}) {
    Script s;
    s.cfg = std::string("interface ") + iface + "\n";
    s.input = "reg set 0x4A180048 0x00a5005a\nreg get 0x4A180048\nreg set 0x4A180048 0xffffffff\n"
              "reg get 0x4A180048\nreg chgpage axi\nreg get 0x103ff0\n";
    const Seen seen = compare(s, iface);
    // Found behind an unrelated device and the decoy (on_usbfs plugs them first).
    EXPECT_NE(seen.res.out.find("=0xFFFFFFFF"), std::string::npos) << iface << "\n" << seen.res.out;
    EXPECT_EQ(seen.res.out.find("not match"), std::string::npos) << "the chip check failed:\n" << seen.res.out;
  }
}

TEST_F(RealUsb, BurstReadAndASmallImageUpdateThenVerify) {
  std::string image(1100, '\0');
  for (size_t i = 0; i < image.size(); ++i) image[i] = (char)(i * 7 + 3);
  Script s;
  s.files = {{"img.bin", image}};
  s.input = "reg set 0x4A180050 0x77\nreg getburst 0x4A180048 3\nspi update img.bin\nspi verify img.bin\n";
  const Seen seen = compare(s, "burst and update");
  EXPECT_NE(seen.res.out.find("Matched"), std::string::npos) << seen.res.out;
  EXPECT_EQ(seen.flash.substr(0, image.size()), image);
}

// ---- faults -------------------------------------------------------------------------------

// Start-up sends three configuration headers and four chip-check accesses; header 8 is the
// script's write and header 9 its read.
TEST_F(RealUsb, EveryFaultKindGivesTheSameOutputAndTraffic) {
  for (const char *fault : {"nak@8", "badstatus@8", "nocomplete@8", "wrongcode@9", "unplug@8", "nak@8,nak@9"}) {
    Script s;
    s.input = "reg set 0x4A180048 0x5a\nreg get 0x4A180048\nreg get 0x4A180048\n";
    s.faults = fault;
    const Seen seen = compare(s, fault);
    // Every kind but a lost adapter is overcome by the resend or the retry.
    EXPECT_EQ(seen.res.out.find("Success!!") != std::string::npos, s.faults != "unplug@8") << fault;
  }
}

// ---- unplug and replug ----------------------------------------------------------------------

TEST_F(RealUsb, AdapterPulledBetweenCommandsAndPluggedBackReconnects) {
  Script s;
  s.input = "reg set 0x4A180048 0x5a\nreg get 0x4A180048\n";
  const Seen plain = on_sim(s);
  const Seen seen = on_usbfs(s, [](UsbfsBed &bed, ToolRun &r) {
    plug_decoy_then_adapter(bed);
    r.beforeLine = [&bed](size_t) {
      bed.unplug_adapter();
      bed.replug_adapter();
    };
  });
  // The read fails on the stale handle (sent, then resent), the retry reconnects (the three
  // configuration commands) and the read goes through on the new device (command and
  // response): nothing of it shows on the console.
  EXPECT_EQ(seen.res.out, plain.res.out) << seen.res.err;
  EXPECT_EQ(seen.claimed.size(), 2u);
  const std::vector<uint8_t> tail = {0x14, 0x14, 0x11, 0x21, 0x41, 0x14, 0x14};
  ASSERT_GE(seen.codes.size(), tail.size());
  EXPECT_TRUE(std::equal(tail.begin(), tail.end(), seen.codes.end() - (long)tail.size())) << hex_of(seen.codes);
}

// ---- permissions ----------------------------------------------------------------------------

// The adapter cannot be claimed at start-up; once the cause is gone, `set i2cid` reconnects.
// The console shows what it shows with no adapter plugged in (checked against a bed where
// the adapter is plugged in only then), and one line on standard error names the cause.
void check_unusable(UsbfsBed::Claim claim, const std::string &cause, int uid = -1) {
  Script s;
  s.input = "reg get 0x4A180048\nset i2cid 4\nreg get 0x4A180048\n";
  const Seen absent = on_usbfs(s, [](UsbfsBed &bed, ToolRun &r) {
    bed.plug_decoy();
    r.beforeLine = [&bed](size_t line) {
      if (line == 1) bed.plug_adapter();
    };
  });
  std::string node;
  Script again = s;
  again.cwd.clear();   // its own directory: another user writes its capture there
  prepare(again);
  std::string program;
  if (uid >= 0) {
    // The other user may not reach the build tree (a checkout under /root): it runs a copy.
    chmod(again.cwd.c_str(), 0777);
    program = again.cwd + "/kivtool";
    write_file(program, read_file(KIVTOOL_PATH));
    chmod(program.c_str(), 0755);
  }
  const Seen seen = on_usbfs(again, [&](UsbfsBed &bed, ToolRun &r) {
    plug_decoy_then_adapter(bed);
    bed.set_claim(claim);
    node = bed.adapter_node();
    r.uid = uid;
    r.program = program;
    r.beforeLine = [&bed](size_t line) {
      if (line == 1) bed.set_claim(UsbfsBed::Claim::ok);
    };
  });
  EXPECT_EQ(seen.res.out, absent.res.out) << cause;
  EXPECT_NE(seen.res.out.find("Not Found"), std::string::npos) << seen.res.out;
  EXPECT_NE(seen.res.out.rfind("[0x4A180048]=0x"), std::string::npos) << "not usable again:\n" << seen.res.out;
  EXPECT_EQ(std::count(seen.res.err.begin(), seen.res.err.end(), '\n'), 1) << seen.res.err;
  EXPECT_EQ(seen.res.err.rfind("kivtool: " + node + ": " + cause, 0), 0u) << seen.res.err;
  EXPECT_EQ(absent.res.err, "");
}

TEST_F(RealUsb, InterfaceClaimedByAnotherProgram) {
  check_unusable(UsbfsBed::Claim::busy, "the USB I/O adapter is in use by another program");
}

// The node is read-only for this user: libusb-0.1 opens it read-only and the claim is
// refused with EPERM. Root ignores file modes, so root runs the tool as "nobody".
TEST_F(RealUsb, NodeThisUserMayNotWrite) {
  check_unusable(UsbfsBed::Claim::readOnlyNode, "permission denied", geteuid() == 0 ? 65534 : -1);
}

// The shipped udev rule names the adapter the tool looks for.
TEST(RealUsbRule, MatchesTheAdapterTheToolOpens) {
  const std::string rule = read_file(std::string(KIV_SOURCE_DIR) + "/udev/60-kivtool.rules");
  char ids[96];
  snprintf(ids, sizeof ids, "ATTR{idVendor}==\"%04x\", ATTR{idProduct}==\"%04x\"", USBIO_VID, USBIO_PID);
  EXPECT_NE(rule.find(ids), std::string::npos) << rule;
  EXPECT_NE(rule.find("TAG+=\"uaccess\""), std::string::npos);
  EXPECT_NE(rule.find("MODE=\"0660\", GROUP=\"plugdev\""), std::string::npos);
}

}  // namespace
#endif
