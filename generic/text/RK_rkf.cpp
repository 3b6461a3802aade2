// The line writers of RKF. Each function appends the parts of its line from left to right.
#include "generic/text/RK_rkf.h"

#include <algorithm>
#include <bit>

#include "generic/text/RK_line.h"
#include "klt/format/klt_spans.h"
#include "klt/format/klt_values.h"

namespace {

using klt::isScl;

void putScl(RK_Line& line, uint32_t scl) {
  if (isScl(scl)) line.fixed(" SCL ").i32(scl);
}

int finishSide(RK_Line& line, const RK_Output* out, const RK_MessageSide& side) {
  putScl(line, side.scl);
  if (side.function != 0 && out->extended) line.fixed(" FUNCTION ").u32(side.function);
  return line.end();
}

int finish(RK_Line& line, uint32_t scl) {
  putScl(line, scl);
  return line.end();
}

// The 64-bit value of an integer counter as two 32-bit halves, the high one first.
void putHalves(RK_Line& line, uint64_t value) {
  line.fixed(" ").u32(static_cast<uint32_t>(value >> 32));
  line.fixed(" ").u32(static_cast<uint32_t>(value));
}

int writeCounts(RK_Line& line, std::span<const uint32_t> counts) {
  for (const uint32_t count : counts) line.fixed(" ").i32(count).room();
  return line.end();
}

// KEYWORD %d "%s"
template <size_t N>
int writeNamed(RK_Output* out, const char (&keyword)[N], uint32_t id, const char* name) {
  RK_Line line(out);
  return line.fixed(keyword).i32(id).fixed(" \"").text(name).fixed("\"").end();
}

void putOperation(RK_Line& line, uint32_t operation) {
  switch (operation) {
    case 1:
      line.fixed("READ");
      break;
    case 2:
      line.fixed("WRITE");
      break;
    default:
      line.fixed("?");
      break;
  }
}

template <size_t N>
int writeScopeEvent(RK_Output* out, uint64_t time, const char (&keyword)[N], uint32_t gtp,
                    uint32_t scope, uint32_t seqnr, uint32_t scl) {
  if (!out->extended) return RK_OutputFailed(out);
  RK_Line line(out);
  line.time(time).fixed(keyword).u32(gtp + 1);
  line.fixed(" SCOPE ").u32(scope).fixed(" SEQNR ").u32(seqnr);
  if (isScl(scl)) line.fixed(" SCL ").u32(scl);
  return line.end();
}

template <size_t N>
void putNonzero(RK_Line& line, const char (&keyword)[N], uint32_t value) {
  if (value != 0) line.fixed(keyword).u32(value);
}

template <size_t N>
void putArray(RK_Line& line, const char (&keyword)[N], const uint32_t* values, uint32_t n) {
  if (!values) return;
  line.fixed(keyword);
  for (uint32_t i = 0; i < n; i++) line.fixed(" ").u32(values[i]).room();
}

// The values of the members with a known start; "UNKNOWN" for the others.
void putTimes(RK_Line& line, const uint64_t* starts, const uint64_t* values, uint64_t offset,
              uint32_t n) {
  for (uint32_t i = 0; i < n; i++) {
    if (klt::isUnknownStart(starts[i])) {
      line.fixed(" UNKNOWN");
    } else {
      line.fixed(" ").u64(values[i] + offset);
    }
    line.room();
  }
}

void putKind(RK_Line& line, uint32_t kind) {
  switch (static_cast<klt::CollopKind>(kind)) {
    case klt::CollopKind::kOneToAll:
      line.fixed("ONETOALL");
      break;
    case klt::CollopKind::kAllToOne:
      line.fixed("ALLTOONE");
      break;
    case klt::CollopKind::kAllToAll:
      line.fixed("ALLTOALL");
      break;
    case klt::CollopKind::kAll:
      line.fixed("ALL");
      break;
    default:
      line.fixed("UNDEFINED");
      break;
  }
}

}  // namespace

char* RK_Line::drain(RK_Output* output, char* p) {
  output->pos = p;
  RK_OutputDrain(output);
  return output->pos;
}

char* RK_Line::appendText(RK_Output* output, char* p, const char* text, bool oneLine) {
  constexpr size_t kChunk = RK_Output::kSlack / 2;
  if (!text) text = "(null)";
  for (size_t left = strlen(text); left > 0;) {
    const size_t bytes = std::min(left, kChunk);
    memcpy(p, text, bytes);
    if (oneLine) std::replace(p, p + bytes, '\n', ' ');
    p += bytes;
    text += bytes;
    left -= bytes;
    if (p >= output->limit) p = drain(output, p);
  }
  return p;
}

