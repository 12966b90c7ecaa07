// The USB I/O adapter's wire protocol, shared by the host side (access/usbio.cpp) and the
// simulated board's adapter (sim/sim_adapter.cpp).
//
// Every exchange starts with a 24-byte command header (magic, header length, command code in
// byte 8), optionally followed by an address block and a data packet that ends in four 0xFF
// bytes. The adapter answers with single status bytes and, for reads, a response packet that
// starts with its own header.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace usbio_proto {

inline constexpr std::array<uint8_t, 6> kMagic{0x01, 0xFE, 0x02, 0xFD, 0x03, 0xFC};
inline constexpr size_t kHeader = 24;
inline constexpr size_t kMaxAddrBlock = 16;
inline constexpr size_t kTrailer = 4;  // four 0xFF after the data of a data packet / response
inline constexpr size_t kMaxData = 0xFFFF;

// Status bytes from the adapter.
inline constexpr uint8_t kAck = 0xAA;           // command accepted
inline constexpr uint8_t kNak = 0xAB;           // refused: the host resends
inline constexpr uint8_t kWriteDone = 0xBA;
inline constexpr uint8_t kConfigDone = 0xCA;
inline constexpr uint8_t kFlashMissing = 0xAC;  // flash data packet missing

// Command codes (header byte 8): configuration, write, read and flash write per side.
inline constexpr uint8_t kCodeI2cConfig = 0x11, kCodeI2cWrite = 0x13, kCodeI2cRead = 0x14, kCodeI2cFlash = 0x15;
inline constexpr uint8_t kCodeSpiConfig = 0x21, kCodeSpiWrite = 0x23, kCodeSpiRead = 0x24, kCodeSpiFlash = 0x25;
inline constexpr uint8_t kCodeSpiConfig2 = 0x41, kCodeSmiWrite = 0x43, kCodeSmiRead = 0x44, kCodeSmiFlash = 0x45;

}  // namespace usbio_proto
