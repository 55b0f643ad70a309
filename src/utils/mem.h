// mem: memory contexts, the source of all kernel memory.
//
// A context is a named node in a tree. It owns areas (process heap, anonymous maps for big or
// growable requests, huge pages where enabled) and hands out 16-byte aligned blocks by bumping an
// offset; there is no free-block search. Removing a context frees everything it and its
// descendants own; a freed block gives its room back only when its area's last block goes. Each
// context accounts for what it and its subtree use, and a root can hold a share of the
// process-wide limit kept by the system account (utils/system.h). Blocks belong to their context;
// names are not copied. Out of memory without J480_MEM_ALLOWFAILURE logs, prints the statistics
// and unwinds through the context's exception environment, or ends the process by assertion.
#ifndef J480_UTILS_MEM_H
#define J480_UTILS_MEM_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>

#include "utils/cvlog.h"

#define J480_ALIGN 16

// Allocation flags.
#define J480_MEM_ALLOWFAILURE 2
#define J480_MEM_LARGE 4
#define J480_MEM_EXACT 8
#define J480_MEM_FORCE 16
#define J480_MEM_OVERALLOC 32
#define J480_MEM_USE_RESERVED 64
#define J480_MEM_USE_RESERVED_ONLY 128
#define MEM_ALLOC_VALID_FLAGS 0xFE
#define MEM_REALLOC_VALID_FLAGS 0xD2

// Flags kept in a block header, and the header bit of a freed block.
#define MEM_BLOCK_FLAGS_MASK 0x24
#define MEM_BLOCK_FREED 1

// Minimum size of an area, given to every new context.
#define MEM_DEFAULT_CHUNKSIZE 0x3F40
// Requests whose area reaches this size go to virtual memory.
#define MEM_VM_THRESHOLD 0x80000
// Granularity of virtual-memory areas.
#define MEM_VM_GRANULARITY 65536

struct longjmp_env;  // the jump environment of the failure frames

// Shared by all contexts of one tree. The lock is taken only while `need_to_lock` is set.
struct mem_thread_safety {
  int32_t num_threads_running;
  std::recursive_mutex* lock;
  int32_t need_to_lock;
};

struct mem_area;
struct mem_cleanup;

struct MemContext {
  MemContext* parent;
  MemContext* first_child;   // newest first
  MemContext* next_sibling;
  MemContext** prev_link;    // the link that points at this context
  longjmp_env** exception_env;
  mem_cleanup* cleanups;     // newest first
  uint64_t curMem, curVM;    // charged to this context itself
  uint64_t totMem, totVM;    // with all descendants
  uint64_t hiMem, hiVM;      // high-water marks of totMem, totVM
  uint64_t maxMem, maxVM;    // share of the system limit; 0 means no limit
  int64_t mem_rsrvd, vm_rsrvd;
  mem_area* areas;           // ordinary allocations, most free room at the head
  mem_area* large_areas;     // allocations with an area of their own
  const char* name;          // not copied
  uint64_t chunksize;
  mem_thread_safety* thread_safety;
  int32_t is_concurrent;
  int32_t self_allocated;
  int32_t no_huge_pages;
  int64_t overalloc;         // address space asked ahead of a large allocation; <0: system maxMem
  MemContext* next_root;
  MemContext* prev_root;
};

// Area modes.
enum mem_area_mode : int32_t {
  MEM_AREA_HEAP = 0,
  MEM_AREA_VM = 1,
  MEM_AREA_HUGE = 2,
};

// Area header: 64 bytes at the start of every area. `used` and `size` count from the area's
// start, header included; the free room is `size - used`.
struct mem_area {
  uint64_t used;
  uint64_t size;
  uint64_t reserved;  // bytes of address space held (>= size)
  int32_t ref;        // live blocks
  mem_area* prev;
  mem_area* next;
  int32_t mode;       // mem_area_mode
  uint64_t pad;
};
static_assert(sizeof(mem_area) == 64, "area header is 64 bytes");

// Block header: 32 bytes ahead of every block.
struct mem_block {
  mem_area* area;
  uint64_t size;       // as requested
  uint64_t allocsize;  // size rounded up to J480_ALIGN
  uint32_t flags;      // request flags & MEM_BLOCK_FLAGS_MASK; MEM_BLOCK_FREED once freed
  uint32_t pad;
};
static_assert(sizeof(mem_block) == 32, "block header is 32 bytes");

typedef void (*mem_cleanup_fn)(void* arg);

MemContext* mem_context_init(MemContext* self, MemContext* parent, const char* name);
MemContext* mem_context_create(MemContext* parent, const char* name);
MemContext* mem_context_create_concurrent(MemContext* parent, const char* name);
// Releases the context and its subtree: null if the record was freed, else `ctx`.
MemContext* mem_context_remove(MemContext* ctx);
void mem_context_set_exception_env(MemContext* ctx, longjmp_env** env);
// Gives a root without a share its minimum share of the system limit; 0 when refused.
int mem_context_claim_minimum(MemContext* ctx, int flags);
uint64_t mem_context_used(const MemContext* ctx);
void mem_context_print(const char* module);
void mem_add_cleanup(MemContext* ctx, void* arg, mem_cleanup_fn function);

