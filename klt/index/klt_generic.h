// Records whose layout the trace itself states.
//
// An index carries a layout for each record number it uses. A layout is mapped onto the row of that
// name that fits best; if it equals the row, the row's own decoder is used and this module costs
// nothing. Otherwise records are read field by field into the row's memory form: fields that the
// row lacks are skipped, fields that the layout lacks get their defaults. A record that fits no row
// is skipped, but its time step counts.
//
//   layout entry, behind a number byte 0:
//     u8 record number | u8 length, name | u8 number of fields | fields
//   count field:  fe | u8 type | u8 number of fields that it covers
//   other field:  u8 type | u8 length, name | u8 length, reference
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "klt/format/klt_codec.h"
#include "klt/format/klt_record.h"
#include "klt/format/klt_schema.h"
#include "klt/storage/klt_input.h"

// How one stored field is read.
struct KLT_StoredField {
  std::string name;         // empty for a count
  uint32_t descriptor = 0;  // as in a row
  int map = -1;             // the row's field that it feeds, or -1

  [[nodiscard]] KLT_Type type() const { return static_cast<KLT_Type>(descriptor & 0xff); }
  [[nodiscard]] bool isCount() const { return (descriptor & kKltCount) != 0; }
  [[nodiscard]] unsigned covered() const { return (descriptor >> 16) & 0xff; }
};

// The layout of one record number as stored, with its mapping.
struct KLT_StoredLayout {
  std::string name;
  std::vector<KLT_StoredField> fields;
  size_t timeIndex = 0;  // of the field named "time", or the number of fields
  const KLT_Row* row = nullptr;
  bool exact = false;  // equals the row
  // The stored field that feeds each field of the row, or -1.
  std::array<int, kKltMaxFields> source{};
  // Where each stored field of the record at hand stands, filled while it is read.
  std::vector<size_t> at;
  std::vector<size_t> count;
};

// How records with one number of the file at hand are read.
struct KLT_DecoderEntry {
  using Parse = KLT_Parse (*)(const KLT_DecoderEntry&, KLT_Input&, KLT_RecordBuffer&,
                              uint64_t& time, size_t& disk);

  Parse parse = nullptr;  // reads a record without any test; null: no record has this number
  uint8_t row = 0;        // which row they become; 0: none
  bool isFast = false;    // by the row's own decoder
  std::unique_ptr<KLT_StoredLayout> layout;
};

// Indexed by the record number of the file. Entry 0 stays empty: layouts are read by the stream of
// the index alone.
struct KLT_DecoderTable {
  std::array<KLT_DecoderEntry, 256> entries;
};

// Whether a field stored as `stored` can feed a field of type `wanted`.
[[nodiscard]] bool KLT_TypeFeeds(KLT_Type stored, KLT_Type wanted);

// Maps a layout onto the table's rows: fills `row`, `exact`, the fields' `map` and `source`.
void KLT_MapLayout(KLT_StoredLayout& layout);

// Reads a record by the layout in `entry` into its row's memory form.
[[nodiscard]] KLT_Parse KLT_ParseGeneric(const KLT_DecoderEntry& entry, KLT_Input& input,
                                         KLT_RecordBuffer& out, uint64_t& time, size_t& disk);

// Parses the layout entry at input.at(), enters it and advances. kCorrupt after a report.
[[nodiscard]] KLT_Parse KLT_ReadLayoutEntry(KLT_Input& input, KLT_DecoderTable& table,
                                            bool genericOnly);
