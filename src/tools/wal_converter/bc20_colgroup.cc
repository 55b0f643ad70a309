#include "tools/wal_converter/bc20_colgroup.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "bm/columnspace.h"
#include "bm/iobm.h"
#include "bm/scolumn.h"
#include "tools/wal_converter/bc20_column.h"
#include "tools/wal_converter/bc20_iobm.h"
#include "utils/cvlog.h"
#include "utils/mem.h"

int32_t bc20_colgroup_logical = -1;
int32_t bc20_colgroup_storage = -1;
int32_t bc20_colgroup_null = -1;

// Lookup of a group's columns, built when first asked and kept up to date by adds; dropped
// whenever columns leave the group. Small groups are scanned instead.
struct bc20_colgroup_positions {
  std::unordered_map<const bc20_column*, int32_t> by_ptr;  // first position
  std::unordered_map<int64_t, int32_t> by_id;              // first position
};

namespace {

constexpr const char* kNoModule = nullptr;
constexpr int32_t kScanLimit = 8;

bc20_colgroup_impl g_types[BC20_MAX_COLGROUP_TYPES];
int32_t nr_of_colgroups = 0;

std::unordered_map<int64_t, std::vector<bc20_colgroup*>>& live_groups() {
  static auto* m = new std::unordered_map<int64_t, std::vector<bc20_colgroup*>>();
  return *m;
}

// Storage columns bound to a storage group: one group per storage column.
std::unordered_set<scolumn*>& bound_scols() {
  static auto* s = new std::unordered_set<scolumn*>();
  return *s;
}

void unlist(bc20_colgroup* cg) {
  if (cg->listed_at < 0) return;
  auto it = live_groups().find(cg->id);
  std::vector<bc20_colgroup*>& v = it->second;
  bc20_colgroup* last = v.back();
  v[static_cast<size_t>(cg->listed_at)] = last;
  last->listed_at = cg->listed_at;
  v.pop_back();
  if (v.empty()) live_groups().erase(it);
  cg->listed_at = -1;
}

void* xrealloc(void* p, size_t size) {
  void* q = realloc(p, size == 0 ? 1 : size);
  J480_ASSERT(kNoModule, q);
  return q;
}

char* dup_or_null(const char* s) {
  if (s == nullptr) return nullptr;
  char* d = strdup(s);
  J480_ASSERT(kNoModule, d);
  return d;
}

void drop_positions(bc20_colgroup* cg) {
  delete cg->positions;
  cg->positions = nullptr;
}

bc20_colgroup_positions* positions_of(bc20_colgroup* cg) {
  if (cg->positions == nullptr) {
    auto* p = new bc20_colgroup_positions();
    p->by_ptr.reserve(static_cast<size_t>(cg->n_columns));
    p->by_id.reserve(static_cast<size_t>(cg->n_columns));
    for (int32_t i = 0; i < cg->n_columns; i++) {
      p->by_ptr.emplace(cg->columns[i], i);
      p->by_id.emplace(cg->columns[i]->id, i);
    }
    cg->positions = p;
  }
  return cg->positions;
}

// The plain states: a record that points back at its group.
struct plain_state {
  bc20_colgroup* cg;
};

void* plain_create(bc20_colgroup* cg) {
  auto* s = static_cast<plain_state*>(calloc(1, sizeof(plain_state)));
  if (s == nullptr) {
    CV_ERROR(kNoModule, "out of memory");
    return nullptr;
  }
  s->cg = cg;
  return s;
}

void* logical_create(bc20_colgroup* cg) {
  return plain_create(cg);
}

void* null_create(bc20_colgroup* cg) {
  cg->logical = 0;
  return plain_create(cg);
}

void plain_free(void* state) {
  free(state);
}

void logical_add_column(void* state, bc20_column* c) {
  if (state != nullptr) c->lcolgroup = static_cast<plain_state*>(state)->cg;
}

void null_add_column(void* state, bc20_column* c) {
  if (state != nullptr) c->nullcolgroup = static_cast<plain_state*>(state)->cg;
}

void* storage_create(bc20_colgroup* cg) {
  cg->logical = 0;
  auto* scg = static_cast<bc20_scg*>(calloc(1, sizeof(bc20_scg)));
  if (scg == nullptr) {
    CV_ERROR(kNoModule, "out of memory");
    return nullptr;
  }
  scg->cg = cg;
  scg->file_nr = -1;
  return scg;
}

void storage_free(void* state) {
  auto* scg = static_cast<bc20_scg*>(state);
  if (scg == nullptr) return;
  if (scg->scol != nullptr) {
    bound_scols().erase(scg->scol);
    scolumn_destroy(scg->scol);
  }
  if (scg->file_nr >= 0 && scg->file != nullptr) columnspace_file_unref(scg->file);
  free(scg);
}

int64_t storage_set_store(void* state, int64_t store_id) {
  auto* scg = static_cast<bc20_scg*>(state);
  J480_ASSERT(kNoModule, scg);
  J480_ASSERT(kNoModule, scg->scol == NULL);
  scolumn* scol = nullptr;
  if (bc20_iobm != nullptr && store_id >= INT32_MIN && store_id <= INT32_MAX)
    scol = iobm_get_scolumn(bc20_iobm, static_cast<int32_t>(store_id));
  J480_ASSERT(kNoModule, scol);
  bool scol_unbound = bound_scols().insert(scol).second;
  J480_ASSERT(kNoModule, scol_unbound);
  scg->scol = scol;
  return scol->id;
}

void storage_add_column(void* state, bc20_column* c) {
  if (state != nullptr) c->scolgroup = static_cast<bc20_scg*>(state)->cg;
}

void* storage_add_file(void* state, int64_t file_nr) {
  auto* scg = static_cast<bc20_scg*>(state);
  J480_ASSERT(kNoModule, scg);
  columnspace* cs = iobm_get_columnspace(bc20_iobm);
  struct cs_file* cs_file = cs != nullptr ? columnspace_get_file(cs, file_nr) : nullptr;
  J480_ASSERT(kNoModule, cs_file && scg->file_nr < 0);
  columnspace_file_ref(cs_file);
  scg->file_nr = file_nr;
  scg->file = cs_file;
  return cs_file;
}

// Removes `cg` from its parent's children, keeping their order.
void detach(bc20_colgroup* cg) {
  bc20_colgroup* p = cg->parent;
  for (int32_t i = 0; i < p->n_children; i++) {
    if (p->children[i] != cg) continue;
    memmove(&p->children[i], &p->children[i + 1],
            sizeof(bc20_colgroup*) * static_cast<size_t>(p->n_children - i - 1));
    p->n_children--;
    p->children[p->n_children] = nullptr;
    break;
  }
  cg->parent = nullptr;
}

void clear_back_pointers(bc20_column* c, const bc20_colgroup* g) {
  if (c->lcolgroup == g) c->lcolgroup = nullptr;
  if (c->scolgroup == g) c->scolgroup = nullptr;
  if (c->nullcolgroup == g) c->nullcolgroup = nullptr;
}

}  // namespace

