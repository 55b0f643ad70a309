// Write-PDTs of the old log rebuilt through bc20_rebuild_pdt: refused payloads, and the join
// index path of the catalog. Generated write-PDTs, stacked records among them, rebuild and
// convert in convert_test.cc; damaged payloads are the fuzz target's (fuzz/bc20_pdt_fuzz.cc).
#include "support/test_support.h"
#include "tools/wal_converter/bc20_catalog.h"
#include "tools/wal_converter/bc20_colgroup.h"
#include "tools/wal_converter/bc20_column.h"
#include "tools/wal_converter/bc20_index.h"
#include "tools/wal_converter/bc20_table.h"
#include "tools/wal_converter/bc20_value_space.h"
#include "updates/updates_test_util.h"

namespace {

constexpr int64_t kTableId = 5, kStable = 3000;
constexpr uint32_t kCols = 3;  // with the increment column

// The legacy form differs from today's in the head of the value space alone: one insert count
// where today's form has one per column.
std::string legacy(const pdt* t) {
  std::string p = ut::serialize(t);
  int64_t vs_size;
  memcpy(&vs_size, &p[8], 8);
  vs_size -= 4 * (kCols - 1);
  memcpy(&p[8], &vs_size, 8);
  return p.erase(24 + 4, 4 * (kCols - 1));
}

class Bc20ValueSpace : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    ut::kernel_up();
    bc20_column_register_types();
    bc20_colgroup_register_types();
    bc20_index_register_types();
  }
  bc20_table* table(int64_t id, const char* name, std::vector<int32_t> types) {
    bc20_colgroup* root =
        bc20_colgroup_create(bc20_colgroup_logical, int32_t(types.size()), nullptr);
    bc20_colgroup_set_id(root, id * 100);
    for (size_t c = 0; c < types.size(); c++) {
      bc20_column* col = bc20_column_create(0, types[c]);
      bc20_column_set_id(col, id * 100 + 1 + int64_t(c));
      bc20_colgroup_add_column(root, col, ("c" + std::to_string(c)).c_str());
    }
    bc20_table* t = bc20_table_create(root);
    t->table_id = id;
    bc20_catalog_add_table(cat_, t, name);
    return t;
  }
  void SetUp() override {
    pdt_debug_checks = 0;
    bc20_catalog = cat_ = bc20_catalog_create();
    bc20_table* t = table(kTableId, "t", {PTYPE_SLNG, PTYPE_STR});
    // A join index of another table points here: its id is the increment column's.
    bc20_table* other = table(6, "o", {PTYPE_SINT});
    bc20_colgroup* g = bc20_colgroup_create(bc20_colgroup_logical, 1, nullptr);
    bc20_colgroup_set_id(g, 700);
    bc20_colgroup_add_column(g, other->colgroup->columns[0], "k");
    bc20_index* i = bc20_index_create(bc20_idx_join, g, nullptr);
    i->id = ut::kJoinIndex;
    bc20_table_add_index(other, "o", i, "ji");
    bc20_table_add_incoming_joinindex(t, "ji");
    nr_ = bc20_catalog_table_nr_by_id(cat_, kTableId);
  }
  void TearDown() override {
    bc20_catalog_destroy(cat_);
    bc20_catalog = nullptr;
    pdt_debug_checks = 1;
  }
  int rebuild(const std::string& payload) {
    int rc = 0;
    err_ = j480test::err_of(
        [&] { rc = bc20_rebuild_pdt(kTableId, payload.data(), int64_t(payload.size())); });
    return rc;
  }
  pdt*& wpdt() const { return cat_->write_pdts[nr_]; }
  std::vector<ut::Item> image(const pdt* t) const {
    std::string why;
    std::vector<ut::Item> img = ut::image(t, kStable, &why);
    EXPECT_EQ(why, "");
    return img;
  }

  struct bc20_catalog* cat_ = nullptr;
  int64_t nr_ = -1;
  std::string err_;
};

