#include "board_harness.h"

#include <gtest/gtest.h>

void BoardHarness::attach() {
  ops = sim_attach(dir.c_str());
  ASSERT_NE(ops, nullptr);
  ops->init();
  ops->find_busses();
  ops->find_devices();
  struct usb_device *dev = find(USBIO_VID, USBIO_PID);
  ASSERT_NE(dev, nullptr);
  h = ops->open(dev);
  ASSERT_NE(h, nullptr);
  ASSERT_EQ(ops->claim_interface(h, 0), 0);
}

struct usb_device *BoardHarness::find(uint16_t vid, uint16_t pid) {
  for (struct usb_bus *b = ops->get_busses(); b; b = b->next)
    for (struct usb_device *d = b->devices; d; d = d->next)
      if (d->descriptor.idVendor == vid && d->descriptor.idProduct == pid) return d;
  return nullptr;
}

int BoardHarness::out(const Bytes &b, int timeoutMs) {
  Bytes copy = b;
  return ops->bulk_write(h, USBIO_EP_OUT, reinterpret_cast<char *>(copy.data()), (int)copy.size(), timeoutMs);
}

Bytes BoardHarness::in(int size, int &rc, int timeoutMs) {
  Bytes buf((size_t)size);
  rc = ops->bulk_read(h, USBIO_EP_IN, reinterpret_cast<char *>(buf.data()), size, timeoutMs);
  buf.resize(rc > 0 ? (size_t)rc : 0);
  return buf;
}

int BoardHarness::status() {
  int rc = 0;
  Bytes b = in(1, rc);
  return rc == 1 ? b[0] : rc;
}

namespace {
uint32_t read_exchange(BoardHarness &bh, const Bytes &header, uint8_t code, bool msbFirst) {
  EXPECT_EQ(bh.out(header), (int)header.size());
  EXPECT_EQ(bh.status(), 0xAA);
  int rc = 0;
  const int len = 24 + header[23] + 4 + 4;
  Bytes r = bh.in(len, rc);
  EXPECT_EQ(rc, len);
  if (rc != len) return 0xDEADBEEF;
  EXPECT_EQ(r[8], code);
  const uint8_t *d = r.data() + 24 + header[23];
  return msbFirst ? (uint32_t)d[0] << 24 | d[1] << 16 | d[2] << 8 | d[3]
                  : (uint32_t)d[3] << 24 | d[2] << 16 | d[1] << 8 | d[0];
}

void write_exchange(BoardHarness &bh, const Bytes &header, const Bytes &data) {
  EXPECT_EQ(bh.out(header), (int)header.size());
  EXPECT_EQ(bh.status(), 0xAA);
  Bytes p = data_pkt(data);
  EXPECT_EQ(bh.out(p), (int)p.size());
  EXPECT_EQ(bh.status(), 0xBA);
}
}  // namespace

uint32_t BoardHarness::i2c_read(uint32_t a) { return read_exchange(*this, read_hdr(0x14, i2c_addr(a), 4), 0x14, false); }
void BoardHarness::i2c_write(uint32_t a, uint32_t v) { write_exchange(*this, write_hdr(0x13, i2c_addr(a), 4), le32(v)); }
uint32_t BoardHarness::spi_read(uint32_t a) {
  return read_exchange(*this, read_hdr(0x24, {0x03, (uint8_t)(a >> 16), (uint8_t)(a >> 8), (uint8_t)a, 0x00}, 4), 0x24, true);
}
void BoardHarness::spi_write(uint32_t a, uint32_t v) {
  write_exchange(*this, write_hdr(0x23, {0x02, (uint8_t)(a >> 16), (uint8_t)(a >> 8), (uint8_t)a}, 4), be32(v));
}
uint16_t BoardHarness::smi_read(uint8_t phy, uint8_t reg) {
  Bytes hd = smi_hdr(0x44, phy, reg);
  hd[13] = 2;
  EXPECT_EQ(out(hd), 24);
  EXPECT_EQ(status(), 0xAA);
  int rc = 0;
  Bytes r = in(24 + 2 + 4, rc);
  EXPECT_EQ(rc, 30);
  if (rc != 30) return 0xDEAD;
  EXPECT_EQ(r[8], 0x44);
  return (uint16_t)(r[24] << 8 | r[25]);
}
void BoardHarness::smi_write(uint8_t phy, uint8_t reg, uint16_t v) {
  Bytes hd = smi_hdr(0x43, phy, reg);
  hd[11] = 2;
  write_exchange(*this, hd, {(uint8_t)(v >> 8), (uint8_t)v});
}

Bytes hdr(uint8_t code, uint8_t sub, const Bytes &addrBlock) {
  Bytes b(24, 0);
  const uint8_t magic[6] = {0x01, 0xFE, 0x02, 0xFD, 0x03, 0xFC};
  std::copy(magic, magic + 6, b.begin());
  b[6] = (uint8_t)(24 + addrBlock.size());
  b[8] = code;
  b[9] = sub;
  b[23] = (uint8_t)addrBlock.size();
  for (uint8_t x : addrBlock) b.push_back(x);
  return b;
}
Bytes config_hdr(uint8_t code, uint8_t paramA, uint16_t paramB) {
  Bytes b = hdr(code, code == 0x41 ? 0 : 1);
  b[14] = paramA;
  b[17] = (uint8_t)(paramB >> 8);
  b[18] = (uint8_t)paramB;
  return b;
}
Bytes write_hdr(uint8_t code, const Bytes &blk, uint16_t n) {
  Bytes b = hdr(code, 1, blk);
  b[10] = (uint8_t)(n >> 8);
  b[11] = (uint8_t)n;
  return b;
}
Bytes read_hdr(uint8_t code, const Bytes &blk, uint16_t n) {
  Bytes b = hdr(code, 1, blk);
  b[12] = (uint8_t)(n >> 8);
  b[13] = (uint8_t)n;
  return b;
}
Bytes smi_hdr(uint8_t code, uint8_t phy, uint8_t reg) {
  Bytes b = hdr(code, 0);
  b[16] = phy;
  b[18] = reg;
  return b;
}
Bytes flash_hdr(uint8_t code, uint32_t fa, uint16_t len, uint8_t flag, uint8_t param) {
  Bytes b = hdr(code, code == 0x45 ? 0 : 1);
  b[7] = 1;
  b[10] = (uint8_t)(len >> 8);
  b[11] = (uint8_t)len;
  for (int i = 0; i < 4; ++i) b[15 + i] = (uint8_t)(fa >> (24 - 8 * i));
  b[20] = flag;
  b[21] = param;
  return b;
}
Bytes data_pkt(const Bytes &d) {
  Bytes b = d;
  b.insert(b.end(), 4, 0xFF);
  return b;
}
Bytes i2c_addr(uint32_t a) { return {(uint8_t)a, (uint8_t)(a >> 8), (uint8_t)(a >> 16)}; }
Bytes le32(uint32_t v) { return {(uint8_t)v, (uint8_t)(v >> 8), (uint8_t)(v >> 16), (uint8_t)(v >> 24)}; }
Bytes be32(uint32_t v) { return {(uint8_t)(v >> 24), (uint8_t)(v >> 16), (uint8_t)(v >> 8), (uint8_t)v}; }
