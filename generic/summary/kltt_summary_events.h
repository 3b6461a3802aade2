// The arguments of the summary's operations for records with many fields.
#pragma once

#include <cstdint>

// The arrays of a collective operation, a number for each of `n` members; null if the record has
// none.
struct KLTT_SumMembers {
  uint32_t n = 0;
  const uint64_t* start_time = nullptr;
  const uint64_t* delta = nullptr;
  const uint32_t* send_size = nullptr;
  const uint32_t* receive_size = nullptr;
  const uint32_t* scl = nullptr;
};

// A message; `time` and `duration` are those of its record, including the values for unknown times.
struct KLTT_SumMessage {
  uint64_t time = 0;
  int64_t duration = 0;
  uint32_t sender = 0;
  uint32_t receiver = 0;
  uint32_t communicator = 0;
  uint32_t size = 0;
  uint32_t tag = 0;
  uint32_t senderScl = 0;
  uint32_t receiverScl = 0;
  uint32_t senderFunction = 0;
  uint32_t receiverFunction = 0;
};

// A report with its `n` entries; null texts are empty.
struct KLTT_SumReport {
  uint64_t time = 0;
  uint32_t thread = 0;
  const char* type = nullptr;
  const char* level = nullptr;
  const char* description = nullptr;
  uint32_t n = 0;
  const uint64_t* times = nullptr;
  const uint32_t* willys = nullptr;
  const char* const* headers = nullptr;
  const uint32_t* functions = nullptr;
  const char* const* calls = nullptr;
  const uint32_t* scls = nullptr;
};
