// The 2.0 record reader and its XML dump: golden logs in both byte orders, the transaction state
// machine, every record's failure text and oversize lengths. The content assertions fire in a
// replay (bc20_replay_test.cc); damaged files are the fuzz target's (fuzz/bc20_reader_fuzz.cc).
#include "tools/wal_converter/bc20_logger.h"

#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <vector>

#include "log_bytes.h"
#include "tools/wal_converter/bc20_logger_print.h"
#include "support/test_support.h"
#include "utils/mem.h"
#include "utils/stream.h"

namespace {

using j480test::err_of;
using j480test::LogBytes;

constexpr int64_t kV20 = 0x435257414C000000LL;

struct Call {
  int rc;
  bc20_action* list;
  std::string err;
};

// The logged line of a failure text: texts that end in a line feed keep just that one.
std::string line(const std::string& text) {
  return "ERROR:LOGGER:" + text + (text.back() == '\n' ? "" : "\n");
}

class Bc20Reader : public testing::Test {
 protected:
  void SetUp() override { mem_ = mem_context_create(nullptr, "logger_replay_tc"); }
  void TearDown() override {
    if (s_ != nullptr) stream_close_destroy(s_);
    mem_context_remove(mem_);
  }

  // Writes `bytes` as LOG and opens it behind the mark and (if present) the version word.
  void open(const std::string& bytes, bool skip_version = true) {
    if (s_ != nullptr) stream_close_destroy(s_);
    j480test::write_file(path_, bytes);
    s_ = open_binary_read_stream(path_.c_str());
    ASSERT_NE(s_, nullptr);
    if (skip_version) bc20_logger_read_version(s_);
  }
  Call call() {
    Call c;
    c.err = err_of([&] { c.rc = bc20_logger_read_transaction(mem_, s_, &c.list); });
    return c;
  }
  // One transaction of `records` (bytes after the head), read once.
  Call read_one(const std::string& records) {
    open(LogBytes().head().bytes() + records);
    return call();
  }

