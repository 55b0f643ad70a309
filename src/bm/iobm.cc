#include "bm/iobm.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>

#include "bm/columnspace.h"
#include "bm/dataset.h"
#include "bm/iob.h"
#include "bm/logger.h"
#include "bm/scolumn.h"
#include "kernel/ptype.h"
#include "kernel/systables.h"
#include "utils/cvconfig.h"
#include "utils/cvlog.h"
#include "utils/file.h"
#include "utils/longjmp_ctx.h"
#include "utils/mem.h"
#include "utils/posix.h"
#include "utils/str_funcs.h"

#define CBM "CBM"

namespace {

// The block manager whose columnspace the system tables show: the newest live one.
iobm* g_systable_bm = nullptr;

template <typename T>
T* column(systable_result* r, int i) {
  return static_cast<T*>(r->columns[i]);
}

columnspace* systable_columnspace() {
  return g_systable_bm ? g_systable_bm->cs : nullptr;
}

// The files in ascending number, in `mem`.
cs_file** list_files(MemContext* mem, int64_t* count) {
  *count = 0;
  columnspace* cs = systable_columnspace();
  return cs == nullptr ? nullptr : columnspace_list_files(cs, mem, count);
}

systable_result* produce_blocks(MemContext* mem, const systable_desc* desc) {
  int64_t nfiles;
  cs_file** files = list_files(mem, &nfiles);
  int64_t rows = 0;
  for (int64_t i = 0; i < nfiles; i++) {
    columnspace_file_lock(files[i]);
    rows += columnspace_file_used_blocks(files[i]);
    columnspace_file_unlock(files[i]);
  }
  systable_result* r = systable_result_create(mem, desc, rows);
  int64_t row = 0;
  for (int64_t i = 0; i < nfiles && row < rows; i++) {
    cs_file* f = files[i];
    columnspace_file_lock(f);
    const int64_t used = columnspace_file_used_blocks(f);
    int64_t seen = 0;
    for (int64_t nr = 0; nr < f->nr_blocks && seen < used && row < rows; nr++) {
      iob* b = f->block_map[nr];
      if (b == nullptr) continue;
      b->lock.lock();
      column<uint32_t>(r, 0)[row] = 0;
      column<int64_t>(r, 1)[row] = f->location_id;
      column<int64_t>(r, 2)[row] = f->file_nr;
      column<int64_t>(r, 3)[row] = b->block_nr;
      column<uint32_t>(r, 4)[row] = b->bytes_used;
      column<uint32_t>(r, 5)[row] = b->num_tuples;
      column<int32_t>(r, 6)[row] = b->refcnt;
      column<int32_t>(r, 7)[row] = b->d_refcnt;
      column<int32_t>(r, 8)[row] = b->status;
      b->lock.unlock();
      seen++;
      row++;
    }
    columnspace_file_unlock(f);
  }
  r->rows = row;
  return r;
}

systable_result* produce_files(MemContext* mem, const systable_desc* desc) {
  int64_t nfiles;
  cs_file** files = list_files(mem, &nfiles);
  systable_result* r = systable_result_create(mem, desc, nfiles);
  for (int64_t i = 0; i < nfiles; i++) {
    cs_file* f = files[i];
    columnspace_file_lock(f);
    column<int64_t>(r, 0)[i] = f->file_nr;
    const char* name = f->cs->file_name != nullptr ? columnspace_file_name(f) : nullptr;
    column<const char*>(r, 1)[i] = name != nullptr ? mem_strdup(mem, name) : nullptr;
    column<int64_t>(r, 2)[i] = columnspace_file_used_blocks(f);
    column<int64_t>(r, 3)[i] = f->location_id;
    columnspace_file_unlock(f);
  }
  return r;
}

systable_column blocks_columns[9];
systable_column files_columns[4];
systable_desc blocks_desc = {"blocks", 9, produce_blocks, blocks_columns};
systable_desc files_desc = {"files", 4, produce_files, files_columns};

// Registers the two tables once per registry (the kernel's exit empties it).
void register_systables() {
  ptype_register_all();
  const ptype* uint_t = ptype_by_id(PTYPE_UINT);
  const ptype* sint_t = ptype_by_id(PTYPE_SINT);
  const ptype* slng_t = ptype_by_id(PTYPE_SLNG);
  const ptype* str_t = ptype_by_id(PTYPE_STR);
  blocks_columns[0] = {"block_colspace_id", uint_t, 0};
  blocks_columns[1] = {"block_location_id", slng_t, 0};
  blocks_columns[2] = {"block_file_nr", slng_t, 0};
  blocks_columns[3] = {"block_nr", slng_t, 0};
  blocks_columns[4] = {"block_used", uint_t, 0};
  blocks_columns[5] = {"block_count", uint_t, 0};
  blocks_columns[6] = {"refcnt", sint_t, 0};
  blocks_columns[7] = {"d_refcnt", sint_t, 0};
  blocks_columns[8] = {"status", sint_t, 0};
  files_columns[0] = {"file_nr", slng_t, 0};
  files_columns[1] = {"file_name", str_t, ltype_from_string("varchar(256)")};
  files_columns[2] = {"file_used_blocks", slng_t, 0};
  files_columns[3] = {"file_location_id", slng_t, 0};
  if (systable_find("blocks") == nullptr) systable_register(&blocks_desc);
  if (systable_find("files") == nullptr) systable_register(&files_desc);
}

// The steps of iobm_create after the frame is open; a failure jumps back to it.
void create_steps(iobm* bm, cvconfig_layer* config) {
  longjmp_env* env = bm->longjmp_ctx;
  set_umask(cvconfig_get_str(config, CVGROUP_SERVER, CVPROP_UMASK));

  const char* farm = cvconfig_get_str(config, CVGROUP_SERVER, CVPROP_DBFARM_PATH);
  const char* name = cvconfig_get_str(config, CVGROUP_SERVER, CVPROP_DBNAME);
  char* dbpath = mem_printf(bm->mem, 0, "%s%c%s%cCBM", farm ? farm : "", J480_PATH_SEP,
                            name ? name : "", J480_PATH_SEP);
  char* lock_path = mem_printf(bm->mem, 0, "%s%clock", dbpath, J480_PATH_SEP);
  // Without a farm or a name the path would name some other directory: no directory is made.
  if (str_empty(farm) || str_empty(name) || create_dir(dbpath) < 0) {
    CV_ERROR(CBM, "iobm_create: Failed to create directory %s", dbpath);
    longjmp_ctx_jump(env, 1);
  }

  bm->db_key = static_cast<char*>(mem_callocex(bm->mem, kAuthPassLen, 0));

  bm->lock = file_lock(lock_path, 2);
  if (bm->lock == -2) {
    CV_ERROR(CBM, "iobm_create: error opening lockfile %s", lock_path);
    longjmp_ctx_jump(env, 1);
  }
  if (bm->lock == -1) {
    CV_ERROR(CBM, "iobm_create: database %s already in use", dbpath);
    longjmp_ctx_jump(env, 1);
  }

  char text[64];
  int length =
      snprintf(text, sizeof text, "%lld\n%d\n",
               static_cast<long long>(cvconfig_get_lng(config, CVGROUP_SERVER, CVPROP_PORT)),
               static_cast<int>(px_getpid()));
  if (write_lockfile(bm->lock, text, length) < 1) {
    CV_ERROR(CBM, "iobm_create: error writing port and pid to %s: %s", lock_path, strerror(errno));
    longjmp_ctx_jump(env, 1);
  }

  bm->config = config;
  bm->dbpath = dbpath;

  bm->scolumns = dataset_create(64);
  if (bm->scolumns == nullptr) {
    CV_ERROR(CBM, "Could not create column dataset");
    longjmp_ctx_jump(env, 1);
  }

  bm->pending_actions = action_list_new(bm->mem);
  register_systables();

  const int32_t LONGJMP_SIGNAL = env->top->jumped;
  J480_ASSERT(CBM, LONGJMP_SIGNAL == 0);
}

}  // namespace

