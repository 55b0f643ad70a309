// system: the process-wide memory account, the platform memory layer and the memory start-up.
//
// Owns the system account (the memory and address space granted to root contexts, under its own
// lock), the memory settings the contexts read, the page sizes and physical memory of the
// machine, and the semaphore of transaction permits. Before system_init runs, the account has no
// memory limit and the settings hold their defaults, so contexts work without a configuration.
// It does not allocate from memory contexts and keeps no pointer to the configuration.
#ifndef J480_UTILS_SYSTEM_H
#define J480_UTILS_SYSTEM_H

#include <cstdint>
#include <mutex>
#include <semaphore>

struct cvconfig_layer;

// The system account. `maxMem` 0 means no limit (only before system_init).
struct system_account {
  std::mutex lock;
  uint64_t curMem, maxMem, hiMem;
  uint64_t curVM, maxVM, hiVM;
  uint64_t curTrans, maxTrans;
};
extern system_account g_system_account;

// The memory settings, read from the configuration by system_init.
struct system_memory_settings {
  int32_t configured;               // system_init has run
  int32_t use_huge_tlb;
  int64_t huge_tlb_lim;
  int64_t min_mem_per_transaction;
  int64_t min_trans_mem_inc;
  int64_t max_overalloc;            // a root's `overalloc` once configured
  double large_allocation_limit;    // scale of the limit for J480_MEM_OVERALLOC requests
};
extern system_memory_settings g_system_memory;

// The platform memory layer.
struct system_platform {
  uint64_t page_size;
  uint64_t huge_page_size;  // 0: no huge pages
  uint64_t phys_mem;
};
extern system_platform g_system_platform;

// Default address-space limit of the account: 2^42.
constexpr uint64_t SYSTEM_MAX_VM = 1ull << 42;

// Fills the platform layer: page size, physical memory, and the huge page size (2 MiB where
// `use_huge_tlb` is set and MAP_HUGETLB works, else 0 with a warning).
void j480_posix_init(int use_huge_tlb);

// Memory start-up, step 1 of kernel_init: reads the memory settings from `config`, initialises
// the platform layer, sets the account's limits and makes the semaphore of `max_transactions`
// permits. Writes `huge_tlb_lim` and `max_overalloc` back to `config` where it adjusts them.
// Returns 1. Calling it again re-reads the configuration.
int system_init(cvconfig_layer* config);
// Ends the memory subsystem: destroys the semaphore; the settings fall back to their defaults.
void system_exit();
// The semaphore of transaction permits; null outside system_init/system_exit.
std::counting_semaphore<>* system_transaction_semaphore();

// Grants of the account: add `amount` (signed) to curMem or curVM within the limit, rounding a
// small positive request up to `min_trans_mem_inc`. Returns what was granted, 0 when refused.
// J480_MEM_FORCE lifts the limit; J480_MEM_OVERALLOC scales it by `large_allocation_limit`.
int64_t system_grant_mem(int64_t amount, int flags);
int64_t system_grant_vm(int64_t amount, int flags);

#endif  // J480_UTILS_SYSTEM_H
