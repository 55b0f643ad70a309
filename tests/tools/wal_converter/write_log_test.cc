// The conversion's finish: small catalogs read back from the committed log with the keys and
// errors they survive, the refusals and the assertions. Generated databases convert action by
// action, and the file exchange fails or ends at every system call, in convert_test.cc.
#include "tools/wal_converter/write_log.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "bm/columnspace.h"
#include "bm/iobm.h"
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
#include "utils/cvconfig.h"
#include "utils/mem.h"

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

  Db() {
    cvconfig_layer* layer = cvconfig_layer_create(nullptr, "cmdline", cvconfig_defaults(config));
    cvconfig_set_str(layer, CVGROUP_SERVER, CVPROP_DBFARM_PATH, farm.path().c_str());
    cvconfig_set_str(layer, CVGROUP_SERVER, CVPROP_DBNAME, "db");
    err_of([&] { bc20_iobm = iobm_create(layer); });
    cs = columnspace_create(4096, 8, 64, 1);
    // A file's handle is a copy of its name, as the replay makes it.
    cs->file_created = [](columnspace*, MemContext* mem, void*, void*, const char* name,
                          int64_t) -> void* { return mem_strdup(mem, name); };
    cs->file_name = [](columnspace*, void* handle) { return static_cast<const char*>(handle); };
    iobm_set_columnspace(bc20_iobm, cs);
    bc20_catalog = bc20_catalog_create();
    j480test::write_file(cbm + "/LOG", kOldLog);
    j480test::write_file(cbm + "/location_map", kOldMap);
  }
  ~Db() {
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
  // Table `id` (root id*100); per file a storage group id*100+10+k on storage column id*10+k
  // holding column id*100+1+k "c<k+1>".
  bc20_table* table(int64_t id, const char* name, std::vector<int64_t> files = {}) {
    bc20_colgroup* root = group(bc20_colgroup_logical, id * 100, 4, nullptr);
    for (int64_t k = 0; k < int64_t(files.size()); k++) {
      scolumn_create(bc20_iobm, cs, int32_t(id * 10 + k), 1, SCOLUMN_MODE_LOGGED);
      bc20_colgroup* g = group(bc20_colgroup_storage, id * 100 + 10 + k, 2, root);
      bc20_colgroup_set_store(g, id * 10 + k);
      bc20_colgroup_add_file(g, files[size_t(k)]);
      bc20_colgroup_add_column(g, column(id * 100 + 1 + k), ("c" + to_string(k + 1)).c_str());
    }
    bc20_table* t = bc20_table_create(root);
    t->table_id = id;
    bc20_catalog_add_table(bc20_catalog, t, name);
    return t;
  }
  static bc20_index* index(bc20_table* t, int32_t type, int64_t id, const char* name,
                           const char* key, std::vector<bc20_column*> cols) {
    bc20_colgroup* icg = group(bc20_colgroup_logical, id * 10, 4, nullptr);
    for (bc20_column* c : cols) bc20_colgroup_add_column(icg, c, "k");
    bc20_index* i = bc20_index_create(type, icg, nullptr);
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

// Small catalogs whose list differs from the rule in one place each; lost keys are survived.
TEST_F(WriteLog, EdgesOfTheList) {
  struct Case {
    std::function<void(Db&)> build;
    Strings want;  // between "tr_new 0" and "tr_end 0"
    string err;    // the ERROR lines
  } cases[] = {
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
    EXPECT_EQ(j480test::read_log25(db.cbm + "/LOG"), want);
    for (const string& line : j480test::split_lines(err))
      if (line.rfind("ERROR", 0) == 0) errors += line + "\n";
    EXPECT_EQ(errors, c.err);
  }
}

// Tables t0..t<n-1> in slot order, each with a primary key pk<k>; a foreign key per pair (from,
// to).
void build_graph(int n, const Edges& fks) {
  for (int k = 0; k < n; k++) {
    bc20_table* t = bc20_table_create(Db::group(bc20_colgroup_logical, 100 * (k + 1), 1, nullptr));
    t->table_id = k + 1;
    bc20_catalog_add_table(bc20_catalog, t, ("t" + to_string(k)).c_str());
    Db::index(t, bc20_idx_primarykey, 1000 + k, ("pk" + to_string(k)).c_str(), nullptr, {});
  }
  for (size_t j = 0; j < fks.size(); j++)
    Db::index(bc20_catalog->tables[fks[j].first], bc20_idx_foreignkey, 2000 + j,
              ("fk" + to_string(j)).c_str(), ("pk" + to_string(fks[j].second)).c_str(), {});
}

// Foreign keys that lead back to their table; the empty catalog is the whole tool's (cli_test.cc).
TEST_F(WriteLog, RefusalsTouchNoFile) {
  const struct {
    int n;
    Edges fks;
    string culprit;
  } cases[] = {{1, {{0, 0}}, "t0"},
               {2, {{0, 1}, {1, 0}}, "t0"},
               {4, {{0, 1}, {1, 2}, {2, 3}, {3, 1}}, "t1"},
               {3, {{0, 1}, {1, 2}, {2, 1}, {2, 0}}, "t1"}};
  for (const auto& c : cases) {
    Db db;
    build_graph(c.n, c.fks);
    string err;
    EXPECT_EQ(db.run(&err), -1);
    EXPECT_EQ(err, "#LOGGER:Analyzing catalog...\nERROR:LOGGER:count_table_references: the " +
                       ("foreign keys of table '" + c.culprit) +
                       "' lead back to it; the tables can't be ordered.\n");
    EXPECT_FALSE(exists(db.cbm + "/LOG.new"));
    EXPECT_EQ(read_file(db.cbm + "/LOG"), kOldLog);
  }
}

TEST_F(WriteLog, BrokenModelsFailAssertions) {
  const std::pair<const char*, std::function<void(Db&)>> cases[] = {
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
  for (const auto& [text, build] : cases) {
    Db db;
    EXPECT_DEATH((build(db), write_new25_log()),
                 j480test::Esc(string("assertion \"") + text + "\" failed"));
  }
  EXPECT_DEATH(init_ordered_tables(nullptr, nullptr), j480test::Esc("assertion \"cat\" failed"));
  EXPECT_DEATH(sort_ordered_tables(nullptr), j480test::Esc("assertion \"tables\" failed"));
}

}  // namespace