iobm* iobm_create(cvconfig_layer* config) {
  MemContext* mem = mem_context_create(nullptr, "iobm");
  void* raw = mem_callocex(mem, sizeof(iobm), J480_MEM_ALLOWFAILURE);
  void* env_raw =
      raw == nullptr ? nullptr : mem_callocex(mem, sizeof(longjmp_env), J480_MEM_ALLOWFAILURE);
  if (env_raw == nullptr) {
    mem_context_remove(mem);
    CV_ERROR(CBM, "iobm_create: memory allocation error");
    return nullptr;
  }
  auto* bm = static_cast<iobm*>(raw);
  bm->lock = -2;  // no handle yet
  bm->mem = mem;
  bm->longjmp_ctx = static_cast<longjmp_env*>(env_raw);
  longjmp_env_init(bm->longjmp_ctx, mem);
  mem_context_set_exception_env(mem, &bm->longjmp_ctx);
  if (longjmp_ctx_run(bm->longjmp_ctx, [&] { create_steps(bm, config); }) != 0) {
    iobm_destroy(bm);
    return nullptr;
  }
  g_systable_bm = bm;
  bm_logger_set_iobm(bm);  // the dump writes beside its path, key files hold its key
  return bm;
}

void iobm_destroy(iobm* bm) {
  if (bm == nullptr) return;
  if (g_systable_bm == bm) g_systable_bm = nullptr;
  if (bm_logger_get_iobm() == bm) bm_logger_set_iobm(nullptr);
  // There is no buffer pool here, so neither its policy nor the pool itself need releasing.
  if (bm->scolumns != nullptr) dataset_destroy(bm->scolumns);
  if (bm->cs != nullptr) columnspace_destroy(bm->cs);
  if (bm->logger != nullptr) bm_logger_close(bm->logger);
  if (bm->pending_actions != nullptr) action_list_clear(bm->pending_actions);
  if (bm->longjmp_ctx != nullptr) {
    mem_context_set_exception_env(bm->mem, nullptr);
    longjmp_env_destroy(bm->longjmp_ctx);
  }
  file_unlock(bm->lock);
  mem_context_remove(bm->mem);
}

