// docs/format.md against the program: its table of records is the one that the code is made from.
#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "klt/format/klt_schema.h"
#include "tests/builder/layout.h"

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

}  // namespace
