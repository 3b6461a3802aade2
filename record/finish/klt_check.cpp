// Looks at a merged trace. See klt_check.h.
#include "record/finish/klt_check.h"

#include <algorithm>
#include <limits>

#include "klt/klt.h"

namespace record {
namespace {

constexpr uint32_t kMessages = 0x80;  // the category

int countMessage(void* user, uint64_t /*time*/, uint32_t /*sender*/, int64_t receiveTime,
                 uint32_t /*receiver*/, uint32_t /*communicator*/, uint32_t /*size*/,
                 uint32_t /*tag*/, uint32_t /*senderScl*/, uint32_t /*receiverScl*/,
                 uint32_t /*senderChecksum*/, uint32_t /*receiverChecksum*/,
                 uint32_t /*senderFunction*/, uint32_t /*receiverFunction*/) {
  constexpr int64_t kUnknown = std::numeric_limits<int64_t>::min() + 1;  // and the one below it
  TraceCheck& check = *static_cast<TraceCheck*>(user);
  ++check.messages;
  if (receiveTime <= kUnknown) {
    ++check.unmatched;
  } else if (receiveTime < 0) {
    ++check.early;
    check.worst = std::max(check.worst, static_cast<uint64_t>(-receiveTime));
  }
  return 0;
}

}  // namespace

TraceCheck checkTrace(const std::string& name) {
  TraceCheck check;
  const KLT_OwnedTrace trace(KLT_Open(name.c_str()));
  if (trace == nullptr) return check;
  KLT_HandlerTable table;
  table.user_data = &check;
  table.one_to_one_communication = &countMessage;
  KLT_Request request;
  request.categories = kMessages;
  const KLT_Request* const requests[] = {&request};
  const KLT_OwnedReader reader(
      KLT_OpenReader(trace.get(), KLT_MODE_EVENTS, 1, requests, &table, 1));
  if (reader == nullptr) return check;
  int status = KLT_STATUS_CONTINUING;
  while (status == KLT_STATUS_CONTINUING) status = KLT_ReadEvents(reader.get(), -1);
  check.isRead = status == KLT_STATUS_FINISHED;
  return check;
}

}  // namespace record
