#include "bm/dataset.h"

#include <cstdlib>
#include <cstring>
#include <new>

#include "utils/cvlog.h"

#define CBM "CBM"

namespace {

// Reallocates both arrays to `nsize` slots with the new ones zeroed: 0, or -1.
int grow(dataset* ds, uint64_t nsize) {
  J480_ASSERT(CBM, nsize > ds->size);
  if (nsize > UINT32_MAX) return -1;
  auto* counts = static_cast<int32_t*>(realloc(ds->instance_count, nsize * sizeof(int32_t)));
  if (counts == nullptr) return -1;
  ds->instance_count = counts;
  auto* set = static_cast<void**>(realloc(ds->set, nsize * sizeof(void*)));
  if (set == nullptr) return -1;  // the count array's extra slots stay unused
  ds->set = set;
  memset(counts + ds->size, 0, (nsize - ds->size) * sizeof(int32_t));
  memset(set + ds->size, 0, (nsize - ds->size) * sizeof(void*));
  ds->size = static_cast<uint32_t>(nsize);
  return 0;
}

void advance_notused(dataset* ds) {
  while (ds->notused < ds->size && ds->instance_count[ds->notused] != 0) ds->notused++;
  if (ds->notused == ds->size) grow(ds, 2 * static_cast<uint64_t>(ds->size));
}

}  // namespace

dataset* dataset_create(uint32_t size) {
  if (size == 0) return nullptr;
  auto* ds = new (std::nothrow) dataset();
  if (ds == nullptr) return nullptr;
  ds->instance_count = static_cast<int32_t*>(calloc(size, sizeof(int32_t)));
  ds->set = static_cast<void**>(calloc(size, sizeof(void*)));
  if (ds->instance_count == nullptr || ds->set == nullptr) {
    dataset_destroy(ds);
    return nullptr;
  }
  ds->size = size;
  return ds;
}

void dataset_destroy(dataset* ds) {
  if (ds == nullptr) return;
  free(ds->instance_count);
  free(ds->set);
  delete ds;
}

void* dataset_get(dataset* ds, uint32_t id) {
  J480_ASSERT(CBM, !ds->initialized);
  if (id == 0 || id > ds->size || ds->instance_count[id - 1] != 1) return nullptr;
  return ds->set[id - 1];
}

uint32_t dataset_set(dataset* ds, uint32_t id, void* object) {
  if (ds->initialized || id == 0) return 0;
  if (id >= ds->size) {
    uint64_t nsize = 2 * static_cast<uint64_t>(ds->size);
    if (id > nsize) nsize = id;
    if (grow(ds, nsize) != 0) return 0;
  }
  const uint32_t slot = id - 1;
  if (ds->set[slot] != nullptr || ds->instance_count[slot] != 0) return 0;
  ds->set[slot] = object;
  ds->instance_count[slot] = 1;
  if (slot == ds->notused) advance_notused(ds);
  return id;
}

uint32_t dataset_release(dataset* ds, uint32_t id) {
  if (ds->initialized) return 0;
  if (id == 0 || id > ds->size || ds->set[id - 1] == nullptr) return 0;
  const uint32_t slot = id - 1;
  if (--ds->instance_count[slot] == 0) {
    if (slot < ds->notused) ds->notused = slot;
    ds->set[slot] = nullptr;
  }
  return id;
}
