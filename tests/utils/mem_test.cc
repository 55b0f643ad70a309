// Memory contexts: accounting against a model, area and block rules, limits, failure paths,
// removal and the string helpers; the system account: start-up from the configuration, grants.
#include "utils/mem.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <functional>
#include <map>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "support/test_support.h"
#include "utils/cvconfig.h"
#include "utils/cvlog.h"
#include "utils/longjmp_ctx.h"
#include "utils/posix.h"
#include "utils/system.h"

namespace {

using j480test::err_of, j480test::Esc, testing::IsSubstring;

constexpr uint64_t MiB = 1024 * 1024;

// Saves the process-wide memory state a test changes, and restores it; a root context per test.
class MemTest : public testing::Test {
 protected:
  static auto account() {
    return std::tie(g_system_account.maxMem, g_system_account.maxVM, g_system_account.curMem,
                    g_system_account.curVM, g_system_account.maxTrans);
  }
  void SetUp() override {
    {
      std::lock_guard<std::mutex> lock(g_system_account.lock);
      saved_ = account();
    }
    saved_settings_ = g_system_memory;
    saved_platform_ = g_system_platform;
    for (const char* facility : {"MEMCONTEXT", "SYSTEM"})
      cv_log_enabled(facility, CV_LOG_INFO);  // the logger reads its files before faults are armed
    root_ = mem_context_create(nullptr, "mem_test");
  }
  void TearDown() override {
    px_fault_disarm();
    mem_context_remove(root_);
    std::lock_guard<std::mutex> lock(g_system_account.lock);
    if (handback_checked_) {
      EXPECT_EQ(std::get<2>(account()), std::get<2>(saved_)) << "a share was not handed back";
      EXPECT_EQ(std::get<3>(account()), std::get<3>(saved_)) << "a share was not handed back";
    }
    account() = saved_;
    g_system_memory = saved_settings_;
    g_system_platform = saved_platform_;
  }
  static void expect_consistent(const MemContext* ctx) {
    std::string why;
    EXPECT_TRUE(mem_context_check(ctx, &why)) << why;
  }
  // Limits the account to what is in use now plus `room`.
  static void limit_account(uint64_t room) {
    std::lock_guard<std::mutex> lock(g_system_account.lock);
    g_system_account.maxMem = g_system_account.curMem + room;
  }

  MemContext* root_ = nullptr;
  bool handback_checked_ = true;
  std::tuple<uint64_t, uint64_t, uint64_t, uint64_t, uint64_t> saved_;
  system_memory_settings saved_settings_{};
  system_platform saved_platform_{};
};
using MemDeathTest = MemTest;

uint8_t pattern(uint32_t seed, uint64_t i) {
  return static_cast<uint8_t>(seed + i * 31 + (i >> 8));
}

void fill(void* p, uint64_t size, uint32_t seed) {
  auto* b = static_cast<uint8_t*>(p);
  for (uint64_t i = 0; i < size; i++) b[i] = pattern(seed, i);
}

// Checks the whole of a small block, and samples of a big one.
bool intact(const void* p, uint64_t size, uint32_t seed) {
  const auto* b = static_cast<const uint8_t*>(p);
  const uint64_t stride = size <= 4096 ? 1 : 257;
  for (uint64_t i = 0; i < size; i += stride)
    if (b[i] != pattern(seed, i)) return false;
  return size == 0 || b[size - 1] == pattern(seed, size - 1);
}

int live_blocks(const MemContext* ctx) {
  int n = 0;
  for (const mem_area* list : {ctx->areas, ctx->large_areas})
    for (const mem_area* a = list; a; a = a->next) n += a->ref;
  return n;
}

// ---- Randomized operations against a model ----

struct ModelBlock {  // a live block, the seed of its content, and the index of its context
  void* p;
  uint64_t size;
  uint32_t seed;
  int ctx;
};

struct Model {
  std::vector<MemContext*> ctxs;  // index 0 is the test's root; a child comes after its parent
  std::vector<int> parent;        // -1 for the root, -2 once removed
  std::vector<ModelBlock> blocks;

