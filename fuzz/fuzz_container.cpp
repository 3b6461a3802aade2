// The bytes of a container file, its directory above all: 0 | bytes.
#include <fcntl.h>

#include <algorithm>

#include "fuzz/fuzz_target.h"
#include "klt/storage/klt_io.h"

void fuzz::run(std::string_view input) {
  constexpr size_t kMostComponents = 64;
  const std::string name = directory() / "t.klt";
  tb::writeFile(name, rest(input));
  KLT_Container* container = KLT_ContainerOpen(nullptr, name.c_str(), O_RDONLY, 0);
  if (container == nullptr) return;
  std::vector<std::string> keys = KLT_ContainerKeys(container);
  keys.resize(std::min(keys.size(), kMostComponents));
  for (const std::string& key : keys) {
    KLT_IoFile* file = KLT_IoOpen(container, key == " " ? name.c_str() : (name + key).c_str());
    if (file == nullptr) continue;
    char buffer[5000];
    for (int round = 0; round < 20; ++round) {
      if (KLT_IoRead(file, buffer, sizeof buffer) <= 0) break;
    }
    const int64_t length = KLT_IoSeek(file, 0, SEEK_END);
    for (const int64_t target : {length / 2, length - 1, length + 5, int64_t{-1}, INT64_MAX}) {
      KLT_IoSeek(file, target, SEEK_SET);
      (void)KLT_IoRead(file, buffer, 100);
    }
    KLT_IoClose(file);
  }
  KLT_ContainerClose(container);
}

bool fuzz::mutate(Random& random, std::string& input) {
  if (input.size() < 24 || below(random, 4) == 0) return false;
  // The directory is what counts: change a number in it, or one of its bytes.
  const uint64_t begin = load(input, input.size() - 8, 8);
  std::string part = input.substr(begin < input.size() - 9 ? 1 + begin : 1);
  input.resize(input.size() - part.size());
  mutateBytes(random, part);
  input += part;
  return true;
}
