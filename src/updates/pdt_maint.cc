// pdt_maint: keeping the tree in shape: splits, the spread of a long delete over new leaves,
// removal of a range of entries, dropping leaves, redistribution and merges of leaves and
// internal nodes, and the removal of all modifies of one column.
#include <algorithm>
#include <cstring>
#include <vector>

#include "updates/pdt.h"
#include "updates/pdt_internal.h"
#include "updates/value_space.h"
#include "utils/cvlog.h"

namespace {

// An empty leaf that is its own parent and stands in no chain; grows the tree ahead so that a
// new root can follow.
uint32_t new_leaf(pdt* pdt) {
  if (int64_t(pdt->max_nodes) - 2 < int64_t(pdt->num_nodes)) pdt_grow(pdt);
  const uint32_t idx = pdt_alloc_node(pdt);
  uint32_t* n = pdt->nodes[idx];
  n[COUNT] = LEAF_COUNT_BASE;
  n[PARENT] = idx;
  n[NEXT] = LLIST_END;
  n[PREV] = LLIST_END;
  return idx;
}

// A new internal root whose only child is the present root, holding the tree's whole delta.
uint32_t new_root_above(pdt* pdt, uint32_t child) {
  const uint32_t idx = pdt_alloc_node(pdt);
  uint32_t* raw = pdt->nodes[idx];
  raw[COUNT] = 0;
  raw[PARENT] = idx;
  pdt_node root;
  pdt_get_node(pdt, idx, &root);
  root.child_ptrs[0] = child;
  root.deltas[0] = pdt->delta;
  pdt->nodes[child][PARENT] = idx;
  return idx;
}

int64_t effects(const uint64_t* def, uint32_t n) {
  int64_t sum = 0;
  for (uint32_t i = 0; i < n; i++) sum += PDT_EFFECT(def[i]);
  return sum;
}

// Links `right` into the chain behind `left`.
void chain_behind(pdt* pdt, uint32_t left, uint32_t right) {
  uint32_t* l = pdt->nodes[left];
  uint32_t* r = pdt->nodes[right];
  r[NEXT] = l[NEXT];
  r[PREV] = left;
  if (l[NEXT] != LLIST_END) pdt->nodes[l[NEXT]][PREV] = right;
  l[NEXT] = right;
}

void move_entries(const pdt_leaf& dst, uint32_t dpos, const pdt_leaf& src, uint32_t spos,
                  uint32_t n) {
  memmove(dst.def + dpos, src.def + spos, sizeof(uint64_t) * n);
  memmove(dst.offset + dpos, src.offset + spos, sizeof(uint32_t) * n);
}

// Moves `n` slots of an internal node (children and deltas from `from`) to `to`.
void move_children(const pdt_node& dst, uint32_t to, const pdt_node& src, uint32_t from,
                   uint32_t n) {
  memmove(dst.child_ptrs + to, src.child_ptrs + from, sizeof(uint32_t) * n);
  memmove(dst.deltas + to, src.deltas + from, sizeof(int64_t) * n);
}
void move_seps(const pdt_node& dst, uint32_t to, const pdt_node& src, uint32_t from, uint32_t n) {
  memmove(dst.sep_sids + to, src.sep_sids + from, sizeof(int64_t) * n);
}

void adopt(pdt* pdt, const pdt_node& node, uint32_t from, uint32_t n) {
  for (uint32_t i = from; i < from + n; i++) pdt->nodes[node.child_ptrs[i]][PARENT] = node.idx;
}

}  // namespace

int pdt_split_leaf(pdt* pdt, pdt_leaf* leaf, int64_t* left_delta, uint32_t* right_out,
                   uint64_t* right_start_def) {
  const uint32_t new_idx = new_leaf(pdt);
  const uint32_t n = leaf_count(*leaf);
  if (n < 3) {
    CV_ERROR(PDT_MODULE, "pdt_split_leaf: trying to split leaf with less than 3 entries");
    return -1;
  }
  const uint32_t mid = n / 2;
  pdt_leaf right;
  pdt_get_leaf(pdt, new_idx, &right);
  move_entries(right, 0, *leaf, mid, n - mid);
  const int64_t lsum = effects(leaf->def, mid);
  const int64_t rsum = effects(right.def, n - mid);
  const uint32_t left_idx = leaf->idx;
  chain_behind(pdt, left_idx, new_idx);
  set_leaf_count(*leaf, mid);
  set_leaf_count(right, n - mid);
  J480_ASSERT(PDT_MODULE, NODE_COUNT(pdt, left_idx) >= pdt->leaf_min_entries);
  const uint32_t right_idx = new_idx;
  J480_ASSERT(PDT_MODULE, NODE_COUNT(pdt, right_idx) >= pdt->leaf_min_entries);
  if (*leaf->parent == left_idx) {
    J480_ASSERT(PDT_MODULE, pdt->root_idx == left_idx);
    pdt->root_idx = new_root_above(pdt, left_idx);
  }
  *right.parent = *leaf->parent;
  pdt_insert_in_parent(pdt, *leaf->parent, left_idx, lsum, new_idx, rsum, USID(right.def[0]));
  *left_delta = lsum;
  *right_out = right_idx;
  *right_start_def = right.def[0];
  return 0;
}