const char* iobm_get_path(iobm* bm) {
  return bm->dbpath;
}
const char* iobm_get_db_key(iobm* bm) {
  return bm->db_key;
}
void iobm_set_logger(iobm* bm, bm_logger* logger) {
  bm->logger = logger;
}
bm_logger* iobm_get_logger(iobm* bm) {
  return bm == nullptr ? nullptr : bm->logger;
}
cvconfig_layer* iobm_get_config(iobm* bm) {
  return bm == nullptr ? nullptr : bm->config;
}
columnspace* iobm_get_columnspace(iobm* bm) {
  return bm == nullptr ? nullptr : bm->cs;
}

void iobm_set_columnspace(iobm* bm, columnspace* cs) {
  J480_ASSERT(CBM, bm && cs);
  J480_ASSERT(CBM, !bm->cs);
  bm->cs = cs;
}

iob* iobm_new_block(iobm* bm, int64_t file_nr, int64_t owner_id, int64_t block_nr) {
  iob* b = iob_create();
  if (b == nullptr) return nullptr;
  if (bm->cs == nullptr || !columnspace_mark_used(bm->cs, b, file_nr, owner_id, block_nr)) {
    iob_release(b);
    return nullptr;
  }
  return b;
}

iob* iobm_find_block(iobm* bm, int64_t file_nr, int64_t block_nr) {
  cs_file* cs_file = bm->cs == nullptr ? nullptr : columnspace_get_file(bm->cs, file_nr);
  J480_ASSERT(CBM, cs_file);
  columnspace_file_lock(cs_file);
  iob* b = block_nr >= 0 && block_nr < cs_file->nr_blocks ? cs_file->block_map[block_nr] : nullptr;
  columnspace_file_unlock(cs_file);
  return b;
}

void iobm_release_block(iobm* bm, iob* b) {
  iob_release(b);
}

int32_t iobm_register_scolumn(iobm* bm, scolumn* scol) {
  if (scol->id <= 0) {
    // Ids are handed out by the dataset only once it is initialized, which replay never does.
    CV_ERROR(CBM, "iobm_register_scolumn: no id for a storage column during replay");
    return -1;
  }
  uint32_t id = dataset_set(bm->scolumns, static_cast<uint32_t>(scol->id), scol);
  return id == 0 ? -1 : static_cast<int32_t>(id);
}

scolumn* iobm_get_scolumn(iobm* bm, int32_t id) {
  if (id < 1) return nullptr;
  return static_cast<scolumn*>(dataset_get(bm->scolumns, static_cast<uint32_t>(id)));
}

void iobm_unregister_scolumn(iobm* bm, int32_t id) {
  if (id < 1) return;
  dataset_release(bm->scolumns, static_cast<uint32_t>(id));
}
