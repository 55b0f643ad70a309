// pdt: creation, the node allocator, views, searches, the walks up and down, the serial form and
// the invariant checker.
#include "updates/pdt.h"

#include <cmath>
#include <cstring>
#include <vector>

#include "updates/pdt_internal.h"
#include "updates/value_space.h"
#include "utils/cvlog.h"
#include "utils/longjmp_ctx.h"
#include "utils/mem.h"

#ifdef NDEBUG
int pdt_debug_checks = 0;
#else
int pdt_debug_checks = 1;
#endif

namespace {

// Points node indexes [from, to) into the block `base`.
void point_nodes(pdt* pdt, char* base, uint32_t from, uint32_t to) {
  for (uint32_t i = from; i < to; i++)
    pdt->nodes[i] = reinterpret_cast<uint32_t*>(base + uint64_t(i - from) * pdt->node_size);
}

// The common descent: compares in RID space (with the running delta) or in SID space.
template <bool kByRid, bool kStopOnEqual>
uint32_t descend(const pdt* pdt, int64_t target, int64_t* delta, bool* on_sep) {
  uint32_t idx = pdt->root_idx;
  int64_t d = 0;
  bool flag = false;
  while (!IS_LEAF(pdt, idx)) {
    pdt_node n;
    pdt_get_node(pdt, idx, &n);
    const uint32_t cnt = *n.count;
    uint32_t i = 0;
    for (; i < cnt; i++) {
      d += n.deltas[i];
      const int64_t sep = kByRid ? n.sep_sids[i] + d : n.sep_sids[i];
      if (kStopOnEqual ? target <= sep : target < sep) {
        if (target == sep) flag = true;
        d -= n.deltas[i];
        break;
      }
      if (target == sep) flag = true;
    }
    idx = n.child_ptrs[i];
  }
  *delta = d;
  *on_sep = flag;
  return idx;
}

}  // namespace

char* pdt_align64(void* p) {
  return reinterpret_cast<char*>((reinterpret_cast<uintptr_t>(p) + 63) & ~uintptr_t(63));
}

pdt* pdt_alloc(MemContext* mem, int is_global) {
  MemContext* own = is_global ? mem_context_create_concurrent(mem, "global_pdt_mem")
                              : mem_context_create(mem, "trans_pdt_mem");
  auto* t = static_cast<pdt*>(mem_calloc(own, sizeof(pdt)));
  t->mem = own;
  t->refcnt = 1;
  return t;
}

void pdt_point_nodes(pdt* pdt, char* base, uint32_t from, uint32_t to) {
  point_nodes(pdt, base, from, to);
}

