// Fuzz target: the host side of the USB I/O adapter protocol against an adapter whose
// replies come from the input. A usb_ops_t table of its own stands in for libusb: bulk
// writes are checked against the packet layout, bulk reads are scripted, one script byte
// per read. The completion waits run on a virtual clock (clock_gettime and nanosleep are
// wrapped at link time), so a time-out costs microseconds, not 200 ms.
//
// Input: a set-up byte, a retry byte, an operation count, the operations with their
// arguments, then the reply script (what is left).
#include <time.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <vector>

#include "access/access.h"
#include "access/usbio.h"
#include "access/usbio_protocol.h"
#include "fuzz/fuzz_util.h"

// ---- virtual clock ------------------------------------------------------------------------
extern "C" int __real_clock_gettime(clockid_t clk, struct timespec *ts);

namespace {
long long g_virtualNs = 0;
}

// The monotonic clock is virtual: it moves a microsecond per look and by the full amount
// of every sleep. Wall-clock time (capture time stamps) stays real.
extern "C" int __wrap_clock_gettime(clockid_t clk, struct timespec *ts) {
  if (clk != CLOCK_MONOTONIC) return __real_clock_gettime(clk, ts);
  g_virtualNs += 1000;
  ts->tv_sec = static_cast<time_t>(g_virtualNs / 1000000000LL);
  ts->tv_nsec = static_cast<long>(g_virtualNs % 1000000000LL);
  return 0;
}

extern "C" int __wrap_nanosleep(const struct timespec *req, struct timespec *rem) {
  if (req) g_virtualNs += req->tv_sec * 1000000000LL + req->tv_nsec;
  if (rem) *rem = {};
  return 0;
}

