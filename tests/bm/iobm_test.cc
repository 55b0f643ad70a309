// Block manager, columnspace, storage columns, the dataset of ids and the paxgroup column
// descriptors: the CBM directory and its lock (two processes: tests/tools/wal_converter/
// cli_test.cc); columnspace sizes and numbering, marks, growth by doubling and its refusal and
// groups of consecutive blocks against a model; removal of blocks, logged block changes, id
// claims, implementations, and the assertions.
#include "bm/iobm.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <map>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "bm/columnspace.h"
#include "bm/dataset.h"
#include "bm/iob.h"
#include "bm/logger.h"
#include "bm/paxgroup.h"
#include "bm/scolumn.h"
#include "kernel/ptype.h"
#include "support/test_support.h"
#include "utils/cvconfig.h"
#include "utils/mem.h"
#include "utils/rbtree.h"

namespace {

using j480test::err_of;
using j480test::Esc;
using j480test::read_file;

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

// The free runs of a file as first -> count.
std::map<int64_t, int64_t> free_runs(cs_file* f) {
  std::map<int64_t, int64_t> runs;
  for (rb_node* n = rb_first(f->free_groups); n != nullptr; n = rb_successor(f->free_groups, n)) {
    auto* g = static_cast<cs_group*>(n->value);
    runs[g->first] = g->count;
  }
  return runs;
}


class IobmTest : public testing::Test {
 protected:
  void SetUp() override {
    config_ = cvconfig_create();
    layer_ = cvconfig_layer_create(nullptr, "cmdline", cvconfig_defaults(config_));
    cvconfig_set_str(layer_, CVGROUP_SERVER, CVPROP_DBNAME, "db");
  }
  void TearDown() override {
    if (bm_ != nullptr) {
      mem_context_remove(mem_);
      columnspace_file_unref(file_);
      iobm_destroy(bm_);
    }
    cvconfig_destroy(config_);
  }
  // A block manager in the farm `farm` (the layer keeps the pointer: the text lives here).
  iobm* create(const std::string& farm, std::string* err = nullptr) {
    farm_text_ = farm;
    cvconfig_set_str(layer_, CVGROUP_SERVER, CVPROP_DBFARM_PATH, farm_text_.c_str());
    iobm* bm = nullptr;
    std::string text = err_of([&] { bm = iobm_create(layer_); });
    if (err != nullptr) *err = text;
    return bm;
  }
  // A block manager with a columnspace and file 4, referenced, for the storage columns.
  void open() {
    bm_ = create(farm_.path());
    err_of([&] { cs_ = columnspace_create(4096, 8, 64, 1); });
    iobm_set_columnspace(bm_, cs_);
    file_ = columnspace_register_file(cs_, nullptr, nullptr, "0", 0, 4);
    columnspace_file_ref(file_);
    mem_ = mem_context_create(nullptr, "actions");
  }
  iob* block(scolumn* scol, int64_t nr, uint32_t tuples) {
    iob* b = iobm_new_block(bm_, 4, scol->id, nr);
    b->num_tuples = tuples;
    b->bytes_used = tuples * 8;
    return b;
  }

  j480test::TempDir farm_;
  std::string farm_text_;
  cvconfig* config_ = nullptr;
  cvconfig_layer* layer_ = nullptr;
  iobm* bm_ = nullptr;
  columnspace* cs_ = nullptr;
  cs_file* file_ = nullptr;
  MemContext* mem_ = nullptr;
};

// The actions of a list as their tags and fields.
std::vector<std::string> actions(const bm_logger_action_list* list) {
  std::vector<std::string> out;
  for (bm_logger_action* a = list->head; a != nullptr; a = a->next) {
    const bm_blk_fields& f = a->type == BM_BLK_NEW ? a->blk_new : a->blk_del;
    out.push_back(std::string(a->type == BM_BLK_NEW ? "new " : "del ") + std::to_string(a->id) +
                  " " + std::to_string(f.file_nr) + " " + std::to_string(f.block_nr) + " " +
                  std::to_string(f.bytes_used) + " " + std::to_string(f.num_tuples));
  }
  return out;
}

}  // namespace

// An absolute farm is created with the lock holding port and pid; a relative one makes nothing.
TEST_F(IobmTest, CreatesAMissingAbsoluteFarmAndRefusesARelativeOne) {
  cvconfig_set_lng(layer_, CVGROUP_SERVER, CVPROP_PORT, 5001);
  std::string err;
  iobm* bm = create(farm_.path() + "/new/farm", &err);
  ASSERT_NE(bm, nullptr) << err;
  const std::string path = farm_.path() + "/new/farm/db/CBM";
  EXPECT_STREQ(iobm_get_path(bm), path.c_str());
  EXPECT_EQ(read_file(path + "/lock"), "5001\n" + std::to_string(getpid()) + "\n");
  EXPECT_STREQ(iobm_get_db_key(bm), "");
  EXPECT_EQ(iobm_get_config(bm), layer_);
  EXPECT_EQ(iobm_get_config(nullptr), nullptr);
  EXPECT_EQ(iobm_get_columnspace(nullptr), nullptr);
  EXPECT_EQ(iobm_get_logger(nullptr), nullptr);
  iobm_destroy(bm);
  iobm_destroy(nullptr);

  EXPECT_EQ(create("rel_farm_x", &err), nullptr);
  EXPECT_EQ(err,
            "ERROR:create_dir: could not create path 'rel_farm_x/db/CBM' - path in not absolute\n"
            "ERROR:CBM:iobm_create: Failed to create directory rel_farm_x/db/CBM\n");
  EXPECT_FALSE(j480test::exists("rel_farm_x"));
}

