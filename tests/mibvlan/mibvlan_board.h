// A fresh simulated board per test, reached in-process over the adapter's I2C side.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "access/access.h"
#include "access/usbio.h"
#include "run_tool.h"
#include "sim/sim.h"
#include "sim/sim_chip.h"

class OnBoard : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = make_temp_dir("mibvlan");
    const usb_ops_t *ops = sim_attach(dir_.c_str());
    ASSERT_NE(ops, nullptr);
    usb_ops_set(ops);
    ASSERT_EQ(usbio_use_i2c(), 0);
    usbio_connect();
    ASSERT_NE(usbio_handle, nullptr);
  }
  void TearDown() override {
    if (usbio_handle != nullptr) usbio_close(usbio_handle, 0);
    sim_detach();
    usb_ops_set(nullptr);
  }
  // Board-side register access, bypassing the tool.
  static uint32_t peek(uint32_t addr) { return sim::chip_read(addr); }
  static void poke(uint32_t addr, uint32_t v) { sim::chip_write(addr, v); }

  std::string dir_;
};