namespace {

// ---- the scripted adapter ---------------------------------------------------------------------

using namespace usbio_proto;

struct Adapter {
  ByteReader *script = nullptr;
  bool present = true;      // listed on the bus
  bool claimFails = false;
  bool unplugged = false;   // left the bus: every transfer fails
  // What the host said last, to give the right answer when the script asks for it.
  uint8_t code = 0;
  bool flashWrite = false;
  uint16_t dataLen = 0;     // announced by the last write or flash-write header
  uint16_t wantLen = 0;     // announced by the last read header
  size_t headerLen = 0;
  enum class Phase { idle, status, data, done, response } phase = Phase::idle;
  int handle = 0;
} g_adapter;

struct usb_device g_devices[2];   // "struct": usb.h also has a function of that name
usb_bus g_bus;

bool isHeader(const uint8_t *p, int size) {
  return size >= static_cast<int>(kHeader) && size <= static_cast<int>(kHeader + 16) &&
         memcmp(p, kMagic.data(), kMagic.size()) == 0;
}

bool isWriteCode(uint8_t code) { return code == kCodeI2cWrite || code == kCodeSpiWrite || code == kCodeSmiWrite; }

void fakeInit() {}
int fakeFindBusses() { return 0; }
int fakeFindDevices() { return 0; }
usb_bus *fakeGetBusses() {
  g_bus = {};
  // A decoy of the same vendor comes first; the adapter only while it is on the bus.
  g_devices[0] = {};
  g_devices[0].descriptor.idVendor = USBIO_VID;
  g_devices[0].descriptor.idProduct = USBIO_PID - 1;
  g_devices[0].devnum = 2;
  g_devices[1] = {};
  g_devices[1].descriptor.idVendor = USBIO_VID;
  g_devices[1].descriptor.idProduct = USBIO_PID;
  g_devices[1].devnum = 3;
  if (g_adapter.present && !g_adapter.unplugged) g_devices[0].next = &g_devices[1];
  g_bus.devices = &g_devices[0];
  return &g_bus;
}
usb_dev_handle *fakeOpen(struct usb_device *dev) {
  FUZZ_CHECK(dev == &g_devices[1]);   // never the decoy
  return g_adapter.unplugged ? nullptr : reinterpret_cast<usb_dev_handle *>(&g_adapter.handle);
}
bool ours(usb_dev_handle *h) { return h == reinterpret_cast<usb_dev_handle *>(&g_adapter.handle); }
int fakeClose(usb_dev_handle *h) {
  FUZZ_CHECK(ours(h));
  return 0;
}
int fakeClaim(usb_dev_handle *h, int iface) {
  FUZZ_CHECK(ours(h) && iface == 0);
  return g_adapter.claimFails ? -EBUSY : 0;
}
int fakeRelease(usb_dev_handle *h, int) {
  FUZZ_CHECK(ours(h));
  return 0;
}

bool isReadCode(uint8_t code) { return code == kCodeI2cRead || code == kCodeSpiRead || code == kCodeSmiRead; }

// Host to adapter: every packet must be well formed for what the host announced.
int fakeBulkWrite(usb_dev_handle *h, int ep, char *bytes, int size, int timeout) {
  FUZZ_CHECK(ours(h) && ep == USBIO_EP_OUT && timeout > 0 && size > 0);
  const auto *p = reinterpret_cast<const uint8_t *>(bytes);
  if (g_adapter.unplugged) return -ENODEV;
  Adapter &a = g_adapter;
  if (a.phase == Adapter::Phase::data) {
    // After the command was accepted: the announced data and four 0xFF.
    FUZZ_CHECK(size == a.dataLen + 4);
    FUZZ_CHECK(memcmp(p + size - 4, "\xFF\xFF\xFF\xFF", 4) == 0);
    a.phase = Adapter::Phase::done;
    return size;
  }
  // Otherwise only a command header may come.
  FUZZ_CHECK(isHeader(p, size));
  a.code = p[8];
  a.flashWrite = p[7] == 1;
  a.headerLen = static_cast<size_t>(size);
  if (a.flashWrite) {
    FUZZ_CHECK(size == static_cast<int>(kHeader) && p[6] == kHeader && p[23] == 0);
  } else {
    FUZZ_CHECK(p[6] == size && p[23] == size - static_cast<int>(kHeader) && p[7] == 0);
  }
  a.dataLen = static_cast<uint16_t>(p[10] << 8 | p[11]);
  a.wantLen = static_cast<uint16_t>(p[12] << 8 | p[13]);
  a.phase = Adapter::Phase::status;
  return size;
}

// Follows the exchange when a status byte reaches the host.
void statusDelivered(uint8_t b) {
  Adapter &a = g_adapter;
  if (a.phase == Adapter::Phase::status && b == kAck)
    a.phase = a.flashWrite || isWriteCode(a.code) ? Adapter::Phase::data
              : isReadCode(a.code)                ? Adapter::Phase::response
                                                  : Adapter::Phase::done;
  else if (a.phase == Adapter::Phase::done && (b == kWriteDone || b == kConfigDone))
    a.phase = Adapter::Phase::idle;
}

// The reply the host expects next; `bytes` has room for `size`.
int rightAnswer(uint8_t *out, int size) {
  Adapter &a = g_adapter;
  switch (a.phase) {
    case Adapter::Phase::status:
      out[0] = kAck;
      statusDelivered(out[0]);
      return 1;
    case Adapter::Phase::done:
      out[0] = (a.flashWrite || isWriteCode(a.code)) ? kWriteDone : kConfigDone;
      statusDelivered(out[0]);
      return 1;
    case Adapter::Phase::response: {
      const size_t total = a.headerLen + a.wantLen + 4;
      if (total > static_cast<size_t>(size)) return -EOVERFLOW;
      memset(out, 0, total);
      memcpy(out, kMagic.data(), kMagic.size());
      out[8] = a.code;
      a.script->take(out + a.headerLen, a.wantLen);
      memset(out + a.headerLen + a.wantLen, 0xFF, 4);
      a.phase = Adapter::Phase::idle;
      return static_cast<int>(total);
    }
    default:
      return -ETIMEDOUT;
  }
}

int fakeBulkRead(usb_dev_handle *h, int ep, char *bytes, int size, int timeout) {
  FUZZ_CHECK(ours(h) && ep == USBIO_EP_IN && timeout > 0 && size > 0);
  if (g_adapter.unplugged) return -ENODEV;
  ByteReader &s = *g_adapter.script;
  if (s.empty()) return -ETIMEDOUT;   // a silent adapter
  auto *out = reinterpret_cast<uint8_t *>(bytes);
  const uint8_t kind = s.u8();
  switch (kind % 8) {
    case 0: return -ETIMEDOUT;
    case 1:
      g_adapter.unplugged = true;
      return -ENODEV;
    case 2: return -EIO;
    case 3: return 0;
    case 4: return rightAnswer(out, size);
    case 5: {
      // Raw bytes, as many as the script says.
      const int n = std::min<int>(size, size == 1 ? 1 : s.u8());
      const int got = static_cast<int>(s.take(out, static_cast<size_t>(n)));
      if (got == 1) statusDelivered(out[0]);
      return got;
    }
    case 6: {
      static constexpr uint8_t kStatus[] = {0xAA, 0xAB, 0xBA, 0xCA, 0xAC, 0xEE};
      out[0] = kStatus[s.u8() % sizeof kStatus];
      statusDelivered(out[0]);
      return 1;
    }
    default: {
      // A response header with a wrong or right code, cut short or whole.
      const int n = std::min<int>(size, s.u8() % 64 + 1);
      memset(out, 0, static_cast<size_t>(n));
      memcpy(out, kMagic.data(), std::min<size_t>(kMagic.size(), static_cast<size_t>(n)));
      if (n > 8) out[8] = static_cast<uint8_t>(g_adapter.code ^ (kind & 0x80));
      return n;
    }
  }
}

const usb_ops_t kFakeOps = {fakeInit, fakeFindBusses, fakeFindDevices, fakeGetBusses, fakeOpen,
                            fakeClose, fakeClaim, fakeRelease, fakeBulkWrite, fakeBulkRead};

// ---- operations -------------------------------------------------------------------------------

// Data bytes for an operation, from a small generator so that they cost no input.
std::vector<uint8_t> makeData(size_t n, uint32_t seed) {
  std::vector<uint8_t> d(n);
  for (size_t i = 0; i < n; i++) {
    seed = seed * 1103515245u + 12345u;
    d[i] = static_cast<uint8_t>(seed >> 16);
  }
  // A data packet never starts like a header.
  if (n >= 2 && d[0] == kMagic[0] && d[1] == kMagic[1]) d[0] ^= 0x80;
  return d;
}

uint32_t timeoutOf(ByteReader &in) { return in.u16() * 20u; }   // up to 1.3 s, virtual

// Command codes by exchange, as the tool uses them.
constexpr uint8_t kConfigCodes[] = {kCodeI2cConfig, kCodeSpiConfig, kCodeSpiConfig2};
constexpr uint8_t kWriteCodes[] = {kCodeI2cWrite, kCodeSpiWrite, kCodeSmiWrite};
constexpr uint8_t kReadCodes[] = {kCodeI2cRead, kCodeSpiRead, kCodeSmiRead};
constexpr uint8_t kFlashCodes[] = {kCodeI2cFlash, kCodeSpiFlash, kCodeSmiFlash};
uint8_t pick(const uint8_t (&codes)[3], ByteReader &in) { return codes[in.u8() % 3]; }

void runOperation(ByteReader &in) {
  const uint8_t op = in.u8();
  usb_dev_handle *h = usbio_handle;
  uint32_t value = 0;
  uint16_t half = 0;
  switch (op % 23) {
    case 0: {
      const uint8_t code = pick(kConfigCodes, in), sub = in.u8(), a = in.u8();
      const uint16_t b = in.u16();
      usbio_config(h, code, sub, a, b, timeoutOf(in));
      break;
    }
    case 1:
    case 2: {
      const uint8_t code = pick(op % 23 == 1 ? kWriteCodes : kReadCodes, in), sub = in.u8();
      const uint8_t addrLen = in.u8() % 20;   // more than the 16 the header can carry, too
      const uint16_t len = in.u16() % 300;
      const std::vector<uint8_t> addr = makeData(addrLen, op);
      if (op % 23 == 1) {
        const std::vector<uint8_t> data = makeData(len, len);
        usbio_write(h, code, sub, addr.data(), addrLen, data.data(), len, timeoutOf(in));
      } else {
        std::vector<uint8_t> buf(len ? len : 1);
        usbio_read(h, code, sub, addr.data(), addrLen, buf.data(), len, timeoutOf(in));
      }
      break;
    }
    case 3:
    case 4: {
      const uint8_t code = op % 23 == 3 ? 0x43 : 0x44, phy = in.u8(), reg = in.u8();
      const uint16_t len = in.u16() % 64;
      std::vector<uint8_t> buf = makeData(len ? len : 1, reg);
      if (op % 23 == 3)
        usbio_smi_write(h, code, phy, reg, buf.data(), len, timeoutOf(in));
      else
        usbio_smi_read(h, code, phy, reg, buf.data(), len, timeoutOf(in));
      break;
    }
    case 5: {
      const uint8_t code = pick(kFlashCodes, in);
      const uint32_t addr = in.u32();
      const uint16_t len = in.u16() % 600;
      const std::vector<uint8_t> data = makeData(len, addr);
      usbio_flash_write(h, code, addr, data.data(), len, in.u8(), timeoutOf(in));
      break;
    }
    case 6: hx5200_usb_i2c_read(in.u32(), &value); break;
    case 7: {
      const uint32_t addr = in.u32();
      const uint32_t n = in.u16() % 20000;   // above 16383 words the burst cannot be asked for
      std::vector<uint32_t> values(n ? n : 1);
      hx5200_usb_i2c_read_burst(addr, values.data(), n);
      break;
    }
    case 8: hx5200_usb_i2c_write(in.u32(), in.u32()); break;
    case 9:
    case 12:
    case 15: {
      const uint32_t addr = in.u32();
      const uint32_t len = in.u16() % 600;
      const std::vector<uint8_t> data = makeData(len ? len : 1, addr);
      const uint8_t flag = in.u8();
      if (op % 23 == 9) hx5200_usb_i2c_flash_write(addr, data.data(), len, flag);
      if (op % 23 == 12) hx5200_usb_spi_flash_write(addr, data.data(), len, flag);
      if (op % 23 == 15) hx5200_usb_smi_flash_write(addr, data.data(), len, flag);
      break;
    }
    case 10: hx5200_usb_spi_write(in.u32(), in.u32()); break;
    case 11: hx5200_usb_spi_read(in.u32(), &value); break;
    case 13: hx5200_usb_smi_write(in.u8(), in.u8(), in.u16()); break;
    case 14: hx5200_usb_smi_read(in.u8(), in.u8(), &half); break;
    case 16: usbio_connect(); break;
    case 17: usbio_event(in.u8() & 1 ? 128 : 0); break;
    case 18:
    case 19:
    case 20:
    case 21: {
      // Through the access layer on the interface the input picks.
      const uint8_t iface = in.u8() % 3;
      if (iface == 0) usbio_use_i2c();
      if (iface == 1) usbio_use_smi();
      if (iface == 2) usbio_use_spi();
      const uint32_t addr = in.u32();
      if (op % 23 == 18) reg_read(1, addr, &value);
      if (op % 23 == 19) reg_write(1, addr, in.u32());
      if (op % 23 == 20) reg_field_write(1, addr, in.u8() % 33, in.u8() % 33, in.u32());
      if (op % 23 == 21) asic_reg_read(addr, &value);
      break;
    }
    default: chip_probe(); break;
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  fuzz_quietStdout();
  usb_ops_set(&kFakeOps);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  ByteReader in(data, size);
  const uint8_t setup = in.u8();
  const uint8_t retries = in.u8();
  const int ops = 1 + in.u8() % 4;
  std::vector<uint8_t> opBytes(64);
  opBytes.resize(in.take(opBytes.data(), opBytes.size()));
  ByteReader opIn(opBytes.data(), opBytes.size());
  size_t n = 0;
  const uint8_t *script = in.rest(&n);
  ByteReader replies(script, n);

  g_adapter = Adapter{};
  g_adapter.script = &replies;
  g_adapter.present = !(setup & 1);
  g_adapter.claimFails = setup & 2;
  i2c_retry_limit = retries & 3;
  spi_retry_limit = retries >> 2 & 3;
  smi_retry_limit = retries >> 4 & 3;
  access_if_set(ACCESS_IF_I2C);
  mdcaddrid = 24;
  i2caddrid = static_cast<uint8_t>(setup >> 5);

  usbio_handle = nullptr;
  if (setup & 4)
    usbio_connect();   // opens and configures, replies from the script
  else
    usbio_handle = usbio_open();

  for (int i = 0; i < ops && !opIn.empty(); i++) runOperation(opIn);

  usbio_close(usbio_handle, 0);
  FUZZ_CHECK(usbio_handle == nullptr);
  return 0;
}
