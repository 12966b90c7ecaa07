// The adapter protocol on the wire (read back from the capture), its status handling,
// resends, time-outs and the retry with reconnection, against the in-test adapter.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <vector>

#include "access/access.h"
#include "access/usbio.h"
#include "fake_adapter.h"
#include "run_tool.h"

namespace {

using Bytes = std::vector<uint8_t>;
using fake::Fault;

const Bytes kMagic{0x01, 0xFE, 0x02, 0xFD, 0x03, 0xFC};

Bytes header(uint8_t len, uint8_t code, uint8_t sub) {
  Bytes h(24, 0);
  std::copy(kMagic.begin(), kMagic.end(), h.begin());
  h[6] = len;
  h[8] = code;
  h[9] = sub;
  h[23] = uint8_t(len - 24);
  return h;
}

Bytes cat(Bytes a, const Bytes &b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

const Bytes kTail{0xFF, 0xFF, 0xFF, 0xFF};

std::string hex(const Bytes &b) {
  std::string s;
  char t[3];
  for (uint8_t c : b) {
    snprintf(t, sizeof t, "%02x", c);
    s += t;
  }
  return s;
}

long long ms_since(std::chrono::steady_clock::time_point t0) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - t0).count();
}

class Adapter : public ::testing::Test {
 protected:
  std::string pcap;
  fake::Adapter *ad = nullptr;

  void SetUp() override {
    pcap = make_temp_dir("kivaccess") + "/cap.pcap";
    ASSERT_EQ(usb_capture_open(pcap.c_str()), 0);
    ad = &fake::install();
    i2caddrid = 4;
    i2c_retry_limit = spi_retry_limit = smi_retry_limit = 1;
    ASSERT_EQ(usbio_use_i2c(), 0);
    usbio_connect();
    ASSERT_NE(usbio_handle, nullptr);
  }
  void TearDown() override {
    fake::uninstall();
    usb_capture_close();
    i2caddrid = 4;
    access_if_set(0);
  }

  // OUT payloads (submit records) and IN payloads (complete records) from the capture.
  void capture(std::vector<Bytes> &outs, std::vector<UsbRecord> &all) {
    usb_capture_close();
    uint32_t link = 0;
    ASSERT_TRUE(read_pcap(pcap, link, all));
    EXPECT_EQ(link, 220u);
    for (const UsbRecord &r : all)
      if (r.type == 'S' && r.ep == 0x02) outs.push_back(r.data);
  }
  std::vector<Bytes> outs_after_connect() {
    std::vector<Bytes> outs;
    std::vector<UsbRecord> all;
    capture(outs, all);
    EXPECT_GE(outs.size(), 3u);
    if (outs.size() >= 3) outs.erase(outs.begin(), outs.begin() + 3);
    return outs;
  }
  std::vector<uint8_t> codes_after_connect() const { return {ad->codes.begin() + 3, ad->codes.end()}; }
};

TEST_F(Adapter, ConnectSkipsDecoyAndConfiguresBothSides) {
  EXPECT_EQ(ad->opens, 1);
  EXPECT_EQ(ad->claims, 1);
  std::vector<Bytes> outs;
  std::vector<UsbRecord> all;
  capture(outs, all);
  ASSERT_EQ(outs.size(), 3u);
  Bytes i2c = header(24, 0x11, 1);
  i2c[14] = 2;
  i2c[18] = 0xA8;
  Bytes spi = header(24, 0x21, 1);
  spi[14] = 37;
  Bytes spi2 = header(24, 0x41, 0);
  spi2[14] = 32;
  EXPECT_EQ(outs[0], i2c);
  EXPECT_EQ(outs[1], spi);
  EXPECT_EQ(outs[2], spi2);

  // Submit/complete pairs share an id; bulk, bus 1, the adapter's device number.
  ASSERT_EQ(all.size() % 2, 0u);
  for (size_t i = 0; i < all.size(); i += 2) {
    const UsbRecord &s = all[i], &c = all[i + 1];
    EXPECT_EQ(s.type, 'S');
    EXPECT_EQ(c.type, 'C');
    EXPECT_EQ(s.id, c.id);
    EXPECT_EQ(s.xferType, 3);
    EXPECT_EQ(s.bus, 1);
    EXPECT_EQ(s.devnum, 7);
    EXPECT_EQ(s.status, -115);
    if (s.ep == 0x81) {
      EXPECT_EQ(s.length, 1u);  // status bytes are read one at a time
      EXPECT_TRUE(s.data.empty());
      EXPECT_EQ(c.status, 0);
      EXPECT_EQ(c.data.size(), c.length);
    } else {
      EXPECT_EQ(s.length, s.data.size());
      EXPECT_TRUE(c.data.empty());
    }
  }
  // Status and completion bytes: ACK and configuration done for each of the three.
  Bytes ins;
  for (const UsbRecord &r : all)
    if (r.type == 'C' && r.ep == 0x81) ins.insert(ins.end(), r.data.begin(), r.data.end());
  EXPECT_EQ(ins, (Bytes{0xAA, 0xCA, 0xAA, 0xCA, 0xAA, 0xCA}));
}

