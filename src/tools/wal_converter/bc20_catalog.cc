#include "tools/wal_converter/bc20_catalog.h"

#include <cstdlib>
#include <cstring>
#include <string>
#include <unordered_map>
#include <vector>

#include "tools/wal_converter/bc20_colgroup.h"
#include "tools/wal_converter/bc20_column.h"
#include "tools/wal_converter/bc20_index.h"
#include "tools/wal_converter/bc20_table.h"
#include "updates/pdt.h"
#include "utils/cvlog.h"
#include "utils/longjmp_ctx.h"
#include "utils/mem.h"

struct bc20_catalog* bc20_catalog = nullptr;

// Hash lookups beside the slot arrays. Slot lists are ascending (slots only grow), so the first
// entry is the answer of an in-order scan.
struct bc20_catalog_lookup {
  std::unordered_map<int64_t, std::vector<uint32_t>> table_by_id;
  std::unordered_map<std::string, std::vector<uint32_t>> table_by_name;
  // Names that start with '_', by the text behind that first character.
  std::unordered_map<std::string, std::vector<uint32_t>> table_by_tail;
  std::unordered_map<const bc20_table*, uint32_t> slot_of_table;
  std::unordered_map<int64_t, int64_t> location_by_id;
  std::unordered_map<std::string, std::vector<int64_t>> location_by_name;
};

namespace {

constexpr const char* kModule = "CATALOG";
constexpr uint32_t kInitialSlots = 1024;

longjmp_env* g_cat_env = nullptr;
int64_t g_location_counter = 1;

template <typename V>
void erase_value(std::vector<V>& v, V value) {
  for (size_t k = 0; k < v.size(); k++) {
    if (v[k] == value) {
      v.erase(v.begin() + static_cast<std::ptrdiff_t>(k));
      return;
    }
  }
}

template <typename Map, typename Key, typename V>
void unlist(Map& m, const Key& key, V value) {
  auto it = m.find(key);
  if (it == m.end()) return;
  erase_value(it->second, value);
  if (it->second.empty()) m.erase(it);
}

// A copy of `n_old` entries of `size` bytes in a zeroed array of `n_new` entries in `mem`.
void* grow(MemContext* mem, void* old, uint64_t n_old, uint64_t n_new, uint64_t size) {
  void* a = mem_calloc(mem, n_new * size);
  if (n_old > 0) memcpy(a, old, n_old * size);
  mem_free(mem, old);
  return a;
}

int64_t min_slot(struct bc20_catalog* cat, const bc20_table* t, int64_t best) {
  if (t == nullptr) return best;
  auto it = cat->lookup->slot_of_table.find(t);
  if (it == cat->lookup->slot_of_table.end()) return best;
  int64_t slot = it->second;
  return best < 0 || slot < best ? slot : best;
}

struct slot_search {
  struct bc20_catalog* cat;
  int64_t best;
};

// The table of a group that a table's column search looks at: its root, or an index's group.
const bc20_table* table_of_holder(const bc20_colgroup* g) {
  if (g->owner_kind == BC20_CG_TABLE_ROOT) return static_cast<const bc20_table*>(g->owner);
  if (g->owner_kind == BC20_CG_INDEX_COLGROUP)
    return static_cast<const bc20_index*>(g->owner)->table;
  return nullptr;
}

int64_t table_slot_by_index_id(struct bc20_catalog* cat, int64_t index_id) {
  slot_search s{cat, -1};
  bc20_table_for_each_index_with_id(
      index_id,
      [](void* arg, bc20_index* i) {
        auto* q = static_cast<slot_search*>(arg);
        q->best = min_slot(q->cat, i->table, q->best);
      },
      &s);
  return s.best;
}

location* location_at(struct bc20_catalog* cat, int64_t location_id) {
  int64_t nr = bc20_catalog_location_nr_by_id(cat, location_id);
  return nr < 0 ? nullptr : cat->locations[nr];
}

}  // namespace

// ---- locations ----

