// pdt_update: adding inserts, modifies, deletes (by RID and by SID) and increments to a tree.
#include <algorithm>
#include <cstring>

#include "updates/pdt.h"
#include "updates/pdt_internal.h"
#include "updates/value_space.h"
#include "utils/cvlog.h"

namespace {

// Opens `k` slots at `pos` of a leaf.
void shift_up(const pdt_leaf& leaf, uint32_t pos, uint32_t k) {
  const uint32_t n = leaf_count(leaf);
  memmove(leaf.def + pos + k, leaf.def + pos, sizeof(uint64_t) * (n - pos));
  memmove(leaf.offset + pos + k, leaf.offset + pos, sizeof(uint32_t) * (n - pos));
}

int64_t rid_of(uint64_t def, int64_t delta_before) { return USID(def) + delta_before; }

// Whether the position of `rid` falls inside the leaf: some entry's RID is >= rid.
bool pdt_rid_in_leaf(const pdt* pdt, uint32_t leaf_idx, int64_t delta, int64_t rid) {
  pdt_leaf leaf;
  pdt_get_leaf(pdt, leaf_idx, &leaf);
  const uint32_t n = leaf_count(leaf);
  for (uint32_t i = 0; i < n; i++) {
    if (rid_of(leaf.def[i], delta) >= rid) return true;
    delta += PDT_EFFECT(leaf.def[i]);
  }
  return false;
}

// Splits a full leaf ahead of an update; the caller decides the side.
int split_full_leaf(pdt* pdt, pdt_leaf* leaf, int64_t* left_delta, uint32_t* right_idx,
                    uint64_t* right_start_def) {
  const uint32_t leaf_idx = leaf->idx;
  J480_ASSERT(PDT_MODULE, NODE_COUNT(pdt, leaf_idx) == pdt->leaf_max_entries);
  return pdt_split_leaf(pdt, leaf, left_delta, right_idx, right_start_def);
}

}  // namespace

int pdt_add_insert(pdt* pdt, int64_t rid, uint32_t offset, uint32_t* hint_leaf,
                   int64_t* hint_delta, int use_hint) {
  int64_t leaf_delta;
  uint32_t leaf_idx = pdt_find_last_leaf_by_rid(pdt, &rid, &leaf_delta);
  if (use_hint && hint_leaf != nullptr && hint_delta != nullptr) {
    if (pdt_rid_in_leaf(pdt, *hint_leaf, *hint_delta, rid))
      leaf_idx = *hint_leaf;  // with the delta of the search above
    else
      leaf_idx = pdt_find_last_leaf_by_rid(pdt, &rid, &leaf_delta);
  }
  pdt_leaf leaf;
  pdt_get_leaf(pdt, leaf_idx, &leaf);
  if (leaf_count(leaf) == pdt->leaf_max_entries) {
    int64_t left_delta;
    uint32_t right_idx;
    uint64_t right_start_def;
    if (split_full_leaf(pdt, &leaf, &left_delta, &right_idx, &right_start_def) < 0) return -1;
    const int64_t r = USID(right_start_def) + left_delta + leaf_delta;
    if (r < rid || (r == rid && PDT_TYPE(right_start_def) != PDT_MODIFY)) {
      leaf_delta += left_delta;
      leaf_idx = right_idx;
      pdt_get_leaf(pdt, leaf_idx, &leaf);
    }
    J480_ASSERT(PDT_MODULE, NODE_COUNT(pdt, leaf_idx) < pdt->leaf_max_entries);
  }
  if (hint_leaf != nullptr) {
    *hint_leaf = leaf_idx;
    if (hint_delta != nullptr) *hint_delta = leaf_delta;
  }
  // Behind the deletes at rid, in front of anything else there.
  const uint32_t n = leaf_count(leaf);
  uint32_t within_leaf_pos = 0;
  int64_t delta = leaf_delta;
  while (within_leaf_pos < n) {
    const uint64_t e = leaf.def[within_leaf_pos];
    const int64_t r = rid_of(e, delta);
    if (r > rid || (r == rid && PDT_TYPE(e) != PDT_DELETE)) break;
    delta += PDT_EFFECT(e);
    within_leaf_pos++;
  }
  if (within_leaf_pos < n)
    J480_ASSERT(PDT_MODULE, USID(leaf.def[within_leaf_pos]) + delta >= rid);
  if (within_leaf_pos >= pdt->leaf_max_entries) {
    CV_ERROR(PDT_MODULE, "pdt_add_insert: within_leaf_pos=%u rid=%llu leaf_count=%u",
             within_leaf_pos, static_cast<unsigned long long>(rid), n);
    J480_ASSERT(PDT_MODULE, within_leaf_pos < pdt->leaf_max_entries);
  }
  shift_up(leaf, within_leaf_pos, 1);
  leaf.def[within_leaf_pos] = PDT_DEF(uint64_t(rid - delta), PDT_INSERT, 0);
  leaf.offset[within_leaf_pos] = offset;
  set_leaf_count(leaf, n + 1);
  pdt->n_inserts++;
  pdt->n_entries++;
  pdt->n_updates++;
  if (within_leaf_pos == 0) pdt_update_separator(pdt, leaf_idx, rid - delta);
  pdt_propagate_delta(pdt, leaf_idx, 1);
  PDT_DEBUG_CHECK(pdt);
  return 0;
}

