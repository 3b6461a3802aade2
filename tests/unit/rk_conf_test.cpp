// The passes over the sources, what follows from the options, and the help that explains them.
#include "generic/RK_conf.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "generic/kltt_help.h"
#include "util/pal_error.h"

namespace {

int usageCalls = 0;

class RkConf : public testing::Test {
 protected:
  void SetUp() override {
    saved_ = PAL_messages;
    PAL_messages.programName = nullptr;
    PAL_messages.showTime = 0;
    usageCalls = 0;
    testing::internal::CaptureStderr();
    RK_ConfigDefaults();
  }
  void TearDown() override {
    testing::internal::GetCapturedStderr();
    for (const std::string& name : environment_) unsetenv(name.c_str());
    PAL_messages = saved_;
  }

  void set(const std::string& name, const std::string& value) {
    setenv(name.c_str(), value.c_str(), 1);
    environment_.push_back(name);
  }
  static int parse(std::vector<std::string> arguments) {
    std::vector<char*> argv = {nullptr};
    for (std::string& argument : arguments) argv.push_back(argument.data());
    return RK_ConfigParseArgs(static_cast<int>(argv.size()), argv.data(), [] { ++usageCalls; });
  }
  static std::string takeMessages() {
    std::string text = testing::internal::GetCapturedStderr();
    testing::internal::CaptureStderr();
    return text;
  }