int pdt_insert_in_parent(pdt* pdt, uint32_t node_idx, uint32_t l_idx, int64_t l_delta,
                         uint32_t r_idx, int64_t r_delta, int64_t sep_sid) {
  if (IS_LEAF(pdt, node_idx)) {
    CV_ERROR(PDT_MODULE, "not an internal node: %u", node_idx);
    return -1;
  }
  pdt_node left;
  pdt_get_node(pdt, node_idx, &left);
  const uint32_t cnt = *left.count;
  uint32_t pos = 0;
  if (cnt != 0) pos = std::min(child_position(left, l_idx), cnt);
  J480_ASSERT(PDT_MODULE, left.child_ptrs[pos] == l_idx);

  if (cnt != pdt->fan_out - 1) {
    for (uint32_t j = cnt; j > pos; j--) {
      left.child_ptrs[j + 1] = left.child_ptrs[j];
      left.deltas[j + 1] = left.deltas[j];
      left.sep_sids[j] = left.sep_sids[j - 1];
    }
    left.sep_sids[pos] = sep_sid;
    left.deltas[pos] = l_delta;
    left.deltas[pos + 1] = r_delta;
    left.child_ptrs[pos + 1] = r_idx;
    (*left.count)++;
    J480_ASSERT(PDT_MODULE, *left.count + 1 >= pdt->node_min_children || node_idx == pdt->root_idx);
    return 0;
  }

  // Full: the fan_out + 1 children with the new pair in place are cut at m; separator m goes up.
  const uint32_t fan_out = pdt->fan_out;
  const uint32_t m = fan_out / 2;
  const uint32_t q_idx = pdt_alloc_node(pdt);
  pdt->nodes[q_idx][COUNT] = 0;
  pdt->nodes[q_idx][PARENT] = *left.parent;
  pdt_node right;
  pdt_get_node(pdt, q_idx, &right);
  auto cchild = [&](uint32_t j) {
    return j <= pos ? left.child_ptrs[j] : j == pos + 1 ? r_idx : left.child_ptrs[j - 1];
  };
  auto cdelta = [&](uint32_t j) {
    return j < pos ? left.deltas[j] : j == pos ? l_delta : j == pos + 1 ? r_delta : left.deltas[j - 1];
  };
  auto csep = [&](uint32_t j) {
    return j < pos ? left.sep_sids[j] : j == pos ? sep_sid : left.sep_sids[j - 1];
  };
  int64_t rsum = 0, lsum = 0;
  for (uint32_t j = m + 1; j <= fan_out; j++) {
    right.child_ptrs[j - m - 1] = cchild(j);
    right.deltas[j - m - 1] = cdelta(j);
    rsum += right.deltas[j - m - 1];
  }
  for (uint32_t j = m + 1; j < fan_out; j++) right.sep_sids[j - m - 1] = csep(j);
  *right.count = fan_out - m - 1;
  adopt(pdt, right, 0, fan_out - m);
  const int64_t promoted = csep(m);
  for (uint32_t j = m + 1; j-- > 0;) {  // downwards: every read is at or below the write
    left.child_ptrs[j] = cchild(j);
    left.deltas[j] = cdelta(j);
    if (j < m) left.sep_sids[j] = csep(j);
  }
  for (uint32_t j = 0; j <= m; j++) lsum += left.deltas[j];
  *left.count = m;
  J480_ASSERT(PDT_MODULE, *left.count + 1 >= pdt->node_min_children);
  J480_ASSERT(PDT_MODULE, *right.count + 1 >= pdt->node_min_children);
  if (*left.parent == node_idx) {
    J480_ASSERT(PDT_MODULE, pdt->root_idx == node_idx);
    pdt->root_idx = new_root_above(pdt, node_idx);
    *right.parent = pdt->root_idx;
  }
  return pdt_insert_in_parent(pdt, *left.parent, node_idx, lsum, q_idx, rsum, promoted);
}

