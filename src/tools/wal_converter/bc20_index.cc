#include "tools/wal_converter/bc20_index.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "bm/logger.h"
#include "kernel/ptype.h"
#include "kernel/vheap.h"
#include "tools/wal_converter/bc20_catalog.h"
#include "tools/wal_converter/bc20_colgroup.h"
#include "tools/wal_converter/bc20_column.h"
#include "tools/wal_converter/bc20_iobm.h"
#include "tools/wal_converter/bc20_logger.h"
#include "utils/cvconfig.h"
#include "utils/cvlog.h"
#include "utils/mem.h"

int32_t bc20_idx_minmax = -1;
int32_t bc20_idx_uniquekey = -1;
int32_t bc20_idx_primarykey = -1;
int32_t bc20_idx_foreignkey = -1;
int32_t bc20_idx_sortkey = -1;
int32_t bc20_idx_join = -1;

namespace {

constexpr const char* kModule = "CATALOG";

bc20_index_impl* g_types[BC20_MAX_INDEX_TYPES];
int32_t nr_of_indices = 0;

int64_t minmax_maxsize() {
  cvconfig_layer* config = bc20_get_config();
  return config != nullptr ? cvconfig_get_lng(config, CVGROUP_CBM, CVPROP_MINMAX_MAXSIZE) : 1024;
}

void* key_create(bc20_index* index) {
  return index;
}
void key_free(void*) {}

int32_t column_width(const bc20_column* c) {
  return ptype_width(c->type);
}

// ---- minmax ----

void minmax_free(void* state) {
  auto* mm = static_cast<bc20_minmax*>(state);
  if (mm == nullptr) return;
  for (int32_t c = 0; c < mm->ncols; c++) {
    if (mm->mins != nullptr) free(mm->mins[c]);
    if (mm->maxs != nullptr) free(mm->maxs[c]);
    if (mm->overflow_mins != nullptr) free(mm->overflow_mins[c]);
    if (mm->overflow_maxs != nullptr) free(mm->overflow_maxs[c]);
  }
  if (mm->heap != nullptr) vheap_destroy(mm->heap);
  free(mm->mins);
  free(mm->maxs);
  free(mm->overflow_mins);
  free(mm->overflow_maxs);
  free(mm->cap);
  free(mm);
}

void* minmax_create(bc20_index* index) {
  auto* mm = static_cast<bc20_minmax*>(calloc(1, sizeof(bc20_minmax)));
  if (mm == nullptr) {
    CV_ERROR(kModule, "out of memory");
    return nullptr;
  }
  mm->index = index;
  mm->groupsize = 1;
  mm->maxgroups = minmax_maxsize();
  int32_t n = index->colgroup->n_columns;
  mm->ncols = n;
  size_t ptrs = sizeof(void*) * static_cast<size_t>(n > 0 ? n : 1);
  mm->mins = static_cast<void**>(calloc(1, ptrs));
  mm->maxs = static_cast<void**>(calloc(1, ptrs));
  mm->overflow_mins = static_cast<void**>(calloc(1, ptrs));
  mm->overflow_maxs = static_cast<void**>(calloc(1, ptrs));
  mm->cap = static_cast<int64_t*>(calloc(1, sizeof(int64_t) * static_cast<size_t>(n > 0 ? n : 1)));
  bool ok = mm->mins && mm->maxs && mm->overflow_mins && mm->overflow_maxs && mm->cap;
  for (int32_t c = 0; ok && c < n; c++) {
    size_t w = static_cast<size_t>(column_width(index->colgroup->columns[c]));
    mm->overflow_mins[c] = calloc(1, w);
    mm->overflow_maxs[c] = calloc(1, w);
    ok = mm->overflow_mins[c] && mm->overflow_maxs[c];
  }
  // The string heap is made when the first string arrives: most indexes have none.
  if (!ok) {
    CV_ERROR(kModule, "out of memory");
    minmax_free(mm);
    return nullptr;
  }
  return mm;
}

int64_t minmax_numgroups(const bc20_minmax* mm) {
  // A groupsize of 0 or below makes no groups rather than a division fault.
  if (mm->groupsize <= 0) return 0;
  int64_t n = (mm->numtuples + mm->groupsize - 1) / mm->groupsize;
  return n < 0 ? 0 : n;
}

// Room for `groups` values of `width` in both buffers of column `c`, new room zeroed.
bool minmax_reserve(bc20_minmax* mm, int32_t c, int64_t groups, int64_t width) {
  if (groups <= mm->cap[c]) return true;
  size_t old_size = static_cast<size_t>(mm->cap[c] * width);
  size_t size = static_cast<size_t>(groups * width);
  void* a = realloc(mm->mins[c], size);
  if (a != nullptr) mm->mins[c] = a;
  void* b = a != nullptr ? realloc(mm->maxs[c], size) : nullptr;
  if (b != nullptr) mm->maxs[c] = b;
  if (a == nullptr || b == nullptr) {
    CV_ERROR(kModule, "out of memory");
    return false;
  }
  memset(static_cast<char*>(a) + old_size, 0, size - old_size);
  memset(static_cast<char*>(b) + old_size, 0, size - old_size);
  mm->cap[c] = groups;
  return true;
}

// Keeps the content that fits the new group count; buffers grow only when data arrives.
void minmax_resize(bc20_minmax* mm, int64_t maxgroups) {
  for (int32_t c = 0; c < mm->ncols; c++)
    if (mm->cap[c] > maxgroups) mm->cap[c] = maxgroups < 0 ? 0 : maxgroups;
}

bc20_index* find_index(int64_t id, int32_t itype) {
  bc20_index* i = bc20_catalog_index_by_id(bc20_catalog, id);
  return i != nullptr && i->itype == itype ? i : nullptr;
}

char* heap_string(bc20_minmax* mm, const char* bytes, int64_t len) {
  if (mm->heap == nullptr) mm->heap = vheap_create_unmanaged_default();
  if (mm->heap == nullptr) return nullptr;
  auto* s = static_cast<char*>(vheap_alloc(mm->heap, len + 1));
  if (s == nullptr) return nullptr;
  if (len > 0) memcpy(s, bytes, static_cast<size_t>(len));
  s[len] = '\0';
  return s;
}

int64_t read_len(const char* p) {
  int64_t v;
  memcpy(&v, p, sizeof v);
  return v;
}

int minmax_size(const bc20_minmax_size_fields& f) {
  bc20_index* i = find_index(f.index_id, bc20_idx_minmax);
  if (i == nullptr || i->impl == nullptr) {
    CV_ERROR(kModule, "bad index id (%lld)", static_cast<long long>(f.index_id));
    return 0;
  }
  auto* mm = static_cast<bc20_minmax*>(i->impl);
  if (f.maxgroups != mm->maxgroups) minmax_resize(mm, f.maxgroups);
  mm->maxgroups = f.maxgroups;
  int64_t numgroups = f.groupsize > 0 ? (f.numtuples + f.groupsize - 1) / f.groupsize : 0;
  if (numgroups > f.maxgroups) {
    CV_ERROR(kModule, "too many groups in logged index");
    return 0;
  }
  mm->numtuples = f.numtuples;
  mm->groupsize = f.groupsize;
  return 1;
}

int minmax_data(const bc20_minmax_data_fields& f, bool vardata) {
  bc20_index* i = find_index(f.index_id, bc20_idx_minmax);
  if (i == nullptr || i->impl == nullptr) {
    CV_ERROR(kModule, "bad index id (%d)", static_cast<int>(f.index_id));
    return 0;
  }
  auto* mm = static_cast<bc20_minmax*>(i->impl);
  int64_t numgroups = minmax_numgroups(mm);
  if (f.column_nr < 0 || f.column_nr >= mm->ncols) {
    CV_ERROR(kModule, "bad column number");
    return 0;
  }
  int32_t c = f.column_nr;
  const bc20_column* col = i->colgroup->columns[c];
  bool fixed = col->type->fixed != 0;
  if (fixed == vardata) {
    CV_ERROR(kModule, "bad stored data type");
    return 0;
  }
  int64_t width = column_width(col);
  const char* data = static_cast<const char*>(f.data);
  if (fixed) {
    __int128 want = static_cast<__int128>(2) * width * numgroups;
    if (f.datasize != want) {
      CV_ERROR(kModule, "Bad stored data size %lld (should be %lld)",
               static_cast<long long>(f.datasize), static_cast<long long>(want));
      return 0;
    }
    if (!minmax_reserve(mm, c, numgroups, width)) return 0;
    size_t half = static_cast<size_t>(numgroups * width);
    if (half > 0) {
      memcpy(mm->mins[c], data, half);
      memcpy(mm->maxs[c], data + half, half);
    }
  } else {
    __int128 table = static_cast<__int128>(16) * numgroups;
    if (f.datasize < table) {
      CV_ERROR(kModule, "Bad stored data size %lld (should be >=%lld)",
               static_cast<long long>(f.datasize), static_cast<long long>(table));
      return 0;
    }
    if (!minmax_reserve(mm, c, numgroups, width)) return 0;
    auto** mins = static_cast<char**>(mm->mins[c]);
    auto** maxs = static_cast<char**>(mm->maxs[c]);
    int64_t at = static_cast<int64_t>(table);
    for (int64_t g = 0; g < numgroups; g++) {
      int64_t lmin = read_len(data + 16 * g);
      int64_t lmax = read_len(data + 16 * g + 8);
      if (lmin < 0 || lmax < 0 || lmin > f.datasize - at || lmax > f.datasize - at - lmin) {
        CV_ERROR(kModule, "bad stored data size");
        return 0;
      }
      char* smin = heap_string(mm, data + at, lmin);
      char* smax = smin != nullptr ? heap_string(mm, data + at + lmin, lmax) : nullptr;
      if (smax == nullptr) {
        CV_ERROR(kModule, "out of memory");
        return 0;
      }
      mins[g] = smin;
      maxs[g] = smax;
      at += lmin + lmax;
    }
  }
  if (f.overflow == 0) {
    mm->overflow = 0;
    return 1;
  }
  mm->overflow = f.overflow;
  const char* od = static_cast<const char*>(f.overflow_data);
  if (fixed) {
    // One value of the column's width each; a differing size copies what fits.
    int64_t n = f.overflow_datasize < width ? f.overflow_datasize : width;
    memset(mm->overflow_mins[c], 0, static_cast<size_t>(width));
    memset(mm->overflow_maxs[c], 0, static_cast<size_t>(width));
    if (n > 0) {
      memcpy(mm->overflow_mins[c], od, static_cast<size_t>(n));
      memcpy(mm->overflow_maxs[c], od + f.overflow_datasize, static_cast<size_t>(n));
    }
    return 1;
  }
  if (f.overflow_datasize < 16) {
    CV_ERROR(kModule, "minmax overflow: bad data size %lld (should be >=%zu)",
             static_cast<long long>(f.overflow_datasize), static_cast<size_t>(16));
    return 0;
  }
  int64_t lmin = read_len(od);
  int64_t lmax = read_len(od + 8);
  int64_t room = f.overflow_datasize - 16;
  if (lmin < 0 || lmax < 0 || lmin > room || lmax > room - lmin) {
    CV_ERROR(kModule, "bad stored overflow data size");
    return 0;
  }
  char* smin = heap_string(mm, od + 16, lmin);
  char* smax = smin != nullptr ? heap_string(mm, od + 16 + lmin, lmax) : nullptr;
  if (smax == nullptr) {
    CV_ERROR(kModule, "out of memory");
    return 0;
  }
  *static_cast<char**>(mm->overflow_mins[c]) = smin;
  *static_cast<char**>(mm->overflow_maxs[c]) = smax;
  return 1;
}

bm_logger_action_list* minmax_generate(void* state, int64_t index_id, MemContext* mem) {
  auto* mm = static_cast<bc20_minmax*>(state);
  bm_logger_action_list* list = action_list_new(mem);
  action_list_append(
      list, bm_action_minmax_size(mem, index_id, mm->maxgroups, mm->numtuples, mm->groupsize));
  int64_t numgroups = minmax_numgroups(mm);
  for (int32_t c = 0; c < mm->ncols; c++) {
    const bc20_column* col = mm->index->colgroup->columns[c];
    int64_t width = column_width(col);
    // Groups that never received data read as zero values (empty strings).
    const void* mins = mm->mins[c];
    const void* maxs = mm->maxs[c];
    if (mm->cap[c] < numgroups) {
      mins = mem_calloc(mem, static_cast<uint64_t>(numgroups * width));
      maxs = mem_calloc(mem, static_cast<uint64_t>(numgroups * width));
      if (mm->cap[c] > 0) {
        memcpy(const_cast<void*>(mins), mm->mins[c], static_cast<size_t>(mm->cap[c] * width));
        memcpy(const_cast<void*>(maxs), mm->maxs[c], static_cast<size_t>(mm->cap[c] * width));
      }
    }
    if (col->type->fixed) {
      action_list_append(
          list, bm_action_minmax_data(mem, index_id, c, numgroups * width, mins, maxs, mm->overflow,
                                      width, mm->overflow_mins[c], mm->overflow_maxs[c]));
    } else {
      action_list_append(
          list, bm_action_minmax_vardata(mem, index_id, c, numgroups,
                                         static_cast<const char* const*>(mins),
                                         static_cast<const char* const*>(maxs), mm->overflow,
                                         *static_cast<const char* const*>(mm->overflow_mins[c]),
                                         *static_cast<const char* const*>(mm->overflow_maxs[c])));
    }
  }
  return list;
}

// ---- join index ----

void jis_free(void* state) {
  auto* jis = static_cast<bc20_jis*>(state);
  if (jis == nullptr) return;
  for (int64_t* a : jis->columns) free(a);
  free(jis);
}

void* jis_create(bc20_index* index) {
  auto* jis = static_cast<bc20_jis*>(calloc(1, sizeof(bc20_jis)));
  if (jis == nullptr) {
    CV_ERROR(kModule, "out of memory");
    return nullptr;
  }
  jis->index = index;
  jis->groupsize = 1;
  jis->maxgroups = -1;
  if (!jis_resize(jis, minmax_maxsize())) {
    jis_free(jis);
    return nullptr;
  }
  return jis;
}

int jis_size(const bc20_jis_size_fields& f, bc20_jis* jis) {
  jis_resize(jis, f.maxgroups);
  jis->numgroups = f.numgroups;
  jis->groupsize = f.groupsize;
  if (jis->numgroups > jis->maxgroups)
    CV_ERROR(kModule, "jis_action_handler: too many groups in logged index");
  return 1;
}

int jis_data(const bc20_jis_data_fields& f, bc20_jis* jis) {
  if (f.numgroups != jis->numgroups + 1) {
    CV_ERROR(kModule,
             "jis_action_handler: number of groups in data doesn't match number of groups in "
             "index");
    return 1;
  }
  if (f.jis_column < 0 || f.jis_column > 2) {
    CV_ERROR(kModule, "jis_action_handler: wrong column type stored in index");
    return 1;
  }
  int64_t*& a = jis->columns[f.jis_column];
  if (f.numgroups > jis->cap) {
    // The words are in the record: growing to them is what the log itself justifies.
    for (int64_t*& col : jis->columns) {
      auto* grown =
          static_cast<int64_t*>(realloc(col, sizeof(int64_t) * static_cast<size_t>(f.numgroups)));
      if (grown == nullptr) {
        CV_ERROR(kModule, "jis_resize: failed to allocate memory");
        return 1;
      }
      memset(grown + jis->cap, 0, sizeof(int64_t) * static_cast<size_t>(f.numgroups - jis->cap));
      col = grown;
    }
    // Every array has grown before the cap moves.
    jis->cap = f.numgroups;
  }
  if (f.numgroups > 0) memcpy(a, f.groups, sizeof(int64_t) * static_cast<size_t>(f.numgroups));
  return 1;
}

bm_logger_action_list* jis_generate(void* state, int64_t index_id, MemContext* mem) {
  auto* jis = static_cast<bc20_jis*>(state);
  bm_logger_action_list* list = action_list_new(mem);
  action_list_append(
      list, bm_action_jis_size(mem, index_id, jis->maxgroups, jis->numgroups, jis->groupsize));
  int64_t count = jis->numgroups + 1 > 0 ? jis->numgroups + 1 : 0;
  for (int32_t k = 0; k < 3; k++) {
    const int64_t* words = jis->columns[k];
    if (jis->cap < count) {
      auto* z =
          static_cast<int64_t*>(mem_calloc(mem, sizeof(int64_t) * static_cast<uint64_t>(count)));
      if (jis->cap > 0) memcpy(z, words, sizeof(int64_t) * static_cast<size_t>(jis->cap));
      words = z;
    }
    action_list_append(list, bm_action_jis_data(mem, index_id, k, count, words));
  }
  return list;
}

bc20_index_impl g_key = {"sortkey", 0, key_create, key_free, nullptr, nullptr};
bc20_index_impl g_unique = {"uniquekey", 0, key_create, key_free, nullptr, nullptr};
bc20_index_impl g_primary = {"primarykey", 0, key_create, key_free, nullptr, nullptr};
bc20_index_impl g_foreign = {"foreignkey", 0, key_create, key_free, nullptr, nullptr};
bc20_index_impl g_minmax = {"minmax", 0, minmax_create, minmax_free, nullptr, minmax_generate};
bc20_index_impl g_join = {"join", 0, jis_create, jis_free, nullptr, jis_generate};

}  // namespace

