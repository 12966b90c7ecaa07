// VLAN unit of the simulated chip: the table access unit (control word 0x4A300000, data
// words 0x4A300004..0x4A300018) in front of the VLAN table (4096 entries) and the ingress and
// egress retagging tables (32 entries each). An operation completes at once. The per-port
// VLAN registers (PVIDs, port control, filter and retagging enables) are plain storage.
#include <cstdint>

#include "sim/sim_chip.h"

namespace sim {
namespace {

constexpr uint32_t kCtrl = 0x4A300000u;
constexpr uint32_t kData0 = 0x4A300004u;
constexpr uint32_t kDataWords = 6;
constexpr uint32_t kStart = 1u << 31;
constexpr uint32_t kErr = 1u << 30;
constexpr uint32_t kOpRead = 0, kOpWrite = 1, kOpClear = 2;

constexpr uint32_t kSpace = 0x564Cu;

struct Table {
  uint32_t id;
  uint32_t entries;
  uint32_t words;
};
constexpr Table kTables[] = {{1, 4096, 5}, {2, 32, 3}, {3, 32, 3}};

const Table *findTable(uint32_t id) {
  for (const Table &t : kTables)
    if (t.id == id) return &t;
  return nullptr;
}

constexpr uint64_t entryKey(uint32_t table, uint32_t index, uint32_t word) {
  return (uint64_t)kSpace << 32 | table << 20 | index << 3 | word;
}

// Runs the operation; false when the table or index does not exist.
bool runOp(uint32_t ctrl) {
  const uint32_t index = ctrl & 0xFFFu;
  const uint32_t op = (ctrl >> 24) & 3u;
  const Table *t = findTable((ctrl >> 16) & 0xFu);
  if (t == nullptr || index >= t->entries) return false;
  switch (op) {
    case kOpRead:
      for (uint32_t w = 0; w < kDataWords; ++w)
        store_set(kData0 + 4 * w, w < t->words ? store_get(entryKey(t->id, index, w)) : 0);
      return true;
    case kOpWrite:
      for (uint32_t w = 0; w < t->words; ++w) store_set(entryKey(t->id, index, w), store_get(kData0 + 4 * w));
      return true;
    case kOpClear:
      for (uint32_t i = 0; i < t->entries; ++i)
        for (uint32_t w = 0; w < t->words; ++w)
          if (store_get(entryKey(t->id, i, w)) != 0) store_set(entryKey(t->id, i, w), 0);
      return true;
    default:
      return false;
  }
}

bool vlanRead(uint32_t, uint32_t &) { return false; }

bool vlanWrite(uint32_t addr, uint32_t value) {
  if (addr != kCtrl) return false;
  uint32_t stored = value & ~(kStart | kErr);
  if ((value & kStart) && !runOp(value)) stored |= kErr;
  store_set(kCtrl, stored);
  return true;
}

}  // namespace

const Unit unit_vlan = {"vlan", nullptr, vlanRead, vlanWrite};
}  // namespace sim
