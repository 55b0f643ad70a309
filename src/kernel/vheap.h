// vheap: a bump heap for variable-size values that live and die together.
//
// Buffers of doubling size, from `initial_buffer_size` up to `max_buffer_size`, are filled one
// after the other; a value never moves and is never freed alone. A managed heap draws on a memory
// context, an unmanaged one on the process heap. The caller owns the heap (vheap_destroy).
#ifndef J480_KERNEL_VHEAP_H
#define J480_KERNEL_VHEAP_H

#include <cstdint>

struct MemContext;
struct cvconfig_layer;

struct vheap {
  MemContext* mem;  // null in an unmanaged heap
  const char* name;
  char** buffers;
  int64_t* buffers_sizes;
  int64_t* used;
  int64_t current;
  int64_t last_allocated;
  int64_t n_slots;
  int64_t initial_buffer_size;
  int64_t max_buffer_size;
  int32_t flag;
};

vheap* vheap_create(MemContext* mem, const char* name, int64_t initial_buffer_size,
                    int64_t max_buffer_size);
vheap* vheap_create_default(MemContext* mem, const char* name);
vheap* vheap_create_unmanaged(int64_t initial_buffer_size, int64_t max_buffer_size);
vheap* vheap_create_unmanaged_default();
void vheap_destroy(vheap* heap);
// Moves to a buffer that can hold `size` bytes: 0, or -1.
int vheap_buffer_alloc(vheap* heap, int64_t size);

// Takes the default sizes from the configuration (read once per process); without it the
// defaults are 4096 and 524288.
void vheap_set_default_config(cvconfig_layer* config);

// `size` bytes, or null.
inline void* vheap_alloc(vheap* heap, int64_t size) {
  int64_t cur = heap->current;
  if (heap->buffers_sizes[cur] - heap->used[cur] < size) {
    if (vheap_buffer_alloc(heap, size) < 0) return nullptr;
    cur = heap->current;
  }
  char* p = heap->buffers[cur] + heap->used[cur];
  heap->used[cur] += size;
  return p;
}

#endif  // J480_KERNEL_VHEAP_H
