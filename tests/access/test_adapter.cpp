// The adapter protocol on the wire, read back from the capture, against the simulated
// board: byte layouts, status handling, resends, time-outs and the retry with reconnection.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include "access/access.h"
#include "access/usbio.h"
#include "pcap_reader.h"
#include "run_tool.h"
#include "sim/sim.h"

namespace {

using Bytes = std::vector<uint8_t>;

// A command header of `len` bytes (24 + address block) with some fields set.
Bytes hdr(uint8_t len, uint8_t code, uint8_t sub, std::initializer_list<std::pair<int, uint8_t>> fields = {},
          const Bytes &block = {}) {
  Bytes h{0x01, 0xFE, 0x02, 0xFD, 0x03, 0xFC, len, 0, code, sub};
  h.resize(24, 0);
  h[23] = uint8_t(len - 24);
  for (auto [i, v] : fields) h[size_t(i)] = v;
  h.insert(h.end(), block.begin(), block.end());
  return h;
}

Bytes packet(Bytes data) {
  data.insert(data.end(), 4, 0xFF);
  return data;
}

std::string hex(const Bytes &b) {
  std::string s;
  char t[3];
  for (uint8_t c : b) s += (snprintf(t, sizeof t, "%02x", c), t);
  return s;
}

long long ms_since(std::chrono::steady_clock::time_point t0) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - t0).count();
}

const std::vector<uint8_t> kConnect{0x11, 0x21, 0x41};

std::vector<uint8_t> then(std::vector<uint8_t> a, std::initializer_list<uint8_t> b) {
  a.insert(a.end(), b);
  return a;
}

class Adapter : public ::testing::Test {
 protected:
  std::string pcap;
  std::vector<UsbRecord> all;

  // A fresh board with the given faults, captured from the first transfer, I2C selected
  // and the adapter connected (three command headers).
  void boot(const char *faults = nullptr) {
    const std::string dir = make_temp_dir("kivaccess");
    pcap = dir + "/cap.pcap";
    if (faults) setenv("KIVTOOL_SIM_FAULTS", faults, 1);
    else unsetenv("KIVTOOL_SIM_FAULTS");
    const usb_ops_t *ops = sim_attach((dir + "/board").c_str());
    ASSERT_NE(ops, nullptr);
    usb_ops_set(ops);
    ASSERT_EQ(usb_capture_open(pcap.c_str()), 0);
    i2caddrid = 4;
    i2c_retry_limit = spi_retry_limit = smi_retry_limit = 1;
    ASSERT_EQ(usbio_use_i2c(), 0);
    usbio_connect();
    ASSERT_NE(usbio_handle, nullptr);
  }
  void TearDown() override {
    usbio_close(usbio_handle, 0);
    usb_capture_close();
    sim_detach();
    usb_ops_set(nullptr);
    unsetenv("KIVTOOL_SIM_FAULTS");
    i2caddrid = 4;
    i2c_retry_limit = 1;
    access_if_set(0);
  }
  const std::vector<UsbRecord> &records() {
    usb_capture_close();
    EXPECT_TRUE(read_pcap(pcap, all));
    return all;
  }
  std::vector<uint8_t> codes() { return command_codes(records()); }
};