pdt* pdt_create(MemContext* mem, int is_global, uint32_t fan_out, uint32_t max_nodes,
                const ptype* const* coltypes, uint32_t ncols, const uint32_t* key_cols,
                uint32_t n_key_cols, const uint32_t* uk_cols, uint32_t n_uk_cols,
                const int64_t* joinindex_IDs, uint32_t n_joinindex) {
  if (fan_out <= 2 || max_nodes == 0) return nullptr;
  struct pdt* pdt = nullptr;
  auto make = [&] { pdt = pdt_alloc(mem, is_global); };
  if (mem->exception_env && *mem->exception_env) {
    if (longjmp_ctx_run(*mem->exception_env, make) != 0) {
      if (pdt) mem_context_remove(pdt->mem);
      return nullptr;
    }
  } else {
    make();
  }
  pdt->node_size = (fan_out * 20 + 63) & ~63u;
  pdt->nodes = static_cast<uint32_t**>(mem_calloc(pdt->mem, sizeof(uint32_t*) * uint64_t(max_nodes)));
  const uint64_t bytes = uint64_t(pdt->node_size) * max_nodes + 63;
  pdt->data_block[0] = mem_mallocex(pdt->mem, bytes, J480_MEM_ALLOWFAILURE | J480_MEM_LARGE);
  pdt->data_block_ptr[0] = pdt->data_block[0] ? pdt_align64(pdt->data_block[0]) : nullptr;
  J480_ASSERT(PDT_MODULE, pdt->data_block_ptr[0]);
  pdt->data_block_size[0] = static_cast<int64_t>(bytes);
  pdt->n_data_blocks = 1;
  pdt->max_nodes = max_nodes;
  point_nodes(pdt, pdt->data_block_ptr[0], 0, max_nodes);

  pdt->fan_out = fan_out;
  pdt->node_min_children = fan_out / 2 < 2 ? 2 : fan_out / 2;
  pdt->leaf_max_entries = (pdt->node_size - 16) / 12;
  J480_ASSERT(PDT_MODULE, pdt->leaf_max_entries > 1);
  pdt->leaf_min_entries = pdt->leaf_max_entries / 2 < 1 ? 1 : pdt->leaf_max_entries / 2;
  pdt->value_space = value_space_create(pdt->mem, coltypes, ncols, key_cols, n_key_cols, uk_cols,
                                      n_uk_cols, joinindex_IDs, n_joinindex);
  J480_ASSERT(PDT_MODULE, pdt->value_space);
  pdt->n_table_cols = ncols;
  pdt->key_cols = key_cols;
  pdt->n_key_cols = n_key_cols;

  const uint32_t root = pdt_alloc_node(pdt);
  uint32_t* leaf = pdt->nodes[root];
  leaf[COUNT] = LEAF_COUNT_BASE;
  leaf[PARENT] = root;
  leaf[NEXT] = LLIST_END;
  leaf[PREV] = LLIST_END;
  pdt->root_idx = root;

  pdt->ops.add_insert = [](struct pdt* p, int64_t rid, uint32_t offset) {
    return pdt_add_insert(p, rid, offset, nullptr, nullptr, 0);
  };
  pdt->ops.add_modify = pdt_add_modify;
  pdt->ops.add_delete = pdt_add_delete;
  pdt->ops.add_delete_by_sid = pdt_add_delete_by_sid;
  pdt_set_whole_tree_ops(pdt);
  pdt->ops.unref = pdt_unref;
  return pdt;
}

int64_t pdt_unref(pdt* pdt) {
  pdt->refcnt--;
  J480_ASSERT(PDT_MODULE, pdt->refcnt >= 0);
  if (pdt->refcnt > 0) return pdt->refcnt;
  value_space_free(pdt->value_space);
  mem_context_remove(pdt->mem);
  return 0;
}

uint32_t pdt_alloc_node(pdt* pdt) {
  if (pdt->num_nodes == pdt->max_nodes) {
    pdt_grow(pdt);
    J480_ASSERT(PDT_MODULE, pdt->num_nodes < pdt->max_nodes);
  }
  return pdt->num_nodes++;
}

int pdt_grow(pdt* pdt) {
  const uint32_t new_max = static_cast<uint32_t>(std::ceil(double(pdt->max_nodes) * 1.6));
  void* grown = mem_reallocex(pdt->mem, pdt->nodes, sizeof(uint32_t*) * uint64_t(new_max),
                              J480_MEM_ALLOWFAILURE);
  if (grown == nullptr) {
    CV_ERROR(PDT_MODULE, "realloc failed");
    return -1;
  }
  pdt->nodes = static_cast<uint32_t**>(grown);
  if (pdt->n_data_blocks == PDT_MAX_DATA_BLOCKS) {
    CV_ERROR(PDT_MODULE, "no more data blocks");
    return -1;
  }
  const uint64_t bytes = uint64_t(new_max - pdt->max_nodes) * pdt->node_size + 63;
  const uint32_t b = pdt->n_data_blocks;
  pdt->data_block[b] = mem_mallocex(pdt->mem, bytes, J480_MEM_LARGE);
  pdt->data_block_ptr[b] = pdt_align64(pdt->data_block[b]);
  pdt->data_block_size[b] = static_cast<int64_t>(bytes);
  point_nodes(pdt, pdt->data_block_ptr[b], pdt->max_nodes, new_max);
  pdt->max_nodes = new_max;
  pdt->n_data_blocks++;
  return 0;
}

