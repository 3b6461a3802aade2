// Decodes records by the layouts that are stored in the trace.
//
// An index contains a layout for each record number in use. A layout is mapped onto the row of its
// name that fits best. If the layout equals the row, the row's own decoder is used, at no extra
// cost. Otherwise records are read field by field into the row's memory form: fields that the row
// lacks are skipped, fields that the layout lacks get their defaults. A record that fits no row is
// skipped, but its time step is added to the running time.
//
//   layout entry, after a number byte 0:
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

// A field of a stored layout.
struct KLT_StoredField {
  std::string name;         // empty for a count
  uint32_t descriptor = 0;  // as in a row
  int map = -1;             // index of the row's field that is read from it, or -1

  [[nodiscard]] KLT_Type type() const { return static_cast<KLT_Type>(descriptor & 0xff); }
  [[nodiscard]] bool isCount() const { return (descriptor & kKltCount) != 0; }
  [[nodiscard]] unsigned covered() const { return (descriptor >> 16) & 0xff; }
};

// The stored layout of one record number, with its mapping.
struct KLT_StoredLayout {
  std::string name;
  std::vector<KLT_StoredField> fields;
  size_t timeIndex = 0;  // of the field named "time", or the number of fields
  const KLT_Row* row = nullptr;
  bool exact = false;     // equals the row
  bool reported = false;  // a record with too many elements has been reported
  size_t headBytes = 0;   // of the fields before the first array
  size_t timeAt = 0;      // offset of the time among them; `headBytes` if it isn't there
  // For each field of the row the stored field from which it is read, or -1.
  std::array<int, kKltMaxFields> source{};
  // Offset and number of elements of each stored field in the record that is being read.
  std::vector<size_t> at;
  std::vector<size_t> count;
};

// The decoder for one record number of a trace.
struct KLT_DecoderEntry {
  using Parse = KLT_Parse (*)(const KLT_DecoderEntry&, KLT_Input&, KLT_RecordBuffer&,
                              uint64_t& time, size_t& disk);

  Parse parse = nullptr;  // decodes a record, unfiltered; null: the number is invalid
  uint8_t row = 0;        // the row to which the records are decoded; 0: none
  bool isFast = false;    // `parse` is the row's own decoder
  std::unique_ptr<KLT_StoredLayout> layout;
};

// Indexed by the record number of the file. Entry 0 stays empty: number 0 is a layout, which only
// the stream of the index reads.
struct KLT_DecoderTable {
  std::array<KLT_DecoderEntry, 256> entries;
};

// Whether a value of type `stored` can be converted to a field of type `wanted`.
[[nodiscard]] bool KLT_TypeFeeds(KLT_Type stored, KLT_Type wanted);

// Maps a layout onto the table's rows: fills `row`, `exact`, the fields' `map` and `source`.
void KLT_MapLayout(KLT_StoredLayout& layout);

// The time of a record of which the fields before the first array are at `head`. `time` is that of
// the record before it. Those fields have `entry.layout->headBytes` bytes.
[[nodiscard]] uint64_t KLT_GenericTime(const KLT_DecoderEntry& entry, const uint8_t* head,
                                       uint64_t time);

// Reads a record by the layout in `entry` into its row's memory form.
[[nodiscard]] KLT_Parse KLT_ParseGeneric(const KLT_DecoderEntry& entry, KLT_Input& input,
                                         KLT_RecordBuffer& out, uint64_t& time, size_t& disk);

// Parses the layout entry whose number byte precedes input.at(), stores its decoder in `table` and
// advances `input`. With `genericOnly` no row's own decoder is used. Returns kCorrupt for an
// invalid entry, which is reported unless the record number in it is 0.
[[nodiscard]] KLT_Parse KLT_ReadLayoutEntry(KLT_Input& input, KLT_DecoderTable& table,
                                            bool genericOnly);
