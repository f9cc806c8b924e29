#ifndef CTC_PATH_POOL_H_
#define CTC_PATH_POOL_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <vector>

#include "ctc/score-records.h"

namespace handwriting_CTC {

// Memory of path nodes. A released node is reused by a later one; memory returns to the heap only
// when the pool is destroyed, so the pool holds what the longest input so far needed. Every
// survivor of every frame gets a node, and taking or returning one is a few instructions. For one
// thread at a time.
//
// Memory is given out by cache lines of four nodes. A node follows its parent in the line of that
// one where nothing does yet, so that a long path, and most of a beam are long paths that differ by
// few frames of long ago, is walked and released line by line. A line is reused when all its nodes
// are gone. Lines that are not reused are handed out in the order of their addresses, and once no
// node is alive the pool begins with the first address again.
class _path_pool_t {
 public:
  _path_pool_t() = default;
  _path_pool_t(const _path_pool_t&) = delete;
  _path_pool_t& operator=(const _path_pool_t&) = delete;

  // A node with its own share of `parent`. The pool must outlive it. Throws std::bad_alloc.
  _hist_ptr_t make_node(int label, const _hist_ptr_t& parent) {
    void* cell = parent ? take_after(parent.node_) : nullptr;
    if (cell == nullptr) cell = take_line();
    return _hist_ptr_t(new (cell) _hist_t(label, parent));
  }

  // Lets go of the newest nodes of a path, of up to kPathStretch, as far as no other path shares
  // them. Returns whether any are left in `path`.
  static bool release_stretch(_hist_ptr_t& path) noexcept;

 private:
  friend class _hist_ptr_t;

  static constexpr std::size_t kLineBytes = 64;
  static constexpr std::size_t kLineNodes = 4;
  static_assert(sizeof(_hist_t) * kLineNodes == kLineBytes);

  struct alignas(kLineBytes) _line_t {
    std::byte cells[kLineBytes];
  };
  struct _free_line_t {
    _free_line_t* next;
  };
  // How many nodes of a line have been handed out since it was taken, and how many are alive.
  struct _line_state_t {
    std::uint8_t used;
    std::uint8_t live;
  };

  // A block lies at a multiple of its size, so that a node finds the block around it.
  static constexpr std::size_t kBlockBytes = std::size_t{16} << 10;
  static constexpr std::size_t kLines =
      (kBlockBytes - kLineBytes) / (kLineBytes + sizeof(_line_state_t));
  struct _block_t {
    _path_pool_t* pool;
    _line_state_t states[kLines];
    _line_t lines[kLines];
  };
  static_assert(sizeof(_block_t) <= kBlockBytes);
  struct _delete_block_t {
    void operator()(_block_t* block) const noexcept {
      ::operator delete (block, std::align_val_t{kBlockBytes});
    }
  };

  static _block_t& block_of(_hist_t* node) noexcept {
    const std::uintptr_t offset = reinterpret_cast<std::uintptr_t>(node) & (kBlockBytes - 1);
    return *reinterpret_cast<_block_t*>(reinterpret_cast<std::byte*>(node) - offset);
  }
  static _line_state_t& state_of(_block_t& block, void* cell) noexcept {
    const std::ptrdiff_t offset =
        static_cast<std::byte*>(cell) - reinterpret_cast<std::byte*>(block.lines);
    return block.states[static_cast<std::size_t>(offset) / kLineBytes];
  }

  // The cell after a node, null where its line has none left or another node has it.
  static void* take_after(_hist_t* node) noexcept {
    _line_state_t& state = state_of(block_of(node), node);
    const std::size_t place = reinterpret_cast<std::uintptr_t>(node) % kLineBytes / sizeof(_hist_t);
    if (place + 1 != state.used || state.used == kLineNodes) return nullptr;
    ++state.used;
    ++state.live;
    return node + 1;
  }
  // The first cell of a line without nodes. Throws std::bad_alloc.
  void* take_line() {
    void* line = free_;
    if (line != nullptr) {
      free_ = free_->next;
    } else {
      if (fresh_ == fresh_end_) next_block();
      line = fresh_++;
    }
    state_of(block_of(static_cast<_hist_t*>(line)), line) = {1, 1};
    ++lines_;
    return line;
  }
  // Goes on to the next block, which is allocated if it is not there. Throws std::bad_alloc and
  // leaves the pool as it was.
  void next_block();
  void begin_block(std::size_t index) noexcept;

  // Destroys a node without holders and returns its parent, which still counts it as a holder.
  static _hist_t* destroy(_hist_t* node) noexcept;
  void begin_anew() noexcept;
  // Destroys a node without holders, and the ancestors that it was the last holder of.
  static void release(_hist_t* node) noexcept;

  std::vector<std::unique_ptr<_block_t, _delete_block_t>> blocks_;
  std::size_t next_ = 0;  // the block after the one that fresh lines come from
  _line_t* fresh_ = nullptr;
  _line_t* fresh_end_ = nullptr;
  _free_line_t* free_ = nullptr;  // lines to be reused, linked through their own memory
  std::size_t lines_ = 0;         // lines with nodes
};

}  // namespace handwriting_CTC

#endif  // CTC_PATH_POOL_H_
