// The whole tool on generated databases: a run converts, keeps the old files byte for byte, writes
// a 2.5 log that holds what the generator says the database holds, dumps both logs, and a second
// run is refused without touching a file.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "bm/logger.h"
#include "kernel/ptype.h"
#include "support/test_support.h"
#include "utils/mem.h"
#include "utils/stream.h"

#ifdef J480_GEN_BIN
namespace {

using j480test::read_file;
using j480test::RunResult;

// Counts of the model file's items that each become one kind of 2.5 action.
struct Expected {
  int64_t tables = 0, storages = 0, blocks = 0, keys = 0, data_indexes = 0;
};

Expected expected_from_model(const std::string& path) {
  Expected e;
  std::istringstream in(read_file(path));
  std::string line;
  while (std::getline(in, line)) {
    std::istringstream f(line);
    std::string kind;
    f >> kind;
    if (kind == "table") e.tables++;
    if (kind == "storage" || kind == "istorage") e.storages++;
    if (kind == "blocks") {
      int64_t n = 0;
      f >> n;
      e.blocks += n;
    }
    if (kind == "index") {
      int64_t id = 0, type = 0;
      f >> id >> type;
      (type == 1 || type == 6 ? e.data_indexes : e.keys)++;  // minmax and join carry data
    }
  }
  return e;
}

// The actions of a 2.5 log by tag; the number of transactions through `transactions`.
std::map<int32_t, int64_t> actions_of(const std::string& path, int64_t* transactions) {
  std::map<int32_t, int64_t> count;
  *transactions = 0;
  ptype_register_all();  // the reader resolves a paxgroup's types by number
  MemContext* mem = mem_context_create(nullptr, "convert_test");
  stream* s = open_binary_read_stream(path.c_str());
  EXPECT_EQ(bm_logger_read_version(s), BM_LOGGER_VERSION_25);
  for (;;) {
    bm_logger_action_list* list = nullptr;
    int more = bm_logger_read_transaction(mem, s, &list);
    if (list == nullptr && more) {
      ADD_FAILURE() << "unreadable transaction in " << path;
      break;
    }
    if (list != nullptr && list->head != nullptr) ++*transactions;
    for (bm_logger_action* a = list ? list->head : nullptr; a; a = a->next) count[a->type]++;
    if (!more) break;
  }
  stream_close_destroy(s);
  mem_context_remove(mem);
  return count;
}

TEST(Convert, GeneratedDatabasesConvertKeepTheOldFilesAndAreNotConvertedTwice) {
  const std::vector<std::vector<std::string>> shapes = {
      {"--seed", "1", "--tables", "4", "--transactions", "60", "--single-location"},
      {"--seed", "2", "--tables", "6", "--transactions", "120", "--locations", "3"},
      {"--seed", "3", "--tables", "5", "--transactions", "80", "--big-endian", "--pdts"},
      {"--seed", "4", "--tables", "8", "--transactions", "150", "--locations", "2",
       "--reuse-scols"},
      {"--seed", "5", "--tables", "1", "--transactions", "3", "--single-location"},
  };
  for (const auto& shape : shapes) {
    SCOPED_TRACE(::testing::PrintToString(shape));
    j480test::TempDir farm;
    std::vector<std::string> args = {"--out", farm.file("db"), "--model", farm.file("model")};
    args.insert(args.end(), shape.begin(), shape.end());
    ASSERT_EQ(j480test::run_binary(J480_GEN_BIN, args).status, 0);
    const std::string cbm = farm.file("db/CBM");
    const std::string old_log = read_file(cbm + "/LOG");
    const bool has_map = j480test::exists(cbm + "/location_map");
    const std::string old_map = has_map ? read_file(cbm + "/location_map") : "";

    RunResult r = j480test::run_binary(J480_CONVERTER_BIN,
                                       {"--dbfarm", farm.path(), "--dbname", "db", "--dumplog"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(j480test::split_lines(r.err).back(), "#WAL_CONVERTER:Done converting. Exiting.");
    EXPECT_EQ(r.err.find("ERROR"), std::string::npos) << r.err;
    EXPECT_EQ(read_file(cbm + "/LOG.j480_20"), old_log);
    EXPECT_EQ(j480test::exists(cbm + "/location_map.j480_20"), has_map);
    if (has_map) {
      EXPECT_EQ(read_file(cbm + "/location_map.j480_20"), old_map);
    }
    for (const char* gone : {"/LOG.new", "/location_map.new"})
      EXPECT_FALSE(j480test::exists(cbm + gone)) << gone;

    int64_t transactions = 0;
    std::map<int32_t, int64_t> got = actions_of(cbm + "/LOG", &transactions);
    const Expected want = expected_from_model(farm.file("model"));
    EXPECT_EQ(transactions, 1);
    EXPECT_EQ(got[BM_CS_NEW], 1);
    EXPECT_EQ(got[BM_CAT_TABLE_NEW], want.tables);
    EXPECT_EQ(got[BM_PAXGROUP_NEW], want.storages);
    EXPECT_EQ(got[BM_BLK_NEW], want.blocks);
    EXPECT_EQ(got[BM_CAT_KEY_NEW], want.keys);
    EXPECT_EQ(got[BM_CAT_INDEX_NEW], want.data_indexes);
    const std::string xml = read_file(cbm + "/_LOG_XML");
    EXPECT_EQ(xml.rfind("<wal base_version=\"4851035686591004672\" cur_version=\"1\">\n<tr trid=\"0\">\n", 0),
              0u)
        << xml.substr(0, 200);
    EXPECT_TRUE(j480test::exists(cbm + "/_LOG_XML_20"));

    // A second run: refused, and every file stays as the first run left it.
    const std::string new_log = read_file(cbm + "/LOG");
    const std::string new_map = has_map ? read_file(cbm + "/location_map") : "";
    r = j480test::run_binary(J480_CONVERTER_BIN, {"--dbfarm", farm.path(), "--dbname", "db"});
    EXPECT_EQ(r.status, 255);
    EXPECT_NE(r.err.find("ERROR:LOGGER:Incompatible database version detected, database already "
                         "converted."),
              std::string::npos)
        << r.err;
    EXPECT_EQ(read_file(cbm + "/LOG"), new_log);
    EXPECT_EQ(read_file(cbm + "/LOG.j480_20"), old_log);
    if (has_map) {
      EXPECT_EQ(read_file(cbm + "/location_map"), new_map);
    }
    EXPECT_FALSE(j480test::exists(cbm + "/LOG.new"));
  }
}

}  // namespace
#endif  // J480_GEN_BIN

#ifdef J480_GEN_BIN
namespace {

// What stands in a CBM directory, by file name.
using Files = std::map<std::string, std::string>;

// Names and sizes, for messages: the bytes themselves are too many to print.
std::string describe(const Files& files) {
  std::string d;
  for (const auto& [name, bytes] : files) d += name + "(" + std::to_string(bytes.size()) + ") ";
  return d;
}

Files files_of(const std::string& cbm) {
  Files f;
  for (const char* name : {"LOG", "location_map", "LOG.new", "location_map.new", "LOG.j480_20",
                           "location_map.j480_20"})
    if (j480test::exists(cbm + "/" + name)) f[name] = j480test::read_file(cbm + "/" + name);
  return f;
}

void put_files(const std::string& cbm, const Files& files) {
  for (const char* name : {"LOG", "location_map", "LOG.new", "location_map.new", "LOG.j480_20",
                           "location_map.j480_20", "_LOG_XML", "_LOG_XML_20"})
    unlink((cbm + "/" + name).c_str());
  for (const auto& [name, bytes] : files) j480test::write_file(cbm + "/" + name, bytes);
}

void move(const std::string& cbm, const char* from, const char* to) {
  ASSERT_EQ(rename((cbm + "/" + from).c_str(), (cbm + "/" + to).c_str()), 0) << from;
}

// Every system call of a conversion of a multi-location database, failed once (EIO), failed with
// every later call (ENOSPC), or ended by a kill. After each run the old log stands byte for byte
// under LOG or LOG.j480_20, exit 0 comes only with the files of a clean conversion, and what the
// README says to do for the state left ends in those same files.
TEST(Convert, AFailedOrKilledCallAnywhereLosesNothingAndTheReadmeRecoveryCompletes) {
  j480test::TempDir farm;
  const std::string cbm = farm.file("db/CBM");
  ASSERT_EQ(j480test::run_binary(J480_GEN_BIN, {"--out", farm.file("db"), "--seed", "11",
                                                "--tables", "1", "--transactions", "3",
                                                "--locations", "2"})
                .status,
            0);
  const Files before = files_of(cbm);
  const std::vector<std::string> args = {"--dbfarm", farm.path(), "--dbname", "db"};
  RunResult clean = j480test::run_binary(J480_CONVERTER_BIN, args);
  ASSERT_EQ(clean.status, 0) << clean.err;
  const Files after = files_of(cbm);
  ASSERT_EQ(after.at("LOG.j480_20"), before.at("LOG"));

  std::map<std::string, int> states;  // which names stood after a faulted run
  int runs = 0;
  bool past_the_end = false;
  for (int k = 1; k <= 1000 && !past_the_end; k++) {
    for (const char* mode : {":5", ":28:sticky", ":kill"}) {
      const std::string fault = std::to_string(k) + mode;
      SCOPED_TRACE(fault);
      put_files(cbm, before);
      RunResult r = j480test::run_binary(J480_CONVERTER_BIN, args, {{"J480_FAULT_AT", fault}});
      runs++;
      Files now = files_of(cbm);
      std::string state;
      for (const auto& [name, bytes] : now) state += name + " ";
      states[state]++;
      const bool old_kept = (now.count("LOG") && now["LOG"] == before.at("LOG")) ||
                            (now.count("LOG.j480_20") && now["LOG.j480_20"] == before.at("LOG"));
      ASSERT_TRUE(old_kept) << state << r.err;
      if (r.status == 0) {
        EXPECT_TRUE(now == after) << describe(now) << "\n" << r.err;
        past_the_end |= std::string(mode) == ":28:sticky" && r.err == clean.err;
        continue;
      }
      // The README's recovery for the state left.
      if (now.count("LOG") && now["LOG"] == before.at("LOG")) {
        // Not exchanged yet: run again.
      } else if (!now.count("LOG")) {
        move(cbm, "LOG.j480_20", "LOG");
        if (!now.count("location_map")) move(cbm, "location_map.j480_20", "location_map");
      } else {
        ASSERT_EQ(now["LOG"], after.at("LOG")) << state;
        if (now.count("location_map.new")) {
          if (now.count("location_map")) unlink((cbm + "/location_map").c_str());
          move(cbm, "location_map.new", "location_map");
        }
        unlink((cbm + "/LOG.new").c_str());
      }
      if (files_of(cbm).at("LOG") == before.at("LOG")) {
        RunResult again = j480test::run_binary(J480_CONVERTER_BIN, args);
        ASSERT_EQ(again.status, 0) << state << again.err;
      }
      EXPECT_TRUE(files_of(cbm) == after) << state << " -> " << describe(files_of(cbm));
    }
  }
  EXPECT_TRUE(past_the_end);
  std::string summary;
  for (const auto& [state, n] : states) summary += std::to_string(n) + " x [" + state + "]\n";
  std::printf("%d faulted runs; states left:\n%s", runs, summary.c_str());
}

}  // namespace
#endif  // J480_GEN_BIN
