// The command line and run sequence of the built tool: standard output, the log on standard
// error, and the exit value as a shell sees it.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "bm/iobm.h"
#include "support/test_support.h"
#include "tools/wal_converter/log_bytes.h"
#include "utils/cvconfig.h"

using j480test::RunResult;
using j480test::split_lines;

namespace {

const std::string kBin = J480_CONVERTER_BIN;

const char kUsageTail[] =
    " [OPTIONS]\n"
    "Converts J480 2.0 metadata to 2.5 format.\n\n"
    "Options:\n"
    "  --version                      prints server version end exits\n"
    "  --dbfarm <storage location>    sets storage filesystem location\n"
    "  --dbname <database name>       sets database name\n"
    "  --dumplog                      dumps old and new metadata as XML file\n";

std::string usage_text() { return "J480 WAL 2.0 converter\n\nUsage: " + kBin + kUsageTail; }

RunResult run(const std::vector<std::string>& args) { return j480test::run_binary(kBin, args); }

// The version text, as the tool prints it for --version.
std::string version_text() {
  RunResult r = run({"--version"});
  std::vector<std::string> lines = split_lines(r.out);
  return lines.size() == 2 ? lines[1] : "";
}

std::string banner() { return "#WAL_CONVERTER:J480 WAL 2.0 converter version " + version_text(); }

const char kTail[] = "#WAL_CONVERTER:Done converting. Exiting.";

}  // namespace

TEST(CommandLine, VersionPrintsArgv0AndVersionAndExitsZeroAfterTheBanner) {
  RunResult r = run({"--version"});
  EXPECT_EQ(r.status, 0);
  std::vector<std::string> out = split_lines(r.out);
  ASSERT_EQ(out.size(), 2u);
  EXPECT_EQ(out[0], kBin);
  EXPECT_EQ(out[1].rfind("j480-vs9-OPTXPROF-64(", 0), 0u) << out[1];
  EXPECT_NE(out[1].find(") built on "), std::string::npos);
  EXPECT_NE(out[1].find(" with Microsoft Compiler version "), std::string::npos);
  // The revision piece is overwritten by the branch piece.
  EXPECT_EQ(out[1].find("-r"), std::string::npos);
  EXPECT_EQ(split_lines(r.err), std::vector<std::string>{banner()});

  std::string argv0 = "converter-under-another-name";
  RunResult named = j480test::run_binary(kBin, {"--version"}, {}, "", &argv0);
  EXPECT_EQ(split_lines(named.out)[0], argv0);
}