TEST_F(Bc20ValueSpace, PayloadsNoTreeCanBeBuiltFromAreRefusedAndChangeNothing) {
  ut::Tree t;  // inserts, modifies of both columns, increments and deletes
  for (int64_t k = 0; k < 40; k++) {
    pdt_add_insert(t.t, 7 * k, t.tuple(k, "ab"), nullptr, nullptr, 0);
    pdt_add_modify(t.t, 7 * k + 3, t.modify(uint16_t(k % 2), k, "cd"), uint16_t(k % 2));
    if (k % 5 == 0) pdt_add_increment(t.t, 7 * k + 4, ut::kIncCol, k);
    if (k % 7 == 0) pdt_add_delete(t.t, 7 * k + 5, 1, -1);
  }
  const std::string good = legacy(t.t);
  auto with = [&](size_t at, uint64_t v, size_t n) {
    std::string p = good;
    memcpy(&p[at], &v, n);
    return p;
  };
  auto last_of = [&](uint32_t type) {  // the place of the last entry of a type
    for (size_t at = good.size() - 12;; at -= 12)
      if (uint64_t def; memcpy(&def, &good[at], 8), PDT_TYPE(def) == type) return at;
  };
  const size_t ins = last_of(PDT_INSERT), mod = last_of(PDT_MODIFY);
  const std::pair<const char*, std::string> cases[] = {
      {"one byte more", good + "x"},
      {"one byte less", good.substr(0, good.size() - 1)},
      {"shorter than the header", good.substr(0, 23)},
      {"fan_out 2", with(0, 2, 4)},
      {"fan_out above any node size", with(0, 1u << 30, 4)},
      {"num_nodes 0", with(4, 0, 4)},
      {"negative vs_size", with(8, ~0ull, 8)},
      {"entries past the end", with(16, 1ull << 60, 8)},
      {"insert count past the space", with(24, 0xFFFFFFFF, 4)},
      {"modify count past the space", with(24 + 4 * kCols, 1u << 30, 4)},
      {"a string without its zero", with(good.size() - 12 * t.t->n_entries - 1, 'x', 1)},
      {"insert offset past the inserts", with(ins + 8, 0xFFFFFFFF, 4)},
      {"modify offset past the modifies", with(mod + 8, 0xFFFFFFFF, 4)},
      {"modify of a column past the last", with(mod, PDT_DEF(0, PDT_MODIFY, kCols), 8)},
  };
  for (const auto& [what, payload] : cases) {
    EXPECT_EQ(rebuild(payload), -1) << what;
    EXPECT_EQ(err_, "ERROR:CBM:corrupt PDT data detected\n") << what;
    EXPECT_EQ(wpdt(), nullptr) << what;
  }
  // A refused record leaves the tree that stands as it was.
  ASSERT_EQ(rebuild(good), 0);
  EXPECT_EQ(rebuild(cases[0].second), -1);
  EXPECT_EQ(image(wpdt()), image(t.t));
  EXPECT_EQ(j480test::err_of([&] {
              EXPECT_EQ(bc20_rebuild_pdt(99, good.data(), int64_t(good.size())), -1);
            }),
            "ERROR:CBM:failed to rebuild PDT for non-existing object 99\n");
}

TEST_F(Bc20ValueSpace, DroppingTheJoinIndexEmptiesItsColumn) {
  ut::Tree t;
  pdt_add_increment(t.t, 10, ut::kIncCol, 5);
  pdt_add_modify(t.t, 20, t.modify(0, 9, ""), 0);
  ASSERT_EQ(rebuild(legacy(t.t)), 0);
  EXPECT_EQ(bc20_catalog_del_incoming_joinindex(cat_, nr_, "ji", 0), 0);  // the tree stays
  EXPECT_EQ(wpdt()->n_entries, 2);
  EXPECT_EQ(j480test::err_of([&] {  // the name went already; the column goes now
              EXPECT_EQ(bc20_catalog_del_incoming_joinindex(cat_, nr_, "ji", 1), -1);
            }),
            "# WARN:CATALOG:trying to delete non-existing incoming joinindex: ji\n");
  ASSERT_NE(wpdt(), nullptr);
  EXPECT_EQ(wpdt()->n_entries, 1);
  EXPECT_EQ(wpdt()->value_space->joinindex_IDs[0], -1);
  EXPECT_DEATH(bc20_catalog_del_incoming_joinindex(cat_, nr_, "nope", 1), "assertion \"i\" failed");
}

TEST_F(Bc20ValueSpace, DroppingTheJoinIndexReleasesATreeOfItsIncrementsOnly) {
  ut::Tree t;
  pdt_add_increment(t.t, 10, ut::kIncCol, 5);
  pdt_add_increment(t.t, 12, ut::kIncCol, -5);
  ASSERT_EQ(rebuild(legacy(t.t)), 0);
  EXPECT_EQ(bc20_catalog_del_incoming_joinindex(cat_, nr_, "ji", 1), 0);
  EXPECT_EQ(wpdt(), nullptr);
}

}  // namespace
