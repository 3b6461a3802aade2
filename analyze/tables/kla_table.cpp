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
// Below this a product has an error of less than kClose.
constexpr long double kMostScaled = 1LL << 50;
constexpr long double kClose = 1e-3L;

template <class... Args>
std::string print(const char* format, Args... args) {
  std::array<char, 400> text{};
  std::snprintf(text.data(), text.size(), format, args...);
  return text.data();
}

// A number of at least 0 with this many decimals, at most kMostDecimals. "%.*Lf" is the exact form;
// the digits of a whole number are made ten times as fast. They are the same unless rounding is
// close.
std::string fixed(long double value, int decimals) {
  static constexpr std::array<uint64_t, kMostDecimals + 1> kPowers = [] {
    std::array<uint64_t, kMostDecimals + 1> powers{1};
    for (size_t i = 1; i < powers.size(); ++i) powers[i] = 10 * powers[i - 1];
    return powers;
  }();
  const uint64_t power = kPowers[static_cast<size_t>(decimals)];
  const long double scaled = value * static_cast<long double>(power);
  const auto whole = scaled < kMostScaled ? static_cast<uint64_t>(scaled) : 0;
  const long double rest = scaled - static_cast<long double>(whole);
  if (scaled >= kMostScaled || std::fabs(rest - 0.5L) < kClose) {
    return print("%.*Lf", decimals, value);
  }
  const uint64_t rounded = whole + (rest > 0.5L ? 1 : 0);
  std::string text = std::to_string(rounded / power);
  if (decimals == 0) return text;
  const std::string digits = std::to_string(rounded % power);
  text += '.';
  text.append(static_cast<size_t>(decimals) - digits.size(), '0');
  return text + digits;
}

std::string secondsWith(Sum ticks, double resolution, int decimals) {
  return fixed(static_cast<long double>(ticks) * resolution, decimals);
}

bool isText(const Cell& cell) { return std::holds_alternative<std::string>(cell); }

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
    : file_(file),
      format_(format),
      width_(width),
      resolution_(resolution),
      decimals_(format == Format::kText ? std::min(decimalsOf(resolution), kMostTextDecimals)
                                        : decimalsOf(resolution)),
      mostRows_(mostRows) {}

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

size_t TableWriter::rowsOf(const Table& table) const { return std::min(mostRows_, table.size()); }

std::string TableWriter::cell(const Cell& cell) const {
  const bool forPeople = format_ == Format::kText;
  if (isText(cell)) return printable(std::get<std::string>(cell));
  if (const auto* number = std::get_if<uint64_t>(&cell)) return std::to_string(*number);
  if (const auto* ticks = std::get_if<Ticks>(&cell)) {
    return secondsWith(ticks->value, resolution_, decimals_);
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
  std::vector<bool> texts(columns);  // which are aligned to the left
  for (size_t i = 0; i < columns; ++i) widths[i] = headingOf(table.columns[i]).size();
  for (size_t at = 0; at < rowsOf(table); ++at) {
    const Row row = table.row(at);
    for (size_t i = 0; i < columns; ++i) {
      widths[i] = std::max(widths[i], characters(cell(row[i])));
      texts[i] = texts[i] || isText(row[i]);
    }
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
  if (table.size() == 0) put("(none)\n");
  for (size_t at = 0; at < rowsOf(table); ++at) {
    const Row row = table.row(at);
    for (size_t i = 0; i < columns; ++i) writeCell(i, cell(row[i]));
    put("\n");
  }
  if (rowsOf(table) < table.size()) {
    put("... " + std::to_string(table.size() - rowsOf(table)) + " more rows\n");
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
  for (size_t at = 0; at < rowsOf(table); ++at) {
    const Row row = table.row(at);
    line([&](size_t i) { return cell(row[i]); });
  }
}

void TableWriter::writeJson(const Table& table) {
  put(tables_ == 0 ? "{" : ",\n ");
  put("\"" + std::string(table.name) + "\": [");
  for (size_t at = 0; at < rowsOf(table); ++at) {
    put(at == 0 ? "\n  {" : ",\n  {");
    const Row row = table.row(at);
    bool isFirst = true;
    for (size_t i = 0; i < table.columns.size(); ++i) {
      if (table.columns[i].onlyText) continue;
      if (!std::exchange(isFirst, false)) put(", ");
      const Cell& value = row[i];
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
