// pdt_merge: the operations on whole trees: a private copy, the replay of one tree or of a
// serial form on another, the scan cursor with the RID/SID translations, and the dump.
#include <cstdio>
#include <cstring>

#include "updates/pdt.h"
#include "updates/pdt_internal.h"
#include "updates/value_space.h"
#include "utils/cvlog.h"
#include "utils/longjmp_ctx.h"
#include "utils/mem.h"

namespace {

inline int64_t rid_of(uint64_t def, int64_t delta) { return USID(def) + delta; }

inline uint64_t load_def(const char* p) {
  uint64_t def;
  memcpy(&def, p, 8);
  return def;
}
inline uint32_t load_offset(const char* p) {
  uint32_t off;
  memcpy(&off, p + 8, 4);
  return off;
}

// Runs `work` in a frame of the context's exception environment, if it has one: 0, or the
// code of the jump that ended it.
template <typename Work>
int run_framed(MemContext* mem, Work&& work) {
  longjmp_env* env = mem->exception_env != nullptr ? *mem->exception_env : nullptr;
  if (env == nullptr) {
    work();
    return 0;
  }
  return longjmp_ctx_run(env, work);
}

// One replayed entry, shared by the serial and the tree walk. `last` is the RID behind the
// previous insert, -1 after any other entry.
struct Replay {
  pdt* dst;
  const value_space* src;
  int64_t insert_base;
  int64_t delete_base;  // -1: values of deletes are dropped
  const uint32_t* modify_base;
  int64_t d;
  int64_t last;
  uint32_t hint_leaf;
  int64_t hint_delta;

  void entry(uint64_t def, uint32_t offset) {
    const int64_t rid = USID(def) + d;
    const uint32_t hdr = PDT_HDR(def);
    switch (PDT_TYPE(def)) {
      case PDT_INSERT:
        pdt_add_insert(dst, rid, static_cast<uint32_t>(insert_base + offset), &hint_leaf,
                       &hint_delta, rid == last);
        d += 1;
        last = rid + 1;
        break;
      case PDT_DELETE:
        pdt_add_delete(dst, rid, int64_t(hdr) + 1, delete_base < 0 ? -1 : delete_base + offset);
        d -= int64_t(hdr) + 1;
        last = -1;
        break;
      case PDT_MODIFY:
        if (hdr < dst->n_table_cols)
          pdt_add_modify(dst, rid, modify_base[hdr] + offset, static_cast<uint16_t>(hdr));
        else
          pdt_add_increment(dst, rid, static_cast<uint16_t>(hdr),
                            value_space_get_increment(src, hdr, offset));
        last = -1;
        break;
      default:
        break;  // type 3 is no entry
    }
  }
};

}  // namespace

// ---- serial entries ----

bool pdt_serialized_entries_fit(const pdt* dst, const char* entries, int64_t n,
                                const value_space* src) {
  const value_space* own = dst->value_space;
  if (src != own) {  // values to be merged: the same columns, and room for the sums
    if (src->ncols != own->ncols || src->n_table_cols != own->n_table_cols) return false;
    for (uint32_t c = 0; c < src->ncols; c++) {
      if (src->coltypes[c] != own->coltypes[c]) return false;
      if (uint64_t(own->n_modifies[c]) + src->n_modifies[c] > 0xFFFFFFFFull) return false;
    }
    if (uint64_t(own->n_inserts[0]) + src->n_inserts[0] > 0xFFFFFFFFull) return false;
  }
  // RIDs stay where a SID of 48 bits can hold them, with a block delete behind and the rows the
  // tree has deleted ahead of them.
  const int64_t rid_max = int64_t(PDT_SID_MASK) - 2 * int64_t(PDT_BLOCK_DELETE_MAX) - dst->n_deletes;
  int64_t d = 0;
  for (int64_t i = 0; i < n; i++) {
    const char* p = entries + 12 * i;
    const uint64_t def = load_def(p);
    const uint32_t offset = load_offset(p);
    const uint32_t hdr = PDT_HDR(def);
    const int64_t rid = USID(def) + d;
    if (PDT_TYPE(def) == 3) continue;
    if (rid < 0 || rid > rid_max) return false;
    switch (PDT_TYPE(def)) {
      case PDT_INSERT:
        if (offset >= src->n_inserts[0]) return false;
        d += 1;
        break;
      case PDT_DELETE:
        d -= int64_t(hdr) + 1;
        break;
      default:
        if (hdr >= src->ncols || offset >= src->n_modifies[hdr]) return false;
        break;
    }
  }
  return true;
}

