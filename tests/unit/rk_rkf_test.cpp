// The line writers against printf with the format of each line, over edge values and random ones.
#include "generic/RK_rkf.h"

#include <gtest/gtest.h>

#include <bit>
#include <cfloat>
#include <cstdarg>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "generic/RK_conf.h"
#include "generic/RK_line.h"

namespace {

class RkRkfTest : public testing::Test {
 protected:
  RkRkfTest() : out_(RK_OutputOpen("/dev/null")) { RK_conf.extended_rkf = 1; }
  ~RkRkfTest() override {
    RK_conf.extended_rkf = 1;
    RK_OutputClose(out_);
  }

  // The bytes in the output's buffer since the last call.
  std::string taken() {
    std::string text(out_->buffer.get(), out_->pos);
    out_->pos = out_->buffer.get();
    return text;
  }

  // Values that lie on the edges of the number formats, or anywhere, in all lengths.
  uint64_t any64() {
    static constexpr uint64_t kEdges[] = {0,
                                          1,
                                          9999999,
                                          99999999,
                                          100000000,
                                          0x7fffffff,
                                          0x80000000,
                                          0xffffffff,
                                          9999999999999999,
                                          10000000000000000,
                                          0x7fffffffffffffff,
                                          0x8000000000000000,
                                          0x8000000000000001,
                                          0xffffffffffffffff,
                                          0xfffffffffffffffe};
    const uint64_t bits = random_();
    return random_() % 3 == 0 ? kEdges[bits % std::size(kEdges)] : bits >> (random_() % 64);
  }
  uint32_t any32() { return static_cast<uint32_t>(any64()); }

