// Register commands: `reg` (chip registers, bits, fields, bursts, page selector and the
// indirect access path), `smi` (MDIO devices and the chip's MDC/MDIO channel master),
// `mmd` (clause-45 registers of the internal PHYs), `mdx` (external-PHY controller) and
// `phy`/`gphy` (paged registers and extension pages of the internal PHYs).
#include <array>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "access/access.h"
#include "internal/common/hx5200_regasicdrv.h"
#include "internal/kivcmd/hx5200_cmd.h"

namespace {

// ---- poll bounds and PHY numbers (the registers are in hx5200_regasicdrv.h) ---------------
constexpr uint32_t kIndirPollLimit = 10000u;      // successful polls before giving up (11)

constexpr uint32_t kPhyIdlePolls = 1000u;
constexpr uint32_t kChannelPolls = 20u;

constexpr uint32_t kMdxPolls = 65536u;

constexpr uint32_t kGphyNumber = 4u;              // the gigabit PHY with extension pages
constexpr uint32_t kGphyPageSelReg = 31u;
constexpr uint32_t kGphyExtPageReg = 30u;
constexpr uint32_t kGphyExtMode = 7u;
constexpr uint32_t kGphyExtPage = 31u;

constexpr uint32_t kBurstMax = 13312u;            // words in the burst buffer

constexpr uint32_t kUnit = 1u;                    // unit number the commands pass

// Words of a burst read. Kept static: it is large and only one command runs at a time.
std::array<uint32_t, kBurstMax> burstBuf{};

// High address byte used by the indirect operations on the reserved interface.
uint32_t indirHighByte = 0;

// Mask of a field from start to end bit; the shift count is taken modulo 32, so the
// whole word 0..31 gives the mask 0 (as the tool has always behaved).
constexpr uint32_t fieldMask(uint32_t start, uint32_t end) { return (1u << ((end - start + 1u) & 31u)) - 1u; }

// A failure the command shows only by what it prints: the line counts as failed all the
// same (-e). Returns rc.
kiv_int32 noteFailure(kiv_int32 rc) {
  if (rc != 0) kiv_markLineFailed();
  return rc;
}

// ---- reg ----------------------------------------------------------------------------------
using WriteFn = int32_t (*)(uint32_t addr, uint32_t value);
using ReadFn = int32_t (*)(uint32_t addr, uint32_t *value);

// `set` and `indirset`: a failed write is reported as -2.
kiv_int32 writeAndShow(void **argv, WriteFn write) {
  uint32_t addr = 0, data = 0;
  if (!cmd_takeNums(argv, addr, data)) return -1;
  if (write(addr, data) != 0) return -2;
  printf("[0x%4.4X]=0x%4.4X\n", addr, data);
  return 0;
}

// `get` and `indirget`: a failed read returns its own code.
kiv_int32 readAndShow(void **argv, ReadFn read) {
  uint32_t addr = 0, value = 0;
  if (!cmd_takeNums(argv, addr)) return -1;
  const kiv_int32 rc = read(addr, &value);
  if (rc != 0) return rc;
  printf("[0x%4.4X]=0x%4.4X\n", addr, value);
  return 0;
}

kiv_int32 regSet(void **argv) { return writeAndShow(argv, asic_reg_write); }
kiv_int32 regGet(void **argv) { return readAndShow(argv, asic_reg_read); }

kiv_int32 regSetBit(void **argv) {
  uint32_t addr = 0, bit = 0, on = 0;
  if (!cmd_takeNums(argv, addr, bit, on)) return -1;
  if (bit > 31) return -1;   // the bit operation refuses it (ACCESS_BAD_BITS); the command reports -1
  // Read, modify, write: the write is made even when the read failed.
  uint32_t value = 0;
  const kiv_int32 readRc = asic_reg_read(addr, &value);
  if (on != 0)
    value |= 1u << bit;
  else
    value &= ~(1u << bit);
  if (asic_reg_write(addr, value) != 0 || readRc != 0) kiv_markLineFailed();
  printf("reg [0x%4.4X] bit [%d] = %X\n", addr, static_cast<int>(bit), on != 0 ? 1u : 0u);
  return 0;
}

kiv_int32 regGetBit(void **argv) {
  uint32_t addr = 0, bit = 0;
  if (!cmd_takeNums(argv, addr, bit)) return -1;
  if (bit > 31) return ACCESS_BAD_BITS;
  uint32_t value = 0;
  (void)noteFailure(asic_reg_read(addr, &value));
  printf("reg [0x%X] bit [%d] = 0x%X\n", addr, static_cast<int>(bit), (value >> bit) & 1u);
  return 0;
}

kiv_int32 regSetBits(void **argv) {
  uint32_t addr = 0, start = 0, end = 0, field = 0;
  if (!cmd_takeNums(argv, addr, start, end, field)) return -1;
  if (start > end || end > 31) return ACCESS_BAD_BITS;
  const uint32_t mask = fieldMask(start, end);
  if (field > mask) return ACCESS_BAD_BITS;
  uint32_t value = 0;
  if (noteFailure(asic_reg_read(addr, &value)) != 0) value = 0;
  value = (value & ~(mask << start)) | (field << start);
  (void)noteFailure(asic_reg_write(addr, value));
  printf("reg [0x%4.4x]  bits [%d:%d] = 0x%x\n", addr, static_cast<int>(end), static_cast<int>(start), field);
  return 0;
}

kiv_int32 regGetBits(void **argv) {
  uint32_t addr = 0, start = 0, end = 0;
  if (!cmd_takeNums(argv, addr, start, end)) return -1;
  if (start > end || end > 31) return ACCESS_BAD_BITS;
  const uint32_t mask = fieldMask(start, end);
  uint32_t value = 0;
  if (noteFailure(asic_reg_read(addr, &value)) != 0) value = 0;
  value = (value & (mask << start)) >> start;
  printf("reg [0x%x] bits [%d:%d] = 0x%x\n", addr, static_cast<int>(end), static_cast<int>(start), value);
  return 0;
}

kiv_int32 regGetBurst(void **argv) {
  uint32_t addr = 0, count = 0;
  if (!cmd_takeNums(argv, addr, count)) return -1;
  if (count > kBurstMax) {
    printf("getburst: %u registers asked, at most %u can be read at once\n", count, kBurstMax);
    return -1;
  }
  if (count == 0) return 0;
  // Only the adapter's I2C side fills the buffer; elsewhere it shows what it holds.
  burstBuf.fill(0);
  const kiv_int32 rc = asic_reg_read_burst(addr, burstBuf.data(), count);
  if (rc != 0) return rc;
  for (uint32_t i = 0; i < count; ++i) printf("[0x%4.4X]=0x%4.4X\n", addr + 4u * i, burstBuf[i]);
  return 0;
}

struct PageWord {
  std::string_view word;
  uint32_t page;
  const char *before;   // printed before the write, or null
  const char *after;    // printed after the write
};
constexpr auto kPageWords = std::to_array<PageWord>({
    {"axi", PAGE_AXI, nullptr, "Change to AXI\r"},
    {"cpu", PAGE_CPU, nullptr, "Change to CPU\r"},
    {"swcore", PAGE_SWCORE, "Switch core\r", "Change to Switch Core\r"},
    {"spic", PAGE_SPIC, "SPI Control\r", "Change to SPI Controler\r"},
});

kiv_int32 regChgPage(void **argv) {
  const cmd_arg_t arg = cmd_nextArg(argv);
  if (!arg.present) return -1;
  if (arg.word == nullptr) {   // a page number
    const uint32_t page = arg.num;
    if (page > PAGE_SPIC) {
      printf("Unknow page number 0x%x\r\n", page);
      kiv_markLineFailed();
      return 0;
    }
    return asic_reg_write(PAGE_REG_ADDR, page);
  }
  const char *word = arg.word;
  if (cmd_wordIs(word, "current")) {
    uint32_t value = 0;
    const kiv_int32 rc = asic_reg_read(PAGE_REG_ADDR, &value);
    printf("Current Page: 0x%x\r\n", value);
    return rc;
  }
  for (const PageWord &row : kPageWords) {
    if (row.word != word) continue;
    if (row.before != nullptr) puts(row.before);
    const kiv_int32 rc = asic_reg_write(PAGE_REG_ADDR, row.page);
    puts(row.after);
    return rc;
  }
  return -1;
}

// The indirect path goes through the plain register primitives (unit 1), not the traced
// direct access of `set`/`get`.
// Waits for the indirect access to finish: each successful read counts; past the limit
// the result is 11, a failed read ends the wait with its code.
kiv_int32 indirPoll() {
  uint32_t polls = 0;
  for (;;) {
    uint32_t value = 0;
    const kiv_int32 rc = reg_read(kUnit, INDIR_ACCESS_CTRL, &value);
    if (rc != 0) return rc;
    if ((value & INDIR_ACCESS_DONE) != 0) return 0;
    if (++polls > kIndirPollLimit) return 11;
  }
}

int32_t indirWrite(uint32_t addr, uint32_t data) {
  switch (access_if) {
    case ACCESS_IF_SMI:   // SMI reaches every register with a plain access
      return reg_write(kUnit, addr, data);
    case ACCESS_IF_RESERVED:
      if (addr == PAGE_REG_ADDR) {   // the page is kept here as the high address byte
        indirHighByte = data << 24;
        return 0;
      }
      return reg_write(kUnit, addr | indirHighByte, data);
    default: {
      kiv_int32 rc = reg_write(kUnit, INDIR_ACCESS_DATA, data);
      if (rc == 0) rc = reg_write(kUnit, INDIR_ACCESS_CTRL, addr | INDIR_ACCESS_WRITE);
      if (rc == 0) rc = indirPoll();
      return rc;
    }
  }
}

int32_t indirRead(uint32_t addr, uint32_t *value) {
  switch (access_if) {
    case ACCESS_IF_SMI:
      return reg_read(kUnit, addr, value);
    case ACCESS_IF_RESERVED:
      return reg_read(kUnit, addr | indirHighByte, value);
    default: {
      kiv_int32 rc = reg_write(kUnit, INDIR_ACCESS_CTRL, addr | INDIR_ACCESS_READ);
      if (rc == 0) rc = indirPoll();
      if (rc == 0) rc = reg_read(kUnit, INDIR_ACCESS_DATA, value);
      return rc;
    }
  }
}

kiv_int32 regIndirSet(void **argv) { return writeAndShow(argv, indirWrite); }
kiv_int32 regIndirGet(void **argv) { return readAndShow(argv, indirRead); }

// ---- smi ------------------------------------------------------------------------------------
kiv_int32 smiSet(void **argv) {
  uint32_t phy = 0, reg = 0, data = 0;
  if (!cmd_takeNums(argv, phy, reg, data)) return -1;
  // Only the low 16 bits reach the register; the line shows the value as typed.
  if (smi_write16(phy, 0, reg, static_cast<uint16_t>(data)) != 0) return -1;
  printf("[0x%4.4x]=0x%4.4x\n", reg, data);
  return 0;
}

kiv_int32 smiGet(void **argv) {
  uint32_t phy = 0, reg = 0;
  if (!cmd_takeNums(argv, phy, reg)) return -1;
  uint16_t value = 0;
  if (smi_read16(phy, 0, reg, &value) != 0) return -1;
  printf("[0x%4.4x]=0x%4.4x\n", reg, static_cast<unsigned>(value));
  return 0;
}

kiv_int32 smiBrdSet(void **) { return 0; }   // accepted, does nothing

kiv_int32 smiExtAccess(void **argv) {
  const char *op = cmd_nextStr(argv);
  if (cmd_wordIs(op, "set")) {
    uint32_t value = 0;
    if (!cmd_takeNums(argv, value)) return -1;
    const uint32_t on = (value & 0xFFu) != 0 ? 1u : 0u;
    if (reg_field_write(kUnit, PHY_ACCESS_CFG, PHY_ACCESS_CFG_SEL_EXT_LSP, 1, on) != 0) {
      puts("Access register fail\r");
      return -1;
    }
    return 0;
  }
  if (cmd_wordIs(op, "get")) {
    // The bit is taken from a word that is not read from the chip (kept as built).
    const uint32_t word = 0;
    uint32_t bit = 0;
    if (reg_field_get(kUnit, PHY_ACCESS_CFG, PHY_ACCESS_CFG_SEL_EXT_LSP, 1, &bit, word) != 0) {
      puts("Access register fail\r");
      return -1;
    }
    printf("SEL_EXT_ACCESS = %u\r\n", bit);
    return 0;
  }
  return -1;
}

// MDC/MDIO channel master: one paged access to the device with the given PHY ID.
kiv_int32 smiChannel(void **argv) {
  const char *op = cmd_nextStr(argv);
  const bool isSet = cmd_wordIs(op, "set");
  if (!isSet && !cmd_wordIs(op, "get")) {
    puts("unknow command\r");
    kiv_markLineFailed();
    return 0;
  }
  uint32_t phy = 0, page = 0, reg = 0, value = 0;
  if (!cmd_takeNums(argv, phy, page, reg)) return -1;
  if (isSet && !cmd_takeNums(argv, value)) return -1;
  phy &= 0xFu;
  if (phy == 0xBu) page = 31;   // the T18 is reached on page 31 only
  reg &= 0x1Fu;

  if (reg_field_write(kUnit, PHY_ACCESS_CFG, PHY_ACCESS_CFG_SEL_EXT_LSP, 1, 0) != 0) return -1;   // MAC drives
  if (reg_field_write(kUnit, PHY_ACCESS_AUX, 16, 4, phy) != 0) return -1;
  uint32_t cmd = 0;
  (void)reg_field_set(kUnit, PHY_ACCESS_CMD, 3, 5, page, &cmd);
  (void)reg_field_set(kUnit, PHY_ACCESS_CMD, 8, 5, reg, &cmd);
  if (isSet)
    (void)reg_field_set(kUnit, PHY_ACCESS_CMD, 16, 16, value, &cmd);
  else
    cmd |= 1u << 1;
  cmd |= 1u;
  if (reg_write(kUnit, PHY_ACCESS_CMD, cmd) != 0) return -1;

  uint32_t word = cmd;
  bool done = false;
  for (uint32_t i = 0; i < kChannelPolls && !done; ++i)
    done = reg_read(kUnit, PHY_ACCESS_CMD, &word) == 0 && (word & 1u) == 0;
  if (!done) return -1;
  if (isSet)
    printf("Write data Page: 0x%x Reg: %d value:0x%x\r\n", page, static_cast<int>(reg), word >> 16);
  else
    printf("Page: 0x%03x Reg: %d value:0x%04x\r\n", page, static_cast<int>(reg), word >> 16);
  return 0;
}

// ---- internal PHY access unit ------------------------------------------------------------
// Polls until the unit's start bit is clear: 0, or -11 when it stays busy (a failed read
// ends the wait with its code).
kiv_int32 phyWaitIdle() {
  for (uint32_t i = 0; i < kPhyIdlePolls; ++i) {
    uint32_t word = 0;
    const kiv_int32 rc = reg_read(kUnit, PHY_ACCESS_CMD, &word);
    if (rc != 0) return rc;
    if ((word & 1u) == 0) return 0;
  }
  return -11;
}

// Starts the unit with `cmd`, waits, and for reads takes the data.
kiv_int32 phyStart(uint32_t cmd, uint16_t *data) {
  if (reg_write(kUnit, PHY_ACCESS_CMD, cmd) != 0) return -1;
  if (phyWaitIdle() != 0) return -1;
  if (data != nullptr) {
    uint32_t word = 0;
    if (reg_read(kUnit, PHY_ACCESS_CMD, &word) != 0) return -1;
    *data = static_cast<uint16_t>(word >> 16);
  }
  return 0;
}

// One access through the unit: wait until idle, then start it.
kiv_int32 phyUnitAccess(uint32_t cmd, uint16_t *data) {
  if (phyWaitIdle() != 0) return -1;
  return phyStart(cmd, data);
}

// MMD access: wait until idle, put the register address in the auxiliary word, start.
kiv_int32 mmdAccess(uint16_t reg, uint32_t cmd, uint16_t *data) {
  if (phyWaitIdle() != 0) return -1;
  if (reg_write(kUnit, PHY_ACCESS_AUX, reg) != 0) return -1;
  return phyStart(cmd, data);
}

kiv_int32 mmdRead(uint8_t phy, uint8_t dev, uint16_t reg, uint16_t *value) {
  return mmdAccess(reg, (uint32_t{phy} << 13) | (uint32_t{dev} << 8) | 0xFFu, value);
}

kiv_int32 mmdWrite(uint8_t phy, uint8_t dev, uint16_t reg, uint16_t data) {
  return mmdAccess(reg, (uint32_t{data} << 16) | (uint32_t{phy} << 13) | (uint32_t{dev} << 8) | 0xFDu, nullptr);
}

// Paged register access; the page is not masked to its field.
kiv_int32 phyRead(uint8_t phy, uint8_t page, uint8_t reg, uint16_t *value) {
  return phyUnitAccess((uint32_t{phy} << 13) | (uint32_t{reg} << 8) | (uint32_t{page} << 3) | 0x3u, value);
}

kiv_int32 phyWrite(uint8_t phy, uint8_t page, uint8_t reg, uint16_t value) {
  return phyUnitAccess((uint32_t{value} << 16) | (uint32_t{phy} << 13) | (uint32_t{reg} << 8) |
                           (uint32_t{page} << 3) | 0x1u,
                       nullptr);
}

// Extension page of the gigabit PHY: select extension mode in register 31, the page in
// register 30 of page 31, access the register on page 31, then restore register 31.
kiv_int32 gphyExtAccess(uint8_t extPage, uint8_t reg, bool write, uint16_t *data) {
  uint16_t kept = 0;
  kiv_int32 rc = phyRead(kGphyNumber, 0, kGphyPageSelReg, &kept);
  if (rc != 0) return rc;
  rc = phyWrite(kGphyNumber, 0, kGphyPageSelReg, kGphyExtMode);
  if (rc == 0) rc = phyWrite(kGphyNumber, kGphyExtPage, kGphyExtPageReg, extPage);
  if (rc == 0)
    rc = write ? phyWrite(kGphyNumber, kGphyExtPage, reg, *data) : phyRead(kGphyNumber, kGphyExtPage, reg, data);
  const kiv_int32 restore = phyWrite(kGphyNumber, 0, kGphyPageSelReg, kept);
  return rc != 0 ? rc : restore;
}

// ---- mmd ------------------------------------------------------------------------------------
kiv_int32 mmdCmdRead(void **argv) {
  uint32_t phy = 0, dev = 0, reg = 0;
  if (!cmd_takeNums(argv, phy, dev, reg)) return -1;
  uint16_t value = 0;
  const kiv_int32 rc =
      mmdRead(static_cast<uint8_t>(phy), static_cast<uint8_t>(dev), static_cast<uint16_t>(reg), &value);
  if (rc != 0) value = 0;
  printf("reg value: %04x\n", static_cast<unsigned>(value));
  return rc;
}

kiv_int32 mmdCmdWrite(void **argv) {
  uint32_t phy = 0, dev = 0, reg = 0, data = 0;
  if (!cmd_takeNums(argv, phy, dev, reg, data)) return -1;
  return mmdWrite(static_cast<uint8_t>(phy), static_cast<uint8_t>(dev), static_cast<uint16_t>(reg),
                  static_cast<uint16_t>(data));
}

// ---- phy / gphy --------------------------------------------------------------------------
kiv_int32 phyCmdRead(void **argv) {
  uint32_t phy = 0, page = 0, reg = 0;
  if (!cmd_takeNums(argv, phy, page, reg)) return -1;
  uint16_t value = 0;
  const kiv_int32 rc =
      phyRead(static_cast<uint8_t>(phy), static_cast<uint8_t>(page), static_cast<uint8_t>(reg), &value);
  if (rc != 0) return rc;
  printf("reg value: %04x\n", static_cast<unsigned>(value));
  return 0;
}

kiv_int32 phyCmdWrite(void **argv) {
  uint32_t phy = 0, page = 0, reg = 0, value = 0;
  if (!cmd_takeNums(argv, phy, page, reg, value)) return -1;
  return phyWrite(static_cast<uint8_t>(phy), static_cast<uint8_t>(page), static_cast<uint8_t>(reg),
                  static_cast<uint16_t>(value));
}

kiv_int32 phyCmdReadExt(void **argv) {
  uint32_t page = 0, reg = 0;
  if (!cmd_takeNums(argv, page, reg)) return -1;
  uint16_t value = 0;
  const kiv_int32 rc = gphyExtAccess(static_cast<uint8_t>(page), static_cast<uint8_t>(reg), false, &value);
  if (rc != 0) return rc;
  printf("reg value: %04x\n", static_cast<unsigned>(value));
  return 0;
}

kiv_int32 phyCmdWriteExt(void **argv) {
  uint32_t page = 0, reg = 0, value = 0;
  if (!cmd_takeNums(argv, page, reg, value)) return -1;
  uint16_t data = static_cast<uint16_t>(value);
  return gphyExtAccess(static_cast<uint8_t>(page), static_cast<uint8_t>(reg), true, &data);
}

// ---- mdx ------------------------------------------------------------------------------------
kiv_int32 mdxConfigure(uint32_t divisor, uint32_t preambleCode) {
  if (divisor < 1 || divisor > 31 || preambleCode >= 4) return -2;
  uint32_t value = 0;
  const kiv_int32 rc = reg_read(kUnit, MDX_CFG, &value);
  if (rc != 0) return rc;
  (void)reg_field_set(kUnit, MDX_CFG, 9, 5, divisor, &value);
  (void)reg_field_set(kUnit, MDX_CFG, 2, 2, preambleCode, &value);
  return reg_write(kUnit, MDX_CFG, value);
}

// One external-PHY access; bit 4 of the pin control is cleared for the access and set
// again afterwards whatever happened.
kiv_int32 mdxAccess(uint8_t phy, uint32_t reg, bool write, uint32_t *data) {
  kiv_int32 rc = reg_field_write(kUnit, MDX_PIN_CTRL, 4, 1, 0);
  if (rc == 0) rc = reg_field_write(kUnit, MDX_PHY_ID, 0, 5, phy);
  if (rc == 0) {
    const uint32_t cmd = write ? (reg << 8) | (*data << 16) | 0xF9u : (reg << 8) | 0xFBu;
    rc = reg_write(kUnit, MDX_CMD, cmd);
  }
  if (rc == 0) {
    for (uint32_t polls = 0;;) {
      uint32_t word = 0;
      rc = reg_read(kUnit, MDX_CMD, &word);
      if (rc != 0) break;
      if ((word & 1u) == 0) {
        if (!write) *data = word >> 16;
        break;
      }
      if (++polls >= kMdxPolls) {
        rc = -11;
        break;
      }
    }
  }
  const kiv_int32 restore = reg_field_write(kUnit, MDX_PIN_CTRL, 4, 1, 1);
  return rc != 0 ? rc : restore;
}

kiv_int32 mdxInit(void **argv) {
  uint32_t divisor = 5, preamble = 32;   // defaults when a value is not typed
  if (cmd_nextU32(argv, &divisor)) (void)cmd_nextU32(argv, &preamble);
  if (divisor >= 32) {
    puts("baud rate range is 0~0x1F");
    return -1;
  }
  uint32_t code = 0;
  switch (preamble) {
    case 0: code = 0; break;
    case 8: code = 1; break;
    case 16: code = 2; break;
    case 32: code = 3; break;
    default:
      puts("preamble is 0, 8, 16 or 32");
      return -1;
  }
  return mdxConfigure(divisor, code);
}

kiv_int32 mdxSetGet(void **argv, bool write) {
  uint32_t phy = 0, reg = 0, data = 0;
  if (!cmd_takeNums(argv, phy, reg)) return -1;
  if (write && !cmd_takeNums(argv, data)) return -1;
  const uint8_t phyId = static_cast<uint8_t>(phy);
  if (phyId > 31) {
    puts("PHY ID range is 0~0x1F");
    return -1;
  }
  const kiv_int32 rc = mdxAccess(phyId, reg, write, &data);
  if (rc != 0) return rc;
  printf("[0x%4.4X]=0x%4.4X\n", reg, data);
  return 0;
}

kiv_int32 mdxSet(void **argv) { return mdxSetGet(argv, true); }
kiv_int32 mdxGet(void **argv) { return mdxSetGet(argv, false); }

}  // namespace