int pdt_apply_serialized(pdt* t, const char* entries, int64_t n, const value_space* src) {
  // Values already in the tree's own space stand where the entries say: bases 0.
  const bool in_place = src == t->value_space;
  const int64_t insert_base = in_place ? 0 : value_space_merge_inserts(t->value_space, src);
  uint32_t* modify_base = value_space_modifies_snapshot(t->mem, t->value_space);
  if (in_place)
    memset(modify_base, 0, 4ull * t->value_space->ncols);
  else
    value_space_merge_modifies(t->value_space, src);
  Replay r{t, src, insert_base, -1, modify_base, 0, -1, t->root_idx, 0};
  for (int64_t i = 0; i < n; i++) {
    const char* p = entries + 12 * i;
    const uint64_t def = load_def(p);
    // A serial form carries no hint: each insert finds its own leaf.
    r.last = -1;
    r.entry(def, load_offset(p));
  }
  mem_free(t->mem, modify_base);
  return 0;
}

// ---- whole trees ----

pdt* pdt_copy(MemContext* mem, int is_global, pdt* src) {
  pdt* copy = nullptr;
  if (run_framed(mem, [&] { copy = pdt_alloc(mem, is_global); }) != 0) {
    if (copy != nullptr) mem_context_remove(copy->mem);
    return nullptr;
  }
  MemContext* own = copy->mem;
  *copy = *src;
  copy->mem = own;
  copy->refcnt = 1;
  copy->n_data_blocks = 1;
  copy->value_space = nullptr;
  copy->nodes = nullptr;
  for (uint32_t b = 0; b < PDT_MAX_DATA_BLOCKS; b++) {
    copy->data_block[b] = nullptr;
    copy->data_block_ptr[b] = nullptr;
    copy->data_block_size[b] = 0;
  }
  const int jumped = run_framed(own, [&] {
    copy->nodes = static_cast<uint32_t**>(
        mem_calloc(own, sizeof(uint32_t*) * (uint64_t(src->max_nodes) + 1)));
    const uint64_t bytes = uint64_t(src->node_size) * src->max_nodes;
    copy->data_block[0] = mem_mallocex(own, bytes + 63, J480_MEM_LARGE);
    copy->data_block_ptr[0] = pdt_align64(copy->data_block[0]);
    copy->data_block_size[0] = static_cast<int64_t>(bytes + 63);
    pdt_point_nodes(copy, copy->data_block_ptr[0], 0, src->max_nodes);
    // Node by node, so that the index order holds whatever blocks src grew in.
    for (uint32_t i = 0; i < src->num_nodes; i++)
      memcpy(copy->nodes[i], src->nodes[i], src->node_size);
    copy->value_space = value_space_copy(own, src->value_space);
    J480_ASSERT(PDT_MODULE, copy->value_space);
    copy->key_cols = value_space_get_key_cols(copy->value_space, &copy->n_key_cols);
  });
  if (jumped != 0) {
    pdt_unref(copy);
    return nullptr;
  }
  return copy;
}

int pdt_apply_other_pdt(pdt* dst, pdt* src, int with_delete_values) {
  int64_t sid0 = 0, d0;
  const uint32_t first = pdt_find_first_leaf_by_sid(src, &sid0, &d0);
  const int jumped = run_framed(dst->mem, [&] {
    const int64_t insert_base = value_space_merge_inserts(dst->value_space, src->value_space);
    const int64_t delete_base =
        with_delete_values ? value_space_merge_deletes(dst->value_space, src->value_space) : -1;
    uint32_t* modify_base = value_space_modifies_snapshot(src->mem, dst->value_space);
    value_space_merge_modifies(dst->value_space, src->value_space);
    Replay r{dst, src->value_space, insert_base, delete_base, modify_base, 0, -1, first, 0};
    for (uint32_t idx = first; idx != LLIST_END;) {
      pdt_leaf leaf;
      pdt_get_leaf(src, idx, &leaf);
      const uint32_t n = leaf_count(leaf);
      for (uint32_t i = 0; i < n; i++) r.entry(leaf.def[i], leaf.offset[i]);
      idx = *leaf.next;
    }
    mem_free(src->mem, modify_base);
  });
  if (jumped != 0) {
    CV_ERROR(PDT_MODULE, "pdt_apply_other_pdt: out of memory");
    return -1;
  }
  return 0;
}

// ---- the scan cursor ----

