// Decodes and writes records, in the program's own layout and in others, and maps layouts to rows.
#include "klt/index/klt_generic.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <random>
#include <regex>
#include <string>
#include <string_view>
#include <vector>

#include "generic/merge/kltt_merge.h"
#include "klt/format/klt_codec.h"
#include "tests/unit/klt_reading.h"
#include "util/pal_mem.h"

namespace {

using reading::Lines;
using reading::Messages;
using reading::only;
using reading::OpenTrace;
using tb::Type;
using Change = std::function<void(tb::Layout&)>;

class KltGeneric : public testing::Test {
 protected:
  ~KltGeneric() override {
    unsetenv("KLT_GENERIC_ONLY");
    PAL_allocators = allocators_;
  }

 private:
  const PAL_AllocatorTable allocators_ = PAL_allocators;
};

// Small values for a record of the row, with arrays of `n` elements; with `wide` any values of
// their types. Texts and references to texts are always small.
tb::Values randomValues(std::mt19937_64& random, const tb::Row& row, size_t n, bool wide = false) {
  tb::Values values;
  unsigned covered = 0;
  for (const tb::Field& field : row.fields) {
    if (field.isCount) covered = field.covers;
    if (field.isCount || field.name == "time") continue;
    std::vector<uint64_t> numbers(covered == 0 ? 1 : n);
    const bool isWide = wide && field.type != Type::Char && field.reference != "klt_string.id";
    for (uint64_t& number : numbers)
      number = isWide ? random() >> (64 - 8 * tb::bytesOf(field.type)) : 1 + random() % 7;
    if (covered != 0) --covered;
    if (!numbers.empty()) values.emplace_back(field.name, numbers);
  }
  return values;
}

// Whether a reader calls handlers for records of the row.
bool isDelivered(const KLT_Row& row) {
  const KLT_FilterClass filter = row.filter;
  return filter <= KLT_FilterClass::kRawCollective
             ? !row.movesTimeOnly()
             : (filter >= KLT_FilterClass::kThreadTable && filter <= KLT_FilterClass::kDefinition);
}

// Records of all kinds, at times that mostly increase a little, in the layout after `change`. A raw
// trace has no records that a merge would match or count by communicator.
tb::TraceFiles randomTrace(unsigned seed, const Change& change, std::string_view damage = "",
                           unsigned flags = 0) {
  std::mt19937_64 random(seed);
  const tb::Layout standard;
  tb::Trace trace(flags);
  change(trace.layout());
  for (const char* text : {"a", "b", "c"}) (void)trace.text(text);
  trace.processes({1, 1, 1, 1}).communicator(5, "pair", {{1, 2, 1}, {3, 3, 1}}, 3);
  for (const KLT_Row& row : kKltRows) {
    if (!isDelivered(row) || row.categories() != klt::kDeclarations) continue;
    trace.declarations().record(row.number,
                                randomValues(random, standard.row(row.number), random() % 4));
  }
  tb::Stream& s = trace.stream("x", 0xffff);
  uint64_t time = random() % 1000;
  for (size_t n = random() % (seed % 8 == 0 ? 6000 : 600); n > 0; --n) {
    const KLT_Row& row = kKltRows[random() % kKltRowCount];
    if (!isDelivered(row) || row.categories() == klt::kDeclarations) continue;
    if (flags == 1 && (row.categories() & (tb::RAW_EVENTS | tb::MESSAGES | tb::COLLOPS)) != 0)
      continue;
    const uint64_t steps[] = {0, random() % 9, random() % 300, 0xffff, 0x10000, random() % 999999};
    time += random() % 500 == 0 ? 0 - time / 3 : steps[random() % 6];
    s.at(time).record(row.number,
                      randomValues(random, standard.row(row.number), random() % 4, flags == 1));
  }
  s.bytes(damage);
  return trace.files();
}

// Changes all layouts. All records can still be read, except comments and opaque data.
void changeAll(tb::Layout& layout) {
  for (unsigned n = 1; n <= kKltRowCount; ++n) {
    layout.row(n).number = static_cast<uint8_t>(n + 100);
    layout.insert(n, "", {.name = "weight", .type = Type::F64});
    layout.insert(n, "", {.name = "#", .type = Type::U16, .isCount = true, .covers = 2});
    layout.insert(n, "", {.name = "extra", .type = Type::Char});
    layout.insert(n, "", {.name = "more", .type = Type::I64});
  }
  layout.insert(29, "function", {.name = "between", .type = Type::Raw32});
  layout.insert(22, "counters", {.name = "error", .type = Type::F32});
  layout.row(22).fields[2].covers = 3;
  layout.retype(57, "time", Type::U8).retype(48, "willy_gtp", Type::U8);
  layout.retype(57, "communicator", Type::U8).retype(57, "receive_time", Type::I8);
  layout.retype(4, "#1", Type::I8).retype(22, "counters", Type::U8);
  layout.retype(13, "resolution", Type::F32).retype(35, "bytes", Type::I16);
  layout.retype(3, "start_time", Type::I8).retype(19, "stride", Type::I8);
  std::swap(layout.row(30).fields[1], layout.row(30).fields[3]);
  layout.row(18).name = "remark";
  layout.drop(64, "data");
}

// What the rows' own decoders read of a trace, or the generic decoder only.
struct Result {
  Result(const tb::TraceFiles& files, const KLT_Request& request, bool genericOnly) {
    setenv("KLT_GENERIC_ONLY", genericOnly ? "1" : "0", 1);
    OpenTrace open(files);
    Messages messages;
    for (const KLT_Row& row : kKltRows) {
      const auto parse = open.handle()->decoders->entries[row.number].parse;
      EXPECT_EQ(parse == &KLT_ParseGeneric, genericOnly && row.number != 72) << row.number;
    }
    lines = open.definitions;
    const Lines events = open.read({request});
    lines.insert(lines.end(), events.begin(), events.end());
    statuses = open.statuses;
    // The decoders report different numbers of missing bytes.
    const std::regex differs(open.handle()->base + "|[0-9]+ bytes missing");
    text = std::regex_replace(messages.take(), differs, "");
  }

