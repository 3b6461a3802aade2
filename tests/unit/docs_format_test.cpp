// docs/format.md against the program: its table of records is the one that the code is made from,
// and the bytes that it shows are those of the trace builder.
#include <gtest/gtest.h>

#include <map>
#include <sstream>
#include <string>
#include <tuple>
#include <utility>
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
      EXPECT_EQ(said.isCount ? "" : said.name, field.name);
      EXPECT_EQ(said.reference, field.reference);
      EXPECT_EQ(static_cast<KLT_Type>(said.type), field.type()) << said.name;
      EXPECT_EQ(said.required, field.required()) << said.name;
      EXPECT_EQ(said.isCount ? said.covers : 0U, field.isCount() ? field.covered() : 0U);
    }
  }
}

// The lines of a block "```klt NAME": the bytes of a field and, after two blanks, its name.
using Block = std::vector<std::pair<std::string, std::string>>;

std::map<std::string, Block> shownBlocks() {
  std::istringstream document(tb::readFile(KLT_TEST_DATA "/../../docs/format.md"));
  std::map<std::string, Block> blocks;
  std::string block;
  for (std::string line; std::getline(document, line);) {
    if (line.starts_with("```")) {
      block = line.starts_with("```klt ") ? line.substr(7) : "";
    } else if (!block.empty()) {
      std::istringstream digits(line.substr(0, line.find("  ")));
      auto& [bytes, name] = blocks[block].emplace_back();
      for (unsigned byte = 0; digits >> std::hex >> byte;) bytes += static_cast<char>(byte);
      name = line.substr(line.find_first_not_of(' ', line.find("  ")));
      name = name.substr(0, name.find_first_of(":,["));
    }
  }
  return blocks;
}

std::string bytesOf(const Block& block) {
  std::string result;
  for (const auto& [bytes, name] : block) result += bytes;
  return result;
}

// Each record has its row's fields, in order and as long as their types and counts say. A line
// "28, enter_function" begins one; an array of numbers has a line for each.
void checkRecords(const Block& block) {
  const tb::Layout layout;
  for (size_t i = 0; i < block.size();) {
    const tb::Row& row = layout.row(static_cast<unsigned>(std::stoul(block[i].second)));
    EXPECT_EQ(block[i++].first, std::string(1, static_cast<char>(row.number)));
    size_t count = 1, covered = 0;
    for (const tb::Field& field : row.fields) {
      SCOPED_TRACE(field.name);
      const size_t n = covered != 0 ? count : 1;
      std::string bytes;
      for (; i < block.size() && block[i].second == (field.isCount ? "count" : field.name); ++i) {
        bytes += block[i].first;
      }
      ASSERT_EQ(bytes.size(), n * tb::bytesOf(field.type));
      covered = field.isCount ? field.covers : covered - (covered != 0);
      if (field.isCount) count = static_cast<uint8_t>(bytes.back());
    }
  }
}

TEST(FormatDocument, ShowsTheBytesOfTheFormat) {
  std::map<std::string, Block> blocks = shownBlocks();
  EXPECT_EQ(bytesOf(blocks["header"]), tb::Trace().files()[" "].substr(0, 11));

  tb::Layout layout;
  for (unsigned number = 1; number <= layout.size(); ++number) {
    layout.row(number).listed = number == 29;
  }
  EXPECT_EQ(bytesOf(blocks["layout"]), layout.block());

  // The builder deals out extents of one size; the last one of a component may be shorter.
  tb::TraceFiles files;
  files.add(" ", "AB");
  files.add(".dcl", "abcd");
  EXPECT_EQ(bytesOf(blocks["container"]), files.container({.version = 1, .extent = 3}));

  for (const char* other : {"header", "layout", "container"}) blocks.erase(other);
  EXPECT_GE(blocks.size(), 10U);
  for (const auto& [name, block] : blocks) {
    SCOPED_TRACE(name);
    checkRecords(block);
  }
}

}  // namespace
