// The 2.0 record reader: golden logs in both byte orders, the transaction state machine, every
// record's failure text, oversize lengths and the content assertions. Damaged files are the fuzz
// target's (fuzz/bc20_reader_fuzz.cc).
#include "tools/wal_converter/bc20_logger.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <string>
#include <vector>

#include "log_bytes.h"
#include "support/test_support.h"
#include "utils/cvlog.h"
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

std::vector<uint32_t> types_of(const bc20_action* a) {
  std::vector<uint32_t> t;
  for (; a != nullptr; a = a->next) t.push_back(a->type);
  return t;
}

std::string raw8(int64_t v) { return LogBytes().raw_lng(v).bytes(); }

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
  Call read_one(const std::string& records, bool big_endian = false) {
    open(LogBytes(big_endian).head().bytes() + records);
    return call();
  }

  j480test::LogCapture log_;
  j480test::TempDir tmp_;
  std::string path_ = tmp_.file("LOG");
  MemContext* mem_ = nullptr;
  stream* s_ = nullptr;
};

// Every record kind once, in a transaction with trid 7, written from the record table.
std::string all_records(bool big) {
  LogBytes b(big);
  b.i32(0).lng(7);                                                      // tr_new
  b.i32(2).i32(1).str("default").i32(524288).i32(9).i32(9).lng(9);     // cs_new_defaultfile
  b.i32(35).i32(2).str("").i32(4096).i32(9).i32(9).lng(9);              // cs_new
  b.i32(4).i32(11).i32(9).i32(3);                                       // col_new
  b.i32(5).i32(12).i32(9).i32(4);                                       // col_del
  b.i32(7).i32(13).lng(100).i32(9).i32(2000).i32(50);                   // blk_new_defaultfile
  b.i32(8).i32(14).lng(101).i32(9);                                     // blk_del_defaultfile
  b.i32(13).lng(20).str("orders").lng(21);                              // cat_table_new
  b.i32(14).lng(22);                                                    // cat_table_del
  b.i32(15).lng(23).str("sint").i32(5).str("int").i32(10).i32(2).str("lz").str("o_id").i32(-1);
  b.i32(16).lng(24);                                                    // cat_column_del
  b.i32(17).lng(25).lng(26).lng(27).i32(1).lng(99).i32(2).raw(raw8(23) + raw8(-5));
  b.i32(18).lng(28);                                                    // cat_colgroup_del
  b.i32(19).lng(29).str("pk").i32(2).lng(20).lng(21).lng(25).lng(30);   // cat_index_new
  b.i32(20).lng(31);                                                    // cat_index_del
  b.i32(21).lng(32).lng(33).lng(34).lng(35);                            // minmax_size
  b.i32(22).lng(36).i32(1).lng(3).raw("abc").i32(1).lng(2).raw("wxyz");  // minmax_data
  b.i32(23).lng(37).i32(2).lng(0).i32(0).lng(3).raw("pqr");             // minmax_vardata
  b.i32(24).lng(38).lng(39).lng(40).lng(41);                            // jis_size
  b.i32(25).lng(42).i32(3).lng(1).raw(raw8(77));                        // jis_data
  b.i32(26).lng(43).i32(2).raw("PD");                                   // pdt_new
  b.i32(27).lng(44).lng(3).raw("XYZ");                                  // pdt_new_64
  b.i32(28).lng(45).str("loc1").i32(6);                                 // cat_location_new
  b.i32(29).lng(46);                                                    // cat_location_del
  b.i32(30).lng(47).i32(8);                                             // cat_location_update
  b.i32(31).i32(48).lng(3).lng(102).i32(1000).i32(60);                  // blk_new
  b.i32(32).i32(49).lng(4).lng(103);                                    // blk_del
  b.i32(33).lng(5).lng(45).str("f5.dat");                               // file_new
  b.i32(34).lng(6);                                                     // file_del
  b.i32(36).lng(25).lng(5);                                             // colgroup_file_new
  b.i32(37).lng(25).lng(6);                                             // colgroup_file_del
  b.i32(38).lng(50).lng(51).lng(52).i32(3).i32(0);                      // cat_colgroup_new
  b.i32(1).lng(7);                                                      // tr_end
  return b.bytes();
}

