// Block manager, storage columns, the dataset of ids and the paxgroup column descriptors: the CBM
// directory and its lock (two processes: tests/tools/wal_converter/cli_test.cc), room and removal
// of blocks, logged block changes, id claims, implementations, and the assertions.
#include "bm/iobm.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
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

namespace {

using j480test::err_of;
using j480test::Esc;
using j480test::read_file;

class IobmTest : public testing::Test {
 protected:
  void SetUp() override {
    config_ = cvconfig_create();
    layer_ = cvconfig_layer_create(nullptr, "cmdline", cvconfig_defaults(config_));
    use(farm_.path(), "db");
  }
  void TearDown() override {
    if (bm_ != nullptr) {
      mem_context_remove(mem_);
      columnspace_file_unref(file_);
      iobm_destroy(bm_);
    }
    cvconfig_destroy(config_);
  }
  // The layer keeps the pointers: the texts live in the fixture.
  void use(const std::string& farm, const std::string& name) {
    farm_text_ = farm;
    name_text_ = name;
    cvconfig_set_str(layer_, CVGROUP_SERVER, CVPROP_DBFARM_PATH, farm_text_.c_str());
    cvconfig_set_str(layer_, CVGROUP_SERVER, CVPROP_DBNAME, name_text_.c_str());
  }
  iobm* create(std::string* err = nullptr) {
    iobm* bm = nullptr;
    std::string text = err_of([&] { bm = iobm_create(layer_); });
    if (err != nullptr) *err = text;
    return bm;
  }
  // A block manager with a columnspace and file 4, referenced, for the storage columns.
  void open() {
    bm_ = create();
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
  std::string farm_text_, name_text_;
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

TEST_F(IobmTest, CreatesAMissingAbsoluteFarmAndWritesPortAndPidIntoTheLock) {
  use(farm_.path() + "/new/farm", "db");
  cvconfig_set_lng(layer_, CVGROUP_SERVER, CVPROP_PORT, 5001);
  std::string err;
  iobm* bm = create(&err);
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
}

TEST_F(IobmTest, ARelativeFarmFailsInCreateDirAndMakesNothing) {
  use("rel_farm_x", "db");
  std::string err;
  EXPECT_EQ(create(&err), nullptr);
  EXPECT_EQ(err,
            "ERROR:create_dir: could not create path 'rel_farm_x/db/CBM' - path in not absolute\n"
            "ERROR:CBM:iobm_create: Failed to create directory rel_farm_x/db/CBM\n");
  EXPECT_FALSE(j480test::exists("rel_farm_x"));
}

TEST_F(IobmTest, RoomGrowsFromNothingOrEightAndTuplesAreCountedAgain) {
  open();
  // (type, blocks added, capacity after the last): type 0 starts without room; the ninth block
  // of a column reallocates once.
  const std::vector<std::array<int64_t, 3>> cases = {{0, 1, 8}, {5, 8, 8}, {5, 9, 16}, {5, 20, 24}};
  int32_t id = 1;
  for (const auto& c : cases) {
    scolumn* scol = scolumn_create(bm_, cs_, id++, static_cast<int32_t>(c[0]), SCOLUMN_MODE_LOGGED);
    EXPECT_EQ(scol->capacity, c[0] == 0 ? 0 : 8);
    EXPECT_EQ(scolumn_tuple_count(scol), 0);
    for (int64_t i = 0; i < c[1]; i++)
      ASSERT_EQ(
          scolumn_add_block(scol, block(scol, 100 * scol->id + i, static_cast<uint32_t>(i + 1)),
                            nullptr, nullptr),
          1);
    EXPECT_EQ(scol->capacity, c[2]);
    EXPECT_EQ(scolumn_tuple_count(scol), c[1] * (c[1] + 1) / 2);
    EXPECT_EQ(scol->offsets[c[1] - 1], (c[1] - 1) * c[1] / 2);
    scolumn_destroy(scol);
    EXPECT_EQ(columnspace_file_used_blocks(file_), 0);
  }
}

TEST_F(IobmTest, RemovalKeepsOrderAndLoggedColumnsWriteTheirActions) {
  open();
  scolumn* logged = scolumn_create(bm_, cs_, 7, 1, SCOLUMN_MODE_LOGGED);
  scolumn* quiet = scolumn_create(bm_, cs_, 8, 1, 0);
  bm_logger_action_list* list = action_list_new(mem_);
  std::vector<iob*> blocks;
  for (uint32_t i = 0; i < 3; i++)
    scolumn_add_block(logged, blocks.emplace_back(block(logged, i, 10 + i)), list, mem_);
  iob* other = block(quiet, 9, 1);
  scolumn_add_block(quiet, other, list, mem_);                          // not logged
  EXPECT_EQ(scolumn_remove_block(logged, other, list, mem_), nullptr);  // not in the column
  EXPECT_EQ(scolumn_tuple_count(logged), 10 + 11 + 12);
  EXPECT_EQ(scolumn_remove_block(logged, blocks[1], list, mem_), blocks[1]);
  EXPECT_EQ(scolumn_tuple_count(logged), 10 + 12);
  EXPECT_EQ(logged->blocks[1], blocks[2]);
  EXPECT_EQ(iobm_find_block(bm_, 4, 1), nullptr);  // its slot in the file is free again
  EXPECT_EQ(iobm_find_block(bm_, 4, 2), blocks[2]);
  EXPECT_EQ(actions(list), (std::vector<std::string>{"new 7 4 0 80 10", "new 7 4 1 88 11",
                                                     "new 7 4 2 96 12", "del 7 4 1 0 0"}));
  scolumn_destroy(logged);
  scolumn_destroy(quiet);
}

// Random appends and removals from the front, the back, the middle and outside the column,
// against a plain list: the blocks stay in order and the tuples add up after every step.
TEST_F(IobmTest, RemovalsAnywhereKeepTheOrderOfTheRest) {
  open();
  scolumn* scol = scolumn_create(bm_, cs_, 7, 1, 0);
  std::vector<iob*> model;
  std::vector<int64_t> free_nrs;
  for (int64_t nr = 63; nr >= 0; nr--) free_nrs.push_back(nr);
  std::mt19937 rng(5);
  for (int step = 0; step < 3000; step++) {
    const unsigned dice = rng() % 8;
    if ((dice < 4 || model.empty()) && !free_nrs.empty()) {
      iob* b = block(scol, free_nrs.back(), static_cast<uint32_t>(rng() % 100));
      free_nrs.pop_back();
      ASSERT_EQ(scolumn_add_block(scol, b, nullptr, nullptr), 1);
      model.push_back(b);
    } else if (!model.empty()) {
      const size_t n = model.size();
      const size_t at = dice == 4 ? 0 : dice == 5 ? n - 1 : rng() % n;
      iob* b = model[at];
      const int64_t nr = b->block_nr;
      ASSERT_EQ(scolumn_remove_block(scol, b, nullptr, nullptr), b);
      EXPECT_EQ(scolumn_remove_block(scol, b, nullptr, nullptr), nullptr);  // gone already
      model.erase(model.begin() + static_cast<std::ptrdiff_t>(at));
      free_nrs.push_back(nr);
    }
    ASSERT_EQ(scol->nblocks, static_cast<int64_t>(model.size()));
    int64_t tuples = 0;
    for (size_t k = 0; k < model.size(); k++) {
      ASSERT_EQ(scol->blocks[k], model[k]) << "step " << step;
      tuples += model[k]->num_tuples;
    }
    ASSERT_EQ(scolumn_tuple_count(scol), tuples);
  }
  scolumn_destroy(scol);
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
  const ptype* sint = ptype_by_name("sint");
  const ptype* s128 = ptype_by_name("s128");
  const ptype* str = ptype_by_name("str");
  // (type, width, compression, implementation); 4 is no implementation: -1 and two messages.
  const std::vector<std::tuple<const ptype*, int64_t, const char*, int32_t>> cases = {
      {sint, 4, "lz4", 0},     {str, 70000, "pfor", 0}, {sint, 4, "none", 1},
      {sint, 4, "", 1},        {s128, 16, "lz4", 1},    {str, 0, nullptr, 3},
      {str, 255, "NoNe", 2},   {str, 256, nullptr, 3},  {str, 65535, nullptr, 3},
      {str, 65536, nullptr, 4}};
  for (const auto& c : cases) {
    const auto& [type, width, compression, implementation] = c;
    SCOPED_TRACE(width);
    pax_column_descr d;
    int result = 0;
    std::string err = err_of([&] {
      result = pax_column_descr_init(&d, std::get<0>(c), std::get<1>(c), 1, std::get<2>(c));
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
