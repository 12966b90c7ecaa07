#include "internal/common/hx5200_tblasicdrv.h"

#include <array>

#include "access/access.h"
#include "internal/common/hx5200_regasicdrv.h"

namespace {

struct TableDesc {
  uint32_t id;
  uint32_t entries;
  uint32_t words;
};

constexpr std::array<TableDesc, 3> kTables{{
    {HX5200_TBL_VLAN, 4096, VLAN_ENTRY_WORDS},
    {HX5200_TBL_IGR_RETAG, 32, RETAG_ENTRY_WORDS},
    {HX5200_TBL_EGR_RETAG, 32, RETAG_ENTRY_WORDS},
}};

constexpr const TableDesc *find(uint32_t table) {
  for (const auto &t : kTables)
    if (t.id == table) return &t;
  return nullptr;
}

constexpr uint32_t kStart = 1u << TBL_ACCESS_CTRL_START_LSP;
constexpr uint32_t kErr = 1u << TBL_ACCESS_CTRL_ERR_LSP;

// Start an operation and wait until the unit drops its busy bit.
int32_t run(uint32_t table, uint32_t index, uint32_t op) {
  const uint32_t ctrl = kStart | (op << TBL_ACCESS_CTRL_OP_LSP) | (table << TBL_ACCESS_CTRL_TABLE_LSP) |
                        (index << TBL_ACCESS_CTRL_INDEX_LSP);
  int32_t ret = reg_write(1, TBL_ACCESS_CTRL, ctrl);
  if (ret != 0) return ret;
  for (uint32_t polls = 0; polls < HX5200_TBL_BUSY_POLLS; ++polls) {
    uint32_t v = 0;
    ret = reg_read(1, TBL_ACCESS_CTRL, &v);
    if (ret != 0) return ret;
    if ((v & kStart) == 0) return (v & kErr) ? HX5200_TBL_ERR_UNIT : 0;
  }
  return HX5200_TBL_ERR_TIMEOUT;
}

}  // namespace

uint32_t hx5200_tbl_size(uint32_t table) {
  const TableDesc *t = find(table);
  return t ? t->entries : 0;
}

uint32_t hx5200_tbl_words(uint32_t table) {
  const TableDesc *t = find(table);
  return t ? t->words : 0;
}

int32_t hx5200_tbl_load(uint32_t table, uint32_t index) {
  const TableDesc *t = find(table);
  if (t == nullptr || index >= t->entries) return HX5200_TBL_ERR_TABLE;
  return run(table, index, TBL_ACCESS_OP_READ);
}

int32_t hx5200_tbl_dataRead(uint32_t word, uint32_t *value) {
  if (value == nullptr) return -8;
  if (word >= TBL_ACCESS_DATA_WORDS) return HX5200_TBL_ERR_TABLE;
  return reg_read(1, TBL_ACCESS_DATA0 + 4 * word, value);
}

int32_t hx5200_tbl_entryRead(uint32_t table, uint32_t index, uint32_t *words, uint32_t n) {
  if (words == nullptr) return -8;
  const TableDesc *t = find(table);
  if (t == nullptr || index >= t->entries || n > t->words) return HX5200_TBL_ERR_TABLE;
  int32_t ret = run(table, index, TBL_ACCESS_OP_READ);
  for (uint32_t w = 0; ret == 0 && w < n; ++w) ret = hx5200_tbl_dataRead(w, &words[w]);
  return ret;
}

int32_t hx5200_tbl_entryWrite(uint32_t table, uint32_t index, const uint32_t *words, uint32_t n) {
  if (words == nullptr) return -8;
  const TableDesc *t = find(table);
  if (t == nullptr || index >= t->entries || n > t->words) return HX5200_TBL_ERR_TABLE;
  for (uint32_t w = 0; w < t->words; ++w) {
    int32_t ret = reg_write(1, TBL_ACCESS_DATA0 + 4 * w, w < n ? words[w] : 0);
    if (ret != 0) return ret;
  }
  return run(table, index, TBL_ACCESS_OP_WRITE);
}

int32_t hx5200_tbl_clear(uint32_t table) {
  if (find(table) == nullptr) return HX5200_TBL_ERR_TABLE;
  return run(table, 0, TBL_ACCESS_OP_CLEAR);
}