void check_all_records(const bc20_action* a) {
  std::vector<uint32_t> want = {
      bc20_tr_new, bc20_cs_new_defaultfile, bc20_cs_new, bc20_col_new, bc20_col_del,
      bc20_blk_new, bc20_blk_del, bc20_cat_table_new, bc20_cat_table_del, bc20_cat_column_new,
      bc20_cat_column_del, bc20_cat_colgroup_new_defaultfile, bc20_cat_colgroup_del,
      bc20_cat_index_new, bc20_cat_index_del, bc20_minmax_size, bc20_minmax_data,
      bc20_minmax_vardata, bc20_jis_size, bc20_jis_data, bc20_pdt_new_64, bc20_pdt_new_64,
      bc20_cat_location_new, bc20_cat_location_del, bc20_cat_location_update, bc20_blk_new,
      bc20_blk_del, bc20_file_new, bc20_file_del, bc20_colgroup_file_new, bc20_colgroup_file_del,
      bc20_cat_colgroup_new, bc20_tr_end};
  ASSERT_EQ(types_of(a), want);
  // Scalars of every record are checked through the dump's text; here the conversions,
  // strings, payloads, raw arrays and the fields that follow skipped ones.
  std::vector<const bc20_action*> v;
  for (; a != nullptr; a = a->next) v.push_back(a);
  auto text = [](const void* p, size_t n) { return std::string(static_cast<const char*>(p), n); };
  EXPECT_EQ(v[0]->tr_new.trid, 7);
  EXPECT_EQ(v[2]->cs_new.blksz, 4096);
  const bc20_blk_fields& bn = v[5]->blk_new;  // the default file: none without a block manager
  EXPECT_EQ(bn.file_nr, -1);
  EXPECT_EQ(bn.block_nr, 100);
  EXPECT_EQ(bn.num_tuples, 50);
  EXPECT_EQ(v[6]->blk_del.file_nr, -1);
  EXPECT_EQ(v[6]->blk_del.block_nr, 101);
  EXPECT_STREQ(v[7]->cat_table_new.name, "orders");
  EXPECT_EQ(v[7]->cat_table_new.colgroup_id, 21);
  const bc20_cat_column_new_fields& cc = v[9]->cat_column_new;
  EXPECT_STREQ(cc.compression, "lz");
  EXPECT_STREQ(cc.col_name, "o_id");
  EXPECT_EQ(cc.flags, 0xFFFFFFFFu);
  const bc20_cat_colgroup_new_fields& cg = v[11]->cat_colgroup_new_defaultfile;
  ASSERT_EQ(cg.ncols, 2);
  EXPECT_EQ(cg.col_ids[0], 23);  // raw items: never swapped
  EXPECT_EQ(cg.col_ids[1], -5);
  EXPECT_EQ(v[13]->cat_index_new.key_id, 30);
  const bc20_minmax_data_fields& md = v[16]->minmax_data;
  EXPECT_EQ(text(md.data, 3) + text(md.overflow_data, 4), "abcwxyz");
  const bc20_minmax_data_fields& mv = v[17]->minmax_vardata;
  EXPECT_EQ(mv.data, nullptr);
  EXPECT_EQ(text(mv.overflow_data, 3), "pqr");
  EXPECT_EQ(text(v[19]->jis_data.groups, 8), raw8(77));
  EXPECT_EQ(v[20]->pdt_new_64.object_id, 43);
  EXPECT_EQ(v[20]->pdt_new_64.size, 2);
  EXPECT_EQ(text(v[20]->pdt_new_64.data, 2) + text(v[21]->pdt_new_64.data, 3), "PDXYZ");
  EXPECT_STREQ(v[22]->cat_location_new.name, "loc1");
  EXPECT_EQ(v[22]->cat_location_new.path, nullptr);
  EXPECT_EQ(v[25]->blk_new.file_nr, 3);
  EXPECT_STREQ(v[27]->file_new.filename, "f5.dat");
  EXPECT_EQ(v[31]->cat_colgroup_new.ncols, 0);  // no ids, no bytes read
  EXPECT_EQ(v[31]->cat_colgroup_new.col_ids, nullptr);
  EXPECT_EQ(v[32]->tr_end.trid, 7);
}

// ---- Golden logs ----