TEST_F(Adapter, RegisterTransfersOnTheWire) {
  uint32_t v = 0;
  uint16_t d16 = 0;
  ASSERT_EQ(hx5200_usb_i2c_write(0x123456, 0xA1B2C3D4), 0);
  ASSERT_EQ(hx5200_usb_i2c_read(0x123456, &v), 0);
  EXPECT_EQ(v, 0xA1B2C3D4u);
  ASSERT_EQ(hx5200_usb_spi_write(0xABCDEF, 0x01020304), 0);
  ASSERT_EQ(hx5200_usb_spi_read(0xABCDEF, &v), 0);
  EXPECT_EQ(v, 0x01020304u);
  EXPECT_EQ(ad->regs[0xABCDEF], 0x01020304u);
  ASSERT_EQ(hx5200_usb_smi_write(0x18, 6, 0x8123), 0);
  ASSERT_EQ(hx5200_usb_smi_read(0x18, 6, &d16), 0);
  EXPECT_EQ(d16, 0x8123);
  ad->regs[0x100] = 1;
  ad->regs[0x104] = 2;
  ad->regs[0x108] = 0xFFFFFFFF;
  uint32_t burst[3] = {};
  ASSERT_EQ(asic_reg_read_burst(0x100, burst, 3), 0);
  EXPECT_EQ(burst[2], 0xFFFFFFFFu);
  EXPECT_EQ(burst[1], 2u);
  const Bytes page{0x10, 0x20, 0x30};
  ASSERT_EQ(hx5200_usb_i2c_flash_write(0x00123456, page.data(), 3, 0x5A), 0);
  ASSERT_EQ(hx5200_usb_spi_flash_write(0x00ABCDEF, page.data(), 3, 1), 0);
  ASSERT_EQ(hx5200_usb_smi_flash_write(0x01000000, page.data(), 3, 2), 0);

  const std::vector<Bytes> outs = outs_after_connect();
  ASSERT_EQ(outs.size(), 16u);
  Bytes h = header(27, 0x13, 1);
  h[11] = 4;
  EXPECT_EQ(outs[0], cat(h, {0x56, 0x34, 0x12}));
  EXPECT_EQ(outs[1], cat({0xD4, 0xC3, 0xB2, 0xA1}, kTail));
  h = header(27, 0x14, 1);
  h[13] = 4;
  EXPECT_EQ(outs[2], cat(h, {0x56, 0x34, 0x12}));
  h = header(28, 0x23, 1);
  h[11] = 4;
  EXPECT_EQ(outs[3], cat(h, {0x02, 0xAB, 0xCD, 0xEF}));
  EXPECT_EQ(outs[4], cat({0x01, 0x02, 0x03, 0x04}, kTail));
  h = header(29, 0x24, 1);
  h[13] = 4;
  EXPECT_EQ(outs[5], cat(h, {0x03, 0xAB, 0xCD, 0xEF, 0x00}));
  h = header(24, 0x43, 0);
  h[11] = 2;
  h[16] = 0x18;
  h[18] = 6;
  EXPECT_EQ(outs[6], h);
  EXPECT_EQ(outs[7], cat({0x81, 0x23}, kTail));
  h = header(24, 0x44, 0);
  h[13] = 2;
  h[16] = 0x18;
  h[18] = 6;
  EXPECT_EQ(outs[8], h);
  h = header(27, 0x14, 1);
  h[13] = 12;
  EXPECT_EQ(outs[9], cat(h, {0x00, 0x01, 0x00}));

  auto flash = [](uint8_t code, uint8_t sub, uint32_t a, uint8_t flag) {
    Bytes f = header(24, code, sub);
    f[7] = 1;
    f[11] = 3;
    f[15] = uint8_t(a >> 24);
    f[16] = uint8_t(a >> 16);
    f[17] = uint8_t(a >> 8);
    f[18] = uint8_t(a);
    f[20] = flag;
    f[21] = 15;
    return f;
  };
  EXPECT_EQ(outs[10], flash(0x15, 1, 0x00123456, 0x5A));
  EXPECT_EQ(outs[11], cat(page, kTail));
  EXPECT_EQ(outs[12], flash(0x25, 1, 0x00ABCDEF, 1));
  EXPECT_EQ(outs[14], flash(0x45, 0, 0x01000000, 2));
}

