// The `spi` command: SPI flash access, controller tuning, image programming and checks.
//
// Every invocation owns the flash through the arbitration register, initialises the
// controller, runs one subcommand on the SPI controller page, gives the flash back and
// prints the closing line. The handler's result is the release's: a subcommand's failure
// shows through its messages, except for the few that return at once.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string_view>
#include <vector>

#include "access/access.h"
#include "internal/common/hx5200_spiflash.h"
#include "internal/kivcmd/hx5200_cmd.h"
#include "internal/kivcmd/hx5200_cmd_flashwrite.h"

namespace {

spi_flash_cfg_t &cfg = spi_flash_cfg;

// A subcommand's result; `now` makes the handler return it at once, without the release
// and the closing line.
struct Outcome {
  int32_t rc = 0;
  bool now = false;
};

constexpr const char *kDumpFile = "flash_copy.bin";
constexpr uint32_t kDumpMax = 0x100000;
constexpr uint32_t kCfgOffset = 0x6000;
constexpr uint32_t kCfgMax = 0x2000;

bool channel_ok(uint32_t ch) { return ch == 1 || ch == 2 || ch == 4; }

// Progress of long work on stderr, only for a person watching a terminal.
class Progress {
 public:
  Progress(const char *what, uint64_t total) : what_(what), total_(total), on_(total > 0 && isatty(2)) {}
  ~Progress() { finish(); }
  Progress(const Progress &) = delete;
  Progress &operator=(const Progress &) = delete;

  void update(uint64_t done) {
    if (!on_) return;
    int pct = (int)(done * 100 / total_);
    if (pct == last_) return;
    last_ = pct;
    constexpr int kWidth = 40;
    int fill = pct * kWidth / 100;
    std::fprintf(stderr, "\r%-10s [%.*s%*s] %3d%%", what_, fill, "########################################",
                 kWidth - fill, "", pct);
    std::fflush(stderr);
  }
  bool shown() const { return on_; }
  void finish() {
    if (on_ && last_ >= 0) std::fputc('\n', stderr);
    on_ = false;
  }

 private:
  const char *what_;
  uint64_t total_;
  bool on_;
  int last_ = -1;
};

struct FileCloser {
  FILE *f;
  ~FileCloser() {
    if (f) std::fclose(f);
  }
};

// `err` of open_flash_file() for a file that opened but is not a regular file.
constexpr int kNotRegular = -1;

const char *open_failure(int err) { return err == kNotRegular ? "not a regular file" : std::strerror(err); }

// Opens a file a flash command reads (or, with forWrite, creates and empties) in binary
// mode. It is opened without waiting (a FIFO would wait for its other end while the flash
// is held) and kept only when it is a regular file; callers do this before any erase. On
// failure: null, with the reason in `err` (an errno value or kNotRegular).
FILE *open_flash_file(const char *file, bool forWrite, int &err) {
  const int flags = (forWrite ? O_WRONLY | O_CREAT : O_RDONLY) | O_NONBLOCK | O_CLOEXEC;
  const int fd = file ? open(file, flags, 0666) : -1;
  err = file ? errno : ENOENT;
  if (fd < 0) return nullptr;
  struct stat st{};
  FILE *f = nullptr;
  if (fstat(fd, &st) != 0) {
    err = errno;
  } else if (!S_ISREG(st.st_mode)) {
    err = kNotRegular;
  } else if (forWrite && ftruncate(fd, 0) != 0) {
    err = errno;
  } else if (fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK) != 0 ||
             !(f = fdopen(fd, forWrite ? "wb" : "rb"))) {
    err = errno;
  }
  if (!f) close(fd);
  return f;
}

// Opens a file named on the command line for binary reading; says so when it cannot (the
// reason on standard error).
FILE *open_image(const char *file) {
  int err = 0;
  FILE *f = open_flash_file(file, false, err);
  if (!f) {
    printf("FILE %s open fail!\n", file ? file : "");
    std::fprintf(stderr, "spi: %s: %s\n", file ? file : "", open_failure(err));
  }
  return f;
}

