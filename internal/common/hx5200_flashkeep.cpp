// The journal of kept bytes. Layout, numbers little-endian:
//   "KIVKEEP1", u32 length of the board's name, the name, u32 piece count,
//   per piece u32 address, u32 length, the bytes; then the CRC-32 of all that.
// The board's name is "sim <canonical state directory>" on the simulated board and
// "usb port <port path> serial <serial>" on an adapter. It is written to a temporary file,
// synced, renamed over the journal's name and the directory synced, so the file is either
// whole or absent.
#include "internal/common/hx5200_flashkeep.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "access/usbio.h"
#include "access/usbio_identity.h"
#include "internal/common/hx5200_spiflash.h"

namespace {

constexpr std::string_view kMagic = "KIVKEEP1";
constexpr char kTempFile[] = "kivtool-flash-keep.bin.new";
constexpr uint32_t kMaxName = 1024, kMaxPieces = 64, kMaxPiece = 256, kFlashSpan = 1u << 24;
constexpr size_t kMaxFile = kMagic.size() + 8 + kMaxName + kMaxPieces * (8 + kMaxPiece) + 4;

constexpr std::array<uint32_t, 256> kCrcTable = [] {
  std::array<uint32_t, 256> t{};
  for (uint32_t i = 0; i < 256; ++i) {
    uint32_t c = i;
    for (int k = 0; k < 8; ++k) c = c & 1 ? 0xEDB88320u ^ (c >> 1) : c >> 1;
    t[i] = c;
  }
  return t;
}();

uint32_t crc32(const uint8_t *p, size_t n) {
  uint32_t c = 0xFFFFFFFFu;
  while (n--) c = kCrcTable[(c ^ *p++) & 0xFF] ^ (c >> 8);
  return ~c;
}

void put32(std::vector<uint8_t> &out, uint32_t v) {
  for (int i = 0; i < 4; ++i) out.push_back((uint8_t)(v >> (8 * i)));
}

// The board the flash belongs to; empty when it cannot be told.
std::string board_name() {
  if (usbio_identity_active()) {
    const char *port = nullptr, *serial = nullptr;
    if (!usbio_identity_kept(&port, &serial)) return {};
    return std::string("usb port ") + port + " serial " + serial;
  }
  const char *dir = std::getenv("KIVTOOL_SIM");
  if (!dir || !*dir) return {};
  std::array<char, PATH_MAX> real{};
  return std::string("sim ") + (realpath(dir, real.data()) ? real.data() : dir);
}

bool sync_dir() {
  const int fd = open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return false;
  const bool ok = fsync(fd) == 0;
  close(fd);
  return ok;
}

bool write_all(int fd, const uint8_t *p, size_t n) {
  while (n) {
    const ssize_t w = write(fd, p, n);
    if (w < 0 && errno == EINTR) continue;
    if (w <= 0) return false;
    p += w;
    n -= (size_t)w;
  }
  return true;
}

// A journal as read back: the board's name and the pieces with their bytes.
struct Journal {
  std::string board;
  std::vector<spi_flash_kept_piece_t> pieces;
  std::vector<uint8_t> bytes;
};

// Reads the journal. 1: read, 0: there is none, -1: damaged (`why` says how).
int load(Journal &j, const char *&why) {
  const int fd = open(kSpiFlashKeepFile, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) {
    if (errno == ENOENT) return 0;
    why = std::strerror(errno);
    return -1;
  }
  std::vector<uint8_t> f(kMaxFile + 1);
  size_t n = 0;
  for (ssize_t r; n < f.size() && (r = read(fd, f.data() + n, f.size() - n)) != 0;) {
    if (r < 0 && errno == EINTR) continue;
    if (r < 0) {
      why = std::strerror(errno);
      close(fd);
      return -1;
    }
    n += (size_t)r;
  }
  close(fd);
  f.resize(n);
  if (std::string_view((const char *)f.data(), std::min(n, kMagic.size())) != kMagic.substr(0, std::min(n, kMagic.size()))) {
    why = "bad magic";
    return -1;
  }
  if (n < kMagic.size() + 12 || n > kMaxFile) {
    why = n > kMaxFile ? "too long" : "short";
    return -1;
  }
  why = "bad checksum";
  uint32_t stored = 0;
  for (int i = 0; i < 4; ++i) stored |= (uint32_t)f[n - 4 + i] << (8 * i);
  if (crc32(f.data(), n - 4) != stored) return -1;
  // Checked fields from here on; the checksum matched, so a failure is a writer's fault.
  size_t at = kMagic.size();
  const size_t end = n - 4;
  auto get32 = [&](uint32_t &v) {
    if (end - at < 4) return false;
    v = 0;
    for (int i = 0; i < 4; ++i) v |= (uint32_t)f[at++] << (8 * i);
    return true;
  };
  why = "malformed";
  uint32_t nameLen = 0, count = 0;
  if (!get32(nameLen) || nameLen > kMaxName || end - at < nameLen) return -1;
  j.board.assign((const char *)f.data() + at, nameLen);
  at += nameLen;
  if (!get32(count) || count > kMaxPieces) return -1;
  for (uint32_t i = 0; i < count; ++i) {
    uint32_t a = 0, len = 0;
    if (!get32(a) || !get32(len) || len == 0 || len > kMaxPiece || a >= kFlashSpan || len > kFlashSpan - a ||
        end - at < len)
      return -1;
    j.pieces.emplace_back(a, len);
    j.bytes.insert(j.bytes.end(), f.begin() + (ptrdiff_t)at, f.begin() + (ptrdiff_t)(at + len));
    at += len;
  }
  return at == end ? 1 : -1;
}

}  // namespace