TEST(CommandLine, VersionAfterValidOptionsWinsWhateverFollows) {
  RunResult r = run({"--dbfarm", "/nowhere", "--dumplog", "--version", "--bogus", "--dbname"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(split_lines(r.out).size(), 2u);
  EXPECT_EQ(split_lines(r.err), std::vector<std::string>{banner()});
}

TEST(CommandLine, UnknownOptionOrMissingValuePrintsUsageAndReturnsMinusOneWithoutTail) {
  const std::vector<std::vector<std::string>> cases = {
      {"--help"},
      {"-h"},
      {"--dbfarm=/x"},
      {"--DBFARM", "/x"},
      {"--dbfarm"},
      {"--dbname", "db", "--dbfarm"},
      {"--dbname"},
      {"--bogus", "--version"},  // --version after an unknown option is never reached
      {""},
  };
  for (const auto& args : cases) {
    RunResult r = run(args);
    SCOPED_TRACE(args[0]);
    EXPECT_EQ(r.status, 255);
    EXPECT_EQ(r.out, usage_text());
    EXPECT_EQ(split_lines(r.err), std::vector<std::string>{banner()});
  }
}

TEST(CommandLine, MissingOrEmptyFarmOrNameEndsInTheTail) {
  const std::vector<std::vector<std::string>> cases = {
      {},
      {"--dbfarm", "/x"},
      {"--dbname", "db"},
      {"--dbfarm", "", "--dbname", "db"},
      {"--dbfarm", "/x", "--dbname", ""},
      {"--dumplog"},
  };
  for (const auto& args : cases) {
    RunResult r = run(args);
    EXPECT_EQ(r.status, 255);
    EXPECT_EQ(r.out, "");
    std::vector<std::string> expected = {
        banner(), "ERROR:WAL_CONVERTER:No database farm and/or name.", kTail};
    EXPECT_EQ(split_lines(r.err), expected);
  }
}

TEST(CommandLine, MissingCbmDirectoryNamesDatabaseThenFarm) {
  j480test::TempDir farm;
  j480test::make_dirs(farm.file("db1"));  // the database exists, its CBM does not
  RunResult r = run({"--dbfarm", farm.path(), "--dbname", "db1"});
  EXPECT_EQ(r.status, 255);
  std::vector<std::string> expected = {
      banner(),
      "ERROR:WAL_CONVERTER:Database 'db1' in path '" + farm.path() +
          "' does not exist or is invalid. Aborting.",
      kTail};
  EXPECT_EQ(split_lines(r.err), expected);
}

TEST(CommandLine, RepeatedOptionsTakeTheLastValueAndValuesAreTakenUnseen) {
  RunResult r = run({"--dbfarm", "/a", "--dbname", "x", "--dbfarm", "/b", "--dbname", "y"});
  EXPECT_NE(r.err.find("Database 'y' in path '/b' does not exist"), std::string::npos) << r.err;

  // "--dumplog" is the farm here, not the flag; the farm is still checked.
  r = run({"--dbfarm", "--dumplog", "--dbname", "--version"});
  EXPECT_EQ(r.status, 255);
  EXPECT_NE(r.err.find("Database '--version' in path '--dumplog' does not exist"),
            std::string::npos)
      << r.err;
}

TEST(RunSequence, AnEmptyCatalogIsNotConvertedAndLeavesFilesAlone) {
  j480test::TempDir farm;
  std::string cbm = farm.file("db/CBM");
  j480test::make_dirs(cbm);
  j480test::write_file(cbm + "/LOG", std::string("\xD2\x04", 2));
  j480test::write_file(cbm + "/location_map", "");
  RunResult r = run({"--dbname", "db", "--dbfarm", farm.path()});
  EXPECT_EQ(r.status, 255);
  std::vector<std::string> lines = split_lines(r.err);
  ASSERT_GE(lines.size(), 4u);
  EXPECT_EQ(lines[0], banner());
  EXPECT_EQ(lines[1], "#WAL_CONVERTER:Converting WAL for database 'db' in '" + farm.path() + "'");
  const std::vector<std::string> last = {"# WARN:LOGGER:Empty catalog, not converting.",
                                         "ERROR:WAL_CONVERTER:Failed writing 2.5 WAL", kTail};
  EXPECT_EQ(std::vector<std::string>(lines.end() - 3, lines.end()), last);
  EXPECT_EQ(j480test::read_file(cbm + "/LOG"), std::string("\xD2\x04", 2));
  EXPECT_FALSE(j480test::exists(cbm + "/LOG.new"));
  EXPECT_FALSE(j480test::exists(cbm + "/LOG.j480_20"));
}

TEST(CommandLine, RandomArgumentListsNeverCrashAndEndWithAKnownOutcome) {
  j480test::TempDir farm;
  j480test::make_dirs(farm.file("db/CBM"));
  const std::vector<std::string> words = {"--dbfarm", "--dbname", "--dumplog", "--version",
                                          "",         "db",       farm.path(), "-",
                                          "--",       "--dbfarm=x", std::string(5000, 'a'),
                                          "\xff\xfe", "%s%n%x",   "/dev/null"};
  uint64_t state = 12345;
  auto next = [&] {
    state = state * 6364136223846793005ULL + 1442695040888963407ULL;
    return static_cast<size_t>(state >> 33);
  };
  for (int iteration = 0; iteration < 150; iteration++) {
    std::vector<std::string> args;
    size_t n = next() % 6;
    for (size_t i = 0; i < n; i++) args.push_back(words[next() % words.size()]);
    RunResult r = run(args);
    SCOPED_TRACE(iteration);
    ASSERT_TRUE(r.status == 0 || r.status == 255) << r.status << "\n" << r.err;
    std::vector<std::string> lines = split_lines(r.err);
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines[0].rfind("#WAL_CONVERTER:J480 WAL 2.0 converter version ", 0), 0u);
    // Every run either stops at the parse (no tail) or passes the tail exactly once.
    size_t tails = 0;
    for (const auto& l : lines) tails += l == kTail;
    bool stopped_at_parse = r.status == 0 || r.out.rfind("J480 WAL 2.0 converter\n", 0) == 0;
    EXPECT_EQ(tails, stopped_at_parse ? 0u : 1u);
  }
}

TEST(RunSequence, DumplogWritesTheOldLogAsXmlBeforeTheReplay) {
  j480test::TempDir tmp;
  // A farm path of more than 512 bytes is legal here and must not be cut.
  for (const std::string& farm : {tmp.path(), tmp.file(std::string(250, 'a') + "/" +
                                                       std::string(250, 'b') + "/c")}) {
    SCOPED_TRACE(farm.size());
    std::string cbm = farm + "/db/CBM";
    j480test::make_dirs(cbm);
    j480test::LogBytes log;
    // tr_new 7, cat_location_new 5 "loc" usage 1, tr_end 7
    log.head().i32(0).lng(7).i32(28).lng(5).str("loc").i32(1).i32(1).lng(7);
    j480test::write_file(cbm + "/LOG", log.bytes());
    RunResult r = run({"--dumplog", "--dbfarm", farm, "--dbname", "db"});
    EXPECT_EQ(r.status, 255);
    const std::string xml =
        "<wal base_version=\"4851035686591004672\" cur_version=\"0\">\n"
        "<tr trid=\"7\">\n"
        "<cat_location_new location_id=\"5\" name=\"loc\" usage=\"1\" path=\"(null)\"/>\n"
        "</tr trid=\"7\">\n"
        "</wal>\n";
    EXPECT_EQ(j480test::read_file(cbm + "/_LOG_XML_20"), xml);
    EXPECT_NE(r.err.find("#LOGGER:<cat_location_new location_id=\"5\" name=\"loc\""),
              std::string::npos)
        << r.err;
    EXPECT_NE(r.err.find("ERROR:WAL_CONVERTER:Failed writing 2.5 WAL"), std::string::npos);
    EXPECT_EQ(j480test::read_file(cbm + "/LOG"), log.bytes());
  }
}

TEST(RunSequence, AReplayThatFailsSaysWhyThenThatTheReplayFailed) {
  j480test::TempDir farm;
  std::string cbm = farm.file("db/CBM");
  j480test::make_dirs(cbm);
  j480test::LogBytes log;
  log.head().i32(0).lng(7).i32(29).lng(9).i32(1).lng(7);  // tr_new 7, cat_location_del 9, tr_end 7
  j480test::write_file(cbm + "/LOG", log.bytes());
  RunResult r = run({"--dbfarm", farm.path(), "--dbname", "db"});
  EXPECT_EQ(r.status, 255);
  std::vector<std::string> lines = split_lines(r.err);
  ASSERT_GE(lines.size(), 3u);
  const std::vector<std::string> last = {
      "ERROR:CBM:failed to replay drop location: no such location_id 9",
      "ERROR:WAL_CONVERTER:Failed replaying 2.0 WAL", kTail};
  EXPECT_EQ(std::vector<std::string>(lines.end() - 3, lines.end()), last);
  EXPECT_EQ(j480test::read_file(cbm + "/LOG"), log.bytes());
}

TEST(RunSequence, DumplogOfAnAlreadyConvertedLogStopsWithTheVersionMessage) {
  j480test::TempDir farm;
  std::string cbm = farm.file("db/CBM");
  j480test::make_dirs(cbm);
  j480test::LogBytes log;
  log.head(0x435257414C000001LL);  // format 2.5
  j480test::write_file(cbm + "/LOG", log.bytes());
  RunResult r = run({"--dbfarm", farm.path(), "--dbname", "db", "--dumplog"});
  EXPECT_EQ(r.status, 255);
  std::vector<std::string> lines = split_lines(r.err);
  ASSERT_GE(lines.size(), 2u);
  EXPECT_EQ(lines[lines.size() - 2],
            "ERROR:LOGGER:Incompatible database version detected, database already converted.");
  EXPECT_EQ(lines.back(), kTail);
  EXPECT_EQ(r.err.find("Failed replaying 2.0 WAL"), std::string::npos);
  EXPECT_FALSE(j480test::exists(cbm + "/_LOG_XML_20"));
}

TEST(RunSequence, AFailedOrKilledSystemCallAnywhereEndsCleanlyAndLeavesTheDatabaseAlone) {
#ifndef J480_FAULT_INJECTION
  GTEST_SKIP() << "the tool reads J480_FAULT_AT only when built with -DJ480_FAULT_INJECTION=ON";
#endif
  j480test::TempDir farm;
  std::string cbm = farm.file("db/CBM");
  j480test::make_dirs(cbm);
  j480test::LogBytes log;
  log.head().i32(0).lng(7).i32(28).lng(5).str("loc").i32(1).i32(1).lng(7);
  j480test::write_file(cbm + "/LOG", log.bytes());
  j480test::write_file(cbm + "/location_map", "loc,/data\n");
  const std::vector<std::string> args = {"--dumplog", "--dbfarm", farm.path(), "--dbname", "db"};
  const std::string clean = j480test::run_binary(kBin, args).err;
  // Every call of the run: up to the first k where every call from the k-th on fails and the run
  // is still the unfaulted one.
  bool past_the_end = false;
  for (int k = 1; k <= 400 && !past_the_end; k++) {
    // EIO at the k-th call, ENOSPC at it and every later one, a kill at it.
    for (const char* mode : {":5", ":28:sticky", ":kill"}) {
      std::string fault = std::to_string(k) + mode;
      SCOPED_TRACE(fault);
      RunResult r = j480test::run_binary(kBin, args, {{"J480_FAULT_AT", fault}});
      if (std::string(mode) == ":kill") {
        EXPECT_TRUE(r.status == 137 || r.status == 255) << r.status << r.err;
      } else {
        EXPECT_EQ(r.status, 255) << r.err;
        EXPECT_EQ(split_lines(r.err).back(), kTail);
        past_the_end |= std::string(mode) == ":28:sticky" && r.err == clean;
      }
      EXPECT_EQ(j480test::read_file(cbm + "/LOG"), log.bytes());
      EXPECT_EQ(j480test::read_file(cbm + "/location_map"), "loc,/data\n");
      EXPECT_FALSE(j480test::exists(cbm + "/LOG.new"));
    }
  }
  EXPECT_TRUE(past_the_end);
}

// Two processes on one database: a holder of the block manager's lock in a child process, and
// the tool. The tool is refused with the lock file's bytes unchanged; once the holder is gone,
// by exit or by SIGKILL, the tool runs to its end again.
TEST(RunSequence, ARunOnADatabaseInUseIsRefusedUntilTheHolderIsGone) {
  j480test::TempDir farm;
  const std::string cbm = farm.file("db/CBM");
  j480test::make_dirs(cbm);
  for (bool kill_it : {false, true}) {
    int ready[2], go[2];
    ASSERT_EQ(pipe(ready), 0);
    ASSERT_EQ(pipe(go), 0);
    pid_t holder = fork();
    ASSERT_GE(holder, 0);
    if (holder == 0) {
      cvconfig* config = cvconfig_create();
      cvconfig_layer* layer = cvconfig_layer_create(nullptr, "cmdline", cvconfig_defaults(config));
      cvconfig_set_str(layer, CVGROUP_SERVER, CVPROP_DBFARM_PATH, farm.path().c_str());
      cvconfig_set_str(layer, CVGROUP_SERVER, CVPROP_DBNAME, "db");
      char c = iobm_create(layer) != nullptr ? 'y' : 'n';
      if (write(ready[1], &c, 1) != 1 || read(go[0], &c, 1) != 1) _exit(3);
      _exit(0);  // without iobm_destroy: the lock goes with the process
    }
    char c = 0;
    ASSERT_EQ(read(ready[0], &c, 1), 1);
    ASSERT_EQ(c, 'y');
    const std::string held = j480test::read_file(cbm + "/lock");
    EXPECT_EQ(held, "48130\n" + std::to_string(holder) + "\n");
    RunResult r = run({"--dbfarm", farm.path(), "--dbname", "db"});
    EXPECT_EQ(r.status, 255);
    std::vector<std::string> lines = split_lines(r.err);
    ASSERT_GE(lines.size(), 3u);
    const std::vector<std::string> last = {
        "ERROR:CBM:iobm_create: database " + cbm + " already in use",
        "ERROR:WAL_CONVERTER:Failed to initialize 2.0 storage structures", kTail};
    EXPECT_EQ(std::vector<std::string>(lines.end() - 3, lines.end()), last);
    EXPECT_EQ(j480test::read_file(cbm + "/lock"), held);
    if (kill_it) kill(holder, SIGKILL);
    ASSERT_EQ(write(go[1], "x", 1), 1);
    int status = 0;
    ASSERT_EQ(waitpid(holder, &status, 0), holder);
    EXPECT_TRUE(kill_it ? WIFSIGNALED(status) : WIFEXITED(status) && WEXITSTATUS(status) == 0);
    for (int fd : {ready[0], ready[1], go[0], go[1]}) close(fd);
    r = run({"--dbfarm", farm.path(), "--dbname", "db"});
    EXPECT_EQ(r.err.find("already in use"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("Empty catalog, not converting."), std::string::npos) << r.err;
  }
}
