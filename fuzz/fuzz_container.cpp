// The container: its directory as bytes, and a sequence of operations on a new one compared with
// what they would do to strings.
//
//   input: 0 | bytes of a container file
//          any other | operations of 3 bytes: what, component, number
#include <fcntl.h>

#include "fuzz/fuzz_records.h"
#include "klt/storage/klt_io.h"

namespace {

constexpr size_t kMostOperations = 300;

std::string nameOf(std::string_view key) {
  return (fuzz::directory() / "t.klt").append(key == " " ? "" : key);
}

void readEverything(std::string_view bytes) {
  constexpr size_t kMostComponents = 64;
  tb::writeFile(nameOf(" "), bytes);
  KLT_Container* container = KLT_ContainerOpen(nullptr, nameOf(" ").c_str(), O_RDONLY, 0);
  if (container == nullptr) return;
  std::vector<std::string> keys = KLT_ContainerKeys(container);
  keys.resize(std::min(keys.size(), kMostComponents));
  for (const std::string& key : keys) {
    KLT_IoFile* file = KLT_IoOpen(container, nameOf(key).c_str());
    if (file == nullptr) continue;
    char buffer[5000];
    const int64_t length = KLT_IoSeek(file, 0, SEEK_END);
    KLT_IoSeek(file, 0, SEEK_SET);
    for (int round = 0; round < 20; ++round) {
      if (KLT_IoRead(file, buffer, sizeof buffer) <= 0) break;
    }
    for (const int64_t target : {length / 2, length - 1, length + 5, int64_t{-1}, INT64_MAX}) {
      KLT_IoSeek(file, target, SEEK_SET);
      (void)KLT_IoRead(file, buffer, 100);
    }
    KLT_IoClose(file);
  }
  KLT_ContainerClose(container);
}

// A component, and what it should hold.
struct Component {
  std::string name;
  KLT_IoFile* file = nullptr;
  size_t position = 0;
  std::string content = {};
  bool used = false;

  void close() {
    if (file != nullptr) fuzz::require(KLT_IoClose(file) == 0, "a component can't be closed");
  }
};

void operate(int form, std::string_view steps) {
  KLT_Container* container = KLT_ContainerCreate(fuzz::directory().path().c_str(),
                                                 O_RDWR | O_CREAT | O_TRUNC, 0600, form, "t.klt");
  fuzz::require(container != nullptr, "it can't be created");
  Component components[] = {{nameOf(" ")}, {nameOf(".a")}, {nameOf(".b")}, {nameOf(".c")}};
  char written = 0;
  for (size_t count = 0; steps.size() >= 3 && count < kMostOperations; ++count) {
    const unsigned what = fuzz::firstByte(steps);
    Component& c = components[fuzz::load(steps, 1, 1) % 4];
    const size_t number = fuzz::load(steps, 2, 1);
    steps.remove_prefix(3);
    if (c.file == nullptr) {  // opened with O_TRUNC
      c = {c.name, KLT_IoOpen(container, c.name.c_str()), 0, {}, true};
      fuzz::require(c.file != nullptr, "a component can't be opened");
    }
    if (what % 4 == 0) {
      c.close();
    } else if (what % 4 < 3) {
      std::string text(what < 128 ? number : number * 300, '\0');
      for (char& byte : text) byte = ++written;
      if (form == KLT_FORM_SERIAL) {
        c.position = c.content.size();
        KLT_IoSeek(c.file, 0, SEEK_END);
      }
      const auto size = static_cast<int64_t>(text.size());
      fuzz::require(KLT_IoWrite(c.file, text.data(), text.size()) == size, "a write is short");
      c.content.replace(c.position, text.size(), text);
      c.position += text.size();
    } else if (form != KLT_FORM_SERIAL && !c.content.empty()) {
      c.position = number * c.content.size() / 255;
      const auto target = static_cast<int64_t>(c.position);
      fuzz::require(KLT_IoSeek(c.file, target, SEEK_SET) == target, "a seek ends elsewhere");
    }
  }
  for (Component& c : components) c.close();
  fuzz::require(KLT_ContainerClose(container) == 0, "it can't be completed");
  tb::TraceFiles files = fuzz::takeApart(tb::readFile(nameOf(" ")));
  for (const Component& c : components) {
    const std::string key = c.name == nameOf(" ") ? " " : c.name.substr(nameOf(" ").size());
    fuzz::require(!c.used || (files.contains(key) && files[key] == c.content),
                  "a component has other bytes");
  }
}

}  // namespace

void fuzz::run(std::string_view input) {
  if (firstByte(input) == 0) {
    readEverything(rest(input));
  } else {
    operate((firstByte(input) & 1) != 0 ? KLT_FORM_SINGLE : KLT_FORM_SERIAL, rest(input));
  }
}

bool fuzz::mutate(Random& random, std::string& input) {
  if (input.size() < 24 || input[0] != 0 || below(random, 4) == 0) return false;
  // The directory is what counts: change a number in it, or one of its bytes.
  const uint64_t directory = load(input, input.size() - 8, 8);
  const size_t begin = directory < input.size() - 9 && below(random, 8) != 0 ? 1 + directory : 1;
  std::string part = input.substr(begin);
  mutateBytes(random, part);
  input.replace(begin, std::string::npos, part);
  return true;
}
