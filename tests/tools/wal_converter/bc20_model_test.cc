// The legacy 2.0 model: the catalog's lookups against a plain scan of its slots in order, group
// trees against their invariants, over random histories; the catalog's and the index records'
// messages, the location map, and every assertion. Generated databases replay through this
// model and convert in convert_test.cc.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "kernel/ptype.h"
#include "support/test_support.h"
#include "tools/wal_converter/bc20_catalog.h"
#include "tools/wal_converter/bc20_colgroup.h"
#include "tools/wal_converter/bc20_column.h"
#include "tools/wal_converter/bc20_index.h"
#include "tools/wal_converter/bc20_location_map.h"
#include "tools/wal_converter/bc20_logger.h"
#include "tools/wal_converter/bc20_table.h"
#include "utils/mem.h"
#include "utils/posix.h"
#include "utils/stream.h"

namespace {

using j480test::err_of;
using j480test::Esc;

class Bc20Model : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    ptype_register_all();
    bc20_column_register_types();
    bc20_colgroup_register_types();
    bc20_index_register_types();
  }
  void SetUp() override {
    cat_ = bc20_catalog_create();
    bc20_catalog = cat_;
    mem_ = mem_context_create(nullptr, "test");
  }
  void TearDown() override {
    bc20_catalog_destroy(cat_);
    bc20_catalog = nullptr;
    mem_context_remove(mem_);
  }
  static bc20_column* column(int64_t id, int32_t adt = PTYPE_SINT) {
    bc20_column* c = bc20_column_create(0, adt);
    bc20_column_set_id(c, id);
    return c;
  }
  static bc20_colgroup* group(int32_t type, int64_t id, int32_t ncols, bc20_colgroup* parent) {
    bc20_colgroup* g = bc20_colgroup_create(type, ncols, parent);
    bc20_colgroup_set_id(g, id);
    return g;
  }
  // A table `id` whose root (group id `id` * 100) holds columns id*100+1 .. id*100+n.
  bc20_table* table(int64_t id, const std::string& name, int n = 2) {
    bc20_colgroup* root = group(bc20_colgroup_logical, id * 100, n, nullptr);
    for (int k = 1; k <= n; k++)
      bc20_colgroup_add_column(root, column(id * 100 + k), ("c" + std::to_string(k)).c_str());
    bc20_table* t = bc20_table_create(root);
    t->table_id = id;
    bc20_catalog_add_table(cat_, t, name.c_str());
    return t;
  }
  bc20_index* index(bc20_table* t, int32_t type, int64_t id, const std::string& name,
                    const char* key_name = nullptr, std::vector<int> cols = {0}) {
    bc20_colgroup* g =
        group(bc20_colgroup_logical, id * 10, static_cast<int32_t>(cols.size()), nullptr);
    for (int p : cols)
      bc20_colgroup_add_column(g, t->colgroup->columns[p], t->colgroup->column_names[p]);
    bc20_index* i = bc20_index_create(type, g, nullptr);
    i->id = id;
    i->key_name = key_name != nullptr ? strdup(key_name) : nullptr;
    const char* tname = bc20_catalog_table_name_by_id(cat_, t->table_id);
    bc20_table_add_index(t, tname, i, name.c_str());
    return i;
  }

  j480test::LogCapture log_;
  struct bc20_catalog* cat_ = nullptr;
  MemContext* mem_ = nullptr;
};

