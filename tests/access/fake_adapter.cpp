#include "fake_adapter.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace fake {
namespace {

Adapter g_ad;
usb_bus g_bus;
struct usb_device g_decoy, g_dev;
int g_handleObj;
usb_dev_handle *const kHandle = reinterpret_cast<usb_dev_handle *>(&g_handleObj);

constexpr uint8_t kMagic[6] = {0x01, 0xFE, 0x02, 0xFD, 0x03, 0xFC};

void f_init() {}
int f_find_busses() { return 0; }
int f_find_devices() { return 0; }

usb_bus *f_get_busses() {
  g_bus = {};
  g_decoy = {};
  g_dev = {};
  g_decoy.descriptor.idVendor = 0x0C55;
  g_decoy.descriptor.idProduct = 0x5730;
  g_decoy.devnum = 3;
  g_dev.descriptor.idVendor = 0x0C55;
  g_dev.descriptor.idProduct = 0x5731;
  g_dev.devnum = 7;
  g_bus.devices = &g_decoy;
  if (!g_ad.unplugged) g_decoy.next = &g_dev;
  return &g_bus;
}

usb_dev_handle *f_open(struct usb_device *d) {
  if (d != &g_dev) return nullptr;  // the decoy must never be opened
  ++g_ad.opens;
  return kHandle;
}
int f_close(usb_dev_handle *) { ++g_ad.closes; return 0; }
int f_claim(usb_dev_handle *, int) { ++g_ad.claims; return g_ad.claimFails ? -EBUSY : 0; }
int f_release(usb_dev_handle *, int) { ++g_ad.releases; return 0; }

uint32_t le32(const uint8_t *p) { return p[0] | (p[1] << 8) | (p[2] << 16) | (uint32_t(p[3]) << 24); }
uint32_t be32(const uint8_t *p) { return (uint32_t(p[0]) << 24) | (p[1] << 16) | (p[2] << 8) | p[3]; }

void respond_read(const std::vector<uint8_t> &cmd, Fault fault) {
  const uint8_t code = cmd[8];
  const size_t hl = cmd[6];
  const uint16_t len = uint16_t((cmd[12] << 8) | cmd[13]);
  std::vector<uint8_t> r(cmd.begin(), cmd.begin() + hl);
  r[8] = fault == Fault::wrongcode ? uint8_t(code ^ 0x80) : code;
  if (code == 0x14) {
    const uint32_t a = cmd[24] | (cmd[25] << 8) | (cmd[26] << 16);
    for (uint32_t i = 0; i < len / 4u; ++i) {
      const uint32_t v = g_ad.regs[a + 4 * i];
      for (int b = 0; b < 4; ++b) r.push_back(uint8_t(v >> (8 * b)));
    }
  } else if (code == 0x24) {
    const uint32_t a = (cmd[25] << 16) | (cmd[26] << 8) | cmd[27];
    const uint32_t v = g_ad.regs[a];
    for (int b = 3; b >= 0; --b) r.push_back(uint8_t(v >> (8 * b)));
  } else {
    const uint16_t v = g_ad.mdio[(cmd[16] << 8) | cmd[18]];
    r.push_back(uint8_t(v >> 8));
    r.push_back(uint8_t(v));
  }
  r.insert(r.end(), 4, 0x00);
  g_ad.in.push_back(r);
}

void apply_write(const std::vector<uint8_t> &cmd, const uint8_t *data) {
  switch (cmd[8]) {
    case 0x13: g_ad.regs[cmd[24] | (cmd[25] << 8) | (cmd[26] << 16)] = le32(data); break;
    case 0x23: g_ad.regs[(cmd[25] << 16) | (cmd[26] << 8) | cmd[27]] = be32(data); break;
    case 0x43: g_ad.mdio[(cmd[16] << 8) | cmd[18]] = uint16_t((data[0] << 8) | data[1]); break;
    default: break;
  }
}

int f_bulk_write(usb_dev_handle *, int, char *bytes, int size, int) {
  if (g_ad.unplugged) return -ENODEV;
  const uint8_t *p = reinterpret_cast<const uint8_t *>(bytes);
  g_ad.outs.emplace_back(p, p + size);
  if (size >= 24 && memcmp(p, kMagic, 6) == 0) {
    const int n = ++g_ad.headers;
    std::vector<uint8_t> cmd(p, p + size);
    g_ad.codes.push_back(cmd[8]);
    auto it = g_ad.faults.find(n);
    const Fault fault = it == g_ad.faults.end() ? Fault::none : it->second;
    if (fault == Fault::unplug) {
      g_ad.unplugged = true;
      return -ENODEV;
    }
    if (fault == Fault::nak) { g_ad.in.push_back({0xAB}); return size; }
    if (fault == Fault::badstatus) { g_ad.in.push_back({0xEE}); return size; }
    g_ad.in.push_back({0xAA});
    switch (cmd[8]) {
      case 0x11: case 0x21: case 0x41:
        if (cmd[8] == 0x11) g_ad.i2cDevice = cmd[18];
        if (fault != Fault::nocomplete) g_ad.in.push_back({0xCA});
        break;
      case 0x14: case 0x24: case 0x44:
        respond_read(cmd, fault);
        break;
      default:
        g_ad.pendingCmd = cmd;
        g_ad.pendingFault = fault;
        break;
    }
    return size;
  }
  if (!g_ad.pendingCmd.empty()) {
    apply_write(g_ad.pendingCmd, p);
    switch (g_ad.pendingFault) {
      case Fault::flashmissing: g_ad.in.push_back({0xAC}); break;
      case Fault::flashlate: g_ad.in.push_back({0xAC}); g_ad.in.push_back({0xBA}); break;
      case Fault::nocomplete: break;
      default: g_ad.in.push_back({0xBA}); break;
    }
    g_ad.pendingCmd.clear();
  }
  return size;
}

int f_bulk_read(usb_dev_handle *, int, char *bytes, int size, int) {
  if (g_ad.unplugged) return -ENODEV;
  if (g_ad.in.empty()) return -ETIMEDOUT;
  std::vector<uint8_t> r = std::move(g_ad.in.front());
  g_ad.in.pop_front();
  const int n = int(r.size()) < size ? int(r.size()) : size;
  memcpy(bytes, r.data(), size_t(n));
  return n;
}

constexpr usb_ops_t kOps = {f_init, f_find_busses, f_find_devices, f_get_busses, f_open, f_close,
                            f_claim, f_release, f_bulk_write, f_bulk_read};

}  // namespace

