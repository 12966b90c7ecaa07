// The adapter protocol on the wire, read back from the capture, against the simulated
// board: byte layouts, status handling, resends, time-outs and the retry with reconnection.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include "access/access.h"
#include "access/usbio.h"
#include "board.h"
#include "capture_reader.h"
#include "tool_output.h"

namespace {

using Bytes = std::vector<uint8_t>;
const std::string kNotFound =
    " \033[1;31;40m kivshell: USBIO device Not Found. Only be available for offline test! \033[0m \n";

Bytes packet(Bytes data) {
  data.insert(data.end(), 4, 0xFF);
  return data;
}

// The capture through tshark with the project's Wireshark dissector: for each frame that
// passes `filter`, the kivusb `fields` separated by ':', the frames separated by " | ".
std::string dissect(const std::string &pcap, const std::string &filter, std::initializer_list<const char *> fields) {
  std::string cmd = "tshark -X lua_script:" KIV_SOURCE_DIR "/tools/wireshark/kivusb.lua -r " + pcap + " -Y '" +
                    filter + "' -T fields -E separator=:";
  for (const char *f : fields) cmd += std::string(std::strchr(f, '.') ? " -e " : " -e kivusb.") + f;
  const std::string text = pcap + ".fields";
  EXPECT_EQ(system((cmd + " >" + text + " 2>" + text + ".err").c_str()), 0) << read_file(text + ".err");
  std::string frames = read_file(text);
  for (size_t nl; (nl = frames.find('\n')) != std::string::npos;)
    frames.replace(nl, 1, nl + 1 < frames.size() ? " | " : "");
  return frames;
}

// A fresh board with the given faults, captured from the first transfer, I2C selected and
// the adapter connected (three command headers).
struct Session {
  std::string pcap;
  std::vector<UsbRecord> all;
  explicit Session(const char *faults = nullptr) {
    const std::string dir = make_temp_dir("kivaccess");
    pcap = dir + "/cap.pcap";
    EXPECT_EQ(usb_capture_open(pcap.c_str()), 0);
    i2caddrid = 4;
    i2c_retry_limit = spi_retry_limit = smi_retry_limit = 1;
    ScopedEnv env({{"KIVTOOL_SIM_FAULTS", faults ? faults : ""}});   // read when the board is attached
    board_attach(dir + "/board");
    EXPECT_NE(usbio_handle, nullptr);
  }
  ~Session() {
    board_detach();
    usb_capture_close();
    i2caddrid = 4;
    i2c_retry_limit = 1;
  }
  const std::vector<UsbRecord> &records() {
    usb_capture_close();
    EXPECT_TRUE(read_pcap(pcap, all));
    return all;
  }
  // Command codes after the three of the bring-up.
  std::vector<uint8_t> codes() {
    std::vector<uint8_t> c = command_codes(records());
    EXPECT_EQ(std::vector<uint8_t>(c.begin(), c.begin() + std::min<size_t>(3, c.size())), (Bytes{0x11, 0x21, 0x41}));
    return std::vector<uint8_t>(c.begin() + std::min<size_t>(3, c.size()), c.end());
  }
};

}  // namespace

