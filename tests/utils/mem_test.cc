// Memory contexts: accounting against a model, area and block rules, limits, failure paths,
// removal and the string helpers.
#include "utils/mem.h"

#include <gtest/gtest.h>

#include "support/test_support.h"

#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "utils/cvlog.h"
#include "utils/longjmp_ctx.h"
#include "utils/posix.h"
#include "utils/system.h"

namespace {

using j480test::err_of;

constexpr uint64_t MiB = 1024 * 1024;

// Saves the process-wide memory state a test changes, and restores it.
class MemTest : public testing::Test {
 protected:
  void SetUp() override {
    std::lock_guard<std::mutex> lock(g_system_account.lock);
    saved_mem_ = g_system_account.maxMem;
    saved_vm_ = g_system_account.maxVM;
    saved_cur_mem_ = g_system_account.curMem;
    saved_cur_vm_ = g_system_account.curVM;
    saved_settings_ = g_system_memory;
    saved_platform_ = g_system_platform;
    cv_log_enabled("MEMCONTEXT",
                   CV_LOG_INFO);  // the logger reads its files before faults are armed
    root_ = mem_context_create(nullptr, "mem_test");
  }
  void TearDown() override {
    px_fault_disarm();
    if (root_) mem_context_remove(root_);
    std::lock_guard<std::mutex> lock(g_system_account.lock);
    EXPECT_EQ(g_system_account.curMem, saved_cur_mem_) << "a share was not handed back";
    EXPECT_EQ(g_system_account.curVM, saved_cur_vm_) << "a share was not handed back";
    g_system_account.maxMem = saved_mem_;
    g_system_account.maxVM = saved_vm_;
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
  uint64_t saved_mem_ = 0, saved_vm_ = 0, saved_cur_mem_ = 0, saved_cur_vm_ = 0;
  system_memory_settings saved_settings_{};
  system_platform saved_platform_{};
};
using MemDeathTest = MemTest;

using j480test::Esc;

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

struct ModelBlock {
  void* p;
  uint64_t size;
  uint32_t seed;
  int ctx;
};

struct Model {
  std::vector<MemContext*> ctxs;  // index 0 is the test's root
  std::vector<int> parent;        // -1 for the root, -2 once removed
  std::vector<ModelBlock> blocks;

  bool removed(int i) const { return parent[i] == -2; }
  bool in_subtree(int i, int top) const {
    for (; i >= 0; i = parent[i])
      if (i == top) return true;
    return false;
  }
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
      if (zeroed) {
        const auto* b = static_cast<const uint8_t*>(p);
        for (uint64_t i = 0; i < size; i++) ASSERT_EQ(b[i], 0) << "calloc byte " << i;
      }
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
      if (ex) {
        const auto* t = static_cast<const uint8_t*>(p);
        for (uint64_t i = b.size; i < size; i++) ASSERT_EQ(t[i], 0) << "tail byte " << i;
      }
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
        std::vector<int> gone;
        for (size_t i = 0; i < m.ctxs.size(); i++)
          if (!m.removed(static_cast<int>(i)) && m.in_subtree(static_cast<int>(i), c))
            gone.push_back(static_cast<int>(i));
        for (int i : gone) m.parent[i] = -2;
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
  EXPECT_NE(err.find("mem_area_alloc: failed to allocate huge pages (errno: 12 size:4M res: 4M "
                     "j480hugepagesize: 2M) retrying with normal mmap"),
            std::string::npos)
      << err;
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
    bool fail_map;
    bool granted;
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
    if (!k.fail_map) {
      EXPECT_NE(err.find(k.granted ? "Context resv uses " + n + " (mem) " + v +
                                         " (vm) of the reserved memory."
                                   : "Not enough memory reserved in resv context for "
                                     "USE_RESERVED_ONLY allocation. mem_req = " + n +
                                         " mem_reserved = " + std::to_string(cost_mem + k.dmem) +
                                         " vm_req = " + v + " vm_reserved = " +
                                         std::to_string(cost_vm + k.dvm)),
                std::string::npos)
          << err;
    }
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
  EXPECT_EQ(rec.areas, nullptr);
  EXPECT_EQ(rec.large_areas, nullptr);
  EXPECT_EQ(rec.first_child, nullptr);
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

}  // namespace
