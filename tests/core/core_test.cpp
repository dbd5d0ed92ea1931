// The core's own bytes: time text, log entries (held until the log opens),
// the AT message dump, and the last entry of a process that a signal ends.
// (The options show through the daemon itself.)
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <regex>
#include <thread>

#include "core/log.h"
#include "core/signals.h"
#include "tests/support/support.h"

// Milliseconds are rounded; 999.5 and up show as ".1000", the second unchanged.
TEST(TimeText, RoundsMillisecondsWithoutCarryingTheSecond) {
  setenv("TZ", "UTC", 1);
  tzset();
  const time_t AT_14_03_07 = 20779L * 86400 + 14 * 3600 + 3 * 60 + 7;  // UTC, on a day in 2026
  struct Row {
    long usec;
    const char* text;
  } rows[] = {
      {42000, "14:03:07.042"},
      {499, "14:03:07.000"},
      {500, "14:03:07.001"},
      {999500, "14:03:07.1000"},
  };
  for (const Row& row : rows) {
    char text[32];
    format_time_text(timeval{AT_14_03_07, row.usec}, text, sizeof text);
    EXPECT_STREQ(text, row.text) << row.usec;
  }
}

// Entries made before the log opens are held, whole and bounded, and go to
// its head; later entries follow, each with its own time text.
TEST(Log, HoldsWholeEntriesUntilItOpensThenAppends) {
  for (int i = 0; i < 1000; ++i) ZLOG_ERROR("held %d\n", i);
  zt::TempRoot root;
  ASSERT_NE(log_open(root.log_path().c_str()), nullptr);
  std::string held = zt::read_file(root.log_path());
  ASSERT_EQ(zt::without_time_text(held).rfind("err: held 0\nerr: held 1\n", 0), 0u);
  EXPECT_TRUE(held.size() <= LOG_PENDING_SIZE && held.back() == '\n') << held.size();
  EXPECT_EQ(zt::count_of(held, " err: held "), zt::count_of(held, "\n")) << "a cut entry";
  ZLOG_INFO("no line end, ");
  ZLOG_INFO("%s entry\n", "next");
  const std::string time = "[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3,4} ";
  EXPECT_TRUE(std::regex_match(zt::read_file(root.log_path()).substr(held.size()),
                               std::regex(time + "no line end, " + time + "next entry\n")));
}

// High bytes are sign-extended and shown as "."; the closing line keeps a
// "%"; level 0 makes an error entry.
TEST(AtMessageDump, WritesHexAndCharactersSixteenBytesALine) {
  zt::TempRoot root;
  ASSERT_NE(log_open(root.log_path().c_str()), nullptr);
  const std::string SIXTEEN = "Hello%World12345", TWENTY = "ABCDEFGHIJKLMNOPQRST";
  const std::string HEX_16 = " 48 65 6C 6C 6F 25 57 6F 72 6C 64 31 32 33 34 35";
  const std::string HEX_20 = " 41 42 43 44 45 46 47 48 49 4A 4B 4C 4D 4E 4F 50";
  struct Row {
    int32_t level;
    std::string bytes, dump;
  } rows[] = {
      {1, "", " --- \n\n"},
      {1, SIXTEEN, HEX_16 + " --- Hello+World12345\n\n"},
      {1, TWENTY, HEX_20 + " --- ABCDEFGHIJKLMNOP\n 51 52 53 54 --- QRST\n\n"},
      {1, "\x80\x7F", " FFFFFF80 7F --- .\x7F\n\n"},
      {0, "%\r\nOK", "err:  25 0D 0A 4F 4B --- %..OK\n\n"},
  };
  const std::regex pstr("pStr is initialized to [0-9A-F]+\n");
  for (const Row& row : rows) {
    size_t before = zt::without_time_text(zt::read_file(root.log_path())).size();
    LOG_AT_MSG(row.level, static_cast<int32_t>(row.bytes.size()), row.bytes.data());
    std::string dump = zt::without_time_text(zt::read_file(root.log_path())).substr(before);
    EXPECT_EQ(std::regex_replace(dump, pstr, "pStr\n"), "pStr\n" + row.dump) << row.bytes;
  }
}

void segv() {
  void* page = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  *static_cast<volatile int*>(page) = 1;
}

// A child whose three threads log without pause is ended by a signal sent to
// it or by a fault in one of its threads: the last entry is always whole.
TEST(SignalExit, LeavesTheLastEntryWholeWhileThreadsLog) {
  const std::string END = "err: signal_handler: signal_number=";
  const std::string SEGV = "err: signal_handler: Detected the 'Segmentation Fault' error";
  struct Row {
    int sig;  // sent once the threads are busy; 0: none
    void (*fault)();
    int runs;
    std::string entry;
  } rows[] = {
      {.sig = SIGTERM, .fault = nullptr, .runs = 20, .entry = END + "15"},
      {.sig = 0, .fault = segv, .runs = 1, .entry = SEGV},
      {.sig = 0, .fault = abort, .runs = 1, .entry = END + "6"},
  };
  for (const Row& row : rows) {
    for (int run = 0; run < row.runs; ++run) {
      zt::TempRoot root;
      fflush(nullptr);
      pid_t pid = fork();
      if (pid == 0) {
        log_open(root.log_path().c_str());
        setup_signals();
        for (int w = 0; w < 3; ++w)
          std::thread([w, &row] {
            for (int n = 0;; ++n) {
              ZLOG_INFO("worker %d entry %d\n", w, n);
              if (n % 16 == 0) LOG_AT_MSG(1, 7, "\r\nOK\r\n%");
              if (w == 0 && n == 300 && row.fault != nullptr) row.fault();
            }
          }).detach();
        for (;;) pause();
      }
      if (row.sig != 0 && zt::wait_for_text(root.log_path(), "worker 2 entry 99\n", zt::WAIT_MS))
        kill(pid, row.sig);
      int status = -1;
      bool ended =
          zt::wait_until([&] { return waitpid(pid, &status, WNOHANG) == pid; }, zt::WAIT_MS);
      if (!ended) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
      }
      EXPECT_TRUE(ended && WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
      std::string log = zt::without_time_text(zt::read_file(root.log_path()));
      EXPECT_EQ(log.substr(log.rfind('\n', log.size() - 2) + 1),
                row.entry + ", so app is terminated!\n")
          << "run " << run;
    }
  }
}
