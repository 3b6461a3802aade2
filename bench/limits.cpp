// Measures two limits of the machine: the nanoseconds to format a line of trace text and to decode
// a record. Prints both, in this order, on one line.
#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

double nanoseconds(Clock::time_point since, int n) {
  return std::chrono::duration<double>(Clock::now() - since).count() / n * 1e9;
}

uint64_t checksum = 0;  // uses all results, so that the compiler can't remove the loops

double lineTime(int n) {
  std::vector<char> buffer(65536);
  const auto begin = Clock::now();
  size_t used = 0;
  for (int i = 0; i < n; ++i) {
    if (used > 65000) {
      checksum += static_cast<unsigned char>(buffer[used / 2]);
      used = 0;
    }
    char* p = buffer.data() + used;
    p = std::to_chars(p, p + 30, int64_t{i} * 977).ptr;
    p = std::copy_n(" EXCHEXT CPU ", 13, p);
    p = std::to_chars(p, p + 12, i & 15).ptr;
    p = std::copy_n(" DOWNTO ", 8, p);
    p = std::to_chars(p, p + 12, i & 3).ptr;
    *p++ = '\n';
    used = static_cast<size_t>(p - buffer.data());
  }
  return nanoseconds(begin, n);
}

// Records of a call's layout: number, step of time, thread, function.
double decodeTime(int n) {
  constexpr size_t kBytes = 11;
  std::vector<unsigned char> data;
  for (int i = 0; i < n; ++i) {
    const unsigned char record[kBytes] = {
        28, 0, 5, 0, 0, 0, 3, 0, 0, 0, static_cast<unsigned char>(i & 7)};
    data.insert(data.end(), record, record + kBytes);
  }
  const auto begin = Clock::now();
  uint64_t time = 0;
  for (const unsigned char* p = data.data(); p < data.data() + data.size();) {
    if (*p != 28) {
      ++p;
      continue;
    }
    uint16_t step = 0;
    uint32_t thread = 0;
    uint32_t function = 0;
    std::memcpy(&step, p + 1, sizeof step);
    std::memcpy(&thread, p + 3, sizeof thread);
    std::memcpy(&function, p + 7, sizeof function);
    time += __builtin_bswap16(step);
    checksum += time ^ __builtin_bswap32(thread) ^ __builtin_bswap32(function);
    p += kBytes;
  }
  return nanoseconds(begin, n);
}

}  // namespace

int main() {
  const double line = lineTime(5000000);
  const double decode = decodeTime(10000000);
  std::printf("%.1f %.2f\n", line, decode);
  return checksum == 0 ? 1 : 0;
}
