// Encoding of stated records, the anchors of a component, and the index of a trace.
#include "tests/builder/trace_builder.h"

#include <zlib.h>

#include <algorithm>
#include <bit>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace tb {
namespace {

// Rows of the standard layout that the builder writes.
enum Number : unsigned {
  kAddTime32 = 1,
  kAddTime64 = 2,
  kAllCommunication = 3,
  kAnchor = 9,
  kAnchorFileDeclaration = 10,
  kClass = 12,
  kClock = 13,
  kOperation = 14,
  kRawCollective = 16,
  kComment = 18,
  kCommunicator = 19,
  kCounter = 20,
  kCounterValue = 22,
  kDuration = 25,
  kEnter = 28,
  kEnterScope = 30,
  kFileDeclaration = 33,
  kFile = 34,
  kIoBegin = 35,
  kIoEnd = 37,
  kIoFile = 39,
  kFunction = 40,
  kFunctionHistory = 41,
  kGroup = 45,
  kHistory = 46,
  kLeave = 48,
  kLeaveScope = 50,
  kRawMessage = 53,
  kMessage = 57,
  kOpaque = 64,
  kProcesses = 65,
  kScl = 67,
  kScope = 68,
  kText = 69,
  kSubTime = 70,
  kWillyList = 73,
  kWillyName = 74,
};

constexpr uint64_t kNever = ~uint64_t{0};

[[noreturn]] void misuse(std::string_view what, std::string_view about) {
  std::fprintf(stderr, "trace builder: %.*s: %.*s\n", static_cast<int>(what.size()), what.data(),
               static_cast<int>(about.size()), about.data());
  std::abort();
}

void put(std::string& out, uint64_t bits, unsigned bytes) {
  for (unsigned i = bytes; i-- > 0;) out += static_cast<char>(bits >> (8 * i));
}

const Field* timeField(const Row& row) {
  const auto at = std::find_if(row.fields.begin(), row.fields.end(),
                               [](const Field& field) { return field.name == "time"; });
  return at == row.fields.end() ? nullptr : &*at;
}

bool movesTimeOnly(unsigned number) {
  return number == kAddTime32 || number == kAddTime64 || number == kSubTime;
}

const Value* find(const Values& values, std::string_view name) {
  for (const auto& [key, value] : values) {
    if (key == name) return &value;
  }
  return nullptr;
}

// The number of elements of a count's arrays: as stated, else what the longest array has.
size_t countOf(const Row& row, size_t count, unsigned nth, const Values& values) {
  if (const Value* stated = find(values, "#" + std::to_string(nth)))
    return stated->bits(0, Type::U64);
  size_t elements = 0;
  for (size_t i = 1; i <= row.fields[count].covers && count + i < row.fields.size(); ++i) {
    if (const Value* value = find(values, row.fields[count + i].name)) {
      elements = std::max(elements, value->size());
    }
  }
  return elements;
}

void refuseUnknownFields(const Row& standard, const Values& values) {
  for (const auto& entry : values) {
    const bool known = entry.first.starts_with('#') ||
                       std::any_of(standard.fields.begin(), standard.fields.end(),
                                   [&](const Field& field) { return field.name == entry.first; });
    if (!known) misuse("no field of " + standard.name, entry.first);
  }
}

uint64_t later(uint64_t time, uint64_t span) { return span > kNever - time ? kNever : time + span; }

std::vector<Triplet> tripletsOf(const std::vector<uint32_t>& threads) {
  std::vector<Triplet> list;
  for (uint32_t thread : threads) {
    const auto number = static_cast<int32_t>(thread);
    if (!list.empty() && list.back().last + 1 == number) {
      list.back().last = number;
    } else {
      list.push_back({number, number, 1});
    }
  }
  return list;
}

struct ParallelTriplets {
  std::vector<int32_t> first, last, stride;
  explicit ParallelTriplets(const std::vector<Triplet>& triplets) {
    for (const Triplet& triplet : triplets) {
      first.push_back(triplet.first);
      last.push_back(triplet.last);
      stride.push_back(triplet.stride);
    }
  }
};

// A compressed component: the length in the host's byte order, then one zlib stream.
std::string compressed(const std::string& bytes) {
  const uint64_t length = bytes.size();
  uLongf room = compressBound(static_cast<uLong>(length));
  std::string out(sizeof length + room, '\0');
  std::memcpy(out.data(), &length, sizeof length);
  auto* target = reinterpret_cast<Bytef*>(out.data() + sizeof length);
  if (compress(target, &room, reinterpret_cast<const Bytef*>(bytes.data()),
               static_cast<uLong>(length)) != Z_OK) {
    misuse("zlib", "compress failed");
  }
  out.resize(sizeof length + room);
  return out;
}

}  // namespace

