// Red-black tree: properties under random inserts and deletes, checked against std::map.
#include "utils/rbtree.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <deque>
#include <map>
#include <random>
#include <vector>

#include "utils/mem.h"

namespace {

int64_t compare_ints(const void* a, const void* b) {
  int64_t x = *static_cast<const int64_t*>(a), y = *static_cast<const int64_t*>(b);
  return (x > y) - (x < y);
}

struct Tree {
  MemContext* mem = mem_context_create(nullptr, "rbtree_test");
  rb_tree* tree = rb_create(mem, 1, compare_ints);
  std::deque<int64_t> keys;  // stable addresses for keys
  ~Tree() {
    rb_destroy(tree, nullptr);
    mem_context_remove(mem);
  }
  int64_t* key(int64_t v) { return &keys.emplace_back(v); }
};

// The key of a node, -1 for none.
int64_t key_of(const rb_node* n) { return n ? *static_cast<const int64_t*>(n->key) : -1; }

int g_freed = 0;

}  // namespace

TEST(RbTree, RandomInsertsDeletesAndSearchesMatchAMapAndKeepTheProperties) {
  Tree t;
  int64_t none = 5;
  EXPECT_EQ(rb_search_nearest(t.tree, &none), t.tree->root) << "an empty tree";
  EXPECT_EQ(rb_search_greater(t.tree, &none), nullptr);
  EXPECT_EQ(rb_insert(t.tree, nullptr, nullptr), nullptr);
  rb_delete(t.tree, nullptr);
  std::map<int64_t, intptr_t> model;
  std::mt19937_64 rng(42);
  for (int step = 0; step < 20000; step++) {
    int64_t k = static_cast<int64_t>(rng() % 2000);
    int op = static_cast<int>(rng() % 10);
    if (op < 5) {
      intptr_t v = step;
      rb_node* n = rb_insert(t.tree, t.key(k), reinterpret_cast<void*>(v));
      if (model.count(k)) {
        EXPECT_EQ(n, nullptr);
      } else {
        ASSERT_NE(n, nullptr);
        model[k] = v;
      }
    } else if (op < 8) {
      rb_node* n = rb_search(t.tree, &k);
      ASSERT_EQ(n != nullptr, model.count(k) == 1);
      if (n) {
        rb_delete(t.tree, n);
        model.erase(k);
      }
    } else {
      auto above = model.upper_bound(k), at = model.lower_bound(k);
      const int64_t below = at == model.begin() ? -1 : std::prev(at)->first;
      EXPECT_EQ(key_of(rb_search_greater(t.tree, &k)), above == model.end() ? -1 : above->first);
      EXPECT_EQ(key_of(rb_search_less(t.tree, &k)), below);
      rb_node* s = rb_search(t.tree, &k);
      const intptr_t value = model.count(k) ? model[k] : -1;
      EXPECT_EQ(s ? reinterpret_cast<intptr_t>(s->value) : -1, value);
      // Nearest: the equal key, else the last node on the search path, a neighbour of the key.
      const int64_t near = model.empty() ? -1 : key_of(rb_search_nearest(t.tree, &k));
      const int64_t from = at == model.end() ? -1 : at->first;
      EXPECT_TRUE(near == from || (from != k && near == below)) << k << " " << near;
    }
    const char* why = nullptr;
    ASSERT_GE(rb_check(t.tree, &why), 0) << why << " at step " << step;
  }
  // In-order walk both ways equals the model; destroying hands out every value.
  std::vector<int64_t> fwd, bwd;
  rb_node* last = nullptr;
  for (rb_node* n = rb_first(t.tree); n; n = rb_successor(t.tree, n)) {
    fwd.push_back(key_of(n));
    last = n;
  }
  for (rb_node* n = last; n; n = rb_predecessor(t.tree, n)) bwd.insert(bwd.begin(), key_of(n));
  std::vector<int64_t> expected;
  for (auto& [k, v] : model) expected.push_back(k);
  EXPECT_EQ(fwd, expected);
  EXPECT_EQ(bwd, expected);
  rb_destroy(t.tree, [](void*) { g_freed++; });
  EXPECT_EQ(g_freed, static_cast<int>(model.size()));
  t.tree = rb_create(t.mem, 0, compare_ints);
}