// ---- the families: grammar, subcommand table and handler --------------------------------

const char hx5200_usageReg[] =
    "{  set'Set content of register' { %d'Reg Address'%d'Data' }  |  get'Get content of register' { "
    "%d'Address' }  |  setbit'Set bit value of register' { %d'Reg Address'%d'Bit Address' %d'Bit "
    "Data' }  |  getbit'Get bit value of register' { %d'Reg address'%d'Bit address' }  |  "
    "setbits'Set bits value of register' { %d'Reg address'%d'Start bit number'%d'End bit "
    "number'%d'Filed value' }  |  getbits'Get bits value of register' { %d'Reg address'%d'Start bit "
    "number'%d'End bit number' }  |  getburst'Get content of register' { %d'Address' %d 'get "
    "numbers back'}  | chgpage'Change page' { axi'AXI' | cpu'CPU domain' | swcore'Switch core' | "
    "spic'SPI Control' | current'Current page' | %d'page number' }  |  indirset'Set content of "
    "register' { %d'Reg Address'%d'Data' }  |  indirget'Get content of register' { %d'Address' }  }";

namespace {
constexpr auto kRegCmds = std::to_array<cmd_sub_t<>>({
    {"set", regSet},
    {"get", regGet},
    {"setbit", regSetBit},
    {"getbit", regGetBit},
    {"setbits", regSetBits},
    {"getbits", regGetBits},
    {"getburst", regGetBurst},
    {"chgpage", regChgPage},
    {"indirset", regIndirSet},
    {"indirget", regIndirGet},
});
}  // namespace