location* location_create(const char* name, const char* path, int32_t usage, void* catalog) {
  auto* loc = static_cast<location*>(calloc(1, sizeof(location)));
  char* n = name != nullptr ? strdup(name) : nullptr;
  char* p = path != nullptr ? strdup(path) : nullptr;
  if (loc == nullptr || (name != nullptr && n == nullptr) || (path != nullptr && p == nullptr)) {
    free(loc);
    free(n);
    free(p);
    CV_ERROR(kModule, "location_create: out of memory");
    return nullptr;
  }
  loc->catalog = catalog;
  loc->name = n;
  loc->path = p;
  loc->usage = usage;
  loc->refcnt = 1;
  return loc;
}

void location_unref(location* loc) {
  if (loc == nullptr || --loc->refcnt > 0) return;
  free(loc->name);
  free(loc->path);
  free(loc);
}

// ---- the catalog ----

struct bc20_catalog* bc20_catalog_create() {
  MemContext* mem = mem_context_create(nullptr, "cat_mem");
  g_cat_env = static_cast<longjmp_env*>(mem_calloc(mem, sizeof(longjmp_env)));
  longjmp_env_init(g_cat_env, mem);
  mem_context_set_exception_env(mem, &g_cat_env);
  auto* cat = static_cast<struct bc20_catalog*>(mem_calloc(mem, sizeof(struct bc20_catalog)));
  cat->mem = mem;
  cat->tables_size = kInitialSlots;
  cat->locations_size = kInitialSlots;
  cat->tables = static_cast<bc20_table**>(mem_calloc(mem, sizeof(bc20_table*) * kInitialSlots));
  cat->table_names = static_cast<char**>(mem_calloc(mem, sizeof(char*) * kInitialSlots));
  cat->locations = static_cast<location**>(mem_calloc(mem, sizeof(location*) * kInitialSlots));
  cat->write_pdts = static_cast<pdt**>(mem_calloc(mem, sizeof(pdt*) * kInitialSlots));
  cat->lookup = new bc20_catalog_lookup();
  return cat;
}

void bc20_catalog_destroy(struct bc20_catalog* cat) {
  if (cat == nullptr) return;
  for (uint32_t k = 0; k < cat->n_tables; k++) {
    if (cat->tables[k] == nullptr) continue;
    bc20_table_destroy(cat->tables[k]);
    cat->tables[k] = nullptr;
    cat->table_names[k] = nullptr;
    if (cat->write_pdts[k] != nullptr) pdt_unref(cat->write_pdts[k]);
    cat->write_pdts[k] = nullptr;
  }
  for (int64_t k = 0; k < cat->n_locations; k++) {
    location_unref(cat->locations[k]);
    cat->locations[k] = nullptr;
  }
  delete cat->lookup;
  MemContext* mem = cat->mem;
  mem_context_set_exception_env(mem, nullptr);
  if (g_cat_env != nullptr) longjmp_env_destroy(g_cat_env);
  g_cat_env = nullptr;
  mem_context_remove(mem);
}

int64_t bc20_catalog_add_table(struct bc20_catalog* cat, bc20_table* table, const char* name) {
  int64_t existing = name != nullptr ? bc20_catalog_table_nr_by_name(cat, name) : -1;
  if (cat == nullptr || table == nullptr || name == nullptr || name[0] == '\0') return -1;
  if (existing >= 0) {
    CV_ERROR(kModule, "table already exists: %s", name);
    return -1;
  }
  bool table_is_new = cat->lookup->slot_of_table.count(table) == 0;
  J480_ASSERT(kModule, table_is_new);
  uint32_t k = cat->n_tables++;
  if (k == cat->tables_size) {
    uint32_t n = cat->tables_size * 2;
    cat->tables = static_cast<bc20_table**>(grow(cat->mem, cat->tables, k, n, sizeof(bc20_table*)));
    cat->table_names = static_cast<char**>(grow(cat->mem, cat->table_names, k, n, sizeof(char*)));
    cat->write_pdts = static_cast<pdt**>(grow(cat->mem, cat->write_pdts, k, n, sizeof(pdt*)));
    cat->tables_size = n;
  }
  cat->tables[k] = table;
  cat->table_names[k] = mem_strdup(cat->mem, name);
  J480_ASSERT(kModule, cat->write_pdts[k] == NULL);
  bc20_catalog_lookup* l = cat->lookup;
  l->table_by_id[static_cast<int64_t>(table->table_id)].push_back(k);
  l->table_by_name[name].push_back(k);
  if (name[0] == '_') l->table_by_tail[name + 1].push_back(k);
  l->slot_of_table[table] = k;
  CV_DEBUG(kModule, "added table %s id=%lld", name, static_cast<long long>(table->table_id));
  return k;
}

