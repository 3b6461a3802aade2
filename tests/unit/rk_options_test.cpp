// Options as lines, variables and arguments set them, and the messages about errors.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "generic/options/RK_conf.h"
#include "generic/options/RK_scan.h"
#include "tests/builder/trace_files.h"
#include "util/pal_error.h"

namespace {

// Writes the items of a request.
std::ostream& operator<<(std::ostream& out, const RK_Request& request) {
  for (const PAL_Triplet& t : request.triplets)
    out << t.first << ':' << t.last << ':' << t.stride << ' ';
  if (request.window_start != 0 || request.window_end != -1)
    out << '[' << request.window_start << ' ' << request.window_end << "] ";
  if (request.time != 0) out << request.time << "s ";
  if (request.categories != 0) out << std::hex << "0x" << request.categories << std::dec << ' ';
  if (!request.types.empty()) out << '\'' << request.types.back().text << "' ";
  return out;
}

// The options that differ from their defaults, with "!" after an option whose flag is set, and the
// echo.
std::string changes() {
  const RK_Conf now = RK_conf;
  RK_ConfigDefaults();
  std::ostringstream out;
  out.precision(12);
  for (const RK_Option& option : RK_ConfigOptions()) {
    const bool isSet = option.set != nullptr && now.*option.set;
    const auto show = [&](auto field) {
      if constexpr (std::is_same_v<decltype(field), decltype(&RK_Conf::request)>) {
        for (const RK_Request& request : now.request) out << "REQUEST " << request;
      } else if (isSet || now.*field != RK_conf.*field) {
        out << option.key << (isSet ? "!=" : "=") << now.*field << ' ';
      }
    };
    std::visit(show, option.field);
  }
  RK_conf = now;
  if (!now.echo.empty()) out << "echo=" << now.echo << ' ';
  return out.str();
}

class RkOptions : public testing::Test {
 protected:
  RkOptions() {
    PAL_messages.programName = nullptr;
    RK_ConfigDefaults();
    testing::internal::CaptureStderr();
  }
  ~RkOptions() override {
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    PAL_messages = saved_;
  }
  // The messages since the last call, with FORMS for the forms of a request.
  static std::string newMessages() {
    std::string text = testing::internal::GetCapturedStderr();
    testing::internal::CaptureStderr();
    const size_t forms = text.find("A request names any of these");
    if (forms == std::string::npos) return text;
    EXPECT_TRUE(text.ends_with(" COUNTERS MESSAGES COLLOPS\n"));
    return text.substr(0, forms) + "FORMS\n";
  }

