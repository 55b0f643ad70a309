// Memory start-up from the configuration, and the grants of the system account.
#include "utils/system.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cinttypes>
#include <string>

#include "support/test_support.h"
#include "utils/cvconfig.h"
#include "utils/cvlog.h"
#include "utils/mem.h"
#include "utils/posix.h"

namespace {

using j480test::err_of;

constexpr int64_t MiB = 1024 * 1024;

class SystemTest : public testing::Test {
 protected:
  void SetUp() override {
    {
      std::lock_guard<std::mutex> lock(g_system_account.lock);
      saved_max_mem_ = g_system_account.maxMem;
      saved_cur_mem_ = g_system_account.curMem;
      saved_max_trans_ = g_system_account.maxTrans;
    }
    saved_settings_ = g_system_memory;
    saved_platform_ = g_system_platform;
    cv_log_enabled("SYSTEM", CV_LOG_INFO);  // the logger reads its files before faults are armed
    root_ = cvconfig_create();
    cmdline_ = cvconfig_layer_create(nullptr, "cmdline", cvconfig_defaults(root_));
  }
  void TearDown() override {
    px_fault_disarm();
    cvconfig_destroy(root_);
    system_exit();
    std::lock_guard<std::mutex> lock(g_system_account.lock);
    g_system_account.maxMem = saved_max_mem_;
    g_system_account.curMem = saved_cur_mem_;
    g_system_account.maxTrans = saved_max_trans_;
    g_system_memory = saved_settings_;
    g_system_platform = saved_platform_;
  }
  std::string init_log() {
    return err_of([&] { EXPECT_EQ(system_init(cmdline_), 1); });
  }

  cvconfig* root_ = nullptr;
  cvconfig_layer* cmdline_ = nullptr;
  uint64_t saved_max_mem_ = 0, saved_cur_mem_ = 0, saved_max_trans_ = 0;
  system_memory_settings saved_settings_{};
  system_platform saved_platform_{};
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
  EXPECT_NE(log.find("SYSTEM:Setting the query memory limit to " + std::to_string(limit) +
                     " bytes\n"),
            std::string::npos)
      << log;
}

TEST_F(SystemTest, OverallocationIsCutToTheMemoryLimitAndWrittenBack) {
  ASSERT_EQ(cvconfig_set_lng(cmdline_, CVGROUP_MEMORY, CVPROP_MAX_MEMORY_SIZE, 1024 * MiB), 1);
  const std::string log = init_log();
  EXPECT_EQ(g_system_account.maxMem, 1024u * MiB);
  EXPECT_EQ(log.find("Setting the query memory limit"), std::string::npos) << log;
  EXPECT_NE(log.find("SYSTEM:Limiting overallocation to maximum query memory size of 1073741824 "
                     "(was 2147483648).\n"),
            std::string::npos)
      << log;
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
  EXPECT_NE(log.find("WARN:SYSTEM:j480_posix_init: unable to get SeLockMemoryPrivilege, "
                     "disabling huge pages.\n"),
            std::string::npos)
      << log;

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