int64_t bc20_catalog_del_table(struct bc20_catalog* cat, int64_t table_id) {
  int64_t nr = bc20_catalog_table_nr_by_id(cat, table_id);
  if (nr < 0) return -1;
  uint32_t k = static_cast<uint32_t>(nr);
  bc20_table* t = cat->tables[k];
  const char* name = cat->table_names[k];
  CV_DEBUG(kModule, "deleted table %s id=%lld", name, static_cast<long long>(table_id));
  bc20_catalog_lookup* l = cat->lookup;
  unlist(l->table_by_id, static_cast<int64_t>(t->table_id), k);
  unlist(l->table_by_name, std::string(name), k);
  if (name[0] == '_') unlist(l->table_by_tail, std::string(name + 1), k);
  l->slot_of_table.erase(t);
  bc20_table_destroy(t);
  cat->tables[k] = nullptr;
  cat->table_names[k] = nullptr;
  if (cat->write_pdts[k] != nullptr) pdt_unref(cat->write_pdts[k]);
  cat->write_pdts[k] = nullptr;
  return nr;
}

int64_t bc20_catalog_table_nr_by_id(struct bc20_catalog* cat, int64_t table_id) {
  if (cat == nullptr) return -1;
  auto it = cat->lookup->table_by_id.find(table_id);
  return it == cat->lookup->table_by_id.end() ? -1 : static_cast<int64_t>(it->second.front());
}

bc20_table* bc20_catalog_table_by_id(struct bc20_catalog* cat, int64_t table_id) {
  int64_t nr = bc20_catalog_table_nr_by_id(cat, table_id);
  return nr < 0 ? nullptr : cat->tables[nr];
}

const char* bc20_catalog_table_name_by_id(struct bc20_catalog* cat, int64_t table_id) {
  int64_t nr = bc20_catalog_table_nr_by_id(cat, table_id);
  return nr < 0 ? nullptr : cat->table_names[nr];
}

int64_t bc20_catalog_table_nr_by_name(struct bc20_catalog* cat, const char* name) {
  if (cat == nullptr || name == nullptr) return -1;
  bc20_catalog_lookup* l = cat->lookup;
  auto it = l->table_by_name.find(name);
  if (it != l->table_by_name.end()) return static_cast<int64_t>(it->second.front());
  // A name of the form _<prefix>S<name> also finds a table stored as _<name>.
  const char* s = name[0] == '_' ? strchr(name, 'S') : nullptr;
  if (s == nullptr) return -1;
  auto tail = l->table_by_tail.find(s + 1);
  return tail == l->table_by_tail.end() ? -1 : static_cast<int64_t>(tail->second.front());
}

bc20_table* bc20_catalog_table_by_name(struct bc20_catalog* cat, const char* name) {
  int64_t nr = bc20_catalog_table_nr_by_name(cat, name);
  return nr < 0 ? nullptr : cat->tables[nr];
}

int64_t* bc20_catalog_table_ids(struct bc20_catalog* cat, MemContext* mem, int64_t* n_out) {
  *n_out = 0;
  if (cat == nullptr) return nullptr;
  auto* ids = static_cast<int64_t*>(
      mem_malloc(mem, sizeof(int64_t) * (cat->n_tables > 0 ? cat->n_tables : 1)));
  for (uint32_t k = 0; k < cat->n_tables; k++)
    if (cat->tables[k] != nullptr) ids[(*n_out)++] = static_cast<int64_t>(cat->tables[k]->table_id);
  return ids;
}

