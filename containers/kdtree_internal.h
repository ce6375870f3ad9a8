// Shared between the kd-tree store's files; not for callers outside containers/.
#pragma once

#include <cstdint>

#include "containers/kdtree.h"

namespace QV::LIB::detail {

// Merges the pending chunks into the tree and rebuilds it when chunks are pending or the tree
// was never built. Takes the header's exclusive lock; a caller that arrives while another
// balances waits and then finds nothing left to do.
void balance(uint32_t tag, Kdtree_filter filter, void* filter_argument);

// Deletes one chunk's elements.
void delete_chunk(const Kdtree_chunk& chunk);

}  // namespace QV::LIB::detail
