// The 2.5 logger's life: open and create, commit and its failure path at every system call, the
// state assertions, the lists, the location map lines and the key files.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "bm/iobm.h"
#include "bm/logger.h"
#include "support/test_support.h"
#include "tools/wal_converter/log_bytes.h"
#include "utils/mem.h"
#include "utils/posix.h"
#include "utils/stream.h"

namespace {

using j480test::err_of;
using j480test::LogBytes;

constexpr int64_t kV25 = 0x435257414C000001LL;
const std::string kKey(64, 'A');
const std::string kOtherKey(64, 'B');

std::string head() {
  return LogBytes().head(kV25).bytes();
}
std::string blk(int64_t n) {
  return LogBytes().i32(20).lng(n).lng(1).lng(n).lng(8).lng(2).bytes();
}
std::string tr(int32_t tag, int64_t trid) {
  return LogBytes().i32(tag).lng(trid).bytes();
}

class LoggerLife : public testing::Test {
 protected:
  void SetUp() override { mem_ = mem_context_create(nullptr, "write_log"); }
  void TearDown() override {
    px_fault_disarm();
    bm_logger_set_iobm(nullptr);
    bm_logger_close(l_);
    mem_context_remove(mem_);
  }
  bm_logger* open_log() {
    l_ = bm_logger_open(log_.c_str());
    return l_;
  }
  bm_logger_action_list* blocks(int n) {
    bm_logger_action_list* list = action_list_new(mem_);
    for (int i = 1; i <= n; i++) action_list_append(list, bm_action_blk_new(mem_, i, 1, i, 8, 2));
    return list;
  }
  int commit(const bm_logger_action_list* list, int64_t trid, std::string* err = nullptr) {
    int rc = 0;
    std::string e = err_of([&] { rc = bm_logger_commit(l_, list, trid); });
    if (err != nullptr) *err = e;
    return rc;
  }
  int64_t position() { return px_ftello(l_->log->handle); }

