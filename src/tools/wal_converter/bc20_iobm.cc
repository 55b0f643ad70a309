#include "tools/wal_converter/bc20_iobm.h"

#include <cstring>
#include <string>
#include <vector>

#include "bm/columnspace.h"
#include "bm/dataset.h"
#include "bm/iob.h"
#include "bm/iobm.h"
#include "bm/scolumn.h"
#include "kernel/ptype.h"
#include "tools/wal_converter/bc20_catalog.h"
#include "tools/wal_converter/bc20_colgroup.h"
#include "tools/wal_converter/bc20_column.h"
#include "tools/wal_converter/bc20_index.h"
#include "tools/wal_converter/bc20_logger.h"
#include "tools/wal_converter/bc20_table.h"
#include "tools/wal_converter/bc20_value_space.h"
#include "utils/cvconfig.h"
#include "utils/cvlog.h"
#include "utils/mem.h"
#include "utils/posix.h"
#include "utils/str_funcs.h"

iobm* bc20_iobm = nullptr;

namespace {
cvconfig_layer* g_config = nullptr;
char g_cbm_path[4096];
}  // namespace

void bc20_set_config(cvconfig_layer* config) { g_config = config; }

cvconfig_layer* bc20_get_config() { return g_config; }

int64_t bc20_iobm_default_file_nr() {
  return columnspace_get_default_file(iobm_get_columnspace(bc20_iobm));
}

const char* bc20_iobm_cbm_path() {
  if (bc20_iobm != nullptr) return iobm_get_path(bc20_iobm);
  if (g_config == nullptr) return nullptr;
  const char* farm = cvconfig_get_str(g_config, CVGROUP_SERVER, CVPROP_DBFARM_PATH);
  const char* name = cvconfig_get_str(g_config, CVGROUP_SERVER, CVPROP_DBNAME);
  if (str_empty(farm) || str_empty(name)) return nullptr;
  // Before the block manager exists (the reader's tests): its own rule for its dbpath.
  if (str_printf(g_cbm_path, sizeof g_cbm_path, "%s%c%s%cCBM", farm, J480_PATH_SEP, name,
                 J480_PATH_SEP) < 0)
    return nullptr;
  return g_cbm_path;
}

// ---- the storage replay ----

bc20_tempcat* tempcat = nullptr;