int pdt_add_deletes_split(pdt* pdt, pdt_leaf* leaf, uint32_t pos, int64_t sid, int64_t ntuples,
                          int64_t offset) {
  const uint32_t k =
      static_cast<uint32_t>((ntuples + PDT_BLOCK_DELETE_MAX - 1) / PDT_BLOCK_DELETE_MAX);
  const uint32_t old_n = leaf_count(*leaf);
  const uint32_t total = old_n + k;
  const uint32_t lme = pdt->leaf_max_entries;
  const uint32_t n_leaves = total / lme + (total % lme ? 1 : 0);
  const uint32_t base = total / n_leaves, extra = total % n_leaves;

  // The whole sequence aside: old entries up to pos, the new deletes, the rest.
  thread_local std::vector<uint64_t> defs;
  thread_local std::vector<uint32_t> offs;
  defs.resize(total);
  offs.resize(total);
  memcpy(defs.data(), leaf->def, sizeof(uint64_t) * pos);
  memcpy(offs.data(), leaf->offset, sizeof(uint32_t) * pos);
  for (uint32_t i = 0; i < k; i++) {
    const int64_t left = ntuples - int64_t(i) * PDT_BLOCK_DELETE_MAX;
    const uint32_t hdr = i + 1 < k ? PDT_BLOCK_DELETE_MAX - 1 : uint32_t(left - 1);
    defs[pos + i] = PDT_DEF(uint64_t(sid + int64_t(i) * PDT_BLOCK_DELETE_MAX), PDT_DELETE, hdr);
    offs[pos + i] = offset < 0 ? 0 : uint32_t(offset + int64_t(i) * PDT_BLOCK_DELETE_MAX);
  }
  memcpy(defs.data() + pos + k, leaf->def + pos, sizeof(uint64_t) * (old_n - pos));
  memcpy(offs.data() + pos + k, leaf->offset + pos, sizeof(uint32_t) * (old_n - pos));
  const int64_t old_sum = effects(leaf->def, old_n);

  uint32_t leaf_idx = leaf->idx;
  uint32_t used = base + (extra > 0 ? 1 : 0);
  memcpy(leaf->def, defs.data(), sizeof(uint64_t) * used);
  memcpy(leaf->offset, offs.data(), sizeof(uint32_t) * used);
  set_leaf_count(*leaf, used);
  int64_t slot = old_sum;  // what the parent holds for leaf_idx so far
  int64_t sum = effects(leaf->def, used);
  for (uint32_t j = 1; j < n_leaves; j++) {
    const uint32_t cnt = base + (j < extra ? 1 : 0);
    const uint32_t next_idx = new_leaf(pdt);
    pdt_leaf next;
    pdt_get_leaf(pdt, next_idx, &next);
    memcpy(next.def, defs.data() + used, sizeof(uint64_t) * cnt);
    memcpy(next.offset, offs.data() + used, sizeof(uint32_t) * cnt);
    used += cnt;
    set_leaf_count(next, cnt);
    chain_behind(pdt, leaf_idx, next_idx);
    if (pdt->nodes[leaf_idx][PARENT] == leaf_idx) {
      J480_ASSERT(PDT_MODULE, pdt->root_idx == leaf_idx);
      pdt->root_idx = new_root_above(pdt, leaf_idx);
    }
    *next.parent = pdt->nodes[leaf_idx][PARENT];
    pdt_insert_in_parent(pdt, *next.parent, leaf_idx, slot, next_idx, 0, USID(next.def[0]));
    J480_ASSERT(PDT_MODULE, NODE_COUNT(pdt, leaf_idx) >= pdt->leaf_min_entries);
    J480_ASSERT(PDT_MODULE, NODE_COUNT(pdt, next_idx) >= pdt->leaf_min_entries);
    pdt_propagate_delta(pdt, leaf_idx, sum - slot);
    leaf_idx = next_idx;
    slot = 0;
    sum = effects(next.def, cnt);
  }
  pdt_propagate_delta(pdt, leaf_idx, sum - slot);
  if (pos == 0) pdt_update_separator(pdt, leaf->idx, sid);
  pdt->n_deletes += ntuples;
  pdt->n_updates += ntuples;
  pdt->n_entries += k;
  return 0;
}

