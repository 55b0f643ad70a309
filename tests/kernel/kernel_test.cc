// Kernel bring-up: what kernel_init registers and reads, once, and what kernel_exit releases.
#include "kernel/kernel.h"

#include <gtest/gtest.h>

#include "kernel/charmap.h"
#include "kernel/primitive.h"
#include "kernel/ptype.h"
#include "kernel/systables.h"
#include "utils/cvconfig.h"

TEST(KernelInit, RegistersTheTablesReadsTheFlagsOnceAndExitFreesTheRegistry) {
  cvconfig* config = cvconfig_create();
  cvconfig_layer* cmdline = cvconfig_layer_create(nullptr, "cmdline", cvconfig_defaults(config));
  prim_registry_free();
  systables_clear();
  cvconfig_set(cmdline, CVGROUP_SYSTEM, "lazy_eval", prop_value{.b = 0}, PROP_TPE_BOOL, 1);
  kernel_init(cmdline);
  EXPECT_EQ(kernel_lazy_eval, 0);
  EXPECT_EQ(kernel_map_compute_all, 1);
  EXPECT_EQ(ptype_count(), 14);
  EXPECT_EQ(systable_count(), 4);
  EXPECT_EQ(prim_count(), 101);
  EXPECT_EQ(charmap_to_upper[static_cast<unsigned char>('a')], 'A');
  EXPECT_EQ(charmap_to_lower[0xC9], 0xE9);
  EXPECT_EQ(charmap_to_upper[0xF7], 0xF7);  // the division sign has no case

  kernel_init(cmdline);  // a second call does nothing
  EXPECT_EQ(prim_count(), 101);
  EXPECT_EQ(systable_count(), 4);

  kernel_exit();
  EXPECT_EQ(prim_count(), 0);
  EXPECT_EQ(GetPrimDesc("select_anything"), nullptr);
  systables_clear();
  cvconfig_destroy(config);
}

TEST(KernelInitDeathTest, NullConfigurationIsAnAssertionInKernel) {
  EXPECT_DEATH(kernel_init(nullptr), "ERROR:KERNEL:assertion \"config\" failed");
}
