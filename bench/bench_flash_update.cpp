// Bulk transfers of `spi update` of a 1 MiB image on the simulated board (I2C), the plain
// full rewrite (KIVTOOL_FLASH_FULL=1) against the flow that touches only what differs, for
// the cases that matter: another image, the same image again, an image whose second half
// is 0xFF, one 4 KiB sector changed, and the worst case for the differential flow (the
// first page of every sector equal, the rest changed); then an erased flash, and every second
// sector changed (the scan never gives up), and every sector's difference in its last page.
// Prints a table; at 1 ms per
// transfer (a real adapter at USB full speed) the transfer count is the time in ms.
#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "access/access.h"
#include "bench/bench_quiet.h"
#include "access/usbio.h"
#include "internal/common/hx5200_spiflash.h"
#include "kiv/kiv_parser.h"
#include "sim/sim.h"

namespace {

constexpr size_t kImage = 1u << 20;
constexpr size_t kFlash = 4u << 20;
// The calibration pattern at 0x40010, as a boot image carries it (without it the
// calibration rewrites its sector before every update, in both flows alike).
constexpr std::array<uint8_t, 16> kCalPattern = {0x99, 0x99, 0x96, 0x96, 0x3F, 0xCC, 0x66, 0xFC,
                                                 0xC0, 0x33, 0xCC, 0x03, 0xE5, 0xDC, 0x31, 0x62};

using Bytes = std::vector<uint8_t>;

Bytes random_bytes(size_t n, uint32_t seed) {
  Bytes b(n);
  uint32_t x = seed * 2654435761u + 1;
  for (auto &c : b) c = (uint8_t)((x = x * 1103515245u + 12345u) >> 16);
  for (size_t i = 0; i < kCalPattern.size() && 0x40010 + i < n; ++i) b[0x40010 + i] = kCalPattern[i];
  return b;
}

void write_all(const std::string &path, const Bytes &b) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  if (fd < 0 || write(fd, b.data(), b.size()) != (ssize_t)b.size()) std::abort();
  close(fd);
}

// Sets the flash in place (the board maps flash.bin shared, so it sees the new bytes).
void put_flash(const std::string &dir, const Bytes &content) {
  const int fd = open((dir + "/flash.bin").c_str(), O_WRONLY);
  if (fd < 0 || pwrite(fd, content.data(), content.size(), 0) != (ssize_t)content.size()) std::abort();
  close(fd);
}

Bytes read_flash(const std::string &dir, size_t n) {
  Bytes b(n);
  const int fd = open((dir + "/flash.bin").c_str(), O_RDONLY);
  if (fd < 0 || pread(fd, b.data(), n, 0) != (ssize_t)n) std::abort();
  close(fd);
  return b;
}


struct Case {
  const char *name;
  Bytes before;   // the first 1 MiB of the flash before the update
  Bytes image;
};

}  // namespace

int main() {
  std::array<char, 64> tmpl{};
  std::snprintf(tmpl.data(), tmpl.size(), "/tmp/kivbench-update-XXXXXX");
  if (!mkdtemp(tmpl.data())) return 1;
  const std::string dir = tmpl.data(), simDir = dir + "/sim";
  usb_ops_set(sim_attach(simDir.c_str()));
  usbio_use_i2c();
  usbio_connect();
  platform_delay_set([](uint32_t us) { return usleep(us); });
  kiv_init(1, 256, 256);
  const kiv_uint32 uid = kiv_userInit("bench", 1, 0xC0, 4, &hx5200_rootGroup);
  run_line(uid, "spi rdid");   // maps the flash

  const Bytes a = random_bytes(kImage, 1), b = random_bytes(kImage, 2);
  Bytes halfFF = b;
  std::fill(halfFF.begin() + kImage / 2, halfFF.end(), 0xFF);
  Bytes oneSector = a;
  const Bytes other = random_bytes(0x1000, 3);
  std::copy(other.begin(), other.end(), oneSector.begin() + 0x80000);
  Bytes worst = b;   // every sector: the first page as the flash (a) holds it, the rest not
  for (size_t s = 0; s < kImage; s += 0x1000) std::copy(a.begin() + s, a.begin() + s + 256, worst.begin() + s);
  Bytes erased(kImage, 0xFF), everyOther = a;   // every second sector from another image
  for (size_t s = 0; s < kImage; s += 0x2000) std::copy(b.begin() + s, b.begin() + s + 0x1000, everyOther.begin() + s);
  // Every sector: 15 pages erased on the flash (programmed without an erase), the last one
  // different (an erase): the scan reads whole sectors before finding out.
  Bytes lateFlash = a, late = a;
  for (size_t s = 0; s < kImage; s += 0x1000) {
    std::fill(lateFlash.begin() + s, lateFlash.begin() + s + 0xF00, 0xFF);
    std::copy(b.begin() + s + 0xF00, b.begin() + s + 0x1000, late.begin() + s + 0xF00);
  }
  const std::array<Case, 8> cases = {{
      {"(a) random image over another", a, b},
      {"(b) the same image again", a, a},
      {"(c) second half 0xFF over random", a, halfFF},
      {"(d) one aligned 4 KiB sector changed", a, oneSector},
      {"worst: first page of each sector equal", a, worst},
      {"image over an erased flash", erased, a},
      {"every second sector changed", a, everyOther},
      {"late differences in every sector", lateFlash, late},
  }};

  std::printf("spi update of a 1 MiB image, bulk transfers on the board (I2C)\n");
  std::printf("%-40s %12s %12s %8s %10s\n", "case", "full", "differential", "ratio", "vs full(a)");
  uint64_t fullA = 0;
  int bad = 0;
  for (const Case &c : cases) {
    uint64_t counts[2] = {0, 0};
    for (int diff = 0; diff < 2; ++diff) {
      Bytes flash(kFlash, 0xFF);
      std::copy(c.before.begin(), c.before.end(), flash.begin());
      put_flash(simDir, flash);
      write_all(dir + "/img.bin", c.image);
      if (diff) unsetenv("KIVTOOL_FLASH_FULL");
      else setenv("KIVTOOL_FLASH_FULL", "1", 1);
      const uint64_t t0 = usbio_transfers();
      run_line(uid, "spi update " + dir + "/img.bin");
      counts[diff] = usbio_transfers() - t0;
      if (read_flash(simDir, kImage) != c.image) {
        std::printf("%s: the flash does not hold the image afterwards\n", c.name);
        bad = 1;
      }
    }
    if (fullA == 0) fullA = counts[0];
    std::printf("%-40s %12llu %12llu %7.3fx %9.3fx\n", c.name, (unsigned long long)counts[0],
                (unsigned long long)counts[1], (double)counts[1] / (double)counts[0],
                (double)counts[1] / (double)fullA);
  }
  std::printf("At 1 ms per transfer: full (a) %.1f min\n", (double)fullA / 60000.0);
  unsetenv("KIVTOOL_FLASH_FULL");
  usbio_close(usbio_handle, 0);
  sim_detach();
  return bad;
}