int pdt_add_modify(pdt* pdt, int64_t rid, uint32_t offset, uint16_t colno) {
  int64_t leaf_delta;
  uint32_t leaf_idx = pdt_find_last_leaf_by_rid(pdt, &rid, &leaf_delta);
  J480_ASSERT(PDT_MODULE, (colno & 0xC000) == 0);
  pdt_leaf leaf;
  if (pdt_get_leaf(pdt, leaf_idx, &leaf) != 0) {
    CV_ERROR(PDT_MODULE, "pdt_add_modify: node %u is not a leaf", leaf_idx);
    return -1;
  }
  // The place of (rid, colno): behind deletes at rid and lower columns of the row, which may
  // run on into the next leaves.
  int64_t delta = leaf_delta;
  uint32_t pos = 0;
  for (;;) {
    const uint32_t n = leaf_count(leaf);
    while (pos < n) {
      const uint64_t e = leaf.def[pos];
      const int64_t r = rid_of(e, delta);
      if (r < rid || (r == rid && (PDT_TYPE(e) == PDT_DELETE ||
                                   (PDT_TYPE(e) == PDT_MODIFY && PDT_HDR(e) < colno)))) {
        delta += PDT_EFFECT(e);
        pos++;
        continue;
      }
      break;
    }
    if (pos < n || *leaf.next == LLIST_END) break;
    pdt_leaf next;
    pdt_get_leaf(pdt, *leaf.next, &next);
    const uint32_t tmp_count = leaf_count(next);
    J480_ASSERT(PDT_MODULE, tmp_count);
    const uint64_t e = next.def[0];
    if (!(rid_of(e, delta) == rid && PDT_TYPE(e) == PDT_MODIFY && PDT_HDR(e) <= colno)) break;
    leaf = next;
    leaf_idx = next.idx;
    leaf_delta = delta;
    pos = 0;
  }
  uint32_t n = leaf_count(leaf);
  if (pos < n && rid_of(leaf.def[pos], delta) == rid) {
    const uint64_t e = leaf.def[pos];
    if (PDT_TYPE(e) == PDT_MODIFY && PDT_HDR(e) == colno) {
      leaf.offset[pos] = offset;  // the old value stays in the value space
      return 0;
    }
    if (PDT_TYPE(e) == PDT_INSERT) {  // still an inserted tuple: change its value
      value_space_modify_insert(pdt->value_space, colno, offset, leaf.offset[pos]);
      return 0;
    }
  }
  if (n == pdt->leaf_max_entries) {
    const int64_t sid = rid - delta;
    int64_t left_delta;
    uint32_t right_idx;
    uint64_t right_start_def;
    if (split_full_leaf(pdt, &leaf, &left_delta, &right_idx, &right_start_def) < 0) return -1;
    const int64_t r = USID(right_start_def) + left_delta + leaf_delta;
    if (r < rid || USID(right_start_def) < sid ||
        (USID(right_start_def) == sid && r == rid && PDT_HDR(right_start_def) <= colno)) {
      J480_ASSERT(PDT_MODULE, sid >= USID(right_start_def));
      leaf_delta += left_delta;
      leaf_idx = right_idx;
      pdt_get_leaf(pdt, leaf_idx, &leaf);
    }
    J480_ASSERT(PDT_MODULE, NODE_COUNT(pdt, leaf_idx) < pdt->leaf_max_entries);
    n = leaf_count(leaf);
    delta = leaf_delta;
    pos = pdt_leaf_find_pos_by_rid(leaf.def, n, &rid, &delta);
    while (pos < n && rid_of(leaf.def[pos], delta) == rid && PDT_TYPE(leaf.def[pos]) == PDT_MODIFY &&
           PDT_HDR(leaf.def[pos]) < colno)
      pos++;
  }
  shift_up(leaf, pos, 1);
  leaf.def[pos] = PDT_DEF(uint64_t(rid - delta), PDT_MODIFY, colno);
  leaf.offset[pos] = offset;
  set_leaf_count(leaf, n + 1);
  if (pos == 0) pdt_update_separator(pdt, leaf_idx, rid - delta);
  pdt->n_entries++;
  pdt->n_modifies++;
  pdt->n_updates++;
  PDT_DEBUG_CHECK(pdt);
  return 0;
}

