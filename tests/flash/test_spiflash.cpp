// The flash access layer driven in-process against the simulated board (adapter, chip,
// controller, flash), with the board's state in a fresh directory per test.
#include <gtest/gtest.h>

#include <cstdlib>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include "access/access.h"
#include "access/usbio.h"
#include "internal/common/hx5200_spiflash.h"
#include "run_tool.h"
#include "sim/sim.h"
#include "sim/sim_chip.h"

namespace {

using Knobs = std::initializer_list<std::pair<std::string, std::string>>;

class FlashBoard {
 public:
  explicit FlashBoard(Knobs knobs = {}) : dir_(make_temp_dir("kivflash")) {
    for (const auto &[name, value] : knobs) {
      std::string var = "KIVTOOL_SIM_" + name;
      setenv(var.c_str(), value.c_str(), 1);
      vars_.push_back(var);
    }
    usb_ops_set(sim_attach(dir_.c_str()));
    usbio_use_i2c();
    usbio_connect();
    spi_flash_cfg_reset();
    spi_flash_page(PAGE_SPIC);
  }
  ~FlashBoard() {
    usbio_close(usbio_handle, 0);
    sim_detach();
    usb_ops_set(nullptr);
    for (const std::string &v : vars_) unsetenv(v.c_str());
    spi_flash_cfg_reset();
  }
  FlashBoard(const FlashBoard &) = delete;
  FlashBoard &operator=(const FlashBoard &) = delete;

  std::string image() const { return read_file(dir_ + "/flash.bin"); }