TEST_F(Bc20Reader, GoldenLogsInBothByteOrdersGiveEveryRecordWithItsFields) {
  for (bool big : {false, true}) {
    open(LogBytes(big).head().bytes() + all_records(big), false);
    EXPECT_EQ(bc20_logger_read_version(s_), kV20);
    Call c = call();
    EXPECT_EQ(c.rc, 1);
    EXPECT_EQ(c.err, "");
    check_all_records(c.list);
    Call end = call();
    EXPECT_EQ(end.rc, 0);
    EXPECT_EQ(end.list, nullptr);
  }
}

TEST_F(Bc20Reader, PdtNewIsWidenedWithItsDebugLine) {
  log_.use("LOGGER=debug");
  Call c = read_one(LogBytes().i32(0).lng(1).i32(26).lng(5).i32(3).raw("abc").i32(1).lng(1).bytes());
  EXPECT_EQ(c.rc, 1);
  EXPECT_EQ(c.err, "#LOGGER:converting pdt_new log action to pdt_new_64, object_id=5, data_size=3\n");
  EXPECT_EQ(c.list->next->type, bc20_pdt_new_64);
  EXPECT_EQ(c.list->next->pdt_new_64.size, 3);
}

// ---- Transaction boundaries and the state machine ----

TEST_F(Bc20Reader, StateMachineFailuresLogTheirTexts) {
  struct Case {
    std::string records;
    std::string err;
  } cases[] = {
      {LogBytes().i32(0).lng(1).i32(0).lng(2).bytes(),
       "ERROR:LOGGER:tr_new called while in transaction\n"},
      {LogBytes().i32(1).lng(1).bytes(), "ERROR:LOGGER:tr_end called while not in transaction\n"},
      {LogBytes().i32(0).lng(1).i32(1).lng(2).bytes(), "ERROR:LOGGER:incorrect transaction\n"},
      {LogBytes().i32(0).lng(1).i32(34).lng(3).bytes(),
       "ERROR:LOGGER:reading transaction finished while still in open transaction\n"},
      {LogBytes().i32(0).bytes(), ""},  // a short tr_new logs nothing by itself
  };
  std::vector<Case> all(std::begin(cases), std::end(cases));
  for (int32_t tag : {3, 6, 9, 10, 11, 12, 39, 1000, -1, INT_MIN})
    all.push_back({LogBytes().i32(0).lng(1).i32(tag).lng(0).bytes(),
                   "ERROR:LOGGER:Unhandled log value " + std::to_string(tag) + "\n"});
  for (const Case& k : all) {
    Call c = read_one(k.records);
    EXPECT_EQ(c.rc, 1) << k.err;
    EXPECT_EQ(c.list, nullptr) << k.err;
    EXPECT_EQ(c.err, k.err);
  }
}

// ---- Every record's failure text ----

struct Record {
  const char* name;
  std::string bytes;  // tag and fields
  std::string err;    // the whole log line of a failed read
};

