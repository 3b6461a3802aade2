// The manual page and the help text against the option table.
#include <gtest/gtest.h>

#include <cctype>
#include <filesystem>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "generic/RK_conf.h"
#include "generic/kltt_help.h"
#include "tests/builder/trace_files.h"

namespace {

using Names = std::set<std::string>;

std::string lowerCase(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

std::string presetText(const RK_Option& option) {
  if (option.type == RK_OptionType::request) return "none";
  if (const auto* text = std::get_if<const char*>(&option.preset))
    return **text == '\0' ? "none" : *text;
  if (const auto* real = std::get_if<double>(&option.preset)) {
    std::ostringstream shown;
    shown << *real;
    return shown.str();
  }
  const int32_t number = std::get<int32_t>(option.preset);
  const bool isSwitch =
      option.type == RK_OptionType::toggle || option.type == RK_OptionType::toggleOrFile;
  return isSwitch ? (number != 0 ? "on" : "off") : std::to_string(number);
}

// Options of the table with their defaults.
std::map<std::string, std::string> tableOptions() {
  std::map<std::string, std::string> options;
  for (const RK_Option& option : RK_ConfigOptions())
    options[lowerCase(option.key)] = presetText(option);
  return options;
}

Names helpOptions() {
  Names names;
  std::istringstream help{std::string(KLTT_HelpText())};
  for (std::string line; std::getline(help, line);) {
    if (!line.starts_with("--")) continue;
    names.insert(line.substr(2, line.find_first_of(" [", 2) - 2));
  }
  return names;
}

// A line of the manual page with its hyphens plain.
std::string withoutEscapes(const std::string& line) {
  return std::regex_replace(line, std::regex(R"(\\-)"), "-");
}

struct Manual {
  std::map<std::string, std::string> defaults;  // of all options that have an entry
  Names common;                                 // those ahead of the less common ones
};

// Entries of the section OPTIONS: ".TP", a line with the option, text with its default.
Manual manual() {
  Manual result;
  std::istringstream page(tb::readFile(KLT_TEST_DATA "/../../man/klttool.1"));
  std::string section;
  std::string option;
  bool lessCommon = false;
  bool isHead = false;
  for (std::string line; std::getline(page, line);) {
    line = withoutEscapes(line);
    if (line.starts_with(".SH ")) section = line.substr(4);
    if (section != "OPTIONS") continue;
    lessCommon = lessCommon || line == ".SS Less common options";
    std::smatch match;
    if (isHead && std::regex_search(line, match, std::regex(R"(^\.BR? --([a-z-]+))"))) {
      option = match[1];
      EXPECT_TRUE(result.defaults.emplace(option, "").second) << option << " has two entries";
      if (!lessCommon) result.common.insert(option);
    }
    isHead = line == ".TP";
    if (line.starts_with("Default: ")) result.defaults[option] = line.substr(9, line.size() - 10);
  }
  return result;
}

TEST(OptionDocuments, ManualHasAllOptionsOfTheTableWithTheirDefaults) {
  EXPECT_EQ(manual().defaults, tableOptions());
}

TEST(OptionDocuments, HelpAndManualExplainTheSameOptions) {
  EXPECT_EQ(helpOptions(), manual().common);
}

TEST(OptionDocuments, ManualNamesNoVariableThatNobodyReads) {
  const std::string page = tb::readFile(KLT_TEST_DATA "/../../man/klttool.1");
  const std::regex variable(R"(RK_[A-Z_]+)");
  Names known{"RK_CONFIG"};
  for (const RK_Option& option : RK_ConfigOptions())
    known.insert(RK_ConfigEnvironmentName(option.key));
  for (std::sregex_iterator at(page.begin(), page.end(), variable), end; at != end; ++at)
    EXPECT_TRUE(known.contains(at->str())) << at->str();
}

// Lines about building or measuring show options of other programs.
TEST(OptionDocuments, NoDocumentNamesAnOptionThatDoesntExist) {
  Names known{"help", "version"};
  for (const auto& [name, preset] : tableOptions()) known.insert(name);
  for (const char* key : RK_ConfigRefusedKeys()) known.insert(lowerCase(key));
  const std::regex option(R"(--([a-z][a-z0-9-]*))");
  const std::string root = KLT_TEST_DATA "/../../";
  std::vector<std::string> documents{root + "README.md", root + "man/klttool.1"};
  for (const auto& entry : std::filesystem::directory_iterator(root + "docs")) {
    // Launchers of parallel jobs have options of their own.
    if (entry.path().filename() != "scaling.md") documents.push_back(entry.path());
  }
  for (const std::string& document : documents) {
    std::istringstream text(tb::readFile(document));
    for (std::string line; std::getline(text, line);) {
      if (std::regex_search(line, std::regex("cmake|bench/|stride|tests/"))) continue;
      line = withoutEscapes(line);
      for (std::sregex_iterator at(line.begin(), line.end(), option), end; at != end; ++at)
        EXPECT_TRUE(known.contains((*at)[1])) << document << ": " << line;
    }
  }
}

}  // namespace