// Files named on the command line must be readable before anything is done with them.
bool file_accessible(const char *file) {
  int rc = file ? access(file, R_OK) : -1;
  if (rc != 0) printf("Failed to access file: %d\r\n", rc);
  return rc == 0;
}

void print_file_info(const char *file) {
  struct stat st{};
  if (stat(file, &st) != 0) return;
  auto text = [](time_t t, std::array<char, 32> &out) {
    struct tm tmv{};
    out[0] = '\0';
    if (localtime_r(&t, &tmv)) strftime(out.data(), out.size(), "%Y-%m-%d %H:%M:%S", &tmv);
    return out.data();
  };
  std::array<char, 32> buf{};
  printf("File:%s\tSize:%zu Bytes\r\n", file, (size_t)st.st_size);
  printf("Last modified time:%s\r\n", text(st.st_mtime, buf));
  printf("last access time:%s\r\n", text(st.st_atime, buf));
  printf("last status change time:%s\r\n", text(st.st_ctime, buf));
}

// Where compared bytes come from: a file from its current position, or an image already
// in memory.
struct Source {
  FILE *f = nullptr;
  const char *name = "";
  const uint8_t *mem = nullptr;
  uint64_t memLen = 0;

  // Up to `want` bytes into buf; -1 when the file cannot be read (said on stderr, with the
  // system's reason).
  long take(uint8_t *buf, size_t want) {
    if (!f) {
      const size_t n = (size_t)std::min<uint64_t>(want, memLen);
      if (n) std::memcpy(buf, mem, n);
      mem += n;
      memLen -= n;
      return (long)n;
    }
    errno = 0;
    const size_t n = want ? std::fread(buf, 1, want, f) : 0;
    if (n < want && std::ferror(f)) {
      std::fprintf(stderr, "spi: cannot read %s: %s\n", name, std::strerror(errno ? errno : EIO));
      return -1;
    }
    return (long)n;
  }
};

// Compares the source with the flash from flashAddr, 256 bytes at a time, for at most
// `limit` bytes; goes on while a chunk of at least 16 bytes came from the source. `total`
// only sizes the progress display. `detail` adds the first differing byte to the mismatch
// report. A source that cannot be read ends the comparison without a verdict. Nothing is
// compared past `room`, the flash left from flashAddr (the flash would wrap the address):
// a source with more to compare there fails.
int32_t compare_image(Source &src, uint32_t flashAddr, uint64_t limit, uint64_t total, bool detail,
                      uint64_t room = UINT64_MAX) {
  const uint64_t wanted = limit;
  limit = std::min(limit, room);
  std::array<uint8_t, 256> fileBuf{}, flashBuf{};
  uint64_t compared = 0;
  Progress progress("verify", total);
  size_t n = 0;
  do {
    uint64_t left = limit - compared;
    size_t want = left < fileBuf.size() ? (size_t)left : fileBuf.size();
    const long got = src.take(fileBuf.data(), want);
    if (got < 0) return -1;
    n = (size_t)got;
    if (spi_flash_read(flashAddr, flashBuf.data(), (uint32_t)n) != 0) return -1;
    if (std::memcmp(fileBuf.data(), flashBuf.data(), n) != 0) {
      progress.finish();
      printf("Image not match between 0x%06x ~ 0x%06x !\n", flashAddr, (uint32_t)(flashAddr + n));
      if (detail) {
        size_t first = 0, differ = 0;
        for (size_t i = n; i-- > 0;) {
          if (fileBuf[i] != flashBuf[i]) {
            first = i;
            ++differ;
          }
        }
        printf("First difference at 0x%06x: file 0x%02x, flash 0x%02x (%zu of %zu bytes differ)\n",
               (uint32_t)(flashAddr + first), fileBuf[first], flashBuf[first], differ, n);
      }
      return -1;
    }
    flashAddr += (uint32_t)n;
    compared += n;
    progress.update(compared);
  } while (n >= 16 && compared < limit);
  progress.finish();
  if (compared == room && wanted > room) {
    const long more = src.take(fileBuf.data(), 1);
    if (more < 0) return -1;
    if (more > 0) {
      printf("Image goes past the end of the flash at 0x%06llx, not compared\n", (unsigned long long)(flashAddr));
      return -1;
    }
  }
  printf("Matched: Compare Image Length %d\n", (int)compared);
  return 0;
}

