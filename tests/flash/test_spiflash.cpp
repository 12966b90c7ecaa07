// The flash access layer driven in-process against the simulated board (adapter, chip,
// controller, flash), with the board's state in a fresh directory per test.
#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <initializer_list>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "access/access.h"
#include "access/usbio.h"
#include "board.h"
#include "internal/common/hx5200_spiflash.h"
#include "kiv/kiv_parser.h"
#include "run_tool.h"
#include "sim/sim.h"
#include "sim/sim_chip.h"

namespace {

// Board knobs, KIVTOOL_SIM_<name>.
struct Knobs : std::vector<std::pair<std::string, std::string>> {
  Knobs(std::initializer_list<std::pair<std::string, std::string>> knobs = {}) {
    for (const auto &[name, value] : knobs) emplace_back("KIVTOOL_SIM_" + name, value);
  }
};

// Register accesses as the layer makes them: "W:<register>=<value>" and "R:<register>", by
// the names the flash layer gives its registers.
std::string g_trace;
bool g_tracing = false;

const char *reg_name(uint32_t addr) {
  static constexpr std::pair<uint32_t, const char *> kNames[] = {
      {SPIC_CTRL, "CTRL"},      {SPIC_RXCNT, "RXCNT"},   {SPIC_ENABLE, "ENABLE"},
      {SPIC_CS, "CS"},          {SPIC_DIV, "DIV"},       {SPIC_STATUS, "STATUS"},
      {SPIC_DATA, "DATA"},      {SPIC_DIV2, "DIV2"},     {SPIC_FORMAT, "FORMAT"},
      {SPIC_DELAY, "DELAY"},    {PAGE_REG_ADDR, "PAGE"}, {SPIF_ARBITRATION, "ARBITRATION"},
      {SPIF_BOOT_STRAP, "BOOT_STRAP"}, {SPIF_PARAM_SELECT, "PARAM_SELECT"},
      {SPIF_CLOCK_SOURCE, "CLOCK_SOURCE"}, {SPIF_CPU_SAMPLE, "CPU_SAMPLE"},
  };
  for (const auto &[a, name] : kNames)
    if (a == addr) return name;
  return "?";
}

void note(char op, uint32_t addr, const uint32_t *value) {
  if (!g_tracing) return;
  g_trace += op;
  g_trace += ':';
  g_trace += reg_name(addr);
  if (value) {
    char text[16];
    snprintf(text, sizeof text, "=%x", *value);
    g_trace += text;
  }
  g_trace += ' ';
}
int32_t traced_write(uint32_t a, uint32_t v) { note('W', a, &v); return hx5200_usb_i2c_write(a, v); }
int32_t traced_read(uint32_t a, uint32_t *v) { note('R', a, nullptr); return hx5200_usb_i2c_read(a, v); }

// A fresh board with the given KIVTOOL_SIM_<name> knobs, reached over traced I2C accesses.
class FlashBoard {
 public:
  explicit FlashBoard(Knobs knobs = {}) : env_(knobs) {
    board_attach(make_temp_dir("kivflash"));
    i2c_hooks_register(traced_write, traced_read);
    spi_flash_cfg_reset();
    spi_flash_page(PAGE_SPIC);
  }
  ~FlashBoard() {
    board_detach();
    spi_flash_cfg_reset();
  }

