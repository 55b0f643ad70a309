// vheap: buffers of doubling size with a bump pointer.
#include "kernel/vheap.h"

#include <cstdlib>
#include <cstring>

#include "utils/cvconfig.h"
#include "utils/cvlog.h"
#include "utils/mem.h"

// The heap's invariants, with their texts written on the heap as `this`.
#define VHEAP_ASSERT(expr, text)                                                   \
  do {                                                                             \
    if (__builtin_expect(!(expr), 0)) cv_assert_fail(__FILE__, __LINE__, nullptr, text); \
  } while (0)

namespace {

constexpr int64_t kInitialSlots = 8;
int64_t default_initial = 4096;
int64_t default_max = 524288;
bool defaults_read = false;

vheap* init_heap(vheap* h, MemContext* mem, const char* name, int64_t initial, int64_t max,
                 void* buffers, void* sizes, void* used) {
  h->mem = mem;
  h->name = name ? name : "VHeap";
  h->buffers = static_cast<char**>(buffers);
  h->buffers_sizes = static_cast<int64_t*>(sizes);
  h->used = static_cast<int64_t*>(used);
  h->current = 0;
  h->last_allocated = 0;
  h->n_slots = kInitialSlots;
  h->initial_buffer_size = initial;
  h->max_buffer_size = max;
  h->flag = 1;
  VHEAP_ASSERT(h->buffers_sizes[0] == 0 && h->used[0] == 0 && h->buffers[0] == NULL,
               "this->buffers_sizes[0] == 0 && this->used[0] == 0 && this->buffers[0] == NULL");
  return h;
}

// Doubles the three arrays, with zeroed tails. When one of a managed heap's arrays can't grow,
// the slot count stays as it was: the arrays that did grow are merely larger than it says.
int extend_slots(vheap* h) {
  int64_t old_n = h->n_slots;
  int64_t n = old_n * 2;
  uint64_t old_bytes = static_cast<uint64_t>(old_n) * 8, bytes = static_cast<uint64_t>(n) * 8;
  if (h->mem != nullptr) {
    void* b = mem_reallocex(h->mem, h->buffers, bytes, J480_MEM_ALLOWFAILURE);
    if (b) h->buffers = static_cast<char**>(b);
    void* s = b ? mem_reallocex(h->mem, h->buffers_sizes, bytes, J480_MEM_ALLOWFAILURE) : nullptr;
    if (s) h->buffers_sizes = static_cast<int64_t*>(s);
    void* u = s ? mem_reallocex(h->mem, h->used, bytes, J480_MEM_ALLOWFAILURE) : nullptr;
    if (u) h->used = static_cast<int64_t*>(u);
    if (u == nullptr) {
      CV_DEBUG(nullptr, "vheap extend mem failed.");
      return -1;
    }
    h->n_slots = n;
    return 0;
  }
  void* b = calloc(1, bytes);
  void* s = calloc(1, bytes);
  void* u = calloc(1, bytes);
  if (!b || !s || !u) {
    free(b);
    free(s);
    free(u);
    return -1;
  }
  memcpy(b, h->buffers, old_bytes);
  memcpy(s, h->buffers_sizes, old_bytes);
  memcpy(u, h->used, old_bytes);
  free(h->buffers);
  free(h->buffers_sizes);
  free(h->used);
  h->buffers = static_cast<char**>(b);
  h->buffers_sizes = static_cast<int64_t*>(s);
  h->used = static_cast<int64_t*>(u);
  h->n_slots = n;
  return 0;
}

}  // namespace

void vheap_set_default_config(cvconfig_layer* config) {
  if (defaults_read || config == nullptr) return;
  default_initial = cvconfig_get_lng(config, CVGROUP_MEMORY, CVPROP_VHEAP_INITIAL_BUFFER_SIZE);
  default_max = cvconfig_get_lng(config, CVGROUP_MEMORY, CVPROP_VHEAP_MAX_BUFFER_SIZE);
  defaults_read = true;
}