TEST_F(Adapter, EveryCommandOnTheWire) {
  boot();
  uint32_t v = 0;
  uint16_t d16 = 0;
  uint32_t burst[3] = {};
  const Bytes page{0x10, 0x20, 0x30};
  ASSERT_EQ(hx5200_usb_i2c_write(0x123456, 0xA1B2C3D4), 0);
  ASSERT_EQ(hx5200_usb_i2c_read(0x123456, &v), 0);
  EXPECT_EQ(v, 0xA1B2C3D4u);
  ASSERT_EQ(hx5200_usb_spi_write(0x12345A, 0x01020304), 0);
  ASSERT_EQ(hx5200_usb_spi_read(0x12345A, &v), 0);
  EXPECT_EQ(v, 0x01020304u);
  ASSERT_EQ(hx5200_usb_smi_write(2, 6, 0x8123), 0);
  ASSERT_EQ(hx5200_usb_smi_read(2, 6, &d16), 0);
  EXPECT_EQ(d16, 0x8123);
  ASSERT_EQ(asic_reg_read_burst(0x123456, burst, 3), 0);
  EXPECT_EQ(burst[0], 0xA1B2C3D4u);
  EXPECT_EQ(burst[1], 0x01020304u);
  ASSERT_EQ(hx5200_usb_i2c_flash_write(0x00123456, page.data(), 3, 0x5A), 0);
  ASSERT_EQ(hx5200_usb_spi_flash_write(0x00203040, page.data(), 3, 1), 0);
  ASSERT_EQ(hx5200_usb_smi_flash_write(0x00300000, page.data(), 3, 2), 0);

  const auto outs = out_payloads(records());
  const std::vector<Bytes> want{
      hdr(24, 0x11, 1, {{14, 2}, {18, 0xA8}}),
      hdr(24, 0x21, 1, {{14, 37}}),
      hdr(24, 0x41, 0, {{14, 32}}),
      hdr(27, 0x13, 1, {{11, 4}}, {0x56, 0x34, 0x12}),
      packet({0xD4, 0xC3, 0xB2, 0xA1}),
      hdr(27, 0x14, 1, {{13, 4}}, {0x56, 0x34, 0x12}),
      hdr(28, 0x23, 1, {{11, 4}}, {0x02, 0x12, 0x34, 0x5A}),
      packet({0x01, 0x02, 0x03, 0x04}),
      hdr(29, 0x24, 1, {{13, 4}}, {0x03, 0x12, 0x34, 0x5A, 0x00}),
      hdr(24, 0x43, 0, {{11, 2}, {16, 2}, {18, 6}}),
      packet({0x81, 0x23}),
      hdr(24, 0x44, 0, {{13, 2}, {16, 2}, {18, 6}}),
      hdr(27, 0x14, 1, {{13, 12}}, {0x56, 0x34, 0x12}),
      hdr(24, 0x15, 1, {{7, 1}, {11, 3}, {16, 0x12}, {17, 0x34}, {18, 0x56}, {20, 0x5A}, {21, 15}}),
      packet(page),
      hdr(24, 0x25, 1, {{7, 1}, {11, 3}, {16, 0x20}, {17, 0x30}, {18, 0x40}, {20, 1}, {21, 15}}),
      packet(page),
      hdr(24, 0x45, 0, {{7, 1}, {11, 3}, {16, 0x30}, {20, 2}, {21, 15}}),
      packet(page),
  };
  ASSERT_EQ(outs.size(), want.size());
  for (size_t i = 0; i < want.size(); ++i) EXPECT_EQ(hex(outs[i]), hex(want[i])) << "transfer " << i;

  // Submit/complete pairs with one id, bulk, bus 1, the adapter's (not the decoy's) device
  // number; OUT data in the submit, IN data in the complete.
  ASSERT_EQ(all.size() % 2, 0u);
  for (size_t i = 0; i < all.size(); i += 2) {
    const UsbRecord &s = all[i], &c = all[i + 1];
    EXPECT_TRUE(s.type == 'S' && c.type == 'C' && s.id == c.id && s.xferType == 3 && s.bus == 1);
    EXPECT_TRUE(s.devnum == all[0].devnum && s.status == -115 && c.status == 0);
    EXPECT_TRUE(s.ep == 0x81 ? s.data.empty() && c.data.size() == c.length : c.data.empty() && s.data.size() == s.length);
  }
  // Records: 9 transfers of the bring-up, 4 of the write, then the read's command and
  // status; its response request comes next.
  const size_t resp = 2 * (9 + 4 + 2);
  EXPECT_EQ(all[resp].ep, 0x81);
  EXPECT_EQ(all[resp].length, 4u + 27u + 4u);
  EXPECT_EQ(all[resp + 1].data[8], 0x14);

  // Wireshark's dissector reads the same bytes back (submit, complete, status, completion).
  if (system("command -v tshark >/dev/null 2>&1") != 0) return;
  FILE *p = popen(("tshark -r " + pcap + " -T fields -e usb.capdata 2>/dev/null | tr -d ':'").c_str(), "r");
  ASSERT_NE(p, nullptr);
  std::string out;
  char buf[512];
  while (fgets(buf, sizeof buf, p)) out += buf;
  pclose(p);
  EXPECT_EQ(out.find(hex(want[0]) + "\n\n\naa\n\nca\n"), 0u) << out;
  EXPECT_NE(out.find(hex(want[3]) + "\n\n\naa\n" + hex(want[4]) + "\n\n\nba\n"), std::string::npos) << out;
}

