// write_log_gen: the legacy catalog as one list of 2.5 actions.
//
// The list is a snapshot: each live object once, ids as the model holds them. Lists are joined in
// constant time, so nothing generated is copied again. An action that can't be allocated marks
// the generation as failed; the walk goes on without it and the whole list is refused at the end.
#include <cstring>

#include "bm/columnspace.h"
#include "bm/iob.h"
#include "bm/iobm.h"
#include "bm/logger.h"
#include "bm/paxgroup.h"
#include "bm/scolumn.h"
#include "kernel/ltype.h"
#include "kernel/ptype.h"
#include "tools/wal_converter/bc20_catalog.h"
#include "tools/wal_converter/bc20_colgroup.h"
#include "tools/wal_converter/bc20_column.h"
#include "tools/wal_converter/bc20_index.h"
#include "tools/wal_converter/bc20_iobm.h"
#include "tools/wal_converter/bc20_table.h"
#include "tools/wal_converter/write_log.h"
#include "updates/pdt.h"
#include "utils/cvlog.h"
#include "utils/mem.h"

#define FALSE 0

namespace {

constexpr char kModule[] = "LOGGER";
// Every paxgroup column is described with this maximal value width.
constexpr int64_t kPaxWidth = 65535;

// Set when an action or a list could not be allocated.
bool g_out_of_memory = false;

bm_logger_action_list* new_list(MemContext* mem) {
  bm_logger_action_list* list = action_list_new(mem);
  if (list == nullptr) g_out_of_memory = true;
  return list;
}

void put(bm_logger_action_list* list, bm_logger_action* action) {
  if (list == nullptr || action == nullptr) {
    g_out_of_memory = true;
    return;
  }
  action_list_append(list, action);
}

// 0 outside any null group, 1 for the value column of one, 2 for its indicator.
int32_t nullability(const bc20_column* c) {
  const bc20_colgroup* ng = c->nullcolgroup;
  if (ng == nullptr) return 0;
  return ng->n_columns > 0 && ng->columns[0] == c ? 1 : 2;
}

int32_t implementation(const bc20_column* c) {
  if (c->ctype == bc20_column_ccolumn) return 0;
  if (c->ctype == bc20_column_fcolumn) return 1;
  if (c->ctype == bc20_column_vcolumn_8) return 2;
  if (c->ctype == bc20_column_vcolumn_16) return 3;
  CV_ERROR(kModule, "Couldn't determine column implementation for type %d", c->ctype);
  J480_ASSERT(kModule, FALSE);
  return -1;
}

bool is_key(int32_t itype) {
  return itype == bc20_idx_primarykey || itype == bc20_idx_foreignkey ||
         itype == bc20_idx_sortkey || itype == bc20_idx_uniquekey;
}

// The progress lines: a step per table and pass, a line every tenth of the way.
struct progress {
  int64_t steps;
  int64_t done = 0;
  int64_t reported = 0;
  void step() {
    done += 100;
    int64_t percent = done / steps;
    if (percent - reported < 10) return;
    CV_INFO(kModule, "New catalog %lld%% done.", static_cast<long long>(percent));
    reported = percent;
  }
};

}  // namespace

bm_logger_action_list* generate_locations(struct bc20_catalog* cat, MemContext* mem) {
  bm_logger_action_list* list = new_list(mem);
  for (int64_t k = 0; k < cat->n_locations; k++) {
    const location* loc = cat->locations[k];
    if (loc == nullptr) continue;
    put(list, bm_action_cat_location_new(mem, loc->id, loc->name, loc->usage, loc->path));
  }
  return list;
}

