// Host side of the USB I/O adapter: finding and opening it, configuring its I2C and SPI
// sides, the command/status/data exchanges and the register-level transfers built on them.
#include "access/usbio.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include <array>

#include "access/access.h"
#include "access/access_local.h"
#include "access/usbio_protocol.h"
#include "access/usbio_identity.h"

usb_dev_handle *usbio_handle = nullptr;
uint8_t usbio_flash_param = 15;

namespace {

// ---- protocol constants ----------------------------------------------------------------------
using namespace usbio_proto;

constexpr uint32_t kRegTimeoutUs = 200'000;
constexpr uint32_t kBurstTimeoutUs = 40'000'000;
constexpr uint32_t kFlashTimeoutUs = 20'000'000;

constexpr int kIface = 0;
constexpr long kXferNs = USBIO_XFER_TIMEOUT_MS * 1'000'000L;

// Source line numbers reported by the "Not Found" message of each transfer.
constexpr int kLineI2cRead = 1363;
constexpr int kLineI2cBurst = 1425;
constexpr int kLineI2cWrite = 1482;
constexpr int kLineI2cFlash = 1541;
constexpr int kLineSmiWrite = 1713;
constexpr int kLineSmiRead = 1758;
constexpr int kLineSmiFlash = 1807;

// ---- buffers (one transfer at a time; the program is single-threaded) -------------------------
std::array<uint8_t, kHeader + kMaxAddrBlock> g_cmd;
std::array<uint8_t, kMaxData + kTrailer> g_out;
std::array<uint8_t, kHeader + kMaxAddrBlock + kMaxData + kTrailer> g_in;

uint8_t g_devnum = 0;  // bus address of the open adapter, for the capture

// Outcome of the last usbio_open(): its cause code and the device node it tried.
int g_openCause = ENOENT;
std::array<char, 64> g_openNode{};

// Troubles met by the attempts of the register transfer under way, and those of the
// transfers that failed (kept for usbio_trouble_take).
unsigned g_attemptTrouble = 0;
unsigned g_trouble = 0;

// ---- time ------------------------------------------------------------------------------------
timespec now(clockid_t clk) {
  timespec ts{};
  clock_gettime(clk, &ts);
  return ts;
}

long long elapsed_ns(const timespec &t0) {
  const timespec t = now(CLOCK_MONOTONIC);
  return (t.tv_sec - t0.tv_sec) * 1'000'000'000LL + (t.tv_nsec - t0.tv_nsec);
}

long long elapsed_us(const timespec &t0) { return elapsed_ns(t0) / 1000; }

// ---- bulk transfers through the usb_ slot and the capture ------------------------------------
// True for the results of a device that has left the bus (noted for the hint).
bool device_gone(int r) {
  const bool gone = r == -ENODEV || r == -ESHUTDOWN || r == -ENXIO;
  if (gone) g_attemptTrouble |= USBIO_TROUBLE_GONE;
  return gone;
}

int bulk_write(usb_dev_handle *h, const uint8_t *data, size_t size) {
  const timespec ts = now(CLOCK_REALTIME);
  const int r = usb_ops_get()->bulk_write(h, USBIO_EP_OUT, reinterpret_cast<char *>(const_cast<uint8_t *>(data)),
                                          static_cast<int>(size), USBIO_XFER_TIMEOUT_MS);
  access_local::usb_capture_xfer(USBIO_EP_OUT, g_devnum, data, static_cast<int>(size), r, ts, now(CLOCK_REALTIME));
  device_gone(r);
  return r;
}

// One bulk read with the 20 ms time-out. A read that comes back empty-handed before its
// time-out has run out (a device that answers errors at once) is paced to the time-out, so
// the completion waits never spin.
int bulk_read(usb_dev_handle *h, uint8_t *buf, size_t size) {
  const timespec mono0 = now(CLOCK_MONOTONIC);
  const timespec ts = now(CLOCK_REALTIME);
  const int r = usb_ops_get()->bulk_read(h, USBIO_EP_IN, reinterpret_cast<char *>(buf), static_cast<int>(size),
                                         USBIO_XFER_TIMEOUT_MS);
  access_local::usb_capture_xfer(USBIO_EP_IN, g_devnum, buf, static_cast<int>(size), r, ts, now(CLOCK_REALTIME));
  if (r <= 0 && !device_gone(r)) {
    const long long left = kXferNs - elapsed_ns(mono0);
    if (left > 0) {
      timespec d{static_cast<time_t>(left / 1'000'000'000LL), static_cast<long>(left % 1'000'000'000LL)};
      while (nanosleep(&d, &d) != 0 && errno == EINTR) {
      }
    }
  }
  return r;
}

// One status byte, or -1 when none came. A refused I2C command means that nothing answered
// at the configured device address (noted for the hint).
int read_status(usb_dev_handle *h) {
  uint8_t b = 0;
  if (bulk_read(h, &b, 1) != 1) return -1;
  const uint8_t code = g_cmd[8];
  if (b == kNak && (code == kCodeI2cWrite || code == kCodeI2cRead || code == kCodeI2cFlash))
    g_attemptTrouble |= USBIO_TROUBLE_I2C_NAK;
  return b;
}

// ---- packet building --------------------------------------------------------------------------
uint8_t *header(uint8_t code, uint8_t sub, uint8_t addrLen) {
  g_cmd.fill(0);
  std::copy(kMagic.begin(), kMagic.end(), g_cmd.begin());
  g_cmd[6] = static_cast<uint8_t>(kHeader + addrLen);
  g_cmd[8] = code;
  g_cmd[9] = sub;
  g_cmd[23] = addrLen;
  return g_cmd.data();
}

void put_be16(uint8_t *p, uint16_t v) {
  p[0] = static_cast<uint8_t>(v >> 8);
  p[1] = static_cast<uint8_t>(v);
}

// Sends the command and reads its status; one resend after a NAK or any other answer.
bool send_command(usb_dev_handle *h, size_t len, bool resendOnOther) {
  for (int send = 0; send < 2; ++send) {
    const int w = bulk_write(h, g_cmd.data(), len);
    const int st = w == static_cast<int>(len) ? read_status(h) : -1;
    if (st == kAck) return true;
    if (st != kNak && !resendOnOther) return false;
  }
  return false;
}

// Reads status bytes until `want` arrives or the time-out (µs) has passed.
bool wait_for(usb_dev_handle *h, uint8_t want, uint32_t timeout_us) {
  const timespec t0 = now(CLOCK_MONOTONIC);
  for (;;) {
    uint8_t b = 0;
    const int r = bulk_read(h, &b, 1);
    if (r == 1 && b == want) return true;
    if (device_gone(r)) return false;
    if (elapsed_us(t0) > timeout_us) return false;
  }
}

bool send_data(usb_dev_handle *h, const uint8_t *data, uint16_t len) {
  if (len) memcpy(g_out.data(), data, len);
  memset(g_out.data() + len, 0xFF, kTrailer);
  const size_t n = len + kTrailer;
  return bulk_write(h, g_out.data(), n) == static_cast<int>(n);
}

// Command, status, data packet and completion wait; run once more in full when the
// completion does not come.
int write_exchange(usb_dev_handle *h, size_t cmdLen, const uint8_t *data, uint16_t dataLen, uint32_t timeout_us) {
  for (int run = 0; run < 2; ++run) {
    if (!send_command(h, cmdLen, true)) return -1;
    send_data(h, data, dataLen);
    if (wait_for(h, kWriteDone, timeout_us)) return 0;
  }
  return -1;
}

// Command and status, then responses until one carries the command code in byte 8.
int read_exchange(usb_dev_handle *h, size_t cmdLen, uint8_t code, uint8_t *buf, uint16_t dataLen,
                  uint32_t timeout_us) {
  if (!send_command(h, cmdLen, true)) return -1;
  const size_t want = dataLen + cmdLen + kTrailer;
  const timespec t0 = now(CLOCK_MONOTONIC);
  for (;;) {
    const int r = bulk_read(h, g_in.data(), want);
    if (r >= static_cast<int>(cmdLen + dataLen) && g_in[8] == code) {
      memcpy(buf, g_in.data() + cmdLen, dataLen);
      return 0;
    }
    if (device_gone(r)) return -1;
    if (elapsed_us(t0) > timeout_us) return -1;
  }
}

// ---- register-level helpers --------------------------------------------------------------------
// True when the adapter is open; otherwise the transfer named `op` reports it missing.
bool adapter_open(const char *op, int line) {
  if (usbio_handle) return true;
  g_trouble |= USBIO_TROUBLE_NO_ADAPTER;
  printf("%s_%d \033[1;31;40m kivshell: USBIO device Not Found. Only be available for offline test! \033[0m \n",
         op, line);
  return false;
}

uint32_t le32_at(const uint8_t *d) {
  return d[0] | (d[1] << 8) | (d[2] << 16) | (static_cast<uint32_t>(d[3]) << 24);
}

void reconnect() {
  usbio_close(usbio_handle, kIface);
  usbio_connect();
}

// Runs `attempt` until it succeeds or the failures reach `limit`, reconnecting between tries.
// When it gives up, what the attempts met is kept for the hint.
template <typename Fn>
int32_t with_retry(uint32_t limit, Fn attempt) {
  g_attemptTrouble = 0;
  for (uint32_t fails = 0;; ++fails) {
    if (attempt() == 0) return 0;
    if (fails >= limit) {
      g_trouble |= g_attemptTrouble | (usbio_handle ? 0u : USBIO_TROUBLE_NO_ADAPTER);
      return -1;
    }
    reconnect();
  }
}

// The SPI transfers that report no missing adapter still leave the hint its cause.
bool spi_adapter_open() {
  if (!usbio_handle) g_trouble |= USBIO_TROUBLE_NO_ADAPTER;
  return usbio_handle != nullptr;
}

void i2c_addr_block(uint32_t addr, uint8_t *a) {
  a[0] = static_cast<uint8_t>(addr);
  a[1] = static_cast<uint8_t>(addr >> 8);
  a[2] = static_cast<uint8_t>(addr >> 16);
}

void spi_addr_block(uint8_t opcode, uint32_t addr, uint8_t *a) {
  a[0] = opcode;
  a[1] = static_cast<uint8_t>(addr >> 16);
  a[2] = static_cast<uint8_t>(addr >> 8);
  a[3] = static_cast<uint8_t>(addr);
  a[4] = 0;
}

int32_t flash_write_with_retry(uint8_t code, uint32_t limit, uint32_t flashAddr, const uint8_t *data, uint32_t len,
                               uint8_t flag) {
  if (len > kMaxData || (!data && len)) return -1;
  return with_retry(limit, [&] {
    return usbio_flash_write(usbio_handle, code, flashAddr, data, static_cast<uint16_t>(len), flag, kFlashTimeoutUs);
  });
}

// The adapter's MDC/MDIO line primitives: the adapter frames SMI itself, so the lines
// are not driven from the host.
void smi_line_both(int, int) {}
void smi_line_one(int) {}
int smi_line_sample() { return 1; }
void smi_line_spare() {}

}  // namespace