// Programs an image held in memory at flashAddr, one flash page at a time. Returns the
// result of the first failing step; *done counts the bytes programmed.
int32_t program_image(const std::vector<uint8_t> &img, uint32_t flashAddr, uint64_t *done, const char *what) {
  Progress progress(what, img.size());
  *done = 0;
  while (*done < img.size()) {
    const uint32_t at = (uint32_t)(flashAddr + *done);
    const uint32_t n = (uint32_t)std::min<uint64_t>(img.size() - *done, 256 - (at & 0xFF));
    int32_t rc = spi_flash_program(at, img.data() + *done, n);
    if (rc != 0) return rc;
    *done += n;
    progress.update(*done);
  }
  return 0;
}

// Reads what is to be programmed at `base`: at most `len` bytes of `file` from `offset`, up
// to its end. Everything is checked before the flash is touched: the file must be a regular
// file, it must read in full (no read error, nothing missing against the size it reports),
// and what it gives must fit the flash (its size from the identification) from `base`.
// A refusal is reported and gives false; nothing has been erased or programmed then.
bool read_image(const char *file, uint64_t offset, uint64_t len, uint32_t base, std::vector<uint8_t> &img) {
  uint32_t capacity = 0;
  const int32_t rc = spi_flash_capacity(&capacity);
  if (rc != 0) {
    printf("Cannot identify the flash (code %d), nothing written\n", (int)rc);
    return false;
  }
  const uint64_t room = base < capacity ? capacity - base : 0;
  auto tooLarge = [&](uint64_t n) {
    printf("Image of %llu bytes does not fit the %u KiB flash from 0x%06x, nothing written\n", (unsigned long long)n,
           capacity >> 10, base);
    return false;
  };
  auto failed = [file](const char *what, int err) {
    if (err == kNotRegular)
      printf("File %s is not a regular file, nothing written\n", file);
    else
      printf("File %s: %s: %s, nothing written\n", file, what, std::strerror(err));
    return false;
  };
  int openErr = 0;
  FILE *f = open_flash_file(file, false, openErr);
  if (!f) return failed("cannot open", openErr);
  FileCloser closer{f};
  struct stat st{};
  if (fstat(fileno(f), &st) != 0) return failed("cannot open", errno);
  const uint64_t size = (uint64_t)st.st_size;
  const uint64_t expected = size > offset ? std::min(size - offset, len) : 0;
  if (expected > room) return tooLarge(expected);
  if (offset && std::fseek(f, (long)offset, SEEK_SET) != 0) return failed("cannot seek", errno);
  // To its end, not to the size it reports (files of /proc report none): one byte past the
  // room shows that it does not fit.
  const uint64_t most = std::min(len, room + 1);
  constexpr size_t kStep = 0x10000;
  img.clear();
  size_t got = 0;
  while (got < most) {
    const size_t want = (size_t)std::min<uint64_t>(most - got, kStep);
    img.resize(got + want);
    errno = 0;
    const size_t n = std::fread(img.data() + got, 1, want, f);
    const int err = errno;
    got += n;
    if (n < want && std::ferror(f)) {
      char what[64];
      std::snprintf(what, sizeof what, "read error after %zu bytes", got);
      return failed(what, err ? err : EIO);
    }
    if (n < want) break;
  }
  img.resize(got);
  if (got > room) return tooLarge(got);
  if (got < expected) {
    printf("File %s: only %zu of %llu bytes could be read, nothing written\n", file, got,
           (unsigned long long)expected);
    return false;
  }
  return true;
}

// ---- subcommands ---------------------------------------------------------------------

