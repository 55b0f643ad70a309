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
#include "kernel/vheap.h"
#include "support/test_support.h"
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
  for (const char* c : {"gen_condense_uint_col", "GEN_condense_uint_col"})
    EXPECT_EQ(prim_signature_hash(c, 21), prim_signature_hash("gen_condense_uint_val", 21)) << c;
  EXPECT_NE(GetPrimDesc("gen_condense_uint_col"), GetPrimDesc("gen_condense_uint_val"));
  // Case folds, but for the "_col" and "_val" marks, which the hash skips only in lower case.
  EXPECT_EQ(GetPrimDesc("Gen_Fill_UCHR_val"), GetPrimDesc("gen_fill_uchr_val"));
}

// A "_col" lookup is served by a "_val" row unless exact, never the reverse; variant rows are
// found only when asked for, newest first, and never for a longer or shorter base.
TEST_F(Registry, InexactLookupServesColWithValAndVariantsComeInRegistrationOrder) {
  static const prim_desc rows[] = {{"sint", "test_op_sint_val", prim_fn(&dummy_a)},
                                   {"sint", "test_op2_sint_col", prim_fn(&dummy_b)},
                                   {"ssht", "map_x_schr_col_schr_val___ssht", prim_fn(&dummy_a)},
                                   {"sint", "map_x_schr_col_schr_val___sint", prim_fn(&dummy_b)},
                                   {"schr", "map_y_schr_col", prim_fn(&dummy_c)},
                                   {nullptr, nullptr, nullptr}};
  prim_register_table(rows);
  EXPECT_EQ(prim_lookup("test_op_sint_col", 1, 0), nullptr);
  const prim_desc* served = prim_lookup("test_op_sint_col", 0, 0);
  ASSERT_NE(served, nullptr);
  EXPECT_STREQ(served->name, "test_op_sint_val");
  EXPECT_EQ(prim_lookup_any("test_op_sint_col", 0), served);
  EXPECT_EQ(prim_lookup("test_op2_sint_val", 0, 0), nullptr);

  EXPECT_EQ(GetPrimDesc("map_x_schr_col_schr_val"), nullptr);
  const prim_desc* first = prim_lookup("map_x_schr_col_schr_val", 1, 1);
  ASSERT_NE(first, nullptr);
  EXPECT_STREQ(first->name, "map_x_schr_col_schr_val___sint");
  const prim_desc* second = prim_next_variant(first, "map_x_schr_col_schr_val");
  ASSERT_NE(second, nullptr);
  EXPECT_STREQ(second->name, "map_x_schr_col_schr_val___ssht");
  EXPECT_EQ(prim_next_variant(second, "map_x_schr_col_schr_val"), nullptr);
  EXPECT_EQ(prim_next_variant(nullptr, "map_x_schr_col_schr_val"), nullptr);
  EXPECT_EQ(prim_lookup("map_x_schr_col", 1, 1), nullptr);
}

TEST_F(Registry, MissingSignaturesAreLoggedUnlessSelection) {
  std::string err = j480test::err_of([] {
    EXPECT_EQ(GetPrimDesc("select_nothing_sint_col"), nullptr);
    EXPECT_EQ(GetPrimDesc("map_nothing_sint_col"), nullptr);
  });
  EXPECT_EQ(err, "#KERNEL:GetPrimDesc: signature map_nothing_sint_col not found\n");
}

// Hashes of {0, -0, 1, -1} by the row `name`.
template <typename T>
std::vector<uint64_t> hash_of_zeros_and_ones(const char* name) {
  const T v[4] = {0, -T(0), 1, -1};
  std::vector<uint64_t> h(4);
  prim_cast<prim_hash_fn>(GetPrimDesc(name))(4, h.data(), v, nullptr);
  return h;
}

TEST_F(Registry, FloatHashIgnoresTheSignOfZeroAfterStart) {
  for (const auto& h : {hash_of_zeros_and_ones<float>("map_hash_flt_col"),
                        hash_of_zeros_and_ones<double>("map_hash_dbl_col")}) {
    EXPECT_EQ(h[0], h[1]);
    EXPECT_NE(h[2], h[3]);
  }
  // The check rows compare 0.0 and -0.0 as equal keys, and nothing else changes.
  const prim_desc* check = GetPrimDesc("map_check_dbl_col_uidx_col_dbl_col");
  ASSERT_NE(check, nullptr);
  double keys[3] = {-0.0, 2.5, 3.0};
  double table[2] = {0.0, 2.5};
  uint64_t pos[3] = {0, 1, 1};
  uint8_t res[3];
  prim_cast<prim_check_fn>(check)(3, res, keys, pos, table, nullptr);
  EXPECT_EQ(std::vector<uint8_t>(res, res + 3), (std::vector<uint8_t>{1, 1, 0}));
  // Before the replacement the rows hash bit patterns.
  prim_registry_free();
  prim_register_table(prim_hash_table());
  std::vector<uint64_t> h = hash_of_zeros_and_ones<float>("map_hash_flt_col");
  EXPECT_NE(h[0], h[1]);
}

