// bc20_iobm: the process-wide block manager of a conversion run, as the 2.0 reader sees it.
//
// Holds the `bc20_iobm` pointer (set by the driver) and the configuration layer of the run, and
// answers the two questions the reader and its dump ask of storage: the default file number of
// the columnspace and the path of the CBM directory. Owns nothing: the block manager and the
// configuration belong to the driver.
#ifndef J480_TOOLS_WAL_CONVERTER_BC20_IOBM_H
#define J480_TOOLS_WAL_CONVERTER_BC20_IOBM_H

#include <cstdint>

struct iobm;
struct cvconfig_layer;

// The block manager of this run, or null before it is created.
extern iobm* bc20_iobm;

// The configuration layer of the run; set once by the driver after the option parse.
void bc20_set_config(cvconfig_layer* config);
cvconfig_layer* bc20_get_config();

// The default file number of the columnspace of bc20_iobm, -1 where there is no block manager,
// no columnspace or no default file.
int64_t bc20_iobm_default_file_nr();

// The CBM directory, "<dbfarm_path>/<dbname>/CBM": the block manager's path where there is one,
// else built from the configuration into a process-wide buffer, rebuilt per call; null where it
// can't be built (no configuration, a value missing).
const char* bc20_iobm_cbm_path();

#endif  // J480_TOOLS_WAL_CONVERTER_BC20_IOBM_H
