#include "Allocations.h"

#include <cstdlib>
#include <new>

#include "support/FakePlatform.h"

void* operator new(std::size_t size) {
  const int number = FakePlatform::IsEntered() ? 0 : ++Allocations::count;
  const bool isFailing = number >= Allocations::firstFailing && number <= Allocations::lastFailing;
  void* memory = isFailing && number != 0 ? nullptr : std::malloc(size);
  return memory != nullptr ? memory : throw std::bad_alloc();
}
void* operator new[](std::size_t size) { return operator new(size); }
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