TEST(Adapter, EveryCommandOnTheWire) {
  Session s;
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

  const auto outs = out_payloads(s.records());
  const std::vector<Bytes> want{
      usb_header(0x11, 1, {{14, 2}, {18, 0xA8}}),
      usb_header(0x21, 1, {{14, 37}}),
      usb_header(0x41, 0, {{14, 32}}),
      usb_header(0x13, 1, {{11, 4}}, {0x56, 0x34, 0x12}),
      packet({0xD4, 0xC3, 0xB2, 0xA1}),
      usb_header(0x14, 1, {{13, 4}}, {0x56, 0x34, 0x12}),
      usb_header(0x23, 1, {{11, 4}}, {0x02, 0x12, 0x34, 0x5A}),
      packet({0x01, 0x02, 0x03, 0x04}),
      usb_header(0x24, 1, {{13, 4}}, {0x03, 0x12, 0x34, 0x5A, 0x00}),
      usb_header(0x43, 0, {{11, 2}, {16, 2}, {18, 6}}),
      packet({0x81, 0x23}),
      usb_header(0x44, 0, {{13, 2}, {16, 2}, {18, 6}}),
      usb_header(0x14, 1, {{13, 12}}, {0x56, 0x34, 0x12}),
      usb_header(0x15, 1, {{7, 1}, {11, 3}, {16, 0x12}, {17, 0x34}, {18, 0x56}, {20, 0x5A}, {21, 15}}),
      packet(page),
      usb_header(0x25, 1, {{7, 1}, {11, 3}, {16, 0x20}, {17, 0x30}, {18, 0x40}, {20, 1}, {21, 15}}),
      packet(page),
      usb_header(0x45, 0, {{7, 1}, {11, 3}, {16, 0x30}, {20, 2}, {21, 15}}),
      packet(page),
  };
  ASSERT_EQ(outs.size(), want.size());
  for (size_t i = 0; i < want.size(); ++i) EXPECT_EQ(hex_of(outs[i]), hex_of(want[i])) << "transfer " << i;

  // Submit/complete pairs with one id, bulk, bus 1, the adapter's device number; OUT data
  // in the submit, IN data in the complete.
  const auto &all = s.all;
  ASSERT_EQ(all.size() % 2, 0u);
  for (size_t i = 0; i < all.size(); i += 2) {
    const UsbRecord &a = all[i], &c = all[i + 1];
    EXPECT_TRUE(a.type == 'S' && c.type == 'C' && a.id == c.id && a.xferType == 3 && a.bus == 1);
    EXPECT_TRUE(a.devnum == all[0].devnum && a.status == -115 && c.status == 0);
    EXPECT_TRUE(a.ep == 0x81 ? a.data.empty() && c.data.size() == c.length : c.data.empty() && a.data.size() == a.length);
  }
  // Records: 9 transfers of the bring-up, 4 of the write, then the read's command and
  // status; its response request (data + header + address + 4) comes next.
  const size_t resp = 2 * (9 + 4 + 2);
  EXPECT_EQ(all[resp].ep, 0x81);
  EXPECT_EQ(all[resp].length, 4u + 27u + 4u);
  EXPECT_EQ(all[resp + 1].data[8], 0x14);

  // Wireshark reads the capture back, and the project's dissector names the fields of
  // headers, data packets and responses, and the status bytes, in the order sent; each row:
  // display filter, fields, the frames' values.
  if (system("command -v tshark >/dev/null") != 0) return;
  const struct {
    const char *filter;
    std::initializer_list<const char *> fields;
    const char *frames;
  } views[] = {
      {"kivusb.param_a", {"code", "param_a", "i2c_device"}, "0x11:2:0xa8 | 0x21:37: | 0x41:32:"},
      {"kivusb.code in {0x13, 0x23, 0x24} && kivusb.addr",
       {"code", "addr", "value"},
       "0x13:0x00123456: | 0x13:0x00123456:0xa1b2c3d4 | 0x23:0x0012345a: | 0x23:0x0012345a:0x01020304 | "
       "0x24:0x0012345a: | 0x24:0x0012345a:0x01020304"},
      {"kivusb.code == 0x14 && !kivusb.status",
       {"addr", "read_len", "value"},
       "0x00123456:4: | 0x00123456:4:0xa1b2c3d4 | 0x00123456:12: | 0x00123456:12:0xa1b2c3d4,0x01020304,0x00000000"},
      {"kivusb.phy", {"code", "phy", "reg", "value"}, "0x43:2:6: | 0x43:2:6:0x00008123 | 0x44:2:6: | 0x44:2:6:0x00008123"},
      {"kivusb.code in {0x15, 0x25, 0x45} && !kivusb.status",
       {"code", "flash_addr", "flash_flag", "flash_param", "data_len"},
       "0x15:0x00123456:0x5a:15: | 0x15::::3 | 0x25:0x00203040:0x01:15: | 0x25::::3 | 0x45:0x00300000:0x02:15: | "
       "0x45::::3"},
      {"kivusb.status", {"status"},
       "0xaa | 0xca | 0xaa | 0xca | 0xaa | 0xca | 0xaa | 0xba | 0xaa | 0xaa | 0xba | 0xaa | 0xaa | 0xba | 0xaa | "
       "0xaa | 0xaa | 0xba | 0xaa | 0xba | 0xaa | 0xba"},
  };
  for (const auto &v : views) EXPECT_EQ(dissect(s.pcap, v.filter, v.fields), v.frames) << v.filter;
}

