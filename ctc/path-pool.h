#ifndef CTC_PATH_POOL_H_
#define CTC_PATH_POOL_H_

#include <cstddef>
#include <memory>
#include <vector>

#include "ctc/score-records.h"

namespace handwriting_CTC {

// Memory of path nodes. A released node is reused by a later one; memory returns to the heap only
// when the pool is destroyed, so the pool holds what the longest input so far needed. Every
// survivor of every frame gets a node, and taking or returning one is a few instructions. For one
// thread at a time.
//
// Nodes that are not reused are handed out in the order of their addresses, and once no node is
// alive the pool begins with the first address again: the path that an input ends with lies in
// memory about as it will be walked.
class _path_pool_t {
 public:
  _path_pool_t() = default;
  _path_pool_t(const _path_pool_t&) = delete;
  _path_pool_t& operator=(const _path_pool_t&) = delete;

  // A node with its own share of `parent`. The pool must outlive it. Throws std::bad_alloc.
  _hist_ptr_t make_node(int label, const _hist_ptr_t& parent) {
    void* const cell = free_ != nullptr ? take_free() : take_fresh();
    ++live_;
    return _hist_ptr_t(new (cell) _hist_t(label, parent));
  }

  // Lets go of the newest nodes of a path, of up to kPathStretch, as far as no other path shares
  // them. Returns whether any are left in `path`.
  static bool release_stretch(_hist_ptr_t& path) noexcept;

 private:
  friend class _hist_ptr_t;

  struct _free_cell_t {
    _free_cell_t* next;
  };
  static_assert(sizeof(_hist_t) == 16 && sizeof(_free_cell_t) <= sizeof(_hist_t));

  // A block lies at a multiple of its size, so that a node finds its pool: the pointer at the start
  // of the block around it.
  static constexpr std::size_t kBlockBytes = std::size_t{16} << 10;
  struct _block_t {
    _path_pool_t* pool;
    alignas(sizeof(_hist_t)) std::byte cells[kBlockBytes - sizeof(_hist_t)];
  };
  static_assert(sizeof(_block_t) == kBlockBytes);
  struct _delete_block_t {
    void operator()(_block_t* block) const noexcept {
      ::operator delete (block, std::align_val_t{kBlockBytes});
    }
  };

  void* take_free() noexcept {
    _free_cell_t* const cell = free_;
    free_ = cell->next;
    return cell;
  }
  void* take_fresh() {
    if (fresh_ == fresh_end_) next_block();
    void* const cell = fresh_;
    fresh_ += sizeof(_hist_t);
    return cell;
  }
  // Goes on to the next block, which is allocated if it is not there. Throws std::bad_alloc and
  // leaves the pool as it was.
  void next_block();
  void begin_block(std::size_t index) noexcept;

  static _path_pool_t& pool_of(_hist_t* node) noexcept;
  // Destroys a node without holders and returns its parent, which still counts it as a holder.
  _hist_t* destroy(_hist_t* node) noexcept;
  void begin_anew_if_empty() noexcept;
  // Destroys a node without holders, and the ancestors that it was the last holder of.
  static void release(_hist_t* node) noexcept;

  std::vector<std::unique_ptr<_block_t, _delete_block_t>> blocks_;
  std::size_t next_ = 0;  // the block after the one that fresh cells come from
  std::byte* fresh_ = nullptr;
  std::byte* fresh_end_ = nullptr;
  _free_cell_t* free_ = nullptr;  // cells to be reused, linked through their own memory
  std::size_t live_ = 0;          // nodes
};

}  // namespace handwriting_CTC

#endif  // CTC_PATH_POOL_H_
