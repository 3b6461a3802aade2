// Builds traces for tests from statements about records.
//
//   tb::Trace trace;
//   trace.clock(1e-6, 10).processes({1, 1}).function(7, "main");
//   trace.stream("f.0", tb::FUNCTIONS, {0}).at(100).enter(0, 7).at(250).leave(0);
//   tb::TempDir directory;
//   std::string name = trace.files().writePlain(directory);
//
// Its encoder is its own and shares nothing with the program: what both agree on was written twice.
// Records are encoded when they are stated, so a changed layout has to be in place before. A fault
// in the use of the builder ends the process with a message.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <map>
#include <memory>
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
inline constexpr int64_t NO_RECEIVE = INT64_MIN;
inline constexpr int64_t NO_SEND = INT64_MIN + 1;
inline constexpr uint64_t NOT_STARTED = ~uint64_t{0};

struct Triplet {
  int32_t first = 0, last = 0, stride = 1;
  bool operator==(const Triplet&) const = default;
};

// The value of a field: a number, a text, or an array of numbers.
class Value {
 public:
  template <class T>
  requires std::is_arithmetic_v<T> || std::is_enum_v<T> Value(T number) { add(number); }
  template <class T>
  requires std::is_arithmetic_v<T> Value(const std::vector<T>& numbers) {
    for (const T number : numbers) add(number);
  }
  template <class T>
  requires std::is_convertible_v<const T&, std::string_view> Value(const T& text) {
    for (const char character : std::string_view(text)) add(static_cast<unsigned char>(character));
  }

  [[nodiscard]] size_t size() const { return elements_.size(); }
  [[nodiscard]] bool isZero() const;
  // The bits of element `index` as a file holds them in a field of this type.
  [[nodiscard]] uint64_t bits(size_t index, Type type) const;

 private:
  struct Element {
    int64_t integer;
    double real;
  };
  template <class T>
  void add(T number) {
    const auto integer = static_cast<int64_t>(number);
    elements_.push_back({integer, std::is_floating_point_v<T> ? static_cast<double>(number)
                                                              : static_cast<double>(integer)});
  }

  std::vector<Element> elements_;
};

// Field values by name; fields that aren't named are 0, arrays empty. "#1" states the first count
// of a record, whatever the arrays hold.
using Values = std::vector<std::pair<std::string_view, Value>>;

// Records one after another, with the running time that their deltas refer to.
class RecordBytes {
 public:
  explicit RecordBytes(const Layout& layout) : layout_(&layout) {}

  // Records that follow happen at this time; the step becomes a delta or a time record.
  void at(uint64_t time) { time_ = time; }
  // A record by the number of its row in the standard layout.
  void record(unsigned number, const Values& values = {});
  // A record by its name: the first variant that can hold the values that aren't 0.
  void record(std::string_view name, const Values& values) { record(rowFor(name, values), values); }
  [[nodiscard]] static unsigned rowFor(std::string_view name, const Values& values);
  void bytes(std::string_view raw) { bytes_ += raw; }
  // Writes the time record that a record at the current time needs, if it needs one.
  void catchUp(const Row& row);

  [[nodiscard]] uint64_t time() const { return time_; }
  // The running time of the bytes written, the one that the next delta refers to.
  [[nodiscard]] uint64_t running() const { return running_; }
  void setRunning(uint64_t time) { running_ = time; }
  [[nodiscard]] const std::string& contents() const { return bytes_; }
  [[nodiscard]] const Layout& layout() const { return *layout_; }

 private:
  const Layout* layout_;
  std::string bytes_;
  uint64_t time_ = 0;
  uint64_t running_ = 0;
};

struct Message {
  uint32_t sender = 0, receiver = 0;
  int64_t receiveTime = 0;  // from the record's time
  uint32_t communicator = 0, size = 0, tag = 0;
  uint32_t senderScl = 0, receiverScl = 0;
  uint32_t senderChecksum = 0, receiverChecksum = 0;
  uint32_t senderFunction = 0, receiverFunction = 0;
};

enum class Shape { All, AllToAll, AllToOne, OneToAll };

struct Collective {
  Shape shape = Shape::All;
  uint32_t communicator = 0, operation = 0;
  uint32_t root = 0, rootBytes = 0;  // of the one side of AllToOne and OneToAll
  std::vector<uint64_t> start = {},
                        duration = {};  // one for each member; start from the record's time
  std::vector<uint32_t> sent = {}, received = {}, scl = {};  // the arrays that the shape has
};

struct RawMessage {
  uint32_t thread = 0, kind = 0, other = 0, tag = 0, size = 0, communicator = 0, function = 0,
           scl = 0;
};

struct RawCollective {
  uint32_t thread = 0, kind = 0, operation = 0, communicator = 0, counter = 0, root = 0, sent = 0,
           received = 0;
  int64_t end = 0;
  uint32_t scl = 0;
};

