// Configuration registry: size texts, validators, the name table and defaults, and misuse.
#include "utils/cvconfig.h"

#include <gtest/gtest.h>

#include "support/test_support.h"

#include <cmath>
#include <cstring>
#include <functional>
#include <string>

#include "utils/mem.h"

namespace {

using j480test::err_of;
using j480test::Esc;

prop_value L(int64_t v) { return prop_value{.l = v}; }

bool HasError(const std::string& err, const std::string& text) {
  return err.find("ERROR:CVCONFIG:" + text) != std::string::npos;
}

// A command-line layer over the defaults.
class CvconfigTest : public testing::Test {
 protected:
  ~CvconfigTest() override { cvconfig_destroy(root_); }
  cvconfig* root_ = cvconfig_create();
  cvconfig_layer* defaults_ = cvconfig_defaults(root_);
  cvconfig_layer* cmdline_ = cvconfig_layer_create(nullptr, "cmdline", defaults_);
};

using CvconfigDeathTest = CvconfigTest;

}  // namespace

TEST(CvconfigParse, SizeTextsWithUnitsFractionsAndExponents) {
  const std::pair<const char*, int64_t> ok[] = {
      {"1.5K", 1536}, {"10 mb", 10485760}, {"1T", 1099511627776LL}, {"1tb", 1099511627776LL},
      {"-1", -1}, {"1e3", 1000}, {"0.25e1k", 2560}, {" 16 K ", 16384}, {"7kB", 7168},
      {"2147483648", 2147483648LL}, {"3g", 3221225472LL}};
  for (const auto& [text, value] : ok) {
    int64_t v = 77;
    EXPECT_EQ(cvconfig_parse_size(text, &v), 1) << text;
    EXPECT_EQ(v, value) << text;
  }
  for (const char* bad : {"1t b", "K", "10X", "", "1KBB", "5 k x", "1e400"}) {
    int64_t v = 77;
    std::string err = err_of([&] { EXPECT_EQ(cvconfig_parse_size(bad, &v), 0) << bad; });
    EXPECT_EQ(v, 0) << bad;
    EXPECT_TRUE(HasError(err, std::string("cvconfig_parse_size: can't parse: '") + bad + "'\n"))
        << err;
  }
}

TEST_F(CvconfigTest, RangeAndPowerOfTwoValidators) {
  auto lng = [&](int32_t g, int32_t id, int64_t v) { return cvconfig_set_lng(cmdline_, g, id, v); };
  auto memuse = [&](double v) {
    return cvconfig_set_dbl(cmdline_, CVGROUP_MEMORY, CVPROP_MAX_MEMUSE, v);
  };
  EXPECT_EQ(lng(CVGROUP_CBM, CVPROP_BLOCK_SIZE, 512 * 1024), 1);
  EXPECT_EQ(cvconfig_get_lng(cmdline_, CVGROUP_CBM, CVPROP_BUFFERPOOL_SIZE), 0);
  EXPECT_EQ(lng(CVGROUP_CBM, CVPROP_IO_PREFETCH_BLOCKS, 0), 1);
  EXPECT_EQ(lng(CVGROUP_CBM, CVPROP_BUFFERPOOL_BLOCKS, -1), 1);
  EXPECT_EQ(cvconfig_get_lng(cmdline_, CVGROUP_CBM, CVPROP_BUFFERPOOL_BLOCKS), -1);
  EXPECT_EQ(lng(CVGROUP_ENGINE, CVPROP_MAX_UPDATE_PARALLELISM_LEVEL, -1), 1);
  EXPECT_EQ(memuse(1.0), 1);  // ratios: both ends inclusive
  // `port` of server and client: two properties, one validator.
  EXPECT_EQ(lng(CVGROUP_SERVER, CVPROP_PORT, 1000), 1);
  EXPECT_EQ(lng(CVGROUP_CLIENT, CVPROP_CLIENT_PORT, 2000), 1);
  EXPECT_EQ(cvconf_validate_power2(PROP_TPE_DBL, prop_value{.d = 4.7}), 1);  // doubles truncate
  std::string err = err_of([&] {
    EXPECT_EQ(lng(CVGROUP_CBM, CVPROP_BLOCK_SIZE, 768 * 1024), 0);
    EXPECT_EQ(lng(CVGROUP_CBM, CVPROP_BUFFERPOOL_SIZE, 0), 0);
    EXPECT_EQ(lng(CVGROUP_ENGINE, CVPROP_MAX_PARALLELISM_LEVEL, -1), 0);
    EXPECT_EQ(memuse(1.01), 0);
    EXPECT_EQ(memuse(NAN), 0);  // not a number is out of every range
    EXPECT_EQ(lng(CVGROUP_SERVER, CVPROP_PORT, 65536), 0);
    EXPECT_EQ(cvconf_validate_power2(PROP_TPE_LNG, L(-4)), 0);
    EXPECT_EQ(cvconf_validate_power2(PROP_TPE_STR, L(4)), 0);
  });
  for (const char* text : {"cvconf_validate_power2: 786432 is not a power of two.",
                           "cvconfig_validate: 0.000000 not between 33554432.000000 and "
                           "281474976710656.000000.",
                           "cvconfig_validate: nan not between 0.000100 and",
                           "cvconf_validate_power2: -4 is not a power of two.",
                           "cvconf_validate_power2: unsupported property type"})
    EXPECT_TRUE(HasError(err, text)) << text << "\n" << err;
  EXPECT_EQ(cvconfig_get_lng(cmdline_, CVGROUP_CBM, CVPROP_BLOCK_SIZE), 512 * 1024);
  EXPECT_EQ(cvconfig_get_lng(cmdline_, CVGROUP_SERVER, CVPROP_PORT), 1000);
  EXPECT_EQ(cvconfig_get_lng(cmdline_, CVGROUP_CLIENT, CVPROP_CLIENT_PORT), 2000);
  // No validator for an unknown name; a boolean skips the range test.
  EXPECT_EQ(cvconfig_validate(cmdline_, CVGROUP_CBM, "no_such_key", L(-5), PROP_TPE_LNG), 1);
  EXPECT_EQ(cvconfig_validate(cmdline_, CVGROUP_SERVER, "port", L(70000), PROP_TPE_BOOL), 1);
}