  Lines lines;
  std::vector<int> statuses;
  std::string text;
};

TEST_F(KltGeneric, TheLinesDontDependOnLayoutAndDecoders) {
  std::mt19937_64 random(21);
  for (unsigned round = 0; round < 60; ++round) {
    KLT_Request request = reading::window(
        0, reading::kOpenEnd, round % 3 == 0 ? 0xffff : static_cast<uint32_t>(random() % 0xffff));
    if (random() % 2 == 0) request.start = random() % 9000000;
    if (random() % 2 == 0) request.end = request.start + random() % 9000000;
    if (random() % 3 == 0) request.threads = {{static_cast<int32_t>(random() % 4), 5, 1}};
    const std::string damage = round % 8 == 0 ? "\x1c" : round % 8 == 4 ? "\x7f" : "";
    const tb::TraceFiles files = randomTrace(
        round, [](tb::Layout&) {}, damage);
    const Result fast(files, request, false);
    const Result generic(files, request, true);
    ASSERT_EQ(reading::difference(fast.lines, generic.lines), "") << round;
    EXPECT_EQ(fast.statuses, generic.statuses);
    EXPECT_EQ(fast.text, generic.text);
    if (!damage.empty()) continue;
    const Result other(randomTrace(round, changeAll), request, false);
    ASSERT_EQ(
        reading::difference(reading::without(fast.lines, {"comment", "opaque_data"}), other.lines),
        "")
        << round;
  }
}

TEST_F(KltGeneric, TheMergeWritesWhatItReads) {
  for (unsigned round = 0; round < 20; ++round) {
    const tb::TempDir directory;
    const std::string name = randomTrace(
                                 round, [](tb::Layout&) {}, "", 1)
                                 .writePlain(directory),
                      merged = directory / "m.klt";
    const auto sorted = [](const std::string& of) {
      Lines lines = reading::without(reading::linesOf(of), {"function_profile"});
      std::sort(lines.begin(), lines.end());
      return lines;
    };
    const Messages messages;
    EXPECT_EQ(
        KLTM_Merge(nullptr, merged.c_str(), KLT_Open(name.c_str()), KLTM_MERGE, nullptr, nullptr),
        0);
    ASSERT_EQ(reading::difference(sorted(name), sorted(merged)), "");
  }
}

// An input that provides only the bytes that ensure() asks for, each time at another address.
struct ScarceInput {
  bool ensure(size_t n) {
    if (n > given.size()) std::string(bytes.substr(0, n)).swap(given);
    return n <= bytes.size();
  }
  [[nodiscard]] const uint8_t* at() const { return reinterpret_cast<const uint8_t*>(given.data()); }