// What an anchor says about the state at its point.
enum class Told {
  Nothing,   // the position alone
  NoScopes,  // as producers do that tell no scopes
  Everything,
};

class Trace;

// One component, with its anchors.
class Stream {
 public:
  Stream(Trace& trace, std::string suffix, uint32_t categories, uint32_t threadList);

  // Times are raw: ticks shifted by the trace's event bits.
  Stream& at(uint64_t time) {
    data_.at(time);
    return *this;
  }
  // Any record; anchors don't know of it.
  Stream& record(unsigned number, const Values& values = {});
  Stream& record(std::string_view name, const Values& values) {
    return record(RecordBytes::rowFor(name, values), values);
  }
  Stream& bytes(std::string_view raw) {
    data_.bytes(raw);
    return *this;
  }

  // The variants with a source location are chosen where one is given.
  Stream& enter(uint32_t thread, uint32_t function, uint32_t scl = 0) {
    record("enter_function", {{"willy_gtp", thread}, {"function", function}, {"scl", scl}});
    calls_[thread].functions.push_back(function);
    calls_[thread].scls.push_back(scl);
    return *this;
  }
  Stream& leave(uint32_t thread, uint32_t scl = 0);
  Stream& enterScope(uint32_t thread, uint32_t scope, uint32_t sequence, uint32_t scl = 0) {
    changeScope("enter_scope", thread, scope, sequence, scl);
    return remember({Kind::Scope, thread, scope, sequence});
  }
  Stream& leaveScope(uint32_t thread, uint32_t scope, uint32_t sequence, uint32_t scl = 0) {
    changeScope("leave_scope", thread, scope, sequence, scl);
    return forget({Kind::Scope, thread, scope, sequence});
  }
  Stream& ioBegin(uint32_t thread, uint32_t type, uint32_t file, uint32_t size, uint32_t scl = 0) {
    return io("file_io_begin", thread, type, file, size, scl);
  }
  Stream& ioEnd(uint32_t thread, uint32_t type, uint32_t file, uint32_t size, uint32_t scl = 0) {
    return io("file_io_end", thread, type, file, size, scl);
  }
  Stream& counters(uint32_t thread, std::initializer_list<std::pair<uint32_t, uint64_t>> samples);
  Stream& comment(uint32_t thread, std::string_view text) {
    return record("comment", {{"willy_gtp", thread}, {"text", text}});
  }
  Stream& opaque(uint32_t thread, std::string_view data, uint32_t scl = 0) {
    return record("opaque_data", {{"willy_gtp", thread}, {"data", data}, {"scl", scl}});
  }
  Stream& message(const Message& message);
  Stream& collective(const Collective& collective);
  Stream& rawMessage(const RawMessage& event);
  Stream& rawCollective(const RawCollective& event);

  // An anchor at the first change of time after every `bytes` bytes, from here on.
  Stream& anchorEvery(size_t bytes, Told told = Told::Everything) {
    chunk_ = bytes;
    told_ = told;
    return *this;
  }
  // An anchor at this point, or any records for the anchor file.
  Stream& anchor(Told told = Told::Everything);
  Stream& anchorRecord(unsigned number, const Values& values) {
    anchorData_.record(number, values);
    return *this;
  }
  // Changes what the index says of the component.
  Stream& fileType(uint32_t type) {
    fileType_ = type;
    return *this;
  }

  [[nodiscard]] size_t size() const { return data_.contents().size(); }
  [[nodiscard]] uint64_t time() const { return data_.time(); }
  [[nodiscard]] const std::string& suffix() const { return suffix_; }
  [[nodiscard]] uint32_t fileId() const { return fileId_; }
  // Times and offsets of the anchors set so far.
  [[nodiscard]] const std::vector<std::pair<uint64_t, uint64_t>>& anchors() const {
    return anchors_;
  }

 private:
  friend class Trace;
  // Records that later anchors may have to point to.
  enum class Kind { Communication, Counter, Scope };
  struct Key {
    Kind kind;
    uint32_t thread = 0, id = 0, sequence = 0;
    bool operator==(const Key&) const = default;
  };
  struct Remembered {
    Key key;
    uint64_t end;  // from then on it doesn't matter any more
    uint64_t offset, prevtime;
  };
  struct Calls {
    std::vector<uint32_t> functions, scls;
  };

