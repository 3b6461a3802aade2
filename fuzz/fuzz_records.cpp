// Splitting and changing records and traces. See fuzz_records.h.
#include "fuzz/fuzz_records.h"

#include <fcntl.h>

#include <algorithm>
#include <vector>

#include "klt/storage/klt_io.h"
#include "tests/builder/layout.h"

namespace fuzz {
namespace {

constexpr unsigned kRows = 74;
constexpr size_t kLargestInsertion = 4096;

const tb::Row& rowOf(size_t number) {
  static const tb::Layout layout;
  return layout.row(static_cast<unsigned>(number));
}

// Calls `visit` for each field with the number of its elements; its result is the value of a count.
template <class Visit>
void walkFields(const tb::Row& row, Visit visit) {
  uint64_t elements = 1;
  unsigned covered = 0;
  for (const tb::Field& field : row.fields) {
    const uint64_t value = visit(field, field.isCount || covered == 0 ? 1 : elements);
    if (field.isCount) {
      elements = value;
      covered = field.covers;
    } else if (covered > 0) {
      --covered;
    }
  }
}

// A number that can be changed.
struct Place {
  size_t at, width;
  enum { number, text, type } kind;
};

// One record, or one layout entry of an index: 0, number, name, fields.
struct Record {
  size_t begin, end;  // end 0 if it isn't whole
  std::vector<Place> places = {};

  Record(std::string_view bytes, size_t at) : begin(at), end(at + 1) {
    const auto number = static_cast<uint8_t>(bytes[at]);
    if (number > kRows) {
      end = 0;
    } else if (number > 0) {
      walkFields(rowOf(number), [&](const tb::Field& field, uint64_t count) {
        return take(bytes, tb::bytesOf(field.type), count,
                    field.type == tb::Type::Char ? Place::text : Place::number);
      });
    } else {
      take(bytes, 1, 1, Place::number);
      takeText(bytes);
      for (uint64_t fields = take(bytes, 1, 1, Place::number); end != 0 && fields > 0; --fields) {
        if (take(bytes, 1, 1, Place::type) == 0xfe) {
          take(bytes, 1, 2, Place::number);
        } else {
          takeText(bytes);
          takeText(bytes);
        }
      }
    }
  }