  j480test::LogCapture capture_;
  j480test::TempDir tmp_;
  std::string log_ = tmp_.file("LOG.new");
  MemContext* mem_ = nullptr;
  bm_logger* l_ = nullptr;
};

TEST_F(LoggerLife, OpenWritesTheVersionIntoANewFileOnlyAndStandsAtTheEnd) {
  const std::string existing = head() + tr(0, 1) + tr(1, 1);
  struct Case {
    const char* name;
    bool present;
    std::string before, after;
  } cases[] = {
      {"missing", false, "", head()},
      {"mark only", true, LogBytes().i16(1234).bytes(), head()},
      {"a log", true, existing, existing},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    if (c.present) j480test::write_file(log_, c.before);
    if (!c.present) unlink(log_.c_str());
    wal_version = -1;
    ASSERT_NE(open_log(), nullptr);
    EXPECT_EQ(wal_version, kV25);
    EXPECT_EQ(l_->state, BM_TR_END);
    EXPECT_EQ(position(), static_cast<int64_t>(c.after.size()));
    EXPECT_EQ(j480test::read_file(log_), c.after);
    bm_logger_close(l_);
    l_ = nullptr;
  }
  std::string bad = tmp_.file("no/such/dir/LOG.new");
  std::string err = err_of([&] { EXPECT_EQ(bm_logger_open(bad.c_str()), nullptr); });
  EXPECT_EQ(err, "ERROR:LOGGER:bm_logger_open: failed creating WAL file '" + bad + "'\n");
  EXPECT_EQ(bm_logger_open_location_map(open_log(), bad.c_str()), 0);
  EXPECT_EQ(l_->location_map, nullptr);
}

TEST_F(LoggerLife, ActionsTheWriterRefusesFailTheCommitAndRewind) {
  const std::string name512(512, 'c');
  struct Case {
    std::function<bm_logger_action*(MemContext*)> make;
    std::string err;
  } cases[] = {
      {[](MemContext* m) { return bm_action_tr_end(m, 0); },
       "ERROR:LOGGER:Unhandled log action type 1 during writing\n"},
      {[](MemContext* m) {
         bm_logger_action* a = bm_action_file_del(m, 1);
         a->type = 40;
         return a;
       },
       "ERROR:LOGGER:Unhandled log action type 40 during writing\n"},
      {[&](MemContext* m) { return bm_action_cat_column_new(m, 1, name512.c_str(), 0, 0, 0, 1); },
       ""},
      {[&](MemContext* m) { return bm_action_cat_index_new(m, 1, name512.c_str(), 0, 1, -1); }, ""},
      {[&](MemContext* m) {
         return bm_action_cat_key_new(m, 1, name512.c_str(), 0, 1, -1, 0, nullptr);
       },
       ""},
  };
  ASSERT_NE(open_log(), nullptr);
  for (const auto& c : cases) {
    bm_logger_action_list* list = blocks(1);
    action_list_append(list, c.make(mem_));
    std::string err;
    EXPECT_EQ(commit(list, 0, &err), 0);
    EXPECT_EQ(err, c.err +
                       "ERROR:LOGGER:bm_logger_commit: failed writing LOG\n# "
                       "WARN:LOGGER:bm_logger_commit: seeking " +
                       log_ + " to 10\n");
    EXPECT_EQ(position(), 10);
    EXPECT_EQ(l_->state, BM_TR_END);
  }
  // A name of 511 bytes is written whole.
  bm_logger_action_list* list = action_list_new(mem_);
  action_list_append(list, bm_action_cat_column_new(mem_, 1, name512.c_str() + 1, 0, 0, 0, 1));
  EXPECT_EQ(commit(list, 0), 1);
  EXPECT_EQ(position(), 10 + 12 + (4 + 8 + 4 + 511 + 12 + 8) + 12);
}

// A real failure at each system call of a commit: the commit fails, the log stands at `start`
// with no transaction open, and the next commit writes the same transaction over the leftovers.
TEST_F(LoggerLife, CommitFailureAtEverySystemCallRewindsAndTheNextCommitOverwrites) {
  ASSERT_NE(open_log(), nullptr);
  bm_logger_action_list* list = blocks(3);
  action_list_append(list, bm_action_pdt_new(mem_, 9, const_cast<char*>("payload!"), 8));
  const std::string txn = tr(0, 0) + blk(1) + blk(2) + blk(3) +
                          LogBytes().i32(16).lng(9).lng(8).raw("payload!").bytes() + tr(1, 0);
  px_fault_count();
  ASSERT_EQ(commit(list, 0), 1);
  const int64_t calls = g_px_faults.calls;
  px_fault_disarm();
  ASSERT_GT(calls, 10);
  for (int64_t k = 1; k <= calls; k++) {
    SCOPED_TRACE("failing call " + std::to_string(k));
    const int64_t start = position();
    px_fault_arm(k, ENOSPC);
    std::string err;
    EXPECT_EQ(commit(list, 0, &err), 0);
    px_fault_disarm();
    // The first two calls, the flush of what stands before the transaction and the position,
    // fail before anything of it is written: there is nothing to seek back over.
    std::string want = "ERROR:LOGGER:bm_logger_commit: failed writing LOG\n";
    if (k > 2)
      want +=
          "# WARN:LOGGER:bm_logger_commit: seeking " + log_ + " to " + std::to_string(start) + "\n";
    EXPECT_EQ(err, want);
    EXPECT_EQ(position(), start);
    EXPECT_EQ(l_->state, BM_TR_END);
    EXPECT_EQ(stream_error(l_->log), 0);
    EXPECT_EQ(commit(list, 0), 1);
  }
  std::string want = head();
  for (int64_t k = 0; k <= calls; k++) want += txn;
  EXPECT_EQ(j480test::read_file(log_), want);
}

TEST_F(LoggerLife, StateAndArgumentAssertions) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  ASSERT_NE(open_log(), nullptr);
  bm_logger_action* b = bm_action_blk_new(mem_, 1, 1, 1, 1, 1);
  bm_logger_action_list* cs_second = blocks(1);
  action_list_append(cs_second, bm_action_cs_new(mem_, 0, 4096, BM_CS_NEW));
  struct Case {
    std::function<void()> f;
    const char* text;
  } cases[] = {
      {[&] { bm_logger_commit(l_, cs_second, 0); }, "l->state == tr_new"},
      {[&] { bm_logger_blk_new(l_, b); }, "l->state != tr_end"},
      {[&] { bm_logger_tr_end(l_, 0); }, "l->state != tr_end"},
      {[&] {
         bm_logger_tr_new(l_, 0);
         bm_logger_tr_new(l_, 1);
       },
       "l->state == tr_end"},
      {[&] { bm_action_cs_new(mem_, 0, 4096, BM_BLK_NEW); }, "type == cs_new"},
      {[&] { bm_action_paxgroup_file(mem_, BM_PAXGROUP_FILE_NEW, 0, 1, 1); },
       "paxgroup_id && file_nr >= 0"},
      {[&] { bm_action_paxgroup_file(mem_, BM_PAXGROUP_FILE_DEL, 1, -1, 1); },
       "paxgroup_id && file_nr >= 0"},
      {[&] { action_list_append(nullptr, b); }, "list"},
      {[&] {
         j480test::write_file(tmp_.file("LOG"),
                              head() + LogBytes().i32(26).lng(3).lng(-2).lng(0).bytes());
         stream* s = open_binary_read_stream(tmp_.file("LOG").c_str());
         bm_logger_read_version(s);
         bm_logger_action_list* out;
         bm_logger_read_transaction(mem_, s, &out);
       },
       "paxgroup_id && file_nr >= 0"},
  };
  for (const Case& c : cases)
    EXPECT_DEATH(c.f(), j480test::Esc(std::string("assertion \"") + c.text + "\" failed"));
}

