// The log's bytes: time text, entry format, entries held before the log
// opens, and the AT message dump.
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <regex>
#include <string>

#include "core/log.h"
#include "tests/support/process.h"

namespace {

timeval utc(int h, int m, int s, long usec) {
  // 2026-11-22 is day 20779 of the epoch.
  return timeval{static_cast<time_t>(20779L * 86400 + h * 3600 + m * 60 + s), static_cast<suseconds_t>(usec)};
}

TEST(TimeText, RoundsMillisecondsWithoutCarryingTheSecond) {
  setenv("TZ", "UTC", 1);
  tzset();
  struct Row {
    timeval tv;
    const char* text;
  } rows[] = {
      {utc(0, 0, 0, 0), "00:00:00.000"},
      {utc(14, 3, 7, 42000), "14:03:07.042"},
      {utc(12, 34, 56, 499), "12:34:56.000"},
      {utc(12, 34, 56, 500), "12:34:56.001"},
      {utc(12, 34, 56, 999499), "12:34:56.999"},
      {utc(12, 34, 56, 999500), "12:34:56.1000"},
      {utc(23, 59, 59, 999700), "23:59:59.1000"},
  };
  for (const Row& row : rows) {
    char text[32];
    format_time_text(row.tv, text, sizeof text);
    EXPECT_STREQ(text, row.text) << row.tv.tv_usec;
  }
}

TEST(LogEntry, IsTimeTextBlankPrefixAndMessage) {
  zt::TempRoot root;
  ASSERT_NE(log_open(root.log_path().c_str()), nullptr);
  ZLOG_INFO("%s entry\n", "main");
  ZLOG_ERROR("cannot created at thread %s\n", "why");
  ZLOG_INFO("no line end, ");
  ZLOG_INFO("next entry on the same line\n");
  static const std::regex format(
      "[0-9:]{8}\\.[0-9]{3,4} main entry\n"
      "[0-9:]{8}\\.[0-9]{3,4} err: cannot created at thread why\n"
      "[0-9:]{8}\\.[0-9]{3,4} no line end, [0-9:]{8}\\.[0-9]{3,4} next entry on the same line\n");
  std::string log = zt::read_file(root.log_path());
  EXPECT_TRUE(std::regex_match(log, format)) << log;
}

TEST(LogEntry, EntriesBeforeTheLogOpensAreWrittenAtItsHead) {
  zt::TempRoot root;
  ZLOG_ERROR("socketpair()\n");
  ASSERT_NE(log_open(root.log_path().c_str()), nullptr);
  ZLOG_INFO("%s entry\n", "main");
  EXPECT_EQ(zt::without_time_text(zt::read_file(root.log_path())), "err: socketpair()\nmain entry\n");
}

TEST(LogEntry, HeldEntriesAreBoundedAndWhole) {
  EXPECT_EQ(log_open("/nonexistent-dir/zord.log"), nullptr);
  for (int i = 0; i < 1000; ++i) ZLOG_INFO("entry %d of a log that is not open\n", i);
  zt::TempRoot root;
  ASSERT_NE(log_open(root.log_path().c_str()), nullptr);
  std::string log = zt::read_file(root.log_path());
  EXPECT_LE(log.size(), LOG_PENDING_SIZE);
  EXPECT_EQ(zt::without_time_text(log).rfind("entry 0 of", 0), 0u);
  EXPECT_EQ(log.back(), '\n');
  EXPECT_EQ(log.find("entry 999 "), std::string::npos);
}

TEST(AtMessageDump, WritesHexAndCharactersSixteenBytesALine) {
  struct Row {
    const char* name;
    int32_t level;
    std::string bytes;
    std::string dump;  // after the "pStr" entry, time text taken out
  } rows[] = {
      {"empty", 1, "", " --- \n\n"},
      {"sixteen with a percent", 1, "Hello%World12345",
       " 48 65 6C 6C 6F 25 57 6F 72 6C 64 31 32 33 34 35 --- Hello+World12345\n\n"},
      {"twenty", 1, "ABCDEFGHIJKLMNOPQRST",
       " 41 42 43 44 45 46 47 48 49 4A 4B 4C 4D 4E 4F 50 --- ABCDEFGHIJKLMNOP\n"
       " 51 52 53 54 --- QRST\n\n"},
      {"high byte", 1, "\x80", " FFFFFF80 --- .\n\n"},
      {"lone percent kept in the closing line", 1, "%", " 25 --- %\n\n"},
      {"line ends", 1, "\r\nOK\r\n", " 0D 0A 4F 4B 0D 0A --- ..OK..\n\n"},
      {"error level", 0, "A", "err:  41 --- A\n\n"},
  };
  for (const Row& row : rows) {
    zt::TempRoot root;
    ASSERT_NE(log_open(root.log_path().c_str()), nullptr);
    LOG_AT_MSG(row.level, static_cast<int32_t>(row.bytes.size()), row.bytes.data());
    std::string log = zt::without_time_text(zt::read_file(root.log_path()));
    static const std::regex pstr("^pStr is initialized to [0-9A-F]+\n");
    EXPECT_TRUE(std::regex_search(log, pstr)) << row.name;
    EXPECT_EQ(std::regex_replace(log, pstr, ""), row.dump) << row.name;
    fclose(logfile);
    logfile = nullptr;
  }
}

}  // namespace
