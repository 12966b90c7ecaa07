// Register and field primitives, selector dispatch, the SMI indirect scheme and the traced
// family, driven through hooks of the test's own.
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "access/access.h"

namespace {

std::map<uint32_t, uint32_t> g_regs;
int g_accesses = 0;
int32_t g_fail = 0;  // result the register hooks return

int32_t t_write(uint32_t a, uint32_t v) { ++g_accesses; if (g_fail) return g_fail; g_regs[a] = v; return 0; }
int32_t t_read(uint32_t a, uint32_t *v) { ++g_accesses; if (g_fail) return g_fail; *v = g_regs[a]; return 0; }

// MDIO model of the indirect scheme: registers 0/2 data, 4 address low, 6 command.
struct Mdio {
  std::vector<std::pair<uint32_t, uint16_t>> writes;
  uint16_t r[32] = {};
  int busyPolls = 0;        // reads of register 6 that still show busy
  int polls = 0;
  uint32_t phySeen = 0;
  std::map<uint32_t, uint32_t> chip;
} g_mdio;

int32_t m_write(uint32_t phy, uint32_t reg, uint16_t d) {
  g_mdio.phySeen = phy;
  g_mdio.writes.emplace_back(reg, d);
  g_mdio.r[reg & 31] = d;
  if (reg == 6) {
    const uint32_t a = (uint32_t(d & 0xFF) << 16) | g_mdio.r[4];
    if ((d & 0xFF00) == 0x8100) g_mdio.chip[a] = g_mdio.r[0] | (uint32_t(g_mdio.r[2]) << 16);
    if ((d & 0xFF00) == 0x8000) {
      g_mdio.r[0] = uint16_t(g_mdio.chip[a]);
      g_mdio.r[2] = uint16_t(g_mdio.chip[a] >> 16);
    }
  }
  return 0;
}
int32_t m_read(uint32_t phy, uint32_t reg, uint16_t *d) {
  g_mdio.phySeen = phy;
  if (reg == 6) {
    ++g_mdio.polls;
    *d = g_mdio.polls <= g_mdio.busyPolls ? 0x8000 : 0;
    return 0;
  }
  *d = g_mdio.r[reg & 31];
  return 0;
}
int32_t m_fail_write(uint32_t, uint32_t, uint16_t) { return 8; }

class Primitives : public ::testing::Test {
 protected:
  void SetUp() override {
    g_regs.clear();
    g_accesses = 0;
    g_fail = 0;
    g_mdio = Mdio{};
    reg_debug_trace = 0;
    mdcaddrid = 24;
    ASSERT_EQ(smi_hooks_register(m_write, m_read), 0);
    ASSERT_EQ(spi_hooks_register(t_write, t_read), 0);
    ASSERT_EQ(i2c_hooks_register(t_write, t_read), 0);
  }
  void TearDown() override {
    reg_debug_trace = 0;
    access_if_set(0);
  }
};

TEST_F(Primitives, FieldGetAndSetRanges) {
  uint32_t f = 0;
  EXPECT_EQ(reg_field_get(1, 0, 0, 32, &f, 0xDEADBEEF), 0);
  EXPECT_EQ(f, 0xDEADBEEFu);
  EXPECT_EQ(reg_field_get(1, 0, 31, 1, &f, 0x80000000), 0);
  EXPECT_EQ(f, 1u);
  EXPECT_EQ(reg_field_get(1, 0, 4, 8, &f, 0x00000AB0), 0);
  EXPECT_EQ(f, 0xABu);
  EXPECT_EQ(reg_field_get(1, 0, 31, 2, &f, 0), -2);
  EXPECT_EQ(reg_field_get(1, 0, 32, 1, &f, 0), -2);
  EXPECT_EQ(reg_field_get(1, 0, 0, 0, &f, 0), -2);
  EXPECT_EQ(reg_field_get(1, 0, 0, 4, nullptr, 0), -8);
  EXPECT_EQ(reg_field_get(1, 0, 40, 1, nullptr, 0), -2);  // range is checked before the pointer

  uint32_t v = 0xFFFFFFFF;
  EXPECT_EQ(reg_field_set(1, 0, 8, 4, 0x1F5, &v), 0);  // bits above len silently dropped
  EXPECT_EQ(v, 0xFFFFF5FFu);
  v = 0x12345678;
  EXPECT_EQ(reg_field_set(1, 0, 0, 32, 0xCAFEBABE, &v), 0);
  EXPECT_EQ(v, 0xCAFEBABEu);
  EXPECT_EQ(reg_field_set(1, 0, 31, 1, 1, &v), 0);
  EXPECT_EQ(v, 0xCAFEBABEu | 0x80000000u);
  EXPECT_EQ(reg_field_set(1, 0, 16, 17, 0, &v), -2);
  EXPECT_EQ(reg_field_set(1, 0, 0, 1, 0, nullptr), -8);
}

TEST_F(Primitives, FieldReadWriteGoThroughTheRegister) {
  g_regs[0x100] = 0xA5A5A5A5;
  uint32_t f = 0;
  EXPECT_EQ(reg_field_read(1, 0x100, 4, 4, &f), 0);
  EXPECT_EQ(f, 0xAu);
  EXPECT_EQ(reg_field_write(1, 0x100, 8, 8, 0x3C), 0);
  EXPECT_EQ(g_regs[0x100], 0xA5A53CA5u);

  // Bad range or pointer: refused before any access.
  g_accesses = 0;
  EXPECT_EQ(reg_field_read(1, 0x100, 30, 3, &f), -2);
  EXPECT_EQ(reg_field_read(1, 0x100, 0, 3, nullptr), -8);
  EXPECT_EQ(reg_field_write(1, 0x100, 0, 0, 1), -2);
  EXPECT_EQ(g_accesses, 0);

  // A failing read stops the write and leaves the output alone.
  g_fail = 8;
  f = 77;
  EXPECT_EQ(reg_field_read(1, 0x100, 0, 4, &f), 8);
  EXPECT_EQ(f, 77u);
  EXPECT_EQ(reg_field_write(1, 0x100, 0, 4, 1), 8);
  EXPECT_EQ(g_accesses, 2);

  access_if_set(3);
  EXPECT_EQ(reg_field_write(1, 0x100, 0, 4, 1), -24);
  access_if_set(4);
  EXPECT_EQ(reg_field_read(1, 0x100, 0, 4, &f), -1);
}

TEST_F(Primitives, SelectorDispatch) {
  uint32_t v = 0;
  access_if_set(7);
  EXPECT_EQ(access_if, 0);
  access_if_set(4);
  EXPECT_EQ(access_if, 4);
  EXPECT_EQ(reg_read(1, 0, &v), -1);
  EXPECT_EQ(reg_write(1, 0, 0), -1);
  access_if_set(3);
  EXPECT_EQ(reg_read(1, 0, &v), -24);
  EXPECT_EQ(reg_read(1, 0, nullptr), -8);
  EXPECT_EQ(reg_write(1, 0, 0), -24);
  access_if_set(0);
  EXPECT_EQ(reg_read(1, 0, nullptr), -8);
  EXPECT_EQ(reg_write(1, 0x20, 0x55), 0);
  EXPECT_EQ(reg_read(1, 0x20, &v), 0);
  EXPECT_EQ(v, 0x55u);
  g_fail = 24;
  EXPECT_EQ(reg_write(1, 0x20, 1), 24);  // transport code passed through unchanged
}

TEST_F(Primitives, RegistrationRules) {
  EXPECT_EQ(i2c_hooks_register(nullptr, t_read), -1);
  EXPECT_EQ(spi_hooks_register(t_write, nullptr), -1);
  EXPECT_EQ(smi_hooks_register(nullptr, nullptr), -1);
  EXPECT_EQ(access_if, 0);
  // The software pairs need all their line hooks first; the selector stays where it was.
  i2c_line_hooks_set(nullptr, nullptr, nullptr, nullptr, nullptr);
  spi_line_hooks_set(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
  EXPECT_EQ(i2c_hooks_register(sw_i2c_reg_write, sw_i2c_reg_read), -1);
  EXPECT_EQ(spi_hooks_register(sw_spi_reg_write, sw_spi_reg_read), -1);
  EXPECT_EQ(access_if, 0);
  EXPECT_EQ(spi_hooks_register(t_write, t_read), 0);
  EXPECT_EQ(access_if, 2);
  EXPECT_EQ(smi_hooks_register(m_write, m_read), 0);
  EXPECT_EQ(access_if, 1);
}

TEST_F(Primitives, SmiIndirectWriteAndRead) {
  access_if_set(1);
  mdcaddrid = 0x1F;
  g_mdio.busyPolls = 3;
  ASSERT_EQ(reg_write(1, 0xAB1234, 0xCAFE5678), 0);
  EXPECT_EQ(g_mdio.phySeen, 0x1Fu);
  const std::vector<std::pair<uint32_t, uint16_t>> want{{0, 0x5678}, {2, 0xCAFE}, {4, 0x1234}, {6, 0x81AB}};
  EXPECT_EQ(g_mdio.writes, want);
  EXPECT_EQ(g_mdio.polls, 4);  // three busy, one idle

  g_mdio.writes.clear();
  uint32_t v = 0;
  ASSERT_EQ(reg_read(1, 0xAB1234, &v), 0);
  EXPECT_EQ(v, 0xCAFE5678u);
  const std::vector<std::pair<uint32_t, uint16_t>> wantRead{{4, 0x1234}, {6, 0x80AB}};
  EXPECT_EQ(g_mdio.writes, wantRead);
}

TEST_F(Primitives, SmiIndirectBusyTimeoutAndFailures) {
  access_if_set(1);
  g_mdio.busyPolls = 1 << 30;
  EXPECT_EQ(reg_write(1, 0x10, 1), 15);
  EXPECT_EQ(g_mdio.polls, 4097);
  uint32_t v = 5;
  g_mdio.polls = 0;
  EXPECT_EQ(reg_read(1, 0x10, &v), 15);
  EXPECT_EQ(g_mdio.polls, 4097);
  EXPECT_EQ(v, 5u);

  // The traced form reports the time-out and gives -1 for reads and writes alike.
  g_mdio.polls = 0;
  testing::internal::CaptureStdout();
  EXPECT_EQ(asic_reg_write(0x10, 1), -1);
  EXPECT_EQ(asic_reg_read(0x10, &v), -1);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "\nread SMI reigster interface timeout!!\nread SMI reigster interface timeout!!");

  ASSERT_EQ(smi_hooks_register(m_fail_write, m_read), 0);
  EXPECT_EQ(reg_write(1, 0x10, 1), -2);
  EXPECT_EQ(reg_read(1, 0x10, &v), -2);
  EXPECT_EQ(asic_reg_write(0x10, 1), -1001);
}

TEST_F(Primitives, TracedFamilyPrintsEveryAccess) {
  reg_debug_trace = 0x8370;
  testing::internal::CaptureStdout();
  uint32_t v = 0;
  EXPECT_EQ(asic_reg_write(0x12345, 0xBEEF), 0);
  EXPECT_EQ(asic_reg_read(0x12345, &v), 0);
  EXPECT_EQ(v, 0xBEEFu);
  access_if_set(1);
  g_mdio.busyPolls = 0;
  EXPECT_EQ(asic_reg_write(0x030004, 0x00010002), 0);
  std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(out,
            "W[0x12345]=0xbeef\nR[0x12345]=0xbeef\n"
            "W[0x0000]=0x0002\nW[0x0002]=0x0001\nW[0x0004]=0x0004\nW[0x0006]=0x8103\nR[0x0006]=0x0000\n");

  reg_debug_trace = 0x8371;  // any other value is silent
  access_if_set(0);
  testing::internal::CaptureStdout();
  EXPECT_EQ(asic_reg_read(0x12345, &v), 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");

  g_fail = 8;
  EXPECT_EQ(asic_reg_read(0x1, &v), -1001);
  EXPECT_EQ(asic_reg_write(0x1, 1), -1001);
  // Interfaces 3 and 4 take the SMI path in the traced family.
  g_fail = 0;
  access_if_set(3);
  g_mdio.chip[0x77] = 0x42;
  EXPECT_EQ(asic_reg_read(0x77, &v), 0);
  EXPECT_EQ(v, 0x42u);
}

TEST_F(Primitives, TracedBitOperations) {
  uint32_t v = 0;
  g_regs[0x40] = 0x0000F000;
  EXPECT_EQ(asic_reg_bit_set(0x40, 32, 1), -1000);
  EXPECT_EQ(asic_reg_bit_get(0x40, 40, &v), -1000);
  EXPECT_EQ(asic_reg_bit_set(0x40, 0, 1), 0);
  EXPECT_EQ(asic_reg_bit_set(0x40, 12, 0), 0);
  EXPECT_EQ(g_regs[0x40], 0x0000E001u);
  EXPECT_EQ(asic_reg_bit_get(0x40, 13, &v), 0);
  EXPECT_EQ(v, 1u);

  EXPECT_EQ(asic_reg_bits_set(0x40, 5, 4, 0), -1000);
  EXPECT_EQ(asic_reg_bits_set(0x40, 4, 32, 0), -1000);
  EXPECT_EQ(asic_reg_bits_set(0x40, 4, 7, 0x10), -1000);  // wider than four bits
  EXPECT_EQ(asic_reg_bits_set(0x40, 4, 7, 0xA), 0);
  EXPECT_EQ(g_regs[0x40], 0x0000E0A1u);
  EXPECT_EQ(asic_reg_bits_set(0x40, 0, 31, 0xFFFFFFFF), 0);
  EXPECT_EQ(asic_reg_bits_get(0x40, 28, 31, &v), 0);
  EXPECT_EQ(v, 0xFu);
  EXPECT_EQ(asic_reg_bits_get(0x40, 3, 2, &v), -1000);
}

TEST_F(Primitives, PageRegisterEmulatedOnReservedInterface) {
  access_if_set(3);
  uint32_t v = 0;
  EXPECT_EQ(page_reg_read(PAGE_REG_ADDR, &v), 0);
  EXPECT_EQ(v, PAGE_SWCORE);
  EXPECT_EQ(page_reg_write(PAGE_REG_ADDR, PAGE_SPIC), 0);
  EXPECT_EQ(page_reg_read(PAGE_REG_ADDR, &v), 0);
  EXPECT_EQ(v, PAGE_SPIC);
  EXPECT_EQ(page_reg_read(0x100, &v), -24);
  EXPECT_EQ(page_reg_write(0x100, 1), -24);
  EXPECT_EQ(page_reg_write(PAGE_REG_ADDR, PAGE_SWCORE), 0);
  access_if_set(0);
  EXPECT_EQ(page_reg_write(PAGE_REG_ADDR, 0x42), 0);
  EXPECT_EQ(g_regs[PAGE_REG_ADDR], 0x42u);
}

TEST_F(Primitives, ChipProbe) {
  g_regs[PAGE_REG_ADDR] = 0x4A;
  g_regs[0x103FF0] = 0x40001234;
  EXPECT_EQ(chip_probe(), 0);
  EXPECT_EQ(g_regs[PAGE_REG_ADDR], 0x4Au);  // page restored
  g_regs[0x103FF0] = 0x30000000;
  EXPECT_EQ(chip_probe(), -1);
  g_fail = 8;
  g_accesses = 0;
  EXPECT_EQ(chip_probe(), 8);
  EXPECT_EQ(g_accesses, 1);  // stops at the first failed access
}

TEST_F(Primitives, HooksAndNotices) {
  EXPECT_EQ(platform_delay_set(nullptr), -1);
  EXPECT_EQ(platform_print_set(nullptr), -1);
  static uint32_t slept = 0;
  EXPECT_EQ(platform_delay_set([](uint32_t us) { slept += us; return 0; }), 0);
  hx_delay_us(25);
  EXPECT_EQ(slept, 25u);

  static uint32_t noticed[2] = {};
  reg_width_notice(1, 1);  // nothing installed: no effect
  reg_width_notice_set([](uint32_t a, uint32_t w) { noticed[0] = a; noticed[1] = w; });
  reg_width_notice(0x510020, 2);
  EXPECT_EQ(noticed[0], 0x510020u);
  EXPECT_EQ(noticed[1], 2u);
  reg_width_notice_set(nullptr);

  // The parallel-port link is inert with no port operation bound.
  uint32_t v = 0;
  EXPECT_EQ(lpt_reg_mask_get(0x10, 0, &v), -1000);
  EXPECT_EQ(lpt_reg_mask_set(0x10, 0xFF00, 0x100), -1000);
  EXPECT_EQ(lpt_reg_mask_get(0x10, 0xF0, &v), -1001);
  EXPECT_EQ(lpt_reg_mask_set(0x10, 0xF0, 1), -1001);

  // The burst is an adapter I2C operation only; elsewhere it reads nothing.
  access_if_set(2);
  uint32_t vals[2] = {9, 9};
  EXPECT_EQ(asic_reg_read_burst(0, vals, 2), 0);
  EXPECT_EQ(vals[0], 9u);
}

}  // namespace
