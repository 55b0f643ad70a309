// system: the system account, the platform memory layer and the memory start-up.
#include "utils/system.h"

#include <unistd.h>

#include <cinttypes>
#include <cstdint>

#include "utils/cvconfig.h"
#include "utils/cvlog.h"
#include "utils/mem.h"
#include "utils/posix.h"

#define SYSTEM_MODULE "SYSTEM"

namespace {

constexpr uint64_t kHugePageSize = 2ull * 1024 * 1024;

constexpr system_memory_settings default_settings() {
  system_memory_settings s{};
  s.configured = 0;
  s.use_huge_tlb = 0;
  s.huge_tlb_lim = 0;
  s.min_mem_per_transaction = 10ll * 1024 * 1024;
  s.min_trans_mem_inc = 10ll * 1024 * 1024;
  s.max_overalloc = 2ll * 1024 * 1024 * 1024;
  s.large_allocation_limit = 0.8;
  return s;
}

std::counting_semaphore<>* g_transactions = nullptr;

// One grant on one side of the account; called with the account's lock held.
int64_t grant(uint64_t* cur, uint64_t* hi, uint64_t limit, int64_t amount, int flags) {
  if (amount == 0) return 0;
  if (amount < 0) {  // a hand-back is always taken
    const uint64_t back = static_cast<uint64_t>(-amount);
    *cur -= back < *cur ? back : *cur;
    return amount;
  }
  const int64_t step = g_system_memory.min_trans_mem_inc;
  int64_t attempt = amount < step ? step : amount;
  const bool forced = (flags & J480_MEM_FORCE) != 0;
  bool enforce = limit != 0;  // no limit before the start-up has set one
  double room = 0;
  if (enforce) {
    double lim = static_cast<double>(limit);
    if (flags & J480_MEM_OVERALLOC) lim *= g_system_memory.large_allocation_limit;
    else if (forced) enforce = false;
    room = lim - static_cast<double>(*cur);
  }
  if (enforce && room < static_cast<double>(attempt)) attempt = amount;
  if ((enforce && room < static_cast<double>(attempt) && !forced) ||
      *cur + static_cast<uint64_t>(attempt) > static_cast<uint64_t>(INT64_MAX))
    return 0;
  *cur += static_cast<uint64_t>(attempt);
  if (*hi < *cur) *hi = *cur;
  return attempt;
}

}  // namespace

system_account g_system_account{{}, 0, 0, 0, 0, SYSTEM_MAX_VM, 0, 0, 0};
system_memory_settings g_system_memory = default_settings();
system_platform g_system_platform = {4096, 0, 0};

int64_t system_grant_mem(int64_t amount, int flags) {
  std::lock_guard<std::mutex> lock(g_system_account.lock);
  return grant(&g_system_account.curMem, &g_system_account.hiMem, g_system_account.maxMem, amount,
               flags);
}

int64_t system_grant_vm(int64_t amount, int flags) {
  std::lock_guard<std::mutex> lock(g_system_account.lock);
  return grant(&g_system_account.curVM, &g_system_account.hiVM, g_system_account.maxVM, amount,
               flags);
}

void j480_posix_init(int use_huge_tlb) {
  const long page = sysconf(_SC_PAGESIZE);
  const long pages = sysconf(_SC_PHYS_PAGES);
  g_system_platform.page_size = page > 0 ? static_cast<uint64_t>(page) : 4096;
  g_system_platform.phys_mem =
      pages > 0 ? static_cast<uint64_t>(pages) * g_system_platform.page_size : 0;
  g_system_platform.huge_page_size = 0;
  if (!use_huge_tlb) return;
  // Huge pages are usable where the kernel hands out a huge-page map.
  void* probe = px_mmap(nullptr, kHugePageSize, PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS | MAP_HUGETLB, -1, 0);
  if (probe == MAP_FAILED) {
    CV_WARN(SYSTEM_MODULE,
            "j480_posix_init: unable to get SeLockMemoryPrivilege, disabling huge pages.");
    return;
  }
  px_munmap(probe, kHugePageSize);
  g_system_platform.huge_page_size = kHugePageSize;
}

