// The image flows of the `spi` command (`update`, `pgwithbase`) on the differential flash
// write: what the user sees of it.
#pragma once

#include <cstdint>
#include <vector>

// KIVTOOL_FLASH_FULL=1 asks for the plain full rewrite instead (erase everything the image
// covers, program all of it, compare all of it).
bool flashcmd_full_rewrite(void);

// Writes `img` (not empty, checked to fit) at flash address `base`, touching only what
// differs. Prints the erase lines, "Image Length %d", the check's verdict and a summary
// line on stdout, and the phase with the time left on stderr when that is a terminal.
// 0 when the flash holds the image.
int32_t flashcmd_write_image(uint32_t base, const std::vector<uint8_t> &img);
