// USB capture: every bulk transfer written as a submit and a complete record of a pcap
// file with link type 220 (Linux usbmon, 64-byte header), readable by Wireshark/tshark.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "access/access_local.h"
#include "access/usbio.h"

namespace {

constexpr uint32_t kPcapMagic = 0xa1b2c3d4;
constexpr uint32_t kSnapLen = 65535;
constexpr uint32_t kLinkUsbMmapped = 220;
constexpr size_t kUsbmonHeader = 64;
constexpr uint16_t kBus = 1;
constexpr int32_t kInProgress = -115;  // -EINPROGRESS
constexpr uint8_t kXferBulk = 3;

FILE *g_pcap = nullptr;
uint64_t g_next_id = 1;

template <typename T>
void put(uint8_t *p, T v) {
  memcpy(p, &v, sizeof v);  // the writer's byte order, as usbmon does
}

void write_record(const timespec &ts, uint64_t id, char type, uint8_t ep, uint8_t devnum, int32_t status,
                  uint32_t length, const uint8_t *data, uint32_t lenCap, char flagData) {
  uint8_t h[kUsbmonHeader] = {};
  put<uint64_t>(h + 0, id);
  h[8] = static_cast<uint8_t>(type);
  h[9] = kXferBulk;
  h[10] = ep;
  h[11] = devnum;
  put<uint16_t>(h + 12, kBus);
  h[14] = '-';
  h[15] = static_cast<uint8_t>(flagData);
  put<int64_t>(h + 16, ts.tv_sec);
  put<int32_t>(h + 24, static_cast<int32_t>(ts.tv_nsec / 1000));
  put<int32_t>(h + 28, status);
  put<uint32_t>(h + 32, length);
  put<uint32_t>(h + 36, lenCap);

  uint32_t rec[4] = {static_cast<uint32_t>(ts.tv_sec), static_cast<uint32_t>(ts.tv_nsec / 1000),
                     static_cast<uint32_t>(kUsbmonHeader + lenCap), static_cast<uint32_t>(kUsbmonHeader + lenCap)};
  fwrite(rec, sizeof rec, 1, g_pcap);
  fwrite(h, sizeof h, 1, g_pcap);
  if (lenCap) fwrite(data, 1, lenCap, g_pcap);
}

void close_at_exit() { usb_capture_close(); }

}  // namespace

int usb_capture_open(const char *path) {
  if (!path || !*path) return -1;
  usb_capture_close();
  FILE *f = fopen(path, "wb");
  if (!f) return -1;
  const uint32_t gh[6] = {kPcapMagic, 2u | (4u << 16), 0, 0, kSnapLen, kLinkUsbMmapped};
  if (fwrite(gh, sizeof gh, 1, f) != 1 || fflush(f) != 0) {
    fclose(f);
    return -1;
  }
  static bool registered = false;
  if (!registered) registered = atexit(close_at_exit) == 0;
  g_pcap = f;
  return 0;
}

void usb_capture_close(void) {
  if (!g_pcap) return;
  fclose(g_pcap);
  g_pcap = nullptr;
}

namespace access_local {

void usb_capture_xfer(uint8_t ep, uint8_t devnum, const uint8_t *data, int size, int result,
                      const timespec &submitted, const timespec &completed) {
  if (!g_pcap) return;
  const uint64_t id = g_next_id++;
  const bool in = (ep & 0x80) != 0;
  const uint32_t len = size > 0 ? static_cast<uint32_t>(size) : 0;
  const int32_t status = result < 0 ? result : 0;
  const uint32_t moved = result > 0 ? static_cast<uint32_t>(result) : 0;
  if (in) {
    write_record(submitted, id, 'S', ep, devnum, kInProgress, len, nullptr, 0, '<');
    const uint32_t got = moved < len ? moved : len;
    write_record(completed, id, 'C', ep, devnum, status, got, data, got, got ? 0 : '<');
  } else {
    write_record(submitted, id, 'S', ep, devnum, kInProgress, len, data, len, 0);
    write_record(completed, id, 'C', ep, devnum, status, moved, nullptr, 0, '>');
  }
  fflush(g_pcap);
}

}  // namespace access_local
