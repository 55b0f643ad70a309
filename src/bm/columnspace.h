// columnspace: the allocation map of a database's block storage.
//
// A columnspace is a set of files by number; a file is an array of equally sized blocks with,
// for every block, the iob that occupies it, plus trees of free and reserved runs. It knows no
// paths and does no I/O: the owner gives each file a handle through the callbacks. The
// columnspace owns its files, their block maps and run groups (all in its root context
// "columnspace"); it never owns the iob objects, which belong to their storage columns.
#ifndef J480_BM_COLUMNSPACE_H
#define J480_BM_COLUMNSPACE_H

#include <cstdint>
#include <mutex>
#include <string>

struct MemContext;
struct rb_tree;
struct rb_node;
struct iob;
struct columnspace;
struct cs_file;

// No default file.
constexpr int64_t kNoFile = -1;

// Called at registration with the file's context, the two owner values, the file's name and
// number; returns the file's handle, null for failure.
typedef void* (*cs_file_created_fn)(columnspace* cs, MemContext* mem, void* owner1, void* owner2,
                                    const char* name, int64_t file_nr);
// Called when a file with a handle goes.
typedef void (*cs_file_released_fn)(columnspace* cs, void* handle);
// Called to delete a file's data when its last block goes and files aren't kept.
typedef void (*cs_file_delete_fn)(columnspace* cs, void* handle);
// The file's name, from its handle.
typedef const char* (*cs_file_name_fn)(columnspace* cs, void* handle);
// Called at columnspace_destroy.
typedef void (*cs_destroyed_fn)(columnspace* cs);

struct columnspace {
  MemContext* mem;          // the "columnspace" context, owner of all below
  int32_t grow;             // non-zero: files may grow
  int32_t keep_files;       // 1: a file whose last block goes free is kept
  int64_t default_file_nr;  // kNoFile or the default file
  int32_t blksz;            // block size in bytes
  int32_t group_size;       // minimal length of a tracked free run, a power of two
  int64_t nrblks;           // initial block count of a new file, a multiple of 64
  std::mutex lock;          // guards files, num_files, last_file_nr
  rb_tree* files;           // cs_file by file_nr
  int64_t num_files;
  int64_t last_file_nr;  // highest number given out or seen
  cs_file_created_fn file_created;
  cs_file_released_fn file_released;
  cs_file_delete_fn file_delete;
  cs_file_name_fn file_name;
  cs_destroyed_fn destroyed;
};

// A run of blocks: a free run (owner -1) in free_groups, a reserved run in reserved_groups, or
// the blocks of one owner that follow each other. Counted: one reference per tree entry and per
// block that points at it. Records live in the file's context and are reused through the file's
// list of spare records; the file's context is the group's context.
struct cs_group {
  int64_t refcnt;
  int64_t first;
  int64_t count;
  int64_t owner;  // the storage column that fills the run; -1 for a free run
  union {
    struct cs_file* cs_file;  // the file, while the record is in use
    cs_group* next_spare;     // the next spare record, while it is not
  };
  int32_t reserved;  // in reserved_groups
};

struct cs_file {
  MemContext* mem;  // "file_<location>_<nr>", child of the columnspace's context
  int64_t location_id;
  int64_t file_nr;
  columnspace* cs;
  std::mutex lock;           // guards all below
  int64_t refcnt;            // references taken by column groups
  int64_t nr_blocks;         // length of block_map
  int64_t free_blocks;       // blocks not in use
  iob** block_map;           // null: a free block
  rb_tree* reserved_groups;  // cs_group by first block
  rb_tree* free_groups;      // cs_group by first block
  rb_node* first_free;       // lowest and highest node of free_groups
  rb_node* last_free;
  int32_t frozen;          // set by marking: free_groups is no longer kept up to date
  void* handle;            // the owner's value from file_created
  cs_group* spare_groups;  // group records to reuse
};

// Null for a metadata size of 0 or when the context can't be sized.
columnspace* columnspace_create(int32_t blksz, int32_t group_size, int64_t metadata_size,
                                int32_t grow);
// Drops the default file (which must be unreferenced); no other file may remain.
void columnspace_destroy(columnspace* cs);

// Registers a file with all its blocks free; a negative file_nr draws the next number. Null on
// failure (memory, or no handle from file_created).
cs_file* columnspace_register_file(columnspace* cs, void* owner_value_1, void* owner_value_2,
                                   const char* name, int64_t location_id, int64_t file_nr);
cs_file* columnspace_get_file(columnspace* cs, int64_t file_nr);
// The files in ascending number, in a new array in `mem`; null with 0 for none.
cs_file** columnspace_list_files(columnspace* cs, MemContext* mem, int64_t* count_out);
int64_t columnspace_get_default_file(columnspace* cs);
// Sets or clears the default file; a default is never replaced without clearing it first.
void columnspace_set_default_file(columnspace* cs, int64_t file_nr);

// Binds `b` to block `block_nr` of a known file for `owner`, growing the file by doubling: 1, or
// 0 when the file may not grow that far.
int columnspace_mark_used(columnspace* cs, iob* b, int64_t file_nr, int64_t owner,
                          int64_t block_nr);

void columnspace_file_ref(cs_file* file);
// 1 if the file went away (unreferenced with all its blocks free), else 0.
int columnspace_file_unref(cs_file* file);
// Frees a used block; the file goes when its last block does and nothing references it.
void columnspace_file_free_blocknr(cs_file* file, int64_t block_nr);
bool columnspace_file_block_is_free(cs_file* file, int64_t nr);
iob* columnspace_file_get_block(cs_file* file, int64_t nr);

int64_t columnspace_file_used_blocks(cs_file* file);
int64_t columnspace_file_nr_blocks(cs_file* file);
int64_t columnspace_file_number(cs_file* file);
int64_t columnspace_file_location(cs_file* file);  // -1 for null
const char* columnspace_file_name(cs_file* file);
bool columnspace_file_in_use(cs_file* file);
void columnspace_file_lock(cs_file* file);
void columnspace_file_unlock(cs_file* file);

// The free-run step: records `count` blocks from `nr` as free, with the file's lock held.
void cs_file_add_free(cs_file* file, int64_t nr, int64_t count);
// Doubles the file with its lock held: the new block count, or -1 when refused.
int64_t cs_file_grow(cs_file* file);
// The invariant checker of a file, for tests and debug builds: free_blocks against the map, each
// used block's group (its file, its owner run, its count of references), the trees (red-black
// rules, disjoint runs inside the file) and, while the file is not frozen, the free runs (all
// blocks free, none shorter than group_size, first_free and last_free at the ends). False with
// the first broken rule in `why`. Takes the file's lock.
bool columnspace_file_check(cs_file* file, std::string* why);
// Drops one reference of a group; the record is kept for reuse when the last one goes.
void cs_group_unref(cs_group* group);

#endif  // J480_BM_COLUMNSPACE_H
