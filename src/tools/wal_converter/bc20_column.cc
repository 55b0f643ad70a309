#include "tools/wal_converter/bc20_column.h"

#include <cstdlib>
#include <cstring>
#include <unordered_map>
#include <vector>

#include "kernel/ptype.h"
#include "tools/wal_converter/bc20_colgroup.h"
#include "utils/cvlog.h"

int32_t bc20_column_fcolumn = -1;
int32_t bc20_column_vcolumn_8 = -1;
int32_t bc20_column_vcolumn_16 = -1;
int32_t bc20_column_ccolumn = -1;

// The groups holding a column with their counts: a few inline, a map once there are many.
struct bc20_column_holders {
  static constexpr int kInline = 4;
  bc20_colgroup* group[kInline] = {};
  int32_t count[kInline] = {};
  int32_t n = 0;
  std::unordered_map<bc20_colgroup*, int32_t>* more = nullptr;
  ~bc20_column_holders() { delete more; }
};

namespace {

constexpr const char* kModule = "CATALOG";

bc20_column_impl g_impls[BC20_MAX_COLUMN_TYPES];
int32_t nr_of_columns = 0;

// The live columns by catalog id; a vector per id, as ids may repeat in a damaged log.
std::unordered_map<int64_t, std::vector<bc20_column*>>& live_columns() {
  static auto* m = new std::unordered_map<int64_t, std::vector<bc20_column*>>();
  return *m;
}

void unlist(bc20_column* c) {
  if (c->listed_at < 0) return;
  auto it = live_columns().find(c->id);
  std::vector<bc20_column*>& v = it->second;
  // Order doesn't matter: the last one takes the place of the one that goes.
  bc20_column* last = v.back();
  v[static_cast<size_t>(c->listed_at)] = last;
  last->listed_at = c->listed_at;
  v.pop_back();
  if (v.empty()) live_columns().erase(it);
  c->listed_at = -1;
}

char* dup_or_null(const char* s) {
  if (s == nullptr) return nullptr;
  char* d = strdup(s);
  J480_ASSERT(kModule, d);
  return d;
}

void* fixed_create(bc20_column* c, const ptype* type) {
  J480_ASSERT(kModule, c && bc20_column_type(c)->name[0] != '\0');
  auto* s = static_cast<bc20_fcolumn_state*>(calloc(1, sizeof(bc20_fcolumn_state)));
  if (s == nullptr) {
    CV_ERROR(kModule, "out of memory");
    return nullptr;
  }
  s->column = c;
  s->type = type;
  s->width = ptype_width(type);
  return s;
}

void* var_create(bc20_column* c, const ptype* type) {
  J480_ASSERT(kModule, c && bc20_column_type(c)->name[0] != '\0');
  auto* s = static_cast<bc20_vcolumn_state*>(calloc(1, sizeof(bc20_vcolumn_state)));
  if (s == nullptr) {
    CV_ERROR(kModule, "out of memory");
    return nullptr;
  }
  s->column = c;
  s->type = type;
  return s;
}

void state_free(void* state) {
  free(state);
}

}  // namespace

int32_t bc20_column_register(const bc20_column_impl* entry) {
  J480_ASSERT(kModule, nr_of_columns < BC20_MAX_COLUMN_TYPES);
  int32_t nr = nr_of_columns++;
  g_impls[nr] = *entry;
  g_impls[nr].type_id = nr;
  return nr;
}

void bc20_column_register_types() {
  if (nr_of_columns > 0) return;
  bc20_column_impl fcol = {"fcolumn", 0, fixed_create, state_free};
  bc20_column_impl vcol = {"vcolumn_8", 0, var_create, state_free};
  bc20_column_impl ccol = {"ccolumn", 0, fixed_create, state_free};
  bc20_column_fcolumn = bc20_column_register(&fcol);
  bc20_column_vcolumn_8 = bc20_column_register(&vcol);
  bc20_column_impl vcol16 = vcol;
  snprintf(vcol16.name, sizeof vcol16.name, "%s", "vcolumn_16");
  bc20_column_vcolumn_16 = bc20_column_register(&vcol16);
  bc20_column_ccolumn = bc20_column_register(&ccol);
}

int32_t bc20_column_type_count() {
  return nr_of_columns;
}

const bc20_column_impl* bc20_column_impl_by_id(int32_t column_type) {
  J480_ASSERT(kModule, column_type >= 0 && column_type < nr_of_columns);
  return &g_impls[column_type];
}

const bc20_column_impl* bc20_column_type(const bc20_column* c) {
  return bc20_column_impl_by_id(c->ctype);
}

