// Interface selector, register hooks and the register/field primitives every driver and
// command stands on.
#include "access/access.h"

#include <cstdio>

#include "access/access_local.h"

uint8_t access_if = ACCESS_IF_I2C;
uint32_t reg_debug_trace = 0;

namespace {

constexpr uint32_t kTraceOn = 0x8370;
constexpr uint32_t kNoHook = 0xFFFFFFFFu;
constexpr uint32_t kSmiPollLimit = 4097;
constexpr uint32_t kSmiBusy = 0x8000;
constexpr uint32_t kSmiReadReq = 0x8000;
constexpr uint32_t kSmiWriteReq = 0x8100;
// MDIO registers of the indirect scheme.
constexpr uint32_t kMdioDataLo = 0, kMdioDataHi = 2, kMdioAddrLo = 4, kMdioCmd = 6;


reg_write_fn g_i2c_write = nullptr;
reg_read_fn g_i2c_read = nullptr;
smi_write_fn g_smi_write = nullptr;
smi_read_fn g_smi_read = nullptr;
reg_write_fn g_spi_write = nullptr;
reg_read_fn g_spi_read = nullptr;

reg_burst_read_fn g_i2c_burst = nullptr;

reg_width_notice_fn g_width_notice = nullptr;

// Page register kept in memory while the reserved interface is selected: the page lives
// in bits 24-31.
uint32_t g_emulated_page = uint32_t{PAGE_SWCORE} << 24;

bool tracing() { return reg_debug_trace == kTraceOn; }

bool field_range_ok(uint32_t lsp, uint32_t len) { return lsp < 32 && len >= 1 && lsp + len - 1 < 32; }

uint32_t len_mask(uint32_t len) { return len >= 32 ? 0xFFFFFFFFu : ((1u << len) - 1u); }

// ---- SMI indirect access -----------------------------------------------------------------
// The untraced form talks to the SMI hooks directly; the traced form goes through
// smi_write16/smi_read16 so every MDIO step is shown.
struct MdioOps {
  int32_t (*write)(uint32_t reg, uint16_t data);
  int32_t (*read)(uint32_t reg, uint16_t *data);
};

int32_t plain_mdio_write(uint32_t reg, uint16_t data) {
  return g_smi_write ? g_smi_write(mdcaddrid, reg, data) : static_cast<int32_t>(kNoHook);
}
int32_t plain_mdio_read(uint32_t reg, uint16_t *data) {
  return g_smi_read ? g_smi_read(mdcaddrid, reg, data) : static_cast<int32_t>(kNoHook);
}
int32_t traced_mdio_write(uint32_t reg, uint16_t data) { return smi_write16(mdcaddrid, 0, reg, data); }
int32_t traced_mdio_read(uint32_t reg, uint16_t *data) { return smi_read16(mdcaddrid, 0, reg, data); }

constexpr MdioOps kPlainMdio{plain_mdio_write, plain_mdio_read};
constexpr MdioOps kTracedMdio{traced_mdio_write, traced_mdio_read};

enum class SmiResult { ok, step_failed, busy_timeout };

SmiResult smi_wait_idle(const MdioOps &ops) {
  for (uint32_t i = 0; i < kSmiPollLimit; ++i) {
    uint16_t cmd = 0;
    if (ops.read(kMdioCmd, &cmd) != 0) return SmiResult::step_failed;
    if ((cmd & kSmiBusy) == 0) return SmiResult::ok;
  }
  return SmiResult::busy_timeout;
}

SmiResult smi_indirect_write_with(const MdioOps &ops, uint32_t addr, uint32_t value) {
  if (ops.write(kMdioDataLo, static_cast<uint16_t>(value & 0xFFFF)) != 0 ||
      ops.write(kMdioDataHi, static_cast<uint16_t>(value >> 16)) != 0 ||
      ops.write(kMdioAddrLo, static_cast<uint16_t>(addr & 0xFFFF)) != 0 ||
      ops.write(kMdioCmd, static_cast<uint16_t>(((addr >> 16) & 0xFF) | kSmiWriteReq)) != 0)
    return SmiResult::step_failed;
  return smi_wait_idle(ops);
}

SmiResult smi_indirect_read_with(const MdioOps &ops, uint32_t addr, uint32_t *value) {
  if (ops.write(kMdioAddrLo, static_cast<uint16_t>(addr & 0xFFFF)) != 0 ||
      ops.write(kMdioCmd, static_cast<uint16_t>(((addr >> 16) & 0xFF) | kSmiReadReq)) != 0)
    return SmiResult::step_failed;
  SmiResult r = smi_wait_idle(ops);
  if (r != SmiResult::ok) return r;
  *value = 0;
  uint16_t lo = 0, hi = 0;
  if (ops.read(kMdioDataLo, &lo) != 0 || ops.read(kMdioDataHi, &hi) != 0) return SmiResult::step_failed;
  *value = static_cast<uint32_t>(lo) | (static_cast<uint32_t>(hi) << 16);
  return SmiResult::ok;
}

int32_t untraced_code(SmiResult r) {
  switch (r) {
    case SmiResult::ok: return 0;
    case SmiResult::step_failed: return ACCESS_BAD_FIELD;
    case SmiResult::busy_timeout: return ACCESS_SMI_TIMEOUT;
  }
  return -1;
}

int32_t traced_code(SmiResult r) {
  switch (r) {
    case SmiResult::ok: return 0;
    case SmiResult::step_failed: return ACCESS_XFER_FAIL;
    case SmiResult::busy_timeout:
      printf("\nread SMI reigster interface timeout!!");
      return -1;
  }
  return -1;
}

}  // namespace

