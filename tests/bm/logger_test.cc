// The 2.5 log from one table of every record kind: the writer's bytes against the record table,
// the reader in both byte orders, the dump line by line, every cut inside a record, refused
// fields and brackets. Damaged files are the fuzz target's (fuzz/bm_logger_fuzz.cc). The
// logger's life: open and create, commit and its failure path at every system call, the state
// assertions, the location map lines and the key files.
#include "bm/logger.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "bm/iobm.h"
#include "bm/paxgroup.h"
#include "kernel/ptype.h"
#include "support/test_support.h"
#include "tools/wal_converter/log_bytes.h"
#include "utils/mem.h"
#include "utils/posix.h"
#include "utils/stream.h"

namespace {

using j480test::err_of;
using j480test::LogBytes;

constexpr int64_t kV25 = 0x435257414C000001LL;

// One record kind: its tag and name, how the generator builds it, its fields on the wire behind
// the tag (written here from the record table) and the attributes of its dump element (null: no
// element).
struct Kind {
  int32_t tag;
  std::string name;
  std::function<bm_logger_action*(MemContext*)> make;
  std::function<void(LogBytes&)> wire;
  const char* attrs;
};

// The decoding failure text of a record kind; these kinds end it with a line feed.
std::string failure(const std::string& name) {
  static const std::set<std::string> lf = {
      "cs_new",         "scol_new",      "scol_del",          "cat_table_new",
      "cat_table_del",  "cat_column_new", "cat_column_del",   "cat_table_truncate",
      "cat_index_new",  "cat_index_del", "paxgroup_file_new", "paxgroup_file_del"};
  return "incorrect " + name + (lf.count(name) ? "\n" : "");
}

std::string raw8(int64_t v) { return LogBytes().raw_lng(v).bytes(); }
char g_pdt[] = "PDTBYTES";
const int64_t kKeyCols[] = {101, -7};
const int64_t kJis[] = {1, 2, 3, -4};
const char* const kMins[] = {"a", "bc"};
const char* const kMaxs[] = {"d", ""};
std::string g_location;  // set by the fixture

// A row: the tag and name, the constructor call (in `m`), the wire fields behind the tag (on `b`)
// and the dump element's attributes. The 2.5 fuzz seeds (scripts/make_fuzz_corpus.py) spell the
// same records.
#define K(tag, name, make, wire, attrs) \
  { tag, name, [](MemContext* m) { return make; }, [](LogBytes& b) { b wire; }, attrs }

std::vector<Kind> kinds() {
  static const pax_column_descr d[2] = {{ptype_by_id(PTYPE_SLNG), 8, 1, 0, "lz4"},
                                        {ptype_by_id(PTYPE_STR), 0, 2, 1, nullptr}};
  return {
      K(24, "cs_new", bm_action_cs_new(m, 7, 65536, BM_CS_NEW), .i32(0).lng(65536).lng(0),
        "id=\"0\" blksz=\"65536\""),
      K(2, "scol_new", bm_action_scol_new(m, 11, 3), .lng(11).i32(3), "scolid=\"11\" type=\"3\""),
      K(3, "scol_del", bm_action_scol_del(m, 12, -4), .lng(12).i32(-4),
        "scolid=\"12\" type=\"-4\""),
      K(4, "cat_table_new", bm_action_cat_table_new(m, 100, "or\"ders", 1),
        .lng(100).str("or\"ders").i32(1), "table_id=\"100\" name=\"or\"ders\" is_auto_pax=\"1\""),
      K(7, "cat_column_new", bm_action_cat_column_new(m, 101, "c1", 1, 6, 74565, 100),
        .lng(101).str("c1").i32(1).i32(6).i32(74565).lng(100),
        "column_id=\"101\" name=\"c1\" nullability=\"1\" storage_type=\"74565\" logical_type=\"6\" "
        "table_id=\"100\""),
      K(9, "cat_index_new", bm_action_cat_index_new(m, 102, "idx", 2, 100, -1),
        .lng(102).str("idx").i32(2).lng(100).lng(-1),
        "index_id=\"102\" name=\"idx\" type=\"2\" table_id=\"100\" ref_key_id=\"-1\""),
      K(11, "minmax_size", bm_action_minmax_size(m, 102, 10, 1000, 100),
        .lng(102).lng(10).lng(1000).lng(100),
        "index_id=\"102\" maxgroups=\"10\" numtuples=\"1000\" groupsize=\"100\""),
      K(12, "minmax_data", bm_action_minmax_data(m, 102, 0, 4, "MINS", "MAXS", 1, 2, "om", "OM"),
        .lng(102).i32(0).lng(8).raw("MINSMAXS").i32(1).lng(2).raw("omOM"),
        "index_id=\"102\" column_nr=\"0\" datasize=\"8\" overflow=\"1\" overflow_datasize=\"2\""),
      K(12, "minmax_data", bm_action_minmax_data(m, 103, 1, 2, "ab", "cd", 0, 3, "x", "y"),
        .lng(103).i32(1).lng(4).raw("abcd").i32(0).lng(3).raw(std::string(6, '\0')),
        "index_id=\"103\" column_nr=\"1\" datasize=\"4\" overflow=\"0\" overflow_datasize=\"3\""),
      K(13, "minmax_vardata", bm_action_minmax_vardata(m, 102, 2, 2, kMins, kMaxs, 1, "x", "yz"),
        .lng(102).i32(2).lng(36).raw(raw8(1) + raw8(1) + raw8(2) + raw8(0) + "adbc")
        .i32(1).lng(19).raw(raw8(1) + raw8(2) + "xyz"),
        "index_id=\"102\" column_nr=\"2\" datasize=\"36\" overflow=\"1\" overflow_datasize=\"19\""),
      K(13, "minmax_vardata", bm_action_minmax_vardata(m, 103, 0, 1, kMins, kMaxs, 0, "x", "y"),
        .lng(103).i32(0).lng(18).raw(raw8(1) + raw8(1) + "ad").i32(0).lng(0),
        "index_id=\"103\" column_nr=\"0\" datasize=\"18\" overflow=\"0\" overflow_datasize=\"0\""),
      K(14, "jis_size", bm_action_jis_size(m, 104, 8, 3, 50), .lng(104).lng(8).lng(3).lng(50),
        "index_id=\"104\" maxgroups=\"8\" numgroups=\"3\" groupsize=\"50\""),
      K(15, "jis_data", bm_action_jis_data(m, 104, 1, 4, kJis),
        .lng(104).i32(1).lng(4).raw(raw8(1) + raw8(2) + raw8(3) + raw8(-4)),
        "index_id=\"104\" jis_column=\"1\" numgroups=\"4\""),
      K(16, "pdt_new", bm_action_pdt_new(m, 105, g_pdt, 8), .lng(105).lng(8).raw("PDTBYTES"),
        "object_id=\"105\" size=\"8\""),
      K(17, "cat_location_new", bm_action_cat_location_new(m, 2, "loc2", 1, g_location.c_str()),
        .lng(2).str("loc2").i32(1), "location_id=\"2\" name=\"loc2\" usage=\"1\" path=\"(null)\""),
      K(18, "cat_location_del", bm_action_cat_location_del(m, 3, nullptr), .lng(3),
        "location_id=\"3\""),
      K(19, "cat_location_update", bm_action_cat_location_update(m, 2, 3), .lng(2).i32(3), nullptr),
      K(20, "blk_new", bm_action_blk_new(m, 11, 1, 2, 3, 4), .lng(11).lng(1).lng(2).lng(3).lng(4),
        "scolid=\"11\" file_nr=\"1\" block_nr=\"2\" bytes_used=\"3\" num_tuples=\"4\""),
      K(21, "blk_del", bm_action_blk_del(m, 11, 1, 2), .lng(11).lng(1).lng(2),
        "scolid=\"11\" file_nr=\"1\" block_nr=\"2\""),
      K(22, "file_new", bm_action_file_new(m, 1, 2, "f1.dat"), .lng(1).lng(2).str("f1.dat"),
        "file_nr=\"1\" location_id=\"2\" filename=\"f1.dat\""),
      K(23, "file_del", bm_action_file_del(m, 1), .lng(1), "file_nr=\"1\""),
      K(25, "paxgroup_file_new", bm_action_paxgroup_file(m, 25, 21, 1, 100),
        .lng(21).lng(1).lng(100), "colgroup_id=\"21\" file_nr=\"1\" object_id=\"100\""),
      K(26, "paxgroup_file_del", bm_action_paxgroup_file(m, 26, 21, 0, 100),
        .lng(21).lng(0).lng(100), "paxgroup_id=\"21\" file_nr=\"0\" object_id=\"100\""),
      K(27, "cat_key_new", bm_action_cat_key_new(m, 106, "pk", 1, 100, -1, 2, kKeyCols),
        .lng(106).str("pk").i32(1).lng(100).lng(-1).lng(2).lng(101).lng(-7),
        "key_id=\"106\" name=\"pk\" type=\"1\" table_id=\"100\" ref_key_id=\"-1\" ncols=\"2\" "
        "col_ids=\"101:-7\""),
      K(27, "cat_key_new", bm_action_cat_key_new(m, 107, "fk", 2, 100, 106, 0, nullptr),
        .lng(107).str("fk").i32(2).lng(100).lng(106).lng(0),
        "key_id=\"107\" name=\"fk\" type=\"2\" table_id=\"100\" ref_key_id=\"106\" ncols=\"0\" "
        "col_ids=\"\""),
      K(28, "cat_key_del", bm_action_cat_key_del(m, 106), .lng(106), "key_id=\"106\""),
      K(29, "storage_new", bm_action_storage_new(m, 20, 100), .lng(20).lng(100),
        "storage_id=\"20\" object_id=\"100\""),
      K(31, "paxgroup_new", bm_action_paxgroup_new(m, 21, 20, 11, 100, 2, d),
        .lng(21).lng(20).lng(11).lng(100).lng(2).i32(0).i32(1).i32(6).i32(13).str("lz4").str("")
        .i32(1).i32(2),
        "paxgroup_id=\"21\" storage_id=\"20\" scol_id=\"11\" object_id=\"100\" file_nr=\"0\" "
        "ncols=\"2\" col_descrs=\"(NOTNULL,slng,'lz4',1):(NULL,str,'',2)\""),
      K(31, "paxgroup_new", bm_action_paxgroup_new(m, 22, 20, 12, 100, 0, nullptr),
        .lng(22).lng(20).lng(12).lng(100).lng(0),
        "paxgroup_id=\"22\" storage_id=\"20\" scol_id=\"12\" object_id=\"100\" file_nr=\"0\" "
        "ncols=\"0\" col_descrs=\"\""),
      K(32, "paxgroup_del", bm_action_paxgroup_del(m, 21, 100), .lng(21).lng(100),
        "paxgroup_id=\"21\" object_id=\"100\""),
      K(30, "storage_del", bm_action_storage_del(m, 20), .lng(20), "index_id=\"20\""),
      K(10, "cat_index_del", bm_action_cat_index_del(m, 102), .lng(102), "index_id=\"102\""),
      K(8, "cat_column_del", bm_action_cat_column_del(m, 101), .lng(101), "column_id=\"101\""),
      K(6, "cat_table_truncate", bm_action_cat_table_truncate(m, 100), .lng(100),
        "table_id=\"100\""),
      K(5, "cat_table_del", bm_action_cat_table_del(m, 100), .lng(100), "table_id=\"100\""),
  };
}
#undef K

// One record of the table in the given byte order, tag included.
std::string record(const Kind& k, bool big) {
  LogBytes b(big);
  b.i32(k.tag);
  k.wire(b);
  return b.bytes();
}

// The whole log of the table as one transaction with trid `trid`.
std::string golden(bool big, int64_t trid = 0) {
  std::string bytes = LogBytes(big).head(kV25).i32(0).lng(trid).bytes();
  for (const Kind& k : kinds()) bytes += record(k, big);
  return bytes + LogBytes(big).i32(1).lng(trid).bytes();
}

class Logger25 : public testing::Test {
 protected:
  void SetUp() override {
    ptype_register_all();
    mem_ = mem_context_create(nullptr, "write_log");
    g_location = tmp_.file("loc2");
  }
  void TearDown() override {
    px_fault_disarm();
    bm_logger_set_iobm(nullptr);
    bm_logger_close(l_);
    if (s_ != nullptr) stream_close_destroy(s_);
    mem_context_remove(mem_);
  }

