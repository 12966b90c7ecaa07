// Fault matrix: every fault kind the simulated adapter can inject, at several points of the
// adapter traffic, against each command family. Whatever the fault, the tool must neither
// crash nor hang, every command must still end with its report line, a fault that the
// protocol recovers from must leave the output as it was without it, a lost adapter must
// be reported, and an image update damaged by a fault must not pass a later verify.
//
// Points are counted in command headers, as KIVTOOL_SIM_FAULTS counts them: a fault-free
// run with a USB capture tells how many headers a family sends, and the faults go to its
// first command header, the last one and two in between. Headers 1 to 7 belong to
// start-up (three configuration exchanges, four register accesses of the chip check).
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "../flash/flash_bench.h"
#include "capture_reader.h"

namespace {

constexpr uint32_t kStartupHeaders = 7;
constexpr std::array<const char *, 6> kKinds = {"nak", "badstatus", "nocomplete", "wrongcode", "unplug", "datamissing"};

// Lines that report how a command ended: one per command line given.
int reportLines(const std::string &out) {
  int n = 0;
  std::istringstream in(out);
  for (std::string line; std::getline(in, line);)
    if (line == "Success!!" || line.rfind("Errno : ", 0) == 0 || line == "Error!!") n++;
  return n;
}

int lineCount(const std::string &text) { return static_cast<int>(std::count(text.begin(), text.end(), '\n')); }

// The text without the lines that contain any of `parts` (file times that `spi update`
// prints change between runs: "Last modified time:", "last access time:", ...).
std::string withoutLines(const std::string &out, std::initializer_list<const char *> parts) {
  std::istringstream in(out);
  std::string kept;
  for (std::string line; std::getline(in, line);)
    if (std::none_of(parts.begin(), parts.end(), [&](const char *p) { return line.find(p) != std::string::npos; }))
      kept += line + "\n";
  return kept;
}

struct Family {
  const char *name;
  std::string input;   // lines fed to the tool; the last one reads a register
};

struct Case {
  const Family *family;
  std::string kind;
  uint32_t at;
  std::string cwd;
  ToolResult result;
};

ToolResult runFamily(const std::string &input, const std::string &cwd, const std::string &faults,
                     const std::string &pcap = {}) {
  ToolRun r;
  r.input = input;
  r.cwd = cwd;
  r.timeoutMs = 60000;
  if (!faults.empty()) r.env.emplace_back("KIVTOOL_SIM_FAULTS", faults);
  if (!pcap.empty()) r.env.emplace_back("KIVTOOL_PCAP", pcap);
  return run_tool(r);
}

// Runs the cases on a few threads: most of a faulted run is spent waiting for a time-out.
void runAll(std::vector<Case> &cases) {
  std::atomic<size_t> next{0};
  auto worker = [&] {
    for (size_t i; (i = next++) < cases.size();) {
      Case &c = cases[i];
      c.result = runFamily(c.family->input, c.cwd, c.kind + "@" + std::to_string(c.at));
    }
  };
  std::vector<std::thread> pool;
  for (int t = 0; t < 3; t++) pool.emplace_back(worker);
  for (auto &t : pool) t.join();
}

std::vector<uint32_t> pointsIn(uint32_t first, uint32_t last) {
  std::vector<uint32_t> at = {first, first + (last - first) / 3, first + 2 * (last - first) / 3, last};
  at.erase(std::unique(at.begin(), at.end()), at.end());
  return at;
}

// Checks every run must pass, whatever the fault.
void expectSurvived(const Case &c, int commands) {
  const std::string what = std::string(c.family->name) + " with " + c.kind + "@" + std::to_string(c.at);
  EXPECT_FALSE(c.result.timedOut) << what;
  EXPECT_EQ(c.result.status, 0) << what << "\n" << c.result.err;
  for (const char *report : {"Sanitizer", "runtime error"})
    EXPECT_EQ(c.result.err.find(report), std::string::npos) << what << "\n" << c.result.err;
  EXPECT_EQ(reportLines(c.result.out), commands) << what << "\n" << c.result.out;
}

const std::string kSentinel = "reg get 0x100\n";

}  // namespace

