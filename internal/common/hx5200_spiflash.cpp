// Flash access layer over the SPI flash controller registers.
//
// Every flash operation is one or more controller transactions: enable 0, the set-up
// registers, the opcode (and address, data) into the data register, enable 1, wait until
// the controller is idle, enable 0, then the received words from the data register.
#include "internal/common/hx5200_spiflash.h"

#include <array>
#include <cstdio>
#include <cstring>

#include "access/access.h"
#include "internal/common/spi_nor.h"

namespace {

constexpr spi_flash_cfg_t kInitialCfg = {
    /*channel*/ 1, /*reqChannel*/ 1, /*reqClock*/ 12, /*clock*/ 12, /*divisor*/ 8,
    /*dummyCycles*/ 0, /*furtherMode*/ 1, /*sysDelay*/ 15, /*pollLimit*/ 152000000,
    /*pgOpcode*/ nor::kPageProgram, /*rdOpcode*/ nor::kRead, /*rdcrOpcode*/ nor::kReadConfig, /*dummyByte*/ 0xFF,
    /*quadFlag1*/ 1, /*quadFlag2*/ 1, /*skipWip*/ 0};

}  // namespace

spi_flash_cfg_t spi_flash_cfg = kInitialCfg;

namespace {

spi_flash_cfg_t &cfg = spi_flash_cfg;

constexpr uint32_t kWelPollLimit = 65536;
constexpr uint32_t kArbitrationAttempts = 65536;
constexpr uint32_t kArbRequest = 1u << 25;
constexpr std::array<uint32_t, 4> kParamOffsets = {0x60000, 0xC0000, 0x80000, 0x60000};
constexpr std::array<uint32_t, 4> kClockBase = {150, 200, 250, 0};

// The 16 bytes the calibration looks for at SPIF_CAL_ADDR (four words, lowest byte first).
constexpr std::array<uint8_t, 16> kCalPattern = {0x99, 0x99, 0x96, 0x96, 0x3F, 0xCC, 0x66, 0xFC,
                                                 0xC0, 0x33, 0xCC, 0x03, 0xE5, 0xDC, 0x31, 0x62};
constexpr uint32_t kCalSweep = 32;   // sample delays tried: 0 .. 31

#define TRY(expr)                   \
  do {                              \
    int32_t rc_ = (expr);           \
    if (rc_ != 0) return rc_;       \
  } while (0)

int32_t wr(uint32_t addr, uint32_t value) { return reg_write(1, addr, value); }
int32_t rd(uint32_t addr, uint32_t *value) { return reg_read(1, addr, value); }

// The transports carry 32-bit values only: a byte meant for the data register is announced.
int32_t wr_byte(uint8_t b) {
  reg_width_notice(SPIC_DATA, 1);
  return reg_write(1, SPIC_DATA, b);
}

bool channel_ok(uint32_t ch) { return ch == 1 || ch == 2 || ch == 4; }

int32_t setup(uint32_t ctrl, uint32_t count, uint32_t format, uint32_t delay) {
  TRY(wr(SPIC_ENABLE, 0));
  TRY(wr(SPIC_CTRL, ctrl));
  TRY(wr(SPIC_CS, 1));
  TRY(wr(SPIC_RXCNT, count));
  TRY(wr(SPIC_DELAY, delay));
  return wr(SPIC_FORMAT, format);
}

// Start the queued transaction, wait for it, stop.
int32_t run() {
  TRY(wr(SPIC_ENABLE, 1));
  TRY(spi_flash_wait_idle());
  return wr(SPIC_ENABLE, 0);
}

// Received bytes: whole words lowest byte first, one more word for a 1-3 byte tail.
int32_t read_words(uint8_t *buf, uint32_t n) {
  uint32_t i = 0;
  for (; i + 4 <= n; i += 4) {
    uint32_t w = 0;
    TRY(rd(SPIC_DATA, &w));
    for (uint32_t k = 0; k < 4; ++k) buf[i + k] = (uint8_t)(w >> (8 * k));
  }
  if (i < n) {
    uint32_t w = 0;
    TRY(rd(SPIC_DATA, &w));
    for (uint32_t k = 0; i + k < n; ++k) buf[i + k] = (uint8_t)(w >> (8 * k));
  }
  return 0;
}

// A register-read transaction (status, configuration): one opcode, `count` bytes back.
int32_t read_reg(uint8_t opcode, uint32_t count, uint32_t *word) {
  TRY(setup(0x300, count, 3, cfg.sysDelay));
  TRY(wr_byte(opcode));
  TRY(run());
  return rd(SPIC_DATA, word);
}

// A one-byte flash register (status, configuration): the low byte of the word received.
int32_t read_byte_reg(uint8_t opcode, uint8_t *value) {
  uint32_t w = 0;
  TRY(read_reg(opcode, 1, &w));
  *value = (uint8_t)w;
  return 0;
}

// Runs `body` on another register page and selects the page in use again afterwards,
// whatever the body's result.
template <class Body>
int32_t on_page(uint32_t page, Body &&body) {
  uint32_t prev = 0;
  TRY(rd(PAGE_REG_ADDR, &prev));
  TRY(spi_flash_page(page));
  int32_t rc = body();
  int32_t rc2 = spi_flash_page(prev & 0xFF);
  return rc ? rc : rc2;
}

// Dummy cycles implied by a read opcode (parameter block value 15).
uint32_t dummy_for_opcode(uint8_t op) {
  switch (op) {
    case nor::kFastRead: case nor::kDualRead: case nor::kQuadRead: return 8;
    case nor::kDualIoRead: return 4;
    case nor::kQuadIoRead: return 6;
    default: return 0;
  }
}

uint8_t default_read_opcode(uint32_t channel, uint32_t clock) {
  if (channel == 2) return nor::kDualRead;
  if (channel == 4) return nor::kQuadRead;
  return clock > 25 ? nor::kFastRead : nor::kRead;
}

// Control, format and sample delay for a read on the channel in effect. A multi-line read
// whose dummy cycles do not allow the delay compensation cannot be set up (-1).
int32_t read_mode(void) {
  TRY(wr(SPIC_ENABLE, 0));
  TRY(wr(SPIC_CS, 1));
  TRY(wr(SPIC_FORMAT, cfg.dummyCycles ? 0 : 3));
  if (cfg.channel == 1) {
    TRY(wr(SPIC_CTRL, cfg.clock > 25 ? 0x400300 : 0x300));
    return wr(SPIC_DELAY, cfg.sysDelay);
  }
  const bool two = cfg.channel == 2;
  TRY(wr(SPIC_CTRL, two ? 0x40300 : 0x80300));
  const uint32_t lowLimit = two ? 3 : 1, lowSub = two ? 4 : 2;
  if (cfg.quadFlag2 == 0) {
    TRY(wr(SPIC_CTRL, two ? 0x50300 : 0xA0300));
    if (cfg.dummyCycles > lowLimit)
      return wr(SPIC_DELAY, cfg.sysDelay + cfg.divisor * (cfg.dummyCycles - lowSub) * 2);
  } else if (cfg.dummyCycles > 7) {
    return wr(SPIC_DELAY, cfg.sysDelay + cfg.divisor * (cfg.dummyCycles - 8) * 2);
  }
  return -1;
}

// Both write-enable latch operations: wait until the flash is ready, send the opcode, wait
// until the latch shows the wanted state.
int32_t write_latch(uint8_t opcode, bool wantSet) {
  uint8_t st = 0;
  uint32_t polls = 0;
  for (;; ++polls) {
    if (polls >= kWelPollLimit) return 1;
    TRY(spi_flash_read_status(&st));
    if (!(st & 1)) break;
  }
  TRY(setup(0, 1, 1, 0x28030000u + cfg.sysDelay));
  TRY(wr_byte(opcode));
  TRY(run());
  for (polls = 0;; ++polls) {
    if (polls >= kWelPollLimit) return 1;
    TRY(spi_flash_read_status(&st));
    if (((st & 2) != 0) == wantSet) return 0;
  }
}

// Sweeps the sample delays, reading the pattern at each; keeps the middle of the first run
// of delays that read it back correctly. The sweep stops once that run has ended.
int32_t delay_search(void) {
  std::array<uint8_t, kCalPattern.size()> buf{};
  uint32_t runStart = 0, runLen = 0;
  for (uint32_t d = 0; d < kCalSweep; ++d) {
    cfg.sysDelay = d;
    bool good = spi_flash_read(SPIF_CAL_ADDR, buf.data(), (uint32_t)buf.size()) == 0 && buf == kCalPattern;
    if (good) {
      if (runLen == 0) runStart = d;
      ++runLen;
    } else if (runLen) {
      break;
    }
  }
  if (runLen == 0) return -1;
  cfg.sysDelay = runStart + (runLen - 1) / 2;
  return 0;
}

// Four-line reads need the flash's own quad mode switched on first.
int32_t enable_quad_mode(void) {
  uint8_t st = 0, cr = 0;
  TRY(spi_flash_read_status(&st));
  if (cfg.furtherMode == 1) {
    TRY(spi_flash_read_config(&cr));
    TRY(spi_flash_write_status(st, (uint8_t)(cr | nor::kConfigQe), true));
  } else {
    TRY(spi_flash_write_status((uint8_t)(st | nor::kStatusQeMx), 0, false));
  }
  // The status write is still running; the search must not read into it.
  return spi_flash_wait_wip();
}

void apply_param_block(const std::array<uint8_t, 10> &pb) {
  static constexpr std::array<uint32_t, 4> kLines = {1, 4, 2, 1};
  cfg.channel = kLines[pb[0] & 3];
  uint32_t cur = 0;
  if (rd(SPIC_DIV, &cur) == 0) cfg.divisor = cur;
  if (!(pb[0] & 0x04)) {
    uint32_t d = (pb[0] >> 3) & 0x0F;
    if (d != cur) {
      wr(SPIC_DIV, d);
      wr(SPIC_DIV2, d);
    }
    cfg.divisor = d;
  }
  cfg.furtherMode = pb[0] >> 7;
  cfg.quadFlag1 = (pb[2] >> 6) & 1;
  cfg.quadFlag2 = pb[2] >> 7;
  uint32_t mhz = 0;
  if (spi_flash_get_clock(&mhz) == 0) cfg.clock = mhz;
  cfg.pgOpcode = pb[3] != 0xFF ? pb[3] : (cfg.channel == 4 ? nor::kQuadPageProgram : nor::kPageProgram);
  cfg.rdOpcode = pb[4] != 0xFF ? pb[4] : default_read_opcode(cfg.channel, cfg.clock);
  cfg.rdcrOpcode = pb[5] != 0xFF ? pb[5] : nor::kReadConfig;
  cfg.dummyByte = pb[6];
  uint32_t dummy = pb[7] & 0x0F;
  cfg.dummyCycles = dummy == 15 ? dummy_for_opcode(cfg.rdOpcode) : dummy;
}

}  // namespace