  // Commits `list` into a fresh log (with a location map): the log's bytes.
  std::string commit_to_file(const bm_logger_action_list* list, const std::string& name) {
    bm_logger* l = bm_logger_open(tmp_.file(name).c_str());
    EXPECT_EQ(bm_logger_open_location_map(l, tmp_.file(name + ".map").c_str()), 1);
    EXPECT_EQ(bm_logger_commit(l, list, 0), 1);
    bm_logger_close(l);
    return j480test::read_file(tmp_.file(name));
  }
  void open(const std::string& bytes) {
    if (s_ != nullptr) stream_close_destroy(s_);
    j480test::write_file(path_, bytes);
    s_ = open_binary_read_stream(path_.c_str());
    ASSERT_NE(s_, nullptr);
    bm_logger_read_version(s_);
  }
  int read(bm_logger_action_list** list, std::string* err = nullptr) {
    int rc = 0;
    std::string e = err_of([&] { rc = bm_logger_read_transaction(mem_, s_, list); });
    if (err != nullptr) *err = e;
    return rc;
  }
  bm_logger* open_log() { return l_ = bm_logger_open(log_.c_str()); }
  bm_logger_action_list* list(std::vector<bm_logger_action*> actions) {
    bm_logger_action_list* l = action_list_new(mem_);
    for (bm_logger_action* a : actions) action_list_append(l, a);
    return l;
  }
  bm_logger_action* blk(int i) { return bm_action_blk_new(mem_, i, 1, i, 8, 2); }
  int commit(const bm_logger_action_list* l, std::string* err = nullptr) {
    int rc = 0;
    std::string e = err_of([&] { rc = bm_logger_commit(l_, l, 0); });
    if (err != nullptr) *err = e;
    return rc;
  }
  int64_t position() { return px_ftello(l_->log->handle); }

