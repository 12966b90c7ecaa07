// The simulated USB bus and the injected faults, through the usb_ table.
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <ctime>

#include "board_harness.h"
#include "sim/sim_chip.h"

namespace {
int64_t ms_since(std::chrono::steady_clock::time_point t0) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - t0).count();
}
}  // namespace

TEST(Bus, EnumeratesDecoyBeforeAdapter) {
  std::string dir = make_temp_dir("kivsim");
  const usb_ops_t *ops = sim_attach(dir.c_str());
  ASSERT_NE(ops, nullptr);
  ops->init();
  EXPECT_EQ(ops->get_busses(), nullptr);   // nothing before the busses are scanned
  EXPECT_EQ(ops->find_busses(), 1);
  EXPECT_EQ(ops->find_devices(), 2);
  EXPECT_EQ(ops->find_devices(), 0);       // changes since the last scan
  struct usb_bus *bus = ops->get_busses();
  ASSERT_NE(bus, nullptr);
  EXPECT_EQ(bus->next, nullptr);
  struct usb_device *d = bus->devices;
  ASSERT_NE(d, nullptr);
  EXPECT_EQ(d->descriptor.idVendor, 0x0C55);
  EXPECT_EQ(d->descriptor.idProduct, 0x5730);
  ASSERT_NE(d->next, nullptr);
  struct usb_device *a = d->next;
  EXPECT_EQ(a->descriptor.idProduct, 0x5731);
  EXPECT_EQ(a->next, nullptr);
  EXPECT_EQ(a->bus, bus);
  EXPECT_NE(a->devnum, 0);
  EXPECT_NE(a->devnum, d->devnum);
  ASSERT_NE(a->config, nullptr);
  const usb_interface_descriptor &alt = a->config[0].interface[0].altsetting[0];
  ASSERT_EQ(alt.bNumEndpoints, 2);
  EXPECT_EQ(alt.endpoint[0].bEndpointAddress, 0x02);
  EXPECT_EQ(alt.endpoint[1].bEndpointAddress, 0x81);
  EXPECT_EQ(alt.endpoint[1].bmAttributes, USB_ENDPOINT_TYPE_BULK);
  sim_detach();
}

TEST(Bus, HandlesClaimsAndEndpointsBehaveLikeLibusb) {
  BoardHarness b;
  char byte = 0;
  EXPECT_EQ(b.ops->bulk_read(b.h, USBIO_EP_OUT, &byte, 1, 20), -EINVAL);   // wrong direction
  EXPECT_EQ(b.ops->bulk_write(b.h, USBIO_EP_IN, &byte, 1, 20), -EINVAL);
  usb_dev_handle *second = b.ops->open(b.find(USBIO_VID, USBIO_PID));
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(b.ops->claim_interface(second, 0), -EBUSY);
  EXPECT_EQ(b.ops->bulk_read(second, USBIO_EP_IN, &byte, 1, 20), -EINVAL);   // unclaimed
  EXPECT_EQ(b.ops->claim_interface(second, 1), -EINVAL);
  EXPECT_EQ(b.ops->close(second), 0);
  EXPECT_EQ(b.ops->close(second), -EINVAL);                               // stale handle
  EXPECT_EQ(b.ops->release_interface(b.h, 0), 0);
  EXPECT_EQ(b.ops->bulk_write(b.h, USBIO_EP_OUT, &byte, 1, 20), -EINVAL);
  EXPECT_EQ(b.ops->claim_interface(b.h, 0), 0);

  // The decoy takes writes and never answers.
  usb_dev_handle *decoy = b.ops->open(b.find(USBIO_VID, 0x5730));
  ASSERT_NE(decoy, nullptr);
  ASSERT_EQ(b.ops->claim_interface(decoy, 0), 0);
  Bytes h = config_hdr(0x11, 2, 0xA8);
  EXPECT_EQ(b.ops->bulk_write(decoy, USBIO_EP_OUT, reinterpret_cast<char *>(h.data()), 24, 20), 24);
  EXPECT_EQ(b.ops->bulk_read(decoy, USBIO_EP_IN, &byte, 1, 20), -ETIMEDOUT);
  b.ops->close(decoy);
}

TEST(Bus, EmptyReadSleepsOutItsTimeout) {
  BoardHarness b;
  auto t0 = std::chrono::steady_clock::now();
  EXPECT_EQ(b.status(), -ETIMEDOUT);
  int64_t ms = ms_since(t0);
  EXPECT_GE(ms, 19);
  EXPECT_LT(ms, 500);
  int rc = 0;
  t0 = std::chrono::steady_clock::now();
  b.in(1, rc, 50);
  EXPECT_EQ(rc, -ETIMEDOUT);
  EXPECT_GE(ms_since(t0), 49);
}

TEST(Faults, NakAndBadStatusCountEveryHeaderIncludingResends) {
  EnvVar f("KIVTOOL_SIM_FAULTS", "nak@1, nak@2 ,badstatus@4");
  BoardHarness b;
  Bytes h = config_hdr(0x21, 37, 0);
  ASSERT_EQ(b.out(h), 24);
  EXPECT_EQ(b.status(), 0xAB);
  ASSERT_EQ(b.out(h), 24);   // the resend is header 2
  EXPECT_EQ(b.status(), 0xAB);
  ASSERT_EQ(b.out(h), 24);
  EXPECT_EQ(b.status(), 0xAA);
  EXPECT_EQ(b.status(), 0xCA);
  ASSERT_EQ(b.out(h), 24);
  EXPECT_EQ(b.status(), 0xEE);
  EXPECT_EQ(b.status(), -ETIMEDOUT);
  b.i2c_write(0x40, 1);      // header 5: normal again
}

