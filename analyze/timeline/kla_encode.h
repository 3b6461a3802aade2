// The data of a page: a JSON text and columns of numbers, deflated, as a text in base64.
//
// Layout before deflation: the length of the JSON in 4 bytes, little-endian; the JSON; the columns.
// A column is stored as planes, the lowest bytes of all numbers first, because that deflates best;
// without the upper planes that are all 0. Ascending numbers are stored as differences.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kla {

class Columns {
 public:
  void add(const char* name, const std::vector<uint32_t>& numbers, bool ascending = false);

  // {"name": [offset, count, ascending, planes], ...}
  [[nodiscard]] std::string json() const { return "{" + json_ + "}"; }
  [[nodiscard]] const std::string& bytes() const { return bytes_; }

 private:
  std::string json_;
  std::string bytes_;
};

// The text for the page; empty if memory is exhausted. `json` has the columns' json() in it.
[[nodiscard]] std::string pageData(std::string_view json, const Columns& columns);

}  // namespace kla
