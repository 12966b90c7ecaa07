// Writing a range of the flash by touching only what differs: the flash is read first,
// only sectors whose bytes cannot be reached by programming are erased (a whole 64 KiB
// block when all its sectors need it), the bytes an erase wipes outside the range are
// programmed back, and what was written is read back. Built on the flash operations of
// hx5200_spiflash only; assumes the SPI controller page is selected.
#pragma once

#include <cstdint>

// Phases, in the order a write goes through them (erase and program alternate per sector
// or block).
#define SPIF_PHASE_SCAN 0u
#define SPIF_PHASE_ERASE 1u
#define SPIF_PHASE_PROGRAM 2u
#define SPIF_PHASE_CHECK 3u

// Called often while a range is written: the phase, bulk transfers spent so far and an
// estimate of those still to go.
typedef void (*spi_flash_progress_fn)(void *ctx, uint32_t phase, uint64_t done, uint64_t left);

struct spi_flash_write_report_t {
  uint32_t sectorsEqual;      // sectors that already held their bytes (not touched)
  uint32_t sectorsErased;     // sectors erased, those of block erases included
  uint32_t blocksErased;      // of them, 64 KiB block erases
  uint32_t pagesProgrammed;   // 256-byte pages that got a program operation
  uint32_t sectorsScanned;    // sectors compared before the writing started
  bool scanCut;               // most sectors differed: the rest was rewritten unread
  uint32_t inPlace;           // range bytes known written (from the start), for a failure
  uint64_t transfers;         // bulk transfers of the whole write
  bool keptUnsure;            // the bytes to keep around the range read differently each time: nothing erased
  // The first difference the check found (when `mismatch`): the piece read, the first
  // differing byte and how many bytes of the piece differ.
  bool mismatch;
  uint32_t pieceFrom, pieceTo, firstAt, differ;
  uint8_t want, got;
};

// Writes len bytes (at least 1) at flash address base, which the caller has checked to
// fit the flash. 0 when the flash holds them (report->pagesProgrammed and sectorsErased
// both 0: it held them before), -1 when the check found a difference, otherwise the code
// of the failed operation. `progress` may be null.
int32_t spi_flash_write_range(uint32_t base, const uint8_t *data, uint32_t len, spi_flash_write_report_t *report,
                              spi_flash_progress_fn progress, void *ctx);
