// docs/format.md against the program: its table of records is the one that the code is made from,
// and the bytes that it shows are those of the trace builder.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "klt/klt_schema.h"
#include "tests/builder/trace_builder.h"

namespace {

std::vector<std::string> documentLines() {
  std::istringstream text(tb::readFile(KLT_TEST_DATA "/../../docs/format.md"));
  std::vector<std::string> lines;
  for (std::string line; std::getline(text, line);) lines.push_back(line);
  return lines;
}

std::string typeName(KLT_Type type) {
  switch (type) {
    case KLT_Type::kChar:
      return "char";
    case KLT_Type::kRaw64:
      return "raw64";
    default: {
      const unsigned code = static_cast<unsigned>(type);
      const char letter = code <= 0xf1 ? 'u' : code <= 0xf5 ? 'i' : code >= 0xfa ? 'f' : 'r';
      return letter + std::to_string(8 * KLT_TypeBytes(type));
    }
  }
}

std::string categoryNames(uint32_t mask) {
  std::string names;
  for (unsigned bit = 0; bit < 16; ++bit) {
    if ((mask >> bit & 1) == 0) continue;
    if (!names.empty()) names += ' ';
    names += uint32_t{1} << bit == klt::kStatistics ? "statistics" : KLT_CategoryName(bit);
  }
  return names;
}

std::string fieldText(const KLT_Field& field) {
  if (field.isCount()) return "#" + std::to_string(field.covered()) + " " + typeName(field.type());
  std::string text = std::string(field.name) + " " + typeName(field.type());
  if (field.required()) text += '!';
  if (field.reference.empty()) return text;
  const size_t dot = field.reference.find('.');
  EXPECT_EQ(field.reference.substr(dot), ".id");
  return text + " → " + std::string(field.reference.substr(0, dot));
}

std::string rowLine(const KLT_Row& row) {
  std::string fields;
  for (size_t i = 0; i < row.numFields; ++i)
    fields += (i == 0 ? "" : "; ") + fieldText(row.fields[i]);
  return "| " + std::to_string(row.number) + " | `" + std::string(row.name) + "` | " +
         (row.timed() ? "yes" : "") + " | " + categoryNames(row.categories()) + " | " + fields +
         " |";
}

TEST(FormatDocument, ListsTheRecordsOfTheProgramsTable) {
  std::vector<std::string> lines = documentLines();
  const auto heading = std::find(lines.begin(), lines.end(), "## 17. All records");
  ASSERT_NE(heading, lines.end());
  std::vector<std::string> rows;
  std::copy_if(heading, lines.end(), std::back_inserter(rows), [](const std::string& line) {
    return line.size() > 2 && line[0] == '|' && std::isdigit(line[2]) != 0;
  });
  ASSERT_EQ(rows.size(), kKltRows.size());
  for (size_t i = 0; i < rows.size(); ++i) EXPECT_EQ(rows[i], rowLine(kKltRows[i]));
}

// A block "```klt NAME" holds bytes, one field a line; two blanks end the bytes of a line.
std::map<std::string, std::string> shownBytes() {
  std::map<std::string, std::string> blocks;
  std::string name;
  for (const std::string& line : documentLines()) {
    if (line.starts_with("```")) {
      name = line.starts_with("```klt ") ? line.substr(7) : "";
      continue;
    }
    if (name.empty()) continue;
    std::istringstream bytes(line.substr(0, line.find("  ")));
    for (std::string byte; bytes >> byte;) {
      size_t used = 0;
      const unsigned value = static_cast<unsigned>(std::stoul(byte, &used, 16));
      EXPECT_TRUE(used == 2 && byte.size() == 2) << name << ": " << line;
      blocks[name] += static_cast<char>(value);
    }
  }
  return blocks;
}

std::string hex(const std::string& bytes) {
  std::string text;
  for (const char byte : bytes) {
    char digits[4];
    std::snprintf(digits, sizeof digits, "%02x ",
                  static_cast<unsigned>(static_cast<uint8_t>(byte)));
    text += digits;
  }
  return text;
}

// The bytes of records in a component whose running time is `running`.
std::string records(uint64_t running, const std::function<void(tb::RecordBytes&)>& state) {
  const tb::Layout layout;
  tb::RecordBytes bytes(layout);
  bytes.setRunning(running);
  bytes.at(running);
  state(bytes);
  return bytes.contents();
}

std::string enterAt(uint64_t time) {
  return records(0x1000, [time](tb::RecordBytes& out) {
    out.at(time);
    out.record(28, {{"willy_gtp", 3}, {"function", 7}});
  });
}

std::string message() {
  return records(0x100, [](tb::RecordBytes& out) {
    out.at(0x103);
    out.record(57, {{"sender_gtp", 0},
                    {"receive_time", 0x20},
                    {"receiver_gtp", 1},
                    {"communicator", 1},
                    {"size", 1024},
                    {"tag", 17},
                    {"sender_function", 20},
                    {"receiver_function", 21}});
  });
}

std::string declaredComponent() {
  return records(0, [](tb::RecordBytes& out) {
    const std::vector<int> thread{0};
    out.record(73, {{"id", 2},
                    {"first_id_gtp", thread},
                    {"last_id_gtp", thread},
                    {"stride", std::vector<int>{1}}});
    out.record(33, {{"id", 0x10002}, {"filetype", 0}, {"suffix", "f.0"}});
    out.record(33, {{"id", 0x10003}, {"filetype", 1}, {"suffix", "f.0"}});
    out.record(10, {{"anchor_file", 0x10003},
                    {"data_file", 0x10002},
                    {"categories", tb::FUNCTIONS},
                    {"willies", 2}});
  });
}

std::string anchorGroup() {
  return records(0, [](tb::RecordBytes& out) {
    out.record(41, {{"willy_gtp", 0}, {"function_stack", std::vector<int>{10, 11}}});
    out.record(46, {{"file", std::vector<int>{0x10002}},
                    {"offset", std::vector<int>{0xfff0}},
                    {"prevtime", std::vector<int>{0x2000}}});
    out.record(9, {{"time_prev", 0x2008}, {"offset", 0x10010}});
  });
}

std::string layoutEntry() {
  tb::Layout layout;
  for (unsigned number = 1; number <= kKltRowCount; ++number) {
    if (number != 29) layout.omit(number);
  }
  return layout.block();
}

// The builder deals out extents of one size; the last one of a component may be shorter.
std::string container() {
  tb::TraceFiles files;
  files.add(" ", "AB");
  files.add(".dcl", "abcd");
  return files.container({.version = 1, .extent = 3});
}

std::map<std::string, std::string> builtBytes() {
  std::map<std::string, std::string> blocks;
  blocks["string"] = records(0, [](tb::RecordBytes& out) {
    out.record(69, {{"id", 5}, {"string", "abc"}});
  });
  blocks["samples"] = records(0, [](tb::RecordBytes& out) {
    out.record(22, {{"willy_gtp", 0},
                    {"values", std::vector<uint64_t>{7, 0x3fe0000000000000}},
                    {"counters", std::vector<int>{1, 2}}});
  });
  blocks["enter"] = enterAt(0x1005);
  blocks["enter-late"] = enterAt(0x12000);
  blocks["enter-early"] = enterAt(0xfff);
  blocks["header"] = tb::Trace().files()[" "].substr(0, 11);
  blocks["layout"] = layoutEntry();
  blocks["component"] = declaredComponent();
  blocks["communicator"] = records(0, [](tb::RecordBytes& out) {
    out.record(19, {{"id", 1},
                    {"name", "world"},
                    {"first_id_gtp", std::vector<int>{0}},
                    {"last_id_gtp", std::vector<int>{3}},
                    {"stride", std::vector<int>{1}},
                    {"left_size", -2}});
  });
  blocks["message"] = message();
  blocks["barrier"] = records(0, [](tb::RecordBytes& out) {
    out.record(3, {{"communicator", 4},
                   {"type", 9},
                   {"start_time", std::vector<int>{0, 5}},
                   {"delta", std::vector<int>{16, 11}}});
  });
  blocks["anchor"] = anchorGroup();
  blocks["container"] = container();
  return blocks;
}

TEST(FormatDocument, ShowsTheBytesOfTheFormat) {
  const std::map<std::string, std::string> shown = shownBytes();
  const std::map<std::string, std::string> built = builtBytes();
  for (const auto& [name, bytes] : built) {
    ASSERT_TRUE(shown.contains(name)) << "no block klt " << name;
    EXPECT_EQ(hex(shown.at(name)), hex(bytes)) << name;
  }
  for (const auto& [name, bytes] : shown)
    EXPECT_TRUE(built.contains(name)) << "nothing to compare block klt " << name << " with";
}

}  // namespace