// ---- device handling ----------------------------------------------------------------------------

// Opens the adapter the identity names (or, with no selector before the first open, the
// first one on the bus) and claims its interface.
usb_dev_handle *usbio_open(void) {
  const usb_ops_t *ops = usb_ops_get();
  g_openCause = ENOENT;
  g_openNode[0] = '\0';
  UsbioAdapter target;
  const int matches = usbio_target(&target);
  if (matches == 0 || matches > 1) {
    usbio_identity_missing(matches);
    return nullptr;
  }
  ops->init();
  ops->find_busses();
  ops->find_devices();
  for (usb_bus *bus = ops->get_busses(); bus; bus = bus->next) {
    for (struct usb_device *dev = bus->devices; dev; dev = dev->next) {
      if (dev->descriptor.idVendor != USBIO_VID || dev->descriptor.idProduct != USBIO_PID) continue;
      const unsigned busnum = static_cast<unsigned>(atoi(bus->dirname));
      const unsigned devnum = static_cast<unsigned>(atoi(dev->filename));
      if (matches == 1 && (busnum != target.busnum || devnum != target.devnum)) continue;
      snprintf(g_openNode.data(), g_openNode.size(), "/dev/bus/usb/%.8s/%.8s", bus->dirname, dev->filename);
      errno = 0;
      usb_dev_handle *h = ops->open(dev);
      if (!h) {
        g_openCause = errno ? errno : EACCES;
        return nullptr;
      }
      const int rc = ops->claim_interface(h, kIface);
      if (rc != 0) {
        ops->close(h);
        g_openCause = rc < 0 ? -rc : EIO;
        return nullptr;
      }
      g_devnum = dev->devnum;
      g_openCause = 0;
      usbio_identity_opened(busnum, devnum);
      return h;
    }
  }
  // Listed in sysfs but not (yet) by libusb: as if it were not there.
  if (matches == 1) usbio_identity_missing(0);
  return nullptr;
}

