// Generates a shell's completion script from a template and the program's own tables.
//
//   klt_completions TEMPLATE >SCRIPT
//
// It runs at build time, so that the scripts have exactly the program's options. The option table
// and the categories of requests (RK_options) determine what is completed. The help text determines
// which options are offered, the words of a value and the descriptions. In the template a line that
// consists of @options-bash@, @options-zsh@ or @options-fish@ is replaced by one line for each
// option.
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "generic/options/RK_conf.h"
#include "generic/options/kltt_help.h"

namespace {

// An option, and what may follow it: one of the words, several of them, or a file name.
struct Option {
  std::string name;  // with "--"
  std::string description;
  std::vector<std::string> words;
  bool takesFile = false;
  bool takesMany = false;
};

std::string lowerCase(std::string_view text) {
  std::string lower(text);
  for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return lower;
}

// The first clause of a paragraph, on one line.
std::string firstClause(std::string_view paragraph) {
  std::string clause;
  for (size_t i = 0; i < paragraph.size(); ++i) {
    const char c = paragraph[i];
    const bool last = i + 1 == paragraph.size() || std::isspace(paragraph[i + 1]) != 0;
    if (std::string_view(".,;:").find(c) != std::string_view::npos && last) break;
    if (std::isspace(static_cast<unsigned char>(c)) == 0) {
      clause += c;
    } else if (!clause.empty() && clause.back() != ' ') {
      clause += ' ';
    }
  }
  return clause;
}

// The words in a heading such as "--logfile-format [ASCII|KLT]"; none if not all of them are
// literal.
std::vector<std::string> wordsOf(std::string_view heading) {
  const size_t open = heading.find('[');
  const size_t close = heading.find(']');
  if (open == std::string_view::npos || close == std::string_view::npos) return {};
  std::string_view list = heading.substr(open + 1, close - open - 1);
  if (list.find('|') == std::string_view::npos || list.find('<') != std::string_view::npos)
    return {};
  std::vector<std::string> words;
  while (!list.empty()) {
    const size_t end = std::min(list.find('|'), list.size());
    words.emplace_back(list.substr(0, end));
    list.remove_prefix(std::min(end + 1, list.size()));
  }
  return words;
}

void describeValue(const RK_Option& row, std::string_view heading, Option& option) {
  switch (row.type) {
    case RK_OptionType::toggle:
      option.words = {"on", "off"};
      break;
    case RK_OptionType::toggleOrFile:
      option.words = {"on", "off"};
      option.takesFile = true;
      break;
    case RK_OptionType::level:
      option.words = {"on", "off", "0", "1", "2", "3"};
      break;
    case RK_OptionType::string:
      option.words = wordsOf(heading);
      option.takesFile = option.words.empty();
      break;
    case RK_OptionType::request:
      for (const std::string_view name : RK_ConfigCategories()) option.words.emplace_back(name);
      option.takesMany = true;
      break;
    case RK_OptionType::integer:
    case RK_OptionType::unsignedInteger:
    case RK_OptionType::time:
      break;
  }
}

std::string_view takeLine(std::string_view& text) {
  const size_t end = std::min(text.find('\n'), text.size());
  const std::string_view line = text.substr(0, end);
  text.remove_prefix(std::min(end + 1, text.size()));
  return line;
}

// The options that the help text explains, in its order. Nothing if it explains an option that
// isn't in the table.
std::optional<std::vector<Option>> options() {
  std::vector<Option> result;
  std::string_view help = KLTT_HelpText();
  while (!help.empty()) {
    const std::string_view heading = takeLine(help);
    if (!heading.starts_with("--")) continue;
    const std::string_view key = heading.substr(2, heading.find_first_of(" [", 2) - 2);
    const RK_Option* row = RK_ConfigFindOption(key);
    if (row == nullptr) {
      std::cerr << "the help text explains " << heading << ", which is no option\n";
      return std::nullopt;
    }
    const size_t end = std::min(help.find("\n\n"), help.size());
    Option option{"--" + lowerCase(row->key), firstClause(help.substr(2, end - 2)), {}};
    describeValue(*row, heading, option);
    result.push_back(option);
  }
  return result;
}

std::string joined(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words) text += (text.empty() ? "" : " ") + word;
  return text;
}

// The text in single quotes of a shell. No text here contains a single quote or a backslash.
std::string quoted(std::string_view text) { return "'" + std::string(text) + "'"; }

std::string kindOf(const Option& option) {
  return option.takesMany ? "many" : option.takesFile ? "file" : "word";
}

std::string bashLine(const Option& option) {
  return "  " + quoted(option.name + " " + kindOf(option) + " " + joined(option.words)) + "\n";
}

std::string zshLine(const Option& option) {
  return "  " +
         quoted(option.name + ":" + kindOf(option) + ":" + joined(option.words) + ":" +
                option.description) +
         "\n";
}

std::string fishLine(const Option& option) {
  const std::string condition = " -n '__klttool_value_of " + option.name + "'";
  std::string lines = "complete -c klttool -n __klttool_has_input -a " + option.name + " -d " +
                      quoted(option.description) + "\n";
  if (!option.words.empty())
    lines += "complete -c klttool" + condition + " -a " + quoted(joined(option.words)) + "\n";
  if (option.takesFile) lines += "complete -c klttool" + condition + " -F\n";
  return lines;
}

// The lines that replace a line of the template.
std::string expanded(const std::string& line, const std::vector<Option>& list) {
  std::string (*format)(const Option&) = nullptr;
  if (line == "@options-bash@") format = &bashLine;
  if (line == "@options-zsh@") format = &zshLine;
  if (line == "@options-fish@") format = &fishLine;
  if (format == nullptr) return line + "\n";
  std::string lines;
  for (const Option& option : list) lines += format(option);
  return lines;
}

}  // namespace

int main(int argc, char** argv) {
  const auto list = options();
  if (argc != 2 || !list || list->empty()) return 1;
  std::ifstream file(argv[1]);
  std::string line;
  while (std::getline(file, line)) std::cout << expanded(line, *list);
  return file.eof() && std::cout.flush() ? 0 : 1;
}
