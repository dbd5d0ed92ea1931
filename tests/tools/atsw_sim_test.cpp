// The AT switch simulator through its real sockets: answers and their
// framing, faults, the configuration file, reports and the record.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "tests/support/process.h"
#include "tools/atsw-sim/atsw_sim.h"

namespace {

constexpr int WAIT_MS = 10000;

struct Running {
  zt::TempRoot root;
  atsw::Simulator sim;
  int fd = -1;

  explicit Running(atsw::Simulator::Options options = {}) : sim(with_root(options, root.path())) {
    std::string error;
    EXPECT_TRUE(sim.start(&error)) << error;
    fd = zt::connect_unix(sim.socket_path(options.cmd_socket));
    EXPECT_GE(fd, 0);
  }
  ~Running() {
    if (fd >= 0) close(fd);
  }
  static atsw::Simulator::Options with_root(atsw::Simulator::Options o, const std::string& root) {
    o.root = root;
    return o;
  }
  void send(const std::string& bytes) const { ASSERT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size())); }
  std::string read_until(const std::string& end) const {
    std::string got;
    zt::read_until(fd, end, WAIT_MS, &got);
    return got;
  }
  // True when nothing arrives for `ms` (used only to show silence).
  bool quiet_for(int ms) const {
    pollfd p{fd, POLLIN, 0};
    return poll(&p, 1, ms) == 0;
  }
};

const std::string OK = "\r\nOK\r\n";

TEST(AtswSim, AnswersFromTheModelWithModemFraming) {
  struct Row {
    std::vector<std::string> control;
    std::string command;
    std::string answer;
  } rows[] = {
      {{}, "AT+CEREG?\n\r\n", "\r\n+CEREG: 2,1,\"1A2B\",\"01A2D101\",7\r\n" + OK},
      {{"n 1"}, "AT+CEREG?\n\r\n", "\r\n+CEREG: 1,1\r\n" + OK},
      {{"deregister 2"}, "AT+CEREG?\n\r\n", "\r\n+CEREG: 2,2\r\n" + OK},
      {{"quote off", "spacing on", "register roaming"}, "AT+CEREG?\r\n", "\r\n+CEREG: 2, 5, 1A2B, 01A2D101, 7\r\n" + OK},
      {{}, "AT+COPS=3,2\n\r\n", OK},
      {{"plmn 26201"}, "AT+COPS?\n\r\n", "\r\n+COPS: 0,2,\"26201\",7\r\n" + OK},
      {{"duplex TDD"}, "AT%PCONI\n\r\n",
       "\r\n%PCONI: camped\r\nserving cell: earfcn 6300, pci 101\r\nduplexing mode: TDD\r\nbandwidth: 20 MHz\r\n" + OK},
      {{}, "AT+CIMI\n\r\n", "\r\n+CIMI: 310410123456789\r\n" + OK},
      {{}, "at+cimi\n", "\r\n+CIMI: 310410123456789\r\n" + OK},
      {{}, "ATat+cimi\n", "\r\nERROR\r\n"},
      {{}, "AT%MBMSCMD=\"ACTIVATE\",1,\"0000010F1001\"\n\r\n", OK},
      {{}, "ATE0\n", OK},
      {{}, "ATI\r\n", "\r\natsw-sim modem model 1\r\n" + OK},
      {{}, "AT+CSQ\n", "\r\nERROR\r\n"},
      {{"fail 1 cme 10"}, "AT+CEREG?\n\r\n", "\r\n+CME ERROR: 10\r\n"},
      {{"fail 1"}, "AT+CIMI\n\r\n", "\r\nERROR\r\n"},
      {{"answer AT+CIMI \\r\\n001010123456789\\r\\n\\r\\nOK\\r\\n"}, "AT+CIMI\n", "\r\n001010123456789\r\n" + OK},
  };
  for (const Row& row : rows) {
    Running s;
    for (const auto& c : row.control) ASSERT_EQ(s.sim.control(c), "ok\n") << c;
    s.send(row.command);
    std::string got = s.read_until(row.answer);
    EXPECT_EQ(got, row.answer) << atsw::escape(row.command);
  }
}

