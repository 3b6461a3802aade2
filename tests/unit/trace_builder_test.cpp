// The builder of test traces: its encoding against bytes worked out by hand, and its layout against
// the index of a trace that another program wrote.
#include "tests/builder/trace_builder.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using tb::FUNCTIONS;
using tb::TraceFiles;

std::string hex(std::string_view bytes) {
  std::string text;
  for (const char byte : bytes) {
    constexpr char kDigits[] = "0123456789abcdef";
    const auto value = static_cast<unsigned char>(byte);
    if (!text.empty()) text += ' ';
    text += kDigits[value >> 4];
    text += kDigits[value & 15];
  }
  return text;
}

TEST(TraceBuilder, LayoutBlockIsTheOneOfOtherWriters) {
  const std::string index = tb::readFile(KLT_TEST_DATA "/ring/t.klt");
  const std::string block = tb::Layout().block();
  ASSERT_GT(index.size(), 11 + block.size());
  EXPECT_TRUE(index.substr(11, block.size()) == block);
  EXPECT_NE(index[11 + block.size()], '\0');
}

TEST(TraceBuilder, RecordsHaveTheBytesOfTheFormat) {
  const tb::Layout layout;
  tb::RecordBytes records(layout);
  records.setRunning(0x1000);
  records.at(0x1005);
  records.record(28, {{"willy_gtp", 3}, {"function", 7}});
  EXPECT_EQ(hex(records.contents()), "1c 00 05 00 00 00 03 00 00 00 07");

  tb::RecordBytes texts(layout);
  texts.record(69, {{"id", 5}, {"string", "abc"}});
  EXPECT_EQ(hex(texts.contents()), "45 00 00 00 05 00 03 61 62 63");

  tb::RecordBytes operation(layout);
  operation.record(3, {{"communicator", 4},
                       {"type", 9},
                       {"start_time", std::vector<uint64_t>{1, 2}},
                       {"delta", std::vector<uint64_t>{3, 4}}});
  EXPECT_EQ(operation.contents().size(), 40U);
  EXPECT_EQ(hex(operation.contents().substr(0, 16)),
            "03 00 00 00 04 09 00 02 00 00 00 00 00 00 00 01");

  tb::RecordBytes clock(layout);
  clock.record(13, {{"resolution", 1.0}, {"eventbits", 10}});
  EXPECT_EQ(hex(clock.contents()), "0d 3f f0 00 00 00 00 00 00 00 00 00 0a");
}

TEST(TraceBuilder, StepsOfTimeBecomeTimeRecordsWhereADeltaCantHoldThem) {
  const tb::Layout layout;
  const auto stepTo = [&](uint64_t from, uint64_t to) {
    tb::RecordBytes records(layout);
    records.setRunning(from);
    records.at(to);
    records.record(48, {{"willy_gtp", 0}});
    return hex(records.contents());
  };
  EXPECT_EQ(stepTo(0, 0xffff), "30 ff ff 00 00 00 00");
  EXPECT_EQ(stepTo(0, 0x10000), "01 00 01 00 00 30 00 00 00 00 00 00");
  EXPECT_EQ(stepTo(1, 0x100000001), "02 00 00 00 01 00 00 00 00 30 00 00 00 00 00 00");
  EXPECT_EQ(stepTo(9, 8), "46 00 00 00 00 00 00 00 01 30 00 00 00 00 00 00");
}

TEST(TraceBuilder, ForeignLayoutsChangeTheBytesOfRecords) {
  tb::Layout layout;
  layout.renumber(28, 200).retype(28, "willy_gtp", tb::Type::I16);
  layout.insert(28, "function", {.name = "", .type = tb::Type::U8, .isCount = true, .covers = 1});
  layout.insert(28, "function", {.name = "extra", .type = tb::Type::U16});
  layout.drop(22, "counters");
  tb::RecordBytes records(layout);
  records.record(28, {{"willy_gtp", 3}, {"function", 7}});
  EXPECT_EQ(hex(records.contents()), "c8 00 00 00 03 00 00 00 00 07");

  tb::RecordBytes counters(layout);
  counters.record(22, {{"values", std::vector<uint64_t>{1}}, {"counters", std::vector<int>{5}}});
  EXPECT_EQ(hex(counters.contents()), "16 00 00 00 00 00 00 01 00 00 00 00 00 00 00 01");
}