int RK_WriteNcpus(RK_Output* out, std::span<const uint32_t> counts) {
  RK_Line line(out);
  return writeCounts(line.fixed("NCPUS"), counts);
}

int RK_WriteThreadNums(RK_Output* out, std::span<const uint32_t> counts) {
  RK_Line line(out);
  return writeCounts(line.fixed("DEFTHREADNUMS"), counts);
}

int RK_WriteCpuSym(RK_Output* out, uint32_t gtp, const char* name) {
  return writeNamed(out, "CPUSYM ", gtp + 1, name);
}

int RK_WriteClock(RK_Output* out, double resolution, uint32_t eventBits) {
  RK_Line line(out);
  line.fixed("CLKPERIOD ").real(resolution);
  if (eventBits != 0 && out->extended) line.fixed("\nEVENTBITS ").i32(eventBits);
  return line.end();
}

int RK_WriteDuration(RK_Output* out, uint64_t start, uint64_t end) {
  if (!out->extended) return RK_OutputFailed(out);
  RK_Line line(out);
  return line.fixed("DURATION ").i64(start).fixed(" ").i64(end).end();
}

int RK_WriteAct(RK_Output* out, uint32_t classId, const char* name) {
  return writeNamed(out, "DEFACT ", classId, name);
}

int RK_WriteSampClass(RK_Output* out, uint32_t classId, const char* name) {
  return writeNamed(out, "DEFSAMPCLASS ", classId + 1, name);
}

int RK_WriteState(RK_Output* out, uint32_t function, uint32_t classId, const char* name) {
  RK_Line line(out);
  line.fixed("DEFSTATE ").i32(function).fixed(" ACT ").i32(classId);
  return line.fixed(" \"").text(name).fixed("\"").end();
}

int RK_WriteGlobalOpToken(RK_Output* out, uint32_t operation, const char* name) {
  return writeNamed(out, "GLOBALOPTOKEN ", operation, name);
}

int RK_WriteFileToken(RK_Output* out, uint32_t file, const char* name) {
  return writeNamed(out, "FILETOKEN ", file, name);
}

int RK_WriteScl(RK_Output* out, uint32_t scl, uint32_t n, const uint32_t* files,
                const uint32_t* lines) {
  // A value with the top bit set is written as -1.
  const auto shown = [](uint32_t value) { return value >> 31 ? ~uint32_t{0} : value; };
  RK_Line line(out);
  line.fixed("DEFSCL ").i32(scl).fixed(" NLOCS ").i32(n).fixed(" LOCS");
  for (uint32_t i = 0; i < n; i++) {
    line.fixed(" ").i32(shown(files[i])).fixed(":").i32(shown(lines[i])).room();
  }
  return line.end();
}

int RK_WriteGroup(RK_Output* out, uint32_t group, const char* name,
                  std::span<const uint32_t> members) {
  RK_Line line(out);
  line.fixed("DEFGROUP ").u32(group + 1).fixed(" \"").text(name);
  line.fixed("\" NMEMBS ").i32(static_cast<uint32_t>(members.size()));
  for (const uint32_t member : members) line.fixed(" ").u32(member + 1).room();
  return line.end();
}

int RK_WriteSamp(RK_Output* out, uint32_t counter, uint32_t classId, uint32_t gtp, uint32_t flags,
                 const uint64_t* bounds, const char* name, const char* unit) {
  RK_Line line(out);
  line.fixed("DEFSAMP ").i32(counter + 1).fixed(" CLASS ").i32(classId + 1);
  line.fixed(" CPUSAMP FOR ").u32(gtp + 1);
  if (flags & 0x01) {
    line.fixed(" TYPE UINT MIN");
    putHalves(line, bounds[0]);
    line.fixed(" MAX");
    putHalves(line, bounds[1]);
  } else {
    line.fixed(" TYPE FLOAT MIN ").real(std::bit_cast<double>(bounds[0]));
    line.fixed(" MAX ").real(std::bit_cast<double>(bounds[1]));
  }
  const uint32_t bit = klt::rateHint(flags);
  const uint32_t hint = bit == 0x10 ? 4 : bit == 0x04 ? 3 : bit == 0x08 ? 2 : 1;
  line.fixed(" DIFF ").i32(flags & 0x80 ? 1 : 0).fixed(" RHINT ").i32(hint);
  return line.fixed(" NAME \"").text(name).fixed("\" UNIT \"").text(unit).fixed("\"").end();
}