int jis_resize(bc20_jis* jis, int64_t maxgroups) {
  if (maxgroups == jis->maxgroups) return 1;
  for (int64_t*& a : jis->columns) {
    free(a);
    a = nullptr;
  }
  jis->cap = 0;  // the arrays grow zeroed as data records arrive
  jis->maxgroups = maxgroups;
  return 1;
}

int32_t bc20_index_register(bc20_index_impl* entry) {
  J480_ASSERT(kModule, nr_of_indices < BC20_MAX_INDEX_TYPES);
  int32_t nr = nr_of_indices++;
  g_types[nr] = entry;
  entry->type_id = nr;
  return nr;
}

void bc20_index_register_types() {
  if (nr_of_indices > 0) return;
  bc20_index_register(&g_key);
  bc20_idx_minmax = bc20_index_register(&g_minmax);
  bc20_idx_uniquekey = bc20_index_register(&g_unique);
  bc20_idx_primarykey = bc20_index_register(&g_primary);
  bc20_idx_foreignkey = bc20_index_register(&g_foreign);
  bc20_idx_sortkey = bc20_index_register(&g_key);  // the same entry again: its type_id is now 5
  bc20_idx_join = bc20_index_register(&g_join);
}

int32_t bc20_index_type_count() {
  return nr_of_indices;
}

