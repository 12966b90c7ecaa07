// Table driver: entry access to the chip's tables through the table access unit
// (control word + six data words, see hx5200_regasicdrv.h).
#pragma once

#include <cstdint>

enum hx5200_tbl_id : uint32_t {
  HX5200_TBL_VLAN = 1,       // 4096 entries, 5 words
  HX5200_TBL_IGR_RETAG = 2,  // 32 entries, 3 words
  HX5200_TBL_EGR_RETAG = 3,  // 32 entries, 3 words
};

// Result codes of the table driver (besides the access codes passed through).
constexpr int32_t HX5200_TBL_ERR_TABLE = -3;    // unknown table or index out of range
constexpr int32_t HX5200_TBL_ERR_TIMEOUT = -11; // the unit stayed busy
constexpr int32_t HX5200_TBL_ERR_UNIT = -12;    // the unit flagged the operation as failed
constexpr uint32_t HX5200_TBL_BUSY_POLLS = 1000;

// Number of entries of a table, 0 for an unknown id.
uint32_t hx5200_tbl_size(uint32_t table);
// Number of data words of an entry, 0 for an unknown id.
uint32_t hx5200_tbl_words(uint32_t table);

// Load entry `index` into the data words (no data word is read).
int32_t hx5200_tbl_load(uint32_t table, uint32_t index);
// Read data word `word` (0..5) of the entry last loaded.
int32_t hx5200_tbl_dataRead(uint32_t word, uint32_t *value);
// Whole entry: load and read `n` words (n at most the table's word count).
int32_t hx5200_tbl_entryRead(uint32_t table, uint32_t index, uint32_t *words, uint32_t n);
// Write `n` words (the rest of the entry is written as 0) into entry `index`.
int32_t hx5200_tbl_entryWrite(uint32_t table, uint32_t index, const uint32_t *words, uint32_t n);
// Clear every entry of the table (all words 0).
int32_t hx5200_tbl_clear(uint32_t table);