// Lists against a model of vectors: random appends, joins (null and empty lists among them) and
// clears, with both link directions checked after every step.
TEST_F(LoggerLife, ListsFollowAModelThroughAppendJoinAndClear) {
  std::mt19937 rng(25);
  std::vector<bm_logger_action_list*> lists(4);
  std::vector<std::vector<int64_t>> model(4);
  for (auto& l : lists) l = action_list_new(mem_);
  for (int step = 0, next_id = 1; step < 2000; step++) {
    size_t i = rng() % 4, j = rng() % 4;
    switch (rng() % 6) {
      case 0:
        action_list_clear(lists[i]);
        model[i].clear();
        break;
      case 1: {
        if (i == j) break;
        bm_logger_action_list* a = rng() % 8 ? lists[i] : nullptr;
        bm_logger_action_list* r = action_list_join(a, lists[j]);
        const bool to_a = a != nullptr && !model[i].empty();
        EXPECT_EQ(r, to_a ? a : lists[j]);
        if (to_a) {
          model[i].insert(model[i].end(), model[j].begin(), model[j].end());
          model[j].clear();
        }
        break;
      }
      default:
        action_list_append(lists[i], bm_action_file_del(mem_, next_id));
        model[i].push_back(next_id++);
    }
    for (size_t k = 0; k < 4; k++) {
      std::vector<int64_t> fwd, back;
      for (const bm_logger_action* a = lists[k]->head; a != nullptr; a = a->next)
        fwd.push_back(a->id);
      for (const bm_logger_action* a = lists[k]->tail; a != nullptr; a = a->prev)
        back.insert(back.begin(), a->id);
      ASSERT_EQ(fwd, model[k]) << "step " << step;
      ASSERT_EQ(back, model[k]) << "step " << step;
    }
  }
  action_list_clear(nullptr);
}

TEST_F(LoggerLife, MapLinesUpTo511BytesAreWrittenLongerOnesFailTheCommit) {
  ASSERT_NE(open_log(), nullptr);
  const std::string map = tmp_.file("location_map.new");
  EXPECT_EQ(bm_logger_write_location_map_entry(l_, "a", "/p"), 0);  // no map: no message
  ASSERT_EQ(bm_logger_open_location_map(l_, map.c_str()), 1);
  const std::string p508(508, 'p'), p509(509, 'p');
  std::string err = err_of([&] {
    EXPECT_EQ(bm_logger_write_location_map_entry(l_, "n", p508.c_str()), 1);
    EXPECT_EQ(bm_logger_write_location_map_entry(l_, "n", p509.c_str()), 0);
    EXPECT_EQ(bm_logger_write_location_map_entry(l_, "x", "/with,comma"), 1);
  });
  EXPECT_EQ(
      err, "ERROR:LOGGER:bm_logger_write_location_map_entry: line too long, truncated line is 'n," +
               p509 + "'\n");
  EXPECT_EQ(j480test::read_file(map), "n," + p508 + "\nx,/with,comma\n");

  // Through the commit: a 20-byte name and a 500-byte path.
  bm_logger_action_list* list = action_list_new(mem_);
  const std::string name(20, 'l'), path = "/" + std::string(499, 'q');
  action_list_append(list, bm_action_cat_location_new(mem_, 4, name.c_str(), 0, path.c_str()));
  EXPECT_EQ(commit(list, 0, &err), 0);
  EXPECT_EQ(err.substr(0, err.find('\n')),
            "ERROR:LOGGER:bm_logger_write_location_map_entry: line too long, truncated line is '" +
                (name + "," + path).substr(0, 511) + "'");

  // A line that cannot reach the file.
  stream* full = open_text_append_stream("/dev/full");
  stream* kept = l_->location_map;
  l_->location_map = full;
  err = err_of([&] { EXPECT_EQ(bm_logger_write_location_map_entry(l_, "a", "/b"), 0); });
  EXPECT_EQ(err,
            "ERROR:LOGGER:bm_logger_write_location_map_entry: error writing line, expected to "
            "write 5 bytes, wrote 5 bytes, error  code 3\n");
  l_->location_map = kept;
  stream_close_destroy(full);
}

