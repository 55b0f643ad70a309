// write_log_order: the order in which the tables of the legacy catalog are written.
//
// A table's score is the number of foreign-key paths that end in it. Scores are summed along the
// edges in topological order (referencing tables first), so every table and key is visited once;
// a table left over when no table is free any more lies on a cycle or behind one.
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "tools/wal_converter/bc20_catalog.h"
#include "tools/wal_converter/bc20_index.h"
#include "tools/wal_converter/bc20_table.h"
#include "tools/wal_converter/write_log.h"
#include "utils/cvlog.h"
#include "utils/mem.h"

namespace {

constexpr char kModule[] = "LOGGER";

// The table slot that the foreign key `fk_id` references: its key found by name across all
// tables, then the table named in that key's record.
int64_t referenced_slot(struct bc20_catalog* cat, int64_t fk_id) {
  bc20_index* fk = bc20_catalog_index_by_id(cat, fk_id);
  bc20_index* key = fk != nullptr ? bc20_catalog_index_by_name(cat, fk->key_name) : nullptr;
  int64_t nr = key != nullptr ? bc20_catalog_table_nr_by_name(cat, key->table_name) : -1;
  bc20_table* ref_table = nr >= 0 ? cat->tables[nr] : nullptr;
  J480_ASSERT(kModule, ref_table);
  return nr;
}

template <typename T>
T* take(MemContext* mem, int64_t n) {
  return static_cast<T*>(
      mem_callocex(mem, sizeof(T) * static_cast<uint64_t>(n > 0 ? n : 1), J480_MEM_ALLOWFAILURE));
}

// A position on a cycle among the positions not yet `done`: a depth-first walk along the
// edges between them meets a position still on its path. -1 where there is none.
int64_t position_on_cycle(int64_t count, const int64_t* first, const int64_t* to, const bool* done,
                          MemContext* mem) {
  auto* state = take<int8_t>(mem, count);  // 0 unseen, 1 on the path, 2 finished
  auto* path = take<int64_t>(mem, count);
  auto* next_edge = take<int64_t>(mem, count);
  if (state == nullptr || path == nullptr || next_edge == nullptr) return -1;
  for (int64_t start = 0; start < count; start++) {
    if (done[start] || state[start] != 0) continue;
    int64_t depth = 0;
    path[depth++] = start;
    state[start] = 1;
    next_edge[start] = first[start];
    while (depth > 0) {
      int64_t p = path[depth - 1];
      if (next_edge[p] == first[p + 1]) {
        state[p] = 2;
        depth--;
        continue;
      }
      int64_t r = to[next_edge[p]++];
      if (done[r] || state[r] == 2) continue;
      if (state[r] == 1) return r;
      state[r] = 1;
      next_edge[r] = first[r];
      path[depth++] = r;
    }
  }
  return -1;
}

}  // namespace

ordered_tables* init_ordered_tables(struct bc20_catalog* cat, MemContext* mem) {
  J480_ASSERT(kModule, cat);
  MemContext* ids_mem = mem_context_create(mem, "init_ordered_tables_mem");
  int64_t n = 0;
  int64_t* ids = bc20_catalog_table_ids(cat, ids_mem, &n);
  auto* ordered = static_cast<ordered_tables*>(mem_calloc_plain(sizeof(ordered_tables)));
  if (ordered != nullptr) {
    ordered->tables = static_cast<ordered_table**>(
        mem_calloc_plain(sizeof(ordered_table*) * static_cast<uint64_t>(n > 0 ? n : 1)));
    if (ordered->tables == nullptr) {
      free(ordered);
      ordered = nullptr;
    }
  }
  // Slots and ids side by side: the id list holds the live slots in order.
  for (uint32_t slot = 0; ordered != nullptr && slot < cat->n_tables; slot++) {
    if (cat->tables[slot] == nullptr) continue;
    auto* t = static_cast<ordered_table*>(mem_calloc_plain(sizeof(ordered_table)));
    if (t == nullptr) {
      ordered_tables_free(ordered);
      ordered = nullptr;
      break;
    }
    t->id = ids[ordered->count];
    t->slot = slot;
    ordered->tables[ordered->count++] = t;
  }
  if (ordered == nullptr) CV_ERROR(kModule, "init_ordered_tables: out of memory");
  mem_context_remove(ids_mem);
  return ordered;
}

