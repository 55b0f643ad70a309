// mem: memory contexts.
//
// Layout of an area: a 64-byte mem_area header, padding to bring the first block to J480_ALIGN,
// then blocks back to back, each a 32-byte mem_block header and `allocsize` bytes. `used` is the
// bump offset from the area's start. Accounting: a context's curMem/curVM are the sums of `size`
// and `reserved` of its live areas; totMem/totVM add the subtree. Only roots hold a share
// (maxMem, maxVM) of the system account, grown on demand by the limit check.
#include "utils/mem.h"

#include <sys/types.h>

#include <algorithm>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "utils/cvlog.h"
#include "utils/longjmp_ctx.h"
#include "utils/posix.h"
#include "utils/system.h"
#include "utils/version.h"

#define MEM_MODULE "MEMCONTEXT"

struct mem_cleanup {
  mem_cleanup* next;
  void* arg;
  mem_cleanup_fn function;
};

namespace {

constexpr uint64_t kAreaHeader = sizeof(mem_area);
constexpr uint64_t kBlockHeader = sizeof(mem_block);
// Larger requests cannot be met and go straight to the failure path (no overflow in rounding).
constexpr uint64_t kMaxRequest = 1ull << 62;
constexpr int kReserveFlags = J480_MEM_USE_RESERVED | J480_MEM_USE_RESERVED_ONLY;

// The process-wide list of roots and its lock. Recursive: the statistics are printed under it,
// and a logger may create a root of its own.
std::recursive_mutex g_root_lock;
MemContext* g_roots = nullptr;

char g_empty_string[1] = {0};

// Freed heap areas of the standard size wait here for reuse. Contexts of a few areas come and go
// all the time (one per replayed transaction); handing their areas straight back to the heap
// makes it trim its top and fault the same pages in again for the next context. Off under the
// sanitizers, which should see every area freed.
#ifdef J480_SANITIZE
constexpr int kAreaCacheMax = 0;
#else
constexpr int kAreaCacheMax = 64;
#endif
constexpr uint64_t kStandardAreaSize = MEM_DEFAULT_CHUNKSIZE + sizeof(mem_area) + 15;
std::mutex g_area_cache_lock;
void* g_area_cache[kAreaCacheMax > 0 ? kAreaCacheMax : 1];
int g_area_cache_count = 0;

void* heap_area_get(uint64_t size) {
  if (kAreaCacheMax > 0 && size == kStandardAreaSize) {
    std::lock_guard<std::mutex> lock(g_area_cache_lock);
    if (g_area_cache_count > 0) return g_area_cache[--g_area_cache_count];
  }
  return malloc(size);
}

void heap_area_put(mem_area* area) {
  if (kAreaCacheMax > 0 && area->size == kStandardAreaSize) {
    std::lock_guard<std::mutex> lock(g_area_cache_lock);
    if (g_area_cache_count < kAreaCacheMax) {
      g_area_cache[g_area_cache_count++] = area;
      return;
    }
  }
  free(area);
}

inline uint64_t round_up(uint64_t v, uint64_t a) { return (v + a - 1) / a * a; }
inline uint64_t align_size(uint64_t v) { return (v + J480_ALIGN - 1) & ~uint64_t(J480_ALIGN - 1); }
inline uint64_t area_room(const mem_area* a) { return a->size - a->used; }
inline const char* name_of(const MemContext* ctx) {
  return ctx && ctx->name ? ctx->name : "(null)";
}

inline uint64_t page_size() {
  return g_system_platform.page_size ? g_system_platform.page_size : 4096;
}

// Takes the tree's lock for the life of the guard, where the tree needs locking.
class tree_guard {
 public:
  explicit tree_guard(const MemContext* ctx) {
    mem_thread_safety* ts = ctx->thread_safety;
    if (ts && ts->need_to_lock) {
      lock_ = ts->lock;
      lock_->lock();
    }
  }
  ~tree_guard() {
    if (lock_) lock_->unlock();
  }
  tree_guard(const tree_guard&) = delete;
  tree_guard& operator=(const tree_guard&) = delete;