kiv_int32 hx5200_cmd_reg(kiv_uint32, kiv_int32, void **argv) {
  return cmd_runSub(kRegCmds, cmd_nextStr(argv), argv, -1);
}

const char hx5200_usageSmi[] =
    "{  set'Set content of register' { %d'phyID' %d'Register Address'%d'Data' }  |  get'Get content "
    "of register' { %d'phyID' %d'Register Address' }  |  brdset'Broadcast to PHY port' { %d'Port "
    "mask' %d'Page' %d'offset' %d'value' }  |  extaccess' Select MDC/MDIO interface to GPIO pin'  { "
    "get'Get current settings'  | set'Set' %d'0:MAC 1: PHY'  }  | channel'MDC/MDIO Channel access'  "
    "{ get'Get' { %d'phyID. 0xB for T18' %d'Page' %d'Reg' } | set'Set' { %d'phyID. 0xB for T18' "
    "%d'Page' %d'Reg' %d'Value' } } }";

namespace {
constexpr auto kSmiCmds = std::to_array<cmd_sub_t<>>({
    {"set", smiSet},
    {"get", smiGet},
    {"brdset", smiBrdSet},
    {"extaccess", smiExtAccess},
    {"channel", smiChannel},
});
}  // namespace

kiv_int32 hx5200_cmd_smi(kiv_uint32, kiv_int32, void **argv) {
  return cmd_runSub(kSmiCmds, cmd_nextStr(argv), argv, -1);
}