int usbio_open_cause(void) { return g_openCause; }

unsigned usbio_trouble_take(void) {
  const unsigned t = g_trouble;
  g_trouble = 0;
  return t;
}

const char *usbio_open_node(void) { return g_openNode.data(); }

int usbio_close(usb_dev_handle *h, int iface) {
  if (!h) return 1;
  const usb_ops_t *ops = usb_ops_get();
  ops->release_interface(h, iface);
  ops->close(h);
  if (usbio_handle == h) usbio_handle = nullptr;
  return 0;
}

// The adapter is on the bus but cannot be used: one line on standard error names the cause
// and the fix. The console messages of the failed accesses that follow stay as they are.
static void report_unusable_adapter() {
  const int cause = usbio_open_cause();
  if (cause == EACCES || cause == EPERM)
    fprintf(stderr,
            "kivtool: %s: permission denied: this user may not open the USB I/O adapter for writing; "
            "install udev/60-kivtool.rules (README, \"Using a real adapter\") and plug the adapter in again\n",
            usbio_open_node());
  else if (cause == EBUSY)
    fprintf(stderr,
            "kivtool: %s: the USB I/O adapter is in use by another program (interface 0 is claimed); "
            "close that program, then reconnect (set i2cid %u)\n",
            usbio_open_node(), i2caddrid);
}