TEST(AtswSim, AnswersSeveralCommandsInOrderAndRecordsThemByteForByte) {
  Running s;
  const std::string sent = "AT+COPS=3,2\n\r\nAT+CIMI\n\r\n \nAT%MBMSCMD=\"DEACTIVATE\",1,\"0000010F1001\"\n\r";
  s.send(sent);
  const std::string expected = OK + "\r\n+CIMI: 310410123456789\r\n" + OK + OK;
  EXPECT_EQ(s.read_until(expected), expected);

  std::vector<atsw::Received> record = s.sim.record();
  ASSERT_EQ(record.size(), 3u);
  EXPECT_EQ(record[0].text, "AT+COPS=3,2");
  EXPECT_EQ(record[1].text, "AT+CIMI");
  EXPECT_EQ(record[2].text, "AT%MBMSCMD=\"DEACTIVATE\",1,\"0000010F1001\"");
  EXPECT_EQ(record[2].connection, 1);
  EXPECT_EQ(s.sim.received_bytes(1), sent);
  ASSERT_EQ(s.sim.sessions().size(), 1u);
  EXPECT_FALSE(s.sim.sessions()[0].activate);
  EXPECT_EQ(s.sim.sessions()[0].args, "1,\"0000010F1001\"");
}

TEST(AtswSim, TakesAnEndlessLineInBoundedPieces) {
  Running s;
  s.send(std::string(5000, 'A'));
  EXPECT_EQ(s.read_until("\r\nERROR\r\n"), "\r\nERROR\r\n");
  s.send("\nAT+CIMI\n");
  s.read_until("\r\n+CIMI: 310410123456789\r\n" + OK);
  std::vector<atsw::Received> record = s.sim.record();
  ASSERT_EQ(record.size(), 3u);
  EXPECT_EQ(record[0].text.size(), 4096u);
  EXPECT_EQ(record[1].text, std::string(5000 - 4096, 'A'));
  EXPECT_EQ(record[2].text, "AT+CIMI");
}

TEST(AtswSim, SplitsAnAnswerOverTwoWrites) {
  Running s;
  ASSERT_EQ(s.sim.control("split 300"), "ok\n");
  s.send("AT+CIMI\n");
  const std::string answer = "\r\n+CIMI: 310410123456789\r\n" + OK;
  pollfd p{s.fd, POLLIN, 0};
  ASSERT_EQ(poll(&p, 1, WAIT_MS), 1);
  char first[256];
  ssize_t n = read(s.fd, first, sizeof first);
  ASSERT_GT(n, 0);
  EXPECT_EQ(std::string(first, static_cast<size_t>(n)), answer.substr(0, answer.size() / 2));
  EXPECT_EQ(std::string(first, static_cast<size_t>(n)) + s.read_until(answer.substr(answer.size() / 2)), answer);
}

TEST(AtswSim, SilenceAndClosingOnDemand) {
  Running s;
  ASSERT_EQ(s.sim.control("silent on"), "ok\n");
  s.send("AT+CEREG?\n");
  EXPECT_TRUE(s.quiet_for(300));
  ASSERT_EQ(s.sim.control("silent off"), "ok\n");
  ASSERT_EQ(s.sim.control("close"), "ok\n");
  s.send("AT+CIMI\n");
  EXPECT_EQ(zt::read_until_eof(s.fd, WAIT_MS), "");
  EXPECT_EQ(s.sim.record().size(), 2u);
}

TEST(AtswSim, WritesTheConfigurationAndListensOnItsSockets) {
  atsw::Simulator::Options options;
  options.cmd_socket = 21;
  options.unsol_socket = 22;
  Running s(options);
  EXPECT_EQ(zt::read_file(s.sim.config_path()),
            "21,CUSTOM2,atsw-sim commands\n22,VVMUNSOL,atsw-sim unsolicited reports\n");
  EXPECT_EQ(s.sim.socket_path(21), s.root.path() + "/tmp/atsw21");
  int unsol = zt::connect_unix(s.root.path() + "/tmp/atsw22");
  EXPECT_GE(unsol, 0);
  close(unsol);
  s.sim.stop();

  FILE* f = fopen(s.sim.config_path().c_str(), "w");
  fputs("7,CUSTOM2\n", f);
  fclose(f);
  options.root = s.root.path();
  options.keep_config = true;
  atsw::Simulator keeper(options);
  std::string error;
  ASSERT_TRUE(keeper.start(&error)) << error;
  EXPECT_EQ(zt::read_file(keeper.config_path()), "7,CUSTOM2\n");
}

