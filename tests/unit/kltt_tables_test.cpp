#include "generic/kltt_tables.h"

#include <gtest/gtest.h>

#include <limits>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "generic/kltt_binary.h"
#include "generic/kltt_extract.h"
#include "generic/kltt_print.h"
#include "klt/klt_write.h"
#include "kltt_fixture.h"
#include "tests/unit/klt_reading.h"

namespace {

class KlttTables : public KlttFixture {
 protected:
  int defineClass(uint32_t id, const char* name, const char* nameSelf, uint32_t parent) {
    return KLTT_ClassDefinition(&context, id, name, nameSelf, parent);
  }
};
using KlttTablesDeathTest = KlttTables;

TEST(KlttIdIndex, AgreesWithAMapForAnyIds) {
  std::mt19937 engine(5);
  const auto random = [&] { return static_cast<uint32_t>(engine()); };
  std::unordered_map<uint32_t, uint32_t> model;
  KLT_IdIndex index(KLTT_DIRECT_IDS);
  KLT_IdIndex hashed;  // without an array for small ids
  std::vector<uint32_t> ids = {0, 1, 63, 64, 65535, 65536, 0x7fffffff, 0xffffffff};
  for (int i = 0; i < 20000; ++i) ids.push_back(random() >> (random() % 32));
  for (uint32_t k = 0; k < 20000; ++k) ids.push_back(k << 16);  // equal low bits
  uint32_t next = 1;
  for (const uint32_t id : ids) {
    if (!model.emplace(id, next).second) continue;
    index.add(id, next);
    hashed.add(id, next++);
  }
  for (const auto& [id, dense] : model) {
    ASSERT_EQ(index.find(id), dense);
    ASSERT_EQ(hashed.find(id), dense);
  }
  for (int i = 0; i < 20000; ++i) {
    const uint32_t id = random();
    const auto entry = model.find(id);
    ASSERT_EQ(index.find(id), entry == model.end() ? 0 : entry->second);
    ASSERT_EQ(hashed.find(id), entry == model.end() ? 0 : entry->second);
  }
}

TEST(KlttTable, FirstEntryStaysAndIdZeroIsNeverStored) {
  KLTT_Names names;
  KLTT_Table<KLTT_Named> table;
  EXPECT_EQ(KLTT_TableInsert(table, names, 7, "first", 1), 1);
  EXPECT_EQ(KLTT_TableInsert(table, names, 7, "second", 2), 0);
  EXPECT_STREQ(table.find(7)->name, "first");
  EXPECT_EQ(table.find(7)->extra, 1u);
  EXPECT_EQ(KLTT_TableInsert(table, names, 0, "none", 1), 1);
  EXPECT_EQ(table.find(0), nullptr);
  EXPECT_EQ(KLTT_TableInsert(table, names, 0xfffffffe, nullptr, 3), 1);
  EXPECT_EQ(table.indexOf(0xfffffffe), 2u);
  EXPECT_EQ(table.count(), 2u);
}

TEST(KlttMembers, AreGivenBackInRankOrder) {
  const std::vector<std::vector<int32_t>> lists = {
      {},           {5},          {0, 1, 2, 3},      {4, 2, 0},
      {3, 3, 3, 3}, {7, 1, 7, 1}, {0, 65536, 1, -1}, {INT32_MAX, INT32_MIN, 0, 0, 9}};
  for (const std::vector<int32_t>& list : lists) {
    const KLTT_MemberList members{list};
    EXPECT_EQ(members.size(), list.size());
    KLTT_MemberList::Cursor cursor(members);
    uint32_t gtp = 77;
    for (const int32_t expected : list) {
      ASSERT_TRUE(cursor.next(&gtp));
      EXPECT_EQ(gtp, static_cast<uint32_t>(expected));
    }
    EXPECT_FALSE(cursor.next(&gtp));
  }
}

TEST_F(KlttTables, ProcessDeclarationShowsThreadsOnlyWhereThereAreSome) {
  const uint32_t one[] = {1};
  const uint32_t several[] = {1, 0, 3};
  const uint32_t many[] = {0xffffffff, 0xffffffff};
  KLTT_ProcessDeclaration(&context, 1, one);
  EXPECT_EQ(text(), "NCPUS 1\n");
  KLTT_ProcessDeclaration(&context, 0, nullptr);
  EXPECT_EQ(text(), "NCPUS 0\n");
  KLTT_ProcessDeclaration(&context, 3, several);
  EXPECT_EQ(text(), "NCPUS 4\nDEFTHREADNUMS 1 0 3\n");
  KLTT_ProcessDeclaration(&context, 2, many);
  EXPECT_EQ(text(), "NCPUS -2\nDEFTHREADNUMS -1 -1\n");
}

TEST_F(KlttTables, ClockIsTakenInTicksWhateverTheEventBits) {
  KLTT_ClockResolution(&context, 0.25, 2);
  EXPECT_EQ(text(), "CLKPERIOD 0.25\nEVENTBITS 2\n");
  EXPECT_EQ(context.clockPeriod, 1);
  EXPECT_EQ(context.ticksPerSecond, 1);
  KLTT_ClockResolution(&context, 1, 0xffffffff);  // prints what stands there, counts with 63
  EXPECT_EQ(text(), "CLKPERIOD 1\nEVENTBITS -1\n");
  EXPECT_EQ(context.clockPeriod, 9223372036854775808.0);
  EXPECT_EQ(context.eventBits, 63u);
}

TEST_F(KlttTables, ClassesAreNamedByTheirPath) {
  defineClass(2, "a", "a", 0);
  defineClass(3, nullptr, "b", 2);
  defineClass(4, "a:b:c", "c", 3);
  defineClass(5, nullptr, "", 3);
  defineClass(0, "zero", nullptr, 0);
  EXPECT_EQ(text(),
            "DEFSAMPCLASS 3 \"a\"\nDEFACT 2 \"a\"\n"
            "DEFSAMPCLASS 4 \"a:b\"\nDEFACT 3 \"a:b\"\n"
            "DEFSAMPCLASS 5 \"a:b:c\"\nDEFACT 4 \"a:b:c\"\n"
            "DEFSAMPCLASS 6 \"a:b:\"\nDEFACT 5 \"a:b:\"\n"
            "DEFSAMPCLASS 1 \"zero\"\nDEFACT 0 \"zero\"\n");
}

TEST_F(KlttTablesDeathTest, BrokenClassesEndTheProcess) {
  const auto fatal = testing::ExitedWithCode(1);
  EXPECT_EXIT(defineClass(2, nullptr, "b", 9), fatal, "^class def with invalid parent\n$");
  EXPECT_EXIT(defineClass(2, "App:b", nullptr, 1), fatal, "^class def without nameself\n$");
  EXPECT_EXIT(defineClass(2, "b", "b", 1), fatal,
              "^class def with broken hierarchy: App:b != b\n$");
  EXPECT_EXIT(defineClass(2, nullptr, nullptr, 0), fatal,
              "^class def: unable to obtain full name: name \\(null\\), nameself \\(null\\), "
              "parent 0\n$");
  EXPECT_EXIT(defineClass(2, "a", "b", 0), fatal, "^class def with different names: b != a\n$");
  EXPECT_EXIT(defineClass(1, "again", nullptr, 0), fatal, "^duplicate class def: 1 = again\n$");
  EXPECT_EXIT(defineClass(1, "\x1b[2J", nullptr, 0), fatal, "^duplicate class def: 1 = .x1[bB]");
}

TEST_F(KlttTables, ARepeatedFunctionKeepsItsFirstClass) {
  defineClass(2, "b", nullptr, 0);
  text();
  EXPECT_EQ(KLTT_FunctionDefinition(&context, 10, "other", 2), 0);
  EXPECT_EQ(text(), "DEFSTATE 10 ACT 2 \"other\"\n");
  EXPECT_STREQ(context.functions.find(10)->name, "main");
  EXPECT_EQ(context.functions.find(10)->extra, 1u);
}

TEST_F(KlttTablesDeathTest, DefinitionsOutsideAClassEndTheProcess) {
  const auto fatal = testing::ExitedWithCode(1);
  EXPECT_EXIT(KLTT_FunctionDefinition(&context, 4, nullptr, 0), fatal,
              "^class id of function #4 \\(null\\) is zero\n$");
  EXPECT_EXIT(KLTT_FunctionDefinition(&context, 4, "f", 9), fatal,
              "^function def record with an undefined class id\n$");
  EXPECT_EXIT(KLTT_ScopeDefinition(&context, 4, "s", 0, 0, 0), fatal,
              "^class id of scope #4 s is zero\n$");
  EXPECT_EXIT(KLTT_ScopeDefinition(&context, 4, "s", 9, 0, 0), fatal,
              "^scope def record with an undefined class id\n$");
  EXPECT_EXIT(KLTT_Info(&context, 0, "text"), fatal, "^info record without a proper class id\n$");
  EXPECT_EXIT(KLTT_Info(&context, 9, "text"), fatal, "^info record with an undefined class id\n$");
  EXPECT_EXIT(KLTT_FunctionStatistics(&context, 9, 0, 0, 0, 0, 0, 0, 0, 0), fatal,
              "^statistics for undefined function #9\n$");
  EXPECT_EXIT(KLTT_CollopStatistics(&context, 1, 9, 0), fatal,
              "^statistics for undefined collection operation #9\n$");
}

TEST_F(KlttTables, CommunicatorsKeepRankOrderAndAreDefinedOnce) {
  const PAL_Triplet ranks[] = {{4, 0, -2}, {1, 1, 1}};
  const PAL_Triplet other[] = {{9, 9, 1}};
  KLTT_CommunicatorDefinition(&context, 3, "odd", 2, ranks, -2);
  KLTT_CommunicatorDefinition(&context, 3, "", 1, other, -2);
  EXPECT_EQ(text(), "COMDEF 3 4 4:0:-2 1:1:1 NAME \"odd\"\nCOMDEF 3 1 9:9:1\n");
  EXPECT_EQ(KLTT_GetIndexInComm(context, 3, "Test").size(), 4u);
}

TEST_F(KlttTables, AHugeCommunicatorIsEmptyAndReported) {
  const PAL_Triplet huge[] = {{0, INT32_MAX, 1}};
  testing::internal::CaptureStderr();
  KLTT_CommunicatorDefinition(&context, 4, "all", 1, huge, -2);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "ERROR: Invalid triplet data.\n");
  EXPECT_EQ(KLTT_GetIndexInComm(context, 4, "Test").size(), 0u);
}

