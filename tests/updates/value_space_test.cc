// The value space: its capacity rule, appends through the primitives, increment columns, copies
// (merged trees: pdt_model_test.cc), the dropping of a join index's column, and the serial form.
#include "support/test_support.h"
#include "updates_test_util.h"

namespace {

using j480test::Esc;

struct Space {
  bool up = (ut::kernel_up(), true);
  MemContext* mem = mem_context_create(nullptr, "vs_test");
  value_space* vs;
  Space(std::vector<const ptype*> types, uint32_t n_ji, std::vector<uint32_t> uk = {}) {
    int64_t ids[2] = {11, 12};
    vs = value_space_create(mem, types.data(), uint32_t(types.size()), nullptr, 0, uk.data(),
                            uint32_t(uk.size()), ids, n_ji);
  }
  ~Space() {
    value_space_free(vs);
    mem_context_remove(mem);
  }
  std::string serial() const {
    std::string buf(size_t(value_space_serialized_size(vs)), '\0');
    EXPECT_EQ(value_space_serialize(vs, buf.data(), int64_t(buf.size())), int64_t(buf.size()));
    return buf;
  }
};
const ptype* T(ptype_number n) { return ut::kernel_up(), ptype_by_id(n); }

TEST(ValueSpace, CapacityRule) {
  struct Row { uint64_t n_old, n_add, want; };
  for (const Row& r : {Row{0, 5, 1024}, Row{0, 5000, 5000}, Row{2000, 1, 3200},
                       Row{2000, 5000, 7000}, Row{0xF0000000ull, 0x10000000ull, 0xFFFFFFFFull}})
    EXPECT_EQ(value_space_new_capacity(r.n_old, r.n_add), r.want) << r.n_old << "+" << r.n_add;
}

TEST(ValueSpace, AppendsShareOneInsertCapacityAndFillFromTheFloor) {
  Space s({T(PTYPE_SLNG), T(PTYPE_STR)}, 1);
  EXPECT_EQ(value_space_append_inserts(s.vs, 0, nullptr, 0, nullptr, 0), 0);
  EXPECT_EQ(s.vs->inserts[0], nullptr);
  const int64_t col[3] = {10, 20, 30};
  EXPECT_EQ(value_space_append_inserts(s.vs, 0, col, 0, nullptr, 3), 0);
  EXPECT_EQ(s.vs->inserts_capacity, 1024u);
  for (uint32_t c = 0; c < 3; c++) EXPECT_NE(s.vs->inserts[c], nullptr) << c;
  const int64_t seven = 7, sel[2] = {2, 0};
  EXPECT_EQ(value_space_append_inserts(s.vs, 0, &seven, 1, nullptr, 1100), 3);
  EXPECT_EQ(s.vs->inserts_capacity, 1103u);  // at least what is held and added
  EXPECT_EQ(value_space_append_inserts(s.vs, 0, col, 0, sel, 2), 1103);
  EXPECT_EQ(s.vs->inserts_capacity, 1764u);  // 1.6 times the elements held
  const int64_t* v = reinterpret_cast<const int64_t*>(s.vs->inserts[0]);
  EXPECT_EQ(v[2], 30);
  EXPECT_EQ(std::vector<int64_t>(v + 1102, v + 1105), (std::vector<int64_t>{7, 30, 10}));
  const char* strs[2] = {"x", "yz"};
  char on_stack[8] = "tmp";
  const char* tmp = on_stack;
  EXPECT_EQ(value_space_append_modifies(s.vs, 1, strs, 0, nullptr, 2), 0);
  EXPECT_EQ(value_space_append_modifies(s.vs, 1, &tmp, 1, nullptr, 2), 2);
  on_stack[0] = 'X';  // the space holds its own copy
  char buf[64];
  value_space_format_modify(s.vs, buf, sizeof buf, 3, 1);
  EXPECT_STREQ(buf, "tmp");
  EXPECT_EQ(s.vs->modifies_capacity[1], 1024u);
  EXPECT_EQ(s.vs->modifies[0], nullptr);  // modifies grow by column
}

TEST(ValueSpace, SerialFormsByteForByte) {
  Space fixed({T(PTYPE_SINT)}, 1);
  EXPECT_EQ(fixed.serial(), std::string(16, '\0'));  // empty: the counts only
  EXPECT_EQ(fixed.vs->vheap, nullptr);
  const int32_t ins[2] = {0x01020304, -1}, mod = 5;
  const int64_t incs[2] = {-2, 3};
  value_space_append_inserts(fixed.vs, 0, ins, 0, nullptr, 2);
  value_space_append_inserts(fixed.vs, 1, incs, 0, nullptr, 2);
  value_space_append_modifies(fixed.vs, 0, &mod, 0, nullptr, 1);
  const unsigned char want_fixed[] = {
      2,   0,   0, 0, 2, 0, 0,   0,   1,   0,   0,   0,   0,   0,   0, 0, 4, 3, 2, 1, 255, 255,
      255, 255, 5, 0, 0, 0, 254, 255, 255, 255, 255, 255, 255, 255, 3, 0, 0, 0, 0, 0, 0,   0};
  EXPECT_EQ(fixed.serial(),
            std::string(reinterpret_cast<const char*>(want_fixed), sizeof want_fixed));

  Space str({T(PTYPE_STR)}, 0);
  const char* values[2] = {"ab", ""};
  const char* changed = "xyz";
  value_space_append_inserts(str.vs, 0, values, 0, nullptr, 2);
  value_space_append_modifies(str.vs, 0, &changed, 0, nullptr, 1);
  const char want_str[] = "\2\0\0\0\1\0\0\0\3\0\0\0\1\0\0\0\4\0\0\0ab\0\0xyz";
  EXPECT_EQ(str.serial(), std::string(want_str, sizeof want_str));
  std::string small(27, 'x');
  std::string err =
      j480test::err_of([&] { EXPECT_EQ(value_space_serialize(str.vs, small.data(), 27), 0); });
  EXPECT_EQ(err, "ERROR:PDT:insufficient buffer space to serialize value space: bufsize 27, "
                 "vs_size 28\n");
}

TEST(ValueSpace, IncrementColumnsRefuseTableColumns) {
  Space s({T(PTYPE_SLNG)}, 1);
  const int64_t zero = 0;
  value_space_append_inserts(s.vs, 1, &zero, 0, nullptr, 1);
  struct Row { char fn; uint32_t colno; int64_t result; const char* message; };
  const Row rows[] = {
      {'c', 0, 0xFFFFFFFF, "value_space_increment_count: incrementing table column is not allowed"},
      {'c', 2, 0xFFFFFFFE, "value_space_increment_count: illegal colno 2"},
      {'m', 0, 0xFFFFFFFF,
       "value_space_increment_modify: incrementing table column is not allowed"},
      {'m', 5, 0xFFFFFFFE, "value_space_increment_modify: illegal colno 5"},
      {'g', 0, -1, "value_space_get_increment: not an increment column 0"},
      {'g', 3, -2, "value_space_get_increment: illegal colno 3"}};
  for (const Row& r : rows) {
    int64_t got = 0;
    std::string err = j480test::err_of([&] {
      got = r.fn == 'c'   ? int64_t(value_space_increment_count(s.vs, r.colno, 0, 1))
            : r.fn == 'm' ? int64_t(value_space_increment_modify(s.vs, r.colno, 1))
                          : value_space_get_increment(s.vs, r.colno, 0);
    });
    EXPECT_EQ(got, r.result) << r.message;
    EXPECT_EQ(err, "ERROR:PDT:" + std::string(r.message) + "\n");
  }
  EXPECT_EQ(value_space_increment_modify(s.vs, 1, 40), 0u);
  EXPECT_EQ(value_space_increment_modify_inplace(s.vs, 1, 0, 2), 0u);
  EXPECT_EQ(value_space_get_increment(s.vs, 1, 0), 42);
  EXPECT_EQ(value_space_increment_count(s.vs, 1, 0, 5), 0u);
  EXPECT_EQ(reinterpret_cast<int64_t*>(s.vs->inserts[1])[0], 5);
  EXPECT_DEATH(value_space_increment_modify_inplace(s.vs, 1, 1, 2),
               Esc("assertion \"pos < vs->n_modifies[colno]\" failed"));
  EXPECT_DEATH(value_space_modify_insert(s.vs, 0, 0, 3),
               Esc("assertion \"insert_pos < vs->n_inserts[colno]\" failed"));
}

TEST(ValueSpace, CopyAndDroppedIncrementColumn) {
  Space s({T(PTYPE_SLNG), T(PTYPE_STR)}, 2, {0});
  const int64_t a[2] = {1, 2};
  const char* t[2] = {"p", "q"};
  value_space_append_inserts(s.vs, 0, a, 0, nullptr, 2);
  value_space_append_inserts(s.vs, 1, t, 0, nullptr, 2);
  value_space_append_inserts(s.vs, 2, a, 0, nullptr, 2);
  value_space_append_inserts(s.vs, 3, a, 0, nullptr, 2);
  value_space_append_deletes(s.vs, 0, a, 0, nullptr, 2);
  value_space_increment_modify(s.vs, 3, 9);
  value_space* c = value_space_copy(s.mem, s.vs);
  std::swap(c, s.vs);
  const std::string copied = s.serial();
  std::swap(c, s.vs);
  EXPECT_EQ(copied, s.serial());
  EXPECT_EQ(c->n_deletes[0], 2u);

  EXPECT_EQ(value_space_drop_increment_column(c, 12), 3);
  EXPECT_EQ(value_space_drop_increment_column(c, 12), -1);
  EXPECT_EQ(c->joinindex_IDs[1], -1);
  EXPECT_EQ(c->n_modifies[3], 0u);
  EXPECT_EQ(c->modifies[3], nullptr);
  value_space_free(c);
}

}  // namespace
