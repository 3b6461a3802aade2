// Splitting and changing records. See fuzz_records.h.
#include "fuzz/fuzz_records.h"

#include <algorithm>
#include <array>

#include "tests/builder/layout.h"

namespace fuzz {
namespace {

constexpr size_t kLargestInsertion = 4096;

// Rows by record number; null for numbers without one.
const std::array<const tb::Row*, 256>& rows() {
  static const tb::Layout layout;
  static const auto table = [] {
    std::array<const tb::Row*, 256> result{};
    for (unsigned number = 1; number <= 74; ++number) result[number] = &layout.row(number);
    return result;
  }();
  return table;
}

void store(std::string& bytes, size_t at, uint64_t value, size_t width) {
  for (size_t i = 0; i < width; ++i) {
    bytes[at + i] = static_cast<char>(value >> (8 * (width - 1 - i)));
  }
}

// One number in a record.
struct Place {
  size_t at;
  size_t width;
  bool isCount;
  bool isText;
};

// Walks the record at `at`; its end, or 0 if it isn't whole. `places` may be null.
size_t walkRecord(std::string_view bytes, size_t at, std::vector<Place>* places) {
  const tb::Row* row = rows()[static_cast<uint8_t>(bytes[at])];
  if (row == nullptr) return 0;
  size_t pos = at + 1;
  uint64_t elements = 1;
  unsigned covered = 0;
  for (const tb::Field& field : row->fields) {
    const size_t width = tb::bytesOf(field.type);
    const uint64_t count = field.isCount || covered == 0 ? 1 : elements;
    if (count > (bytes.size() - pos) / width) return 0;
    for (uint64_t i = 0; places != nullptr && i < std::min<uint64_t>(count, 64); ++i) {
      places->push_back({pos + i * width, width, field.isCount, field.type == tb::Type::Char});
    }
    if (field.isCount) {
      elements = load(bytes, pos, width);
      covered = field.covers;
    } else if (covered > 0) {
      --covered;
    }
    pos += count * width;
  }
  return pos;
}

// A layout entry of an index: 0, number, name, fields. Its end, or 0 if it isn't whole.
size_t walkLayout(std::string_view bytes, size_t at) {
  size_t pos = at + 2;
  const auto skipText = [&] {
    if (pos < bytes.size()) pos += 1 + static_cast<uint8_t>(bytes[pos]);
  };
  skipText();
  if (pos >= bytes.size()) return 0;
  for (unsigned fields = static_cast<uint8_t>(bytes[pos++]); fields > 0; --fields) {
    if (pos >= bytes.size()) return 0;
    if (static_cast<uint8_t>(bytes[pos]) == 0xfe) {
      pos += 3;
    } else {
      ++pos;
      skipText();
      skipText();
    }
  }
  return pos <= bytes.size() ? pos : 0;
}

void appendElement(Random& random, std::string& record, const tb::Field& field) {
  const size_t width = tb::bytesOf(field.type);
  const size_t at = record.size();
  record.append(width, '\0');
  if (field.type == tb::Type::Char) {
    record[at] = static_cast<char>('a' + below(random, 26));
  } else {
    store(record, at, anyNumber(random), width);
  }
}

std::string anyRecord(Random& random) {
  const unsigned number = 1 + static_cast<unsigned>(below(random, 74));
  const tb::Row& row = *rows()[number];
  std::string record(1, static_cast<char>(number));
  size_t elements = 1;
  unsigned covered = 0;
  for (const tb::Field& field : row.fields) {
    if (field.isCount) {
      elements = below(random, 16) == 0 ? below(random, 200) : below(random, 5);
      covered = field.covers;
      record.append(tb::bytesOf(field.type), '\0');
      store(record, record.size() - tb::bytesOf(field.type), elements, tb::bytesOf(field.type));
      continue;
    }
    const size_t written = covered == 0 ? 1 : elements;
    for (size_t i = 0; i < written; ++i) appendElement(random, record, field);
    if (covered > 0) --covered;
  }
  return record;
}

// Exchanges the type of a field, a name's length or any other byte of a layout entry.
void changeLayout(Random& random, std::string& bytes, size_t begin, size_t end) {
  const size_t at = begin + 1 + below(random, end - begin - 1);
  const auto byte = static_cast<uint8_t>(bytes[at]);
  if (byte >= 0xed && byte <= 0xfb) {
    bytes[at] = static_cast<char>(0xed + below(random, 15));
  } else if (below(random, 2) == 0) {
    bytes[at] = static_cast<char>(byte + (below(random, 2) == 0 ? 1 : 255));
  } else {
    bytes[at] = static_cast<char>(random());
  }
}

void changeField(Random& random, std::string& bytes, size_t begin, size_t end) {
  if (bytes[begin] == 0) {
    changeLayout(random, bytes, begin, end);
    return;
  }
  std::vector<Place> places;
  walkRecord(bytes, begin, &places);
  const Place& place = places[below(random, places.size())];
  uint64_t value = load(bytes, place.at, place.width);
  if (place.isText) {
    value = random();
  } else if (below(random, 3) == 0) {
    value += below(random, 2) == 0 ? 1 : ~uint64_t{0};
  } else {
    value = anyNumber(random);
  }
  store(bytes, place.at, value, place.width);
}

}  // namespace

std::vector<size_t> recordEnds(std::string_view bytes, size_t start) {
  std::vector<size_t> ends;
  size_t at = start;
  while (at < bytes.size()) {
    const size_t end = bytes[at] == 0 ? walkLayout(bytes, at) : walkRecord(bytes, at, nullptr);
    if (end == 0) break;
    ends.push_back(end);
    at = end;
  }
  return ends;
}

uint64_t anyNumber(Random& random) {
  switch (below(random, 12)) {
    case 0: {  // a limit, or just beside it
      const uint64_t limit = uint64_t{1} << below(random, 64);
      return limit + below(random, 3) - 1;
    }
    case 1: {
      const uint64_t high = random();  // one after the other, whatever the compiler
      const uint64_t low = random();
      return (high << 32 | low) >> below(random, 64);
    }
    case 2:  // another thread of a process
      return below(random, 3) << 16 | below(random, 4);
    case 3:
      return ~uint64_t{0} - below(random, 3);
    case 4:
      return below(random, 5000);
    default:
      return below(random, 8);
  }
}

bool mutateRecords(Random& random, std::string& bytes, size_t start) {
  std::vector<size_t> ends = recordEnds(bytes, start);
  if (ends.empty()) {
    if (bytes.size() < start) return false;
    bytes.insert(start, anyRecord(random));
    return true;
  }
  const size_t index = below(random, ends.size());
  const size_t begin = index == 0 ? start : ends[index - 1];
  // A few records from there on.
  const size_t last = std::min(index + below(random, 4), ends.size() - 1);
  const std::string run = bytes.substr(begin, ends[last] - begin);
  switch (below(random, 8)) {
    case 0:
      bytes.erase(begin, run.size());
      break;
    case 1: {  // once more, or many times
      const size_t times = below(random, 8) == 0 ? 1 + kLargestInsertion / run.size() : 1;
      std::string copies;
      for (size_t i = 0; i < times; ++i) copies += run;
      bytes.insert(begin, copies);
      break;
    }
    case 2: {  // elsewhere
      bytes.erase(begin, run.size());
      ends = recordEnds(bytes, start);
      bytes.insert(ends.empty() ? start : ends[below(random, ends.size())], run);
      break;
    }
    case 3:
      bytes.insert(begin, anyRecord(random));
      break;
    default:
      changeField(random, bytes, begin, ends[index]);
      break;
  }
  return true;
}

void crossRecords(Random& random, std::string& bytes, size_t start, std::string_view donor,
                  size_t donorStart) {
  const std::vector<size_t> ends = recordEnds(donor, donorStart);
  if (ends.empty()) return;
  const size_t index = below(random, ends.size());
  const size_t begin = index == 0 ? donorStart : ends[index - 1];
  const size_t last = std::min(index + below(random, 16), ends.size() - 1);
  const std::vector<size_t> places = recordEnds(bytes, start);
  const size_t at =
      places.empty() ? std::min(start, bytes.size()) : places[below(random, places.size())];
  bytes.insert(at, donor.substr(begin, ends[last] - begin));
}

void mutateBytes(Random& random, std::string& bytes) {
  const size_t at = below(random, bytes.size() + 1);
  switch (bytes.empty() ? 0 : below(random, 5)) {
    case 0:
      bytes.insert(at, 1 + below(random, 8), static_cast<char>(random()));
      break;
    case 1:
      bytes.erase(at, 1 + below(random, 8));
      break;
    case 2:
      bytes.resize(at);
      break;
    case 3: {
      static constexpr size_t kWidths[] = {1, 2, 4, 8};
      const size_t width = std::min(kWidths[below(random, 4)], bytes.size());
      store(bytes, below(random, bytes.size() - width + 1), anyNumber(random), width);
      break;
    }
    default: {
      char& byte = bytes[below(random, bytes.size())];
      byte = static_cast<char>(byte ^ (1 << below(random, 8)));
      break;
    }
  }
}

}  // namespace fuzz
