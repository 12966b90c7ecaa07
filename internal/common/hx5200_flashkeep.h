// The journal of the bytes a flash write keeps around its range: when a sector must be
// erased for a range that covers only part of it, the bytes outside the range live in
// `kivtool-flash-keep.bin` (current directory) from before the erase until they are on the
// flash again and read back equal, so that a run killed in between (or a host losing power)
// does not lose them. The next write replays a journal left behind before it starts.
#pragma once

#include <cstdint>
#include <span>
#include <utility>

inline constexpr char kSpiFlashKeepFile[] = "kivtool-flash-keep.bin";

// One saved piece: flash address and length (1..256, within one page).
using spi_flash_kept_piece_t = std::pair<uint32_t, uint32_t>;

// Writes the journal for this board (the pieces, their bytes one after the other) and makes
// it durable. False, with a line on stderr, when it cannot be written or a journal that was
// not replayed (another board's, a damaged one) holds the file: nothing may be erased then.
bool spi_flash_keep_save(std::span<const spi_flash_kept_piece_t> pieces, std::span<const uint8_t> bytes);
// Removes the journal once its bytes are back on the flash.
void spi_flash_keep_drop(void);
// Replays a journal left by an interrupted write: each saved piece is programmed back
// where the flash holds 0xFF or its own bytes, left alone (and named) where it holds other
// bytes; then the journal is removed. A journal of another board or a damaged one is
// reported and left in place. One line on stderr for each of these. 0, or the code of the
// failed flash operation (the journal then stays for the next run). Assumes the SPI
// controller page is selected.
int32_t spi_flash_keep_replay(void);