  j480test::LogCapture log_capture_;
  j480test::TempDir tmp_;
  std::string path_ = tmp_.file("LOG"), log_ = tmp_.file("LOG.new");
  MemContext* mem_ = nullptr;
  stream* s_ = nullptr;
  bm_logger* l_ = nullptr;
};

// The writer's bytes are the table's, and the reader reads the table in both byte orders back
// into the same list: through the writer again, it gives the little-endian table. The dump shows
// the table line by line.
TEST_F(Logger25, WriterReaderAndDumpAgreeWithTheRecordTableInBothByteOrders) {
  bm_logger_action_list* table = action_list_new(mem_);
  for (const Kind& k : kinds()) action_list_append(table, k.make(mem_));
  EXPECT_EQ(commit_to_file(table, "LOG.new"), golden(false));
  EXPECT_EQ(j480test::read_file(tmp_.file("LOG.new.map")), "loc2," + g_location + "\n");
  for (bool big : {false, true}) {
    SCOPED_TRACE(big ? "big-endian" : "little-endian");
    open(golden(big, 9));
    bm_logger_action_list* list = nullptr;
    ASSERT_EQ(read(&list), 1);
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(list->head->type, BM_TR_NEW);
    EXPECT_EQ(list->tail->type, BM_TR_END);
    EXPECT_EQ(list->tail->id, 9);
    bm_logger_action_list body = {list->head->next, list->tail->prev};  // without the bracket
    body.head->prev = body.tail->next = nullptr;
    EXPECT_EQ(commit_to_file(&body, big ? "be" : "le"), golden(false));
    EXPECT_EQ(body.head->next->next->next->next->cat_column_new.adt_id, 6);
    EXPECT_EQ(read(&list), 0);
    EXPECT_EQ(list, nullptr);
  }

  j480test::write_file(path_, golden(false));
  stream* s = open_binary_read_stream(path_.c_str());
  int rc = -1;
  std::string err = err_of([&] { rc = bm_logger_print_in(s, tmp_.path().c_str()); });
  stream_close_destroy(s);
  EXPECT_EQ(rc, 0);
  std::string want =
      "<wal base_version=\"4851035686591004672\" cur_version=\"1\">\n<tr trid=\"0\">\n";
  for (const Kind& k : kinds()) want += k.attrs ? "<" + k.name + " " + k.attrs + "/>\n" : "";
  want += "</tr trid=\"0\">\n</wal>\n";
  EXPECT_EQ(j480test::read_file(tmp_.file("_LOG_XML")), want);
  std::string logged = "#LOGGER:bm_logger_print start\n";
  for (const std::string& w : j480test::split_lines(want)) logged += "#LOGGER:" + w + "\n";
  EXPECT_EQ(err, logged + "#LOGGER:bm_logger_print end\n");
}

// Every cut inside a record fails with the record's own text; bad fields and brackets with theirs.
TEST_F(Logger25, CutsBadFieldsAndBracketsAreRefusedWithTheirTexts) {
  const std::string n511(511, 'n'), n512(512, 'n');
  const int64_t huge = int64_t{1} << 62;
  auto L = [] { return LogBytes(); };
  const std::string tr = L().i32(0).lng(1).bytes(), end = L().i32(1).lng(1).bytes();
  std::vector<std::pair<std::string, std::string>> cases = {
      // error "": a transaction read whole
      {tr + L().i32(7).lng(1).str(n511).i32(0).i32(0).i32(0).lng(0).bytes() + end, ""},
      {tr + L().i32(7).lng(1).str(n512).i32(0).i32(0).i32(0).lng(0).bytes(),
       "incorrect cat_column_new\n"},
      {tr + L().i32(9).lng(1).str(n512).i32(0).lng(0).lng(0).bytes(), "incorrect cat_index_new\n"},
      {tr + L().i32(27).lng(1).str(n512).i32(0).lng(0).lng(0).lng(0).bytes(),
       "incorrect cat_key_new"},
      {tr + L().i32(4).lng(1).str(n512).i32(0).bytes(), "incorrect cat_table_new\n"},
      {tr + L().i32(22).lng(1).lng(2).str(n512).bytes(), "incorrect file_new"},
      {tr + L().i32(17).lng(1).str(n512).i32(0).bytes(), "incorrect cat_location_new"},
      {tr + L().i32(4).lng(1).i32(-1).i32(0).bytes(), "incorrect cat_table_new\n"},
      {tr + L().i32(12).lng(1).i32(0).lng(huge).bytes(), "incorrect minmax_data"},
      {tr + L().i32(12).lng(1).i32(0).lng(0).i32(0).lng(huge).bytes(), "incorrect minmax_data"},
      {tr + L().i32(13).lng(1).i32(0).lng(-1).bytes(), "incorrect minmax_vardata"},
      {tr + L().i32(15).lng(1).i32(0).lng(huge).bytes(), "incorrect jis_data"},
      {tr + L().i32(16).lng(1).lng(-8).bytes(), "incorrect pdt_new"},
      {tr + L().i32(16).lng(1).lng(INT64_MAX).bytes(), "incorrect pdt_new"},
      {tr + L().i32(27).lng(1).str("k").i32(0).lng(0).lng(0).lng(huge).bytes(),
       "incorrect cat_key_new"},
      {tr + L().i32(27).lng(1).str("k").i32(0).lng(0).lng(0).lng(-1).bytes(),
       "incorrect cat_key_new"},
      {tr + L().i32(31).lng(1).lng(0).lng(0).lng(0).lng(huge).bytes(), "incorrect paxgroup_new"},
      {tr + L().i32(31).lng(1).lng(0).lng(0).lng(0).lng(1).i32(0).i32(999).str("").i32(0).bytes(),
       "incorrect paxgroup_new"},
      {tr +
           L().i32(31).lng(1).lng(0).lng(0).lng(0).lng(1).i32(0).i32(6).i32(1 << 30).i32(0).bytes(),
       "incorrect paxgroup_new"},
      {tr + L().i32(33).bytes(), "Unhandled log value 33"},
      {tr + L().i32(-1).bytes(), "Unhandled log value -1"},
      {tr + tr, "tr_new called while in transaction"},
      {end, "tr_end called while not in transaction\n"},
      {tr + L().i32(1).lng(2).bytes(), "incorrect transaction\n"},
      {tr + L().i32(23).lng(5).bytes(),
       "reading transaction finished while still in open transaction"},
      // A name that reaches exactly to the end of the file is read whole.
      {tr + L().i32(22).lng(1).lng(2).str("f").bytes(),
       "reading transaction finished while still in open transaction"},
  };
  for (const Kind& k : kinds()) {
    const std::string rec = record(k, false);
    for (size_t cut = 4; cut < rec.size(); cut++)
      cases.push_back({tr + rec.substr(0, cut), failure(k.name)});
  }
  for (const auto& [records, error] : cases) {
    SCOPED_TRACE(error + " after " + std::to_string(records.size()) + " bytes");
    open(L().head(kV25).bytes() + records);
    bm_logger_action_list* list = nullptr;
    std::string err;
    EXPECT_EQ(read(&list, &err), 1);
    EXPECT_EQ(list == nullptr, !error.empty());
    // The logged line: texts ending in a line feed keep just that one.
    EXPECT_EQ(err,
              error.empty() ? "" : "ERROR:LOGGER:" + error + (error.back() == '\n' ? "" : "\n"));
  }
}

const std::string kKey(64, 'A'), kOtherKey(64, 'B');

std::string head() { return LogBytes().head(kV25).bytes(); }
std::string tr(int32_t tag, int64_t trid) { return LogBytes().i32(tag).lng(trid).bytes(); }

TEST_F(Logger25, OpenWritesTheVersionIntoANewFileOnlyAndStandsAtTheEnd) {
  const std::string existing = head() + tr(0, 1) + tr(1, 1);
  const std::pair<std::string, std::string> cases[] = {  // the file before ("-": missing), after
      {"-", head()}, {LogBytes().i16(1234).bytes(), head()}, {existing, existing}};
  for (const auto& [before, after] : cases) {
    SCOPED_TRACE(before.size());
    if (before == "-") unlink(log_.c_str());
    else j480test::write_file(log_, before);
    wal_version = -1;
    ASSERT_NE(open_log(), nullptr);
    EXPECT_EQ(wal_version, kV25);
    EXPECT_EQ(l_->state, BM_TR_END);
    EXPECT_EQ(position(), static_cast<int64_t>(after.size()));
    EXPECT_EQ(j480test::read_file(log_), after);
    bm_logger_close(l_);
    l_ = nullptr;
  }
  std::string bad = tmp_.file("no/such/dir/LOG.new");
  std::string err = err_of([&] { EXPECT_EQ(bm_logger_open(bad.c_str()), nullptr); });
  EXPECT_EQ(err, "ERROR:LOGGER:bm_logger_open: failed creating WAL file '" + bad + "'\n");
  EXPECT_EQ(bm_logger_open_location_map(open_log(), bad.c_str()), 0);
  EXPECT_EQ(l_->location_map, nullptr);
}

// A commit that fails, by a real failure at each of its system calls or by an action the writer
// refuses, fails whole: the log stands at `start` with no transaction open, and the next commit
// writes the same transaction over the leftovers.
TEST_F(Logger25, FailedCommitsRewindAndTheNextCommitOverwrites) {
  ASSERT_NE(open_log(), nullptr);
  bm_logger_action_list* l =
      list({blk(1), blk(2), blk(3), bm_action_pdt_new(mem_, 9, const_cast<char*>("payload!"), 8)});
  std::string txn = tr(0, 0);
  for (int64_t n = 1; n <= 3; n++)
    txn += LogBytes().i32(20).lng(n).lng(1).lng(n).lng(8).lng(2).bytes();
  txn += LogBytes().i32(16).lng(9).lng(8).raw("payload!").bytes() + tr(1, 0);
  px_fault_count();
  ASSERT_EQ(commit(l), 1);
  const int64_t calls = g_px_faults.calls;
  px_fault_disarm();
  ASSERT_GT(calls, 10);
  const std::string n512(512, 'c');
  bm_logger_action* unknown = bm_action_file_del(mem_, 1);
  unknown->type = 40;
  const std::pair<bm_logger_action*, std::string> refused[] = {  // behind a block
      {bm_action_tr_end(mem_, 0), "ERROR:LOGGER:Unhandled log action type 1 during writing\n"},
      {unknown, "ERROR:LOGGER:Unhandled log action type 40 during writing\n"},
      {bm_action_cat_column_new(mem_, 1, n512.c_str(), 0, 0, 0, 1), ""},
      {bm_action_cat_index_new(mem_, 1, n512.c_str(), 0, 1, -1), ""},
      {bm_action_cat_key_new(mem_, 1, n512.c_str(), 0, 1, -1, 0, nullptr), ""},
  };
  const int64_t failures = calls + 5;
  for (int64_t k = 1; k <= failures; k++) {
    SCOPED_TRACE("failure " + std::to_string(k));
    const int64_t start = position();
    std::string err, want = "ERROR:LOGGER:bm_logger_commit: failed writing LOG\n";
    if (k <= calls) {
      px_fault_arm(k, ENOSPC);
      EXPECT_EQ(commit(l, &err), 0);
      px_fault_disarm();
      EXPECT_EQ(stream_error(l_->log), 0);
    } else {
      const auto& [action, text] = refused[k - calls - 1];
      EXPECT_EQ(commit(list({blk(1), action}), &err), 0);
      want = text + want;
    }
    // The first two calls, the flush of what stands before the transaction and the position,
    // fail before anything of it is written: there is nothing to seek back over.
    if (k > 2) want += "# WARN:LOGGER:bm_logger_commit: seeking " + log_ + " to " +
                       std::to_string(start) + "\n";
    EXPECT_EQ(err, want);
    EXPECT_EQ(position(), start);
    EXPECT_EQ(l_->state, BM_TR_END);
    EXPECT_EQ(commit(l), 1);
  }
  std::string want = head();
  for (int64_t k = 0; k <= failures; k++) want += txn;
  EXPECT_EQ(j480test::read_file(log_), want);
  // A name of 511 bytes is written whole.
  const int64_t end = position();
  EXPECT_EQ(commit(list({bm_action_cat_column_new(mem_, 1, n512.c_str() + 1, 0, 0, 0, 1)})), 1);
  EXPECT_EQ(position(), end + 12 + (4 + 8 + 4 + 511 + 12 + 8) + 12);
}

TEST_F(Logger25, StateAndArgumentAssertions) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  ASSERT_NE(open_log(), nullptr);
  bm_logger_action* b = blk(1);
  bm_logger_action_list* cs_second = list({blk(1), bm_action_cs_new(mem_, 0, 4096, BM_CS_NEW)});
  const std::string paxgroup_del = head() + LogBytes().i32(26).lng(3).lng(-2).lng(0).bytes();
  bm_logger_action_list* out = nullptr;
  const std::pair<std::function<void()>, const char*> cases[] = {
      {[&] { bm_logger_commit(l_, cs_second, 0); }, "l->state == tr_new"},
      {[&] { bm_logger_blk_new(l_, b); }, "l->state != tr_end"},
      {[&] { bm_logger_tr_end(l_, 0); }, "l->state != tr_end"},
      {[&] { bm_logger_tr_new(l_, 0), bm_logger_tr_new(l_, 1); }, "l->state == tr_end"},
      {[&] { bm_action_cs_new(mem_, 0, 4096, BM_BLK_NEW); }, "type == cs_new"},
      {[&] { bm_action_paxgroup_file(mem_, BM_PAXGROUP_FILE_NEW, 0, 1, 1); },
       "paxgroup_id && file_nr >= 0"},
      {[&] { bm_action_paxgroup_file(mem_, BM_PAXGROUP_FILE_DEL, 1, -1, 1); },
       "paxgroup_id && file_nr >= 0"},
      {[&] { action_list_append(nullptr, b); }, "list"},
      {[&] { open(paxgroup_del), bm_logger_read_transaction(mem_, s_, &out); },  // read back
       "paxgroup_id && file_nr >= 0"},
  };
  for (const auto& [run, text] : cases)
    EXPECT_DEATH(run(), j480test::Esc(std::string("assertion \"") + text + "\" failed"));
}