int RK_WriteIoFile(RK_Output* out, uint32_t file, uint32_t communicator, const char* name) {
  RK_Line line(out);
  line.fixed("IOFILE ").i32(file).fixed(" ").i32(communicator);
  return line.fixed(" \"").text(name).fixed("\"").end();
}

int RK_WriteScope(RK_Output* out, uint32_t scope, uint32_t classId, const char* name,
                  uint32_t startScl, uint32_t endScl) {
  if (!out->extended) return RK_OutputFailed(out);
  RK_Line line(out);
  line.fixed("DEFSCOPE ").u32(scope).fixed(" ACT ").u32(classId);
  line.fixed(" \"").text(name).fixed("\"");
  if (isScl(startScl)) line.fixed(" START SCL ").u32(startScl);
  if (isScl(endScl)) line.fixed(" END SCL ").u32(endScl);
  return line.end();
}

int RK_WriteComDef(RK_Output* out, uint32_t communicator, uint32_t memberCount,
                   PAL_TripletSpan members, const char* name) {
  RK_Line line(out);
  line.fixed("COMDEF ").i32(communicator).fixed(" ").i32(memberCount);
  for (const PAL_Triplet& t : members) {
    line.fixed(" ").i32(static_cast<uint32_t>(t.first));
    line.fixed(":").i32(static_cast<uint32_t>(t.last));
    line.fixed(":").i32(static_cast<uint32_t>(t.stride)).room();
  }
  if (name && *name && out->extended) line.fixed(" NAME \"").text(name).fixed("\"");
  return line.end();
}

int RK_WriteExchange(RK_Output* out, uint64_t time, uint32_t gtp, bool enter, uint32_t function,
                     uint32_t scl) {
  RK_Line line(out);
  line.time(time).fixed(" EXCHEXT CPU ").i32(gtp + 1);
  if (enter) {
    line.fixed(" DOWNTO ");
  } else {
    line.fixed(" UPTO ");
  }
  if (function != 0) {
    line.i32(function);
  } else {
    line.fixed("NOACT");
  }
  return finish(line, scl);
}

int RK_WriteSendMsg(RK_Output* out, uint64_t time, uint32_t gtp, const RK_MessageSide& side) {
  RK_Line line(out);
  line.time(time).fixed(" SENDMSG ").i32(side.communicator).fixed(" ").i32(side.tag);
  line.fixed(" FROM ").i32(gtp + 1).fixed(" TO ").i32(side.peer + 1);
  line.fixed(" LEN ").i32(side.size);
  return finishSide(line, out, side);
}

int RK_WriteRecvMsg(RK_Output* out, uint64_t time, uint32_t gtp, const RK_MessageSide& side) {
  RK_Line line(out);
  line.time(time).fixed(" RECVMSG ").i32(side.communicator).fixed(" ").i32(side.tag);
  line.fixed(" BY ").i32(gtp + 1).fixed(" FROM ").i32(side.peer + 1);
  line.fixed(" LEN ").i32(side.size);
  return finishSide(line, out, side);
}

int RK_WriteGlobalOp(RK_Output* out, uint64_t time, uint32_t gtp, int64_t duration,
                     const RK_OperationPart& part) {
  RK_Line line(out);
  line.time(time).fixed(" GLOBALOP ").i32(part.operation).fixed(" ON ").i32(gtp + 1);
  line.fixed(" ").i32(part.communicator).fixed(" ").i32(part.root + 1);
  line.fixed(" ").i32(part.sent).fixed(" ").i32(part.received);
  line.fixed(" ").i64(static_cast<uint64_t>(duration));
  return finish(line, part.scl);
}

int RK_WriteSamps(RK_Output* out, uint64_t time, uint32_t gtp, uint32_t count,
                  const uint32_t* counters, const uint8_t* types, const uint64_t* values) {
  RK_Line line(out);
  line.time(time);
  if (gtp >> 31) {
    line.fixed(" SAMP GROUP ");
  } else {
    line.fixed(" SAMP CPU ");
  }
  line.u32(gtp + 1);
  for (uint32_t i = 0; i < count; i++) {
    line.fixed(" DEF ").i32(counters[i] + 1);
    if (types[i] == 1) {
      line.fixed(" UINT");
      putHalves(line, values[i]);
    } else {
      line.fixed(" FLOAT ").real(std::bit_cast<double>(values[i]));
    }
    line.room();
  }
  return line.end();
}