// Crafted packets: status bytes are named after the command they answer; every header
// starts a command (an unknown code too), and cut or malformed packets are flagged, never
// decoded as data.
TEST(Adapter, DissectorFlagsCraftedPackets) {
  struct Pkt {
    uint8_t ep;
    Bytes data;
    uint32_t wireLen = 0;   // longer than data: cut by the snapshot length
  };
  auto header = [](uint8_t code, uint8_t alen, Bytes tail = {}) {
    Bytes h = {0x01, 0xfe, 0x02, 0xfd, 0x03, 0xfc, 24, 0, code};
    h.resize(24);
    h[23] = alen;
    h.insert(h.end(), tail.begin(), tail.end());
    return h;
  };
  auto cut = [](Bytes b, size_t n) {
    b.resize(n);
    return b;
  };
  const Bytes addr = {0x56, 0x34, 0x12};
  const Pkt pkts[] = {
      {0x02, header(0x13, 3, addr)}, {0x81, {0xaa}}, {0x02, packet({1, 2, 3, 4})}, {0x81, {0xac}}, {0x81, {0xee}},
      {0x02, header(0x77, 0)},       {0x81, {0xab}}, {0x02, packet({1, 2, 3, 4})},   // unknown code
      {0x02, cut(header(0x13, 3, addr), 16), 27},
      {0x02, packet({1, 2, 3, 4})},                                                  // after the cut header
      {0x02, header(0x13, 40, addr)}, {0x02, packet({1, 2, 3, 4, 5})},
      {0x02, header(0x14, 3, addr)},  {0x81, {0xaa}}, {0x81, cut(header(0x14, 0), 10)},
      {0x02, header(0x14, 0)}, {0x81, header(0x14, 0, {})},                          // asks for 0 bytes: fine
  };
  const std::string pcap = make_temp_dir("kivcraft") + "/c.pcap";
  FILE *f = fopen(pcap.c_str(), "wb");
  ASSERT_NE(f, nullptr);
  const uint32_t global[6] = {0xa1b2c3d4, 2u | (4u << 16), 0, 0, 65535, 220};
  fwrite(global, sizeof global, 1, f);
  uint64_t id = 1;
  for (const Pkt &p : pkts) {
    const uint32_t cap = (uint32_t)p.data.size(), wire = std::max(cap, p.wireLen);
    uint8_t h[64] = {};
    memcpy(h, &id, 8);
    h[8] = p.ep & 0x80 ? 'C' : 'S';
    h[9] = 3;
    h[10] = p.ep;
    h[11] = 5;
    h[12] = 1;
    h[14] = '-';
    memcpy(h + 32, &wire, 4);
    memcpy(h + 36, &cap, 4);
    const uint32_t rec[4] = {0, (uint32_t)id++, 64 + cap, 64 + wire};
    fwrite(rec, sizeof rec, 1, f);
    fwrite(h, sizeof h, 1, f);
    fwrite(p.data.data(), 1, cap, f);
  }
  fclose(f);
  EXPECT_EQ(dissect(pcap, "kivusb", {"_ws.col.Info", "_ws.expert.message"}),
            "Command 0x13 I2C register write [0x123456]: | Status 0xaa ACK: command accepted: | "
            "Data for 0x13: [0x123456] = 0x04030201: | Status 0xac flash data missing, sent again: | "
            "Status 0xee (unknown):Unknown status byte | "
            "Command 0x77 (unknown):Unknown command code | "
            "Status 0xab NAK: command refused, sent again:Adapter refused the command | "
            "Data for 0x77 (not decoded):Data packet after a command that carries no data | "
            "Command 0x13 I2C register write (header cut short):Packet cut short by the capture's snapshot length | "
            "Data for 0x13 (not decoded):Command header or response shorter than 24 bytes | "
            "Command 0x13 I2C register write:Address block runs past the end of the packet | "
            "Data for 0x13: 0x04030201:Data length is not a whole number of registers | "
            "Command 0x14 I2C register read [0x123456]: | Status 0xaa ACK: command accepted: | "
            "Response for 0x14 (not decoded):Command header or response shorter than 24 bytes | "
            "Command 0x14 I2C register read: | Response 0x14:");
}

