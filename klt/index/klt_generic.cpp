// Maps stored layouts onto rows and decodes records by them. See klt_generic.h.
#include "klt/index/klt_generic.h"

#include <bit>
#include <cstring>
#include <utility>

#include "klt/format/klt_wire.h"
#include "util/pal_error.h"
#include "util/pal_mem.h"

namespace {

// --- mapping ------------------------------------------------------------------------------------

bool isInteger(KLT_Type type) { return type >= KLT_Type::kU8 && type <= KLT_Type::kI64; }
bool isSigned(KLT_Type type) { return type >= KLT_Type::kI8 && type <= KLT_Type::kI64; }

bool sameSizeClass(KLT_Type a, KLT_Type b) {
  if (a == b) return true;
  const unsigned bytes = KLT_TypeBytes(a);
  if (bytes != KLT_TypeBytes(b)) return false;
  return bytes <= 2 || (isInteger(a) && isInteger(b));
}

bool countsAlike(const KLT_StoredField& stored, const KLT_Field& field) {
  return isInteger(stored.type()) && !isSigned(stored.type()) &&
         stored.covered() == field.covered();
}

struct Candidate {
  const KLT_Row* row = nullptr;
  int score = 0;
  std::array<int, kKltMaxFields> source{};
};

// Maps the row's named fields to stored fields. The score is 0 if a required field is missing.
Candidate scoreRow(const KLT_Row& row, const KLT_StoredLayout& layout) {
  Candidate candidate;
  candidate.row = &row;
  candidate.source.fill(-1);
  for (size_t i = 0; i < row.numFields; ++i) {
    const KLT_Field& wanted = row.fields[i];
    for (size_t j = 0; j < layout.fields.size() && !wanted.name.empty(); ++j) {
      const KLT_StoredField& stored = layout.fields[j];
      if (stored.isCount() || stored.name.empty() || stored.name != wanted.name) continue;
      if (!KLT_TypeFeeds(stored.type(), wanted.type())) continue;
      candidate.source[i] = static_cast<int>(j);
      candidate.score += stored.type() == wanted.type() ? 3 : 2;
      break;
    }
    if (candidate.source[i] >= 0) continue;
    if (wanted.required()) {
      candidate.score = 0;
      return candidate;
    }
    candidate.score += 1;
  }
  return candidate;
}

// Maps the counts, which have no names. The first mapped field after a count determines the stored
// count: the last one before its stored field. False if no field after a count is mapped.
bool bindCounts(Candidate& candidate, const KLT_StoredLayout& layout) {
  const KLT_Row& row = *candidate.row;
  for (size_t i = 0; i < row.numFields; ++i) {
    if (!row.fields[i].isCount()) continue;
    size_t next = i + 1;
    while (next < row.numFields && candidate.source[next] < 0) ++next;
    if (next == row.numFields) return false;
    int j = candidate.source[next];
    while (j >= 0 && !layout.fields[static_cast<size_t>(j)].isCount()) --j;
    if (j < 0) continue;
    // The type may be wider than the row's: countsFit checks the values.
    if (isInteger(layout.fields[static_cast<size_t>(j)].type())) candidate.source[i] = j;
  }
  return true;
}

Candidate bestRow(const KLT_StoredLayout& layout) {
  Candidate best;
  int bestDistance = 0;
  for (const KLT_Row& row : kKltRows) {
    if (row.name != layout.name) continue;
    Candidate candidate = scoreRow(row, layout);
    if (candidate.score == 0) continue;
    const int distance = 3 * row.numFields - candidate.score;
    const bool better = best.row == nullptr || distance < bestDistance ||
                        (distance == bestDistance && row.numFields > best.row->numFields);
    if (!better) continue;
    best = candidate;
    bestDistance = distance;
  }
  return best;
}

// --- reading ------------------------------------------------------------------------------------

// The value of a field of a row that the stored layout lacks.
uint64_t defaultOf(const KLT_Row& row, size_t field) {
  const std::string_view record = row.name;
  const std::string_view name = row.fields[field].name;
  if (name == "left_size") return static_cast<uint64_t>(-2);
  if (name == "stride") return 1;
  if (name == "type" && (record == "file_io_begin" || record == "file_io_end")) return 1;
  if (name == "bytes_sent" && record == "lw_statistics") return 0xffffffff;
  if (name == "skew") return std::bit_cast<uint64_t>(1.0);
  return 0;
}

// Converts one stored element to the bits of a value of type `to`.
uint64_t convert(const uint8_t* p, KLT_Type from, KLT_Type to) {
  const unsigned bytes = KLT_TypeBytes(from);
  if (from == KLT_Type::kRaw32) return klt::loadNative<uint32_t>(p);
  if (from == KLT_Type::kRaw64) return klt::loadNative<uint64_t>(p);
  uint64_t bits = klt::loadBig(p, bytes);
  if (from == KLT_Type::kF32) {
    if (to == KLT_Type::kF32) return bits;
    return std::bit_cast<uint64_t>(
        static_cast<double>(std::bit_cast<float>(static_cast<uint32_t>(bits))));
  }
  if (from == KLT_Type::kF64) return bits;
  const bool negative = isSigned(from) && (bits >> (8 * bytes - 1) & 1) != 0;
  if (negative && bytes < 8) bits |= ~uint64_t{0} << (8 * bytes);
  if (to == KLT_Type::kF64) {
    return std::bit_cast<uint64_t>(isSigned(from) ? static_cast<double>(static_cast<int64_t>(bits))
                                                  : static_cast<double>(bits));
  }
  return bits;
}

void storeBits(uint8_t* to, unsigned bytes, uint64_t bits) {
  if (bytes == 1) *to = static_cast<uint8_t>(bits);
  if (bytes == 4) klt::storeNative(to, static_cast<uint32_t>(bits));
  if (bytes == 8) klt::storeNative(to, bits);
}

// Determines the offset and the number of elements of each stored field of a record.
KLT_Parse locateFields(KLT_StoredLayout& layout, KLT_Input& input, size_t& disk) {
  size_t done = 0;
  uint64_t n = 1;
  unsigned left = 0;
  for (size_t j = 0; j < layout.fields.size(); ++j) {
    const KLT_StoredField& field = layout.fields[j];
    const unsigned width = KLT_TypeBytes(field.type());
    const uint64_t elements = field.isCount() ? 1 : n;
    uint64_t bytes = 0;
    uint64_t wanted = 0;
    if (__builtin_mul_overflow(elements, uint64_t{width}, &bytes) ||
        __builtin_add_overflow(bytes, done, &wanted)) {
      return KLT_Parse::kCorrupt;
    }
    if (!input.ensure(wanted)) return KLT_Parse::kNoData;
    layout.at[j] = done;
    layout.count[j] = elements;
    if (field.isCount()) {
      const uint64_t value = convert(input.at() + done, field.type(), KLT_Type::kU64);
      if (!isInteger(field.type())) {
        PAL_Error("Found wrong field-type when filtering %s",
                  layout.row == nullptr ? "" : PAL_Printable(layout.name).c_str());
        return KLT_Parse::kCorrupt;
      }
      if (isSigned(field.type()) && static_cast<int64_t>(value) < 0) return KLT_Parse::kCorrupt;
      n = value;
      left = field.covered();
      if (left == 0) n = 1;
    } else if (left != 0 && --left == 0) {
      n = 1;
    }
    done = wanted;
  }
  disk = done;
  return KLT_Parse::kRecord;
}

// Whether the row's counts are wide enough for those of the record. The first record for which they
// aren't is reported.
bool countsFit(KLT_StoredLayout& layout, const uint8_t* input) {
  for (size_t i = 0; i < layout.row->numFields; ++i) {
    const KLT_Field& field = layout.row->fields[i];
    const int j = layout.source[i];
    if (!field.isCount() || j < 0) continue;
    const auto source = static_cast<size_t>(j);
    const KLT_Type type = layout.fields[source].type();
    if (KLT_TypeBytes(type) <= KLT_TypeBytes(field.type())) continue;
    const uint64_t value = convert(input + layout.at[source], type, KLT_Type::kU64);
    if (value >> (8 * KLT_TypeBytes(field.type())) == 0) continue;
    if (!std::exchange(layout.reported, true)) {
      PAL_Error(
          "A record of type %s has %llu elements, too many to be read; such records are lost.",
          PAL_Printable(layout.name).c_str(), static_cast<unsigned long long>(value));
    }
    return false;
  }
  return true;
}

// The largest array, in elements, that may be extended by default values.
constexpr uint64_t kLargestFilled = 0xffff;

struct Builder {
  const KLT_StoredLayout& layout;
  const KLT_Row& row;
  const KLT_Layout& form;
  const uint8_t* input;
  KLT_RecordBuffer& out;