void spi_flash_cfg_reset(void) { spi_flash_cfg = kInitialCfg; }

int32_t spi_flash_page(uint32_t page) { return wr(PAGE_REG_ADDR, page); }

int32_t spi_flash_acquire(void) {
  for (uint32_t i = 0; i < kArbitrationAttempts; ++i) {
    uint32_t v = 0;
    TRY(rd(SPIF_ARBITRATION, &v));
    uint32_t state = (v >> 24) & 3;
    if (state == 2) return 0;
    if (state != 0) continue;
    TRY(wr(SPIF_ARBITRATION, v | kArbRequest));
    TRY(rd(SPIF_ARBITRATION, &v));
    if (((v >> 24) & 3) == 2) return 0;
    TRY(wr(SPIF_ARBITRATION, v & ~kArbRequest));
  }
  return -11;
}

int32_t spi_flash_release(void) {
  uint32_t v = 0;
  TRY(rd(SPIF_ARBITRATION, &v));
  if (v & kArbRequest) return wr(SPIF_ARBITRATION, v & ~kArbRequest);
  return 0;
}

int32_t spi_flash_wait_idle(void) {
  // Successful reads count against the limit; a failed read ends the wait with its code
  // (the transport has already retried it), so a lost adapter cannot hang the tool.
  for (uint32_t polls = 0; polls < cfg.pollLimit; ++polls) {
    uint32_t v = 0;
    TRY(rd(SPIC_STATUS, &v));
    if (!(v & 1)) return 0;
  }
  return -11;
}

