// Columnspace: sizes and numbering; marks, growth by doubling and its refusal, groups of
// consecutive blocks and the life of a file against a model; the free-run step against a model;
// the assertions.
#include "bm/columnspace.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "bm/iob.h"
#include "support/test_support.h"
#include "utils/mem.h"
#include "utils/rbtree.h"

namespace {

using j480test::err_of;
using j480test::Esc;

columnspace* make_cs(int32_t group_size, int64_t metadata_size, int32_t grow = 1) {
  columnspace* cs = nullptr;
  err_of([&] { cs = columnspace_create(512 * 1024, group_size, metadata_size, grow); });
  return cs;
}

// Marks block `nr` of file `file_nr` for `owner`: the block, or null (released) when refused.
iob* mark(columnspace* cs, int64_t file_nr, int64_t owner, int64_t nr) {
  iob* b = iob_create();
  if (columnspace_mark_used(cs, b, file_nr, owner, nr)) return b;
  iob_release(b);
  return nullptr;
}

void expect_valid(cs_file* f) {
  std::string why;
  EXPECT_TRUE(columnspace_file_check(f, &why)) << why;
}

// The free runs of a file as first -> count.
std::map<int64_t, int64_t> free_runs(cs_file* f) {
  std::map<int64_t, int64_t> runs;
  for (rb_node* n = rb_first(f->free_groups); n != nullptr; n = rb_successor(f->free_groups, n)) {
    auto* g = static_cast<cs_group*>(n->value);
    runs[g->first] = g->count;
  }
  return runs;
}

}  // namespace

TEST(Columnspace, SizesRoundAndFilesNumberUpward) {
  EXPECT_EQ(make_cs(8, 0), nullptr);  // there is no columnspace of size 0
  // (group_size, metadata_size) -> (rounded group size, blocks of a new file)
  const std::vector<std::array<int64_t, 4>> cases = {
      {0, 1, 1, 64}, {1, 64, 1, 64}, {3, 65, 4, 128}, {100, 200, 128, 256}};
  for (const auto& c : cases) {
    columnspace* cs = nullptr;
    std::string err = err_of([&] { cs = columnspace_create(4096, c[0], c[1], 1); });
    EXPECT_EQ(err, "#CBM:columnspace_create: nrblks " + std::to_string(c[3]) + "\n");
    EXPECT_EQ(cs->group_size, c[2]);
    cs_file* f = columnspace_register_file(cs, nullptr, nullptr, "f", 2, -1);
    EXPECT_EQ(columnspace_file_nr_blocks(f), c[3]);
    EXPECT_EQ(free_runs(f), (std::map<int64_t, int64_t>{{0, c[3]}}));
    columnspace_file_ref(f);
    EXPECT_EQ(columnspace_file_unref(f), 1);  // unreferenced with all blocks free: gone
    columnspace_destroy(cs);
  }
  columnspace* cs = make_cs(8, 1);
  for (int64_t asked : {7, -1, 3, -1})
    columnspace_register_file(cs, nullptr, nullptr, "f", 2, asked);
  std::string err = err_of(
      [&] { EXPECT_EQ(columnspace_register_file(cs, nullptr, nullptr, "f", 2, 7), nullptr); });
  EXPECT_EQ(err, "ERROR:CBM:columnspace_register_file: file 7 is registered already\n");
  int64_t count = 0;
  MemContext* mem = mem_context_create(nullptr, "list");
  cs_file** list = columnspace_list_files(cs, mem, &count);
  std::vector<int64_t> numbers;
  for (int64_t i = 0; i < count; i++) numbers.push_back(list[i]->file_nr);
  EXPECT_EQ(numbers, (std::vector<int64_t>{3, 7, 8, 9}));
  mem_context_remove(mem);
  for (int64_t nr : numbers) {  // an unreferenced file with all blocks free goes at its last unref
    cs_file* f = columnspace_get_file(cs, nr);
    columnspace_file_ref(f);
    EXPECT_EQ(columnspace_file_unref(f), 1);
  }
  columnspace_destroy(cs);
}