// Every property: its name leads back to it (port names the client's), and the defaults hold it
// with its type; no default fails its validator.
TEST_F(CvconfigTest, NameTableRoundTripsDefaultsHoldEveryPropertyAndGroupsResolve) {
  EXPECT_EQ(err_of([] { cvconfig_destroy(cvconfig_create()); }), "");
  for (int32_t id = 1; id <= CVCONFIG_NUM_PROPERTIES; id++) {
    const char* name = root_->names[id];
    ASSERT_NE(name, nullptr);
    EXPECT_EQ(cvconfig_property_id(cmdline_, name), id == CVPROP_PORT ? CVPROP_CLIENT_PORT : id)
        << name;
    int32_t gid = 0, tpe = -1;
    ASSERT_TRUE(cvconfig_property_info(id, &gid, &tpe, nullptr));
    property* p = property_find(defaults_->groups[gid], name);
    ASSERT_NE(p, nullptr) << name;
    EXPECT_EQ(p->tpe, tpe) << name;
    EXPECT_EQ(p->cnt, 1);
  }
  EXPECT_STREQ(cvconfig_get_str(cmdline_, CVGROUP_ENGINE, CVPROP_SORT_COMPRESSION), "AUTO")
      << "the last group reads through like the others";
  EXPECT_EQ(cvconfig_get_bool(cmdline_, CVGROUP_MEMORY, CVPROP_USE_HUGE_TLB), 0);  // "false"
  EXPECT_EQ(cvconfig_property_id(cmdline_, "port"), 18);
  EXPECT_EQ(cvconfig_property_id(cmdline_, "no_such_key"), 0);
  for (const auto& [name, gid] : {std::pair<const char*, int32_t>{"default", CVGROUP_DEFAULT},
                                   {"engine", CVGROUP_ENGINE}, {"cbm", CVGROUP_CBM}, {"nope", 0}})
    EXPECT_EQ(cvconfig_group_id(root_, name), gid) << name;
}

TEST(PropertyListDeathTest, LookupComparesTextNotJustPointersOrPrefixes) {
  MemContext* mem = mem_context_create(nullptr, "plist");
  property* list = nullptr;
  property* a = property_add(mem, &list, "max_a", PROP_TPE_LNG, 2);
  property* b = property_add(mem, &list, "max_b", PROP_TPE_LNG, 1);
  property* e = property_add(mem, &list, "", PROP_TPE_LNG, 1);
  char copy[] = "max_a";
  EXPECT_EQ(property_find(list, copy), a);
  EXPECT_EQ(property_find(list, "max_b"), b);
  EXPECT_EQ(property_find(list, ""), e);
  EXPECT_EQ(property_find(list, "max"), nullptr);
  EXPECT_EQ(property_find(list, "m"), nullptr);
  property_set(a, 1, L(9));
  EXPECT_EQ(property_get(a, 1).l, 9);
  EXPECT_EQ(property_get(a, 0).l, 0);
  EXPECT_DEATH(property_set(a, 2, L(1)), Esc("assertion \"pos < p->cnt\" failed"));
  mem_context_remove(mem);
}

TEST_F(CvconfigDeathTest, TypeMismatchesAndMissingLayersAreAssertions) {
  const std::pair<std::function<void()>, const char*> cases[] = {
      {[&] { cvconfig_get_bool(cmdline_, CVGROUP_SERVER, CVPROP_PORT); },
       "prop->tpe == PROP_TPE_ANY || prop->tpe == PROP_TPE_BOOL"},
      {[&] { cvconfig_get_lng(cmdline_, CVGROUP_SERVER, CVPROP_DBNAME); },
       "prop->tpe == PROP_TPE_ANY || prop->tpe == PROP_TPE_LNG"},
      {[&] { cvconfig_get_dbl(cmdline_, CVGROUP_SERVER, CVPROP_PORT); },
       "prop->tpe == PROP_TPE_ANY || prop->tpe == PROP_TPE_DBL"},
      {[&] { cvconfig_get_str(cmdline_, CVGROUP_MEMORY, CVPROP_MAX_MEMUSE); },
       "prop->tpe == PROP_TPE_ANY || prop->tpe == PROP_TPE_STR"},
      {[&] { cvconfig_set_str(defaults_, CVGROUP_SERVER, CVPROP_PORT, "1"); },
       "assertion \"p->tpe == tpe\" failed"},
      {[&] { cvconfig_set(nullptr, CVGROUP_SERVER, "port", L(1), PROP_TPE_LNG, 0); },
       "assertion \"config\" failed"},
      {[&] { cvconfig_layer_create(nullptr, "x", nullptr); }, "assertion \"mem || parent\" failed"},
  };
  for (const auto& [call, text] : cases) EXPECT_DEATH(call(), Esc(text));
}