int64_t pdt_remove_range(pdt* pdt, pdt_leaf* leaf, uint32_t pos, int64_t delta, int64_t last_rid,
                         int64_t* n_ins, int64_t* n_mods, int64_t* n_dels) {
  int64_t ti = 0, tm = 0, td = 0;
  uint32_t left_check = LLIST_END, right_check = LLIST_END;
  pdt_leaf cur = *leaf;
  uint32_t start = pos;
  for (;;) {
    const uint32_t n = leaf_count(cur);
    if (start < n && USID(cur.def[start]) + delta > last_rid) break;
    int64_t li = 0, ld = 0;
    uint32_t i = start;
    for (; i < n && USID(cur.def[i]) + delta <= last_rid; i++) {
      const uint64_t e = cur.def[i];
      switch (PDT_TYPE(e)) {
        case PDT_INSERT:
          value_space_mark_insert_dead(pdt->value_space, cur.offset[i]);
          li++;
          break;
        case PDT_MODIFY:
          tm++;
          break;
        default:
          ld += int64_t(PDT_HDR(e)) + 1;
          break;
      }
      delta += PDT_EFFECT(e);
    }
    ti += li;
    td += ld;
    pdt->n_entries -= i - start;
    if (i == n) {
      pdt_propagate_delta(pdt, cur.idx, ld - li);
      set_leaf_count(cur, start);
      const uint32_t next = *cur.next;
      if (start == 0) {
        if (pdt_drop_leaf(pdt, cur.idx) < 0) return -1;
      } else {
        left_check = cur.idx;
      }
      if (next == LLIST_END) break;
      if (pdt_get_leaf(pdt, next, &cur) != 0) {
        CV_ERROR(PDT_MODULE, "node %u is not a leaf", next);
        return -1;
      }
      start = 0;
      continue;
    }
    move_entries(cur, start, cur, i, n - i);
    set_leaf_count(cur, start + n - i);
    pdt_propagate_delta(pdt, cur.idx, ld - li);
    right_check = cur.idx;
    if (start == 0) pdt_update_separator(pdt, cur.idx, USID(cur.def[0]));
    break;
  }
  pdt->n_inserts -= ti;
  pdt->n_modifies -= tm;
  pdt->n_deletes -= td;
  pdt->n_updates -= ti + tm + td;
  if (left_check != LLIST_END && right_check != LLIST_END) {
    J480_ASSERT(PDT_MODULE, left_check != right_check);
    if (NODE_COUNT(pdt, left_check) < pdt->leaf_min_entries &&
        NODE_COUNT(pdt, right_check) < pdt->leaf_min_entries) {
      pdt_leaf_merge(pdt, left_check, right_check);
      pdt_rebalance_leaf(pdt, left_check);
    } else {
      pdt_rebalance_leaf(pdt, left_check);
      pdt_rebalance_leaf(pdt, right_check);
    }
  } else if (left_check != LLIST_END) {
    pdt_rebalance_leaf(pdt, left_check);
  } else if (right_check != LLIST_END) {
    pdt_rebalance_leaf(pdt, right_check);
  }
  *n_ins = ti;
  *n_mods = tm;
  *n_dels = td;
  return ti + tm + td;
}

int pdt_drop_leaf(pdt* pdt, uint32_t leaf_idx) {
  if (leaf_idx == pdt->root_idx) return 0;
  if (!IS_LEAF(pdt, leaf_idx)) {
    CV_ERROR(PDT_MODULE, "pdt_drop_leaf: not a leaf node");
    return -1;
  }
  uint32_t* l = pdt->nodes[leaf_idx];
  if (l[PREV] != LLIST_END) pdt->nodes[l[PREV]][NEXT] = l[NEXT];
  if (l[NEXT] != LLIST_END) pdt->nodes[l[NEXT]][PREV] = l[PREV];
  pdt_remove_from_parent(pdt, leaf_idx);
  return 0;
}

