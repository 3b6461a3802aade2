// Fuzzes an index, or a component with its anchors, by full passes of the reader.
//
//   input: 0x80 to 0xff | an index for the components of the base trace
//          flags | requests, 14 bytes each, as many as the flags say | length of the anchors, 2
//          bytes | anchors | component
//
// Bits of the flags: 0 deliver in time order, 1 decode field by field, 2 no anchor file, 3 and 4
// number of requests, 5 and 6 which component of the base trace is replaced.
#include <algorithm>
#include <vector>

#include "fuzz/fuzz_target.h"
#include "klt/index/klt_files.h"
#include "tests/builder/recorder.h"

namespace {

constexpr size_t kRequestBytes = 14;

// Reads one pass to its end. The handlers read every byte of their arguments.
void readAll(KLT_FileHandle* trace, int mode, const std::vector<KLT_Request>& requests,
             int serial) {
  reading::Recorder recorder;
  recorder.keeps = false;
  const auto reader = reading::openReader(trace, recorder.table, requests, serial, mode);
  if (reader != nullptr) (void)reading::finish(reader.get());
}

// Has definitions of every kind, and components with anchors: .f.0 any category and thread; .f.1
// calls, scopes, file I/O of threads 0 to 3; .f.2 counters, communication; .f.3 raw events.
tb::TraceFiles baseTrace() {
  static const tb::TraceFiles files = fuzz::componentsOf(tb::readFile(KLT_FUZZ_BASE));
  return files;
}

bool isIndex(std::string_view input) { return (fuzz::load(input, 0) & 0x80) != 0; }

// The offsets at which the parts of an input with a component begin.
struct Parts {
  size_t anchors, component;

  explicit Parts(std::string_view input) {
    const size_t head = 3 + kRequestBytes * (fuzz::load(input, 0) >> 3 & 3);
    anchors = std::min(head, input.size());
    component = std::min<size_t>(anchors + fuzz::load(input, head - 2, 2), input.size());
  }
};

// start, 4 bytes | length, 4 bytes, all ones: no end | categories, 2 bytes | first process, last
// process, stride + 128, thread number, 1 byte each
KLT_Request requestAt(std::string_view input, size_t at) {
  KLT_Request request;
  request.start = fuzz::load(input, at, 4);
  request.categories = static_cast<uint32_t>(fuzz::load(input, at + 8, 2));
  const uint64_t length = fuzz::load(input, at + 4, 4);
  if (length != 0xffffffff) request.end = request.start + length;
  const auto process = [&](size_t place) {
    return static_cast<int32_t>(fuzz::load(input, place) | fuzz::load(input, at + 13) << 16);
  };
  const int32_t stride = static_cast<int32_t>(fuzz::load(input, at + 12)) - 128;
  if (stride != 0) request.threads.push_back({process(at + 10), process(at + 11), stride});
  return request;
}

}  // namespace

void fuzz::run(std::string_view input) {
  tb::TraceFiles files = baseTrace();
  std::vector<KLT_Request> requests;
  const uint64_t flags = isIndex(input) ? 1 : load(input, 0);
  if (isIndex(input)) {
    files[" "] = rest(input);
    requests.push_back({.start = 1100, .categories = 1, .threads = {}});
  } else {
    const Parts parts(input);
    const std::string key = ".f." + std::to_string(flags >> 5 & 3);
    files[key] = input.substr(parts.component);
    files[key + ".anc"] = input.substr(parts.anchors, parts.component - parts.anchors);
    if ((flags & 4) != 0) files.remove(key + ".anc");
    for (size_t at = 1; at + 2 < parts.anchors; at += kRequestBytes) {
      requests.push_back(requestAt(input, at));
    }
  }
  setenv("KLT_GENERIC_ONLY", (flags & 2) != 0 ? "1" : "0", 1);
  const std::string name = files.writeContainer(directory());
  (void)KLT_IsTrace(name.c_str());
  const KLT_OwnedTrace trace(KLT_Open(name.c_str()));
  require(trace != nullptr || isIndex(input), "a valid index isn't accepted");
  if (trace == nullptr) return;
  std::vector<std::string> names;
  std::vector<uint64_t> sizes;
  KLT_FileList(trace.get(), &names, &sizes);
  (void)KLT_FilesAreKnown(trace.get());
  readAll(trace.get(), KLT_MODE_DEFINITIONS, {}, 1);
  readAll(trace.get(), KLT_MODE_EVENTS, requests, flags & 1);
  if (isIndex(input)) readAll(trace.get(), KLT_MODE_EVENTS, {}, 1);
}

bool fuzz::mutate(Random& random, std::string& input) {
  const size_t what = below(random, 16);
  const Parts parts(input);
  if (what == 0 || parts.anchors < 3) return false;
  if (isIndex(input) || what > 6) {
    mutateRecords(random, input, isIndex(input) ? 1 + kIndexHeaderBytes : parts.component);
  } else if (what < 4) {
    input[below(random, parts.anchors)] = static_cast<char>(anyNumber(random) & 0x7f);
  } else {
    const size_t length = parts.component - parts.anchors;
    std::string anchors = input.substr(parts.anchors, length), changed;
    mutateRecords(random, anchors, 0);
    tb::put(changed, anchors.size(), 2);
    input.replace(parts.anchors - 2, 2 + length, changed + anchors);
  }
  return true;
}
