// Writes the records of one thread. See klt_thread.h.
#include "record/convert/klt_thread.h"

#include <algorithm>
#include <bit>

namespace record {
namespace {

// What distinguishes functions of different kinds with the same number.
constexpr uint64_t kCall = uint64_t{1} << 62;
constexpr uint64_t kUser = uint64_t{1} << 63;
constexpr uint64_t kMainIdentity = ~uint64_t{0};

uint32_t idOf(const std::unordered_map<uint32_t, uint32_t>& table, uint32_t local) {
  const auto found = table.find(local);
  return found == table.end() ? 0 : found->second;
}

}  // namespace

CrossReferences::CrossReferences(std::span<const ThreadRecords> threads) {
  for (const ThreadRecords& thread : threads) {
    for (const auto& part : thread.parts) {
      for (const klt_record& record : part) {
        if (record.kind == KLT_COMPLETED) completed[keyOf(record.a, record.u.wide)] = record.time;
        if (record.kind == KLT_TAKE_BACK) takenBack[keyOf(record.a, record.u.wide)] = true;
      }
    }
  }
}

uint64_t ThreadWriter::timeOf(uint64_t ticks) {
  const double time = line_.at(ticks);
  if (time > static_cast<double>(last_)) last_ = static_cast<uint64_t>(time);
  return last_;
}

void ThreadWriter::write(const ThreadRecords& records, uint64_t start, uint64_t stop) {
  ReceiveOrder order(records.parts);
  end_ = stop;
  for (const auto& part : records.parts) {
    if (!part.empty()) end_ = std::max(end_, part.back().time);
  }
  if (start != 0) {
    end_ = std::max(end_, start);
    enter(timeOf(start), names_.mainFunction(), kMainIdentity);
  }
  uint64_t number = 0;
  for (const auto& part : records.parts) {
    for (const klt_record& record : part) put(record, number++, order);
  }
  if (collective_.kind != KLT_NONE) finishCollective(end_);
  while (!stack_.empty()) {
    KLT_PutLeave(writer_, timeOf(end_), gtp_);
    stack_.pop_back();
  }
}

void ThreadWriter::enter(uint64_t time, uint32_t function, uint64_t identity) {
  stack_.push_back({function, identity});
  KLT_PutEnter(writer_, time, gtp_, function);
}

// Leaves a function and those within it that have no end, because of longjmp or of a pause. A
// function that hasn't been entered isn't left.
void ThreadWriter::leave(uint64_t time, uint64_t identity) {
  const auto found = std::find_if(stack_.rbegin(), stack_.rend(), [identity](const Call& call) {
    return call.identity == identity;
  });
  if (found == stack_.rend()) return;
  const auto depth = static_cast<size_t>(stack_.rend() - found) - 1;
  while (stack_.size() > depth) {
    KLT_PutLeave(writer_, time, gtp_);
    stack_.pop_back();
  }
}

void ThreadWriter::put(const klt_record& record, uint64_t number, ReceiveOrder& order) {
  switch (record.kind) {
    case KLT_ENTER:
      enter(timeOf(record.time), names_.callFunction(record.a), kCall | record.a);
      return;
    case KLT_LEAVE:
      if (collective_.kind != KLT_NONE) finishCollective(record.time);
      leave(timeOf(record.time), kCall | record.a);
      return;
    case KLT_ENTER_CODE:
      if (const uint32_t function = names_.codeFunction(ids_, record.u.wide); function != 0)
        enter(timeOf(record.time), function, record.u.wide);
      return;
    case KLT_LEAVE_CODE:
      leave(timeOf(record.time), record.u.wide);
      return;
    case KLT_SEND:
      if (!references_.takenBack.empty() &&
          references_.takenBack.contains(CrossReferences::keyOf(gtp_ >> 16, number)))
        return;
      putMessage(KLT_RawKind::kSend, record);
      return;
    case KLT_RECEIVE:
      if (!order.isNeeded()) {
        putMessage(KLT_RawKind::kReceive, record);
        return;
      }
      for (const klt_record& one : order.next(record)) putMessage(KLT_RawKind::kReceive, one);
      return;
    case KLT_COLLECTIVE:
      collective_ = record;
      return;
    case KLT_ICOLLECTIVE: {
      const auto done = references_.completed.find(CrossReferences::keyOf(gtp_ >> 16, number));
      putCollective(record, done == references_.completed.end() ? end_ : done->second);
      return;
    }
    default:
      putOther(record, timeOf(record.time));
  }
}

void ThreadWriter::putMessage(KLT_RawKind kind, const klt_record& record) {
  const uint32_t comm = idOf(ids_.communicators, record.small);
  if (comm == 0) return;
  // Not timeOf: a receive that has waited for its place has an earlier time.
  const double exact = line_.at(record.time);
  const uint64_t time = exact > 0 ? static_cast<uint64_t>(exact) : 0;
  last_ = std::max(last_, time);
  KLT_PutRawMessage(writer_, kind, {time, gtp_, stack_.empty() ? 0 : stack_.back().function},
                    record.u.two.c & 0xffff, {comm, record.u.two.b, record.a});
}

void ThreadWriter::finishCollective(uint64_t end) {
  putCollective(collective_, end);
  collective_.kind = KLT_NONE;
}

void ThreadWriter::putCollective(const klt_record& record, uint64_t end) {
  const uint32_t comm = idOf(ids_.communicators, record.small);
  if (comm == 0) return;
  const uint64_t begin = timeOf(record.time);
  // The end lies ahead, so it isn't the last time yet.
  const double exact = line_.at(end);
  const uint64_t ended = std::max(begin, exact > 0 ? static_cast<uint64_t>(exact) : 0);
  KLT_PutRawCollective(writer_, gtp_, Names::collectiveOperation(record.detail), comm,
                       record.u.two.c, ++counters_[comm], {begin, ended, record.a, record.u.two.b});
}

void ThreadWriter::putFile(const klt_record& record, uint64_t time) {
  const uint32_t file = idOf(ids_.files, record.small);
  if (file == 0) return;
  const auto operation = record.detail == 1 ? KLT_FileOperation::kRead : KLT_FileOperation::kWrite;
  if (record.kind == KLT_FILE_BEGIN)
    KLT_PutFileBegin(writer_, time, gtp_, operation, file, record.a);
  else
    KLT_PutFileEnd(writer_, time, gtp_, operation, file, record.a);
}

void ThreadWriter::putOther(const klt_record& record, uint64_t time) {
  switch (record.kind) {
    case KLT_ENTER_USER:
      if (const uint32_t function = idOf(ids_.functions, record.a); function != 0)
        enter(time, function, kUser | record.a);
      return;
    case KLT_LEAVE_USER:
      leave(time, kUser | record.a);
      return;
    case KLT_FILE_BEGIN:
    case KLT_FILE_END:
      putFile(record, time);
      return;
    case KLT_SAMPLE: {
      const uint32_t counter = idOf(ids_.counters, record.small);
      if (counter != 0)
        KLT_PutSample(writer_, time, gtp_, counter, std::bit_cast<int64_t>(record.u.wide));
      return;
    }
    case KLT_SCOPE_BEGIN:
      if (const uint32_t scope = idOf(ids_.scopes, record.a); scope != 0)
        KLT_PutScopeBegin(writer_, time, gtp_, scope, record.u.two.b);
      return;
    case KLT_SCOPE_END:
      if (const uint32_t scope = idOf(ids_.scopes, record.a); scope != 0)
        KLT_PutScopeEnd(writer_, time, gtp_, scope, record.u.two.b);
      return;
    case KLT_COMMENT:
      if (const auto text = ids_.comments.find(record.a); text != ids_.comments.end())
        KLT_PutComment(writer_, time, gtp_, text->second.c_str());
      return;
    default:
      return;
  }
}

}  // namespace record