Outcome sub_read(void **argv) {
  uint32_t addr = cmd_nextNumOr(argv, 0), len = cmd_nextNumOr(argv, 0);
  if (!channel_ok(cfg.channel)) {
    puts("Channel must be set 1, 2 or 4!");
    return {-1};
  }
  if (len >= 2048) {
    puts("length should not be bigger than 2048 bytes!");
    return {-1};
  }
  spi_flash_clear_protect();   // a read also drops the block protection
  std::array<uint8_t, 2048> buf{};
  int32_t rc = spi_flash_read(addr, buf.data(), len);
  if (rc != 0) return {rc};
  printf("\nRead SPI Flash: ");
  for (uint32_t i = 0; i < len; ++i) {
    if (i % 16 == 0) printf("\n%06x: ", addr + i);
    printf("%02x ", buf[i]);
  }
  printf("\n");
  return {0};
}

Outcome sub_write(void **argv) {
  uint32_t addr = cmd_nextNumOr(argv, 0), data = cmd_nextNumOr(argv, 0), len = cmd_nextNumOr(argv, 0);
  spi_flash_clear_protect();
  if (len > 4) {
    puts("length should not be more than 4 bytes!");
    return {-1};
  }
  const std::array<uint8_t, 4> bytes = {(uint8_t)data, (uint8_t)(data >> 8), (uint8_t)(data >> 16),
                                        (uint8_t)(data >> 24)};
  return {spi_flash_program(addr, bytes.data(), len)};
}

// One erase of a range: protection is cleared first; when that fails this erase gives -1.
int32_t erase_one(uint32_t addr, uint32_t kind) {
  if (spi_flash_clear_protect() != 0) return -1;
  return spi_flash_erase(addr, kind);
}

Outcome sub_erase(void **argv) {
  const char *kind = cmd_nextStr(argv);
  std::string_view k = kind ? kind : "";
  if (k == "all") {
    spi_flash_clear_protect();
    return {spi_flash_erase(0, SPIF_ERASE_CHIP)};
  }
  const bool sector = k == "sector";
  if (!sector && k != "block") return {-2};
  const uint32_t first = cmd_nextNumOr(argv, 0), last = cmd_nextNumOr(argv, 0);
  const uint32_t shift = sector ? 12 : 16;
  // The flash sees 24 address bits: one pass over them erases everything a longer range
  // would, so the count is bounded there (a range up to 0xFFFFFFFF must still end).
  const uint64_t most = 1u << (24 - shift);
  // Every number is erased; the first failure is the range's result.
  int32_t rc = 0;
  for (uint64_t n = first; n <= last && n - first < most; ++n) {
    const int32_t one = erase_one((uint32_t)(n << shift), sector ? SPIF_ERASE_SECTOR : SPIF_ERASE_BLOCK);
    if (rc == 0) rc = one;
  }
  return {rc};
}

// `rdsr`, `rdcr`: one flash register, printed once it has been read.
Outcome print_flash_reg(int32_t (*read)(uint8_t *), const char *format) {
  uint8_t v = 0;
  int32_t rc = read(&v);
  if (rc == 0) printf(format, v);
  return {rc};
}
Outcome sub_rdsr(void **) { return print_flash_reg(spi_flash_read_status, "the status register = 0x%x\n"); }
Outcome sub_rdcr(void **) { return print_flash_reg(spi_flash_read_config, "the control register1 = 0x%x\n"); }

Outcome sub_rdid(void **) {
  uint32_t id = 0;
  int32_t rc = spi_flash_read_id(&id);
  if (rc == 0) printf("manfacturer ID %x deviceID0 %x deviceID1 %x\n", id & 0xFF, (id >> 8) & 0xFF, (id >> 16) & 0xFF);
  return {rc};
}

Outcome sub_wrsr(void **argv) {
  const char *which = cmd_nextStr(argv);
  std::string_view w = which ? which : "";
  uint32_t status = cmd_nextNumOr(argv, 0);
  if (w == "1") return {spi_flash_write_status((uint8_t)status, 0, false)};
  if (w == "2") return {spi_flash_write_status((uint8_t)status, (uint8_t)cmd_nextNumOr(argv, 0), true)};
  return {-2};
}

