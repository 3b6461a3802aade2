// Records as bytes: what every row's decoder and encoder make of bytes that the builder wrote.
#include "klt/klt_codec.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <array>
#include <bit>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "klt/klt_generic.h"
#include "tests/unit/klt_reading.h"

namespace {

using reading::Messages;

// Bytes in a file, read through an input.
class FileInput {
 public:
  explicit FileInput(std::string_view bytes) {
    tb::writeFile(directory_ / "t.klt", bytes);
    container_ = KLT_ContainerOpen(nullptr, (directory_ / "t.klt").c_str(), O_RDONLY, 0);
    file_ = KLT_IoOpen(container_, (directory_ / "t.klt").c_str());
    EXPECT_TRUE(input.attach(file_, "t", "f"));
  }
  ~FileInput() {
    input.detach();
    KLT_IoClose(file_);
    KLT_ContainerClose(container_);
  }
  FileInput(const FileInput&) = delete;
  FileInput& operator=(const FileInput&) = delete;

  KLT_Input input;

 private:
  tb::TempDir directory_;
  KLT_Container* container_;
  KLT_IoFile* file_ = nullptr;
};

// Positions the input behind a number byte, as the loop does that calls decoders.
void takeNumber(KLT_Input& input) {
  ASSERT_TRUE(input.ensure(1));
  input.advance(1);
}

// Values that use the high bits of their type, so that a wrong sign or width shows.
tb::Value sampleValue(tb::Type type, size_t n) {
  std::vector<uint64_t> integers;
  std::vector<double> reals;
  for (uint64_t i = 0; i < n; ++i) {
    integers.push_back((0xf1f2f3f4f5f6f7f8 - 0x0101010101010101 * (i % 100)) >>
                       (64 - 8 * bytesOf(type)));
    reals.push_back(-1.5 - static_cast<double>(i));
  }
  if (type == tb::Type::F64) return n == 1 ? tb::Value(reals[0]) : tb::Value(reals);
  return n == 1 ? tb::Value(integers[0]) : tb::Value(integers);
}

// The value as a record in memory holds it, in up to 64 bits.
uint64_t expectedBits(const tb::Value& value, size_t index, tb::Type type) {
  const uint64_t bits = value.bits(index, type);
  return type == tb::Type::Raw64 ? __builtin_bswap64(bits) : bits;
}

// The values of every field of a row; arrays have `n` elements.
tb::Values sampleValues(const tb::Row& row, size_t n) {
  tb::Values values;
  unsigned covered = 0;
  for (const tb::Field& field : row.fields) {
    if (field.isCount) {
      covered = field.covers;
      continue;
    }
    const bool isArray = covered != 0;
    if (isArray) --covered;
    if (field.name == "time") continue;
    if (isArray && n == 0) continue;
    values.emplace_back(field.name, sampleValue(field.type, isArray ? n : 1));
  }
  return values;
}

const tb::Value& valueOf(const tb::Values& values, std::string_view name) {
  for (const auto& [key, value] : values) {
    if (key == name) return value;
  }
  static const tb::Value none(std::vector<uint64_t>{});
  return none;
}

constexpr uint64_t kBefore = 1000;  // the running time ahead of a record

// The operations of one row behind one type: templates over 74 rows would take minutes to compile.
struct RowOperations {
  KLT_Parse (*parse)(KLT_Input&, KLT_RecordBuffer&, uint64_t&, size_t&);
  KLT_Parse (*measure)(KLT_Input&, size_t&);
  size_t (*encode)(const uint8_t*, uint64_t, uint8_t*);
};
template <int... N>
constexpr auto operationsOf(std::integer_sequence<int, N...>) {
  return std::array{RowOperations{&KLT_Codec<N + 1>::parse, &KLT_Codec<N + 1>::measure,
                                  &KLT_Codec<N + 1>::encode}...};
}
constexpr auto kOperations = operationsOf(std::make_integer_sequence<int, kKltRowCount>());
const RowOperations& operations(unsigned row) { return kOperations[row - 1]; }

// The moment at which a record of a row happens, behind kBefore.
uint64_t timeOf(unsigned row) {
  if (row == 1) return kBefore + 0xfffffff0;
  if (row == 2) return kBefore + 0xfffffffffff0;
  if (row == 70) return kBefore - 70;
  return kKltRows[row - 1].timed() ? kBefore + 0xfff0 : kBefore;
}
uint64_t stepOf(unsigned row) { return row == 70 ? kBefore - timeOf(row) : timeOf(row) - kBefore; }
bool onlyMovesTime(unsigned row) { return row == 1 || row == 2 || row == 70; }

std::string builtRecord(unsigned row, size_t n) {
  const tb::Layout layout;
  tb::RecordBytes record(layout);
  record.setRunning(kBefore);
  record.at(kBefore);
  if (onlyMovesTime(row)) {
    record.record(row, {{"time", stepOf(row)}});
  } else {
    record.at(timeOf(row));
    record.record(row, sampleValues(layout.row(row), n));
  }
  return record.contents();
}

uint64_t bitsAt(const uint8_t* from, unsigned bytes) {
  uint64_t bits = 0;
  std::memcpy(&bits, from, bytes);
  return bits;
}

// Every field of the record in memory against the values that it was built from.
void expectFields(unsigned number, const uint8_t* record, size_t n) {
  const tb::Layout layout;
  const tb::Row& built = layout.row(number);
  const tb::Values values = sampleValues(built, n);
  const KLT_Row& row = kKltRows[number - 1];
  const KLT_Layout& form = kKltLayouts[number - 1];
  const uint8_t* array = record + form.fixedBytes;
  for (size_t f = row.timed() ? 1 : 0; f < row.numFields; ++f) {
    SCOPED_TRACE("field " + built.fields[f].name);
    const unsigned bytes = KLT_TypeNativeBytes(row.fields[f].type());
    const tb::Value& value = valueOf(values, built.fields[f].name);
    const uint8_t* scalar = record + form.offset[f];
    if (row.fields[f].isCount()) {
      EXPECT_EQ(bitsAt(scalar, 4), n);
    } else if (!form.isArray(f)) {
      EXPECT_EQ(bitsAt(scalar, bytes == 8 ? 8 : 4), expectedBits(value, 0, built.fields[f].type));
    } else {
      for (size_t i = 0; i < n; ++i) {
        ASSERT_EQ(bitsAt(array + i * bytes, bytes), expectedBits(value, i, built.fields[f].type))
            << i;
      }
      const bool isText = row.fields[f].type() == KLT_Type::kChar;
      if (isText) {
        EXPECT_EQ(array[n], 0);
      }
      array += klt::roundUp8(n * bytes + (isText ? 1 : 0));
    }
  }
  EXPECT_EQ(static_cast<size_t>(array - record), KLT_RecordBytes(record));
}

void expectRoundTrip(unsigned row, size_t n) {
  SCOPED_TRACE("row " + std::to_string(row) + ", arrays of " + std::to_string(n));
  const std::string bytes = builtRecord(row, n);
  FileInput file(bytes);
  takeNumber(file.input);
  KLT_RecordBuffer out;
  uint64_t time = kBefore;
  size_t disk = 0;
  ASSERT_EQ(operations(row).parse(file.input, out, time, disk), KLT_Parse::kRecord);
  EXPECT_EQ(disk, bytes.size() - 1);
  EXPECT_EQ(time, timeOf(row));
  EXPECT_EQ(file.input.position(), 1U);  // the caller advances
  const uint8_t* record = out.tail();
  EXPECT_EQ(KLT_RecordNumber(record), row);
  EXPECT_EQ(KLT_RecordTime(record), timeOf(row));
  if (!onlyMovesTime(row)) expectFields(row, record, n);
  size_t measured = 0;
  ASSERT_EQ(operations(row).measure(file.input, measured), KLT_Parse::kRecord);
  EXPECT_EQ(measured, disk);

  ASSERT_EQ(KLT_EncodedBytes(record), bytes.size());
  std::string encoded(bytes.size(), '\0');
  EXPECT_EQ(operations(row).encode(record, stepOf(row), reinterpret_cast<uint8_t*>(encoded.data())),
            bytes.size());
  EXPECT_EQ(encoded, bytes);
}

// A file that ends inside the record: nothing moves, and the message has what is missing.
void expectCutsAreNoticed(unsigned row, size_t n) {
  const std::string bytes = builtRecord(row, n);
  for (size_t have = 1; have < bytes.size(); ++have) {
    SCOPED_TRACE("row " + std::to_string(row) + ", " + std::to_string(have) + " of " +
                 std::to_string(bytes.size()) + " bytes");
    FileInput file(std::string_view(bytes).substr(0, have));
    takeNumber(file.input);
    KLT_RecordBuffer out;
    uint64_t time = kBefore;
    size_t disk = 0;
    Messages messages;
    ASSERT_EQ(operations(row).parse(file.input, out, time, disk), KLT_Parse::kNoData);
    EXPECT_EQ(operations(row).measure(file.input, disk), KLT_Parse::kNoData);
    const std::string text = messages.take();
    EXPECT_EQ(time, kBefore);
    EXPECT_EQ(file.input.position(), 1U);
    EXPECT_EQ(text.find("truncated file t.f, "), text.rfind("truncated file t.f, ")) << text;
    // How much an array misses is known once its count is there; what stands behind it isn't asked
    // for yet.
    size_t want = 1 + size_t{kKltLayouts[row - 1].headBytes};
    if (have >= want) want = bytes.size();
    const bool oneGroup = row != 14 && row != 19 && row != 45 && row != 64;
    if (oneGroup) {
      EXPECT_NE(text.find(" " + std::to_string(want - have) + " bytes missing"), std::string::npos)
          << text;
    }
  }
}

TEST(KltCodec, EveryRowIsDecodedAndEncodedAsItStands) {
  for (unsigned row = 1; row <= kKltRowCount; ++row) {
    for (const unsigned n : {0U, 1U, 3U, 255U}) expectRoundTrip(row, n);
  }
}

TEST(KltCodec, EveryRowNoticesAFileThatEndsInsideIt) {
  for (unsigned row = 1; row <= kKltRowCount; ++row) expectCutsAreNoticed(row, 2);
}

// A record that starts `ahead` bytes before the end of the first block that is read.
void expectStraddling(unsigned row, size_t n) {
  const std::string record = builtRecord(row, n);
  for (size_t ahead = 1; ahead <= 80; ++ahead) {
    FileInput file(std::string(KLT_Input::kBlock - ahead, 'x') + record + record);
    ASSERT_TRUE(file.input.ensure(1));
    file.input.advance(KLT_Input::kBlock - ahead);
    for (int i = 0; i < 2; ++i) {
      takeNumber(file.input);
      KLT_RecordBuffer out;
      uint64_t time = kBefore;
      size_t disk = 0;
      ASSERT_EQ(operations(row).parse(file.input, out, time, disk), KLT_Parse::kRecord) << ahead;
      std::string encoded(record.size(), '\0');
      (void)operations(row).encode(out.tail(), timeOf(row) - kBefore,
                                   reinterpret_cast<uint8_t*>(encoded.data()));
      ASSERT_EQ(encoded, record) << ahead;
      file.input.stepBack();  // the number stays in the buffer
      ASSERT_EQ(*file.input.at(), row);
      file.input.advance(1 + disk);
    }
    EXPECT_FALSE(file.input.moreToRead());
    EXPECT_TRUE(file.input.drained());
  }
}

TEST(KltCodec, ARefillCompletesARecordThatStraddlesTheBuffer) {
  expectStraddling(61, 0);   // the longest without arrays
  expectStraddling(66, 3);   // six arrays of one count
  expectStraddling(45, 5);   // two counts
  expectStraddling(64, 33);  // a field behind the array
}

TEST(KltCodec, ARecordMayBeLongerThanTheBuffer) {
  expectRoundTrip(64, 300000);
  expectRoundTrip(66, 20000);
}

TEST(KltCodec, StepsOfTimeTakeATimeRecordWhereTheFieldIsTooNarrow) {
  const auto encoded = [](uint64_t from, uint64_t to) {
    uint8_t bytes[9] = {};
    uint64_t step = 99;
    const size_t n = KLT_EncodeTimeRecord(from, to, step, bytes);
    EXPECT_EQ(n, KLT_TimeRecordBytes(from, to)) << from << " " << to;
    std::string text = std::to_string(step);
    for (size_t i = 0; i < n; ++i) text += " " + std::to_string(bytes[i]);
    return text;
  };
  EXPECT_EQ(encoded(5, 5), "0");
  EXPECT_EQ(encoded(1, 0x10000), "65535");
  EXPECT_EQ(encoded(0, 0x10000), "0 2 0 0 0 0 0 1 0 0");
  EXPECT_EQ(encoded(0x1000, 0x12000), "0 2 0 0 0 0 0 1 16 0");
  EXPECT_EQ(encoded(9, 8), "0 70 0 0 0 0 0 0 0 1");
  EXPECT_EQ(encoded(0, ~uint64_t{0}), "0 2 255 255 255 255 255 255 255 255");
  EXPECT_EQ(encoded(~uint64_t{0}, 0), "0 70 255 255 255 255 255 255 255 255");
}

TEST(KltCodec, TimeWrapsAtItsEnds) {
  const auto stepped = [](std::string_view record, uint64_t from) {
    FileInput file(record);
    takeNumber(file.input);
    KLT_RecordBuffer out;
    size_t disk = 0;
    const bool backwards = record[0] == 70;
    EXPECT_EQ(backwards ? KLT_Codec<70>::parse(file.input, out, from, disk)
                        : KLT_Codec<2>::parse(file.input, out, from, disk),
              KLT_Parse::kRecord);
    return from;
  };
  EXPECT_EQ(stepped({"\x02\xff\xff\xff\xff\xff\xff\xff\xff", 9}, 100), 99U);
  EXPECT_EQ(stepped({"\x02\x80\0\0\0\0\0\0\1", 9}, uint64_t{1} << 63), 1U);
  EXPECT_EQ(stepped({"\x46\0\0\0\0\0\0\0\3", 9}, 2), ~uint64_t{0});
}

TEST(KltCodec, ValuesTooWideForTheirFieldAreCutWithAWarning) {
  const tb::Layout layout;
  tb::RecordBytes built(layout);
  built.record(57, {{"tag", 1}});
  built.record(22, {{"counters", std::vector<int>{1, 2, 3}}});
  FileInput file(built.contents());
  KLT_RecordBuffer out;
  uint64_t time = 0;
  size_t disk = 0;
  takeNumber(file.input);
  ASSERT_EQ(KLT_Codec<57>::parse(file.input, out, time, disk), KLT_Parse::kRecord);
  klt::storeNative(out.tail() + KLT_Codec<57>::layout.offset[6], uint32_t{0x12345});
  uint8_t bytes[64];
  Messages messages;
  EXPECT_EQ(KLT_Codec<57>::encode(out.tail(), 0, bytes), 35U);
  EXPECT_EQ(klt::loadBig16(bytes + 25), 0x2345);

  file.input.advance(disk);
  takeNumber(file.input);
  ASSERT_EQ(KLT_Codec<22>::parse(file.input, out, time, disk), KLT_Parse::kRecord);
  klt::storeNative(out.tail() + KLT_RecordView<22>::arrayAt<4>(out.tail()) + 4, uint32_t{0x10000});
  EXPECT_EQ(KLT_Codec<22>::encode(out.tail(), 0, bytes), 38U);
  EXPECT_EQ(klt::loadBig16(bytes + 34), 0);

  const std::string text = messages.take();
  for (const char* value : {"0x12345", "0x10000"}) {
    EXPECT_NE(text.find("KLT Encoding Error: reducing unsigned 4-byte " + std::string(value) +
                        " to unsigned 2-byte (klt/klt_codec.h:"),
              std::string::npos)
        << text;
  }
}

TEST(KltInput, NamesTheLimitAndNotTheFileWhereARequestEndsInsideARecord) {
  FileInput file("0123456789");
  file.input.setLimit(4);
  Messages messages;
  EXPECT_TRUE(file.input.ensure(4));
  EXPECT_FALSE(file.input.ensure(5));
  EXPECT_TRUE(file.input.ended());
  EXPECT_FALSE(file.input.ensure(5));
  EXPECT_TRUE(file.input.seek(8));  // what another request asks for is there again
  file.input.setLimit(KLT_Input::kNoLimit);
  EXPECT_TRUE(file.input.ensure(2));
  EXPECT_FALSE(file.input.ensure(45));
  EXPECT_EQ(file.input.position(), 8U);
  const std::string text = messages.take();
  EXPECT_EQ(text.find("More data requested than available for filter."),
            text.rfind("More data requested than available for filter."));
  EXPECT_NE(text.find("truncated file t.f, 43 bytes missing"), std::string::npos) << text;
}

}  // namespace