bm_logger_action_list* generate_table(struct bc20_catalog* cat, MemContext* mem, int64_t table_id) {
  bc20_table* table = bc20_catalog_table_by_id(cat, table_id);
  J480_ASSERT(kModule, table);
  bc20_colgroup* root = table->colgroup;
  bm_logger_action_list* list = new_list(mem);
  put(list,
      bm_action_cat_table_new(mem, table_id, bc20_catalog_table_name_by_id(cat, table_id), 1));
  for (int32_t k = 0; k < root->n_columns; k++) {
    const bc20_column* c = root->columns[k];
    if (c == nullptr) continue;
    int32_t ltype_code = static_cast<int32_t>(
        ltype_from_name(c->sqltype, c->digits, static_cast<int16_t>(c->scale)));
    put(list, bm_action_cat_column_new(mem, c->id, root->column_names[k], nullability(c),
                                       c->type->id, ltype_code, table_id));
  }
  put(list, bm_action_storage_new(mem, root->id, table_id));
  return action_list_join(list, generate_paxgroups(root, mem, table_id));
}

bm_logger_action_list* generate_paxgroups(bc20_colgroup* root_group, MemContext* mem,
                                          int64_t table_id) {
  bm_logger_action_list* list = new_list(mem);
  for (int32_t k = 0; k < root_group->n_children; k++)
    list = action_list_join(
        list, generate_paxgroup(root_group->children[k], root_group->id, mem, table_id));
  return list;
}

bm_logger_action_list* generate_paxgroup(bc20_colgroup* group, int64_t storage_id, MemContext* mem,
                                         int64_t object_id) {
  // Only storage groups stand below a root; anything else there is a broken model.
  J480_ASSERT(kModule, group->type == bc20_colgroup_storage);
  const auto* scg = static_cast<const bc20_scg*>(group->impl);
  J480_ASSERT(kModule, scg && scg->scol);
  columnspace* cs = iobm_get_columnspace(bc20_iobm);
  cs_file* file = cs != nullptr ? columnspace_get_file(cs, scg->file_nr) : nullptr;
  J480_ASSERT(kModule, file);
  const scolumn* scol = scg->scol;
  bm_logger_action_list* list = new_list(mem);
  put(list, bm_action_scol_new(mem, static_cast<int64_t>(scol->id), scol->type));

  auto* descrs = static_cast<pax_column_descr*>(mem_mallocex(
      mem,
      sizeof(pax_column_descr) * static_cast<uint64_t>(group->n_columns > 0 ? group->n_columns : 1),
      J480_MEM_ALLOWFAILURE));
  int64_t ncols = 0;
  for (int32_t k = 0; descrs != nullptr && k < group->n_columns; k++) {
    const bc20_column* c = group->columns[k];
    if (c == nullptr) continue;
    pax_column_descr* d = &descrs[ncols++];
    pax_column_descr_init(d, c->type, kPaxWidth, nullability(c), c->compression);
    d->implementation = implementation(c);
  }
  put(list, descrs != nullptr ? bm_action_paxgroup_new(mem, group->id, storage_id, scol->id,
                                                       object_id, ncols, descrs)
                              : nullptr);
  if (scg->file_nr != columnspace_get_default_file(cs))
    put(list, bm_action_file_new(mem, scg->file_nr, columnspace_file_location(file),
                                 columnspace_file_name(file)));
  put(list, bm_action_paxgroup_file(mem, BM_PAXGROUP_FILE_NEW, group->id, scg->file_nr, object_id));
  return list;
}

bm_logger_action_list* generate_blocks(MemContext* mem, bc20_colgroup* group) {
  bm_logger_action_list* list = new_list(mem);
  if (group == nullptr || group->type != bc20_colgroup_storage) return list;
  const auto* scg = static_cast<const bc20_scg*>(group->impl);
  if (scg == nullptr || scg->scol == nullptr) return list;
  const scolumn* scol = scg->scol;
  const int64_t scolid = scol->id;
  iob* const* blocks = scol->blocks;
  const int64_t n = scol->nblocks;
  // The blocks lie all over memory: fetch them ahead. Neighbours mostly share a group, whose
  // file number is then taken once.
  const cs_group* group_seen = nullptr;
  int64_t file_nr = 0;
  for (int64_t k = 0; k < n; k++) {
    if (k + 16 < n) __builtin_prefetch(blocks[k + 16]);
    iob* b = blocks[k];
    if (b->group != group_seen) {  // a block without a group has file number 0
      group_seen = b->group;
      file_nr = iob_get_file_nr(b);
    }
    put(list, bm_action_blk_new(mem, scolid, file_nr, b->block_nr,
                                static_cast<int64_t>(b->bytes_used),
                                static_cast<int64_t>(b->num_tuples)));
  }
  return list;
}