// Every assertion of the model, each on a model of its own.
TEST_F(Bc20Model, AssertionsOfTheModel) {
  auto root = [] { return group(bc20_colgroup_logical, 1, 2, nullptr); };
  auto storage = [&] { return group(bc20_colgroup_storage, 3, 1, root()); };
  const std::pair<std::function<void()>, const char*> cases[] = {
      {[&] {
         bc20_column* c = column(1);
         bc20_column_set_sqltype(c, "integer", 10, 0);
         bc20_column_set_sqltype(c, "x", 0, 0);
       },
       "c->sqltype == NULL"},
      {[] { bc20_column_create(0, 99); }, "c->type"},
      {[] { bc20_column_create(7, PTYPE_SINT); },
       "column_type >= 0 && column_type < nr_of_columns"},
      {[] { bc20_column_unref(bc20_column_create(0, PTYPE_SINT)); }, "c->refcnt >= 0"},
      {[] { bc20_column_ref(nullptr); }, "c"},
      {[&] { bc20_colgroup_add_column(group(bc20_colgroup_null, 2, 0, root()), column(1), "a"); },
       "cg->columns_size > 0"},
      {[&] { bc20_colgroup_drop_child(mem_, root(), 99); }, "cg && cg->logical && colnames"},
      {[&] { bc20_colgroup_drop_child(mem_, storage(), 99); }, "cg && cg->logical"},
      {[&] { bc20_colgroup_set_store(storage(), 5); }, "scol"},
      {[&] { bc20_colgroup_add_file(storage(), 0); }, "cs_file && scg->file_nr < 0"},
      {[] { bc20_colgroup_create(3, 1, nullptr); },
       "colgroup_type >= 0 && colgroup_type < nr_of_colgroups"},
      {[&] { bc20_table_create(storage()); },
       "cg->owner_kind == BC20_CG_FREE && cg->parent == NULL"},
      {[&] {
         catalog_get_referenced_table_from_joinindex(
             cat_, index(table(2, "b"), bc20_idx_join, 22, "b_j", "nothing"));
       },
       "fk"},
      {[&] { bc20_catalog_set_location_usage(cat_, 5, 1); }, "location"},
      {[&] { bc20_catalog_set_location_path(cat_, 9, "/"); }, "location"},
  };
  for (const auto& [f, text] : cases)
    EXPECT_DEATH(f(), Esc(std::string("assertion \"") + text + "\" failed"));
}

// ---- group trees ----

// Random trees of three levels against their invariants: every column of a child stands in its
// parent at its recorded position (or -1 once gone), and a column's reference count is the
// number of places that hold it.
TEST_F(Bc20Model, RandomGroupTreesKeepTheirInvariants) {
  std::mt19937_64 rng(19);
  for (int round = 0; round < 20; round++) {
    bc20_colgroup* root = group(bc20_colgroup_logical, 1, 4, nullptr);
    std::vector<bc20_column*> cols;
    for (int k = 0; k < 12; k++) cols.push_back(bc20_column_ref(column(k)));
    int64_t next_id = 2;
    auto all = [&] {
      std::vector<bc20_colgroup*> v{root};
      for (size_t i = 0; i < v.size(); i++)
        for (int32_t k = 0; k < v[i]->n_children; k++) v.push_back(v[i]->children[k]);
      return v;
    };
    auto check = [&] {
      std::vector<int> held(cols.size(), 1);  // the test's own reference
      for (bc20_colgroup* g : all()) {
        for (int32_t i = 0; i < g->n_columns; i++) {
          held[static_cast<size_t>(g->columns[i]->id)]++;
          if (g->parent == nullptr) continue;
          int32_t p = g->parent_positions[i];
          int32_t real = -1;
          for (int32_t j = 0; j < g->parent->n_columns && real < 0; j++)
            if (g->parent->columns[j] == g->columns[i]) real = j;
          ASSERT_EQ(p, real) << "round " << round;
        }
      }
      for (size_t k = 0; k < cols.size(); k++) ASSERT_EQ(cols[k]->refcnt, held[k]);
    };
    for (int step = 0; step < 200; step++) {
      std::vector<bc20_colgroup*> groups = all();
      bc20_colgroup* g = groups[rng() % groups.size()];
      bc20_column* c = cols[rng() % cols.size()];
      switch (rng() % 4) {
        case 0: {
          int depth = 0;
          for (bc20_colgroup* p = g; p->parent != nullptr; p = p->parent) depth++;
          if (depth < 2)
            group(bc20_colgroup_null, next_id++, 1 + static_cast<int32_t>(rng() % 3), g);
          break;
        }
        case 1:
          bc20_colgroup_add_column(g, c, ("n" + std::to_string(c->id)).c_str());
          break;
        case 2:
          if (root->n_children > 0)
            bc20_colgroup_drop_child(mem_, root, root->children[rng() % root->n_children]->id);
          break;
        default:
          if (g != root && rng() % 3 == 0) bc20_colgroup_free(g);
          break;
      }
      check();
      if (HasFatalFailure()) return;
    }
    bc20_colgroup_free(root);
    for (bc20_column* c : cols) bc20_column_unref(c);
  }
}