int count_table_references(struct bc20_catalog* cat, ordered_tables* ordered, MemContext* mem) {
  const int64_t count = ordered->count;
  auto* pos_of_slot = take<int64_t>(mem, cat->n_tables);
  auto* first = take<int64_t>(mem, count + 1);  // edges of position p: first[p] .. first[p+1]
  auto* indegree = take<int64_t>(mem, count);
  auto* done = take<bool>(mem, count);
  auto* queue = take<int64_t>(mem, count);
  if (pos_of_slot == nullptr || first == nullptr || indegree == nullptr || done == nullptr ||
      queue == nullptr) {
    CV_ERROR(kModule, "count_table_references: out of memory");
    return -1;
  }
  for (int64_t p = 0; p < count; p++) {
    pos_of_slot[ordered->tables[p]->slot] = p;
    ordered->tables[p]->refcnt = 0;
  }
  // The edges: for each table in list order, its foreign keys in index order.
  int64_t n_edges = 0;
  for (int64_t p = 0; p < count; p++) {
    const bc20_table* t = cat->tables[ordered->tables[p]->slot];
    for (int32_t k = 0; k < t->n_indexes; k++)
      if (strcmp(t->indexes[k]->name, "foreignkey") == 0) n_edges++;
  }
  auto* to = take<int64_t>(mem, n_edges);
  if (to == nullptr) {
    CV_ERROR(kModule, "count_table_references: out of memory");
    return -1;
  }
  int64_t e = 0;
  for (int64_t p = 0; p < count; p++) {
    first[p] = e;
    const bc20_table* t = cat->tables[ordered->tables[p]->slot];
    for (int32_t k = 0; k < t->n_indexes; k++) {
      if (strcmp(t->indexes[k]->name, "foreignkey") != 0) continue;
      int64_t r = pos_of_slot[referenced_slot(cat, t->indexes[k]->id)];
      to[e++] = r;
      indegree[r]++;
    }
  }
  first[count] = e;

  // A table's count is final once every table that references it has passed on its own.
  int64_t head = 0, tail = 0;
  for (int64_t p = 0; p < count; p++)
    if (indegree[p] == 0) queue[tail++] = p;
  while (head < tail) {
    int64_t p = queue[head++];
    done[p] = true;
    const int64_t add = ordered->tables[p]->refcnt;
    for (int64_t k = first[p]; k < first[p + 1]; k++) {
      ordered_table* r = ordered->tables[to[k]];
      if (__builtin_add_overflow(r->refcnt, add, &r->refcnt) ||
          __builtin_add_overflow(r->refcnt, 1, &r->refcnt)) {
        CV_ERROR(kModule,
                 "count_table_references: too many foreign key paths end in table '%s'; the "
                 "tables can't be ordered.",
                 cat->table_names[r->slot]);
        return -1;
      }
      if (--indegree[to[k]] == 0) queue[tail++] = to[k];
    }
  }
  if (tail == count) return 0;
  int64_t p = position_on_cycle(count, first, to, done, mem);
  if (p < 0) {
    CV_ERROR(kModule, "count_table_references: out of memory");
    return -1;
  }
  CV_ERROR(kModule,
           "count_table_references: the foreign keys of table '%s' lead back to it; the tables "
           "can't be ordered.",
           cat->table_names[ordered->tables[p]->slot]);
  return -1;
}

int64_t ordered_table_position(const ordered_tables* ordered, int64_t table_id) {
  for (int64_t p = 0; p < ordered->count; p++)
    if (ordered->tables[p]->id == table_id) return p;
  return -1;
}

int sort_ordered_tables(ordered_tables* ordered) {
  ordered_table** tables = ordered != nullptr ? ordered->tables : nullptr;
  J480_ASSERT(kModule, tables);
  if (ordered->count < 2) return 0;
  std::stable_sort(
      tables, tables + ordered->count,
      [](const ordered_table* a, const ordered_table* b) { return a->refcnt > b->refcnt; });
  return 0;
}

void ordered_tables_free(ordered_tables* ordered) {
  if (ordered == nullptr) return;
  for (int64_t p = 0; p < ordered->count; p++) free(ordered->tables[p]);
  free(ordered->tables);
  free(ordered);
}
