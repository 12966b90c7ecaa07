// `spi update` and `spi pgwithbase` over a flash that already holds data: the range ends up
// holding the image, everything outside it keeps its old bytes, only what differs is erased,
// the transfers stay within their budget, and a run killed halfway is repaired by the next.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <algorithm>
#include <cstring>
#include <filesystem>
#include <regex>
#include <string>
#include <vector>

#include "capture_reader.h"
#include "flash_bench.h"

namespace {

// The erase lines of a run, without their source line numbers.
std::string erases(const std::string &out) {
  static const std::regex kErase(R"(\[spi_flash_erase-[0-9]+\]-info-: ([^\n]*)\n)");
  std::string list;
  for (std::sregex_iterator it(out.begin(), out.end(), kErase), end; it != end; ++it) list += (*it)[1].str() + ";";
  return list;
}

// Bulk transfers in a capture: one submit record each.
uint64_t transfers_in(const std::string &pcap) {
  std::vector<UsbRecord> recs;
  EXPECT_TRUE(read_pcap(pcap, recs)) << pcap;
  return (uint64_t)std::count_if(recs.begin(), recs.end(), [](const UsbRecord &r) { return r.type == 'S'; });
}

// One board through a series of writes; after each the flash must hold the range's bytes
// and the old ones everywhere else, having erased only what the table names.
TEST(ImageFlow, WritesChangeTheRangeAndNothingElse) {
  std::string model = random_flash(1);
  Bench b(model);
  const std::string patch = random_bytes(200, 2), upd = random_bytes(70077, 3), cross = random_bytes(0x11800, 4);
  // Two changed bytes of an image the flash holds: a sector needs an erase only when a bit
  // must be set (programming clears bits).
  std::string upd2 = upd;
  upd2[0x3456] = (char)~upd[0x3456];
  upd2[0x5000] = (char)(upd[0x5000] ^ 1);
  auto setsBit = [&](size_t i) { return (upd2[i] & ~upd[i]) != 0; };
  const std::string upd2Erases = std::string(setsBit(0x3456) ? "Sector Erase 3;" : "") +
                                 (setsBit(0x5000) ? "Sector Erase 5;" : "");
  b.put("patch.bin", patch);
  b.put("upd.bin", upd);
  b.put("upd2.bin", upd2);
  b.put("cross.bin", cross);
  struct Step {
    std::string line;        // after "spi "
    std::string content;     // what the range must hold
    uint32_t at;             // where the range starts
    std::string erased;      // the erase lines expected
  };
  const std::vector<Step> steps = {
      // 100 bytes at an odd address: one sector erased, its other 3996 bytes put back.
      {"pgwithbase patch.bin 7 0x1011 100", patch.substr(7, 100), 0x1011, "Sector Erase 1;"},
      // Ending mid-sector: the tail of sector 17 is kept. Most sectors differ, so the scan
      // gives up after 16 and the first block is erased whole.
      {"update upd.bin", upd, 0, "Block64K Erase 0;Sector Erase 16;Sector Erase 17;"},
      {"update upd2.bin", upd2, 0, upd2Erases},
      // Across a 64 KiB block: half a sector, a whole block, one more sector.
      {"pgwithbase cross.bin 0 0xF800 0x11800", cross, 0xF800, "Sector Erase 15;Block64K Erase 1;Sector Erase 32;"},
      {"pgwithbase cross.bin 0 0xF800 0x11800", cross, 0xF800, ""},   // already there
      // Erased flash takes its bytes by programming only.
      {"erase sector 0x50 0x50", std::string(0x1000, '\xFF'), 0x50000, "Sector Erase 80;"},
      {"pgwithbase patch.bin 0 0x50123 200", patch, 0x50123, ""},
  };
  for (const Step &s : steps) {
    std::string err;
    const std::string out = b.run("spi " + s.line + "\n", {}, &err);
    model.replace(s.at, s.content.size(), s.content);
    EXPECT_EQ(erases(out), s.erased) << s.line << "\n" << out;
    if (s.line.rfind("erase", 0) != 0) {
      EXPECT_NE(out.find("Matched: Compare Image Length " + std::to_string(s.content.size()) + "\n"),
                std::string::npos) << s.line << "\n" << out;
    }
    if (s.erased.empty() && s.line.rfind("pgwithbase cross", 0) == 0) {
      EXPECT_TRUE(err.starts_with("spi: the flash already holds the image, nothing written\n"
                                  "spi: 18 sectors equal, 0 erased (0 blocks of 64 KiB), 0 pages programmed"))
          << err;
    }
    ASSERT_TRUE(b.flash() == model) << s.line;
  }
}

// The transfer budget of the differential flow, counted in a capture, against the plain
// full rewrite of a 128 KiB image: another image, the same again, an image whose second
// half is 0xFF, one sector changed, and the first page of every sector equal, the rest not.
TEST(ImageFlow, TransfersStayWithinTheirBudget) {
  constexpr size_t kLen = 0x20000;
  std::string old = random_flash(5);
  Bench b(old);
  const std::string a = old.substr(0, kLen);
  const std::string other = random_bytes(kLen, 6);
  std::string half = other, sector = a, worst = other;
  half.replace(kLen / 2, kLen / 2, std::string(kLen / 2, '\xFF'));
  sector.replace(0x8000, 0x1000, random_bytes(0x1000, 7));
  for (size_t s = 0; s < kLen; s += 0x1000) worst.replace(s, 256, a.substr(s, 256));
  struct Case {
    const char *name;
    std::string image;
    double budget;   // of the full rewrite of another image
  };
  const std::vector<Case> cases = {{"other", other, 0.9}, {"same", a, 0.32}, {"half 0xFF", half, 0.6},
                                   {"one sector", sector, 0.32}, {"worst", worst, 1.02}};
  auto transfers = [&](const std::string &image, bool full) {
    write_file(b.cwd + "/sim/flash.bin", old);
    b.put("img.bin", image);
    const std::string pcap = b.cwd + "/u.pcap";
    EnvVars env = {{"KIVTOOL_PCAP", pcap}};
    if (full) env.emplace_back("KIVTOOL_FLASH_FULL", "1");
    const std::string out = b.run("spi update img.bin\n", env);
    EXPECT_NE(out.find("Matched: Compare Image Length 131072\n"), std::string::npos) << out;
    EXPECT_TRUE(b.flash().substr(0, kLen) == image);
    const uint64_t n = transfers_in(pcap);
    std::remove(pcap.c_str());
    return (double)n;
  };
  const double full = transfers(other, true);
  ASSERT_GT(full, 300000);
  for (const Case &c : cases) {
    const double ratio = transfers(c.image, false) / full;
    EXPECT_LE(ratio, c.budget) << c.name;
    std::printf("%-12s %.3f of the full rewrite\n", c.name, ratio);
  }
}

// A run killed at any moment leaves a flash that the same command, run again, brings to
// the image; bytes an erase wiped outside the range come back from the journal, and only on
// the board they were kept for.
TEST(ImageFlow, AKilledRunIsRepairedByTheNextOne) {
  const std::string old = random_flash(8);
  const std::string image = random_bytes(0x80000, 9);
  Bench timed(old);
  timed.put("img.bin", image);
  const auto t0 = std::chrono::steady_clock::now();
  timed.run("spi update img.bin\n");
  const int whole = (int)std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - t0).count();
  // Killed by time during an update from 0, or right after the n-th erase of a pgwithbase
  // at an odd address (sector 15 with its head kept, block 1, sector 32 with its tail kept).
  constexpr uint32_t kAt = 0xF8A3, kLen = 0x11234;
  const std::string pg = "spi pgwithbase img.bin 0 0xF8A3 0x11234\n";
  struct Kill {
    std::string line;
    int ms, afterErase;
  };
  std::vector<Kill> kills;
  for (int part = 1; part <= 4; ++part) kills.push_back({"spi update img.bin\n", whole * part / 5, 0});
  for (int n = 1; n <= 3; ++n) kills.push_back({pg, 60000, n});
  // A run that may end early: cut by the timer, or killed by the board after an erase.
  auto cut = [](const Bench &b, const std::string &line, int ms, EnvVars env, std::string *err = nullptr) {
    ToolRun r;
    r.input = line;
    r.cwd = b.cwd;
    r.env = std::move(env);
    r.timeoutMs = ms;
    const ToolResult res = run_tool(r);
    if (err) *err = res.err;
    return res.timedOut || res.status == 128 + 9;
  };
  int killed = 0;
  for (const Kill &k : kills) {
    Bench b(old);
    b.put("img.bin", image);
    killed += cut(b, k.line, k.ms,
                  k.afterErase ? EnvVars{{"KIVTOOL_SIM_FLASH_KILL_ERASE", std::to_string(k.afterErase)}} : EnvVars{});
    const std::string journal = b.cwd + "/kivtool-flash-keep.bin";
    if (k.afterErase == 1) {
      // Another board (a copy of this one's state) leaves the journal alone.
      std::filesystem::copy(b.cwd + "/sim", b.cwd + "/sim2", std::filesystem::copy_options::recursive);
      std::string err;
      cut(b, pg, 60000, {{"KIVTOOL_SIM", b.cwd + "/sim2"}}, &err);
      EXPECT_NE(err.find("kept for another board"), std::string::npos) << err;
      EXPECT_EQ(read_file(b.cwd + "/sim2/flash.bin").substr(0xF000, kAt - 0xF000), std::string(kAt - 0xF000, '\xFF'));
      EXPECT_TRUE(std::filesystem::exists(journal));
    } else if (k.afterErase == 2) {
      // A damaged journal is not replayed and not overwritten: the erase that needs it waits.
      const std::string kept = read_file(journal), flash = b.flash();
      write_file(journal, kept.substr(0, kept.size() - 1));
      std::string err;
      cut(b, pg, 60000, {}, &err);
      EXPECT_NE(err.find("is damaged (bad checksum): not replayed"), std::string::npos) << err;
      EXPECT_NE(err.find("nothing erased"), std::string::npos) << err;
      EXPECT_TRUE(b.flash() == flash);
      write_file(journal, kept);
    }
    std::string err;
    const std::string out = b.run(k.line, {}, &err);
    const size_t len = k.afterErase ? kLen : image.size();
    EXPECT_NE(out.find("Matched: Compare Image Length " + std::to_string(len) + "\n"), std::string::npos) << k.line << "\n" << out;
    if (k.afterErase) {
      EXPECT_NE(err.find(" bytes kept by an interrupted write\n"), std::string::npos) << err;
    }
    std::string model = old;
    model.replace(k.afterErase ? kAt : 0, len, image.substr(0, len));
    EXPECT_TRUE(b.flash() == model) << k.line << " killed at " << k.ms << " ms / erase " << k.afterErase;
    EXPECT_FALSE(std::filesystem::exists(journal));
  }
  EXPECT_GE(killed, 5);
}

}  // namespace
