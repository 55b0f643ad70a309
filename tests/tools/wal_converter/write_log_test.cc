// The conversion's finish: small catalogs read back from the committed log with the keys and
// errors they survive, the refusals, the assertions, and the file exchange failed or ended at
// every system call with the old log kept byte for byte. Generated databases convert action by
// action in convert_test.cc.
#include "tools/wal_converter/write_log.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "bm/columnspace.h"
#include "bm/iob.h"
#include "bm/iobm.h"
#include "bm/logger.h"
#include "bm/scolumn.h"
#include "expected25.h"
#include "kernel/prim_gen.h"
#include "kernel/primitive.h"
#include "kernel/ptype.h"
#include "support/test_support.h"
#include "tools/wal_converter/bc20_catalog.h"
#include "tools/wal_converter/bc20_colgroup.h"
#include "tools/wal_converter/bc20_column.h"
#include "tools/wal_converter/bc20_index.h"
#include "tools/wal_converter/bc20_iobm.h"
#include "tools/wal_converter/bc20_table.h"
#include "updates/pdt.h"
#include "utils/cvconfig.h"
#include "utils/mem.h"
#include "utils/posix.h"
#include "utils/stream.h"

namespace {

using j480test::err_of;
using j480test::exists;
using j480test::read_file;
using std::string;
using std::to_string;
using Strings = std::vector<string>;
using Edges = std::vector<std::pair<int, int>>;

const string kOldLog = "old 2.0 log bytes", kOldMap = "l1,/old\n";

// A database directory with a block manager, a columnspace, the old files, and the catalog.
struct Db {
  j480test::TempDir farm;
  cvconfig* config = cvconfig_create();
  columnspace* cs = nullptr;
  string cbm = farm.path() + "/db/CBM";
  int64_t next_block = 0;