// Marks and frees at random against a model of each file (owner and model group per block: a
// block joins the group of the block before it when that one is used by the same owner), with
// growth and its refusal; after every step the map, free_blocks, the size, the groups (one group
// per model group, and back) and, before any mark, the free runs agree, and the checker holds.
TEST(Columnspace, RandomMarksAndFreesAgreeWithAModel) {
  for (uint32_t seed = 1; seed <= 60; seed++) {
    SCOPED_TRACE(seed);
    std::mt19937 rng(seed);
    auto pick = [&](int64_t n) { return static_cast<int64_t>(rng() % static_cast<uint64_t>(n)); };
    const int32_t group_size = 1 << pick(5);
    columnspace* cs = make_cs(group_size, 1 + pick(130), static_cast<int32_t>(pick(4) != 0));
    struct Model {
      cs_file* file;
      std::vector<int64_t> owner, gid;  // -1: a free block
      std::vector<iob*> block;
    };
    std::vector<Model> files(1 + pick(3));
    int64_t next_gid = 0;
    for (Model& m : files) {
      m.file = columnspace_register_file(cs, nullptr, nullptr, "f", 0, -1);
      columnspace_file_ref(m.file);
      m.owner.assign(cs->nrblks, -1);
      m.gid.assign(cs->nrblks, -1);
      m.block.assign(cs->nrblks, nullptr);
    }
    for (int step = 0; step < 400; step++) {
      Model& m = files[pick(files.size())];
      const int64_t size = static_cast<int64_t>(m.owner.size());
      const int64_t nr = pick(size < 1024 ? size * 2 + 8 : size);
      if (nr < size && m.owner[nr] >= 0) {
        iob_release(m.block[nr]);
        m.owner[nr] = m.gid[nr] = -1;
        m.block[nr] = nullptr;
      } else {
        const int64_t owner = pick(3);
        iob* b = nullptr;
        std::string err = err_of([&] { b = mark(cs, m.file->file_nr, owner, nr); });
        ASSERT_EQ(b == nullptr, !cs->grow && nr >= size) << err;
        if (b != nullptr) {
          int64_t grown = size;
          while (nr >= grown) grown *= 2;
          m.owner.resize(grown, -1);
          m.gid.resize(grown, -1);
          m.block.resize(grown, nullptr);
          m.owner[nr] = owner;
          m.block[nr] = b;
          m.gid[nr] = nr > 0 && m.owner[nr - 1] == owner ? m.gid[nr - 1] : next_gid++;
        }
      }
      cs_file* f = m.file;
      ASSERT_EQ(f->nr_blocks, static_cast<int64_t>(m.owner.size()));
      std::map<int64_t, cs_group*> group_of_gid;
      std::map<cs_group*, int64_t> gid_of_group;
      int64_t free_count = 0;
      for (size_t i = 0; i < m.owner.size(); i++) {
        ASSERT_EQ(f->block_map[i], m.block[i]) << i;
        if (m.owner[i] < 0) {
          free_count++;
          continue;
        }
        cs_group* g = m.block[i]->group;
        EXPECT_EQ(g->owner, m.owner[i]);
        EXPECT_EQ(group_of_gid.emplace(m.gid[i], g).first->second, g) << "block " << i;
        EXPECT_EQ(gid_of_group.emplace(g, m.gid[i]).first->second, m.gid[i]) << "block " << i;
      }
      EXPECT_EQ(f->free_blocks, free_count);
      if (!f->frozen) {
        std::map<int64_t, int64_t> whole;
        if (f->nr_blocks >= group_size) whole[0] = f->nr_blocks;
        EXPECT_EQ(free_runs(f), whole);
      }
      expect_valid(f);
    }
    for (Model& m : files) {
      for (iob* b : m.block)
        if (b != nullptr) iob_release(b);
      EXPECT_EQ(columnspace_file_unref(m.file), 1);
    }
    columnspace_destroy(cs);
    EXPECT_EQ(iob_live_count(), 0);
  }
}

