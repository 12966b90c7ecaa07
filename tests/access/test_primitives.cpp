// Register and field primitives, selector dispatch, the SMI indirect scheme and the traced
// family, driven through register and MDIO hooks of the test's own.
#include <gtest/gtest.h>

#include <map>
#include <vector>

#include "access/access.h"

namespace {

std::map<uint32_t, uint32_t> g_regs;
int g_accesses = 0;
int32_t g_fail = 0;  // result the register hooks return

int32_t t_write(uint32_t a, uint32_t v) { ++g_accesses; if (!g_fail) g_regs[a] = v; return g_fail; }
int32_t t_read(uint32_t a, uint32_t *v) { ++g_accesses; if (!g_fail) *v = g_regs[a]; return g_fail; }

// MDIO side of the indirect scheme: 0/2 data, 4 address low, 6 command and busy bit.
struct Mdio {
  std::vector<std::pair<uint32_t, uint16_t>> writes;
  uint16_t r[8] = {};
  int busyPolls = 0, polls = 0;
  uint32_t phy = 0;
  std::map<uint32_t, uint32_t> chip;
} g_mdio;

int32_t m_write(uint32_t phy, uint32_t reg, uint16_t d) {
  g_mdio.phy = phy;
  g_mdio.writes.emplace_back(reg, d);
  g_mdio.r[reg & 7] = d;
  const uint32_t a = (uint32_t(d & 0xFF) << 16) | g_mdio.r[4];
  if (reg == 6 && (d & 0xFF00) == 0x8100) g_mdio.chip[a] = g_mdio.r[0] | (uint32_t(g_mdio.r[2]) << 16);
  if (reg == 6 && (d & 0xFF00) == 0x8000) {
    g_mdio.r[0] = uint16_t(g_mdio.chip[a]);
    g_mdio.r[2] = uint16_t(g_mdio.chip[a] >> 16);
  }
  return 0;
}
int32_t m_read(uint32_t, uint32_t reg, uint16_t *d) {
  if (reg == 6) *d = ++g_mdio.polls <= g_mdio.busyPolls ? 0x8000 : 0;
  else *d = g_mdio.r[reg & 7];
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
    ASSERT_EQ(i2c_hooks_register(t_write, t_read), 0);
  }
  void TearDown() override {
    reg_debug_trace = 0;
    access_if_set(0);
  }
};

TEST_F(Primitives, Fields) {
  struct Get { uint32_t lsp, len, reg; int32_t rc; uint32_t field; };
  for (const Get &g : {Get{0, 32, 0xDEADBEEF, 0, 0xDEADBEEF}, Get{31, 1, 0x80000000, 0, 1}, Get{4, 8, 0xABCD, 0, 0xBC},
                       Get{31, 2, 0, -2, 0}, Get{0, 0, 0, -2, 0}, Get{32, 1, 0, -2, 0},
                       Get{2, 0xFFFFFFFF, 0xF0, 0, 0x3C}}) {  // the range test wraps: the whole shifted value
    uint32_t f = 0;
    EXPECT_EQ(reg_field_get(1, 0, g.lsp, g.len, &f, g.reg), g.rc) << g.lsp << "/" << g.len;
    EXPECT_EQ(f, g.field) << g.lsp << "/" << g.len;
  }
  uint32_t v = 0xFFFFFFFF;
  EXPECT_EQ(reg_field_get(1, 0, 40, 1, nullptr, 0), -2);  // range before pointer
  EXPECT_EQ(reg_field_get(1, 0, 0, 4, nullptr, 0), -8);
  EXPECT_EQ(reg_field_set(1, 0, 8, 4, 0x1F5, &v), 0);  // bits above len dropped
  EXPECT_EQ(v, 0xFFFFF5FFu);
  EXPECT_EQ(reg_field_set(1, 0, 0, 32, 0xCAFEBABE, &v), 0);
  EXPECT_EQ(v, 0xCAFEBABEu);
  EXPECT_EQ(reg_field_set(1, 0, 16, 17, 0, &v), -2);
  EXPECT_EQ(reg_field_set(1, 0, 0, 1, 0, nullptr), -8);

  // On the chip.
  g_regs[0x100] = 0xA5A5A5A5;
  uint32_t f = 0;
  EXPECT_EQ(reg_field_read(1, 0x100, 4, 4, &f), 0);
  EXPECT_EQ(f, 0xAu);
  EXPECT_EQ(reg_field_write(1, 0x100, 8, 8, 0x3C), 0);
  EXPECT_EQ(g_regs[0x100], 0xA5A53CA5u);
  g_accesses = 0;  // the read checks range and pointer first: no access
  EXPECT_EQ(reg_field_read(1, 0x100, 30, 3, &f), -2);
  EXPECT_EQ(reg_field_read(1, 0x100, 0, 3, nullptr), -8);
  EXPECT_EQ(g_accesses, 0);
  EXPECT_EQ(reg_field_write(1, 0x100, 0, 0, 1), -2);  // the write reads first, the set refuses
  EXPECT_EQ(g_accesses, 1);
  g_fail = 8;  // a failed read stops the write and leaves the output alone
  f = 77;
  EXPECT_EQ(reg_field_read(1, 0x100, 0, 4, &f), 8);
  EXPECT_EQ(reg_field_write(1, 0x100, 0, 4, 1), 8);
  EXPECT_EQ(f, 77u);
  EXPECT_EQ(g_accesses, 3);
}