// ---- the catalog ----

TEST_F(Bc20Model, CatalogMessages) {
  std::string err = err_of([&] {
    bc20_table* t = table(1, "t");
    bc20_table* again = bc20_table_create(group(bc20_colgroup_logical, 9, 1, nullptr));
    EXPECT_EQ(bc20_catalog_add_table(cat_, again, "t"), -1);
    bc20_table_destroy(again);
    EXPECT_EQ(bc20_catalog_add_table(cat_, t, ""), -1);
    bc20_index* k = index(t, bc20_idx_primarykey, 2, "pk");
    EXPECT_EQ(catalog_get_referenced_table_from_joinindex(cat_, k), -1);
    EXPECT_EQ(catalog_get_referenced_table_from_foreignkey(cat_, k), -1);
    EXPECT_EQ(bc20_catalog_add_location(cat_, "l", nullptr, 1, 0), 2);
    EXPECT_EQ(bc20_catalog_add_location(cat_, "l", "/p", 1, 2), -1);
    EXPECT_EQ(bc20_catalog_add_location(cat_, "", "/p", 1, 7), -1);
    EXPECT_EQ(bc20_catalog_del_location(cat_, 2), 0);
    EXPECT_EQ(bc20_catalog_del_table(cat_, 1), 0);
    EXPECT_EQ(bc20_catalog_del_table(cat_, 1), -1);
  });
  EXPECT_EQ(err,
            "ERROR:CATALOG:table already exists: t\n"
            "ERROR:CATALOG:catalog_get_referenced_table_from_joinindex: not a joinindex\n"
            "ERROR:CATALOG:catalog_get_referenced_table_from_foreignkey: not a foreign key\n"
            "ERROR:CATALOG:location already exists: l\n");
}