namespace {

constexpr char CBM[] = "CBM";

// The reference on the default file taken at its creation, until iobm_init gives it up.
cs_file* g_default_file_ref = nullptr;
// Tables whose add to the catalog was refused: they own groups, storage columns and files.
std::vector<bc20_table*>& orphan_tables() {
  static auto* v = new std::vector<bc20_table*>();
  return *v;
}

// The pending entries of the open transaction by kind and id, newest first: an open-addressing
// table in the tempcat context, doubled when half full, so a large transaction finds its objects
// in constant time and allocates only when the table grows.
struct pending_index {
  bc20_pending_entry** slots;
  uint64_t size;  // a power of two
  uint64_t used;
};
pending_index g_index;

uint64_t pending_hash(int32_t kind, int64_t id, uint64_t mask) {
  uint64_t h = static_cast<uint64_t>(id) * 0x9E3779B97F4A7C15ULL ^ static_cast<uint64_t>(kind);
  return (h ^ (h >> 29)) & mask;
}

void pending_index_put(bc20_pending_entry* e) {
  uint64_t mask = g_index.size - 1;
  for (uint64_t i = pending_hash(e->kind, e->id, mask);; i = (i + 1) & mask) {
    bc20_pending_entry*& s = g_index.slots[i];
    if (s == nullptr) {
      s = e;
      g_index.used++;
      return;
    }
    if (s->kind == e->kind && s->id == e->id) {
      s = e;  // the newest wins
      return;
    }
  }
}

void pending_index_grow() {
  pending_index old = g_index;
  g_index.size = old.size == 0 ? 64 : old.size * 2;
  g_index.used = 0;
  g_index.slots = static_cast<bc20_pending_entry**>(
      mem_calloc(tempcat->mem, sizeof(bc20_pending_entry*) * g_index.size));
  for (uint64_t i = 0; i < old.size; i++)
    if (old.slots[i] != nullptr) pending_index_put(old.slots[i]);
  if (old.slots != nullptr) mem_free(tempcat->mem, old.slots);
}

void tempcat_open() {
  if (tempcat != nullptr) return;  // records ahead of tr_new belong to its transaction
  MemContext* mem = mem_context_create(nullptr, "tempcat");
  tempcat = static_cast<bc20_tempcat*>(mem_calloc(mem, sizeof(bc20_tempcat)));
  tempcat->mem = mem;
  tempcat->cat = bc20_catalog;
  g_index = pending_index{};
}

// Groups of the transaction that no table, index or parent took, and columns that no group
// took, can't be found again: they go.
void release_unattached() {
  for (bc20_pending_entry* e = tempcat->pending; e != nullptr; e = e->next) {
    if (e->kind != BC20_PENDING_COLGROUP) continue;
    auto* cg = static_cast<bc20_colgroup*>(e->object);
    if (bc20_colgroup_is_live(e->id, cg) && cg->parent == nullptr &&
        cg->owner_kind == BC20_CG_FREE)
      bc20_colgroup_free(cg);
  }
  for (bc20_pending_entry* e = tempcat->pending; e != nullptr; e = e->next) {
    if (e->kind != BC20_PENDING_COLUMN) continue;
    auto* c = static_cast<bc20_column*>(e->object);
    if (bc20_column_is_live(e->id, c) && c->refcnt == 0) bc20_column_unref(bc20_column_ref(c));
  }
}

void tempcat_close() {
  if (tempcat == nullptr) return;
  release_unattached();
  MemContext* mem = tempcat->mem;
  tempcat = nullptr;
  g_index = pending_index{};
  mem_context_remove(mem);
}

void pending_push(void* object, int64_t id, int32_t kind, const char* name) {
  tempcat_open();
  auto* e = static_cast<bc20_pending_entry*>(mem_calloc(tempcat->mem, sizeof(bc20_pending_entry)));
  e->object = object;
  e->id = id;
  e->kind = kind;
  e->name = name != nullptr ? mem_strdup(tempcat->mem, name) : nullptr;
  e->next = tempcat->pending;
  tempcat->pending = e;
  if (2 * (g_index.used + 1) > g_index.size) pending_index_grow();
  pending_index_put(e);
}

bc20_pending_entry* pending_find(int32_t kind, int64_t id) {
  if (tempcat == nullptr || g_index.size == 0) return nullptr;
  uint64_t mask = g_index.size - 1;
  for (uint64_t i = pending_hash(kind, id, mask);; i = (i + 1) & mask) {
    bc20_pending_entry* s = g_index.slots[i];
    if (s == nullptr) return nullptr;
    if (s->kind == kind && s->id == id) return s;
  }
}

// A pending group still alive (a group dropped later in its transaction is not found).
bc20_colgroup* pending_colgroup(int64_t id) {
  bc20_pending_entry* e = pending_find(BC20_PENDING_COLGROUP, id);
  if (e == nullptr) return nullptr;
  auto* cg = static_cast<bc20_colgroup*>(e->object);
  return bc20_colgroup_is_live(id, cg) ? cg : nullptr;
}

// ---- catalog actions ----

int replay_table_new(const bc20_cat_table_new_fields& f) {
  bc20_colgroup* cg = pending_colgroup(f.colgroup_id);
  bc20_table* t = bc20_table_create(cg);
  t->table_id = f.table_id;
  pending_push(t, f.table_id, BC20_PENDING_TABLE, f.name);
  if (bc20_catalog_add_table(bc20_catalog, t, f.name) < 0) orphan_tables().push_back(t);
  return 1;
}

int replay_column_new(const bc20_cat_column_new_fields& f) {
  const ptype* type = f.adt != nullptr ? ptype_by_name(f.adt) : nullptr;
  bc20_column* c = bc20_column_create(f.ctype, type != nullptr ? type->id : -1);
  J480_ASSERT(CBM, c);
  if (f.flags & 1u) bc20_column_set_flag(c, 1);
  bc20_column_set_id(c, f.colid);
  if (f.ltype != nullptr) bc20_column_set_sqltype(c, f.ltype, f.digits, f.scale);
  if (f.compression != nullptr) bc20_column_set_compression(c, f.compression);
  pending_push(c, f.colid, BC20_PENDING_COLUMN, f.col_name);
  return 1;
}

int replay_colgroup_new(const bc20_cat_colgroup_new_fields& f, bool defaultfile) {
  bc20_colgroup* parent = pending_colgroup(f.parent_id);
  if (parent == nullptr && f.type == bc20_colgroup_storage)
    parent = bc20_catalog_root_colgroup_by_id(bc20_catalog, f.parent_id);
  bc20_colgroup* cg = bc20_colgroup_create(f.type, f.ncols, parent);
  J480_ASSERT(CBM, cg);
  bc20_colgroup_set_id(cg, f.cg_id);
  bc20_colgroup_set_store(cg, f.store_id);
  for (int32_t k = 0; k < f.ncols; k++) {
    int64_t id;
    memcpy(&id, reinterpret_cast<const char*>(f.col_ids) + 8 * static_cast<size_t>(k), 8);
    bc20_pending_entry* e = pending_find(BC20_PENDING_COLUMN, id);
    bc20_column* c = nullptr;
    const char* name = nullptr;
    if (e != nullptr && bc20_column_is_live(id, static_cast<bc20_column*>(e->object))) {
      c = static_cast<bc20_column*>(e->object);
      name = e->name;
    }
    if (c == nullptr) c = bc20_catalog_column_by_id(bc20_catalog, id, &name);
    J480_ASSERT(CBM, c);
    bc20_colgroup_add_column(cg, c, name);
  }
  pending_push(cg, f.cg_id, BC20_PENDING_COLGROUP, nullptr);
  if (defaultfile)
    bc20_colgroup_add_file(cg, columnspace_get_default_file(iobm_get_columnspace(bc20_iobm)));
  return 1;
}

int replay_colgroup_del(int64_t id) {
  bc20_table* t = bc20_catalog_table_by_colgroup_id(bc20_catalog, id);
  bc20_colgroup* cg = t != nullptr ? t->colgroup : nullptr;
  if (bc20_colgroup_drop_child(tempcat != nullptr ? tempcat->mem : bc20_catalog->mem, cg, id) ==
      1) {
    CV_ERROR(CBM, "failed to replay drop colgroup %lld", static_cast<long long>(id));
    return 0;
  }
  return 1;
}

int replay_index_new(const bc20_cat_index_new_fields& f) {
  struct bc20_catalog* cat = bc20_catalog;
  bc20_colgroup* icg = pending_colgroup(f.colgroup_id);
  bc20_colgroup* scg = pending_colgroup(f.scolgroup_id);
  const char* key_name = bc20_catalog_index_name_by_id(cat, f.key_id);
  bc20_index* j = icg != nullptr ? bc20_index_create(f.type, icg, scg) : nullptr;
  J480_ASSERT(CBM, icg && j);
  if (f.type == bc20_idx_join) {
    bc20_index* fk = bc20_catalog_index_by_name(cat, key_name);
    bc20_index* key = fk != nullptr ? bc20_catalog_index_by_name(cat, fk->key_name) : nullptr;
    int64_t nr = key != nullptr ? bc20_catalog_table_nr_by_name(cat, key->table_name) : -1;
    bc20_table* reftable = nr >= 0 ? cat->tables[nr] : nullptr;
    J480_ASSERT(CBM, reftable);
    bc20_table_add_incoming_joinindex(reftable, f.index_name);
  }
  j->key_name = key_name != nullptr ? strdup(key_name) : nullptr;
  j->id = f.index_id;
  bc20_index_set_id(j, f.index_id);
  pending_push(j, f.index_id, BC20_PENDING_INDEX, f.index_name);
  int64_t table_nr = bc20_catalog_table_nr_by_id(cat, f.table_id);
  bc20_table* table = table_nr >= 0 ? cat->tables[table_nr] : nullptr;
  J480_ASSERT(CBM, table);
  bc20_table_add_index(table, cat->table_names[table_nr], j, f.index_name);
  return 1;
}

int replay_index_del(int64_t index_id) {
  struct bc20_catalog* cat = bc20_catalog;
  bc20_index* i = bc20_catalog_index_by_id(cat, index_id);
  bc20_table* t = i != nullptr ? bc20_catalog_table_by_name(cat, i->table_name) : nullptr;
  J480_ASSERT(CBM, i && t);
  if (i->itype == bc20_idx_join) {
    int64_t nr = catalog_get_referenced_table_from_joinindex(cat, i);
    bc20_table* reftable = nr >= 0 ? cat->tables[nr] : nullptr;
    J480_ASSERT(CBM, reftable);
    bc20_table_del_incoming_joinindex(reftable, bc20_table_index_name_by_id(t, i->id));
  }
  bc20_table_del_index(t, i);
  return 1;
}

int replay_table_del(int64_t table_id) {
  struct bc20_catalog* cat = bc20_catalog;
  bc20_table* t = bc20_catalog_table_by_id(cat, table_id);
  bc20_index* join = t != nullptr ? bc20_table_index_by_type_name(t, "join") : nullptr;
  if (join != nullptr) {
    int64_t master_rtbl_nr = catalog_get_referenced_table_from_joinindex(cat, join);
    J480_ASSERT(CBM, master_rtbl_nr >= 0);
    bc20_catalog_del_incoming_joinindex(cat, master_rtbl_nr, bc20_table_joinindex_name(t), 1);
  }
  J480_ASSERT(CBM, t);
  if (bc20_catalog_del_table(cat, table_id) < 0) {
    CV_ERROR(CBM, "failed to replay drop table: no such table_id %lld",
             static_cast<long long>(table_id));
    return 0;
  }
  return 1;
}

// ---- storage actions ----

int replay_cs_new(iobm* bm, const bc20_cs_fields& f, bool defaultfile) {
  if (defaultfile)
    CV_INFO(CBM, "Detected single location database. Creating default location and default file.");
  if (f.id != 0) {
    CV_ERROR(CBM, "Encountered non-initial columnspace. Columnspaces are deprecated. Aborting.");
    return 0;
  }
  int64_t metadata_size =
      cvconfig_get_lng(iobm_get_config(bm), CVGROUP_CBM, CVPROP_INITIAL_FILE_METADATA_SIZE);
  if (bc20_create_columnspace(bm, f.blksz, metadata_size, defaultfile, defaultfile) < 0) {
    CV_INFO(CBM, "cs_new: trying to create columnspace with blksz=%d", f.blksz);
    CV_ERROR(CBM, "cs_new: unable to create columnspace");
    return 0;
  }
  return 1;
}

int replay_blk_new(iobm* bm, bc20_blk_fields& f) {
  if (f.file_nr == -1) f.file_nr = columnspace_get_default_file(iobm_get_columnspace(bm));
  iob* b = iobm_new_block(bm, f.file_nr, f.colid, f.block_nr);
  if (b == nullptr) {
    CV_ERROR(CBM, "blk_new: unable to create block (file_nr=%lld block_nr=%lld, scolid=%d)",
             static_cast<long long>(f.file_nr), static_cast<long long>(f.block_nr), f.colid);
    return 0;
  }
  scolumn* scol = iobm_get_scolumn(bm, f.colid);
  if (scol == nullptr) {
    iobm_release_block(bm, b);
    CV_ERROR(CBM, "blk_new: bad scolumn id: %d", f.colid);
    return 0;
  }
  b->bytes_used = static_cast<uint32_t>(f.bytes_used);
  b->num_tuples = static_cast<uint32_t>(f.num_tuples);
  if (!scolumn_add_block(scol, b, nullptr, nullptr)) {
    iobm_release_block(bm, b);
    return 0;
  }
  return 1;
}

int replay_blk_del(iobm* bm, const bc20_blk_fields& f) {
  scolumn* scol = iobm_get_scolumn(bm, f.colid);
  if (scol == nullptr) {
    CV_ERROR(CBM, "blk_del: bad scolumn id: %d", f.colid);
    return 0;
  }
  columnspace* cs = iobm_get_columnspace(bm);
  iob* b = cs != nullptr && columnspace_get_file(cs, f.file_nr) != nullptr
               ? iobm_find_block(bm, f.file_nr, f.block_nr)
               : nullptr;
  if (b == nullptr) {
    CV_ERROR(CBM, "blk_del: unable to find block (file_nr=%lld block_nr=%lld)",
             static_cast<long long>(f.file_nr), static_cast<long long>(f.block_nr));
    return 0;
  }
  scolumn_remove_block(scol, b, nullptr, nullptr);
  return 1;
}

int replay_file_new(iobm* bm, const bc20_file_new_fields& f) {
  columnspace* cs = iobm_get_columnspace(bm);
  struct cs_file* cs_file =
      cs != nullptr
          ? columnspace_register_file(cs, nullptr, nullptr, f.filename, f.location_id, f.file_nr)
          : nullptr;
  J480_ASSERT(CBM, cs_file);
  if (strcmp(columnspace_file_name(cs_file), "0") == 0)
    columnspace_set_default_file(cs, cs_file->file_nr);
  return 1;
}

}  // namespace

