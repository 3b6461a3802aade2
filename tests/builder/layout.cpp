// Reads the rows from docs/format.md, changes them, and encodes the layout block.
#include "tests/builder/layout.h"

#include <algorithm>
#include <sstream>

#include "tests/builder/trace_files.h"

namespace tb {
namespace {

// Names and sizes of the types by code, from Char on. The code 0xf7 isn't used.
constexpr std::pair<std::string_view, unsigned> kTypes[] = {
    {"char", 1}, {"u8", 1},    {"u16", 2},   {"u32", 4}, {"u64", 8},
    {"i8", 1},   {"i16", 2},   {"i32", 4},   {"i64", 8}, {"raw8", 1},
    {"", 0},     {"raw32", 4}, {"raw64", 8}, {"f32", 4}, {"f64", 8}};
constexpr unsigned kFirstCode = 0xed;

Type typeNamed(std::string_view name) {
  for (unsigned code = 0; code < std::size(kTypes); ++code) {
    if (kTypes[code].first == name) return static_cast<Type>(kFirstCode + code);
  }
  misuse("no such type", name);
}

std::vector<std::string> split(const std::string& text, char separator) {
  std::istringstream stream(text);
  std::vector<std::string> parts;
  for (std::string part; std::getline(stream, part, separator);) parts.push_back(part);
  return parts;
}

// Parses a count, such as "#1 u16", or a field: "function_stack u32! → function_definition".
Field fieldOf(const std::string& text, unsigned& counts) {
  std::string type, arrow, reference;
  Field field;
  std::istringstream(text) >> field.name >> type >> arrow >> reference;
  field.type = typeNamed(type.substr(0, type.find('!')));
  field.required = type.ends_with('!');
  field.isCount = field.name.starts_with('#');
  if (field.isCount) {
    field.covers = static_cast<uint8_t>(std::stoi(field.name.substr(1)));
    field.name = "#" + std::to_string(++counts);
  }
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
    unsigned counts = 0;
    for (const std::string& field : split(cells[5], ';'))
      row.fields.push_back(fieldOf(field, counts));
    rows.push_back(row);
  }
  return rows;
}

void putText(std::string& block, const std::string& text) {
  put(block, text.size(), 1);
  block += text;
}

}  // namespace

unsigned bytesOf(Type type) { return kTypes[static_cast<unsigned>(type) - kFirstCode].second; }

size_t Row::place(std::string_view field) const {
  const auto at = std::find_if(fields.begin(), fields.end(),
                               [&](const Field& other) { return other.name == field; });
  return static_cast<size_t>(at - fields.begin());
}

Layout::Layout() {
  static const std::vector<Row> rows = documentRows();
  rows_ = rows;
}

Layout& Layout::retype(unsigned number, std::string_view field, Type type) {
  row(number).fields.at(row(number).place(field)).type = type;
  return *this;
}

Layout& Layout::drop(unsigned number, std::string_view field) {
  std::vector<Field>& fields = row(number).fields;
  const auto last = fields.begin() + static_cast<ptrdiff_t>(row(number).place(field));
  auto first = last;
  for (auto count = fields.begin(); count != last; ++count) {
    if (count->isCount && last - count <= count->covers && --count->covers == 0) first = count;
  }
  fields.erase(first, last + 1);
  return *this;
}

Layout& Layout::insert(unsigned number, std::string_view before, const Field& field) {
  std::vector<Field>& fields = row(number).fields;
  fields.insert(fields.begin() + static_cast<ptrdiff_t>(row(number).place(before)), field);
  return *this;
}

std::string Layout::block() const {
  std::string block;
  for (const Row& row : rows_) {
    if (!row.listed) continue;
    put(block, row.number, 2);
    putText(block, row.name);
    put(block, row.fields.size(), 1);
    for (const Field& field : row.fields) {
      if (field.isCount) put(block, 0xfe, 1);
      put(block, static_cast<uint8_t>(field.type), 1);
      if (field.isCount) {
        put(block, field.covers, 1);
      } else {
        putText(block, field.name);
        putText(block, field.reference);
      }
    }
  }
  return block;
}

}  // namespace tb