Adapter &install() {
  usbio_close(usbio_handle, 0);
  g_ad = Adapter{};
  usb_ops_set(&kOps);
  return g_ad;
}

void uninstall() {
  usbio_close(usbio_handle, 0);
  usbio_handle = nullptr;
  usb_ops_set(nullptr);
}

Adapter &adapter() { return g_ad; }

}  // namespace fake

bool read_pcap(const std::string &path, uint32_t &linkType, std::vector<UsbRecord> &records) {
  FILE *f = fopen(path.c_str(), "rb");
  if (!f) return false;
  uint32_t gh[6];
  bool ok = fread(gh, sizeof gh, 1, f) == 1 && gh[0] == 0xa1b2c3d4 && gh[1] == (2u | (4u << 16));
  linkType = ok ? gh[5] : 0;
  records.clear();
  while (ok) {
    uint32_t rh[4];
    if (fread(rh, sizeof rh, 1, f) != 1) break;
    std::vector<uint8_t> buf(rh[2]);
    if (rh[2] < 64 || rh[2] != rh[3] || fread(buf.data(), 1, buf.size(), f) != buf.size()) {
      ok = false;
      break;
    }
    UsbRecord r;
    memcpy(&r.id, &buf[0], 8);
    r.type = char(buf[8]);
    r.xferType = buf[9];
    r.ep = buf[10];
    r.devnum = buf[11];
    memcpy(&r.bus, &buf[12], 2);
    r.flagData = buf[15];
    memcpy(&r.status, &buf[28], 4);
    memcpy(&r.length, &buf[32], 4);
    uint32_t lenCap;
    memcpy(&lenCap, &buf[36], 4);
    if (lenCap != buf.size() - 64) ok = false;
    r.data.assign(buf.begin() + 64, buf.end());
    records.push_back(std::move(r));
  }
  fclose(f);
  return ok;
}
