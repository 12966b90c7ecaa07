// Differential write of a flash range.
//
// Scan: the range is read sector by sector under one read set-up (the status polls are
// left out after one wait for the flash to be ready); a sector stops being read at the
// first page that can only be reached through an erase (a differing byte where the flash
// is not 0xFF). Once at least 16 sectors were read and more than three quarters of them
// needed writing, the rest are taken as changed without reading them: a sector whose
// differences only show late (or that the flash holds erased) costs a whole read before
// its rewrite and check, so reading on would make a fully changed image dearer than a plain
// erase-program-compare. Reading an equal sector costs a third of rewriting it, so the scan
// goes on while a fair share of sectors is equal.
//
// Write, one erase unit (sector, or 64 KiB block when all 16 of its sectors need an erase)
// at a time so that kept bytes spend as little time as possible off the flash: erase,
// then program the runs that differ from what the flash holds (0xFF after an erase, so an
// all-0xFF page is never programmed). A sector whose differing bytes are all 0xFF on the
// flash only loses bits: its differing pages are programmed without an erase.
//
// Check: the programmed pages and the erased sectors are read back under one read set-up
// and compared with what they should hold.
#include "internal/common/hx5200_flashwrite.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <vector>

#include "access/usbio.h"
#include "internal/common/hx5200_flashkeep.h"
#include "internal/common/hx5200_spiflash.h"

namespace {

constexpr uint32_t kPage = 256;
constexpr uint32_t kSector = 0x1000;
constexpr uint32_t kSectorsPerBlock = 16;
constexpr uint32_t kPagesPerSector = kSector / kPage;
constexpr uint32_t kScanSample = 16;   // sectors read before the scan may give up
// Bytes between two differing runs that are programmed along rather than starting a new
// program operation (which costs its own enable, address and status polls).
constexpr uint32_t kMergeGap = 96;

// Estimated bulk transfers per piece of work, for the time left (I2C on the register path;
// only the estimate depends on them).
constexpr uint64_t kReadPieceCost = 214;
constexpr uint64_t kProgramPageCost = 400;
constexpr uint64_t kEraseCost = 250;

enum class St : uint8_t { Unread, Equal, Program, Erase };

struct Writer {
  uint32_t base = 0, end = 0;   // the range [base, end)
  uint32_t first = 0;           // address of its first sector
  uint32_t nSec = 0;
  std::vector<uint8_t> want;    // what each touched sector must hold (outside the range: once read)
  std::vector<uint8_t> have;    // what was read from it
  std::vector<St> st;
  spi_flash_write_report_t *rep = nullptr;
  spi_flash_progress_fn progress = nullptr;
  void *ctx = nullptr;
  uint64_t start = 0;           // transfer count at the start
  uint64_t planned = 0;         // transfers the scan's findings will cost to write and check
  uint64_t writeFrom = 0;       // transfers spent when the writing started

  // Scan cursor: sector, next address, the piece in flight.
  uint32_t sec = 0, at = 0, pieceAt = 0, pieceLen = 0;
  uint32_t changed = 0;
  uint32_t pagesWithDiff = 0;   // of the sector being scanned (all reachable by programming)