const bc20_index_impl* bc20_index_type(int32_t idx_type) {
  J480_ASSERT(kModule, idx_type >= 0 && idx_type < nr_of_indices);
  return g_types[idx_type];
}

bc20_index* bc20_index_create(int32_t type, bc20_colgroup* colgroup, bc20_colgroup* scolgroup) {
  const bc20_index_impl* t = bc20_index_type(type);
  bc20_colgroup* cg = colgroup;
  J480_ASSERT(kModule, cg);
  // Each group has one owner: an index takes groups that no table or index holds, whose
  // storage group hangs, if anywhere, below the index's own group.
  J480_ASSERT(kModule, cg->owner_kind == BC20_CG_FREE && cg->parent == NULL);
  J480_ASSERT(kModule,
              IMPLIES(scolgroup, scolgroup != cg && scolgroup->owner_kind == BC20_CG_FREE &&
                                     (!scolgroup->parent || scolgroup->parent == cg)));
  auto* i = static_cast<bc20_index*>(calloc(1, sizeof(bc20_index)));
  J480_ASSERT(kModule, i);
  memcpy(i->name, t->name, sizeof i->name);
  i->type_id = t->type_id;
  i->itype = strcmp(t->name, "sortkey") == 0 ? bc20_idx_sortkey : type;
  i->create = t->create;
  i->free = t->free;
  i->set_id = t->set_id;
  i->generate = t->generate;
  i->colgroup = cg;
  i->scolgroup = scolgroup;
  i->listed_by_id = -1;
  i->listed_by_name = -1;
  cg->owner_kind = BC20_CG_INDEX_COLGROUP;
  cg->owner = i;
  if (scolgroup != nullptr) {
    scolgroup->owner_kind = BC20_CG_INDEX_SCOLGROUP;
    scolgroup->owner = i;
  }
  i->impl = i->create(i);
  return i;
}