int pdt_add_delete(pdt* pdt, int64_t rid, int64_t ntuples, int64_t offset) {
  int64_t leaf_delta;
  uint32_t leaf_idx = pdt_find_last_leaf_by_rid(pdt, &rid, &leaf_delta);
  J480_ASSERT(PDT_MODULE, ntuples <= PDT_BLOCK_DELETE_MAX);
  pdt_leaf leaf;
  if (pdt_get_leaf(pdt, leaf_idx, &leaf) != 0) {
    CV_ERROR(PDT_MODULE, "pdt_add_delete: node %u is not a leaf", leaf_idx);
    return -1;
  }
  int64_t delta = leaf_delta;
  uint32_t pos = pdt_leaf_find_pos_by_rid(leaf.def, leaf_count(leaf), &rid, &delta);

  // Entries inside the deleted range go: inserts need no delete any more, deletes are made
  // part of this one, modifies vanish with their rows.
  int64_t next_rid;
  uint32_t rm_leaf_idx = leaf_idx, rm_pos = pos;
  if (pos < leaf_count(leaf)) {
    next_rid = rid_of(leaf.def[pos], delta);
  } else if (*leaf.next != LLIST_END) {
    J480_ASSERT(PDT_MODULE, NODE_COUNT(pdt, *leaf.next));
    rm_leaf_idx = *leaf.next;
    rm_pos = 0;
    pdt_leaf next;
    pdt_get_leaf(pdt, rm_leaf_idx, &next);
    next_rid = rid_of(next.def[0], delta);
  } else {
    next_rid = rid + ntuples;
  }
  if (next_rid <= rid + ntuples - 1) {
    pdt_leaf rm_leaf;
    pdt_get_leaf(pdt, rm_leaf_idx, &rm_leaf);
    int64_t n_ins, n_mods, n_dels;
    const int64_t num_deleted = pdt_remove_range(pdt, &rm_leaf, rm_pos, delta, rid + ntuples - 1,
                                                 &n_ins, &n_mods, &n_dels);
    if (num_deleted < 0) return -1;
    J480_ASSERT(PDT_MODULE, num_deleted > 0);
    ntuples = ntuples + n_dels - n_ins;
    if (ntuples == 0) {
      PDT_DEBUG_CHECK(pdt);
      return 0;
    }
    leaf_idx = pdt_find_last_leaf_by_rid(pdt, &rid, &leaf_delta);
    if (pdt_get_leaf(pdt, leaf_idx, &leaf) != 0) {
      CV_ERROR(PDT_MODULE, "pdt_add_delete: node %u is not a leaf", leaf_idx);
      return -1;
    }
    delta = leaf_delta;
    pos = pdt_leaf_find_pos_by_rid(leaf.def, leaf_count(leaf), &rid, &delta);
  }

  // Grow the delete that ends just in front of rid, up to a full block.
  if (offset < 0 && pos != 0) {
    const uint64_t p = leaf.def[pos - 1];
    const uint32_t hdr = PDT_HDR(p);
    if (PDT_TYPE(p) == PDT_DELETE && USID(p) + hdr + 1 + delta == rid &&
        hdr < PDT_BLOCK_DELETE_MAX - 1) {
      const int64_t take = std::min<int64_t>(PDT_BLOCK_DELETE_MAX - 1 - hdr, ntuples);
      leaf.def[pos - 1] = PDT_DEF(uint64_t(USID(p)), PDT_DELETE, hdr + uint32_t(take));
      pdt->n_deletes += take;
      pdt->n_updates += take;
      pdt_propagate_delta(pdt, leaf_idx, -take);
      ntuples -= take;
      if (ntuples == 0) {
        PDT_DEBUG_CHECK(pdt);
        return 0;
      }
      delta -= take;
    }
  }

  const uint32_t n = leaf_count(leaf);
  const uint32_t k = static_cast<uint32_t>((ntuples + PDT_BLOCK_DELETE_MAX - 1) / PDT_BLOCK_DELETE_MAX);
  if (n + k > pdt->leaf_max_entries) {
    const int r = pdt_add_deletes_split(pdt, &leaf, pos, rid - delta, ntuples, offset);
    PDT_DEBUG_CHECK(pdt);
    return r;
  }
  shift_up(leaf, pos, k);
  const int64_t sid = rid - delta;
  for (uint32_t i = 0; i < k; i++) {
    const int64_t left = ntuples - int64_t(i) * PDT_BLOCK_DELETE_MAX;
    const uint32_t hdr = i + 1 < k ? PDT_BLOCK_DELETE_MAX - 1 : uint32_t(left - 1);
    leaf.def[pos + i] = PDT_DEF(uint64_t(sid + int64_t(i) * PDT_BLOCK_DELETE_MAX), PDT_DELETE, hdr);
    leaf.offset[pos + i] = offset < 0 ? 0 : uint32_t(offset + int64_t(i) * PDT_BLOCK_DELETE_MAX);
  }
  set_leaf_count(leaf, n + k);
  pdt->n_entries += k;
  if (pos == 0) pdt_update_separator(pdt, leaf_idx, sid);
  pdt_propagate_delta(pdt, leaf_idx, -ntuples);
  pdt->n_deletes += ntuples;
  pdt->n_updates += ntuples;
  PDT_DEBUG_CHECK(pdt);
  return 0;
}