// Each family's commands, then a register read that shows whether the adapter is still
// there.
TEST(FaultMatrix, CommandFamiliesSurviveEveryFault) {
  std::vector<Family> fams = {
      {"reg", "reg set 0x100 0x5a5a\nreg get 0x100\nreg setbits 0x104 4 7 9\nreg getbits 0x104 4 7\n"},
      {"smi", "set regif smi\nsmi set 1 2 0x1234\nsmi get 1 2\nreg set 0x100 7\n"},
      {"reg over spi", "set regif spi\nreg set 0x100 0x5a5a\nreg get 0x100\nreg setbit 0x104 3 1\n"},
      {"mmd/phy", "mmd write 1 7 60 0x1234\nmmd read 1 7 60\nphy write 1 0 4 0x1e1\nphy read 1 0 4\n"
                  "gphy readext 0xa43 26\n"},
      {"mib", "mib enable\nmib read 5\nmib clear 3\n"},
      {"vlan", "vlan set 10 3 1 2 0 1\nvlan get 10\nvlan pvid 3 inner set 20\nvlan pvid 3 inner get\n"},
      {"spi read", "spi rdid\nspi read 0 64\n"},
      {"spi write", "spi write 0x100 0x11223344 4\nspi read 0x100 4\n"},
      {"spi erase", "spi erase sector 1 2\nspi erase block 1 1\n"},
  };
  for (Family &f : fams) f.input += kSentinel;

  // Fault-free runs: the expected output and the headers each family sends.
  std::vector<std::string> baseline(fams.size());
  std::vector<Case> cases;
  for (size_t i = 0; i < fams.size(); i++) {
    const std::string dir = make_temp_dir("kivfault");
    const ToolResult r = runFamily(fams[i].input, dir, "", dir + "/usb.pcap");
    ASSERT_EQ(reportLines(r.out), lineCount(fams[i].input)) << fams[i].name << "\n" << r.out;
    baseline[i] = r.out;
    const uint32_t headers = static_cast<uint32_t>(command_headers(dir + "/usb.pcap").size());
    ASSERT_GT(headers, kStartupHeaders + 1) << fams[i].name;
    // The faults go to the family's own commands (the closing read may take several).
    for (uint32_t at : pointsIn(kStartupHeaders + 1, headers - 1))
      for (const char *kind : kKinds) cases.push_back({&fams[i], kind, at, make_temp_dir("kivfault"), {}});
  }
  runAll(cases);

  for (const Case &c : cases) {
    const size_t i = static_cast<size_t>(c.family - fams.data());
    const std::string what = std::string(c.family->name) + " with " + c.kind + "@" + std::to_string(c.at);
    expectSurvived(c, lineCount(c.family->input));
    const std::string &out = c.result.out;
    const bool flashFamily = std::string(c.family->name).rfind("spi", 0) == 0;
    if (c.kind == "unplug") {
      // The adapter left the bus: at the latest the register read at the end says so.
      EXPECT_TRUE(out.find("kivshell: USBIO device") != std::string::npos || out.find("Errno : ") != std::string::npos)
          << what << "\n" << out;
      EXPECT_NE(out, baseline[i]) << what;
    } else if (c.kind == "nak" || c.kind == "badstatus" || c.kind == "datamissing" || !flashFamily) {
      // One refused or unanswered exchange is sent again and the run reads as without it
      // (these three make the adapter refuse a command before carrying it out).
      EXPECT_EQ(out, baseline[i]) << what;
    }
    // A lost completion or response on the flash controller's data register can make the
    // repeated exchange move its FIFO once more; such runs need only survive (above).
  }
}

