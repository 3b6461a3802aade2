// The manual page, the help and the other documents against the option table.
#include <gtest/gtest.h>

#include <cctype>
#include <filesystem>
#include <map>
#include <regex>
#include <sstream>
#include <string>

#include "generic/options/RK_conf.h"
#include "generic/options/kltt_help.h"
#include "tests/builder/trace_files.h"

namespace {

using Texts = std::map<std::string, std::string>;  // by option
const std::string kRoot = KLT_TEST_DATA "/../../";

std::string lowerCase(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

// The first group of each match with the second.
Texts found(const std::string& text, const char* pattern) {
  const std::regex regex(pattern);
  Texts result;
  for (std::sregex_iterator at(text.begin(), text.end(), regex), end; at != end; ++at)
    result[(*at)[1]] += (*at)[2];
  return result;
}

Texts defaults() {
  Texts result;
  for (const RK_Option& option : RK_ConfigOptions()) {
    std::ostringstream shown;
    std::visit([&](auto preset) { shown << preset; }, option.preset);
    std::string preset = shown.str();
    if (option.type == RK_OptionType::toggle || option.type == RK_OptionType::toggleOrFile)
      preset = preset == "0" ? "off" : "on";
    if (preset.empty() || option.type == RK_OptionType::request) preset = "none";
    result[lowerCase(option.key)] = preset;
  }
  return result;
}

TEST(OptionDocuments, ManualAndHelpHaveTheOptionsOfTheTableWithTheirDefaults) {
  const std::string manual =
      std::regex_replace(tb::readFile(kRoot + "man/klttool.1"), std::regex(R"(\\-)"), "-");
  const char* entry = R"(\.TP\n\.BR? --([a-z-]+)[^]*?\nDefault: (.*)\.\n)";
  const size_t begin = manual.find(".SH OPTIONS"), rare = manual.find(".SS Less common options");
  EXPECT_EQ(found(manual.substr(begin, manual.find(".SH ", rare) - begin), entry), defaults());
  // The help has those that are common.
  const Texts common = found(manual.substr(begin, rare - begin), entry);
  const Texts headings = found(std::string(KLTT_HelpText()), R"(\n--([a-z-]+)(.*)\n  )");
  for (const auto& [name, preset] : common) {
    ASSERT_TRUE(headings.contains(name)) << name;
    const char* end = preset == "off" ? "(off)" : preset == "on" ? ", on in klttool)" : "";
    EXPECT_TRUE(headings.at(name).ends_with(end)) << name;
  }
  EXPECT_EQ(headings.size(), common.size());

  Texts variables{{"RK_CONFIG", ""}};
  for (const RK_Option& option : RK_ConfigOptions())
    variables[RK_ConfigEnvironmentName(option.key)] = "";
  for (const auto& [name, none] : found(manual, "(RK_[A-Z_]+)()"))
    EXPECT_TRUE(variables.contains(name)) << name;
}

TEST(OptionDocuments, NoDocumentNamesAnOptionThatDoesntExist) {
  Texts known = defaults();
  for (const char* key : {"help", "version"}) known[key] = "";
  for (const char* key : RK_ConfigRefusedKeys()) known[lowerCase(key)] = "";
  for (const char* part : {"", "man", "docs"}) {
    for (const auto& file : std::filesystem::directory_iterator(kRoot + part)) {
      // Launchers of parallel jobs have options of their own, and what is gone isn't known.
      const std::string name = file.path().filename();
      if (!std::regex_match(name, std::regex("(?!scaling|CHANGELOG).*\\.(md|1)"))) continue;
      std::istringstream text(tb::readFile(file.path()));
      for (std::string line; std::getline(text, line);) {
        // Lines about building or measuring show options of other programs.
        if (std::regex_search(line, std::regex("cmake|bench/|stride|tests/"))) continue;
        line = std::regex_replace(line, std::regex(R"(\\-)"), "-");
        for (const auto& [option, none] : found(line, "--([a-z][a-z0-9-]*)()"))
          EXPECT_TRUE(known.contains(option)) << name << ": " << line;
      }
    }
  }
}

TEST(OptionDocuments, VersionHasItsShape) {
  const Texts line =
      found(KLTT_VersionLine(), R"(^klttool Version (\S+) Build (\d{4}[01]\d[0-3]\d)\n$)");
  ASSERT_EQ(line.size(), 1U) << KLTT_VersionLine();
  EXPECT_EQ(KLTT_Banner(), "klttool " + line.begin()->first + " - trace file utility\n\n");
}

}  // namespace