// Random appends and removals from the front, the back, the middle and outside the column,
// against a plain list: the blocks stay in order, the tuples add up and a removed block's slot
// in the file is free after every step, and the room holds the blocks (type 0 starts without
// room); the logged column writes each change, the quiet none.
TEST_F(IobmTest, RemovalsAnywhereKeepTheOrderOfTheRestAndAreLogged) {
  open();
  scolumn* scol = scolumn_create(bm_, cs_, 7, 0, SCOLUMN_MODE_LOGGED);
  scolumn* quiet = scolumn_create(bm_, cs_, 8, 1, 0);
  bm_logger_action_list* list = action_list_new(mem_);
  iob* other = block(quiet, 63, 1);
  ASSERT_EQ(scolumn_add_block(quiet, other, list, mem_), 1);
  std::vector<iob*> model;
  std::vector<std::string> logged;
  std::vector<int64_t> free_nrs;
  for (int64_t nr = 62; nr >= 0; nr--) free_nrs.push_back(nr);
  std::mt19937 rng(5);
  for (int step = 0; step < 3000; step++) {
    const unsigned dice = rng() % 8;
    if ((dice < 4 || model.empty()) && !free_nrs.empty()) {
      const int64_t nr = free_nrs.back();
      iob* b = block(scol, nr, static_cast<uint32_t>(rng() % 100));
      free_nrs.pop_back();
      ASSERT_EQ(scolumn_add_block(scol, b, list, mem_), 1);
      model.push_back(b);
      logged.push_back("new 7 4 " + std::to_string(nr) + " " + std::to_string(b->bytes_used) +
                       " " + std::to_string(b->num_tuples));
    } else if (dice == 7) {
      ASSERT_EQ(scolumn_remove_block(scol, other, list, mem_), nullptr);  // not in the column
    } else if (!model.empty()) {
      const size_t n = model.size();
      const size_t at = dice == 4 ? 0 : dice == 5 ? n - 1 : rng() % n;
      iob* b = model[at];
      const int64_t nr = b->block_nr;
      ASSERT_EQ(scolumn_remove_block(scol, b, list, mem_), b);
      EXPECT_EQ(scolumn_remove_block(scol, b, list, mem_), nullptr);  // gone already
      EXPECT_EQ(iobm_find_block(bm_, 4, nr), nullptr);
      model.erase(model.begin() + static_cast<std::ptrdiff_t>(at));
      free_nrs.push_back(nr);
      logged.push_back("del 7 4 " + std::to_string(nr) + " 0 0");
    }
    ASSERT_EQ(scol->nblocks, static_cast<int64_t>(model.size()));
    ASSERT_LE(scol->head + scol->nblocks, scol->capacity);
    int64_t tuples = 0;
    for (size_t k = 0; k < model.size(); k++) {
      ASSERT_EQ(scol->blocks[k], model[k]) << "step " << step;
      ASSERT_EQ(iobm_find_block(bm_, 4, model[k]->block_nr), model[k]);
      tuples += model[k]->num_tuples;
    }
    ASSERT_EQ(scolumn_tuple_count(scol), tuples);
  }
  EXPECT_EQ(actions(list), logged);
  scolumn_destroy(scol);
  scolumn_destroy(quiet);
  EXPECT_EQ(columnspace_file_used_blocks(file_), 0);
}

TEST_F(IobmTest, IdsAreClaimedOnceAndTheDatasetGrowsToTheId) {
  open();
  scolumn* first = scolumn_create(bm_, cs_, 1000, 1, 3);
  EXPECT_EQ(bm_->scolumns->size, 1000u);  // 64 slots grow to the id
  EXPECT_EQ(iobm_get_scolumn(bm_, 1000), first);
  EXPECT_EQ(scolumn_create(bm_, cs_, 1000, 1, 3), nullptr);  // claimed twice
  std::string err = err_of([&] { EXPECT_EQ(scolumn_create(bm_, cs_, 0, 1, 3), nullptr); });
  EXPECT_EQ(err, "ERROR:CBM:iobm_register_scolumn: no id for a storage column during replay\n");
  for (int32_t id : {0, -3, 999, 5000}) EXPECT_EQ(iobm_get_scolumn(bm_, id), nullptr);
  scolumn* lowest = scolumn_create(bm_, cs_, 1, 1, 3);  // the first id there is
  EXPECT_EQ(iobm_get_scolumn(bm_, 1), lowest);
  scolumn_destroy(lowest);
  scolumn_destroy(first);
  EXPECT_EQ(iobm_get_scolumn(bm_, 1000), nullptr);
  EXPECT_EQ(iobm_get_scolumn(bm_, 1), nullptr);

  EXPECT_EQ(dataset_create(0), nullptr);
}

