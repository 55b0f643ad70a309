// The kernel: primitive registry lookups, the fill and condense family, the sign-free float rows,
// the variable heap the string rows copy into, logical and physical types, and the system tables.
#include "kernel/primitive.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "kernel/ltype.h"
#include "kernel/prim_gen.h"
#include "kernel/prim_hash.h"
#include "kernel/ptype.h"
#include "kernel/systables.h"
#include "kernel/vheap.h"
#include "support/test_support.h"
#include "utils/mem.h"
#include "utils/posix.h"

namespace {

// A memory context for a test.
struct Mem {
  MemContext* mem = mem_context_create(nullptr, "kernel_test");
  ~Mem() { mem_context_remove(mem); }
};

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

void dummy() {}

}  // namespace

// Every row is found by its own name, case folded but for the "_col" and "_val" marks, which the
// hash skips only in lower case. A "_col" lookup is served by a "_val" row unless exact, never the
// reverse; variant rows are found only when asked for, newest first, and never for a longer or
// shorter base. A signature not found is logged, unless it is a selection.
TEST_F(Registry, EveryRowIsFoundByItsNameColIsServedByValAndVariantsComeNewestFirst) {
  ASSERT_EQ(prim_count(), row_count(prim_gen_table()) + row_count(prim_hash_table()));
  for (int64_t i = 0; i < prim_count(); i++)
    EXPECT_EQ(GetPrimDesc(prim_row(i)->name), prim_row(i)) << prim_row(i)->name;
  EXPECT_EQ(prim_row(prim_count()), nullptr);
  EXPECT_EQ(prim_row(-1), nullptr);
  EXPECT_EQ(prim_set_function(prim_row(0)->name, prim_fn(&dummy)), 1) << "the first row too";
  EXPECT_EQ(prim_row(0)->ptr, prim_fn(&dummy));
  for (const char* c : {"gen_condense_uint_col", "GEN_condense_uint_col"})
    EXPECT_EQ(prim_signature_hash(c, 21), prim_signature_hash("gen_condense_uint_val", 21)) << c;

  static const prim_desc rows[] = {{"sint", "test_op_sint_val", prim_fn(&dummy)},
                                   {"sint", "test_op2_sint_col", prim_fn(&dummy)},
                                   {"ssht", "map_x_schr_col_schr_val___ssht", prim_fn(&dummy)},
                                   {"sint", "map_x_schr_col_schr_val___sint", prim_fn(&dummy)},
                                   {"schr", "map_y_schr_col", prim_fn(&dummy)},
                                   {nullptr, nullptr, nullptr}};
  prim_register_table(rows);
  auto name = [](const prim_desc* d) { return std::string(d ? d->name : "-"); };
  const std::tuple<const char*, int, int, const char*> cases[] = {  // exact only, with variants
      {"Gen_Fill_UCHR_val", 1, 0, "gen_fill_uchr_val"},  {"test_op_sint_col", 1, 0, "-"},
      {"test_op_sint_col", 0, 0, "test_op_sint_val"},    {"test_op2_sint_val", 0, 0, "-"},
      {"map_x_schr_col_schr_val", 1, 0, "-"},            {"map_x_schr_col", 1, 1, "-"},
      {"map_x_schr_col_schr_val", 1, 1, "map_x_schr_col_schr_val___sint"},
  };
  for (const auto& [signature, exact_only, with_variants, found] : cases)
    EXPECT_EQ(name(prim_lookup(signature, exact_only, with_variants)), found)
        << signature << " " << exact_only << with_variants;
  EXPECT_EQ(name(prim_lookup_any("test_op_sint_col", 0)), "test_op_sint_val");
  const char* base = "map_x_schr_col_schr_val";
  const prim_desc* second = prim_next_variant(prim_lookup(base, 1, 1), base);
  EXPECT_EQ(name(second), "map_x_schr_col_schr_val___ssht");
  EXPECT_EQ(prim_next_variant(second, base), nullptr);
  EXPECT_EQ(prim_next_variant(nullptr, base), nullptr);
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
  double keys[3] = {-0.0, 2.5, 3.0}, table[2] = {0.0, 2.5};
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

// ---- Variable heap: buffer growth, caps, oversize requests and slot extension ----

TEST(Vheap, BuffersDoubleUpToTheCapAndValuesNeverMove) {
  Mem m;
  vheap* h = vheap_create(m.mem, nullptr, 4096, 65536);
  std::vector<std::pair<char*, int>> values;
  for (int i = 0; i < 5000; i++) {
    char* p = static_cast<char*>(vheap_alloc(h, 100));
    ASSERT_NE(p, nullptr);
    memset(p, i & 0xFF, 100);
    values.push_back({p, i & 0xFF});
  }
  EXPECT_EQ(std::vector<int64_t>(h->buffers_sizes, h->buffers_sizes + 6),
            (std::vector<int64_t>{4096, 8192, 16384, 32768, 65536, 65536}));
  for (auto& [p, v] : values)
    for (int j = 0; j < 100; j++) ASSERT_EQ(static_cast<unsigned char>(p[j]), v);
  EXPECT_GE(h->n_slots, 16);  // more than eight buffers doubled the arrays
  EXPECT_GE(h->last_allocated, h->current);
  vheap_destroy(h);
}

TEST(Vheap, LargeFirstRequestOversizeRequestZeroSizedRequestsAndTheNinthBuffer) {
  Mem m;
  vheap* big = vheap_create(m.mem, "big", 4096, 524288);
  ASSERT_NE(vheap_alloc(big, 100000), nullptr);
  EXPECT_EQ(big->buffers_sizes[0], 131072);
  ASSERT_NE(vheap_alloc(big, 600000), nullptr);  // bigger than the cap: a warning, a multiple of it
  EXPECT_EQ(big->buffers_sizes[big->current], 1048576);
  vheap_destroy(big);
  vheap* h = vheap_create_unmanaged(4096, 4096);
  EXPECT_EQ(vheap_alloc(h, 0), nullptr);  // nothing allocated yet
  EXPECT_EQ(h->buffers[0], nullptr);
  char* a = static_cast<char*>(vheap_alloc(h, 10));
  EXPECT_EQ(vheap_alloc(h, 0), a + 10);
  for (int i = 0; i < 8; i++) ASSERT_NE(vheap_alloc(h, 4096), nullptr);
  EXPECT_EQ(h->n_slots, 16);
  EXPECT_EQ(h->current, 8);
  vheap_destroy(h);
  vheap_destroy(nullptr);
}

// The slot arrays grow one after the other; when a later one can't, the heap keeps the old slot
// count, so no slot beyond an array that didn't grow is ever used.
TEST(Vheap, FailedSlotExtensionKeepsTheSlotCount) {
  Mem m;
  m.mem->chunksize = 1 << 20;  // areas are maps, which the seam can fail
  vheap* h = vheap_create(m.mem, "ext", 16, 16);
  for (int i = 0; i < 8; i++) ASSERT_NE(vheap_alloc(h, 16), nullptr);
  mem_area* area = m.mem->areas;
  ASSERT_EQ(area->next, nullptr);
  // Room for the grown `buffers` array (128 bytes and a header), none for the next one.
  ASSERT_NE(mem_mallocex(m.mem, area->size - area->used - 160 - 32, 0), nullptr);
  px_fault_arm(1, ENOMEM, PX_FAULT_FAIL, true);
  EXPECT_EQ(vheap_alloc(h, 16), nullptr);
  px_fault_disarm();
  EXPECT_EQ(h->n_slots, 8);
  ASSERT_NE(vheap_alloc(h, 16), nullptr);
  EXPECT_EQ(h->n_slots, 16);
  EXPECT_EQ(h->current, 8);
  std::string why;
  EXPECT_TRUE(mem_context_check(m.mem, &why)) << why;
  vheap_destroy(h);
}

// ---- Logical type codes from and to their texts; the physical type table ----

TEST(Ltype, EveryTextConvertsToItsCodeAndBackAndNamesTakeColumnDigitsAndScale) {
  Mem m;
  // Each text is also the text its code converts back to.
  const std::pair<const char*, ltype> cases[] = {
      {"bool", 1},  {"schr", 2},  {"uchr", 3},  {"ssht", 4},  {"usht", 5},  {"sint", 6},
      {"uint", 7},  {"slng", 8},  {"ulng", 9},  {"s128", 10}, {"uidx", 11}, {"flt", 13},
      {"dbl", 14},  {"str", 17},  {"date", 18}, {"time", 19}, {"intervalym", 22},
      {"money", 0x2000F},   {"char(5)", 16 | (5 << 8)},   {"varchar(30)", 17 | (30 << 8)},
      {"time(3)", 19 | (3 << 16)},  {"timestamp(6)", 20 | (6 << 16)},
      {"intervalds(2)", 21 | (2 << 16)},  {"decimal(12,3)", 12 | (12 << 8) | (3 << 16)},
  };
  for (const auto& [text, code] : cases) {
    EXPECT_EQ(ltype_from_string(text), code) << text;
    EXPECT_STREQ(ltype_to_string(m.mem, code), text);
  }
  EXPECT_STREQ(ltype_name(0), "UNKNOWNTYPE");
  EXPECT_STREQ(ltype_name(23), "UNKNOWNTYPE");
  // Names with column digits and scale; an unknown size or name gives no type (0).
  const struct {
    const char* name;
    int32_t digits, scale;
    ltype code;
  } names[] = {
      {"INTEGER", 8, 0, 8},   {"int", 0, 0, 6},        {"int", 1, 0, 2},
      {"int", 2, 0, 4},       {"integer", 16, 0, 10},  {"integer", 3, 0, 0},
      {"varcharx", 10, 0, 0}, {"char", 0, 0, 16 | (1 << 8)},  {"varchar", 0, 0, 17},
      {"money", 7, 3, 0x2000F}, {"float", 0, 0, 14},   {"float", 4, 0, 13},
      {"float", 2, 0, 0},     {"Date(", 0, 0, 18},     {"timestamp", 9, 0, 20 | (6 << 16)},
  };
  for (const auto& n : names)
    EXPECT_EQ(ltype_from_name(n.name, n.digits, n.scale), n.code) << n.name << " " << n.digits;
  EXPECT_STREQ(ltype_to_string(m.mem, ltype_from_name("decimal", 0, 2)), "decimal(10,2)");
  int32_t d, s;
  ltype_digits_scale(ltype_from_string("decimal(18,4)"), &d, &s);
  EXPECT_EQ(d, 18);
  EXPECT_EQ(s, 4);
  EXPECT_EQ(ltype_display_digits(ltype_from_string("decimal(18,4)")), 18);
  EXPECT_EQ(ltype_display_digits(10), 39);
}

TEST(Ptype, EveryTypeIsFoundByItsNameAndItsOpsFormatAndCompare) {
  ptype_register_all();
  ptype_register_all();  // twice: no duplicates
  for (int32_t i = 0; i < ptype_count(); i++) {
    const ptype* t = ptype_by_id(i);
    ASSERT_NE(t, nullptr) << i;
    EXPECT_EQ(ptype_by_name(t->name), t) << t->name;
    EXPECT_EQ(t->fixed, i == PTYPE_STR ? 0 : 1);
  }
  EXPECT_EQ(ptype_count(), PTYPE_STR + 1);
  EXPECT_EQ(ptype_by_name("varchar"), nullptr);
  EXPECT_EQ(ptype_by_id(ptype_count()), nullptr);

  const ptype* s128 = ptype_by_id(PTYPE_S128);
  __int128 v = -(static_cast<__int128>(1) << 100);
  char buf[64];
  EXPECT_GT(s128->ops.format(buf, sizeof buf, &v), 0);
  EXPECT_STREQ(buf, "-1267650600228229401496703205376");
  const ptype* str = ptype_by_id(PTYPE_STR);
  const char *a = "abc", *b = "abd";
  EXPECT_EQ(str->ops.value_size(&a), 4);
  EXPECT_LT(str->ops.compare(&a, &b), 0);
  int32_t x = -5, y = 3;
  EXPECT_LT(ptype_by_id(PTYPE_SINT)->ops.compare(&x, &y), 0);
  EXPECT_GT(ptype_by_id(PTYPE_UINT)->ops.compare(&x, &y), 0);  // unsigned view
}

TEST(SysTables, KernelTablesAreListedAndTheRegistryStopsAt128) {
  systables_clear();
  ptype_register_all();
  prim_registry_free();
  prim_register_table(prim_gen_table());
  systables_register_kernel();
  ASSERT_EQ(systable_count(), 4);
  Mem m;
  // A kernel table's rows, and the text in the first column of its first row.
  auto produce = [&m](const char* name) {
    const systable_desc* d = systable_find(name);
    systable_result* r = d->produce(m.mem, d);
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
}