const char hx5200_usageMmd[] =
    "{ read'read mmd register' { %d'phy number' %d'device id' %d'reg address'}  | write'write mmd "
    "register' { %d'phy number' %d'device id' %d'reg address' %d'reg vale' } }";

namespace {
constexpr auto kMmdCmds = std::to_array<cmd_sub_t<>>({
    {"read", mmdCmdRead},
    {"write", mmdCmdWrite},
});
}  // namespace

kiv_int32 hx5200_cmd_mmd(kiv_uint32, kiv_int32, void **argv) {
  // The command always ends in success; a failed access shows in the line's result only.
  (void)noteFailure(cmd_runSub(kMmdCmds, cmd_nextStr(argv), argv, 0));
  puts("MMD Over");
  return 0;
}

const char hx5200_usageMdx[] =
    "{  init 'Init MDX controller '  { %d 'baud rate. The mdx clock = 12.5MHz / baudrate'  { %d "
    "'preamble: 0, 8, 16, 32'  }  }  |  set'Set content of register' { %d'PHY ID: 0~31'%d'Reg "
    "Address'%d'Data' }  |  get'Get content of register' { %d'PHY ID: 0~31'%d'Address' } }";

namespace {
constexpr auto kMdxCmds = std::to_array<cmd_sub_t<>>({
    {"init", mdxInit},
    {"set", mdxSet},
    {"get", mdxGet},
});
}  // namespace

