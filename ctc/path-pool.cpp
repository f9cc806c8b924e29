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

_path_pool_t& _path_pool_t::pool_of(_hist_t* node) noexcept {
  const std::uintptr_t offset = reinterpret_cast<std::uintptr_t>(node) & (kBlockBytes - 1);
  return *reinterpret_cast<_block_t*>(reinterpret_cast<std::byte*>(node) - offset)->pool;
}

_hist_t* _path_pool_t::destroy(_hist_t* node) noexcept {
  prefetch_ancestors(node);
  _hist_t* const parent = std::exchange(node->parent.node_, nullptr);
  node->~_hist_t();
  free_ = new (node) _free_cell_t{free_};
  --live_;
  return parent;
}

void _path_pool_t::begin_anew_if_empty() noexcept {
  if (live_ != 0) return;
  free_ = nullptr;
  begin_block(0);
}

// In a loop: through the destructors of the parents it would take one stack frame per frame of the
// input.
void _path_pool_t::release(_hist_t* node) noexcept {
  _path_pool_t& pool = pool_of(node);
  do {
    node = pool.destroy(node);
  } while (node != nullptr && --node->holders == 0);
  pool.begin_anew_if_empty();
}

bool _path_pool_t::release_stretch(_hist_ptr_t& path) noexcept {
  if (!path) return false;
  _hist_t* node = path.node_;
  _path_pool_t& pool = pool_of(node);
  for (int left = kPathStretch; left > 0 && node != nullptr; --left) {
    if (--node->holders != 0) {
      node = nullptr;
    } else {
      node = pool.destroy(node);
    }
  }
  path.node_ = node;
  pool.begin_anew_if_empty();
  return node != nullptr;
}

void _hist_ptr_t::release_node() noexcept { _path_pool_t::release(node_); }

}  // namespace handwriting_CTC