Outcome sub_wren(void **) { return {spi_flash_write_enable()}; }
Outcome sub_wrdi(void **) { return {spi_flash_write_disable()}; }
Outcome sub_clearprotect(void **) { return {spi_flash_clear_protect()}; }

Outcome sub_setch(void **argv) {
  uint32_t n = cmd_nextNumOr(argv, 0);
  if (!channel_ok(n)) {
    puts("please set 1, 2, 4");
    return {-2};
  }
  cfg.reqChannel = n;
  return {0};
}

Outcome sub_getch(void **) {
  printf("SPIC channel = %d\n", (int)cfg.channel);
  return {0};
}

Outcome sub_setspd(void **argv) {
  uint32_t n = cmd_nextNumOr(argv, 0), source = 0, divisor = 0;
  if (!spi_flash_clock_pair(n, &source, &divisor)) {
    puts("please set 12, 33, 50, 75, 100");
    return {-2};
  }
  cfg.reqClock = n;
  return {0};
}

Outcome sub_getspd(void **) {
  uint32_t mhz = 0;
  if (spi_flash_get_clock(&mhz) != 0) {
    spi_flash_page(PAGE_SWCORE);
    return {-1, true};
  }
  printf("SPIC clock = %d\n", (int)mhz);
  return {0};
}

Outcome sub_setsysdly(void **argv) {
  cfg.sysDelay = cmd_nextNumOr(argv, 0) & 0xFF;
  return {0};
}

Outcome sub_getsysdly(void **) {
  printf("spi_sysDelay = %d\n", (int)cfg.sysDelay);
  return {0};
}

Outcome sub_dumptobin(void **argv) {
  uint32_t start = cmd_nextNumOr(argv, 0), len = cmd_nextNumOr(argv, 0);
  int err = 0;
  FILE *f = open_flash_file(kDumpFile, true, err);
  if (!f) {
    printf("FILE %s open fail!\n", kDumpFile);
    std::fprintf(stderr, "spi: %s: %s\n", kDumpFile, open_failure(err));
    return {-1};
  }
  // The file is closed here so that a failed close (the last data not written) is seen.
  FileCloser closer{f};
  auto writeFailed = [&](int why) {
    printf("FILE %s write fail: %s\n", kDumpFile, std::strerror(why));
    return Outcome{-1};
  };
  if (len > kDumpMax) return {-1};
  std::vector<uint8_t> buf(len);
  {
    // One read of the whole range; in pieces only while a progress bar is shown.
    Progress progress("dump", len);
    const uint32_t step = progress.shown() ? 0x4000 : len;
    uint32_t done = 0;
    do {
      uint32_t n = len - done < step ? len - done : step;
      int32_t rc = spi_flash_read(start + done, buf.data() + done, n);
      if (rc != 0) return {rc};
      done += n;
      progress.update(done);
    } while (done < len);
  }
  errno = 0;
  if (len && std::fwrite(buf.data(), 1, len, f) != len) return writeFailed(errno ? errno : EIO);
  closer.f = nullptr;
  errno = 0;
  if (std::fclose(f) != 0) return writeFailed(errno ? errno : EIO);
  return {0};
}

// The flash left from `from` to the end of the flash (its size from the identification);
// false, said on standard output, when the flash cannot be identified.
bool flash_room(uint32_t from, uint64_t &room) {
  uint32_t capacity = 0;
  if (const int32_t rc = spi_flash_capacity(&capacity); rc != 0) {
    printf("Cannot identify the flash (code %d), nothing compared\n", (int)rc);
    return false;
  }
  room = from < capacity ? capacity - from : 0;
  return true;
}

Outcome sub_verify(void **argv) {
  const char *file = cmd_nextStr(argv);
  FILE *f = open_image(file);
  if (!f) return {-1};
  FileCloser closer{f};
  struct stat st{};
  uint64_t size = fstat(fileno(f), &st) == 0 ? (uint64_t)st.st_size : 0;
  uint64_t room = 0;
  if (!flash_room(0, room)) return {-1};
  Source src{f, file};
  return {compare_image(src, 0, UINT64_MAX, size, false, room)};
}

