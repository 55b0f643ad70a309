// kernel: bring-up and teardown of the kernel parts the conversion uses.
#include "kernel/kernel.h"

#include "kernel/charmap.h"
#include "kernel/prim_gen.h"
#include "kernel/prim_hash.h"
#include "kernel/primitive.h"
#include "kernel/ptype.h"
#include "kernel/systables.h"
#include "kernel/vheap.h"
#include "utils/cvconfig.h"
#include "utils/cvlog.h"
#include "utils/system.h"

#define KERNEL "KERNEL"

int kernel_lazy_eval = 1;
int kernel_map_compute_all = 1;

namespace {
bool kernel_initialized = false;
}

void kernel_init(cvconfig_layer* config) {
  if (kernel_initialized) return;
  J480_ASSERT(KERNEL, config);

  system_init(config);
  ptype_register_all();
  systables_register_kernel();
  prim_register_table(prim_gen_table());
  prim_register_table(prim_hash_table());
  charmap_init();
  prim_hash_set_float_functions();
  vheap_set_default_config(config);

  if (!cvconfig_get_bool(config, CVGROUP_SYSTEM, CVPROP_LAZY_EVAL)) kernel_lazy_eval = 0;
  if (!cvconfig_get_bool(config, CVGROUP_SYSTEM, CVPROP_MAP_COMPUTE_ALL))
    kernel_map_compute_all = 0;
  kernel_initialized = true;
}

void kernel_exit() {
  prim_registry_free();
  system_exit();
}