TEST_F(Adapter, ReadResponseSizeAndPayloadOffset) {
  ad->regs[0x10] = 0x11223344;
  uint32_t v = 0;
  ASSERT_EQ(hx5200_usb_i2c_read(0x10, &v), 0);
  EXPECT_EQ(v, 0x11223344u);
  std::vector<Bytes> outs;
  std::vector<UsbRecord> all;
  capture(outs, all);
  // The response request asks for data + header + address block + 4 bytes.
  const UsbRecord &req = all[all.size() - 2];
  EXPECT_EQ(req.type, 'S');
  EXPECT_EQ(req.ep, 0x81);
  EXPECT_EQ(req.length, 4u + 27u + 4u);
  const UsbRecord &resp = all.back();
  ASSERT_EQ(resp.data.size(), 35u);
  EXPECT_EQ(resp.data[8], 0x14);
  EXPECT_EQ(Bytes(resp.data.begin() + 27, resp.data.begin() + 31), (Bytes{0x44, 0x33, 0x22, 0x11}));
}

TEST_F(Adapter, NakAndBadStatusResendOnce) {
  // One NAK: the header goes again and the write completes.
  ad->faults[4] = Fault::nak;
  EXPECT_EQ(hx5200_usb_i2c_write(0x20, 7), 0);
  EXPECT_EQ(codes_after_connect(), (std::vector<uint8_t>{0x13, 0x13}));
  EXPECT_EQ(ad->regs[0x20], 7u);

  // Any other status byte is also resent once on register transfers.
  ad->faults[6] = Fault::badstatus;
  uint32_t v = 0;
  EXPECT_EQ(hx5200_usb_i2c_read(0x20, &v), 0);
  EXPECT_EQ(v, 7u);
  EXPECT_EQ(ad->opens, 1);  // no reconnection needed

  // Configuration fails at once on a bad status byte, without a resend.
  ad->faults[ad->headers + 1] = Fault::badstatus;
  const int before = ad->headers;
  EXPECT_NE(usbio_config(usbio_handle, 0x21, 1, 37, 0, 200000), 0);
  EXPECT_EQ(ad->headers, before + 1);
  // ...but one NAK is resent.
  ad->faults[ad->headers + 1] = Fault::nak;
  EXPECT_EQ(usbio_config(usbio_handle, 0x21, 1, 37, 0, 200000), 0);
}

TEST_F(Adapter, TwoNaksFailTheExchangeWithoutWaiting) {
  ad->faults[4] = Fault::nak;
  ad->faults[5] = Fault::nak;
  const uint8_t a[3] = {0x20, 0, 0};
  const uint8_t d[4] = {1, 2, 3, 4};
  const auto t0 = std::chrono::steady_clock::now();
  EXPECT_NE(usbio_write(usbio_handle, 0x13, 1, a, 3, d, 4, 200000), 0);
  EXPECT_LT(ms_since(t0), 100);
  EXPECT_EQ(ad->headers, 5);
  EXPECT_EQ(ad->outs.size(), 5u);  // no data packet went out

  // The register transfer on top reconnects (three configuration steps) and tries again.
  ad->faults[6] = Fault::nak;
  ad->faults[7] = Fault::nak;
  EXPECT_EQ(hx5200_usb_i2c_write(0x20, 9), 0);
  EXPECT_EQ(ad->opens, 2);
  EXPECT_EQ(ad->releases, 1);
  EXPECT_EQ(std::vector<uint8_t>(ad->codes.begin() + 5, ad->codes.end()),
            (std::vector<uint8_t>{0x13, 0x13, 0x11, 0x21, 0x41, 0x13}));
}

TEST_F(Adapter, LostCompletionRerunsTheWholeWrite) {
  ad->faults[4] = Fault::nocomplete;
  const auto t0 = std::chrono::steady_clock::now();
  EXPECT_EQ(hx5200_usb_smi_write(0x18, 4, 0x1234), 0);
  const long long ms = ms_since(t0);
  EXPECT_GE(ms, 200);
  EXPECT_LT(ms, 1000);
  EXPECT_EQ(codes_after_connect(), (std::vector<uint8_t>{0x43, 0x43}));
  EXPECT_EQ(ad->opens, 1);
  // Header, data, header, data.
  EXPECT_EQ(ad->outs.size(), 3u + 4u);
}

