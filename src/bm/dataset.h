// dataset: a map from small positive ids to objects, used for the storage columns.
//
// Ids are 1-based: id k is slot k - 1. During replay (`initialized` 0) every id is claimed
// explicitly and each slot holds at most one object; the mode in which the dataset hands out
// ids itself is not part of this tool, and its calls fail. The dataset owns its two arrays,
// never the objects.
#ifndef J480_BM_DATASET_H
#define J480_BM_DATASET_H

#include <cstdint>
#include <mutex>

struct dataset {
  int32_t initialized;      // 0 while ids are claimed explicitly
  uint32_t size;            // slots
  uint32_t notused;         // lowest slot known to be free
  int32_t* instance_count;  // references per slot
  void** set;               // objects per slot
  std::mutex lock;          // taken only when initialized
};

// Null for a size of 0 or when memory runs out.
dataset* dataset_create(uint32_t size);
void dataset_destroy(dataset* ds);  // null accepted
// The object with `id`, or null for 0, an id past the slots or a slot not held once.
void* dataset_get(dataset* ds, uint32_t id);
// Stores `object` under `id`, growing the slots as needed: the id, or 0 for id 0, a taken slot
// or failed growth.
uint32_t dataset_set(dataset* ds, uint32_t id, void* object);
// Drops one reference of `id`: the id, or 0 for an id out of range or a slot without object.
uint32_t dataset_release(dataset* ds, uint32_t id);

#endif  // J480_BM_DATASET_H