  j480test::LogCapture log_;
  j480test::TempDir tmp_;
  std::string path_ = tmp_.file("LOG");
  MemContext* mem_ = nullptr;
  stream* s_ = nullptr;
};

// Every record kind but tr_new and tr_end once, written from the record table, each with the
// failure text its reader logs where the file ends inside it.
std::vector<std::pair<std::string, std::string>> records(bool big) {
  using B = LogBytes;
  const std::pair<std::string, B> r[] = {
      {"incorrect cs_new\n", B(big).i32(2).i32(1).str("default").i32(524288).i32(9).i32(9).lng(9)},
      {"incorrect cs_new\n", B(big).i32(35).i32(2).str("").i32(4096).i32(9).i32(9).lng(9)},
      {"incorrect col_new\n", B(big).i32(4).i32(11).i32(9).i32(3)},
      {"incorrect col_del\n", B(big).i32(5).i32(12).i32(9).i32(4)},
      {"incorrect blk_new_defaultfile", B(big).i32(7).i32(13).lng(100).i32(9).i32(2000).i32(50)},
      {"incorrect blk_del_defaultfile", B(big).i32(8).i32(14).lng(101).i32(9)},
      {"incorrect cat_table_new\n", B(big).i32(13).lng(20).str("orders").lng(21)},
      {"incorrect cat_table_del\n", B(big).i32(14).lng(22)},
      {"incorrect cat_column_new\n",
       B(big).i32(15).lng(23).str("sint").i32(5).str("int").i32(10).i32(2).str("lz").str("o_id")
           .i32(-1)},
      {"incorrect cat_column_del\n", B(big).i32(16).lng(24)},
      {"incorrect cat_colgroup_new_defaultfile\n",
       B(big).i32(17).lng(25).lng(26).lng(27).i32(1).lng(99).i32(2).raw_lng(23).raw_lng(-5)},
      {"incorrect cat_colgroup_del\n", B(big).i32(18).lng(28)},
      {"incorrect cat_index_new\n",
       B(big).i32(19).lng(29).str("pk").i32(2).lng(20).lng(21).lng(25).lng(30)},
      {"incorrect cat_index_del\n", B(big).i32(20).lng(31)},
      {"incorrect minmax_size", B(big).i32(21).lng(32).lng(33).lng(34).lng(35)},
      {"incorrect minmax_data",
       B(big).i32(22).lng(36).i32(1).lng(3).raw("abc").i32(1).lng(2).raw("wxyz")},
      {"incorrect minmax_vardata", B(big).i32(23).lng(37).i32(2).lng(0).i32(0).lng(3).raw("pqr")},
      {"incorrect jis_size", B(big).i32(24).lng(38).lng(39).lng(40).lng(41)},
      {"incorrect jis_data", B(big).i32(25).lng(42).i32(3).lng(1).raw_lng(77)},
      {"incorrect pdt_new", B(big).i32(26).lng(43).i32(2).raw("PD")},
      {"incorrect pdt_new_64", B(big).i32(27).lng(44).lng(3).raw("XYZ")},
      {"incorrect cat_location_new", B(big).i32(28).lng(45).str("loc1").i32(6)},
      {"incorrect cat_location_del", B(big).i32(29).lng(46)},
      {"incorrect cat_location_update", B(big).i32(30).lng(47).i32(8)},
      {"incorrect blk_new", B(big).i32(31).i32(48).lng(3).lng(102).i32(1000).i32(60)},
      {"incorrect blk_del", B(big).i32(32).i32(49).lng(4).lng(103)},
      {"incorrect file_new", B(big).i32(33).lng(5).lng(45).str("f5.dat")},
      {"incorrect file_del", B(big).i32(34).lng(6)},
      {"incorrect colgroup_file_new\n", B(big).i32(36).lng(25).lng(5)},
      {"incorrect colgroup_file_del\n", B(big).i32(37).lng(25).lng(6)},
      {"incorrect cat_colgroup_new\n", B(big).i32(38).lng(50).lng(51).lng(52).i32(3).i32(0)},
      {"incorrect cat_colgroup_new\n",
       B(big).i32(38).lng(53).lng(51).lng(52).i32(3).i32(1).raw_lng(9)},
  };
  std::vector<std::pair<std::string, std::string>> out;
  for (const auto& [err, b] : r) out.push_back({err, b.bytes()});
  return out;
}

// All of them in a transaction with trid 7.
std::string all_records(bool big) {
  std::string bytes = LogBytes(big).i32(0).lng(7).bytes();
  for (const auto& rec : records(big)) bytes += rec.second;
  return bytes + LogBytes(big).i32(1).lng(7).bytes();
}

// ---- Golden logs ----

// The log text of a dump of `lines`: elements at INFO, and the reader's ERROR lines.
std::string dump_text(const std::vector<std::string>& lines) {
  std::string text = "#LOGGER:bc20_bm_logger_print start\n";
  for (const std::string& l : lines)
    text += (l.rfind("ERROR:", 0) == 0 ? "" : "#LOGGER:") + l + "\n";
  return text + "#LOGGER:bm_logger_print end\n";
}

const std::vector<std::string> kGoldenDump = {
    "<wal base_version=\"4851035686591004672\" cur_version=\"0\">",
    "<tr trid=\"7\">",
    "<cs_new_defaultfile id=\"1\" blksz=\"524288\"/>",
    "<cs_new id=\"2\" blksz=\"4096\"/>",
    "<col_new colid=\"11\" type=\"3\"/>",
    "<col_del colid=\"12\" type=\"4\"/>",
    "<blk_new colid=\"13\" file_nr=\"-1\" block_nr=\"100\" bytes_used=\"2000\" num_tuples=\"50\"/>",
    "<blk_del colid=\"14\" file_nr=\"-1\" block_nr=\"101\"/>",
    "<cat_table_new table_id=\"20\" name=\"orders\" colgroup_id=\"21\"/>",
    "<cat_table_del table_id=\"22\"/>",
    "<cat_column_new colid=\"23\" adt=\"sint\" ctype=\"5\" ltype=\"int\" digits=\"10\" scale=\"2\" "
    "compression=\"lz\" col_name=\"o_id\" flags=\"4294967295\"/>",
    "<cat_column_del column_id=\"24\"/>",
    "<cat_colgroup_new_defaultfile cg_id=\"25\" store_id=\"26\" parent_id=\"27\" type=\"1\" "
    "ncols=\"2\" col_ids=\"23:-5\"/>",
    "<cat_colgroup_del colgroup_id=\"28\"/>",
    "<cat_index_new index_id=\"29\" index_name=\"pk\" type=\"2\" table_id=\"20\" "
    "colgroup_id=\"21\" scolgroup_id=\"25\" key_id=\"30\"/>",
    "<cat_index_del index_id=\"31\"/>",
    "<minmax_size index_id=\"32\" maxgroups=\"33\" numtuples=\"34\" groupsize=\"35\"/>",
    "<minmax_data index_id=\"36\" column_nr=\"1\" datasize=\"3\" overflow=\"1\" "
    "overflow_datasize=\"2\"/>",
    "<minmax_vardata index_id=\"37\" column_nr=\"2\" datasize=\"0\" overflow=\"0\" "
    "overflow_datasize=\"3\"/>",
    "<jis_size index_id=\"38\" maxgroups=\"39\" numgroups=\"40\" groupsize=\"41\"/>",
    "<jis_data index_id=\"42\" jis_column=\"3\" numgroups=\"1\"/>",
    "<pdt_new_64 object_id=\"43\" size=\"2\"/>",
    "<pdt_new_64 object_id=\"44\" size=\"3\"/>",
    "<cat_location_new location_id=\"45\" name=\"loc1\" usage=\"6\" path=\"(null)\"/>",
    "<cat_location_del location_id=\"46\"/>",
    "<blk_new colid=\"48\" file_nr=\"3\" block_nr=\"102\" bytes_used=\"1000\" num_tuples=\"60\"/>",
    "<blk_del colid=\"49\" file_nr=\"4\" block_nr=\"103\"/>",
    "<file_new file_nr=\"5\" location_id=\"45\" filename=\"f5.dat\"/>",
    "<file_del file_nr=\"6\"/>",
    "<colgroup_file_new colgroup_id=\"25\" file_nr=\"5\"/>",
    "<colgroup_file_del colgroup_id=\"25\" file_nr=\"6\"/>",
    "<cat_colgroup_new cg_id=\"50\" store_id=\"51\" parent_id=\"52\" type=\"3\" ncols=\"0\" "
    "col_ids=\"\"/>",
    "<cat_colgroup_new cg_id=\"53\" store_id=\"51\" parent_id=\"52\" type=\"3\" ncols=\"1\" "
    "col_ids=\"9\"/>",
    "</tr trid=\"7\">",
    "</wal>",
};

// The dump shows every field of every record (but cat_location_update's, which has no element);
// here the list itself: what the dump can't tell apart. The payloads are the whole tool's
// (convert_test.cc), whose generated logs hold every record kind.
TEST_F(Bc20Reader, GoldenLogsInBothByteOrdersGiveEveryRecordWithItsFields) {
  for (bool big : {false, true}) {
    open(LogBytes(big).head().bytes() + all_records(big), false);
    std::string dump = err_of([&] { EXPECT_EQ(bc20_bm_logger_print(s_, 0), 0); });
    EXPECT_EQ(dump, dump_text(kGoldenDump));
    open(LogBytes(big).head().bytes() + all_records(big), false);
    EXPECT_EQ(bc20_logger_read_version(s_), kV20);
    Call c = call();
    EXPECT_EQ(c.rc, 1);
    EXPECT_EQ(c.err, "");
    std::vector<const bc20_action*> v;
    for (const bc20_action* a = c.list; a != nullptr; a = a->next) v.push_back(a);
    ASSERT_EQ(v.size(), 34u);
    EXPECT_EQ(v[17]->minmax_vardata.data, nullptr);  // an empty payload, no bytes
    EXPECT_EQ(v[22]->cat_location_new.path, nullptr);
    ASSERT_EQ(v[24]->type, bc20_cat_location_update);
    EXPECT_EQ(v[24]->cat_location_update.location_id, 47);
    EXPECT_EQ(v[24]->cat_location_update.usage, 8);
    EXPECT_EQ(v[31]->cat_colgroup_new.col_ids, nullptr);  // no ids, no bytes read
    Call end = call();
    EXPECT_EQ(end.rc, 0);
    EXPECT_EQ(end.list, nullptr);
  }
}

// A damaged transaction is left out of the dump, which goes on behind it.
TEST_F(Bc20Reader, TheDumpSkipsDamagedTransactions) {
  LogBytes b;
  b.head();
  b.i32(0).lng(1).i32(34).lng(1).i32(1).lng(1);  // good
  b.i32(0).lng(2).i32(3);                        // tag 3 fails the transaction
  b.i32(1).lng(2);                               // a lone tr_end fails the next call
  b.i32(0).lng(0).i32(0).lng(0);                 // its trid read as tag 2 and a cs_new
  b.i32(0).lng(5).i32(34).lng(5).i32(1).lng(5);  // good again
  b.i32(0).lng(6).i32(31).i32(1);                // cut inside a blk_new
  open(b.bytes(), false);
  std::string dump = err_of([&] { EXPECT_EQ(bc20_bm_logger_print(s_, 0), 0); });
  EXPECT_EQ(dump, dump_text({kGoldenDump[0], "<tr trid=\"1\">", "<file_del file_nr=\"1\"/>",
                             "</tr trid=\"1\">", "ERROR:LOGGER:Unhandled log value 3",
                             "ERROR:LOGGER:tr_end called while not in transaction",
                             "<cs_new_defaultfile id=\"0\" blksz=\"0\"/>", "<tr trid=\"5\">",
                             "<file_del file_nr=\"5\"/>", "</tr trid=\"5\">",
                             "ERROR:LOGGER:incorrect blk_new", "</wal>"}));
}

// ---- Transaction boundaries and the state machine ----

TEST_F(Bc20Reader, StateMachineFailuresLogTheirTexts) {
  using B = LogBytes;
  std::vector<std::pair<std::string, std::string>> cases = {
      {B().i32(0).lng(1).i32(0).lng(2).bytes(), "tr_new called while in transaction\n"},
      {B().i32(1).lng(1).bytes(), "tr_end called while not in transaction\n"},
      {B().i32(0).lng(1).i32(1).lng(2).bytes(), "incorrect transaction\n"},
      {B().i32(0).lng(1).i32(34).lng(3).bytes(),
       "reading transaction finished while still in open transaction\n"},
      {B().i32(0).bytes(), ""},  // a short tr_new logs nothing by itself
  };
  for (int32_t tag : {3, 6, 9, 10, 11, 12, 39, 1000, -1, INT_MIN})
    cases.push_back({B().i32(0).lng(1).i32(tag).lng(0).bytes(),
                     "Unhandled log value " + std::to_string(tag) + "\n"});
  for (const auto& [records, err] : cases) {
    Call c = read_one(records);
    EXPECT_EQ(c.rc, 1) << err;
    EXPECT_EQ(c.list, nullptr) << err;
    EXPECT_EQ(c.err, err.empty() ? "" : "ERROR:LOGGER:" + err);
  }
}

// ---- Every record's failure text ----

TEST_F(Bc20Reader, RecordCutAnywhereAfterItsTagFailsWithItsOwnText) {
  const std::string tr_new = LogBytes().i32(0).lng(1).bytes();
  auto all = records(false);
  all.push_back({"incorrect transaction\n", LogBytes().i32(1).lng(1).bytes()});
  for (const auto& [text, bytes] : all) {
    for (size_t cut = 4; cut < bytes.size(); cut++) {
      Call c = read_one(tr_new + bytes.substr(0, cut));
      EXPECT_EQ(c.rc, 1) << text << " cut at " << cut;
      EXPECT_EQ(c.list, nullptr) << text << " cut at " << cut;
      EXPECT_EQ(c.err, line(text)) << text << " cut at " << cut;
    }
  }
}

// Lengths read from the file are held against the bytes left before anything is allocated: each
// oversize or negative length fails its record with the record's text and allocates nothing big.
// A string field holds at most 511 bytes; a columnspace's name outside that is named first.
TEST_F(Bc20Reader, OversizeAndNegativeLengthsAreRefusedUnallocated) {
  using B = LogBytes;
  const std::string tr_new = B().i32(0).lng(1).bytes(), tr_end = B().i32(1).lng(1).bytes();
  const std::string filler(4096, 'z');
  const std::vector<int64_t> i32s = {INT_MAX, INT_MAX - 7, 4097, -1, INT_MIN};
  const std::vector<int64_t> i64s = {INT_MAX, 4097, 1LL << 61, 1LL << 62, INT64_MAX, -1, INT64_MIN};
  const struct {
    const char* err;
    char kind;  // 's' string length, 'i' int count, 'l' lng count
    B head, tail;  // the record before the length field; behind a string, the rest of it
  } cases[] = {
      {"read_cs_new: unexpected values in log\nERROR:LOGGER:incorrect cs_new\n", 's',
       B().i32(2).i32(1), B().i32(8).i32(0).i32(0).lng(0)},
      {"read_cs_new: unexpected values in log\nERROR:LOGGER:incorrect cs_new\n", 's',
       B().i32(35).i32(1), B().i32(8).i32(0).i32(0).lng(0)},
      {"incorrect cat_table_new\n", 's', B().i32(13).lng(1), B().lng(2)},
      {"incorrect file_new", 's', B().i32(33).lng(1).lng(2), B()},
      {"incorrect cat_location_new", 's', B().i32(28).lng(1), B().i32(2)},
      {"incorrect cat_index_new\n", 's', B().i32(19).lng(1),
       B().i32(2).lng(3).lng(4).lng(5).lng(6)},
      {"incorrect cat_column_new\n", 's', B().i32(15).lng(1),
       B().i32(2).str("l").i32(3).i32(4).str("c").str("n").i32(5)},
      {"incorrect cat_column_new\n", 's', B().i32(15).lng(1).str("a").i32(2),
       B().i32(3).i32(4).str("c").str("n").i32(5)},
      {"incorrect cat_column_new\n", 's', B().i32(15).lng(1).str("a").i32(2).str("l").i32(3).i32(4),
       B().str("n").i32(5)},
      {"incorrect cat_column_new\n", 's',
       B().i32(15).lng(1).str("a").i32(2).str("l").i32(3).i32(4).str("c"), B().i32(5)},
      {"incorrect cat_colgroup_new\n", 'i', B().i32(38).lng(1).lng(2).lng(3).i32(4), B()},
      {"incorrect cat_colgroup_new_defaultfile\n", 'i',
       B().i32(17).lng(1).lng(2).lng(3).i32(4).lng(0), B()},
      {"incorrect pdt_new", 'i', B().i32(26).lng(1), B()},
      {"incorrect pdt_new_64", 'l', B().i32(27).lng(1), B()},
      {"incorrect minmax_data", 'l', B().i32(22).lng(1).i32(2), B()},
      {"incorrect minmax_data", 'l', B().i32(22).lng(1).i32(2).lng(1).raw("d").i32(3), B()},
      {"incorrect minmax_vardata", 'l', B().i32(23).lng(1).i32(2), B()},
      {"incorrect minmax_vardata", 'l', B().i32(23).lng(1).i32(2).lng(0).i32(3), B()},
      {"incorrect jis_data", 'l', B().i32(25).lng(1).i32(2), B()},
  };
  for (const auto& k : cases) {
    std::vector<int64_t> lengths = k.kind == 'l' ? i64s : i32s;
    if (k.kind == 's') lengths.push_back(512);
    for (int64_t n : lengths) {
      B rec = k.head;
      if (k.kind == 'l') rec.lng(n);
      else rec.i32(static_cast<int32_t>(n));
      Call c = read_one(tr_new + rec.bytes() + filler);
      EXPECT_EQ(c.rc, 1);
      EXPECT_EQ(c.list, nullptr) << k.err << " length " << n;
      EXPECT_EQ(c.err, line(k.err)) << " length " << n;
      EXPECT_LT(mem_context_used(mem_), 64u * 1024) << k.err << " length " << n;
    }
    if (k.kind == 's') {
      Call ok = read_one(tr_new + k.head.bytes() + B().str(std::string(511, 'x')).bytes() +
                         k.tail.bytes() + tr_end);
      EXPECT_NE(ok.list, nullptr) << k.err;
      EXPECT_EQ(ok.err, "") << k.err;
    }
  }
  // A payload may reach exactly to the end of the file, and no further.
  Call fit = read_one(tr_new + B().i32(27).lng(1).lng(4096).bytes() + filler + tr_end);
  EXPECT_EQ(fit.rc, 1);
  ASSERT_NE(fit.list, nullptr);
  EXPECT_EQ(fit.list->next->pdt_new_64.size, 4096);
  Call over = read_one(tr_new + B().i32(27).lng(1).lng(4096 + 13).bytes() + filler + tr_end);
  EXPECT_EQ(over.err, "ERROR:LOGGER:incorrect pdt_new_64\n");
}

}  // namespace