 private:
  std::recursive_mutex* lock_ = nullptr;
};

// Changes a root's share by signed amounts, through the system account.
bool root_share_change(MemContext* root, int64_t dmem, int64_t dvm, int flags) {
  const bool exact = (flags & J480_MEM_EXACT) != 0;
  auto clamp = [exact](uint64_t held, int64_t d) {
    if (d < 0) {
      if (static_cast<uint64_t>(-d) > held) d = -static_cast<int64_t>(held);
      // 0 would mean no limit: a plain decrease keeps one byte.
      if (!exact && held > 0 && held + d == 0) d += 1;
    }
    return d;
  };
  dmem = clamp(root->maxMem, dmem);
  dvm = clamp(root->maxVM, dvm);
  bool ok = true;
  if (dmem != 0) {
    int64_t g = system_grant_mem(dmem, flags);
    root->maxMem += g;
    if (g == 0) ok = false;
  }
  if (dvm != 0) {
    int64_t g = system_grant_vm(dvm, flags);
    root->maxVM += g;
    if (g == 0) ok = false;
  }
  return ok;
}

// Whether the limits allow charging `memReq` and `vmReq` to `ctx`; may grow the root's share.
bool mem_limit_check(MemContext* ctx, uint64_t memReq, uint64_t vmReq, int flags) {
  if (flags & kReserveFlags) {
    CV_INFO(MEM_MODULE, "Context %s uses %" PRIu64 " (mem) %" PRIu64 " (vm) of the reserved memory.",
            name_of(ctx), memReq, vmReq);
    const uint64_t mem_left = ctx->mem_rsrvd > 0 ? static_cast<uint64_t>(ctx->mem_rsrvd) : 0;
    const uint64_t vm_left = ctx->vm_rsrvd > 0 ? static_cast<uint64_t>(ctx->vm_rsrvd) : 0;
    if (memReq <= mem_left && vmReq <= vm_left) return true;
    if (flags & J480_MEM_USE_RESERVED_ONLY) {
      CV_ERROR(MEM_MODULE,
               "Not enough memory reserved in %s context for USE_RESERVED_ONLY allocation. "
               "mem_req = %lld mem_reserved = %lld vm_req = %lld vm_reserved = %lld",
               name_of(ctx), static_cast<long long>(memReq), static_cast<long long>(ctx->mem_rsrvd),
               static_cast<long long>(vmReq), static_cast<long long>(ctx->vm_rsrvd));
      return false;
    }
    memReq -= std::min(memReq, mem_left);
    vmReq -= std::min(vmReq, vm_left);
  }
  for (MemContext* c = ctx; c; c = c->parent) {
    const bool mem_fails = c->maxMem != 0 && c->maxMem < c->totMem + memReq;
    const bool vm_fails = c->maxVM != 0 && c->maxVM < c->totVM + vmReq;
    if (!mem_fails && !vm_fails) continue;
    if (c->parent) return true;  // only a root's share refuses
    const int64_t want_mem = mem_fails ? static_cast<int64_t>(c->totMem + memReq - c->maxMem) : 0;
    const int64_t want_vm = vm_fails ? static_cast<int64_t>(c->totVM + vmReq - c->maxVM) : 0;
    return root_share_change(c, want_mem, want_vm, flags);
  }
  return true;
}

// Adds to the counters of `ctx` and its ancestors, drawing on the reserve first where the flags
// ask for it. The amounts left after the reserve are returned through the references.
void mem_charge(MemContext* ctx, int64_t& memReq, int64_t& vmReq, int flags) {
  if (flags & kReserveFlags) {
    if (memReq > 0 && ctx->mem_rsrvd > 0) {
      int64_t take = std::min(memReq, ctx->mem_rsrvd);
      ctx->mem_rsrvd -= take;
      memReq -= take;
    }
    if (vmReq > 0 && ctx->vm_rsrvd > 0) {
      int64_t take = std::min(vmReq, ctx->vm_rsrvd);
      ctx->vm_rsrvd -= take;
      vmReq -= take;
    }
    if (memReq == 0 && vmReq == 0) return;
  }
  J480_ASSERT(MEM_MODULE, IMPLIES(flags & J480_MEM_USE_RESERVED_ONLY, memReq == 0 && vmReq == 0));
  ctx->curMem += static_cast<uint64_t>(memReq);
  ctx->curVM += static_cast<uint64_t>(vmReq);
  for (; ctx; ctx = ctx->parent) {
    ctx->totMem += static_cast<uint64_t>(memReq);
    ctx->totVM += static_cast<uint64_t>(vmReq);
    ctx->hiMem = std::max(ctx->hiMem, ctx->totMem);
    ctx->hiVM = std::max(ctx->hiVM, ctx->totVM);
    J480_ASSERT(MEM_MODULE, IMPLIES(ctx->maxMem > 0, ctx->maxMem >= ctx->totMem));
  }
}

// Takes released memory off the counters of `ctx` and its ancestors. Shares stay as they are.
void mem_uncharge(MemContext* ctx, uint64_t mem, uint64_t vm) {
  ctx->curMem -= mem;
  ctx->curVM -= vm;
  for (; ctx; ctx = ctx->parent) {
    ctx->totMem -= mem;
    ctx->totVM -= vm;
  }
}

// Correction of a charge by a signed difference (the area came out at other sizes).
void mem_charge_difference(MemContext* ctx, int64_t dmem, int64_t dvm) {
  if (dmem == 0 && dvm == 0) return;
  tree_guard guard(ctx);
  if (dmem >= 0 && dvm >= 0) {
    mem_charge(ctx, dmem, dvm, 0);
  } else {
    // Mixed signs are split so that no counter passes below zero on the way.
    int64_t up_mem = std::max<int64_t>(dmem, 0), up_vm = std::max<int64_t>(dvm, 0);
    mem_uncharge(ctx, static_cast<uint64_t>(std::max<int64_t>(-dmem, 0)),
                 static_cast<uint64_t>(std::max<int64_t>(-dvm, 0)));
    if (up_mem || up_vm) mem_charge(ctx, up_mem, up_vm, 0);
  }
}

// The area mode for an area of `total` bytes.
int32_t mem_mode_for(const MemContext* ctx, uint64_t total, int flags) {
  int32_t mode = MEM_AREA_HEAP;
  if ((flags & J480_MEM_LARGE) || total >= MEM_VM_THRESHOLD) mode = MEM_AREA_VM;
  const uint64_t huge = g_system_platform.huge_page_size;
  if (huge != 0 && (flags & J480_MEM_LARGE) && total >= huge && !ctx->no_huge_pages)
    mode = MEM_AREA_HUGE;
  return mode;
}

// The address space to reserve for a new area of `request` bytes past its header.
uint64_t mem_vm_request(const MemContext* ctx, uint64_t request, int flags) {
  const uint64_t v = std::max(ctx->chunksize, request + kBlockHeader);
  const uint64_t total = v + kAreaHeader;
  const int32_t mode = mem_mode_for(ctx, total, flags);
  uint64_t need_vm;
  if (mode == MEM_AREA_HEAP) need_vm = v + 79;
  else if (mode == MEM_AREA_VM) need_vm = round_up(total, MEM_VM_GRANULARITY);
  else need_vm = round_up(total, g_system_platform.huge_page_size);
  if ((flags & J480_MEM_LARGE) && ctx->overalloc != 0) {
    std::lock_guard<std::mutex> lock(g_system_account.lock);
    const uint64_t want = ctx->overalloc > 0 ? static_cast<uint64_t>(ctx->overalloc)
                                             : g_system_account.maxMem;
    if (g_system_account.curVM + 2 * g_system_account.maxMem <= g_system_account.maxVM)
      return std::max(want, need_vm);
  }
  return need_vm;
}

// Anonymous memory: `reserved` bytes of address space, `size` of them meant for use. Beyond
// `size` the map is made without swap reservation.
void* vm_map(uint64_t size, uint64_t reserved, bool huge) {
  const uint64_t page = huge ? g_system_platform.huge_page_size : page_size();
  const uint64_t granularity = huge ? page : MEM_VM_GRANULARITY;
  size = round_up(round_up(size, granularity), page);
  reserved = round_up(round_up(reserved, granularity), page);
  int mflags = MAP_PRIVATE | MAP_ANONYMOUS;
  if (reserved > size) mflags |= MAP_NORESERVE;
  if (huge) mflags |= MAP_HUGETLB;
  void* p = px_mmap(nullptr, reserved, PROT_READ | PROT_WRITE, mflags, -1, 0);
  return p == MAP_FAILED ? nullptr : p;
}

// Offset of the first block in an area at `base`.
inline uint64_t first_used(const void* base) {
  const uintptr_t first = reinterpret_cast<uintptr_t>(base) + kAreaHeader + kBlockHeader;
  return kAreaHeader + ((J480_ALIGN - (first & (J480_ALIGN - 1))) & (J480_ALIGN - 1));
}

// A new area for a block of `need` bytes (header included).
mem_area* mem_new_area(MemContext* ctx, uint64_t need, int flags) {
  const uint64_t request = (flags & J480_MEM_EXACT) ? need : std::max(ctx->chunksize, need);
  const uint64_t vm = mem_vm_request(ctx, request, flags);
  return mem_context_extend(ctx, request, vm, flags);
}

// Moves the head of a list down to its place, so that the area with the most room leads.
inline void mem_sink_head(mem_area** list) {
  mem_area* head = *list;
  mem_area* next = head->next;
  if (next == nullptr || area_room(next) <= area_room(head)) return;
  *list = next;
  next->prev = nullptr;
  mem_area* after = next;
  while (after->next && area_room(after->next) > area_room(head)) after = after->next;
  head->prev = after;
  head->next = after->next;
  if (after->next) after->next->prev = head;
  after->next = head;
}

void mem_unlink_area(MemContext* ctx, mem_area* area) {
  if (area->prev) area->prev->next = area->next;
  else if (ctx->areas == area) ctx->areas = area->next;
  else ctx->large_areas = area->next;
  if (area->next) area->next->prev = area->prev;
  area->prev = area->next = nullptr;
}

// The failure path of an allocation that could not be met.
void* mem_alloc_failed(MemContext* ctx, uint64_t size, int flags) {
  if (flags & J480_MEM_ALLOWFAILURE) {
    CV_DEBUG(MEM_MODULE,
             "mem_mallocex: allocation of %" PRIu64 " bytes failed in context %s (%p), returning NULL",
             size, name_of(ctx), static_cast<void*>(ctx));
    return nullptr;
  }
  CV_ERROR(MEM_MODULE, "mem_malloc: OUT OF MEMORY");
  CV_ERROR(MEM_MODULE, "mem_malloc: trying to allocate %" PRIu64 " bytes in context %s(%p) with flags %d",
           size, name_of(ctx), static_cast<void*>(ctx), flags);
  CV_ERROR(MEM_MODULE, "J480 Server version %s", version_str());
  _cv_backtrace(__FILE__, __LINE__, MEM_MODULE);
  mem_context_print(MEM_MODULE);
  mem_raise_out_of_memory(ctx);
  J480_ASSERT(MEM_MODULE, flags & J480_MEM_ALLOWFAILURE);
  return nullptr;
}

// Step 8 of a removal for a record that survives: it no longer belongs to a tree.
void forget_tree(MemContext* ctx) {
  J480_ASSERT(MEM_MODULE, !ctx->is_concurrent);
  ctx->thread_safety = nullptr;
}

// Runs the cleanups and frees the areas of one context; frees the record where allowed.
void context_free_self(MemContext* ctx, bool may_free_record) {
  CV_DEBUG(MEM_MODULE, "context_free_self: this(%s)=%p, parent(%s)=%p", name_of(ctx),
           static_cast<void*>(ctx), name_of(ctx->parent), static_cast<void*>(ctx->parent));
  if (ctx->is_concurrent) {
    J480_ASSERT(MEM_MODULE, ctx->thread_safety->num_threads_running > 0);
    ctx->thread_safety->num_threads_running--;
    ctx->is_concurrent = 0;
  }
  while (ctx->cleanups) {
    mem_cleanup* c = ctx->cleanups;
    ctx->cleanups = c->next;
    c->function(c->arg);
  }
  for (mem_area** list : {&ctx->areas, &ctx->large_areas}) {
    for (mem_area* a = *list; a;) {
      mem_area* next = a->next;
      mem_area_free(a);
      a = next;
    }
  }
  if (!may_free_record) return;
  if (ctx->self_allocated) {
    free(ctx);
    return;
  }
  // A caller's record outlives its tree: leave nothing in it that points at freed memory.
  ctx->areas = ctx->large_areas = nullptr;
  ctx->first_child = ctx->next_sibling = nullptr;
  ctx->prev_link = nullptr;
  ctx->totMem = ctx->totVM = ctx->curVM = 0;
  forget_tree(ctx);
}

// Step 1 of a removal: every descendant, depth first.
void release_children(MemContext* ctx) {
  for (MemContext* c = ctx->first_child; c;) {
    MemContext* next = c->next_sibling;
    release_children(c);
    c->parent = nullptr;
    context_free_self(c, true);
    c = next;
  }
}

void print_tree(const char* module, const MemContext* ctx, int level) {
  if (level == 0) {
    CV_INFO(module, "%-18s %13s %13s  %13s %13s  %13s %13s  %13s %13s  %13s %13s %s\n", "name",
            "curMem", "curVM", "totMem", "totVM", "hiMem", "hiVM", "maxMem", "maxVM", "mem_rsrvd",
            "vm_rsrvd", "level");
  }
  CV_INFO(module,
          "%-18.17s %13lld %13lld  %13lld %13lld  %13lld %13lld  %13lld %13lld  %13lld %13lld %d\n",
          name_of(ctx), static_cast<long long>(ctx->curMem), static_cast<long long>(ctx->curVM),
          static_cast<long long>(ctx->totMem), static_cast<long long>(ctx->totVM),
          static_cast<long long>(ctx->hiMem), static_cast<long long>(ctx->hiVM),
          static_cast<long long>(ctx->maxMem), static_cast<long long>(ctx->maxVM),
          static_cast<long long>(ctx->mem_rsrvd), static_cast<long long>(ctx->vm_rsrvd), level);
  for (const MemContext* c = ctx->first_child; c; c = c->next_sibling)
    print_tree(module, c, level + 1);
}

void* mem_realloc_impl(MemContext* ctx, void* ptr, uint64_t size, int flags, bool zero_tail) {
  if (ptr == nullptr)
    return zero_tail ? mem_callocex(ctx, size, flags) : mem_mallocex(ctx, size, flags);
  if (size > kMaxRequest) return mem_alloc_failed(ctx, size, flags);
  mem_block* block = mem_block_of(ptr);
  const uint64_t allocsize = align_size(size);
  J480_ASSERT(MEM_MODULE, allocsize >= block->size);
  J480_ASSERT(MEM_MODULE, (flags & MEM_REALLOC_VALID_FLAGS) == flags);
  J480_ASSERT(MEM_MODULE, !(block->flags & MEM_BLOCK_FREED));
  const int eflags = flags | static_cast<int>(block->flags & MEM_BLOCK_FLAGS_MASK);
  const uint64_t oldsize = block->size;

  if (allocsize <= block->allocsize) {  // fits the block as it is
    block->size = size;
    if (zero_tail && size > oldsize) memset(static_cast<char*>(ptr) + oldsize, 0, size - oldsize);
    return ptr;
  }
  const uint64_t growth = allocsize - block->allocsize;
  mem_area* area = block->area;
  const bool last =
      reinterpret_cast<char*>(area) + area->used == static_cast<char*>(ptr) + block->allocsize;

  // A block with an area of its own grows its area: in place, or by moving the whole area.
  if ((eflags & J480_MEM_LARGE) && last && area->ref == 1 && area_room(area) < growth) {
    const uint64_t newused = area->used + growth;
    uint64_t nsize = newused, nres = std::max(area->reserved, newused);
    mem_area_aligned_sizes(&nsize, &nres, area->mode);
    int64_t dmem = static_cast<int64_t>(nsize - area->size);
    int64_t dvm = static_cast<int64_t>(nres - area->reserved);
    int64_t cmem = dmem, cvm = dvm;  // what is charged after the reserve
    bool charged;
    {
      tree_guard guard(ctx);
      charged = mem_limit_check(ctx, static_cast<uint64_t>(dmem), static_cast<uint64_t>(dvm), eflags);
      if (charged) mem_charge(ctx, cmem, cvm, eflags);
    }
    if (charged) {
      const uint64_t osize = area->size, ores = area->reserved;
      const uintptr_t offset = reinterpret_cast<uintptr_t>(block) - reinterpret_cast<uintptr_t>(area);
      const bool head_of_areas = ctx->areas == area;
      const bool head_of_large = ctx->large_areas == area;
      mem_area* moved = mem_area_extend(area, newused, nres);
      if (moved == nullptr) {
        tree_guard guard(ctx);
        mem_uncharge(ctx, static_cast<uint64_t>(cmem), static_cast<uint64_t>(cvm));
      } else {
        mem_charge_difference(ctx, static_cast<int64_t>(moved->size - osize) - dmem,
                              static_cast<int64_t>(moved->reserved - ores) - dvm);
        if (moved != area) {
          if (head_of_areas) ctx->areas = moved;
          if (head_of_large) ctx->large_areas = moved;
          block = reinterpret_cast<mem_block*>(reinterpret_cast<char*>(moved) + offset);
          block->area = moved;
          ptr = block + 1;
          area = moved;
        }
      }
    }
  }
  if (last && area_room(area) >= growth) {  // the last block grows in place
    area->used += growth;
    block->allocsize = allocsize;
    block->size = size;
    if (zero_tail) memset(static_cast<char*>(ptr) + oldsize, 0, size - oldsize);
    return ptr;
  }

  int nflags = eflags;
  if (nflags & J480_MEM_USE_RESERVED_ONLY)
    nflags = (nflags & ~J480_MEM_USE_RESERVED_ONLY) | J480_MEM_USE_RESERVED | J480_MEM_FORCE;
  void* fresh = mem_mallocex(ctx, size, nflags);
  if (fresh == nullptr) return nullptr;
  mem_block* nblock = mem_block_of(fresh);
  if (nblock->area->mode != MEM_AREA_VM)
    memset(static_cast<char*>(fresh) + oldsize, 0, size - oldsize);
  nblock->flags = block->flags;
  memcpy(fresh, ptr, oldsize);
  mem_free(ctx, ptr);
  return fresh;
}

bool check_fail(std::string* why, const MemContext* ctx, const std::string& what) {
  if (why) *why = std::string("context ") + name_of(ctx) + ": " + what;
  return false;
}

// Checks one area list; adds the sizes of its areas.
bool check_areas(const MemContext* ctx, const mem_area* head, bool own, std::string* why,
                 uint64_t* mem, uint64_t* vm) {
  const mem_area* prev = nullptr;
  for (const mem_area* a = head; a; prev = a, a = a->next) {
    if (a->prev != prev) return check_fail(why, ctx, "area prev link broken");
    if (a->mode < MEM_AREA_HEAP || a->mode > MEM_AREA_HUGE)
      return check_fail(why, ctx, "area mode " + std::to_string(a->mode));
    if (a->reserved < a->size) return check_fail(why, ctx, "area reserved below size");
    if (a->used > a->size) return check_fail(why, ctx, "area used beyond size");
    if (a->ref <= 0) return check_fail(why, ctx, "listed area without live blocks");
    uint64_t off = first_used(a);
    int32_t live = 0, blocks = 0;
    while (off < a->used) {
      const mem_block* b =
          reinterpret_cast<const mem_block*>(reinterpret_cast<const char*>(a) + off);
      const uintptr_t addr = reinterpret_cast<uintptr_t>(b + 1);
      if (addr & (J480_ALIGN - 1)) return check_fail(why, ctx, "block not aligned");
      if (b->allocsize != align_size(b->allocsize) || b->allocsize < b->size)
        return check_fail(why, ctx, "block sizes inconsistent");
      if (!(b->flags & MEM_BLOCK_FREED)) {
        if (b->area != a) return check_fail(why, ctx, "block names another area");
        live++;
      }
      blocks++;
      off += kBlockHeader + b->allocsize;
    }
    if (off != a->used) return check_fail(why, ctx, "block chain does not end at used");
    if (live != a->ref)
      return check_fail(why, ctx, "area ref " + std::to_string(a->ref) + " but " +
                                      std::to_string(live) + " live blocks");
    if (own && blocks != 1) return check_fail(why, ctx, "own area with several blocks");
    *mem += a->size;
    *vm += a->reserved;
  }
  return true;
}

bool check_tree(const MemContext* ctx, std::string* why, uint64_t* tot_mem, uint64_t* tot_vm) {
  uint64_t mem = 0, vm = 0;
  if (!check_areas(ctx, ctx->areas, false, why, &mem, &vm)) return false;
  if (!check_areas(ctx, ctx->large_areas, true, why, &mem, &vm)) return false;
  if (mem != ctx->curMem)
    return check_fail(why, ctx, "curMem " + std::to_string(ctx->curMem) + " but areas hold " +
                                    std::to_string(mem));
  if (vm != ctx->curVM)
    return check_fail(why, ctx, "curVM " + std::to_string(ctx->curVM) + " but areas hold " +
                                    std::to_string(vm));
  uint64_t sub_mem = mem, sub_vm = vm;
  MemContext* const* link = &ctx->first_child;
  for (const MemContext* c = ctx->first_child; c; c = c->next_sibling) {
    if (c->parent != ctx) return check_fail(why, c, "parent link broken");
    if (c->prev_link != link) return check_fail(why, c, "prev_link broken");
    if (c->thread_safety != ctx->thread_safety) return check_fail(why, c, "foreign thread_safety");
    uint64_t m = 0, v = 0;
    if (!check_tree(c, why, &m, &v)) return false;
    sub_mem += m;
    sub_vm += v;
    link = &c->next_sibling;
  }
  if (sub_mem != ctx->totMem)
    return check_fail(why, ctx, "totMem " + std::to_string(ctx->totMem) + " but subtree holds " +
                                    std::to_string(sub_mem));
  if (sub_vm != ctx->totVM)
    return check_fail(why, ctx, "totVM " + std::to_string(ctx->totVM) + " but subtree holds " +
                                    std::to_string(sub_vm));
  if (ctx->hiMem < ctx->totMem || ctx->hiVM < ctx->totVM)
    return check_fail(why, ctx, "high-water mark below total");
  if (ctx->maxMem > 0 && ctx->maxMem < ctx->totMem)
    return check_fail(why, ctx, "share below total");
  *tot_mem = sub_mem;
  *tot_vm = sub_vm;
  return true;
}

}  // namespace

