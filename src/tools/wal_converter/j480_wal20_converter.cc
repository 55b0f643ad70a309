// j480_wal20_converter: the run sequence of the tool.
//
// Builds the configuration, logs the banner, parses the options, checks the CBM directory,
// brings up the kernel and runs the conversion stages in their fixed order. Every way out after
// the option parse passes one tail that logs the closing line and tears everything down.
// Stages that are not part of this build end the run in the tail with -1: the tool never
// reports a conversion that did not happen.
#include "tools/wal_converter/j480_wal20_converter.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "bm/iobm.h"
#include "bm/logger.h"
#include "kernel/kernel.h"
#include "tools/wal_converter/bc20_catalog.h"
#include "tools/wal_converter/bc20_iobm.h"
#include "tools/wal_converter/bc20_logger_print.h"
#include "tools/wal_converter/bc20_replay.h"
#include "tools/wal_converter/write_log.h"
#include "utils/cvconfig.h"
#include "utils/cvlog.h"
#include "utils/file.h"
#include "utils/posix.h"
#include "utils/str_funcs.h"
#include "utils/stream.h"
#include "utils/version.h"

#define WAL_CONVERTER "WAL_CONVERTER"

namespace {

const char* program_name(int argc, char** argv) {
  return argc > 0 && argv[0] != nullptr ? argv[0] : "j480_wal20_converter";
}

void print_usage(const char* name) {
  fputs("J480 WAL 2.0 converter\n\n", stdout);
  fprintf(stdout, "Usage: %s [OPTIONS]\n", name);
  fputs("Converts J480 2.0 metadata to 2.5 format.\n\n", stdout);
  fputs(
      "Options:\n"
      "  --version                      prints server version end exits\n"
      "  --dbfarm <storage location>    sets storage filesystem location\n"
      "  --dbname <database name>       sets database name\n"
      "  --dumplog                      dumps old and new metadata as XML file\n",
      stdout);
}

// Writes the log as XML beside it: the old format before the conversion, the new one after.
// 0, or -1 where the dump refuses the log.
int dump_log_xml(iobm* storage, int old_format) {
  char local[512];
  const char* cbm = iobm_get_path(storage);
  // A cut name would open some other file: a path longer than the local buffer (legal here)
  // gets a heap buffer of its own size.
  char* path = local;
  if (str_printf(local, sizeof local, "%s%c%s", cbm, J480_PATH_SEP, "LOG") < 0) {
    size_t size = strlen(cbm) + 5;
    path = static_cast<char*>(malloc(size));
    if (path == nullptr) return 0;  // as when no stream can be made
    str_printf(path, size, "%s%c%s", cbm, J480_PATH_SEP, "LOG");
  }
  stream* s = open_binary_read_stream(path);
  if (path != local) free(path);
  if (s == nullptr) return 0;
  // After the exchange the plain name holds the new log.
  int result = old_format ? bc20_bm_logger_print(s, 1) : bm_logger_print(s, 1);
  stream_close_destroy(s);
  return result;
}

}  // namespace

int j480_wal20_converter_main(int argc, char** argv) {
  px_fault_arm_from_env();

  cvconfig* config = cvconfig_create();
  cvconfig_layer* cmdline = cvconfig_layer_create(nullptr, "cmdline", cvconfig_defaults(config));
  int dump_log = 0;
  char* db_cbm_path = nullptr;
  int result = 0;

  CV_INFO(WAL_CONVERTER, "J480 WAL 2.0 converter version %s", version_str());

  for (int i = 1; i < argc;) {
    const char* arg = argv[i];
    if (strcmp(arg, "--dbfarm") == 0 && i + 1 < argc) {
      cvconfig_set_str(cmdline, CVGROUP_SERVER, CVPROP_DBFARM_PATH, argv[i + 1]);
      i += 2;
    } else if (strcmp(arg, "--dbname") == 0 && i + 1 < argc) {
      cvconfig_set_str(cmdline, CVGROUP_SERVER, CVPROP_DBNAME, argv[i + 1]);
      i += 2;
    } else if (strcmp(arg, "--dumplog") == 0) {
      dump_log = 1;
      i += 1;
    } else if (strcmp(arg, "--version") == 0) {
      fprintf(stdout, "%s\n%s\n", program_name(argc, argv), version_str());
      exit(0);
    } else {
      print_usage(program_name(argc, argv));
      return -1;
    }
  }

  // Nothing in the tool reads it back; the layer holds it for the kernel code it shares.
  cvconfig_set_lng(cmdline, CVGROUP_CBM, CVPROP_BUFFERPOOL_BLOCKS, -1);
  bc20_set_config(cmdline);

  const char* dbfarm = cvconfig_get_str(cmdline, CVGROUP_SERVER, CVPROP_DBFARM_PATH);
  const char* dbname = cvconfig_get_str(cmdline, CVGROUP_SERVER, CVPROP_DBNAME);
  if (str_empty(dbfarm) || str_empty(dbname)) {
    CV_ERROR(WAL_CONVERTER, "No database farm and/or name.");
    result = -1;
    goto tail;
  }

  {
    long long size = static_cast<long long>(strlen(dbfarm) + strlen(dbname) + 6);
    db_cbm_path = static_cast<char*>(malloc(static_cast<size_t>(size)));
    if (db_cbm_path == nullptr) {
      CV_ERROR(WAL_CONVERTER, "Out of memory, could not allocate %lld bytes for database path",
               size);
      result = -1;
      goto tail;
    }
    str_printf(db_cbm_path, static_cast<size_t>(size), "%s%c%s%cCBM", dbfarm, J480_PATH_SEP,
               dbname, J480_PATH_SEP);
  }
  if (!file_exists(db_cbm_path)) {
    CV_ERROR(WAL_CONVERTER, "Database '%s' in path '%s' does not exist or is invalid. Aborting.",
             dbname, dbfarm);
    result = -1;
    goto tail;
  }

  CV_INFO(WAL_CONVERTER, "Converting WAL for database '%s' in '%s'", dbname, dbfarm);

  kernel_init(cmdline);

  bc20_iobm = iobm_create(cmdline);
  if (bc20_iobm == nullptr) {
    CV_ERROR(WAL_CONVERTER, "Failed to initialize 2.0 storage structures");
    result = -1;
    goto tail;
  }

  bc20_register_types();
  bc20_catalog = bc20_catalog_create();

  if (dump_log && dump_log_xml(bc20_iobm, 1) < 0) {
    result = -1;
    goto tail;
  }

  if (!iobm_init(bc20_iobm)) {
    CV_ERROR(WAL_CONVERTER, "Failed replaying 2.0 WAL");
    result = -1;
    goto tail;
  }

  if (write_new25_log() < 0) {
    CV_ERROR(WAL_CONVERTER, "Failed writing 2.5 WAL");
    result = -1;
    goto tail;
  }

  // The database is converted: a dump of the new log that fails leaves the result alone.
  if (dump_log) dump_log_xml(bc20_iobm, 0);

tail:
  CV_INFO(WAL_CONVERTER, "Done converting. Exiting.");
  // The catalog goes first: its groups hold the storage columns, blocks and file references
  // that the block manager checks are gone.
  bc20_catalog_destroy(bc20_catalog);
  bc20_catalog = nullptr;
  bc20_iobm_release_replay(bc20_iobm);
  iobm_destroy(bc20_iobm);
  bc20_iobm = nullptr;
  bc20_set_config(nullptr);
  cvconfig_destroy(config);
  kernel_exit();
  free(db_cbm_path);
  return result;
}