TEST(FaultMatrix, StartUpFaultsAreReportedAndCommandsStillRun) {
  const std::string input = "reg set 0x100 0x5a5a\n" + kSentinel;
  const std::string dir = make_temp_dir("kivfault");
  const ToolResult base = runFamily(input, dir, "");
  ASSERT_EQ(reportLines(base.out), 2) << base.out;
  const Family fam{"start-up", input};

  std::vector<Case> cases;
  for (uint32_t at = 1; at <= kStartupHeaders; at++)
    for (const char *kind : kKinds) cases.push_back({&fam, kind, at, make_temp_dir("kivfault"), {}});
  runAll(cases);

  for (const Case &c : cases) {
    const std::string what = c.kind + "@" + std::to_string(c.at);
    expectSurvived(c, 2);
    const std::string &out = c.result.out;
    const bool configuration = c.at <= 3;   // 0x11, 0x21, 0x41
    const bool configFails = c.kind == "badstatus" || c.kind == "nocomplete" || c.kind == "unplug";
    if (configuration && configFails) {
      const char *line = c.at == 1 ? "kivshell: USBIO device IIC Configure error." : "kivshell: USBIO device SPI Configure error.";
      EXPECT_NE(out.find(line), std::string::npos) << what << "\n" << out;
    }
    if (c.kind == "unplug") {
      // No chip to check and no adapter for the commands: both are said.
      EXPECT_NE(out.find("This KIV build is not match with current chip version"), std::string::npos) << what;
      EXPECT_NE(out.find("kivshell: USBIO device Not Found"), std::string::npos) << what;
    } else if (!(configuration && configFails)) {
      EXPECT_EQ(out, base.out) << what;
    } else {
      // A failed configuration step is reported; the retried accesses then work as usual.
      EXPECT_EQ(withoutLines(out, {"Configure error."}), base.out) << what;
    }
  }
}

// With -e a line fails also when its command shows the failure only in what it prints (a
// value read as 0, "Not Found" lines, a message) and still ends in "Success!!". Faults hit
// the line's first command header (7 go to start-up).
TEST(FaultMatrix, ErrexitCatchesFailuresShownOnlyInMessages) {
  const struct {
    const char *line;
    const char *faults;
    int status;
  } cases[] = {
      {"reg getbit 0x100 3", "unplug@8", 1},   {"reg getbit 0x100 3", "", 0},
      {"reg setbits 0x100 0 3 5", "unplug@8", 1}, {"mmd read 1 7 60", "unplug@8", 1},
      {"mmd read 1 7 60", "", 0},              {"mib read 5", "unplug@8", 1},
      {"mib read 5", "", 0},                   {"mib sys", "unplug@30", 1},
      {"vlan init", "unplug@8", 1},            {"vlan init", "", 0},
      {"vlan igfilter get 3", "unplug@8", 1},  {"get fwver", "unplug@8", 1},
      {"reg chgpage 82", "", 1},               {"reg chgpage 81", "", 0},
  };
  for (const auto &c : cases) {
    ToolRun r;
    r.args = {"-e"};
    for (std::istringstream words(c.line); r.args.emplace_back(), words >> r.args.back();) {}
    r.args.pop_back();
    if (*c.faults) r.env.emplace_back("KIVTOOL_SIM_FAULTS", c.faults);
    const ToolResult res = run_tool(r);
    EXPECT_EQ(res.status, c.status) << c.line << " " << c.faults << "\n" << res.out;
    EXPECT_EQ(reportLines(res.out), 1) << c.line << "\n" << res.out;
  }
}

// Flash opcodes the host sent and the command header that carried each: a write of the
// flash controller's data register right after one of its receive count or its enable
// register carries an opcode with its address (reads, page programs, erases).
struct FlashOp {
  uint32_t header;   // counted from 1, as KIVTOOL_SIM_FAULTS counts them
  uint8_t opcode;
  uint32_t addr;
};

std::vector<FlashOp> flash_ops(const std::string &pcap) {
  std::vector<UsbRecord> all;
  read_pcap(pcap, all);
  std::vector<FlashOp> ops;
  uint32_t headers = 0, reg = 0, prevReg = ~0u;
  bool writeData = false;
  for (const auto &p : out_payloads(all)) {
    if (p.size() >= usbio_proto::kHeader && std::equal(usbio_proto::kMagic.begin(), usbio_proto::kMagic.end(), p.begin())) {
      ++headers;
      writeData = p[8] == usbio_proto::kCodeI2cWrite && p.size() >= 27;
      if (writeData) reg = p[24] | p[25] << 8 | p[26] << 16;
      continue;
    }
    if (!writeData || p.size() < 4) continue;
    writeData = false;
    const uint32_t v = p[0] | p[1] << 8 | p[2] << 16 | (uint32_t)p[3] << 24;
    if (reg == 0x60 && (prevReg == 0x08 || prevReg == 0x04))
      ops.push_back({headers, (uint8_t)v, ((v >> 8) & 0xFF) << 16 | ((v >> 16) & 0xFF) << 8 | v >> 24});
    prevReg = reg;
  }
  return ops;
}

