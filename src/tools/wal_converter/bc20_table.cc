#include "tools/wal_converter/bc20_table.h"

#include <cstdlib>
#include <cstring>
#include <string>
#include <unordered_map>
#include <vector>

#include "tools/wal_converter/bc20_colgroup.h"
#include "tools/wal_converter/bc20_column.h"
#include "tools/wal_converter/bc20_index.h"
#include "utils/cvlog.h"

namespace {

constexpr const char* kModule = "CATALOG";

// The indexes held by tables, by id and by the name their table gives them.
struct index_lists {
  std::unordered_map<int64_t, std::vector<bc20_index*>> by_id;
  std::unordered_map<std::string, std::vector<bc20_index*>> by_name;
};

index_lists& lists() {
  static auto* l = new index_lists();
  return *l;
}

// Lists keep no order: the last entry takes the place of one that goes.
template <typename Map, typename Key>
void list(Map& m, const Key& key, bc20_index* i, int64_t bc20_index::*at) {
  std::vector<bc20_index*>& v = m[key];
  i->*at = static_cast<int64_t>(v.size());
  v.push_back(i);
}

template <typename Map, typename Key>
void unlist(Map& m, const Key& key, bc20_index* i, int64_t bc20_index::*at) {
  auto it = m.find(key);
  if (it == m.end() || i->*at < 0) return;
  std::vector<bc20_index*>& v = it->second;
  bc20_index* last = v.back();
  v[static_cast<size_t>(i->*at)] = last;
  last->*at = i->*at;
  v.pop_back();
  if (v.empty()) m.erase(it);
  i->*at = -1;
}

void* xrealloc(void* p, size_t size) {
  void* q = realloc(p, size == 0 ? 1 : size);
  J480_ASSERT(kModule, q);
  return q;
}

char* dup_or_null(const char* s) {
  if (s == nullptr) return nullptr;
  char* d = strdup(s);
  J480_ASSERT(kModule, d);
  return d;
}

void release_index(bc20_index* i, char* name) {
  unlist(lists().by_id, i->id, i, &bc20_index::listed_by_id);
  if (name != nullptr) unlist(lists().by_name, std::string(name), i, &bc20_index::listed_by_name);
  i->table = nullptr;
}

}  // namespace

bc20_table* bc20_table_create(bc20_colgroup* cg) {
  J480_ASSERT(kModule, cg);
  J480_ASSERT(kModule, cg->owner_kind == BC20_CG_FREE && cg->parent == NULL);
  auto* t = static_cast<bc20_table*>(calloc(1, sizeof(bc20_table)));
  J480_ASSERT(kModule, t);
  t->colgroup = cg;
  cg->owner_kind = BC20_CG_TABLE_ROOT;
  cg->owner = t;
  return t;
}

void bc20_table_destroy(bc20_table* table) {
  if (table == nullptr) return;
  bc20_colgroup_free(table->colgroup);
  for (int32_t k = 0; k < table->n_indexes; k++) {
    if (table->indexes[k] == nullptr) continue;
    release_index(table->indexes[k], table->index_names[k]);
    free(table->index_names[k]);
    bc20_index_free(table->indexes[k]);
  }
  for (int32_t k = 0; k < table->n_incoming_slots; k++) free(table->incoming_joinindexes[k]);
  free(table->indexes);
  free(table->index_names);
  free(table->incoming_joinindexes);
  free(table);
}

void bc20_table_add_index(bc20_table* table, const char* table_name, bc20_index* index,
                          const char* index_name) {
  J480_ASSERT(kModule, table && index);
  J480_ASSERT(kModule, index->table == NULL);  // an index belongs to one table, once
  if (table->n_indexes == table->indexes_size) {
    table->indexes_size = table->indexes_size == 0 ? 4 : table->indexes_size * 2;
    size_t n = static_cast<size_t>(table->indexes_size);
    table->indexes = static_cast<bc20_index**>(xrealloc(table->indexes, n * sizeof(bc20_index*)));
    table->index_names = static_cast<char**>(xrealloc(table->index_names, n * sizeof(char*)));
  }
  int32_t k = table->n_indexes++;
  table->indexes[k] = index;
  table->index_names[k] = dup_or_null(index_name);
  free(index->table_name);
  index->table_name = dup_or_null(table_name);
  index->table = table;
  list(lists().by_id, index->id, index, &bc20_index::listed_by_id);
  if (index_name != nullptr)
    list(lists().by_name, std::string(index_name), index, &bc20_index::listed_by_name);
}

void bc20_table_del_index(bc20_table* table, bc20_index* index) {
  for (int32_t k = 0; k < table->n_indexes; k++) {
    if (table->indexes[k] != index) continue;
    char* name = table->index_names[k];
    int32_t rest = table->n_indexes - k - 1;
    memmove(&table->indexes[k], &table->indexes[k + 1],
            sizeof(bc20_index*) * static_cast<size_t>(rest));
    memmove(&table->index_names[k], &table->index_names[k + 1],
            sizeof(char*) * static_cast<size_t>(rest));
    table->n_indexes--;
    table->indexes[table->n_indexes] = nullptr;
    table->index_names[table->n_indexes] = nullptr;
    release_index(index, name);
    bc20_index_free(index);
    free(name);
    return;
  }
}