bc20_table* bc20_catalog_table_by_colgroup_id(struct bc20_catalog* cat, int64_t id) {
  if (cat == nullptr) return nullptr;
  slot_search s{cat, -1};
  bc20_colgroup_for_each_with_id(
      id,
      [](void* arg, bc20_colgroup* g) {
        auto* q = static_cast<slot_search*>(arg);
        bc20_colgroup* root = bc20_colgroup_root_within3(g);
        if (root != nullptr && root->owner_kind == BC20_CG_TABLE_ROOT)
          q->best = min_slot(q->cat, static_cast<bc20_table*>(root->owner), q->best);
      },
      &s);
  return s.best < 0 ? nullptr : cat->tables[s.best];
}

bc20_colgroup* bc20_catalog_root_colgroup_by_id(struct bc20_catalog* cat, int64_t id) {
  if (cat == nullptr) return nullptr;
  slot_search s{cat, -1};
  bc20_colgroup_for_each_with_id(
      id,
      [](void* arg, bc20_colgroup* g) {
        auto* q = static_cast<slot_search*>(arg);
        if (g->parent == nullptr && g->owner_kind == BC20_CG_TABLE_ROOT)
          q->best = min_slot(q->cat, static_cast<bc20_table*>(g->owner), q->best);
      },
      &s);
  return s.best < 0 ? nullptr : cat->tables[s.best]->colgroup;
}

bc20_column* bc20_catalog_column_by_id(struct bc20_catalog* cat, int64_t column_id,
                                       const char** name_out) {
  if (name_out != nullptr) *name_out = nullptr;
  if (cat == nullptr) return nullptr;
  slot_search s{cat, -1};
  bc20_column_for_each_holder(
      column_id,
      [](void* arg, bc20_column*, bc20_colgroup* g) {
        auto* q = static_cast<slot_search*>(arg);
        q->best = min_slot(q->cat, table_of_holder(g), q->best);
      },
      &s);
  if (s.best < 0) return nullptr;
  return bc20_table_column_by_id(cat->tables[s.best], column_id, name_out);
}

bc20_index* bc20_catalog_index_by_id(struct bc20_catalog* cat, int64_t index_id) {
  if (cat == nullptr) return nullptr;
  int64_t slot = table_slot_by_index_id(cat, index_id);
  return slot < 0 ? nullptr : bc20_table_index_by_id(cat->tables[slot], index_id);
}

const char* bc20_catalog_index_name_by_id(struct bc20_catalog* cat, int64_t index_id) {
  if (cat == nullptr) return nullptr;
  int64_t slot = table_slot_by_index_id(cat, index_id);
  return slot < 0 ? nullptr : bc20_table_index_name_by_id(cat->tables[slot], index_id);
}

bc20_index* bc20_catalog_index_by_name(struct bc20_catalog* cat, const char* name) {
  if (cat == nullptr || name == nullptr) return nullptr;
  slot_search s{cat, -1};
  bc20_table_for_each_index_with_name(
      name,
      [](void* arg, bc20_index* i) {
        auto* q = static_cast<slot_search*>(arg);
        q->best = min_slot(q->cat, i->table, q->best);
      },
      &s);
  return s.best < 0 ? nullptr : bc20_table_index_by_name(cat->tables[s.best], name);
}

// ---- keys and join indexes ----

int64_t catalog_get_referenced_table_from_joinindex(struct bc20_catalog* cat, bc20_index* index) {
  if (cat == nullptr || index == nullptr) return -1;
  if (index->itype != bc20_idx_join) {
    CV_ERROR(kModule, "catalog_get_referenced_table_from_joinindex: not a joinindex");
    return -1;
  }
  bc20_index* fk = bc20_catalog_index_by_name(cat, index->key_name);
  J480_ASSERT(kModule, fk);
  return catalog_get_referenced_table_from_foreignkey(cat, fk);
}

int64_t bc20_catalog_referenced_table_nr_by_joinindex_name(struct bc20_catalog* cat,
                                                           const char* name) {
  return catalog_get_referenced_table_from_joinindex(cat, bc20_catalog_index_by_name(cat, name));
}

int64_t catalog_get_referenced_table_from_foreignkey(struct bc20_catalog* cat, bc20_index* index) {
  if (cat == nullptr || index == nullptr) return -1;
  if (index->itype != bc20_idx_foreignkey) {
    CV_ERROR(kModule, "catalog_get_referenced_table_from_foreignkey: not a foreign key");
    return -1;
  }
  bc20_index* key = bc20_catalog_index_by_name(cat, index->key_name);
  if (key == nullptr) return -1;
  return bc20_catalog_table_nr_by_name(cat, key->table_name);
}

