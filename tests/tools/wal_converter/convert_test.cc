// The whole tool on generated databases: a run converts, keeps the old files byte for byte, writes
// a 2.5 log whose every action is the one that the generator's model calls for, writes the
// location map, dumps both logs and logs its steps in order.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "bm/logger.h"
#include "expected25.h"
#include "kernel/ptype.h"
#include "log_bytes.h"
#include "support/test_support.h"
#include "utils/mem.h"
#include "utils/stream.h"

#ifdef J480_GEN_BIN
namespace {

using j480test::read_file;
using j480test::RunResult;
using Lines = std::vector<std::string>;

// Every action of a 2.5 log in file order, one line each; "unreadable" where reading fails.
Lines read_log25(const std::string& path) {
  Lines out;
  ptype_register_all();  // the reader resolves a paxgroup's types by number
  MemContext* mem = mem_context_create(nullptr, "convert_test");
  stream* s = open_binary_read_stream(path.c_str());
  EXPECT_EQ(bm_logger_read_version(s), BM_LOGGER_VERSION_25);
  for (int more = 1; more;) {
    bm_logger_action_list* list = nullptr;
    more = bm_logger_read_transaction(mem, s, &list);
    if (list == nullptr && more) out.push_back("unreadable");
    for (bm_logger_action* a = list != nullptr ? list->head : nullptr; a != nullptr; a = a->next)
      out.push_back(j480test::describe25(a));
    if (list == nullptr && more) break;
  }
  stream_close_destroy(s);
  mem_context_remove(mem);
  return out;
}

// The lines of `all` from the first that equals `from` up to and with the first that equals `to`.
Lines span(const Lines& all, const std::string& from, const std::string& to) {
  auto b = std::find(all.begin(), all.end(), from);
  auto e = std::find(b, all.end(), to);
  return Lines(b, e == all.end() ? e : e + 1);
}

// Each generated shape runs with three seeds; "empty" ones are written here: a set-up
// transaction with a columnspace (and a location where multi) and no table.
struct Shape {
  std::vector<std::string> gen;
  bool drop_map = false;   // location_map removed before the run
  bool leftovers = false;  // LOG.new, location_map.new and LOG.j480_20 of an earlier run
};

TEST(Convert, TheNewLogHoldsTheGeneratorsModelActionByAction) {
  const Shape shapes[] = {
      {{"--tables", "4", "--transactions", "60", "--single-location"}},
      {{"--tables", "6", "--transactions", "120", "--locations", "3"}, false, true},
      {{"--tables", "5", "--transactions", "80", "--big-endian", "--pdts"}, true},
      {{"--tables", "8", "--transactions", "150", "--locations", "2", "--reuse-scols"}, true},
      {{"--tables", "1", "--transactions", "3", "--single-location", "--pdts"}, false, true},
      {{"--tables", "12", "--transactions", "200", "--columns", "3", "--locations", "2", "--pdts"}},
      {{"--tables", "10", "--transactions", "300", "--columns", "2", "--blocks", "3"}},
      {{"--tables", "40", "--transactions", "900", "--columns", "3", "--locations", "4", "--pdts",
        "--reuse-scols"}},
      {{"empty", "single"}},
      {{"empty", "multi"}, false, true},
  };
  std::set<std::string> seen;  // features that the runs exercised
  for (const Shape& shape : shapes) {
    for (int seed = 1; seed <= (shape.gen[0] == "empty" ? 1 : 3); seed++) {
      SCOPED_TRACE(::testing::PrintToString(shape.gen) + " seed " + std::to_string(seed));
      j480test::TempDir farm;
      const std::string cbm = farm.file("db/CBM"), model = farm.file("model");
      const std::string pdt_model = farm.file("pdt_model");
      int64_t transactions = 1;
      if (shape.gen[0] == "empty") {
        const bool multi = shape.gen[1] == "multi";
        j480test::LogBytes b;
        b.head().i32(0).lng(1).i32(multi ? 35 : 2).i32(0).str("cs0").i32(65536);
        b.i32(0).i32(0).lng(0);
        if (multi) b.i32(28).lng(1).str("l1").i32(1);
        j480test::make_dirs(cbm);
        j480test::write_file(cbm + "/LOG", b.i32(1).lng(1).bytes());
        j480test::write_file(cbm + "/location_map", multi ? "l1,/p/l1\n" : "");
        j480test::write_file(model, "columnspace 65536 1\n" +
                                        (multi ? "location 1 l1 1 /p/l1\n"
                                               : "location auto default 1 " + farm.file("db") +
                                                     "/CBM/default\nfile default default 0\n"));
        seen.insert("empty catalog");
      } else {
        std::vector<std::string> args = {
            "--out",       farm.file("db"),
            "--model",     model,
            "--pdt-model", pdt_model,
            "--seed",      std::to_string(seed * 7919 + shape.gen.size())};
        args.insert(args.end(), shape.gen.begin(), shape.gen.end());
        RunResult gen = j480test::run_binary(J480_GEN_BIN, args);
        ASSERT_EQ(gen.status, 0) << gen.err;
        for (const std::string& line : j480test::split_lines(gen.out)) {
          int tag = 0;
          long long n = 0;
          if (std::sscanf(line.c_str(), "tag %d: %lld", &tag, &n) == 2)
            seen.insert("2.0 record " + std::to_string(tag));
          if (std::sscanf(line.c_str(), "transactions %lld", &n) == 1) transactions = n;
        }
      }
      if (shape.drop_map) unlink((cbm + "/location_map").c_str());
      if (shape.leftovers) {
        j480test::write_file(cbm + "/LOG.new", "a stale transaction");
        j480test::write_file(cbm + "/location_map.new", "gone,/x\n");
        j480test::write_file(cbm + "/LOG.j480_20", "an earlier conversion");
      }
      const std::string old_log = read_file(cbm + "/LOG");
      const bool has_map = j480test::exists(cbm + "/location_map");
      const std::string old_map = has_map ? read_file(cbm + "/location_map") : "";
      const j480test::Expected25 want = j480test::expected25(
          read_file(model), j480test::exists(pdt_model) ? read_file(pdt_model) : "", has_map);
      seen.insert(want.features.begin(), want.features.end());

      RunResult r = j480test::run_binary(J480_CONVERTER_BIN,
                                         {"--dbfarm", farm.path(), "--dbname", "db", "--dumplog"});
      ASSERT_EQ(r.status, 0) << r.err;
      const Lines got = read_log25(cbm + "/LOG");
      for (size_t k = 0; k < std::max(got.size(), want.actions.size()); k++)
        ASSERT_EQ(k < got.size() ? got[k] : "(none)",
                  k < want.actions.size() ? want.actions[k] : "(none)")
            << "action " << k;
      EXPECT_EQ(read_file(cbm + "/LOG.j480_20"), old_log);
      EXPECT_EQ(j480test::exists(cbm + "/location_map.j480_20"), has_map);
      EXPECT_EQ(has_map ? read_file(cbm + "/location_map.j480_20") : "", old_map);
      EXPECT_EQ(read_file(cbm + "/location_map"), want.location_map);
      for (const char* gone : {"/LOG.new", "/location_map.new"})
        EXPECT_FALSE(j480test::exists(cbm + gone)) << gone;

      // The dumps: the new one an element per action of the list, each with its first value.
      const Lines xml = j480test::split_lines(read_file(cbm + "/_LOG_XML"));
      ASSERT_EQ(xml.size(), want.actions.size() + 2);
      EXPECT_EQ(xml[0], "<wal base_version=\"4851035686591004672\" cur_version=\"1\">");
      EXPECT_EQ(xml.back(), "</wal>");
      EXPECT_EQ(xml[1], "<tr trid=\"0\">");
      EXPECT_EQ(xml[xml.size() - 2], "</tr trid=\"0\">");
      for (size_t k = 1; k + 1 < want.actions.size(); k++) {
        std::istringstream a(want.actions[k]);
        std::string name, id, x = xml[k + 1];
        a >> name >> id;
        EXPECT_TRUE(x.rfind("<" + name + " ", 0) == 0 &&
                    x.find('"') == x.find("=\"" + id + "\"") + 1)
            << x << " for " << want.actions[k];
      }
      const Lines xml20 = j480test::split_lines(read_file(cbm + "/_LOG_XML_20"));
      EXPECT_EQ(xml20.front(), "<wal base_version=\"4851035686591004672\" cur_version=\"0\">");
      EXPECT_EQ(xml20.back(), "</wal>");
      EXPECT_EQ(std::count_if(xml20.begin(), xml20.end(),
                              [](const std::string& l) { return l.rfind("<tr trid=", 0) == 0; }),
                transactions);

      // The run's log: banner, database, the old dump, replay, then the conversion's own steps.
      const Lines log = j480test::split_lines(r.err);
      ASSERT_GE(log.size(), 2u);
      EXPECT_EQ(log[0].rfind("#WAL_CONVERTER:J480 WAL 2.0 converter version ", 0), 0u);
      EXPECT_EQ(log[1], "#WAL_CONVERTER:Converting WAL for database 'db' in '" + farm.path() + "'");
      Lines dump20 = span(log, "#LOGGER:bc20_bm_logger_print start", "#LOGGER:bm_logger_print end");
      Lines want_dump20 = {"#LOGGER:bc20_bm_logger_print start"};
      for (const std::string& l : xml20) want_dump20.push_back("#LOGGER:" + l);
      want_dump20.push_back("#LOGGER:bm_logger_print end");
      EXPECT_EQ(dump20, want_dump20);
      Lines replay = span(log, "#LOGGER:bm_logger_print end", "#LOGGER:Analyzing catalog...");
      EXPECT_EQ(replay.at(1), "#LOGGER:Reading old catalog...");
      EXPECT_EQ(std::count(replay.begin(), replay.end(),
                           "#CBM:Detected single location database. Creating default location "
                           "and default file."),
                want.location_map.rfind("default,", 0) == 0 ? 1 : 0);
      Lines tail = {"#LOGGER:Analyzing catalog...", "#LOGGER:Generating new catalog..."};
      for (int64_t done = 100, reported = 0; done <= 200 * want.tables; done += 100)
        if (done / (2 * want.tables) - reported >= 10)
          tail.push_back("#LOGGER:New catalog " +
                         std::to_string(reported = done / (2 * want.tables)) + "% done.");
      tail.insert(tail.end(), {"#LOGGER:Writing new catalog...", "#LOGGER:bm_logger_print start"});
      for (const std::string& l : xml) tail.push_back("#LOGGER:" + l);
      tail.insert(tail.end(),
                  {"#LOGGER:bm_logger_print end", "#WAL_CONVERTER:Done converting. Exiting."});
      EXPECT_EQ(span(log, tail[0], ""), tail);
    }
  }
  // The shapes must reach every kind of record, index and reference the conversion handles.
  std::istringstream required(
      "empty catalog|foreign-key chain|foreign-key diamond|null group|index storage|"
      "minmax overflow|minmax of strings|write-PDT with join index slots|index type 1|"
      "index type 2|index type 3|index type 4|index type 5|index type 6|2.0 record 8|"
      "2.0 record 14|2.0 record 18|2.0 record 20|2.0 record 26|2.0 record 27|2.0 record 29|"
      "2.0 record 30|2.0 record 32");
  for (std::string f; std::getline(required, f, '|');)
    EXPECT_EQ(seen.count(f), 1u) << "never exercised: " << f;
}

// What stands in a CBM directory, by file name.
using Files = std::map<std::string, std::string>;

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
#ifndef J480_FAULT_INJECTION
  GTEST_SKIP() << "the tool reads J480_FAULT_AT only when built with -DJ480_FAULT_INJECTION=ON";
#endif
  j480test::TempDir farm;
  const std::string cbm = farm.file("db/CBM");
  ASSERT_EQ(
      j480test::run_binary(J480_GEN_BIN, {"--out", farm.file("db"), "--seed", "11", "--tables", "1",
                                          "--transactions", "3", "--locations", "2"})
          .status,
      0);
  const Files before = files_of(cbm);
  const std::vector<std::string> args = {"--dbfarm", farm.path(), "--dbname", "db"};
  RunResult clean = j480test::run_binary(J480_CONVERTER_BIN, args);
  ASSERT_EQ(clean.status, 0) << clean.err;
  const Files after = files_of(cbm);
  ASSERT_EQ(after.at("LOG.j480_20"), before.at("LOG"));

  bool past_the_end = false;
  for (int k = 1; k <= 1000 && !past_the_end; k++) {
    for (const char* mode : {":5", ":28:sticky", ":kill"}) {
      const std::string fault = std::to_string(k) + mode;
      SCOPED_TRACE(fault);
      put_files(cbm, before);
      RunResult r = j480test::run_binary(J480_CONVERTER_BIN, args, {{"J480_FAULT_AT", fault}});
      Files now = files_of(cbm);
      std::string state;
      for (const auto& [name, bytes] : now) state += name + " ";
      const bool old_kept = (now.count("LOG") && now["LOG"] == before.at("LOG")) ||
                            (now.count("LOG.j480_20") && now["LOG.j480_20"] == before.at("LOG"));
      ASSERT_TRUE(old_kept) << state << r.err;
      if (r.status == 0) {
        EXPECT_TRUE(now == after) << state << r.err;
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
      EXPECT_TRUE(files_of(cbm) == after) << state;
    }
  }
  EXPECT_TRUE(past_the_end);
}

}  // namespace
#endif  // J480_GEN_BIN