int pdt_get_leaf(const pdt* pdt, uint32_t leaf_idx, pdt_leaf* leaf) {
  J480_ASSERT(PDT_MODULE, leaf_idx < pdt->max_nodes);
  uint32_t* const node = pdt->nodes[leaf_idx];
  {
    const uint32_t* leaf = node;
    J480_ASSERT(PDT_MODULE, leaf[COUNT] >= LEAF_COUNT_BASE);
  }
  leaf->idx = leaf_idx;
  leaf->count = node + COUNT;
  leaf->parent = node + PARENT;
  leaf->next = node + NEXT;
  leaf->prev = node + PREV;
  leaf->def = reinterpret_cast<uint64_t*>(node + 4);
  leaf->offset = reinterpret_cast<uint32_t*>(leaf->def + pdt->leaf_max_entries);
  return 0;
}

int pdt_get_node(const pdt* pdt, uint32_t node_idx, pdt_node* n) {
  J480_ASSERT(PDT_MODULE, node_idx < pdt->max_nodes);
  uint32_t* node = pdt->nodes[node_idx];
  J480_ASSERT(PDT_MODULE, node[COUNT] < LEAF_COUNT_BASE);
  n->idx = node_idx;
  n->count = node + COUNT;
  n->parent = node + PARENT;
  char* base = reinterpret_cast<char*>(node);
  n->sep_sids = reinterpret_cast<int64_t*>(base + 8);
  n->deltas = reinterpret_cast<int64_t*>(base + 8ull * pdt->fan_out);
  n->child_ptrs = reinterpret_cast<uint32_t*>(base + 16ull * pdt->fan_out);
  return 0;
}

int64_t pdt_leaf_delta(const pdt* pdt, uint32_t leaf_idx) {
  pdt_leaf l;
  pdt_get_leaf(pdt, leaf_idx, &l);
  int64_t sum = 0;
  const uint32_t n = leaf_count(l);
  for (uint32_t i = 0; i < n; i++) sum += PDT_EFFECT(l.def[i]);
  return sum;
}

uint32_t pdt_find_last_leaf_by_rid(const pdt* pdt, const int64_t* rid, int64_t* delta) {
  bool on_sep;
  uint32_t idx = descend<true, false>(pdt, *rid, delta, &on_sep);
  pdt_leaf leaf;
  pdt_get_leaf(pdt, idx, &leaf);
  if (pdt->n_updates != 0 && leaf_count(leaf) == 0)
    CV_ERROR(PDT_MODULE, "pdt_find_last_leaf_by_rid: empty leaf in non-empty PDT");
  if (leaf_count(leaf) == 0) return idx;
  if (on_sep && *rid < int64_t(USID(leaf.def[0])) + *delta) {
    // The target lies in front of this leaf; the delta taken off is this leaf's own.
    J480_ASSERT(PDT_MODULE, *leaf.prev != LLIST_END);
    *delta -= pdt_leaf_delta(pdt, idx);
    idx = *leaf.prev;
    pdt_get_leaf(pdt, idx, &leaf);
  }
  // A row's modifies may be spread over leaves: find the leftmost that holds them.
  while (leaf_count(leaf) != 0 && int64_t(USID(leaf.def[0])) + *delta == *rid &&
         PDT_TYPE(leaf.def[0]) == PDT_MODIFY && *leaf.prev != LLIST_END) {
    pdt_leaf prev;
    pdt_get_leaf(pdt, *leaf.prev, &prev);
    const uint32_t pc = leaf_count(prev);
    if (pc == 0) break;
    const uint64_t last = prev.def[pc - 1];
    if (!(int64_t(USID(last)) - PDT_EFFECT(last) + *delta == *rid && PDT_TYPE(last) == PDT_MODIFY))
      break;
    *delta -= pdt_leaf_delta(pdt, prev.idx);
    leaf = prev;
    if (int64_t(USID(leaf.def[0])) + *delta != *rid) break;
  }
  return leaf.idx;
}