 private:
  PAL_MessageSettings saved_ = PAL_messages;
};

// Runs the passes and returns the changed options and the format of the output. A bar separates two
// arguments.
std::string configured(const std::vector<std::pair<std::string, std::string>>& environment,
                       const std::string& arguments) {
  RK_ConfigDefaults();
  for (const auto& [name, value] : environment) setenv(name.c_str(), value.c_str(), 1);
  if (!environment.empty()) RK_ConfigInit("/usr/bin/tool");
  for (const auto& [name, value] : environment) unsetenv(name.c_str());
  std::vector<char*> argv = {nullptr};
  std::string words = arguments;
  for (char* word = std::strtok(words.data(), "|"); word; word = std::strtok(nullptr, "|"))
    argv.push_back(word);
  const int status = RK_ConfigParseArgs(static_cast<int>(argv.size()), argv.data(),
                                        [] { RK_conf.echo += "usage"; });
  const char* form = RK_conf.output_single_file ? "single " : RK_conf.output_format ? "" : "text ";
  return changes() + form + (status == 0 ? "" : status == -13 ? "fails" : "?");
}

std::string unknown(const std::string& key) {
  return "ERROR: unknown parameter \"--" + key + "\"\n";
}
std::string invalid(const std::string& key, const std::string& value) {
  return "ERROR: parameter error after --" + key + ", invalid parameters \"" + value + "\"\n";
}
std::string selectsNothing(const std::string& word) {
  return '"' + word + "\" in a request selects nothing.";
}

TEST_F(RkOptions, LinesAreReadByTheGrammar) {
  const struct {
    std::string arguments, outcome, messages = "";
  } rows[] = {
      {"--Print-Statistics", "PRINT-STATISTICS=1 "},
      {"--convert on", "CONVERT=1 "},
      {"--move 'a\t b.klt'", "LOGFILE-NAME!=a\t b.klt MOVE=1 "},
      {"--merge \"off\"", "LOGFILE-NAME!=off MERGE=1 "},
      {"--match-hashsize +99999999999999999999", "MATCH-HASHSIZE!=2147483647 "},
      {"--perftest -99999999999999999999", "PERFTEST=-2147483648 "},
      {"--info numprocessors 4 and 'that", ""},
      {"--{\xff\x01> \t", "echo={\xff\x01> "},
      // Times are sums of pieces with units.
      {"--os-counter-delay 1w+1d+1h+1m+1s+1l+1c", "OS-COUNTER-DELAY=694861.001001 "},
      {"--os-counter-delay 2.5e-1s+-1", "OS-COUNTER-DELAY=-0.75 "},
      {"--os-counter-delay 1e+3", "OS-COUNTER-DELAY=3 ", "WARNING: cannot decode time\n"},
      // The longest match of an item is taken, then the first. Items may be in any order.
      {"--request -1.5:2", "REQUEST [-1.5 2] "},
      {"--request 1:2:-1", "REQUEST "},
      {"--request 0:3,5:7FUNCTIONS 9", "REQUEST 0:3:1 5:7:1 9:9:1 0x4 "},
      {"--request , scopes ,\"a\",raw_Events 1s:2s , 3s:4s,,", "REQUEST [3 4] 0x8008 'a' "},
      {"--request \"one\" \"two\"", "REQUEST 'two' ",
       "WARNING: overwriting old type \"one\" of frame with \"two\"\n"},
      // A missing value is reported, but isn't a failure.
      {"--Logfile-Name", "", "ERROR: parameter error after Logfile-Name, missing parameters\n"},
      // Failures.
      {"--activity x", "fails", "WARNING: Option ACTIVITY not supported.\n"},
      {"--INFO", "fails", unknown("INFO")},
      {"-- # VERBOSE 2", "echo=  fails", unknown("#")},
      {"--nmcmd 'a\nREMOVE\n'", "fails", invalid("nmcmd", "'a\\x0aREMOVE\\x0a'")},
      {"--Request 1:2:3:4:5 \t6", "REQUEST 1:2:3 fails",
       "ERROR: parameter error after --Request, unrecognized text: :5 \\x096\n"
       "\"1:2:3:4:5\" can't be read.\nFORMS\n"},
      // Hints.
      {"--verbose=2", "fails", unknown("verbose=2") + "Did you mean --verbose VALUE?\n"},
      {"--logfile", "fails", unknown("logfile") + "Did you mean --logfile-name?\n"},
      {"-- Dump", "echo=  fails", unknown("Dump") + "An option begins with two dashes: --dump\n"},
      {"--me", "fails", unknown("me")},
      {"--dump{on", "fails", unknown("dump") + "Did you mean --dump VALUE?\n"},
      {"--Convert my file", "fails",
       invalid("Convert", "my file") + "A text with blanks needs quotes: --convert 'my file'\n"},
      {"--request functon", "REQUEST 'functon' ",
       selectsNothing("functon") + "\nDid you mean FUNCTIONS?\n"},
      {"--request '0:3,5'", "REQUEST '0:3,5' ",
       selectsNothing("0:3,5") + " Without quotes it does: --request 0:3,5\n"},
      {"--request 2.5ms:3ms,3", "REQUEST 150s 's' fails",
       "ERROR: parameter error after --request, unrecognized text: :3ms,3\n"
       "\"2.5ms:3ms\" can't be read.\nWrite 2.5l for 2.5ms.\nWrite 3l for 3ms.\nFORMS\n"},
      {"--request 500NS FUNCTIONS", "REQUEST 500:500:1 0x4 'NS' ", "Write 0.5c for 500NS.\n"},
      {"--request 2.5ms|--verbosity|--verbose|0", "REQUEST 150s 's' VERBOSE=0 fails",
       unknown("verbosity")},
      // A long word gets no hint.
      {"--" + std::string(70000, 'x'), "fails", unknown(std::string(70000, 'x'))},
      // Several arguments; names and formats of the output.
      {"--logfile-name|a b.ark|--REQUEST|0:3,|1s:2s|FUNCTIONS",
       "LOGFILE-NAME!=a b.ark REQUEST 0:3:1 [1 2] 0x4 text "},
      {"stray|--dump", "DUMP=1 echo=  fails", unknown("stray")},
      {"--dump|--Help|--nonsense", "echo=usage text fails"},
      {"--logfile-name|out.KLT.single", "LOGFILE-NAME!=out.KLT.single single "},
      {"--move|o.ark|--logfile-format|klt", "LOGFILE-FORMAT!=klt LOGFILE-NAME!=o.ark MOVE=1 "},
      {"--logfile-format|KltSingle", "LOGFILE-FORMAT!=KltSingle single "},
      {"--logfile-format|ascii", "LOGFILE-FORMAT!=ascii text "},
      {"--logfile-format|XML", "LOGFILE-FORMAT!=XML fails",
       "WARNING: invalid value for LOGFILE-FORMAT: XML\n"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(configured({}, row.arguments), row.outcome) << row.arguments;
    EXPECT_EQ(newMessages(), row.messages) << row.arguments;
  }
}

TEST_F(RkOptions, InvalidValuesAreErrorsAndChangeNothing) {
  const std::pair<std::string, std::vector<std::string>> cases[] = {
      {"print-statistics", {"yes", "1", "on off", "'on'"}},
      {"class-hashsize", {"-1", "12k", "+"}},
      {"VERBOSE", {"2 # two", "loud"}},
      {"OS-counter-delay", {"1e", "1.", "s", "1s+", "1s 2s", "1ss"}},
      {"nmcmd", {"it's", "''", "\"a'b\"", "'a\tb' c", "caf\xc3\xa9", "<x>"}},
  };
  for (const auto& [key, values] : cases) {
    for (const std::string& value : values) {
      EXPECT_EQ(configured({}, "--" + key + ' ' + value), "fails");
      EXPECT_EQ(newMessages(), invalid(key, PAL_Printable(value)));
    }
  }
}

TEST_F(RkOptions, LaterSourcesOverrideAndRequestsAddUp) {
  const tb::TempDir directory;
  tb::writeFile(directory / "c",
                "# comment\r\n\nnonsense 1\nVERBOSE\nVERBOSE loud\nREQUEST 5 {x}\n"
                "VERBOSE 2 \r\nTICKS\nCLASS-HASHSIZE 7\n");
  EXPECT_EQ(configured({{"RK_CONFIG", directory / "c"},
                        {"RK_CLASS_HASHSIZE", "11"},
                        {"RK_REQUEST", "'of FUNCTIONS'\n\n1\n"},
                        {"RK_SYMBOL_HASHSIZE", "5000"},
                        {"RK_LOGFILE_NAME", "a b"},
                        {"RK_DUMP", "\n"}},
                       "--class-hashsize|5|--request|3|--ticks|off"),
            "CLASS-HASHSIZE=5 DUMP=1 LOGFILE-NAME!= REQUEST 5:5:1 REQUEST 'of FUNCTIONS' "
            "REQUEST 1:1:1 REQUEST 3:3:1 SYMBOL-HASHSIZE=4001 VERBOSE=2 ");
  EXPECT_EQ(newMessages(),
            "ERROR: unknown config option \"nonsense\" in line 3\n"
            "ERROR: config error after VERBOSE, missing parameters in line 4\n"
            "ERROR: config error after VERBOSE, invalid parameters \"loud\" in line 5\n"
            "ERROR: config error after REQUEST, ignoring unrecognized text in line 6: {x}\n"
            "ERROR: parameter error after --LOGFILE-NAME, invalid parameters \"a b\"\n"
            "A text with blanks needs quotes in the value: RK_LOGFILE_NAME='\"a b\"'\n"
            "\"of FUNCTIONS\" in a request selects nothing. Without quotes it does: "
            "RK_REQUEST='of FUNCTIONS'\n"
            "ERROR: parameter error after REQUEST, missing parameters\n");
  RK_ConfigOutputName();
  EXPECT_EQ(RK_conf.logfile_name, "tool.klt");
  EXPECT_EQ(PAL_messages.showTime, 0);
  (void)configured({}, "--verbose 3");
  EXPECT_EQ(PAL_messages.showTime, 1);
}

TEST_F(RkOptions, HashSizeIsThatOfItsDefinition) {
  const uint32_t rows[][3] = {{0, 4096, 1},       {1024, 4096, 1031},
                              {4094, 4096, 4001}, {13, 13, 3},
                              {101, 101, 1},      {2147483647, 4096, 4049},
                              {100, 98, 97},      {2147483647, 0xffffffff, 2147483647}};
  for (const auto& [value, limit, prime] : rows) EXPECT_EQ(PAL_HashSize(value, limit), prime);
}

}  // namespace