TEST_F(Adapter, WrongResponseCodeIsReadAgainUntilTheTimeOut) {
  ad->regs[0x30] = 0x55;
  ad->faults[4] = Fault::wrongcode;
  uint32_t v = 0;
  const auto t0 = std::chrono::steady_clock::now();
  EXPECT_EQ(hx5200_usb_i2c_read(0x30, &v), 0);
  EXPECT_GE(ms_since(t0), 200);
  EXPECT_EQ(v, 0x55u);
  EXPECT_EQ(codes_after_connect(), (std::vector<uint8_t>{0x14, 0x11, 0x21, 0x41, 0x14}));
}

TEST_F(Adapter, RetriesUsedUpAndUnplug) {
  // Nothing answers twice in a row: -1 after the second attempt, output untouched.
  ad->faults = {{4, Fault::nak}, {5, Fault::nak}, {9, Fault::nak}, {10, Fault::nak}};
  uint32_t v = 0x77;
  EXPECT_EQ(hx5200_usb_i2c_read(0x30, &v), -1);
  EXPECT_EQ(v, 0x77u);
  EXPECT_EQ(ad->headers, 10);

  // With no retries allowed, one attempt only.
  i2c_retry_limit = 0;
  ad->faults = {{11, Fault::nak}, {12, Fault::nak}};
  EXPECT_EQ(hx5200_usb_i2c_write(0x30, 1), -1);
  EXPECT_EQ(ad->headers, 12);
  i2c_retry_limit = 1;

  // The adapter leaves the bus: the reconnection finds nothing, the handle is dropped and
  // later transfers report the missing adapter.
  ad->faults = {{13, Fault::unplug}};
  const auto t0 = std::chrono::steady_clock::now();
  EXPECT_EQ(hx5200_usb_i2c_write(0x30, 1), -1);
  EXPECT_LT(ms_since(t0), 100);
  EXPECT_EQ(usbio_handle, nullptr);
  testing::internal::CaptureStdout();
  EXPECT_EQ(hx5200_usb_i2c_write(0x30, 1), 8);
  EXPECT_EQ(hx5200_usb_i2c_read(0x30, &v), 8);
  EXPECT_EQ(hx5200_usb_smi_write(0x18, 0, 1), 8);
  uint16_t d = 0;
  EXPECT_EQ(hx5200_usb_smi_read(0x18, 0, &d), 8);
  EXPECT_EQ(hx5200_usb_spi_write(0x30, 1), 8);
  EXPECT_EQ(hx5200_usb_spi_flash_write(0, nullptr, 0, 0), 8);
  EXPECT_EQ(hx5200_usb_i2c_flash_write(0, nullptr, 0, 0), 8);
  EXPECT_EQ(hx5200_usb_smi_flash_write(0, nullptr, 0, 0), 8);
  EXPECT_EQ(hx5200_usb_i2c_read_burst(0, &v, 1), 8);
  EXPECT_EQ(hx5200_usb_spi_read(0x30, &v), -1);  // no open check: fails its attempts
  const std::string tail = " \033[1;31;40m kivshell: USBIO device Not Found. Only be available for offline test! \033[0m \n";
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "HX5200_USB_I2C_WRITE_NEW_1482" + tail + "HX5200_USB_I2C_READ_NEW_1363" + tail +
                "HX5200_SMI_WRITE_HXK_1713" + tail + "HX5200_SMI_READ_HXK_1758" + tail +
                "HX5200_USB_I2C_FLASH_WRITE_NEW_1541" + tail + "HX5200_USB_SMI_FLASH_WRITE_NEW_1807" + tail +
                "HX5200_USB_I2C_READ_BURST_1425" + tail);
}

TEST_F(Adapter, SmiReadFailureMessage) {
  ad->faults = {{4, Fault::badstatus}, {5, Fault::badstatus}, {9, Fault::nak}, {10, Fault::nak}};
  uint16_t d = 0x99;
  testing::internal::CaptureStdout();
  EXPECT_EQ(hx5200_usb_smi_read(0x18, 2, &d), -1);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "\033[1;31;40m kivshell: USBIO device IIC Read error. \033[0m \n");
  EXPECT_EQ(d, 0x99);
}

