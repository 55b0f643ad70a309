// Primitive registry lookups, the fill and condense family, the sign-free float rows, and the
// system tables.
#include "kernel/primitive.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "kernel/prim_gen.h"
#include "kernel/prim_hash.h"
#include "kernel/ptype.h"
#include "kernel/systables.h"
#include "support/test_support.h"
#include "kernel/vheap.h"
#include "utils/mem.h"

namespace {

// A fresh registry with the kernel's tables, freed after each test.
class Registry : public ::testing::Test {
 protected:
  void SetUp() override {
    prim_registry_free();
    prim_register_table(prim_gen_table());
    prim_register_table(prim_hash_table());
    prim_hash_set_float_functions();
  }
  void TearDown() override { prim_registry_free(); }
};

int64_t row_count(const prim_desc* t) {
  int64_t n = 0;
  while (t[n].name) n++;
  return n;
}

void dummy_a() {}
void dummy_b() {}
void dummy_c() {}

}  // namespace

TEST_F(Registry, EverySignatureFindsItsOwnRow) {
  ASSERT_EQ(prim_count(), row_count(prim_gen_table()) + row_count(prim_hash_table()));
  for (int64_t i = 0; i < prim_count(); i++) {
    const prim_desc* row = prim_row(i);
    EXPECT_EQ(GetPrimDesc(row->name), row) << row->name;
  }
  EXPECT_EQ(prim_row(prim_count()), nullptr);
  EXPECT_EQ(prim_row(-1), nullptr);
  EXPECT_EQ(prim_set_function(prim_row(0)->name, prim_fn(&dummy_a)), 1) << "the first row too";
  EXPECT_EQ(prim_row(0)->ptr, prim_fn(&dummy_a));
  EXPECT_EQ(prim_signature_hash("gen_condense_uint_col", 21),
            prim_signature_hash("gen_condense_uint_val", 21));
  EXPECT_EQ(prim_signature_hash("GEN_condense_uint_col", 21),
            prim_signature_hash("gen_condense_uint_val", 21));
  EXPECT_NE(GetPrimDesc("gen_condense_uint_col"), GetPrimDesc("gen_condense_uint_val"));
  // Case folds, but for the "_col" and "_val" marks, which the hash skips only in lower case.
  EXPECT_EQ(GetPrimDesc("Gen_Fill_UCHR_val"), GetPrimDesc("gen_fill_uchr_val"));
}

TEST_F(Registry, InexactLookupServesColWithValButNotTheReverse) {
  static const prim_desc only_val[] = {{"sint", "test_op_sint_val", prim_fn(&dummy_a)},
                                       {"sint", "test_op2_sint_col", prim_fn(&dummy_b)},
                                       {nullptr, nullptr, nullptr}};
  prim_register_table(only_val);
  EXPECT_EQ(prim_lookup("test_op_sint_col", 1, 0), nullptr);
  const prim_desc* served = prim_lookup("test_op_sint_col", 0, 0);
  ASSERT_NE(served, nullptr);
  EXPECT_STREQ(served->name, "test_op_sint_val");
  EXPECT_EQ(prim_lookup_any("test_op_sint_col", 0), served);
  EXPECT_EQ(prim_lookup("test_op2_sint_val", 0, 0), nullptr);
}

TEST_F(Registry, VariantsAreFoundOnlyWithVariantsAndInRegistrationOrder) {
  static const prim_desc variants[] = {
      {"ssht", "map_x_schr_col_schr_val___ssht", prim_fn(&dummy_a)},
      {"sint", "map_x_schr_col_schr_val___sint", prim_fn(&dummy_b)},
      {"schr", "map_y_schr_col", prim_fn(&dummy_c)},
      {nullptr, nullptr, nullptr}};
  prim_register_table(variants);
  EXPECT_EQ(GetPrimDesc("map_x_schr_col_schr_val"), nullptr);
  const prim_desc* first = prim_lookup("map_x_schr_col_schr_val", 1, 1);
  ASSERT_NE(first, nullptr);
  EXPECT_STREQ(first->name, "map_x_schr_col_schr_val___sint");  // newest first
  const prim_desc* second = prim_next_variant(first, "map_x_schr_col_schr_val");
  ASSERT_NE(second, nullptr);
  EXPECT_STREQ(second->name, "map_x_schr_col_schr_val___ssht");
  EXPECT_EQ(prim_next_variant(second, "map_x_schr_col_schr_val"), nullptr);
  EXPECT_EQ(prim_next_variant(nullptr, "map_x_schr_col_schr_val"), nullptr);
  // A variant row never answers a lookup of a longer or shorter base.
  EXPECT_EQ(prim_lookup("map_x_schr_col", 1, 1), nullptr);
}

TEST_F(Registry, MissingSignaturesAreLoggedUnlessSelection) {
  std::string err = j480test::err_of([] {
    EXPECT_EQ(GetPrimDesc("select_nothing_sint_col"), nullptr);
    EXPECT_EQ(GetPrimDesc("map_nothing_sint_col"), nullptr);
  });
  EXPECT_EQ(err.find("select_nothing"), std::string::npos);
  EXPECT_NE(err.find("GetPrimDesc: signature map_nothing_sint_col not found"), std::string::npos)
      << err;
}