kiv_int32 hx5200_cmd_mdx(kiv_uint32, kiv_int32, void **argv) {
  return cmd_runSub(kMdxCmds, cmd_nextStr(argv), argv, 0);
}

// `phy` and `gphy` share the handler: `gphy` has the extension-page words, `phy` the rest.
const char hx5200_usagePhy[] =
    "{ r'R calibration of a phy' { %d'phy number' }  | rc'RC calibration of a phy' { %d'phy number' "
    "}  | read'read phy register' { %d'phy number' %d'page' %d'reg address' }  | write'write phy "
    "register' { %d'phy number' %d'page' %d'reg address' %d'reg value' }  | testmode'set phy test "
    "mode' { %d'phy number' %d'test mode' }  | rtpgetm'get phy RTP measurement' { %d'phy number' }  "
    "| phyreset'reset a phy' { %d'phy number' }  | reset'reset all phys'  | enable'enable or disable "
    "a phy' { %d'phy number' %d'0:disable 1:enable' }  | role'set phy master/slave role' { %d'phy "
    "number' %d'0:slave 1:master' }  | autopolarity'set phy auto polarity' { %d'phy number' "
    "%d'0:off 1:on' }  | linkst'get phy link status' { %d'phy number' }  | outputlinkst'output link "
    "status on GPIOC0' { %d'phy number' }  | pktgen'phy packet generator' { %d'phy number' "
    "%d'packet count' }  | channel'phy MDC/MDIO channel access' { %d'phy number' }  | ocp2reg'read "
    "phy register by OCP address' { %d'OCP address' }  | mdc2reg'read phy register by MDIO address' "
    "{ %d'phy number' %d'reg address' } }";