  explicit Db(bool with_columnspace = true) {
    cvconfig_layer* layer = cvconfig_layer_create(nullptr, "cmdline", cvconfig_defaults(config));
    cvconfig_set_str(layer, CVGROUP_SERVER, CVPROP_DBFARM_PATH, farm.path().c_str());
    cvconfig_set_str(layer, CVGROUP_SERVER, CVPROP_DBNAME, "db");
    err_of([&] { bc20_iobm = iobm_create(layer); });
    if (with_columnspace) {
      cs = columnspace_create(4096, 8, 64, 1);
      // A file's handle is a copy of its name, as the replay makes it.
      cs->file_created = [](columnspace*, MemContext* mem, void*, void*, const char* name,
                            int64_t) -> void* { return mem_strdup(mem, name); };
      cs->file_name = [](columnspace*, void* handle) { return static_cast<const char*>(handle); };
      iobm_set_columnspace(bc20_iobm, cs);
    }
    bc20_catalog = bc20_catalog_create();
    j480test::write_file(cbm + "/LOG", kOldLog);
    j480test::write_file(cbm + "/location_map", kOldMap);
  }
  ~Db() {
    px_fault_disarm();
    bc20_catalog_destroy(bc20_catalog);
    iobm_destroy(bc20_iobm);
    bc20_catalog = nullptr;
    bc20_iobm = nullptr;
    cvconfig_destroy(config);
  }
  static bc20_colgroup* group(int32_t type, int64_t id, int32_t ncols, bc20_colgroup* parent) {
    bc20_colgroup* g = bc20_colgroup_create(type, ncols, parent);
    bc20_colgroup_set_id(g, id);
    return g;
  }
  static bc20_column* column(int64_t id) {
    bc20_column* c = bc20_column_create(0, PTYPE_SINT);
    bc20_column_set_id(c, id);
    bc20_column_set_sqltype(c, "integer", 0, 0);
    return c;
  }
  // A storage group below `parent` on storage column `scol` in `file`, with `blocks` blocks.
  bc20_colgroup* storage(bc20_colgroup* parent, int64_t id, int32_t scol, int64_t file,
                         int blocks) {
    scolumn* sc = scolumn_create(bc20_iobm, cs, scol, 1, SCOLUMN_MODE_LOGGED);
    bc20_colgroup* g = group(bc20_colgroup_storage, id, 2, parent);
    bc20_colgroup_set_store(g, scol);
    bc20_colgroup_add_file(g, file);
    for (int b = 0; b < blocks; b++) {
      iob* blk = iobm_new_block(bc20_iobm, file, scol, next_block++);
      blk->bytes_used = 100;
      blk->num_tuples = 7;
      scolumn_add_block(sc, blk, nullptr, nullptr);
    }
    return g;
  }
  // Table `id` (root id*100); per file a storage group id*100+10+k on storage column id*10+k
  // holding column id*100+1+k "c<k+1>" and blocks[k] blocks.
  bc20_table* table(int64_t id, const char* name, std::vector<int64_t> files = {},
                    std::vector<int> blocks = {}) {
    bc20_colgroup* root = group(bc20_colgroup_logical, id * 100, 4, nullptr);
    for (size_t k = 0; k < files.size(); k++)
      bc20_colgroup_add_column(storage(root, id * 100 + 10 + k, id * 10 + k, files[k],
                                       k < blocks.size() ? blocks[k] : 0),
                               column(id * 100 + 1 + k), ("c" + to_string(k + 1)).c_str());
    bc20_table* t = bc20_table_create(root);
    t->table_id = id;
    bc20_catalog_add_table(bc20_catalog, t, name);
    return t;
  }
  static bc20_index* index(bc20_table* t, int32_t type, int64_t id, const char* name,
                           const char* key, std::vector<bc20_column*> cols,
                           bc20_colgroup* icg = nullptr, bc20_colgroup* scg = nullptr) {
    if (icg == nullptr) icg = group(bc20_colgroup_logical, id * 10, 4, nullptr);
    for (bc20_column* c : cols) bc20_colgroup_add_column(icg, c, "k");
    bc20_index* i = bc20_index_create(type, icg, scg);
    i->id = id;
    i->key_name = key != nullptr ? strdup(key) : nullptr;
    bc20_table_add_index(t, bc20_catalog_table_name_by_id(bc20_catalog, t->table_id), i, name);
    return i;
  }
  int run(string* err = nullptr) {
    int rc = 0;
    string e = err_of([&] { rc = write_new25_log(); });
    if (err != nullptr) *err = e;
    return rc;
  }
  bool has(const string& name, const string& bytes) {
    return exists(cbm + "/" + name) && read_file(cbm + "/" + name) == bytes;
  }
  // The actions of the log `name`, or {"unreadable"}.
  Strings read(const string& name = "LOG") {
    MemContext* mem = mem_context_create(nullptr, "read");
    stream* s = open_binary_read_stream((cbm + "/" + name).c_str());
    bm_logger_action_list* actions = nullptr;
    Strings out;
    if (s != nullptr && bm_logger_read_version(s) == BM_LOGGER_VERSION_25 &&
        bm_logger_read_transaction(mem, s, &actions) == 1 && actions)
      for (bm_logger_action* a = actions->head; a != nullptr; a = a->next)
        out.push_back(j480test::describe25(a));
    if (s != nullptr) stream_close_destroy(s);
    mem_context_remove(mem);
    return out.empty() ? Strings{"unreadable"} : out;
  }
};

class WriteLog : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    ptype_register_all();
    if (prim_lookup("gen_condense_slng_col", 1, 0) == nullptr)
      prim_register_table(prim_gen_table());
    bc20_column_register_types();
    bc20_colgroup_register_types();
    bc20_index_register_types();
  }
  j480test::LogCapture log_;
};

// Two locations, a table with blocks in the default file and in another one.
void build_full(Db& db) {
  bc20_catalog_add_location(bc20_catalog, "l1", "/data/l1", 1, 1);
  bc20_catalog_add_location(bc20_catalog, "l2", "/data/l2", 3, 2);
  columnspace_register_file(db.cs, nullptr, nullptr, "f0", 1, 0);
  columnspace_register_file(db.cs, nullptr, nullptr, "f5", 2, 5);
  columnspace_set_default_file(db.cs, 0);
  db.table(1, "a", {0, 5}, {2, 1});
}