// ---- selector and registration -----------------------------------------------------------

void access_if_set(uint32_t n) { access_if = static_cast<uint8_t>(n < 5 ? n : 0); }

int32_t i2c_hooks_register(reg_write_fn w, reg_read_fn r) {
  if (!w || !r) return -1;
  if ((w == sw_i2c_reg_write || r == sw_i2c_reg_read) && !access_local::i2c_lines_complete()) return -1;
  g_i2c_write = w;
  g_i2c_read = r;
  access_if_set(ACCESS_IF_I2C);
  return 0;
}

int32_t smi_hooks_register(smi_write_fn w, smi_read_fn r) {
  if (!w || !r) return -1;
  if ((w == sw_smi_write || r == sw_smi_read) && !access_local::smi_lines_complete()) return -1;
  g_smi_write = w;
  g_smi_read = r;
  access_if_set(ACCESS_IF_SMI);
  return 0;
}

int32_t spi_hooks_register(reg_write_fn w, reg_read_fn r) {
  if (!w || !r) return -1;
  const bool software = (w == sw_spi_reg_write || r == sw_spi_reg_read);
  if (software && !access_local::spi_lines_complete()) return -1;
  g_spi_write = w;
  g_spi_read = r;
  access_if_set(ACCESS_IF_SPI);
  if (software) access_local::spi_lines_idle();
  return 0;
}

int32_t i2c_if_reg_write(uint32_t addr, uint32_t value) {
  return g_i2c_write ? g_i2c_write(addr, value) : static_cast<int32_t>(kNoHook);
}
int32_t i2c_if_reg_read(uint32_t addr, uint32_t *value) {
  return g_i2c_read ? g_i2c_read(addr, value) : static_cast<int32_t>(kNoHook);
}
int32_t spi_if_reg_write(uint32_t addr, uint32_t value) {
  return g_spi_write ? g_spi_write(addr, value) : static_cast<int32_t>(kNoHook);
}
int32_t spi_if_reg_read(uint32_t addr, uint32_t *value) {
  return g_spi_read ? g_spi_read(addr, value) : static_cast<int32_t>(kNoHook);
}

// ---- register primitives -----------------------------------------------------------------