bc20_column* bc20_column_create(int32_t ctype, int32_t adt_id) {
  // Both types are resolved (and asserted) before anything is allocated.
  bc20_column probe{};
  probe.type = ptype_by_id(adt_id);
  {
    bc20_column* c = &probe;
    J480_ASSERT(kModule, c->type);
  }
  if (ctype == 0) ctype = probe.type->default_column_type;
  probe.ctype = ctype;
  const bc20_column_impl* impl = bc20_column_type(&probe);
  auto* c = static_cast<bc20_column*>(calloc(1, sizeof(bc20_column)));
  J480_ASSERT(kModule, c);
  c->type = probe.type;
  c->ctype = ctype;
  memcpy(c->name, impl->name, sizeof c->name);
  c->type_id = impl->type_id;
  c->create = impl->create;
  c->free = impl->free;
  c->impl = c->create(c, c->type);
  c->holders = new bc20_column_holders();
  c->listed_at = -1;
  return c;
}

bc20_column* bc20_column_ref(bc20_column* c) {
  J480_ASSERT(kModule, c);
  c->refcnt++;
  return c;
}

void bc20_column_unref(bc20_column* c) {
  J480_ASSERT(kModule, c);
  c->refcnt--;
  J480_ASSERT(kModule, c->refcnt >= 0);
  if (c->refcnt > 0) return;
  if (c->free != nullptr) c->free(c->impl);
  free(c->sqltype);
  free(c->compression);
  unlist(c);
  delete c->holders;
  free(c);
}

void bc20_column_set_flag(bc20_column* c, int on) {
  if (on)
    c->flags |= 1u;
  else
    c->flags &= ~1u;
}

void bc20_column_set_sqltype(bc20_column* c, const char* sqltype, int32_t digits, int32_t scale) {
  J480_ASSERT(kModule, c->sqltype == NULL);
  c->sqltype = dup_or_null(sqltype);
  c->digits = digits;
  c->scale = scale;
}

void bc20_column_set_compression(bc20_column* c, const char* name) {
  free(c->compression);
  c->compression = dup_or_null(name);
}

void bc20_column_set_id(bc20_column* c, int64_t id) {
  unlist(c);
  bc20_column_holders* h = c->holders;
  if (h->more != nullptr) {
    for (auto& e : *h->more) bc20_colgroup_invalidate_positions(e.first);
  } else {
    for (int32_t k = 0; k < h->n; k++) bc20_colgroup_invalidate_positions(h->group[k]);
  }
  c->id = id;
  std::vector<bc20_column*>& v = live_columns()[id];
  c->listed_at = static_cast<int64_t>(v.size());
  v.push_back(c);
}

bool bc20_column_is_live(int64_t id, const bc20_column* c) {
  auto it = live_columns().find(id);
  if (it == live_columns().end()) return false;
  for (const bc20_column* x : it->second)
    if (x == c) return true;
  return false;
}

void bc20_column_hold(bc20_column* c, bc20_colgroup* g) {
  bc20_column_holders* h = c->holders;
  if (h->more != nullptr) {
    (*h->more)[g]++;
    return;
  }
  for (int32_t k = 0; k < h->n; k++) {
    if (h->group[k] == g) {
      h->count[k]++;
      return;
    }
  }
  if (h->n < bc20_column_holders::kInline) {
    h->group[h->n] = g;
    h->count[h->n++] = 1;
    return;
  }
  h->more = new std::unordered_map<bc20_colgroup*, int32_t>();
  for (int32_t k = 0; k < h->n; k++) (*h->more)[h->group[k]] = h->count[k];
  h->n = 0;
  (*h->more)[g] = 1;
}

void bc20_column_release_hold(bc20_column* c, bc20_colgroup* g) {
  bc20_column_holders* h = c->holders;
  if (h->more != nullptr) {
    auto it = h->more->find(g);
    if (it != h->more->end() && --it->second == 0) h->more->erase(it);
    return;
  }
  for (int32_t k = 0; k < h->n; k++) {
    if (h->group[k] != g) continue;
    if (--h->count[k] == 0) {
      h->n--;
      h->group[k] = h->group[h->n];
      h->count[k] = h->count[h->n];
    }
    return;
  }
}

void bc20_column_for_each_holder(int64_t id,
                                 void (*fn)(void* arg, bc20_column* c, bc20_colgroup* g),
                                 void* arg) {
  auto it = live_columns().find(id);
  if (it == live_columns().end()) return;
  for (bc20_column* c : it->second) {
    bc20_column_holders* h = c->holders;
    if (h->more != nullptr) {
      for (auto& e : *h->more) fn(arg, c, e.first);
    } else {
      for (int32_t k = 0; k < h->n; k++) fn(arg, c, h->group[k]);
    }
  }
}
