// The rows of the document, changes of them, and the layout block.
#include "tests/builder/layout.h"

#include <sstream>

#include "tests/builder/trace_files.h"

namespace tb {
namespace {

struct NamedType {
  const char* name;
  unsigned bytes;
};

// By code, from Char on. There is no code 0xf7.
constexpr NamedType kTypes[] = {{"char", 1}, {"u8", 1},    {"u16", 2},   {"u32", 4}, {"u64", 8},
                                {"i8", 1},   {"i16", 2},   {"i32", 4},   {"i64", 8}, {"raw8", 1},
                                {"", 0},     {"raw32", 4}, {"raw64", 8}, {"f32", 4}, {"f64", 8}};
constexpr unsigned kFirstCode = 0xed;

Type typeNamed(std::string_view name) {
  unsigned code = kFirstCode;
  for (const NamedType& type : kTypes) {
    if (type.name == name) return static_cast<Type>(code);
    ++code;
  }
  misuse("no such type", name);
}

std::vector<std::string> split(const std::string& text, char separator) {
  std::istringstream stream(text);
  std::vector<std::string> parts;
  for (std::string part; std::getline(stream, part, separator);) parts.push_back(part);
  return parts;
}

// "#1 u16" is a count, "function_stack u32! → function_definition" a field.
Field fieldOf(const std::string& text) {
  std::istringstream words(text);
  std::string name, type, arrow, reference;
  words >> name >> type >> arrow >> reference;
  Field field{.type = typeNamed(type.substr(0, type.find('!'))), .required = type.ends_with('!')};
  field.isCount = name.starts_with('#');
  if (field.isCount)
    field.covers = static_cast<uint8_t>(std::stoi(name.substr(1)));
  else
    field.name = name;
  if (!reference.empty()) field.reference = reference + ".id";
  return field;
}

std::vector<Row> documentRows() {
  std::vector<Row> rows;
  for (const std::string& line : split(readFile(KLT_TEST_DATA "/../../docs/format.md"), '\n')) {
    // | 41 | `function_history` |  | FUNCTIONS | field; field |, with "yes" for a timed record
    const std::vector<std::string> cells = split(line, '|');
    if (cells.size() != 6 || !cells[2].starts_with(" `")) continue;
    Row row{.number = static_cast<uint8_t>(std::stoi(cells[1]))};
    row.name = cells[2].substr(2, cells[2].size() - 4);
    row.timed = cells[3] == " yes ";
    row.categories = cells[4].substr(1, cells[4].size() - 2);
    for (const std::string& field : split(cells[5], ';')) row.fields.push_back(fieldOf(field));
    rows.push_back(row);
  }
  return rows;
}

// A field by name; "#1" is the first count.
std::vector<Field>::iterator fieldIn(Row& row, std::string_view name) {
  int wanted = name.starts_with('#') ? std::stoi(std::string(name.substr(1))) : 0;
  for (auto at = row.fields.begin(); at != row.fields.end(); ++at) {
    if (wanted > 0 ? at->isCount && --wanted == 0 : !at->isCount && at->name == name) return at;
  }
  misuse(row.name + " has no such field", name);
}

}  // namespace

unsigned bytesOf(Type type) {
  const unsigned index = static_cast<unsigned>(type) - kFirstCode;
  if (index >= std::size(kTypes) || kTypes[index].bytes == 0) misuse("type without a width", "");
  return kTypes[index].bytes;
}

Layout::Layout() {
  static const std::vector<Row> rows = documentRows();
  rows_ = rows;
}

Row& Layout::row(unsigned number) {
  if (number < 1 || number > rows_.size()) misuse("no such row", std::to_string(number));
  return rows_[number - 1];
}

const Row& Layout::row(unsigned number) const { return const_cast<Layout*>(this)->row(number); }

Layout& Layout::renumber(unsigned number, uint8_t numberInFiles) {
  row(number).number = numberInFiles;
  return *this;
}

Layout& Layout::omit(unsigned number) {
  row(number).listed = false;
  return *this;
}

Layout& Layout::retype(unsigned number, std::string_view field, Type type) {
  fieldIn(row(number), field)->type = type;
  return *this;
}

Layout& Layout::drop(unsigned number, std::string_view field) {
  std::vector<Field>& fields = row(number).fields;
  const auto last = fieldIn(row(number), field);
  auto first = last;
  for (auto count = fields.begin(); count != last; ++count) {
    if (count->isCount && last - count <= count->covers && --count->covers == 0) first = count;
  }
  fields.erase(first, last + 1);
  return *this;
}

Layout& Layout::insert(unsigned number, std::string_view before, const Field& field) {
  Row& changed = row(number);
  changed.fields.insert(before.empty() ? changed.fields.end() : fieldIn(changed, before), field);
  return *this;
}

std::string Layout::block() const {
  std::string block;
  const auto putText = [&](const std::string& text) {
    put(block, text.size(), 1);
    block += text;
  };
  for (const Row& row : rows_) {
    if (!row.listed) continue;
    put(block, 0, 1);
    put(block, row.number, 1);
    putText(row.name);
    put(block, row.fields.size(), 1);
    for (const Field& field : row.fields) {
      if (field.isCount) put(block, 0xfe, 1);
      put(block, static_cast<uint8_t>(field.type), 1);
      if (field.isCount) {
        put(block, field.covers, 1);
      } else {
        putText(field.name);
        putText(field.reference);
      }
    }
  }
  return block;
}

}  // namespace tb