Outcome sub_verifywithbase(void **argv) {
  const char *file = cmd_nextStr(argv);
  uint32_t fileStart = cmd_nextNumOr(argv, 0), flashStart = cmd_nextNumOr(argv, 0), len = cmd_nextNumOr(argv, 0);
  FILE *f = open_image(file);
  if (!f) return {-1};
  FileCloser closer{f};
  if (std::fseek(f, fileStart, SEEK_SET) != 0) return {-1};
  uint64_t room = 0;
  if (!flash_room(flashStart, room)) return {-1};
  Source src{f, file};
  return {compare_image(src, flashStart, len, len, false, room)};
}

// Makes the flash writable before the configuration area is rewritten.
int32_t prepare_flash(void) { return spi_flash_clear_protect(); }

Outcome sub_updatecfg(void **argv) {
  const char *file = cmd_nextStr(argv);
  // Every step runs in its fixed order (the two sectors are erased before the file is
  // opened); the first failure is the subcommand's result. The open never blocks and takes
  // regular files only, so a FIFO or a device cannot hold the flash.
  int32_t rc = prepare_flash();
  for (uint32_t sector : {kCfgOffset, kCfgOffset + 0x1000})
    if (const int32_t erased = spi_flash_erase(sector, SPIF_ERASE_SECTOR); rc == 0) rc = erased;
  FILE *f = open_image(file);
  if (!f) return {-1};
  FileCloser closer{f};
  if (std::fseek(f, kCfgOffset, SEEK_SET) != 0 && rc == 0) rc = -1;
  // With the configuration window open the controller's flash address 0 is the start of
  // the configuration area, so the chunks are programmed counting from 0.
  reg_write(1, PAGE_REG_ADDR, PAGE_SWCORE);
  reg_write(1, SPIF_CFG_WINDOW, 1);
  reg_write(1, PAGE_REG_ADDR, PAGE_SPIC);
  std::array<uint8_t, 256> buf{};
  uint32_t written = 0, counter = 0, percent = 0;
  constexpr uint32_t kStep = kCfgMax / 100;
  while (rc == 0 && written <= kCfgMax) {
    if (counter >= kStep) {
      counter -= kStep;
      ++percent;
      printf("\nupdate config complete: %02d", (int)percent);
    }
    errno = 0;
    size_t n = std::fread(buf.data(), 1, buf.size(), f);
    if (n < buf.size() && std::ferror(f)) {
      std::fprintf(stderr, "spi: cannot read %s: %s\n", file, std::strerror(errno ? errno : EIO));
      rc = -1;
    }
    if (n == 0 || rc != 0) break;
    rc = spi_flash_program(written, buf.data(), (uint32_t)n);
    if (rc != 0) break;
    written += (uint32_t)n;
    counter += 256;
  }
  reg_write(1, PAGE_REG_ADDR, PAGE_SWCORE);
  reg_write(1, SPIF_CFG_WINDOW, 0);
  reg_write(1, PAGE_REG_ADDR, PAGE_SPIC);
  printf("Image Length %d\n", (int)written);
  return {rc};
}

Outcome sub_cal(void **) {
  if (spi_flash_calibrate() != 0) {
    puts("SPIC  Calibration FAILED");
    return {-1};
  }
  printf("spi_sysDelay = %d\n", (int)cfg.sysDelay);
  return {0};
}

// Erases what the image will cover: whole 64 KiB blocks where they fit, 4 KiB sectors else.
int32_t erase_for_image(uint64_t size) {
  for (uint64_t a = 0; a < size;) {
    int32_t rc;
    if ((a & 0xFFFF) == 0 && size - a >= 0x10000) {
      rc = spi_flash_erase((uint32_t)a, SPIF_ERASE_BLOCK);
      a += 0x10000;
    } else {
      rc = spi_flash_erase((uint32_t)a, SPIF_ERASE_SECTOR);
      a += 0x1000;
    }
    if (rc != 0) return rc;
  }
  return 0;
}

