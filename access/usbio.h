// USB I/O adapter: device handling, exchanges and register-level transfers.
#pragma once

#include <cstdint>
#include <usb.h>

#define USBIO_VID 0x0C55
#define USBIO_PID 0x5731
#define USBIO_EP_OUT 0x02
#define USBIO_EP_IN 0x81
#define USBIO_XFER_TIMEOUT_MS 20

// The libusb-0.1 calls the adapter code makes, as one slot. By default the real
// libusb-0.1; the simulated board installs its own table once at start-up.
struct usb_ops_t {
  void (*init)(void);
  int (*find_busses)(void);
  int (*find_devices)(void);
  struct usb_bus *(*get_busses)(void);
  usb_dev_handle *(*open)(struct usb_device *dev);
  int (*close)(usb_dev_handle *h);
  int (*claim_interface)(usb_dev_handle *h, int iface);
  int (*release_interface)(usb_dev_handle *h, int iface);
  int (*bulk_write)(usb_dev_handle *h, int ep, char *bytes, int size, int timeout);
  int (*bulk_read)(usb_dev_handle *h, int ep, char *bytes, int size, int timeout);
};
extern const usb_ops_t usb_ops_libusb;
void usb_ops_set(const usb_ops_t *ops);   // null restores libusb
const usb_ops_t *usb_ops_get(void);

// USB capture (pcap, link type 220). Opened from KIVTOOL_PCAP at start-up.
int usb_capture_open(const char *path);
void usb_capture_close(void);

extern usb_dev_handle *usbio_handle;       // program-wide adapter handle, null when closed
extern uint8_t usbio_flash_param;          // parameter byte of the flash-write commands (15)

usb_dev_handle *usbio_open(void);
// Why the last usbio_open() gave no handle: 0 when it opened one, ENOENT when no adapter is
// on the bus, otherwise the errno of the failed open or interface claim (EACCES, EPERM,
// EBUSY, ENODEV, ...). usbio_open_node() names the adapter's device node ("" when none).
int usbio_open_cause(void);
const char *usbio_open_node(void);
// What made register-level transfers fail since the last usbio_trouble_take(), for a hint to
// the user: bits USBIO_TROUBLE_*. Taking it clears it.
#define USBIO_TROUBLE_NO_ADAPTER 1u   // no adapter open (usbio_open_cause() says why)
#define USBIO_TROUBLE_I2C_NAK 2u      // the adapter refused an I2C transfer (0xAB): no chip answered
#define USBIO_TROUBLE_GONE 4u         // the adapter left the bus during a transfer
unsigned usbio_trouble_take(void);
// Bulk transfers attempted since start-up (both directions, resends included): what long
// flash work is measured and estimated in.
uint64_t usbio_transfers(void);
int usbio_close(usb_dev_handle *h, int iface);
void usbio_connect(void);
void usbio_event(int code);

int usbio_config(usb_dev_handle *h, uint8_t code, uint8_t sub, uint8_t paramA, uint16_t paramB,
                 uint32_t timeout_us);
int usbio_write(usb_dev_handle *h, uint8_t code, uint8_t sub, const uint8_t *addr, uint8_t addrLen,
                const uint8_t *data, uint16_t dataLen, uint32_t timeout_us);
int usbio_read(usb_dev_handle *h, uint8_t code, uint8_t sub, const uint8_t *addr, uint8_t addrLen,
               uint8_t *buf, uint16_t dataLen, uint32_t timeout_us);
int usbio_smi_write(usb_dev_handle *h, uint8_t code, uint8_t phy, uint8_t reg, const uint8_t *data,
                    uint16_t dataLen, uint32_t timeout_us);
int usbio_smi_read(usb_dev_handle *h, uint8_t code, uint8_t phy, uint8_t reg, uint8_t *buf,
                   uint16_t dataLen, uint32_t timeout_us);
int usbio_flash_write(usb_dev_handle *h, uint8_t code, uint32_t flashAddr, const uint8_t *data,
                      uint16_t len, uint8_t flag, uint32_t timeout_us);

// Register-level transfers with retry and reconnect (the default register hooks).
int32_t hx5200_usb_i2c_read(uint32_t addr, uint32_t *value);
int32_t hx5200_usb_i2c_read_burst(uint32_t addr, uint32_t *values, uint32_t n);
int32_t hx5200_usb_i2c_write(uint32_t addr, uint32_t value);
int32_t hx5200_usb_i2c_flash_write(uint32_t flashAddr, const uint8_t *data, uint32_t len, uint8_t flag);
int32_t hx5200_usb_spi_write(uint32_t addr, uint32_t value);
int32_t hx5200_usb_spi_read(uint32_t addr, uint32_t *value);
int32_t hx5200_usb_spi_flash_write(uint32_t flashAddr, const uint8_t *data, uint32_t len, uint8_t flag);
int32_t hx5200_usb_smi_write(uint32_t phy, uint32_t reg, uint16_t data);
int32_t hx5200_usb_smi_read(uint32_t phy, uint32_t reg, uint16_t *data);
int32_t hx5200_usb_smi_flash_write(uint32_t flashAddr, const uint8_t *data, uint32_t len, uint8_t flag);

// Install the adapter's register pair for an interface (selecting it). SMI also installs
// the adapter's five MDC/MDIO line primitives first.
int32_t usbio_use_i2c(void);
int32_t usbio_use_smi(void);
int32_t usbio_use_spi(void);