// Small catalogs whose list differs from the rule in one place each; lost keys are survived.
TEST_F(WriteLog, EdgesOfTheList) {
  struct Case {
    std::function<void(Db&)> build;
    Strings want;  // between "tr_new 0" and "tr_end 0"
    string err;    // the ERROR lines
  } cases[] = {
      {[](Db&) {}, {"cs_new 0 4096"}, ""},
      {[](Db& db) {  // an unreferenced default file, a table without columns
         columnspace_register_file(db.cs, nullptr, nullptr, "f0", 0, 0);
         columnspace_set_default_file(db.cs, 0);
         db.table(3, "t");
       },
       {"cs_new 0 4096", "cat_table_new 3 t 1", "storage_new 300 3"},
       ""},
      {[](Db& db) {
         columnspace_register_file(db.cs, nullptr, nullptr, "f1", 0, 1);
         Db::index(db.table(3, "t", {1}), bc20_idx_uniquekey, 4, "u", nullptr, {Db::column(999)});
       },
       {"cs_new 0 4096", "cat_table_new 3 t 1", "cat_column_new 301 c1 0 4 6 3",
        "storage_new 300 3", "scol_new 30 1", "paxgroup_new 310 300 30 3 1 0 4  1",
        "file_new 1 0 f1", "paxgroup_file_new 310 1 3"},
       "ERROR:LOGGER:Column 999 not found in table 't' and table has no join index.\n"},
      {[](Db& db) {
         bc20_table *t = db.table(3, "t"), *u = db.table(4, "u");
         Db::index(u, bc20_idx_primarykey, 5, "u_pk", nullptr, {});
         Db::index(t, bc20_idx_foreignkey, 6, "t_fk", "u_pk", {});
         Db::index(t, bc20_idx_join, 7, "t_j", "t_fk", {Db::column(402)});
         Db::index(t, bc20_idx_sortkey, 8, "t_sk", nullptr, {Db::column(403)});
         Db::index(t, bc20_idx_sortkey, 9, "t_sk2", nullptr, {Db::column(402)});  // via t_j
       },
       {"cs_new 0 4096", "cat_table_new 4 u 1", "storage_new 400 4", "cat_key_new 5 u_pk 0 4 -1 0",
        "cat_table_new 3 t 1", "storage_new 300 3", "cat_key_new 6 t_fk 2 3 5 0",
        "cat_index_new 7 t_j 1 3 6", "jis_size 7 1024 0 1", "jis_data 7 0 1 0", "jis_data 7 1 1 0",
        "jis_data 7 2 1 0", "cat_key_new 9 t_sk2 3 3 -1 1 7"},
       "ERROR:LOGGER:Column 403 not found in table 't'. Table has join index 't_j' with column "
       "402.\n"},
  };
  for (const Case& c : cases) {
    Db db;
    c.build(db);
    string err, errors;
    ASSERT_EQ(db.run(&err), 0) << err;
    Strings want = c.want;
    want.insert(want.begin(), "tr_new 0");
    want.push_back("tr_end 0");
    EXPECT_EQ(db.read(), want);
    for (const string& line : j480test::split_lines(err))
      if (line.rfind("ERROR", 0) == 0) errors += line + "\n";
    EXPECT_EQ(errors, c.err);
  }
}

// Tables t0..t<n-1> in slot order, each with a primary key pk<k>; a foreign key per pair (from,
// to); the slots in `dropped` dropped again.
void build_graph(int n, const Edges& fks, std::vector<int> dropped = {}) {
  for (int k = 0; k < n; k++) {
    bc20_table* t = bc20_table_create(Db::group(bc20_colgroup_logical, 100 * (k + 1), 1, nullptr));
    t->table_id = k + 1;
    bc20_catalog_add_table(bc20_catalog, t, ("t" + to_string(k)).c_str());
    Db::index(t, bc20_idx_primarykey, 1000 + k, ("pk" + to_string(k)).c_str(), nullptr, {});
  }
  for (size_t j = 0; j < fks.size(); j++)
    Db::index(bc20_catalog->tables[fks[j].first], bc20_idx_foreignkey, 2000 + j,
              ("fk" + to_string(j)).c_str(), ("pk" + to_string(fks[j].second)).c_str(), {});
  for (int k : dropped) bc20_catalog_del_table(bc20_catalog, k + 1);
}

TEST_F(WriteLog, RefusalsTouchNoFile) {
  const string cycle = "ERROR:LOGGER:count_table_references: the foreign keys of table '";
  const string tail = "' lead back to it; the tables can't be ordered.\n";
  struct Case {
    bool columnspace;
    int n;
    Edges fks;
    string err;
  } cases[] = {{true, 1, {{0, 0}}, cycle + "t0" + tail},
               {true, 2, {{0, 1}, {1, 0}}, cycle + "t0" + tail},
               {true, 4, {{0, 1}, {1, 2}, {2, 3}, {3, 1}}, cycle + "t1" + tail},
               {true, 3, {{0, 1}, {1, 2}, {2, 1}, {2, 0}}, cycle + "t1" + tail},
               {false, 0, {}, "# WARN:LOGGER:Empty catalog, not converting.\n"}};
  for (const Case& c : cases) {
    Db db(c.columnspace);
    build_graph(c.n, c.fks);
    string err;
    EXPECT_EQ(db.run(&err), -1);
    EXPECT_EQ(err, "#LOGGER:Analyzing catalog...\n" + c.err);
    EXPECT_FALSE(exists(db.cbm + "/LOG.new"));
    EXPECT_TRUE(db.has("LOG", kOldLog));
  }
}