  uint32_t secAddr(uint32_t i) const { return first + i * kSector; }
  uint32_t idx(uint32_t addr) const { return addr - first; }
  uint64_t spent() const { return usbio_transfers() - start; }
  void tell(uint32_t phase, uint64_t left) const {
    if (progress) progress(ctx, phase, spent(), left);
  }
  // While writing: the plan less what the writing has spent.
  void tellWriting(uint32_t phase) const {
    if (!progress) return;
    const uint64_t used = spent() - writeFrom;
    progress(ctx, phase, spent(), planned > used ? planned - used : 0);
  }
};

// The part of page-aligned [a, a + kPage) that lies inside the range, as a piece.
void range_piece(const Writer &w, uint32_t a, uint32_t *from, uint32_t *len) {
  const uint32_t lo = std::max(a, w.base), hi = std::min(a + kPage - (a & (kPage - 1)), w.end);
  *from = lo;
  *len = hi > lo ? hi - lo : 0;
}

// Planned cost of writing and checking a sector in the state the scan found.
uint64_t sector_cost(St s, uint32_t pages) {
  if (s == St::Erase) return kEraseCost + kPagesPerSector * (kProgramPageCost + kReadPieceCost);
  if (s == St::Program) return pages * (kProgramPageCost + kReadPieceCost);
  return 0;
}

// A sector of the scan is done: count it and decide whether reading on is worth it.
bool finish_sector(Writer &w, St s, uint32_t pagesToProgram) {
  w.st[w.sec] = s;
  w.planned += sector_cost(s, pagesToProgram);
  ++w.rep->sectorsScanned;
  if (s != St::Equal) ++w.changed;
  ++w.sec;
  w.pagesWithDiff = 0;
  if (w.sec < w.nSec) w.at = std::max(w.secAddr(w.sec), w.base);
  if (w.rep->sectorsScanned >= kScanSample && w.changed * 4 > w.rep->sectorsScanned * 3 && w.sec < w.nSec) {
    for (uint32_t i = w.sec; i < w.nSec; ++i) {
      w.st[i] = St::Erase;
      w.planned += sector_cost(St::Erase, 0);
    }
    w.rep->scanCut = true;
    w.sec = w.nSec;
  }
  return w.sec < w.nSec;
}

bool scan_next(void *ctx, uint32_t *addr, uint8_t **buf, uint32_t *len) {
  Writer &w = *static_cast<Writer *>(ctx);
  if (w.pieceLen) {
    // Look at the piece just read.
    bool erase = false, differs = false;
    for (uint32_t k = w.idx(w.pieceAt), e = k + w.pieceLen; k < e; ++k) {
      if (w.have[k] == w.want[k]) continue;
      differs = true;
      if (w.have[k] != 0xFF) {
        erase = true;
        break;
      }
    }
    w.at = w.pieceAt + w.pieceLen;
    w.pieceLen = 0;
    if (differs) ++w.pagesWithDiff;
    if (erase) {
      if (!finish_sector(w, St::Erase, 0)) return false;
    } else if (w.at >= w.end || w.at >= w.secAddr(w.sec) + kSector) {
      if (!finish_sector(w, w.pagesWithDiff ? St::Program : St::Equal, w.pagesWithDiff)) return false;
    }
  } else if (w.sec >= w.nSec) {
    return false;
  }
  uint32_t from = 0, n = 0;
  range_piece(w, w.at, &from, &n);
  // Time left: the range still unread, and what the sectors read so far promise to cost
  // (extended to the unread ones in the same proportion).
  const uint64_t unread = (uint64_t)(w.end - from + kPage - 1) / kPage;
  const uint32_t seen = std::max<uint32_t>(w.rep->sectorsScanned, 1);
  w.tell(SPIF_PHASE_SCAN, unread * kReadPieceCost + w.planned + w.planned * (w.nSec - w.sec) / seen);
  w.pieceAt = from;
  w.pieceLen = n;
  *addr = from;
  *buf = w.have.data() + w.idx(from);
  *len = n;
  return true;
}

// Reads the bytes of the erase sectors that lie outside the range, before they are erased,
// one after the other into `into`.
struct KeptReader {
  std::vector<std::pair<uint32_t, uint32_t>> pieces;   // address, length
  std::vector<uint8_t> into;
  size_t next = 0, at = 0;
};

bool kept_next(void *ctx, uint32_t *addr, uint8_t **buf, uint32_t *len) {
  KeptReader &k = *static_cast<KeptReader *>(ctx);
  if (k.next >= k.pieces.size()) return false;
  const auto [a, n] = k.pieces[k.next++];
  *addr = a;
  *buf = k.into.data() + k.at;
  *len = n;
  k.at += n;
  return true;
}

void add_pieces(std::vector<std::pair<uint32_t, uint32_t>> &out, uint32_t from, uint32_t to) {
  while (from < to) {
    const uint32_t n = std::min(to, (from | (kPage - 1)) + 1) - from;
    out.emplace_back(from, n);
    from += n;
  }
}

// Programs the runs of [from, to) that differ from what the flash holds there (0xFF when
// erased), close runs joined. Counts the pages it programs.
int32_t program_diffs(Writer &w, uint32_t from, uint32_t to, bool erased) {
  uint32_t runFrom = 0, runTo = 0;
  bool open = false;
  uint32_t lastPage = UINT32_MAX;
  auto flush = [&]() -> int32_t {
    if (!open) return 0;
    open = false;
    // Runs are widened to whole 32-bit words inside [from, to): the bytes taken along are
    // equal to the flash (or 0xFF over an erase), so programming them changes nothing, and
    // the data register then carries whole words, as it does for the plain rewrite.
    runFrom = std::max(from, runFrom & ~3u);
    runTo = std::min(to, (runTo + 3) & ~3u);
    for (uint32_t p = runFrom / kPage; p <= (runTo - 1) / kPage; ++p) {
      if (p != lastPage) ++w.rep->pagesProgrammed;
      lastPage = p;
    }
    w.tellWriting(SPIF_PHASE_PROGRAM);
    return spi_flash_program(runFrom, w.want.data() + w.idx(runFrom), runTo - runFrom);
  };
  for (uint32_t a = from; a < to; ++a) {
    const uint8_t cur = erased ? 0xFF : w.have[w.idx(a)];
    if (w.want[w.idx(a)] == cur) continue;
    if (open && a - runTo <= kMergeGap) {
      runTo = a + 1;
      continue;
    }
    if (int32_t rc = flush(); rc != 0) return rc;
    open = true;
    runFrom = a;
    runTo = a + 1;
  }
  return flush();
}

// The check: programmed pages and erased sectors read back and compared.
struct Checker {
  Writer *w;
  std::vector<std::pair<uint32_t, uint32_t>> pieces;
  size_t next = 0;
  std::vector<uint8_t> buf = std::vector<uint8_t>(kPage);
  bool bad = false;
};

bool check_next(void *ctx, uint32_t *addr, uint8_t **buf, uint32_t *len) {
  Checker &c = *static_cast<Checker *>(ctx);
  Writer &w = *c.w;
  if (c.next > 0) {
    const auto [a, n] = c.pieces[c.next - 1];
    const uint8_t *want = w.want.data() + w.idx(a);
    if (std::memcmp(want, c.buf.data(), n) != 0) {
      spi_flash_write_report_t &r = *w.rep;
      r.mismatch = true;
      r.pieceFrom = a;
      r.pieceTo = a + n;
      r.differ = 0;
      for (uint32_t i = n; i-- > 0;) {
        if (want[i] == c.buf[i]) continue;
        ++r.differ;
        r.firstAt = a + i;
        r.want = want[i];
        r.got = c.buf[i];
      }
      c.bad = true;
      return false;
    }
  }
  if (c.next >= c.pieces.size()) return false;
  w.tell(SPIF_PHASE_CHECK, (c.pieces.size() - c.next) * kReadPieceCost);
  const auto [a, n] = c.pieces[c.next++];
  *addr = a;
  *buf = c.buf.data();
  *len = n;
  return true;
}

// Reads with the status polls left out, after one wait for the flash to be ready.
int32_t read_quietly(spi_flash_piece_fn next, void *ctx) {
  spi_flash_cfg_t &cfg = spi_flash_cfg;
  const uint8_t keep = cfg.skipWip;
  int32_t rc = spi_flash_wait_wip();
  if (rc == 0) {
    cfg.skipWip = 1;
    rc = spi_flash_read_pieces(next, ctx);
  }
  cfg.skipWip = keep;
  return rc;
}

}  // namespace

