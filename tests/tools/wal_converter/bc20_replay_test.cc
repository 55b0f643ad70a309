// The replay of a 2.0 log into the legacy model: every result and message of the replay frame and
// of the catalog and storage handlers, and the assertions on broken references and on records the
// reader refuses. Generated databases replay, convert and match their generator's model in
// convert_test.cc.
#include "tools/wal_converter/bc20_replay.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <string>
#include <vector>

#include "bm/iob.h"
#include "bm/iobm.h"
#include "kernel/kernel.h"
#include "log_bytes.h"
#include "support/test_support.h"
#include "tools/wal_converter/bc20_catalog.h"
#include "tools/wal_converter/bc20_iobm.h"
#include "utils/cvconfig.h"
#include "utils/posix.h"

namespace {

using j480test::Esc;
using j480test::LogBytes;
using j480test::split_lines;

// Records of a hand-made log, spelled from the record table.
struct Log {
  LogBytes b;
  Log() { b.head(); }
  explicit Log(int64_t version) { b.head(version); }
  Log& tr_new(int64_t t) { return put(b.i32(0).lng(t)); }
  Log& tr_end(int64_t t) { return put(b.i32(1).lng(t)); }
  Log& cs_new(bool default_file, int32_t id, int32_t blksz = 1 << 19) {
    return put(b.i32(default_file ? 2 : 35).i32(id).str("cs").i32(blksz).i32(0).i32(0).lng(0));
  }
  Log& col_new(int32_t colid) { return put(b.i32(4).i32(colid).i32(0).i32(1)); }
  Log& blk_new(int32_t colid, int64_t file, int64_t nr) {
    return put(b.i32(31).i32(colid).lng(file).lng(nr).i32(100).i32(10));
  }
  Log& blk_del(int32_t colid, int64_t file, int64_t nr) {
    return put(b.i32(32).i32(colid).lng(file).lng(nr));
  }
  Log& file_new(int64_t nr, int64_t loc, const std::string& name) {
    return put(b.i32(33).lng(nr).lng(loc).str(name));
  }
  Log& table_new(int64_t id, const std::string& name, int64_t cg) {
    return put(b.i32(13).lng(id).str(name).lng(cg));
  }
  Log& table_del(int64_t id) { return put(b.i32(14).lng(id)); }
  Log& column_new(int64_t id, const std::string& name, const std::string& adt = "sint") {
    return put(b.i32(15).lng(id).str(adt).i32(0).str("int").i32(0).i32(0).str("").str(name).i32(0));
  }
  Log& colgroup_new(int64_t cg, int64_t store, int64_t parent, int32_t type,
                    const std::vector<int64_t>& ids) {
    b.i32(38).lng(cg).lng(store).lng(parent).i32(type).i32(static_cast<int32_t>(ids.size()));
    for (int64_t id : ids) b.raw_lng(id);
    return *this;
  }
  Log& colgroup_del(int64_t cg) { return put(b.i32(18).lng(cg)); }
  Log& colgroup_file_new(int64_t cg, int64_t file) { return put(b.i32(36).lng(cg).lng(file)); }
  Log& index_new(int64_t id, const std::string& name, int32_t type, int64_t table, int64_t cg,
                 int64_t scg = 0, int64_t key = 0) {
    return put(b.i32(19).lng(id).str(name).i32(type).lng(table).lng(cg).lng(scg).lng(key));
  }
  Log& index_del(int64_t id) { return put(b.i32(20).lng(id)); }
  Log& loc_new(int64_t id, const std::string& name, int32_t usage) {
    return put(b.i32(28).lng(id).str(name).i32(usage));
  }
  Log& loc_del(int64_t id) { return put(b.i32(29).lng(id)); }
  Log& loc_update(int64_t id, int32_t usage) { return put(b.i32(30).lng(id).i32(usage)); }
  // A table `id` with one column `id`+1 in a storage group `id`+3 on storage column `scol`
  // (root group `id`+2), in the default file, as one transaction.
  Log& table(int64_t id, const std::string& name, int32_t scol, int64_t trid) {
    tr_new(trid).col_new(scol).column_new(id + 1, "c" + std::to_string(id + 1));
    colgroup_new(id + 2, 0, 0, 0, {id + 1}).table_new(id, name, id + 2);
    b.i32(17).lng(id + 3).lng(scol).lng(id + 2).i32(1).lng(0).i32(1).raw_lng(id + 1);
    return tr_end(trid);
  }
  Log& put(LogBytes&) { return *this; }
  const std::string& bytes() const { return b.bytes(); }
};

// One database directory and one replay of it, in this process, as the driver runs it.
class Bc20Replay : public testing::Test {
 protected:
  void SetUp() override {
    cbm_ = farm_.file("db/CBM");
    j480test::make_dirs(cbm_);
    for (const char* name : {"/LOG", "/location_map"}) std::remove((cbm_ + name).c_str());
    config_ = cvconfig_create();
    layer_ = cvconfig_layer_create(nullptr, "cmdline", cvconfig_defaults(config_));
    cvconfig_set_str(layer_, CVGROUP_SERVER, CVPROP_DBFARM_PATH, farm_.path().c_str());
    cvconfig_set_str(layer_, CVGROUP_SERVER, CVPROP_DBNAME, "db");
    kernel_init(layer_);
  }
  void TearDown() override {
    bc20_catalog_destroy(bc20_catalog);
    bc20_catalog = nullptr;
    bc20_iobm_release_replay(bc20_iobm);
    iobm_destroy(bc20_iobm);
    bc20_iobm = nullptr;
    bc20_replay_reset_registry();
    bc20_set_config(nullptr);
    cvconfig_destroy(config_);
    EXPECT_EQ(iob_live_count(), 0);
  }