int32_t smi_indirect_read(uint32_t addr, uint32_t *value) {
  if (!value) return ACCESS_NULL_PTR;
  return untraced_code(smi_indirect_read_with(kPlainMdio, addr, value));
}

int32_t smi_indirect_write(uint32_t addr, uint32_t value) {
  return untraced_code(smi_indirect_write_with(kPlainMdio, addr, value));
}

int32_t reg_read(uint32_t, uint32_t addr, uint32_t *value) {
  if (access_if > ACCESS_IF_RESERVED) return -1;
  if (!value) return ACCESS_NULL_PTR;
  switch (access_if) {
    case ACCESS_IF_I2C: return i2c_if_reg_read(addr, value);
    case ACCESS_IF_SMI: return smi_indirect_read(addr, value);
    case ACCESS_IF_SPI: return spi_if_reg_read(addr, value);
    default: return ACCESS_RESERVED_IF;
  }
}

int32_t reg_write(uint32_t, uint32_t addr, uint32_t value) {
  switch (access_if) {
    case ACCESS_IF_I2C: return i2c_if_reg_write(addr, value);
    case ACCESS_IF_SMI: return smi_indirect_write(addr, value);
    case ACCESS_IF_SPI: return spi_if_reg_write(addr, value);
    case ACCESS_IF_RESERVED: return ACCESS_RESERVED_IF;
    default: return -1;
  }
}

int32_t reg_field_get(uint32_t, uint32_t, uint32_t lsp, uint32_t len, uint32_t *field, uint32_t regValue) {
  if (!field_range_ok(lsp, len)) return ACCESS_BAD_FIELD;
  if (!field) return ACCESS_NULL_PTR;
  *field = (regValue >> lsp) & len_mask(len);
  return 0;
}

int32_t reg_field_set(uint32_t, uint32_t, uint32_t lsp, uint32_t len, uint32_t field, uint32_t *regValue) {
  if (!field_range_ok(lsp, len)) return ACCESS_BAD_FIELD;
  if (!regValue) return ACCESS_NULL_PTR;
  const uint32_t mask = len_mask(len);
  *regValue = (*regValue & ~(mask << lsp)) | ((field & mask) << lsp);
  return 0;
}

int32_t reg_field_read(uint32_t unit, uint32_t addr, uint32_t lsp, uint32_t len, uint32_t *field) {
  if (access_if > ACCESS_IF_RESERVED) return -1;
  if (!field_range_ok(lsp, len)) return ACCESS_BAD_FIELD;
  if (!field) return ACCESS_NULL_PTR;
  uint32_t v = 0;
  int32_t rc = reg_read(unit, addr, &v);
  if (rc != 0) return rc;
  return reg_field_get(unit, addr, lsp, len, field, v);
}

// Read, set, write in that order: the range is checked by the set, after the read, so
// the reserved interface answers -24 and a bad range costs one read.
int32_t reg_field_write(uint32_t unit, uint32_t addr, uint32_t lsp, uint32_t len, uint32_t field) {
  uint32_t v = 0;
  int32_t rc = reg_read(unit, addr, &v);
  if (rc != 0) return rc;
  rc = reg_field_set(unit, addr, lsp, len, field, &v);
  if (rc != 0) return rc;
  return reg_write(unit, addr, v);
}

// ---- traced access family ----------------------------------------------------------------

int32_t smi_write16(uint32_t phy, uint32_t, uint32_t reg, uint16_t data) {
  const int32_t rc = g_smi_write ? g_smi_write(phy, reg, data) : static_cast<int32_t>(kNoHook);
  if (rc != 0) return ACCESS_XFER_FAIL;
  if (tracing()) printf("W[0x%4.4x]=0x%4.4x\n", reg, static_cast<uint32_t>(data));
  return 0;
}

int32_t smi_read16(uint32_t phy, uint32_t, uint32_t reg, uint16_t *data) {
  if (!data) return ACCESS_NULL_PTR;
  const int32_t rc = g_smi_read ? g_smi_read(phy, reg, data) : static_cast<int32_t>(kNoHook);
  if (rc != 0) return ACCESS_XFER_FAIL;
  if (tracing()) printf("R[0x%4.4x]=0x%4.4x\n", reg, static_cast<uint32_t>(*data));
  return 0;
}