void usbio_connect(void) {
  if (usbio_handle) usbio_close(usbio_handle, kIface);
  usbio_handle = usbio_open();
  if (!usbio_handle) {
    report_unusable_adapter();
    return;
  }
  // The device address byte takes the whole id shifted left: an id above 7 (possible
  // through `set i2cid`) reaches the bits above the 0xA0 pattern.
  const uint8_t i2cDevice = static_cast<uint8_t>(0xA0 | (i2caddrid << 1));
  if (usbio_config(usbio_handle, kCodeI2cConfig, 1, 2, i2cDevice, kRegTimeoutUs) != 0) {
    puts("\033[1;31;40m kivshell: USBIO device IIC Configure error. \033[0m ");
    return;
  }
  // Both SPI steps are always sent; each failed one is reported.
  constexpr const char *kSpiError = "\033[1;31;40m kivshell: USBIO device SPI Configure error. \033[0m ";
  if (usbio_config(usbio_handle, kCodeSpiConfig, 1, 37, 0, kRegTimeoutUs) != 0) puts(kSpiError);
  if (usbio_config(usbio_handle, kCodeSpiConfig2, 0, 32, 0, kRegTimeoutUs) != 0) puts(kSpiError);
}

void usbio_event(int code) {
  if (code == 128) {
    puts("\033[1;37;40m kivshell: USBIO device Connected. \033[0m ");
    usbio_connect();
    return;
  }
  usbio_close(usbio_handle, kIface);
  puts("\033[1;33;40m kivshell: USBIO device Disconnected. \033[0m ");
}

