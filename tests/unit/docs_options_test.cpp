// Compares the manual page, the help and the other documents with the option table.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <regex>
#include <set>
#include <sstream>
#include <string>

#include "generic/options/RK_conf.h"
#include "generic/options/kltt_help.h"
#include "tests/builder/trace_files.h"

namespace {

const std::string kRoot = KLT_TEST_DATA "/../../";

std::string nameOf(std::string key) {
  std::transform(key.begin(), key.end(), key.begin(), [](unsigned char c) { return tolower(c); });
  return "--" + key;
}

TEST(OptionDocuments, ManualAndHelpHaveEachOptionWithItsDefault) {
  const std::string help(KLTT_HelpText());
  const std::string manual =
      std::regex_replace(tb::readFile(kRoot + "man/klttool.1"), std::regex(R"(\\-)"), "-");
  const auto rare = static_cast<long>(manual.find(".SS Less common options"));
  for (const RK_Option& option : RK_ConfigOptions()) {
    const std::string name = nameOf(option.key);
    std::ostringstream shown;
    std::visit([&](auto preset) { shown << preset; }, option.preset);
    std::string preset = shown.str(), mark;
    if (option.type == RK_OptionType::toggle || option.type == RK_OptionType::toggleOrFile) {
      mark = preset == "0" ? "(off)" : ", on in klttool)";
      preset = preset == "0" ? "off" : "on";
    }
    if (preset.empty() || option.type == RK_OptionType::request) preset = "none";
    std::smatch entry, heading;
    const std::regex inManual(R"(\.TP\n\.BR? )" + name + R"((?![a-z-])[^]*?\nDefault: (.*)\.\n)");
    ASSERT_TRUE(std::regex_search(manual, entry, inManual)) << name;
    EXPECT_EQ(entry[1], preset) << name;
    // The help has only the common options.
    const std::regex inHelp("\n" + name + "(?![a-z-])(.*)\n  ");
    EXPECT_EQ(std::regex_search(help, heading, inHelp), entry.position() < rare) << name;
    EXPECT_TRUE(heading.empty() || heading[1].str().ends_with(mark)) << name;
  }
}

TEST(OptionDocuments, DocumentsNameOnlyExistingOptions) {
  std::set<std::string> known{"--help", "--version", "RK_CONFIG"};
  for (const char* key : RK_ConfigRefusedKeys()) known.insert(nameOf(key));
  for (const RK_Option& option : RK_ConfigOptions())
    known.insert({nameOf(option.key), RK_ConfigEnvironmentName(option.key)});
  for (const char* part : {"", "man", "docs"}) {
    for (const auto& file : std::filesystem::directory_iterator(kRoot + part)) {
      // Others have options of other programs, and CHANGELOG.md has removed ones.
      const std::string path = file.path();
      if (!std::regex_match(
              path, std::regex(".*/(?!scaling|analysis|recording|CHANGELOG|CONTRIBUTING|klt-)[^/]*"
                               "\\.(md|1)")))
        continue;
      std::istringstream text(tb::readFile(path));
      for (std::string line; std::getline(text, line);) {
        // Lines about building or measuring show options of other programs.
        if (std::regex_search(line, std::regex("cmake|bench/|stride|tests/|klt-[a-z]"))) continue;
        line = std::regex_replace(line, std::regex(R"(\\-)"), "-");
        const std::regex names("--[a-z][a-z0-9-]*|RK_[A-Z]+[A-Z_]*");
        for (std::sregex_iterator at(line.begin(), line.end(), names), end; at != end; ++at)
          EXPECT_TRUE(known.contains(at->str())) << path << ": " << line;
      }
    }
  }
}

}  // namespace