TEST_F(LoggerLife, KeyFilesAreCreatedVerifiedAndRefused) {
  const std::string dir = tmp_.file("loc"), file = dir + "/db_key";
  char* generated = generate_db_key_file(dir.c_str());
  EXPECT_EQ(std::string(generated), file);
  free(generated);
  EXPECT_EQ(verify_or_create_db_key(dir.c_str(), ""), 1);
  EXPECT_EQ(verify_or_create_db_key(dir.c_str(), nullptr), 1);
  EXPECT_FALSE(j480test::exists(dir));  // an empty key doesn't look at the directory

  std::string err =
      err_of([&] { EXPECT_EQ(verify_or_create_db_key(dir.c_str(), kKey.c_str()), 1); });
  EXPECT_EQ(err, "# WARN:LOGGER:verify_or_create_db_key_in_path: directory '" + dir +
                     "' should exist, but it doesn't. Recreating...\n");
  EXPECT_EQ(j480test::read_file(file), kKey);
  struct stat st;
  ASSERT_EQ(stat(file.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  EXPECT_EQ(verify_or_create_db_key(dir.c_str(), kKey.c_str()), 1);
  err_of([&] { EXPECT_EQ(verify_or_create_db_key(dir.c_str(), kOtherKey.c_str()), 0); });

  // Through the commit, with the block manager's key.
  iobm bm = {};
  std::string key = kOtherKey;
  bm.db_key = key.data();
  bm_logger_set_iobm(&bm);
  err_of([&] { EXPECT_EQ(verify_or_create_db_key_in_path(dir.c_str()), 0); });
  ASSERT_NE(open_log(), nullptr);
  ASSERT_EQ(bm_logger_open_location_map(l_, tmp_.file("map").c_str()), 1);
  bm_logger_action_list* refused = action_list_new(mem_);
  action_list_append(refused, bm_action_cat_location_new(mem_, 2, "loc", 0, dir.c_str()));
  EXPECT_EQ(commit(refused, 0, &err), 0);
  EXPECT_NE(err.find("ERROR:LOGGER:bm_logger_commit: failed writing LOG\n"), std::string::npos);
  const std::string dir2 = tmp_.file("loc2");
  j480test::make_dirs(dir2);
  bm_logger_action_list* created = action_list_new(mem_);
  action_list_append(created, bm_action_cat_location_new(mem_, 3, "loc2", 0, dir2.c_str()));
  EXPECT_EQ(commit(created, 0), 1);
  EXPECT_EQ(j480test::read_file(dir2 + "/db_key"), kOtherKey);

  // A deleted location loses its key file; a missing one is only a warning.
  bm_logger_action_list* del = action_list_new(mem_);
  action_list_append(del, bm_action_cat_location_del(mem_, 3, dir2.c_str()));
  EXPECT_EQ(commit(del, 0), 1);
  EXPECT_FALSE(j480test::exists(dir2 + "/db_key"));
  EXPECT_EQ(commit(del, 0, &err), 1);
  EXPECT_EQ(err, "# WARN:LOGGER:bm_logger_cat_location_del: unable to unlink db_key file '" + dir2 +
                     "/db_key'\n");
}

}  // namespace