int32_t asic_reg_read(uint32_t addr, uint32_t *value) {
  if (!value) return ACCESS_NULL_PTR;
  int32_t rc;
  switch (access_if) {
    case ACCESS_IF_I2C: rc = i2c_if_reg_read(addr, value); break;
    case ACCESS_IF_SPI: rc = spi_if_reg_read(addr, value); break;
    default: return traced_code(smi_indirect_read_with(kTracedMdio, addr, value));
  }
  if (rc != 0) return ACCESS_XFER_FAIL;
  if (tracing()) printf("R[0x%4.4x]=0x%4.4x\n", addr, *value);
  return 0;
}

int32_t asic_reg_write(uint32_t addr, uint32_t value) {
  int32_t rc;
  switch (access_if) {
    case ACCESS_IF_I2C: rc = i2c_if_reg_write(addr, value); break;
    case ACCESS_IF_SPI: rc = spi_if_reg_write(addr, value); break;
    default: return traced_code(smi_indirect_write_with(kTracedMdio, addr, value));
  }
  if (rc != 0) return ACCESS_XFER_FAIL;
  if (tracing()) printf("W[0x%4.4x]=0x%4.4x\n", addr, value);
  return 0;
}

int32_t asic_reg_bit_set(uint32_t addr, uint32_t bit, uint32_t on) {
  if (bit > 31) return ACCESS_BAD_BITS;
  uint32_t v = 0;
  int32_t rc = asic_reg_read(addr, &v);
  if (rc != 0) return rc;
  v = on ? (v | (1u << bit)) : (v & ~(1u << bit));
  return asic_reg_write(addr, v);
}

int32_t asic_reg_bit_get(uint32_t addr, uint32_t bit, uint32_t *out) {
  if (bit > 31) return ACCESS_BAD_BITS;
  if (!out) return ACCESS_NULL_PTR;
  uint32_t v = 0;
  int32_t rc = asic_reg_read(addr, &v);
  if (rc != 0) return rc;
  *out = (v >> bit) & 1u;
  return 0;
}

namespace {
bool bits_range_ok(uint32_t startBit, uint32_t endBit) { return startBit <= endBit && endBit <= 31; }
}  // namespace

int32_t asic_reg_bits_set(uint32_t addr, uint32_t startBit, uint32_t endBit, uint32_t value) {
  if (!bits_range_ok(startBit, endBit)) return ACCESS_BAD_BITS;
  const uint32_t mask = len_mask(endBit - startBit + 1);
  if ((value & ~mask) != 0) return ACCESS_BAD_BITS;
  uint32_t v = 0;
  int32_t rc = asic_reg_read(addr, &v);
  if (rc != 0) return rc;
  v = (v & ~(mask << startBit)) | (value << startBit);
  return asic_reg_write(addr, v);
}

int32_t asic_reg_bits_get(uint32_t addr, uint32_t startBit, uint32_t endBit, uint32_t *out) {
  if (!bits_range_ok(startBit, endBit)) return ACCESS_BAD_BITS;
  if (!out) return ACCESS_NULL_PTR;
  uint32_t v = 0;
  int32_t rc = asic_reg_read(addr, &v);
  if (rc != 0) return rc;
  *out = (v >> startBit) & len_mask(endBit - startBit + 1);
  return 0;
}

void i2c_burst_hook_register(reg_burst_read_fn fn) { g_i2c_burst = fn; }

int32_t asic_reg_read_burst(uint32_t addr, uint32_t *values, uint32_t n) {
  if (access_if != ACCESS_IF_I2C) return 0;
  return g_i2c_burst ? g_i2c_burst(addr, values, n) : ACCESS_FAIL;
}

// ---- parallel-port register access ---------------------------------------------------------

