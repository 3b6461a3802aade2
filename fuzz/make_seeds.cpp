// Makes first inputs for the fuzz targets from sample traces.
//
//   make_seeds DATA OUTPUT    DATA: a folder with a trace t.klt in each of its folders
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/fuzz_trace_bytes.h"

namespace {

constexpr size_t kLargest = 16000;

// What a folder contains, in the same order everywhere.
std::vector<std::filesystem::path> entriesOf(const std::filesystem::path& folder) {
  std::vector<std::filesystem::path> entries;
  for (const auto& entry : std::filesystem::directory_iterator(folder))
    entries.push_back(entry.path());
  std::sort(entries.begin(), entries.end());
  return entries;
}

class Seeds {
 public:
  explicit Seeds(std::string output) : output_(std::move(output)) {}

  void add(const std::string& target, std::string_view bytes) {
    if (bytes.size() > kLargest) return;
    const std::filesystem::path folder = std::filesystem::path(output_) / target;
    std::filesystem::create_directories(folder);
    tb::writeFile(folder / ("seed" + std::to_string(++number_)), bytes);
  }

 private:
  std::string output_;
  int number_ = 0;
};

tb::TraceFiles load(const std::filesystem::path& folder) {
  const std::string base = (folder / "t.klt").string();
  tb::TraceFiles files;
  if (tb::readFile(base).starts_with("SKLT")) {
    return fuzz::takeApart(tb::readFile(base)).value_or(files);
  }
  files.add(" ", tb::readFile(base));
  for (const auto& file : entriesOf(folder)) {
    const std::string name = file.string();
    if (name.starts_with(base) && name != base)
      files.add(name.substr(base.size()), tb::readFile(name));
  }
  return files;
}

// Shorter components, so that the whole is small: the first records of each.
void shorten(tb::TraceFiles& files) {
  constexpr size_t kRecords = 24;
  for (const auto& part : files.parts()) {
    if (part.first == " " || part.first.find(".dcl") != std::string::npos) continue;
    const std::vector<size_t> ends = fuzz::recordEnds(part.second, 0);
    if (ends.size() > kRecords) files[part.first].resize(ends[kRecords]);
  }
}

void addComponents(Seeds& seeds, const tb::TraceFiles& files) {
  // A request from time 32 on, of all categories, of processes 0 to 3 by twos.
  static constexpr char kRequest[] = "\0\0\0\x20\xff\xff\xff\xff\x00\x01\x00\x03\x82\x00";
  for (const auto& [key, bytes] : files.parts()) {
    if (key == " " || key.ends_with(".anc")) continue;
    const std::string anchors = files.contains(key + ".anc")
                                    ? tb::TraceFiles(files)[key + ".anc"].substr(0, 2000)
                                    : std::string();
    for (const char flags : {'\x01', '\x09', '\x2b'}) {
      std::string input(1, flags);
      if ((flags & 8) != 0) input.append(kRequest, 14);
      input += static_cast<char>(anchors.size() >> 8);
      input += static_cast<char>(anchors.size());
      seeds.add("component", input + anchors + bytes);
    }
  }
}

void addTrace(Seeds& seeds, const std::filesystem::path& folder) {
  tb::TraceFiles files = load(folder);
  if (!files.contains(" ")) return;
  seeds.add("index", files[" "]);
  addComponents(seeds, files);
  for (const tb::ContainerForm& form :
       {tb::ContainerForm{}, tb::ContainerForm{0, 0, false}, tb::ContainerForm{1, 512, true}}) {
    if (folder.filename() == "ring") seeds.add("container", '\0' + files.container(form));
  }
  shorten(files);
  static const char kOptions[] = {0, 5, 0x17, 0x2b, 0x36};
  static size_t next = 0;
  seeds.add("trace", kOptions[next++ % std::size(kOptions)] + files.container());
}

void addOptions(Seeds& seeds) {
  using namespace std::string_literals;
  for (const std::string& text :
       {"\0REQUEST 1s:2s 0:3:1 FUNCTIONS SCOPES\nTICKS on\nVERBOSE 2\nLOGFILE-NAME 'a b'\n"s,
        "\1LOGFILE-FORMAT KLT\nREQUEST \"name\" N\nCLASS-HASHSIZE 11\n"s,
        "\2--request\0000:1,\0001s:2s\0FUNCTIONS\0--ticks\0--dump"s, "\0031h+30m+2s"s, "\0030.5us"s,
        "\0041:N:3"s, "\5\2\0\7\1\3\5\1\1\0\12\2"s}) {
    seeds.add("options", text);
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fputs("usage: make_seeds DATA OUTPUT\n", stderr);
    return 2;
  }
  Seeds seeds(argv[2]);
  for (const auto& folder : entriesOf(argv[1])) {
    if (std::filesystem::exists(folder / "t.klt")) addTrace(seeds, folder);
  }
  tb::TraceFiles base = fuzz::baseTrace();
  seeds.add("index", base[" "]);
  addComponents(seeds, base);
  seeds.add("trace", '\0' + base.container());
  seeds.add("container", "\1\1\1\377\201\2\100\3\1\20\2\1\377\0\1\0\1\3\5");
  seeds.add("container", "\2\1\1\377\201\2\100\1\3\20\2\1\377\0\1\0\1\3\5");
  addOptions(seeds);
  return 0;
}