 private:
  ScopedEnv env_;
};

// The settings that decide how the layer talks to the flash, in one line.
std::string settings() {
  const spi_flash_cfg_t &c = spi_flash_cfg;
  char text[120];
  snprintf(text, sizeof text, "ch=%u clk=%u div=%u dly=%u pg=%x rd=%x dummy=%u/%x quad=%u,%u further=%u", c.channel,
           c.clock, c.divisor, c.sysDelay, c.pgOpcode, c.rdOpcode, c.dummyCycles, c.dummyByte, c.quadFlag1, c.quadFlag2,
           c.furtherMode);
  return text;
}

using Bytes = std::vector<uint8_t>;
Bytes flash_read(uint32_t addr, uint32_t len) {
  Bytes b(len);
  EXPECT_EQ(spi_flash_read(addr, b.data(), len), 0);
  return b;
}
void flash_program(uint32_t addr, const Bytes &b) {
  ASSERT_EQ(spi_flash_program(addr, b.data(), (uint32_t)b.size()), 0);
}

TEST(SpiFlashLayer, RegisterAccessesOfEachOperation) {
  FlashBoard board({{"SPIC_BUSY", "0"}, {"FLASH_WIP", "0"}});
  const std::string run = "W:ENABLE=1 R:STATUS W:ENABLE=0 ";
  const std::string rdsr = "W:ENABLE=0 W:CTRL=300 W:CS=1 W:RXCNT=1 W:DELAY=f W:FORMAT=3 W:DATA=5 " + run + "R:DATA ";
  uint8_t st = 0;
  uint32_t word = 0;
  const uint8_t data[5] = {1, 2, 3, 4, 5};
  uint8_t buf[5];
  // Transfer set-ups: chip select, receive count, sample delay, format, control, opcode.
  const std::string wrenSetUp = "W:ENABLE=0 W:CTRL=0 W:CS=1 W:RXCNT=1 W:DELAY=f W:FORMAT=1 W:DATA=6 ";
  const std::string wren = "W:CTRL=0 W:DATA=6 " + run;
  const std::vector<std::pair<std::function<int32_t()>, std::string>> cases = {
      {[&] { return spi_flash_read_status(&st); }, rdsr},
      {[&] { return spi_flash_read_id(&word); },
       "W:ENABLE=0 W:CTRL=300 W:CS=1 W:RXCNT=3 W:DELAY=f W:FORMAT=3 W:DATA=9f " + run + "R:DATA "},
      // Every status bit set: the flash keeps 0xFC (all protection bits and bit 6).
      {[] { return spi_flash_write_status(0xFF, 0xBB, true); },
       "R:STATUS " + wrenSetUp + run + "W:FORMAT=2 W:DATA=1 W:DATA=ff W:DATA=bb " + run + rdsr},
      {[] { return spi_flash_write_enable(); },
       rdsr + "W:ENABLE=0 W:CTRL=0 W:CS=1 W:RXCNT=1 W:DELAY=2803000f W:FORMAT=1 W:DATA=6 " + run + rdsr},
      // Status 0xFE (the latch is still set): cleared by a one-byte write of the status
      // without its protection bits (bits 0, 1 and 6 stay), then checked.
      {[] { return spi_flash_clear_protect(); },
       "R:STATUS " + rdsr + rdsr + "R:STATUS " + wrenSetUp + run + "W:FORMAT=1 W:DATA=1 W:DATA=42 " + run + rdsr +
           rdsr},
      {[] { return spi_flash_erase(0x3000, SPIF_ERASE_SECTOR); },
       "R:STATUS " + rdsr + "W:DELAY=f W:FORMAT=3 W:CS=1 W:RXCNT=1 " + wren + "W:DATA=300020 " + run + rdsr},
      {[] { return spi_flash_erase(0x3000, SPIF_ERASE_CHIP); },
       "R:STATUS " + rdsr + "W:DELAY=f W:FORMAT=1 W:CS=1 W:RXCNT=1 " + wren + "W:DATA=c7 " + run + rdsr},
      // Five bytes from 0xFE: two up to the page end, three from 0x100, tails as bytes.
      {[&] { return spi_flash_program(0xFE, data, 5); },
       "R:STATUS " + rdsr + "W:CS=1 W:RXCNT=1 W:DELAY=f W:FORMAT=3 " + wren + "W:DATA=fe000002 W:DATA=1 W:DATA=2 " +
           run + rdsr + wren + "W:DATA=10002 W:DATA=3 W:DATA=4 W:DATA=5 " + run + rdsr},
      {[&] { return spi_flash_read(0x10, buf, 5); },
       "R:STATUS " + rdsr + "W:ENABLE=0 W:CS=1 W:FORMAT=3 W:CTRL=300 W:DELAY=f W:RXCNT=5 W:DATA=10000003 " + run +
           "R:DATA R:DATA "},
      {[&] { return spi_flash_get_clock(&word); },
       "R:PAGE W:PAGE=51 R:DIV W:PAGE=42 R:CLOCK_SOURCE W:PAGE=51 "},
      {[] { return spi_flash_apply_settings(); },
       "W:ENABLE=0 W:DIV=8 W:DIV2=8 R:PAGE W:PAGE=42 W:CPU_SAMPLE=0 W:PAGE=51 "
       "W:ENABLE=0 W:CTRL=300 W:CS=1 W:RXCNT=3 W:DELAY=f W:FORMAT=3 W:DATA=9f " +
           run + "R:DATA R:PAGE W:PAGE=42 R:CLOCK_SOURCE W:CLOCK_SOURCE=1 W:PAGE=51 W:DIV=8 W:DIV2=8 R:DIV "},
      {[] { return spi_flash_acquire(); }, "R:ARBITRATION W:ARBITRATION=2000000 R:ARBITRATION "},
      {[] { return spi_flash_release(); }, "R:ARBITRATION W:ARBITRATION=0 "},
      {[] { return spi_flash_controller_init(); },
       "W:PAGE=4a R:BOOT_STRAP R:PARAM_SELECT W:PAGE=51 W:ENABLE=0 W:PAGE=4a "},
  };
  for (size_t i = 0; i < cases.size(); ++i) {
    g_trace.clear();
    g_tracing = true;
    testing::internal::CaptureStdout();   // the erase messages
    int32_t rc = cases[i].first();
    testing::internal::GetCapturedStdout();
    g_tracing = false;
    EXPECT_EQ(rc, 0) << "case " << i;
    EXPECT_EQ(g_trace, cases[i].second) << "case " << i;
  }
}

TEST(SpiFlashLayer, TimeOutsProtectionAndAFailedCalibration) {
  {
    FlashBoard board({{"SPIC_BUSY", "-1"}});
    spi_flash_cfg.pollLimit = 50;
    EXPECT_EQ(spi_flash_wait_idle(), 0);   // nothing started yet
    uint8_t st = 0;
    EXPECT_EQ(spi_flash_read_status(&st), -11);
    EXPECT_EQ(spi_flash_wait_idle(), -11);
  }
  const uint8_t data[1] = {0x12};
  {
    FlashBoard board({{"FLASH_WIP", "-1"}, {"FLASH_WIP_MS", "-1"}});
    spi_flash_cfg.pollLimit = 50;
    ASSERT_EQ(spi_flash_write_status(0, 0, false), 11);   // status write never finishes
    EXPECT_EQ(spi_flash_wait_wip(), 11);
    EXPECT_EQ(spi_flash_write_enable(), 1);
    EXPECT_EQ(spi_flash_program(0, data, 1), 11);
  }
  {
    // Each protection bit alone refuses erase and program; bit 6 (quad enable) protects nothing.
    FlashBoard board;
    const std::regex refused(R"(\[spi_flash_erase-[0-9]+\]-info-: Flash is protected\n)");
    for (const uint8_t bit : {0x04, 0x08, 0x10, 0x20, 0x80}) {
      ASSERT_EQ(spi_flash_write_status(bit, 0, false), 0);
      testing::internal::CaptureStdout();
      EXPECT_EQ(spi_flash_erase(0, SPIF_ERASE_CHIP), -1) << int(bit);
      const std::string out = testing::internal::GetCapturedStdout();
      EXPECT_TRUE(std::regex_match(out, refused)) << out;
      EXPECT_EQ(spi_flash_program(0x30000, data, 1), -1) << int(bit);
    }
    ASSERT_EQ(spi_flash_write_status(0x40, 0, false), 0);
    EXPECT_EQ(spi_flash_program(0x30000, data, 1), 0);
    EXPECT_EQ(spi_flash_erase(0, 3), -2);
  }
  // A failed calibration puts the sample delay and the sample control back.
  FlashBoard board({{"FLASH_DLY_MIN", "40"}, {"FLASH_DLY_MAX", "50"}, {"FLASH_WIP_MS", "0"}});
  sim::chip_write(SPIF_CPU_SAMPLE, 0x5A);
  spi_flash_cfg.sysDelay = 21;
  EXPECT_EQ(spi_flash_calibrate(), -1);
  EXPECT_EQ(spi_flash_cfg.sysDelay, 21u);
  EXPECT_EQ(sim::chip_read(SPIF_CPU_SAMPLE), 0x5Au);
}

// An erase range goes on past an erase that failed, and the line counts as failed (-e) even
// when the last erase worked: here the first controller status read fails.
TEST(SpiFlashLayer, EraseRangeKeepsItsFirstFailure) {
  FlashBoard board;
  static int statusReads = 0;
  i2c_hooks_register(traced_write, [](uint32_t a, uint32_t *v) -> int32_t {
    return a == SPIC_STATUS && ++statusReads == 1 ? -1 : hx5200_usb_i2c_read(a, v);
  });
  ASSERT_EQ(kiv_init(1, 256, 256), 0);
  ASSERT_EQ(kiv_userInit("3100", 1, 0xC0, 4, &hx5200_rootGroup), 0u);
  char line[] = "spi erase sector 1 2";
  testing::internal::CaptureStdout();
  kiv_cmdProcess(0, line, kiv_outputBuffer, KIV_OUTBUF_SIZE);
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_TRUE(kiv_lineFailed()) << out;
  EXPECT_EQ(out.find("Sector Erase 1\n"), std::string::npos) << out;
  EXPECT_NE(out.find("Sector Erase 2\n"), std::string::npos) << out;
}

TEST(SpiFlashLayer, MultiLineReadSetUpAndItsDelayArithmetic) {
  FlashBoard board;
  const Bytes data = {1, 2, 3, 4, 5, 6, 7, 8, 9};
  flash_program(0x500, data);
  spi_flash_cfg.channel = 2;
  spi_flash_cfg.rdOpcode = 0x3B;
  spi_flash_cfg.dummyCycles = 8;
  EXPECT_EQ(flash_read(0x500, 9), data);
  EXPECT_EQ(sim::chip_read(SPIC_FORMAT), 0u);   // dummy cycles configured

  // Sample delay 1, divisor 2: the delay grows by the dummy cycles past the threshold; a
  // set-up that meets neither rule fails the read (the delay left by the status polls).
  uint8_t buf[4];
  struct Row {
    uint32_t channel, flag2, dummy;
    int32_t rc;
    uint32_t ctrl, delay;
  };
  for (const Row &r : {Row{2, 1, 8, 0, 0x40300, 1}, Row{2, 1, 9, 0, 0x40300, 1 + 2 * 1 * 2},
                       Row{2, 0, 8, 0, 0x50300, 1 + 2 * 4 * 2}, Row{2, 1, 7, -1, 0x40300, 1},
                       Row{2, 0, 3, -1, 0x50300, 1}, Row{4, 1, 8, 0, 0x80300, 1}, Row{4, 0, 3, 0, 0xA0300, 1 + 2 * 1 * 2},
                       Row{4, 0, 1, -1, 0xA0300, 1}, Row{4, 1, 7, -1, 0x80300, 1}}) {
    spi_flash_cfg.channel = r.channel;
    spi_flash_cfg.quadFlag2 = (uint8_t)r.flag2;
    spi_flash_cfg.dummyCycles = r.dummy;
    spi_flash_cfg.divisor = 2;
    spi_flash_cfg.sysDelay = 1;
    EXPECT_EQ(spi_flash_read(0x500, buf, 4), r.rc) << r.channel << r.flag2 << r.dummy;
    EXPECT_EQ(sim::chip_read(SPIC_CTRL), r.ctrl) << r.channel << r.flag2 << r.dummy;
    EXPECT_EQ(sim::chip_read(SPIC_DELAY), r.delay) << r.channel << r.flag2 << r.dummy;
  }
  spi_flash_cfg.channel = 3;
  EXPECT_EQ(spi_flash_read(0x500, buf, 4), -1);
  EXPECT_EQ(spi_flash_program(0x500, data.data(), 4), -1);
}

TEST(SpiFlashLayer, RequestedSettingsThenQuadCalibrationAndReads) {
  FlashBoard board({{"FLASH_WIP_MS", "0"}});
  spi_flash_cfg.reqClock = 50;
  spi_flash_cfg.reqChannel = 4;
  ASSERT_EQ(spi_flash_apply_settings(), 0);
  EXPECT_EQ(settings(), "ch=4 clk=50 div=2 dly=15 pg=32 rd=6b dummy=8/ff quad=1,1 further=1");
  uint32_t mhz = 0;   // source 1 (200) over 2 x 2
  ASSERT_EQ(spi_flash_get_clock(&mhz), 0);
  EXPECT_EQ(mhz, 50u);

  // Quad reads only work once calibration has switched the flash's quad mode on.
  ASSERT_EQ(spi_flash_calibrate(), 0);
  uint8_t cr = 0;
  ASSERT_EQ(spi_flash_read_config(&cr), 0);
  EXPECT_EQ(cr & 0x02, 0x02);
  spi_flash_cfg.skipWip = 0;
  flash_program(0x7000, {9, 8, 7, 6, 5});
  EXPECT_EQ(flash_read(0x7000, 5), (Bytes{9, 8, 7, 6, 5}));

  spi_flash_cfg.reqClock = 25;
  EXPECT_EQ(spi_flash_apply_settings(), -1);
  spi_flash_cfg.reqClock = 75;
  spi_flash_cfg.reqChannel = 3;
  EXPECT_EQ(spi_flash_apply_settings(), -1);
  ASSERT_EQ(spi_flash_get_clock(&mhz), 0);
  EXPECT_EQ(mhz, 75u);   // source 0 (150) over 2 x 1
}

TEST(SpiFlashLayer, ControllerInitialisationFromBootStrapAndParameterBlock) {
  FlashBoard board;
  // Boot mode 2, sample delay 12 from the strap, parameter table entry 1 (0xC0000).
  const uint32_t base = 0xC0000 + 0x40000;
  const Bytes block = {0x02 | (4 << 3), 0, 0xC0, 0xFF, 0xFF, 0xFF, 0xA5, 0x0F};
  flash_program(base, block);
  flash_program(base + 0x0D, {0x99, 0x88, 0x00});   // the signature
  sim::chip_write(SPIF_BOOT_STRAP, 0x80 | 0x20 | 12);
  sim::chip_write(SPIF_PARAM_SELECT, 1);

  ASSERT_EQ(spi_flash_controller_init(), 0);
  // Clock 200 / (2 x 4); dual read opcode by default, its dummy cycles by opcode (15).
  EXPECT_EQ(settings(), "ch=2 clk=25 div=4 dly=12 pg=2 rd=3b dummy=8/a5 quad=1,1 further=0");
  EXPECT_EQ(sim::chip_read(SPIC_DIV), 4u);
  EXPECT_EQ(sim::chip_read(SPIC_DIV2), 4u);
  EXPECT_EQ(sim::chip_read(PAGE_REG_ADDR & 0xFFFFFF) & 0xFF, PAGE_SWCORE);

  // The dual read it set up returns the block itself.
  spi_flash_page(PAGE_SPIC);
  EXPECT_EQ(flash_read(base, 8), block);

  // Without the signature: measured clock and divisor from the controller, one line.
  flash_program(base + 0x0D, {0x00});
  ASSERT_EQ(spi_flash_controller_init(), 0);
  EXPECT_EQ(settings(), "ch=1 clk=25 div=4 dly=12 pg=2 rd=3 dummy=0/ff quad=1,1 further=0");

  // Any other boot mode: the defaults.
  sim::chip_write(SPIF_BOOT_STRAP, 0);
  spi_flash_cfg.sysDelay = 3;
  ASSERT_EQ(spi_flash_controller_init(), 0);
  EXPECT_EQ(settings(), "ch=1 clk=12 div=8 dly=15 pg=2 rd=3 dummy=0/ff quad=1,1 further=1");
}

}  // namespace
