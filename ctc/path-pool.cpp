#include "ctc/path-pool.h"

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
  fresh_ = blocks_[index]->lines;
  fresh_end_ = fresh_ + kLines;
  next_ = index + 1;
}

_hist_t* _path_pool_t::destroy(_hist_t* node) noexcept {
  prefetch_ancestors(node);
  _hist_t* const parent = std::exchange(node->parent.node_, nullptr);
  node->~_hist_t();
  _block_t& block = block_of(node);
  _line_state_t& state = state_of(block, node);
  if (--state.live == 0) {
    _path_pool_t& pool = *block.pool;
    void* const line = &block.lines[&state - block.states];
    pool.free_ = new (line) _free_line_t{pool.free_};
    if (--pool.lines_ == 0) pool.begin_anew();
  }
  return parent;
}

void _path_pool_t::begin_anew() noexcept {
  free_ = nullptr;
  begin_block(0);
}

// In a loop: through the destructors of the parents it would take one stack frame per frame of the
// input.
void _path_pool_t::release(_hist_t* node) noexcept {
  do {
    node = destroy(node);
  } while (node != nullptr && --node->holders == 0);
}

bool _path_pool_t::release_stretch(_hist_ptr_t& path) noexcept {
  _hist_t* node = path.node_;
  for (int left = kPathStretch; left > 0 && node != nullptr; --left) {
    node = --node->holders == 0 ? destroy(node) : nullptr;
  }
  path.node_ = node;
  return node != nullptr;
}

void _hist_ptr_t::release_node() noexcept { _path_pool_t::release(node_); }

}  // namespace handwriting_CTC
