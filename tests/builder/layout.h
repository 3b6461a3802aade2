// Record layouts for the trace builder: the rows that a test trace is written with and the layout
// block that its index carries.
//
// Rows come from the table in docs/format.md and not from the program, so that a mistake in the
// program's own table shows. A test that wants a foreign layout changes the rows before it writes
// records; records are then encoded by the names of their fields.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tb {

enum class Type : uint8_t {
  Char = 0xed,
  U8 = 0xee,
  U16 = 0xef,
  U32 = 0xf0,
  U64 = 0xf1,
  I8 = 0xf2,
  I16 = 0xf3,
  I32 = 0xf4,
  I64 = 0xf5,
  Raw8 = 0xf6,
  Raw32 = 0xf8,
  Raw64 = 0xf9,
  F32 = 0xfa,
  F64 = 0xfb,
};

// Bytes of one element in a file.
[[nodiscard]] unsigned bytesOf(Type type);

struct Field {
  std::string name = {};  // empty for a count
  Type type = Type::U32;
  bool isCount = false;
  uint8_t covers = 0;          // of a count: the fields after it that are arrays of that length
  std::string reference = {};  // is in the layout block only
  bool required = false;       // is in the document only
};

struct Row {
  uint8_t number = 0;  // as files have it
  std::string name = {};
  std::vector<Field> fields = {};
  bool listed = true;           // whether the layout block has it
  bool timed = false;           // this and the next are in the document only
  std::string categories = {};  // names with blanks between them
};

// All rows. They keep the number that the standard layout gives them as their name in this
// interface, whatever number files have.
class Layout {
 public:
  Layout();

  [[nodiscard]] unsigned size() const { return static_cast<unsigned>(rows_.size()); }
  [[nodiscard]] Row& row(unsigned number);
  [[nodiscard]] const Row& row(unsigned number) const;

  Layout& renumber(unsigned number, uint8_t numberInFiles);
  // Leaves the row out of the layout block.
  Layout& omit(unsigned number);
  // Fields are found by name, counts by "#1" for the first, "#2" for the second.
  Layout& retype(unsigned number, std::string_view field, Type type);
  // A count that covers nothing any more goes too.
  Layout& drop(unsigned number, std::string_view field);
  // Inserts before the named field, at the end for an empty name.
  Layout& insert(unsigned number, std::string_view before, const Field& field);

  // The layout block as bytes.
  [[nodiscard]] std::string block() const;

 private:
  std::vector<Row> rows_;
};

}  // namespace tb