TEST_F(Adapter, FlashWriteResendRule) {
  const Bytes data(256, 0x3C);
  // A NAK and a missing-data answer use up the two resends; the third 0xAC is ignored and
  // the completion that follows it is taken.
  ad->faults = {{4, Fault::nak}, {5, Fault::flashmissing}, {6, Fault::flashlate}};
  EXPECT_EQ(hx5200_usb_spi_flash_write(0x1000, data.data(), 256, 0), 0);
  EXPECT_EQ(ad->headers, 6);
  // Without earlier resends a missing-data answer sends the whole transfer again.
  ad->faults = {{7, Fault::flashmissing}};
  EXPECT_EQ(hx5200_usb_i2c_flash_write(0x1000, data.data(), 256, 0), 0);
  EXPECT_EQ(ad->headers, 8);
  const std::vector<Bytes> outs = outs_after_connect();
  ASSERT_EQ(outs.size(), 9u);  // NAKed header, two full sends; then two full sends
  EXPECT_EQ(outs.back(), cat(data, kTail));
  EXPECT_EQ(outs[outs.size() - 2], outs[outs.size() - 4]);  // the very same header again
  EXPECT_EQ(hx5200_usb_i2c_flash_write(0, data.data(), 70000, 0), -1);  // longer than a transfer carries
}

TEST_F(Adapter, DeviceAddressFollowsIdAfterReconnect) {
  i2caddrid = 5;
  usbio_close(usbio_handle, 0);
  usbio_connect();
  EXPECT_EQ(ad->i2cDevice, 0xAA);
  i2caddrid = 0xF;  // only three bits count
  usbio_connect();  // a second connect replaces the open handle
  EXPECT_EQ(ad->i2cDevice, 0xAE);
  EXPECT_EQ(ad->opens, ad->closes + 1);
}

TEST_F(Adapter, EventsAndOpenFailures) {
  testing::internal::CaptureStdout();
  usbio_event(0);
  EXPECT_EQ(usbio_handle, nullptr);
  usbio_event(128);
  EXPECT_NE(usbio_handle, nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "\033[1;33;40m kivshell: USBIO device Disconnected. \033[0m \n"
            "\033[1;37;40m kivshell: USBIO device Connected. \033[0m \n");
  EXPECT_EQ(usbio_close(nullptr, 0), 1);

  // Claim refused: the device is closed again and nothing is kept.
  usbio_close(usbio_handle, 0);
  ad->claimFails = true;
  const int closes = ad->closes;
  EXPECT_EQ(usbio_open(), nullptr);
  EXPECT_EQ(ad->closes, closes + 1);
  ad->claimFails = false;

  // A failing first configuration step stops the bring-up with its message.
  ad->faults[ad->headers + 1] = Fault::badstatus;
  testing::internal::CaptureStdout();
  usbio_connect();
  ad->faults[ad->headers + 2] = Fault::badstatus;
  usbio_connect();
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "\033[1;31;40m kivshell: USBIO device IIC Configure error. \033[0m \n"
            "\033[1;31;40m kivshell: USBIO device SPI Configure error. \033[0m \n");
}

TEST_F(Adapter, TsharkDecodesTheCapture) {
  if (system("command -v tshark >/dev/null 2>&1") != 0) GTEST_SKIP() << "tshark not installed";
  ASSERT_EQ(hx5200_usb_i2c_write(0x123456, 0xA1B2C3D4), 0);
  usb_capture_close();
  const std::string cmd = "tshark -r " + pcap + " -T fields -e usb.capdata 2>/dev/null | tr -d ':'";
  FILE *p = popen(cmd.c_str(), "r");
  ASSERT_NE(p, nullptr);
  std::string out;
  char buf[512];
  while (fgets(buf, sizeof buf, p)) out += buf;
  pclose(p);
  Bytes cfg = header(24, 0x11, 1);
  cfg[14] = 2;
  cfg[18] = 0xA8;
  Bytes wr = header(27, 0x13, 1);
  wr[11] = 4;
  EXPECT_NE(out.find(hex(cfg) + "\n"), std::string::npos) << out;
  EXPECT_NE(out.find(hex(cat(wr, {0x56, 0x34, 0x12})) + "\n"), std::string::npos) << out;
  EXPECT_NE(out.find("d4c3b2a1ffffffff\n"), std::string::npos) << out;
  EXPECT_NE(out.find("aa\n"), std::string::npos);
  EXPECT_NE(out.find("ba\n"), std::string::npos);
}

}  // namespace
