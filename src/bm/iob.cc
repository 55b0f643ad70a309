#include "bm/iob.h"

#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>

#include "bm/columnspace.h"

static_assert(sizeof(iob) == 48, "a block record is 48 bytes");
#include "utils/cvlog.h"

#define CBM "CBM"

namespace {

// The pool of block records: slabs of kSlabSlots slots, a list of free slots threaded through
// the slots themselves, and the count of live blocks. The slabs go back to the heap when the
// last block does, so that a finished conversion keeps no block memory.
constexpr size_t kSlabSlots = 4096;

// A slot while it holds no block.
struct iob_slot {
  iob_slot* next_free;
};
static_assert(sizeof(iob_slot) <= sizeof(iob));

struct iob_slab {
  iob_slab* next;
  alignas(iob) unsigned char slots[kSlabSlots][sizeof(iob)];
};

struct iob_pool {
  iob_lock lock{};
  iob_slab* slabs = nullptr;
  iob_slot* free_slots = nullptr;
  int64_t live = 0;
};

iob_pool& pool() {
  static iob_pool* p = new iob_pool();  // never destroyed: blocks may outlive static teardown
  return *p;
}

void* slot_take() {
  iob_pool& p = pool();
  std::lock_guard<iob_lock> guard(p.lock);
  if (p.free_slots == nullptr) {
    auto* slab = static_cast<iob_slab*>(malloc(sizeof(iob_slab)));
    if (slab == nullptr) return nullptr;
    slab->next = p.slabs;
    p.slabs = slab;
    for (size_t i = kSlabSlots; i-- > 0;)
      p.free_slots = new (slab->slots[i]) iob_slot{p.free_slots};
  }
  iob_slot* slot = p.free_slots;
  p.free_slots = slot->next_free;
  p.live++;
  return slot;
}

void slot_give(iob* b) {
  iob_pool& p = pool();
  std::lock_guard<iob_lock> guard(p.lock);
  b->~iob();
  p.free_slots = new (static_cast<void*>(b)) iob_slot{p.free_slots};
  if (--p.live > 0) return;
  while (p.slabs != nullptr) {
    iob_slab* next = p.slabs->next;
    free(p.slabs);
    p.slabs = next;
  }
  p.free_slots = nullptr;
}

}  // namespace

iob* iob_create() {
  void* slot = slot_take();
  if (slot == nullptr) return nullptr;
  iob* b = new (slot) iob();  // zeroed
  b->block_nr = -1;
  b->refcnt = 1;
  b->d_refcnt = -1;
  return b;
}

int32_t iob_unref(iob* b) {
  J480_ASSERT(CBM, b->refcnt > 0);
  if (--b->refcnt > 0) return b->refcnt;
  J480_ASSERT(CBM, b->d_refcnt < 0);
  J480_ASSERT(CBM, !b->data);
  cs_group* group = b->group;
  if (group != nullptr && group->cs_file != nullptr &&
      !columnspace_file_block_is_free(group->cs_file, b->block_nr))
    columnspace_file_free_blocknr(group->cs_file, b->block_nr);
  b->refcnt = -1;
  b->d_refcnt = -1;
  b->lock.unlock();
  slot_give(b);
  return 0;
}

void iob_release(iob* b) {
  b->lock.lock();
  if (iob_unref(b) > 0) b->lock.unlock();
}

int64_t iob_get_file_nr(iob* b) {
  if (b->group == nullptr || b->group->cs_file == nullptr) return 0;
  return b->group->cs_file->file_nr;
}

void iob_prefetch_slot(const iob* b) {
  const cs_group* g = b->group;
  if (g != nullptr && g->cs_file != nullptr && b->block_nr >= 0)
    __builtin_prefetch(&g->cs_file->block_map[b->block_nr], 1);
}

int64_t iob_live_count() {
  iob_pool& p = pool();
  std::lock_guard<iob_lock> guard(p.lock);
  return p.live;
}