int32_t spi_flash_wait_wip(void) {
  for (uint32_t polls = 0; polls < cfg.pollLimit; ++polls) {
    uint8_t st = 0;
    TRY(spi_flash_read_status(&st));
    if (!(st & nor::kStatusWip)) return 0;
  }
  return 11;
}

int32_t spi_flash_read_status(uint8_t *status) { return read_byte_reg(nor::kReadStatus, status); }
int32_t spi_flash_read_config(uint8_t *config) { return read_byte_reg(cfg.rdcrOpcode, config); }

int32_t spi_flash_read_id(uint32_t *id) {
  uint32_t w = 0;
  TRY(read_reg(nor::kJedecId, 3, &w));
  *id = w & 0xFFFFFF;
  return 0;
}

int32_t spi_flash_capacity(uint32_t *bytes) {
  uint32_t id = 0;
  TRY(spi_flash_read_id(&id));
  const uint32_t code = (id >> 16) & 0xFF;
  *bytes = code >= 0x10 && code <= 0x18 ? 1u << code : 1u << 24;
  return 0;
}

int32_t spi_flash_write_status(uint8_t status, uint8_t config, bool twoBytes) {
  TRY(spi_flash_wait_idle());
  TRY(setup(0, 1, 1, cfg.sysDelay));
  TRY(wr_byte(nor::kWriteEnable));
  TRY(run());
  TRY(wr(SPIC_FORMAT, twoBytes ? 2 : 1));
  TRY(wr_byte(nor::kWriteStatus));
  TRY(wr_byte(status));
  if (twoBytes) TRY(wr_byte(config));
  TRY(run());
  if (!cfg.skipWip) TRY(spi_flash_wait_wip());
  return 0;
}