// Each fault path: the result, the command headers that went out after the bring-up
// (resends and reconnections included) and how long the transfer waited.
TEST(Adapter, FaultPathsResendsAndReconnects) {
  const uint8_t a[3] = {0x20, 0, 0}, d[4] = {1, 2, 3, 4};
  uint32_t v = 0x77;
  uint16_t d16 = 0;
  const Bytes data(256, 0x3C);
  struct Case {
    const char *name, *faults;
    std::function<int32_t()> run;
    int32_t rc;
    Bytes codes;
    long minMs, maxMs;
  };
  const std::vector<Case> cases{
      {"NAK: resent once", "nak@4", [] { return hx5200_usb_i2c_write(0x20, 7); }, 0, {0x13, 0x13}, 0, 100},
      {"other status: resent once", "badstatus@4", [&] { return hx5200_usb_i2c_read(0x20, &v); }, 0, {0x14, 0x14}, 0, 100},
      {"configuration: other status fails at once", "badstatus@4",
       [] { return usbio_config(usbio_handle, 0x21, 1, 37, 0, 200000); }, -1, {0x21}, 0, 100},
      {"two NAKs fail the exchange without a wait", "nak@4,nak@5",
       [&] { return usbio_write(usbio_handle, 0x13, 1, a, 3, d, 4, 200000); }, -1, {0x13, 0x13}, 0, 100},
      {"failed transfer reconnects and tries again", "nak@4,nak@5", [] { return hx5200_usb_i2c_write(0x20, 9); }, 0,
       {0x13, 0x13, 0x11, 0x21, 0x41, 0x13}, 0, 100},
      {"retries used up", "nak@4,nak@5,nak@9,nak@10", [&] { return hx5200_usb_i2c_read(0x30, &v); }, -1,
       {0x14, 0x14, 0x11, 0x21, 0x41, 0x14, 0x14}, 0, 100},
      {"retry limit 0: one attempt", "nak@4,nak@5",
       [] {
         i2c_retry_limit = 0;
         return hx5200_usb_i2c_write(0x30, 1);
       },
       -1, {0x13, 0x13}, 0, 100},
      {"lost completion: the write runs once more in full", "nocomplete@4",
       [] { return hx5200_usb_smi_write(2, 4, 0x1234); }, 0, {0x43, 0x43}, 200, 600},
      {"wrong response code: read again until the time-out, then reconnect", "wrongcode@4",
       [&] { return hx5200_usb_smi_read(2, 4, &d16); }, 0, {0x44, 0x11, 0x21, 0x41, 0x44}, 200, 600},
      {"unplugged: the unanswered header resent, no adapter to reconnect", "unplug@4",
       [&] { return usbio_handle && hx5200_usb_spi_read(0x30, &v) == -1 && !usbio_handle ? -1 : 99; }, -1,
       {0x24, 0x24}, 0, 100},
      {"flash data missing: the whole transfer again", "datamissing@4",
       [&] { return hx5200_usb_spi_flash_write(0x1000, data.data(), 256, 0); }, 0, {0x25, 0x25}, 0, 100},
  };
  testing::internal::CaptureStdout();
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    Session s(c.faults);
    v = 0x77;
    const auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(c.run(), c.rc);
    const long ms = long(
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - t0).count());
    EXPECT_GE(ms, c.minMs);
    EXPECT_LT(ms, c.maxMs);
    EXPECT_EQ(hex_of(s.codes()), hex_of(c.codes));
    if (c.rc != 0) {
      EXPECT_EQ(v, 0x77u);  // a failed read leaves the value alone
    }
  }
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");  // none of these paths prints
  // The resent transfers carried the same bytes: the lost completion's data went out twice,
  // the flash header was repeated from its start.
  Session s("nocomplete@4,datamissing@6");
  ASSERT_EQ(hx5200_usb_smi_write(2, 4, 0x1234), 0);
  ASSERT_EQ(hx5200_usb_spi_flash_write(0x1000, data.data(), 256, 0), 0);
  const auto outs = out_payloads(s.records());
  ASSERT_EQ(outs.size(), 3u + 4u + 4u);
  EXPECT_EQ(outs[4], packet({0x12, 0x34}));
  EXPECT_EQ(outs[6], packet({0x12, 0x34}));
  EXPECT_EQ(outs[7], outs[9]);
  EXPECT_EQ(outs[10], packet(data));
  EXPECT_EQ(hx5200_usb_i2c_flash_write(0, data.data(), 70000, 0), -1);  // more than one transfer carries
}