std::vector<Record> one_of_each() {
  auto r = [](const char* name, const LogBytes& b, const std::string& text) {
    return Record{name, b.bytes(), line(text)};
  };
  return {
      r("tr_end", LogBytes().i32(1).lng(1), "incorrect transaction\n"),
      r("cs_new_defaultfile", LogBytes().i32(2).i32(1).str("n").i32(1).i32(0).i32(0).lng(0),
        "incorrect cs_new\n"),
      r("cs_new", LogBytes().i32(35).i32(1).str("n").i32(1).i32(0).i32(0).lng(0),
        "incorrect cs_new\n"),
      r("col_new", LogBytes().i32(4).i32(1).i32(0).i32(2), "incorrect col_new\n"),
      r("col_del", LogBytes().i32(5).i32(1).i32(0).i32(2), "incorrect col_del\n"),
      r("blk_new_defaultfile", LogBytes().i32(7).i32(1).lng(2).i32(0).i32(3).i32(4),
        "incorrect blk_new_defaultfile"),
      r("blk_del_defaultfile", LogBytes().i32(8).i32(1).lng(2).i32(0),
        "incorrect blk_del_defaultfile"),
      r("cat_table_new", LogBytes().i32(13).lng(1).str("t").lng(2), "incorrect cat_table_new\n"),
      r("cat_table_del", LogBytes().i32(14).lng(1), "incorrect cat_table_del\n"),
      r("cat_column_new",
        LogBytes().i32(15).lng(1).str("a").i32(2).str("l").i32(3).i32(4).str("c").str("n").i32(5),
        "incorrect cat_column_new\n"),
      r("cat_column_del", LogBytes().i32(16).lng(1), "incorrect cat_column_del\n"),
      r("cat_colgroup_new_defaultfile",
        LogBytes().i32(17).lng(1).lng(2).lng(3).i32(4).lng(0).i32(1).raw_lng(9),
        "incorrect cat_colgroup_new_defaultfile\n"),
      r("cat_colgroup_del", LogBytes().i32(18).lng(1), "incorrect cat_colgroup_del\n"),
      r("cat_index_new", LogBytes().i32(19).lng(1).str("i").i32(2).lng(3).lng(4).lng(5).lng(6),
        "incorrect cat_index_new\n"),
      r("cat_index_del", LogBytes().i32(20).lng(1), "incorrect cat_index_del\n"),
      r("minmax_size", LogBytes().i32(21).lng(1).lng(2).lng(3).lng(4), "incorrect minmax_size"),
      r("minmax_data", LogBytes().i32(22).lng(1).i32(2).lng(1).raw("d").i32(3).lng(1).raw("oo"),
        "incorrect minmax_data"),
      r("minmax_vardata", LogBytes().i32(23).lng(1).i32(2).lng(1).raw("d").i32(3).lng(1).raw("o"),
        "incorrect minmax_vardata"),
      r("jis_size", LogBytes().i32(24).lng(1).lng(2).lng(3).lng(4), "incorrect jis_size"),
      r("jis_data", LogBytes().i32(25).lng(1).i32(2).lng(1).raw_lng(3), "incorrect jis_data"),
      r("pdt_new", LogBytes().i32(26).lng(1).i32(2).raw("pd"), "incorrect pdt_new"),
      r("pdt_new_64", LogBytes().i32(27).lng(1).lng(2).raw("pd"), "incorrect pdt_new_64"),
      r("cat_location_new", LogBytes().i32(28).lng(1).str("l").i32(2),
        "incorrect cat_location_new"),
      r("cat_location_del", LogBytes().i32(29).lng(1), "incorrect cat_location_del"),
      r("cat_location_update", LogBytes().i32(30).lng(1).i32(2), "incorrect cat_location_update"),
      r("blk_new", LogBytes().i32(31).i32(1).lng(2).lng(3).i32(4).i32(5), "incorrect blk_new"),
      r("blk_del", LogBytes().i32(32).i32(1).lng(2).lng(3), "incorrect blk_del"),
      r("file_new", LogBytes().i32(33).lng(1).lng(2).str("f"), "incorrect file_new"),
      r("file_del", LogBytes().i32(34).lng(1), "incorrect file_del"),
      r("colgroup_file_new", LogBytes().i32(36).lng(1).lng(2), "incorrect colgroup_file_new\n"),
      r("colgroup_file_del", LogBytes().i32(37).lng(1).lng(2), "incorrect colgroup_file_del\n"),
      r("cat_colgroup_new", LogBytes().i32(38).lng(1).lng(2).lng(3).i32(4).i32(1).raw_lng(9),
        "incorrect cat_colgroup_new\n"),
  };
}

TEST_F(Bc20Reader, RecordCutAnywhereAfterItsTagFailsWithItsOwnText) {
  const std::string tr_new = LogBytes().i32(0).lng(1).bytes();
  for (const Record& rec : one_of_each()) {
    // Whole, the record reads (tr_end closes the transaction; the others need one).
    std::string whole = tr_new + rec.bytes + (rec.bytes[0] == 1 ? "" : LogBytes().i32(1).lng(1).bytes());
    Call ok = read_one(whole);
    EXPECT_EQ(ok.rc, 1) << rec.name;
    EXPECT_NE(ok.list, nullptr) << rec.name;
    EXPECT_EQ(ok.err, "") << rec.name;
    for (size_t cut = 4; cut < rec.bytes.size(); cut++) {
      Call c = read_one(tr_new + rec.bytes.substr(0, cut));
      EXPECT_EQ(c.rc, 1) << rec.name << " cut at " << cut;
      EXPECT_EQ(c.list, nullptr) << rec.name << " cut at " << cut;
      EXPECT_EQ(c.err, rec.err) << rec.name << " cut at " << cut;
    }
    // Cut right behind the record: the transaction is open at the end.
    if (rec.bytes[0] != 1) {
      Call c = read_one(tr_new + rec.bytes);
      EXPECT_EQ(c.err, "ERROR:LOGGER:reading transaction finished while still in open transaction\n")
          << rec.name;
    }
  }
}

