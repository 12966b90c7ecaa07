// The simulated bus and adapter seen through the raw usb_ table: enumeration, handles and
// endpoints, refused commands and the fault plan. (Exchanges that succeed or
// meet a fault are checked byte for byte from the host side by the access tests.)
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <vector>

#include "access/usbio.h"
#include "capture_reader.h"
#include "run_tool.h"
#include "sim/sim.h"
#include "sim/sim_board.h"

namespace {

using Bytes = std::vector<uint8_t>;

const Bytes kI2cConfig = usb_header(0x11, 1, {{14, 2}, {18, 0xA8}});

// A board attached in a fresh directory; open() lets the host code open and claim the adapter.
struct Raw {
  const usb_ops_t *ops = sim_attach(make_temp_dir("kivsim").c_str());
  usb_dev_handle *h = nullptr;
  void open() {
    usb_ops_set(ops);
    h = usbio_open();
    ASSERT_NE(h, nullptr);
  }
  ~Raw() {
    usbio_close(h, 0);
    usb_ops_set(nullptr);
    sim_detach();
  }
  int out(Bytes b, usb_dev_handle *on = nullptr) {
    return ops->bulk_write(on ? on : h, USBIO_EP_OUT, reinterpret_cast<char *>(b.data()), int(b.size()), 20);
  }
  int in(Bytes &b, int size, usb_dev_handle *on = nullptr) {
    b.assign(size_t(size), 0);
    const int rc = ops->bulk_read(on ? on : h, USBIO_EP_IN, reinterpret_cast<char *>(b.data()), size, 20);
    b.resize(rc > 0 ? size_t(rc) : 0);
    return rc;
  }
  int status() {  // the next status byte, or the negative read result
    Bytes b;
    const int rc = in(b, 1);
    return rc == 1 ? b[0] : rc;
  }
  int answer(const Bytes &bytes) {  // the status byte answered to a transfer
    EXPECT_EQ(out(bytes), int(bytes.size()));
    return status();
  }
  struct usb_device *find(uint16_t pid) {
    for (struct usb_bus *bus = ops->get_busses(); bus; bus = bus->next)
      for (struct usb_device *d = bus->devices; d; d = d->next)
        if (d->descriptor.idVendor == USBIO_VID && d->descriptor.idProduct == pid) return d;
    return nullptr;
  }
};

}  // namespace

TEST(Bus, EnumerationHandlesAndEndpointsBehaveLikeLibusb) {
  Raw b;
  ASSERT_NE(b.ops, nullptr);
  EXPECT_EQ(b.ops->get_busses(), nullptr);  // nothing before the busses are scanned
  EXPECT_EQ(b.ops->find_busses(), 1);
  EXPECT_EQ(b.ops->find_devices(), 2);
  EXPECT_EQ(b.ops->find_devices(), 0);  // changes since the last scan
  const struct usb_device *decoy = b.ops->get_busses()->devices;  // the decoy comes first
  ASSERT_TRUE(decoy && decoy->next && !decoy->next->next);
  EXPECT_EQ(decoy->descriptor.idProduct, 0x5730);
  EXPECT_EQ(decoy->next->descriptor.idProduct, 0x5731);
  EXPECT_NE(decoy->next->devnum, decoy->devnum);
  b.open();
  char byte = 0;
  EXPECT_EQ(b.ops->bulk_read(b.h, USBIO_EP_OUT, &byte, 1, 20), -EINVAL);  // wrong direction
  EXPECT_EQ(b.ops->bulk_write(b.h, USBIO_EP_IN, &byte, 1, 20), -EINVAL);
  usb_dev_handle *second = b.ops->open(b.find(USBIO_PID));
  EXPECT_EQ(b.ops->claim_interface(second, 0), -EBUSY);
  EXPECT_EQ(b.ops->claim_interface(second, 1), -EINVAL);
  EXPECT_EQ(b.out({1}, second), -EINVAL);  // unclaimed
  EXPECT_EQ(b.ops->close(second), 0);
  EXPECT_EQ(b.ops->close(second), -EINVAL);  // stale handle

  // The decoy takes writes and never answers; an empty read sleeps out its time-out.
  usb_dev_handle *decoyHandle = b.ops->open(b.find(0x5730));
  ASSERT_EQ(b.ops->claim_interface(decoyHandle, 0), 0);
  EXPECT_EQ(b.out(kI2cConfig, decoyHandle), 24);
  Bytes got;
  const auto t0 = std::chrono::steady_clock::now();
  EXPECT_EQ(b.in(got, 1, decoyHandle), -ETIMEDOUT);
  const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - t0);
  EXPECT_GE(ms.count(), 19);
  EXPECT_LT(ms.count(), 500);
  b.ops->close(decoyHandle);
}