void pdt_remove_from_parent(pdt* pdt, uint32_t target_idx) {
  const uint32_t cur_idx = pdt->nodes[target_idx][PARENT];
  J480_ASSERT(PDT_MODULE, cur_idx != target_idx);
  pdt_node cur_node;
  pdt_get_node(pdt, cur_idx, &cur_node);
  J480_ASSERT(PDT_MODULE, *cur_node.count + 1 >= pdt->node_min_children ||
                              (cur_idx == pdt->root_idx && *cur_node.count >= 1));
  const uint32_t i = child_position(cur_node, target_idx);
  J480_ASSERT(PDT_MODULE, i <= *cur_node.count);
  if (cur_idx == pdt->root_idx && *cur_node.count == 1) {
    J480_ASSERT(PDT_MODULE, i == 0 || i == 1);
    const uint32_t s = cur_node.child_ptrs[i ^ 1];
    pdt->delta = cur_node.deltas[i ^ 1];
    pdt->nodes[s][PARENT] = s;
    pdt->root_idx = s;
    if (IS_LEAF(pdt, s)) {
      pdt->nodes[s][NEXT] = LLIST_END;
      pdt->nodes[s][PREV] = LLIST_END;
    }
    return;
  }
  const int64_t d = cur_node.deltas[i];
  const uint32_t cnt = *cur_node.count;
  // Removing child i takes the separator on its left (on its right for the first child).
  const uint32_t sep_gone = i == 0 ? 0 : i - 1;
  if (i == 0) pdt_update_separator(pdt, cur_idx, cur_node.sep_sids[0]);
  move_seps(cur_node, sep_gone, cur_node, sep_gone + 1, cnt - 1 - sep_gone);
  move_children(cur_node, i, cur_node, i + 1, cnt - i);
  (*cur_node.count)--;
  pdt_propagate_delta(pdt, cur_idx, -d);
  if (cur_idx == pdt->root_idx || *cur_node.count + 1 >= pdt->node_min_children) return;

  J480_ASSERT(PDT_MODULE, *cur_node.count + 1 == pdt->node_min_children - 1);
  uint32_t prev_node, next_node;
  pdt_get_siblings(pdt, cur_idx, &prev_node, &next_node);
  if (next_node != LLIST_END && NODE_COUNT(pdt, next_node) + 2 + *cur_node.count > pdt->fan_out) {
    pdt_node_pull_from_right(pdt, cur_idx, next_node);
  } else if (prev_node != LLIST_END &&
             NODE_COUNT(pdt, prev_node) + 2 + *cur_node.count > pdt->fan_out) {
    pdt_node_pull_from_left(pdt, cur_idx, prev_node);
  } else if (next_node != LLIST_END) {
    pdt_node_merge(pdt, cur_idx, next_node);
  } else {
    J480_ASSERT(PDT_MODULE, prev_node != LLIST_END);
    pdt_node_merge(pdt, prev_node, cur_idx);
  }
}

void pdt_rebalance_leaf(pdt* pdt, uint32_t leaf_idx) {
  J480_ASSERT(PDT_MODULE, IS_LEAF(pdt, leaf_idx));
  if (NODE_COUNT(pdt, leaf_idx) >= pdt->leaf_min_entries || leaf_idx == pdt->root_idx) return;
  pdt_leaf leaf;
  pdt_get_leaf(pdt, leaf_idx, &leaf);
  const uint32_t n = leaf_count(leaf);
  if (*leaf.next != LLIST_END && n + NODE_COUNT(pdt, *leaf.next) > pdt->leaf_max_entries) {
    pdt_leaf_pull_from_right(pdt, leaf_idx, *leaf.next);
  } else if (*leaf.prev != LLIST_END && n + NODE_COUNT(pdt, *leaf.prev) > pdt->leaf_max_entries) {
    pdt_leaf_pull_from_left(pdt, leaf_idx, *leaf.prev);
  } else if (*leaf.next != LLIST_END) {
    pdt_leaf_merge(pdt, leaf_idx, *leaf.next);
  } else {
    J480_ASSERT(PDT_MODULE, *leaf.prev != LLIST_END);
    pdt_leaf_merge(pdt, *leaf.prev, leaf_idx);
  }
}

namespace {

// The checks shared by both directions of a leaf redistribution; the entries to move.
uint32_t leaf_pull_count(pdt* pdt, uint32_t dst_idx, uint32_t src_idx) {
  J480_ASSERT(PDT_MODULE, dst_idx != LLIST_END);
  J480_ASSERT(PDT_MODULE, src_idx != LLIST_END);
  J480_ASSERT(PDT_MODULE, dst_idx != src_idx);
  const uint32_t src_count = NODE_COUNT(pdt, src_idx), dst_count = NODE_COUNT(pdt, dst_idx);
  J480_ASSERT(PDT_MODULE, src_count > dst_count);
  const uint32_t to_move = std::max<uint32_t>((src_count - dst_count) / 2, 1);
  J480_ASSERT(PDT_MODULE, src_count - to_move >= pdt->leaf_min_entries);
  return to_move;
}

void leaf_pull_done(pdt* pdt, uint32_t dst_idx, uint32_t src_idx) {
  J480_ASSERT(PDT_MODULE, NODE_COUNT(pdt, src_idx) >= pdt->leaf_min_entries);
  J480_ASSERT(PDT_MODULE, NODE_COUNT(pdt, dst_idx) >= pdt->leaf_min_entries);
}

}  // namespace