TEST_F(KlttTables, TextsOfTheDefinitionPassFollowTheEventsOfTimeZero) {
  KLTT_WillyDefinition(&context, 0x20001, "host", nullptr, 7, uint64_t{1} << 40, -0.25, 1);
  KLTT_Info(&context, 1, "built\nwith care");
  KLTT_WillyDefinition(&context, 1, std::string(1000, 'h').c_str(), "ip", 7, 8, 0, 1);
  KLTT_EnterFunction(&context, 0, 0, 10, 0);
  KLTT_EnterFunction(&context, 1, 0, 11, 0);
  const std::string longHost = "process #1, thread #0: host \"" + std::string(1000, 'h');
  EXPECT_EQ(text(),
            "0 EXCHEXT CPU 1 DOWNTO 10\n"
            "0 C process #1, thread #2: host \"host\", ip (null), pid 7, tid 1099511627776, offset "
            "-0.250000, skew 1.000000\n"
            "0 C App: built with care\n"
            "0 C " +
                longHost.substr(0, 511) +
                "\n"
                "1 EXCHEXT CPU 1 DOWNTO 11\n");
}

TEST_F(KlttTables, RemainingDefinitionsBecomeLines) {
  const uint32_t members[] = {0, 0x10000};
  const uint32_t files[] = {1, 2};
  const uint32_t lines[] = {0x80000000, 12};
  const uint64_t bounds[] = {uint64_t{5} << 32 | 6, ~uint64_t{0}};
  KLTT_WillyName(&context, 1, "Process 1");
  KLTT_Duration(&context, 3, 900);
  KLTT_ScopeDefinition(&context, 6, "phase", 1, 0, 4);
  KLTT_CollectiveOperationDefinition(&context, 3, nullptr, 1);
  KLTT_CounterDefinition(&context, 1, "c", 0x85, bounds, 0x80000000, 1, "u");
  KLTT_GroupDefinition(&context, 8, "All", 2, members);
  KLTT_FileDefinition(&context, 1, "a.c");
  KLTT_SclDefinition(&context, 2, 2, files, lines, nullptr, nullptr);
  KLTT_FileIoFileDefinition(&context, 1, 2, "out.dat");
  EXPECT_EQ(text(),
            "CPUSYM 2 \"Process 1\"\n"
            "DURATION 3 900\n"
            "DEFSCOPE 6 ACT 1 \"phase\" END SCL 4\n"
            "GLOBALOPTOKEN 3 \"(null)\"\n"
            "DEFSAMP 2 CLASS 2 CPUSAMP FOR 2147483649 TYPE UINT MIN 5 6 MAX 4294967295 4294967295 "
            "DIFF 1 RHINT 3 NAME \"c\" UNIT \"u\"\n"
            "DEFGROUP 9 \"All\" NMEMBS 2 1 65537\n"
            "FILETOKEN 1 \"a.c\"\n"
            "DEFSCL 2 NLOCS 2 LOCS 1:-1 2:12\n"
            "IOFILE 1 2 \"out.dat\"\n");
}

