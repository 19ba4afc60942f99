#include "platform/foundation/ObjectArena.h"

#include <cstdint>
#include <new>

namespace qx {

struct ObjectArena::Chunk {
  Chunk* next;
};

ObjectArena*& ObjectArena::current() {
  thread_local ObjectArena* arena = nullptr;
  return arena;
}

ObjectArena::Scope::Scope() {
  if (current() != nullptr) return;
  made_ = new ObjectArena;
  current() = made_;
}

ObjectArena::Scope::~Scope() {
  if (made_ == nullptr) return;
  current() = nullptr;
  made_->release();
}

ObjectArena::~ObjectArena() {
  while (chunks_ != nullptr) {
    Chunk* next = chunks_->next;
    ::operator delete(chunks_);
    chunks_ = next;
  }
}

void* ObjectArena::allocate(std::size_t bytes, std::size_t alignment) {
  auto aligned = [&](char* p) {
    auto bits = reinterpret_cast<uintptr_t>(p);
    return reinterpret_cast<char*>((bits + alignment - 1) & ~uintptr_t(alignment - 1));
  };
  char* start = next_ ? aligned(next_) : nullptr;
  if (start == nullptr || static_cast<std::size_t>(end_ - start) < bytes) {
    // Objects are small; a large one still gets a chunk of its own size.
    std::size_t size = sizeof(Chunk) + alignment + (bytes > kChunkBytes / 2 ? bytes : kChunkBytes);
    auto* chunk = static_cast<Chunk*>(::operator new(size));
    chunk->next = chunks_;
    chunks_ = chunk;
    next_ = reinterpret_cast<char*>(chunk + 1);
    end_ = reinterpret_cast<char*>(chunk) + size;
    start = aligned(next_);
  }
  next_ = start + bytes;
  holds_.fetch_add(1, std::memory_order_relaxed);
  return start;
}

void ObjectArena::release() {
  if (holds_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
}

}  // namespace qx