bm_logger_action_list* generate_key(struct bc20_catalog* cat, bc20_index* index, bc20_table* table,
                                    MemContext* mem) {
  const char* name = bc20_table_index_name_by_id(table, index->id);
  int32_t type;
  if (index->itype == bc20_idx_primarykey) {
    type = 0;
  } else if (index->itype == bc20_idx_uniquekey) {
    type = 1;
  } else if (index->itype == bc20_idx_foreignkey) {
    type = 2;
  } else if (index->itype == bc20_idx_sortkey) {
    type = 3;
  } else {
    CV_ERROR(kModule, "Invalid key type found.");
    return nullptr;
  }
  int64_t ref_key_id = -1;
  if (type == 2) {
    bc20_index* pkey = bc20_catalog_index_by_name(cat, index->key_name);
    J480_ASSERT(kModule, pkey);
    J480_ASSERT(kModule, pkey->itype == bc20_idx_primarykey || pkey->itype == bc20_idx_uniquekey ||
                             pkey->itype == bc20_idx_sortkey);
    ref_key_id = pkey->id;
  }

  const bc20_colgroup* cg = index->colgroup;
  auto* ids = static_cast<int64_t*>(mem_mallocex(
      mem, sizeof(int64_t) * static_cast<uint64_t>(cg->n_columns > 0 ? cg->n_columns : 1),
      J480_MEM_ALLOWFAILURE));
  if (ids == nullptr) {
    g_out_of_memory = true;
    return nullptr;
  }
  int64_t n = 0;
  for (int32_t k = 0; k < cg->n_columns; k++) {
    const bc20_column* c = cg->columns[k];
    if (c == nullptr) continue;
    if (bc20_colgroup_column_position(table->colgroup, c) >= 0) {
      ids[n++] = c->id;
      continue;
    }
    // A column of a joined table: the key names it through the table's join index.
    const char* table_name = bc20_catalog_table_name_by_id(cat, table->table_id);
    bc20_index* join = bc20_table_index_by_type_name(table, "join");
    if (join == nullptr) {
      CV_ERROR(kModule, "Column %lld not found in table '%s' and table has no join index.",
               static_cast<long long>(c->id), table_name);
      return nullptr;
    }
    const bc20_colgroup* jcg = join->colgroup;
    const bc20_column* first = jcg->n_columns > 0 ? jcg->columns[0] : nullptr;
    if (first == nullptr || first->id != c->id) {
      CV_ERROR(kModule,
               "Column %lld not found in table '%s'. Table has join index '%s' with column %lld.",
               static_cast<long long>(c->id), table_name,
               bc20_table_index_name_by_id(table, join->id),
               static_cast<long long>(first != nullptr ? first->id : -1));
      return nullptr;
    }
    ids[n++] = join->id;
  }
  bm_logger_action_list* list = new_list(mem);
  put(list, bm_action_cat_key_new(mem, index->id, name, type, table->table_id, ref_key_id, n, ids));
  return list;
}

bm_logger_action_list* generate_index(struct bc20_catalog* cat, bc20_index* index,
                                      bc20_table* table, MemContext* mem) {
  const char* name = bc20_table_index_name_by_id(table, index->id);
  int32_t type;
  int64_t ref_key_id = -1;
  if (index->itype == bc20_idx_minmax) {
    type = 0;
  } else if (index->itype == bc20_idx_join) {
    type = 1;
    bc20_index* fkey = bc20_catalog_index_by_name(cat, index->key_name);
    J480_ASSERT(kModule, fkey);
    J480_ASSERT(kModule, fkey->itype == bc20_idx_foreignkey);
    ref_key_id = fkey->id;
  } else {
    CV_ERROR(kModule, "Invalid index type found.");
    return nullptr;
  }
  bm_logger_action_list* list = new_list(mem);
  put(list, bm_action_cat_index_new(mem, index->id, name, type, table->table_id, ref_key_id));
  if (index->scolgroup != nullptr) {
    const int64_t storage_id = index->colgroup->id;
    put(list, bm_action_storage_new(mem, storage_id, index->id));
    list = action_list_join(list, generate_paxgroup(index->scolgroup, storage_id, mem, index->id));
  }
  return list;
}

