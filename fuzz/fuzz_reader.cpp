// An index, or a component with its anchors, through full filter passes.
//
//   input: 0x80 to 0xff | an index, over components in the standard layout
//          flags | requests, 14 bytes each, as many as the flags say | length of the anchors, 2
//          bytes | anchors | component
//
// Bits of the flags: 0 deliver in time order, 1 decode field by field, 2 no anchor file, 3 and 4
// number of requests, 5 and 6 which of the base trace's components it replaces.
#include <cstdlib>
#include <vector>

#include "fuzz/fuzz_records.h"
#include "klt/index/klt_files.h"
#include "tests/builder/touching.h"

namespace {

constexpr size_t kRequestBytes = 14;

bool isIndex(std::string_view input) { return (fuzz::firstByte(input) & 0x80) != 0; }

// Where the parts of an input with a component begin.
struct Parts {
  size_t anchors, component;

  explicit Parts(std::string_view input) {
    const size_t length = 1 + kRequestBytes * (fuzz::firstByte(input) >> 3 & 3);
    anchors = std::min(input.size(), length + 2);
    component = std::min<size_t>(input.size(), anchors + fuzz::load(input, length, 2));
  }
};

// start, 4 bytes | length, 4, all ones for no end | categories, 2 | first and last process, stride
// plus 128, thread of the processes, 1 each
KLT_Request requestAt(std::string_view input, size_t at) {
  KLT_Request request;
  request.start = fuzz::load(input, at, 4);
  const uint64_t length = fuzz::load(input, at + 4, 4);
  if (length != 0xffffffff) request.end = request.start + length;
  request.categories = static_cast<uint32_t>(fuzz::load(input, at + 8, 2));
  const uint64_t thread = fuzz::load(input, at + 13, 1) << 16;
  const auto first = static_cast<int32_t>(fuzz::load(input, at + 10, 1) | thread);
  const auto last = static_cast<int32_t>(fuzz::load(input, at + 11, 1) | thread);
  const int32_t stride = static_cast<int32_t>(fuzz::load(input, at + 12, 1)) - 128;
  if (stride != 0) request.threads.push_back({first, last, stride});
  return request;
}

void runIndex(std::string_view index) {
  tb::TraceFiles files = fuzz::baseTrace();
  files[" "] = index;
  const std::string name = files.writeContainer(fuzz::directory());
  (void)KLT_IsTrace(name.c_str());
  const KLT_OwnedTrace trace(KLT_Open(name.c_str()));
  if (trace == nullptr) return;
  std::vector<std::string> names;
  std::vector<uint64_t> sizes;
  KLT_FileList(trace.get(), &names, &sizes);
  (void)KLT_FilesAreKnown(trace.get());
  KLT_Request late;
  late.start = 1100;
  late.categories = 1;
  tb::touchAll(trace.get(), KLT_MODE_DEFINITIONS, {}, 1);
  tb::touchAll(trace.get(), KLT_MODE_EVENTS, {}, 1);
  tb::touchAll(trace.get(), KLT_MODE_EVENTS, {late}, 1);
}

void runComponent(std::string_view input) {
  const uint8_t flags = fuzz::firstByte(input);
  const Parts parts(input);
  const std::string key = ".f." + std::to_string(flags >> 5 & 3);
  tb::TraceFiles files = fuzz::baseTrace();
  files[key] = input.substr(parts.component);
  files[key + ".anc"] = input.substr(parts.anchors, parts.component - parts.anchors);
  if ((flags & 4) != 0) files.remove(key + ".anc");
  std::vector<KLT_Request> requests;
  for (size_t at = 1; at + 2 < parts.anchors; at += kRequestBytes) {
    requests.push_back(requestAt(input, at));
  }
  setenv("KLT_GENERIC_ONLY", (flags & 2) != 0 ? "1" : "0", 1);
  const KLT_OwnedTrace trace(KLT_Open(files.writeContainer(fuzz::directory()).c_str()));
  fuzz::require(trace != nullptr, "a sound index isn't accepted");
  tb::touchAll(trace.get(), KLT_MODE_DEFINITIONS, {}, 1);
  tb::touchAll(trace.get(), KLT_MODE_EVENTS, requests, flags & 1);
}

}  // namespace

void fuzz::run(std::string_view input) {
  if (isIndex(input)) {
    runIndex(rest(input));
  } else {
    runComponent(input);
  }
}

bool fuzz::mutate(Random& random, std::string& input) {
  const size_t what = below(random, 16);
  if (input.empty() || what == 0) return false;
  if (isIndex(input)) {
    mutateRecords(random, input, 1 + kIndexHeaderBytes);
    return true;
  }
  const Parts parts(input);
  std::string head = input.substr(0, parts.anchors);
  std::string anchors = input.substr(parts.anchors, parts.component - parts.anchors);
  std::string component = input.substr(parts.component);
  if (what == 1) {
    mutateBytes(random, component);
  } else if (what < 4) {
    head[below(random, head.size())] = static_cast<char>(anyNumber(random) & 0x7f);
  } else if (what < 7) {
    mutateRecords(random, anchors, 0);
    anchors.resize(std::min<size_t>(anchors.size(), 0xffff));
  } else {
    mutateRecords(random, component, 0);
  }
  if (what > 3 && head.size() > 2) {
    head.replace(head.size() - 2, 2,
                 {static_cast<char>(anchors.size() >> 8), static_cast<char>(anchors.size())});
  }
  input = head + anchors + component;
  return true;
}
