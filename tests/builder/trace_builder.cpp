// Encodes records, the anchors of a component, and the index of a trace.
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

// The value with this name; empty if there is none.
const Value& find(const Values& values, std::string_view name) {
  static const Value none("");
  const auto at = std::find_if(values.begin(), values.end(),
                               [&](const auto& entry) { return entry.first == name; });
  return at == values.end() ? none : at->second;
}

uint64_t later(uint64_t time, uint64_t span) { return span > kNever - time ? kNever : time + span; }

// Values with the names in `names`, which are separated by blanks.
Values named(std::string_view names, const std::initializer_list<Value>& values) {
  Values all;
  for (const Value& value : values) {
    const size_t length = std::min(names.find(' '), names.size());
    all.emplace_back(names.substr(0, length), value);
    names.remove_prefix(std::min(length + 1, names.size()));
  }
  return all;
}

Values withMembers(Values values, const std::vector<Triplet>& members) {
  const auto add = [&](std::string_view name, int32_t Triplet::*part) {
    std::vector<int32_t> numbers;
    for (const Triplet& triplet : members) numbers.push_back(triplet.*part);
    values.emplace_back(name, numbers);
  };
  add("first_id_gtp", &Triplet::first);
  add("last_id_gtp", &Triplet::last);
  add("stride", &Triplet::stride);
  return values;
}

// The position of an element in a list, from 1. Adds the element if the list doesn't have it.
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
  (void)compress(reinterpret_cast<Bytef*>(out.data() + sizeof length), &room,
                 reinterpret_cast<const Bytef*>(bytes.data()), length);
  out.resize(sizeof length + room);
  return out;
}

}  // namespace

uint64_t Value::bits(size_t index, Type type) const {
  if (index >= size()) return 0;
  const auto& [integer, real] = elements_[index];
  if (type == Type::F64) return std::bit_cast<uint64_t>(real);
  if (type == Type::F32) return std::bit_cast<uint32_t>(static_cast<float>(real));
  return static_cast<uint64_t>(integer);
}

bool Value::fits(Type type) const {
  const unsigned width = 8 * bytesOf(type);
  return width == 64 || std::all_of(elements_.begin(), elements_.end(), [&](const auto& e) {
           return e.first >> width == 0 || e.first >> width == -1;
         });
}

bool Value::isZero() const {
  return std::all_of(elements_.begin(), elements_.end(),
                     [](const auto& e) { return e.first == 0 && e.second == 0; });
}

unsigned RecordBytes::rowFor(std::string_view name, const Values& values) {
  for (unsigned number = 1; number <= standardLayout().size(); ++number) {
    const Row& row = standardLayout().row(number);
    const auto holds = [&](const auto& entry) {
      const size_t place = row.place(entry.first);
      return entry.second.isZero() ||
             (place < row.fields.size() && entry.second.fits(row.fields[place].type));
    };
    if (row.name == name && std::all_of(values.begin(), values.end(), holds)) return number;
  }
  misuse("no record of these fields", name);
}

void RecordBytes::record(unsigned number, const Values& values) {
  const Row& row = layout_->row(number);
  const std::string& name = standardLayout().row(number).name;
  const size_t timeField = row.place("time");
  uint64_t delta = 0;
  if (name == "add_time" || name == "sub_time") {
    delta = find(values, "time").bits(0, Type::U64);
    running_ += name == "add_time" ? delta : 0 - delta;
    time_ = running_;
  } else if (timeField < row.fields.size()) {
    const uint64_t time = time_, step = time - running_;
    if (time < running_)
      record("sub_time", {{"time", 0 - step}});
    else if (step >> 8 * bytesOf(row.fields[timeField].type) != 0)
      record(step >> 32 == 0 ? 1 : 2, {{"time", step}});
    delta = time - running_;
    running_ = time;
  }

  last_ = {bytes_.size(), running_ - delta};
  put(bytes_, row.number, 1);
  size_t elements = 1, covered = 0;
  bool isCountSet = false;
  for (size_t i = 0; i < row.fields.size(); ++i) {
    const Field& field = row.fields[i];
    const unsigned width = bytesOf(field.type);
    const Value& value = find(values, field.name);
    if (field.isCount) {
      covered = field.covers;
      elements = 0;
      for (size_t k = i + 1; k <= i + covered && k < row.fields.size(); ++k)
        elements = std::max(elements, find(values, row.fields[k].name).size());
      isCountSet = value.size() > 0;
      put(bytes_, isCountSet ? value.bits(0, Type::U64) : elements, width);
    } else if (i == timeField) {
      put(bytes_, delta, width);
    } else {
      // A count that was set by a test ("#1") may differ from the number of elements.
      const size_t written = covered == 0 ? 1 : isCountSet ? value.size() : elements;
      for (size_t k = 0; k < written; ++k) put(bytes_, value.bits(k, field.type), width);
      if (covered > 0) --covered;
    }
  }
}