// The free-run step with the runs kept: a file marked full is thawed (runs dropped, frozen
// cleared) and its blocks freed at random; after every step the tree equals a model of the
// step and the checker holds.
TEST(Columnspace, FreeRunsFollowTheStepWhileNotFrozen) {
  for (uint32_t seed = 1; seed <= 80; seed++) {
    SCOPED_TRACE(seed);
    std::mt19937 rng(seed);
    auto pick = [&](int64_t n) { return static_cast<int64_t>(rng() % static_cast<uint64_t>(n)); };
    const int64_t gs = 1 << pick(5);
    columnspace* cs = make_cs(static_cast<int32_t>(gs), 64 * (1 + pick(2)));
    cs_file* f = columnspace_register_file(cs, nullptr, nullptr, "f", 0, -1);
    columnspace_file_ref(f);
    const int64_t n = f->nr_blocks;
    std::vector<iob*> blocks(n);
    for (int64_t i = 0; i < n; i++) blocks[i] = mark(cs, 0, pick(2), i);
    while (rb_node* node = rb_first(f->free_groups)) {
      auto* g = static_cast<cs_group*>(node->value);
      rb_delete(f->free_groups, node);
      cs_group_unref(g);
    }
    f->first_free = f->last_free = nullptr;
    f->frozen = 0;

    std::map<int64_t, int64_t> model;
    std::vector<bool> used(n, true);
    auto limit_to = [](int64_t distance, int64_t limit) {
      return distance >= 0 && distance < limit ? distance : limit;
    };
    auto model_free = [&](int64_t nr) {
      used[nr] = false;
      int64_t below = 0, above = 0, limit = gs - 1;
      auto it = model.lower_bound(nr);
      if (it != model.begin())
        limit = limit_to(nr - (std::prev(it)->first + std::prev(it)->second), limit);
      while (below < limit && nr - below - 1 >= 0 && !used[nr - below - 1]) below++;
      limit = gs - 1;
      it = model.upper_bound(nr);
      if (it != model.end()) limit = limit_to(it->first - nr - 1, limit);
      while (above < limit && nr + above + 1 < n && !used[nr + above + 1]) above++;
      int64_t first = nr - below, total = 1 + below + above;
      it = model.lower_bound(first);
      if (it != model.begin() && std::prev(it)->first + std::prev(it)->second == first) {
        std::prev(it)->second += total;
        return;
      }
      auto after = model.find(first + total);
      if (after != model.end()) {
        total += after->second;
        model.erase(after);
      }
      if (total >= gs) model[first] = total;
    };
    std::vector<int64_t> order(n);
    for (int64_t i = 0; i < n; i++) order[i] = i;
    std::shuffle(order.begin(), order.end(), rng);
    for (int64_t nr : order) {
      iob_release(blocks[nr]);
      model_free(nr);
      ASSERT_EQ(free_runs(f), model) << "after freeing " << nr;
      expect_valid(f);
    }
    EXPECT_EQ(f->free_blocks, n);
    EXPECT_EQ(columnspace_file_unref(f), 1);
    columnspace_destroy(cs);
  }
}

TEST(ColumnspaceDeathTest, ProgrammingErrorsAreAssertions) {
  // Each case runs on a columnspace with file 0 (64 blocks, no block used) holding `refs`.
  struct Case {
    int refs;
    const char* text;
    void (*run)(columnspace* cs, cs_file* f);
  };
  const std::vector<Case> cases = {
      {0, "assertion \"cs->default_file_nr == kNoFile || file_nr == kNoFile\" failed",
       [](columnspace* cs, cs_file*) {
         columnspace_set_default_file(cs, 0), columnspace_set_default_file(cs, 1);
       }},
      {1, "CODE: cs->num_files == 0\nERROR:CBM:MESG: cs->num_files = 1",
       [](columnspace* cs, cs_file*) { columnspace_destroy(cs); }},
      {1, "assertion \"cs_file->refcnt == 0\" failed",
       [](columnspace* cs, cs_file*) {
         columnspace_set_default_file(cs, 0), columnspace_destroy(cs);
       }},
      {0, "assertion \"cs_file\" failed", [](columnspace* cs, cs_file*) { mark(cs, 5, 1, 0); }},
      {0,
       "CODE: !columnspace_file_block_is_free(cs_file, nr)\nERROR:CBM:MESG: location_id=0, "
       "file_nr=0, grow=1, nrblks=64, free_blocks=64, iobnr=3, group_first=-1, group_count=-1",
       [](columnspace*, cs_file* f) { columnspace_file_free_blocknr(f, 3); }},
      {0, "assertion \"blknr >= 0 && blknr < cs_file->nr_blocks\" failed",
       [](columnspace*, cs_file* f) { columnspace_file_free_blocknr(f, 64); }},
      {0, "assertion \"nr >= 0 && nr < cs_file->nr_blocks\" failed",
       [](columnspace*, cs_file* f) { columnspace_file_get_block(f, -1); }},
      {0, "assertion \"cs_file\" failed",
       [](columnspace*, cs_file*) { columnspace_file_get_block(nullptr, 0); }},
      {0, "assertion \"cs_file->refcnt >= 0\" failed",
       [](columnspace*, cs_file* f) { columnspace_file_unref(f); }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    EXPECT_DEATH(
        {
          columnspace* cs = columnspace_create(4096, 8, 64, 1);
          cs_file* f = columnspace_register_file(cs, nullptr, nullptr, "f", 0, 0);
          for (int i = 0; i < c.refs; i++) columnspace_file_ref(f);
          c.run(cs, f);
        },
        Esc(c.text));
  }
}
