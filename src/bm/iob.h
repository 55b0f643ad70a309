// iob: the object that stands for one block of a columnspace file.
//
// A block knows its number and, through its group, its file; it carries the payload size and the
// tuple count that the logs record, never data here. Records come from a process-wide pool of
// fixed-size slots (no per-block heap allocation) and go back to it with their last reference;
// the pool returns its memory when no block is left. Each block has its own small lock.
#ifndef J480_BM_IOB_H
#define J480_BM_IOB_H

#include <atomic>
#include <cstdint>

struct cs_group;

constexpr int32_t IOB_MEM = 4;
constexpr int32_t IOB_ERR = 5;

// A two-byte lock: 0 free, 1 held, 2 held with waiters.
struct iob_lock {
  std::atomic<uint16_t> word;
  void lock() {
    uint16_t expected = 0;
    if (word.compare_exchange_strong(expected, 1, std::memory_order_acquire)) return;
    while (word.exchange(2, std::memory_order_acquire) != 0) word.wait(2);
  }
  void unlock() {
    if (word.exchange(0, std::memory_order_release) == 2) word.notify_one();
  }
};

struct iob {
  iob_lock lock;                // guards the record
  std::atomic<uint16_t> event;  // wakes waiters for data; unused by the converter
  int32_t status;               // 0, IOB_MEM or IOB_ERR
  void* data;                   // block contents; always null here
  int64_t block_nr;             // -1 until bound
  cs_group* group;              // reference held; gives the file
  int32_t refcnt;
  int32_t d_refcnt;  // references to data, -1 while there is none
  uint32_t bytes_used;
  uint32_t num_tuples;
};

// A zeroed block with block_nr -1, refcnt 1, d_refcnt -1; null when memory runs out.
iob* iob_create();
// Drops one reference, the block's lock held. At 0 the block frees its slot in its file and
// goes (its lock with it); returns the remaining count.
int32_t iob_unref(iob* b);
// Takes the lock and drops one reference.
void iob_release(iob* b);
// The number of the block's file, 0 where it has none.
int64_t iob_get_file_nr(iob* b);
// Fetches the block's entry in its file's map ahead of a release (the group must be at hand).
void iob_prefetch_slot(const iob* b);
// Blocks alive in the pool (for tests and statistics).
int64_t iob_live_count();

#endif  // J480_BM_IOB_H
