#include "FaultyNew.h"

#include <atomic>
#include <cstdlib>
#include <new>

#include "SparedAllocations.h"

namespace {

std::atomic<bool> g_watching{false};
std::atomic<bool> g_lasting{false};
std::atomic<bool> g_failed{false};
std::atomic<std::size_t> g_number{0};  // that is to fail
std::atomic<std::size_t> g_count{0};
std::atomic<std::size_t> g_bytes{0};
std::atomic<std::size_t> g_liveBlocks{0};

// In front of every block; as large as the strictest alignment.
struct alignas(std::max_align_t) Header {
  bool watched;
};

bool isToFail() {
  const std::size_t count = ++g_count;
  const std::size_t number = g_number;
  return number != 0 && (g_lasting ? count >= number : count == number);
}

// NOLINTBEGIN(cppcoreguidelines-no-malloc,cppcoreguidelines-owning-memory)
void* allocate(std::size_t size) noexcept {
  const bool watched = g_watching && !SparedAllocations::OfThisThread();
  if (watched && isToFail()) {
    g_failed = true;
    return nullptr;
  }
  void* const memory = std::malloc(sizeof(Header) + size);
  if (memory == nullptr) return nullptr;
  if (watched) {
    g_bytes += size;
    ++g_liveBlocks;
  }
  return new (memory) Header{watched} + 1;
}

void* allocateOrThrow(std::size_t size) {
  void* const memory = allocate(size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

void release(void* memory) noexcept {
  if (memory == nullptr) return;
  Header* const header = static_cast<Header*>(memory) - 1;
  if (header->watched) --g_liveBlocks;
  std::free(header);
}
// NOLINTEND(cppcoreguidelines-no-malloc,cppcoreguidelines-owning-memory)

}  // namespace

FaultyNew::FaultyNew(std::size_t number, Duration duration) {
  g_count = 0;
  g_bytes = 0;
  g_number = number;
  g_lasting = duration == Duration::kFromThenOn;
  g_failed = false;
  g_watching = true;
}

FaultyNew::~FaultyNew() {
  g_watching = false;
}

bool FaultyNew::HasFailed() {
  return g_failed;
}

std::size_t FaultyNew::Allocations() {
  return g_count;
}

std::size_t FaultyNew::AllocatedBytes() {
  return g_bytes;
}

std::size_t FaultyNew::LiveBlocks() {
  return g_liveBlocks;
}

// All of the standard library's, so that no other allocator's blocks come here; those for types
// with an alignment of their own stay as they are.
#pragma GCC visibility push(default)
void* operator new(std::size_t size) {
  return allocateOrThrow(size);
}
void* operator new[](std::size_t size) {
  return allocateOrThrow(size);
}
void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
  return allocate(size);
}
void* operator new[](std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
  return allocate(size);
}
void operator delete(void* memory) noexcept {
  release(memory);
}
void operator delete[](void* memory) noexcept {
  release(memory);
}
void operator delete(void* memory, std::size_t /*size*/) noexcept {
  release(memory);
}
void operator delete[](void* memory, std::size_t /*size*/) noexcept {
  release(memory);
}
void operator delete(void* memory, const std::nothrow_t& /*tag*/) noexcept {
  release(memory);
}
void operator delete[](void* memory, const std::nothrow_t& /*tag*/) noexcept {
  release(memory);
}
#pragma GCC visibility pop