TEST_F(Adapter, StatusBytesAndResends) {
  // NAK, then another status byte, each resent once; then a configuration that meets a
  // bad status gives up at once; then two NAKs fail a write without any wait, and the
  // transfer on top reconnects and tries again.
  boot("nak@4,badstatus@6,badstatus@8,nak@9,nak@10");
  uint32_t v = 0;
  EXPECT_EQ(hx5200_usb_i2c_write(0x20, 7), 0);
  EXPECT_EQ(hx5200_usb_i2c_read(0x20, &v), 0);
  EXPECT_EQ(v, 7u);
  EXPECT_EQ(usbio_config(usbio_handle, 0x21, 1, 37, 0, 200000), -1);
  const auto t0 = std::chrono::steady_clock::now();
  const uint8_t a[3] = {0x20, 0, 0}, d[4] = {1, 2, 3, 4};
  EXPECT_EQ(usbio_write(usbio_handle, 0x13, 1, a, 3, d, 4, 200000), -1);
  EXPECT_LT(ms_since(t0), 100);
  EXPECT_EQ(codes(), then(kConnect, {0x13, 0x13, 0x14, 0x14, 0x21, 0x13, 0x13}));
}

TEST_F(Adapter, RetryReconnectsBetweenAttempts) {
  boot("nak@4,nak@5");
  EXPECT_EQ(hx5200_usb_i2c_write(0x20, 9), 0);
  EXPECT_EQ(codes(), then(kConnect, {0x13, 0x13, 0x11, 0x21, 0x41, 0x13}));
}

TEST_F(Adapter, LostCompletionAndWrongResponseWaitForTheTimeOut) {
  // A write whose completion never comes is run once more in full; a read answered with
  // the wrong code is read again until the time-out, then retried after reconnecting.
  boot("nocomplete@4,wrongcode@6");
  const auto t0 = std::chrono::steady_clock::now();
  EXPECT_EQ(hx5200_usb_smi_write(2, 4, 0x1234), 0);
  EXPECT_GE(ms_since(t0), 200);
  uint16_t d = 0;
  EXPECT_EQ(hx5200_usb_smi_read(2, 4, &d), 0);
  EXPECT_EQ(d, 0x1234);
  const long long ms = ms_since(t0);
  EXPECT_GE(ms, 400);
  EXPECT_LT(ms, 1500);
  EXPECT_EQ(codes(), then(kConnect, {0x43, 0x43, 0x44, 0x11, 0x21, 0x41, 0x44}));
  EXPECT_EQ(out_payloads(all)[4], packet({0x12, 0x34}));  // data went out both times
  EXPECT_EQ(out_payloads(all)[6], packet({0x12, 0x34}));
}