  Stream& changeScope(std::string_view name, uint32_t thread, uint32_t scope, uint32_t sequence,
                      uint32_t scl) {
    return record(name,
                  {{"willy_gtp", thread}, {"scope", scope}, {"seqnr", sequence}, {"scl", scl}});
  }
  Stream& io(std::string_view name, uint32_t thread, uint32_t type, uint32_t file, uint32_t size,
             uint32_t scl) {
    return record(
        name,
        {{"willy_gtp", thread}, {"type", type}, {"file", file}, {"bytes", size}, {"scl", scl}});
  }
  // The record that was written last.
  Stream& remember(const Key& key, uint64_t end = ~uint64_t{0});
  Stream& forget(const Key& key);
  // What anchors say about calls and about what is remembered.
  void tellStacks();
  void tellRemembered(Told told);

  std::string suffix_;
  uint32_t categories_;
  uint32_t threadList_;
  uint32_t fileId_, anchorId_;
  uint32_t fileType_ = 0;
  RecordBytes data_;
  RecordBytes anchorData_;
  size_t chunk_ = 0;
  size_t lastAnchor_ = 0;
  Told told_ = Told::Everything;
  size_t recordOffset_ = 0;  // of the record written last, after its time record
  uint64_t recordPrevtime_ = 0;
  std::vector<std::pair<uint64_t, uint64_t>> anchors_;
  std::map<uint32_t, Calls> calls_;
  std::vector<Remembered> remembered_;
};

struct Counter {
  uint32_t type = 0;
  uint64_t low = 0, high = 0;
  uint32_t thread = 0, counterClass = 0;
  std::string unit;
};

// A whole trace. Streams and definitions refer to it, so it stays where it is.
class Trace {
 public:
  // Flags 3 make a raw trace with compressed components.
  explicit Trace(unsigned flags = 0);
  ~Trace() = default;
  Trace(const Trace&) = delete;
  Trace& operator=(const Trace&) = delete;

  // Before any record is stated.
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
  Trace& defineClass(uint32_t id, std::string_view name, uint32_t parent = 0) {
    const std::string_view self = name.substr(name.rfind(':') + 1);
    return define("class_definition",
                  {{"id", id}, {"name", text(name)}, {"nameself", text(self)}, {"parent", parent}});
  }
  Trace& communicator(uint32_t id, std::string_view name, const std::vector<Triplet>& members,
                      int32_t leftSize = -2);
  Trace& operation(uint32_t id, std::string_view name, uint32_t type = 0) {
    return define("collective_operation_definition", {{"id", id}, {"name", name}, {"type", type}});
  }
  Trace& counter(uint32_t id, std::string_view name, const Counter& counter = {});
  Trace& scope(uint32_t id, std::string_view name, uint32_t scopeClass = 0) {
    return define("scope_definition", {{"id", id}, {"name", text(name)}, {"class", scopeClass}});
  }
  Trace& group(uint32_t id, std::string_view name, const std::vector<uint32_t>& members) {
    return define("group_definition", {{"id", id}, {"name", name}, {"willies_gtp", members}});
  }
  Trace& sourceFile(uint32_t id, std::string_view name) {
    return define("file_definition", {{"id", id}, {"file", name}});
  }
  Trace& ioFile(uint32_t id, std::string_view name, uint32_t communicator = 0) {
    return define("file_io_file_definition",
                  {{"id", id}, {"communicator", communicator}, {"name", text(name)}});
  }
  struct Place {
    uint32_t file, line;
  };
  Trace& scl(uint32_t id, const std::vector<Place>& places);
  Trace& willyName(uint32_t thread, std::string_view name) {
    return define("willy_name", {{"willy_gtp", thread}, {"name", text(name)}});
  }

  // The declarations component, for definitions without a method here.
  [[nodiscard]] Stream& declarations() { return *declarations_; }
  // The id of a text in the index.
  uint32_t text(std::string_view text);
  // The id of a thread list in the index.
  uint32_t threadList(const std::vector<Triplet>& list);

  // A new component. Without threads its records may be of any thread.
  Stream& stream(std::string_view suffix, uint32_t categories,
                 const std::vector<uint32_t>& threads = {});
  // A component for which the index names this list of threads.
  Stream& streamOf(std::string_view suffix, uint32_t categories,
                   const std::vector<Triplet>& threads);
  // Records at the end of the index, whatever they are.
  [[nodiscard]] RecordBytes& extraIndex() { return extraIndex_; }

  [[nodiscard]] TraceFiles files() const;

 private:
  friend class Stream;
  uint32_t nextFileId() { return ++lastFileId_; }
  Trace& define(std::string_view record, const Values& values) {
    declarations_->record(record, values);
    return *this;
  }
  [[nodiscard]] std::string index() const;

  unsigned flags_;
  Layout layout_;
  uint32_t lastFileId_ = 0x10000;
  std::vector<std::string> texts_;
  std::vector<std::vector<Triplet>> lists_;
  RecordBytes extraIndex_;
  std::unique_ptr<Stream> declarations_;
  std::vector<std::unique_ptr<Stream>> streams_;
};

}  // namespace tb