void mem_raise_out_of_memory(MemContext* ctx) {
  if (ctx && ctx->exception_env && *ctx->exception_env)
    longjmp_ctx_jump(*ctx->exception_env, 2);
}

MemContext* mem_context_init(MemContext* self, MemContext* parent, const char* name) {
  int32_t self_allocated = 0;
  if (self == nullptr) {
    self = static_cast<MemContext*>(calloc(1, sizeof(MemContext)));
    if (self == nullptr) {
      CV_ERROR(MEM_MODULE, "mem_context_init: failed to allocate memory for a new memcontext");
      J480_ASSERT(MEM_MODULE, parent && parent->exception_env);
      mem_raise_out_of_memory(parent);
      cv_assert_fail(__FILE__, __LINE__, MEM_MODULE, "parent && parent->exception_env");
    }
    self_allocated = 1;
  } else {
    memset(static_cast<void*>(self), 0, sizeof(MemContext));
  }
  self->self_allocated = self_allocated;
  self->parent = parent;
  self->exception_env = parent ? parent->exception_env : nullptr;
  self->name = name;
  self->chunksize = MEM_DEFAULT_CHUNKSIZE;

  if (parent == nullptr) {
    if (g_system_memory.configured) self->overalloc = g_system_memory.max_overalloc;
    self->thread_safety = static_cast<mem_thread_safety*>(calloc(1, sizeof(mem_thread_safety)));
    if (self->thread_safety != nullptr)
      self->thread_safety->lock = new (std::nothrow) std::recursive_mutex;
    if (self->thread_safety == nullptr || self->thread_safety->lock == nullptr)
      cv_assert_fail(__FILE__, __LINE__, MEM_MODULE, "this->thread_safety != NULL");
    CV_DEBUG(MEM_MODULE, "allocated lock(%p) by %s", static_cast<void*>(self->thread_safety->lock),
             name_of(self));
    self->no_huge_pages = 0;
    std::lock_guard<std::recursive_mutex> lock(g_root_lock);
    self->next_root = g_roots;
    self->prev_root = nullptr;
    if (g_roots) g_roots->prev_root = self;
    g_roots = self;
  } else {
    self->thread_safety = parent->thread_safety;
    self->no_huge_pages = parent->no_huge_pages;
    self->overalloc = parent->overalloc;
    tree_guard guard(parent);
    self->next_sibling = parent->first_child;
    if (parent->first_child) parent->first_child->prev_link = &self->next_sibling;
    parent->first_child = self;
    self->prev_link = &parent->first_child;
  }
  CV_DEBUG(MEM_MODULE, "mem_context_init: this(%s)=%p, parent(%s)=%p, chunksize=%" PRIu64,
           name_of(self), static_cast<void*>(self), name_of(parent), static_cast<void*>(parent),
           self->chunksize);
  return self;
}

