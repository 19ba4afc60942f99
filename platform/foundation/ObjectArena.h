#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <utility>

namespace qx {

// The objects made while a message is decoded are carved from one arena
// instead of taking a heap block each: a report of a hundred records makes a
// few hundred objects, and their malloc and free calls (with the heap's
// consolidation when the next message's larger blocks are asked for) cost
// about a sixth of the decoding's instructions. The arena gives its memory
// back when the last object made from it is destroyed, on whatever thread
// that happens; until then one live object keeps the whole arena.
//
// Outside a Scope, make() is std::make_shared.
class ObjectArena {
 public:
  // While it lives, make() on this thread takes memory from a new arena.
  // A nested scope (an archive decoded inside another) adds to the outer
  // scope's arena.
  class Scope {
   public:
    Scope();
    ~Scope();
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;

   private:
    ObjectArena* made_ = nullptr;
  };

  template <class T, class... Args>
  static std::shared_ptr<T> make(Args&&... args) {
    if (ObjectArena* arena = current()) {
      return std::allocate_shared<T>(Allocator<T>(arena), std::forward<Args>(args)...);
    }
    return std::make_shared<T>(std::forward<Args>(args)...);
  }

  template <class T>
  class Allocator {
   public:
    using value_type = T;
    explicit Allocator(ObjectArena* arena) : arena_(arena) {}
    template <class U>
    Allocator(const Allocator<U>& other) : arena_(other.arena()) {}  // NOLINT: rebinding
    T* allocate(std::size_t n) {
      return static_cast<T*>(arena_->allocate(n * sizeof(T), alignof(T)));
    }
    void deallocate(T*, std::size_t) { arena_->release(); }
    ObjectArena* arena() const { return arena_; }
    template <class U>
    bool operator==(const Allocator<U>& other) const {
      return arena_ == other.arena();
    }

   private:
    ObjectArena* arena_;
  };

  ObjectArena(const ObjectArena&) = delete;
  ObjectArena& operator=(const ObjectArena&) = delete;

 private:
  struct Chunk;
  static constexpr std::size_t kChunkBytes = 16 * 1024;

  ObjectArena() = default;
  ~ObjectArena();
  static ObjectArena*& current();
  void* allocate(std::size_t bytes, std::size_t alignment);
  // One allocation (or the scope that made the arena) is done with it.
  void release();

  Chunk* chunks_ = nullptr;
  char* next_ = nullptr;
  char* end_ = nullptr;
  // Allocations not yet given back, plus one while the making scope lives.
  std::atomic<std::size_t> holds_{1};
};

}  // namespace qx