uint32_t pdt_find_first_leaf_by_rid(const pdt* pdt, const int64_t* rid, int64_t* delta) {
  if (IS_LEAF(pdt, pdt->root_idx)) {
    *delta = 0;
    return pdt->root_idx;
  }
  bool on_sep;
  uint32_t idx = descend<true, true>(pdt, *rid, delta, &on_sep);
  if (!on_sep) return idx;
  pdt_leaf leaf;
  pdt_get_leaf(pdt, idx, &leaf);
  const uint32_t n = leaf_count(leaf);
  J480_ASSERT(PDT_MODULE, n);
  const int64_t L = pdt_leaf_delta(pdt, idx);
  const uint64_t e = leaf.def[n - 1];
  if (int64_t(USID(e)) - PDT_EFFECT(e) + *delta + L < *rid) {
    J480_ASSERT(PDT_MODULE, *leaf.next != LLIST_END);
    *delta += L;
    pdt_get_leaf(pdt, *leaf.next, &leaf);
    J480_ASSERT(PDT_MODULE, int64_t(USID(leaf.def[0])) + *delta == *rid);
  }
  return leaf.idx;
}

uint32_t pdt_find_first_leaf_by_sid(const pdt* pdt, const int64_t* sid, int64_t* delta) {
  bool on_sep;
  uint32_t idx = descend<false, true>(pdt, *sid, delta, &on_sep);
  if (!on_sep) return idx;
  pdt_leaf leaf;
  pdt_get_leaf(pdt, idx, &leaf);
  const uint32_t nc = leaf_count(leaf);
  J480_ASSERT(PDT_MODULE, nc);
  const uint64_t e = leaf.def[nc - 1];
  const int64_t last_sid = int64_t(USID(e)) + (PDT_TYPE(e) == PDT_DELETE ? PDT_HDR(e) : 0);
  if (last_sid < *sid) {
    J480_ASSERT(PDT_MODULE, *leaf.next != LLIST_END);
    *delta += pdt_leaf_delta(pdt, idx);
    pdt_get_leaf(pdt, *leaf.next, &leaf);
    J480_ASSERT(PDT_MODULE, int64_t(USID(leaf.def[0])) == *sid);
  }
  return leaf.idx;
}

uint32_t pdt_find_last_leaf_by_sid(const pdt* pdt, const int64_t* sid, int64_t* delta) {
  bool on_sep;
  uint32_t idx = descend<false, false>(pdt, *sid, delta, &on_sep);
  if (pdt->n_updates != 0 && NODE_COUNT(pdt, idx) == 0)
    CV_ERROR(PDT_MODULE, "pdt_find_last_leaf_by_sid: empty leaf in non-empty PDT");
  return idx;
}

uint32_t pdt_leaf_find_pos_by_rid(const uint64_t* def, uint32_t count, const int64_t* rid,
                                  int64_t* delta) {
  if (count == 0) return 0;
  uint32_t i = 0;
  int64_t d = *delta;
  while (i < count && int64_t(USID(def[i])) + d < *rid) d += PDT_EFFECT(def[i++]);
  while (i < count && int64_t(USID(def[i])) + d == *rid && PDT_TYPE(def[i]) == PDT_DELETE)
    d -= int64_t(PDT_HDR(def[i++])) + 1;
  *delta = d;
  return i;
}

void pdt_update_separator(pdt* pdt, uint32_t node_idx, int64_t new_sid) {
  while (node_idx != pdt->root_idx) {
    pdt_node parent;
    pdt_get_node(pdt, pdt->nodes[node_idx][PARENT], &parent);
    const uint32_t i = child_position(parent, node_idx);
    J480_ASSERT(PDT_MODULE, i <= *parent.count);
    if (i != 0) {
      parent.sep_sids[i - 1] = new_sid;
      return;
    }
    node_idx = parent.idx;
  }
}

void pdt_propagate_delta(pdt* pdt, uint32_t node_idx, int64_t change) {
  while (node_idx != pdt->root_idx) {
    pdt_node parent;
    pdt_get_node(pdt, pdt->nodes[node_idx][PARENT], &parent);
    const uint32_t i = child_position(parent, node_idx);
    J480_ASSERT(PDT_MODULE, i <= *parent.count);
    parent.deltas[i] += change;
    node_idx = parent.idx;
  }
  pdt->delta += change;
}

