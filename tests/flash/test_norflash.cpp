// The board's NOR flash model on its own: latch, protection, page and chip wrap, erase
// granules, busy time and multi-line reads (ID, status and erase ranges: see test_spi_cmd).
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "sim/sim_norflash.h"

namespace {

using sim::NorFlash;
using Bytes = std::vector<uint8_t>;

struct Nor {
  Bytes mem = Bytes(NorFlash::kSize, 0xFF);
  NorFlash f;
  Nor() { f.mem = mem.data(); f.busyPolls = 0; f.busyMs = -1; }
  Bytes xfer(Bytes tx, size_t rxLen = 0, unsigned lines = 1) {
    Bytes rx(rxLen);
    f.transfer(tx.data(), tx.size(), rx.data(), rx.size(), lines);
    return rx;
  }
  uint8_t status() { return xfer({0x05}, 1)[0]; }
  // An addressed opcode (a read when n > 0), with the write-enable latch set first when `wren`.
  Bytes op(uint8_t code, uint32_t a, Bytes data = {}, bool wren = true, size_t n = 0, unsigned lines = 1) {
    if (wren) xfer({0x06});
    Bytes t = {code, (uint8_t)(a >> 16), (uint8_t)(a >> 8), (uint8_t)a};
    t.insert(t.end(), data.begin(), data.end());
    return xfer(t, n, lines);
  }
  Bytes read(uint32_t a, size_t n, uint8_t code = 0x03, unsigned lines = 1) { return op(code, a, {}, false, n, lines); }
};

TEST(NorFlash, LatchAndProtectionRules) {
  Nor n;
  // Without the latch a program changes nothing; with it the program lands and drops it.
  n.op(0x02, 0x100, {0x12}, false);
  EXPECT_EQ(n.mem[0x100], 0xFF);
  n.xfer({0x06});
  n.read(0, 4);   // reads leave the latch alone
  n.op(0x02, 0x100, {0x12}, false);
  EXPECT_EQ(n.mem[0x100], 0x12);
  EXPECT_EQ(n.status(), 0x00);
  // A status write needs the latch too and keeps no WIP/WEL bits.
  n.xfer({0x01, 0x1C});
  EXPECT_EQ(n.status(), 0x00);
  n.xfer({0x06});
  n.xfer({0x01, 0x80 | NorFlash::kWip | NorFlash::kWel});
  EXPECT_EQ(n.status(), 0x80);   // a single protection bit protects the whole chip
  // Protected: program and erases are refused but still use up the latch.
  n.mem[5] = 0x55;
  n.op(0x02, 0, {0x00});
  n.op(0x20, 0);
  n.op(0xD8, 0);
  n.xfer({0x06});
  n.xfer({0xC7});
  EXPECT_EQ(n.mem[0], 0xFF);
  EXPECT_EQ(n.mem[5], 0x55);
  EXPECT_EQ(n.status() & NorFlash::kWel, 0);
}

TEST(NorFlash, ProgramWrapsInItsPageReadsWrapAtTheEndErasesByGranule) {
  Nor n;
  n.op(0x02, 0x20FC, {1, 2, 3, 4, 5, 6});
  EXPECT_EQ(n.read(0x20FC, 4), (Bytes{1, 2, 3, 4}));
  EXPECT_EQ(n.read(0x2000, 3), (Bytes{5, 6, 0xFF}));
  EXPECT_EQ(n.mem[0x2100], 0xFF);   // never into the next page
  n.op(0x02, NorFlash::kSize - 1, {0xAB});
  n.op(0x02, 0, {0xCD});
  EXPECT_EQ(n.read(NorFlash::kSize - 1, 2), (Bytes{0xAB, 0xCD}));

  std::fill(n.mem.begin(), n.mem.end(), 0x00);
  n.op(0x20, 0x12345);   // inside sector 0x12000
  n.op(0xD8, 0x3FFFF);   // inside block 0x30000
  for (auto [addr, value] : {std::pair{0x11FFF, 0x00}, {0x12000, 0xFF}, {0x12FFF, 0xFF}, {0x13000, 0x00},
                             {0x2FFFF, 0x00}, {0x30000, 0xFF}, {0x3FFFF, 0xFF}, {0x40000, 0x00}})
    EXPECT_EQ(n.mem[addr], value) << std::hex << addr;
}

TEST(NorFlash, BusyForAGivenNumberOfPollsIgnoringAllButStatus) {
  Nor n;
  n.f.busyPolls = 2;
  n.op(0x02, 0x10, {0xAA});
  EXPECT_EQ(n.status() & NorFlash::kWip, NorFlash::kWip);
  // While busy: no data, no latch, no program; configuration reads still answer.
  EXPECT_EQ(n.read(0x10, 1)[0], 0xFF);
  n.xfer({0x06});
  EXPECT_EQ(n.xfer({0x35}, 1)[0], 0x00);
  EXPECT_EQ(n.status() & NorFlash::kWip, NorFlash::kWip);
  EXPECT_EQ(n.status(), 0x00);
  EXPECT_EQ(n.read(0x10, 1)[0], 0xAA);
  // Time alone ends an operation nobody polls.
  n.f.busyPolls = -1;
  n.f.busyMs = 0;
  n.op(0x02, 0, {0x01});
  EXPECT_EQ(n.status(), 0x00);
}

TEST(NorFlash, MultiLineReadsNeedMatchingLinesAndQuadEnableElseGarbage) {
  Nor n;
  const Bytes good = {0x11, 0x22, 0x33, 0x44};
  n.op(0x02, 0x300, good);
  EXPECT_EQ(n.read(0x300, 4, 0x0B, 1), good);
  EXPECT_EQ(n.read(0x300, 4, 0x3B, 2), good);
  EXPECT_NE(n.read(0x300, 4, 0x3B, 1), good);
  EXPECT_NE(n.read(0x300, 4, 0x6B, 4), good);   // quad mode still off
  n.xfer({0x06});
  n.xfer({0x01, 0x00, NorFlash::kQe});
  EXPECT_EQ(n.read(0x300, 4, 0x6B, 4), good);
  EXPECT_NE(n.read(0x300, 4, 0x6B, 2), good);
  Bytes ff(16, 0xFF);   // garbage never looks like an erased area
  sim::nor_scramble(ff.data(), ff.size());
  EXPECT_EQ(std::count(ff.begin(), ff.end(), 0xFF), 0);
}

}  // namespace