// Every lookup of the catalog against the plain scan of its live slots in order, over a random
// history with repeated ids and names, deletes and groups that come and go.
TEST_F(Bc20Model, RandomCatalogLookupsMatchTheSlotScan) {
  std::mt19937_64 rng(4);
  auto r = [&](uint64_t n) { return static_cast<int64_t>(rng() % n); };
  const char* names[] = {"a", "_a", "_xSa", "_yS", "_", "b", "_b", "_zSb"};
  auto scan = [&](const std::function<bool(bc20_table*, uint32_t)>& hit) -> int64_t {
    for (uint32_t k = 0; k < cat_->n_tables; k++)
      if (cat_->tables[k] != nullptr && hit(cat_->tables[k], k)) return k;
    return -1;
  };
  auto at = [&](int64_t slot) { return slot < 0 ? nullptr : cat_->tables[slot]; };
  auto scan_name = [&](const char* name) -> int64_t {
    int64_t nr =
        scan([&](bc20_table*, uint32_t k) { return strcmp(cat_->table_names[k], name) == 0; });
    const char* s = strchr(name, 'S');
    if (nr >= 0 || name[0] != '_' || s == nullptr) return nr;
    return scan([&](bc20_table*, uint32_t k) {
      return cat_->table_names[k][0] == '_' && strcmp(cat_->table_names[k] + 1, s + 1) == 0;
    });
  };
  int64_t next_group = 1000;
  for (int step = 0; step < 3000; step++) {
    SCOPED_TRACE("step " + std::to_string(step));
    const bool live = scan([](bc20_table*, uint32_t) { return true; }) >= 0;
    auto some_table = [&] { return live ? cat_->tables[r(cat_->n_tables)] : nullptr; };
    switch (r(6)) {
      case 0:
      case 1: {
        bc20_colgroup* root = group(bc20_colgroup_logical, r(12), 2, nullptr);
        int ncols = 1 + static_cast<int>(r(12));  // wide roots are searched through a lookup
        for (int k = 0; k < ncols; k++)
          bc20_colgroup_add_column(root, column(r(20)), ("c" + std::to_string(k)).c_str());
        bc20_table* t = bc20_table_create(root);
        t->table_id = r(10);
        err_of([&] {
          if (bc20_catalog_add_table(cat_, t, names[r(8)]) < 0) bc20_table_destroy(t);
        });
        break;
      }
      case 2:
        if (live) bc20_catalog_del_table(cat_, r(10));
        break;
      case 3:
        if (bc20_table* t = some_table()) {
          bc20_colgroup* g = group(bc20_colgroup_logical, next_group++, 1, nullptr);
          bc20_colgroup_add_column(g, column(r(20)), "ic");
          bc20_index* i = bc20_index_create(bc20_idx_uniquekey, g, nullptr);
          i->id = r(8);
          bc20_table_add_index(t, "t", i, names[r(8)]);
        }
        break;
      case 4:
        if (bc20_table* t = some_table(); t != nullptr && t->n_indexes > 0)
          bc20_table_del_index(t, t->indexes[r(t->n_indexes)]);
        break;
      default:
        if (bc20_table* t = some_table()) {
          bc20_colgroup* root = t->colgroup;
          if (root->n_children > 0 && r(2) == 0) {
            bc20_colgroup_drop_child(mem_, root, root->children[r(root->n_children)]->id);
          } else {
            bc20_colgroup* parent = root->n_children > 0 && r(2) ? root->children[0] : root;
            bc20_colgroup* g = group(bc20_colgroup_null, r(12), 1, parent);
            bc20_colgroup_add_column(g, column(r(20)), "g");
          }
        }
        break;
    }
    for (int64_t id = 0; id < 20; id++) {
      ASSERT_EQ(bc20_catalog_table_nr_by_id(cat_, id),
                scan([&](bc20_table* t, uint32_t) { return t->table_id == id; }));
      ASSERT_EQ(bc20_catalog_table_by_colgroup_id(cat_, id), at(scan([&](bc20_table* t, uint32_t) {
                  return bc20_table_colgroup_by_id(t, id) != nullptr;
                })));
      bc20_table* owner = at(scan([&](bc20_table* t, uint32_t) { return t->colgroup->id == id; }));
      ASSERT_EQ(bc20_catalog_root_colgroup_by_id(cat_, id), owner ? owner->colgroup : nullptr);
      const char *want_name = nullptr, *got_name = nullptr;
      bc20_column* want = nullptr;
      scan([&](bc20_table* t, uint32_t) {
        return (want = bc20_table_column_by_id(t, id, &want_name)) != nullptr;
      });
      ASSERT_EQ(bc20_catalog_column_by_id(cat_, id, &got_name), want);
      ASSERT_EQ(got_name, want_name);
      bc20_table* ix = at(
          scan([&](bc20_table* t, uint32_t) { return bc20_table_index_by_id(t, id) != nullptr; }));
      ASSERT_EQ(bc20_catalog_index_by_id(cat_, id), ix ? bc20_table_index_by_id(ix, id) : nullptr);
      ASSERT_EQ(bc20_catalog_index_name_by_id(cat_, id),
                ix ? bc20_table_index_name_by_id(ix, id) : nullptr);
    }
    for (const char* name : names) {
      ASSERT_EQ(bc20_catalog_table_nr_by_name(cat_, name), scan_name(name)) << name;
      bc20_table* ix = at(scan(
          [&](bc20_table* t, uint32_t) { return bc20_table_index_by_name(t, name) != nullptr; }));
      ASSERT_EQ(bc20_catalog_index_by_name(cat_, name),
                ix ? bc20_table_index_by_name(ix, name) : nullptr);
    }
  }
}

// ---- minmax and join index records ----

struct IndexCase {
  const char* what;
  bc20_action action;
  int rc;
  const char* err;
};

