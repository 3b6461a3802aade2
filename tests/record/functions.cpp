// Functions that the compiler instruments: of C, of C++, static ones, and one that is left by an
// exception.
#include <cstdio>
#include <stdexcept>
#include <string>

namespace shapes {
struct Circle {
  double radius = 1;
  [[gnu::noinline]] double area(int times) const { return radius * radius * times; }
};
}  // namespace shapes

extern "C" [[gnu::noinline]] int plain_function(int n) { return n + 1; }

[[gnu::noinline]] static int hidden(int n) {
  if (n == 3) throw std::runtime_error("three");
  return plain_function(n);
}

[[gnu::noinline]] static int outer() {
  int sum = 0;
  for (int i = 0; i < 4; ++i) {
    try {
      sum += hidden(i);
    } catch (const std::runtime_error&) {
      sum += plain_function(-1);
    }
  }
  return sum;
}

int main() {
  const shapes::Circle circle;
  std::printf("%d %.0f\n", outer(), circle.area(2));
  return 0;
}