int32_t spi_flash_write_enable(void) { return write_latch(nor::kWriteEnable, true); }
int32_t spi_flash_write_disable(void) { return write_latch(nor::kWriteDisable, false); }

int32_t spi_flash_clear_protect(void) {
  uint8_t st = 0;
  TRY(spi_flash_wait_idle());
  TRY(spi_flash_wait_wip());
  TRY(spi_flash_read_status(&st));
  if (!(st & SPIF_PROTECT_MASK)) return 0;
  TRY(spi_flash_write_status((uint8_t)(st & ~SPIF_PROTECT_MASK), 0, false));
  TRY(spi_flash_read_status(&st));
  return (st & SPIF_PROTECT_MASK) ? -1 : 0;
}

int32_t spi_flash_read(uint32_t addr, uint8_t *buf, uint32_t len) {
  if (!channel_ok(cfg.channel)) return -1;
  TRY(spi_flash_wait_idle());
  if (!cfg.skipWip) TRY(spi_flash_wait_wip());
  TRY(read_mode());
  for (uint32_t done = 0; done < len;) {
    uint32_t n = len - done < 256 ? len - done : 256;
    TRY(wr(SPIC_RXCNT, n));
    TRY(wr(SPIC_DATA, spi_flash_addr_word(cfg.rdOpcode, addr + done)));
    if (cfg.dummyCycles) TRY(wr_byte(cfg.dummyByte));
    TRY(run());
    TRY(read_words(buf + done, n));
    done += n;
  }
  return 0;
}