// ---- exchanges ------------------------------------------------------------------------------------

int usbio_config(usb_dev_handle *h, uint8_t code, uint8_t sub, uint8_t paramA, uint16_t paramB,
                 uint32_t timeout_us) {
  if (!h) return -1;
  uint8_t *p = header(code, sub, 0);
  p[14] = paramA;
  put_be16(p + 17, paramB);
  if (!send_command(h, kHeader, false)) return -1;
  return wait_for(h, kConfigDone, timeout_us) ? 0 : -1;
}

int usbio_write(usb_dev_handle *h, uint8_t code, uint8_t sub, const uint8_t *addr, uint8_t addrLen,
                const uint8_t *data, uint16_t dataLen, uint32_t timeout_us) {
  if (!h || addrLen > kMaxAddrBlock || (addrLen && !addr) || (dataLen && !data)) return -1;
  uint8_t *p = header(code, sub, addrLen);
  put_be16(p + 10, dataLen);
  if (addrLen) memcpy(p + kHeader, addr, addrLen);
  return write_exchange(h, kHeader + addrLen, data, dataLen, timeout_us);
}

int usbio_read(usb_dev_handle *h, uint8_t code, uint8_t sub, const uint8_t *addr, uint8_t addrLen, uint8_t *buf,
               uint16_t dataLen, uint32_t timeout_us) {
  if (!h || addrLen > kMaxAddrBlock || (addrLen && !addr) || (dataLen && !buf)) return -1;
  uint8_t *p = header(code, sub, addrLen);
  put_be16(p + 12, dataLen);
  if (addrLen) memcpy(p + kHeader, addr, addrLen);
  return read_exchange(h, kHeader + addrLen, code, buf, dataLen, timeout_us);
}

int usbio_smi_write(usb_dev_handle *h, uint8_t code, uint8_t phy, uint8_t reg, const uint8_t *data,
                    uint16_t dataLen, uint32_t timeout_us) {
  if (!h || (dataLen && !data)) return -1;
  uint8_t *p = header(code, 0, 0);
  put_be16(p + 10, dataLen);
  p[16] = phy;
  p[18] = reg;
  return write_exchange(h, kHeader, data, dataLen, timeout_us);
}

int usbio_smi_read(usb_dev_handle *h, uint8_t code, uint8_t phy, uint8_t reg, uint8_t *buf, uint16_t dataLen,
                   uint32_t timeout_us) {
  if (!h || (dataLen && !buf)) return -1;
  uint8_t *p = header(code, 0, 0);
  put_be16(p + 12, dataLen);
  p[16] = phy;
  p[18] = reg;
  return read_exchange(h, kHeader, code, buf, dataLen, timeout_us);
}

// Flash write: header with the flash address, flag and parameter byte, then the data packet.
// The adapter answers 0xBA when done or 0xAC when data went missing; the whole transfer is
// resent while fewer than two resends (NAK resends included) have been made, after that
// further 0xAC are ignored until 0xBA or the time-out.
int usbio_flash_write(usb_dev_handle *h, uint8_t code, uint32_t flashAddr, const uint8_t *data, uint16_t len,
                      uint8_t flag, uint32_t timeout_us) {
  if (!h || (len && !data)) return -1;
  constexpr int kMaxResends = 2;
  int resends = 0;
  for (;;) {
    uint8_t *p = header(code, code == kCodeSmiFlash ? 0 : 1, 0);
    p[7] = 1;
    put_be16(p + 10, len);
    p[15] = static_cast<uint8_t>(flashAddr >> 24);
    p[16] = static_cast<uint8_t>(flashAddr >> 16);
    p[17] = static_cast<uint8_t>(flashAddr >> 8);
    p[18] = static_cast<uint8_t>(flashAddr);
    p[20] = flag;
    p[21] = usbio_flash_param;

    const int w = bulk_write(h, g_cmd.data(), kHeader);
    const int st = w == static_cast<int>(kHeader) ? read_status(h) : -1;
    if (st != kAck) {
      if (resends < kMaxResends) {
        ++resends;
        continue;
      }
      return -1;
    }
    send_data(h, data, len);
    const timespec t0 = now(CLOCK_MONOTONIC);
    bool resend = false;
    for (;;) {
      uint8_t b = 0;
      const int r = bulk_read(h, &b, 1);
      if (r == 1 && b == kWriteDone) return 0;
      if (r == 1 && b == kFlashMissing && resends < kMaxResends) {
        ++resends;
        resend = true;
        break;
      }
      if (device_gone(r) || elapsed_us(t0) > timeout_us) return -1;
    }
    if (!resend) return -1;
  }
}