MemContext* mem_context_create(MemContext* parent, const char* name) {
  return mem_context_init(nullptr, parent, name);
}

MemContext* mem_context_create_concurrent(MemContext* parent, const char* name) {
  MemContext* ctx = mem_context_create(parent, name);
  std::lock_guard<std::recursive_mutex> lock(*ctx->thread_safety->lock);
  ctx->thread_safety->need_to_lock = 1;
  ctx->thread_safety->num_threads_running++;
  ctx->is_concurrent = 1;
  return ctx;
}

MemContext* mem_context_remove(MemContext* ctx) {
  J480_ASSERT_MSG(MEM_MODULE, ctx, "Trying to free NULL memctx");
  CV_DEBUG(MEM_MODULE, "mem_context_remove: removing ctx %p (%s)", static_cast<void*>(ctx),
           name_of(ctx));
  mem_thread_safety* ts = ctx->thread_safety;
  std::recursive_mutex* held = (ts && ts->need_to_lock) ? ts->lock : nullptr;
  if (held) held->lock();

  release_children(ctx);
  context_free_self(ctx, false);

  MemContext* root = nullptr;
  for (MemContext* a = ctx->parent; a; a = a->parent) {
    a->totMem -= ctx->totMem;
    a->totVM -= ctx->totVM;
    if (a->parent == nullptr) root = a;
  }
  if (root) {
    root_share_change(root, root->maxMem ? -static_cast<int64_t>(ctx->totMem) : 0,
                      root->maxVM ? -static_cast<int64_t>(ctx->totVM) : 0, 0);
  }

  const bool is_root = ctx->parent == nullptr;
  ctx->totMem = ctx->totVM = ctx->curVM = 0;
  ctx->areas = ctx->large_areas = nullptr;
  ctx->first_child = nullptr;
  ctx->parent = nullptr;

  if (is_root) {
    {
      std::lock_guard<std::recursive_mutex> lock(g_root_lock);
      if (ctx->prev_root) ctx->prev_root->next_root = ctx->next_root;
      else if (g_roots == ctx) g_roots = ctx->next_root;
      if (ctx->next_root) ctx->next_root->prev_root = ctx->prev_root;
      ctx->next_root = ctx->prev_root = nullptr;
    }
    root_share_change(ctx, -static_cast<int64_t>(ctx->maxMem), -static_cast<int64_t>(ctx->maxVM),
                      J480_MEM_EXACT);
  } else {
    if (ctx->prev_link) *ctx->prev_link = ctx->next_sibling;
    if (ctx->next_sibling) ctx->next_sibling->prev_link = ctx->prev_link;
    ctx->next_sibling = nullptr;
    ctx->prev_link = nullptr;
  }

  if (held) held->unlock();
  if (ts && ts->need_to_lock && ts->num_threads_running == 0) ts->need_to_lock = 0;

  if (is_root && ts) {
    J480_ASSERT(MEM_MODULE, ctx->thread_safety->num_threads_running == 0);
    J480_ASSERT(MEM_MODULE, !ctx->thread_safety->need_to_lock);
    J480_ASSERT(MEM_MODULE, ctx->thread_safety->lock != NULL);
    delete ctx->thread_safety->lock;
    free(ctx->thread_safety);
  }
  forget_tree(ctx);
  if (ctx->self_allocated) {
    free(ctx);
    return nullptr;
  }
  return ctx;
}