int64_t pdt_find_separator_sid(const pdt* pdt, uint32_t target_idx) {
  J480_ASSERT(PDT_MODULE, target_idx != pdt->root_idx);
  uint32_t node_idx = target_idx;
  while (node_idx != pdt->root_idx) {
    pdt_node parent;
    pdt_get_node(pdt, pdt->nodes[node_idx][PARENT], &parent);
    const uint32_t i = child_position(parent, node_idx);
    J480_ASSERT(PDT_MODULE, i <= *parent.count);
    if (i < *parent.count) return parent.sep_sids[i];
    node_idx = parent.idx;
  }
  CV_ERROR(PDT_MODULE, "pdt_find_separator_sid: no separator found, rightmost node?");
  cv_assert_fail(__FILE__, __LINE__, PDT_MODULE, "pdt_find_separator_sid: no separator found");
}

int64_t pdt_subtree_first_sid(const pdt* pdt, uint32_t node_idx) {
  while (!IS_LEAF(pdt, node_idx)) {
    J480_ASSERT(PDT_MODULE, NODE_COUNT(pdt, node_idx));
    pdt_node n;
    pdt_get_node(pdt, node_idx, &n);
    node_idx = n.child_ptrs[0];
  }
  J480_ASSERT(PDT_MODULE, NODE_COUNT(pdt, node_idx));
  pdt_leaf l;
  pdt_get_leaf(pdt, node_idx, &l);
  return int64_t(USID(l.def[0]));
}

uint32_t pdt_next_sibling(const pdt* pdt, uint32_t node_idx) {
  if (node_idx == pdt->root_idx) return LLIST_END;
  pdt_node parent;
  pdt_get_node(pdt, pdt->nodes[node_idx][PARENT], &parent);
  const uint32_t i = child_position(parent, node_idx);
  if (i < *parent.count) return parent.child_ptrs[i + 1];
  const uint32_t ps = pdt_next_sibling(pdt, parent.idx);
  if (ps == LLIST_END) return LLIST_END;
  pdt_node s;
  pdt_get_node(pdt, ps, &s);
  return s.child_ptrs[0];
}

uint32_t pdt_prev_sibling(const pdt* pdt, uint32_t node_idx) {
  if (node_idx == pdt->root_idx) return LLIST_END;
  pdt_node parent;
  pdt_get_node(pdt, pdt->nodes[node_idx][PARENT], &parent);
  const uint32_t i = child_position(parent, node_idx);
  if (i > 0) return parent.child_ptrs[i - 1];
  const uint32_t ps = pdt_prev_sibling(pdt, parent.idx);
  if (ps == LLIST_END) return LLIST_END;
  pdt_node s;
  pdt_get_node(pdt, ps, &s);
  return s.child_ptrs[*s.count];
}

void pdt_get_siblings(const pdt* pdt, uint32_t node_idx, uint32_t* prev_node, uint32_t* next_node) {
  *prev_node = pdt_prev_sibling(pdt, node_idx);
  *next_node = pdt_next_sibling(pdt, node_idx);
}

int64_t pdt_serialized_size(const pdt* pdt) {
  return (pdt->n_entries * 3 + 6) * 4 + value_space_serialized_size(pdt->value_space);
}