int pdt_init_merge_state(pdt* t, pdt_merge_state* state, int64_t rid_lo, int64_t rid_hi) {
  int64_t delta;
  const uint32_t idx = pdt_find_last_leaf_by_rid(t, &rid_lo, &delta);
  state->done = 0;
  state->delete_pos = 0;
  state->scan_words[0] = state->scan_words[1] = state->scan_words[2] = 0;
  if (!IS_LEAF(t, idx)) {
    CV_ERROR(PDT_MODULE, "pdt_init_merge_state: node %u is not a leaf", idx);
    return -1;
  }
  pdt_leaf* leaf = &state->leaf;
  pdt_get_leaf(t, idx, leaf);
  uint32_t n = leaf_count(*leaf);
  int32_t within_leaf_pos = 0;
  while (uint32_t(within_leaf_pos) < n && rid_of(leaf->def[within_leaf_pos], delta) < rid_lo)
    delta += PDT_EFFECT(leaf->def[within_leaf_pos++]);
  while (uint32_t(within_leaf_pos) < n && PDT_TYPE(leaf->def[within_leaf_pos]) == PDT_DELETE &&
         rid_of(leaf->def[within_leaf_pos], delta) == rid_lo)
    delta += PDT_EFFECT(leaf->def[within_leaf_pos++]);
  if (uint32_t(within_leaf_pos) == n) {
    if (*leaf->next == LLIST_END) {
      state->done = 1;
    } else {
      pdt_get_leaf(t, *leaf->next, leaf);
      within_leaf_pos = 0;
    }
  } else {
    J480_ASSERT(PDT_MODULE, USID(leaf->def[within_leaf_pos]) + delta >= rid_lo);
  }
  state->rid_lo = rid_lo;
  state->within_leaf_pos = within_leaf_pos;
  state->delta = delta;
  state->sid_lo = rid_lo - delta;
  state->rid_hi = rid_hi;
  return 0;
}

int merge_advance(pdt* t, pdt_merge_state* state, int64_t* produce, int64_t* consume,
                  int64_t consume_max) {
  const int64_t produce_max = *produce;
  J480_ASSERT(PDT_MODULE, produce_max <= consume_max);
  int64_t prod = produce_max;
  int64_t cons = prod;
  if (!state->done) {
    pdt_leaf leaf = state->leaf;
    uint32_t pos = static_cast<uint32_t>(state->within_leaf_pos);
    int64_t delta = state->delta;
    int64_t delete_pos = state->delete_pos;
    const int64_t sid_lo = state->sid_lo;
    for (;;) {
      if (pos >= leaf_count(leaf)) {
        if (*leaf.next == LLIST_END) break;
        pdt_get_leaf(t, *leaf.next, &leaf);
        pos = 0;
        continue;
      }
      const uint64_t e = leaf.def[pos];
      const int64_t sid = USID(e) + delete_pos;
      if (sid >= sid_lo + consume_max) break;
      if (prod + state->delta + sid_lo <= sid + delta) break;
      switch (PDT_TYPE(e)) {
        case PDT_DELETE: {
          int64_t k = int64_t(PDT_HDR(e)) + 1 - delete_pos;
          if (k > sid_lo + consume_max - sid) k = sid_lo + consume_max - sid;
          if (cons < consume_max) {
            if (k > consume_max - cons) k = consume_max - cons;
            cons += k;
          } else {
            if (k > prod) k = prod;
            prod -= k;
          }
          if (k <= 0) goto out;
          delete_pos += k;
          delta -= k;
          if (delete_pos == int64_t(PDT_HDR(e)) + 1) {
            pos++;
            delete_pos = 0;
          }
          break;
        }
        case PDT_INSERT:
          if (prod < produce_max)
            prod++;
          else
            cons--;
          delta++;
          pos++;
          break;
        default:
          pos++;
          break;
      }
    }
  }
out:
  *produce = prod;
  *consume = cons;
  return 0;
}

namespace {

// The position and delta of the first entry with RID >= rid from leaf `idx` on, walking on
// into following leaves; with `over_deletes` also behind the deletes at rid.
struct Spot {
  uint32_t leaf;
  uint32_t pos;
  int64_t delta;
};
Spot walk_to_rid(const pdt* t, uint32_t idx, int64_t delta, int64_t rid, bool over_deletes) {
  pdt_leaf leaf;
  pdt_get_leaf(t, idx, &leaf);
  uint32_t pos = 0;
  for (;;) {
    if (pos == leaf_count(leaf)) {
      if (*leaf.next == LLIST_END) break;
      pdt_get_leaf(t, *leaf.next, &leaf);
      pos = 0;
      continue;
    }
    const uint64_t e = leaf.def[pos];
    const int64_t r = rid_of(e, delta);
    if (r > rid || (r == rid && !(over_deletes && PDT_TYPE(e) == PDT_DELETE))) break;
    delta += PDT_EFFECT(e);
    pos++;
  }
  return {leaf.idx, pos, delta};
}

}  // namespace

int rid_to_sid_range(pdt* t, int64_t rid, int64_t* sid_lo, int64_t* sid_hi) {
  int64_t delta;
  const uint32_t idx = pdt_find_first_leaf_by_rid(t, &rid, &delta);
  const Spot s = walk_to_rid(t, idx, delta, rid, t->n_key_cols > 0);
  *sid_lo = rid - s.delta;
  *sid_hi = rid - s.delta;
  return 0;
}

