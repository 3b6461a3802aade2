// Containers and traces for fuzz targets. See fuzz_trace_bytes.h.
#include "fuzz/fuzz_trace_bytes.h"

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <utility>
#include <vector>

#include "tests/builder/trace_builder.h"

namespace fuzz {
namespace {

// Big-endian numbers from the front of `bytes`; everything is 0 behind the end.
class Numbers {
 public:
  explicit Numbers(std::string_view bytes) : bytes_(bytes) {}

  uint64_t next(size_t width) {
    const std::string_view bytes = text(width);
    return bytes.size() < width ? 0 : load(bytes, 0, width);
  }
  std::string_view text(size_t length) {
    failed_ |= length > bytes_.size();
    const std::string_view piece = bytes_.substr(0, length);
    bytes_.remove_prefix(piece.size());
    return piece;
  }
  [[nodiscard]] bool failed() const { return failed_; }
  [[nodiscard]] bool empty() const { return bytes_.empty(); }

 private:
  std::string_view bytes_;
  bool failed_ = false;
};

size_t firstRecord(std::string_view key) { return key == " " ? kIndexHeaderBytes : 0; }

std::string* anyComponent(Random& random, tb::TraceFiles& files) {
  if (files.parts().empty()) return nullptr;
  return &files[files.parts()[below(random, files.parts().size())].first];
}

// An event of each kind, in pairs where they come in pairs.
void addEvents(tb::Stream& stream, bool raw) {
  for (uint32_t round = 0; round < 3; ++round) {
    const uint64_t time = 100 + 1000 * round;
    stream.at(time).enter(round, 1).enterScope(round, 1, round).ioBegin(round, 1, 1, 8);
    stream.at(time + 10).counters(round, {{1, time}, {2, round}}).comment(round, "text");
    tb::Message message;
    message.sender = round;
    message.receiver = 1;
    message.receiveTime = 40;
    message.communicator = 1;
    stream.at(time + 20).message(message);
    tb::Collective collective;
    collective.shape = tb::Shape::AllToAll;
    collective.communicator = 1;
    collective.operation = 1;
    collective.start = {0, 5, 0, 7};
    collective.duration = {20, 20, 25, 30};
    collective.sent = collective.received = {1, 2, 3, 4};
    stream.collective(collective);
    if (raw) {
      tb::RawMessage side;
      side.thread = 0;
      side.other = 1;
      side.communicator = 1;
      side.kind = round & 1;
      stream.at(time + 30).rawMessage(side);
      tb::RawCollective part;
      part.thread = round;
      part.operation = part.communicator = 1;
      stream.rawCollective(part);
    }
    stream.at(time + 60).ioEnd(round, 1, 1, 8).leaveScope(round, 1, round).leave(round);
  }
}

tb::TraceFiles buildBase() {
  tb::Trace trace;
  trace.clock(1e-6, 4).duration(0, 10000).processes({2, 2, 1, 1});
  trace.defineClass(1, "Application").function(1, "main", 1).function(2, "solve", 1);
  trace.communicator(1, "world", {{0, 3, 1}}).operation(1, "reduce", 4).counter(1, "ticks");
  trace.counter(2, "bytes").scope(1, "loop", 1).group(1, "all", {0, 1}).sourceFile(1, "main.c");
  trace.ioFile(1, "data", 1).scl(1, {{1, 10}}).willyName(0, "first");
  tb::Stream& any = trace.stream("f.0", tb::ANY);
  any.anchorEvery(100);
  addEvents(any, true);
  tb::Stream& calls = trace.stream("f.1", tb::FUNCTIONS | tb::SCOPES | tb::FILEIO, {0, 1, 2, 3});
  calls.anchorEvery(40);
  addEvents(calls, false);
  tb::Stream& communication =
      trace.stream("f.2", tb::COUNTERS | tb::MESSAGES | tb::COLLOPS, {0, 1, 2, 3});
  communication.anchorEvery(60);
  addEvents(communication, false);
  tb::Stream& raw = trace.stream("f.3", tb::RAW_EVENTS | tb::FUNCTIONS, {0, 1});
  raw.anchorEvery(60);
  addEvents(raw, true);
  return trace.files();
}

}  // namespace

std::optional<tb::TraceFiles> takeApart(std::string_view container) {
  if (container.size() < 20 || !container.starts_with("SKLT")) return std::nullopt;
  Numbers header(container.substr(4));
  const size_t width = header.next(8) == 0 ? 2 : 4;
  const uint64_t directory = Numbers(container.substr(container.size() - 8)).next(8);
  if (directory > container.size() - 8) return std::nullopt;
  Numbers entries(container.substr(directory, container.size() - 8 - directory));
  tb::TraceFiles files;
  while (!entries.empty()) {
    const std::string key(entries.text(entries.next(width)));
    const uint64_t lastUsed = entries.next(8);
    const uint64_t count = entries.next(width);
    if (entries.failed() || key.empty() || files.contains(key) || count > container.size() / 16)
      return std::nullopt;
    std::vector<uint64_t> offsets(count);
    for (uint64_t& offset : offsets) offset = entries.next(8);
    std::string bytes;
    for (uint64_t i = 0; i < count; ++i) {
      const uint64_t length = entries.next(8);
      if (offsets[i] > container.size()) return std::nullopt;
      bytes += container.substr(offsets[i], i + 1 == count ? lastUsed : length);
      if (bytes.size() > container.size()) return std::nullopt;
    }
    if (entries.failed()) return std::nullopt;
    files.add(key, std::move(bytes));
  }
  return files;
}

void mutateTrace(Random& random, tb::TraceFiles& files) {
  std::string* bytes = anyComponent(random, files);
  if (bytes == nullptr) return;
  const std::string key =
      std::find_if(files.parts().begin(), files.parts().end(), [&](const auto& part) {
        return &part.second == bytes;
      })->first;
  switch (below(random, 16)) {
    case 0:
      files.remove(key);
      break;
    case 1:
      mutateBytes(random, *bytes);
      break;
    case 2:
      if (!files.contains(key + ".anc")) files.add(key + ".anc", *bytes);
      break;
    default:
      if (!mutateRecords(random, *bytes, firstRecord(key))) mutateBytes(random, *bytes);
      break;
  }
}

void crossTraces(Random& random, tb::TraceFiles& files, const tb::TraceFiles& donor) {
  const auto& parts = donor.parts();
  if (parts.empty()) return;
  const auto& [key, bytes] = parts[below(random, parts.size())];
  if (files.contains(key)) {
    crossRecords(random, files[key], firstRecord(key), bytes, firstRecord(key));
  } else {
    files.add(key, bytes);
  }
}

const tb::TraceFiles& baseTrace() {
  static const tb::TraceFiles files = buildBase();
  return files;
}

void clearDirectory() {
  for (const auto& file : std::filesystem::directory_iterator(directory().path())) {
    std::filesystem::remove_all(file);
  }
}

const tb::TempDir& directory() {
  static const tb::TempDir directory;
  return directory;
}

}  // namespace fuzz