  std::string_view bytes;
  std::string given = {};
};

template <int N>
void checkScarceInput(std::mt19937_64& random) {
  const tb::Layout layout;
  for (int i = 0; i < 40 && !testing::Test::HasFailure(); ++i) {
    tb::RecordBytes stated(layout);
    stated.record(N, randomValues(random, layout.row(N), i == 9 ? 255 : random() % 4, true));
    const std::string_view bytes = std::string_view(stated.contents()).substr(1);
    ScarceInput inputs[] = {{bytes}, {bytes, std::string(bytes)}, {bytes}};
    std::string records[2];
    size_t size = 0;
    for (size_t k = 0; k < 2; ++k) {
      KLT_RecordBuffer out;
      std::memset(out.reserve(0x10000), 0, 0x10000);  // bytes between fields
      uint64_t time = 0;
      EXPECT_EQ(KLT_Codec<N>::parse(inputs[k], out, time, size), KLT_Parse::kRecord) << N;
      EXPECT_EQ(KLT_EncodedBytes(out.tail()), 1 + bytes.size()) << N;
      records[k].assign(reinterpret_cast<char*>(out.tail()), KLT_RecordBytes(out.tail()));
    }
    EXPECT_TRUE(records[0] == records[1]) << N;
    EXPECT_EQ(KLT_Codec<N>::measure(inputs[2], size), KLT_Parse::kRecord) << N;
    EXPECT_EQ(size, bytes.size()) << N;
  }
}

TEST_F(KltGeneric, DecodersEnsureWhatTheyRead) {
  std::mt19937_64 random(3);
  [&]<int... I>(std::integer_sequence<int, I...>) { (checkScarceInput<I + 1>(random), ...); }
  (std::make_integer_sequence<int, kKltRowCount>());
}

TEST_F(KltGeneric, TheNearestRowOfTheNameIsChosen) {
  const tb::Field scl{.name = "scl", .type = Type::U32};
  struct Case {
    unsigned stored, row;
    Change change;
  };
  const Case cases[] = {
      {28, 29, [&](tb::Layout& l) { l.insert(28, "", scl); }},
      {57, 59, [](tb::Layout& l) { l.retype(57, "tag", Type::U32); }},
      {28, 0, [](tb::Layout& l) { l.drop(28, "willy_gtp"); }},
      {28, 0, [](tb::Layout& l) { l.row(28).name = "enter_functio"; }},
      {57, 57, [](tb::Layout& l) { l.retype(57, "receive_time", Type::U16); }},
      {28, 0, [](tb::Layout& l) { l.retype(28, "function", Type::F32); }},
      // All fields exist, but none has the same position.
      {28, 0, [&](tb::Layout& l) { l.insert(28, "time", scl); }},
      // The count covers no field any more.
      {3, 0, [](tb::Layout& l) { l.drop(3, "start_time").drop(3, "delta"); }},
  };
  for (const auto& [stored, row, change] : cases) {
    SCOPED_TRACE(stored);
    tb::Trace trace;
    change(trace.layout());
    const KLT_Row* const nearest = OpenTrace(trace).handle()->decoders->entries[stored].layout->row;
    EXPECT_EQ(nearest == nullptr ? 0 : nearest->number, row);
  }
}

// Defaults of missing fields, and signs of negative numbers in narrow fields.
TEST_F(KltGeneric, FieldsHaveTheirDefaultsAndSigns) {
  for (const Type type : {Type::I8, Type::I16, Type::I32}) {
    tb::Trace trace;
    tb::Layout& layout = trace.layout();
    layout.drop(19, "left_size").drop(19, "stride").drop(71, "skew").drop(71, "pid");
    layout.drop(52, "bytes_sent").drop(3, "start_time");
    layout.retype(28, "function", type).retype(13, "resolution", type);
    trace.clock(-2, 10).communicator(5, "c", {{0, 4, 2}, {7, 7, 3}});
    trace.declarations().record(71, {{"tid", 4}, {"offset", 2.0}});
    trace.stream("f", tb::STATISTICS | tb::COLLOPS | tb::FUNCTIONS)
        .record(52, {{"willy_gtp", 1}, {"count", 2}})
        .record(41, {{"willy_gtp", 0}})  // is only used in anchor files
        .enter(0, ~uint32_t{0})
        .collective({.communicator = 5, .operation = 9, .start = {1, 2}, .duration = {3, 4}});
    OpenTrace open(trace);
    EXPECT_EQ(open.definitions, (Lines{"clock_resolution -2.000000 10",
                                       "communicator_definition 5 'c' 2 0:4:1 7:7:1 -2",
                                       "willy_definition 0 (null) (null) 0 4 2.000000 1.000000"}));
    EXPECT_EQ(
        reading::without(open.read(), {"end_of_filter"}),
        (Lines{"lw_statistics 1 0 0 4294967295 0 2 0 0 0 0 0 0", "enter_function 0 0 4294967295 0",
               "all_communication 0 5 9 2 [0 0] [3 4] [null]"}));
  }
}

TEST_F(KltGeneric, NothingIsAllocatedForACountBeforeItsElementsAreRead) {
  static size_t largest = 0;
  PAL_MemInit();
  PAL_allocators.realloc = [](void* block, size_t bytes) {
    largest = std::max(largest, bytes);
    return std::realloc(block, bytes);
  };
  struct Case {
    Type type;
    uint64_t count;
    const char* message;
  };
  const char* const missing = "bytes missing";
  const char* const corrupt = "Corrupted data";
  const Case cases[] = {
      {Type::I8, 0xff, corrupt},
      {Type::F32, 2, "Found wrong field-type when filtering counter_value"},
      {Type::U32, 0xffffffff, missing},
      {Type::U64, uint64_t{1} << 63, corrupt},  // more than 64 bits for the bytes
      {Type::U8, 3, missing},                   // one too many
  };
  for (const auto& [type, count, message] : cases) {
    SCOPED_TRACE(count);
    tb::Trace trace;
    trace.layout().retype(22, "#1", type);
    const std::vector<uint64_t> two{1, 2};
    trace.stream("f", tb::COUNTERS).record(22, {{"#1", count}, {"values", two}, {"counters", two}});
    // Two counts for the rows' own decoders.
    trace.declarations().record(65, {{"#1", 65535}, {"thread_numbers_gtp", 1}});
    trace.stream("o", tb::ANY).at(9).record(64, {{"#1", 0xffffffff}, {"data", "ab"}});
    Messages messages;
    OpenTrace open(trace);
    EXPECT_EQ(only(open.read(), {"counter_value", "opaque_data"}), Lines{});
    EXPECT_EQ(open.statuses,
              std::vector<int>{message == missing ? KLT_STATUS_FINISHED : KLT_STATUS_ABORTING});
    EXPECT_LE(largest, 0x20000U);
    const std::string text = messages.take();
    EXPECT_NE(text.find(message), std::string::npos) << text;
    EXPECT_NE(text.find(".dcl, 262136 bytes missing"), std::string::npos) << text;
  }
}

}  // namespace
