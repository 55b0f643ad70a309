// kernel: bring-up and teardown of the parts of the database kernel that the conversion uses.
//
// kernel_init runs once per process (a second call does nothing): memory limits, then the type,
// system table and primitive registries as they join the build, then the evaluation flags read
// from the configuration. kernel_exit frees the registries and ends the memory subsystem.
#ifndef J480_KERNEL_KERNEL_H
#define J480_KERNEL_KERNEL_H

struct cvconfig_layer;

void kernel_init(cvconfig_layer* config);
void kernel_exit();

// Kernel-wide evaluation flags, set by default and cleared by the configuration.
extern int kernel_lazy_eval;
extern int kernel_map_compute_all;

#endif  // J480_KERNEL_KERNEL_H
