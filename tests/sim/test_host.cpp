// The board under the tool's own access layer: register primitives over I2C, SMI and SPI.
#include <gtest/gtest.h>

#include "access/access.h"
#include "board_harness.h"
#include "sim/sim_chip.h"

namespace {
struct HostOnBoard {
  std::string dir = make_temp_dir("kivsim");
  HostOnBoard() {
    usb_ops_set(sim_attach(dir.c_str()));
    usbio_connect();
  }
  ~HostOnBoard() {
    if (usbio_handle) usbio_close(usbio_handle, 0);
    usb_ops_set(nullptr);
    sim_detach();
    access_if_set(0);
  }
};
}  // namespace

TEST(Host, RegisterAccessOverEveryInterface) {
  HostOnBoard host;
  ASSERT_NE(usbio_handle, nullptr);
  ASSERT_EQ(usbio_use_i2c(), 0);
  EXPECT_EQ(chip_probe(), 0);
  EXPECT_EQ(reg_write(1, 0x180048, 0x200), 0);
  uint32_t v = 0;
  EXPECT_EQ(reg_read(1, 0x180048, &v), 0);
  EXPECT_EQ(v, 0x200u);

  ASSERT_EQ(usbio_use_spi(), 0);
  v = 0;
  EXPECT_EQ(reg_read(1, 0x180048, &v), 0);
  EXPECT_EQ(v, 0x200u);
  EXPECT_EQ(reg_write(1, 0x180050, 0xDEADBEEF), 0);

  ASSERT_EQ(usbio_use_smi(), 0);
  v = 0;
  EXPECT_EQ(reg_read(1, 0x180050, &v), 0);
  EXPECT_EQ(v, 0xDEADBEEFu);
  EXPECT_EQ(reg_write(1, 0x180054, 0x01020304), 0);
  EXPECT_EQ(sim::chip_read(0x4A180054), 0x01020304u);
  EXPECT_EQ(chip_probe(), 0);

  uint16_t d = 0;
  EXPECT_EQ(hx5200_usb_smi_write(2, 4, 0x0DE1), 0);
  EXPECT_EQ(hx5200_usb_smi_read(2, 4, &d), 0);
  EXPECT_EQ(d, 0x0DE1);
}

TEST(Host, BurstReadThroughTheAdapter) {
  HostOnBoard host;
  ASSERT_EQ(usbio_use_i2c(), 0);
  for (uint32_t i = 0; i < 64; ++i) sim::chip_write(0x4A001000 + 4 * i, i * 3);
  std::array<uint32_t, 64> vals{};
  ASSERT_EQ(hx5200_usb_i2c_read_burst(0x1000, vals.data(), 64), 0);
  for (uint32_t i = 0; i < 64; ++i) ASSERT_EQ(vals[i], i * 3);
}