int system_init(cvconfig_layer* config) {
  bool limit_from_phys = false;
  bool overalloc_cut = false;
  int64_t overalloc_was = 0;
  {
    std::lock_guard<std::mutex> lock(g_system_account.lock);
    system_memory_settings s = default_settings();
    s.use_huge_tlb = cvconfig_get_bool(config, CVGROUP_MEMORY, CVPROP_USE_HUGE_TLB);
    s.huge_tlb_lim = cvconfig_get_lng(config, CVGROUP_MEMORY, CVPROP_HUGE_TLB_LIM);
    if (s.use_huge_tlb && s.huge_tlb_lim == 0) {
      s.huge_tlb_lim = cvconfig_get_lng(config, CVGROUP_SYSTEM, CVPROP_NUM_CORES);
      cvconfig_set_lng(config, CVGROUP_MEMORY, CVPROP_HUGE_TLB_LIM, s.huge_tlb_lim);
    }
    j480_posix_init(s.use_huge_tlb);

    const double max_memuse = cvconfig_get_dbl(config, CVGROUP_MEMORY, CVPROP_MAX_MEMUSE);
    int64_t max_memory_size = cvconfig_get_lng(config, CVGROUP_MEMORY, CVPROP_MAX_MEMORY_SIZE);
    if (max_memory_size < 1) {
      max_memory_size =
          static_cast<int64_t>(static_cast<double>(g_system_platform.phys_mem) * max_memuse);
      limit_from_phys = true;
    }
    g_system_account.maxMem = static_cast<uint64_t>(max_memory_size);
    g_system_account.maxVM = SYSTEM_MAX_VM;
    g_system_account.maxTrans =
        static_cast<uint64_t>(cvconfig_get_lng(config, CVGROUP_SYSTEM, CVPROP_MAX_TRANSACTIONS));
    g_system_account.curTrans = 0;

    s.max_overalloc = cvconfig_get_lng(config, CVGROUP_MEMORY, CVPROP_MAX_OVERALLOC);
    if (s.max_overalloc > max_memory_size) {
      overalloc_was = s.max_overalloc;
      s.max_overalloc = max_memory_size;
      cvconfig_set_lng(config, CVGROUP_MEMORY, CVPROP_MAX_OVERALLOC, s.max_overalloc);
      overalloc_cut = true;
    }
    s.min_mem_per_transaction =
        cvconfig_get_lng(config, CVGROUP_MEMORY, CVPROP_MIN_MEM_PER_TRANSACTION);
    s.min_trans_mem_inc = cvconfig_get_lng(config, CVGROUP_MEMORY, CVPROP_MIN_TRANS_MEM_INC);
    s.large_allocation_limit =
        cvconfig_get_dbl(config, CVGROUP_MEMORY, CVPROP_LARGE_ALLOCATION_LIMIT);
    s.configured = 1;
    g_system_memory = s;

    delete g_transactions;
    const int64_t permits = static_cast<int64_t>(g_system_account.maxTrans);
    g_transactions = new std::counting_semaphore<>(permits > 0 ? permits : 0);
  }
  // Logged outside the account's lock: the logger may take memory of its own.
  if (limit_from_phys)
    CV_INFO(SYSTEM_MODULE, "Setting the query memory limit to %" PRIu64 " bytes",
            g_system_account.maxMem);
  if (overalloc_cut)
    CV_INFO(SYSTEM_MODULE,
            "Limiting overallocation to maximum query memory size of %" PRIu64 " (was %lld).",
            g_system_account.maxMem, static_cast<long long>(overalloc_was));
  return 1;
}

void system_exit() {
  std::lock_guard<std::mutex> lock(g_system_account.lock);
  delete g_transactions;
  g_transactions = nullptr;
  g_system_memory = default_settings();
}

std::counting_semaphore<>* system_transaction_semaphore() { return g_transactions; }