TEST_F(Bc20Reader, CsNewNameLengthOutsideTheBufferIsNamedFirst) {
  const std::string incorrect = "ERROR:LOGGER:incorrect cs_new\n";
  const std::string tr_new = LogBytes().i32(0).lng(1).bytes();
  for (int32_t tag : {2, 35}) {
    for (int32_t length : {512, -1, INT_MAX}) {
      Call c = read_one(tr_new + LogBytes().i32(tag).i32(1).i32(length).raw(std::string(600, 'n')).bytes());
      EXPECT_EQ(c.list, nullptr);
      EXPECT_EQ(c.err, "ERROR:LOGGER:read_cs_new: unexpected values in log\n" + incorrect) << length;
    }
    // A name within bounds but longer than the file: a short read, the tag's text only.
    EXPECT_EQ(read_one(tr_new + LogBytes().i32(tag).i32(1).i32(300).raw("abc").bytes()).err, incorrect);
    // 511 bytes is the longest name.
    Call ok = read_one(tr_new + LogBytes().i32(tag).i32(1).str(std::string(511, 'n')).i32(8).i32(0).i32(0).lng(0).i32(1).lng(1).bytes());
    ASSERT_NE(ok.list, nullptr);
    EXPECT_EQ(ok.list->next->cs_new.blksz, 8);
  }
}

// Lengths read from the file are held against the bytes left before anything is allocated: each
// oversize or negative length fails its record with the record's text and allocates nothing big.
// A string field holds at most 511 bytes.
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
      {"incorrect cat_table_new\n", 's', B().i32(13).lng(1), B().lng(2)},
      {"incorrect file_new", 's', B().i32(33).lng(1).lng(2), B()},
      {"incorrect cat_location_new", 's', B().i32(28).lng(1), B().i32(2)},
      {"incorrect cat_index_new\n", 's', B().i32(19).lng(1), B().i32(2).lng(3).lng(4).lng(5).lng(6)},
      {"incorrect cat_column_new\n", 's', B().i32(15).lng(1), B().i32(2).str("l").i32(3).i32(4).str("c").str("n").i32(5)},
      {"incorrect cat_column_new\n", 's', B().i32(15).lng(1).str("a").i32(2), B().i32(3).i32(4).str("c").str("n").i32(5)},
      {"incorrect cat_column_new\n", 's', B().i32(15).lng(1).str("a").i32(2).str("l").i32(3).i32(4), B().str("n").i32(5)},
      {"incorrect cat_column_new\n", 's', B().i32(15).lng(1).str("a").i32(2).str("l").i32(3).i32(4).str("c"), B().i32(5)},
      {"incorrect cat_colgroup_new\n", 'i', B().i32(38).lng(1).lng(2).lng(3).i32(4), B()},
      {"incorrect cat_colgroup_new_defaultfile\n", 'i', B().i32(17).lng(1).lng(2).lng(3).i32(4).lng(0), B()},
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
      Call ok = read_one(tr_new + k.head.bytes() + B().str(std::string(511, 'x')).bytes() + k.tail.bytes() + tr_end);
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

// ---- Content assertions ----

TEST_F(Bc20Reader, ContentAssertionsStopTheProcess) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  std::string tr_new = LogBytes().i32(0).lng(1).bytes();
  auto read = [&](const std::string& records) {
    open(LogBytes().head().bytes() + tr_new + records);
    bc20_action* list;
    bc20_logger_read_transaction(mem_, s_, &list);
  };
  const std::pair<LogBytes, const char*> cases[] = {
      {LogBytes().i32(38).lng(0).lng(2).lng(3).i32(4).i32(0), "colgroup_id"},
      {LogBytes().i32(17).lng(0).lng(2).lng(3).i32(4).lng(0).i32(0), "colgroup_id"},
      {LogBytes().i32(36).lng(4).lng(-1), "colgroup_id && file_nr >= 0"},
      {LogBytes().i32(37).lng(0).lng(3), "colgroup_id && file_nr >= 0"},
  };
  for (const auto& [record, text] : cases)
    EXPECT_DEATH(read(record.bytes()), std::string("assertion \"") + text + "\" failed");
}

}  // namespace
