// Decodes, filters and merges a trace's events and discards the records, to measure the cost of
// reading alone. Prints the number of records delivered.
//
// Usage: decode_pass TRACE
#include <cstdint>
#include <cstdio>

#include "klt/format/klt_handlers.h"
#include "klt/klt.h"

namespace {

uint64_t records = 0;

template <auto Member>
struct Counter;
template <class... Args, int (*KLT_HandlerTable::*Member)(void*, Args...)>
struct Counter<Member> {
  static int call(void*, Args...) {
    ++records;
    return 0;
  }
};

template <auto... Member>
void count(KLT_HandlerTable& table) {
  ((table.*Member = &Counter<Member>::call), ...);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fputs("usage: decode_pass TRACE\n", stderr);
    return 1;
  }
  KLT_FileHandle* trace = KLT_Open(argv[1]);
  if (trace == nullptr) return 1;
  using Table = KLT_HandlerTable;
  Table table;
  count<&Table::enter_function, &Table::leave_function, &Table::one_to_one_communication,
        &Table::message_raw_event, &Table::collop_raw_event, &Table::all_communication,
        &Table::all_to_all_communication, &Table::all_to_one_communication,
        &Table::one_to_all_communication, &Table::enter_scope, &Table::leave_scope,
        &Table::counter_value>(table);
  KLT_Reader* reader = KLT_OpenReader(trace, KLT_MODE_EVENTS, 0, nullptr, &table, 1);
  const int status = KLT_ReadEvents(reader, -1);
  KLT_CloseReader(reader);
  KLT_Close(trace);
  std::printf("%llu\n", static_cast<unsigned long long>(records));
  return status == KLT_STATUS_FINISHED ? 0 : 1;
}
