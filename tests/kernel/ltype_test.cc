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
  struct Case {
    const char* text;
    ltype code;
    const char* back;
  };
  const Case cases[] = {
      {"bool", 1, "bool"},           {"schr", 2, "schr"},
      {"uchr", 3, "uchr"},           {"ssht", 4, "ssht"},
      {"usht", 5, "usht"},           {"sint", 6, "sint"},
      {"uint", 7, "uint"},           {"slng", 8, "slng"},
      {"ulng", 9, "ulng"},           {"s128", 10, "s128"},
      {"uidx", 11, "uidx"},          {"decimal(12,3)", 12 | (12 << 8) | (3 << 16), "decimal(12,3)"},
      {"flt", 13, "flt"},            {"dbl", 14, "dbl"},
      {"money", 0x2000F, "money"},   {"char(5)", 16 | (5 << 8), "char(5)"},
      {"varchar(30)", 17 | (30 << 8), "varchar(30)"},
      {"str", 17, "str"},            {"date", 18, "date"},
      {"time", 19, "time"},          {"time(3)", 19 | (3 << 16), "time(3)"},
      {"timestamp(6)", 20 | (6 << 16), "timestamp(6)"},
      {"intervalds(2)", 21 | (2 << 16), "intervalds(2)"},
      {"intervalym", 22, "intervalym"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    ltype code = ltype_from_string(c.text);
    EXPECT_EQ(code, c.code);
    EXPECT_STREQ(ltype_to_string(m.mem, code), c.back);
    EXPECT_EQ(ltype_from_string(ltype_to_string(m.mem, code)), code);
  }
  EXPECT_STREQ(ltype_name(0), "UNKNOWNTYPE");
  EXPECT_STREQ(ltype_name(23), "UNKNOWNTYPE");
}

TEST(Ltype, NamesWithColumnDigitsAndScale) {
  Mem m;
  EXPECT_EQ(ltype_from_name("INTEGER", 8, 0), 8u);
  EXPECT_EQ(ltype_from_name("int", 0, 0), 6u);
  EXPECT_EQ(ltype_from_name("int", 1, 0), 2u);
  EXPECT_EQ(ltype_from_name("int", 2, 0), 4u);
  EXPECT_EQ(ltype_from_name("integer", 16, 0), 10u);
  EXPECT_EQ(ltype_from_name("integer", 3, 0), 0u);  // unknown size: warning, no type
  EXPECT_STREQ(ltype_to_string(m.mem, ltype_from_name("decimal", 0, 2)), "decimal(10,2)");
  EXPECT_EQ(ltype_from_name("timestamp", 9, 0), 20u | (6u << 16));
  EXPECT_EQ(ltype_from_name("varcharx", 10, 0), 0u);
  EXPECT_EQ(ltype_from_name("char", 0, 0), 16u | (1u << 8));
  EXPECT_EQ(ltype_from_name("varchar", 0, 0), 17u);
  EXPECT_EQ(ltype_from_name("money", 7, 3), 0x2000Fu);
  EXPECT_EQ(ltype_from_name("float", 0, 0), 14u);
  EXPECT_EQ(ltype_from_name("float", 4, 0), 13u);
  EXPECT_EQ(ltype_from_name("float", 2, 0), 0u);
  EXPECT_EQ(ltype_from_name("Date(", 0, 0), 18u);
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
  const char* a = "abc";
  const char* b = "abd";
  EXPECT_EQ(str->ops.value_size(&a), 4);
  EXPECT_LT(str->ops.compare(&a, &b), 0);
  int32_t x = -5, y = 3;
  EXPECT_LT(ptype_by_id(PTYPE_SINT)->ops.compare(&x, &y), 0);
  EXPECT_GT(ptype_by_id(PTYPE_UINT)->ops.compare(&x, &y), 0);  // unsigned view
}
