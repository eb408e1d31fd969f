#include "Allocations.h"

#include <cstdlib>
#include <new>

#include "support/FakePlatform.h"

void* operator new(std::size_t size) {
  if (!FakePlatform::IsEntered()) {
    const int number = ++Allocations::count;
    if (number == Allocations::failing ||
        (Allocations::areLaterFailing && number > Allocations::failing)) {
      throw std::bad_alloc();
    }
  }
  if (void* memory = std::malloc(size)) {
    return memory;
  }
  throw std::bad_alloc();
}

void* operator new[](std::size_t size) { return operator new(size); }

void operator delete(void* memory) noexcept { std::free(memory); }

void operator delete[](void* memory) noexcept { std::free(memory); }

void operator delete[](void* memory, std::size_t) noexcept { std::free(memory); }

void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
