// bc20_iobm: the block manager of a conversion run, and the storage replay of the 2.0 log.
//
// Holds the `bc20_iobm` pointer (set by the driver) and the configuration layer of the run, and
// the two replay handlers that turn the old log's actions into the legacy catalog (tables,
// columns, group trees, indexes, locations) and into the block manager's columnspace, files,
// storage columns and blocks. Owns only the scratch of the open transaction (`tempcat`) and the
// few objects the log made but never attached; the model belongs to bc20_catalog and bc20_iobm.
#ifndef J480_TOOLS_WAL_CONVERTER_BC20_IOBM_H
#define J480_TOOLS_WAL_CONVERTER_BC20_IOBM_H

#include <cstdint>

struct iobm;
struct cvconfig_layer;
struct columnspace;
struct MemContext;
struct bc20_action;
struct bc20_catalog;

// The block manager of this run, or null before it is created.
extern iobm* bc20_iobm;

// The configuration layer of the run; set once by the driver after the option parse.
void bc20_set_config(cvconfig_layer* config);
cvconfig_layer* bc20_get_config();

// The default file number of the columnspace of bc20_iobm, -1 where there is no block manager,
// no columnspace or no default file.
int64_t bc20_iobm_default_file_nr();

// The CBM directory, "<dbfarm_path>/<dbname>/CBM": the block manager's path where there is one,
// else built from the configuration into a process-wide buffer, rebuilt per call; null where it
// can't be built (no configuration, a value missing).
const char* bc20_iobm_cbm_path();

// An object made by the open transaction, findable by later actions of the same transaction.
struct bc20_pending_entry {
  void* object;  // bc20_column, bc20_colgroup, bc20_index or bc20_table
  int64_t id;    // the object's id (table_id for a table)
  int32_t kind;  // BC20_PENDING_*
  char* name;    // copy in the tempcat context of the name the action carried; null for groups
  bc20_pending_entry* next;  // next older entry
};
enum : int32_t {
  BC20_PENDING_COLUMN = 1,
  BC20_PENDING_COLGROUP = 2,
  BC20_PENDING_INDEX = 3,
  BC20_PENDING_TABLE = 4,
};

// The scratch catalog of the open transaction: from its tr_new to its tr_end, else null.
struct bc20_tempcat {
  MemContext* mem;  // the root context "tempcat": this record, the entries, their names
  struct bc20_catalog* cat;
  bc20_pending_entry* pending;  // newest first
};
extern bc20_tempcat* tempcat;

// The two handlers of the storage replay, with the block manager as context: 1 to go on, 0 to
// fail the replay with the failure logged (facility CBM). Broken references are assertions.
int bc20_catalog_replay_handler(void* iobm_context, bc20_action* action);
int bc20_storage_replay_handler(void* iobm_context, bc20_action* action);

// Creates and installs the one columnspace, with the default location and file where asked:
// 0, or -1 (nothing installed).
int bc20_create_columnspace(iobm* bm, int32_t blksz, int64_t metadata_size,
                            int32_t create_default_location, int32_t create_default_file);
// The columnspace's hooks: a file's handle is a copy of its name in the file's context.
void* bc20_file_registered(columnspace* cs, MemContext* mem, void* prefix, void* owner,
                           const char* rel_filename, int64_t file_nr);
const char* bc20_file_path(columnspace* cs, void* handle);

// Gives up the reference on the default file taken at its creation, once (iobm_init).
void bc20_iobm_drop_default_file_ref(iobm* bm);
// Releases what a replay left outside the catalog: the open transaction's scratch, columns and
// tables no group or catalog took, storage columns no group bound, files nobody references.
// Call after bc20_catalog_destroy and before iobm_destroy; harmless when there is nothing.
void bc20_iobm_release_replay(iobm* bm);
// Forgets, without releasing anything, the scratch and the unattached objects of a replay that
// an assertion cut short (a harness that goes on with the next input keeps what it leaves).
void bc20_iobm_forget_replay();

#endif  // J480_TOOLS_WAL_CONVERTER_BC20_IOBM_H