void mem_context_set_exception_env(MemContext* ctx, longjmp_env** env) { ctx->exception_env = env; }

int mem_context_claim_minimum(MemContext* ctx, int flags) {
  if (ctx->parent != nullptr || ctx->maxMem != 0 || ctx->maxVM != 0) return 1;
  tree_guard guard(ctx);
  const int64_t minimum = g_system_memory.min_mem_per_transaction;
  if (root_share_change(ctx, minimum, minimum, flags)) return 1;
  root_share_change(ctx, -static_cast<int64_t>(ctx->maxMem), -static_cast<int64_t>(ctx->maxVM),
                    J480_MEM_EXACT);
  return 0;
}

uint64_t mem_context_used(const MemContext* ctx) { return ctx ? ctx->curMem : 0; }

void mem_context_print(const char* module) {
  if (module == nullptr) module = MEM_MODULE;
  uint64_t cur_mem, cur_vm, cur_trans, max_mem, max_vm, max_trans, hi_mem, hi_vm;
  {
    std::lock_guard<std::mutex> lock(g_system_account.lock);
    cur_mem = g_system_account.curMem;
    cur_vm = g_system_account.curVM;
    cur_trans = g_system_account.curTrans;
    max_mem = g_system_account.maxMem;
    max_vm = g_system_account.maxVM;
    max_trans = g_system_account.maxTrans;
    hi_mem = g_system_account.hiMem;
    hi_vm = g_system_account.hiVM;
  }
  CV_INFO(module,
          "SystemContext curMem=%" PRIu64 " curVM=%" PRIu64 " curTrans=%" PRIu64 " maxMem=%" PRIu64
          " maxVM=%" PRIu64 " maxTrans=%" PRIu64 " hiMem=%" PRIu64 " hiVM=%" PRIu64,
          cur_mem, cur_vm, cur_trans, max_mem, max_vm, max_trans, hi_mem, hi_vm);
  std::lock_guard<std::recursive_mutex> lock(g_root_lock);
  for (const MemContext* r = g_roots; r; r = r->next_root) print_tree(module, r, 0);
}