  bool scalar(uint8_t* record, size_t i) const {
    const int j = layout.source[i];
    uint64_t bits = 0;
    if (j >= 0 && layout.count[static_cast<size_t>(j)] != 0) {
      const auto& stored = layout.fields[static_cast<size_t>(j)];
      bits =
          convert(input + layout.at[static_cast<size_t>(j)], stored.type(), row.fields[i].type());
    } else if (row.fields[i].required()) {
      return false;
    } else {
      bits = defaultOf(row, i);
    }
    storeBits(record + form.offset[i], KLT_TypeBytes(row.fields[i].type()) == 8 ? 8 : 4, bits);
    return true;
  }

  // Appends array field `i` at `tail` and advances `tail` past it.
  bool array(size_t i, size_t& tail) const {
    const KLT_Type type = row.fields[i].type();
    const unsigned width = KLT_TypeNativeBytes(type);
    const size_t n = klt::loadNative<uint32_t>(out.tail() + form.offset[form.countOf[i]]);
    const int j = layout.source[i];
    const size_t stored = j < 0 ? 0 : layout.count[static_cast<size_t>(j)];
    if (stored < n && n > kLargestFilled) return false;
    const size_t bytes = klt::roundUp8(n * width + (type == KLT_Type::kChar ? 1 : 0));
    uint8_t* to = out.reserve(tail + bytes) + tail;
    if (bytes != 0) std::memset(to + bytes - 8, 0, 8);
    for (size_t k = 0; k < n; ++k) {
      uint64_t bits = 0;
      if (k < stored) {
        const auto& field = layout.fields[static_cast<size_t>(j)];
        const unsigned step = KLT_TypeBytes(field.type());
        bits = convert(input + layout.at[static_cast<size_t>(j)] + k * step, field.type(), type);
      } else {
        bits = defaultOf(row, i);
      }
      storeBits(to + k * width, width, bits);
    }
    tail += bytes;
    return true;
  }
};

// Only an integer can be a time step.
bool hasUsableTime(const KLT_StoredLayout& layout) {
  if (layout.timeIndex == layout.fields.size()) return true;
  const KLT_StoredField& field = layout.fields[layout.timeIndex];
  if (isInteger(field.type())) return true;
  PAL_Error("Found wrong map-type when filtering %s.%s", PAL_Printable(layout.name).c_str(),
            field.name.c_str());
  return false;
}

// `field`: the bytes of the record's time.
uint64_t stepTime(const KLT_StoredLayout& layout, const uint8_t* field, uint64_t time) {
  const uint64_t step = convert(field, layout.fields[layout.timeIndex].type(), KLT_Type::kU64);
  return layout.row != nullptr && layout.row->name == "sub_time" ? time - step : time + step;
}

uint64_t movedTime(const KLT_StoredLayout& layout, const uint8_t* input, uint64_t time) {
  if (layout.timeIndex == layout.fields.size() || layout.count[layout.timeIndex] == 0) return time;
  return stepTime(layout, input + layout.at[layout.timeIndex], time);
}

template <int N>
KLT_Parse parseExact(const KLT_DecoderEntry&, KLT_Input& input, KLT_RecordBuffer& out,
                     uint64_t& time, size_t& disk) {
  return KLT_Codec<N>::parse(input, out, time, disk);
}

template <int... N>
constexpr auto exactParsers(std::integer_sequence<int, N...>) {
  return std::array<KLT_DecoderEntry::Parse, sizeof...(N)>{&parseExact<N + 1>...};
}
constexpr auto kParseExact = exactParsers(std::make_integer_sequence<int, kKltRowCount>{});

KLT_Parse corruptLayout(const char* text) {
  PAL_Error("%s", text);
  return KLT_Parse::kCorrupt;
}

// Reads a length byte and a text of that length at `done` and advances `done`. False if the input
// ends.
bool takeText(KLT_Input& input, size_t& done, std::string& text) {
  if (!input.ensure(done + 1)) return false;
  const size_t length = input.at()[done];
  if (!input.ensure(done + 1 + length)) return false;
  text.assign(reinterpret_cast<const char*>(input.at() + done + 1), length);
  done += 1 + length;
  return true;
}

KLT_Parse takeField(KLT_Input& input, size_t& done, KLT_StoredField& field) {
  if (!input.ensure(done + 1)) return KLT_Parse::kNoData;
  unsigned type = input.at()[done++];
  const bool count = type == kKltCountMark;
  if (count) {
    if (!input.ensure(done + 2)) return KLT_Parse::kNoData;
    type = input.at()[done];
    field.descriptor = kKltCount | static_cast<uint32_t>(input.at()[done + 1]) << 16;
    done += 2;
  }
  if (!KLT_TypeIsValid(type)) {
    return corruptLayout("Found wrong field-type, trace might be corrupted!");
  }
  field.descriptor |= type;
  if (count) return KLT_Parse::kRecord;
  std::string reference;
  if (!takeText(input, done, field.name) || !takeText(input, done, reference)) {
    return KLT_Parse::kNoData;
  }
  return KLT_Parse::kRecord;
}

// Sets the part of a layout that has the same place in all records.
void measureHead(KLT_StoredLayout& layout) {
  size_t timeAt = ~size_t{0};
  size_t j = 0;
  for (unsigned left = 0; j < layout.fields.size() && left == 0; ++j) {
    const KLT_StoredField& field = layout.fields[j];
    const bool isTime = j == layout.timeIndex && isInteger(field.type());
    if (isTime) timeAt = layout.headBytes;
    layout.headBytes += KLT_TypeBytes(field.type());
    if (field.isCount()) left = field.covered();
  }
  layout.timeAt = std::min(timeAt, layout.headBytes);
}

// Sets the decoder for a layout: the row's own if the layout equals the row.
void setDecoder(KLT_DecoderEntry& entry, std::unique_ptr<KLT_StoredLayout> layout,
                bool genericOnly) {
  KLT_MapLayout(*layout);
  measureHead(*layout);
  entry.row = layout->row == nullptr ? 0 : layout->row->number;
  entry.isFast = layout->exact && !genericOnly;
  entry.parse = entry.isFast ? kParseExact[entry.row - 1U] : &KLT_ParseGeneric;
  const bool isStored =
      layout->row == nullptr || layout->row->filter != KLT_FilterClass::kNeverStored;
  if (!isStored) entry.parse = nullptr;
  entry.layout = std::move(layout);
}

}  // namespace