TEST_F(Adapter, RetriesUsedUpThenUnplugged) {
  boot("nak@4,nak@5,nak@9,nak@10,nak@11,nak@12,unplug@13");
  uint32_t v = 0x77;
  EXPECT_EQ(hx5200_usb_i2c_read(0x30, &v), -1);
  EXPECT_EQ(v, 0x77u);
  i2c_retry_limit = 0;  // one attempt only
  EXPECT_EQ(hx5200_usb_i2c_write(0x30, 1), -1);
  i2c_retry_limit = 1;
  // The adapter leaves the bus: the reconnection finds nothing and later transfers report
  // the missing adapter (the SPI ones silently; the SPI read has no such check at all).
  const auto t0 = std::chrono::steady_clock::now();
  EXPECT_EQ(hx5200_usb_i2c_write(0x30, 1), -1);
  EXPECT_LT(ms_since(t0), 100);
  EXPECT_EQ(usbio_handle, nullptr);
  // The header the vanished adapter did not take is resent once, like any unanswered one.
  EXPECT_EQ(codes(), then(kConnect, {0x14, 0x14, 0x11, 0x21, 0x41, 0x14, 0x14, 0x13, 0x13, 0x13, 0x13}));

  testing::internal::CaptureStdout();
  uint16_t d = 0;
  EXPECT_EQ(hx5200_usb_i2c_write(0x30, 1), 8);
  EXPECT_EQ(hx5200_usb_i2c_read(0x30, &v), 8);
  EXPECT_EQ(hx5200_usb_smi_write(0x18, 0, 1), 8);
  EXPECT_EQ(hx5200_usb_smi_read(0x18, 0, &d), 8);
  EXPECT_EQ(hx5200_usb_i2c_flash_write(0, nullptr, 0, 0), 8);
  EXPECT_EQ(hx5200_usb_smi_flash_write(0, nullptr, 0, 0), 8);
  EXPECT_EQ(hx5200_usb_i2c_read_burst(0, &v, 1), 8);
  EXPECT_EQ(hx5200_usb_spi_write(0x30, 1), 8);
  EXPECT_EQ(hx5200_usb_spi_flash_write(0, nullptr, 0, 0), 8);
  EXPECT_EQ(hx5200_usb_spi_read(0x30, &v), -1);
  const std::string tail =
      " \033[1;31;40m kivshell: USBIO device Not Found. Only be available for offline test! \033[0m \n";
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "HX5200_USB_I2C_WRITE_NEW_1482" + tail + "HX5200_USB_I2C_READ_NEW_1363" + tail +
                "HX5200_SMI_WRITE_HXK_1713" + tail + "HX5200_SMI_READ_HXK_1758" + tail +
                "HX5200_USB_I2C_FLASH_WRITE_NEW_1541" + tail + "HX5200_USB_SMI_FLASH_WRITE_NEW_1807" + tail +
                "HX5200_USB_I2C_READ_BURST_1425" + tail);
}

TEST_F(Adapter, MessagesOfReadErrorsConfigurationAndEvents) {
  boot("badstatus@4,badstatus@5,nak@9,nak@10,badstatus@11,badstatus@13");
  uint16_t d = 0x99;
  testing::internal::CaptureStdout();
  EXPECT_EQ(hx5200_usb_smi_read(0x18, 2, &d), -1);
  EXPECT_EQ(d, 0x99);
  usbio_connect();  // header 11: the I2C side fails and stops the bring-up
  usbio_connect();  // header 13: the I2C side passes, the SPI side fails
  usbio_event(0);
  EXPECT_EQ(usbio_handle, nullptr);
  usbio_event(128);
  EXPECT_NE(usbio_handle, nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "\033[1;31;40m kivshell: USBIO device IIC Read error. \033[0m \n"
            "\033[1;31;40m kivshell: USBIO device IIC Configure error. \033[0m \n"
            "\033[1;31;40m kivshell: USBIO device SPI Configure error. \033[0m \n"
            "\033[1;33;40m kivshell: USBIO device Disconnected. \033[0m \n"
            "\033[1;37;40m kivshell: USBIO device Connected. \033[0m \n");
  EXPECT_EQ(usbio_close(nullptr, 0), 1);
}

TEST_F(Adapter, FlashWriteResentWhenDataWentMissing) {
  boot("datamissing@4");
  const Bytes data(256, 0x3C);
  EXPECT_EQ(hx5200_usb_spi_flash_write(0x1000, data.data(), 256, 0), 0);
  const auto outs = out_payloads(records());
  ASSERT_EQ(outs.size(), 3u + 4u);
  EXPECT_EQ(outs[3], outs[5]);  // the whole transfer again, from the header
  EXPECT_EQ(outs[6], packet(data));
  EXPECT_EQ(hx5200_usb_i2c_flash_write(0, data.data(), 70000, 0), -1);  // more than one transfer carries
}

TEST_F(Adapter, I2cDeviceAddressAfterAnIdChange) {
  boot();
  i2caddrid = 5;
  usbio_close(usbio_handle, 0);
  usbio_connect();
  i2caddrid = 0xF;  // only three bits count; a second connect replaces the open handle
  usbio_connect();
  const auto outs = out_payloads(records());
  ASSERT_EQ(outs.size(), 9u);
  EXPECT_EQ(outs[3][18], 0xAA);
  EXPECT_EQ(outs[6][18], 0xAE);
}

}  // namespace