// Before an image is programmed: the requested clock and channel, then calibration. On
// failure the handler ends at once, back on the switch core page, without giving the
// flash back.
bool prepare_for_image(void) {
  if (spi_flash_apply_settings() == 0) {
    printf("g_SpiCH=%d, spic_clk=%d\n", (int)cfg.channel, (int)cfg.clock);
    if (spi_flash_calibrate() == 0) {
      // Calibration leaves the status polls off; programming waits for every page again.
      cfg.skipWip = 0;
      return true;
    }
  }
  spi_flash_page(PAGE_SWCORE);
  return false;
}

Outcome sub_update(void **argv) {
  const char *file = cmd_nextStr(argv);
  if (!file_accessible(file)) return {-1};
  print_file_info(file);
  std::vector<uint8_t> img;
  if (!read_image(file, 0, UINT64_MAX, 0, img)) return {-1};
  if (img.empty()) {   // refused before the calibration, which may erase a sector
    printf("File %s is empty, nothing written\n", file);
    return {-1};
  }
  if (!prepare_for_image()) return {-1, true};
  if (!flashcmd_full_rewrite()) return {flashcmd_write_image(0, img)};

  spi_flash_clear_protect();
  int32_t rc = erase_for_image(img.size());
  if (rc != 0) return {rc};
  uint64_t done = 0;
  rc = program_image(img, 0, &done, "update");
  printf("Image Length %d\n", (int)done);
  if (rc != 0) return {rc};
  Source src{nullptr, file, img.data(), img.size()};
  return {compare_image(src, 0, done, done, true)};
}

Outcome sub_pgwithbase(void **argv) {
  const char *file = cmd_nextStr(argv);
  uint32_t fileStart = cmd_nextNumOr(argv, 0), flashStart = cmd_nextNumOr(argv, 0), len = cmd_nextNumOr(argv, 0);
  if (!file_accessible(file)) return {-1};
  print_file_info(file);
  std::vector<uint8_t> img;
  if (!read_image(file, fileStart, len, flashStart, img)) return {-1};
  if (img.empty()) {
    struct stat st{};
    if (len == 0) printf("Length 0, nothing written\n");
    else if (stat(file, &st) == 0)
      printf("File %s: start 0x%x is at or past its end (%llu bytes), nothing written\n", file, fileStart,
             (unsigned long long)st.st_size);
    else printf("File %s: nothing to read from 0x%x, nothing written\n", file, fileStart);
    return {-1};
  }
  if (!flashcmd_full_rewrite()) return {flashcmd_write_image(flashStart, img)};
  uint64_t done = 0;
  int32_t rc = program_image(img, flashStart, &done, "program");
  printf("Image Length %d\n", (int)done);
  if (rc != 0) return {rc};
  // Programming only clears bits: a range that was not erased shows up here.
  Source src{nullptr, file, img.data(), img.size()};
  return {compare_image(src, flashStart, done, done, true)};
}

Outcome not_supported(const char *word) {
  printf("spi %s: not supported\n", word);
  return {-1};
}

Outcome sub_auto(void **) { return not_supported("auto"); }

Outcome sub_pg0861flash(void **argv) {
  if (!file_accessible(cmd_nextStr(argv))) return {-1};
  if (!prepare_for_image()) return {-1, true};
  return not_supported("pg0861flash");
}

Outcome sub_pg0861flash2(void **argv) {
  if (!file_accessible(cmd_nextStr(argv))) return {-1};
  if (!file_accessible(cmd_nextStr(argv))) return {-1};
  return not_supported("pg0861flash2");
}

using SubFn = Outcome (*)(void **argv);

}  // namespace

