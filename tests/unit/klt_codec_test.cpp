// Records as bytes: what every row's decoder and the writer make of bytes that the builder wrote.
#include "klt/format/klt_codec.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <array>
#include <bit>
#include <filesystem>
#include <map>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "klt/index/klt_generic.h"
#include "klt/write/klt_write.h"
#include "tests/unit/klt_reading.h"

namespace {

// Bytes in a file, read through an input in small blocks.
class FileInput {
 public:
  explicit FileInput(std::string_view bytes) {
    tb::writeFile(directory_ / "t", bytes);
    container_ = KLT_ContainerOpen(nullptr, (directory_ / "t").c_str(), O_RDONLY, 0);
    file_ = KLT_IoOpen(container_, (directory_ / "t").c_str());
    EXPECT_TRUE(input.attach(file_, "t", "f"));
    input.setBlock(61);
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
  KLT_IoFile* file_;
};

// A record of the row, with arrays of `n` elements. Its values use the high bits of their types, so
// that a wrong sign or width shows, and differ from field to field. Arrays of texts hold the ids
// that a writer gives texts that it meets in this order.
std::string built(const KLT_Row& row, size_t n) {
  static const tb::Layout layout;
  tb::Values values;
  uint64_t texts = 0;
  for (size_t f = 0; f < row.numFields; ++f) {
    const KLT_Field& field = row.fields[f];
    const bool isArray = kKltLayouts[row.number - 1U].isArray(f);
    std::vector<uint64_t> bits;
    for (size_t i = 0; i < (isArray ? n : 1); ++i) {
      const uint64_t wide = 0xf1f2f3f4f5f6f7f8 - 0x0101010101010101 * ((i + 5 * f) % 100);
      const bool isText = isArray && field.reference == "klt_string.id";
      bits.push_back(isText ? ++texts : wide >> (64 - 8 * KLT_TypeBytes(field.type())));
    }
    if (!field.isCount() && !bits.empty()) values.emplace_back(field.name, bits);
  }
  tb::RecordBytes record(layout);
  if (row.timed() && !row.movesTimeOnly()) record.at(0xf1f2);
  record.record(row.number, values);
  return record.contents();
}

// What KLT_Write<N> takes for field F of the record; nothing for the count of a text. `pointers`
// keeps an array of texts.
template <int N, size_t F>
auto argument(const uint8_t* record, std::vector<const char*>& pointers) {
  using View = KLT_Record<N>;
  using Tuple = decltype(klt::writeArgument<N, F>());
  if constexpr (std::tuple_size_v<Tuple> == 0) {
    return Tuple{};
  } else {
    using T = std::tuple_element_t<0, Tuple>;
    if constexpr (std::is_same_v<T, KLT_WriteText>) {
      return Tuple{KLT_WriteText::known(View::template get32<F>(record))};
    } else if constexpr (std::is_same_v<T, const char* const*>) {
      static std::map<uint32_t, std::string> texts;
      for (uint32_t i = 0; i < View::template count<F>(record); ++i) {
        const uint32_t id = View::template array<uint32_t, F>(record)[i];
        pointers.push_back(texts.emplace(id, std::to_string(id)).first->second.c_str());
      }
      return Tuple{pointers.data()};
    } else if constexpr (View::layout.isArray(F)) {
      return Tuple{View::template array<std::remove_pointer_t<T>, F>(record)};
    } else if constexpr (sizeof(T) == 8) {
      return Tuple{std::bit_cast<T>(View::template get64<F>(record))};
    } else {
      return Tuple{static_cast<T>(View::template get32<F>(record))};
    }
  }
}

template <int N, size_t... F>
void write(KLT_WFileHandle* writer, const uint8_t* record, std::index_sequence<F...>) {
  std::array<std::vector<const char*>, sizeof...(F)> pointers;
  const auto call = [&](auto... values) { return KLT_Write<N>(writer, nullptr, values...); };
  EXPECT_EQ(std::apply(call, std::tuple_cat(argument<N, F>(record, pointers[F])...)),
            KLT_EncodedBytes(record));
}

// Calls check<N>() for every row.
template <class Check, int... I>
void forEveryRow(const Check& check, std::integer_sequence<int, I...>) {
  (check.template operator()<I + 1>(), ...);
}
template <class Check>
void forEveryRow(const Check& check) {
  forEveryRow(check, std::make_integer_sequence<int, kKltRowCount>());
}

// What the program's writer makes of the calls, without seek points.
template <class Calls>
std::string written(const Calls& calls) {
  const tb::TempDir directory;
  reading::Messages messages;
  KLT_WFileHandle* writer =
      KLT_WriterOpen(nullptr, (directory / "t").c_str(), 0, KLT_FORM_PLAIN, 0, nullptr);
  calls(writer);
  EXPECT_TRUE(KLT_WriterFree(writer));
  EXPECT_EQ(messages.take(), "");  // no value is too wide
  std::string bytes;
  for (const auto& file : std::filesystem::directory_iterator(directory.path())) {
    if (file.path().extension() != ".anc") bytes += tb::readFile(file.path().string());
  }
  return bytes;
}

// Reads the record at hand; its place in memory.
template <int N>
const uint8_t* read(KLT_Input& input, KLT_RecordBuffer& out, uint64_t& time) {
  uint64_t expected = time + (kKltRows[N - 1].timed() ? 0xf1f2 : 0);
  if (N == 1) expected = time + 0xf1f2f3f4;
  if (N == 2) expected = time + 0xf1f2f3f4f5f6f7f8;
  if (N == 70) expected = time - 0xf1f2f3f4f5f6f7f8;
  EXPECT_TRUE(input.ensure(1));
  input.advance(1);
  const uint64_t position = input.position();
  size_t bytes = 0;
  size_t measured = 0;
  EXPECT_EQ(KLT_Codec<N>::measure(input, measured), KLT_Parse::kRecord);
  EXPECT_EQ(KLT_Codec<N>::parse(input, out, time, bytes), KLT_Parse::kRecord);
  EXPECT_EQ(measured, bytes);
  EXPECT_EQ(time, expected);
  EXPECT_EQ(input.position(), position);  // the caller advances
  input.stepBack();                       // the number stays in the buffer
  EXPECT_EQ(*input.at(), N);
  input.advance(1 + bytes);
  EXPECT_EQ(KLT_RecordNumber(out.tail()), unsigned{N});
  EXPECT_EQ(KLT_RecordTime(out.tail()), time);
  EXPECT_EQ(KLT_EncodedBytes(out.tail()), 1 + bytes);
  return out.tail();
}

// Wherever records lie in the blocks that are read, and if they are longer than a block.
TEST(KltCodec, EveryRowIsReadAndWrittenAsItStands) {
  forEveryRow([]<int N>() {
    SCOPED_TRACE(N);
    std::string bytes;
    for (const size_t n : {0U, 1U, 3U, 255U}) {
      for (size_t i = 0; i < (n < 255 ? 64 : 4); ++i) bytes += built(kKltRows[N - 1], n);
    }
    FileInput file(bytes);
    KLT_RecordBuffer out;
    constexpr bool kIsWritten = !kKltRows[N - 1].movesTimeOnly();
    const std::string again = written([&](KLT_WFileHandle* writer) {
      for (uint64_t time = 0; !HasFailure() && file.input.position() < bytes.size();) {
        const uint8_t* record = read<N>(file.input, out, time);
        if constexpr (kIsWritten) {
          write<N>(writer, record, std::make_index_sequence<kKltRows[N - 1].numFields>());
        }
      }
    });
    EXPECT_TRUE(!kIsWritten || again == bytes);
  });
}

// Nothing moves, which is told once. What another request asks for is there again.
TEST(KltCodec, ARecordBehindTheLimitIsNotRead) {
  FileInput file(built(kKltRows[45 - 1], 2));
  KLT_RecordBuffer out;
  uint64_t time = 1000;
  size_t disk = 0;
  reading::Messages messages;
  file.input.setLimit(12);
  EXPECT_EQ(KLT_Codec<45>::parse(file.input, out, time, disk), KLT_Parse::kNoData);
  EXPECT_EQ(KLT_Codec<45>::measure(file.input, disk), KLT_Parse::kNoData);
  EXPECT_EQ(messages.take(), "ERROR: More data requested than available for filter.\n");
  file.input.setLimit(KLT_Input::kNoLimit);
  EXPECT_TRUE(file.input.seek(0));
  (void)read<45>(file.input, out, time);
}

TEST(KltCodec, StepsOfTimeTakeTheShortestRecords) {
  const tb::Layout layout;
  tb::RecordBytes expected(layout);
  const uint64_t last = ~uint64_t{0};
  const std::string bytes = written([&](KLT_WFileHandle* writer) {
    for (uint64_t time = 0, round = 0; round < 500; ++round) {  // the buffer grows meanwhile
      for (const uint64_t step : {uint64_t{0}, uint64_t{0xffff}, uint64_t{0x10000}, last >> 32,
                                  (last >> 32) + 1, last, last << 36, last / 2}) {
        expected.at(time += step);
        expected.record(48, {{"willy_gtp", 7}});
        EXPECT_EQ(KLT_Write<48>(writer, nullptr, time, 7U), 7U);
      }
    }
  });
  EXPECT_TRUE(bytes == expected.contents());
}

}  // namespace
