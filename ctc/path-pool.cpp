#include "ctc/path-pool.h"

#include <cstdint>
#include <new>
#include <utility>

namespace handwriting_CTC {

void _path_pool_t::next_block() {
  if (next_ == blocks_.size()) {
    blocks_.reserve(blocks_.size() + 1);
    auto* const block =
        static_cast<_block_t*>(::operator new (sizeof(_block_t), std::align_val_t{kBlockBytes}));
    block->pool = this;
    blocks_.emplace_back(block);
  }
  begin_block(next_);
}

void _path_pool_t::begin_block(std::size_t index) noexcept {
  fresh_ = blocks_[index]->cells;
  fresh_end_ = fresh_ + sizeof(blocks_[index]->cells);
  next_ = index + 1;
}

// In a loop: through the destructors of the parents it would take one stack frame per frame of the
// input.
void _path_pool_t::release(_hist_t* node) noexcept {
  const std::uintptr_t address = reinterpret_cast<std::uintptr_t>(node) & ~(kBlockBytes - 1);
  auto* const block = reinterpret_cast<_block_t*>(address);  // NOLINT(performance-no-int-to-ptr)
  _path_pool_t& pool = *block->pool;
  do {
    prefetch_ancestors(node);
    _hist_t* const parent = std::exchange(node->parent.node_, nullptr);
    node->~_hist_t();
    pool.free_ = new (node) _free_cell_t{pool.free_};
    --pool.live_;
    node = parent;
  } while (node != nullptr && --node->holders == 0);
  if (pool.live_ == 0) {
    pool.free_ = nullptr;
    pool.begin_block(0);
  }
}

void _hist_ptr_t::release_node() noexcept { _path_pool_t::release(node_); }

}  // namespace handwriting_CTC