int64_t* bc20_catalog_foreignkey_ids(struct bc20_catalog* cat, int64_t table_id, MemContext* mem,
                                     int64_t* n_out) {
  *n_out = 0;
  bc20_table* t = bc20_catalog_table_by_id(cat, table_id);
  if (t == nullptr) return nullptr;
  auto* ids = static_cast<int64_t*>(mem_malloc(
      mem, sizeof(int64_t) * static_cast<uint64_t>(t->n_indexes > 0 ? t->n_indexes : 1)));
  for (int32_t k = 0; k < t->n_indexes; k++)
    if (t->indexes[k]->itype == bc20_idx_foreignkey) ids[(*n_out)++] = t->indexes[k]->id;
  return ids;
}

int32_t* bc20_catalog_sortkey_columns(struct bc20_catalog* cat, MemContext* mem, int64_t table_nr,
                                      int64_t* n_out) {
  *n_out = 0;
  if (cat == nullptr || table_nr < 0 || table_nr >= cat->n_tables ||
      cat->tables[table_nr] == nullptr)
    return nullptr;
  bc20_table* t = cat->tables[table_nr];
  bc20_index* key = bc20_table_index_by_type_name(t, "sortkey");
  if (key == nullptr) return nullptr;
  int32_t n = key->colgroup->n_columns;
  *n_out = n;
  auto* pos =
      static_cast<int32_t*>(mem_calloc(mem, sizeof(int32_t) * (static_cast<uint64_t>(n) + 1)));
  bc20_table* owner = bc20_catalog_table_by_name(cat, key->table_name);
  if (owner == nullptr) return pos;
  int32_t limit = t->colgroup->n_columns;
  for (int32_t k = 0; k < n; k++) {
    int32_t p = bc20_colgroup_column_position(owner->colgroup, key->colgroup->columns[k]);
    if (p >= 0 && p < limit) pos[k] = p;
  }
  return pos;
}

int bc20_catalog_del_incoming_joinindex(struct bc20_catalog* cat, int64_t table_nr,
                                        const char* name, int update_pdt) {
  if (cat == nullptr || table_nr < 0 || table_nr >= cat->n_tables ||
      cat->tables[table_nr] == nullptr)
    return -1;
  int rc = bc20_table_del_incoming_joinindex(cat->tables[table_nr], name);
  pdt* wpdt = cat->write_pdts[table_nr];
  if (update_pdt && wpdt != nullptr) {
    bc20_index* i = bc20_catalog_index_by_name(cat, name);
    J480_ASSERT(kModule, i);
    pdt_drop_increment_column(wpdt, i->id);
    if (wpdt->n_updates == 0) {
      // The dropped column held the table's last update: the tree goes.
      J480_ASSERT(kModule, wpdt->n_updates == 0 && wpdt->n_modifies == 0 &&
                               wpdt->n_inserts == 0 && wpdt->n_deletes == 0);
      pdt_unref(wpdt);
      cat->write_pdts[table_nr] = nullptr;
    }
  }
  return rc;
}

// ---- locations ----

int64_t bc20_catalog_add_location(struct bc20_catalog* cat, const char* name, const char* path,
                                  int32_t usage, int64_t location_id) {
  if (cat == nullptr) return -1;
  location* loc = location_create(name, path, usage, nullptr);
  if (loc == nullptr) return -1;
  if (location_id == 0) {
    {
      int64_t location_id = loc->id;
      J480_ASSERT(kModule, location_id <= 0);
    }
    location_id = ++g_location_counter;
  }
  loc->id = location_id;
  int64_t existing = bc20_catalog_location_nr_by_id(cat, location_id);
  J480_ASSERT(kModule, cat);
  if (name == nullptr || name[0] == '\0') {
    location_unref(loc);
    return -1;
  }
  if (existing >= 0) {
    CV_ERROR(kModule, "location already exists: %s", name);
    location_unref(loc);
    return -1;
  }
  if (cat->n_locations == cat->locations_size) {
    uint64_t n = static_cast<uint64_t>(cat->locations_size) * 2;
    cat->locations = static_cast<location**>(grow(
        cat->mem, cat->locations, static_cast<uint64_t>(cat->n_locations), n, sizeof(location*)));
    cat->locations_size = static_cast<int64_t>(n);
  }
  int64_t k = cat->n_locations++;
  cat->locations[k] = loc;
  cat->lookup->location_by_id[location_id] = k;
  cat->lookup->location_by_name[name].push_back(k);
  CV_DEBUG(kModule, "added location %s id=%lld refcnt=%lld", name,
           static_cast<long long>(location_id), static_cast<long long>(loc->refcnt));
  return location_id;
}

