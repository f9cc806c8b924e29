#include "ctc/path-pool.h"

#include <algorithm>

namespace handwriting_CTC {

void _path_pool_t::grow() {
  blocks_.push_back(std::make_unique_for_overwrite<_cell_t[]>(block_cells_));
  _cell_t* const cells = blocks_.back().get();
  // Linked back to front: cells are handed out in the order of their addresses.
  for (std::size_t i = block_cells_; i > 0; --i) return_cell(&cells[i - 1]);
  block_cells_ = std::min(2 * block_cells_, kMaxBlockCells);
}

}  // namespace handwriting_CTC