int32_t bc20_colgroup_register(const bc20_colgroup_impl* entry) {
  J480_ASSERT(kNoModule, nr_of_colgroups < BC20_MAX_COLGROUP_TYPES);
  int32_t nr = nr_of_colgroups++;
  g_types[nr] = *entry;
  g_types[nr].type_id = nr;
  return nr;
}

void bc20_colgroup_register_types() {
  if (nr_of_colgroups > 0) return;
  bc20_colgroup_impl l = {"lcolgroup",        0,      logical_create, plain_free, nullptr,
                          logical_add_column, nullptr};
  bc20_colgroup_impl s = {
      "scolgroup",     0, storage_create, storage_free, storage_set_store, storage_add_column,
      storage_add_file};
  bc20_colgroup_impl n = {"nullcolgroup",  0,      null_create, plain_free, nullptr,
                          null_add_column, nullptr};
  bc20_colgroup_logical = bc20_colgroup_register(&l);
  J480_ASSERT(kNoModule, bc20_colgroup_logical == 0);
  bc20_colgroup_storage = bc20_colgroup_register(&s);
  bc20_colgroup_null = bc20_colgroup_register(&n);
}

int32_t bc20_colgroup_type_count() {
  return nr_of_colgroups;
}

const bc20_colgroup_impl* bc20_colgroup_type(int32_t colgroup_type) {
  J480_ASSERT(kNoModule, colgroup_type >= 0 && colgroup_type < nr_of_colgroups);
  return &g_types[colgroup_type];
}