Value::Value(std::string_view text) {
  for (char character : text) integers_.push_back(static_cast<unsigned char>(character));
}

uint64_t Value::bits(size_t index, Type type) const {
  if (index >= size()) return 0;
  const bool real = !reals_.empty();
  if (type == Type::F64 || type == Type::F32) {
    const double number =
        real ? reals_[index] : static_cast<double>(static_cast<int64_t>(integers_[index]));
    return type == Type::F64 ? std::bit_cast<uint64_t>(number)
                             : std::bit_cast<uint32_t>(static_cast<float>(number));
  }
  return real ? static_cast<uint64_t>(static_cast<int64_t>(reals_[index])) : integers_[index];
}

// --- Records -------------------------------------------------------------------------------------

void RecordBytes::catchUp(const Row& row) {
  const Field* field = timeField(row);
  if (field == nullptr || time_ == running_) return;
  const unsigned bits = 8 * bytesOf(field->type);
  const uint64_t step = time_ - running_;
  if (time_ > running_ && (bits == 64 || step >> bits == 0)) return;
  if (time_ < running_) {
    record(kSubTime, {{"time", running_ - time_}});
  } else {
    record(step >> 32 == 0 ? kAddTime32 : kAddTime64, {{"time", step}});
  }
}

void RecordBytes::record(unsigned number, const Values& values) {
  static const Layout standard;
  refuseUnknownFields(standard.row(number), values);
  const Row& row = layout_->row(number);
  uint64_t delta = 0;
  if (movesTimeOnly(number)) {
    const Value* step = find(values, "time");
    delta = step == nullptr ? 0 : step->bits(0, Type::U64);
    running_ = number == kSubTime ? running_ - delta : running_ + delta;
    time_ = running_;
  } else if (timeField(row) != nullptr) {
    catchUp(row);
    delta = time_ - running_;
    running_ = time_;
  }

  bytes_ += static_cast<char>(row.number);
  unsigned counts = 0;
  size_t elements = 1;
  unsigned covered = 0;
  for (size_t i = 0; i < row.fields.size(); ++i) {
    const Field& field = row.fields[i];
    const unsigned width = bytesOf(field.type);
    if (field.isCount) {
      elements = countOf(row, i, ++counts, values);
      covered = field.covers;
      put(bytes_, elements, width);
      continue;
    }
    if (field.name == "time") {
      put(bytes_, delta, width);
      continue;
    }
    const Value* value = find(values, field.name);
    const bool stated = find(values, "#" + std::to_string(std::max(counts, 1U))) != nullptr;
    // A stated count says nothing about how many elements really follow.
    const size_t present = value == nullptr ? 0 : value->size();
    const size_t written = covered == 0 ? 1 : stated ? present : elements;
    for (size_t k = 0; k < written; ++k) {
      put(bytes_, value == nullptr ? 0 : value->bits(k, field.type), width);
    }
    if (covered > 0) --covered;
  }
}

// --- Streams -------------------------------------------------------------------------------------

Stream::Stream(Trace& trace, std::string suffix, uint32_t categories, uint32_t threadList)
    : suffix_(std::move(suffix)),
      categories_(categories),
      threadList_(threadList),
      fileId_(trace.nextFileId()),
      anchorId_(trace.nextFileId()),
      data_(trace.layout()),
      anchorData_(trace.layout()) {}

Stream& Stream::at(uint64_t time) {
  data_.at(time);
  return *this;
}

void Stream::event(unsigned number, const Values& values) {
  if (chunk_ != 0 && data_.time() != data_.running() && size() - lastAnchor_ >= chunk_) {
    anchor(told_);
  }
  data_.catchUp(data_.layout().row(number));
  recordOffset_ = size();
  recordPrevtime_ = data_.running();
  data_.record(number, values);
}

Stream& Stream::record(unsigned number, const Values& values) {
  event(number, values);
  return *this;
}

Stream& Stream::bytes(std::string_view raw) {
  data_.bytes(raw);
  return *this;
}

void Stream::remember(Remembered entry) {
  entry.offset = recordOffset_;
  entry.prevtime = recordPrevtime_;
  remembered_.push_back(entry);
}

