// A signal or a fault ends the process with one last entry and status 0,
// however busy the other threads are with the log.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <string>

#include "tests/support/process.h"

namespace {

constexpr int WAIT_MS = 20000;

std::string last_entry(const std::string& log) {
  size_t end = log.size() > 0 ? log.size() - 1 : 0;
  size_t start = log.rfind('\n', end == 0 ? 0 : end - 1);
  return zt::without_time_text(log.substr(start == std::string::npos ? 0 : start + 1));
}

// Starts the probe, waits for its workers, then ends it with `signal_number`
// (0: the probe ends itself). Returns the exit status, -1 if it did not end.
int run_probe(const zt::TempRoot& root, const char* mode, int signal_number) {
  zt::Child child = zt::spawn({LOG_SIGNAL_PROBE_BIN, root.log_path(), mode}, {}, true);
  zt::KillOnExit guard(child.pid);
  EXPECT_TRUE(zt::read_until(child.out_fd, "ready\n", WAIT_MS)) << mode;
  if (signal_number != 0) kill(child.pid, signal_number);
  int status = -1;
  if (!zt::wait_exit(child.pid, &status, WAIT_MS)) {
    kill(child.pid, SIGKILL);
    zt::wait_exit(child.pid, &status, WAIT_MS);
    return -1;
  }
  return status;
}

TEST(SignalExit, SigtermWhileThreadsLogAlwaysEndsWithTheEntry) {
  for (int run = 0; run < 20; ++run) {
    zt::TempRoot root;
    int status = run_probe(root, "load", SIGTERM);
    ASSERT_NE(status, -1) << "run " << run << " hung";
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "run " << run << " status " << status;
    EXPECT_EQ(last_entry(zt::read_file(root.log_path())),
              "err: signal_handler: signal_number=15, so app is terminated!\n")
        << "run " << run;
  }
}

TEST(SignalExit, FaultsInAWorkerThreadEndWithTheEntry) {
  struct Row {
    const char* mode;
    const char* entry;
  } rows[] = {
      {"segv", "err: signal_handler: Detected the 'Segmentation Fault' error, so app is terminated!\n"},
      {"abort", "err: signal_handler: signal_number=6, so app is terminated!\n"},
  };
  for (const Row& row : rows) {
    zt::TempRoot root;
    int status = run_probe(root, row.mode, 0);
    ASSERT_NE(status, -1) << row.mode << " hung";
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << row.mode << " status " << status;
    EXPECT_EQ(last_entry(zt::read_file(root.log_path())), row.entry) << row.mode;
  }
}

}  // namespace
