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
  U8,
  U16,
  U32,
  U64,
  I8,
  I16,
  I32,
  I64,
  Raw8,
  Raw32 = 0xf8,
  Raw64,
  F32,
  F64,
};

// Bytes of one element in a file.
[[nodiscard]] unsigned bytesOf(Type type);

struct Field {
  std::string name = {};  // of counts "#1" and "#2" in the order of the row
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

  // The place of a field; the number of fields if there is none of the name.
  [[nodiscard]] size_t place(std::string_view field) const;
};

// All rows. They keep the number that the standard layout gives them as their name in this
// interface, whatever number files have.
class Layout {
 public:
  Layout();

  [[nodiscard]] unsigned size() const { return static_cast<unsigned>(rows_.size()); }
  [[nodiscard]] Row& row(unsigned number) { return rows_.at(number - 1); }
  [[nodiscard]] const Row& row(unsigned number) const { return rows_.at(number - 1); }

  Layout& retype(unsigned number, std::string_view field, Type type);
  // A count that covers nothing any more goes too.
  Layout& drop(unsigned number, std::string_view field);
  // Inserts before the named field, at the end if there is none.
  Layout& insert(unsigned number, std::string_view before, const Field& field);

  // The layout block as bytes.
  [[nodiscard]] std::string block() const;

 private:
  std::vector<Row> rows_;
};

}  // namespace tb