Stream& Stream::enter(uint32_t thread, uint32_t function, uint32_t scl) {
  if (scl == 0) {
    event(kEnter, {{"willy_gtp", thread}, {"function", function}});
  } else {
    event(kEnter + 1, {{"willy_gtp", thread}, {"function", function}, {"scl", scl}});
  }
  calls_[thread].push_back({function, scl});
  return *this;
}

Stream& Stream::leave(uint32_t thread, uint32_t scl) {
  if (scl == 0) {
    event(kLeave, {{"willy_gtp", thread}});
  } else {
    event(kLeave + 1, {{"willy_gtp", thread}, {"scl", scl}});
  }
  if (!calls_[thread].empty()) calls_[thread].pop_back();
  return *this;
}

Stream& Stream::enterScope(uint32_t thread, uint32_t scope, uint32_t sequence, uint32_t scl) {
  Values values{{"willy_gtp", thread}, {"scope", scope}, {"seqnr", sequence}};
  if (scl != 0) values.emplace_back("scl", scl);
  event(kEnterScope + (scl != 0), values);
  remember({.kind = Remembered::Kind::Scope, .thread = thread, .id = scope, .sequence = sequence});
  return *this;
}

Stream& Stream::leaveScope(uint32_t thread, uint32_t scope, uint32_t sequence, uint32_t scl) {
  Values values{{"willy_gtp", thread}, {"scope", scope}, {"seqnr", sequence}};
  if (scl != 0) values.emplace_back("scl", scl);
  event(kLeaveScope + (scl != 0), values);
  const auto open = std::find_if(remembered_.begin(), remembered_.end(), [&](const auto& entry) {
    return entry.kind == Remembered::Kind::Scope && entry.thread == thread && entry.id == scope &&
           entry.sequence == sequence;
  });
  if (open != remembered_.end()) remembered_.erase(open);
  return *this;
}

Stream& Stream::ioBegin(uint32_t thread, uint32_t type, uint32_t file, uint32_t size,
                        uint32_t scl) {
  Values values{{"willy_gtp", thread}, {"type", type}, {"file", file}, {"bytes", size}};
  if (scl != 0) values.emplace_back("scl", scl);
  return record(kIoBegin + (scl != 0), values);
}

Stream& Stream::ioEnd(uint32_t thread, uint32_t type, uint32_t file, uint32_t size, uint32_t scl) {
  Values values{{"willy_gtp", thread}, {"type", type}, {"file", file}, {"bytes", size}};
  if (scl != 0) values.emplace_back("scl", scl);
  return record(kIoEnd + (scl != 0), values);
}

Stream& Stream::counters(uint32_t thread,
                         std::initializer_list<std::pair<uint32_t, uint64_t>> samples) {
  std::vector<uint32_t> ids;
  std::vector<uint64_t> values;
  for (const auto& [id, value] : samples) {
    ids.push_back(id);
    values.push_back(value);
  }
  event(kCounterValue, {{"willy_gtp", thread}, {"values", values}, {"counters", ids}});
  for (uint32_t id : ids) {
    std::erase_if(remembered_, [&](const Remembered& entry) {
      return entry.kind == Remembered::Kind::Counter && entry.thread == thread && entry.id == id;
    });
    remember({.kind = Remembered::Kind::Counter, .thread = thread, .id = id});
  }
  return *this;
}

Stream& Stream::comment(uint32_t thread, std::string_view text) {
  return record(kComment, {{"willy_gtp", thread}, {"text", text}});
}

Stream& Stream::opaque(uint32_t thread, std::string_view data, uint32_t scl) {
  return record(kOpaque, {{"willy_gtp", thread}, {"data", data}, {"scl", scl}});
}

// Rows 57 to 61: a 16-bit tag, one with locations, a 32-bit tag, one with locations, with
// checksums.
Stream& Stream::message(const Message& message) {
  const bool checked = message.senderChecksum != 0 || message.receiverChecksum != 0;
  const bool placed = message.senderScl != 0 || message.receiverScl != 0;
  Values values{{"sender_gtp", message.sender},
                {"receive_time", message.receiveTime},
                {"receiver_gtp", message.receiver},
                {"communicator", message.communicator},
                {"size", message.size},
                {"tag", message.tag},
                {"sender_function", message.senderFunction},
                {"receiver_function", message.receiverFunction}};
  if (placed || checked) {
    values.emplace_back("sender_scl", message.senderScl);
    values.emplace_back("receiver_scl", message.receiverScl);
  }
  unsigned number = kMessage + (placed ? 1 : 0) + (message.tag > 0xffff ? 2 : 0);
  if (checked) {
    values.emplace_back("sender_checksum", message.senderChecksum);
    values.emplace_back("receiver_checksum", message.receiverChecksum);
    number = kMessage + 4;
  }
  event(number, values);

  uint64_t end = kNever;
  if (message.receiveTime != NO_RECEIVE && message.receiveTime != NO_SEND) {
    end = later(time(), static_cast<uint64_t>(std::abs(message.receiveTime)));
  }
  remember({.end = end});
  return *this;
}