bool KLT_TypeFeeds(KLT_Type stored, KLT_Type wanted) {
  if (stored == wanted) return true;
  if (stored == KLT_Type::kF32) return wanted == KLT_Type::kF64;
  if (!isInteger(stored)) return false;
  if (wanted == KLT_Type::kF32 || wanted == KLT_Type::kF64) return true;
  if (!isInteger(wanted)) return false;
  // A 32-bit value isn't converted to a signed 64-bit field.
  if (KLT_TypeBytes(stored) == 4 && wanted == KLT_Type::kI64) return false;
  return KLT_TypeBytes(wanted) >= KLT_TypeBytes(stored);
}

void KLT_MapLayout(KLT_StoredLayout& layout) {
  layout.row = nullptr;
  layout.exact = false;
  layout.source.fill(-1);
  layout.at.assign(layout.fields.size(), 0);
  layout.count.assign(layout.fields.size(), 0);
  Candidate best = bestRow(layout);
  if (best.row == nullptr || !bindCounts(best, layout)) return;
  size_t exactness = 0;
  bool sameCounts = true;
  for (size_t i = 0; i < best.row->numFields; ++i) {
    const int j = best.source[i];
    if (j < 0) continue;
    KLT_StoredField& stored = layout.fields[static_cast<size_t>(j)];
    stored.map = static_cast<int>(i);
    if (static_cast<size_t>(j) != i) continue;
    const KLT_Field& field = best.row->fields[i];
    exactness += sameSizeClass(stored.type(), field.type()) ? 2 : 1;
    // A row's decoder reads a count as unsigned and applies it to the fields of the row's count.
    if (field.isCount()) sameCounts = sameCounts && countsAlike(stored, field);
  }
  // If no field has the same position in the layout as in the row, the layout isn't mapped.
  if (exactness == 0) return;
  layout.row = best.row;
  layout.source = best.source;
  layout.exact = sameCounts && exactness == 2 * layout.fields.size() &&
                 exactness == 2 * size_t{best.row->numFields};
}