TEST(Adapter, MessagesOfMissingAdapterReadErrorsConfigurationAndEvents) {
  Session s("badstatus@4,badstatus@5,nak@9,nak@10,badstatus@11,badstatus@13,badstatus@14");
  uint16_t d = 0x99;
  uint32_t v = 0;
  testing::internal::CaptureStdout();
  EXPECT_EQ(hx5200_usb_smi_read(0x18, 2, &d), -1);
  EXPECT_EQ(d, 0x99);
  usbio_connect();  // header 11: the I2C side fails and stops the bring-up
  usbio_connect();  // headers 12-14: both SPI steps are sent, each failure reported
  usbio_event(0);
  EXPECT_EQ(usbio_handle, nullptr);
  // No adapter: each transfer names itself (the SPI ones stay silent; the SPI read has no
  // such check at all and fails its attempts).
  EXPECT_EQ(hx5200_usb_i2c_write(0x30, 1), 8);
  EXPECT_EQ(hx5200_usb_i2c_read(0x30, &v), 8);
  EXPECT_EQ(hx5200_usb_smi_write(0x18, 0, 1), 8);
  EXPECT_EQ(hx5200_usb_smi_read(0x18, 0, &d), 8);
  EXPECT_EQ(hx5200_usb_i2c_flash_write(0, nullptr, 0, 0), 8);
  EXPECT_EQ(hx5200_usb_smi_flash_write(0, nullptr, 0, 0), 8);
  EXPECT_EQ(hx5200_usb_i2c_read_burst(0, &v, 1), 8);
  EXPECT_EQ(hx5200_usb_spi_write(0x30, 1), 8);
  EXPECT_EQ(hx5200_usb_spi_flash_write(0, nullptr, 0, 0), 8);
  usbio_event(128);
  EXPECT_NE(usbio_handle, nullptr);
  const std::string spiError = "\033[1;31;40m kivshell: USBIO device SPI Configure error. \033[0m \n";
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "\033[1;31;40m kivshell: USBIO device IIC Read error. \033[0m \n"
            "\033[1;31;40m kivshell: USBIO device IIC Configure error. \033[0m \n" +
                spiError + spiError + "\033[1;33;40m kivshell: USBIO device Disconnected. \033[0m \n" +
                "HX5200_USB_I2C_WRITE_NEW_1482" + kNotFound + "HX5200_USB_I2C_READ_NEW_1363" + kNotFound +
                "HX5200_SMI_WRITE_HXK_1713" + kNotFound + "HX5200_SMI_READ_HXK_1758" + kNotFound +
                "HX5200_USB_I2C_FLASH_WRITE_NEW_1541" + kNotFound + "HX5200_USB_SMI_FLASH_WRITE_NEW_1807" +
                kNotFound + "HX5200_USB_I2C_READ_BURST_1425" + kNotFound +
                "\033[1;37;40m kivshell: USBIO device Connected. \033[0m \n");
  EXPECT_EQ(usbio_close(nullptr, 0), 1);
  usbio_close(usbio_handle, 0);
  EXPECT_EQ(hx5200_usb_spi_read(0x30, &v), 0);  // the SPI read reconnects by itself
}

