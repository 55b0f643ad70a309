// The tree's parameters, growth, the updates that fold into existing entries, the serial form's
// limits, and the assertions at the edges.
#include "support/test_support.h"
#include "updates_test_util.h"

namespace {

using j480test::Esc;

std::string entries_text(const pdt* t) {
  std::string out;
  for (const ut::Entry& e : ut::chain_entries(t))
    out += (out.empty() ? "" : " ") + std::to_string(USID(e.def)) + "/" +
           std::to_string(PDT_TYPE(e.def)) + "/" + std::to_string(PDT_HDR(e.def)) +
           (PDT_TYPE(e.def) == PDT_DELETE && e.offset ? "@" + std::to_string(e.offset) : "");
  return out;
}

TEST(Pdt, AnEmptyTreeIsOneRootLeafAndBadParametersAreRefused) {
  ut::Tree tree(3, 8);
  pdt* t = tree.t;
  int64_t sid = 0, delta = -1;
  EXPECT_EQ(pdt_find_first_leaf_by_sid(t, &sid, &delta), t->root_idx);
  EXPECT_EQ(delta, 0);
  EXPECT_EQ(t->nodes[t->root_idx][NEXT], LLIST_END);
  EXPECT_EQ(t->nodes[t->root_idx][PREV], LLIST_END);
  EXPECT_EQ(ut::Tree(2, 8).t, nullptr);
  EXPECT_EQ(ut::Tree(3, 0).t, nullptr);
}

TEST(Pdt, GrowthAddsBlocksWithoutMovingNodesUpToSixtyFour) {
  ut::Tree tree(PDT_DEFAULT_FAN_OUT, 1000);
  pdt* t = tree.t;
  uint32_t* first = t->nodes[0];
  ASSERT_EQ(pdt_grow(t), 0);
  ASSERT_EQ(pdt_grow(t), 0);
  EXPECT_EQ(t->nodes[0], first);
  const uint32_t max_nodes = t->max_nodes;
  t->n_data_blocks = PDT_MAX_DATA_BLOCKS;
  std::string err = j480test::err_of([&] { EXPECT_EQ(pdt_grow(t), -1); });
  EXPECT_NE(err.find("PDT:no more data blocks\n"), std::string::npos) << err;
  EXPECT_EQ(t->max_nodes, max_nodes);
  t->num_nodes = t->max_nodes;
  EXPECT_DEATH(pdt_alloc_node(t), Esc("assertion \"pdt->num_nodes < pdt->max_nodes\" failed"));
  t->n_data_blocks = 3;
}

// Updates on stable rows 0.. of a tree of fan_out 3; 'i', 'm', 'c', 'd', 'v' and 's' add an
// insert, a modify (column n), an increment, a delete by RID, one with key values (at 10 * rid,
// shown behind '@') and a delete by SID.
struct Op {
  char kind;
  int64_t at, n;
};
struct Case {
  const char* name;
  std::vector<Op> ops;
  const char* entries;
  int64_t delta;
  const char* error;  // the message of the last operation, which then returns -1
};

TEST(Pdt, UpdatesFoldIntoExistingEntries) {
  const std::vector<Case> cases = {
      {"insert behind a delete", {{'d', 5, 1}, {'i', 5, 0}}, "5/0/0 6/2/0", 0, nullptr},
      {"second modify of a column", {{'m', 3, 0}, {'m', 3, 0}}, "3/1/0", 0, nullptr},
      {"modify of an inserted row", {{'i', 2, 0}, {'m', 2, 1}}, "2/2/0", 1, nullptr},
      {"inserted rows deleted again", {{'i', 4, 0}, {'i', 5, 0}, {'d', 4, 2}}, "", 0, nullptr},
      {"delete over modifies", {{'m', 3, 0}, {'m', 4, 1}, {'c', 4, 5}, {'d', 2, 5}}, "2/0/4", -5, nullptr},
      {"run continued", {{'d', 10, 3}, {'d', 10, 1}}, "10/0/3", -4, nullptr},
      {"block stops at 16384", {{'d', 0, 16384}, {'d', 0, 1}}, "0/0/16383 16384/0/0", -16385, nullptr},
      {"delete behind is not grown", {{'d', 5, 1}, {'d', 4, 1}}, "4/0/0 5/0/0", -2, nullptr},
      {"deletes keep their key values", {{'v', 5, 1}, {'v', 2, 1}}, "2/0/0@20 5/0/0@50", -2, nullptr},
      {"by SID grows both ways", {{'s', 5, 2}, {'s', 10, 1}, {'s', 7, 1}, {'s', 9, 1}}, "5/0/2 9/0/1", -5,
       nullptr},
      {"SID already deleted", {{'s', 5, 3}, {'s', 6, 1}}, "5/0/2", -3,
       "pdt_add_delete_by_sid: SID already deleted: 5"},
      {"modify in front read as a run", {{'c', 3, 2}, {'s', 4, 1}}, "3/1/2", 0,
       "pdt_add_delete_by_sid: SID already deleted: 4"},
  };
  for (const Case& c : cases) {
    ut::Tree tree(3, 4);
    pdt* t = tree.t;
    int res = 0;
    std::string err = j480test::err_of([&] {
      for (const Op& op : c.ops) {
        if (op.kind == 'i') res = t->ops.add_insert(t, op.at, tree.tuple(op.at, "new"));
        if (op.kind == 'm')
          res = t->ops.add_modify(t, op.at, tree.modify(uint16_t(op.n), 42, "mod"), uint16_t(op.n));
        if (op.kind == 'c') res = pdt_add_increment(t, op.at, ut::kIncCol, op.n);
        if (op.kind == 'd') res = t->ops.add_delete(t, op.at, op.n, -1);
        if (op.kind == 'v') res = t->ops.add_delete(t, op.at, op.n, 10 * op.at);  // key values
        if (op.kind == 's') res = t->ops.add_delete_by_sid(t, op.at, op.n, -1);
      }
    });
    EXPECT_EQ(entries_text(t), c.entries) << c.name;
    EXPECT_EQ(t->delta, c.delta) << c.name;
    EXPECT_EQ(res, c.error ? -1 : 0) << c.name;
    if (c.error) {
      EXPECT_NE(err.find(std::string(c.error) + "\n"), std::string::npos) << c.name << err;
    }
    std::string why;
    EXPECT_TRUE(pdt_check(t, PDT_CHECK_SEPARATORS, &why)) << c.name << ": " << why;
  }
}

TEST(Pdt, SerialFormOfEmptyAndBlockTreesAndTooSmallBuffer) {
  ut::Tree tree(3, 4);
  pdt* t = tree.t;
  std::string buf = ut::serialize(t);
  ASSERT_EQ(buf.size(), 24u + 8 * 3);
  const ut::Serial empty = ut::read_serial(buf);
  EXPECT_EQ(empty.num_nodes, 1u);
  EXPECT_EQ(empty.n_entries, 0);
  EXPECT_EQ(buf.substr(24), std::string(24, '\0'));

  ASSERT_EQ(t->ops.add_delete(t, 0, PDT_BLOCK_DELETE_MAX, -1), 0);
  buf.assign(size_t(pdt_serialized_size(t)) - 1, 'x');
  std::string err = j480test::err_of([&] { EXPECT_EQ(pdt_serialize(t, buf.data(), int64_t(buf.size())), -1); });
  EXPECT_NE(err.find("pdt_serialize: buffer too small, bufsize=59, resultsize=60\n"), std::string::npos) << err;
  EXPECT_EQ(buf, std::string(59, 'x'));
  const ut::Serial one = ut::read_serial(ut::serialize(t));
  ASSERT_EQ(one.entries.size(), 1u);
  EXPECT_EQ(one.entries[0].def, PDT_DEF(0, PDT_DELETE, 16383));

  // Dropped leaves keep their indexes: the record counts them.
  for (int i = 0; i < 40; i++) ASSERT_EQ(t->ops.add_modify(t, i, tree.modify(0, i, ""), 0), 0);
  ASSERT_EQ(t->ops.add_delete(t, 0, 40, -1), 0);
  EXPECT_EQ(entries_text(t), "0/0/16383 16384/0/39");
  EXPECT_GT(ut::read_serial(ut::serialize(t)).num_nodes, 1u);
}

TEST(PdtDeath, AssertionsAtTheEdges) {
  struct Row { const char* text; void (*run)(ut::Tree&); };
  const Row rows[] = {
      {"pdt->refcnt >= 0", [](ut::Tree& x) { x.t->refcnt = 0; pdt_unref(x.t); }},
      {"(colno & 0xC000) == 0", [](ut::Tree& x) { x.t->ops.add_modify(x.t, 0, 0, 0x4000); }},
      {"ntuples <= PDT_BLOCK_DELETE_MAX", [](ut::Tree& x) { x.t->ops.add_delete(x.t, 0, 16385, -1); }},
      {"pdt->n_inserts == 0",
       [](ut::Tree& x) { x.t->ops.add_insert(x.t, 0, x.tuple(0, "")); x.t->ops.add_delete_by_sid(x.t, 3, 1, -1); }},
      {"sid >= 0 && ntuples", [](ut::Tree& x) { x.t->ops.add_delete_by_sid(x.t, 3, 0, -1); }},
      {"colno >= pdt->n_table_cols", [](ut::Tree& x) { pdt_add_increment(x.t, 0, 1, 5); }},
      {"leaf[COUNT] >= LEAF_COUNT_BASE",
       [](ut::Tree& x) { x.t->nodes[0][COUNT] = 0; pdt_leaf l; pdt_get_leaf(x.t, 0, &l); }},
      {"node[COUNT] < LEAF_COUNT_BASE", [](ut::Tree& x) { pdt_node n; pdt_get_node(x.t, 0, &n); }},
  };
  for (const Row& r : rows) {
    EXPECT_DEATH({ ut::Tree x(3, 4); r.run(x); }, Esc("assertion \"" + std::string(r.text) + "\" failed"))
        << r.text;
  }
}

}  // namespace