void pdt_leaf_pull_from_right(pdt* pdt, uint32_t dst_idx, uint32_t src_idx) {
  const uint32_t to_move = leaf_pull_count(pdt, dst_idx, src_idx);
  pdt_leaf dst, src;
  pdt_get_leaf(pdt, dst_idx, &dst);
  pdt_get_leaf(pdt, src_idx, &src);
  J480_ASSERT(PDT_MODULE, *dst.next == src_idx);
  J480_ASSERT(PDT_MODULE, *src.prev == dst_idx);
  const uint32_t dn = leaf_count(dst), sn = leaf_count(src);
  const int64_t d = effects(src.def, to_move);
  move_entries(dst, dn, src, 0, to_move);
  move_entries(src, 0, src, to_move, sn - to_move);
  set_leaf_count(dst, dn + to_move);
  set_leaf_count(src, sn - to_move);
  leaf_pull_done(pdt, dst_idx, src_idx);
  pdt_propagate_delta(pdt, dst_idx, d);
  pdt_update_separator(pdt, src_idx, USID(src.def[0]));
  pdt_propagate_delta(pdt, src_idx, -d);
}

void pdt_leaf_pull_from_left(pdt* pdt, uint32_t dst_idx, uint32_t src_idx) {
  const uint32_t to_move = leaf_pull_count(pdt, dst_idx, src_idx);
  pdt_leaf dst, src;
  pdt_get_leaf(pdt, dst_idx, &dst);
  pdt_get_leaf(pdt, src_idx, &src);
  J480_ASSERT(PDT_MODULE, *dst.prev == src_idx);
  J480_ASSERT(PDT_MODULE, *src.next == dst_idx);
  const uint32_t dn = leaf_count(dst), sn = leaf_count(src);
  const int64_t d = effects(src.def + sn - to_move, to_move);
  move_entries(dst, to_move, dst, 0, dn);
  move_entries(dst, 0, src, sn - to_move, to_move);
  set_leaf_count(dst, dn + to_move);
  set_leaf_count(src, sn - to_move);
  leaf_pull_done(pdt, dst_idx, src_idx);
  pdt_update_separator(pdt, dst_idx, USID(dst.def[0]));
  pdt_propagate_delta(pdt, dst_idx, d);
  pdt_propagate_delta(pdt, src_idx, -d);
}

void pdt_leaf_merge(pdt* pdt, uint32_t left_idx, uint32_t right_idx) {
  J480_ASSERT(PDT_MODULE, left_idx != LLIST_END);
  J480_ASSERT(PDT_MODULE, right_idx != LLIST_END);
  J480_ASSERT(PDT_MODULE, left_idx != right_idx);
  pdt_leaf left, right;
  pdt_get_leaf(pdt, left_idx, &left);
  pdt_get_leaf(pdt, right_idx, &right);
  J480_ASSERT(PDT_MODULE, *left.next == right_idx);
  J480_ASSERT(PDT_MODULE, *right.prev == left_idx);
  const uint32_t left_count = leaf_count(left), right_count = leaf_count(right);
  J480_ASSERT(PDT_MODULE, left_count + right_count <= pdt->leaf_max_entries);
  J480_ASSERT(PDT_MODULE, pdt->nodes[right_idx][PARENT] == *right.parent);
  move_entries(left, left_count, right, 0, right_count);
  set_leaf_count(left, left_count + right_count);
  pdt_propagate_delta(pdt, left_idx, effects(right.def, right_count));
  pdt_drop_leaf(pdt, right_idx);
}