Stream::Stream(const Layout& layout, std::string_view suffix, uint32_t fileId, uint32_t categories,
               uint32_t threadList)
    : suffix_(suffix),
      fileId_(fileId),
      categories_(categories),
      threadList_(threadList),
      data_(layout),
      anchorData_(layout) {}

Stream& Stream::record(unsigned number, const Values& values) {
  if (chunk_ != 0 && data_.time() != data_.running() && size() - lastAnchor_ >= chunk_)
    anchor(stored_);
  data_.record(number, values);
  return *this;
}

Stream& Stream::forget(const Key& key) {
  const auto at = std::find_if(remembered_.begin(), remembered_.end(),
                               [&](const Remembered& entry) { return entry.key == key; });
  if (at != remembered_.end()) remembered_.erase(at);
  return *this;
}

Stream& Stream::enter(uint32_t thread, uint32_t function, uint32_t scl) {
  record("enter_function", named("willy_gtp function scl", {thread, function, scl}));
  calls_[thread].first.push_back(function);
  calls_[thread].second.push_back(scl);
  return *this;
}

Stream& Stream::leave(uint32_t thread, uint32_t scl) {
  record("leave_function", named("willy_gtp scl", {thread, scl}));
  auto& [functions, scls] = calls_[thread];
  if (functions.empty()) return *this;
  functions.pop_back();
  scls.pop_back();
  return *this;
}

Stream& Stream::enterScope(uint32_t thread, uint32_t scope, uint32_t sequence, uint32_t scl) {
  record("enter_scope", named("willy_gtp scope seqnr scl", {thread, scope, sequence, scl}));
  return remember({thread, scope, sequence});
}

Stream& Stream::leaveScope(uint32_t thread, uint32_t scope, uint32_t sequence, uint32_t scl) {
  record("leave_scope", named("willy_gtp scope seqnr scl", {thread, scope, sequence, scl}));
  return forget({thread, scope, sequence});
}

Stream& Stream::counters(uint32_t thread,
                         const std::vector<std::pair<uint32_t, uint64_t>>& samples) {
  std::vector<uint32_t> ids;
  std::vector<uint64_t> values;
  for (const auto& [id, value] : samples) {
    ids.push_back(id);
    values.push_back(value);
  }
  record("counter_value", named("willy_gtp values counters", {thread, values, ids}));
  for (const uint32_t id : ids) forget({thread, id}).remember({thread, id});
  return *this;
}

Stream& Stream::message(const Message& m) {
  record("one_to_one_communication",
         named("sender_gtp receive_time receiver_gtp communicator size tag sender_function "
               "receiver_function",
               {m.sender, m.receiveTime, m.receiver, m.communicator, m.size, m.tag,
                m.senderFunction, m.receiverFunction}));
  const bool ends = m.receiveTime != kNoReceive && m.receiveTime != kNoSend;
  return remember({},
                  ends ? later(time(), static_cast<uint64_t>(std::abs(m.receiveTime))) : kNever);
}

Stream& Stream::collective(const Collective& c) {
  constexpr std::string_view kNames[] = {"all_communication", "all_to_all_communication",
                                         "all_to_one_communication", "one_to_all_communication"};
  Values values = named("communicator type start_time delta",
                        {c.communicator, c.operation, c.start, c.duration});
  if (c.shape == Shape::AllToAll || c.shape == Shape::AllToOne)
    values.emplace_back("send_size", c.sent);
  if (c.shape == Shape::AllToAll || c.shape == Shape::OneToAll)
    values.emplace_back("receive_size", c.received);
  record(kNames[static_cast<size_t>(c.shape)], values);
  uint64_t span = 0;
  for (size_t i = 0; i < c.start.size() && i < c.duration.size(); ++i) {
    if (c.start[i] != kNotStarted) span = std::max(span, later(c.start[i], c.duration[i]));
  }
  return remember({}, later(time(), span));
}

Stream& Stream::rawMessage(const RawMessage& e) {
  return record("message_raw_event",
                named("willy_gtp kind other_gtp tag size comm function",
                      {e.thread, e.kind, e.other, e.tag, e.size, e.communicator, e.function}));
}

Stream& Stream::rawCollective(const RawCollective& e) {
  return record("collop_raw_event",
                named("willy_gtp kind operation comm counter endtime",
                      {e.thread, e.kind, e.operation, e.communicator, e.counter, e.end}));
}