// Every refusal of a minmax or join index record with its message; what the accepted ones store
// is the whole tool's (convert_test.cc).
TEST_F(Bc20Model, IndexRecordsAndTheirMessages) {
  bc20_table* t = table(1, "t", 2);
  bc20_column* s = column(150, PTYPE_STR);
  bc20_colgroup_add_column(t->colgroup, s, "s");
  index(t, bc20_idx_minmax, 3, "mm", nullptr, {0, 2});
  index(t, bc20_idx_join, 4, "jj", nullptr, {0});
  int32_t fixed32[4] = {1, 2, 30, 40};  // two groups of sint: minima 1 2, maxima 30 40
  char var[16 * 2 + 6];
  int64_t lens[4] = {1, 2, 0, 3};
  memcpy(var, lens, 32);
  memcpy(var + 32, "abbxyz", 6);
  int64_t words[3] = {7, 8, 9};
  char ovf[20];
  int64_t olens[2] = {1, 3};
  memcpy(ovf, olens, 16);
  memcpy(ovf + 16, "lmno", 4);
  auto action = [](uint32_t tag) {
    bc20_action a{};
    a.type = tag;
    return a;
  };
  auto overflow = [&](int64_t size, void* p) {
    bc20_action a = action(bc20_minmax_vardata);
    a.minmax_vardata = {3, 1, 38, var, 1, size, p};
    return a;
  };
  auto size = [&](int64_t id, int64_t maxg, int64_t nt, int64_t gs) {
    bc20_action a = action(bc20_minmax_size);
    a.minmax_size = {id, maxg, nt, gs};
    return a;
  };
  auto data = [&](uint32_t tag, int32_t col, int64_t n, void* p) {
    bc20_action a = action(tag);
    a.minmax_data = {3, col, n, p, 0, 0, nullptr};
    return a;
  };
  auto jis = [&](uint32_t tag, int64_t id, int32_t col, int64_t n, void* p) {
    bc20_action a = action(tag);
    if (tag == bc20_jis_size) a.jis_size = {id, 4, n, 1};
    else a.jis_data = {id, col, n, p};
    return a;
  };
  const IndexCase cases[] = {
      {"unknown index", size(9, 4, 4, 2), 0, "ERROR:CATALOG:bad index id (9)\n"},
      {"not a minmax", size(4, 4, 4, 2), 0, "ERROR:CATALOG:bad index id (4)\n"},
      {"too many groups", size(3, 2, 5, 2), 0, "ERROR:CATALOG:too many groups in logged index\n"},
      {"exactly full", size(3, 2, 4, 2), 1, ""},
      {"bad column", data(bc20_minmax_data, 2, 16, fixed32), 0,
       "ERROR:CATALOG:bad column number\n"},
      {"fixed as var", data(bc20_minmax_vardata, 0, 16, fixed32), 0,
       "ERROR:CATALOG:bad stored data type\n"},
      {"fixed size", data(bc20_minmax_data, 0, 12, fixed32), 0,
       "ERROR:CATALOG:Bad stored data size 12 (should be 16)\n"},
      {"fixed", data(bc20_minmax_data, 0, 16, fixed32), 1, ""},
      {"var table", data(bc20_minmax_vardata, 1, 31, var), 0,
       "ERROR:CATALOG:Bad stored data size 31 (should be >=32)\n"},
      {"var short", data(bc20_minmax_vardata, 1, 37, var), 0,
       "ERROR:CATALOG:bad stored data size\n"},
      {"var", data(bc20_minmax_vardata, 1, 38, var), 1, ""},
      {"overflow short", overflow(15, ovf), 0,
       "ERROR:CATALOG:minmax overflow: bad data size 15 (should be >=16)\n"},
      {"overflow lengths", overflow(19, ovf), 0, "ERROR:CATALOG:bad stored overflow data size\n"},
      {"overflow", overflow(20, ovf), 1, ""},
      {"jis too many", jis(bc20_jis_size, 4, 0, 5, nullptr), 1,
       "ERROR:CATALOG:jis_action_handler: too many groups in logged index\n"},
      {"jis unknown", jis(bc20_jis_size, 3, 0, 2, nullptr), 0,
       "ERROR:CATALOG:jis_action_handler: bad index id (3)\n"},
      {"jis size", jis(bc20_jis_size, 4, 0, 2, nullptr), 1, ""},
      {"jis count", jis(bc20_jis_data, 4, 0, 2, words), 1,
       "ERROR:CATALOG:jis_action_handler: number of groups in data doesn't match number of groups "
       "in index\n"},
      {"jis column", jis(bc20_jis_data, 4, 3, 3, words), 1,
       "ERROR:CATALOG:jis_action_handler: wrong column type stored in index\n"},
      {"jis data", jis(bc20_jis_data, 4, 1, 3, words), 1, ""},
  };
  for (const IndexCase& k : cases) {
    bc20_action a = k.action;
    int rc = -1;
    std::string err = err_of(
        [&] { rc = bc20_minmax_action_handler(nullptr, &a) && jis_action_handler(nullptr, &a); });
    EXPECT_EQ(rc, k.rc) << k.what;
    EXPECT_EQ(err, k.err) << k.what;
  }
}