namespace {
uint32_t mask_shift(uint32_t mask) {
  uint32_t s = 0;
  while (((mask >> s) & 1u) == 0) ++s;
  return s;
}
}  // namespace

int32_t lpt_reg_mask_get(uint32_t addr, uint32_t mask, uint32_t *out) {
  if (mask == 0) return ACCESS_BAD_BITS;
  if (!out) return ACCESS_NULL_PTR;
  uint8_t b[2] = {0, 0};
  if (access_local::lpt_i2c_read(addr, b, 2) != 1) return ACCESS_XFER_FAIL;
  const uint32_t v = static_cast<uint32_t>(b[0]) | (static_cast<uint32_t>(b[1]) << 8);
  *out = (v & mask) >> mask_shift(mask);
  return 0;
}

int32_t lpt_reg_mask_set(uint32_t addr, uint32_t mask, uint32_t value) {
  if (mask == 0) return ACCESS_BAD_BITS;
  const uint32_t shift = mask_shift(mask);
  const uint64_t shifted = static_cast<uint64_t>(value) << shift;
  if (shifted > 65535) return ACCESS_BAD_BITS;
  uint8_t b[2] = {0, 0};
  if (access_local::lpt_i2c_read(addr, b, 2) != 1) return ACCESS_XFER_FAIL;
  uint32_t v = static_cast<uint32_t>(b[0]) | (static_cast<uint32_t>(b[1]) << 8);
  v = (v & ~mask) | (static_cast<uint32_t>(shifted) & mask);
  if (access_local::lpt_i2c_write(addr, v) != 1) return ACCESS_XFER_FAIL;
  return 0;
}

// ---- page register -----------------------------------------------------------------------

int32_t page_reg_read(uint32_t addr, uint32_t *value) {
  if (!value) return ACCESS_NULL_PTR;
  switch (access_if) {
    case ACCESS_IF_I2C: return i2c_if_reg_read(addr, value);
    case ACCESS_IF_SMI: return smi_indirect_read(addr, value);
    case ACCESS_IF_SPI: return spi_if_reg_read(addr, value);
    case ACCESS_IF_RESERVED:
      if ((addr & 0xFFFFFF) != PAGE_REG_ADDR) return ACCESS_RESERVED_IF;
      *value = g_emulated_page >> 24;
      return 0;
    default: return -1;
  }
}

int32_t page_reg_write(uint32_t addr, uint32_t value) {
  switch (access_if) {
    case ACCESS_IF_I2C: return i2c_if_reg_write(addr, value);
    case ACCESS_IF_SMI: return smi_indirect_write(addr, value);
    case ACCESS_IF_SPI: return spi_if_reg_write(addr, value);
    case ACCESS_IF_RESERVED:
      if ((addr & 0xFFFFFF) != PAGE_REG_ADDR) return ACCESS_RESERVED_IF;
      g_emulated_page = (g_emulated_page & 0x00FFFFFFu) | ((value & 0xFFu) << 24);
      return 0;
    default: return -1;
  }
}

int32_t chip_probe(void) {
  constexpr uint32_t kGenerationReg = 0x103FF0;
  constexpr uint32_t kExpectedGeneration = 4;
  uint32_t page = 0, gen = 0;
  int32_t rc = reg_read(1, PAGE_REG_ADDR, &page);
  if (rc != 0) return rc;
  rc = reg_write(1, PAGE_REG_ADDR, PAGE_AXI);
  if (rc != 0) return rc;
  rc = reg_read(1, kGenerationReg, &gen);
  if (rc != 0) return rc;
  rc = reg_write(1, PAGE_REG_ADDR, page);
  if (rc != 0) return rc;
  return (gen >> 28) == kExpectedGeneration ? 0 : -1;
}

// ---- width notice ------------------------------------------------------------------------

void reg_width_notice_set(reg_width_notice_fn fn) { g_width_notice = fn; }

void reg_width_notice(uint32_t addr, uint32_t width) {
  if (g_width_notice) g_width_notice(addr, width);
}