int32_t spi_flash_write_range(uint32_t base, const uint8_t *data, uint32_t len, spi_flash_write_report_t *report,
                              spi_flash_progress_fn progress, void *ctx) {
  *report = {};
  if (len == 0) return 0;
  Writer w;
  w.rep = report;
  w.progress = progress;
  w.ctx = ctx;
  w.start = usbio_transfers();
  w.base = base;
  w.end = base + len;
  w.first = base & ~(kSector - 1);
  w.nSec = (w.end - w.first + kSector - 1) / kSector;
  w.want.assign((size_t)w.nSec * kSector, 0xFF);
  w.have.assign(w.want.size(), 0xFF);
  w.st.assign(w.nSec, St::Unread);
  std::memcpy(w.want.data() + w.idx(base), data, len);
  // Erases and programs wait for the flash after each operation, whatever an earlier
  // calibration left; reads leave those waits out themselves.
  const uint8_t keepSkip = spi_flash_cfg.skipWip;
  spi_flash_cfg.skipWip = 0;
  auto done = [&](int32_t rc) {
    report->transfers = w.spent();
    spi_flash_cfg.skipWip = keepSkip;
    return rc;
  };

  // Bytes kept by a write that was cut off go back first.
  if (int32_t rc = spi_flash_keep_replay(); rc != 0) return done(rc);

  // Scan.
  w.at = base;
  if (int32_t rc = read_quietly(scan_next, &w); rc != 0) return done(rc);

  // What the erases will wipe outside the range is read first.
  KeptReader kept;
  for (uint32_t i : {0u, w.nSec - 1}) {
    if (w.st[i] != St::Erase) continue;
    const uint32_t s = w.secAddr(i);
    if (s < base) add_pieces(kept.pieces, s, std::min(base, s + kSector));
    if (w.end < s + kSector) add_pieces(kept.pieces, std::max(w.end, s), s + kSector);
  }
  std::sort(kept.pieces.begin(), kept.pieces.end());
  kept.pieces.erase(std::unique(kept.pieces.begin(), kept.pieces.end()), kept.pieces.end());
  if (!kept.pieces.empty()) {
    // They exist nowhere else once erased: read until two reads agree (a read exchange that
    // was repeated can return a word of the next one), at most three times.
    size_t total = 0;
    for (const auto &pc : kept.pieces) total += pc.second;
    std::array<std::vector<uint8_t>, 3> reads;
    for (size_t r = 0;; ++r) {
      if (r == reads.size()) {
        report->keptUnsure = true;
        return done(-1);
      }
      kept.into.assign(total, 0);
      kept.next = kept.at = 0;
      if (int32_t rc = read_quietly(kept_next, &kept); rc != 0) return done(rc);
      if (std::find(reads.begin(), reads.begin() + r, kept.into) != reads.begin() + r) break;
      reads[r] = kept.into;
    }
    size_t at = 0;
    for (const auto &[a, n] : kept.pieces) {
      std::memcpy(w.want.data() + w.idx(a), kept.into.data() + at, n);
      at += n;
    }
    // Until they are back and read back equal they live in the journal too.
    if (!spi_flash_keep_save(kept.pieces, kept.into)) return done(-1);
  }

  // Write, erase unit by erase unit.
  bool cleared = false;
  Checker check{&w, {}};
  w.writeFrom = w.spent();
  for (uint32_t i = 0; i < w.nSec;) {
    const uint32_t s = w.secAddr(i);
    uint32_t n = 1;
    if (w.st[i] == St::Equal) {
      ++report->sectorsEqual;
    } else {
      if (!cleared) {
        spi_flash_clear_protect();   // a protected flash shows in the operations below
        cleared = true;
      }
      if (w.st[i] == St::Erase) {
        const bool block = (s & (kSector * kSectorsPerBlock - 1)) == 0 && i + kSectorsPerBlock <= w.nSec &&
                           std::all_of(w.st.begin() + i, w.st.begin() + i + kSectorsPerBlock,
                                       [](St x) { return x == St::Erase; });
        n = block ? kSectorsPerBlock : 1;
        w.tellWriting(SPIF_PHASE_ERASE);
        if (int32_t rc = spi_flash_erase(s, block ? SPIF_ERASE_BLOCK : SPIF_ERASE_SECTOR); rc != 0) return done(rc);
        report->sectorsErased += n;
        report->blocksErased += block ? 1 : 0;
        if (int32_t rc = program_diffs(w, s, s + n * kSector, true); rc != 0) return done(rc);
        add_pieces(check.pieces, s, s + n * kSector);
      } else {
        // Only bits to clear: the pages that differ, inside the range.
        const uint32_t lo = std::max(s, base), hi = std::min(s + kSector, w.end);
        if (int32_t rc = program_diffs(w, lo, hi, false); rc != 0) return done(rc);
        for (uint32_t p = lo; p < hi;) {
          const uint32_t pe = std::min(hi, (p | (kPage - 1)) + 1);
          bool touched = false;
          for (uint32_t a = p; a < pe && !touched; ++a) touched = w.want[w.idx(a)] != w.have[w.idx(a)];
          if (touched) check.pieces.emplace_back(p, pe - p);
          p = pe;
        }
      }
    }
    report->inPlace = std::min(w.end, s + n * kSector) - base;
    i += n;
    w.tellWriting(SPIF_PHASE_PROGRAM);
  }
  report->inPlace = len;
  if (check.pieces.empty()) return done(0);   // nothing written: the scan compared it all

  // Check. The kept bytes lie in erased sectors, which it reads back whole; after a failure
  // the journal stays for the next run.
  if (int32_t rc = read_quietly(check_next, &check); rc != 0) return done(rc);
  if (check.bad) return done(-1);
  if (!kept.pieces.empty()) spi_flash_keep_drop();
  return done(0);
}
