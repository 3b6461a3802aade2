// Builds traces for tests from calls that describe their records.
//
//   tb::Trace trace;
//   trace.clock(1e-6, 10).processes({1, 1}).function(7, "main");
//   trace.stream("f.0", tb::FUNCTIONS, {0}).at(100).enter(0, 7).at(250).leave(0);
//   tb::TempDir directory;
//   std::string name = trace.files().writePlain(directory);
//
// Its encoder shares no code with the program, so that a mistake in either is found. Records are
// encoded when they are added, so the layout must be changed before that. Wrong use of the builder
// ends the process with a message.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "tests/builder/layout.h"
#include "tests/builder/trace_files.h"

namespace tb {

enum Category : uint32_t {
  ANY = 0x0001,
  DECLARATIONS = 0x0002,
  FUNCTIONS = 0x0004,
  SCOPES = 0x0008,
  FILEIO = 0x0020,
  COUNTERS = 0x0040,
  MESSAGES = 0x0080,
  COLLOPS = 0x0100,
  ERRORS = 0x2000,
  STATISTICS = 0x4000,
  RAW_EVENTS = 0x8000,
};

// The number of a thread.
[[nodiscard]] constexpr uint32_t gtp(uint32_t process, uint32_t thread = 0) {
  return thread << 16 | process;
}

// The receive times of messages with one known side, and the start time of a process that took no
// part in a collective operation.
inline constexpr int64_t kNoReceive = INT64_MIN;
inline constexpr int64_t kNoSend = INT64_MIN + 1;
inline constexpr uint64_t kNotStarted = ~uint64_t{0};

struct Triplet {
  int32_t first = 0, last = 0, stride = 1;
  bool operator==(const Triplet&) const = default;
};

// The value of a field: a number, a text, or an array of numbers.
class Value {
 public:
  template <class T>
  Value(const T& value) {
    if constexpr (std::is_arithmetic_v<T> || std::is_enum_v<T>) {
      elements_.emplace_back(static_cast<int64_t>(value), static_cast<double>(value));
    } else if constexpr (std::is_convertible_v<const T&, std::string_view>) {
      for (const char c : std::string_view(value)) elements_.emplace_back(c & 0xff, 0);
    } else {
      for (const auto number : value) elements_.emplace_back(number, number);
    }
  }

  [[nodiscard]] size_t size() const { return elements_.size(); }
  // The bits of element `index` as they are stored in a field of this type.
  [[nodiscard]] uint64_t bits(size_t index, Type type) const;
  // Whether a field of this type can store the value.
  [[nodiscard]] bool fits(Type type) const;
  [[nodiscard]] bool isZero() const;

 private:
  std::vector<std::pair<int64_t, double>> elements_;
};

// Field values by name; other fields are 0, other arrays empty. "#1" sets the first count of a
// record, independently of its arrays.
using Values = std::vector<std::pair<std::string_view, Value>>;

// A sequence of encoded records, with its running time.
class RecordBytes {
 public:
  explicit RecordBytes(const Layout& layout) : layout_(&layout) {}

  // Sets the time of the next records. The step is encoded in a record or in a time record.
  void at(uint64_t time) { time_ = time; }
  // Appends a record by the number of its row in the standard layout.
  void record(unsigned number, const Values& values = {});
  // Appends a record by its name: the first variant that can store the values that aren't 0.
  void record(std::string_view name, const Values& values) { record(rowFor(name, values), values); }
  [[nodiscard]] static unsigned rowFor(std::string_view name, const Values& values);
  void bytes(std::string_view raw) { bytes_ += raw; }

  [[nodiscard]] uint64_t time() const { return time_; }
  // The running time after the last record.
  [[nodiscard]] uint64_t running() const { return running_; }
  [[nodiscard]] const std::string& contents() const { return bytes_; }
  // The offset of the last record, and the running time before it.
  [[nodiscard]] std::pair<uint64_t, uint64_t> last() const { return last_; }

