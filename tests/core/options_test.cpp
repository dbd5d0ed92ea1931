// Options: the settings they fill, and the usage text with exit status 1.
#include <getopt.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <regex>
#include <string>
#include <vector>

#include "core/log.h"
#include "core/options.h"
#include "tests/support/process.h"

namespace {

TEST(Options, FillTheSettings) {
  struct Row {
    std::vector<std::string> args;
    int32_t timeout;
    int32_t severity;
    bool daemonize;
  } rows[] = {
      {{}, 1500000, 1, false},
      {{"-t", "0"}, 0, 1, false},
      {{"-t", "abc"}, 0, 1, false},
      {{"-t", "-1"}, 1500000, 1, false},
      {{"-t", "-7"}, -7, 1, false},
      {{"--station_timeout=42"}, 42, 1, false},
      {{"-t", "5", "-t", "9"}, 9, 1, false},
      {{"-v", "0"}, 1500000, 0, false},
      {{"-v", "5"}, 1500000, 5, false},
      {{"--log_severity=3"}, 1500000, 3, false},
      {{"-d"}, 1500000, 1, true},
      {{"--daemonize", "-t", "100"}, 100, 1, true},
  };
  for (const Row& row : rows) {
    std::vector<std::string> words = {"zord"};
    words.insert(words.end(), row.args.begin(), row.args.end());
    std::vector<char*> argv;
    for (auto& w : words) argv.push_back(w.data());
    argv.push_back(nullptr);

    optind = 0;  // start getopt afresh for each row
    station_timeout = -1;
    requested_log_severity = 1;
    bool daemonize = false;
    parse_options(static_cast<int>(words.size()), argv.data(), &daemonize);

    std::string name = ::testing::PrintToString(row.args);
    EXPECT_EQ(station_timeout, row.timeout) << name;
    EXPECT_EQ(requested_log_severity, row.severity) << name;
    EXPECT_EQ(daemonize, row.daemonize) << name;
    EXPECT_EQ(app_env, 1) << name << ": the log's gate never follows -v";
  }
}

TEST(Options, UsageGoesToStandardOutputWithStatusOne) {
  const std::string usage_tail =
      "\nUsage: " ZORD_BIN ":\n"
      "[-v 'log_severity (0-INIT, 1-ERROR, 2-WARNING, 3-INFO, 4-VERBOSE, 5-DEBUG)' ]\n"
      "[-d/--daemonize]\n"
      "[-t/--station_timeout timeout in msec for station incativity]\n"
      "[-h --help]\n";
  static const std::regex head("^Orvane ZOR Daemon\\. -  compilation time [A-Z][a-z]{2} [ 0-3][0-9] [0-9]{4}:[0-2][0-9]:[0-5][0-9]:[0-5][0-9]");
  for (const char* option : {"-h", "--help", "-x", "-v"}) {
    zt::Child child = zt::spawn({ZORD_BIN, option}, {}, true);
    std::string out = zt::read_until_eof(child.out_fd, 20000);
    int status = 0;
    ASSERT_TRUE(zt::wait_exit(child.pid, &status, 20000)) << option;
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << option << " status " << status;
    std::smatch m;
    ASSERT_TRUE(std::regex_search(out, m, head)) << option << ": " << out;
    EXPECT_EQ(out.substr(static_cast<size_t>(m.length(0))), usage_tail) << option;
  }
}

}  // namespace