TEST(Faults, NocompleteLosesTheCompletionButNotTheEffect) {
  EnvVar f("KIVTOOL_SIM_FAULTS", "nocomplete@1,nocomplete@2,nocomplete@3");
  BoardHarness b;
  ASSERT_EQ(b.out(config_hdr(0x11, 2, 0xA8)), 24);
  EXPECT_EQ(b.status(), 0xAA);
  EXPECT_EQ(b.status(), -ETIMEDOUT);
  ASSERT_EQ(b.out(write_hdr(0x13, i2c_addr(0x44), 4)), 27);
  EXPECT_EQ(b.status(), 0xAA);
  ASSERT_EQ(b.out(data_pkt(le32(9))), 8);
  EXPECT_EQ(b.status(), -ETIMEDOUT);
  EXPECT_EQ(sim::chip_read(0x4A000044), 9u);
  ASSERT_EQ(b.out(read_hdr(0x14, i2c_addr(0x44), 4)), 27);
  EXPECT_EQ(b.status(), 0xAA);
  EXPECT_EQ(b.status(), -ETIMEDOUT);   // no response either
  EXPECT_EQ(b.i2c_read(0x44), 9u);
}

TEST(Faults, WrongcodeSpoilsOneReadResponse) {
  EnvVar f("KIVTOOL_SIM_FAULTS", "wrongcode@2");
  BoardHarness b;
  b.i2c_write(0x48, 0x77);
  ASSERT_EQ(b.out(read_hdr(0x14, i2c_addr(0x48), 4)), 27);
  EXPECT_EQ(b.status(), 0xAA);
  int rc = 0;
  Bytes r = b.in(35, rc);
  ASSERT_EQ(rc, 35);
  EXPECT_NE(r[8], 0x14);
  r = b.in(35, rc);
  EXPECT_EQ(rc, -ETIMEDOUT);
  EXPECT_EQ(b.i2c_read(0x48), 0x77u);
}

TEST(Faults, UnplugTakesTheAdapterOffTheBusForGood) {
  EnvVar f("KIVTOOL_SIM_FAULTS", "unplug@2,bogus@1,nak@x,nak");
  testing::internal::CaptureStderr();
  BoardHarness b;
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find("\"bogus@1\""), std::string::npos);
  EXPECT_NE(err.find("\"nak@x\""), std::string::npos);
  b.i2c_write(0x50, 1);
  EXPECT_EQ(b.out(config_hdr(0x21, 37, 0)), -ENODEV);
  EXPECT_EQ(b.status(), -ENODEV);
  EXPECT_EQ(b.out(config_hdr(0x21, 37, 0)), -ENODEV);
  EXPECT_EQ(b.ops->release_interface(b.h, 0), -ENODEV);
  EXPECT_EQ(b.ops->close(b.h), 0);
  EXPECT_EQ(b.ops->find_devices(), 1);
  EXPECT_EQ(b.find(USBIO_VID, USBIO_PID), nullptr);
  EXPECT_NE(b.find(USBIO_VID, 0x5730), nullptr);
  // Attaching again brings a fresh board: plugged in, counting from 1.
  unsetenv("KIVTOOL_SIM_FAULTS");
  b.reattach();
  EXPECT_EQ(b.i2c_read(0x50), 1u);
}

// A register exchange must cost microseconds of CPU, never a system call or a sleep: a loose
// bound here catches an accidental per-transfer syscall, allocation storm or wait.
TEST(Bus, ExchangesAreCheap) {
  BoardHarness b;
  Bytes h = read_hdr(0x14, i2c_addr(0x180048), 4);
  std::array<char, 64> resp{};
  constexpr int kN = 20000;
  const std::clock_t c0 = std::clock();
  for (int i = 0; i < kN; ++i) {
    ASSERT_EQ(b.ops->bulk_write(b.h, USBIO_EP_OUT, reinterpret_cast<char *>(h.data()), 27, 20), 27);
    ASSERT_EQ(b.ops->bulk_read(b.h, USBIO_EP_IN, resp.data(), 1, 20), 1);
    ASSERT_EQ(b.ops->bulk_read(b.h, USBIO_EP_IN, resp.data(), 35, 20), 35);
  }
  const double us = (double)(std::clock() - c0) * 1e6 / CLOCKS_PER_SEC / kN;
  RecordProperty("cpu_us_per_exchange", std::to_string(us));
  std::printf("cpu per read exchange: %.2f us\n", us);
  EXPECT_LT(us, 50.0);
}

TEST(Faults, DatamissingMakesAFlashWriteAskAgain) {
  EnvVar f("KIVTOOL_SIM_FAULTS", "datamissing@1,datamissing@3");
  BoardHarness b;
  ASSERT_EQ(b.out(flash_hdr(0x25, 0x100, 4, 0)), 24);
  EXPECT_EQ(b.status(), 0xAA);
  ASSERT_EQ(b.out(data_pkt({1, 2, 3, 4})), 8);
  EXPECT_EQ(b.status(), 0xAC);
  ASSERT_EQ(b.out(flash_hdr(0x25, 0x100, 4, 0)), 24);
  EXPECT_EQ(b.status(), 0xAA);
  ASSERT_EQ(b.out(data_pkt({1, 2, 3, 4})), 8);
  EXPECT_EQ(b.status(), 0xBA);
  b.i2c_write(0x10, 1);   // header 3: not a flash write, unaffected
}