TEST_F(Registry, FloatHashIgnoresTheSignOfZeroAfterStart) {
  for (const char* t : {"flt", "dbl"}) {
    std::string name = std::string("map_hash_") + t + "_col";
    const prim_desc* row = GetPrimDesc(name.c_str());
    ASSERT_NE(row, nullptr);
    uint64_t res[4];
    if (std::string(t) == "flt") {
      float v[4] = {0.0f, -0.0f, 1.0f, -1.0f};
      prim_cast<prim_hash_fn>(row)(4, res, v, nullptr);
    } else {
      double v[4] = {0.0, -0.0, 1.0, -1.0};
      prim_cast<prim_hash_fn>(row)(4, res, v, nullptr);
    }
    EXPECT_EQ(res[0], res[1]) << t;
    EXPECT_NE(res[2], res[3]) << t;
  }
  // The check rows compare 0.0 and -0.0 as equal keys, and nothing else changes.
  const prim_desc* check = GetPrimDesc("map_check_dbl_col_uidx_col_dbl_col");
  ASSERT_NE(check, nullptr);
  double keys[3] = {-0.0, 2.5, 3.0};
  double table[2] = {0.0, 2.5};
  uint64_t pos[3] = {0, 1, 1};
  uint8_t res[3];
  prim_cast<prim_check_fn>(check)(3, res, keys, pos, table, nullptr);
  EXPECT_EQ(res[0], 1);
  EXPECT_EQ(res[1], 1);
  EXPECT_EQ(res[2], 0);
  // Before the replacement the rows hash bit patterns.
  prim_registry_free();
  prim_register_table(prim_hash_table());
  float v[2] = {0.0f, -0.0f};
  uint64_t h[2];
  prim_cast<prim_hash_fn>(GetPrimDesc("map_hash_flt_col"))(2, h, v, nullptr);
  EXPECT_NE(h[0], h[1]);
}

TEST_F(Registry, FillAndCondenseCopyEveryWidthWithAndWithoutSelection) {
  ptype_register_all();
  const char* types[] = {"uchr", "usht", "uint", "ulng", "uidx", "schr", "ssht",
                         "sint", "slng", "s128", "flt",  "dbl",  "str"};
  for (int t = 0; t < 13; t++) {
    SCOPED_TRACE(types[t]);
    const int w = static_cast<int>(ptype_width(ptype_by_name(types[t])));
    const int n = 37;  // not a multiple of eight: the tail loop runs too
    std::vector<unsigned char> src(n * w), dst(n * w, 0), val(w);
    for (size_t i = 0; i < src.size(); i++) src[i] = static_cast<unsigned char>(i * 7 + t);
    for (int i = 0; i < w; i++) val[i] = static_cast<unsigned char>(0xA0 + i);
    std::vector<int64_t> sel;
    for (int i = n - 1; i >= 0; i -= 2) sel.push_back(i);
    int64_t m = static_cast<int64_t>(sel.size());
    std::string ty = types[t];

    auto condense_col = prim_cast<prim_condense_col_fn>(GetPrimDesc(("gen_condense_" + ty + "_col").c_str()));
    EXPECT_EQ(condense_col(n, dst.data(), src.data(), nullptr), n);
    EXPECT_EQ(dst, src);
    std::fill(dst.begin(), dst.end(), 0);
    EXPECT_EQ(condense_col(m, dst.data(), src.data(), sel.data()), m);
    for (int64_t i = 0; i < m; i++)
      ASSERT_EQ(memcmp(&dst[i * w], &src[sel[i] * w], w), 0) << i;

    auto fill_val = prim_cast<prim_fill_val_fn>(GetPrimDesc(("gen_fill_" + ty + "_val").c_str()));
    std::fill(dst.begin(), dst.end(), 0);
    EXPECT_EQ(fill_val(m, dst.data(), val.data(), sel.data()), m);
    for (int i = 0; i < n; i++) {
      bool selected = (n - 1 - i) % 2 == 0;
      std::vector<unsigned char> zero(w, 0);
      ASSERT_EQ(memcmp(&dst[i * w], selected ? val.data() : zero.data(), w), 0) << i;
    }
    EXPECT_EQ(fill_val(n, dst.data(), val.data(), nullptr), n);
    for (int i = 0; i < n; i++) ASSERT_EQ(memcmp(&dst[i * w], val.data(), w), 0);

    auto fill_col = prim_cast<prim_fill_col_fn>(GetPrimDesc(("gen_fill_" + ty + "_col").c_str()));
    std::fill(dst.begin(), dst.end(), 0);
    fill_col(m, dst.data(), src.data(), sel.data());
    for (int64_t i = 0; i < m; i++) ASSERT_EQ(memcmp(&dst[sel[i] * w], &src[i * w], w), 0);

    auto nsm = prim_cast<prim_nsm2dsm_fn>(
        GetPrimDesc(("gen_condenseNSM2DSM_" + ty + "_col_slng_val").c_str()));
    int64_t stride = w * 3;  // rows of three fields; gather the middle one
    std::vector<unsigned char> rows(n * stride);
    for (size_t i = 0; i < rows.size(); i++) rows[i] = static_cast<unsigned char>(i);
    nsm(n, dst.data(), rows.data() + w, &stride, nullptr);
    for (int i = 0; i < n; i++) ASSERT_EQ(memcmp(&dst[i * w], &rows[i * stride + w], w), 0);
  }
}

