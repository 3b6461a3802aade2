// Compares the table of records in docs/format.md with the table of the program.
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

// tb::Layout is read from the document.
TEST(FormatDocument, ListsTheRecordsOfTheProgramsTable) {
  const tb::Layout document;
  ASSERT_EQ(document.size(), kKltRows.size());
  for (const KLT_Row& row : kKltRows) {
    SCOPED_TRACE(row.number);
    const tb::Row& documented = document.row(row.number);
    EXPECT_EQ(std::tie(documented.number, documented.name), std::tie(row.number, row.name));
    EXPECT_EQ(documented.timed, row.timed());
    EXPECT_EQ(documented.categories, categoryNames(row.categories()));
    ASSERT_EQ(documented.fields.size(), row.numFields);
    for (size_t i = 0; i < row.numFields; ++i) {
      const KLT_Field& field = row.fields[i];
      const tb::Field& listed = documented.fields[i];
      EXPECT_EQ(listed.isCount ? "" : listed.name, field.name);
      EXPECT_EQ(listed.reference, field.reference);
      EXPECT_EQ(static_cast<KLT_Type>(listed.type), field.type()) << listed.name;
      EXPECT_EQ(listed.required, field.required()) << listed.name;
      EXPECT_EQ(listed.isCount ? listed.covers : 0U, field.isCount() ? field.covered() : 0U);
    }
  }
}

}  // namespace