 private:
  std::string dir_;
  std::vector<std::string> vars_;
};

std::vector<uint8_t> bytes(std::initializer_list<int> v) { return std::vector<uint8_t>(v.begin(), v.end()); }

std::vector<uint8_t> flash_read(uint32_t addr, uint32_t len) {
  std::vector<uint8_t> b(len);
  EXPECT_EQ(spi_flash_read(addr, b.data(), len), 0);
  return b;
}

TEST(SpiFlashLayer, AddressWordCarriesOpcodeThenAddressFromTheTop) {
  static_assert(spi_flash_addr_word(0x03, 0x123456) == 0x56341203);
  static_assert(spi_flash_addr_word(0xD8, 0x0000FF) == 0xFF0000D8);
  static_assert(spi_flash_addr_word(0x02, 0xAB123456) == 0x56341202);   // 24 bits only
}

TEST(SpiFlashLayer, ArbitrationGrantsAndReleases) {
  FlashBoard board;
  spi_flash_page(PAGE_SWCORE);
  ASSERT_EQ(spi_flash_acquire(), 0);
  EXPECT_EQ(sim::chip_read(SPIF_ARBITRATION) >> 24 & 3, 2u);
  ASSERT_EQ(spi_flash_acquire(), 0);   // already ours
  EXPECT_EQ(spi_flash_release(), 0);
  EXPECT_EQ(sim::chip_read(SPIF_ARBITRATION), 0u);
}

TEST(SpiFlashLayer, ArbitrationRefusedWhenAnotherMasterHoldsTheFlash) {
  FlashBoard board({{"FLASH_OWNED", "1"}});
  spi_flash_page(PAGE_SWCORE);
  sim::chip_write(SPIF_ARBITRATION, 1u << 25);   // our request, left over from an earlier run
  EXPECT_EQ(spi_flash_acquire(), -11);
  EXPECT_EQ(spi_flash_release(), 0);
  EXPECT_EQ(sim::chip_read(SPIF_ARBITRATION), 1u << 24);   // only the other master's bit is left
}

TEST(SpiFlashLayer, IdentificationStatusAndLatch) {
  FlashBoard board;
  uint32_t id = 0;
  ASSERT_EQ(spi_flash_read_id(&id), 0);
  EXPECT_EQ(id, 0x1640EFu);
  uint8_t st = 0xEE;
  ASSERT_EQ(spi_flash_read_status(&st), 0);
  EXPECT_EQ(st, 0);
  ASSERT_EQ(spi_flash_write_enable(), 0);
  ASSERT_EQ(spi_flash_read_status(&st), 0);
  EXPECT_EQ(st, 0x02);
  ASSERT_EQ(spi_flash_write_disable(), 0);
  ASSERT_EQ(spi_flash_read_status(&st), 0);
  EXPECT_EQ(st, 0);

  ASSERT_EQ(spi_flash_write_status(0x1C, 0x02, true), 0);
  ASSERT_EQ(spi_flash_read_status(&st), 0);
  EXPECT_EQ(st, 0x1C);
  uint8_t cr = 0;
  ASSERT_EQ(spi_flash_read_config(&cr), 0);
  EXPECT_EQ(cr, 0x02);
  ASSERT_EQ(spi_flash_clear_protect(), 0);
  ASSERT_EQ(spi_flash_read_status(&st), 0);
  EXPECT_EQ(st, 0);
}

TEST(SpiFlashLayer, TimeOutsOfControllerFlashAndLatch) {
  {
    FlashBoard board({{"SPIC_BUSY", "-1"}});
    spi_flash_cfg.pollLimit = 50;
    EXPECT_EQ(spi_flash_wait_idle(), 0);   // nothing started yet
    uint8_t st = 0;
    EXPECT_EQ(spi_flash_read_status(&st), -11);
    EXPECT_EQ(spi_flash_wait_idle(), -11);
  }
  {
    FlashBoard board({{"FLASH_WIP", "-1"}, {"FLASH_WIP_MS", "-1"}});
    spi_flash_cfg.pollLimit = 50;
    ASSERT_EQ(spi_flash_write_status(0, 0, false), 11);   // status write never finishes
    EXPECT_EQ(spi_flash_wait_wip(), 11);
    EXPECT_EQ(spi_flash_write_enable(), 1);
    uint8_t b = 0;
    EXPECT_EQ(spi_flash_program(0, &b, 1), 11);
  }
}

TEST(SpiFlashLayer, ProgramSplitsAtPagesAndReadsBackInAnyLength) {
  FlashBoard board;
  std::vector<uint8_t> data(600);
  for (size_t i = 0; i < data.size(); ++i) data[i] = (uint8_t)(i * 7 + 1);
  ASSERT_EQ(spi_flash_program(0x1F0, data.data(), (uint32_t)data.size()), 0);
  std::string img = board.image();
  ASSERT_EQ(img.size(), 4u << 20);
  EXPECT_EQ(std::vector<uint8_t>(img.begin() + 0x1F0, img.begin() + 0x1F0 + 600), data);
  EXPECT_EQ((uint8_t)img[0x1EF], 0xFF);
  EXPECT_EQ((uint8_t)img[0x1F0 + 600], 0xFF);
  for (uint32_t len : {1u, 3u, 4u, 5u, 255u, 256u, 257u, 600u})
    EXPECT_EQ(flash_read(0x1F0, len), std::vector<uint8_t>(data.begin(), data.begin() + len)) << len;

  // Tails of 1-3 bytes go out as byte writes: a wrong width would program stray bytes.
  ASSERT_EQ(spi_flash_program(0x2000, data.data(), 7), 0);
  EXPECT_EQ(flash_read(0x2000, 8), std::vector<uint8_t>({data[0], data[1], data[2], data[3], data[4], data[5],
                                                         data[6], 0xFF}));
}

TEST(SpiFlashLayer, EraseKindsMessagesAndProtection) {
  FlashBoard board;
  std::vector<uint8_t> zeros(16, 0);
  for (uint32_t a : {0x0u, 0x1000u, 0x10000u, 0x20000u}) ASSERT_EQ(spi_flash_program(a, zeros.data(), 16), 0);

  testing::internal::CaptureStdout();
  EXPECT_EQ(spi_flash_erase(0x1000, SPIF_ERASE_SECTOR), 0);
  EXPECT_EQ(spi_flash_erase(0x10000, SPIF_ERASE_BLOCK), 0);
  EXPECT_EQ(spi_flash_erase(0, 3), -2);
  std::string out = testing::internal::GetCapturedStdout();
  EXPECT_NE(out.find("]-info-: Sector Erase 1\n"), std::string::npos) << out;
  EXPECT_NE(out.find("]-info-: Block64K Erase 1\n"), std::string::npos) << out;
  EXPECT_EQ(out.rfind("[spi_flash_erase-", 0), 0u) << out;
  EXPECT_EQ(flash_read(0x1000, 2), bytes({0xFF, 0xFF}));
  EXPECT_EQ(flash_read(0x10000, 2), bytes({0xFF, 0xFF}));
  EXPECT_EQ(flash_read(0x0, 1), bytes({0}));
  EXPECT_EQ(flash_read(0x20000, 1), bytes({0}));

  ASSERT_EQ(spi_flash_write_status(0x04, 0, false), 0);
  testing::internal::CaptureStdout();
  EXPECT_EQ(spi_flash_erase(0, SPIF_ERASE_CHIP), -1);
  out = testing::internal::GetCapturedStdout();
  EXPECT_NE(out.find("]-info-: Flash is protected\n"), std::string::npos) << out;
  uint8_t b = 0x12;
  EXPECT_EQ(spi_flash_program(0x30000, &b, 1), -1);

  ASSERT_EQ(spi_flash_clear_protect(), 0);
  testing::internal::CaptureStdout();
  EXPECT_EQ(spi_flash_erase(0, SPIF_ERASE_CHIP), 0);
  out = testing::internal::GetCapturedStdout();
  EXPECT_NE(out.find("]-info-: Chip Erase... ...\n"), std::string::npos) << out;
  EXPECT_EQ(flash_read(0x20000, 1), bytes({0xFF}));
}

TEST(SpiFlashLayer, MultiLineReadSetUpAndItsDelayArithmetic) {
  FlashBoard board;
  std::vector<uint8_t> data = {1, 2, 3, 4, 5, 6, 7, 8, 9};
  ASSERT_EQ(spi_flash_program(0x500, data.data(), 9), 0);

  spi_flash_cfg.channel = 2;
  spi_flash_cfg.rdOpcode = 0x3B;
  spi_flash_cfg.dummyCycles = 8;
  EXPECT_EQ(flash_read(0x500, 9), data);
  EXPECT_EQ(sim::chip_read(SPIC_CTRL), 0x40300u);
  EXPECT_EQ(sim::chip_read(SPIC_FORMAT), 0u);
  EXPECT_EQ(sim::chip_read(SPIC_DELAY), 15u);

  // Second four-line flag clear: delay compensated for the dummy cycles past four.
  spi_flash_cfg.quadFlag2 = 0;
  spi_flash_cfg.divisor = 2;
  spi_flash_cfg.sysDelay = 1;
  std::vector<uint8_t> buf(4);
  spi_flash_read(0x500, buf.data(), 4);
  EXPECT_EQ(sim::chip_read(SPIC_CTRL), 0x50300u);
  EXPECT_EQ(sim::chip_read(SPIC_DELAY), 1u + 2 * (8 - 4) * 2);

  // Too few dummy cycles for either rule: the read cannot be set up.
  spi_flash_cfg.quadFlag2 = 1;
  spi_flash_cfg.dummyCycles = 4;
  EXPECT_EQ(spi_flash_read(0x500, buf.data(), 4), -1);
  spi_flash_cfg.channel = 4;
  spi_flash_cfg.quadFlag2 = 0;
  spi_flash_cfg.dummyCycles = 1;
  EXPECT_EQ(spi_flash_read(0x500, buf.data(), 4), -1);
  spi_flash_cfg.channel = 3;
  EXPECT_EQ(spi_flash_read(0x500, buf.data(), 4), -1);
  EXPECT_EQ(spi_flash_program(0x500, buf.data(), 4), -1);
}

TEST(SpiFlashLayer, CalibrationWritesThePatternOnceAndCentresTheWindow) {
  FlashBoard board({{"FLASH_DLY_MIN", "4"}, {"FLASH_DLY_MAX", "9"}, {"FLASH_WIP_MS", "0"}});
  ASSERT_EQ(spi_flash_calibrate(), 0);
  EXPECT_EQ(spi_flash_cfg.sysDelay, 6u);
  EXPECT_EQ(spi_flash_cfg.skipWip, 1);
  std::string img = board.image();
  EXPECT_EQ(img.substr(0x40010, 16), std::string("\x99\x99\x96\x96\x3F\xCC\x66\xFC\xC0\x33\xCC\x03\xE5\xDC\x31\x62", 16));
  EXPECT_EQ(img.substr(0x40000, 16), std::string(16, '\xFF'));

  // With the pattern in place a second run finds the same delay without writing anything.
  // (a byte that an erase of the pattern's sector would lose)
  spi_flash_cfg.sysDelay = 15;
  uint8_t zero = 0;
  spi_flash_cfg.skipWip = 0;
  ASSERT_EQ(spi_flash_program(0x40000, &zero, 1), 0);
  ASSERT_EQ(spi_flash_calibrate(), 0);
  EXPECT_EQ(spi_flash_cfg.sysDelay, 6u);
  EXPECT_EQ(board.image()[0x40000], '\0');
}

TEST(SpiFlashLayer, CalibrationFailsAndRestoresWhenNoDelayWorks) {
  FlashBoard board({{"FLASH_DLY_MIN", "40"}, {"FLASH_DLY_MAX", "50"}, {"FLASH_WIP_MS", "0"}});
  sim::chip_write(SPIF_CPU_SAMPLE, 0x5A);
  spi_flash_cfg.sysDelay = 21;
  EXPECT_EQ(spi_flash_calibrate(), -1);
  EXPECT_EQ(spi_flash_cfg.sysDelay, 21u);
  EXPECT_EQ(sim::chip_read(SPIF_CPU_SAMPLE), 0x5Au);
}

TEST(SpiFlashLayer, RequestedSettingsThenQuadCalibrationAndReads) {
  FlashBoard board({{"FLASH_WIP_MS", "0"}});
  spi_flash_cfg.reqClock = 50;
  spi_flash_cfg.reqChannel = 4;
  ASSERT_EQ(spi_flash_apply_settings(), 0);
  EXPECT_EQ(spi_flash_cfg.channel, 4u);
  EXPECT_EQ(spi_flash_cfg.clock, 50u);
  EXPECT_EQ(spi_flash_cfg.divisor, 2u);
  EXPECT_EQ(spi_flash_cfg.rdOpcode, 0x6B);
  EXPECT_EQ(spi_flash_cfg.pgOpcode, 0x32);
  EXPECT_EQ(spi_flash_cfg.dummyCycles, 8u);
  EXPECT_EQ(sim::chip_read(SPIF_CLOCK_SOURCE) & 3, 1u);
  EXPECT_EQ(sim::chip_read(SPIC_DIV), 2u);
  uint32_t mhz = 0;
  ASSERT_EQ(spi_flash_get_clock(&mhz), 0);
  EXPECT_EQ(mhz, 50u);

  // Quad reads only work once calibration has switched the flash's quad mode on.
  ASSERT_EQ(spi_flash_calibrate(), 0);
  uint8_t cr = 0;
  ASSERT_EQ(spi_flash_read_config(&cr), 0);
  EXPECT_EQ(cr & 0x02, 0x02);
  EXPECT_EQ(spi_flash_cfg.sysDelay, 15u);
  spi_flash_cfg.skipWip = 0;
  std::vector<uint8_t> data = {9, 8, 7, 6, 5};
  ASSERT_EQ(spi_flash_program(0x7000, data.data(), 5), 0);
  EXPECT_EQ(flash_read(0x7000, 5), data);

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
  std::vector<uint8_t> block = {0x02 | (4 << 3), 0, 0xC0, 0xFF, 0xFF, 0xFF, 0xA5, 0x0F};
  ASSERT_EQ(spi_flash_program(base, block.data(), (uint32_t)block.size()), 0);
  std::vector<uint8_t> sig = {0x99, 0x88, 0x00};
  ASSERT_EQ(spi_flash_program(base + 0x0D, sig.data(), 3), 0);
  sim::chip_write(SPIF_BOOT_STRAP, 0x80 | 0x20 | 12);
  sim::chip_write(SPIF_PARAM_SELECT, 1);

  ASSERT_EQ(spi_flash_controller_init(), 0);
  EXPECT_EQ(spi_flash_cfg.sysDelay, 12u);
  EXPECT_EQ(spi_flash_cfg.channel, 2u);
  EXPECT_EQ(spi_flash_cfg.divisor, 4u);
  EXPECT_EQ(sim::chip_read(SPIC_DIV), 4u);
  EXPECT_EQ(sim::chip_read(SPIC_DIV2), 4u);
  EXPECT_EQ(spi_flash_cfg.clock, 25u);   // 200 / (2 x 4)
  EXPECT_EQ(spi_flash_cfg.rdOpcode, 0x3B);
  EXPECT_EQ(spi_flash_cfg.dummyCycles, 8u);
  EXPECT_EQ(spi_flash_cfg.pgOpcode, 0x02);
  EXPECT_EQ(spi_flash_cfg.dummyByte, 0xA5);
  EXPECT_EQ(spi_flash_cfg.quadFlag1, 1);
  EXPECT_EQ(spi_flash_cfg.quadFlag2, 1);
  EXPECT_EQ(sim::chip_read(PAGE_REG_ADDR & 0xFFFFFF) & 0xFF, PAGE_SWCORE);

  // The dual read it set up returns the block itself.
  spi_flash_page(PAGE_SPIC);
  EXPECT_EQ(flash_read(base, 8), block);

  // Without the signature: measured clock and divisor from the controller, one line.
  std::vector<uint8_t> nosig = {0x00};
  ASSERT_EQ(spi_flash_program(base + 0x0D, nosig.data(), 1), 0);
  ASSERT_EQ(spi_flash_controller_init(), 0);
  EXPECT_EQ(spi_flash_cfg.channel, 1u);
  EXPECT_EQ(spi_flash_cfg.rdOpcode, 0x03);
  EXPECT_EQ(spi_flash_cfg.dummyCycles, 0u);

  // Any other boot mode: the defaults.
  sim::chip_write(SPIF_BOOT_STRAP, 0);
  spi_flash_cfg.sysDelay = 3;
  ASSERT_EQ(spi_flash_controller_init(), 0);
  EXPECT_EQ(spi_flash_cfg.sysDelay, 15u);
  EXPECT_EQ(spi_flash_cfg.divisor, 8u);
}

}  // namespace