inline void* mem_mallocex(MemContext* ctx, uint64_t size, int flags);
void* mem_callocex(MemContext* ctx, uint64_t size, int flags);
void* mem_realloc(MemContext* ctx, void* block, uint64_t size, int flags);
void* mem_reallocex(MemContext* ctx, void* block, uint64_t size, int flags);
void mem_free(MemContext* ctx, void* block);
char* mem_strdup(MemContext* ctx, const char* string);
char* mem_strdup_flags(MemContext* ctx, const char* string, int flags);
char* mem_printf(MemContext* ctx, int flags, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
const char* mem_strdup_lower(MemContext* ctx, const char* string);
void* mem_calloc_plain(uint64_t size);

// The whole allocation: own areas, new areas, keeping the most room at the head, failure.
void* mem_mallocex_full(MemContext* ctx, uint64_t size, int flags);

// Flags that leave a request to the head of `areas`.
#define MEM_FAST_FLAGS (MEM_ALLOC_VALID_FLAGS & ~(J480_MEM_LARGE | J480_MEM_EXACT))
// Largest request of the inline path (no overflow in its rounding).
#define MEM_FAST_MAX_SIZE (1ull << 32)

// Takes the next block of `size` bytes (`allocsize` rounded) from the free room of `area`.
inline void* mem_carve_block(mem_area* area, uint64_t size, uint64_t allocsize, int flags) {
  mem_block* block = reinterpret_cast<mem_block*>(reinterpret_cast<char*>(area) + area->used);
  area->ref++;
  area->used += allocsize + sizeof(mem_block);
  block->area = area;
  block->size = size;
  block->allocsize = allocsize;
  block->flags = static_cast<uint32_t>(flags & MEM_BLOCK_FLAGS_MASK);
  void* retval = block + 1;
  J480_ASSERT("MEMCONTEXT", (((ssize_t)retval) & (J480_ALIGN - 1)) == 0);
  return retval;
}

// The common case inline: a block from the head area, which keeps the most room afterwards.
inline void* mem_mallocex(MemContext* ctx, uint64_t size, int flags) {
  mem_area* area = ctx->areas;
  const uint64_t allocsize = (size + J480_ALIGN - 1) & ~uint64_t(J480_ALIGN - 1);
  const uint64_t need = allocsize + sizeof(mem_block);
  if (__builtin_expect((flags & ~MEM_FAST_FLAGS) == 0 && area != nullptr &&
                           size <= MEM_FAST_MAX_SIZE && area->size - area->used >= need,
                       1)) {
    const mem_area* next = area->next;
    if (next == nullptr || next->size - next->used <= area->size - area->used - need) {
      return mem_carve_block(area, size, allocsize, flags);
    }
  }
  return mem_mallocex_full(ctx, size, flags);
}

inline void* mem_malloc(MemContext* ctx, uint64_t size) { return mem_mallocex(ctx, size, 0); }
inline void* mem_calloc(MemContext* ctx, uint64_t size) { return mem_callocex(ctx, size, 0); }

// The header of a block handed out by a context.
inline mem_block* mem_block_of(const void* block) {
  return const_cast<mem_block*>(static_cast<const mem_block*>(block) - 1);
}

// Gets a new area of at least `request` bytes past its header, charging `ctx` after the limit
// check; null when refused or when the operating system has nothing. The area's `ref` is 0.
mem_area* mem_context_extend(MemContext* ctx, uint64_t request, uint64_t vmReq, int flags);

// The area layer.
void mem_area_aligned_sizes(uint64_t* size, uint64_t* reserved, int32_t mode);
mem_area* mem_area_alloc(uint64_t size, uint64_t reserved, int32_t mode);
// Grows an area to `size` (and `reserved`); the area, possibly moved, or null. The caller fixes
// the list head and the block headers of a moved area.
mem_area* mem_area_extend(mem_area* area, uint64_t size, uint64_t reserved);
void mem_area_free(mem_area* area);

// The one place where out of memory leaves through the context's exception environment (code 2).
// Returns only when the context has no environment to unwind through.
void mem_raise_out_of_memory(MemContext* ctx);

// Invariant checker for tests and debug builds: recomputes curMem/curVM from the live areas and
// totMem/totVM from the subtree, and checks area lists, block chains, ref counts, child links and
// the share assertion for `ctx` and every descendant. False with the first fault in `why`.
// Holds while no reserve (mem_rsrvd, vm_rsrvd) has been drawn from.
bool mem_context_check(const MemContext* ctx, std::string* why);

#endif  // J480_UTILS_MEM_H
