// The container: its directory as bytes, and a sequence of operations on a new one compared with
// what they would do to strings.
//
//   input: 0 | bytes of a container file
//          any other | operations of 3 bytes: what, component, number
#include <fcntl.h>

#include <map>

#include "fuzz/fuzz_target.h"
#include "fuzz/fuzz_trace_bytes.h"
#include "klt/klt_io.h"

namespace {

const char* const kComponents[] = {"t.klt", "t.klt.a", "t.klt.b", "t.klt.c"};

void readEverything(KLT_Container* container, const std::string& base) {
  constexpr size_t kMostComponents = 64;
  std::vector<std::string> keys = KLT_ContainerKeys(container);
  if (keys.size() > kMostComponents) keys.resize(kMostComponents);
  std::vector<char> buffer(5000);
  for (const std::string& key : keys) {
    KLT_IoFile* file = KLT_IoOpen(container, key == " " ? base.c_str() : (base + key).c_str());
    if (file == nullptr) continue;
    const int64_t length = KLT_IoSeek(file, 0, SEEK_END);
    KLT_IoSeek(file, 0, SEEK_SET);
    for (int round = 0; round < 20; ++round) {
      if (KLT_IoRead(file, buffer.data(), buffer.size()) <= 0) break;
    }
    for (const int64_t target : {length / 2, length - 1, length + 5, int64_t{-1}, INT64_MAX}) {
      KLT_IoSeek(file, target, SEEK_SET);
      (void)KLT_IoRead(file, buffer.data(), 100);
    }
    KLT_IoClose(file);
  }
}

void readBytes(std::string_view bytes) {
  const std::string base = fuzz::directory() / "t.klt";
  tb::writeFile(base, bytes);
  KLT_Container* container = KLT_ContainerOpen(nullptr, base.c_str(), O_RDONLY, 0);
  if (container == nullptr) return;
  readEverything(container, base);
  KLT_ContainerClose(container);
}

// A component that is open, and what it should hold.
struct Open {
  KLT_IoFile* file = nullptr;
  size_t position = 0;
};

class Operations {
 public:
  explicit Operations(int form) : form_(form) {
    container_ = KLT_ContainerCreate(fuzz::directory().path().c_str(), O_RDWR | O_CREAT | O_TRUNC,
                                     0600, form, "t.klt");
    fuzz::require(container_ != nullptr, "it can't be created");
  }

  void run(std::string_view steps) {
    for (; steps.size() >= 3; steps.remove_prefix(3)) {
      step(static_cast<uint8_t>(steps[0]), static_cast<uint8_t>(steps[1]) % 4U,
           static_cast<uint8_t>(steps[2]));
    }
    for (Open& open : open_) close(open);
    fuzz::require(KLT_ContainerClose(container_) == 0, "it can't be completed");
    compare();
  }

 private:
  static void close(Open& open) {
    if (open.file == nullptr) return;
    fuzz::require(KLT_IoClose(open.file) == 0, "a component can't be closed");
    open = {};
  }

  void step(unsigned what, unsigned index, size_t number) {
    Open& open = open_[index];
    std::string& content = contents_[index];
    if (open.file == nullptr) {
      open.file = KLT_IoOpen(container_, kComponents[index]);
      fuzz::require(open.file != nullptr, "a component can't be opened");
      used_[index] = true;
      content.clear();  // O_TRUNC
    }
    switch (what % 4) {
      case 0:
        close(open);
        break;
      case 1:
      case 2:
        write(open, content, what < 128 ? number : number * 300);
        break;
      default:
        if (form_ != KLT_FORM_SERIAL && !content.empty()) {
          open.position = number * content.size() / 255;
          fuzz::require(KLT_IoSeek(open.file, static_cast<int64_t>(open.position), SEEK_SET) ==
                            static_cast<int64_t>(open.position),
                        "a seek ends elsewhere");
        }
        break;
    }
  }

  void write(Open& open, std::string& content, size_t bytes) {
    if (form_ == KLT_FORM_SERIAL) {
      open.position = content.size();
      KLT_IoSeek(open.file, 0, SEEK_END);
    }
    std::string text(bytes, '\0');
    for (char& c : text) c = static_cast<char>(++written_);
    fuzz::require(KLT_IoWrite(open.file, text.data(), bytes) == static_cast<int64_t>(bytes),
                  "a write is short");
    if (content.size() < open.position + bytes) content.resize(open.position + bytes);
    content.replace(open.position, bytes, text);
    open.position += bytes;
  }

  void compare() const {
    const std::string base = fuzz::directory() / "t.klt";
    KLT_Container* container = KLT_ContainerOpen(nullptr, base.c_str(), O_RDONLY, 0);
    fuzz::require(container != nullptr, "it can't be opened");
    for (size_t i = 0; i < 4; ++i) {
      if (!used_[i]) continue;
      const std::string name = fuzz::directory() / kComponents[i];
      KLT_IoFile* file = KLT_IoOpen(container, name.c_str());
      fuzz::require(file != nullptr, "a component is missing");
      std::string got(contents_[i].size() + 1, '\0');
      const int64_t came = KLT_IoRead(file, got.data(), got.size());
      got.resize(came < 0 ? 0 : static_cast<size_t>(came));
      fuzz::require(got == contents_[i], "a component has other bytes");
      KLT_IoClose(file);
    }
    KLT_ContainerClose(container);
  }

  int form_;
  KLT_Container* container_;
  Open open_[4];
  std::string contents_[4];
  bool used_[4] = {};
  size_t written_ = 0;
};

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const std::string_view bytes = fuzz::view(data, size).substr(1);
  if (data[0] == 0) {
    readBytes(bytes);
  } else {
    Operations((data[0] & 1) != 0 ? KLT_FORM_SINGLE : KLT_FORM_SERIAL).run(bytes.substr(0, 900));
  }
  return 0;
}

size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t limit, unsigned seed) {
  fuzz::Random random(seed);
  std::string input(fuzz::view(data, size));
  if (input.size() < 24 || input[0] != 0 || fuzz::below(random, 4) == 0)
    return LLVMFuzzerMutate(data, size, limit);
  // The directory is what counts: change a number in it, or one of its bytes.
  const size_t end = input.size() - 8;
  const uint64_t directory = fuzz::load(input, end, 8);
  const size_t begin = directory < end - 1 && fuzz::below(random, 8) != 0 ? 1 + directory : 1;
  std::string part = input.substr(begin);
  fuzz::mutateBytes(random, part);
  return fuzz::give(input.substr(0, begin) + part, data, limit);
}

size_t LLVMFuzzerCustomCrossOver(const uint8_t* data, size_t size, const uint8_t* donor,
                                 size_t donorSize, uint8_t* out, size_t limit, unsigned seed) {
  fuzz::Random random(seed);
  const size_t end = fuzz::below(random, size + 1);
  const size_t begin = fuzz::below(random, donorSize + 1);
  std::string input(fuzz::view(data, end));
  input += fuzz::view(donor + begin, donorSize - begin);
  return fuzz::give(input, out, limit);
}