  // The driver's steps up to iobm_init on the LOG and location_map written; the lines logged.
  std::vector<std::string> run(int64_t fault_at = 0) {
    return split_lines(j480test::err_of([&] { run_quietly(fault_at); }));
  }
  // With `fault_at`, that call of iobm_init fails with EACCES.
  void run_quietly(int64_t fault_at = 0) {
    bc20_set_config(layer_);
    bc20_iobm = iobm_create(layer_);
    bc20_register_types();
    bc20_catalog = bc20_catalog_create();
    if (fault_at > 0) px_fault_arm(fault_at, EACCES);
    rc_ = iobm_init(bc20_iobm);
    px_fault_disarm();
  }
  // The lines that aren't INFO.
  static std::vector<std::string> problems(const std::vector<std::string>& lines) {
    std::vector<std::string> out;
    for (const std::string& l : lines)
      if (l.rfind("#", 0) != 0 || l.rfind("# WARN:", 0) == 0) out.push_back(l);
    return out;
  }

  j480test::LogCapture log_;
  j480test::TempDir farm_;
  std::string cbm_;
  cvconfig* config_ = nullptr;
  cvconfig_layer* layer_ = nullptr;
  int rc_ = -1;
};

// ---- the replay frame ----

// Whole replays of hand-made logs, with files that may not grow: a clean one (1) logs `lines`
// whole; a failed one (0) logs them among its INFO lines, behind the map reader's own line.
TEST_F(Bc20Replay, ReplaysAndWhatTheyLog) {
  const std::string map = cbm_ + "/location_map", no_log = "-";
  const std::string stale =
      "ERROR:CBM:iobm_init: to-be-converted WAL '" + cbm_ + "/LOG' not in consistent state.\n";
  const std::string converted =
      "ERROR:LOGGER:Incompatible database version detected, database already converted.\n";
  const std::string reading = "#LOGGER:Reading old catalog...\n";
  const std::string good =
      "# WARN:LOGGER:bc20_bm_logger_replay: failed reading, last known good is ";
  auto with_cs = [](bool default_file) {
    return Log().tr_new(1).cs_new(default_file, 0).tr_end(1);
  };
  struct Case {
    const char* name;
    std::string log;
    int rc;
    std::string lines;
    const char* map = nullptr;
    bool no_default_location = false;
  };
  const Case cases[] = {
      {"missing", no_log, 1, ""},
      {"one byte", "\xD2", 1, ""},
      {"only the mark", std::string("\xD2\x04", 2), 1, reading},
      {"mark and version", Log().bytes(), 1, reading + "#LOGGER:Parsing 100% done.\n"},
      {"stray records after the last tr_end vanish", Log().tr_new(1).tr_end(1).loc_del(99).bytes(),
       1, reading + "#LOGGER:Parsing 21% done.\n#LOGGER:Parsing 73% done.\n"},
      {"a 2.5 log", Log(0x435257414C000001LL).tr_new(1).loc_new(1, "a", 1).tr_end(1).bytes(), 0,
       converted},
      {"another magic", Log(0x1234).bytes(), 0, converted},
      {"torn at a record boundary", Log().tr_new(1).tr_end(1).tr_new(2).loc_new(1, "a", 1).bytes(),
       0,
       "ERROR:LOGGER:reading transaction finished while still in open transaction\n" + good +
           "34\n" + stale},
      {"torn inside a record", Log().tr_new(1).bytes() + std::string("\x1c\0\0\0\x01", 5), 0,
       "ERROR:LOGGER:incorrect cat_location_new\n" + good + "10\n" + stale},
      {"an unknown tag", Log().tr_new(1).tr_end(1).bytes() + std::string("\x27\0\0\0", 4), 0,
       "ERROR:LOGGER:Unhandled log value 39\n" + good + "34\n" + stale},
      {"a malformed map", Log().tr_new(1).loc_new(1, "a", 1).tr_end(1).bytes(), 0,
       "ERROR:LOGGER:Error replaying map file '" + map + "'\n", "no comma\n"},
      {"a second columnspace", Log().tr_new(1).cs_new(false, 1, 4096).tr_end(1).bytes(), 0,
       "ERROR:CBM:Encountered non-initial columnspace. Columnspaces are deprecated. Aborting.\n"},
      {"a storage column twice", with_cs(false).tr_new(2).col_new(5).col_new(5).tr_end(2).bytes(),
       0, "ERROR:CBM:col_new: unable to create scolumn (colid=5)\n"},
      {"a storage column id 0", with_cs(false).tr_new(2).col_new(0).tr_end(2).bytes(), 0,
       "ERROR:CBM:iobm_register_scolumn: no id for a storage column during replay\n"
       "ERROR:CBM:col_new: unable to create scolumn (colid=0)\n"},
      {"a block past the file's end",
       with_cs(true).tr_new(2).col_new(5).blk_new(5, -1, 200).tr_end(2).bytes(), 0,
       "ERROR:CBM:columnspace_mark_used: could not grow columnspace to desired size 200 (is now "
       "128).\nERROR:CBM:blk_new: unable to create block (file_nr=0 block_nr=200, scolid=5)\n"},
      {"a block of an unknown storage column",
       with_cs(true).tr_new(2).blk_new(6, -1, 3).tr_end(2).bytes(), 0,
       "ERROR:CBM:blk_new: bad scolumn id: 6\n"},
      {"a delete in an unknown storage column",
       with_cs(true).tr_new(2).col_new(5).blk_new(5, -1, 3).blk_del(6, -1, 3).tr_end(2).bytes(), 0,
       "ERROR:CBM:blk_del: bad scolumn id: 6\n"},
      {"a delete of a free block",
       with_cs(true).tr_new(2).col_new(5).blk_new(5, 0, 3).blk_del(5, 0, 4).tr_end(2).bytes(), 0,
       "ERROR:CBM:blk_del: unable to find block (file_nr=0 block_nr=4)\n"},
      {"a delete in an unknown file",
       with_cs(true).tr_new(2).col_new(5).blk_del(5, 9, 4).tr_end(2).bytes(), 0,
       "ERROR:CBM:blk_del: unable to find block (file_nr=9 block_nr=4)\n"},
      {"a drop of an unknown location",
       Log().tr_new(1).loc_new(2, "a", 1).loc_del(3).tr_end(1).bytes(), 0,
       "ERROR:CBM:failed to replay drop location: no such location_id 3\n"},
      {"an update of an unknown location", Log().tr_new(1).loc_update(3, 2).tr_end(1).bytes(), 0,
       ""},
      {"a location twice", Log().tr_new(1).loc_new(2, "a", 1).loc_new(2, "b", 1).tr_end(1).bytes(),
       0, "ERROR:CATALOG:location already exists: b\n"},
      {"a columnspace that can't be made (no default location)",
       Log().tr_new(1).cs_new(true, 0, 4096).tr_end(1).bytes(), 0,
       "ERROR:CBM:cs_new: unable to create columnspace\n", nullptr, true},
  };
  for (const Case& k : cases) {
    SCOPED_TRACE(k.name);
    TearDown();
    SetUp();
    cvconfig_set_bool(layer_, CVGROUP_CBM, CVPROP_COLUMNSPACE_GROW, 0);
    if (k.no_default_location) cvconfig_set_str(layer_, CVGROUP_SERVER, CVPROP_DBLOCATION, "");
    if (k.log != no_log) j480test::write_file(cbm_ + "/LOG", k.log);
    if (k.map != nullptr) j480test::write_file(map, k.map);
    std::vector<std::string> lines = run();
    bc20_replay_abandon();  // no file stays open after a replay: this closes nothing
    EXPECT_EQ(rc_, k.rc);
    if (k.rc == 0) lines = problems(lines);
    std::string text;
    for (size_t i = k.map != nullptr ? 1 : 0; i < lines.size(); i++) text += lines[i] + "\n";
    EXPECT_EQ(text, k.lines);
  }
}

// No log, and a map whose open fails: the fault moves over the calls of iobm_init until it hits
// the map's open. A missing map is no map (convert_test.cc).
TEST_F(Bc20Replay, AMapThatCantBeOpenedFails) {
  const std::string map = cbm_ + "/location_map";
  const std::vector<std::string> expected = {
      "ERROR:LOGGER:Could not open location map file " + map + ".",
      "ERROR:LOGGER:Error replaying map file '" + map + "'"};
  bool hit = false;
  for (int k = 1; k <= 8 && !hit; k++) {
    TearDown();
    SetUp();
    j480test::write_file(map, "loc,/there\n");
    hit = problems(run(k)) == expected && rc_ == 0;
  }
  EXPECT_TRUE(hit) << "no failed call of iobm_init gave the map's failure";
}

// Broken references inside a log, and records the reader refuses, end the process by assertion.
TEST_F(Bc20Replay, BrokenReferencesAreAssertions) {
  Log cs;
  cs.tr_new(1).cs_new(true, 0).tr_end(1);
  Log t10 = cs;  // a table 10 on column 11, root group 12, storage group 13
  t10.table(10, "t", 5, 2).tr_new(3);
  auto in_tr = [](const LogBytes& record) { return Log().tr_new(1).bytes() + record.bytes(); };
  struct Case {
    const char* name;
    std::string log;
    const char* assertion;
  };
  const Case cases[] = {
      {"a table on an unknown group", Log().tr_new(1).table_new(1, "t", 9).tr_end(1).bytes(), "cg"},
      {"a group with an unknown column",
       Log().tr_new(1).colgroup_new(2, 0, 0, 0, {7}).tr_end(1).bytes(), "c"},
      {"a drop of an unknown table", Log().tr_new(1).table_del(5).tr_end(1).bytes(), "t"},
      {"an index on an unknown group", Log().tr_new(1).index_new(5, "i", 3, 1, 9).tr_end(1).bytes(),
       "icg && j"},
      {"an index of an unknown table",
       Log(t10).colgroup_new(20, 0, 0, 0, {11}).index_new(21, "i", 3, 99, 20).tr_end(3).bytes(),
       "table"},
      {"a join index without a foreign key",
       Log(t10).colgroup_new(20, 0, 0, 0, {11}).index_new(21, "j", 6, 10, 20).tr_end(3).bytes(),
       "reftable"},
      {"a drop of an unknown index", Log().tr_new(1).index_del(5).tr_end(1).bytes(), "i && t"},
      {"a file for an unknown group", Log(cs).tr_new(2).colgroup_file_new(4, 0).tr_end(2).bytes(),
       "cg"},
      {"a file of a group of an earlier transaction",
       Log(t10).colgroup_file_new(13, 0).tr_end(3).bytes(), "cg"},
      {"a drop of a group no table has", Log(t10).colgroup_del(99).tr_end(3).bytes(),
       "cg && cg->logical"},
      {"a second columnspace", Log(cs).tr_new(2).cs_new(false, 0).tr_end(2).bytes(),
       "!iobm_get_columnspace(bm)"},
      {"a second default file", Log(cs).tr_new(2).file_new(4, 1, "0").tr_end(2).bytes(),
       "cs->default_file_nr == kNoFile || file_nr == kNoFile"},
      {"a block of an unknown file",
       Log(cs).tr_new(2).col_new(5).blk_new(5, 7, 3).tr_end(2).bytes(), "cs_file"},
      {"a block twice",
       Log(cs).tr_new(2).col_new(5).blk_new(5, -1, 3).blk_new(5, -1, 3).tr_end(2).bytes(),
       "cs_file->block_map[nr] == NULL"},
      {"a file without a columnspace", Log().tr_new(1).file_new(4, 1, "f").tr_end(1).bytes(),
       "cs_file"},
      {"a storage column without a columnspace", Log().tr_new(1).col_new(4).tr_end(1).bytes(),
       "bm && cs"},
      // Records whose content the reader refuses.
      {"a group id 0", Log().tr_new(1).colgroup_new(0, 2, 3, 4, {}).bytes(), "colgroup_id"},
      {"a default-file group id 0",
       in_tr(LogBytes().i32(17).lng(0).lng(2).lng(3).i32(4).lng(0).i32(0)), "colgroup_id"},
      {"a file -1 of a group", Log().tr_new(1).colgroup_file_new(4, -1).bytes(),
       "colgroup_id && file_nr >= 0"},
      {"a file dropped from group id 0", in_tr(LogBytes().i32(37).lng(0).lng(3)),
       "colgroup_id && file_nr >= 0"},
  };
  for (const Case& k : cases) {
    SCOPED_TRACE(k.name);
    j480test::write_file(cbm_ + "/LOG", k.log);
    EXPECT_DEATH(run_quietly(), Esc(std::string("assertion \"") + k.assertion + "\" failed"));
  }
}

}  // namespace