void mem_add_cleanup(MemContext* ctx, void* arg, mem_cleanup_fn function) {
  mem_cleanup* c = static_cast<mem_cleanup*>(mem_mallocex(ctx, sizeof(mem_cleanup), 0));
  c->arg = arg;
  c->function = function;
  c->next = ctx->cleanups;
  ctx->cleanups = c;
}

mem_area* mem_context_extend(MemContext* ctx, uint64_t request, uint64_t vmReq, int flags) {
  const uint64_t memReq = request + kAreaHeader;
  CV_DEBUG(MEM_MODULE, "mem_context_extend: ctx(%s)=%p memReq=%" PRIu64 " vmReq=%" PRIu64,
           name_of(ctx), static_cast<void*>(ctx), memReq, vmReq);
  const uint64_t reservation = std::max(memReq, vmReq);
  const int32_t mode = mem_mode_for(ctx, memReq, flags);
  uint64_t size = memReq, reserved = reservation;
  mem_area_aligned_sizes(&size, &reserved, mode);
  int64_t mem_charged = static_cast<int64_t>(size), vm_charged = static_cast<int64_t>(reserved);
  {
    tree_guard guard(ctx);
    if (!mem_limit_check(ctx, size, reserved, flags)) return nullptr;
    mem_charge(ctx, mem_charged, vm_charged, flags);
  }
  mem_area* area = mem_area_alloc(memReq, reservation, mode);
  if (area == nullptr) {
    tree_guard guard(ctx);
    mem_uncharge(ctx, static_cast<uint64_t>(mem_charged), static_cast<uint64_t>(vm_charged));
    // What came from the reserve goes back to it.
    ctx->mem_rsrvd += static_cast<int64_t>(size) - mem_charged;
    ctx->vm_rsrvd += static_cast<int64_t>(reserved) - vm_charged;
    return nullptr;
  }
  mem_charge_difference(ctx, static_cast<int64_t>(area->size - size),
                        static_cast<int64_t>(area->reserved - reserved));
  return area;
}