int64_t rid_range_delta(pdt* t, int64_t rid_lo, int64_t rid_hi, int64_t* sid_lo,
                        int64_t* sid_hi) {
  int64_t d;
  uint32_t idx = pdt_find_last_leaf_by_rid(t, &rid_lo, &d);
  const Spot lo = walk_to_rid(t, idx, d, rid_lo, true);
  *sid_lo = rid_lo - lo.delta;
  if (rid_lo == rid_hi) {
    *sid_hi = *sid_lo;
    return 0;
  }
  idx = pdt_find_first_leaf_by_rid(t, &rid_hi, &d);
  const Spot hi = walk_to_rid(t, idx, d, rid_hi, false);
  *sid_hi = rid_hi - hi.delta;
  return hi.delta - lo.delta;
}

int find_key_rid_range(pdt* t, int64_t sid, const void* const* key_vals, int64_t* rid_lo,
                       int64_t* rid_hi) {
  int64_t delta;
  const uint32_t idx = pdt_find_first_leaf_by_sid(t, &sid, &delta);
  pdt_leaf leaf;
  pdt_get_leaf(t, idx, &leaf);
  uint32_t pos = 0;
  // To the first entry at the SID (or to the delete that covers it).
  for (;;) {
    if (pos == leaf_count(leaf)) {
      if (*leaf.next == LLIST_END) break;
      pdt_get_leaf(t, *leaf.next, &leaf);
      pos = 0;
      continue;
    }
    const uint64_t e = leaf.def[pos];
    if (USID(e) >= sid) break;
    if (PDT_TYPE(e) == PDT_DELETE && USID(e) + PDT_HDR(e) >= sid) break;
    delta += PDT_EFFECT(e);
    pos++;
  }
  // The inserts at the SID stand in key order: the equal run among them.
  int64_t lo = -1, hi = -1;
  const value_space* vs = t->value_space;
  for (;;) {
    if (pos == leaf_count(leaf)) {
      if (*leaf.next == LLIST_END) break;
      pdt_get_leaf(t, *leaf.next, &leaf);
      pos = 0;
      continue;
    }
    const uint64_t e = leaf.def[pos];
    if (USID(e) != sid || PDT_TYPE(e) != PDT_INSERT) break;
    const int c = value_space_compare_keys(vs, key_vals, t->key_cols, t->n_key_cols,
                                           leaf.offset[pos]);
    const int64_t rid = sid + delta;
    if (c <= 0 && lo < 0) lo = rid;
    if (c < 0) {
      hi = rid;
      break;
    }
    delta++;
    pos++;
  }
  if (lo < 0) lo = sid + delta;
  if (hi < 0) hi = sid + delta;
  *rid_lo = lo;
  *rid_hi = hi;
  return 0;
}

// ---- the dump ----

void pdt_dump(pdt* t, int with_values) {
  int64_t sid0 = 0, delta;
  char text[256];
  for (uint32_t idx = pdt_find_first_leaf_by_sid(t, &sid0, &delta); idx != LLIST_END;) {
    pdt_leaf leaf;
    pdt_get_leaf(t, idx, &leaf);
    std::printf("# LEAF NODE %u:\n", idx);
    std::printf("     sid (     rid) type      hdr   offset   values\n");
    for (uint32_t i = 0; i < leaf_count(leaf); i++) {
      const uint64_t e = leaf.def[i];
      std::printf("%8lld (%8lld) %4lld %8lld %8u", static_cast<long long>(USID(e)),
                  static_cast<long long>(USID(e) + delta), static_cast<long long>(PDT_TYPE(e)) - 1,
                  static_cast<long long>(PDT_HDR(e)), leaf.offset[i]);
      if (with_values && PDT_TYPE(e) != PDT_DELETE) {
        text[0] = '\0';
        if (PDT_TYPE(e) == PDT_INSERT)
          value_space_format_insert(t->value_space, text, sizeof text, leaf.offset[i]);
        else
          value_space_format_modify(t->value_space, text, sizeof text, leaf.offset[i],
                                    PDT_HDR(e));
        std::printf(" %8s", text);
      }
      std::printf("\n");
      delta += PDT_EFFECT(e);
    }
    std::printf("\n");
    idx = *leaf.next;
  }
  std::fflush(stdout);
}

void pdt_set_whole_tree_ops(pdt* t) {
  t->ops.find_key_rid_range = find_key_rid_range;
  t->ops.rid_to_sid_range = rid_to_sid_range;
  t->ops.merge_advance = merge_advance;
  t->ops.apply_other_pdt = pdt_apply_other_pdt;
  t->ops.rid_range_delta = rid_range_delta;
  t->ops.init_merge_state = pdt_init_merge_state;
  t->ops.dump = pdt_dump;
  t->ops.copy = pdt_copy;
}