int bc20_catalog_replay_handler(void* /*iobm_context*/, bc20_action* action) {
  if (action->type > BC20_MAX_TAG) return 1;
  switch (action->type) {
    case bc20_tr_new:
      tempcat_open();
      return 1;
    case bc20_tr_end:
      tempcat_close();
      return 1;
    case bc20_cat_table_new:
      return replay_table_new(action->cat_table_new);
    case bc20_cat_table_del:
      return replay_table_del(action->cat_table_del.table_id);
    case bc20_cat_column_new:
      return replay_column_new(action->cat_column_new);
    case bc20_cat_colgroup_new:
      return replay_colgroup_new(action->cat_colgroup_new, false);
    case bc20_cat_colgroup_new_defaultfile:
      return replay_colgroup_new(action->cat_colgroup_new_defaultfile, true);
    case bc20_cat_colgroup_del:
      return replay_colgroup_del(action->cat_colgroup_del.colgroup_id);
    case bc20_cat_index_new:
      return replay_index_new(action->cat_index_new);
    case bc20_cat_index_del:
      return replay_index_del(action->cat_index_del.index_id);
    case bc20_pdt_new_64:
      // A write-PDT that can't be rebuilt is logged there and doesn't stop the replay.
      bc20_rebuild_pdt(action->pdt_new_64.object_id, action->pdt_new_64.data,
                       action->pdt_new_64.size);
      return 1;
    case bc20_cat_location_new: {
      const bc20_cat_location_new_fields& f = action->cat_location_new;
      return bc20_catalog_add_location(bc20_catalog, f.name, f.path, f.usage, f.location_id) >= 0;
    }
    case bc20_cat_location_del:
      if (bc20_catalog_del_location(bc20_catalog, action->cat_location_del.location_id) < 0) {
        CV_ERROR(CBM, "failed to replay drop location: no such location_id %lld",
                 static_cast<long long>(action->cat_location_del.location_id));
        return 0;
      }
      return 1;
    case bc20_cat_location_update: {
      const bc20_cat_location_update_fields& f = action->cat_location_update;
      if (bc20_catalog_location_name(bc20_catalog, f.location_id) == nullptr) return 0;
      int64_t usage = bc20_catalog_location_usage(bc20_catalog, f.location_id);
      bc20_catalog_set_location_usage(bc20_catalog, f.location_id,
                                      static_cast<int32_t>(usage) | f.usage);
      return 1;
    }
    case bc20_colgroup_file_new:
      bc20_colgroup_add_file(pending_colgroup(action->colgroup_file_new.colgroup_id),
                             action->colgroup_file_new.file_nr);
      return 1;
    default:
      return 1;
  }
}