// ---- register-level transfers ---------------------------------------------------------------------

int32_t hx5200_usb_i2c_read(uint32_t addr, uint32_t *value) {
  if (!adapter_open("HX5200_USB_I2C_READ_NEW", kLineI2cRead)) return ACCESS_NO_ADAPTER;
  if (!value) return ACCESS_NULL_PTR;
  uint8_t a[3];
  i2c_addr_block(addr, a);
  uint8_t d[4] = {};
  const int32_t rc = with_retry(i2c_retry_limit, [&] {
    return usbio_read(usbio_handle, kCodeI2cRead, 1, a, 3, d, 4, kRegTimeoutUs);
  });
  if (rc == 0) *value = le32_at(d);
  return rc;
}

int32_t hx5200_usb_i2c_read_burst(uint32_t addr, uint32_t *values, uint32_t n) {
  if (!adapter_open("HX5200_USB_I2C_READ_BURST", kLineI2cBurst)) return ACCESS_NO_ADAPTER;
  if (n == 0) return 0;
  if (!values || n > kMaxData / 4) return -1;
  uint8_t a[3];
  i2c_addr_block(addr, a);
  static std::array<uint8_t, kMaxData> data;
  const uint16_t len = static_cast<uint16_t>(4 * n);
  const int32_t rc = with_retry(i2c_retry_limit, [&] {
    return usbio_read(usbio_handle, kCodeI2cRead, 1, a, 3, data.data(), len, kBurstTimeoutUs);
  });
  if (rc != 0) return rc;
  for (uint32_t i = 0; i < n; ++i) values[i] = le32_at(data.data() + 4 * i);
  return 0;
}

int32_t hx5200_usb_i2c_write(uint32_t addr, uint32_t value) {
  if (!adapter_open("HX5200_USB_I2C_WRITE_NEW", kLineI2cWrite)) return ACCESS_NO_ADAPTER;
  uint8_t a[3];
  i2c_addr_block(addr, a);
  const uint8_t d[4] = {static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8),
                        static_cast<uint8_t>(value >> 16), static_cast<uint8_t>(value >> 24)};
  return with_retry(i2c_retry_limit, [&] {
    return usbio_write(usbio_handle, kCodeI2cWrite, 1, a, 3, d, 4, kRegTimeoutUs);
  });
}

int32_t hx5200_usb_i2c_flash_write(uint32_t flashAddr, const uint8_t *data, uint32_t len, uint8_t flag) {
  if (!adapter_open("HX5200_USB_I2C_FLASH_WRITE_NEW", kLineI2cFlash)) return ACCESS_NO_ADAPTER;
  return flash_write_with_retry(kCodeI2cFlash, i2c_retry_limit, flashAddr, data, len, flag);
}

