// Handlers that look at every byte they are given, so that a sanitizer sees what is wrong with it,
// and passes that use them.
#pragma once

#include <cstdint>
#include <cstring>
#include <type_traits>
#include <vector>

#include "klt/klt.h"

namespace tb {

// Sums up what handlers are given, so that every byte of it is looked at.
struct Seen {
  uint64_t sum = 0, count = 0;

  template <class T>
  void look(T value) {
    if constexpr (std::is_same_v<T, const char*>) {
      if (value != nullptr) sum += std::strlen(value);
    } else if constexpr (std::is_pointer_v<T>) {
      // Arrays follow the count of their elements.
      for (uint64_t i = 0; value != nullptr && i < count; ++i) lookAt(value[i]);
    } else {
      sum += static_cast<uint64_t>(value != T{});
      if constexpr (std::is_same_v<T, uint32_t>) count = value;
    }
  }
  template <class T>
  void lookAt(const T& element) {
    if constexpr (std::is_same_v<T, PAL_Triplet>) {
      sum += static_cast<uint32_t>(element.first) ^ static_cast<uint32_t>(element.last) ^
             static_cast<uint32_t>(element.stride);
    } else if constexpr (std::is_pointer_v<T>) {
      if (element != nullptr) sum += std::strlen(element);
    } else {
      sum += static_cast<uint64_t>(element != T{});
    }
  }
};

template <class... Arguments>
int touch(void* seen, Arguments... arguments) {
  (static_cast<Seen*>(seen)->look(arguments), ...);
  return 0;
}

inline int touchCounter(void* user, uint32_t id, const char* name, uint32_t type,
                        const uint64_t* bounds, uint32_t thread, uint32_t counterClass,
                        const char* unit) {
  return touch(user, id, name, type, uint32_t{2}, bounds, thread, counterClass, unit);
}

// A handler in every slot, for `seen`.
inline KLT_HandlerTable touchingTable(Seen& seen) {
  KLT_HandlerTable table;
  table.user_data = &seen;
  table.all_to_all_communication = &touch;
  table.all_to_one_communication = &touch;
  table.begin_of_history = &touch;
  table.class_definition = &touch;
  table.clock_resolution = &touch;
  table.all_communication = &touch;
  table.collective_operation_definition = &touch;
  table.collop_statistics = &touch;
  table.collop_profile = &touch;
  table.collop_raw_event = &touch;
  table.comment = &touch;
  table.communicator_definition = &touch;
  table.counter_definition = &touchCounter;
  table.counter_value = &touch;
  table.custom_statistics_definition = &touch;
  table.custom_statistics = &touch;
  table.duration = &touch;
  table.end_of_filter = &touch;
  table.end_of_history = &touch;
  table.enter_function = &touch;
  table.enter_scope = &touch;
  table.event_summary = &touch;
  table.file_io_begin = &touch;
  table.file_io_end = &touch;
  table.file_io_file_definition = &touch;
  table.function_profile = &touch;
  table.function_definition = &touch;
  table.function_history = &touch;
  table.function_statistics = &touch;
  table.group_definition = &touch;
  table.info = &touch;
  table.leave_function = &touch;
  table.leave_scope = &touch;
  table.lw_statistics = &touch;
  table.message_raw_event = &touch;
  table.one_to_all_communication = &touch;
  table.one_to_one_communication = &touch;
  table.onetoone_profile = &touch;
  table.onetoone_statistics = &touch;
  table.opaque_data = &touch;
  table.report = &touch;
  table.scl_definition = &touch;
  table.file_definition = &touch;
  table.scope_definition = &touch;
  table.process_declaration = &touch;
  table.willy_definition = &touch;
  table.willy_name = &touch;
  return table;
}

// One pass to its end. A stream that fails leaves the others; corruption without time order may be
// met once a stream.
inline void touchAll(KLT_FileHandle* trace, int mode, const std::vector<KLT_Request>& requests,
                     int serial) {
  constexpr int kMostFailures = 1000;
  Seen seen;
  const KLT_HandlerTable table = touchingTable(seen);
  std::vector<const KLT_Request*> pointers;
  pointers.reserve(requests.size());
  for (const KLT_Request& request : requests) pointers.push_back(&request);
  const KLT_OwnedReader reader(KLT_OpenReader(trace, mode, static_cast<uint32_t>(pointers.size()),
                                              pointers.data(), &table, serial));
  for (int step = 0; reader != nullptr && step < kMostFailures; ++step) {
    const int status = KLT_ReadEvents(reader.get(), -1);
    if (status == KLT_STATUS_FINISHED || status == KLT_STATUS_ABORTING) break;
  }
}

}  // namespace tb