uint64_t KLT_GenericTime(const KLT_DecoderEntry& entry, const uint8_t* head, uint64_t time) {
  const KLT_StoredLayout& layout = *entry.layout;
  return layout.timeAt == layout.headBytes ? time : stepTime(layout, head + layout.timeAt, time);
}

KLT_Parse KLT_ParseGeneric(const KLT_DecoderEntry& entry, KLT_Input& input, KLT_RecordBuffer& out,
                           uint64_t& time, size_t& disk) {
  KLT_StoredLayout& layout = *entry.layout;
  const KLT_Parse located = locateFields(layout, input, disk);
  if (located != KLT_Parse::kRecord) return located;
  if (!hasUsableTime(layout)) [[unlikely]]
    return KLT_Parse::kCorrupt;
  const uint64_t moved = movedTime(layout, input.at(), time);
  if (layout.row == nullptr) {
    time = moved;
    return KLT_Parse::kUnknown;
  }
  const KLT_Row& row = *layout.row;
  if (!countsFit(layout, input.at())) [[unlikely]] {
    time = moved;
    return KLT_Parse::kTooLong;
  }
  const KLT_Layout& form = kKltLayouts[row.number - 1U];
  const Builder builder{layout, row, form, input.at(), out};
  uint8_t* record = out.reserve(form.fixedBytes);
  klt::storeNative(record + kKltRecordNumberAt, uint32_t{row.number});
  size_t tail = form.fixedBytes;
  for (size_t i = 0; i < row.numFields; ++i) {
    if (form.isArray(i)) {
      if (!builder.array(i, tail)) return KLT_Parse::kCorrupt;
    } else if (!builder.scalar(out.tail(), i)) {
      return KLT_Parse::kCorrupt;
    }
  }
  klt::storeNative(out.tail() + kKltRecordTimeAt, row.timed() ? moved : time);
  if (row.timed()) time = moved;
  return KLT_Parse::kRecord;
}

KLT_Parse KLT_ReadLayoutEntry(KLT_Input& input, KLT_DecoderTable& table, bool genericOnly) {
  const PAL_Place here;
  size_t done = 1;
  if (!input.ensure(1)) return KLT_Parse::kNoData;
  const uint8_t number = input.at()[0];
  if (number == 0) return KLT_Parse::kCorrupt;  // zeros after the index
  auto layout = std::make_unique<KLT_StoredLayout>();
  if (!takeText(input, done, layout->name)) return KLT_Parse::kNoData;
  if (!input.ensure(done + 1)) return KLT_Parse::kNoData;
  layout->fields.resize(input.at()[done++]);
  layout->timeIndex = layout->fields.size();
  for (size_t j = 0; j < layout->fields.size(); ++j) {
    const KLT_Parse taken = takeField(input, done, layout->fields[j]);
    if (taken != KLT_Parse::kRecord) return taken;
    if (!layout->fields[j].isCount() && layout->fields[j].name == "time") layout->timeIndex = j;
  }
  input.advance(done);
  setDecoder(table.entries[number], std::move(layout), genericOnly);
  return KLT_Parse::kRecord;
}