int32_t hx5200_usb_spi_write(uint32_t addr, uint32_t value) {
  if (!spi_adapter_open()) return ACCESS_NO_ADAPTER;
  uint8_t a[5];
  spi_addr_block(0x02, addr, a);
  const uint8_t d[4] = {static_cast<uint8_t>(value >> 24), static_cast<uint8_t>(value >> 16),
                        static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)};
  return with_retry(spi_retry_limit, [&] {
    return usbio_write(usbio_handle, kCodeSpiWrite, 1, a, 4, d, 4, kRegTimeoutUs);
  });
}

// No open check here: with no adapter the attempts fail and the result is -1.
int32_t hx5200_usb_spi_read(uint32_t addr, uint32_t *value) {
  if (!value) return ACCESS_NULL_PTR;
  uint8_t a[5];
  spi_addr_block(0x03, addr, a);
  uint8_t d[4] = {};
  const int32_t rc = with_retry(spi_retry_limit, [&] {
    return usbio_read(usbio_handle, kCodeSpiRead, 1, a, 5, d, 4, kRegTimeoutUs);
  });
  if (rc == 0) *value = (static_cast<uint32_t>(d[0]) << 24) | (d[1] << 16) | (d[2] << 8) | d[3];
  return rc;
}

int32_t hx5200_usb_spi_flash_write(uint32_t flashAddr, const uint8_t *data, uint32_t len, uint8_t flag) {
  if (!spi_adapter_open()) return ACCESS_NO_ADAPTER;
  return flash_write_with_retry(kCodeSpiFlash, spi_retry_limit, flashAddr, data, len, flag);
}

int32_t hx5200_usb_smi_write(uint32_t phy, uint32_t reg, uint16_t data) {
  if (!adapter_open("HX5200_SMI_WRITE_HXK", kLineSmiWrite)) return ACCESS_NO_ADAPTER;
  const uint8_t d[2] = {static_cast<uint8_t>(data >> 8), static_cast<uint8_t>(data)};
  return with_retry(smi_retry_limit, [&] {
    return usbio_smi_write(usbio_handle, kCodeSmiWrite, static_cast<uint8_t>(phy), static_cast<uint8_t>(reg), d, 2,
                           kRegTimeoutUs);
  });
}

int32_t hx5200_usb_smi_read(uint32_t phy, uint32_t reg, uint16_t *data) {
  if (!adapter_open("HX5200_SMI_READ_HXK", kLineSmiRead)) return ACCESS_NO_ADAPTER;
  if (!data) return ACCESS_NULL_PTR;
  uint8_t d[2] = {};
  const int32_t rc = with_retry(smi_retry_limit, [&] {
    return usbio_smi_read(usbio_handle, kCodeSmiRead, static_cast<uint8_t>(phy), static_cast<uint8_t>(reg), d, 2,
                          kRegTimeoutUs);
  });
  if (rc != 0) {
    puts("\033[1;31;40m kivshell: USBIO device IIC Read error. \033[0m ");
    return rc;
  }
  *data = static_cast<uint16_t>(d[0] * 256 + d[1]);
  return 0;
}

int32_t hx5200_usb_smi_flash_write(uint32_t flashAddr, const uint8_t *data, uint32_t len, uint8_t flag) {
  if (!adapter_open("HX5200_USB_SMI_FLASH_WRITE_NEW", kLineSmiFlash)) return ACCESS_NO_ADAPTER;
  return flash_write_with_retry(kCodeSmiFlash, smi_retry_limit, flashAddr, data, len, flag);
}

// ---- interface installation ---------------------------------------------------------------------

int32_t usbio_use_i2c(void) {
  i2c_burst_hook_register(hx5200_usb_i2c_read_burst);
  return i2c_hooks_register(hx5200_usb_i2c_write, hx5200_usb_i2c_read);
}

int32_t usbio_use_smi(void) {
  smi_line_hooks_set(smi_line_both, smi_line_one, smi_line_one, smi_line_sample, smi_line_spare);
  return smi_hooks_register(hx5200_usb_smi_write, hx5200_usb_smi_read);
}

int32_t usbio_use_spi(void) { return spi_hooks_register(hx5200_usb_spi_write, hx5200_usb_spi_read); }
