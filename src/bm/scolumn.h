// scolumn: a storage column, the ordered list of blocks that hold one stream of column data.
//
// The storage column owns one reference on each of its blocks and releases them when it goes;
// it is registered under its id in the block manager's dataset for its life. Changes of a
// logged column (mode SCOLUMN_MODE_LOGGED) can be written as blk_new and blk_del actions into
// a caller's list. It holds no block data.
#ifndef J480_BM_SCOLUMN_H
#define J480_BM_SCOLUMN_H

#include <cstdint>

struct iobm;
struct columnspace;
struct iob;
struct MemContext;
struct bm_logger_action_list;

// Block changes of the column are logged.
constexpr int32_t SCOLUMN_MODE_LOGGED = 3;

struct scolumn {
  int32_t id;   // 0 until assigned
  int64_t seq;  // creation number, process-wide
  int32_t mode;
  int32_t type;
  iob** blocks;      // in tuple order; `head` slots of the allocation lie before it
  int64_t head;      // slots freed at the front: blocks - head is what was allocated
  int64_t* offsets;  // capacity + 1 entries: tuples before each block; made and filled by
                     // scolumn_tuple_count, null before
  int64_t capacity;  // room in the allocation, head included
  int64_t nblocks;
  int64_t ntuples;  // total tuples; 0: not computed
  iobm* bm;
  columnspace* cs;
};

// A storage column registered under `id` (0: the block manager's next id, not available in
// this tool), with room for 8 blocks for a non-zero type and none for type 0; null on failure.
scolumn* scolumn_create(iobm* bm, columnspace* cs, int32_t id, int32_t type, int32_t mode);
// Releases all blocks, unregisters the id and frees the column; null accepted.
void scolumn_destroy(scolumn* scol);
// Appends `block`, taking over its reference; logs blk_new into `list` (allocated in `mem`)
// when given and the column is logged. 1, or 0 when memory runs out (nothing changed).
int scolumn_add_block(scolumn* scol, iob* block, bm_logger_action_list* list, MemContext* mem);
// Removes `block`, logging blk_del like scolumn_add_block, and releases the column's reference:
// the pointer, or null where the block isn't in the column (nothing changed). Blocks go from
// either end in constant time; from elsewhere the cost is the distance to the nearer end.
iob* scolumn_remove_block(scolumn* scol, iob* block, bm_logger_action_list* list, MemContext* mem);
// The total of the blocks' tuple counts, filling offsets on the way.
int64_t scolumn_tuple_count(scolumn* scol);

#endif  // J480_BM_SCOLUMN_H