 private:
  const Layout* layout_;
  std::string bytes_;
  uint64_t time_ = 0, running_ = 0;
  std::pair<uint64_t, uint64_t> last_;
};

struct Message {
  uint32_t sender = 0, receiver = 0;
  int64_t receiveTime = 0;  // relative to the record's time
  uint32_t communicator = 0, size = 0, tag = 0, senderFunction = 0, receiverFunction = 0;
};

enum class Shape { All, AllToAll, AllToOne, OneToAll };

struct Collective {
  Shape shape = Shape::All;
  uint32_t communicator = 0, operation = 0;
  // By member. Starts are relative to the record's time. Arrays that the shape lacks are ignored.
  std::vector<uint64_t> start = {}, duration = {};
  std::vector<uint32_t> sent = {}, received = {};
};

struct RawMessage {
  uint32_t thread = 0, kind = 0, other = 0, tag = 0, size = 0, communicator = 0, function = 0;
};

struct RawCollective {
  uint32_t thread = 0, kind = 0, operation = 0, communicator = 0, counter = 0;
  int64_t end = 0;
};

// The state that is stored with an anchor.
enum class Stored {
  Nothing,   // only the position
  NoScopes,  // no open scopes, like some producers
  Everything,
};

// One component, with its anchors.
class Stream {
 public:
  Stream(const Layout& layout, std::string_view suffix, uint32_t fileId, uint32_t categories,
         uint32_t threadList);

  // Sets the raw time of the next records.
  Stream& at(uint64_t time) {
    data_.at(time);
    return *this;
  }
  // Appends any record. Anchors don't refer to it.
  Stream& record(unsigned number, const Values& values = {});
  Stream& record(std::string_view name, const Values& values) {
    return record(RecordBytes::rowFor(name, values), values);
  }
  Stream& bytes(std::string_view raw) {
    data_.bytes(raw);
    return *this;
  }

  // If `scl` isn't 0, the variant with a source location is appended.
  Stream& enter(uint32_t thread, uint32_t function, uint32_t scl = 0);
  Stream& leave(uint32_t thread, uint32_t scl = 0);
  Stream& enterScope(uint32_t thread, uint32_t scope, uint32_t sequence, uint32_t scl = 0);
  Stream& leaveScope(uint32_t thread, uint32_t scope, uint32_t sequence, uint32_t scl = 0);
  Stream& counters(uint32_t thread, const std::vector<std::pair<uint32_t, uint64_t>>& samples);
  Stream& comment(uint32_t thread, std::string_view text) {
    return record("comment", {{"willy_gtp", thread}, {"text", text}});
  }
  Stream& message(const Message& message);
  Stream& collective(const Collective& collective);
  Stream& rawMessage(const RawMessage& event);
  Stream& rawCollective(const RawCollective& event);

  // From now on, sets an anchor at the first change of time after every `bytes` bytes.
  Stream& anchorEvery(size_t bytes, Stored stored = Stored::Everything) {
    chunk_ = bytes;
    stored_ = stored;
    return *this;
  }
  // Sets an anchor at this point. anchorRecord() appends any record to the anchor file.
  Stream& anchor(Stored stored = Stored::Everything);
  Stream& anchorRecord(unsigned number, const Values& values) {
    anchorData_.record(number, values);
    return *this;
  }

  [[nodiscard]] size_t size() const { return data_.contents().size(); }
  [[nodiscard]] uint64_t time() const { return data_.time(); }
  [[nodiscard]] uint32_t fileId() const { return fileId_; }
  // Times of the anchors set so far.
  [[nodiscard]] const std::vector<uint64_t>& anchors() const { return anchors_; }

 private:
  friend class Trace;
  // A record to which later anchors may have to refer. Its key is the thread and counter, or the
  // thread, scope and sequence number; that of communication is empty.
  using Key = std::vector<uint32_t>;
  struct Remembered {
    Key key;
    uint64_t end;  // the time from which anchors don't refer to it
    std::pair<uint64_t, uint64_t> place;
  };

  // Remembers the last record.
  Stream& remember(const Key& key, uint64_t end = ~uint64_t{0}) {
    remembered_.push_back({key, end, data_.last()});
    return *this;
  }
  Stream& forget(const Key& key);