 private:
  // The first of `count` numbers, which follow.
  uint64_t take(std::string_view bytes, size_t width, uint64_t count, decltype(Place::kind) kind) {
    if (end == 0 || count > (bytes.size() - end) / width) {
      end = 0;
      return 0;
    }
    const uint64_t value = load(bytes, end, width);
    for (uint64_t i = 0; i < std::min<uint64_t>(count, 64); ++i) {
      places.push_back({end + i * width, width, kind});
    }
    end += count * width;
    return value;
  }
  void takeText(std::string_view bytes) {
    take(bytes, 1, take(bytes, 1, 1, Place::number), Place::text);
  }
};

// The whole records from `start` on.
std::vector<Record> recordsIn(std::string_view bytes, size_t start) {
  std::vector<Record> records;
  for (size_t at = start; at < bytes.size(); at = records.back().end) {
    Record record(bytes, at);
    if (record.end == 0) break;
    records.push_back(std::move(record));
  }
  return records;
}

void store(std::string& bytes, size_t at, uint64_t value, size_t width) {
  for (size_t i = width; i > 0; value >>= 8) bytes[at + --i] = static_cast<char>(value);
}

std::string anyRecord(Random& random) {
  const size_t number = 1 + below(random, kRows);
  std::string record(1, static_cast<char>(number));
  walkFields(rowOf(number), [&](const tb::Field& field, uint64_t count) {
    uint64_t value = 0;
    for (uint64_t i = 0; i < count; ++i) {
      value = field.isCount                  ? below(random, below(random, 16) == 0 ? 200 : 5)
              : field.type == tb::Type::Char ? 'a' + below(random, 26)
                                             : anyNumber(random);
      const size_t at = record.size();
      record.resize(at + tb::bytesOf(field.type));
      store(record, at, value, tb::bytesOf(field.type));
    }
    return value;
  });
  return record;
}

uint64_t changed(Random& random, const Place& place, uint64_t value) {
  if (place.kind == Place::text) return random();
  if (place.kind == Place::type) return 0xed + below(random, 18);
  if (below(random, 3) != 0) return anyNumber(random);
  return below(random, 2) == 0 ? value + 1 : value - 1;
}

}  // namespace

uint64_t load(std::string_view bytes, size_t at, size_t width) {
  uint64_t value = 0;
  for (size_t i = at; i < at + width; ++i) {
    value = value << 8 | (i < bytes.size() ? static_cast<uint8_t>(bytes[i]) : 0);
  }
  return value;
}

uint64_t anyNumber(Random& random) {
  const size_t bit = below(random, 64);
  const uint64_t high = random();  // one after the other, whatever the compiler
  const uint64_t low = random();
  switch (low % 12) {
    case 0:  // a limit, or just beside it
      return (uint64_t{1} << bit) + high % 3 - 1;
    case 1:
      return (high << 32 | low) >> bit;
    case 2:  // another thread of a process
      return high % 3 << 16 | bit % 4;
    case 3:
      return ~uint64_t{0} - high % 3;
    case 4:
      return high % 5000;
    default:
      return high % 8;
  }
}

void mutateRecords(Random& random, std::string& bytes, size_t start) {
  if (bytes.size() < start) return mutateBytes(random, bytes);
  const std::vector<Record> records = recordsIn(bytes, start);
  const size_t what = below(random, 8);
  const size_t index = below(random, records.size());
  if (what == 0 || records.empty()) {
    bytes.insert(records.empty() ? start : records[index].begin, anyRecord(random));
    return;
  }
  // A few records from there on, and the places of one of them.
  const size_t last = std::min(index + below(random, 4), records.size() - 1);
  const size_t begin = records[index].begin;
  const std::string run = bytes.substr(begin, records[last].end - begin);
  const size_t other = records[below(random, records.size())].end;
  const std::vector<Place>& places = records[index].places;
  if (what == 1) {
    bytes.erase(begin, run.size());
  } else if (what == 2) {  // once more, or many times
    const size_t times = below(random, 8) == 0 ? 1 + kLargestInsertion / run.size() : 1;
    for (size_t i = 0; i < times; ++i) bytes.insert(begin, run);
  } else if (what == 3) {  // elsewhere
    bytes.insert(other, run);
    bytes.erase(begin + (other <= begin ? run.size() : 0), run.size());
  } else if (!places.empty()) {
    const Place& place = places[below(random, places.size())];
    store(bytes, place.at, changed(random, place, load(bytes, place.at, place.width)), place.width);
  }
}

void mutateBytes(Random& random, std::string& bytes) {
  const size_t at = below(random, bytes.size() + 1);
  const size_t count = 1 + below(random, 8);
  const size_t width = std::min(size_t{1} << below(random, 4), bytes.size());
  switch (bytes.empty() ? 0 : below(random, 5)) {
    case 0:
      bytes.insert(at, count, static_cast<char>(random()));
      break;
    case 1:
      bytes.erase(at, count);
      break;
    case 2:
      bytes.resize(at);
      break;
    case 3:
      store(bytes, below(random, bytes.size() - width + 1), anyNumber(random), width);
      break;
    default:
      bytes[at % bytes.size()] = static_cast<char>(bytes[at % bytes.size()] ^ (1 << (count - 1)));
      break;
  }
}

tb::TraceFiles takeApart(std::string_view container) {
  const std::string base = directory() / "mutated.klt";
  tb::writeFile(base, container);
  tb::TraceFiles files;
  KLT_Container* opened = KLT_ContainerOpen(nullptr, base.c_str(), O_RDONLY, 0);
  if (opened == nullptr) return files;
  size_t left = container.size();  // extents may overlap
  for (const std::string& key : KLT_ContainerKeys(opened)) {
    KLT_IoFile* file = KLT_IoOpen(opened, key == " " ? base.c_str() : (base + key).c_str());
    if (file == nullptr) continue;
    std::string bytes(left, '\0');
    bytes.resize(static_cast<size_t>(std::max<int64_t>(KLT_IoRead(file, bytes.data(), left), 0)));
    left -= bytes.size();
    files.add(key, bytes);
    KLT_IoClose(file);
  }
  KLT_ContainerClose(opened);
  return files;
}

const tb::TraceFiles& baseTrace() {
  static const tb::TraceFiles files = takeApart(tb::readFile(KLT_FUZZ_BASE));
  return files;
}

}  // namespace fuzz