int RK_WriteComment(RK_Output* out, uint64_t time, const char* text) {
  RK_Line line(out);
  return line.time(time).fixed(" C ").text(text, true).end();
}

int RK_WriteOpaque(RK_Output* out, uint64_t time, uint32_t gtp, uint32_t size, const uint8_t* data,
                   uint32_t scl) {
  RK_Line line(out);
  line.time(time).fixed(" KPARREGBARSUM 1 CPU ").i32(gtp + 1);
  line.fixed(" SEQN 0 OSIZE ").i32(size).fixed(" OSTREAM ");
  for (uint32_t i = 0; i < size; i++) line.hexByte(data[i]).room();
  return finish(line, scl);
}

int RK_WriteFileIoBegin(RK_Output* out, uint64_t time, uint32_t operation, uint32_t gtp,
                        uint32_t file, uint32_t bytes, uint32_t scl) {
  RK_Line line(out);
  line.time(time).fixed(" FILEIOBEGIN ");
  putOperation(line, operation);
  line.fixed(" ON CPUID ").i32(gtp + 1).fixed(" ").i32(file).fixed(" ").i32(bytes);
  return finish(line, scl);
}

int RK_WriteFileIoEnd(RK_Output* out, uint64_t time, uint32_t operation, uint32_t gtp,
                      uint32_t file, uint32_t bytes, uint32_t scl) {
  RK_Line line(out);
  line.time(time).fixed(" FILEIOEND ");
  putOperation(line, operation);
  line.fixed(" on CPUID ").i32(gtp + 1).fixed(" ").i32(file).fixed(" ").i32(bytes);
  return finish(line, scl);
}

int RK_WriteBeginScope(RK_Output* out, uint64_t time, uint32_t gtp, uint32_t scope, uint32_t seqnr,
                       uint32_t scl) {
  return writeScopeEvent(out, time, " BEGINSCOPE CPU ", gtp, scope, seqnr, scl);
}

int RK_WriteEndScope(RK_Output* out, uint64_t time, uint32_t gtp, uint32_t scope, uint32_t seqnr,
                     uint32_t scl) {
  return writeScopeEvent(out, time, " ENDSCOPE CPU ", gtp, scope, seqnr, scl);
}

int RK_WriteOneToOne(RK_Output* out, const RK_Message& m) {
  const uint64_t difference = static_cast<uint64_t>(m.receiveTime);
  RK_Line line(out);
  if (m.time == klt::kSendUnknown) {
    line.fixed("UNKNOWN");
  } else {
    line.u64(m.time);
  }
  line.fixed(" ONETOONE CPU ").u32(m.sender + 1).fixed(" TO ").u32(m.receiver + 1);
  line.fixed(" DELTA ");
  if (difference == klt::kReceiveUnknown) {
    line.fixed("UNKNOWN");
  } else {
    line.i64(difference);
  }
  line.fixed(" COM ").u32(m.communicator).fixed(" LEN ").u32(m.size).fixed(" TAG ").u32(m.tag);
  if (isScl(m.senderScl) || isScl(m.receiverScl)) {
    line.fixed(" SCLS");
    if (isScl(m.senderScl)) line.fixed(" ").u32(m.senderScl);
    if (isScl(m.receiverScl)) line.fixed(" ").u32(m.receiverScl);
  }
  putNonzero(line, " SENDER_CHECKSUM ", m.senderChecksum);
  putNonzero(line, " RECEIVER_CHECKSUM ", m.receiverChecksum);
  putNonzero(line, " SENDER_FUNCTION ", m.senderFunction);
  putNonzero(line, " RECEIVER_FUNCTION ", m.receiverFunction);
  return line.end();
}

int RK_WriteCollOp(RK_Output* out, const RK_Collective& op) {
  RK_Line line(out);
  line.u64(op.time).fixed(" COLLOP ");
  putKind(line, op.kind);
  line.fixed(" ").u32(op.operation).fixed(" COM ").u32(op.communicator);
  if (op.root != klt::kNoRoot) line.fixed(" ROOT ").u32(op.root);
  line.fixed(" TIMES");
  putTimes(line, op.starts, op.starts, op.time, op.n);
  line.fixed(" DELTAS");
  putTimes(line, op.starts, op.deltas, 0, op.n);
  putArray(line, " SENTS", op.sent, op.n);
  putArray(line, " RCVDS", op.received, op.n);
  putArray(line, " SCLS", op.scls, op.n);
  return line.end();
}