// Whatever bits a file sets: an integer or a floating value, one hint at the rate, differential.
TEST_F(KlttTables, ABinaryCounterHasOneKindOfValueAndOneHint) {
  tb::TempDir directory;
  const std::string name = directory.path() + "/c.klt";
  KLT_WFileHandle* writer =
      KLT_WriterOpen(nullptr, name.c_str(), 1, KLT_FORM_PLAIN, 0, nullptr, {});
  ASSERT_NE(writer, nullptr);
  const uint64_t bounds[] = {0, 1};
  uint32_t id = 0;
  for (const uint32_t flags : {0x00U, 0x01U, 0x02U, 0x03U, 0x62U, 0x85U, 0x0dU, 0x1fU, 0x0aU}) {
    KLTT_PutCounter(writer, ++id, "c", flags, bounds, 0, 1, "u");
  }
  bool complete = false;
  EXPECT_EQ(KLT_WriterClose(writer, &complete), nullptr);
  EXPECT_TRUE(complete);

  reading::Lines expected;
  for (const uint32_t type : {0x02U, 0x01U, 0x02U, 0x01U, 0x02U, 0x85U, 0x05U, 0x11U, 0x0aU}) {
    expected.push_back("counter_definition " + std::to_string(expected.size() + 1) + " 'c' " +
                       std::to_string(type) + " [0 1] 0 1 'u'");
  }
  reading::Recorder recorder;
  KLT_FileHandle* trace = KLT_Open(name.c_str());
  ASSERT_NE(trace, nullptr);
  {
    const reading::Reader reader(
        KLT_OpenReader(trace, KLT_MODE_DEFINITIONS, 0, nullptr, &recorder.table, 1));
    EXPECT_EQ(KLT_ReadEvents(reader.get(), -1), KLT_STATUS_FINISHED);
  }
  KLT_Close(trace);
  EXPECT_EQ(reading::only(recorder.lines, {"counter_definition"}), expected);
}