// ---- the location map ----

struct MapCase {
  const char* what;
  std::string text;
  int64_t rc;
  std::string err;     // behind the reader's name; %s: the map file's name
  std::string path_a;  // "-": none
  std::string path_b = "/old";
  int64_t failing_read = 0;  // the read of the seam that fails, 0 for none
};

TEST_F(Bc20Model, LocationMapLinesAndFailures) {
  j480test::TempDir tmp;
  std::string file = tmp.file("location_map");
  std::string e1023(1023, 'p'), at510(510, 'q');
  auto zero = [](int line) {
    return "zero-length element on line " + std::to_string(line) + " in map file '%s'";
  };
  const MapCase cases[] = {
      {"empty", "", 0, "", "-"},
      {"two lines, last wins", "a,/x\nb,/y\na,/z\n", 3, "", "/z", "/y"},
      {"unknown skipped", "zz,/q\na,/x\n,\n", -1, zero(1), "/x"},
      {"blank line", "\n", -1, zero(0), "-"},
      {"empty path", "a,\n", -1, zero(0), "-"},
      {"two commas", "a,/x\na,b,c\n", -1,
       "more than one element separator (,) on line 1 in map file '%s'", "/x"},
      {"no comma", "a\n", -1, "missing element on line 0 in map file '%s'", "-"},
      {"1023 bytes", "a," + e1023 + "\n", 1, "", e1023},
      {"1024 bytes", "a," + e1023 + "p\n", -1,
       "element on line 0 in map file '%s' too long (longer than 1023)", "-"},
      {"across pieces", "a," + at510 + "\n", 1, "", at510},
      {"read error", "a,/x\nb," + at510 + "\n", -1, "", "/x", "/old", 2},
      {"no final line feed", "a,/x\nb,/y", 1, "incomplete last line 1 in map file '%s'", "/x"},
  };
  for (const MapCase& k : cases) {
    bc20_catalog_destroy(cat_);
    cat_ = bc20_catalog_create();
    bc20_catalog_add_location(cat_, "a", nullptr, 1, 3);
    bc20_catalog_add_location(cat_, "b", "/old", 1, 4);
    j480test::write_file(file, k.text);
    stream* s = open_text_read_stream(file.c_str());
    int64_t rc = 0;
    std::string err = err_of([&] {
      if (k.failing_read > 0) px_fault_arm(k.failing_read, EIO);
      rc = bm_logger_replay_location_map(s, cat_);
      px_fault_disarm();
    });
    stream_close_destroy(s);
    std::string want = k.err;
    if (size_t at = want.find("%s"); at != std::string::npos)
      want = "ERROR:LOGGER:bm_logger_replay_location_map: " + want.replace(at, 2, file) + "\n";
    EXPECT_EQ(rc, k.rc) << k.what;
    EXPECT_EQ(err, want) << k.what;
    const char* a = bc20_catalog_location_path(cat_, 3);
    EXPECT_EQ(a != nullptr ? a : "-", k.path_a) << k.what;
    EXPECT_STREQ(bc20_catalog_location_path(cat_, 4), k.path_b.c_str()) << k.what;
  }
}

}  // namespace