int bc20_storage_replay_handler(void* iobm_context, bc20_action* action) {
  if (action->type < 2 || action->type > 35) return 1;
  auto* bm = static_cast<iobm*>(iobm_context);
  switch (action->type) {
    case bc20_cs_new_defaultfile:
      return replay_cs_new(bm, action->cs_new_defaultfile, true);
    case bc20_cs_new:
      return replay_cs_new(bm, action->cs_new, false);
    case bc20_col_new:
      if (scolumn_create(bm, iobm_get_columnspace(bm), action->col_new.colid,
                         action->col_new.type, SCOLUMN_MODE_LOGGED) == nullptr) {
        CV_ERROR(CBM, "col_new: unable to create scolumn (colid=%d)", action->col_new.colid);
        return 0;
      }
      return 1;
    case bc20_blk_new:
      return replay_blk_new(bm, action->blk_new);
    case bc20_blk_del:
      return replay_blk_del(bm, action->blk_del);
    case bc20_file_new:
      return replay_file_new(bm, action->file_new);
    default:
      return 1;
  }
}

int bc20_create_columnspace(iobm* bm, int32_t blksz, int64_t metadata_size,
                            int32_t create_default_location, int32_t create_default_file) {
  J480_ASSERT(CBM, !iobm_get_columnspace(bm));
  J480_ASSERT(CBM, !create_default_file || (create_default_file && create_default_location));
  cvconfig_layer* config = iobm_get_config(bm);
  int32_t grow = cvconfig_get_bool(config, CVGROUP_CBM, CVPROP_COLUMNSPACE_GROW);
  int64_t group_size = cvconfig_get_lng(config, CVGROUP_CBM, CVPROP_GROUP_SIZE);
  int32_t rounded = 1;
  while (rounded < group_size && rounded < (1 << 30)) rounded *= 2;
  columnspace* cs = columnspace_create(blksz, rounded, metadata_size, grow);
  if (cs == nullptr) return -1;
  cs->file_created = bc20_file_registered;
  cs->file_name = bc20_file_path;
  if (create_default_location) {
    std::string path = iobm_get_path(bm);
    path += J480_PATH_SEP;
    path += "default";
    const char* name = cvconfig_get_str(config, CVGROUP_SERVER, CVPROP_DBLOCATION);
    int64_t location_id = bc20_catalog_add_location(bc20_catalog, name, path.c_str(), 1, 0);
    if (location_id < 0) {
      columnspace_destroy(cs);
      return -1;
    }
    if (create_default_file) {
      struct cs_file* f = columnspace_register_file(cs, nullptr, nullptr, "0", location_id, -1);
      if (f == nullptr) {
        columnspace_destroy(cs);
        return -1;
      }
      columnspace_file_ref(f);
      columnspace_set_default_file(cs, f->file_nr);
      g_default_file_ref = f;
    }
  }
  iobm_set_columnspace(bm, cs);
  return 0;
}