// Paths of all lengths, and one name for many, read back from a slice as they are in the original.
TEST_F(KlttTables, AChainOfClassesKeepsItsNamesInASlice) {
  tb::Trace trace;
  trace.clock(1, 0).processes({1}).defineClass(1, "root").defineClass(2, "root:a", 1);
  const std::string part(16000, 'p');
  for (uint32_t id = 3; id < 10; ++id) {
    trace.declarations().record(
        12, {{"id", id}, {"nameself", trace.text(part)}, {"parent", id < 8 ? id - 1 : 6}});
  }
  trace.declarations().record(47, {{"info_class", 4}, {"info", "deep"}});
  trace.stream("f", tb::FUNCTIONS).at(1).enter(0, 1);
  trace.function(1, "f", 9);

  const tb::TempDir directory;
  const auto extract = [&](KLT_FileHandle* handle, const std::string& name, int format) {
    RK_conf.logfile_name = directory / name;
    RK_conf.logfile_name_set = true;
    RK_conf.output_format = format;
    RK_conf.matched_rkf = format;
    EXPECT_EQ(KLTT_Extract(handle, 1), 0);
    return tb::readFile(directory / name);
  };
  reading::OpenTrace open(trace);
  const std::string text = extract(open.handle(), "a.rkf", 0);
  std::string path = "root:a";
  for (uint32_t id = 3; id < 8; ++id) {
    path += ':' + part;
    EXPECT_NE(text.find("\nDEFACT " + std::to_string(id) + " \"" + path + "\"\n"), text.npos) << id;
  }
  EXPECT_NE(text.find("\n0 C root:a:" + part + ':' + part + ": deep\n"), text.npos);
  (void)extract(open.handle(), "b.klt", 1);
  KLT_FileHandle* slice = KLT_Open((directory / "b.klt").c_str());
  ASSERT_NE(slice, nullptr);
  size_t longest = 0;
  for (const auto& entry : slice->strings.entries()) {
    longest = std::max(longest, entry.value.size());
  }
  EXPECT_EQ(longest, 6 + 4 * (1 + part.size()));  // a fifth part wouldn't fit
  const auto definitions = [](const std::string& whole) {
    const size_t begin = whole.find("\nNCPUS");
    return whole.substr(begin, whole.find("\n0 C") - begin);
  };
  EXPECT_TRUE(definitions(extract(slice, "c.rkf", 0)) == definitions(text));
  KLT_Close(slice);
}

}  // namespace