void mem_area_aligned_sizes(uint64_t* size, uint64_t* reserved, int32_t mode) {
  if (*reserved < *size) *reserved = *size;
  switch (mode) {
    case MEM_AREA_HEAP:
      *size += 15;
      *reserved += 15;
      break;
    case MEM_AREA_VM:
      *size = round_up(*size, MEM_VM_GRANULARITY);
      *reserved = round_up(*reserved, MEM_VM_GRANULARITY);
      break;
    case MEM_AREA_HUGE:
      if (g_system_platform.huge_page_size) {
        *size = round_up(*size, g_system_platform.huge_page_size);
        *reserved = round_up(*reserved, g_system_platform.huge_page_size);
      }
      break;
    default:
      break;
  }
}

mem_area* mem_area_alloc(uint64_t size, uint64_t reserved, int32_t mode) {
  J480_ASSERT(MEM_MODULE, reserved >= size);
  if (mode < MEM_AREA_HEAP || mode > MEM_AREA_HUGE ||
      (mode == MEM_AREA_HUGE && g_system_platform.huge_page_size == 0)) {
    CV_ERROR(MEM_MODULE, "mem_area_alloc: invalid mode");
    return nullptr;
  }
  uint64_t asize = size, ares = reserved;
  mem_area_aligned_sizes(&asize, &ares, mode);
  void* p;
  if (mode == MEM_AREA_HEAP) {
    p = heap_area_get(asize);
  } else {
    p = vm_map(asize, ares, mode == MEM_AREA_HUGE);
    if (p == nullptr && mode == MEM_AREA_HUGE) {
      const uint64_t mib = 1024 * 1024;
      CV_WARN(MEM_MODULE,
              "mem_area_alloc: failed to allocate huge pages (errno: %d size:%dM res: %dM "
              "j480hugepagesize: %dM) retrying with normal mmap",
              errno, static_cast<int>(asize / mib), static_cast<int>(ares / mib),
              static_cast<int>(g_system_platform.huge_page_size / mib));
      return mem_area_alloc(size, reserved, MEM_AREA_VM);
    }
  }
  if (p == nullptr) return nullptr;
  mem_area* area = static_cast<mem_area*>(p);
  area->used = first_used(area);
  area->size = asize;
  area->reserved = ares;
  area->ref = 0;
  area->prev = area->next = nullptr;
  area->mode = mode;
  area->pad = 0;
  return area;
}

