// Wait states: who waits in a call, how long, and for whom. docs/analysis.md defines the kinds.
//
// The call of a message's side is the outermost MPI call of the thread that contains the side's
// time, ends included. A message is judged when its receiver's call has ended and the time is past
// that: then all events up to that time are known, whatever the order of events of the same time.
// A moment of a call counts once for each side of messages, so that the waiting times of a call are
// never longer than the call.
#pragma once

#include <cstdint>
#include <vector>

#include "analyze/core/kla_calls.h"
#include "analyze/core/kla_keys.h"
#include "analyze/core/kla_types.h"

namespace kla {

enum class WaitKind : uint8_t {
  kLateSender,
  kLateReceiver,
  kWrongOrder,
  kBarrier,
  kNxN,
  kLateBroadcast,
  kEarlyReduce,
  kCompletion,
};
inline constexpr const char* kWaitKinds[] = {"late_sender",  "late_receiver", "wrong_order",
                                             "barrier",      "nxn",           "late_broadcast",
                                             "early_reduce", "completion"};

// A wait of one thread.
struct Wait {
  WaitKind kind;
  uint32_t thread;    // index in Calls
  uint32_t cause;     // the thread that is late; kNone: unknown
  uint32_t function;  // the call that waits
  Time from, to;
};

// Called for each wait, in no order. Null functions aren't called.
struct WaitObserver {
  void* user = nullptr;
  void (*wait)(void* user, const Wait& wait) = nullptr;
};

class Waits {
 public:
  struct Row {
    WaitKind kind;
    uint32_t thread, cause, function;
    uint64_t count = 0;
    Time ticks = 0;
  };
  // What gives no waiting time although it may have been waited for.
  struct Missing {
    uint64_t outside = 0;  // messages with a side outside MPI calls
    uint64_t cut = 0;      // messages with a side outside the window
    uint64_t unseen = 0;   // operations with members whose times are unknown
  };

  explicit Waits(Calls& calls) : calls_(calls) {}

  WaitObserver observer;
  Window window;

  // Sets the time of the next event.
  void advance(Time time) {
    if (time > now_) {
      if (!ended_.empty()) judge();
      now_ = time;
    }
  }
  // An outermost MPI call has ended.
  void mpiCall(uint32_t thread, uint32_t function, Time enter, Time leave) {
    ended_.push_back({thread, function, enter, leave});
  }
  struct Message {
    uint32_t sender, receiver;  // threads
    Time sent, received;
    bool senderInMpi, receiverInMpi;  // false if the side's function isn't one of MPI
  };
  void message(const Message& message);
  // A part of a collective operation of one thread; it begins at `start` and ends at `end`. `wait`
  // has the function to take if no MPI call overlaps with this part. Empty waits are ignored.
  void part(Time start, Time end, const Wait& wait);
  // The end of the pass. REQUIRES: all calls have ended, at the latest at the end of the window.
  void finish();

  [[nodiscard]] const std::vector<Row>& rows() const { return rows_; }
  Missing missing;

 private:
  // A message on its way, in the list of its receiver in the order in which they were sent.
  struct Open {
    Message message;
    uint32_t before, after;
    uint8_t references;  // the sender's and the receiver's lists
    uint32_t function;   // of the sender's call
    Time enter, leave;   // of the sender's call, if it is known
    bool isKnown;
  };
  struct Part {
    Time start, end;
    Wait wait;
  };
  struct Pending {  // by time, the earliest first
    Time time, sent;
    uint32_t index;
    bool operator<(const Pending& other) const {
      return time != other.time ? time > other.time : sent > other.sent;
    }
  };
  struct State {
    std::vector<uint32_t> sends;
    std::vector<Pending> receives;           // a heap
    std::vector<Pending> parts;              // a heap
    uint32_t first = kNone, last = kNone;    // the list of open messages to this thread
    Time lateEnter = kNever, lateUntil = 0;  // what counts already as waiting for receivers
    size_t most = 64;  // messages in the lists, before those outside of MPI calls are removed
  };
  struct Ended {
    uint32_t thread, function;
    Time enter, leave;
  };

  State& stateOf(uint32_t thread);
  void judge();
  void removeOutside(uint32_t thread);
  void findSends(const Ended& call);
  void judgeReceives(const Ended& call);
  void judgeParts(const Ended& call);
  [[nodiscard]] bool findSender(Open& open) const;
  [[nodiscard]] bool beginsAt(uint32_t thread, Time time) const;
  void judgeMessage(const Ended& call, Open& open, bool overtakes, Time& until);
  void unlink(uint32_t index);
  void release(uint32_t index);
  void book(WaitKind kind, uint32_t thread, uint32_t function, uint32_t cause, Time from, Time to);

  Calls& calls_;
  Time now_ = 0;
  std::vector<State> states_;  // by thread
  std::vector<Ended> ended_;   // calls that ended at `now_`
  std::vector<Open> messages_;
  std::vector<uint32_t> freeMessages_;
  std::vector<Part> parts_;
  std::vector<uint32_t> freeParts_;
  KeyIndex pairs_, keys_;
  std::vector<Row> rows_;
};

}  // namespace kla