int pdt_add_delete_by_sid(pdt* pdt, int64_t sid, int64_t ntuples, int64_t offset) {
  int64_t leaf_delta;
  uint32_t leaf_idx = pdt_find_last_leaf_by_sid(pdt, &sid, &leaf_delta);
  J480_ASSERT(PDT_MODULE, ntuples <= PDT_BLOCK_DELETE_MAX);
  J480_ASSERT(PDT_MODULE, pdt->n_inserts == 0);
  J480_ASSERT(PDT_MODULE, sid >= 0 && ntuples);
  pdt_leaf leaf;
  pdt_get_leaf(pdt, leaf_idx, &leaf);
  auto find_pos = [&](const pdt_leaf& l) {
    const uint32_t n = leaf_count(l);
    uint32_t i = 0;
    while (i < n && USID(l.def[i]) + (PDT_TYPE(l.def[i]) == PDT_DELETE ? PDT_HDR(l.def[i]) : 0) < sid)
      i++;
    return i;
  };
  uint32_t pos = find_pos(leaf);
  auto already_deleted = [](int64_t at) {
    CV_ERROR(PDT_MODULE, "pdt_add_delete_by_sid: SID already deleted: %lld",
             static_cast<long long>(at));
    return -1;
  };
  // Without values the entries in front and behind are looked at, whatever their type: the one
  // in front counts as covering USID + hdr. Both overlaps are refused before either grows.
  const bool look_front = pos != 0 && offset < 0;
  if (look_front && sid <= USID(leaf.def[pos - 1]) + PDT_HDR(leaf.def[pos - 1]))
    return already_deleted(sid);
  pdt_leaf q_leaf = leaf;
  uint32_t q_pos = pos;
  bool have_q = false;
  if (offset < 0) {
    have_q = pos < leaf_count(leaf);
    if (!have_q && *leaf.next != LLIST_END) {
      const uint32_t successors_leaf_idx = *leaf.next;
      J480_ASSERT(PDT_MODULE, NODE_COUNT(pdt, successors_leaf_idx));
      pdt_get_leaf(pdt, successors_leaf_idx, &q_leaf);
      q_pos = 0;
      have_q = true;
    }
    if (have_q && USID(q_leaf.def[q_pos]) < sid + ntuples)
      return already_deleted(USID(q_leaf.def[q_pos]));
  }
  if (look_front) {  // the entry in front grows over the first rows
    const uint64_t p = leaf.def[pos - 1];
    if (USID(p) + PDT_HDR(p) == sid - 1 && PDT_HDR(p) < PDT_BLOCK_DELETE_MAX - 1) {
      const int64_t take = std::min<int64_t>(PDT_BLOCK_DELETE_MAX - 1 - PDT_HDR(p), ntuples);
      leaf.def[pos - 1] = PDT_DEF(uint64_t(USID(p)), PDT_TYPE(p), PDT_HDR(p) + uint32_t(take));
      pdt->n_deletes += take;
      pdt->n_updates += take;
      pdt_propagate_delta(pdt, leaf_idx, -take);
      ntuples -= take;
      sid += take;
      if (ntuples == 0) {
        PDT_DEBUG_CHECK(pdt);
        return 0;
      }
    }
  }
  if (have_q) {  // the entry behind grows towards the front, becoming a delete
    const uint64_t q = q_leaf.def[q_pos];
    if (USID(q) == sid + ntuples && PDT_HDR(q) < PDT_BLOCK_DELETE_MAX - 1) {
      const int64_t take = std::min<int64_t>(PDT_BLOCK_DELETE_MAX - 1 - PDT_HDR(q), ntuples);
      q_leaf.def[q_pos] = PDT_DEF(uint64_t(USID(q) - take), PDT_DELETE, PDT_HDR(q) + uint32_t(take));
      // A leaf's first SID moved down: its separator follows, or RID searches for the rows
      // in between would stop in the leaf in front and take this entry for one behind them.
      if (q_pos == 0) pdt_update_separator(pdt, q_leaf.idx, USID(q) - take);
      pdt->n_deletes += take;
      pdt->n_updates += take;
      pdt_propagate_delta(pdt, q_leaf.idx, -take);
      ntuples -= take;
      if (ntuples == 0) {
        PDT_DEBUG_CHECK(pdt);
        return 0;
      }
    }
  }
  if (leaf_count(leaf) == pdt->leaf_max_entries) {
    int64_t left_delta;
    uint32_t right_idx;
    uint64_t right_start_def;
    if (split_full_leaf(pdt, &leaf, &left_delta, &right_idx, &right_start_def) < 0) return -1;
    if (USID(right_start_def) <= sid) {
      leaf_idx = right_idx;
      pdt_get_leaf(pdt, leaf_idx, &leaf);
    }
    J480_ASSERT(PDT_MODULE, NODE_COUNT(pdt, leaf_idx) < pdt->leaf_max_entries);
  }
  pos = find_pos(leaf);
  const uint32_t n = leaf_count(leaf);
  shift_up(leaf, pos, 1);
  leaf.def[pos] = PDT_DEF(uint64_t(sid), PDT_DELETE, uint32_t(ntuples - 1));
  leaf.offset[pos] = offset < 0 ? 0 : uint32_t(offset);
  set_leaf_count(leaf, n + 1);
  pdt->n_entries++;
  pdt->n_deletes += ntuples;
  if (pos == 0) pdt_update_separator(pdt, leaf_idx, sid);
  pdt_propagate_delta(pdt, leaf_idx, -ntuples);
  pdt->n_updates += ntuples;
  PDT_DEBUG_CHECK(pdt);
  return 0;
}

