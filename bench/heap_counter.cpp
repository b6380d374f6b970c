// Heap accounting for the memory counters of the benchmarks: every
// allocation function of the C library is replaced by one that forwards to
// the library's own and adds the block's usable size to a tally (frees take
// it off), so that what a call holds at its most can be read afterwards. The
// C library routes its own allocations through these too.
#include "heap_counter.h"

#include <malloc.h>

#include <atomic>
#include <cerrno>
#include <cstddef>

extern "C" {
void* __libc_malloc(size_t size);
void __libc_free(void* block);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* block, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
}

namespace {

std::atomic<int64_t> live{0};
std::atomic<int64_t> peak{0};

void Counted(void* block) {
  if (block == nullptr) return;
  const auto size = static_cast<int64_t>(malloc_usable_size(block));
  const int64_t now = live.fetch_add(size, std::memory_order_relaxed) + size;
  int64_t most = peak.load(std::memory_order_relaxed);
  while (now > most && !peak.compare_exchange_weak(most, now, std::memory_order_relaxed)) {
  }
}

void Uncounted(void* block) {
  if (block != nullptr) {
    live.fetch_sub(static_cast<int64_t>(malloc_usable_size(block)), std::memory_order_relaxed);
  }
}

}  // namespace

namespace heap_counter {

int64_t Live() { return live.load(); }
int64_t Peak() { return peak.load(); }
void ResetPeak() { peak.store(live.load()); }

}  // namespace heap_counter

extern "C" {

void* malloc(size_t size) noexcept {
  void* block = __libc_malloc(size);
  Counted(block);
  return block;
}

void free(void* block) noexcept {
  Uncounted(block);
  __libc_free(block);
}

void* calloc(size_t count, size_t size) noexcept {
  void* block = __libc_calloc(count, size);
  Counted(block);
  return block;
}

void* realloc(void* block, size_t size) noexcept {
  const auto before = block != nullptr ? static_cast<int64_t>(malloc_usable_size(block)) : 0;
  void* moved = __libc_realloc(block, size);
  if (moved == nullptr && size != 0) return nullptr;  // the old block stays, still counted
  live.fetch_sub(before, std::memory_order_relaxed);
  Counted(moved);
  return moved;
}

void* memalign(size_t alignment, size_t size) noexcept {
  void* block = __libc_memalign(alignment, size);
  Counted(block);
  return block;
}

void* aligned_alloc(size_t alignment, size_t size) noexcept { return memalign(alignment, size); }

void* valloc(size_t size) noexcept { return memalign(4096, size); }

void* pvalloc(size_t size) noexcept { return memalign(4096, (size + 4095) & ~size_t{4095}); }

int posix_memalign(void** out, size_t alignment, size_t size) noexcept {
  if (alignment < sizeof(void*) || (alignment & (alignment - 1)) != 0) return EINVAL;
  void* block = __libc_memalign(alignment, size);
  if (block == nullptr) return ENOMEM;
  Counted(block);
  *out = block;
  return 0;
}

}  // extern "C"