TEST_F(Registry, FillAndCondenseCopyEveryWidthWithAndWithoutSelection) {
  using Bytes = std::vector<unsigned char>;
  ptype_register_all();
  for (const std::string ty : {"uchr", "usht", "uint", "ulng", "uidx", "schr", "ssht", "sint",
                               "slng", "s128", "flt", "dbl", "str"}) {
    SCOPED_TRACE(ty);
    const int64_t w = ptype_width(ptype_by_name(ty.c_str()));
    const int64_t n = 37;  // not a multiple of eight: the tail loop runs too
    auto slot = [w](const Bytes& b, int64_t i) {
      return Bytes(b.begin() + i * w, b.begin() + (i + 1) * w);
    };
    auto prim = [&ty](const char* a, const char* b) {
      return GetPrimDesc(("gen_" + std::string(a) + "_" + ty + b).c_str());
    };
    Bytes src(n * w), val(w), dst(n * w);
    for (size_t i = 0; i < src.size(); i++) src[i] = static_cast<unsigned char>(i * 7 + w);
    for (int64_t i = 0; i < w; i++) val[i] = static_cast<unsigned char>(0xA0 + i);
    std::vector<int64_t> sel;  // every other row, backwards
    for (int64_t i = n - 1; i >= 0; i -= 2) sel.push_back(i);
    const int64_t m = static_cast<int64_t>(sel.size());

    auto condense_col = prim_cast<prim_condense_col_fn>(prim("condense", "_col"));
    EXPECT_EQ(condense_col(n, dst.data(), src.data(), nullptr), n);
    EXPECT_EQ(dst, src);
    dst.assign(n * w, 0);
    EXPECT_EQ(condense_col(m, dst.data(), src.data(), sel.data()), m);
    for (int64_t i = 0; i < m; i++) ASSERT_EQ(slot(dst, i), slot(src, sel[i])) << i;

    auto fill_val = prim_cast<prim_fill_val_fn>(prim("fill", "_val"));
    dst.assign(n * w, 0);
    EXPECT_EQ(fill_val(m, dst.data(), val.data(), sel.data()), m);
    for (int64_t i = 0; i < n; i++)
      ASSERT_EQ(slot(dst, i), (n - 1 - i) % 2 == 0 ? val : Bytes(w, 0)) << i;
    EXPECT_EQ(fill_val(n, dst.data(), val.data(), nullptr), n);
    for (int64_t i = 0; i < n; i++) ASSERT_EQ(slot(dst, i), val) << i;

    dst.assign(n * w, 0);
    prim_cast<prim_fill_col_fn>(prim("fill", "_col"))(m, dst.data(), src.data(), sel.data());
    for (int64_t i = 0; i < m; i++) ASSERT_EQ(slot(dst, sel[i]), slot(src, i)) << i;

    const int64_t stride = w * 3;  // rows of three fields; gather the middle one
    Bytes rows(n * stride);
    for (size_t i = 0; i < rows.size(); i++) rows[i] = static_cast<unsigned char>(i);
    prim_cast<prim_nsm2dsm_fn>(prim("condenseNSM2DSM", "_col_slng_val"))(
        n, dst.data(), rows.data() + w, &stride, nullptr);
    for (int64_t i = 0; i < n; i++) ASSERT_EQ(slot(dst, i), slot(rows, 3 * i + 1)) << i;
  }
}

TEST_F(Registry, StringCondenseCopiesIntoTheVheapAndMovesOnWhenTheRoomIsExactlyUsedUp) {
  vheap* heap = vheap_create_unmanaged(16, 1024);
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
  const char* two[2] = {"1234567", "abcdefghijklmnopqrstuvw"};  // 23 characters + terminator
  condense(1, dst, two, exact, nullptr, nullptr);
  condense(1, dst, two + 1, exact, nullptr, nullptr);
  EXPECT_EQ(exact->current, 1);
  EXPECT_STREQ(dst[0], two[1]);

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
  // A kernel table's rows, and the text in the first column of its first row.
  auto produce = [mem](const char* name) {
    const systable_desc* d = systable_find(name);
    systable_result* r = d->produce(mem, d);
    return std::to_string(r->rows) + " " + static_cast<const char**>(r->columns[0])[0];
  };
  EXPECT_EQ(produce("sys_tables"), "4 sys_tables");  // lists itself
  EXPECT_EQ(produce("primitives"),
            std::to_string(row_count(prim_gen_table())) + " gen_fill_uchr_val");
  EXPECT_EQ(produce("sys_table_columns"), "13 sys_tables");
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