int64_t bc20_index_set_id(bc20_index* i, int64_t id) {
  J480_ASSERT(kModule, i);
  return i->set_id != nullptr ? i->set_id(i->impl, id) : id;
}

void bc20_index_free(bc20_index* i) {
  if (i == nullptr) return;
  if (i->free != nullptr) i->free(i->impl);
  // A storage group below the index's own group goes with it: freeing it first detaches it,
  // so each group is released once whatever the order.
  if (i->scolgroup != nullptr && i->scolgroup->parent != nullptr) {
    bc20_colgroup_free(i->scolgroup);
    i->scolgroup = nullptr;
  }
  bc20_colgroup_free(i->colgroup);
  bc20_colgroup_free(i->scolgroup);
  free(i->table_name);
  free(i->key_name);
  free(i);
}

int bc20_minmax_action_handler(void*, bc20_action* action) {
  switch (action->type) {
    case bc20_minmax_size:
      return minmax_size(action->minmax_size);
    case bc20_minmax_data:
      return minmax_data(action->minmax_data, false);
    case bc20_minmax_vardata:
      return minmax_data(action->minmax_vardata, true);
    default:
      return 1;
  }
}

int jis_action_handler(void*, bc20_action* action) {
  if (action->type != bc20_jis_size && action->type != bc20_jis_data) return 1;
  int64_t id =
      action->type == bc20_jis_size ? action->jis_size.index_id : action->jis_data.index_id;
  bc20_index* i = find_index(id, bc20_idx_join);
  if (i == nullptr || i->impl == nullptr) {
    CV_ERROR(kModule, "jis_action_handler: bad index id (%d)", static_cast<int>(id));
    return 0;
  }
  auto* jis = static_cast<bc20_jis*>(i->impl);
  return action->type == bc20_jis_size ? jis_size(action->jis_size, jis)
                                       : jis_data(action->jis_data, jis);
}
