// Serial NOR flash vocabulary: the opcodes and register bits the flash driver sends and
// the simulated board's flash model answers.
#pragma once

#include <cstdint>

namespace nor {

// Opcodes.
inline constexpr uint8_t kWriteStatus = 0x01;      // status (and configuration) register write
inline constexpr uint8_t kPageProgram = 0x02;
inline constexpr uint8_t kRead = 0x03;
inline constexpr uint8_t kWriteDisable = 0x04;
inline constexpr uint8_t kReadStatus = 0x05;
inline constexpr uint8_t kWriteEnable = 0x06;
inline constexpr uint8_t kFastRead = 0x0B;
inline constexpr uint8_t kReadConfigMx = 0x15;     // configuration read, Macronix
inline constexpr uint8_t kSectorErase = 0x20;      // 4 KiB
inline constexpr uint8_t kQuadPageProgram = 0x32;
inline constexpr uint8_t kReadConfig = 0x35;
inline constexpr uint8_t kQuadPageProgramMx = 0x38;   // four-line page program, Macronix
inline constexpr uint8_t kDualRead = 0x3B;
inline constexpr uint8_t kChipEraseAlt = 0x60;
inline constexpr uint8_t kQuadRead = 0x6B;
inline constexpr uint8_t kJedecId = 0x9F;
inline constexpr uint8_t kDualIoRead = 0xBB;
inline constexpr uint8_t kChipErase = 0xC7;
inline constexpr uint8_t kBlockErase = 0xD8;       // 64 KiB
inline constexpr uint8_t kQuadIoRead = 0xEB;

// Status register bits.
inline constexpr uint8_t kStatusWip = 0x01;        // operation in progress
inline constexpr uint8_t kStatusWel = 0x02;        // write enable latch
inline constexpr uint8_t kStatusProtect = 0xBC;    // bits 2-5 and 7: block protection
inline constexpr uint8_t kStatusQeMx = 0x40;       // quad enable in the status register (Macronix)
// Configuration register bits.
inline constexpr uint8_t kConfigQe = 0x02;         // quad enable

// Manufacturer ids whose parts differ from the common command set.
inline constexpr uint8_t kMfrMacronix = 0xC2;
inline constexpr uint8_t kMfrIssi = 0x9D;

}  // namespace nor