TEST(Adapter, RefusedCommandsAndShortFlashData) {
  Raw b;
  b.open();
  Bytes bad = usb_header(0x14, 1, {{13, 4}}, {0, 0, 0});
  bad[6] = 30;  // the length byte disagrees with the transfer
  for (const Bytes &h : {bad, usb_header(0x77, 1), usb_header(0x23, 1, {{11, 4}}, {0x03, 0, 0, 0}),
                         usb_header(0x24, 1, {{13, 4}}, {0x02, 0, 0, 0, 0}),
                         usb_header(0x44, 1, {{13, 2}, {16, 24}})}) {
    EXPECT_EQ(b.answer(h), 0xAB) << int(h[8]);
    EXPECT_EQ(b.answer({1, 2, 3}), -ETIMEDOUT);  // not a header, nothing waiting: swallowed
  }
  // Configured for another I2C device (id 3): every I2C transfer is refused, SPI is not.
  EXPECT_EQ(b.answer(usb_header(0x11, 1, {{14, 2}, {18, 0xA6}})), 0xAA);
  Bytes got;
  EXPECT_EQ(b.in(got, 64), 1);  // a buffer larger than the packet gets a short transfer
  EXPECT_EQ(got, Bytes{0xCA});
  for (const Bytes &h : {usb_header(0x13, 1, {{11, 4}}, {0, 1, 0}), usb_header(0x14, 1, {{13, 4}}, {0, 1, 0}),
                         usb_header(0x15, 1, {{7, 1}, {11, 4}})})
    EXPECT_EQ(b.answer(h), 0xAB) << int(h[8]);
  EXPECT_EQ(b.answer(usb_header(0x24, 1, {{13, 4}}, {0x03, 0, 1, 0, 0})), 0xAA);
  EXPECT_EQ(b.in(got, 8), -EOVERFLOW);  // the response does not fit, as with real USB

  // A flash write whose data packet is shorter than announced is asked for again.
  EXPECT_EQ(b.answer(usb_header(0x25, 1, {{7, 1}, {11, 8}})), 0xAA);
  EXPECT_EQ(b.answer({1, 2, 3, 4, 0xFF, 0xFF, 0xFF, 0xFF}), 0xAC);
}

// Faults count every header, resends included; what each fault does to the host's transfers
// is checked by the access tests. Here: the plan's parsing and the unplugged bus.
TEST(Faults, PlanCountsHeadersAndUnplugLeavesTheBus) {
  setenv("KIVTOOL_SIM_FAULTS", " nak@1,bogus@1,nak@x,nak,badstatus@2,nocomplete@3 ,unplug@5", 1);
  testing::internal::CaptureStderr();
  {
    Raw b;
    unsetenv("KIVTOOL_SIM_FAULTS");
    const std::string err = testing::internal::GetCapturedStderr();
    for (const char *entry : {"\"bogus@1\"", "\"nak@x\"", "\"nak\""}) EXPECT_NE(err.find(entry), std::string::npos) << err;
    b.open();
    EXPECT_EQ(b.answer(kI2cConfig), 0xAB);
    EXPECT_EQ(b.answer(kI2cConfig), 0xEE);
    EXPECT_EQ(b.answer(kI2cConfig), 0xAA);
    EXPECT_EQ(b.status(), -ETIMEDOUT);  // header 3 never completes
    EXPECT_EQ(b.answer(kI2cConfig), 0xAA);
    EXPECT_EQ(b.status(), 0xCA);
    EXPECT_EQ(b.out(kI2cConfig), -ENODEV);
    EXPECT_EQ(b.status(), -ENODEV);
    EXPECT_EQ(b.ops->release_interface(b.h, 0), -ENODEV);
    EXPECT_EQ(b.ops->find_devices(), 1);
    EXPECT_EQ(b.find(USBIO_PID), nullptr);
    EXPECT_EQ(usbio_open(), nullptr);
  }
  Raw fresh;  // a new attach brings the adapter back, counting from 1
  fresh.open();
  EXPECT_EQ(fresh.answer(kI2cConfig), 0xAA);
  EXPECT_EQ(sim::adapter_headers_seen(), 1u);
}