TEST_F(Primitives, SelectorRegistrationPageRegisterAndParallelPort) {
  uint32_t v = 0;
  access_if_set(7);
  EXPECT_EQ(access_if, 0);
  access_if_set(4);
  EXPECT_EQ(reg_read(1, 0, &v), -1);
  EXPECT_EQ(reg_write(1, 0, 0), -1);
  access_if_set(3);  // reserved interface: the page lives in memory, nothing else answers
  EXPECT_EQ(reg_read(1, 0, &v), -24);
  EXPECT_EQ(reg_read(1, 0, nullptr), -8);
  EXPECT_EQ(reg_write(1, 0, 0), -24);
  EXPECT_EQ(page_reg_read(PAGE_REG_ADDR, &v), 0);
  EXPECT_EQ(v, PAGE_SWCORE);
  EXPECT_EQ(page_reg_write(PAGE_REG_ADDR, PAGE_SPIC), 0);
  EXPECT_EQ(page_reg_read(PAGE_REG_ADDR, &v), 0);
  EXPECT_EQ(v, PAGE_SPIC);
  EXPECT_EQ(page_reg_read(0x100, &v), -24);
  EXPECT_EQ(page_reg_write(PAGE_REG_ADDR, PAGE_SWCORE), 0);
  access_if_set(0);
  g_fail = 24;
  EXPECT_EQ(reg_write(1, 0x20, 1), 24);  // transport codes pass through unchanged

  EXPECT_EQ(i2c_hooks_register(nullptr, t_read), -1);
  EXPECT_EQ(spi_hooks_register(t_write, nullptr), -1);
  // Software pairs need every line hook first; the selector stays where it was.
  i2c_line_hooks_set(nullptr, nullptr, nullptr, nullptr, nullptr);
  EXPECT_EQ(i2c_hooks_register(sw_i2c_reg_write, sw_i2c_reg_read), -1);
  EXPECT_EQ(access_if, 0);
  EXPECT_EQ(spi_hooks_register(t_write, t_read), 0);
  EXPECT_EQ(access_if, 2);

  // The parallel-port link stays inert with no port operation bound.
  EXPECT_EQ(lpt_reg_mask_get(0x10, 0, &v), -1000);
  EXPECT_EQ(lpt_reg_mask_set(0x10, 0xFF00, 0x100), -1000);
  EXPECT_EQ(lpt_reg_mask_get(0x10, 0xF0, &v), -1001);
}

TEST_F(Primitives, SmiIndirectAccess) {
  access_if_set(1);
  mdcaddrid = 0x1F;
  g_mdio.busyPolls = 3;
  ASSERT_EQ(reg_write(1, 0xAB1234, 0xCAFE5678), 0);
  EXPECT_EQ(g_mdio.phy, 0x1Fu);
  using W = std::vector<std::pair<uint32_t, uint16_t>>;
  EXPECT_EQ(g_mdio.writes, (W{{0, 0x5678}, {2, 0xCAFE}, {4, 0x1234}, {6, 0x81AB}}));
  EXPECT_EQ(g_mdio.polls, 4);
  g_mdio.writes.clear();
  uint32_t v = 0;
  ASSERT_EQ(reg_read(1, 0xAB1234, &v), 0);
  EXPECT_EQ(v, 0xCAFE5678u);
  EXPECT_EQ(g_mdio.writes, (W{{4, 0x1234}, {6, 0x80AB}}));

  // Busy for ever: 4097 polls, then 15 untraced; the traced form prints and gives -1.
  g_mdio.busyPolls = 1 << 30;
  g_mdio.polls = 0;
  EXPECT_EQ(reg_write(1, 0x10, 1), 15);
  EXPECT_EQ(g_mdio.polls, 4097);
  v = 5;
  EXPECT_EQ(reg_read(1, 0x10, &v), 15);
  EXPECT_EQ(v, 5u);
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

TEST_F(Primitives, TracedFamily) {
  reg_debug_trace = 0x8370;
  testing::internal::CaptureStdout();
  uint32_t v = 0;
  EXPECT_EQ(asic_reg_write(0x12345, 0xBEEF), 0);
  EXPECT_EQ(asic_reg_read(0x12345, &v), 0);
  access_if_set(4);  // every interface but I2C and SPI takes the SMI path, shown as MDIO steps
  EXPECT_EQ(asic_reg_write(0x030004, 0x00010002), 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "W[0x12345]=0xbeef\nR[0x12345]=0xbeef\n"
            "W[0x0000]=0x0002\nW[0x0002]=0x0001\nW[0x0004]=0x0004\nW[0x0006]=0x8103\nR[0x0006]=0x0000\n");
  reg_debug_trace = 0x8371;
  access_if_set(0);
  g_fail = 8;
  testing::internal::CaptureStdout();
  EXPECT_EQ(asic_reg_read(0x1, &v), -1001);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  g_fail = 0;

  g_regs[0x40] = 0x0000F000;
  for (int32_t rc : {asic_reg_bit_set(0x40, 32, 1), asic_reg_bits_set(0x40, 5, 4, 0), asic_reg_bits_set(0x40, 4, 32, 0),
                     asic_reg_bits_set(0x40, 4, 7, 0x10)})  // the last one: wider than the range
    EXPECT_EQ(rc, -1000);
  EXPECT_EQ(asic_reg_bit_set(0x40, 0, 1) | asic_reg_bit_set(0x40, 12, 0) | asic_reg_bits_set(0x40, 4, 7, 0xA), 0);
  EXPECT_EQ(g_regs[0x40], 0x0000E0A1u);
  EXPECT_EQ(asic_reg_bits_get(0x40, 4, 11, &v), 0);
  EXPECT_EQ(v, 0x0Au);
  EXPECT_EQ(asic_reg_bit_get(0x40, 15, &v), 0);
  EXPECT_EQ(v, 1u);
}

}  // namespace