  std::string suffix_;
  uint32_t fileId_, categories_, threadList_;
  RecordBytes data_, anchorData_;
  size_t chunk_ = 0, lastAnchor_ = 0;
  Stored stored_ = Stored::Everything;
  std::vector<uint64_t> anchors_;
  std::map<uint32_t, std::pair<Key, Key>> calls_;  // functions and locations by thread
  std::vector<Remembered> remembered_;
};

// A whole trace. It can't be copied, because its streams refer to its layout.
class Trace {
 public:
  // Flags 3 make a raw trace with compressed components.
  explicit Trace(unsigned flags = 0) : flags_(flags), extraIndex_(layout_) {}
  Trace(const Trace&) = delete;
  Trace& operator=(const Trace&) = delete;

  // May only be changed before records are added.
  [[nodiscard]] Layout& layout() { return layout_; }

  // Definitions, in the order of the calls.
  Trace& clock(double resolution, uint32_t eventBits) {
    return define("clock_resolution", {{"resolution", resolution}, {"eventbits", eventBits}});
  }
  Trace& duration(uint64_t start, uint64_t end) {
    return define("duration", {{"start", start}, {"end", end}});
  }
  Trace& processes(const std::vector<uint32_t>& threadsOfEach) {
    return define("process_declaration", {{"thread_numbers_gtp", threadsOfEach}});
  }
  Trace& function(uint32_t id, std::string_view name, uint32_t functionClass = 0) {
    return define("function_definition",
                  {{"id", id}, {"name", text(name)}, {"class", functionClass}});
  }
  Trace& defineClass(uint32_t id, std::string_view name) {
    return define("class_definition", {{"id", id}, {"name", text(name)}, {"nameself", text(name)}});
  }
  Trace& communicator(uint32_t id, std::string_view name, const std::vector<Triplet>& members,
                      int32_t leftSize = -2);
  Trace& operation(uint32_t id, std::string_view name, uint32_t type = 0) {
    return define("collective_operation_definition", {{"id", id}, {"name", name}, {"type", type}});
  }
  Trace& scope(uint32_t id, std::string_view name, uint32_t scopeClass = 0) {
    return define("scope_definition", {{"id", id}, {"name", text(name)}, {"class", scopeClass}});
  }
  Trace& counter(uint32_t id, std::string_view name, uint32_t type = 0) {
    return define("counter_definition", {{"id", id}, {"name", text(name)}, {"type", type}});
  }
  Trace& willyName(uint32_t thread, std::string_view name) {
    return define("willy_name", {{"willy_gtp", thread}, {"name", text(name)}});
  }
  Trace& define(std::string_view record, const Values& values) {
    declarations_.record(record, values);
    return *this;
  }

  [[nodiscard]] Stream& declarations() { return declarations_; }
  // The id of a text, which is added to the index.
  uint32_t text(std::string_view text);

  // A new component. Without threads its records may be of any thread.
  Stream& stream(std::string_view suffix, uint32_t categories,
                 const std::vector<uint32_t>& threads = {});
  // A new component with this list of threads in the index.
  Stream& streamOf(std::string_view suffix, uint32_t categories,
                   const std::vector<Triplet>& threads);
  // Any records for the end of the index.
  [[nodiscard]] RecordBytes& extraIndex() { return extraIndex_; }
  // Declares a file and a component of it, with the first list of threads, besides the streams'.
  Trace& declareComponent(uint32_t id, std::string_view suffix, uint32_t categories,
                          uint32_t anchorFile = 0);

  [[nodiscard]] TraceFiles files() const;

 private:
  [[nodiscard]] std::string index() const;

  unsigned flags_;
  Layout layout_;
  std::vector<std::string> texts_;
  std::vector<std::vector<Triplet>> lists_;
  RecordBytes extraIndex_;
  Stream declarations_{layout_, "dcl", 0x10001, DECLARATIONS, 0};
  std::deque<Stream> streams_;
};

}  // namespace tb