const char hx5200_usageSpi[] =
    "{ read'read flash'  {  %d'Start address' %d'length (should be less then 2K Byte)'  }  | "
    "write'write a byte to flash'  {  %d'Address' %d'data' %d'length 1~4byte'  }  | erase 'erase spi "
    "flash'  {  all'erase the whole flash'  |  sector'erase sectors (unit:4KB)' { %d'Start sector "
    "number'%d'End sector number' }  |  block'erase blocks (unit:64KB)' { %d'Start block "
    "number'%d'End block number' }  }  | update'update the irom image' %s'file name'  | "
    "updatecfg'update the configuration bin file' %s'file name'  | cal 'calibrate SPIC'  | auto 'set "
    "SPIC auto mode'  | setsysdly 'sets SPIC sysdelay' %d  | getsysdly 'gets SPIC sysdelay'  | setspd "
    "'sets SPIC clock' %d'100, 75, 50, 33, 12'  | getspd 'gets SPIC clock'  | setch 'sets SPIC "
    "channel: 1, 2, 4' %d'1, 2, 4'  | getch 'gets SPIC channel'  | rdsr'read the status register of "
    "spi flash'  | rdcr'read the status and control register of spi flash'  | rdid'read the chip ID "
    "of spi flash'  | wrsr'write the status or configuration of spi flash'  {  1'1: set status "
    "(1byte) only' %d'status data'  |  2'2: set status (1byte) and config-1 (1byte)' %d'status data' "
    "%d'config-1 data'  }  | wren'write enable'  | wrdi'wrdi write disable'  | dumptobin'flash dump to "
    "a bin file' %d'start address' %d'length'  | clearprotect'clear the block protect'  | "
    "pgwithbase'update the irom image' %s'file name ' %d 'the start address of the file' %d 'the "
    "start address of the flash' %d 'length'  | pg0861flash'update the irom image' %s'file name ' %d "
    "'flash fw # ' %d 'using key of fw '  | pg0861flash2'update the irom image' %s 'file 1 name ' %s "
    "'file 2 name ' %d 'using key of fw '  | verifywithbase'verify the image' %s'file name ' %d 'the "
    "start address of the file' %d 'the start address of the flash' %d 'length'  | verify'verify the "
    "image' %s'file name' }";

namespace {

constexpr auto kSubCmds = std::to_array<cmd_sub_t<SubFn>>({
    {"read", sub_read},
    {"write", sub_write},
    {"erase", sub_erase},
    {"update", sub_update},
    {"updatecfg", sub_updatecfg},
    {"cal", sub_cal},
    {"auto", sub_auto},
    {"setsysdly", sub_setsysdly},
    {"getsysdly", sub_getsysdly},
    {"setspd", sub_setspd},
    {"getspd", sub_getspd},
    {"setch", sub_setch},
    {"getch", sub_getch},
    {"rdsr", sub_rdsr},
    {"rdcr", sub_rdcr},
    {"rdid", sub_rdid},
    {"wrsr", sub_wrsr},
    {"wren", sub_wren},
    {"wrdi", sub_wrdi},
    {"dumptobin", sub_dumptobin},
    {"clearprotect", sub_clearprotect},
    {"pgwithbase", sub_pgwithbase},
    {"pg0861flash", sub_pg0861flash},
    {"pg0861flash2", sub_pg0861flash2},
    {"verifywithbase", sub_verifywithbase},
    {"verify", sub_verify},
});

Outcome run_subcommand(const char *word, void **argv) {
  const cmd_sub_t<SubFn> *row = cmd_findSub(kSubCmds, word ? word : "");
  if (row == nullptr) return {-2};
  spi_flash_page(PAGE_SPIC);
  Outcome o = row->fn(argv);
  if (!o.now) spi_flash_page(PAGE_SWCORE);
  return o;
}

}  // namespace

kiv_int32 hx5200_cmd_spi(kiv_uint32 uid, kiv_int32 argc, void **argv) {
  (void)uid;
  (void)argc;
  const char *word = cmd_nextStr(argv);
  int32_t acquired = spi_flash_acquire();
  if (acquired == 0) {
    spi_flash_controller_init();   // its result is not used: the subcommand reports
    Outcome o = run_subcommand(word, argv);
    if (o.now) return o.rc;
    if (o.rc != 0) kiv_markLineFailed();   // reported by its messages only
  } else {
    std::fprintf(stderr, "spi: could not own the flash (code %d)\n", (int)acquired);
    kiv_markLineFailed();
  }
  int32_t rc = spi_flash_release();
  puts("SPI Flash CMD Over");
  return rc;
}

const cmd_subWords_t hx5200_wordsSpi = cmd_subWords(kSubCmds);