// An image update hit by a fault in any of its phases (reading the flash and the bytes
// to keep, erasing, programming, reading back) may fail, but it must never leave a flash that differs from
// the image while saying it matches, it must not touch the flash outside the image, and the
// same update run again must bring the flash to the image.
TEST(FaultMatrix, DamagedUpdateNeverPassesVerify) {
  const std::string image = make_temp_dir("kivfault-img") + "/image.bin";
  const std::string bytes = random_bytes(0x2ED4, 0x12345678);
  write_file(image, bytes);
  // The flash before: other data that carries the calibration pattern, and the image with
  // a byte in the sixth page of its first sector that needs an erase, an erased page in
  // its second (programmed without an erase), and a byte in its last sector that needs an
  // erase (which keeps the sector's bytes past the image).
  std::string before = random_flash(0x9abcdef);
  before.replace(0, bytes.size(), bytes);
  for (size_t at : {0x523, 0x2E00}) before[at] = static_cast<char>(~bytes[at]);
  before.replace(0x1300, 0x100, std::string(0x100, '\xFF'));
  auto seeded = [&] { return Bench(before).cwd; };
  const std::string update = "spi update " + image + "\n";
  const std::string verify = "spi verify " + image + "\n";
  const std::string matched = "Matched: Compare Image Length 11988";

  const std::string dir = seeded();
  const ToolResult base = runFamily(update, dir, "", dir + "/usb.pcap");
  ASSERT_NE(base.out.find(matched), std::string::npos) << base.out;
  // The headers of each phase, from the opcodes at the image's addresses.
  const std::vector<FlashOp> ops = flash_ops(dir + "/usb.pcap");
  std::array<std::vector<uint32_t>, 5> phase;   // scan, reading the bytes to keep, erase, program, check
  bool erased = false, programmed = false;
  for (const FlashOp &op : ops) {
    if (op.addr >= 0x3000) continue;   // the calibration's reads
    erased |= op.opcode == 0x20 || op.opcode == 0xD8;
    programmed |= op.opcode == 0x02;
    const bool read = op.opcode == 0x03, kept = op.addr >= bytes.size();
    const int at = read ? (programmed ? 4 : erased ? -1 : kept ? 1 : 0) : op.opcode == 0x02 ? 3 : erased ? 2 : -1;
    if (at >= 0) phase[at].push_back(op.header);
  }
  const Family fam{"spi update", update};
  std::vector<Case> cases;
  for (const auto &headers : phase) {
    ASSERT_GE(headers.size(), 1u);
    for (uint32_t at : {headers.front(), headers[headers.size() / 2] + 1})
      for (const char *kind : {"nak", "nocomplete", "wrongcode", "unplug"}) cases.push_back({&fam, kind, at, seeded(), {}});
  }
  runAll(cases);

  for (const Case &c : cases) {
    const std::string what = c.kind + "@" + std::to_string(c.at);
    expectSurvived(c, 1);
    const std::string flash = read_file(c.cwd + "/sim/flash.bin");
    const bool intact = flash.substr(0, bytes.size()) == bytes;
    EXPECT_TRUE(flash.substr(bytes.size()) == before.substr(bytes.size())) << what;
    // The update's own comparison never claims a match that is not there ...
    if (c.result.out.find(matched) != std::string::npos) {
      EXPECT_TRUE(intact) << what;
    }
    if (c.kind == "nak") {
      EXPECT_EQ(withoutLines(c.result.out, {" time:", " transfers"}), withoutLines(base.out, {" time:", " transfers"}))
          << what;
    }
    // ... a verify afterwards, without faults, tells the truth about the flash ...
    const ToolResult v = runFamily(verify, c.cwd, "");
    EXPECT_EQ(v.out.find(matched) != std::string::npos, intact) << what << "\n" << v.out;
    if (!intact) {
      EXPECT_NE(v.out.find("Image not match"), std::string::npos) << what << "\n" << v.out;
    }
    // ... and the update again repairs it.
    const ToolResult again = runFamily(update, c.cwd, "");
    EXPECT_NE(again.out.find(matched), std::string::npos) << what << "\n" << again.out;
    EXPECT_TRUE(read_file(c.cwd + "/sim/flash.bin").substr(0, bytes.size()) == bytes) << what;
  }
}
