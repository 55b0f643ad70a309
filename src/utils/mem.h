// mem: memory contexts, the source of all kernel memory.
//
// A context is a named node in a tree. It owns large areas (process heap, or anonymous maps for
// big requests) and hands out 16-byte aligned blocks by bumping an offset. Removing a context
// frees everything it and its descendants own; a single freed block gives its room back only
// when its area's last block goes. Each context accounts for what it and its subtree use, and a
// root can hold a share of the process-wide limit kept by the system account.
// Out of memory without J480_MEM_ALLOWFAILURE logs, prints the statistics and unwinds through the
// context's exception environment, or ends the process by assertion where there is none.
#ifndef J480_UTILS_MEM_H
#define J480_UTILS_MEM_H

#include <cstddef>
#include <cstdint>
#include <mutex>

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

struct longjmp_env;  // the jump environment of the failure frames

struct mem_thread_safety {
  int32_t num_threads_running;
  std::mutex* lock;
  int32_t need_to_lock;
};

struct mem_area;
struct mem_cleanup;

struct MemContext {
  MemContext* parent;
  MemContext* first_child;
  MemContext* next_sibling;
  MemContext** prev_link;
  longjmp_env** exception_env;
  mem_cleanup* cleanups;
  uint64_t curMem, curVM;
  uint64_t totMem, totVM;
  uint64_t hiMem, hiVM;
  uint64_t maxMem, maxVM;
  int64_t mem_rsrvd, vm_rsrvd;
  mem_area* areas;
  mem_area* large_areas;
  const char* name;
  uint64_t chunksize;
  mem_thread_safety* thread_safety;
  int32_t is_concurrent;
  int32_t self_allocated;
  int32_t no_huge_pages;
  int64_t overalloc;
  MemContext* next_root;
  MemContext* prev_root;
};

// Area header: 64 bytes at the start of every area.
struct mem_area {
  uint64_t used;
  uint64_t size;
  uint64_t reserved;
  int32_t ref;
  int32_t mode;  // 0 process heap, 1 virtual memory, 2 huge pages
  mem_area* prev;
  mem_area* next;
  uint64_t pad[2];
};
static_assert(sizeof(mem_area) == 64, "area header is 64 bytes");

// Block header: 32 bytes ahead of every block.
struct mem_block {
  mem_area* area;
  uint64_t size;
  uint64_t allocsize;
  uint32_t flags;  // request flags & 0x24; bit 0 once freed
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
int mem_context_claim_minimum(MemContext* ctx, int flags);
uint64_t mem_context_used(const MemContext* ctx);
void mem_context_print(const char* module);
void mem_add_cleanup(MemContext* ctx, void* arg, mem_cleanup_fn function);

void* mem_mallocex(MemContext* ctx, uint64_t size, int flags);
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

inline void* mem_malloc(MemContext* ctx, uint64_t size) { return mem_mallocex(ctx, size, 0); }
inline void* mem_calloc(MemContext* ctx, uint64_t size) { return mem_callocex(ctx, size, 0); }

#endif  // J480_UTILS_MEM_H
