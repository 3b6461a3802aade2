// Extracts a trace, or the selected part of it, as text or as a new trace, and prints listings.
//
// An extraction consists of passes (kltt_pass). The setup pass reads clock and process layout, the
// definition pass fills the tables and writes the definitions, the event pass writes the events
// that the requests select. The handlers are in kltt_tables, kltt_events, kltt_messages,
// kltt_collops and kltt_print.
#pragma once

#include <cstdint>

struct KLTT_Context;
struct KLT_FileHandle;
struct KLT_HandlerTable;

// Sets of handlers, combined by |.
inline constexpr uint32_t KLTT_SET_TRACE = 0x001;       // definitions, histories, communication
inline constexpr uint32_t KLTT_SET_STATISTICS = 0x008;  // precomputed statistics
inline constexpr uint32_t KLTT_SET_CLOCK = 0x010;       // clock resolution, duration
inline constexpr uint32_t KLTT_SET_PROCESSES = 0x020;   // process declaration
inline constexpr uint32_t KLTT_SET_PERFTEST = 0x080;    // gathers collective operations
inline constexpr uint32_t KLTT_SET_EVENTS = 0x100;      // calls, scopes, file I/O, counters, texts
inline constexpr uint32_t KLTT_SET_REPORTS = 0x200;     // of a message checker

// Clears `table` and fills it with the handlers of `sets`, for `context`.
void KLTT_InitHandlers(KLT_HandlerTable& table, KLTT_Context& context, uint32_t sets);

// Runs the extraction that RK_conf describes on an open trace; `serial` is passed to the readers.
// Returns the exit status of the process: 0, 2 if a part of the trace couldn't be read, 4 if a
// handler failed, 1 if the output couldn't be completed. Ends the process if a failure leaves no
// stream to read, if the output can't be opened, or if text can't be written during a pass.
[[nodiscard]] int KLTT_Extract(KLT_FileHandle* handle, int serial);
