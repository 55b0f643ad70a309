#include "bm/scolumn.h"

#include <cstdlib>
#include <cstring>
#include <mutex>

#include "bm/iob.h"
#include "bm/iobm.h"
#include "bm/logger.h"
#include "utils/cvlog.h"

#define CBM "CBM"

namespace {

std::mutex g_seq_lock;
int64_t g_seq = 0;

void free_arrays(scolumn* scol) {
  free(scol->blocks - scol->head);
  free(scol->offsets);
}

// Room for at least one more block: 8 at first, then half as much again each time, so that a
// column of many blocks is built in linear time. The offsets follow once they exist. 0 when
// memory runs out (nothing changed but a larger block array).
int make_room(scolumn* scol) {
  if (scol->head > 0 && scol->head >= scol->nblocks) {
    // As many slots free at the front as are in use: sliding the blocks down is paid for by
    // the removals that freed them.
    memmove(scol->blocks - scol->head, scol->blocks,
            static_cast<size_t>(scol->nblocks) * sizeof(iob*));
    scol->blocks -= scol->head;
    scol->head = 0;
    return 1;
  }
  int64_t capacity = scol->capacity + (scol->capacity / 2 > 8 ? scol->capacity / 2 : 8);
  auto* blocks = static_cast<iob**>(
      realloc(scol->blocks - scol->head, static_cast<size_t>(capacity) * sizeof(iob*)));
  if (blocks == nullptr) return 0;
  scol->blocks = blocks + scol->head;
  if (scol->offsets != nullptr) {
    auto* offsets = static_cast<int64_t*>(
        realloc(scol->offsets, static_cast<size_t>(capacity + 1) * sizeof(int64_t)));
    if (offsets == nullptr) return 0;
    scol->offsets = offsets;
  }
  scol->capacity = capacity;
  return 1;
}

}  // namespace

scolumn* scolumn_create(iobm* bm, columnspace* cs, int32_t id, int32_t type, int32_t mode) {
  J480_ASSERT(CBM, bm && cs);
  auto* scol = static_cast<scolumn*>(calloc(1, sizeof(scolumn)));
  int64_t capacity = type != 0 ? 8 : 0;
  if (scol != nullptr)
    scol->blocks = static_cast<iob**>(calloc(static_cast<size_t>(capacity) + 1, sizeof(iob*)));
  if (scol == nullptr || scol->blocks == nullptr) {
    CV_ERROR(CBM, "out of memory");
    if (scol != nullptr) free_arrays(scol);
    free(scol);
    return nullptr;
  }
  scol->id = id;
  scol->mode = mode;
  scol->type = type;
  scol->capacity = capacity;
  scol->bm = bm;
  scol->cs = cs;
  int32_t given = iobm_register_scolumn(bm, scol);
  if (given == -1) {
    free_arrays(scol);
    free(scol);
    return nullptr;
  }
  scol->id = given;
  std::lock_guard<std::mutex> guard(g_seq_lock);
  scol->seq = g_seq++;
  return scol;
}

void scolumn_destroy(scolumn* scol) {
  if (scol == nullptr) return;
  // The blocks of a column lie all over memory: each release touches the block, its group and
  // its file's map entry, so those are fetched a few blocks ahead, one level per distance.
  iob** blocks = scol->blocks;
  const int64_t n = scol->nblocks;
  for (int64_t i = 0; i < n; i++) {
    if (i + 24 < n) __builtin_prefetch(blocks[i + 24], 1);
    if (i + 12 < n) __builtin_prefetch(blocks[i + 12]->group, 1);
    if (i + 4 < n) iob_prefetch_slot(blocks[i + 4]);
    iobm_release_block(scol->bm, blocks[i]);
  }
  iobm_unregister_scolumn(scol->bm, scol->id);
  free_arrays(scol);
  free(scol);
}

int scolumn_add_block(scolumn* scol, iob* block, bm_logger_action_list* list, MemContext* mem) {
  J480_ASSERT(CBM, block);
  if (scol->head + scol->nblocks == scol->capacity && !make_room(scol)) return 0;
  if (list != nullptr && scol->mode == SCOLUMN_MODE_LOGGED) {
    bm_logger_action* action =
        bm_action_blk_new(mem, scol->id, iob_get_file_nr(block), block->block_nr, block->bytes_used,
                          block->num_tuples);
    if (action == nullptr) return 0;
    action_list_append(list, action);
  }
  scol->blocks[scol->nblocks++] = block;
  scol->ntuples = 0;
  return 1;
}

iob* scolumn_remove_block(scolumn* scol, iob* block, bm_logger_action_list* list, MemContext* mem) {
  // Blocks mostly go from one of the ends (the newest after a failed load, the oldest when data
  // ages out): search from both at once.
  iob** blocks = scol->blocks;
  const int64_t n = scol->nblocks;
  int64_t i = -1;
  for (int64_t lo = 0, hi = n - 1; lo <= hi; lo++, hi--) {
    if (blocks[lo] == block) {
      i = lo;
      break;
    }
    if (blocks[hi] == block) {
      i = hi;
      break;
    }
  }
  if (i < 0) return nullptr;
  if (list != nullptr && scol->mode == SCOLUMN_MODE_LOGGED) {
    bm_logger_action* action =
        bm_action_blk_del(mem, scol->id, iob_get_file_nr(block), block->block_nr);
    if (action == nullptr) return nullptr;
    action_list_append(list, action);
  }
  // Close the gap from the nearer end.
  if (i < n / 2) {
    memmove(blocks + 1, blocks, static_cast<size_t>(i) * sizeof(iob*));
    scol->blocks++;
    scol->head++;
  } else {
    memmove(blocks + i, blocks + i + 1, static_cast<size_t>(n - i - 1) * sizeof(iob*));
  }
  scol->nblocks--;
  scol->ntuples = 0;
  iobm_release_block(scol->bm, block);
  return block;
}

int64_t scolumn_tuple_count(scolumn* scol) {
  if (scol->ntuples != 0) return scol->ntuples;
  if (scol->offsets == nullptr)
    scol->offsets =
        static_cast<int64_t*>(calloc(static_cast<size_t>(scol->capacity) + 1, sizeof(int64_t)));
  int64_t total = 0;
  for (int64_t i = 0; i < scol->nblocks; i++) {
    total += scol->blocks[i]->num_tuples;
    if (scol->offsets != nullptr) scol->offsets[i + 1] = total;
  }
  scol->ntuples = total;
  return total;
}
