#include "tools/wal_converter/bc20_iobm.h"

#include "bm/columnspace.h"
#include "bm/iobm.h"
#include "utils/cvconfig.h"
#include "utils/posix.h"
#include "utils/str_funcs.h"

iobm* bc20_iobm = nullptr;

namespace {
cvconfig_layer* g_config = nullptr;
char g_cbm_path[4096];
}  // namespace

void bc20_set_config(cvconfig_layer* config) { g_config = config; }

cvconfig_layer* bc20_get_config() { return g_config; }

int64_t bc20_iobm_default_file_nr() {
  return columnspace_get_default_file(iobm_get_columnspace(bc20_iobm));
}

const char* bc20_iobm_cbm_path() {
  if (bc20_iobm != nullptr) return iobm_get_path(bc20_iobm);
  if (g_config == nullptr) return nullptr;
  const char* farm = cvconfig_get_str(g_config, CVGROUP_SERVER, CVPROP_DBFARM_PATH);
  const char* name = cvconfig_get_str(g_config, CVGROUP_SERVER, CVPROP_DBNAME);
  if (str_empty(farm) || str_empty(name)) return nullptr;
  // Before the block manager exists (the reader's tests): its own rule for its dbpath.
  if (str_printf(g_cbm_path, sizeof g_cbm_path, "%s%c%s%cCBM", farm, J480_PATH_SEP, name,
                 J480_PATH_SEP) < 0)
    return nullptr;
  return g_cbm_path;
}