Stream& Stream::collective(const Collective& c) {
  const bool placed = !c.scl.empty();
  Values values{{"communicator", c.communicator},
                {"type", c.operation},
                {"start_time", c.start},
                {"delta", c.duration}};
  unsigned number = kAllCommunication;
  switch (c.shape) {
    case Shape::All:
      break;
    case Shape::AllToAll:
      number += 2;
      values.emplace_back("send_size", c.sent);
      values.emplace_back("receive_size", c.received);
      break;
    case Shape::AllToOne:
      number += 4;
      values.emplace_back("receiver_gtp", c.root);
      values.emplace_back("recvd", c.rootBytes);
      values.emplace_back("send_size", c.sent);
      break;
    case Shape::OneToAll:
      number = 55;
      values.emplace_back("sender_gtp", c.root);
      values.emplace_back("sent", c.rootBytes);
      values.emplace_back("receive_size", c.received);
      break;
  }
  if (placed) values.emplace_back("scl", c.scl);
  event(number + (placed ? 1 : 0), values);

  uint64_t span = 0;
  for (size_t i = 0; i < c.start.size() && i < c.duration.size(); ++i) {
    if (c.start[i] != NOT_STARTED) span = std::max(span, later(c.start[i], c.duration[i]));
  }
  remember({.end = later(time(), span)});
  return *this;
}

Stream& Stream::rawMessage(const RawMessage& event) {
  return record(kRawMessage + (event.tag > 0xffff), {{"willy_gtp", event.thread},
                                                     {"kind", event.kind},
                                                     {"other_gtp", event.other},
                                                     {"tag", event.tag},
                                                     {"size", event.size},
                                                     {"comm", event.communicator},
                                                     {"function", event.function},
                                                     {"scl", event.scl}});
}

Stream& Stream::rawCollective(const RawCollective& event) {
  return record(kRawCollective, {{"willy_gtp", event.thread},
                                 {"kind", event.kind},
                                 {"operation", event.operation},
                                 {"comm", event.communicator},
                                 {"counter", event.counter},
                                 {"root_gtp", event.root},
                                 {"send_size", event.sent},
                                 {"receive_size", event.received},
                                 {"endtime", event.end},
                                 {"scl", event.scl}});
}

// --- Anchors -------------------------------------------------------------------------------------

Stream& Stream::anchorEvery(size_t bytes, Told told) {
  chunk_ = bytes;
  told_ = told;
  return *this;
}

// What an anchor here has to point to; forgets what has ended.
std::vector<Stream::Remembered> Stream::relevant(Told told) {
  std::erase_if(remembered_, [&](const Remembered& entry) {
    return entry.kind == Remembered::Kind::Ending && data_.running() >= entry.end;
  });
  std::vector<Remembered> entries = remembered_;
  if (told == Told::NoScopes) {
    std::erase_if(entries, [](const auto& e) { return e.kind == Remembered::Kind::Scope; });
  }
  // No order is promised.
  std::reverse(entries.begin(), entries.end());
  return entries;
}