TEST(Adapter, I2cDeviceAddressTakesTheWholeId) {
  Session s;
  i2caddrid = 9;  // above 7 (possible through `set i2cid`): not masked; replaces the open handle
  usbio_connect();
  uint32_t v = 0;
  EXPECT_EQ(hx5200_usb_i2c_read(0x10, &v), -1);  // the board answers at 0xA8 only
  const auto outs = out_payloads(s.records());
  ASSERT_GE(outs.size(), 4u);
  EXPECT_EQ(outs[3][18], 0xB2);
}

// The tool's start-up. With no adapter the chip check's first access reports it (I2C read,
// or the first MDIO write of SMI; SPI says nothing) and the check fails right after; on the
// board the bring-up is silent: three configuration steps, then the chip check reads the
// page, selects page 0, reads the generation register and puts the page back.
TEST(Startup, WithAndWithoutTheBoard) {
  const std::string banner = kBanner + kSdkLine;
  const std::pair<const char *, std::string> cases[] = {
      {"", "HX5200_USB_I2C_READ_NEW_1363" + kNotFound},
      {"interface smi\n", "HX5200_SMI_WRITE_HXK_1713" + kNotFound},
      {"interface spi\n", ""},
  };
  for (const auto &[cfg, msg] : cases)
    for (bool sim : {false, true}) {
      ToolRun r;
      r.cwd = make_temp_dir("kivaccess");
      if (*cfg) write_file(r.cwd + "/kivcfg.txt", cfg);
      r.sim = sim;
      r.env = {{"KIVTOOL_PCAP", r.cwd + "/cap.pcap"}};
      const ToolResult res = run_tool(r);
      EXPECT_EQ(res.status, 0);
      EXPECT_EQ(res.out, banner + (sim ? "" : msg + "This KIV build is not match with current chip version\n"))
          << cfg << sim;
      if (*cfg || !sim) continue;
      std::vector<UsbRecord> all;
      ASSERT_TRUE(read_pcap(r.cwd + "/cap.pcap", all));
      EXPECT_EQ(command_codes(all), (Bytes{0x11, 0x21, 0x41, 0x14, 0x13, 0x14, 0x13}));
      const auto outs = out_payloads(all);
      ASSERT_GE(outs.size(), 9u);
      EXPECT_EQ(Bytes(outs[3].begin() + 24, outs[3].end()), (Bytes{0x01, 0xFF, 0xFF}));
      EXPECT_EQ(outs[5], (Bytes{0, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF}));
      EXPECT_EQ(Bytes(outs[6].begin() + 24, outs[6].end()), (Bytes{0xF0, 0x3F, 0x10}));
      EXPECT_EQ(outs[8], (Bytes{0x4A, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF}));
    }
}
