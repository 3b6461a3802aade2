// Writes tables. See kla_table.h.
#include "analyze/tables/kla_table.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "analyze/tables/kla_text.h"

namespace kla {

namespace {

constexpr size_t kBufferBytes = 1 << 16;
constexpr int kMostTextDecimals = 9;
constexpr size_t kLeastWidth = 12;  // of a column that is shortened
constexpr int kMostDecimals = 18;

template <class... Args>
std::string print(const char* format, Args... args) {
  std::array<char, 400> text{};
  std::snprintf(text.data(), text.size(), format, args...);
  return text.data();
}

std::string secondsWith(Sum ticks, double resolution, int decimals) {
  return print("%.*Lf", decimals, static_cast<long double>(ticks) * resolution);
}

bool isText(const Cell& cell) { return std::holds_alternative<std::string>(cell); }

// Whether the cells of a column are texts, which are aligned to the left.
bool isTextColumn(const Table& table, size_t column) {
  return std::any_of(table.rows.begin(), table.rows.end(),
                     [&](const auto& row) { return isText(row[column]); });
}

std::string headingOf(const Column& column) {
  return column.heading != nullptr ? column.heading : column.name;
}

std::string quoted(const std::string& text) {
  if (text.find_first_of(",\"") == std::string::npos) return text;
  std::string result = "\"";
  for (const char c : text) {
    if (c == '"') result += '"';
    result += c;
  }
  return result + "\"";
}

// Shortens the widest columns of texts until the table fits.
void fit(std::vector<size_t>& widths, const std::vector<bool>& texts, size_t most) {
  size_t total = 2 * (widths.size() - 1);
  for (const size_t width : widths) total += width;
  while (total > most) {
    size_t widest = widths.size();
    for (size_t i = 0; i < widths.size(); ++i) {
      if (texts[i] && widths[i] > kLeastWidth &&
          (widest == widths.size() || widths[i] > widths[widest]))
        widest = i;
    }
    if (widest == widths.size()) return;
    --widths[widest];
    --total;
  }
}

}  // namespace

int decimalsOf(double resolution) {
  const double digits = std::ceil(-std::log10(resolution) - 1e-9);
  return std::isfinite(digits) ? static_cast<int>(std::clamp<double>(digits, 0, kMostDecimals)) : 0;
}

std::string secondsText(Sum ticks, double resolution) {
  return secondsWith(ticks, resolution, decimalsOf(resolution));
}

TableWriter::TableWriter(FILE* file, Format format, size_t width, double resolution,
                         size_t mostRows)
    : file_(file), format_(format), width_(width), resolution_(resolution), mostRows_(mostRows) {}

void TableWriter::put(std::string_view text) {
  buffer_ += text;
  if (buffer_.size() < kBufferBytes) return;
  failed_ |= std::fwrite(buffer_.data(), 1, buffer_.size(), file_) != buffer_.size();
  buffer_.clear();
}

void TableWriter::write(const Table& table) {
  if (format_ == Format::kText)
    writeText(table);
  else if (format_ == Format::kCsv)
    writeCsv(table);
  else
    writeJson(table);
  ++tables_;
}

size_t TableWriter::rowsOf(const Table& table) const {
  return std::min(mostRows_, table.rows.size());
}

std::string TableWriter::cell(const Cell& cell) const {
  const bool forPeople = format_ == Format::kText;
  if (isText(cell)) return printable(std::get<std::string>(cell));
  if (const auto* number = std::get_if<uint64_t>(&cell)) return std::to_string(*number);
  if (const auto* ticks = std::get_if<Ticks>(&cell)) {
    const int decimals = decimalsOf(resolution_);
    return secondsWith(ticks->value, resolution_,
                       forPeople ? std::min(decimals, kMostTextDecimals) : decimals);
  }
  if (const auto* real = std::get_if<Real>(&cell)) {
    if (!std::isfinite(real->value)) return "";
    const double size = std::fabs(real->value);
    if (size < 1e15 && size == std::floor(size)) return print("%.0f", real->value);
    if (forPeople && size < 1e6 && (size >= 1e-3 || size == 0)) return print("%.4f", real->value);
    return print(forPeople ? "%.4g" : "%.9g", real->value);
  }
  return "";
}

void TableWriter::writeText(const Table& table) {
  const size_t columns = table.columns.size();
  std::vector<size_t> widths(columns);
  std::vector<bool> texts(columns);
  std::vector<std::vector<std::string>> cells;
  for (size_t row = 0; row < rowsOf(table); ++row) {
    cells.emplace_back();
    for (const Cell& c : table.rows[row]) cells.back().push_back(cell(c));
  }
  for (size_t i = 0; i < columns; ++i) {
    widths[i] = headingOf(table.columns[i]).size();
    for (const auto& row : cells) widths[i] = std::max(widths[i], characters(row[i]));
    texts[i] = isTextColumn(table, i);
  }
  fit(widths, texts, width_);
  const auto writeCell = [&](size_t i, const std::string& text) {
    const std::string cut = texts[i] ? cutMiddle(text, widths[i]) : text;
    const std::string space(widths[i] - std::min(widths[i], characters(cut)), ' ');
    if (i != 0) put("  ");
    put(texts[i] ? (i + 1 == columns ? cut : cut + space) : space + cut);
  };
  if (tables_ != 0) put("\n");
  put(std::string(table.name) + "\n");
  for (size_t i = 0; i < columns; ++i) writeCell(i, headingOf(table.columns[i]));
  put("\n");
  if (cells.empty()) put("(none)\n");
  for (const auto& row : cells) {
    for (size_t i = 0; i < columns; ++i) writeCell(i, row[i]);
    put("\n");
  }
  if (rowsOf(table) < table.rows.size()) {
    put("... " + std::to_string(table.rows.size() - rowsOf(table)) + " more rows\n");
  }
}

void TableWriter::writeCsv(const Table& table) {
  if (tables_ != 0) put("\n");
  const auto line = [&](auto&& textOf) {
    bool isFirst = true;
    for (size_t i = 0; i < table.columns.size(); ++i) {
      if (table.columns[i].onlyText) continue;
      if (!std::exchange(isFirst, false)) put(",");
      put(quoted(textOf(i)));
    }
    put("\n");
  };
  line([&](size_t i) { return std::string(table.columns[i].name); });
  for (size_t row = 0; row < rowsOf(table); ++row) {
    line([&](size_t i) { return cell(table.rows[row][i]); });
  }
}

void TableWriter::writeJson(const Table& table) {
  put(tables_ == 0 ? "{" : ",\n ");
  put("\"" + std::string(table.name) + "\": [");
  for (size_t row = 0; row < rowsOf(table); ++row) {
    put(row == 0 ? "\n  {" : ",\n  {");
    bool isFirst = true;
    for (size_t i = 0; i < table.columns.size(); ++i) {
      if (table.columns[i].onlyText) continue;
      if (!std::exchange(isFirst, false)) put(", ");
      const Cell& value = table.rows[row][i];
      put("\"" + std::string(table.columns[i].name) + "\": ");
      const std::string text =
          isText(value) ? jsonString(std::get<std::string>(value)) : cell(value);
      put(text.empty() ? "null" : text);
    }
    put("}");
  }
  put("]");
}

bool TableWriter::finish() {
  if (std::exchange(finished_, true)) return !failed_;
  if (format_ == Format::kJson) put(tables_ == 0 ? "{}\n" : "}\n");
  failed_ |= std::fwrite(buffer_.data(), 1, buffer_.size(), file_) != buffer_.size();
  buffer_.clear();
  failed_ |= std::fflush(file_) != 0;
  return !failed_;
}

}  // namespace kla
