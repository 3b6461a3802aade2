// Encoding of stated records, the anchors of a component, and the index of a trace.
#include "tests/builder/trace_builder.h"

#include <zlib.h>

#include <algorithm>
#include <bit>
#include <cstdlib>
#include <cstring>

namespace tb {
namespace {

constexpr uint64_t kNever = ~uint64_t{0};

const Layout& standardLayout() {
  static const Layout layout;
  return layout;
}

const Field* fieldOf(const Row& row, std::string_view name) {
  const auto at = std::find_if(row.fields.begin(), row.fields.end(),
                               [&](const Field& field) { return field.name == name; });
  return at == row.fields.end() ? nullptr : &*at;
}

const Value* find(const Values& values, std::string_view name) {
  for (const auto& [key, value] : values) {
    if (key == name) return &value;
  }
  return nullptr;
}

bool hasRoom(const Value& value, Type type) {
  const unsigned bits = 8 * bytesOf(type);
  for (size_t i = 0; bits < 64 && i < value.size(); ++i) {
    if (value.bits(i, type) >> bits != 0) return false;
  }
  return true;
}

// The number of elements of the longest array that a count covers.
size_t longestArray(const Row& row, size_t count, const Values& values) {
  size_t elements = 0;
  for (size_t i = 1; i <= row.fields[count].covers && count + i < row.fields.size(); ++i) {
    const Value* value = find(values, row.fields[count + i].name);
    if (value != nullptr) elements = std::max(elements, value->size());
  }
  return elements;
}

uint64_t later(uint64_t time, uint64_t span) { return span > kNever - time ? kNever : time + span; }

Values withMembers(Values values, const std::vector<Triplet>& members) {
  std::vector<int32_t> first, last, stride;
  for (const Triplet& triplet : members) {
    first.push_back(triplet.first);
    last.push_back(triplet.last);
    stride.push_back(triplet.stride);
  }
  values.emplace_back("first_id_gtp", first);
  values.emplace_back("last_id_gtp", last);
  values.emplace_back("stride", stride);
  return values;
}

// The place of an element in a list that begins with 1; what isn't there is added.
template <class T>
uint32_t idIn(std::vector<T>& list, const T& element) {
  auto at = std::find(list.begin(), list.end(), element);
  if (at == list.end()) at = list.insert(at, element);
  return static_cast<uint32_t>(at - list.begin()) + 1;
}

// A compressed component: the length in the host's byte order, then one zlib stream.
std::string compressed(const std::string& bytes) {
  const uint64_t length = bytes.size();
  uLongf room = compressBound(length);
  std::string out(sizeof length + room, '\0');
  std::memcpy(out.data(), &length, sizeof length);
  if (compress(reinterpret_cast<Bytef*>(out.data() + sizeof length), &room,
               reinterpret_cast<const Bytef*>(bytes.data()), length) != Z_OK) {
    misuse("zlib", "compress failed");
  }
  out.resize(sizeof length + room);
  return out;
}

}  // namespace

bool Value::isZero() const {
  return std::all_of(elements_.begin(), elements_.end(),
                     [](const Element& e) { return e.integer == 0 && e.real == 0; });
}

uint64_t Value::bits(size_t index, Type type) const {
  if (index >= size()) return 0;
  const Element& element = elements_[index];
  if (type == Type::F64) return std::bit_cast<uint64_t>(element.real);
  if (type == Type::F32) return std::bit_cast<uint32_t>(static_cast<float>(element.real));
  return static_cast<uint64_t>(element.integer);
}

// --- Records -------------------------------------------------------------------------------------

unsigned RecordBytes::rowFor(std::string_view name, const Values& values) {
  constexpr unsigned kMissing = 100;  // is worse than any number of fields that are too narrow
  unsigned best = 0, least = ~0U;
  for (unsigned number = 1; number <= standardLayout().size(); ++number) {
    const Row& row = standardLayout().row(number);
    if (row.name != name) continue;
    unsigned faults = 0;
    for (const auto& [key, value] : values) {
      if (value.isZero()) continue;
      const Field* field = fieldOf(row, key);
      faults += field == nullptr ? kMissing : hasRoom(value, field->type) ? 0 : 1;
    }
    if (faults >= least) continue;
    best = number;
    least = faults;
  }
  return best;
}

void RecordBytes::catchUp(const Row& row) {
  const Field* field = fieldOf(row, "time");
  if (field == nullptr || time_ == running_) return;
  if (time_ < running_) {
    record("sub_time", {{"time", running_ - time_}});
  } else if (const uint64_t step = time_ - running_; !hasRoom(step, field->type)) {
    record("add_time", {{"time", step}});
  }
}

void RecordBytes::record(unsigned number, const Values& values) {
  const Row& standard = standardLayout().row(number);
  for (const auto& [name, value] : values) {
    if (!name.starts_with('#') && fieldOf(standard, name) == nullptr && !value.isZero())
      misuse("no field of " + standard.name, name);
  }
  const Row& row = layout_->row(number);
  uint64_t delta = 0;
  if (standard.name == "add_time" || standard.name == "sub_time") {
    const Value* step = find(values, "time");
    delta = step == nullptr ? 0 : step->bits(0, Type::U64);
    running_ += standard.name == "add_time" ? delta : 0 - delta;
    time_ = running_;
  } else if (fieldOf(row, "time") != nullptr) {
    catchUp(row);
    delta = time_ - running_;
    running_ = time_;
  }

  put(bytes_, row.number, 1);
  unsigned counts = 0, covered = 0;
  size_t elements = 1;
  bool stated = false;
  for (size_t i = 0; i < row.fields.size(); ++i) {
    const Field& field = row.fields[i];
    const unsigned width = bytesOf(field.type);
    const Value* value = find(values, field.isCount ? "#" + std::to_string(++counts) : field.name);
    if (field.isCount) {
      covered = field.covers;
      elements = longestArray(row, i, values);
      stated = value != nullptr;
      if (!stated && width < 8 && elements >> (8 * width) != 0) misuse("too long", row.name);
      put(bytes_, stated ? value->bits(0, Type::U64) : elements, width);
    } else if (field.name == "time") {
      put(bytes_, delta, width);
    } else {
      // A stated count says nothing about how many elements really follow.
      const size_t present = value == nullptr ? 0 : value->size();
      const size_t written = covered == 0 ? 1 : stated ? present : elements;
      for (size_t k = 0; k < written; ++k) {
        put(bytes_, value == nullptr ? 0 : value->bits(k, field.type), width);
      }
      if (covered > 0) --covered;
    }
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

Stream& Stream::record(unsigned number, const Values& values) {
  if (chunk_ != 0 && data_.time() != data_.running() && size() - lastAnchor_ >= chunk_) {
    anchor(told_);
  }
  data_.catchUp(data_.layout().row(number));
  recordOffset_ = size();
  recordPrevtime_ = data_.running();
  data_.record(number, values);
  return *this;
}

Stream& Stream::remember(const Key& key, uint64_t end) {
  remembered_.push_back({key, end, recordOffset_, recordPrevtime_});
  return *this;
}

Stream& Stream::forget(const Key& key) {
  const auto at = std::find_if(remembered_.begin(), remembered_.end(),
                               [&](const Remembered& entry) { return entry.key == key; });
  if (at != remembered_.end()) remembered_.erase(at);
  return *this;
}

Stream& Stream::leave(uint32_t thread, uint32_t scl) {
  record("leave_function", {{"willy_gtp", thread}, {"scl", scl}});
  auto& [functions, scls] = calls_[thread];
  if (functions.empty()) return *this;
  functions.pop_back();
  scls.pop_back();
  return *this;
}

Stream& Stream::counters(uint32_t thread,
                         std::initializer_list<std::pair<uint32_t, uint64_t>> samples) {
  std::vector<uint32_t> ids;
  std::vector<uint64_t> values;
  for (const auto& [id, value] : samples) {
    ids.push_back(id);
    values.push_back(value);
  }
  record("counter_value", {{"willy_gtp", thread}, {"values", values}, {"counters", ids}});
  for (const uint32_t id : ids) {
    forget({Kind::Counter, thread, id}).remember({Kind::Counter, thread, id});
  }
  return *this;
}

Stream& Stream::message(const Message& message) {
  record("one_to_one_communication", {{"sender_gtp", message.sender},
                                      {"receive_time", message.receiveTime},
                                      {"receiver_gtp", message.receiver},
                                      {"communicator", message.communicator},
                                      {"size", message.size},
                                      {"tag", message.tag},
                                      {"sender_scl", message.senderScl},
                                      {"receiver_scl", message.receiverScl},
                                      {"sender_checksum", message.senderChecksum},
                                      {"receiver_checksum", message.receiverChecksum},
                                      {"sender_function", message.senderFunction},
                                      {"receiver_function", message.receiverFunction}});
  if (message.receiveTime == NO_RECEIVE || message.receiveTime == NO_SEND)
    return remember({Kind::Communication});
  const auto span = static_cast<uint64_t>(std::abs(message.receiveTime));
  return remember({Kind::Communication}, later(time(), span));
}

Stream& Stream::collective(const Collective& c) {
  constexpr std::string_view kNames[] = {"all_communication", "all_to_all_communication",
                                         "all_to_one_communication", "one_to_all_communication"};
  Values values{{"communicator", c.communicator},
                {"type", c.operation},
                {"start_time", c.start},
                {"delta", c.duration},
                {"scl", c.scl}};
  if (c.shape == Shape::AllToOne) {
    values.emplace_back("receiver_gtp", c.root);
    values.emplace_back("recvd", c.rootBytes);
  } else if (c.shape == Shape::OneToAll) {
    values.emplace_back("sender_gtp", c.root);
    values.emplace_back("sent", c.rootBytes);
  }
  if (c.shape == Shape::AllToAll || c.shape == Shape::AllToOne)
    values.emplace_back("send_size", c.sent);
  if (c.shape == Shape::AllToAll || c.shape == Shape::OneToAll)
    values.emplace_back("receive_size", c.received);
  record(kNames[static_cast<size_t>(c.shape)], values);

  uint64_t span = 0;
  for (size_t i = 0; i < c.start.size() && i < c.duration.size(); ++i) {
    if (c.start[i] != NOT_STARTED) span = std::max(span, later(c.start[i], c.duration[i]));
  }
  return remember({Kind::Communication}, later(time(), span));
}

Stream& Stream::rawMessage(const RawMessage& event) {
  return record("message_raw_event", {{"willy_gtp", event.thread},
                                      {"kind", event.kind},
                                      {"other_gtp", event.other},
                                      {"tag", event.tag},
                                      {"size", event.size},
                                      {"comm", event.communicator},
                                      {"function", event.function},
                                      {"scl", event.scl}});
}

Stream& Stream::rawCollective(const RawCollective& event) {
  return record("collop_raw_event", {{"willy_gtp", event.thread},
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

void Stream::tellStacks() {
  for (const auto& [thread, calls] : calls_) {
    if (calls.functions.empty()) continue;
    anchorData_.record(
        "function_history",
        {{"willy_gtp", thread}, {"function_stack", calls.functions}, {"scls", calls.scls}});
  }
}

// Also forgets what has ended.
void Stream::tellRemembered(Told told) {
  std::erase_if(remembered_, [&](const auto& entry) { return data_.running() >= entry.end; });
  std::vector<Remembered> entries(remembered_.rbegin(), remembered_.rend());  // in any order
  if (told == Told::NoScopes) {
    std::erase_if(entries, [](const auto& entry) { return entry.key.kind == Kind::Scope; });
  } else if (entries.empty() && (categories_ & SCOPES) != 0) {
    anchorData_.record("history", {});  // there are none
  }
  constexpr size_t kEntriesOfARecord = 255;
  for (size_t i = 0; i < entries.size();) {
    std::vector<uint64_t> offsets, prevtimes;
    for (; i < entries.size() && offsets.size() < kEntriesOfARecord; ++i) {
      offsets.push_back(entries[i].offset);
      prevtimes.push_back(entries[i].prevtime);
    }
    const std::vector<uint32_t> files(offsets.size(), fileId_);
    anchorData_.record("history", {{"file", files}, {"offset", offsets}, {"prevtime", prevtimes}});
  }
}

Stream& Stream::anchor(Told told) {
  if (told != Told::Nothing) {
    tellStacks();
    tellRemembered(told);
  }
  anchorData_.record("anchor", {{"time_prev", data_.running()}, {"offset", size()}});
  anchors_.emplace_back(data_.running(), size());
  lastAnchor_ = size();
  return *this;
}

// --- Traces --------------------------------------------------------------------------------------

Trace::Trace(unsigned flags) : flags_(flags), extraIndex_(layout_) {
  declarations_ = std::make_unique<Stream>(*this, "dcl", DECLARATIONS, 0);
  declarations_->fileType(2);
}

uint32_t Trace::text(std::string_view text) { return idIn(texts_, std::string(text)); }

uint32_t Trace::threadList(const std::vector<Triplet>& list) { return idIn(lists_, list); }

Trace& Trace::communicator(uint32_t id, std::string_view name, const std::vector<Triplet>& members,
                           int32_t leftSize) {
  return define("communicator_definition",
                withMembers({{"id", id}, {"name", name}, {"left_size", leftSize}}, members));
}

Trace& Trace::counter(uint32_t id, std::string_view name, const Counter& counter) {
  return define("counter_definition", {{"id", id},
                                       {"name", text(name)},
                                       {"type", counter.type},
                                       {"lower_bound", counter.low},
                                       {"upper_bound", counter.high},
                                       {"willy_gtp", counter.thread},
                                       {"class", counter.counterClass},
                                       {"unit", counter.unit}});
}

Trace& Trace::scl(uint32_t id, const std::vector<Place>& places) {
  std::vector<uint32_t> files, lines;
  for (const Place& place : places) {
    files.push_back(place.file);
    lines.push_back(place.line);
  }
  return define("scl_definition", {{"id", id}, {"file", files}, {"line", lines}});
}

Stream& Trace::stream(std::string_view suffix, uint32_t categories,
                      const std::vector<uint32_t>& threads) {
  std::vector<Triplet> list;
  for (const uint32_t thread : threads) {
    const auto number = static_cast<int32_t>(thread);
    if (!list.empty() && list.back().last + 1 == number) {
      list.back().last = number;
    } else {
      list.push_back({number, number, 1});
    }
  }
  return streamOf(suffix, categories, list);
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
    records.record("file_declaration", {{"id", id}, {"filetype", type}, {"suffix", suffix}});
  };
  declareFile(declarations_->fileId_, declarations_->fileType_, declarations_->suffix_);
  for (const auto& stream : streams_) {
    declareFile(stream->fileId_, stream->fileType_, stream->suffix_);
  }
  for (size_t i = 0; i < texts_.size(); ++i) {
    records.record("klt_string", {{"id", i + 1}, {"string", texts_[i]}});
  }
  for (size_t i = 0; i < lists_.size(); ++i) {
    records.record("willy_list", withMembers({{"id", i + 1}}, lists_[i]));
  }
  for (const auto& stream : streams_) {
    if (stream->fileType_ != 0) continue;
    declareFile(stream->anchorId_, 1, stream->suffix_);
    records.record("anchor_file_declaration", {{"anchor_file", stream->anchorId_},
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
    if (stream->fileType_ == 0)
      files.add("." + stream->suffix_ + ".anc", stream->anchorData_.contents());
  }
  return files;
}

}  // namespace tb