TEST(Paxgroup, TheImplementationFollowsCompressionFixednessAndWidth) {
  ptype_register_all();
  const ptype *sint = ptype_by_name("sint"), *s128 = ptype_by_name("s128"),
              *str = ptype_by_name("str");
  // (type, width, compression, implementation); 4 is no implementation: -1 and two messages.
  const std::vector<std::tuple<const ptype*, int64_t, const char*, int32_t>> cases = {
      {sint, 4, "lz4", 0},     {str, 70000, "pfor", 0}, {sint, 4, "none", 1},
      {sint, 4, "", 1},        {s128, 16, "lz4", 1},    {str, 0, nullptr, 3},
      {str, 255, "NoNe", 2},   {str, 256, nullptr, 3},  {str, 65535, nullptr, 3},
      {str, 65536, nullptr, 4}};
  for (const auto& [type, width, compression, implementation] : cases) {
    SCOPED_TRACE(width);
    pax_column_descr d;
    int result = 0;
    std::string err = err_of([&, t = type, w = width, c = compression] {
      result = pax_column_descr_init(&d, t, w, 1, c);
    });
    EXPECT_EQ(result, implementation == 4 ? -1 : 0);
    EXPECT_EQ(d.implementation, implementation);
    EXPECT_TRUE(d.type == type && d.width == width && d.nullability == 1 &&
                d.compression == compression);
    EXPECT_EQ(err, implementation != 4
                       ? ""
                       : "ERROR:CBM:variable data types with length > 65536 not supported\n"
                         "ERROR:CBM:failed to determine column implementation\n");
  }
}

TEST_F(IobmTest, DeathTest) {
  open();
  EXPECT_DEATH(iobm_set_columnspace(bm_, nullptr), Esc("assertion \"bm && cs\" failed"));
  EXPECT_DEATH(iobm_set_columnspace(bm_, cs_), Esc("assertion \"!bm->cs\" failed"));
  EXPECT_DEATH(iobm_find_block(bm_, 9, 0), Esc("assertion \"cs_file\" failed"));
  EXPECT_DEATH(scolumn_create(nullptr, cs_, 1, 1, 3), Esc("assertion \"bm && cs\" failed"));
  scolumn* scol = scolumn_create(bm_, cs_, 1, 1, 3);
  EXPECT_DEATH(scolumn_add_block(scol, nullptr, nullptr, nullptr),
               Esc("assertion \"block\" failed"));
  iob* b = block(scol, 0, 1);
  b->refcnt = 0;
  EXPECT_DEATH(iob_unref(b), Esc("assertion \"b->refcnt > 0\" failed"));
  b->refcnt = 1;
  scolumn_add_block(scol, b, nullptr, nullptr);
  scolumn_destroy(scol);
  bm_->scolumns->initialized = 1;
  EXPECT_DEATH(dataset_get(bm_->scolumns, 1), Esc("assertion \"!ds->initialized\" failed"));
  bm_->scolumns->initialized = 0;
}


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
      void resize(size_t n) { owner.resize(n, -1), gid.resize(n, -1), block.resize(n, nullptr); }
    };
    std::vector<Model> files(1 + pick(3));
    int64_t next_gid = 0;
    for (Model& m : files) {
      m.file = columnspace_register_file(cs, nullptr, nullptr, "f", 0, -1);
      columnspace_file_ref(m.file);
      m.resize(size_t(cs->nrblks));
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
          m.resize(size_t(grown));
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
      std::string why;
      EXPECT_TRUE(columnspace_file_check(f, &why)) << why;
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

TEST(ColumnspaceDeathTest, ProgrammingErrorsAreAssertions) {
  // Each case runs on a columnspace with file 0 (64 blocks, no block used) holding `refs`.
  using Run = void (*)(columnspace* cs, cs_file* f);
  const std::vector<std::tuple<int, const char*, Run>> cases = {
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
  for (const auto& [refs, text, run] : cases) {
    SCOPED_TRACE(text);
    EXPECT_DEATH(
        {
          columnspace* cs = columnspace_create(4096, 8, 64, 1);
          cs_file* f = columnspace_register_file(cs, nullptr, nullptr, "f", 0, 0);
          for (int i = 0; i < refs; i++) columnspace_file_ref(f);
          run(cs, f);
        },
        Esc(text));
  }
}