int64_t bc20_catalog_del_location(struct bc20_catalog* cat, int64_t location_id) {
  int64_t nr = bc20_catalog_location_nr_by_id(cat, location_id);
  if (nr < 0) return -1;  // an unknown id is refused rather than used as a slot
  location* loc = cat->locations[nr];
  CV_DEBUG(kModule, "deleted location %s id=%lld refcnt=%lld", loc->name,
           static_cast<long long>(loc->id), static_cast<long long>(loc->refcnt));
  cat->lookup->location_by_id.erase(location_id);
  unlist(cat->lookup->location_by_name, std::string(loc->name), nr);
  location_unref(loc);
  cat->locations[nr] = nullptr;
  return nr;
}

int64_t bc20_catalog_location_nr_by_id(struct bc20_catalog* cat, int64_t location_id) {
  if (cat == nullptr || location_id < 0 || cat->n_locations == 0) return -1;
  auto it = cat->lookup->location_by_id.find(location_id);
  return it == cat->lookup->location_by_id.end() ? -1 : it->second;
}

int64_t bc20_catalog_location_nr_by_name(struct bc20_catalog* cat, const char* name) {
  if (cat == nullptr || name == nullptr) return -1;
  auto it = cat->lookup->location_by_name.find(name);
  return it == cat->lookup->location_by_name.end() ? -1 : static_cast<int64_t>(it->second.front());
}

int64_t bc20_catalog_location_id_by_name(struct bc20_catalog* cat, const char* name) {
  int64_t nr = bc20_catalog_location_nr_by_name(cat, name);
  return nr < 0 ? -1 : cat->locations[nr]->id;
}

const char* bc20_catalog_location_name(struct bc20_catalog* cat, int64_t location_id) {
  location* loc = location_at(cat, location_id);
  return loc == nullptr ? nullptr : loc->name;
}

const char* bc20_catalog_location_path(struct bc20_catalog* cat, int64_t location_id) {
  location* loc = location_at(cat, location_id);
  return loc == nullptr ? nullptr : loc->path;
}

int64_t bc20_catalog_location_usage(struct bc20_catalog* cat, int64_t location_id) {
  location* loc = location_at(cat, location_id);
  return loc == nullptr ? -1 : loc->usage;
}

void bc20_catalog_set_location_usage(struct bc20_catalog* cat, int64_t location_id, int32_t usage) {
  struct location* location = location_at(cat, location_id);
  J480_ASSERT(kModule, location);
  location->usage = usage;
}

bool bc20_catalog_set_location_path(struct bc20_catalog* cat, int64_t location_id,
                                    const char* path) {
  struct location* location = location_at(cat, location_id);
  J480_ASSERT(kModule, location);
  struct location* loc = location;
  char* copy = path != nullptr ? strdup(path) : nullptr;
  if (path != nullptr && copy == nullptr) return false;
  free(loc->path);
  loc->path = copy;
  return true;
}

int64_t* bc20_catalog_location_ids(struct bc20_catalog* cat, MemContext* mem, int64_t* n_out) {
  *n_out = 0;
  if (cat == nullptr || cat->n_locations == 0) return nullptr;
  auto* ids = static_cast<int64_t*>(
      mem_malloc(mem, sizeof(int64_t) * static_cast<uint64_t>(cat->n_locations)));
  for (int64_t k = 0; k < cat->n_locations; k++)
    if (cat->locations[k] != nullptr) ids[(*n_out)++] = cat->locations[k]->id;
  return ids;
}
