// Reads back the tool's USB captures (KIVTOOL_PCAP): pcap, link type 220, 64-byte usbmon
// headers. Shared by every test folder.
#pragma once

#include <cstdint>
#include <cstdio>
#include <algorithm>
#include <cstring>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include "access/usbio_protocol.h"

struct UsbHeader {  // as laid out in the file
  uint64_t id;
  char type;
  uint8_t xferType, ep, devnum;
  uint16_t bus;
  uint8_t unused1[14];
  int32_t status;
  uint32_t length, lenCap;
  uint8_t unused2[24];
};
static_assert(sizeof(UsbHeader) == 64);
struct UsbRecord : UsbHeader {
  std::vector<uint8_t> data;
};

// False when the file is not a well-formed capture of link type 220 (the records read up to
// the fault are kept).
inline bool read_pcap(const std::string &path, std::vector<UsbRecord> &records) {
  records.clear();
  FILE *f = fopen(path.c_str(), "rb");
  if (!f) return false;
  uint32_t gh[6], rh[4];
  bool ok = fread(gh, sizeof gh, 1, f) == 1 && gh[0] == 0xa1b2c3d4 && gh[1] == (2u | (4u << 16)) && gh[5] == 220;
  while (ok && fread(rh, sizeof rh, 1, f) == 1) {
    UsbRecord r{};
    r.data.resize(rh[2] >= 64 ? rh[2] - 64 : 0);
    ok = rh[2] >= 64 && rh[2] == rh[3] && fread(static_cast<UsbHeader *>(&r), 64, 1, f) == 1 &&
         fread(r.data.data(), 1, r.data.size(), f) == r.data.size() && r.lenCap == r.data.size();
    if (ok) records.push_back(std::move(r));
  }
  fclose(f);
  return ok;
}

// OUT payloads in order (commands and data packets).
inline std::vector<std::vector<uint8_t>> out_payloads(const std::vector<UsbRecord> &all) {
  std::vector<std::vector<uint8_t>> outs;
  for (const UsbRecord &r : all)
    if (r.type == 'S' && r.ep == 0x02) outs.push_back(r.data);
  return outs;
}

// Command headers the host sent (OUT payloads that start with the magic), in order.
inline std::vector<std::vector<uint8_t>> command_headers(const std::vector<UsbRecord> &all) {
  using usbio_proto::kHeader, usbio_proto::kMagic;
  std::vector<std::vector<uint8_t>> cmds;
  for (auto &p : out_payloads(all))
    if (p.size() >= kHeader && std::equal(kMagic.begin(), kMagic.end(), p.begin())) cmds.push_back(std::move(p));
  return cmds;
}
inline std::vector<std::vector<uint8_t>> command_headers(const std::string &path) {
  std::vector<UsbRecord> all;
  read_pcap(path, all);
  return command_headers(all);
}

// Command code of every command header, in order.
inline std::vector<uint8_t> command_codes(const std::vector<UsbRecord> &all) {
  std::vector<uint8_t> codes;
  for (const auto &h : command_headers(all)) codes.push_back(h[8]);
  return codes;
}

// A command header as the host sends it: 24 bytes with the given fields set, then the
// address block.
inline std::vector<uint8_t> usb_header(uint8_t code, uint8_t sub,
                                       std::initializer_list<std::pair<int, uint8_t>> fields = {},
                                       const std::vector<uint8_t> &block = {}) {
  std::vector<uint8_t> h{0x01, 0xFE, 0x02, 0xFD, 0x03, 0xFC, uint8_t(24 + block.size()), 0, code, sub};
  h.resize(24, 0);
  h[23] = uint8_t(block.size());
  for (auto [i, v] : fields) h[size_t(i)] = v;
  h.insert(h.end(), block.begin(), block.end());
  return h;
}

// Bytes as lower-case hex pairs, at most `max` of them ("..." after a cut), with `sep` after each.
inline std::string hex_of(const std::vector<uint8_t> &bytes, size_t max = SIZE_MAX, const char *sep = "") {
  std::string s;
  char t[4];
  for (size_t i = 0; i < bytes.size() && i < max; ++i) {
    snprintf(t, sizeof t, "%02x", bytes[i]);
    s += std::string(t) + sep;
  }
  return bytes.size() > max ? s + "..." : s;
}