bool spi_flash_keep_save(std::span<const spi_flash_kept_piece_t> pieces, std::span<const uint8_t> bytes) {
  if (access(kSpiFlashKeepFile, F_OK) == 0) {
    std::fprintf(stderr, "spi: %s holds bytes of an earlier write that were not put back: nothing erased "
                         "(remove it once that flash is checked)\n", kSpiFlashKeepFile);
    return false;
  }
  const std::string board = board_name();
  std::vector<uint8_t> out(kMagic.begin(), kMagic.end());
  put32(out, (uint32_t)std::min<size_t>(board.size(), kMaxName));
  out.insert(out.end(), board.begin(), board.begin() + (ptrdiff_t)std::min<size_t>(board.size(), kMaxName));
  put32(out, (uint32_t)pieces.size());
  size_t at = 0;
  for (const auto &[a, n] : pieces) {
    put32(out, a);
    put32(out, n);
    out.insert(out.end(), bytes.begin() + (ptrdiff_t)at, bytes.begin() + (ptrdiff_t)(at + n));
    at += n;
  }
  put32(out, crc32(out.data(), out.size()));
  const int fd = open(kTempFile, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644);
  bool ok = fd >= 0 && write_all(fd, out.data(), out.size()) && fsync(fd) == 0;
  const int err = fd < 0 || !ok ? errno : 0;
  if (fd >= 0) ok = close(fd) == 0 && ok;
  ok = ok && std::rename(kTempFile, kSpiFlashKeepFile) == 0 && sync_dir();
  if (!ok) {
    std::fprintf(stderr, "spi: cannot write %s to keep the bytes around the range (%s): nothing erased\n",
                 kSpiFlashKeepFile, std::strerror(err ? err : errno));
    unlink(kTempFile);
    unlink(kSpiFlashKeepFile);
  }
  return ok;
}

void spi_flash_keep_drop(void) {
  if (unlink(kSpiFlashKeepFile) == 0) sync_dir();
}

int32_t spi_flash_keep_replay(void) {
  Journal j;
  const char *why = "";
  const int got = load(j, why);
  if (got == 0) return 0;
  if (got < 0) {
    std::fprintf(stderr, "spi: %s is damaged (%s): not replayed, left in place\n", kSpiFlashKeepFile, why);
    return 0;
  }
  if (j.board != board_name()) {
    std::fprintf(stderr, "spi: %s holds bytes kept for another board (%s): not replayed, left in place\n",
                 kSpiFlashKeepFile, j.board.c_str());
    return 0;
  }
  // A piece whose every byte is its own or 0xFF (erased, or programmed back part way) takes
  // its bytes by programming; one holding other bytes was written since and stays.
  uint32_t restored = 0, other = 0, otherAt = 0;
  bool cleared = false;
  std::array<uint8_t, kMaxPiece> flash{};
  size_t at = 0;
  for (const auto &[a, n] : j.pieces) {
    const uint8_t *want = j.bytes.data() + at;
    at += n;
    if (int32_t rc = spi_flash_read(a, flash.data(), n); rc != 0) return rc;
    if (std::equal(want, want + n, flash.data())) continue;
    bool programmable = true;
    for (uint32_t i = 0; i < n && programmable; ++i) programmable = flash[i] == want[i] || flash[i] == 0xFF;
    if (programmable) {
      if (!cleared) {
        if (int32_t rc = spi_flash_clear_protect(); rc != 0) return rc;
        cleared = true;
      }
      if (int32_t rc = spi_flash_program(a, want, n); rc != 0) return rc;
      if (int32_t rc = spi_flash_read(a, flash.data(), n); rc != 0) return rc;
    }
    if (std::equal(want, want + n, flash.data())) {
      restored += n;
    } else {
      if (!other) otherAt = a;
      other += n;
    }
  }
  if (other)
    std::fprintf(stderr, "spi: restored %u bytes kept by an interrupted write; %u more (from 0x%06x) hold other "
                         "bytes now and were left as they are\n", restored, other, otherAt);
  else
    std::fprintf(stderr, "spi: restored %u bytes kept by an interrupted write\n", restored);
  spi_flash_keep_drop();
  return 0;
}