void pdt_node_pull_from_right(pdt* pdt, uint32_t dst_idx, uint32_t src_idx) {
  J480_ASSERT(PDT_MODULE, dst_idx != LLIST_END);
  J480_ASSERT(PDT_MODULE, src_idx != LLIST_END);
  J480_ASSERT(PDT_MODULE, dst_idx != src_idx);
  pdt_node dst, src;
  pdt_get_node(pdt, dst_idx, &dst);
  pdt_get_node(pdt, src_idx, &src);
  const uint32_t src_count = *src.count, dst_count = *dst.count;
  J480_ASSERT(PDT_MODULE, src_count > dst_count);
  const uint32_t to_move = std::max<uint32_t>((src_count - dst_count) / 2, 1);
  J480_ASSERT(PDT_MODULE, (src_count - to_move + 1) >= pdt->node_min_children);
  J480_ASSERT(PDT_MODULE, (dst_count + to_move + 1) >= pdt->node_min_children);
  dst.sep_sids[dst_count] = pdt_find_separator_sid(pdt, dst_idx);
  move_children(dst, dst_count + 1, src, 0, to_move);
  move_seps(dst, dst_count + 1, src, 0, to_move - 1);
  adopt(pdt, dst, dst_count + 1, to_move);
  int64_t d = 0;
  for (uint32_t i = 0; i < to_move; i++) d += src.deltas[i];
  move_children(src, 0, src, to_move, src_count + 1 - to_move);
  move_seps(src, 0, src, to_move, src_count - to_move);
  *dst.count = dst_count + to_move;
  *src.count = src_count - to_move;
  const uint32_t right_idx = src_idx, left_idx = dst_idx;
  J480_ASSERT(PDT_MODULE, NODE_COUNT(pdt, right_idx) + 1 >= pdt->node_min_children);
  J480_ASSERT(PDT_MODULE, NODE_COUNT(pdt, left_idx) + 1 >= pdt->node_min_children);
  pdt_propagate_delta(pdt, dst_idx, d);
  pdt_update_separator(pdt, src_idx, pdt_subtree_first_sid(pdt, src_idx));
  pdt_propagate_delta(pdt, src_idx, -d);
}

void pdt_node_pull_from_left(pdt* pdt, uint32_t dst_idx, uint32_t src_idx) {
  J480_ASSERT(PDT_MODULE, dst_idx != LLIST_END);
  J480_ASSERT(PDT_MODULE, src_idx != LLIST_END);
  J480_ASSERT(PDT_MODULE, dst_idx != src_idx);
  pdt_node dst, src;
  pdt_get_node(pdt, dst_idx, &dst);
  pdt_get_node(pdt, src_idx, &src);
  const uint32_t src_count = *src.count, dst_count = *dst.count;
  J480_ASSERT(PDT_MODULE, src_count > dst_count);
  const uint32_t to_move = std::max<uint32_t>((src_count - dst_count) / 2, 1);
  // Children left in src; counting the moved separator as well would refuse a valid
  // redistribution at fan_out 3.
  J480_ASSERT(PDT_MODULE, (src_count + 1) - to_move >= pdt->node_min_children);
  J480_ASSERT(PDT_MODULE, (dst_count + to_move + 1) >= pdt->node_min_children);
  const int64_t between = pdt_find_separator_sid(pdt, src_idx);
  move_children(dst, to_move, dst, 0, dst_count + 1);
  move_seps(dst, to_move, dst, 0, dst_count);
  dst.sep_sids[to_move - 1] = between;
  const uint32_t first = src_count + 1 - to_move;  // the first child that moves
  move_children(dst, 0, src, first, to_move);
  move_seps(dst, 0, src, first, to_move - 1);
  adopt(pdt, dst, 0, to_move);
  int64_t d = 0;
  for (uint32_t i = 0; i < to_move; i++) d += dst.deltas[i];
  *dst.count = dst_count + to_move;
  *src.count = src_count - to_move;
  const uint32_t right_idx = dst_idx, left_idx = src_idx;
  J480_ASSERT(PDT_MODULE, NODE_COUNT(pdt, right_idx) + 1 >= pdt->node_min_children);
  J480_ASSERT(PDT_MODULE, NODE_COUNT(pdt, left_idx) + 1 >= pdt->node_min_children);
  pdt_update_separator(pdt, dst_idx, pdt_subtree_first_sid(pdt, dst_idx));
  pdt_propagate_delta(pdt, dst_idx, d);
  pdt_propagate_delta(pdt, src_idx, -d);
}

void pdt_node_merge(pdt* pdt, uint32_t dst_idx, uint32_t src_idx) {
  J480_ASSERT(PDT_MODULE, dst_idx != LLIST_END);
  J480_ASSERT(PDT_MODULE, src_idx != LLIST_END);
  pdt_node dst, src;
  pdt_get_node(pdt, dst_idx, &dst);
  pdt_get_node(pdt, src_idx, &src);
  const uint32_t src_count = *src.count, dst_count = *dst.count;
  J480_ASSERT(PDT_MODULE, src_count + dst_count + 1 >= pdt->node_min_children &&
                              src_count + dst_count + 1 <= pdt->fan_out);
  J480_ASSERT(PDT_MODULE, dst_idx != src_idx);
  dst.sep_sids[dst_count] = pdt_find_separator_sid(pdt, dst_idx);
  move_children(dst, dst_count + 1, src, 0, src_count + 1);
  move_seps(dst, dst_count + 1, src, 0, src_count);
  adopt(pdt, dst, dst_count + 1, src_count + 1);
  int64_t d = 0;
  for (uint32_t i = 0; i <= src_count; i++) d += src.deltas[i];
  *dst.count = dst_count + src_count + 1;
  J480_ASSERT(PDT_MODULE, NODE_COUNT(pdt, dst_idx) + 1 >= pdt->node_min_children);
  pdt_propagate_delta(pdt, dst_idx, d);
  pdt_remove_from_parent(pdt, src_idx);
}