int32_t spi_flash_read_pieces(spi_flash_piece_fn next, void *ctx) {
  if (!channel_ok(cfg.channel)) return -1;
  TRY(spi_flash_wait_idle());
  if (!cfg.skipWip) TRY(spi_flash_wait_wip());
  TRY(read_mode());
  uint32_t addr = 0, n = 0;
  uint8_t *buf = nullptr;
  while (next(ctx, &addr, &buf, &n)) {
    if (n == 0 || n > 256) return -1;
    TRY(wr(SPIC_RXCNT, n));
    TRY(wr(SPIC_DATA, spi_flash_addr_word(cfg.rdOpcode, addr)));
    if (cfg.dummyCycles) TRY(wr_byte(cfg.dummyByte));
    TRY(run());
    TRY(read_words(buf, n));
  }
  return 0;
}

int32_t spi_flash_program(uint32_t addr, const uint8_t *data, uint32_t len) {
  if (!channel_ok(cfg.channel)) return -1;
  TRY(spi_flash_wait_idle());
  if (!cfg.skipWip) {
    uint8_t st = 0;
    TRY(spi_flash_read_status(&st));
    if (st & SPIF_PROTECT_MASK) return -1;
  }
  TRY(wr(SPIC_CS, 1));
  TRY(wr(SPIC_RXCNT, 1));
  TRY(wr(SPIC_DELAY, cfg.sysDelay));
  TRY(wr(SPIC_FORMAT, 3));
  for (uint32_t done = 0; done < len;) {
    const uint32_t at = addr + done;
    const uint32_t off = at & 0xFF;
    uint32_t n = len - done < 256 ? len - done : 256;
    if (n + off > 256) n = 256 - off;   // never across a page
    if (cfg.channel == 4) {
      TRY(wr(SPIC_CTRL, 0x80000));
      if (cfg.quadFlag1 == 0) TRY(wr(SPIC_CTRL, 0xA0000));
    } else {
      TRY(wr(SPIC_CTRL, 0));
    }
    TRY(wr_byte(nor::kWriteEnable));
    TRY(run());
    TRY(wr(SPIC_DATA, spi_flash_addr_word(cfg.pgOpcode, at)));
    const uint8_t *p = data + done;
    uint32_t i = 0;
    for (; i + 4 <= n; i += 4)
      TRY(wr(SPIC_DATA, (uint32_t)p[i] | (uint32_t)p[i + 1] << 8 | (uint32_t)p[i + 2] << 16 | (uint32_t)p[i + 3] << 24));
    for (; i < n; ++i) TRY(wr_byte(p[i]));
    TRY(run());
    if (!cfg.skipWip) TRY(spi_flash_wait_wip());
    done += n;
  }
  return 0;
}

#define SPIF_LOG() printf("[%s-%d]-info-: ", __func__, __LINE__)

int32_t spi_flash_erase(uint32_t addr, uint32_t kind) {
  if (kind >= 3) return -2;
  TRY(spi_flash_wait_idle());
  if (!cfg.skipWip) {
    uint8_t st = 0;
    TRY(spi_flash_read_status(&st));
    if (st & SPIF_PROTECT_MASK) {
      SPIF_LOG();
      printf("Flash is protected");
      printf("\n");
      return -1;
    }
  }
  SPIF_LOG();
  if (kind == SPIF_ERASE_CHIP) printf("Chip Erase... ...");
  else if (kind == SPIF_ERASE_SECTOR) printf("Sector Erase %d", (int)(addr >> 12));
  else printf("Block64K Erase %d", (int)(addr >> 16));
  printf("\n");
  TRY(wr(SPIC_DELAY, cfg.sysDelay));
  TRY(wr(SPIC_FORMAT, kind == SPIF_ERASE_CHIP ? 1 : 3));
  TRY(wr(SPIC_CS, 1));
  TRY(wr(SPIC_RXCNT, 1));
  TRY(wr(SPIC_CTRL, 0));
  TRY(wr_byte(nor::kWriteEnable));
  TRY(run());
  if (kind == SPIF_ERASE_CHIP) TRY(wr_byte(nor::kChipErase));
  else TRY(wr(SPIC_DATA, spi_flash_addr_word(kind == SPIF_ERASE_SECTOR ? nor::kSectorErase : nor::kBlockErase, addr)));
  TRY(run());
  if (!cfg.skipWip) TRY(spi_flash_wait_wip());
  return 0;
}

