// The image flows of the `spi` command on the differential flash write: progress with the
// phase and the time left on a terminal, the verdict on stdout as the plain rewrite prints
// it, and what the flow itself has to say (nothing to write, the summary) on stderr.
#include "internal/kivcmd/hx5200_cmd_flashwrite.h"

#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "internal/common/hx5200_flashwrite.h"

namespace {

constexpr std::array<const char *, 4> kPhaseNames = {"scan", "erase", "program", "check"};

double seconds_now() {
  timespec t{};
  clock_gettime(CLOCK_MONOTONIC, &t);
  return (double)t.tv_sec + (double)t.tv_nsec / 1e9;
}

// The phase, a bar and the time left on one line of stderr, for a person at a terminal.
// The time left is the estimated transfers still to go at the time per transfer measured
// so far. When stdout shares the terminal the line is taken away before an erase prints
// its own line there.
class PhaseBar {
 public:
  PhaseBar() : on_(isatty(2) != 0), erasePrints_(isatty(1) != 0), start_(seconds_now()) {}
  ~PhaseBar() {
    if (drawn_) std::fputc('\n', stderr);
  }
  PhaseBar(const PhaseBar &) = delete;
  PhaseBar &operator=(const PhaseBar &) = delete;

  static void hook(void *ctx, uint32_t phase, uint64_t done, uint64_t left) {
    static_cast<PhaseBar *>(ctx)->show(phase, done, left);
  }

 private:
  void show(uint32_t phase, uint64_t done, uint64_t left) {
    if (!on_) return;
    if (phase == SPIF_PHASE_ERASE && erasePrints_) {
      if (drawn_) std::fputs("\r\033[K", stderr);
      std::fflush(stderr);
      std::fflush(stdout);
      drawn_ = false;
      last_ = -1;
      return;
    }
    const double now = seconds_now();
    const int pct = done + left ? (int)(done * 100 / (done + left)) : 100;
    if (drawn_ && pct == last_ && phase == phase_ && now - shownAt_ < 0.5) return;
    last_ = pct;
    phase_ = phase;
    shownAt_ = now;
    constexpr int kWidth = 30;
    const int fill = pct * kWidth / 100;
    std::array<char, 32> eta{};
    if (done > 0) {
      const long secs = (long)((now - start_) / (double)done * (double)left + 0.5);
      std::snprintf(eta.data(), eta.size(), "%ld:%02ld:%02ld left", secs / 3600, secs / 60 % 60, secs % 60);
    }
    std::fprintf(stderr, "\r%-7s [%.*s%*s] %3d%% %s\033[K", kPhaseNames[phase & 3], fill,
                 "##############################", kWidth - fill, "", pct, eta.data());
    std::fflush(stderr);
    drawn_ = true;
  }

  bool on_;
  bool erasePrints_;
  double start_;
  double shownAt_ = 0;
  bool drawn_ = false;
  int last_ = -1;
  uint32_t phase_ = 0;
};

}  // namespace

bool flashcmd_full_rewrite(void) {
  const char *v = std::getenv("KIVTOOL_FLASH_FULL");
  return v && std::strcmp(v, "1") == 0;
}

int32_t flashcmd_write_image(uint32_t base, const std::vector<uint8_t> &img) {
  spi_flash_write_report_t r{};
  int32_t rc;
  {
    PhaseBar bar;
    rc = spi_flash_write_range(base, img.data(), (uint32_t)img.size(), &r, PhaseBar::hook, &bar);
  }
  printf("Image Length %d\n", (int)r.inPlace);
  const bool wrote = r.sectorsErased || r.pagesProgrammed;
  if (r.keptUnsure) {
    std::fputs("spi: the flash around the range reads differently each time: nothing erased\n", stderr);
  } else if (r.mismatch) {
    printf("Image not match between 0x%06x ~ 0x%06x !\n", r.pieceFrom, r.pieceTo);
    printf("First difference at 0x%06x: file 0x%02x, flash 0x%02x (%u of %u bytes differ)\n", r.firstAt, r.want,
           r.got, r.differ, r.pieceTo - r.pieceFrom);
  } else if (rc == 0) {
    if (!wrote) std::fputs("spi: the flash already holds the image, nothing written\n", stderr);
    printf("Matched: Compare Image Length %d\n", (int)img.size());
  }
  std::fflush(stdout);
  std::fprintf(stderr, "spi: %u sectors equal, %u erased (%u blocks of 64 KiB), %u pages programmed, %llu transfers%s\n",
         r.sectorsEqual, r.sectorsErased, r.blocksErased, r.pagesProgrammed, (unsigned long long)r.transfers,
         r.scanCut ? " (most sectors differed: the rest was rewritten unread)" : "");
  return rc;
}
