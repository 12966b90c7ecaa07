// Helpers shared by the access layer's own source files only.
#pragma once

#include <cstdint>
#include <ctime>

namespace access_local {

// Software framings: whether every line hook of a set is present, and the SPI idle state.
bool i2c_lines_complete();
bool smi_lines_complete();
bool spi_lines_complete();
void spi_lines_idle();

// Parallel-port I2C link: 1 on success, 0 when the link failed (or is not bound).
int lpt_i2c_read(uint32_t addr, uint8_t *buf, uint32_t n);
int lpt_i2c_write(uint32_t addr, uint32_t value);

// One bulk transfer as seen on the bus, written to the capture file when one is open.
// `result` is the libusb return value (bytes moved or a negative errno).
void usb_capture_xfer(uint8_t ep, uint8_t devnum, const uint8_t *data, int size, int result,
                      const timespec &submitted, const timespec &completed);

}  // namespace access_local
