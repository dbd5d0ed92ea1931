// The built daemon, started in a temporary root: its start-up entries, how a
// signal ends it, daemon mode, and the development seams.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <string>
#include <vector>

#include "tests/support/process.h"

namespace {

constexpr int WAIT_MS = 20000;
const std::string STARTED = "ZOR main finished tarting threads\n";

std::vector<std::string> seams(const zt::TempRoot& root) {
  return {"ZORD_ROOT=" + root.path(), "ZORD_PORT=" + std::to_string(zt::free_tcp_port())};
}

// Offset of `entry` in the log without time text, or npos.
size_t at(const std::string& log, const std::string& entry) { return log.find(entry); }

TEST(Daemon, StartsInOrderAndEndsOnEachSignalWithStatusZero) {
  struct Row {
    std::vector<std::string> options;
    int signal_number;
    std::string entry;
  } rows[] = {
      {{}, SIGTERM, "err: signal_handler: signal_number=15, so app is terminated!\n"},
      {{"-v", "0"}, SIGINT, "err: signal_handler: signal_number=2, so app is terminated!\n"},
      {{"--log_severity=5"}, SIGQUIT, "err: signal_handler: signal_number=3, so app is terminated!\n"},
      {{}, SIGSEGV, "err: signal_handler: Detected the 'Segmentation Fault' error, so app is terminated!\n"},
  };
  for (const Row& row : rows) {
    zt::TempRoot root;
    std::vector<std::string> argv = {ZORD_BIN};
    argv.insert(argv.end(), row.options.begin(), row.options.end());
    zt::Child child = zt::spawn(argv, seams(root));
    zt::KillOnExit guard(child.pid);
    ASSERT_TRUE(zt::wait_for_text(root.log_path(), STARTED, WAIT_MS)) << row.entry;

    std::string log = zt::without_time_text(zt::read_file(root.log_path()));
    size_t main_entry = at(log, "main entry\n");
    size_t starting = at(log, "STARTING ZOR Daemon compile time ");
    size_t started = at(log, STARTED);
    EXPECT_EQ(main_entry, 0u) << log;
    EXPECT_LT(main_entry, starting) << log;
    EXPECT_LT(starting, started) << log;
    // The threads' own entries may come before or after main's last one.
    for (const char* entry : {"AtThreadMain entry\n", "zor_StartServer entry\n",
                              "Create and wait for AT command thread listener start\n"})
      EXPECT_TRUE(zt::wait_for_text(root.log_path(), entry, WAIT_MS)) << entry;

    int status = -1;
    ASSERT_TRUE(zt::end_by_signal(child.pid, row.signal_number, root.log_path(), &status, WAIT_MS)) << row.entry;
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << row.entry << " status " << status;
    log = zt::without_time_text(zt::read_file(root.log_path()));
    ASSERT_GE(log.size(), row.entry.size());
    EXPECT_EQ(log.substr(log.size() - row.entry.size()), row.entry);
  }
}

TEST(Daemon, DetachesWithDashD) {
  zt::TempRoot root;
  std::vector<std::string> env = seams(root);
  zt::Child launcher = zt::spawn({ZORD_BIN, "-d"}, env);
  int status = -1;
  ASSERT_TRUE(zt::wait_exit(launcher.pid, &status, WAIT_MS));
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);

  ASSERT_TRUE(zt::wait_for_text(root.log_path(), STARTED, WAIT_MS));
  std::vector<pid_t> daemons = zt::pids_with_env(env[0]);
  ASSERT_EQ(daemons.size(), 1u);
  zt::KillOnExit guard(daemons[0]);
  EXPECT_NE(daemons[0], launcher.pid);
  EXPECT_TRUE(zt::end_by_signal(daemons[0], SIGTERM, root.log_path(), nullptr, WAIT_MS));
  EXPECT_TRUE(zt::wait_for_text(root.log_path(), "signal_number=15, so app is terminated!\n", WAIT_MS));
}

TEST(Daemon, RefusesUnusableSeams) {
  struct Row {
    std::string env;
    std::string message;
  } rows[] = {
      {"ZORD_PORT=70000", "ZORD_PORT must be a port number from 1 to 65535: 70000\n"},
      {"ZORD_PORT=66x", "ZORD_PORT must be a port number from 1 to 65535: 66x\n"},
      {"ZORD_ROOT=relative/dir", "ZORD_ROOT must be an absolute path: relative/dir\n"},
      {"ZORD_ROOT=/" + std::string(60, 'r'), "ZORD_ROOT must be at most 40 characters long\n"},
  };
  for (const Row& row : rows) {
    zt::Child child = zt::spawn({ZORD_BIN}, {row.env}, true);
    std::string err = zt::read_until_eof(child.err_fd, WAIT_MS);
    int status = -1;
    ASSERT_TRUE(zt::wait_exit(child.pid, &status, WAIT_MS)) << row.env;
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << row.env;
    EXPECT_EQ(err, std::string(ZORD_BIN) + ": " + row.message);
  }
}

}  // namespace
