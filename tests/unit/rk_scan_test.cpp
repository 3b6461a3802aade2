// The grammar of configuration lines, through single lines and the store they fill.
#include "generic/RK_scan.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "generic/RK_conf.h"
#include "util/pal_error.h"

namespace {

class RkScan : public testing::Test {
 protected:
  void SetUp() override {
    RK_ConfigDefaults();
    messages_.clear();
    saved_ = PAL_messages;
    PAL_messages.programName = nullptr;
    PAL_messages.logCallback = [](void*, const char* text, size_t length) {
      messages_.append(text, length);
    };
    testing::internal::CaptureStderr();
  }
  void TearDown() override {
    testing::internal::GetCapturedStderr();
    PAL_messages = saved_;
  }

  static bool scan(const std::string& line) { return RK_ScanLine(line, RK_ScanMode::parameter, 0); }
  // The last request after `--request <text>`.
  static const RK_Request& request(const std::string& text) {
    EXPECT_TRUE(scan("request " + text)) << text;
    return RK_conf.request.back();
  }
  static std::string takeMessages() { return std::exchange(messages_, {}); }

 private:
  PAL_MessageSettings saved_{};
  static inline std::string messages_;
};

// What a request took in, in one comparable line.
std::string describe(const RK_Request& request) {
  std::string text;
  for (const PAL_Triplet& t : request.triplets)
    text += std::to_string(t.first) + ":" + std::to_string(t.last) + ":" +
            std::to_string(t.stride) + " ";
  char numbers[128];
  snprintf(numbers, sizeof numbers, "[%g %g] %g %x", request.window_start, request.window_end,
           request.time, request.categories);
  text += numbers;
  if (!request.types.empty()) text += " '" + request.types.back().text + "'";
  return text;
}

TEST_F(RkScan, SwitchesTakeBooleanWordsOrNothing) {
  for (const char* on : {"print-statistics", "PRINT-STATISTICS on", "Print-Statistics TRUE"}) {
    RK_conf.print_statistics = 0;
    EXPECT_TRUE(scan(on));
    EXPECT_EQ(RK_conf.print_statistics, 1) << on;
  }
  EXPECT_TRUE(scan("print-statistics \t OFF \r"));
  EXPECT_EQ(RK_conf.print_statistics, 0);
  for (const char* bad : {"yes", "1", "on off", "'on'", "on # comment"}) {
    EXPECT_FALSE(scan(std::string("print-statistics ") + bad)) << bad;
    EXPECT_EQ(RK_conf.print_statistics, 0);
  }
}

TEST_F(RkScan, SwitchWithFileNamesTheOutput) {
  EXPECT_TRUE(scan("convert on"));
  EXPECT_EQ(RK_conf.convert, 1);
  EXPECT_FALSE(RK_conf.logfile_name_set);
  EXPECT_TRUE(scan("move 'a b.klt'"));
  EXPECT_EQ(RK_conf.move, 1);
  EXPECT_EQ(RK_conf.logfile_name, "a b.klt");
  EXPECT_TRUE(RK_conf.logfile_name_set);
  EXPECT_TRUE(scan("merge \"off\""));
  EXPECT_EQ(RK_conf.merge, 1);
  EXPECT_EQ(RK_conf.logfile_name, "off");
}

TEST_F(RkScan, IntegersSaturateAndUnsignedOnesHaveNoMinus) {
  EXPECT_TRUE(scan("perftest -99999999999999999999"));
  EXPECT_EQ(RK_conf.perftest, INT32_MIN);
  EXPECT_TRUE(scan("class-hashsize +4294967295"));
  EXPECT_EQ(RK_conf.class_hashsize, INT32_MAX);
  for (const char* bad : {"-1", "0x10", "12k", "+", "1 2"}) {
    EXPECT_FALSE(scan(std::string("class-hashsize ") + bad)) << bad;
  }
  EXPECT_EQ(RK_conf.class_hashsize, INT32_MAX);
}

TEST_F(RkScan, LevelTakesIntegersAndBooleanWords) {
  EXPECT_TRUE(scan("verbose 3"));
  EXPECT_EQ(RK_conf.verbose, 3);
  EXPECT_TRUE(scan("verbose off"));
  EXPECT_EQ(RK_conf.verbose, 0);
  EXPECT_FALSE(scan("VERBOSE 2 # two"));
  EXPECT_EQ(RK_conf.verbose, 0);
}

TEST_F(RkScan, MissingValueIsAnErrorThatStopsNothing) {
  for (const char* keyword : {"verbose", "Logfile-Name", "request", "perftest  "}) {
    EXPECT_TRUE(scan(keyword)) << keyword;
  }
  EXPECT_EQ(takeMessages(),
            "ERROR: parameter error after verbose, missing parameters\n"
            "ERROR: parameter error after Logfile-Name, missing parameters\n"
            "ERROR: parameter error after request, missing parameters\n"
            "ERROR: parameter error after perftest, missing parameters\n");
  EXPECT_EQ(RK_conf.verbose, 1);
  EXPECT_FALSE(RK_conf.logfile_name_set);
  EXPECT_TRUE(RK_conf.request.empty());
}

TEST_F(RkScan, InvalidValueSetsTheFlagAndKeepsTheValue) {
  for (const char* bad : {"a b", "it's", "''", "\"a'b\"", "'a\tb' c", "caf\xc3\xa9", "<x>"}) {
    EXPECT_FALSE(scan(std::string("logfile-name ") + bad)) << bad;
    EXPECT_EQ(RK_conf.logfile_name, "");
    EXPECT_TRUE(RK_conf.logfile_name_set);
  }
  takeMessages();
  EXPECT_FALSE(scan("LOGFILE-name a\x01\tb"));
  EXPECT_EQ(takeMessages(),
            "ERROR: parameter error after --LOGFILE-name, invalid parameters \"a\\x01\\x09b\"\n");
  EXPECT_TRUE(scan("logfile-name \"a\t b\""));
  EXPECT_EQ(RK_conf.logfile_name, "a\t b");
}

TEST_F(RkScan, ConfigFileMessagesTellTheLine) {
  EXPECT_FALSE(
      RK_ScanText("# comment\r\n\nnonsense 1\nVERBOSE\n"
                  "VERBOSE loud\nREQUEST 5 {x}\nDUMP\r\n",
                  RK_ScanMode::config));
  EXPECT_EQ(takeMessages(),
            "ERROR: unknown config option \"nonsense\" in line 3\n"
            "ERROR: config error after VERBOSE, missing parameters in line 4\n"
            "ERROR: config error after VERBOSE, invalid parameters \"loud\" in line 5\n"
            "ERROR: config error after REQUEST, ignoring unrecognized text in line 6: {x}\n");
  EXPECT_EQ(RK_conf.dump, 1);
  ASSERT_EQ(RK_conf.request.size(), 1U);
  EXPECT_EQ(describe(RK_conf.request[0]), "5:5:1 [0 -1] 0 0");
}

TEST_F(RkScan, KeywordsCountOnlyInTheFirstColumnAndAsWholeWords) {
  EXPECT_FALSE(scan(" dump"));
  EXPECT_FALSE(scan("verbose=2"));
  EXPECT_FALSE(scan("dumps"));
  EXPECT_FALSE(scan("dump{on"));
  EXPECT_FALSE(scan("INFO"));
  EXPECT_EQ(takeMessages(),
            "ERROR: unknown parameter \"--dump\"\nERROR: unknown parameter \"--verbose=2\"\n"
            "ERROR: unknown parameter \"--dumps\"\nERROR: unknown parameter \"--dump\"\n"
            "ERROR: unknown parameter \"--INFO\"\n");
  EXPECT_EQ(RK_conf.dump, 0);
  EXPECT_TRUE(scan("info this and 'that"));
  EXPECT_TRUE(scan("   \t\r"));
  EXPECT_EQ(takeMessages(), "");
}

TEST_F(RkScan, MistakesAreAnsweredWithWhatWasMeant) {
  const auto hint = [&](const char* argument) {
    EXPECT_FALSE(scan(argument));
    const std::string shown = testing::internal::GetCapturedStderr();
    testing::internal::CaptureStderr();
    return shown.substr(shown.find('\n') + 1);  // behind the message
  };
  EXPECT_EQ(hint("dumps"), "Did you mean --dump?\n");
  EXPECT_EQ(hint("verbose=2"), "Did you mean --verbose VALUE?\n");
  EXPECT_EQ(hint("mtached-rkf"), "Did you mean --matched-rkf?\n");
  EXPECT_EQ(hint("logfile"), "Did you mean --logfile-name?\n");
  EXPECT_EQ(hint("PRINT-STATISTIC"), "Did you mean --print-statistics?\n");
  EXPECT_EQ(hint("output"), "");
  EXPECT_EQ(hint("x"), "");
  EXPECT_EQ(hint(std::string(70000, 'x').c_str()), "");
  EXPECT_NE(hint("request 0:3 {"), "");
  EXPECT_EQ(hint("Logfile-Name my file"),
            "A text with blanks needs quotes: --logfile-name 'my file'\n");
  for (const char* hopeless : {"it's b", "caf\xc3\xa9 b", "<a> b", "'a' b"})
    EXPECT_EQ(hint((std::string("convert ") + hopeless).c_str()), "") << hopeless;
  EXPECT_EQ(hint("logfile-format KLT SINGLE"), "") << "no format has blanks";
  EXPECT_EQ(hint(" Dump"), "An option begins with two dashes: --dump\n");
  EXPECT_EQ(hint(" dumps"), "Did you mean --dump?\n");
  EXPECT_EQ(hint("dump{on"), "Did you mean --dump VALUE?\n");
  EXPECT_EQ(hint("verbose loud"), "");

  // Words of a request that select nothing are allowed.
  const auto remark = [&](const char* argument) {
    EXPECT_TRUE(scan(argument));
    std::string shown = testing::internal::GetCapturedStderr();
    testing::internal::CaptureStderr();
    return shown;
  };
  EXPECT_EQ(remark("request 0:3 function"),
            "\"function\" in a request selects nothing.\nDid you mean FUNCTIONS?\n");
  EXPECT_TRUE(remark("request 'collops' messagse")
                  .ends_with("\"collops\" in a request selects nothing. Without quotes it does: "
                             "--request collops\n"
                             "\"messagse\" in a request selects nothing.\n"
                             "Did you mean MESSAGES?\n"));
  EXPECT_TRUE(remark("request frame").ends_with("COUNTERS MESSAGES COLLOPS\n"));
  for (const char* meant : {"1s:2s FUNCTION", "0:3,5", "my COUNTERS"})
    EXPECT_TRUE(remark((std::string("request '") + meant + '\'').c_str())
                    .ends_with(std::string("does: --request ") + meant + "\n"));
  for (const char* type : {"\"foo\"", "'one word 5:6'", "\"foo1\" 0:3", "'  '"})
    EXPECT_EQ(remark((std::string("request ") + type).c_str()), "") << type;
  EXPECT_EQ(remark("request OPENMP frames"), "");
  EXPECT_EQ(remark("request 1s:2s, FUNCTIONS 0:3"), "");
}

TEST_F(RkScan, StrayCharactersArePassedThrough) {
  EXPECT_FALSE(scan(" # VERBOSE 2"));
  EXPECT_EQ(RK_conf.echo, " ");
  EXPECT_EQ(takeMessages(), "ERROR: unknown parameter \"--#\"\n");
  RK_conf.echo.clear();
  EXPECT_TRUE(scan("{\xff\x01> \t"));
  EXPECT_EQ(RK_conf.echo, "{\xff\x01>");
  EXPECT_EQ(takeMessages(), "");
}

TEST_F(RkScan, RefusedKeywordsWarnAndFail) {
  EXPECT_FALSE(scan("activity x"));
  EXPECT_FALSE(scan("SLIB-DIR"));
  EXPECT_FALSE(scan("info numprocs 4"));
  EXPECT_EQ(takeMessages(),
            "WARNING: Option ACTIVITY not supported.\nWARNING: Option slib-dir not supported.\n"
            "WARNING: Option INFO NUMPROCS not supported.\n");
  EXPECT_TRUE(scan("info numprocessors 4"));
}

TEST_F(RkScan, LineBreaksInArgumentsStartNoOption) {
  EXPECT_FALSE(RK_ScanArguments("logfile-name 'a\nREMOVE\n'"));
  EXPECT_FALSE(RK_ScanArguments("dump\nREMOVE"));
  EXPECT_FALSE(RK_ScanArguments("dump\r"));
  EXPECT_FALSE(RK_ScanArguments("request 0:3 'x\n'"));
  EXPECT_EQ(takeMessages(),
            "ERROR: parameter error after --logfile-name, invalid parameters "
            "\"'a\\x0aREMOVE\\x0a'\"\n"
            "ERROR: unknown parameter \"--dump\\x0aREMOVE\"\n"
            "ERROR: unknown parameter \"--dump\\x0d\"\n"
            "ERROR: parameter error after --request, invalid parameters \"0:3 'x\\x0a'\"\n");
  EXPECT_EQ(RK_conf.remove, 0);
  EXPECT_EQ(RK_conf.dump, 0);
  EXPECT_TRUE(RK_conf.request.empty());
}

TEST_F(RkScan, LongestItemOfARequestWinsThenTheFirst) {
  const std::vector<std::pair<const char*, const char*>> cases = {
      {"10:20", "10:20:1 [0 -1] 0 0"},
      {"10s:20", "[10 20] 0 0"},
      {"10:20s", "[10 20] 0 0"},
      {"1.5:2", "[1.5 2] 0 0"},
      {"1h+30m:2h", "[5400 7200] 0 0"},
      {"5", "5:5:1 [0 -1] 0 0"},
      {"5s", "[0 -1] 5 0"},
      {"1+2", "[0 -1] 3 0"},
      {"0:10:2", "0:10:2 [0 -1] 0 0"},
      {"1:2:3:4", "1:2:3 [0 -1] 0 0"},
      {"2:n", "2:0:1 [0 -1] 0 0"},
      {"N", "0:0:1 [0 -1] 0 0"},
      {"Name", "[0 -1] 0 0 'Name'"},
      {"1:2:3s", "1:2:3 [0 -1] 0 0 's'"},
      {"1:2:-1", "[0 -1] 0 0"},
      {"-1:2", "[0 -1] 0 0"},
      {"-1s:2", "[-1 2] 0 0"},
  };
  for (const auto& [text, expected] : cases) EXPECT_EQ(describe(request(text)), expected) << text;
  EXPECT_EQ(takeMessages(), "");
}

TEST_F(RkScan, RequestItemsFollowEachOtherInAnyOrder) {
  EXPECT_EQ(describe(request("0:3,5:7")), "0:3:1 5:7:1 [0 -1] 0 0");
  EXPECT_EQ(describe(request("0:3 5:7")), "0:3:1 5:7:1 [0 -1] 0 0");
  EXPECT_EQ(describe(request("0:3,5:7FUNCTIONS")), "0:3:1 5:7:1 [0 -1] 0 4");
  EXPECT_EQ(describe(request(", functions ,\"a type\",raw_Events 1s:2s , 3s:4s,,")),
            "[3 4] 0 8004 'a type'");
  EXPECT_EQ(describe(request("1h-5m")), "[0 -1] -300 0");
  EXPECT_EQ(describe(request("'1s:5s FUNCTIONS'")), "[0 -1] 0 0 '1s:5s FUNCTIONS'");
  EXPECT_EQ(RK_conf.request.size(), 6U);
}

TEST_F(RkScan, EveryCategoryHasItsBit) {
  EXPECT_EQ(request("FUNCTIONS SCOPES OPENMP FILEIO COUNTERS MESSAGES COLLOPS").categories, 0x1fcU);
  EXPECT_EQ(request("frames thumbnails INTERNAL REQUESTS ERRORS RAW_EVENTS").categories, 0xbe00U);
}

TEST_F(RkScan, LaterTypeOverwritesTheEarlier) {
  EXPECT_EQ(describe(request("\"one\" two")), "[0 -1] 0 0 'two'");
  EXPECT_EQ(takeMessages(), "WARNING: overwriting old type \"one\" of frame with \"two\"\n");
}

TEST_F(RkScan, TextBehindARequestFailsAndKeepsWhatCameBefore) {
  EXPECT_FALSE(scan("Request 1:2:3:4:5"));
  EXPECT_FALSE(scan("request 5 \t6"));
  EXPECT_EQ(takeMessages(),
            "ERROR: parameter error after --Request, unrecognized text: :5\n"
            "ERROR: parameter error after --request, unrecognized text: \\x096\n");
  ASSERT_EQ(RK_conf.request.size(), 2U);
  EXPECT_EQ(describe(RK_conf.request[0]), "1:2:3 [0 -1] 0 0");
}

TEST_F(RkScan, LinesHaveNoLimit) {
  std::string line = "request 0";
  for (int i = 1; i < 20000; ++i) line += "," + std::to_string(i);
  EXPECT_TRUE(scan(line));
  EXPECT_EQ(RK_conf.request.back().triplets.size(), 20000U);
}

TEST_F(RkScan, TimesAreSumsOfPiecesWithUnits) {
  EXPECT_DOUBLE_EQ(RK_ConfigParseTime("1h+30m"), 5400);
  EXPECT_DOUBLE_EQ(RK_ConfigParseTime("1w+1d+1h+1m+1s+1l+1c"), 694861.001001);
  EXPECT_DOUBLE_EQ(RK_ConfigParseTime("+2.5e-1s+-1"), -0.75);
  EXPECT_EQ(takeMessages(), "");
  EXPECT_EQ(RK_ConfigParseTime("1e+3"), 3);
  EXPECT_EQ(RK_ConfigParseTime("1H"), 0);
  EXPECT_EQ(takeMessages(), "WARNING: cannot decode time\nWARNING: cannot decode time\n");
}

TEST_F(RkScan, TimeOptionTakesTheWholeValueOnly) {
  EXPECT_TRUE(scan("os-counter-delay 1m+500l"));
  EXPECT_DOUBLE_EQ(RK_conf.os_counter_delay, 60.5);
  for (const char* bad : {"1e", "1.", "s", "1s+", "1s 2s", "1ss"}) {
    EXPECT_FALSE(scan(std::string("os-counter-delay ") + bad)) << bad;
  }
  EXPECT_TRUE(scan("os-counter-delay 1H"));
  EXPECT_EQ(RK_conf.os_counter_delay, 0);
}

}  // namespace
