// The simulated board attached in this process: the adapter code reaches it through the
// usb_ slot.
#pragma once

#include <string>

#include "access/usbio.h"
#include "sim/sim.h"

// Attaches the board kept in `dir` and connects the adapter with I2C selected.
inline void board_attach(const std::string &dir) {
  usb_ops_set(sim_attach(dir.c_str()));
  usbio_use_i2c();
  usbio_connect();
}

// Closes the adapter and detaches the board.
inline void board_detach() {
  usbio_close(usbio_handle, 0);
  sim_detach();
  usb_ops_set(nullptr);
}
