// docs/format.md against the program: its table of records is the one that the code is made from,
// and the bytes that it shows are those of the trace builder.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <map>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "klt/format/klt_schema.h"
#include "tests/builder/trace_builder.h"

namespace {

std::string categoryNames(uint32_t mask) {
  std::string names;
  for (unsigned bit = 0; bit < 16; ++bit) {
    if ((mask >> bit & 1) == 0) continue;
    if (!names.empty()) names += ' ';
    names += uint32_t{1} << bit == klt::kStatistics ? "statistics" : KLT_CategoryName(bit);
  }
  return names;
}

// The builder's layout is the document's table.
TEST(FormatDocument, ListsTheRecordsOfTheProgramsTable) {
  const tb::Layout document;
  ASSERT_EQ(document.size(), kKltRows.size());
  for (const KLT_Row& row : kKltRows) {
    SCOPED_TRACE(row.number);
    const tb::Row& shown = document.row(row.number);
    EXPECT_EQ(std::tie(shown.number, shown.name), std::tie(row.number, row.name));
    EXPECT_EQ(shown.timed, row.timed());
    EXPECT_EQ(shown.categories, categoryNames(row.categories()));
    ASSERT_EQ(shown.fields.size(), row.numFields);
    for (size_t i = 0; i < row.numFields; ++i) {
      const KLT_Field& field = row.fields[i];
      const tb::Field& said = shown.fields[i];
      EXPECT_EQ(std::tie(said.name, said.reference), std::tie(field.name, field.reference));
      EXPECT_EQ(static_cast<KLT_Type>(said.type), field.type()) << said.name;
      EXPECT_EQ(said.required, field.required()) << said.name;
      EXPECT_EQ(said.isCount ? said.covers : 0U, field.isCount() ? field.covered() : 0U);
    }
  }
}

// A line of a block "```klt NAME": the bytes of one field and, after two blanks, its name.
struct ShownField {
  std::string bytes, name;
};

std::map<std::string, std::vector<ShownField>> shownBlocks() {
  std::istringstream document(tb::readFile(KLT_TEST_DATA "/../../docs/format.md"));
  std::map<std::string, std::vector<ShownField>> blocks;
  std::string block;
  for (std::string line; std::getline(document, line);) {
    if (line.starts_with("```")) {
      block = line.starts_with("```klt ") ? line.substr(7) : "";
    } else if (!block.empty()) {
      const size_t end = line.find("  ");
      std::istringstream digits(line.substr(0, end));
      ShownField field;
      for (unsigned byte = 0; digits >> std::hex >> byte;) field.bytes += static_cast<char>(byte);
      digits.clear();
      const size_t name = line.find_first_not_of(' ', end);
      field.name = line.substr(name, line.find_first_of(":,[", name) - name);
      blocks[block].push_back(field);
    }
  }
  return blocks;
}

std::string bytesOf(const std::vector<ShownField>& fields) {
  std::string bytes;
  for (const ShownField& field : fields) bytes += field.bytes;
  return bytes;
}

uint64_t numberIn(std::string_view bytes) {
  uint64_t number = 0;
  for (const char byte : bytes) number = number << 8 | static_cast<uint8_t>(byte);
  return number;
}

// What the builder makes of the values in a block. A line "28, enter_function" begins a record.
std::string rebuilt(const std::vector<ShownField>& fields) {
  const tb::Layout layout;
  tb::RecordBytes records(layout);
  for (size_t i = 0; i < fields.size();) {
    const tb::Row& row = layout.row(static_cast<unsigned>(std::stoul(fields[i].name)));
    std::map<std::string, std::vector<uint64_t>> elements;
    for (++i; i < fields.size() && std::isdigit(fields[i].name[0]) == 0; ++i) {
      const std::string& bytes = fields[i].bytes;
      const std::string& name = fields[i].name;
      if (name == "count") continue;
      const auto field = std::find_if(row.fields.begin(), row.fields.end(),
                                      [&](const tb::Field& f) { return f.name == name; });
      if (field == row.fields.end()) return row.name + " has no " + name;
      const size_t width = tb::bytesOf(field->type);
      for (size_t at = 0; at < bytes.size(); at += width)
        elements[name].push_back(numberIn(std::string_view(bytes).substr(at, width)));
    }
    if (row.timed) records.at(records.running() + elements["time"].at(0));
    records.record(row.number, tb::Values(elements.begin(), elements.end()));
  }
  return records.contents();
}

TEST(FormatDocument, ShowsTheBytesOfTheFormat) {
  std::map<std::string, std::vector<ShownField>> blocks = shownBlocks();
  EXPECT_EQ(bytesOf(blocks["header"]), tb::Trace().files()[" "].substr(0, 11));

  tb::Layout layout;
  for (unsigned number = 1; number <= layout.size(); ++number) {
    if (number != 29) layout.omit(number);
  }
  EXPECT_EQ(bytesOf(blocks["layout"]), layout.block());

  // The builder deals out extents of one size; the last one of a component may be shorter.
  tb::TraceFiles files;
  files.add(" ", "AB");
  files.add(".dcl", "abcd");
  EXPECT_EQ(bytesOf(blocks["container"]), files.container({.version = 1, .extent = 3}));

  for (const char* other : {"header", "layout", "container"}) blocks.erase(other);
  EXPECT_GE(blocks.size(), 10U);
  for (const auto& [name, fields] : blocks) EXPECT_EQ(bytesOf(fields), rebuilt(fields)) << name;
}

}  // namespace