void* bc20_file_registered(columnspace* /*cs*/, MemContext* mem, void* prefix, void* /*owner*/,
                           const char* rel_filename, int64_t file_nr) {
  J480_ASSERT(CBM, rel_filename);
  J480_ASSERT(CBM, !prefix);
  J480_ASSERT(CBM, file_nr >= 0);
  return mem_strdup(mem, rel_filename);
}

const char* bc20_file_path(columnspace* /*cs*/, void* handle) {
  return static_cast<const char*>(handle);
}

void bc20_iobm_drop_default_file_ref(iobm* bm) {
  if (g_default_file_ref == nullptr) return;
  struct cs_file* f = g_default_file_ref;
  g_default_file_ref = nullptr;
  if (iobm_get_columnspace(bm) != nullptr) columnspace_file_unref(f);
}

void bc20_iobm_forget_replay() {
  static auto* kept = new std::vector<void*>();
  if (tempcat != nullptr) kept->push_back(tempcat);
  for (bc20_table* t : orphan_tables()) kept->push_back(t);
  orphan_tables().clear();
  tempcat = nullptr;
  g_index = pending_index{};
  g_default_file_ref = nullptr;
}

void bc20_iobm_release_replay(iobm* bm) {
  tempcat_close();
  for (bc20_table* t : orphan_tables()) bc20_table_destroy(t);
  orphan_tables().clear();
  orphan_tables().shrink_to_fit();
  if (bm == nullptr) return;
  bc20_iobm_drop_default_file_ref(bm);
  // With the catalog gone, every storage column still registered was never bound to a group.
  dataset* ds = bm->scolumns;
  for (uint32_t k = 0; ds != nullptr && k < ds->size; k++)
    if (ds->set[k] != nullptr) scolumn_destroy(static_cast<scolumn*>(ds->set[k]));
  columnspace* cs = iobm_get_columnspace(bm);
  if (cs == nullptr) return;
  int64_t n = 0;
  MemContext* mem = mem_context_create(nullptr, "release_files");
  cs_file** files = columnspace_list_files(cs, mem, &n);
  // A file nobody references and with no block in use goes with its last reference.
  for (int64_t k = 0; k < n; k++) {
    if (files[k]->file_nr == columnspace_get_default_file(cs)) continue;
    columnspace_file_ref(files[k]);
    columnspace_file_unref(files[k]);
  }
  mem_context_remove(mem);
}
