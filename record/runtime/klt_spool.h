/* The spool: what a recorded process leaves. The runtime writes it, klt-record --finish reads it.
 *
 * A process has two files in the directory of the run:
 *
 * HOST-PID-N.spool: slots of KLT_SLOT_BYTES bytes. Slot 0 is a klt_spool_header. Each other slot is
 * a klt_spool_slot and its records, all of one thread, with a sequence number. The last slot of a
 * thread is its ring: the slot is mapped, the thread writes its records there, and copies a full
 * ring to a new slot.
 *
 * HOST-PID-N.defs: one klt_spool_def after the other, each with its bytes: names, communicators.
 *
 * So a spool is complete at any moment, also if the process is killed. Numbers have the byte order
 * of the machine. The file is valid C and C++. */
#ifndef KLT_SPOOL_H
#define KLT_SPOOL_H

#include <stdint.h> /* NOLINT(modernize-deprecated-headers) */

#define KLT_SPOOL_MAGIC 0x4c4f4f50534b4c54ULL /* TLKSPOOL in memory */
#define KLT_SLOT_MAGIC 0x544f4c53U            /* SLOT */
#define KLT_SPOOL_VERSION 2U
#define KLT_MOST_THREADS 65536U
#define KLT_SLOT_BYTES 65536U
#define KLT_SLOT_RECORDS ((KLT_SLOT_BYTES - 32U) / 24U)

/* Ticks of a clock, and the same moment on another clock. */
struct klt_clock_pair {
  uint64_t ticks;
  uint64_t other;
};

enum klt_spool_flags {
  KLT_SPOOL_TSC = 1,       /* ticks are of the time stamp counter, otherwise nanoseconds */
  KLT_SPOOL_MPI = 2,       /* MPI has been initialised: rank and size are valid */
  KLT_SPOOL_FINALIZED = 4, /* the record is complete */
  KLT_SPOOL_STOPPED = 8,   /* recording has stopped because of stop_errno */
  KLT_SPOOL_SYNC_START = 16,
  KLT_SPOOL_SYNC_END = 32,
  KLT_SPOOL_SKIPS_POLLS = 64, /* polls that find nothing aren't recorded */
  KLT_SPOOL_OUTSIDERS = 128   /* communicators have processes outside of the run */
};

struct klt_spool_header {
  uint64_t magic;
  uint32_t version;
  uint32_t slot_bytes;
  uint32_t calls;     /* rows in the table of calls, which must be the reader's */
  uint32_t flags;     /* enum klt_spool_flags */
  uint64_t job;       /* the same in all processes of a run */
  uint64_t host_hash; /* equal if two processes have the same clock */
  uint32_t pid;
  uint32_t rank;
  uint32_t size;
  uint32_t stop_errno;
  uint64_t start; /* ticks at which main began */
  uint64_t stop;  /* ticks at which recording stopped or was complete; 0 otherwise */
  /* This host's ticks and its CLOCK_MONOTONIC in nanoseconds, at the start and last. */
  struct klt_clock_pair first;
  struct klt_clock_pair last;
  /* Of the process that has measured the clock of this host: its ticks and those of process 0, at
   * Init and at Finalize. */
  struct klt_clock_pair sync[2];
  uint64_t realtime; /* CLOCK_REALTIME at the start, in nanoseconds */
  uint32_t threads;  /* that have been started; KLT_MOST_THREADS at most are recorded */
  char host[64];
  char program[256];
};

struct klt_spool_slot {
  uint32_t magic;
  uint32_t thread;
  uint64_t sequence;
  uint64_t used; /* records that follow */
  uint64_t reserved;
};

enum klt_record_kind {
  KLT_NONE = 0,
  KLT_ENTER,       /* a: call */
  KLT_LEAVE,       /* a: call */
  KLT_ENTER_CODE,  /* wide: address of the function */
  KLT_LEAVE_CODE,  /* wide: address of the function */
  KLT_ENTER_USER,  /* a: KLT_DEF_FUNCTION */
  KLT_LEAVE_USER,  /* a: KLT_DEF_FUNCTION */
  KLT_SEND,        /* small: communicator, a: bytes, b: tag, c: process */
  KLT_RECEIVE,     /* the same; the high half of c numbers the receives as they are posted */
  KLT_TAKE_BACK,   /* the send with number `wide` of thread a has not happened */
  KLT_COLLECTIVE,  /* detail: enum klt_operation, small: communicator, a: sent, b: received, c: root
                    */
  KLT_ICOLLECTIVE, /* the same, and it goes on after its call */
  KLT_COMPLETED,   /* the ICOLLECTIVE with number `wide` of thread a */
  KLT_FILE_BEGIN,  /* detail: 1 read, 2 write, small: file, a: bytes */
  KLT_FILE_END,    /* the same */
  KLT_SAMPLE,      /* small: counter, detail: 1 for a double, wide: value */
  KLT_SCOPE_BEGIN, /* a: KLT_DEF_SCOPE, b: instance */
  KLT_SCOPE_END,   /* the same */
  KLT_COMMENT      /* a: KLT_DEF_COMMENT */
};

struct klt_record {
  uint64_t time; /* ticks */
  uint8_t kind;
  uint8_t detail;
  uint16_t small;
  uint32_t a;
  union {
    struct {
      uint32_t b;
      uint32_t c;
    } two;
    uint64_t wide;
  } u;
};

enum klt_def_kind {
  KLT_DEF_COMMUNICATOR = 1, /* klt_def_communicator and its members */
  KLT_DEF_COMM_NAME,        /* id; text */
  KLT_DEF_FILE,             /* id, other: communicator; text */
  KLT_DEF_FUNCTION,         /* id; text */
  KLT_DEF_SCOPE,            /* id; text */
  KLT_DEF_COUNTER,          /* id, other: 1 for doubles; text: name, newline, unit */
  KLT_DEF_COMMENT,          /* id; text */
  KLT_DEF_MAPS              /* text: the executable lines of /proc/self/maps */
};

/* Followed by `bytes` bytes. */
struct klt_spool_def {
  uint32_t kind;
  uint32_t bytes;
  uint32_t id;
  uint32_t other;
};

/* A communicator, followed by the processes of its members as uint32_t. What makes it the same on
 * all members: its parent, the call that made it, the tag and the members; and, if these are equal,
 * the order. */
struct klt_def_communicator {
  uint32_t parent; /* id in this process; 0: none */
  uint32_t call;   /* that made it; 0: predefined */
  int32_t tag;
  int32_t left_size; /* of an intercommunicator, otherwise -2 */
  uint32_t members;
};

/* A process outside of the run. */
#define KLT_NO_PROCESS 0xffffffffU

#endif
