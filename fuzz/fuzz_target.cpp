// Splits and changes records and traces. See fuzz_target.h.
#include "fuzz/fuzz_target.h"

#include <fcntl.h>

#include <algorithm>
#include <vector>

#include "klt/format/klt_schema.h"
#include "klt/storage/klt_io.h"
#include "tests/builder/layout.h"

namespace fuzz {
namespace {

constexpr size_t kLargestInsertion = 4096;

// A number that can be changed.
struct Place {
  size_t at, width;
};

struct Record {
  size_t begin, end;  // end is 0 if it is incomplete
  std::vector<Place> places;
};

// The record that begins at `begin`, or the layout entry of an index: 0, number, name, fields. With
// a `maker`, random values are appended for everything after the number.
Record recordAt(std::string& bytes, size_t begin, Random* maker = nullptr) {
  static const tb::Layout layout;
  Record record{begin, begin + 1, {}};
  // Goes over `count` numbers and returns the first.
  const auto take = [&](size_t width, uint64_t count = 1, bool isCount = false) -> uint64_t {
    for (uint64_t i = 0; maker != nullptr && i < count; ++i) {
      const uint64_t made = isCount ? below(*maker, 5) : anyNumber(*maker);
      tb::put(bytes, made, static_cast<unsigned>(width));
    }
    const size_t at = record.end;
    record.end = at == 0 || count > (bytes.size() - at) / width ? 0 : at + count * width;
    if (record.end == 0) return 0;
    for (uint64_t i = 0; i < std::min<uint64_t>(count, 64); ++i) {
      record.places.push_back({at + i * width, width});
    }
    return load(bytes, at, width);
  };

  const uint64_t number = load(bytes, begin);
  if (number > kKltRowCount) record.end = 0;
  if (number == 0) {
    take(1);
    take(1, take(1));
    for (uint64_t fields = take(1); record.end != 0 && fields > 0; --fields) {
      if (take(1) == 0xfe) {
        take(1, 2);
      } else {
        take(1, take(1));
        take(1, take(1));
      }
    }
  } else if (number <= kKltRowCount) {
    uint64_t elements = 1;
    unsigned covered = 0;
    for (const tb::Field& field : layout.row(static_cast<unsigned>(number)).fields) {
      const size_t width = tb::bytesOf(field.type);
      if (field.isCount) {
        elements = take(width, 1, true);
        covered = field.covers;
      } else {
        take(width, covered == 0 ? 1 : elements);
        covered -= covered == 0 ? 0 : 1;
      }
    }
  }
  return record;
}

void change(Random& random, std::string& bytes, const Place& place) {
  const uint64_t value = load(bytes, place.at, place.width);
  const uint64_t changed[] = {value + 1, value - 1,
                              value ^ uint64_t{1} << below(random, 8 * place.width),
                              anyNumber(random)};
  std::string text;
  tb::put(text, changed[below(random, 4)], static_cast<unsigned>(place.width));
  bytes.replace(place.at, place.width, text);
}

}  // namespace

uint64_t load(std::string_view bytes, size_t at, size_t width) {
  uint64_t value = 0;
  for (size_t i = at; i < at + width; ++i) {
    value = value << 8 | (i < bytes.size() ? static_cast<uint8_t>(bytes[i]) : 0);
  }
  return value;
}

size_t below(Random& random, size_t limit) { return limit == 0 ? 0 : random() % limit; }

uint64_t anyNumber(Random& random) {
  const size_t bit = below(random, 64);
  const uint64_t high = random(), low = random();
  // A power of two or a neighbour, any number, and for example another thread of a process.
  const uint64_t rare[] = {(uint64_t{1} << bit) + high % 3 - 1, (high << 32 | low) >> bit,
                           ~(high % 3), high % 3 << 16 | bit % 4, high % 5000};
  const size_t which = low % 12;
  return which < std::size(rare) ? rare[which] : high % 8;
}

void mutateBytes(Random& random, std::string& bytes) {
  const Place place{below(random, bytes.size() + 1), size_t{1} << below(random, 4)};
  const size_t what = below(random, 5);
  if (what == 0) {
    bytes.resize(place.at);
  } else if (what < 3 || place.width > bytes.size() - place.at) {
    const size_t removed = below(random, 8), added = below(random, 8);
    bytes.replace(place.at, removed, added, static_cast<char>(random()));
  } else {
    change(random, bytes, place);
  }
}

void mutateRecords(Random& random, std::string& bytes, size_t start) {
  if (bytes.size() < start) return mutateBytes(random, bytes);
  std::vector<Record> records;
  for (size_t at = start; at < bytes.size(); at = records.back().end) {
    Record record = recordAt(bytes, at);
    if (record.end == 0) break;
    records.push_back(std::move(record));
  }
  const size_t what = below(random, 8), index = below(random, records.size());
  if (what == 0 || records.empty()) {
    std::string made(1, static_cast<char>(1 + below(random, kKltRowCount)));
    (void)recordAt(made, 0, &random);
    bytes.insert(records.empty() ? start : records[index].begin, made);
    return;
  }
  // A few records from `index` on, and the numbers in the first of them.
  const size_t last = std::min(index + below(random, 4), records.size() - 1);
  const size_t begin = records[index].begin, size = records[last].end - begin;
  const std::vector<Place>& places = records[index].places;
  if (what == 1) {
    bytes.erase(begin, size);
  } else if (what < 4) {  // repeats them, once or many times, there or elsewhere
    const std::string run = bytes.substr(begin, size);
    const size_t times = below(random, 16) == 0 ? 1 + kLargestInsertion / size : 1;
    const size_t to = what == 2 ? begin : records[below(random, records.size())].end;
    for (size_t i = 0; i < times; ++i) bytes.insert(to, run);
  } else if (!places.empty()) {
    change(random, bytes, places[below(random, places.size())]);
  }
}

const tb::TempDir& directory() {
  static const tb::TempDir directory;
  return directory;
}

tb::TraceFiles componentsOf(std::string_view container) {
  const std::string base = directory() / "mutated.klt";
  tb::writeFile(base, container);
  tb::TraceFiles files;
  KLT_Container* opened = KLT_ContainerOpen(nullptr, base.c_str(), O_RDONLY, 0);
  if (opened == nullptr) return files;
  size_t left = container.size();  // bytes to read at most, because extents may overlap
  for (const std::string& key : KLT_ContainerKeys(opened)) {
    KLT_IoFile* file = KLT_IoOpen(opened, key == " " ? base.c_str() : (base + key).c_str());
    if (file == nullptr) continue;
    std::string bytes(left, '\0');
    bytes.resize(static_cast<size_t>(std::max<int64_t>(KLT_IoRead(file, bytes.data(), left), 0)));
    left -= bytes.size();
    files.add(key, bytes);
    const int64_t length = KLT_IoSeek(file, 0, SEEK_END);
    char buffer[100];
    for (const int64_t to : {length / 2, length - 1, length + 5, int64_t{-1}, INT64_MAX}) {
      KLT_IoSeek(file, to, SEEK_SET);
      (void)KLT_IoRead(file, buffer, sizeof buffer);
    }
    KLT_IoClose(file);
  }
  KLT_ContainerClose(opened);
  return files;
}

}  // namespace fuzz