vheap* vheap_create(MemContext* mem, const char* name, int64_t initial_buffer_size,
                    int64_t max_buffer_size) {
  vheap* h = static_cast<vheap*>(mem_callocex(mem, sizeof(vheap), 0));
  uint64_t bytes = kInitialSlots * 8;
  return init_heap(h, mem, name, initial_buffer_size, max_buffer_size, mem_callocex(mem, bytes, 0),
                   mem_callocex(mem, bytes, 0), mem_callocex(mem, bytes, 0));
}

vheap* vheap_create_default(MemContext* mem, const char* name) {
  return vheap_create(mem, name, default_initial, default_max);
}

vheap* vheap_create_unmanaged(int64_t initial_buffer_size, int64_t max_buffer_size) {
  vheap* h = static_cast<vheap*>(calloc(1, sizeof(vheap)));
  void* b = calloc(kInitialSlots, 8);
  void* s = calloc(kInitialSlots, 8);
  void* u = calloc(kInitialSlots, 8);
  if (!h || !b || !s || !u) {
    free(h);
    free(b);
    free(s);
    free(u);
    return nullptr;
  }
  return init_heap(h, nullptr, nullptr, initial_buffer_size, max_buffer_size, b, s, u);
}

vheap* vheap_create_unmanaged_default() {
  return vheap_create_unmanaged(default_initial, default_max);
}

void vheap_destroy(vheap* h) {
  if (h == nullptr) return;
  if (h->mem != nullptr) {
    MemContext* mem = h->mem;
    for (int64_t i = 0; i < h->n_slots; i++)
      if (h->buffers[i]) mem_free(mem, h->buffers[i]);
    mem_free(mem, h->buffers);
    mem_free(mem, h->buffers_sizes);
    mem_free(mem, h->used);
    mem_free(mem, h);
    return;
  }
  for (int64_t i = 0; i < h->n_slots; i++) free(h->buffers[i]);
  free(h->buffers);
  free(h->buffers_sizes);
  free(h->used);
  free(h);
}

int vheap_buffer_alloc(vheap* h, int64_t size) {
  int64_t next = h->buffers[0] == nullptr ? 0 : h->current + 1;
  while (next < h->n_slots && h->buffers[next] != nullptr && h->buffers_sizes[next] < size) next++;
  if (next == h->n_slots && extend_slots(h) < 0) {
    CV_DEBUG(nullptr, "vheap_buffer_alloc: vheap extend failed");
    return -1;
  }
  int64_t bsize = next == 0 ? h->initial_buffer_size : h->buffers_sizes[next - 1] * 2;
  if (bsize > h->max_buffer_size) bsize = h->max_buffer_size;
  if (bsize < 1) bsize = 1;
  while (bsize < size && bsize < h->max_buffer_size) bsize *= 2;
  if (bsize > h->max_buffer_size) bsize = h->max_buffer_size;
  if (bsize < size) {
    CV_WARN(nullptr, "vheap_buffer_alloc: a single allocation bigger than max_buffer_size in VHeap %s.",
            h->name);
    bsize = (size + h->max_buffer_size - 1) / h->max_buffer_size * h->max_buffer_size;
  }
  if (h->buffers[next] == nullptr) {
    void* b = h->mem ? mem_mallocex(h->mem, static_cast<uint64_t>(bsize), 0)
                     : malloc(static_cast<size_t>(bsize));
    if (b == nullptr) {
      CV_DEBUG(nullptr, "vheap_buffer_alloc: vheap extend failed");
      return -1;
    }
    h->buffers[next] = static_cast<char*>(b);
    h->buffers_sizes[next] = bsize;
  }
  // A buffer met again keeps its own size: it is never smaller than the request (see above).
  h->used[next] = 0;
  if (next > h->last_allocated) h->last_allocated = next;
  h->current = next;
  VHEAP_ASSERT(h->last_allocated >= h->current, "this->last_allocated >= this->current");
  VHEAP_ASSERT(h->used[h->current] == 0 && h->buffers_sizes[h->current] >= size,
               "this->used[this->current] == 0 && this->buffers_sizes[this->current] >= size");
  return 0;
}