bool spi_flash_clock_pair(uint32_t mhz, uint32_t *source, uint32_t *divisor) {
  struct Pair {
    uint32_t mhz, source, divisor;
  };
  static constexpr std::array<Pair, 5> kPairs = {{{100, 1, 1}, {75, 0, 1}, {50, 1, 2}, {33, 1, 3}, {12, 1, 8}}};
  for (const Pair &p : kPairs) {
    if (p.mhz == mhz) {
      *source = p.source;
      *divisor = p.divisor;
      return true;
    }
  }
  return false;
}

int32_t spi_flash_get_clock(uint32_t *mhz) {
  uint32_t div = 0, src = 0;
  int32_t rc = on_page(PAGE_SPIC, [&] {
    TRY(rd(SPIC_DIV, &div));
    TRY(spi_flash_page(PAGE_CPU));
    return rd(SPIF_CLOCK_SOURCE, &src);
  });
  const uint32_t base = kClockBase[src & 3];
  if (rc != 0 || div == 0 || base == 0) return -1;   // nothing sensible to divide
  *mhz = base / (2 * div);
  return 0;
}

int32_t spi_flash_controller_init(void) {
  TRY(spi_flash_page(PAGE_SWCORE));
  uint32_t strap = 0, select = 0;
  TRY(rd(SPIF_BOOT_STRAP, &strap));
  TRY(rd(SPIF_PARAM_SELECT, &select));
  const uint8_t sb = (uint8_t)strap;
  const uint32_t bootMode = (sb >> 6) & 3;
  TRY(spi_flash_page(PAGE_SPIC));
  TRY(wr(SPIC_ENABLE, 0));

  if (bootMode != 1 && bootMode != 2) {
    const uint32_t keepLimit = cfg.pollLimit, keepReqCh = cfg.reqChannel, keepReqClk = cfg.reqClock;
    spi_flash_cfg = kInitialCfg;
    cfg.pollLimit = keepLimit;
    cfg.reqChannel = keepReqCh;
    cfg.reqClock = keepReqClk;
    return spi_flash_page(PAGE_SWCORE);
  }

  if (sb & 0x20) cfg.sysDelay = sb & 0x1F;
  const uint32_t base = bootMode == 1 ? 0 : kParamOffsets[select & 3];
  std::array<uint8_t, 3> sig{};
  std::array<uint8_t, 10> pb{};
  if (spi_flash_read(base + 0x4000D, sig.data(), 3) == 0 && sig[0] == 0x99 && sig[1] == 0x88 && !(sig[2] & 1) &&
      spi_flash_read(base + 0x40000, pb.data(), (uint32_t)pb.size()) == 0) {
    apply_param_block(pb);
  } else {
    uint32_t mhz = 0, div = 0;
    if (spi_flash_get_clock(&mhz) == 0) cfg.clock = mhz;
    if (rd(SPIC_DIV, &div) == 0) cfg.divisor = div;
    cfg.channel = 1;
    cfg.quadFlag1 = cfg.quadFlag2 = 1;
    cfg.pgOpcode = nor::kPageProgram;
    cfg.dummyByte = 0xFF;
    cfg.rdOpcode = cfg.clock > 25 ? nor::kFastRead : nor::kRead;
    cfg.dummyCycles = cfg.clock > 25 ? 8 : 0;
  }
  return spi_flash_page(PAGE_SWCORE);
}