  bool removed(int i) const { return parent[i] == -2; }
};

void run_random(MemContext* root, uint32_t seed, int steps) {
  std::mt19937 rng(seed);
  auto pick = [&rng](uint64_t lo, uint64_t hi) {
    return std::uniform_int_distribution<uint64_t>(lo, hi)(rng);
  };
  Model m;
  m.ctxs.push_back(root);
  m.parent.push_back(-1);
  uint32_t next_seed = seed * 7919u;
  const int flag_choices[] = {0, 0, 0, J480_MEM_LARGE, J480_MEM_EXACT, J480_MEM_ALLOWFAILURE,
                              J480_MEM_LARGE | J480_MEM_ALLOWFAILURE, J480_MEM_FORCE};

  auto random_ctx = [&]() {
    for (;;) {
      int i = static_cast<int>(pick(0, m.ctxs.size() - 1));
      if (!m.removed(i)) return i;
    }
  };
  auto random_size = [&]() -> uint64_t {
    uint64_t r = pick(0, 99);
    if (r < 70) return pick(0, 256);
    if (r < 90) return pick(257, 20000);
    if (r < 98) return pick(20001, 300000);
    return pick(500000, 1200000);
  };

  for (int step = 0; step < steps; step++) {
    const uint64_t op = pick(0, 99);
    if (op < 40 || m.blocks.empty()) {  // allocate or zero-allocate
      const int c = random_ctx();
      const uint64_t size = random_size();
      const int flags = flag_choices[pick(0, 7)];
      const bool zeroed = pick(0, 5) == 0;
      void* p =
          zeroed ? mem_callocex(m.ctxs[c], size, flags) : mem_mallocex(m.ctxs[c], size, flags);
      ASSERT_NE(p, nullptr);
      ASSERT_EQ(reinterpret_cast<uintptr_t>(p) % J480_ALIGN, 0u);
      const auto* z = static_cast<const uint8_t*>(p);
      for (uint64_t i = 0; zeroed && i < size; i++) ASSERT_EQ(z[i], 0) << "calloc byte " << i;
      fill(p, size, ++next_seed);
      m.blocks.push_back({p, size, next_seed, c});
    } else if (op < 60) {  // free
      const size_t i = pick(0, m.blocks.size() - 1);
      mem_free(m.ctxs[m.blocks[i].ctx], m.blocks[i].p);
      m.blocks.erase(m.blocks.begin() + static_cast<long>(i));
    } else if (op < 80) {  // grow, keeping or zeroing the tail
      ModelBlock& b = m.blocks[pick(0, m.blocks.size() - 1)];
      const uint64_t size = b.size + pick(0, b.size + 300);
      const bool ex = pick(0, 1) == 0;
      const int flags = pick(0, 3) == 0 ? J480_MEM_ALLOWFAILURE : 0;
      void* p = ex ? mem_reallocex(m.ctxs[b.ctx], b.p, size, flags)
                   : mem_realloc(m.ctxs[b.ctx], b.p, size, flags);
      ASSERT_NE(p, nullptr);
      ASSERT_EQ(reinterpret_cast<uintptr_t>(p) % J480_ALIGN, 0u);
      ASSERT_TRUE(intact(p, b.size, b.seed)) << "realloc lost the contents";
      const auto* t = static_cast<const uint8_t*>(p);
      for (uint64_t i = b.size; ex && i < size; i++) ASSERT_EQ(t[i], 0) << "tail byte " << i;
      b.p = p;
      b.size = size;
      b.seed = ++next_seed;
      fill(p, size, b.seed);
    } else if (op < 90) {  // new child
      if (m.ctxs.size() < 16) {
        const int c = random_ctx();
        m.ctxs.push_back(mem_context_create(m.ctxs[c], "child"));
        m.parent.push_back(c);
      }
    } else {  // remove a subtree
      const int c = random_ctx();
      if (c != 0) {
        EXPECT_EQ(mem_context_remove(m.ctxs[c]), nullptr);
        for (int i = c; i < static_cast<int>(m.ctxs.size()); i++)
          if (i == c || (m.parent[i] >= 0 && m.removed(m.parent[i]))) m.parent[i] = -2;
        std::erase_if(m.blocks, [&](const ModelBlock& b) { return m.removed(b.ctx); });
      }
    }

    std::string why;
    ASSERT_TRUE(mem_context_check(root, &why))
        << "seed " << seed << " step " << step << " op " << op << ": " << why;
    std::map<int, int> per_ctx;
    for (const ModelBlock& b : m.blocks) {
      ASSERT_TRUE(intact(b.p, b.size, b.seed)) << "seed " << seed << " step " << step;
      per_ctx[b.ctx]++;
    }
    for (size_t i = 0; i < m.ctxs.size(); i++) {
      if (m.removed(static_cast<int>(i))) continue;
      ASSERT_EQ(live_blocks(m.ctxs[i]), per_ctx[static_cast<int>(i)]) << "step " << step;
    }
  }
}

TEST_F(MemTest, RandomOperationsKeepCountersEqualToTheLiveAreas) {
  for (uint32_t seed = 1; seed <= 6; seed++) {
    MemContext* sub = mem_context_create(root_, "random");
    run_random(sub, seed, 1500);
    if (HasFatalFailure()) return;
    mem_context_remove(sub);
    EXPECT_EQ(root_->totMem, 0u);
    EXPECT_EQ(root_->totVM, 0u);
  }
}

// ---- Areas and blocks ----

TEST_F(MemTest, HugePageFailureFallsBackToNormalMapsWithAWarning) {
  g_system_platform.huge_page_size = 2 * MiB;
  MemContext* c = mem_context_create(root_, "c");
  void* p = nullptr;
  const std::string err = err_of([&] {
    px_fault_arm(1, ENOMEM);
    p = mem_mallocex(c, 3 * MiB, J480_MEM_LARGE);
    px_fault_disarm();
  });
  ASSERT_NE(p, nullptr);
  EXPECT_PRED_FORMAT2(IsSubstring,
                      "mem_area_alloc: failed to allocate huge pages (errno: 12 size:4M res: 4M "
                      "j480hugepagesize: 2M) retrying with normal mmap",
                      err);
  EXPECT_EQ(mem_block_of(p)->area->mode, MEM_AREA_VM);
  EXPECT_EQ(c->curMem, 3 * MiB + 65536) << "the charge follows the area it got";
  expect_consistent(root_);
  c->no_huge_pages = 1;
  void* q = mem_mallocex(c, 3 * MiB, J480_MEM_LARGE);
  EXPECT_EQ(mem_block_of(q)->area->mode, MEM_AREA_VM);
}

// ---- Limits ----

TEST_F(MemTest, ARootShareGrowsWithinTheAccountAndRefusesBeyondIt) {
  g_system_memory.min_mem_per_transaction = 4 * MiB;
  g_system_memory.min_trans_mem_inc = 1 * MiB;
  limit_account(40 * MiB);
  MemContext* child = mem_context_create(root_, "child");
  ASSERT_EQ(mem_context_claim_minimum(root_, 0), 1);
  EXPECT_EQ(root_->maxMem, 4 * MiB);
  EXPECT_EQ(root_->maxVM, 4 * MiB);
  EXPECT_EQ(mem_context_claim_minimum(root_, 0), 1) << "a second claim changes nothing";
  EXPECT_EQ(root_->maxMem, 4 * MiB);

  mem_malloc(child, 100);
  EXPECT_EQ(root_->maxMem, 4 * MiB);
  void* big = mem_mallocex(child, 8 * MiB, J480_MEM_ALLOWFAILURE);
  ASSERT_NE(big, nullptr);
  EXPECT_GE(root_->maxMem, root_->totMem);
  expect_consistent(root_);

  const uint64_t before = child->curMem;
  err_of([&] {
    EXPECT_EQ(mem_mallocex(child, 64 * MiB, J480_MEM_ALLOWFAILURE), nullptr);
    EXPECT_EQ(mem_realloc(child, big, 64 * MiB, J480_MEM_ALLOWFAILURE), nullptr);
  });
  EXPECT_EQ(child->curMem, before);
  expect_consistent(root_);

  void* forced = mem_mallocex(child, 64 * MiB, J480_MEM_FORCE);
  EXPECT_NE(forced, nullptr) << "a forced request passes the limit";
  expect_consistent(root_);

  // Removing the child hands its use back; the forced grant made the share exactly the use, and
  // the root keeps one byte of it, as 0 would mean no limit.
  EXPECT_EQ(root_->maxMem, root_->totMem);
  mem_context_remove(child);
  EXPECT_EQ(root_->maxMem, 1u);
  expect_consistent(root_);
}

TEST_F(MemTest, AReserveThatCoversTheAreaExactlySufficesAndAFailedMapRefundsIt) {
  // Reserves around what a heap area (100 bytes) and a mapped area (1 MiB) cost; a failed map
  // gives back what it drew.
  struct {
    uint64_t size;
    int flags;
    int64_t dmem, dvm;  // reserve minus cost
    bool fail_map, granted;
  } cases[] = {
      {100, 0, 0, 0, false, true},           {100, 0, -1, 0, false, false},
      {100, 0, 0, -1, false, false},         {1 * MiB, J480_MEM_LARGE, 0, 0, false, true},
      {1 * MiB, J480_MEM_LARGE, 0, -1, false, false}, {1 * MiB, J480_MEM_LARGE, 5, 7, true, false},
  };
  for (const auto& k : cases) {
    const int flags = k.flags | J480_MEM_USE_RESERVED_ONLY | J480_MEM_ALLOWFAILURE;
    int64_t cost_mem = 0, cost_vm = 0;
    err_of([&] {
      MemContext* probe = mem_context_create(root_, "probe");
      probe->mem_rsrvd = probe->vm_rsrvd = 64 * MiB;
      ASSERT_NE(mem_mallocex(probe, k.size, flags), nullptr);
      cost_mem = 64 * MiB - probe->mem_rsrvd;
      cost_vm = 64 * MiB - probe->vm_rsrvd;
      mem_context_remove(probe);
    });
    MemContext* c = mem_context_create(root_, "resv");
    c->mem_rsrvd = cost_mem + k.dmem;
    c->vm_rsrvd = cost_vm + k.dvm;
    void* p = nullptr;
    const std::string err = err_of([&] {
      if (k.fail_map) px_fault_arm(1, ENOMEM);
      p = mem_mallocex(c, k.size, flags);
      px_fault_disarm();
    });
    EXPECT_EQ(p != nullptr, k.granted) << k.size << " " << k.dmem << " " << k.dvm;
    const std::string n = std::to_string(cost_mem), v = std::to_string(cost_vm);
    const std::string said =
        k.granted ? "Context resv uses " + n + " (mem) " + v + " (vm) of the reserved memory."
                  : "Not enough memory reserved in resv context for USE_RESERVED_ONLY allocation. "
                    "mem_req = " + n + " mem_reserved = " + std::to_string(cost_mem + k.dmem) +
                        " vm_req = " + v + " vm_reserved = " + std::to_string(cost_vm + k.dvm);
    EXPECT_PRED_FORMAT2(IsSubstring, k.fail_map ? "" : said, err);
    EXPECT_EQ(c->mem_rsrvd, k.granted ? k.dmem : cost_mem + k.dmem) << k.size;
    EXPECT_EQ(c->vm_rsrvd, k.granted ? k.dvm : cost_vm + k.dvm) << k.size;
    EXPECT_EQ(c->curMem + c->curVM, 0u) << k.size;
    if (!k.granted) expect_consistent(root_);  // the checker holds while no reserve was drawn
    mem_context_remove(c);
  }
}

// ---- Misuse and out of memory ----

TEST_F(MemDeathTest, MisuseAndOutOfMemoryEndByAssertion) {
  MemContext* c = mem_context_create(root_, "doomed");
  void* p = mem_malloc(c, 100);
  EXPECT_EQ(mem_realloc(c, p, 97, 0), p) << "a smaller size within the allocation unit is kept";
  void* freed = mem_malloc(c, 10);  // p keeps the area, and the freed header, alive
  mem_free(c, freed);
  const std::pair<std::function<void()>, std::string> cases[] = {
      {[&] { mem_realloc(c, p, 50, 0); }, Esc("assertion \"allocsize >= block->size\" failed")},
      {[&] { mem_realloc(c, p, 200, J480_MEM_LARGE); },
       Esc("assertion \"(flags & MEM_REALLOC_VALID_FLAGS) == flags\" failed")},
      {[&] { mem_mallocex(c, 10, 1); },
       Esc("assertion \"(flags & MEM_ALLOC_VALID_FLAGS) == flags\"")},
      {[&] { mem_free(c, freed); }, Esc("assertion \"!(block->flags & MEM_BLOCK_FREED)\" failed")},
      {[] { mem_context_remove(nullptr); },
       "ASSERTION FAILED(.|\n)*CODE: ctx(.|\n)*MESG: Trying to free NULL memctx"},
      {[&] {
         px_fault_arm(1, ENOMEM);
         mem_mallocex(c, 1 * MiB, J480_MEM_LARGE);
       },
       "mem_malloc: OUT OF MEMORY(.|\n)*"
       "mem_malloc: trying to allocate 1048576 bytes in context doomed\\(0x[0-9a-f]+\\) with "
       "flags 4(.|\n)*SystemContext curMem=(.|\n)*doomed(.|\n)*" +
           Esc("assertion \"flags & J480_MEM_ALLOWFAILURE\" failed")},
  };
  for (const auto& [call, text] : cases) EXPECT_DEATH(call(), text);
  limit_account(1 * MiB);  // a share that can't grow refuses without the flag too
  g_system_memory.min_mem_per_transaction = 1 * MiB;
  g_system_memory.min_trans_mem_inc = 1 * MiB;
  ASSERT_EQ(mem_context_claim_minimum(root_, 0), 1);
  EXPECT_DEATH(mem_mallocex(c, 8 * MiB, 0),
               Esc("assertion \"flags & J480_MEM_ALLOWFAILURE\" failed"));
}

// ---- Removal ----

std::vector<std::string> g_cleanup_log;
void log_cleanup(void* arg) { g_cleanup_log.push_back(static_cast<const char*>(arg)); }

TEST_F(MemTest, RemovalRunsCleanupsNewestFirstChildrenFirstAndKeepsACallersRecord) {
  g_cleanup_log.clear();
  MemContext rec;
  ASSERT_EQ(mem_context_init(&rec, root_, "rec"), &rec);
  EXPECT_EQ(rec.self_allocated, 0);
  MemContext* inner = mem_context_create(&rec, "inner");
  MemContext nested;
  mem_context_init(&nested, inner, "nested");
  mem_add_cleanup(&rec, const_cast<char*>("r1"), log_cleanup);
  mem_add_cleanup(&rec, const_cast<char*>("r2"), log_cleanup);
  mem_add_cleanup(inner, const_cast<char*>("i1"), log_cleanup);
  mem_malloc(&nested, 500);
  mem_malloc(&rec, 1000);
  mem_mallocex(&rec, 1000, J480_MEM_LARGE);
  expect_consistent(root_);
  EXPECT_EQ(mem_context_remove(&rec), &rec);
  EXPECT_EQ(g_cleanup_log, (std::vector<std::string>{"i1", "r2", "r1"}));
  EXPECT_STREQ(rec.name, "rec");
  EXPECT_TRUE(rec.areas == nullptr && rec.large_areas == nullptr && rec.first_child == nullptr);
  EXPECT_STREQ(nested.name, "nested") << "a caller's record deep in the tree is not freed";
  EXPECT_EQ(nested.areas, nullptr);
  EXPECT_EQ(root_->first_child, nullptr);
  EXPECT_EQ(root_->totMem, 0u);
  expect_consistent(root_);
}

TEST_F(MemTest, PrintfGrowsPastItsFirst256BytesAndStrdupLowerCopiesOnlyUpperCase) {
  MemContext* c = mem_context_create(root_, "c");
  const std::string s255(255, 'x'), s256(256, 'y');
  char* a = mem_printf(c, 0, "%s", s255.c_str());
  EXPECT_EQ(a, s255);
  EXPECT_EQ(mem_block_of(a)->size, 256u);
  char* b = mem_printf(c, 0, "%d-%s", 42, s256.c_str());
  EXPECT_EQ(b, "42-" + s256);
  EXPECT_EQ(mem_block_of(b)->size, 260u) << "the result plus one";
  const char* plain = "already lower 123";
  EXPECT_EQ(mem_strdup_lower(c, plain), plain);
  const char* mixed = "MiXeD Case AZ";
  EXPECT_STREQ(mem_strdup_lower(c, mixed), "mixed case az");
  EXPECT_STREQ(mixed, "MiXeD Case AZ");
  EXPECT_EQ(mem_strdup(c, nullptr), nullptr);
  expect_consistent(root_);
}

// ---- The system account ----

// System start-up from a command-line layer over the defaults; the test changes the account.
class SystemTest : public MemTest {
 protected:
  static constexpr int64_t MiB = 1024 * 1024;  // signed, as grants are
  void SetUp() override {
    MemTest::SetUp();
    handback_checked_ = false;
    config_ = cvconfig_create();
    cmdline_ = cvconfig_layer_create(nullptr, "cmdline", cvconfig_defaults(config_));
  }
  void TearDown() override {
    cvconfig_destroy(config_);
    system_exit();
    MemTest::TearDown();
  }
  std::string init_log() {
    return err_of([&] { EXPECT_EQ(system_init(cmdline_), 1); });
  }