Stream& Stream::anchor(Told told) {
  if (told != Told::Nothing) {
    for (const auto& [thread, calls] : calls_) {
      std::vector<uint32_t> functions, scls;
      for (const Call& call : calls) {
        functions.push_back(call.function);
        scls.push_back(call.scl);
      }
      if (functions.size() > 0xffff) misuse("too many open calls for an anchor", suffix_);
      if (functions.empty()) continue;
      const bool placed = std::any_of(scls.begin(), scls.end(), [](uint32_t s) { return s != 0; });
      Values values{{"willy_gtp", thread}, {"function_stack", functions}};
      if (placed) values.emplace_back("scls", scls);
      anchorData_.record(kFunctionHistory + (placed ? 1 : 0), values);
    }
    const std::vector<Remembered> entries = relevant(told);
    constexpr size_t kEntriesOfARecord = 255;
    const bool tellsScopes = told == Told::Everything && (categories_ & SCOPES) != 0;
    for (size_t i = 0; i < entries.size() || (i == 0 && tellsScopes); i += kEntriesOfARecord) {
      const size_t count = std::min(entries.size() - i, kEntriesOfARecord);
      std::vector<uint64_t> offsets, prevtimes;
      for (size_t k = i; k < i + count; ++k) {
        offsets.push_back(entries[k].offset);
        prevtimes.push_back(entries[k].prevtime);
      }
      anchorData_.record(kHistory, {{"file", std::vector<uint32_t>(count, fileId_)},
                                    {"offset", offsets},
                                    {"prevtime", prevtimes}});
    }
  }
  anchorData_.record(kAnchor, {{"time_prev", data_.running()}, {"offset", size()}});
  anchors_.emplace_back(data_.running(), size());
  lastAnchor_ = size();
  return *this;
}

Stream& Stream::anchorRecord(unsigned number, const Values& values) {
  anchorData_.record(number, values);
  return *this;
}

Stream& Stream::withoutAnchorFile() {
  hasAnchorFile_ = false;
  return *this;
}

Stream& Stream::fileType(uint32_t type) {
  fileType_ = type;
  return *this;
}

// --- Traces --------------------------------------------------------------------------------------

Trace::Trace(unsigned flags) : flags_(flags), extraIndex_(layout_) {
  declarations_ = std::make_unique<Stream>(*this, "dcl", DECLARATIONS, 0);
  declarations_->fileType(2);
}

uint32_t Trace::text(std::string_view text) {
  auto at = std::find(texts_.begin(), texts_.end(), text);
  if (at == texts_.end()) at = texts_.insert(at, std::string(text));
  return static_cast<uint32_t>(at - texts_.begin()) + 1;
}

uint32_t Trace::threadList(const std::vector<Triplet>& list) {
  const auto same = [&](const std::vector<Triplet>& other) {
    return std::equal(list.begin(), list.end(), other.begin(), other.end(),
                      [](const Triplet& a, const Triplet& b) {
                        return a.first == b.first && a.last == b.last && a.stride == b.stride;
                      });
  };
  auto at = std::find_if(lists_.begin(), lists_.end(), same);
  if (at == lists_.end()) at = lists_.insert(at, list);
  return static_cast<uint32_t>(at - lists_.begin()) + 1;
}

Trace& Trace::clock(double resolution, uint32_t eventBits) {
  declarations_->record(kClock, {{"resolution", resolution}, {"eventbits", eventBits}});
  return *this;
}

Trace& Trace::duration(uint64_t start, uint64_t end) {
  declarations_->record(kDuration, {{"start", start}, {"end", end}});
  return *this;
}

Trace& Trace::processes(const std::vector<uint32_t>& threadsOfEach) {
  declarations_->record(kProcesses, {{"thread_numbers_gtp", threadsOfEach}});
  return *this;
}

Trace& Trace::function(uint32_t id, std::string_view name, uint32_t functionClass) {
  declarations_->record(kFunction, {{"id", id}, {"name", text(name)}, {"class", functionClass}});
  return *this;
}

Trace& Trace::defineClass(uint32_t id, std::string_view name, uint32_t parent) {
  const std::string_view self = name.substr(name.rfind(':') + 1);
  declarations_->record(
      kClass, {{"id", id}, {"name", text(name)}, {"nameself", text(self)}, {"parent", parent}});
  return *this;
}

Trace& Trace::communicator(uint32_t id, std::string_view name, const std::vector<Triplet>& members,
                           int32_t leftSize) {
  const ParallelTriplets lists(members);
  declarations_->record(kCommunicator, {{"id", id},
                                        {"name", name},
                                        {"first_id_gtp", lists.first},
                                        {"last_id_gtp", lists.last},
                                        {"stride", lists.stride},
                                        {"left_size", leftSize}});
  return *this;
}

Trace& Trace::operation(uint32_t id, std::string_view name, uint32_t type) {
  declarations_->record(kOperation, {{"id", id}, {"name", name}, {"type", type}});
  return *this;
}