const char hx5200_usageGphy[] =
    "{ readext'read register of extension page of giga phy' { %d'page' %d'reg address'}  | "
    "writeext'write value into register of extension page of giga phy' { %d'page' %d'reg address' "
    "%d'reg vale' } }";

namespace {
// Words of both grammars; a null function marks a word whose action this tool does not have.
constexpr auto kPhyCmds = std::to_array<cmd_sub_t<>>({
    {"r", nullptr},
    {"rc", nullptr},
    {"read", phyCmdRead},
    {"write", phyCmdWrite},
    {"testmode", nullptr},
    {"rtpgetm", nullptr},
    {"phyreset", nullptr},
    {"reset", nullptr},
    {"enable", nullptr},
    {"role", nullptr},
    {"autopolarity", nullptr},
    {"linkst", nullptr},
    {"outputlinkst", nullptr},
    {"pktgen", nullptr},
    {"channel", nullptr},
    {"ocp2reg", nullptr},
    {"mdc2reg", nullptr},
    {"readext", phyCmdReadExt},
    {"writeext", phyCmdWriteExt},
});
}  // namespace

kiv_int32 hx5200_cmd_phy(kiv_uint32, kiv_int32, void **argv) {
  const char *word = cmd_nextStr(argv);
  if (word == nullptr) return -1;
  const cmd_sub_t<> *row = cmd_findSub(kPhyCmds, word);
  if (row != nullptr && row->fn != nullptr) return row->fn(argv);
  printf("phy %s: not supported\n", word);
  return -1;
}

const cmd_subWords_t hx5200_wordsReg = cmd_subWords(kRegCmds);
const cmd_subWords_t hx5200_wordsSmi = cmd_subWords(kSmiCmds);
const cmd_subWords_t hx5200_wordsMmd = cmd_subWords(kMmdCmds);
const cmd_subWords_t hx5200_wordsMdx = cmd_subWords(kMdxCmds);
const cmd_subWords_t hx5200_wordsPhy = cmd_subWords(kPhyCmds);
