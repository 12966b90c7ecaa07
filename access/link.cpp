// Link parameters of the chip's access interfaces: program-wide, set by the start-up
// configuration and the `set` command, read by the adapter and the software framings.
#include "access/access.h"

uint8_t mdcaddrid = 24;    // MDIO address of the chip
uint8_t i2caddrid = 4;     // low three bits of its I2C device address (0xA0 | id << 1)
uint32_t i2c_retry_limit = 1;
uint32_t spi_retry_limit = 1;
uint32_t smi_retry_limit = 1;