int pdt_serialize(const pdt* pdt, char* buf, int64_t bufsize) {
  const int64_t vs_size = value_space_serialized_size(pdt->value_space);
  const int64_t resultsize = (pdt->n_entries * 3 + 6) * 4 + vs_size;
  const int64_t sid0 = 0;
  int64_t delta;
  uint32_t leaf_idx = pdt_find_first_leaf_by_sid(pdt, &sid0, &delta);
  if (bufsize < resultsize) {
    CV_ERROR(PDT_MODULE, "pdt_serialize: buffer too small, bufsize=%lld, resultsize=%lld",
             static_cast<long long>(bufsize), static_cast<long long>(resultsize));
    return -1;
  }
  char* cur = buf;
  memcpy(cur, &pdt->fan_out, 4);
  memcpy(cur + 4, &pdt->num_nodes, 4);
  memcpy(cur + 8, &vs_size, 8);
  memcpy(cur + 16, &pdt->n_entries, 8);
  cur += 24;
  const int64_t written = value_space_serialize(pdt->value_space, cur, bufsize - 24);
  if (written != vs_size) {
    CV_ERROR(PDT_MODULE, "pdt_serialize: error serializing value space, written=%lld, vs_size=%lld",
             static_cast<long long>(written), static_cast<long long>(vs_size));
    return -1;
  }
  cur += vs_size;
  while (leaf_idx != LLIST_END) {
    pdt_leaf leaf;
    pdt_get_leaf(pdt, leaf_idx, &leaf);
    const uint32_t n = leaf_count(leaf);
    for (uint32_t i = 0; i < n; i++) {
      memcpy(cur, &leaf.def[i], 8);
      memcpy(cur + 8, &leaf.offset[i], 4);
      cur += 12;
    }
    leaf_idx = *leaf.next;
  }
  J480_ASSERT(PDT_MODULE, cur - buf == resultsize);
  return 0;
}

// ---- the invariant checker ----

namespace {

struct checker {
  const struct pdt* pdt;
  int flags;
  std::string* why;
  std::vector<uint32_t> leaves;  // in tree order
  int leaf_depth = -1;

  bool fail(const std::string& text) {
    if (why) *why = text;
    return false;
  }

  // Walks the subtree of `idx`: its sum of effects in `sum`, its first SID (or -1 if empty).
  bool walk(uint32_t idx, uint32_t parent, int depth, int64_t* sum, int64_t* first_sid) {
    auto at = [idx] { return " at node " + std::to_string(idx); };
    if (idx >= pdt->num_nodes) return fail("node index out of range" + at());
    if (pdt->nodes[idx][PARENT] != parent) return fail("wrong parent link" + at());
    if (IS_LEAF(pdt, idx)) {
      if (leaf_depth < 0) leaf_depth = depth;
      if (depth != leaf_depth) return fail("leaves on different levels" + at());
      const uint32_t n = NODE_COUNT(pdt, idx);
      if (n > pdt->leaf_max_entries) return fail("leaf overfull" + at());
      if (idx != pdt->root_idx && n < pdt->leaf_min_entries && n == 0)
        return fail("empty leaf" + at());
      if (idx != pdt->root_idx && n < pdt->leaf_min_entries && !(flags & PDT_CHECK_LAST_LEAF_LOW))
        return fail("leaf under the minimum" + at());
      leaves.push_back(idx);
      *sum = pdt_leaf_delta(pdt, idx);
      pdt_leaf l;
      pdt_get_leaf(pdt, idx, &l);
      *first_sid = n ? int64_t(USID(l.def[0])) : -1;
      return true;
    }
    pdt_node n;
    pdt_get_node(pdt, idx, &n);
    const uint32_t children = *n.count + 1;
    if (children > pdt->fan_out) return fail("node overfull" + at());
    if (idx == pdt->root_idx ? children < 2 : children < pdt->node_min_children)
      return fail("node under the minimum" + at());
    *sum = 0;
    for (uint32_t i = 0; i < children; i++) {
      int64_t s, f;
      if (!walk(n.child_ptrs[i], idx, depth + 1, &s, &f)) return false;
      if (s != n.deltas[i])
        return fail("delta sum " + std::to_string(n.deltas[i]) + " of child " +
                    std::to_string(i) + " differs from its subtree's " + std::to_string(s) + at());
      if (i == 0) *first_sid = f;
      if (i > 0 && (flags & PDT_CHECK_SEPARATORS) && n.sep_sids[i - 1] != f)
        return fail("separator " + std::to_string(i - 1) + " is " +
                    std::to_string(n.sep_sids[i - 1]) + ", subtree starts at " +
                    std::to_string(f) + at());
      *sum += s;
    }
    return true;
  }