bc20_colgroup* bc20_colgroup_create(int32_t type, int32_t ncols, bc20_colgroup* parent) {
  const bc20_colgroup_impl* t = bc20_colgroup_type(type);
  J480_ASSERT(kNoModule, ncols >= 0);
  auto* cg = static_cast<bc20_colgroup*>(calloc(1, sizeof(bc20_colgroup)));
  J480_ASSERT(kNoModule, cg);
  cg->type = t->type_id;
  memcpy(cg->name, t->name, sizeof cg->name);
  cg->type_id = t->type_id;
  cg->create = t->create;
  cg->free = t->free;
  cg->set_store = t->set_store;
  cg->add_column = t->add_column;
  cg->add_file = t->add_file;
  cg->logical = 1;
  cg->listed_at = -1;
  cg->parent = parent;
  cg->columns_size = ncols;
  size_t n = static_cast<size_t>(ncols);
  cg->columns = static_cast<bc20_column**>(xrealloc(nullptr, n * sizeof(bc20_column*)));
  cg->column_names = static_cast<char**>(xrealloc(nullptr, n * sizeof(char*)));
  cg->parent_positions = static_cast<int32_t*>(xrealloc(nullptr, n * sizeof(int32_t)));
  memset(cg->parent_positions, 0, n * sizeof(int32_t));
  cg->impl = cg->create(cg);
  if (parent != nullptr) {
    if (parent->n_children == parent->children_size) {
      parent->children_size = parent->children_size == 0 ? 4 : parent->children_size * 2;
      parent->children = static_cast<bc20_colgroup**>(xrealloc(
          parent->children, sizeof(bc20_colgroup*) * static_cast<size_t>(parent->children_size)));
    }
    parent->children[parent->n_children++] = cg;
  }
  return cg;
}

void bc20_colgroup_free(bc20_colgroup* cg) {
  if (cg == nullptr) return;
  if (cg->parent != nullptr) detach(cg);
  std::vector<bc20_colgroup*> todo{cg};
  while (!todo.empty()) {
    bc20_colgroup* g = todo.back();
    todo.pop_back();
    if (g->free != nullptr) g->free(g->impl);
    for (int32_t i = 0; i < g->n_columns; i++) {
      free(g->column_names[i]);
      bc20_column* c = g->columns[i];
      clear_back_pointers(c, g);
      bc20_column_release_hold(c, g);
      bc20_column_unref(c);
    }
    for (int32_t i = g->n_children - 1; i >= 0; i--) {
      g->children[i]->parent = nullptr;
      todo.push_back(g->children[i]);
    }
    free(g->columns);
    free(g->column_names);
    free(g->parent_positions);
    free(g->children);
    drop_positions(g);
    unlist(g);
    free(g);
  }
}

void bc20_colgroup_set_id(bc20_colgroup* cg, int64_t id) {
  J480_ASSERT(kNoModule, cg);
  unlist(cg);
  cg->id = id;
  std::vector<bc20_colgroup*>& v = live_groups()[id];
  cg->listed_at = static_cast<int64_t>(v.size());
  v.push_back(cg);
}

int64_t bc20_colgroup_set_store(bc20_colgroup* cg, int64_t store_id) {
  J480_ASSERT(kNoModule, cg);
  if (cg->set_store == nullptr) return 0;
  cg->store_id = cg->set_store(cg->impl, store_id);
  return cg->store_id;
}

void bc20_colgroup_add_column(bc20_colgroup* cg, bc20_column* c, const char* name) {
  J480_ASSERT(kNoModule, cg && c);
  // Walks up the tree: each ancestor that lacks the column takes it under the same name.
  for (;;) {
    int32_t n = cg->n_columns;
    if (n == cg->columns_size) {
      J480_ASSERT(kNoModule, cg->columns_size > 0);
      cg->columns_size *= 2;
      size_t size = static_cast<size_t>(cg->columns_size);
      cg->columns = static_cast<bc20_column**>(xrealloc(cg->columns, size * sizeof(bc20_column*)));
      cg->column_names = static_cast<char**>(xrealloc(cg->column_names, size * sizeof(char*)));
      cg->parent_positions =
          static_cast<int32_t*>(xrealloc(cg->parent_positions, size * sizeof(int32_t)));
    }
    cg->n_columns = n + 1;
    cg->columns[n] = bc20_column_ref(c);
    cg->column_names[n] = dup_or_null(name);
    cg->parent_positions[n] = -1;
    bc20_column_hold(c, cg);
    if (cg->positions != nullptr) {
      cg->positions->by_ptr.emplace(c, n);
      cg->positions->by_id.emplace(c->id, n);
    }
    cg->add_column(cg->impl, c);
    bc20_colgroup* p = cg->parent;
    if (p == nullptr) return;
    int32_t pos = bc20_colgroup_column_position(p, c);
    if (pos >= 0) {
      cg->parent_positions[n] = pos;
      return;
    }
    cg->parent_positions[n] = p->n_columns;
    cg = p;
  }
}

void* bc20_colgroup_add_file(bc20_colgroup* cg, int64_t file_nr) {
  J480_ASSERT(kNoModule, cg);
  if (cg->add_file == nullptr) return nullptr;
  return cg->add_file(cg->impl, file_nr);
}

