#ifndef CTC_PATH_POOL_H_
#define CTC_PATH_POOL_H_

#include <cstddef>
#include <memory>
#include <vector>

#include "ctc/score-records.h"

namespace handwriting_CTC {

// Memory of path nodes, each with its reference count in the same cell. A released cell is reused
// by a later allocation; memory returns to the heap only when the pool is destroyed, so the pool
// holds what the longest input so far needed. Every survivor of every frame gets a node, and taking
// or returning a cell is a few instructions. For one thread at a time.
class _path_pool_t {
 public:
  _path_pool_t() = default;
  _path_pool_t(const _path_pool_t&) = delete;
  _path_pool_t& operator=(const _path_pool_t&) = delete;

  // A node with its own share of `parent`. The pool must outlive it. Throws std::bad_alloc.
  std::shared_ptr<_hist_t> make_node(int label, const std::shared_ptr<_hist_t>& parent) {
    return std::allocate_shared<_hist_t>(_allocator_t<_hist_t>{this}, label, parent);
  }

 private:
  // The node, the two counts and the library's pointers to its own functions and to the pool.
  static constexpr std::size_t kCellBytes = sizeof(_hist_t) + 4 * sizeof(void*);
  // Blocks double from the first size to the last, so that short inputs need little memory and long
  // ones few blocks.
  static constexpr std::size_t kFirstBlockCells = 128;
  static constexpr std::size_t kMaxBlockCells = 8192;

  union _cell_t {
    _cell_t* next_free;
    alignas(_hist_t) std::byte bytes[kCellBytes];
  };

  // What std::allocate_shared asks of an allocator, for one cell at a time.
  template <typename T>
  struct _allocator_t {
    using value_type = T;

    explicit _allocator_t(_path_pool_t* cell_pool) noexcept : pool(cell_pool) {}
    template <typename U>
    explicit _allocator_t(const _allocator_t<U>& other) noexcept : pool(other.pool) {}

    T* allocate(std::size_t) {
      static_assert(sizeof(T) <= sizeof(_cell_t) && alignof(T) <= alignof(_cell_t));
      return static_cast<T*>(pool->take_cell());
    }
    void deallocate(T* cell, std::size_t) noexcept { pool->return_cell(cell); }
    template <typename U>
    bool operator==(const _allocator_t<U>& other) const noexcept {
      return pool == other.pool;
    }

    _path_pool_t* pool;
  };

  // The free cells form a list through their own memory.
  void* take_cell() {
    if (free_ == nullptr) grow();
    _cell_t* const cell = free_;
    free_ = cell->next_free;
    return cell;
  }

  void return_cell(void* memory) noexcept {
    auto* const cell = static_cast<_cell_t*>(memory);
    cell->next_free = free_;
    free_ = cell;
  }

  // Allocates the next block. Throws std::bad_alloc and leaves the pool as it was.
  void grow();

  std::vector<std::unique_ptr<_cell_t[]>> blocks_;
  std::size_t block_cells_ = kFirstBlockCells;  // of the next block
  _cell_t* free_ = nullptr;
};

}  // namespace handwriting_CTC

#endif  // CTC_PATH_POOL_H_
