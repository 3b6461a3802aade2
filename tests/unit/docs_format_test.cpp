// docs/format.md against the program: its table of records is the one that the code is made from,
// and the bytes that it shows are those of the trace builder.
#include <gtest/gtest.h>

#include <map>
#include <sstream>
#include <string>
#include <tuple>

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

// The bytes of each block "```klt NAME", whose lines hold those of a field and, after two blanks,
// words about it.
std::map<std::string, std::string> shownBlocks() {
  std::istringstream document(tb::readFile(KLT_TEST_DATA "/../../docs/format.md"));
  std::map<std::string, std::string> blocks;
  std::string block;
  for (std::string line; std::getline(document, line);) {
    if (line.starts_with("```")) {
      block = line.starts_with("```klt ") ? line.substr(7) : "";
    } else if (!block.empty()) {
      std::istringstream digits(line.substr(0, line.find("  ")));
      for (unsigned byte = 0; digits >> std::hex >> byte;) blocks[block] += static_cast<char>(byte);
    }
  }
  return blocks;
}

TEST(FormatDocument, ShowsTheBytesOfTheFormat) {
  std::map<std::string, std::string> blocks = shownBlocks();
  EXPECT_EQ(blocks["header"], tb::Trace().files()[" "].substr(0, 11));
  tb::Layout layout;
  for (unsigned number = 1; number <= layout.size(); ++number)
    layout.row(number).listed = number == 29;
  EXPECT_EQ(blocks["layout"], layout.block());
  // The builder deals out extents of one size; the last one of a component may be shorter.
  tb::TraceFiles files;
  files.add(" ", "AB");
  files.add(".dcl", "abcd");
  EXPECT_EQ(blocks["container"], files.container({.version = 1, .extent = 3}));
}

}  // namespace
