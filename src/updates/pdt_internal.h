// pdt_internal: helpers shared by the tree's source files; not for use outside the module.
//
// Entry counts of leaf views, the position of a child in its parent, the facility name, the
// allocation of a tree record and its node blocks, and the debug-build check at the end of each
// update.
#ifndef J480_UPDATES_PDT_INTERNAL_H
#define J480_UPDATES_PDT_INTERNAL_H

#include <cstdint>

#include "updates/pdt.h"
#include "utils/cvlog.h"

#define PDT_MODULE "PDT"

inline uint32_t leaf_count(const pdt_leaf& l) { return *l.count & ~LEAF_COUNT_BASE; }
inline void set_leaf_count(const pdt_leaf& l, uint32_t n) { *l.count = n | LEAF_COUNT_BASE; }

// The slot of `child` among the children of `parent`; count + 1 when it is not there.
inline uint32_t child_position(const pdt_node& parent, uint32_t child) {
  const uint32_t n = *parent.count;
  uint32_t i = 0;
  while (i <= n && parent.child_ptrs[i] != child) i++;
  return i;
}

// The zeroed record of a new tree in its own context ("global_pdt_mem" if is_global, else
// "trans_pdt_mem"), with refcnt 1. Allocates without a frame: the caller holds one.
pdt* pdt_alloc(MemContext* mem, int is_global);
char* pdt_align64(void* p);
// Points node indexes [from, to) into consecutive nodes from `base`.
void pdt_point_nodes(pdt* t, char* base, uint32_t from, uint32_t to);
// Fills the slots of the whole-tree operations (pdt_merge.cc).
void pdt_set_whole_tree_ops(pdt* t);

// Asserts the tree's invariants when pdt_debug_checks is set (debug builds).
void pdt_debug_check(const pdt* t);
#ifdef NDEBUG
#define PDT_DEBUG_CHECK(t) ((void)0)
#else
#define PDT_DEBUG_CHECK(t) pdt_debug_check(t)
#endif

#endif  // J480_UPDATES_PDT_INTERNAL_H
