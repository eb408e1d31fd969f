// A data race, for ThreadSanitizer to find where it finds none in the tests.
#include <cstdio>
#include <thread>

int main() {
  int count = 0;
  std::thread other([&] { ++count; });
  ++count;
  other.join();
  std::printf("%d\n", count);
}