  cvconfig* config_ = nullptr;
  cvconfig_layer* cmdline_ = nullptr;
};

TEST_F(SystemTest, WithoutAMemorySizeTheLimitIsAShareOfPhysicalMemory) {
  ASSERT_EQ(cvconfig_set_dbl(cmdline_, CVGROUP_MEMORY, CVPROP_MAX_MEMUSE, 0.25), 1);
  const std::string log = init_log();
  const uint64_t phys = static_cast<uint64_t>(sysconf(_SC_PHYS_PAGES)) *
                        static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
  EXPECT_EQ(g_system_platform.phys_mem, phys);
  const uint64_t limit = static_cast<uint64_t>(static_cast<double>(phys) * 0.25);
  EXPECT_EQ(g_system_account.maxMem, limit);
  EXPECT_EQ(g_system_account.maxVM, SYSTEM_MAX_VM);
  const std::string said =
      "SYSTEM:Setting the query memory limit to " + std::to_string(limit) + " bytes\n";
  EXPECT_PRED_FORMAT2(IsSubstring, said, log);
}

TEST_F(SystemTest, OverallocationIsCutToTheMemoryLimitAndWrittenBack) {
  ASSERT_EQ(cvconfig_set_lng(cmdline_, CVGROUP_MEMORY, CVPROP_MAX_MEMORY_SIZE, 1024 * MiB), 1);
  const std::string log = init_log();
  EXPECT_EQ(g_system_account.maxMem, 1024u * MiB);
  EXPECT_PRED_FORMAT2(testing::IsNotSubstring, "Setting the query memory limit", log);
  EXPECT_PRED_FORMAT2(IsSubstring,
                      "SYSTEM:Limiting overallocation to maximum query memory size of 1073741824 "
                      "(was 2147483648).\n",
                      log);
  EXPECT_EQ(cvconfig_get_lng(cmdline_, CVGROUP_MEMORY, CVPROP_MAX_OVERALLOC), 1024 * MiB);
  EXPECT_EQ(g_system_memory.max_overalloc, 1024 * MiB);
  EXPECT_EQ(g_system_memory.min_mem_per_transaction, 10 * MiB);
  EXPECT_DOUBLE_EQ(g_system_memory.large_allocation_limit, 0.8);

  MemContext* root = mem_context_create(nullptr, "configured");
  EXPECT_EQ(root->overalloc, 1024 * MiB) << "a root takes max_overalloc once configured";
  mem_context_remove(root);
  system_exit();
  root = mem_context_create(nullptr, "unconfigured");
  EXPECT_EQ(root->overalloc, 0);
  mem_context_remove(root);
}

TEST_F(SystemTest, HugePagesTakeTheCoreCountAsLimitAndAreDroppedWhenUnavailable) {
  ASSERT_EQ(cvconfig_set_bool(cmdline_, CVGROUP_MEMORY, CVPROP_USE_HUGE_TLB, 1), 1);
  ASSERT_EQ(cvconfig_set_lng(cmdline_, CVGROUP_SYSTEM, CVPROP_NUM_CORES, 6), 1);
  const std::string log = err_of([&] {
    px_fault_arm(1, EPERM);  // the huge-page probe
    system_init(cmdline_);
    px_fault_disarm();
  });
  EXPECT_EQ(cvconfig_get_lng(cmdline_, CVGROUP_MEMORY, CVPROP_HUGE_TLB_LIM), 6);
  EXPECT_EQ(g_system_memory.huge_tlb_lim, 6);
  EXPECT_EQ(g_system_platform.huge_page_size, 0u);
  EXPECT_PRED_FORMAT2(IsSubstring,
                      "WARN:SYSTEM:j480_posix_init: unable to get SeLockMemoryPrivilege, "
                      "disabling huge pages.\n",
                      log);

  ASSERT_EQ(cvconfig_set_bool(cmdline_, CVGROUP_MEMORY, CVPROP_USE_HUGE_TLB, 0), 1);
  init_log();
  EXPECT_EQ(g_system_platform.huge_page_size, 0u) << "off unless asked for";
}

TEST_F(SystemTest, GrantsRoundUpToTheStepAndRespectTheLimit) {
  g_system_memory.min_trans_mem_inc = 10 * MiB;
  g_system_memory.large_allocation_limit = 0.5;
  g_system_account.curMem = 0;
  g_system_account.maxMem = 100 * MiB;
  EXPECT_EQ(system_grant_mem(1, 0), 10 * MiB) << "a small request gets a whole step";
  EXPECT_EQ(system_grant_mem(30 * MiB, 0), 30 * MiB);
  EXPECT_EQ(system_grant_mem(55 * MiB, 0), 55 * MiB);
  EXPECT_EQ(system_grant_mem(2 * MiB, 0), 2 * MiB) << "no room for a step: the amount itself";
  EXPECT_EQ(system_grant_mem(5 * MiB, 0), 0) << "no room at all";
  EXPECT_EQ(system_grant_mem(5 * MiB, J480_MEM_FORCE), 10 * MiB) << "forced: the step anyway";
  EXPECT_EQ(g_system_account.curMem, 107u * MiB);
  EXPECT_EQ(system_grant_mem(-57 * MiB, 0), -57 * MiB);
  EXPECT_EQ(g_system_account.curMem, 50u * MiB);
  EXPECT_EQ(system_grant_mem(1, J480_MEM_OVERALLOC), 0) << "the limit scaled to 50 MiB is full";
  EXPECT_EQ(system_grant_mem(1, 0), 10 * MiB);
  EXPECT_EQ(system_grant_mem(INT64_MAX - 1, J480_MEM_FORCE), 0) << "past 63 bits";
  EXPECT_GE(g_system_account.hiMem, 107u * MiB);
}

}  // namespace
