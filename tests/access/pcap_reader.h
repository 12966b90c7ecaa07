// Reads back the tool's USB captures: pcap, link type 220, 64-byte usbmon headers.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

struct UsbRecord {
  char type = 0;
  uint8_t xferType = 0, ep = 0, devnum = 0;
  uint16_t bus = 0;
  int32_t status = 0;
  uint32_t length = 0;
  uint64_t id = 0;
  std::vector<uint8_t> data;
};

// False when the file is not a well-formed capture of link type 220.
inline bool read_pcap(const std::string &path, std::vector<UsbRecord> &records) {
  records.clear();
  FILE *f = fopen(path.c_str(), "rb");
  if (!f) return false;
  uint32_t gh[6];
  bool ok = fread(gh, sizeof gh, 1, f) == 1 && gh[0] == 0xa1b2c3d4 && gh[1] == (2u | (4u << 16)) && gh[5] == 220;
  uint32_t rh[4];
  while (ok && fread(rh, sizeof rh, 1, f) == 1) {
    std::vector<uint8_t> b(rh[2]);
    uint32_t lenCap = 0;
    ok = rh[2] >= 64 && rh[2] == rh[3] && fread(b.data(), 1, b.size(), f) == b.size();
    if (ok) memcpy(&lenCap, &b[36], 4);
    ok = ok && lenCap == b.size() - 64;
    if (!ok) break;
    UsbRecord r;
    memcpy(&r.id, &b[0], 8);
    r.type = char(b[8]);
    r.xferType = b[9];
    r.ep = b[10];
    r.devnum = b[11];
    memcpy(&r.bus, &b[12], 2);
    memcpy(&r.status, &b[28], 4);
    memcpy(&r.length, &b[32], 4);
    r.data.assign(b.begin() + 64, b.end());
    records.push_back(std::move(r));
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

// Command code of every command header, in order.
inline std::vector<uint8_t> command_codes(const std::vector<UsbRecord> &all) {
  static const uint8_t kMagic[6] = {0x01, 0xFE, 0x02, 0xFD, 0x03, 0xFC};
  std::vector<uint8_t> codes;
  for (const auto &p : out_payloads(all))
    if (p.size() >= 24 && memcmp(p.data(), kMagic, 6) == 0) codes.push_back(p[8]);
  return codes;
}