mem_area* mem_area_extend(mem_area* area, uint64_t size, uint64_t reserved) {
  if (size <= area->size) return area;
  if (reserved < area->reserved) reserved = area->reserved;
  mem_area_aligned_sizes(&size, &reserved, area->mode);
  mem_area* moved = area;
  switch (area->mode) {
    case MEM_AREA_HEAP: {
      if (size <= area->reserved) return nullptr;
      void* p = realloc(area, size);
      if (p == nullptr) return nullptr;
      moved = static_cast<mem_area*>(p);
      break;
    }
    case MEM_AREA_VM:
    case MEM_AREA_HUGE: {
      if (reserved > area->reserved) {
        void* p = px_mremap(area, area->reserved, reserved, 0);
        if (p == MAP_FAILED) p = px_mremap(area, area->reserved, reserved, MREMAP_MAYMOVE);
        if (p == MAP_FAILED) return nullptr;
        moved = static_cast<mem_area*>(p);
      }
      break;
    }
    default:
      CV_ERROR(MEM_MODULE, "mem_area_extend: invalid mode");
      return nullptr;
  }
  moved->size = size;
  moved->reserved = reserved;
  if (moved != area) {
    if (moved->prev) moved->prev->next = moved;
    if (moved->next) moved->next->prev = moved;
  }
  return moved;
}

void mem_area_free(mem_area* area) {
  if (area->mode == MEM_AREA_HEAP) heap_area_put(area);
  else px_munmap(area, area->reserved);
}

void* mem_mallocex_full(MemContext* ctx, uint64_t size, int flags) {
  J480_ASSERT(MEM_MODULE, (flags & MEM_ALLOC_VALID_FLAGS) == flags);
  if (__builtin_expect(size > kMaxRequest, 0)) return mem_alloc_failed(ctx, size, flags);
  const uint64_t allocsize = align_size(size);
  const uint64_t need = allocsize + kBlockHeader;
  const bool own = (flags & (J480_MEM_LARGE | J480_MEM_EXACT)) != 0;
  mem_area** list = own ? &ctx->large_areas : &ctx->areas;
  mem_area* area = *list;
  if (__builtin_expect(own || area == nullptr || area_room(area) < need, 0)) {
    area = mem_new_area(ctx, need, flags);
    if (area == nullptr) return mem_alloc_failed(ctx, size, flags);
    area->prev = nullptr;
    area->next = *list;
    if (*list) (*list)->prev = area;
    *list = area;
  }
  void* retval = mem_carve_block(area, size, allocsize, flags);
  if (!(flags & J480_MEM_LARGE)) mem_sink_head(list);
  return retval;
}

void* mem_callocex(MemContext* ctx, uint64_t size, int flags) {
  void* p = mem_mallocex(ctx, size, flags);
  if (p && mem_block_of(p)->area->mode != MEM_AREA_VM) memset(p, 0, size);
  return p;
}

void* mem_realloc(MemContext* ctx, void* block, uint64_t size, int flags) {
  return mem_realloc_impl(ctx, block, size, flags, false);
}

void* mem_reallocex(MemContext* ctx, void* block, uint64_t size, int flags) {
  return mem_realloc_impl(ctx, block, size, flags, true);
}

void mem_free(MemContext* ctx, void* ptr) {
  if (ptr == nullptr) return;
  mem_block* block = mem_block_of(ptr);
  J480_ASSERT(MEM_MODULE, !(block->flags & MEM_BLOCK_FREED));
  mem_area* area = block->area;
  J480_ASSERT(MEM_MODULE, area->ref > 0);
  block->flags |= MEM_BLOCK_FREED;
  if (--area->ref > 0) return;
  mem_unlink_area(ctx, area);
  {
    tree_guard guard(ctx);
    mem_uncharge(ctx, area->size, area->reserved);
  }
  mem_area_free(area);
}

char* mem_strdup(MemContext* ctx, const char* string) {
  return mem_strdup_flags(ctx, string, J480_MEM_ALLOWFAILURE);
}

char* mem_strdup_flags(MemContext* ctx, const char* string, int flags) {
  if (string == nullptr) return nullptr;
  const size_t n = strlen(string) + 1;
  char* p = static_cast<char*>(mem_mallocex(ctx, n, flags));
  if (p) memcpy(p, string, n);
  return p;
}

char* mem_printf(MemContext* ctx, int flags, const char* format, ...) {
  uint64_t len = 256;
  char* buf = static_cast<char*>(mem_mallocex(ctx, len, flags));
  if (buf == nullptr) return g_empty_string;
  for (;;) {
    va_list args;
    va_start(args, format);
    const int n = vsnprintf(buf, len, format, args);
    va_end(args);
    if (n >= 0 && static_cast<uint64_t>(n) < len) return buf;
    len = n < 0 ? len * 2 : static_cast<uint64_t>(n) + 1;
    char* grown = static_cast<char*>(mem_realloc(ctx, buf, len, flags & MEM_REALLOC_VALID_FLAGS));
    if (grown == nullptr) return g_empty_string;
    buf = grown;
  }
}

const char* mem_strdup_lower(MemContext* ctx, const char* string) {
  const char* s = string;
  while (*s && !(*s >= 'A' && *s <= 'Z')) s++;
  if (*s == '\0') return string;
  char* copy = mem_strdup(ctx, string);
  if (copy == nullptr) return nullptr;
  for (char* c = copy + (s - string); *c; c++)
    if (*c >= 'A' && *c <= 'Z') *c = static_cast<char>(*c - 'A' + 'a');
  return copy;
}

void* mem_calloc_plain(uint64_t size) { return calloc(1, size); }

bool mem_context_check(const MemContext* ctx, std::string* why) {
  if (ctx == nullptr) {
    if (why) *why = "null context";
    return false;
  }
  if (ctx->parent == nullptr && ctx->thread_safety != nullptr) {
    std::lock_guard<std::recursive_mutex> lock(g_root_lock);
    const MemContext* r = g_roots;
    while (r && r != ctx) r = r->next_root;
    if (r == nullptr) return check_fail(why, ctx, "root missing from the root list");
  }
  uint64_t m = 0, v = 0;
  return check_tree(ctx, why, &m, &v);
}
