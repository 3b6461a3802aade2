// Counts the messages of each pair of threads in a trace and their bytes.
//
// Usage: messages TRACE
#include <cstdint>
#include <cstdio>
#include <map>
#include <utility>

#include "klt/klt.h"

namespace {

struct Total {
  uint64_t messages = 0;
  uint64_t bytes = 0;
};
using Totals = std::map<std::pair<uint32_t, uint32_t>, Total>;  // by sender and receiver

// The number of a thread has the process in its low 16 bits and the thread within the process
// above.
unsigned processOf(uint32_t gtp) { return gtp & 0xffff; }
unsigned threadOf(uint32_t gtp) { return gtp >> 16; }

// Called for each message, with the table's `user_data` as first argument. Returns 0 to continue.
int count(void* user, uint64_t /*time*/, uint32_t sender, int64_t /*receive_time*/,
          uint32_t receiver, uint32_t /*communicator*/, uint32_t size, uint32_t /*tag*/,
          uint32_t /*sender_scl*/, uint32_t /*receiver_scl*/, uint32_t /*sender_checksum*/,
          uint32_t /*receiver_checksum*/, uint32_t /*sender_function*/,
          uint32_t /*receiver_function*/) {
  Total& total = (*static_cast<Totals*>(user))[{sender, receiver}];
  ++total.messages;
  total.bytes += size;
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fputs("usage: messages TRACE\n", stderr);
    return 1;
  }
  KLT_FileHandle* trace = KLT_Open(argv[1]);  // reports errors itself
  if (trace == nullptr) return 1;
  Totals totals;
  KLT_HandlerTable table;
  table.user_data = &totals;
  table.one_to_one_communication = &count;
  KLT_Reader* reader = KLT_OpenReader(trace, KLT_MODE_EVENTS, 0, nullptr, &table, 1);
  int status = KLT_STATUS_ABORTING;
  if (reader != nullptr) {
    do {
      status = KLT_ReadEvents(reader, -1);
    } while (status == KLT_STATUS_CONTINUING);  // a component is damaged, others continue
    KLT_CloseReader(reader);
  }
  KLT_Close(trace);
  for (const auto& [pair, total] : totals) {
    std::printf("%u:%u -> %u:%u  %llu messages, %llu bytes\n", processOf(pair.first),
                threadOf(pair.first), processOf(pair.second), threadOf(pair.second),
                static_cast<unsigned long long>(total.messages),
                static_cast<unsigned long long>(total.bytes));
  }
  return status == KLT_STATUS_FINISHED ? 0 : 1;
}
