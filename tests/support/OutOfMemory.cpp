#include "OutOfMemory.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<bool> g_outOfMemory{false};

}  // namespace

OutOfMemory::OutOfMemory() {
  g_outOfMemory = true;
}
OutOfMemory::~OutOfMemory() {
  g_outOfMemory = false;
}

// These replace those of the standard library.
// NOLINTBEGIN(cppcoreguidelines-no-malloc,cppcoreguidelines-owning-memory)
void* operator new(std::size_t size) {
  void* memory = g_outOfMemory ? nullptr : std::malloc(size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}
// NOLINTEND(cppcoreguidelines-no-malloc,cppcoreguidelines-owning-memory)