bc20_index* bc20_table_index_by_name(bc20_table* table, const char* name) {
  if (name == nullptr) return nullptr;
  for (int32_t k = 0; k < table->n_indexes; k++)
    if (table->index_names[k] != nullptr && strcmp(table->index_names[k], name) == 0)
      return table->indexes[k];
  return nullptr;
}

bc20_index* bc20_table_index_by_id(bc20_table* table, int64_t index_id) {
  for (int32_t k = 0; k < table->n_indexes; k++)
    if (table->indexes[k]->id == index_id) return table->indexes[k];
  return nullptr;
}

const char* bc20_table_index_name_by_id(bc20_table* table, int64_t index_id) {
  for (int32_t k = 0; k < table->n_indexes; k++)
    if (table->indexes[k]->id == index_id) return table->index_names[k];
  return nullptr;
}

bc20_index* bc20_table_index_by_type_name(bc20_table* table, const char* type_name) {
  for (int32_t k = 0; k < table->n_indexes; k++)
    if (strcmp(table->indexes[k]->name, type_name) == 0) return table->indexes[k];
  return nullptr;
}

const char* bc20_table_joinindex_name(bc20_table* table) {
  if (table == nullptr) return nullptr;
  for (int32_t k = 0; k < table->n_indexes; k++)
    if (strcmp(table->indexes[k]->name, "join") == 0) return table->index_names[k];
  return nullptr;
}

bc20_column* bc20_table_column_by_id(bc20_table* table, int64_t column_id, const char** name_out) {
  bc20_column* c = bc20_colgroup_column_by_id(table->colgroup, column_id, name_out);
  for (int32_t k = 0; c == nullptr && k < table->n_indexes; k++) {
    // An index's storage group is not searched: only its own group.
    if (table->indexes[k]->colgroup != nullptr)
      c = bc20_colgroup_column_by_id(table->indexes[k]->colgroup, column_id, name_out);
  }
  return c;
}

bc20_colgroup* bc20_table_colgroup_by_id(bc20_table* table, int64_t id) {
  bc20_table* t = table;
  J480_ASSERT(kModule, t);
  bc20_colgroup* root = t->colgroup;
  if (root->id == id) return root;
  for (int32_t k = 0; k < root->n_children; k++) {
    bc20_colgroup* child = root->children[k];
    if (child->id == id) return child;
    for (int32_t g = 0; g < child->n_children; g++)
      if (child->children[g]->id == id) return child->children[g];
  }
  return nullptr;
}

int bc20_table_add_incoming_joinindex(bc20_table* table, const char* name) {
  if (table->n_incoming_slots == table->incoming_size) {
    int32_t old = table->incoming_size;
    table->incoming_size = old == 0 ? 4 : old * 2;
    table->incoming_joinindexes = static_cast<char**>(xrealloc(
        table->incoming_joinindexes, sizeof(char*) * static_cast<size_t>(table->incoming_size)));
    memset(table->incoming_joinindexes + old, 0,
           sizeof(char*) * static_cast<size_t>(table->incoming_size - old));
  }
  table->incoming_joinindexes[table->n_incoming_slots++] = dup_or_null(name);
  table->n_incoming++;
  CV_DEBUG(kModule, "registered incoming joinindex %s with table %u", name,
           static_cast<unsigned>(table->table_id));
  return 0;
}

int bc20_table_del_incoming_joinindex(bc20_table* table, const char* name) {
  for (int32_t k = 0; name != nullptr && k < table->n_incoming_slots; k++) {
    char* slot = table->incoming_joinindexes[k];
    if (slot == nullptr || strcmp(slot, name) != 0) continue;
    CV_DEBUG(kModule, "deleting incoming joinindex %s from table %u", name,
             static_cast<unsigned>(table->table_id));
    free(slot);
    table->incoming_joinindexes[k] = nullptr;
    table->n_incoming--;
    return 0;
  }
  CV_WARN(kModule, "trying to delete non-existing incoming joinindex: %s", name);
  return -1;
}

int32_t bc20_table_column_types(bc20_table* table, const ptype** out, const int32_t* positions,
                                int32_t n) {
  if (n < 1) return 0;
  bc20_colgroup* root = table->colgroup;
  if (positions == nullptr) {
    int32_t m = n < root->n_columns ? n : root->n_columns;
    for (int32_t k = 0; k < m; k++) out[k] = root->columns[k]->type;
    return m;
  }
  for (int32_t k = 0; k < n; k++) {
    // A position at or past the column count names no column.
    if (positions[k] < 0 || positions[k] >= root->n_columns) return -1;
    out[k] = root->columns[positions[k]]->type;
  }
  return n;
}

void bc20_table_for_each_index_with_id(int64_t id, void (*fn)(void* arg, bc20_index* i),
                                       void* arg) {
  auto it = lists().by_id.find(id);
  if (it == lists().by_id.end()) return;
  for (bc20_index* i : it->second) fn(arg, i);
}

void bc20_table_for_each_index_with_name(const char* name, void (*fn)(void* arg, bc20_index* i),
                                         void* arg) {
  if (name == nullptr) return;
  auto it = lists().by_name.find(std::string(name));
  if (it == lists().by_name.end()) return;
  for (bc20_index* i : it->second) fn(arg, i);
}