TEST_F(Logger25, MapLinesUpTo511BytesAreWrittenLongerOnesFailTheCommit) {
  ASSERT_NE(open_log(), nullptr);
  const std::string map = tmp_.file("location_map.new");
  EXPECT_EQ(bm_logger_write_location_map_entry(l_, "a", "/p"), 0);  // no map: no message
  ASSERT_EQ(bm_logger_open_location_map(l_, map.c_str()), 1);
  const std::string p508(508, 'p'), p509(509, 'p');
  const std::string too_long =
      "ERROR:LOGGER:bm_logger_write_location_map_entry: line too long, truncated line is '";
  std::string err = err_of([&] {
    EXPECT_EQ(bm_logger_write_location_map_entry(l_, "n", p508.c_str()), 1);
    EXPECT_EQ(bm_logger_write_location_map_entry(l_, "n", p509.c_str()), 0);
    EXPECT_EQ(bm_logger_write_location_map_entry(l_, "x", "/with,comma"), 1);
  });
  EXPECT_EQ(err, too_long + "n," + p509 + "'\n");
  EXPECT_EQ(j480test::read_file(map), "n," + p508 + "\nx,/with,comma\n");

  // Through the commit: a 20-byte name and a 500-byte path.
  const std::string name(20, 'l'), path = "/" + std::string(499, 'q');
  bm_logger_action* location = bm_action_cat_location_new(mem_, 4, name.c_str(), 0, path.c_str());
  EXPECT_EQ(commit(list({location}), &err), 0);
  EXPECT_EQ(err.substr(0, err.find('\n')), too_long + (name + "," + path).substr(0, 511) + "'");

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

TEST_F(Logger25, KeyFilesAreCreatedVerifiedAndRefused) {
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
  EXPECT_EQ(commit(list({bm_action_cat_location_new(mem_, 2, "loc", 0, dir.c_str())}), &err), 0);
  EXPECT_NE(err.find("ERROR:LOGGER:bm_logger_commit: failed writing LOG\n"), std::string::npos);
  const std::string dir2 = tmp_.file("loc2");
  j480test::make_dirs(dir2);
  EXPECT_EQ(commit(list({bm_action_cat_location_new(mem_, 3, "loc2", 0, dir2.c_str())})), 1);
  EXPECT_EQ(j480test::read_file(dir2 + "/db_key"), kOtherKey);

  // A deleted location loses its key file; a missing one is only a warning.
  bm_logger_action_list* del = list({bm_action_cat_location_del(mem_, 3, dir2.c_str())});
  EXPECT_EQ(commit(del), 1);
  EXPECT_FALSE(j480test::exists(dir2 + "/db_key"));
  EXPECT_EQ(commit(del, &err), 1);
  EXPECT_EQ(err, "# WARN:LOGGER:bm_logger_cat_location_del: unable to unlink db_key file '" + dir2 +
                     "/db_key'\n");
}

}  // namespace
