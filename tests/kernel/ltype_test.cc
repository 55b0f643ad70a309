// Logical type codes from and to their texts; the physical type table.
#include "kernel/ltype.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "kernel/ptype.h"
#include "utils/mem.h"

namespace {
struct Mem {
  MemContext* mem = mem_context_create(nullptr, "ltype_test");
  ~Mem() { mem_context_remove(mem); }
};
}  // namespace

TEST(Ltype, EveryTextConvertsToItsCodeAndBack) {
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
}

TEST(Ltype, NamesWithColumnDigitsAndScale) {
  Mem m;
  // An unknown size or name gives no type (0).
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