bc20_column* bc20_colgroup_column_by_id(bc20_colgroup* cg, int64_t column_id,
                                        const char** name_out) {
  int32_t pos = -1;
  if (cg->n_columns <= kScanLimit) {
    for (int32_t i = 0; i < cg->n_columns && pos < 0; i++)
      if (cg->columns[i]->id == column_id) pos = i;
  } else {
    bc20_colgroup_positions* p = positions_of(cg);
    auto it = p->by_id.find(column_id);
    if (it != p->by_id.end()) pos = it->second;
  }
  if (name_out != nullptr) *name_out = pos >= 0 ? cg->column_names[pos] : nullptr;
  return pos >= 0 ? cg->columns[pos] : nullptr;
}

int32_t bc20_colgroup_column_position(bc20_colgroup* cg, const bc20_column* c) {
  if (cg->n_columns <= kScanLimit) {
    for (int32_t i = 0; i < cg->n_columns; i++)
      if (cg->columns[i] == c) return i;
    return -1;
  }
  bc20_colgroup_positions* p = positions_of(cg);
  auto it = p->by_ptr.find(c);
  return it == p->by_ptr.end() ? -1 : it->second;
}

int bc20_colgroup_drop_child(MemContext* mem, bc20_colgroup* cg, int64_t child_id) {
  J480_ASSERT(kNoModule, cg && cg->logical);
  for (int32_t k = 0; k < cg->n_children; k++) {
    bc20_colgroup* child = cg->children[k];
    if (child->id != child_id) continue;
    int32_t n = child->n_columns;
    auto** names =
        static_cast<char**>(mem_malloc(mem, sizeof(char*) * static_cast<uint64_t>(n > 0 ? n : 1)));
    for (int32_t i = 0; i < n; i++)
      names[i] =
          child->column_names[i] != nullptr ? mem_strdup(mem, child->column_names[i]) : nullptr;
    bc20_colgroup_free(child);  // detaches it from cg first
    bc20_colgroup_del_columns(cg, names, n, 0);
    return 0;
  }
  bc20_colgroup_del_columns(cg, nullptr, 0, 0);
  return 1;
}

int bc20_colgroup_del_columns(bc20_colgroup* cg, char** colnames, int32_t n, int resolve_null) {
  J480_ASSERT(kNoModule, cg && cg->logical && colnames);
  std::unordered_set<std::string_view> names;
  for (int32_t i = 0; i < n; i++)
    if (colnames[i] != nullptr) names.insert(colnames[i]);
  // Phase one: remove the named columns, keeping the order of the others.
  int32_t out = 0;
  for (int32_t i = 0; i < cg->n_columns; i++) {
    bc20_column* c = cg->columns[i];
    const char* col = cg->column_names[i];
    bc20_colgroup* ng = c->nullcolgroup;
    if (resolve_null && ng != nullptr && ng->n_columns >= 2 && ng->columns[1] == c)
      col = ng->column_names[0];
    J480_ASSERT(kNoModule, col);
    if (names.count(col) != 0) {
      free(cg->column_names[i]);
      if (c->lcolgroup == cg) c->lcolgroup = nullptr;
      bc20_column_release_hold(c, cg);
      bc20_column_unref(c);
      continue;
    }
    cg->columns[out] = c;
    cg->column_names[out] = cg->column_names[i];
    out++;
  }
  cg->n_columns = out;
  drop_positions(cg);
  // Phase two: the positions of children and grandchildren against their shifted parents.
  for (int32_t k = 0; k < cg->n_children; k++) {
    bc20_colgroup* child = cg->children[k];
    for (int32_t i = 0; i < child->n_columns; i++)
      child->parent_positions[i] = bc20_colgroup_column_position(cg, child->columns[i]);
    for (int32_t g = 0; g < child->n_children; g++) {
      bc20_colgroup* grand = child->children[g];
      for (int32_t i = 0; i < grand->n_columns; i++)
        grand->parent_positions[i] = bc20_colgroup_column_position(child, grand->columns[i]);
    }
  }
  return 0;
}

bool bc20_colgroup_is_live(int64_t id, const bc20_colgroup* cg) {
  auto it = live_groups().find(id);
  if (it == live_groups().end()) return false;
  for (const bc20_colgroup* g : it->second)
    if (g == cg) return true;
  return false;
}

void bc20_colgroup_for_each_with_id(int64_t id, void (*fn)(void* arg, bc20_colgroup* cg),
                                    void* arg) {
  auto it = live_groups().find(id);
  if (it == live_groups().end()) return;
  for (bc20_colgroup* g : it->second) fn(arg, g);
}

bc20_colgroup* bc20_colgroup_root_within3(bc20_colgroup* cg) {
  for (int depth = 0; depth < 3 && cg != nullptr; depth++) {
    if (cg->parent == nullptr) return cg;
    cg = cg->parent;
  }
  return nullptr;
}

void bc20_colgroup_invalidate_positions(bc20_colgroup* cg) {
  drop_positions(cg);
}
