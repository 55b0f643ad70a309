// Fuzz target: the whole replay of a 2.0 database (LOG and location_map) into the legacy model,
// as the converter runs it, torn down after each input.
//
// Input: byte 0 holds flags; with bit 0 set, bytes 1 and 2 give a length L (little-endian, cut
// to what follows) and the next L bytes are the location map. The rest is the log. Both become
// files of a private CBM directory (/tmp/j480_replay_fuzz.<pid>/db/CBM).
//
// A log that names what it never announced, or announces something twice, ends by assertion.
// Those assertions (listed below) throw here instead; what the replay built stays unreleased and
// the next input starts afresh. Any other failed assertion, a sanitizer report, a hang or an
// allocation the input doesn't justify is a bug.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "bm/iobm.h"
#include "fuzz_support.h"
#include "kernel/kernel.h"
#include "tools/wal_converter/bc20_catalog.h"
#include "tools/wal_converter/bc20_iobm.h"
#include "tools/wal_converter/bc20_replay.h"
#include "utils/cvconfig.h"
#include "utils/file.h"

namespace {

const char kIndexGroups[] =
    "IMPLIES(scolgroup, scolgroup != cg && scolgroup->owner_kind == BC20_CG_FREE && "
    "(!scolgroup->parent || scolgroup->parent == cg))";

// Broken or repeated references of a log.
const char* const kDesignAssertions[] = {
    // the reader's forbidden records
    "type == bc20_cs_new || type == bc20_cs_new_defaultfile", "colgroup_id",
    "colgroup_id && file_nr >= 0",
    // catalog references
    "c", "cg", "t", "i && t", "icg && j", "table", "reftable", "master_rtbl_nr >= 0", "fk",
    "cg && cg->logical", "cg && cg->logical && colnames", "c->type", "c->sqltype == NULL",
    "cg->owner_kind == BC20_CG_FREE && cg->parent == NULL", kIndexGroups, "ncols >= 0",
    "colgroup_type >= 0 && colgroup_type < nr_of_colgroups", "table_is_new",
    "column_type >= 0 && column_type < nr_of_columns", "index->table == NULL",
    "idx_type >= 0 && idx_type < nr_of_indices", "cg->columns_size > 0", "c->refcnt >= 0",
    // storage references
    "scg", "scol", "scol_unbound", "scg->scol == NULL", "cs_file", "cs_file && scg->file_nr < 0",
    "cs_file->block_map[nr] == NULL", "nr >= 0 && nr < cs_file->nr_blocks", "bm && cs",
    "cs->default_file_nr == kNoFile || file_nr == kNoFile", "!iobm_get_columnspace(bm)",
    "rel_filename", "file_nr >= 0", "cs_file->refcnt >= 0", "cs_file->refcnt == 0",
};

cvconfig* g_config = nullptr;
cvconfig_layer* g_layer = nullptr;
std::string g_dir, g_cbm;

void remove_files() {
  for (const char* name : {"/LOG", "/location_map", "/lock", "/_LOG_XML_20"})
    unlink((g_cbm + name).c_str());
  rmdir(g_cbm.c_str());
  rmdir((g_dir + "/db").c_str());
  rmdir(g_dir.c_str());
}

void write_file(const std::string& path, const uint8_t* data, size_t size, bool present) {
  unlink(path.c_str());
  if (!present) return;
  FILE* f = fopen(path.c_str(), "wb");
  FUZZ_CHECK(f != nullptr);
  FUZZ_CHECK(size == 0 || fwrite(data, 1, size, f) == size);
  FUZZ_CHECK(fclose(f) == 0);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  j480fuzz::quiet_logger();
  j480fuzz::accept_assertions(kDesignAssertions);
  g_dir = "/tmp/j480_replay_fuzz." + std::to_string(getpid());
  g_cbm = g_dir + "/db/CBM";
  mkdir(g_dir.c_str(), 0700);
  mkdir((g_dir + "/db").c_str(), 0700);
  mkdir(g_cbm.c_str(), 0700);
  atexit(remove_files);
  g_config = cvconfig_create();
  g_layer = cvconfig_layer_create(nullptr, "cmdline", cvconfig_defaults(g_config));
  cvconfig_set_str(g_layer, CVGROUP_SERVER, CVPROP_DBFARM_PATH, g_dir.c_str());
  cvconfig_set_str(g_layer, CVGROUP_SERVER, CVPROP_DBNAME, "db");
  kernel_init(g_layer);
  bc20_set_config(g_layer);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return -1;
  size_t at = 1, map_size = 0;
  bool map = (data[0] & 1) != 0;
  if (map) {
    if (size < 3) return -1;
    map_size = static_cast<size_t>(data[1]) | static_cast<size_t>(data[2]) << 8;
    at = 3;
    if (map_size > size - at) map_size = size - at;
  }
  write_file(g_cbm + "/location_map", data + at, map_size, map);
  write_file(g_cbm + "/LOG", data + at + map_size, size - at - map_size, true);

  bc20_iobm = iobm_create(g_layer);
  FUZZ_CHECK(bc20_iobm != nullptr);
  bc20_replay_reset_registry();
  bc20_register_types();
  bc20_catalog = bc20_catalog_create();
  try {
    int rc = iobm_init(bc20_iobm);
    FUZZ_CHECK(rc == 0 || rc == 1);
    // The driver's tail: the catalog first, then what the replay left, then the block manager,
    // whose columnspace must be empty by then.
    bc20_catalog_destroy(bc20_catalog);
    bc20_catalog = nullptr;
    bc20_iobm_release_replay(bc20_iobm);
    iobm_destroy(bc20_iobm);
    bc20_iobm = nullptr;
  } catch (const j480fuzz::AcceptedAssertion&) {
    // The model is half-built and stays as it is; only the database lock goes, so that the
    // next input can take it.
    static auto* kept = new std::vector<void*>();
    kept->push_back(bc20_catalog);
    kept->push_back(bc20_iobm);
    if (bc20_iobm != nullptr) file_unlock(bc20_iobm->lock);
    bc20_replay_abandon();
    bc20_catalog = nullptr;
    bc20_iobm = nullptr;
    return -1;
  }
  return 0;
}