 private:
  PAL_MessageSettings saved_{};
  std::vector<std::string> environment_;
};

// "format single" of the output.
std::string outputForm() {
  return std::to_string(RK_conf.output_format) + " " + std::to_string(RK_conf.output_single_file);
}

TEST_F(RkConf, LaterSourcesOverrideAndRequestsAddUp) {
  const std::string file = testing::TempDir() + "rk_conf_test.conf";
  FILE* stream = fopen(file.c_str(), "w");
  ASSERT_NE(stream, nullptr);
  fputs("VERBOSE 2\nTICKS\nCLASS-HASHSIZE 7\nREQUEST 0\n", stream);
  fclose(stream);
  set("RK_CONFIG", file);
  set("RK_CLASS_HASHSIZE", "11");
  set("RK_VERBOSE", "");
  set("RK_REQUEST", "1\n2\n");
  EXPECT_EQ(RK_ConfigInit("rk"), 0);
  remove(file.c_str());
  EXPECT_EQ(parse({"--class-hashsize", "5", "--request", "3", "--ticks", "off"}), 0);

  EXPECT_EQ(RK_conf.verbose, 2);
  EXPECT_EQ(RK_conf.class_hashsize, 5);
  EXPECT_EQ(RK_conf.ticks, 0);
  ASSERT_EQ(RK_conf.request.size(), 4U);
  for (int32_t i = 0; i < 4; ++i) EXPECT_EQ(RK_conf.request[size_t(i)].triplets[0].first, i);
  EXPECT_EQ(takeMessages(), "");
}

TEST_F(RkConf, EnvironmentValuesArentQuoted) {
  set("RK_LOGFILE_NAME", "a b");
  set("RK_NMCMD", "'nm -D'\r");
  set("RK_DUMP", "\n");
  set("RK_MOVE", "it's b");
  set("RK_LOGFILE_FORMAT", "KLT ");
  set("RK_REQUEST", "'1s:2s FUNCTIONS'\n\n3");
  RK_ConfigInit("rk");
  EXPECT_EQ(takeMessages(),
            "ERROR: parameter error after --LOGFILE-NAME, invalid parameters \"a b\"\n"
            "A text with blanks needs quotes in the value: RK_LOGFILE_NAME='\"a b\"'\n"
            "ERROR: parameter error after --MOVE, invalid parameters \"it's b\"\n"
            "\"1s:2s FUNCTIONS\" in a request selects nothing. Without quotes it does: "
            "RK_REQUEST='1s:2s FUNCTIONS'\n"
            "ERROR: parameter error after REQUEST, missing parameters\n");
  EXPECT_EQ(RK_conf.nmcmd, "nm -D");
  EXPECT_EQ(RK_conf.dump, 1) << "an empty line is a switch without a value";
  EXPECT_EQ(RK_conf.request.size(), 2U);
  EXPECT_TRUE(RK_conf.logfile_name_set);
  RK_ConfigOutputName();
  EXPECT_EQ(RK_conf.logfile_name, "rk.klt");
}

TEST_F(RkConf, MissingConfigurationFileIsPassedOver) {
  set("RK_CONFIG", testing::TempDir() + "rk_conf_test.none");
  EXPECT_EQ(RK_ConfigInit(""), 0);
  EXPECT_EQ(takeMessages(), "");
  EXPECT_EQ(RK_conf.progname, "UNKNOWN");
}

TEST_F(RkConf, ArgumentsAreJoinedToLinesAndQuotedWhereTheyMustBe) {
  EXPECT_EQ(parse({"--logfile-name", "a b.ark", "--REQUEST", "0:3,", "1s:2s", "FUNCTIONS"}), 0);
  EXPECT_EQ(RK_conf.logfile_name, "a b.ark");
  ASSERT_EQ(RK_conf.request.size(), 1U);
  EXPECT_EQ(RK_conf.request[0].categories, 4U);
  EXPECT_EQ(RK_conf.request[0].window_end, 2);
  EXPECT_EQ(parse({"--logfile-name", "a", "b"}), -13);
  EXPECT_EQ(parse({"--logfile-name", "it's b"}), -13);
  EXPECT_EQ(parse({"stray", "--dump"}), -13);
  EXPECT_EQ(RK_conf.dump, 1);
  EXPECT_EQ(RK_conf.echo, " ");
}

TEST_F(RkConf, LineBreakInAnArgumentIsAnError) {
  EXPECT_EQ(parse({"--logfile-name", "a\nREMOVE\n"}), -13);
  EXPECT_EQ(parse({"--dump\r"}), -13);
  EXPECT_EQ(RK_conf.remove, 0);
  EXPECT_EQ(RK_conf.dump, 0);
}

TEST_F(RkConf, HelpAmongTheOptionsIsUsage) {
  EXPECT_EQ(parse({"--dump", "--Help", "--nonsense"}), -13);
  EXPECT_EQ(usageCalls, 1);
  EXPECT_EQ(RK_conf.dump, 0);
}

TEST_F(RkConf, FailureOfAnEarlierPassIsForgotten) {
  EXPECT_EQ(parse({"--nonsense"}), -13);
  EXPECT_EQ(parse({"--dump"}), 0);
}

TEST_F(RkConf, FormatFollowsTheSuffixUnlessItIsGiven) {
  const std::vector<std::pair<std::vector<std::string>, const char*>> cases = {
      {{"--dump"}, "1 0"},
      {{"--logfile-name", "out.klt"}, "1 0"},
      {{"--logfile-name", "out.single.klt"}, "1 1"},
      {{"--logfile-name", "out.KLT.single"}, "1 1"},
      {{"--logfile-name", "OUT.ARK"}, "0 0"},
      {{"--convert", "out.ark"}, "0 0"},
      {{"--logfile-name", "-"}, "0 0"},
      {{"--logfile-name", "out.txt"}, "1 0"},
      {{"--logfile-name", "out.ark", "--logfile-format", "klt"}, "1 0"},
      {{"--logfile-name", "-", "--logfile-format", "SINGLEKLT"}, "1 1"},
      {{"--logfile-format", "KltAscii"}, "1 0"},
      {{"--logfile-name", "out.klt", "--logfile-format", "ascii"}, "0 0"},
  };
  for (const auto& [arguments, form] : cases) {
    RK_ConfigDefaults();
    EXPECT_EQ(parse(arguments), 0);
    EXPECT_EQ(outputForm(), form) << arguments.back();
  }
}

TEST_F(RkConf, InvalidFormatIsAWarningAndFails) {
  EXPECT_EQ(parse({"--logfile-name", "out.ark", "--logfile-format", "XML"}), -13);
  EXPECT_EQ(takeMessages(), "WARNING: invalid value for LOGFILE-FORMAT: XML\n");
  EXPECT_EQ(outputForm(), "1 0");
}

TEST_F(RkConf, OutputNameIsMadeUpOnlyWhereOneIsMissing) {
  RK_conf.progname = "/usr/bin/tool";
  RK_ConfigOutputName();
  EXPECT_EQ(RK_conf.logfile_name, "");
  RK_conf.logfile_name_set = true;
  RK_conf.output_format = RK_conf.output_single_file = 1;
  RK_ConfigOutputName();
  EXPECT_EQ(RK_conf.logfile_name, "tool.single.klt");
  RK_ConfigOutputName();
  EXPECT_EQ(RK_conf.logfile_name, "tool.single.klt");
}

TEST_F(RkConf, HighVerbosityShowsTheTime) {
  EXPECT_EQ(parse({"--verbose", "2"}), 0);
  EXPECT_EQ(PAL_messages.showTime, 0);
  EXPECT_EQ(parse({"--verbose", "3"}), 0);
  EXPECT_EQ(PAL_messages.showTime, 1);
}

TEST_F(RkConf, TableSizesAreNormalisedAheadOfTheCommandLine) {
  set("RK_SYMBOL_HASHSIZE", "5000");
  RK_ConfigInit("rk");
  EXPECT_EQ(RK_conf.symbol_hashsize, 4001);
  EXPECT_EQ(RK_conf.scl_hashsize, 509);
  EXPECT_EQ(parse({"--symbol-hashsize", "5000"}), 0);
  EXPECT_EQ(RK_conf.symbol_hashsize, 5000);
}

// The definition, step by step.
uint32_t hashSizeByDefinition(uint32_t value, uint32_t limit) {
  for (;;) {
    uint32_t prime = value;
    const auto divisible = [&] {
      for (uint32_t d = 2; d <= prime / 2; ++d) {
        if (prime % d == 0) return true;
      }
      return false;
    };
    while (divisible()) ++prime;
    if (prime < limit) return prime;
    value -= value < 11 ? 1 : value < 101 ? 10 : 100;
  }
}

TEST_F(RkConf, HashSizeIsThatOfItsDefinition) {
  for (const uint32_t limit : {2U, 12U, 50U, 101U, 998U, 4096U}) {
    for (uint32_t value = 1; value < 2500; value += 7)
      ASSERT_EQ(PAL_HashSize(value, limit), hashSizeByDefinition(value, limit))
          << value << " below " << limit;
  }
  EXPECT_EQ(PAL_HashSize(0, 4096), 1U);
  EXPECT_EQ(PAL_HashSize(1024, 4096), 1031U);
  EXPECT_EQ(PAL_HashSize(2147483647, 0xffffffff), 2147483647U);
  // 4047 is the first of 2147483647 - 100 k below the limit, 4049 the prime behind it.
  EXPECT_EQ(PAL_HashSize(2147483647, 4096), 4049U);
}

TEST_F(RkConf, TableHasEveryOptionOnce) {
  EXPECT_EQ(RK_ConfigFindOption("print-FILES"), RK_ConfigFindOption("PRINT-FILES"));
  EXPECT_EQ(RK_ConfigFindOption("PRINT"), nullptr);
  EXPECT_EQ(RK_ConfigEnvironmentName("OS-COUNTER-DELAY"), "RK_OS_COUNTER_DELAY");
  for (const RK_Option& option : RK_ConfigOptions()) {
    EXPECT_EQ(RK_ConfigFindOption(option.key), &option);
    EXPECT_EQ(RK_ConfigFindRefused(option.key), nullptr) << option.key;
  }
  for (const char* key : RK_ConfigRefusedKeys()) EXPECT_EQ(RK_ConfigFindRefused(key), key);
}

TEST_F(RkConf, HelpHasAParagraphForEveryDirectiveInOrder) {
  const std::vector<std::string> headings = {
      "--convert [<filename>] (off)",
      "--move [<file/dirname>] (off)",
      "--remove (off)",
      "--merge [<filename>] (off)",
      "--delete-raw-data (off)",
      "--sumdata [<filename>] (off)",
      "--print-files (off)",
      "--print-statistics (off)",
      "--print-reports (off)",
      "--print-threads (off)",
      "--print-errors (off)",
      "--dump (off)",
      "--request \"<type>\", <thread triplets>, <categories>, <window>",
      "--ticks (off)",
      "--logfile-name <file name>",
      "--logfile-format [ASCII|KLT|KLTSINGLE|SINGLEKLT]",
      "--extended-rkf (off in MOR, on in klttool)",
      "--matched-rkf (off)",
      "--verbose [on|off|<level>] (on)"};
  const std::string help(KLTT_HelpText());
  for (const char* part : {"Synopsis", "Description", "Supported Directives"})
    EXPECT_NE(help.find(std::string(part) + "\n="), std::string::npos) << part;
  size_t position = help.find("Supported Directives\n");
  std::vector<std::string> found;
  while ((position = help.find("\n--", position)) != std::string::npos) {
    const size_t end = help.find('\n', ++position);
    found.push_back(help.substr(position, end - position));
    EXPECT_EQ(help.substr(end, 3), "\n  ") << "a paragraph follows " << found.back();
    const std::string key = found.back().substr(2, found.back().find(' ') - 2);
    EXPECT_NE(RK_ConfigFindOption(key), nullptr) << key;
  }
  EXPECT_EQ(found, headings);
}

TEST_F(RkConf, HelpStatesTheDefaults) {
  const std::string help(KLTT_HelpText());
  for (const RK_Option& option : RK_ConfigOptions()) {
    std::string key = option.key;
    for (char& c : key) c = static_cast<char>(tolower(c));
    const size_t at = help.find("\n--" + key + " ");
    if (at == std::string::npos) continue;
    const std::string heading = help.substr(at + 1, help.find('\n', at + 1) - at - 1);
    const auto* preset = std::get_if<int32_t>(&option.preset);
    const bool isSwitch = option.type == RK_OptionType::toggle ||
                          option.type == RK_OptionType::toggleOrFile ||
                          option.type == RK_OptionType::level;
    if (!isSwitch || preset == nullptr) continue;
    EXPECT_NE(heading.find(*preset != 0 ? "on" : "(off)", 2 + key.size()), std::string::npos)
        << heading;
  }
}

TEST(KlttHelp, VersionLineHasItsShape) {
  const std::string line = KLTT_VersionLine();
  const std::string start = "klttool Version ";
  const size_t build = line.find(" Build ");
  ASSERT_EQ(line.compare(0, start.size(), start), 0) << line;
  ASSERT_NE(build, std::string::npos) << line;
  const std::string date = line.substr(build + 7);
  ASSERT_EQ(date.size(), 9U) << line;
  EXPECT_EQ(date.find_first_not_of("0123456789"), 8U) << line;
  EXPECT_EQ(date[8], '\n');
  EXPECT_LE(date.substr(4, 2), "12");
  EXPECT_LE(date.substr(6, 2), "31");
  const std::string version = line.substr(start.size(), build - start.size());
  EXPECT_EQ(KLTT_Banner(), "klttool " + version + " - trace file utility\n\n");
}

}  // namespace