// Also forgets the records that have ended.
Stream& Stream::anchor(Stored stored) {
  std::erase_if(remembered_, [&](const auto& entry) { return data_.running() >= entry.end; });
  for (const auto& [thread, calls] : calls_) {
    if (stored == Stored::Nothing || calls.first.empty()) continue;
    anchorData_.record("function_history",
                       named("willy_gtp function_stack scls", {thread, calls.first, calls.second}));
  }
  if (stored == Stored::Everything && remembered_.empty() && (categories_ & SCOPES) != 0)
    anchorData_.record("history", {});  // no open scopes
  std::vector<uint32_t> files;
  std::vector<uint64_t> offsets, prevtimes;
  const auto flush = [&] {
    if (files.empty()) return;
    anchorData_.record("history", named("file offset prevtime", {files, offsets, prevtimes}));
    files.clear();
    offsets.clear();
    prevtimes.clear();
  };
  for (auto entry = remembered_.rbegin(); entry != remembered_.rend(); ++entry) {  // in any order
    if (stored == Stored::Nothing || (stored == Stored::NoScopes && entry->key.size() == 3))
      continue;
    files.push_back(fileId_);
    offsets.push_back(entry->place.first);
    prevtimes.push_back(entry->place.second);
    if (files.size() == 255) flush();
  }
  flush();
  anchorData_.record("anchor", {{"time_prev", data_.running()}, {"offset", size()}});
  anchors_.push_back(data_.running());
  lastAnchor_ = size();
  return *this;
}

uint32_t Trace::text(std::string_view text) { return idIn(texts_, std::string(text)); }

Trace& Trace::communicator(uint32_t id, std::string_view name, const std::vector<Triplet>& members,
                           int32_t leftSize) {
  return define("communicator_definition",
                withMembers({{"id", id}, {"name", name}, {"left_size", leftSize}}, members));
}

Stream& Trace::stream(std::string_view suffix, uint32_t categories,
                      const std::vector<uint32_t>& threads) {
  std::vector<Triplet> list;
  for (const uint32_t thread : threads)
    list.push_back({static_cast<int32_t>(thread), static_cast<int32_t>(thread)});
  return streamOf(suffix, categories, list);
}

Stream& Trace::streamOf(std::string_view suffix, uint32_t categories,
                        const std::vector<Triplet>& threads) {
  const auto fileId = static_cast<uint32_t>(0x10003 + 2 * streams_.size());  // anchors: + 1
  return streams_.emplace_back(layout_, suffix, fileId, categories,
                               threads.empty() ? 0 : idIn(lists_, threads));
}

// Header, layout block, the records to which components refer, the components with their anchors.
std::string Trace::index() const {
  RecordBytes records(layout_);
  const auto declareFile = [&](uint32_t id, uint32_t type, const Stream& stream) {
    records.record("file_declaration", named("id filetype suffix", {id, type, stream.suffix_}));
  };
  declareFile(declarations_.fileId_, 2, declarations_);
  for (const Stream& stream : streams_) declareFile(stream.fileId_, 0, stream);
  for (size_t i = 0; i < texts_.size(); ++i)
    records.record("klt_string", named("id string", {i + 1, texts_[i]}));
  for (size_t i = 0; i < lists_.size(); ++i)
    records.record("willy_list", withMembers({{"id", i + 1}}, lists_[i]));
  for (const Stream& stream : streams_) {
    declareFile(stream.fileId_ + 1, 1, stream);
    records.record("anchor_file_declaration", named("anchor_file data_file categories willies",
                                                    {stream.fileId_ + 1, stream.fileId_,
                                                     stream.categories_, stream.threadList_}));
  }
  std::string header("KLT\x40\0\0\0\0\0\0\x14", 11);
  header[7] = static_cast<char>(flags_);
  return header + layout_.block() + records.contents() + extraIndex_.contents();
}

Trace& Trace::declareComponent(uint32_t id, std::string_view suffix, uint32_t categories,
                               uint32_t anchorFile) {
  extraIndex_.record("file_declaration", {{"id", id}, {"suffix", suffix}});
  extraIndex_.record(
      "anchor_file_declaration",
      {{"anchor_file", anchorFile}, {"data_file", id}, {"categories", categories}, {"willies", 1}});
  return *this;
}

TraceFiles Trace::files() const {
  TraceFiles files;
  files.add(" ", index());
  files.add("." + declarations_.suffix_, declarations_.data_.contents());
  for (const Stream& stream : streams_) {
    const bool compress = flags_ == 3 && (stream.categories_ & (FUNCTIONS | RAW_EVENTS)) != 0;
    const std::string& bytes = stream.data_.contents();
    files.add("." + stream.suffix_, compress ? compressed(bytes) : bytes);
    files.add("." + stream.suffix_ + ".anc", stream.anchorData_.contents());
  }
  return files;
}

}  // namespace tb