int pdt_add_increment(pdt* pdt, int64_t rid, uint16_t colno, int64_t increment) {
  int64_t leaf_delta;
  uint32_t leaf_idx = pdt_find_last_leaf_by_rid(pdt, &rid, &leaf_delta);
  J480_ASSERT(PDT_MODULE, (colno & 0xC000) == 0);
  J480_ASSERT(PDT_MODULE, colno >= pdt->n_table_cols);
  pdt_leaf leaf;
  pdt_get_leaf(pdt, leaf_idx, &leaf);
  uint32_t n = leaf_count(leaf);
  bool moved = false;
  if (n != 0) {
    while (rid_of(leaf.def[0], leaf_delta) == rid && PDT_TYPE(leaf.def[0]) == PDT_MODIFY &&
           PDT_HDR(leaf.def[0]) > colno && *leaf.next != LLIST_END) {
      pdt_leaf next;
      pdt_get_leaf(pdt, *leaf.next, &next);
      const uint32_t tmp_count = leaf_count(next);
      J480_ASSERT(PDT_MODULE, tmp_count);
      const int64_t next_start = leaf_delta + pdt_leaf_delta(pdt, leaf.idx);
      const uint64_t last = next.def[tmp_count - 1];
      const int64_t last_rid = USID(last) + next_start + pdt_leaf_delta(pdt, next.idx) - PDT_EFFECT(last);
      if (last_rid != rid || PDT_TYPE(last) != PDT_MODIFY || PDT_HDR(last) < colno) break;
      leaf = next;
      leaf_idx = next.idx;
      leaf_delta = next_start;
      moved = true;
    }
  }
  // Behind the deletes at rid and the row's lower columns. Like a modify, the place runs on into
  // the next leaf while that leaf starts with the row's modifies of columns up to colno, so that
  // a row's columns stay in order and an existing entry of the column is found.
  auto find_place = [&](int64_t* delta, bool cross) {
    *delta = leaf_delta;
    uint32_t p = pdt_leaf_find_pos_by_rid(leaf.def, leaf_count(leaf), &rid, delta);
    for (;;) {
      const uint32_t cnt = leaf_count(leaf);
      while (p < cnt && rid_of(leaf.def[p], *delta) == rid &&
             PDT_TYPE(leaf.def[p]) == PDT_MODIFY && PDT_HDR(leaf.def[p]) < colno)
        p++;
      if (p < cnt || *leaf.next == LLIST_END || !cross) return p;
      pdt_leaf next;
      pdt_get_leaf(pdt, *leaf.next, &next);
      const uint64_t e = next.def[0];
      if (!(rid_of(e, *delta) == rid && PDT_TYPE(e) == PDT_MODIFY && PDT_HDR(e) <= colno)) return p;
      leaf = next;
      leaf_idx = next.idx;
      leaf_delta = *delta;
      p = 0;
    }
  };
  n = leaf_count(leaf);
  int64_t delta;
  uint32_t pos;
  if (moved) {
    delta = leaf_delta + pdt_leaf_delta(pdt, leaf_idx);
    pos = n;
    while (pos > 0) {
      const uint64_t e = leaf.def[pos - 1];
      if (!(PDT_TYPE(e) == PDT_MODIFY && rid_of(e, delta) == rid && PDT_HDR(e) > colno)) break;
      pos--;
    }
  } else {
    pos = find_place(&delta, true);
    n = leaf_count(leaf);
  }
  if (pos < n && rid_of(leaf.def[pos], delta) == rid) {
    const uint64_t e = leaf.def[pos];
    if (PDT_TYPE(e) == PDT_MODIFY && PDT_HDR(e) == colno) {
      value_space_increment_modify_inplace(pdt->value_space, colno, leaf.offset[pos], increment);
      return 0;
    }
    if (PDT_TYPE(e) == PDT_INSERT) {
      value_space_increment_count(pdt->value_space, colno, leaf.offset[pos], increment);
      return 0;
    }
  }
  if (n == pdt->leaf_max_entries) {
    int64_t left_delta;
    uint32_t right_idx;
    uint64_t right_start_def;
    if (split_full_leaf(pdt, &leaf, &left_delta, &right_idx, &right_start_def) < 0) return -1;
    // The side is chosen as for a modify: the column number of the right leaf's first entry
    // only counts when that entry is a modify of the same row (a delete's hdr is a count).
    const int64_t sid = rid - delta;
    const int64_t r = USID(right_start_def) + left_delta + leaf_delta;
    if (r < rid || USID(right_start_def) < sid ||
        (USID(right_start_def) == sid && r == rid && PDT_TYPE(right_start_def) == PDT_MODIFY &&
         PDT_HDR(right_start_def) <= colno)) {
      leaf_delta += left_delta;
      leaf_idx = right_idx;
      pdt_get_leaf(pdt, leaf_idx, &leaf);
    }
    J480_ASSERT(PDT_MODULE, NODE_COUNT(pdt, leaf_idx) < pdt->leaf_max_entries);
    pos = find_place(&delta, false);  // the place is in the half taken
    n = leaf_count(leaf);
  }
  shift_up(leaf, pos, 1);
  leaf.def[pos] = PDT_DEF(uint64_t(rid - delta), PDT_MODIFY, colno);
  leaf.offset[pos] = value_space_increment_modify(pdt->value_space, colno, increment);
  set_leaf_count(leaf, n + 1);
  pdt->n_modifies++;
  pdt->n_updates++;
  pdt->n_entries++;
  PDT_DEBUG_CHECK(pdt);
  return 0;
}
