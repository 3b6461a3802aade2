// Record layouts for the trace builder: the rows by which a test trace is written, and the layout
// block of its index.
//
// The rows are read from the table in docs/format.md and not from the program, so that tests find
// mistakes in the program's table. For a foreign layout a test changes the rows before it writes
// records. Values are assigned to fields by name.
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
  std::string name = {};  // that of a count is "#1" or "#2", by its order in the row
  Type type = Type::U32;
  bool isCount = false;
  uint8_t covers = 0;          // how many fields after a count are arrays of its length
  std::string reference = {};  // only in the layout block
  bool required = false;       // only in the document
};

struct Row {
  uint8_t number = 0;  // in files
  std::string name = {};
  std::vector<Field> fields = {};
  bool listed = true;           // the layout block contains it
  bool timed = false;           // this and `categories` are only in the document
  std::string categories = {};  // names, separated by blanks

  // The index of a field; the number of fields if there is none with this name.
  [[nodiscard]] size_t place(std::string_view field) const;
};

// All rows. The functions identify a row by its number in the standard layout, even if its number
// in files has been changed.
class Layout {
 public:
  Layout();

  [[nodiscard]] unsigned size() const { return static_cast<unsigned>(rows_.size()); }
  [[nodiscard]] Row& row(unsigned number) { return rows_.at(number - 1); }
  [[nodiscard]] const Row& row(unsigned number) const { return rows_.at(number - 1); }

  Layout& retype(unsigned number, std::string_view field, Type type);
  // Removes a field, and its count if that covers no other field.
  Layout& drop(unsigned number, std::string_view field);
  // Inserts before the named field, at the end if there is none.
  Layout& insert(unsigned number, std::string_view before, const Field& field);

  // The layout block as bytes.
  [[nodiscard]] std::string block() const;

 private:
  std::vector<Row> rows_;
};

}  // namespace tb