int64_t pdt_remove_column_modifies(pdt* pdt, uint32_t colno) {
  const int64_t start_delta = pdt->delta;
  const int64_t sid0 = 0;
  int64_t d0;
  const uint32_t first = pdt_find_first_leaf_by_sid(pdt, &sid0, &d0);
  if (NODE_COUNT(pdt, first) == 0 && pdt->nodes[first][NEXT] == LLIST_END) return 0;

  int64_t removed = 0;
  uint32_t read_leaf_idx = first, write_leaf_idx = first, write_pos = 0;
  int64_t write_change = 0;
  pdt_leaf w;
  pdt_get_leaf(pdt, write_leaf_idx, &w);
  while (read_leaf_idx != LLIST_END) {
    pdt_leaf r;
    pdt_get_leaf(pdt, read_leaf_idx, &r);
    const uint32_t rn = leaf_count(r);
    int64_t read_change = 0;
    for (uint32_t read_pos = 0; read_pos < rn;) {
      const uint32_t at = read_pos++;
      const uint64_t e = r.def[at];
      if (PDT_TYPE(e) == PDT_MODIFY && PDT_HDR(e) == colno) {
        removed++;
        continue;
      }
      if (write_pos == pdt->leaf_max_entries) {
        set_leaf_count(w, write_pos);
        if (write_change != 0) pdt_propagate_delta(pdt, write_leaf_idx, write_change);
        write_change = 0;
        write_leaf_idx = *w.next;
        pdt_get_leaf(pdt, write_leaf_idx, &w);
        write_pos = 0;
      }
      w.def[write_pos] = e;
      w.offset[write_pos] = r.offset[at];
      write_pos++;
      if (write_leaf_idx != read_leaf_idx) {
        write_change += PDT_EFFECT(e);
        read_change -= PDT_EFFECT(e);
      }
      J480_ASSERT(PDT_MODULE, read_pos >= write_pos || read_leaf_idx != write_leaf_idx);
    }
    if (read_change != 0) pdt_propagate_delta(pdt, read_leaf_idx, read_change);
    read_leaf_idx = *r.next;
  }
  if (write_change != 0) pdt_propagate_delta(pdt, write_leaf_idx, write_change);
  // The leaves behind the write cursor hold nothing now.
  thread_local std::vector<uint32_t> drop;
  drop.clear();
  if (write_pos > 0 || write_leaf_idx == pdt->root_idx)
    set_leaf_count(w, write_pos);
  else
    drop.push_back(write_leaf_idx);
  for (uint32_t x = *w.next; x != LLIST_END; x = pdt->nodes[x][NEXT]) drop.push_back(x);
  for (uint32_t x : drop) {
    pdt->nodes[x][COUNT] = LEAF_COUNT_BASE;
    pdt_drop_leaf(pdt, x);
  }
  J480_ASSERT(PDT_MODULE, pdt->delta == start_delta);
  // Entries moved to earlier leaves across separators; the separators follow the leaves' new
  // first SIDs, else a RID search between a separator and its leaf's first entry would stop in
  // a leaf whose entries stand behind the target.
  const uint32_t head = pdt_find_first_leaf_by_sid(pdt, &sid0, &d0);
  for (uint32_t x = pdt->nodes[head][NEXT]; x != LLIST_END; x = pdt->nodes[x][NEXT]) {
    pdt_leaf l;
    pdt_get_leaf(pdt, x, &l);
    pdt_update_separator(pdt, x, USID(l.def[0]));
  }
  pdt->n_entries -= removed;
  pdt->n_updates -= removed;
  pdt->n_modifies -= removed;
  PDT_DEBUG_CHECK(pdt);
  return removed;
}

int64_t pdt_drop_increment_column(pdt* pdt, int64_t joinindex_id) {
  const int64_t colno = value_space_drop_increment_column(pdt->value_space, joinindex_id);
  if (colno < 0) return 0;
  return pdt_remove_column_modifies(pdt, static_cast<uint32_t>(colno));
}