TEST(AtswSim, PushesReportsOnTheUnsolicitedSocket) {
  Running s;
  int unsol = zt::connect_unix(s.root.path() + "/tmp/atsw12");
  ASSERT_GE(unsol, 0);
  ASSERT_TRUE(zt::wait_until([&] { return s.sim.unsol_connections() == 1; }, WAIT_MS));
  struct Row {
    std::string control;
    std::string report;
  } rows[] = {
      {"deregister", "\r\n+CEREG: 0\r\n"},
      {"register roaming", "\r\n+CEREG: 5,\"1A2B\",\"01A2D101\",7\r\n"},
      {"cell 00C1 0BEEF001", "\r\n+CEREG: 5,\"00C1\",\"0BEEF001\",7\r\n"},
      {"push \\r\\n+CEREG: 1\\r\\n", "\r\n+CEREG: 1\r\n"},
      {"report", "\r\n+CEREG: 5,\"00C1\",\"0BEEF001\",7\r\n"},
  };
  for (const Row& row : rows) {
    ASSERT_EQ(s.sim.control(row.control), "ok\n") << row.control;
    std::string got;
    EXPECT_TRUE(zt::read_until(unsol, row.report, WAIT_MS, &got)) << row.control;
    EXPECT_EQ(got, row.report) << row.control;
  }
  close(unsol);
}

TEST(AtswSim, SaysWhatIsWrong) {
  zt::TempRoot root;
  mkdir((root.path() + "/tmp/atsw11").c_str(), 0755);  // a directory where the socket goes
  atsw::Simulator::Options options;
  options.root = root.path();
  atsw::Simulator sim(options);
  std::string error;
  EXPECT_FALSE(sim.start(&error));
  EXPECT_EQ(error.rfind("cannot bind " + root.path() + "/tmp/atsw11: ", 0), 0u) << error;

  zt::TempRoot other;
  FILE* f = fopen((other.path() + "/etc").c_str(), "w");  // a file where the directory goes
  ASSERT_NE(f, nullptr);
  fclose(f);
  options.root = other.path();
  atsw::Simulator blocked(options);
  EXPECT_FALSE(blocked.start(&error));
  EXPECT_EQ(error.rfind("cannot write " + other.path() + "/etc/atswitch_config/atswitch_ecm_config.csv: ", 0), 0u)
      << error;

  struct Row {
    const char* line;
    const char* reply;
  } rows[] = {
      {"frobnicate", "error: unknown command 'frobnicate' (try help)\n"},
      {"register abroad", "error: register takes home or roaming\n"},
      {"fail x", "error: fail takes N [cme CODE]\n"},
      {"duplex HDD", "error: duplex takes FDD, TDD or none\n"},
  };
  for (const Row& row : rows) EXPECT_EQ(sim.control(row.line), row.reply);
}

TEST(UciSim, AnswersFromFilesAndNothingForAMissingKey) {
  Running s;
  ASSERT_EQ(s.sim.control("wan4 10.20.30.40"), "ok\n");
  std::string uci = std::string("UCI_SIM_DIR=") + s.sim.uci_dir() + " " + UCI_SIM_DIR + "/uci get ";
  struct Row {
    std::string key;
    std::string out;
  } rows[] = {
      {"/tmp/wan.status.ipv4_addr", "10.20.30.40\n"},
      {"/tmp/wan.status.ipv6_addr_global", ""},
  };
  for (const Row& row : rows) {
    FILE* p = popen((uci + row.key + " 2>/dev/null").c_str(), "r");
    ASSERT_NE(p, nullptr);
    char buf[256] = {};
    size_t n = fread(buf, 1, sizeof buf - 1, p);
    pclose(p);
    EXPECT_EQ(std::string(buf, n), row.out) << row.key;
  }
}

}  // namespace