  RK_Output* out_;
  std::mt19937_64 random_{42};
};

__attribute__((format(printf, 1, 2))) std::string format(const char* text, ...) {
  char line[1024];
  va_list arguments;
  va_start(arguments, text);
  vsnprintf(line, sizeof line, text, arguments);
  va_end(arguments);
  return line;
}

constexpr int kRounds = 5000;

int s(uint32_t value) { return static_cast<int>(value); }
long long s(uint64_t value) { return static_cast<long long>(value); }
unsigned long long u(uint64_t value) { return value; }
bool isSet(uint32_t scl) { return scl != 0 && scl != 0x7fffffff; }
std::string sclPart(uint32_t scl) { return isSet(scl) ? format(" SCL %d", s(scl)) : ""; }

TEST_F(RkRkfTest, NumbersOfEveryLengthComeOutAsPrintfWritesThem) {
  const auto check = [&](uint64_t value) {
    RK_Line(out_)
        .u64(value)
        .fixed(" ")
        .i64(value)
        .fixed(" ")
        .i32(static_cast<uint32_t>(value))
        .end();
    ASSERT_EQ(taken(),
              format("%llu %lld %d\n", u(value), s(value), s(static_cast<uint32_t>(value))));
  };
  for (uint64_t value = 0; value < 200000; value++) check(value);
  for (uint64_t power = 1;; power *= 10) {
    for (uint64_t value = power - 2; value != power + 3; value++) check(value);
    if (power == 10000000000000000000ULL) break;
  }
  for (int i = 0; i < 200000; i++) check(any64());
}

TEST_F(RkRkfTest, RealNumbersComeOutAsPercentG) {
  const auto check = [&](double value) {
    RK_Line(out_).real(value).end();
    ASSERT_EQ(taken(), format("%G\n", value));
  };
  const double kEdges[] = {0.0,      -0.0,         1.0,      1e-4,    9.9999995e-5, 999999.4,
                           999999.5, 1e6,          123456.,  0.1,     1.5e-9,       DBL_MAX,
                           DBL_MIN,  DBL_TRUE_MIN, -DBL_MAX, 100000., 1e100,        2.5};
  for (const double value : kEdges) check(value);
  check(std::numeric_limits<double>::infinity());
  check(-std::numeric_limits<double>::infinity());
  check(std::numeric_limits<double>::quiet_NaN());
  check(-std::numeric_limits<double>::quiet_NaN());
  for (int i = 0; i < 100000; i++) check(std::bit_cast<double>(random_()));
  for (int i = 0; i < 100000; i++) check(static_cast<double>(any32()) / 1000);
}

TEST_F(RkRkfTest, CallAndMessageLines) {
  for (int i = 0; i < kRounds; i++) {
    RK_conf.extended_rkf = i % 2;
    const uint64_t time = any64();
    const uint32_t a = any32(), b = any32(), c = any32(), d = any32(), e = any32();
    const uint32_t scl = i % 3 ? any32() : 0x7fffffff, function = any32() * (i % 5 != 0);
    const bool enter = i % 7 < 3;

    RK_WriteExchange(out_, time, a, enter, function, scl);
    const std::string called = function ? format(" %d", s(function)) : " NOACT";
    ASSERT_EQ(taken(),
              format("%lld EXCHEXT CPU %d %s", s(time), s(a + 1), enter ? "DOWNTO" : "UPTO") +
                  called + sclPart(scl) + "\n");

    const std::string tail =
        sclPart(scl) + (function && i % 2 ? format(" FUNCTION %u", function) : "") + "\n";
    RK_WriteSendMsg(out_, time, a, b, c, d, e, scl, function);
    ASSERT_EQ(taken(), format("%lld SENDMSG %d %d FROM %d TO %d LEN %d", s(time), s(a), s(b),
                              s(c + 1), s(d + 1), s(e)) +
                           tail);
    RK_WriteRecvMsg(out_, time, a, b, c, d, e, scl, function);
    ASSERT_EQ(taken(), format("%lld RECVMSG %d %d BY %d FROM %d LEN %d", s(time), s(a), s(b),
                              s(c + 1), s(d + 1), s(e)) +
                           tail);
  }
}

TEST_F(RkRkfTest, OtherEventLines) {
  for (int i = 0; i < kRounds; i++) {
    const uint64_t time = any64(), span = any64();
    const uint32_t a = any32(), b = any32(), c = any32(), d = any32(), e = any32(), f = any32();
    const uint32_t scl = any32();

    RK_WriteGlobalOp(out_, time, a, b, c, d, e, f, static_cast<int64_t>(span), scl);
    ASSERT_EQ(taken(), format("%lld GLOBALOP %d ON %d %d %d %d %d %lld", s(time), s(a), s(b + 1),
                              s(c), s(d + 1), s(e), s(f), s(span)) +
                           sclPart(scl) + "\n");

    const uint32_t operation = i % 4 == 3 ? any32() : static_cast<uint32_t>(i % 4);
    const char* word = operation == 1 ? "READ" : operation == 2 ? "WRITE" : "?";
    RK_WriteFileIoBegin(out_, time, operation, a, b, c, scl);
    ASSERT_EQ(taken(),
              format("%lld FILEIOBEGIN %s ON CPUID %d %d %d", s(time), word, s(a + 1), s(b), s(c)) +
                  sclPart(scl) + "\n");
    RK_WriteFileIoEnd(out_, time, operation, a, b, c, scl);
    ASSERT_EQ(taken(),
              format("%lld FILEIOEND %s on CPUID %d %d %d", s(time), word, s(a + 1), s(b), s(c)) +
                  sclPart(scl) + "\n");

    const std::string location = isSet(scl) ? format(" SCL %u", scl) : "";
    RK_WriteBeginScope(out_, time, a, b, c, scl);
    RK_WriteEndScope(out_, time, a, b, c, scl);
    ASSERT_EQ(taken(), format("%lld BEGINSCOPE CPU %u SCOPE %u SEQNR %u", s(time), a + 1, b, c) +
                           location + "\n" +
                           format("%lld ENDSCOPE CPU %u SCOPE %u SEQNR %u", s(time), a + 1, b, c) +
                           location + "\n");

    const uint32_t counters[] = {a, b};
    const uint8_t types[] = {1, 2};
    const uint64_t values[] = {span, std::bit_cast<uint64_t>(static_cast<double>(c) / 7)};
    RK_WriteSamps(out_, time, d, 2, counters, types, values);
    ASSERT_EQ(taken(),
              format("%lld SAMP %s %u DEF %d UINT %u %u DEF %d FLOAT %G\n", s(time),
                     d >> 31 ? "GROUP" : "CPU", d + 1, s(a + 1), static_cast<uint32_t>(span >> 32),
                     static_cast<uint32_t>(span), s(b + 1), static_cast<double>(c) / 7));
  }
}

TEST_F(RkRkfTest, MatchedMessageLines) {
  for (int i = 0; i < kRounds; i++) {
    const uint64_t time = i % 5 ? any64() : 0x8000000000000001;
    const uint64_t delta = i % 7 ? any64() : 0x8000000000000000;
    uint32_t v[11];
    for (uint32_t& value : v) value = random_() % 3 ? any32() : 0;
    if (i % 4 == 0) v[5] = 0x7fffffff;
    RK_WriteOneToOne(out_, time, v[0], v[1], static_cast<int64_t>(delta), v[2], v[3], v[4], v[5],
                     v[6], v[7], v[8], v[9], v[10]);
    std::string expected = time == 0x8000000000000001 ? "UNKNOWN" : format("%llu", u(time));
    expected += format(" ONETOONE CPU %u TO %u DELTA ", v[0] + 1, v[1] + 1);
    expected += delta == 0x8000000000000000 ? "UNKNOWN" : format("%lld", s(delta));
    expected += format(" COM %u LEN %u TAG %u", v[2], v[3], v[4]);
    if (isSet(v[5]) || isSet(v[6])) expected += " SCLS";
    for (const uint32_t scl : {v[5], v[6]}) {
      if (isSet(scl)) expected += format(" %u", scl);
    }
    if (v[7]) expected += format(" SENDER_CHECKSUM %u", v[7]);
    if (v[8]) expected += format(" RECEIVER_CHECKSUM %u", v[8]);
    if (v[9]) expected += format(" SENDER_FUNCTION %u", v[9]);
    if (v[10]) expected += format(" RECEIVER_FUNCTION %u", v[10]);
    ASSERT_EQ(taken(), expected + "\n");
  }
}

TEST_F(RkRkfTest, CollectiveLines) {
  constexpr uint64_t kNone = ~uint64_t{0};
  const uint64_t starts[] = {0, kNone, kNone - 1, 0xfffffffffffffff0};
  const uint64_t deltas[] = {7, 8, 9, 0x8000000000000000};
  const uint32_t sizes[] = {0, 1, 0x80000000, 0xffffffff};
  RK_WriteCollOp(out_, 20, 1, 3, 4, 0, 4, starts, deltas, sizes, sizes, sizes);
  RK_WriteCollOp(out_, 0x8000000000000000, 3, 3, 4, 0xffffffff, 1, starts, deltas, nullptr, nullptr,
                 nullptr);
  RK_WriteCollOp(out_, 1, 2, 3, 4, 9, 0, nullptr, nullptr, sizes, sizes, sizes);
  RK_WriteCollOp(out_, 1, 4, 3, 4, 9, 0, nullptr, nullptr, nullptr, sizes, nullptr);
  RK_WriteCollOp(out_, 1, 5, 3, 4, 9, 0, nullptr, nullptr, nullptr, nullptr, nullptr);
  EXPECT_EQ(taken(),
            "20 COLLOP ONETOALL 3 COM 4 ROOT 0 TIMES 20 UNKNOWN UNKNOWN 4 DELTAS 7 UNKNOWN UNKNOWN "
            "9223372036854775808 SENTS 0 1 2147483648 4294967295 RCVDS 0 1 2147483648 4294967295 "
            "SCLS 0 1 2147483648 4294967295\n"
            "9223372036854775808 COLLOP ALLTOALL 3 COM 4 TIMES 9223372036854775808 DELTAS 7\n"
            "1 COLLOP ALLTOONE 3 COM 4 ROOT 9 TIMES DELTAS SENTS RCVDS SCLS\n"
            "1 COLLOP ALL 3 COM 4 ROOT 9 TIMES DELTAS RCVDS\n"
            "1 COLLOP UNDEFINED 3 COM 4 ROOT 9 TIMES DELTAS\n");
}

TEST_F(RkRkfTest, DefinitionLines) {
  const uint32_t numbers[] = {0, 7, 0xffffffff};
  const uint32_t lines[] = {3, 0x80000000, 0x7fffffff};
  const PAL_Triplet triplets[] = {{0, 2, 1}, {-1, -9, -4}};
  RK_WriteNcpus(out_, {numbers, 3});
  RK_WriteThreadNums(out_, {numbers, 2});
  RK_WriteCpuSym(out_, 65535, "a \"b\"\nc");
  RK_WriteClock(out_, 1e-6, 13);
  RK_WriteClock(out_, 2.44140625e-10, 0);
  RK_WriteDuration(out_, 5, 0x8000000000000000);
  RK_WriteAct(out_, 0xffffffff, nullptr);
  RK_WriteSampClass(out_, 0xffffffff, "");
  RK_WriteState(out_, 5, 6, "f");
  RK_WriteGlobalOpToken(out_, 8, "op");
  RK_WriteFileToken(out_, 9, "file");
  RK_WriteScl(out_, 1, 3, numbers, lines);
  RK_WriteGroup(out_, 7, "all", {numbers, 3});
  RK_WriteIoFile(out_, 1, 2, "io");
  RK_WriteScope(out_, 1, 2, "s", 0, 0x7fffffff);
  RK_WriteScope(out_, 1, 2, "s", 3, 0xffffffff);
  RK_WriteComDef(out_, 0x80000000, 3, triplets, "world");
  RK_WriteComDef(out_, 1, 0, {}, "");
  RK_WriteComDef(out_, 1, 0, {}, nullptr);
  EXPECT_EQ(taken(),
            "NCPUS 0 7 -1\n"
            "DEFTHREADNUMS 0 7\n"
            "CPUSYM 65536 \"a \"b\"\nc\"\n"
            "CLKPERIOD 1E-06\nEVENTBITS 13\n"
            "CLKPERIOD 2.44141E-10\n"
            "DURATION 5 -9223372036854775808\n"
            "DEFACT -1 \"(null)\"\n"
            "DEFSAMPCLASS 0 \"\"\n"
            "DEFSTATE 5 ACT 6 \"f\"\n"
            "GLOBALOPTOKEN 8 \"op\"\n"
            "FILETOKEN 9 \"file\"\n"
            "DEFSCL 1 NLOCS 3 LOCS 0:3 7:-1 -1:2147483647\n"
            "DEFGROUP 8 \"all\" NMEMBS 3 1 8 0\n"
            "IOFILE 1 2 \"io\"\n"
            "DEFSCOPE 1 ACT 2 \"s\"\n"
            "DEFSCOPE 1 ACT 2 \"s\" START SCL 3 END SCL 4294967295\n"
            "COMDEF -2147483648 3 0:2:1 -1:-9:-4 NAME \"world\"\n"
            "COMDEF 1 0\n"
            "COMDEF 1 0\n");
}

TEST_F(RkRkfTest, CounterDefinitions) {
  const uint64_t integers[] = {0x0000000100000002, 0xffffffff00000000};
  const uint64_t reals[] = {std::bit_cast<uint64_t>(-1.25), std::bit_cast<uint64_t>(1e12)};
  RK_WriteSamp(out_, 1, 1, 0, 0x01, integers, "c", "u");
  RK_WriteSamp(out_, 1, 1, 0x80000007, 0x02 | 0x04 | 0x08, reals, "c", nullptr);
  RK_WriteSamp(out_, 1, 1, 0, 0x02 | 0x08 | 0x80, reals, "c", "u");
  RK_WriteSamp(out_, 1, 1, 0, 0x02 | 0x1c, reals, "c", "u");
  EXPECT_EQ(
      taken(),
      "DEFSAMP 2 CLASS 2 CPUSAMP FOR 1 TYPE UINT MIN 1 2 MAX 4294967295 0 DIFF 0 RHINT 1 NAME "
      "\"c\" UNIT \"u\"\n"
      "DEFSAMP 2 CLASS 2 CPUSAMP FOR 2147483656 TYPE FLOAT MIN -1.25 MAX 1E+12 DIFF 0 RHINT 3 "
      "NAME \"c\" UNIT \"(null)\"\n"
      "DEFSAMP 2 CLASS 2 CPUSAMP FOR 1 TYPE FLOAT MIN -1.25 MAX 1E+12 DIFF 1 RHINT 2 NAME "
      "\"c\" UNIT \"u\"\n"
      "DEFSAMP 2 CLASS 2 CPUSAMP FOR 1 TYPE FLOAT MIN -1.25 MAX 1E+12 DIFF 0 RHINT 4 NAME "
      "\"c\" UNIT \"u\"\n");
}

TEST_F(RkRkfTest, CommentsKeepToOneLineAndBytesAreUpperCaseHex) {
  const uint8_t bytes[] = {0x00, 0x0f, 0xa0, 0xff};
  RK_WriteComment(out_, 5, "a\nb\n\nc\t");
  RK_WriteOpaque(out_, 5, 1, 4, bytes, 8);
  RK_WriteOpaque(out_, 5, 1, 0, nullptr, 0);
  EXPECT_EQ(taken(),
            "5 C a b  c\t\n"
            "5 KPARREGBARSUM 1 CPU 2 SEQN 0 OSIZE 4 OSTREAM 000FA0FF SCL 8\n"
            "5 KPARREGBARSUM 1 CPU 2 SEQN 0 OSIZE 0 OSTREAM \n");
}

TEST_F(RkRkfTest, WithoutExtensionsTheirLinesAndPartsAreLeftOut) {
  RK_conf.extended_rkf = 0;
  EXPECT_EQ(RK_WriteDuration(out_, 1, 2), 0);
  RK_WriteScope(out_, 1, 2, "s", 3, 4);
  RK_WriteBeginScope(out_, 1, 2, 3, 4, 5);
  RK_WriteEndScope(out_, 1, 2, 3, 4, 5);
  RK_WriteClock(out_, 1, 13);
  RK_WriteComDef(out_, 1, 0, {}, "world");
  RK_WriteSendMsg(out_, 1, 2, 3, 4, 5, 6, 7, 8);
  EXPECT_EQ(taken(), "CLKPERIOD 1\nCOMDEF 1 0\n1 SENDMSG 2 3 FROM 5 TO 6 LEN 6 SCL 7\n");
}

TEST_F(RkRkfTest, ListsLongerThanTheBufferArriveWhole) {
  const std::string file = testing::TempDir() + "rk_rkf_long";
  RK_Output* output = RK_OutputOpen(file.c_str());
  ASSERT_NE(output, nullptr);
  const std::vector<uint32_t> numbers(200000, 0xffffffff);
  const std::vector<uint64_t> times(200000, 1);
  const std::vector<uint8_t> bytes(400000, 0xab);
  const std::vector<uint8_t> types(200000, 1);
  const uint32_t n = 200000;
  RK_WriteNcpus(output, numbers);
  RK_WriteScl(output, 1, n, numbers.data(), numbers.data());
  RK_WriteCollOp(output, 1, 4, 1, 1, 1, n, times.data(), times.data(), nullptr, nullptr, nullptr);
  RK_WriteOpaque(output, 1, 1, 400000, bytes.data(), 0);
  RK_WriteSamps(output, 1, 1, n, numbers.data(), types.data(), times.data());
  RK_OutputClose(output);

  const auto repeated = [](std::string start, const char* item, size_t count) {
    for (size_t i = 0; i < count; i++) start += item;
    return start;
  };
  const std::string expected =
      repeated("NCPUS", " -1", n) + repeated("\nDEFSCL 1 NLOCS 200000 LOCS", " -1:-1", n) +
      repeated("\n1 COLLOP ALL 1 COM 1 ROOT 1 TIMES", " 2", n) + repeated(" DELTAS", " 1", n) +
      repeated("\n1 KPARREGBARSUM 1 CPU 2 SEQN 0 OSIZE 400000 OSTREAM ", "AB", 400000) +
      repeated("\n1 SAMP CPU 2", " DEF 0 UINT 0 1", n) + "\n";
  std::ifstream stream(file, std::ios::binary);
  const std::string written{std::istreambuf_iterator<char>(stream), {}};
  std::remove(file.c_str());
  EXPECT_TRUE(written == expected);
}

}  // namespace