// Every system call of a conversion failed in turn (once, and from there on) or ending the
// process: the old files stay whole under their own or their kept name, a LOG that isn't the old
// one is the complete new log, and 0 comes only with the four names in place. The recovery after
// each state is the whole tool's (convert_test.cc).
TEST_F(WriteLog, EveryFailedCallKeepsTheOldLog) {
  Strings want;
  int64_t calls = 0;
  {
    Db db;
    build_full(db);
    px_fault_count();
    ASSERT_EQ(db.run(), 0);
    calls = g_px_faults.calls;
    px_fault_disarm();
    want = db.read();
  }
  std::set<string> failures;
  for (int mode = 0; mode < 3; mode++) {
    for (int64_t k = 1; k <= calls; k++) {
      Db db;
      build_full(db);
      string err;
      int rc = -1;
      if (mode < 2) {
        px_fault_arm(k, mode ? ENOSPC : EIO, PX_FAULT_FAIL, mode == 1);
        rc = db.run(&err);
        px_fault_disarm();
      } else if (pid_t pid = fork(); pid == 0) {
        px_fault_arm(k, 0, PX_FAULT_KILL);
        _exit(write_new25_log() == 0 ? 0 : 1);
      } else {
        int status = 0;
        waitpid(pid, &status, 0);
        EXPECT_FALSE(WIFEXITED(status) && WEXITSTATUS(status) == 0);  // it ended at call k
      }
      SCOPED_TRACE("call " + to_string(k) + " mode " + to_string(mode) + "\n" + err);
      EXPECT_TRUE(db.has("LOG", kOldLog) || db.has("LOG.j480_20", kOldLog));
      EXPECT_TRUE(db.has("location_map", kOldMap) || db.has("location_map.j480_20", kOldMap));
      if (exists(db.cbm + "/LOG") && !db.has("LOG", kOldLog)) {
        EXPECT_EQ(db.read(), want);
      }
      EXPECT_TRUE(rc != 0 || (db.has("LOG.j480_20", kOldLog) && !exists(db.cbm + "/LOG.new") &&
                              !exists(db.cbm + "/location_map.new")));
      for (string line : j480test::split_lines(err)) {
        if (line.find("moving") != string::npos) {  // the reason is the failed call's
          EXPECT_TRUE(line.ends_with(strerror(mode ? ENOSPC : EIO))) << line;
        }
        for (size_t at; (at = line.find(db.cbm)) != string::npos;)
          line.replace(at, db.cbm.size(), "CBM");
        if (line.find("write_new25_log: ") != string::npos)
          failures.insert(line.substr(0, line.find(" failed")));
      }
    }
  }
  const string pre = "ERROR:LOGGER:write_new25_log: ";
  EXPECT_EQ(failures,
            (std::set<string>{pre + "moving 'CBM/LOG' to 'CBM/LOG.j480_20'",
                              pre + "moving 'CBM/location_map' to 'CBM/location_map.j480_20'",
                              pre + "moving 'CBM/LOG.new' to 'CBM/LOG'",
                              pre + "moving 'CBM/location_map.new' to 'CBM/location_map'",
                              pre + "syncing directory 'CBM'"}));
}

TEST_F(WriteLog, BrokenModelsFailAssertions) {
  struct Case {
    const char* text;
    std::function<void(Db&)> build;
  } cases[] = {
      {"ref_table",
       [](Db&) {
         build_graph(2, {{0, 1}}), bc20_catalog->tables[0]->indexes[1]->key_name[0] = 'x';
       }},
      {"default_file", [](Db& db) { db.cs->default_file_nr = 42; }},
      {"file",
       [](Db& db) {
         scolumn_create(bc20_iobm, db.cs, 10, 1, SCOLUMN_MODE_LOGGED);
         bc20_colgroup_set_store(
             Db::group(bc20_colgroup_storage, 110, 1, db.table(1, "t")->colgroup), 10);
       }},
      {"FALSE",
       [](Db& db) {
         columnspace_register_file(db.cs, nullptr, nullptr, "f", 0, 1);
         db.table(1, "t", {1})->colgroup->columns[0]->ctype = 99;
       }},
      {"group->type == bc20_colgroup_storage",
       [](Db& db) { Db::group(bc20_colgroup_null, 7, 1, db.table(1, "t")->colgroup); }},
  };
  for (const Case& c : cases) {
    Db db;
    EXPECT_DEATH((c.build(db), write_new25_log()),
                 j480test::Esc(string("assertion \"") + c.text + "\" failed"));
  }
  EXPECT_DEATH(init_ordered_tables(nullptr, nullptr), j480test::Esc("assertion \"cat\" failed"));
  EXPECT_DEATH(sort_ordered_tables(nullptr), j480test::Esc("assertion \"tables\" failed"));
}

}  // namespace