TEST(TraceBuilder, AStatedCountClaimsElementsThatAreNotThere) {
  const tb::Layout layout;
  tb::RecordBytes records(layout);
  records.record(65, {{"#1", 65535}, {"thread_numbers_gtp", std::vector<uint32_t>{1}}});
  EXPECT_EQ(hex(records.contents()), "41 ff ff 00 00 00 01");
}

TEST(TraceBuilder, AnchorsTellWhatIsOpenAtAChangeOfTime) {
  tb::Trace trace;
  tb::Stream& calls = trace.stream("f.0", FUNCTIONS, {0}).anchorEvery(20);
  calls.at(1).enter(0, 5).enter(0, 6, 9);  // both at one time: no anchor between them
  calls.enter(0, 7).at(2).leave(0).at(3).leave(0);
  ASSERT_EQ(calls.anchors().size(), 1U);
  EXPECT_EQ(calls.anchors()[0], std::make_pair(uint64_t{1}, uint64_t{11 + 15 + 11}));

  TraceFiles files = trace.files();
  EXPECT_EQ(hex(files[".f.0.anc"].substr(0, 7 + 24)),
            "2a 00 00 00 00 00 03 00 00 00 05 00 00 00 06 00 00 00 07 00 00 00 00 00 00 00 09 "
            "00 00 00 00");
  EXPECT_EQ(hex(files[".f.0.anc"].substr(7 + 24)),
            "09 00 00 00 00 00 00 00 01 00 00 00 00 00 00 00 25");
}

TEST(TraceBuilder, AnchorsPointToMessagesThatAreOnTheirWay) {
  tb::Trace trace;
  tb::Stream& messages = trace.stream("msg", tb::MESSAGES, {0, 1});
  messages.at(0x20000).message({.sender = 0, .receiver = 1, .receiveTime = 10});
  messages.at(0x20005).message({.sender = 1, .receiver = 0, .receiveTime = tb::NO_RECEIVE});
  messages.at(0x2000a).message({.sender = 1, .receiver = 0, .receiveTime = 1}).anchor();
  TraceFiles files = trace.files();
  // The first has arrived, the second never does, the third is under way.
  const std::string& anchors = files[".msg.anc"];
  EXPECT_EQ(hex(anchors.substr(0, 2)), "2e 02");
  EXPECT_EQ(hex(anchors.substr(10, 16)), "00 00 00 00 00 00 00 4b 00 00 00 00 00 00 00 28");
  EXPECT_EQ(hex(anchors.substr(26, 16)), "00 00 00 00 00 02 00 05 00 00 00 00 00 02 00 00");
}

TEST(TraceBuilder, ContainersHoldTheComponentsInExtents) {
  TraceFiles files;
  files.add(" ", "abcde");
  files.add(".dcl", "xy");
  const std::string one = files.container();
  EXPECT_EQ(hex(one.substr(0, 12)), "53 4b 4c 54 00 00 00 00 00 00 00 01");
  EXPECT_EQ(one.substr(12, 7), "abcdexy");
  EXPECT_EQ(hex(one.substr(one.size() - 8)), "00 00 00 00 00 00 00 13");

  const std::string split = files.container({.version = 0, .extent = 2});
  EXPECT_EQ(split.substr(12, 7), "abxycde");
  EXPECT_EQ(hex(split.substr(19, 13)), "00 01 20 00 00 00 00 00 00 00 01 00 03");

  const std::string padded = files.container({.extent = 4, .padded = true});
  EXPECT_EQ(hex(padded.substr(12, 12)), "61 62 63 64 78 79 aa aa 65 aa aa aa");
}

TEST(TraceBuilder, DamageChangesWhatIsWritten) {
  TraceFiles files;
  files.add(".a", "abcdef");
  files.truncate(".a", 1).flip(".a", 0, 0x20).splice(".a", 1, 2, "--");
  EXPECT_EQ(files[".a"], "A--de");

  const tb::TempDir directory;
  EXPECT_EQ(files.writePlain(directory), directory / "t.klt");
  EXPECT_EQ(tb::readFile(directory / "t.klt.a"), "A--de");
}

}  // namespace