TEST_F(Registry, StringCondenseCopiesIntoTheVheapAndMovesOnWhenTheRoomIsExactlyUsedUp) {
  vheap* heap = vheap_create_unmanaged(16, 1024);
  ASSERT_NE(heap, nullptr);
  auto condense = prim_cast<prim_str_vheap_fn>(GetPrimDesc("gen_condense_str_col_vheap_val"));
  const char* src[4] = {"abcdefg", "xy", "", "0123456"};
  const char* dst[4] = {};
  ASSERT_EQ(condense(4, dst, src, heap, nullptr, nullptr), 4);
  for (int i = 0; i < 4; i++) {
    EXPECT_STREQ(dst[i], src[i]);
    EXPECT_NE(dst[i], src[i]);
  }
  // "abcdefg" (8) + "xy" (3) + "" (1) = 12 of 16 bytes; "0123456" needs 8: next buffer.
  EXPECT_EQ(dst[0] + 8, dst[1]);
  EXPECT_EQ(heap->current, 1);
  EXPECT_EQ(heap->used[0], 12);

  // Exactly the room left (strict test): 32-byte buffer, 8 used, a 24-byte string moves on.
  vheap* exact = vheap_create_unmanaged(32, 1024);
  const char* one[1] = {"1234567"};
  const char* two[1] = {"abcdefghijklmnopqrstuvw"};  // 23 characters + terminator = 24
  condense(1, dst, one, exact, nullptr, nullptr);
  condense(1, dst, two, exact, nullptr, nullptr);
  EXPECT_EQ(exact->current, 1);
  EXPECT_STREQ(dst[0], two[0]);

  // Pinned strings: addresses only.
  prim_expr pinned{1};
  condense(2, dst, src, heap, nullptr, &pinned);
  EXPECT_EQ(dst[0], src[0]);

  auto fill = prim_cast<prim_str_vheap_fn>(GetPrimDesc("gen_fill_str_val_vheap_val"));
  const char* value = "same";
  int64_t sel[2] = {3, 1};
  const char* out[4] = {};
  ASSERT_EQ(fill(2, out, &value, heap, sel, nullptr), 2);
  EXPECT_STREQ(out[3], "same");
  EXPECT_STREQ(out[1], "same");
  EXPECT_EQ(out[0], nullptr);
  vheap_destroy(heap);
  vheap_destroy(exact);
}

TEST(SysTables, KernelTablesAreListedAndTheRegistryStopsAt128) {
  systables_clear();
  ptype_register_all();
  prim_registry_free();
  prim_register_table(prim_gen_table());
  systables_register_kernel();
  ASSERT_EQ(systable_count(), 4);
  MemContext* mem = mem_context_create(nullptr, "systables_test");
  const systable_desc* tables = systable_find("sys_tables");
  ASSERT_NE(tables, nullptr);
  systable_result* r = tables->produce(mem, tables);
  ASSERT_EQ(r->rows, 4);
  EXPECT_STREQ(static_cast<const char**>(r->columns[0])[0], "sys_tables");  // lists itself
  const systable_desc* prims = systable_find("primitives");
  systable_result* p = prims->produce(mem, prims);
  EXPECT_EQ(p->rows, row_count(prim_gen_table()));
  EXPECT_STREQ(static_cast<const char**>(p->columns[0])[0], "gen_fill_uchr_val");
  const systable_desc* cols = systable_find("sys_table_columns");
  systable_result* c = cols->produce(mem, cols);
  EXPECT_EQ(c->rows, 13);
  EXPECT_NE(systable_find_column("primitives", "name"), nullptr);
  EXPECT_EQ(systable_find_column("primitives", "nope"), nullptr);

  static systable_desc extra[130];
  int refused = 0;
  std::string err = j480test::err_of([&] {
    for (int i = 0; i < 130; i++) {
      extra[i] = {"extra", 0, nullptr, nullptr};
      if (systable_register(&extra[i]) < 0) refused++;
    }
  });
  EXPECT_EQ(refused, 130 - (SYSTABLE_MAX - 4));
  EXPECT_EQ(systable_count(), SYSTABLE_MAX);
  EXPECT_STREQ(systable_at(0)->name, "sys_tables");
  EXPECT_NE(err.find("maximum number of system tables (= 128) reached, ignoring 'extra'"),
            std::string::npos);
  systables_clear();
  prim_registry_free();
  mem_context_remove(mem);
}