Trace& Trace::counter(uint32_t id, std::string_view name, const Counter& counter) {
  declarations_->record(kCounter, {{"id", id},
                                   {"name", text(name)},
                                   {"type", counter.type},
                                   {"lower_bound", counter.low},
                                   {"upper_bound", counter.high},
                                   {"willy_gtp", counter.thread},
                                   {"class", counter.counterClass},
                                   {"unit", counter.unit}});
  return *this;
}

Trace& Trace::scope(uint32_t id, std::string_view name, uint32_t scopeClass) {
  declarations_->record(kScope, {{"id", id}, {"name", text(name)}, {"class", scopeClass}});
  return *this;
}

Trace& Trace::group(uint32_t id, std::string_view name, const std::vector<uint32_t>& members) {
  declarations_->record(kGroup, {{"id", id}, {"name", name}, {"willies_gtp", members}});
  return *this;
}

Trace& Trace::sourceFile(uint32_t id, std::string_view name) {
  declarations_->record(kFile, {{"id", id}, {"file", name}});
  return *this;
}

Trace& Trace::ioFile(uint32_t id, std::string_view name, uint32_t communicator) {
  declarations_->record(kIoFile,
                        {{"id", id}, {"communicator", communicator}, {"name", text(name)}});
  return *this;
}

Trace& Trace::scl(uint32_t id, const std::vector<Place>& places) {
  std::vector<uint32_t> files, lines;
  for (const Place& place : places) {
    files.push_back(place.file);
    lines.push_back(place.line);
  }
  declarations_->record(kScl, {{"id", id}, {"file", files}, {"line", lines}});
  return *this;
}

Trace& Trace::willyName(uint32_t thread, std::string_view name) {
  declarations_->record(kWillyName, {{"willy_gtp", thread}, {"name", text(name)}});
  return *this;
}

Stream& Trace::stream(std::string_view suffix, uint32_t categories,
                      const std::vector<uint32_t>& threads) {
  return streamOf(suffix, categories, tripletsOf(threads));
}

Stream& Trace::streamOf(std::string_view suffix, uint32_t categories,
                        const std::vector<Triplet>& threads) {
  const uint32_t list = threads.empty() ? 0 : threadList(threads);
  streams_.push_back(std::make_unique<Stream>(*this, std::string(suffix), categories, list));
  return *streams_.back();
}

// Header, layout block, then what the components refer to, then the components with their anchors.
std::string Trace::index() const {
  RecordBytes records(layout_);
  const auto declareFile = [&](uint32_t id, uint32_t type, const std::string& suffix) {
    records.record(kFileDeclaration, {{"id", id}, {"filetype", type}, {"suffix", suffix}});
  };
  declareFile(declarations_->fileId_, declarations_->fileType_, declarations_->suffix_);
  for (const auto& stream : streams_) {
    declareFile(stream->fileId_, stream->fileType_, stream->suffix_);
  }
  for (size_t i = 0; i < texts_.size(); ++i) {
    records.record(kText, {{"id", i + 1}, {"string", texts_[i]}});
  }
  for (size_t i = 0; i < lists_.size(); ++i) {
    const ParallelTriplets lists(lists_[i]);
    records.record(kWillyList, {{"id", i + 1},
                                {"first_id_gtp", lists.first},
                                {"last_id_gtp", lists.last},
                                {"stride", lists.stride}});
  }
  for (const auto& stream : streams_) {
    if (stream->fileType_ != 0) continue;
    declareFile(stream->anchorId_, 1, stream->suffix_);
    records.record(kAnchorFileDeclaration, {{"anchor_file", stream->anchorId_},
                                            {"data_file", stream->fileId_},
                                            {"categories", stream->categories_},
                                            {"willies", stream->threadList_}});
  }
  std::string header("KLT\x40\0\0\0\0\0\0\x14", 11);
  header[7] = static_cast<char>(flags_);
  return header + layout_.block() + records.contents() + extraIndex_.contents();
}

TraceFiles Trace::files() const {
  TraceFiles files;
  files.add(" ", index());
  files.add("." + declarations_->suffix_, declarations_->data_.contents());
  for (const auto& stream : streams_) {
    const bool compress =
        (flags_ & 3) == 3 && (stream->categories_ & (FUNCTIONS | RAW_EVENTS)) != 0;
    const std::string& bytes = stream->data_.contents();
    files.add("." + stream->suffix_, compress ? compressed(bytes) : bytes);
    if (stream->fileType_ == 0 && stream->hasAnchorFile_) {
      files.add("." + stream->suffix_ + ".anc", stream->anchorData_.contents());
    }
  }
  return files;
}

}  // namespace tb
