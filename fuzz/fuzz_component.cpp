// One component with its anchors through a full filter pass with requests.
//
//   input: flags | requests, 14 bytes each, as many as the flags say | length of the anchors, 2
//          bytes | anchors | component
//
// Bits of the flags: 0 deliver in time order, 1 decode field by field, 2 no anchor file, 3 and 4
// number of requests, 5 and 6 which of the base trace's components it replaces.
#include <cstdlib>

#include "fuzz/fuzz_target.h"
#include "fuzz/fuzz_trace_bytes.h"
#include "tests/builder/touching.h"

namespace {

constexpr size_t kRequestBytes = 14;

struct Input {
  uint8_t flags = 0;
  std::string requests, anchors, component;

  explicit Input(std::string_view bytes) {
    if (bytes.empty()) return;
    flags = static_cast<uint8_t>(bytes[0]);
    const size_t length = kRequestBytes * (flags >> 3 & 3);
    requests = bytes.substr(1, length);
    requests.resize(length);
    bytes.remove_prefix(std::min(bytes.size(), 1 + length));
    if (bytes.size() < 2) return;
    const size_t split =
        static_cast<size_t>(static_cast<uint8_t>(bytes[0])) << 8 | static_cast<uint8_t>(bytes[1]);
    bytes.remove_prefix(2);
    anchors = bytes.substr(0, split);
    component = bytes.substr(std::min(split, bytes.size()));
  }

  [[nodiscard]] std::string bytes() const {
    const size_t split = std::min<size_t>(anchors.size(), 0xffff);
    std::string result(1, static_cast<char>(flags));
    result += requests;
    result += static_cast<char>(split >> 8);
    result += static_cast<char>(split);
    result += anchors.substr(0, split);
    return result + component;
  }
};

// start, 4 bytes | length, 4, all ones for no end | categories, 2 | first and last process, stride
// plus 128, thread of the processes, 1 each
KLT_Request requestOf(std::string_view bytes) {
  KLT_Request request;
  request.start = fuzz::load(bytes, 0, 4);
  const uint64_t length = fuzz::load(bytes, 4, 4);
  if (length != 0xffffffff) request.end = request.start + length;
  request.categories = static_cast<uint32_t>(fuzz::load(bytes, 8, 2));
  const auto first =
      static_cast<int32_t>(fuzz::load(bytes, 10, 1) | fuzz::load(bytes, 13, 1) << 16);
  const auto last = static_cast<int32_t>(fuzz::load(bytes, 11, 1) | fuzz::load(bytes, 13, 1) << 16);
  const int32_t stride = static_cast<int32_t>(fuzz::load(bytes, 12, 1)) - 128;
  if (stride != 0) request.threads.push_back({first, last, stride});
  return request;
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const Input input(fuzz::view(data, size));
  std::string key = ".f.0";
  key.back() = static_cast<char>('0' + (input.flags >> 5 & 3));
  tb::TraceFiles files = fuzz::baseTrace();
  files[key] = input.component;
  if ((input.flags & 4) != 0)
    files.remove(key + ".anc");
  else
    files[key + ".anc"] = input.anchors;
  std::vector<KLT_Request> requests;
  for (size_t at = 0; at < input.requests.size(); at += kRequestBytes) {
    requests.push_back(requestOf(std::string_view(input.requests).substr(at, kRequestBytes)));
  }
  setenv("KLT_GENERIC_ONLY", (input.flags & 2) != 0 ? "1" : "0", 1);
  const KLT_OwnedTrace trace(KLT_Open(files.writeContainer(fuzz::directory()).c_str()));
  fuzz::require(trace != nullptr, "a sound index isn't accepted");
  tb::touchAll(trace.get(), KLT_MODE_DEFINITIONS, {}, 1);
  tb::touchAll(trace.get(), KLT_MODE_EVENTS, requests, input.flags & 1);
  return 0;
}

size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t limit, unsigned seed) {
  fuzz::Random random(seed);
  Input input(fuzz::view(data, size));
  for (size_t times = 1 + fuzz::below(random, 3); times > 0; --times) {
    switch (fuzz::below(random, 16)) {
      case 0: {
        input.flags = static_cast<uint8_t>(input.flags ^ (1 << fuzz::below(random, 8)));
        input.requests.resize(kRequestBytes * (input.flags >> 3 & 3));
        break;
      }
      case 1:
      case 2:
        if (!input.requests.empty()) {
          const size_t at = fuzz::below(random, input.requests.size());
          input.requests[at] = static_cast<char>(fuzz::anyNumber(random));
        }
        break;
      case 3:
      case 4:
      case 5:
        if (!fuzz::mutateRecords(random, input.anchors, 0))
          fuzz::mutateBytes(random, input.anchors);
        break;
      case 6:
        fuzz::mutateBytes(random, input.component);
        break;
      case 7:
        return LLVMFuzzerMutate(data, size, limit);
      default:
        (void)fuzz::mutateRecords(random, input.component, 0);
        break;
    }
  }
  return fuzz::give(input.bytes(), data, limit);
}

size_t LLVMFuzzerCustomCrossOver(const uint8_t* data, size_t size, const uint8_t* donor,
                                 size_t donorSize, uint8_t* out, size_t limit, unsigned seed) {
  fuzz::Random random(seed);
  Input input(fuzz::view(data, size));
  const Input other(fuzz::view(donor, donorSize));
  if (fuzz::below(random, 4) == 0) {
    fuzz::crossRecords(random, input.anchors, 0, other.anchors, 0);
  } else {
    fuzz::crossRecords(random, input.component, 0, other.component, 0);
  }
  return fuzz::give(input.bytes(), out, limit);
}