bm_logger_action_list* generate_write_pdt(MemContext* mem, int64_t table_id, pdt* p) {
  bm_logger_action_list* list = new_list(mem);
  if (p == nullptr) return list;
  const int64_t size = pdt_serialized_size(p);
  auto* buffer = size > 0 ? static_cast<char*>(mem_mallocex(mem, static_cast<uint64_t>(size),
                                                            J480_MEM_ALLOWFAILURE))
                          : nullptr;
  if (buffer == nullptr) {
    CV_ERROR(kModule, "failed to allocate memory for pdt serialization.");
    return nullptr;
  }
  if (pdt_serialize(p, buffer, size) < 0) {
    CV_ERROR(kModule, "failed to serialize PDT");
    return nullptr;
  }
  put(list, bm_action_pdt_new(mem, table_id, buffer, size));
  return list;
}

bm_logger_action_list* generate_catalog(struct bc20_catalog* cat, columnspace* cs,
                                        const ordered_tables* order, MemContext* mem) {
  g_out_of_memory = false;
  bm_logger_action_list* list = new_list(mem);
  put(list, bm_action_cs_new(mem, 0, cs->blksz, BM_CS_NEW));
  list = action_list_join(list, generate_locations(cat, mem));
  const int64_t default_nr = columnspace_get_default_file(cs);
  if (default_nr != kNoFile) {
    cs_file* default_file = columnspace_get_file(cs, default_nr);
    J480_ASSERT(kModule, default_file);
    if (default_file->refcnt > 0)
      put(list, bm_action_file_new(mem, default_nr, columnspace_file_location(default_file),
                                   columnspace_file_name(default_file)));
  }

  progress steps{2 * order->count};
  for (int64_t p = 0; p < order->count; p++) {
    steps.step();
    const ordered_table* o = order->tables[p];
    bc20_table* table = cat->tables[o->slot];
    list = action_list_join(list, generate_table(cat, mem, o->id));
    for (int32_t k = 0; k < table->colgroup->n_children; k++)
      list = action_list_join(list, generate_blocks(mem, table->colgroup->children[k]));
    for (int32_t k = 0; k < table->n_indexes; k++) {
      bc20_index* index = table->indexes[k];
      if (is_key(index->itype)) {
        // A key that can't be written is left out; its error is in the log.
        list = action_list_join(list, generate_key(cat, index, table, mem));
      } else if (index->itype == bc20_idx_join || index->itype == bc20_idx_minmax) {
        list = action_list_join(list, generate_index(cat, index, table, mem));
        list = action_list_join(list, generate_blocks(mem, index->scolgroup));
        if (index->generate != nullptr) {
          J480_ASSERT(kModule, index->impl);
          list = action_list_join(list, index->generate(index->impl, index->id, mem));
        }
      } else {
        CV_ERROR(kModule, "Bad index type");
        return nullptr;
      }
    }
  }
  for (int64_t p = 0; p < order->count; p++) {
    steps.step();
    const ordered_table* o = order->tables[p];
    pdt* write_pdt = cat->write_pdts[o->slot];
    if (write_pdt == nullptr) continue;
    bm_logger_action_list* pdt_list = generate_write_pdt(mem, o->id, write_pdt);
    if (pdt_list == nullptr) {
      CV_ERROR(kModule, "condense_log: failed to serialize write-PDT.");
      return nullptr;
    }
    list = action_list_join(list, pdt_list);
  }
  if (g_out_of_memory || list == nullptr) {
    CV_ERROR(kModule, "write_new25_log: out of memory");
    return nullptr;
  }
  return list;
}
