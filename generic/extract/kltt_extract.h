// Extraction: the passes over a trace that turn it, or what the user asks of it, into text.
//
// A pass fills a handler table, opens a reader, steps it to its end and judges its statuses. The
// setup pass learns clock and process layout, the definition pass fills and writes the definitions,
// the event pass writes what the requests select. Handlers: kltt_tables, kltt_events, kltt_collops,
// kltt_print.
#pragma once

#include <cstdint>

struct KLTT_Context;
struct KLT_FileHandle;
struct KLT_HandlerTable;

// Sets of handlers, to be combined.
inline constexpr uint32_t KLTT_SET_TRACE = 0x001;       // definitions, histories, communication
inline constexpr uint32_t KLTT_SET_STATISTICS = 0x008;  // precomputed statistics
inline constexpr uint32_t KLTT_SET_CLOCK = 0x010;       // clock resolution, duration
inline constexpr uint32_t KLTT_SET_PROCESSES = 0x020;   // process declaration
inline constexpr uint32_t KLTT_SET_PERFTEST = 0x080;    // collective operations are gathered
inline constexpr uint32_t KLTT_SET_EVENTS = 0x100;      // calls, scopes, file I/O, counters, texts
inline constexpr uint32_t KLTT_SET_REPORTS = 0x200;     // of a message checker

// Clears `table` and fills it with the handlers of `sets`, for `context`.
void KLTT_InitHandlers(KLT_HandlerTable& table, KLTT_Context& context, uint32_t sets);

// Runs the extraction that RK_conf describes on an open trace; `serial` is handed to the readers.
// Returns the exit status of the process: 0, 2 if a stream failed and others went on, 4 if a
// handler failed, 1 if the output couldn't be written. Doesn't return if nothing could be read or
// opened.
[[nodiscard]] int KLTT_Extract(KLT_FileHandle* handle, int serial);
