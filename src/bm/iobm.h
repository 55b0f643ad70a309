// iobm: the block manager, root of a database's storage.
//
// Owns the path of the database's CBM directory, the exclusive lock on its `lock` file (held for
// the life of the record), the columnspace with its files, the dataset of storage columns and the
// 2.5 logger once one is set. Everything lives in the root memory context "iobm" and goes with
// iobm_destroy. It reads no block: there is no buffer pool, only block metadata passes through.
//
// The `lock` file in the CBM directory, written over from offset 0 without truncating:
//
//   offset  size      content
//   0       variable  "%lld\n%d\n": the configured port, then the process id, in decimal
//   20      1         the locked byte (an open-file-description lock, exclusive, never waited
//                     for); it may lie inside or beyond the text
#ifndef J480_BM_IOBM_H
#define J480_BM_IOBM_H

#include <cstdint>

struct MemContext;
struct longjmp_env;
struct cvconfig_layer;
struct columnspace;
struct scolumn;
struct iob;
struct dataset;
struct bm_logger;
struct bm_logger_action_list;
struct bm_bufferpool;

struct iobm {
  cvconfig_layer* config;                  // given to iobm_create
  MemContext* mem;                         // the "iobm" context: the record and its paths
  longjmp_env* longjmp_ctx;                // catches failures inside iobm_create
  char* dbpath;                            // <dbfarm_path>/<dbname>/CBM
  char* db_key;                            // 64 characters and a terminator; empty here
  int64_t lock;                            // handle of the held lock, or -1 / -2
  bm_logger* logger;                       // set by the conversion's finish
  bm_logger_action_list* pending_actions;  // empty list, cleared at destruction
  bm_bufferpool* bp;                       // always null in the converter
  columnspace* cs;                         // set once by iobm_set_columnspace
  dataset* scolumns;                       // storage columns by id
};

// Creates the block manager of the database named by `config` (dbfarm_path, dbname, port,
// umask): the CBM directory, its held lock, the storage column dataset. Null on failure, with
// the failure's message logged.
iobm* iobm_create(cvconfig_layer* config);
// Closes the logger, releases the storage columns and the columnspace, then the lock and the
// memory. Null is accepted.
void iobm_destroy(iobm* bm);

const char* iobm_get_path(iobm* bm);
const char* iobm_get_db_key(iobm* bm);
void iobm_set_logger(iobm* bm, bm_logger* logger);
bm_logger* iobm_get_logger(iobm* bm);         // null in, null out
cvconfig_layer* iobm_get_config(iobm* bm);    // null in, null out
columnspace* iobm_get_columnspace(iobm* bm);  // null in, null out
// Installs the columnspace, which the block manager then owns; once only.
void iobm_set_columnspace(iobm* bm, columnspace* cs);

// A new block with reference 1, marked used in the columnspace; null (the block released) when
// the columnspace refuses it.
iob* iobm_new_block(iobm* bm, int64_t file_nr, int64_t owner_id, int64_t block_nr);
// The block at `block_nr` of a known file, or null for a free block.
iob* iobm_find_block(iobm* bm, int64_t file_nr, int64_t block_nr);
// Drops one reference of `b` under its lock; the last frees its block in the file.
void iobm_release_block(iobm* bm, iob* b);

// Registers `scol` under its id (0: the next free id; not available during replay): the id or -1.
int32_t iobm_register_scolumn(iobm* bm, scolumn* scol);
// The storage column with `id`, or null for an id below 1 or unknown.
scolumn* iobm_get_scolumn(iobm* bm, int32_t id);
void iobm_unregister_scolumn(iobm* bm, int32_t id);

#endif  // J480_BM_IOBM_H