  bool run() {
    int64_t sum, first;
    const uint32_t root = pdt->root_idx;
    if (pdt->nodes[root][PARENT] != root) return fail("root is not its own parent");
    if (!walk(root, root, 0, &sum, &first)) return false;
    if (sum != pdt->delta) return fail("tree delta differs from the sum of its entries");
    if ((flags & PDT_CHECK_LAST_LEAF_LOW) && leaves.size() > 1) {
      for (size_t i = 0; i + 1 < leaves.size(); i++)
        if (NODE_COUNT(pdt, leaves[i]) < pdt->leaf_min_entries)
          return fail("leaf under the minimum at node " + std::to_string(leaves[i]));
    }
    // The chain must list the leaves in tree order, linked both ways.
    for (size_t i = 0; i < leaves.size(); i++) {
      const uint32_t* leaf = pdt->nodes[leaves[i]];
      const uint32_t want_prev = i == 0 ? LLIST_END : leaves[i - 1];
      const uint32_t want_next = i + 1 == leaves.size() ? LLIST_END : leaves[i + 1];
      if (leaf[PREV] != want_prev || leaf[NEXT] != want_next)
        return fail("leaf chain broken at node " + std::to_string(leaves[i]));
    }
    // Entry order and counters.
    int64_t n_entries = 0, n_ins = 0, n_mod = 0, n_del = 0, d = 0, prev_rid = -1;
    uint64_t prev_def = 0;
    bool have_prev = false;
    for (uint32_t idx : leaves) {
      pdt_leaf l;
      pdt_get_leaf(pdt, idx, &l);
      const uint32_t n = leaf_count(l);
      for (uint32_t i = 0; i < n; i++) {
        const uint64_t e = l.def[i];
        const int64_t rid = int64_t(USID(e)) + d;
        const uint32_t type = PDT_TYPE(e);
        if (type == 3) return fail("entry of type 3 in node " + std::to_string(idx));
        if (have_prev) {
          bool ok = rid > prev_rid ||
                    (rid == prev_rid &&
                     (PDT_TYPE(prev_def) == PDT_DELETE ||
                      (PDT_TYPE(prev_def) == PDT_MODIFY && type == PDT_MODIFY &&
                       PDT_HDR(prev_def) < PDT_HDR(e))));
          if (!ok)
            return fail("entries out of order at RID " + std::to_string(rid) + " in node " +
                        std::to_string(idx) + " position " + std::to_string(i));
        }
        if (type == PDT_INSERT && PDT_HDR(e) != 0) return fail("insert with hdr");
        prev_rid = rid;
        prev_def = e;
        have_prev = true;
        n_entries++;
        if (type == PDT_INSERT) n_ins++;
        if (type == PDT_MODIFY) n_mod++;
        if (type == PDT_DELETE) n_del += int64_t(PDT_HDR(e)) + 1;
        d += PDT_EFFECT(e);
      }
    }
    if (n_entries != pdt->n_entries) return fail("n_entries differs from the leaves");
    if (n_ins != pdt->n_inserts) return fail("n_inserts differs from the leaves");
    if (n_mod != pdt->n_modifies) return fail("n_modifies differs from the leaves");
    if (n_del != pdt->n_deletes) return fail("n_deletes differs from the leaves");
    if (pdt->n_updates != n_ins + n_mod + n_del) return fail("n_updates differs from the leaves");
    if (pdt->delta != n_ins - n_del) return fail("delta differs from n_inserts - n_deletes");
    return true;
  }
};

}  // namespace

bool pdt_check(const pdt* pdt, int flags, std::string* why) {
  checker c{pdt, flags, why, {}};
  return c.run();
}

void pdt_debug_check(const pdt* pdt) {
  if (!pdt_debug_checks) return;
  std::string why;
  if (!pdt_check(pdt, PDT_CHECK_SEPARATORS | PDT_CHECK_LAST_LEAF_LOW, &why))
    cv_assert_fail(__FILE__, __LINE__, PDT_MODULE, why.c_str());
}