int32_t spi_flash_apply_settings(void) {
  TRY(wr(SPIC_ENABLE, 0));
  TRY(wr(SPIC_DIV, 8));
  TRY(wr(SPIC_DIV2, 8));
  cfg.sysDelay = 15;
  TRY(on_page(PAGE_CPU, [] { return wr(SPIF_CPU_SAMPLE, 0); }));
  uint32_t id = 0;
  TRY(spi_flash_read_id(&id));
  const uint8_t manufacturer = (uint8_t)id;

  uint32_t source = 0, divisor = 0;
  if (!spi_flash_clock_pair(cfg.reqClock, &source, &divisor)) return -1;
  TRY(on_page(PAGE_CPU, [source] {
    uint32_t v = 0;
    TRY(rd(SPIF_CLOCK_SOURCE, &v));
    return wr(SPIF_CLOCK_SOURCE, (v & ~3u) | source);
  }));
  TRY(wr(SPIC_DIV, divisor));
  TRY(wr(SPIC_DIV2, divisor));
  uint32_t readBack = 0;
  TRY(rd(SPIC_DIV, &readBack));
  cfg.clock = cfg.reqClock;
  cfg.divisor = readBack;

  const bool fast = cfg.clock > 25;
  switch (cfg.reqChannel) {
    case 1:
      cfg.pgOpcode = nor::kPageProgram;
      cfg.rdOpcode = fast ? nor::kFastRead : nor::kRead;
      cfg.dummyCycles = fast ? 8 : 0;
      cfg.quadFlag1 = cfg.quadFlag2 = 1;
      break;
    case 2:
      cfg.pgOpcode = nor::kPageProgram;
      cfg.rdOpcode = nor::kDualRead;
      cfg.dummyCycles = 8;
      cfg.quadFlag1 = cfg.quadFlag2 = 1;
      break;
    case 4:
      cfg.pgOpcode = manufacturer == nor::kMfrMacronix ? nor::kQuadPageProgramMx : nor::kQuadPageProgram;
      cfg.rdOpcode = nor::kQuadRead;
      cfg.dummyCycles = 8;
      cfg.quadFlag1 = manufacturer == nor::kMfrMacronix ? 0 : 1;
      cfg.quadFlag2 = 1;
      break;
    default:
      return -1;
  }
  cfg.dummyByte = 0xFF;
  cfg.channel = cfg.reqChannel;
  cfg.rdcrOpcode = manufacturer == nor::kMfrMacronix ? nor::kReadConfigMx : nor::kReadConfig;
  cfg.furtherMode = (manufacturer == nor::kMfrMacronix || manufacturer == nor::kMfrIssi) ? 0 : 1;
  return 0;
}

int32_t spi_flash_calibrate(void) {
  cfg.skipWip = 1;
  if (cfg.channel == 4) TRY(enable_quad_mode());
  const uint32_t keptDelay = cfg.sysDelay;
  uint32_t keptSample = 0;
  TRY(on_page(PAGE_CPU, [&keptSample] {
    TRY(rd(SPIF_CPU_SAMPLE, &keptSample));
    return wr(SPIF_CPU_SAMPLE, 0);
  }));
  cfg.sysDelay = 0;
  if (delay_search() == 0) return 0;

  // No delay reads the pattern back: the pattern is missing. Put it there and try again.
  cfg.sysDelay = keptDelay;
  if (spi_flash_erase(SPIF_CAL_ADDR & ~0xFFFu, SPIF_ERASE_SECTOR) == 0) {
    hx_delay_us(500000);
    if (spi_flash_program(SPIF_CAL_ADDR, kCalPattern.data(), (uint32_t)kCalPattern.size()) == 0) {
      hx_delay_us(50000);
      if (delay_search() == 0) return 0;
    }
  }
  cfg.sysDelay = keptDelay;
  on_page(PAGE_CPU, [keptSample] { return wr(SPIF_CPU_SAMPLE, keptSample); });
  return -1;
}
