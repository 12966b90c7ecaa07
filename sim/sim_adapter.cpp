// The USB I/O adapter of the simulated board, seen from the device side: it takes command
// headers and data packets from bulk OUT 0x02 and queues status bytes and responses for bulk
// IN 0x81, carrying register accesses to the chip (I2C, SPI) and MDIO accesses to the bus (SMI).
// Everything lives in static buffers: no allocation per transfer.
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "access/usbio.h"
#include "access/usbio_protocol.h"
#include "sim/sim_board.h"
#include "sim/sim_chip.h"

namespace sim {
namespace {

using namespace usbio_proto;
constexpr uint8_t kBadStatus = 0xEE;   // the `badstatus` fault's answer, no protocol byte

// ---- faults -------------------------------------------------------------------------
struct FaultAt {
  uint32_t n;
  Fault kind;
};
std::array<FaultAt, 64> g_faults{};
size_t g_nFaults = 0;

constexpr std::array<std::pair<std::string_view, Fault>, 6> kFaultNames = {{
    {"nak", Fault::nak},
    {"datamissing", Fault::datamissing},
    {"badstatus", Fault::badstatus},
    {"nocomplete", Fault::nocomplete},
    {"wrongcode", Fault::wrongcode},
    {"unplug", Fault::unplug},
}};

bool parse_one(std::string_view item, FaultAt &out) {
  while (!item.empty() && (item.front() == ' ' || item.front() == '\t')) item.remove_prefix(1);
  while (!item.empty() && (item.back() == ' ' || item.back() == '\t')) item.remove_suffix(1);
  size_t at = item.find('@');
  if (at == std::string_view::npos) return false;
  std::string_view name = item.substr(0, at), num = item.substr(at + 1);
  if (num.empty() || num.size() > 9) return false;
  uint32_t n = 0;
  for (char c : num) {
    if (c < '0' || c > '9') return false;
    n = n * 10 + (uint32_t)(c - '0');
  }
  if (n == 0) return false;
  for (const auto &[word, kind] : kFaultNames) {
    if (word == name) {
      out = {n, kind};
      return true;
    }
  }
  return false;
}

Fault fault_for(uint32_t n) {
  for (size_t i = 0; i < g_nFaults; ++i)
    if (g_faults[i].n == n) return g_faults[i].kind;
  return Fault::none;
}

// ---- IN side: pending transfers to the host -------------------------------------------
constexpr size_t kMaxResp = kHeader + 8 + kMaxData + kTrailer;
std::array<uint8_t, kMaxResp> g_resp{};   // the one pending response packet

struct InPacket {
  uint32_t len;   // 1 for a status byte; response length otherwise
  uint8_t byte;   // the status byte
  bool resp;      // true: the bytes are in g_resp
};
std::array<InPacket, 4> g_in{};
size_t g_inHead = 0, g_inCount = 0;

void in_clear() { g_inHead = g_inCount = 0; }
void in_push(InPacket p) {
  if (g_inCount == g_in.size()) return;
  g_in[(g_inHead + g_inCount++) % g_in.size()] = p;
}
void push_status(uint8_t b) { in_push({1, b, false}); }

// ---- OUT side: the command waiting for its data packet --------------------------------
struct Pending {
  bool active = false;
  uint8_t code = 0;
  uint16_t dataLen = 0;
  uint32_t addr = 0;        // 24-bit register address, or flash address
  uint8_t phy = 0, reg = 0;
  uint8_t flag = 0;
  bool noComplete = false;
  bool dataMissing = false;   // fault: claim the data never arrived
};
Pending g_pend;

struct AdapterState {
  uint16_t i2cAddr = kI2cDevAddr;   // the adapter starts out addressing the chip
  uint8_t spiParamA = 0, spiParam2 = 0;
  uint32_t headers = 0;
};
AdapterState g_ad;

FlashSink g_flashSink = nullptr;

inline uint16_t be16(const uint8_t *p) { return (uint16_t)(p[0] << 8 | p[1]); }
inline uint32_t be32(const uint8_t *p) { return (uint32_t)p[0] << 24 | (uint32_t)p[1] << 16 | (uint32_t)p[2] << 8 | p[3]; }

bool looks_like_header(const uint8_t *b, size_t size) {
  return size >= kHeader && std::memcmp(b, kMagic.data(), kMagic.size()) == 0;
}

// Register data words: I2C least significant byte first, SPI most significant first.
uint32_t word_from(const uint8_t *p, bool msbFirst) {
  return msbFirst ? be32(p) : (uint32_t)p[0] | (uint32_t)p[1] << 8 | (uint32_t)p[2] << 16 | (uint32_t)p[3] << 24;
}
void word_to(uint8_t *p, uint32_t v, bool msbFirst) {
  for (int i = 0; i < 4; ++i) p[i] = (uint8_t)(v >> (msbFirst ? 24 - 8 * i : 8 * i));
}

void do_register_write(const uint8_t *data) {
  const bool spi = g_pend.code == kCodeSpiWrite;
  for (uint32_t i = 0; i < g_pend.dataLen / 4u; ++i)
    chip_write(chip_decode(g_pend.addr + 4 * i), word_from(data + 4 * i, spi));
}

// Builds the read response in g_resp: header (byte 8 = code), address block echoed, data,
// four trailing 0xFF bytes.
uint32_t build_read_response(const uint8_t *hdr, uint8_t code, uint32_t addr, uint16_t n, bool wrong) {
  const uint8_t alen = hdr[23];
  uint8_t *r = g_resp.data();
  std::memset(r, 0, kHeader);
  std::memcpy(r, kMagic.data(), kMagic.size());
  r[6] = (uint8_t)(kHeader + alen);
  r[8] = wrong ? (uint8_t)(code ^ 0x80) : code;
  r[9] = hdr[9];
  r[12] = (uint8_t)(n >> 8);
  r[13] = (uint8_t)n;
  r[23] = alen;
  std::memcpy(r + kHeader, hdr + kHeader, alen);
  uint8_t *d = r + kHeader + alen;
  if (code == kCodeSmiRead) {
    uint16_t v = mdio_read(hdr[16], hdr[18]);
    d[0] = (uint8_t)(v >> 8);
    d[1] = (uint8_t)v;
  } else {
    for (uint32_t i = 0; i < n / 4u; ++i)
      word_to(d + 4 * i, chip_read(chip_decode(addr + 4 * i)), code == kCodeSpiRead);
  }
  std::memset(d + n, 0xFF, 4);
  return kHeader + alen + n + 4;
}

// A command header: queue the status byte (and for reads the response) or wait for data.
void on_header(const uint8_t *b, size_t size) {
  const Fault f = fault_for(++g_ad.headers);
  in_clear();
  g_pend = Pending{};
  if (f == Fault::nak) return push_status(kNak);
  if (f == Fault::badstatus) return push_status(kBadStatus);
  const bool noComplete = f == Fault::nocomplete;

  const uint8_t code = b[8], sub = b[9], alen = b[23];
  const uint16_t wlen = be16(b + 10), rlen = be16(b + 12);
  const uint16_t paramB = be16(b + 17);
  const uint8_t *blk = b + kHeader;
  const bool shapeOk = size == kHeader + alen && b[6] == kHeader + alen;
  const bool i2cOk = g_ad.i2cAddr == kI2cDevAddr;
  bool ok = shapeOk;

  switch (code) {
    case kCodeI2cConfig:
    case kCodeSpiConfig:
    case kCodeSpiConfig2:
      ok = ok && alen == 0 && sub == (code == kCodeSpiConfig2 ? 0 : 1);
      if (!ok) break;
      if (code == kCodeI2cConfig) g_ad.i2cAddr = paramB;
      else if (code == kCodeSpiConfig) g_ad.spiParamA = b[14];
      else g_ad.spiParam2 = b[14];
      push_status(kAck);
      if (!noComplete) push_status(kConfigDone);
      return;
    case kCodeI2cWrite:
    case kCodeSpiWrite: {
      const bool spi = code == kCodeSpiWrite;
      ok = ok && sub == 1 && alen == (spi ? 4 : 3) && wlen > 0 && wlen % 4 == 0 && (spi ? blk[0] == 0x02 : i2cOk);
      if (!ok) break;
      const uint32_t addr = spi ? (uint32_t)blk[1] << 16 | blk[2] << 8 | blk[3] : (uint32_t)blk[0] | blk[1] << 8 | blk[2] << 16;
      g_pend = {true, code, wlen, addr, 0, 0, 0, noComplete};
      return push_status(kAck);
    }
    case kCodeSmiWrite:
      ok = ok && sub == 0 && alen == 0 && wlen == 2;
      if (!ok) break;
      g_pend = {true, code, wlen, 0, b[16], b[18], 0, noComplete};
      return push_status(kAck);
    case kCodeI2cRead:
    case kCodeSpiRead:
    case kCodeSmiRead: {
      const bool spi = code == kCodeSpiRead, smi = code == kCodeSmiRead;
      if (smi) ok = ok && sub == 0 && alen == 0 && rlen == 2;
      else ok = ok && sub == 1 && alen == (spi ? 5 : 3) && rlen > 0 && rlen % 4 == 0 && (spi ? blk[0] == 0x03 : i2cOk);
      if (!ok) break;
      uint32_t addr = 0;
      if (code == kCodeI2cRead) addr = (uint32_t)blk[0] | blk[1] << 8 | blk[2] << 16;
      if (spi) addr = (uint32_t)blk[1] << 16 | blk[2] << 8 | blk[3];
      push_status(kAck);
      if (noComplete) return;
      const uint32_t n = build_read_response(b, code, addr, rlen, f == Fault::wrongcode);
      return in_push({n, 0, true});
    }
    case kCodeI2cFlash:
    case kCodeSpiFlash:
    case kCodeSmiFlash:
      ok = size == kHeader && b[6] == kHeader && b[7] == 1 && alen == 0 && wlen > 0 &&
           sub == (code == kCodeSmiFlash ? 0 : 1) && (code != kCodeI2cFlash || i2cOk);
      if (!ok) break;
      g_pend = {true, code, wlen, be32(b + 15), 0, 0, b[20], noComplete, f == Fault::datamissing};
      return push_status(kAck);
    default:
      break;
  }
  push_status(kNak);   // unknown command, bad shape or a device that does not answer
}

void on_data(const uint8_t *b, size_t size) {
  const bool flash = g_pend.code == kCodeI2cFlash || g_pend.code == kCodeSpiFlash || g_pend.code == kCodeSmiFlash;
  if (size != g_pend.dataLen + 4u || g_pend.dataMissing) {
    // A register write keeps waiting for its data; a flash write asks for it again.
    if (flash) {
      g_pend = Pending{};
      push_status(kFlashMissing);
    }
    return;
  }
  if (flash) {
    if (g_flashSink) g_flashSink(g_pend.addr, b, g_pend.dataLen, g_pend.flag);
  } else if (g_pend.code == kCodeSmiWrite) {
    mdio_write(g_pend.phy, g_pend.reg, be16(b));
  } else {
    do_register_write(b);
  }
  const bool noComplete = g_pend.noComplete;
  g_pend = Pending{};
  if (!noComplete) push_status(kWriteDone);
}

}  // namespace

void set_flash_sink(FlashSink fn) { g_flashSink = fn; }

void faults_parse(const char *text) {
  g_nFaults = 0;
  if (!text) return;
  std::string_view all(text);
  while (!all.empty()) {
    size_t comma = all.find(',');
    std::string_view item = all.substr(0, comma);
    FaultAt fa{};
    if (parse_one(item, fa)) {
      if (g_nFaults < g_faults.size()) g_faults[g_nFaults++] = fa;
    } else if (!item.empty()) {
      std::fprintf(stderr, "kivtool: KIVTOOL_SIM_FAULTS: ignoring \"%.*s\" (expected kind@n)\n",
                   (int)item.size(), item.data());
    }
    if (comma == std::string_view::npos) break;
    all.remove_prefix(comma + 1);
  }
}

void adapter_reset(void) {
  in_clear();
  g_pend = Pending{};
  g_ad = AdapterState{};
}

uint32_t adapter_headers_seen(void) { return g_ad.headers; }

int adapter_out(const uint8_t *bytes, size_t size) {
  if (size > 0x7FFFFFFF) return -EINVAL;
  if (g_pend.active && size == g_pend.dataLen + 4u) {
    on_data(bytes, size);
  } else if (looks_like_header(bytes, size)) {
    // A header announcing unplug takes the adapter off the bus as it arrives.
    if (fault_for(g_ad.headers + 1) == Fault::unplug) {
      ++g_ad.headers;
      bus_unplug();
      return -ENODEV;
    }
    on_header(bytes, size);
  } else if (g_pend.active) {
    on_data(bytes, size);
  }
  return (int)size;
}

int adapter_in(uint8_t *bytes, size_t size) {
  if (g_inCount == 0) return 0;
  const InPacket p = g_in[g_inHead];
  g_inHead = (g_inHead + 1) % g_in.size();
  --g_inCount;
  if (p.len > size) return -EOVERFLOW;
  if (p.resp) std::memcpy(bytes, g_resp.data(), p.len);
  else bytes[0] = p.byte;
  return (int)p.len;
}

}  // namespace sim
