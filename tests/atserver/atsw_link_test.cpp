// The AT switch link against the simulator and against a scripted peer.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "atserver/atsw_link.h"
#include "atserver/result_writers.h"
#include "core/log.h"
#include "tests/support/client.h"
#include "tests/support/process.h"
#include "tools/atsw-sim/atsw_sim.h"

namespace {

class AtswLink : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("ZORD_ROOT", root_.path().c_str(), 1);
    ASSERT_NE(log_open(root_.log_path().c_str()), nullptr);
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, client_), 0);
    zorSrv_OutSocket = client_[0];
  }
  void TearDown() override {
    close(client_[0]);
    close(client_[1]);
  }
  std::string forwarded() { return zt::read_available(client_[1]); }
  std::string log() const { return zt::read_file(root_.log_path()); }
  void write_config(const std::string& text) const {
    mkdir((root_.path() + "/etc").c_str(), 0755);
    mkdir((root_.path() + "/etc/atswitch_config").c_str(), 0755);
    FILE* f = fopen((root_.path() + "/etc/atswitch_config/atswitch_ecm_config.csv").c_str(), "w");
    fputs(text.c_str(), f);
    fclose(f);
  }
  zt::TempRoot root_;
  int client_[2] = {-1, -1};
};

TEST_F(AtswLink, FindsTheSocketOfARole) {
  const std::string atsw = root_.path() + "/tmp/atsw";
  struct Row {
    std::string config;
    std::string path;
  } rows[] = {
      {"11,CUSTOM2,x\n", atsw + "11"},
      {"0,CUSTOM2\nabc,CUSTOM2\n12,CUSTOM2,y\n", atsw + "12"},
      {"13,CUSTOM22,z\n", atsw + "13"},
      {"14,VVMUNSOL\n15,CUSTOM2\n", atsw + "15"},
      {"CUSTOM2\n", ""},
      {"16,custom2\n", ""},
      {"", ""},
  };
  for (const Row& row : rows) {
    write_config(row.config);
    char path[ATSW_PATH_SIZE] = {};
    EXPECT_EQ(findSocketName("CUSTOM2", path), 0) << row.config;
    EXPECT_EQ(std::string(path), row.path) << row.config;
  }
  std::string text = zt::without_time_text(log());
  EXPECT_NE(text.find("findSocketName: search str= %d,CUSTOM2,\n"), std::string::npos);
  EXPECT_NE(text.find("CUSTOM2 not in abc\n"), std::string::npos);
  EXPECT_NE(text.find("findSocketName found at sw config entry: " + atsw + "12\n"), std::string::npos);
  EXPECT_NE(text.find("findSocketName did not find  CUSTOM2\n"), std::string::npos);

  remove((root_.path() + "/etc/atswitch_config/atswitch_ecm_config.csv").c_str());
  char path[ATSW_PATH_SIZE] = {};
  EXPECT_EQ(findSocketName("CUSTOM2", path), -1);
  EXPECT_NE(log().find("err: cannot read at switch config file\n"), std::string::npos);
}

TEST_F(AtswLink, FramesCommandsAndReadsAnswersFromTheSimulator) {
  atsw::Simulator sim({root_.path(), 11, 12, false, false});
  std::string error;
  ASSERT_TRUE(sim.start(&error)) << error;
  char path[ATSW_PATH_SIZE] = {};
  findSocketName("CUSTOM2", path);
  ASSERT_EQ(zor_OpenSocketToAtSwitch("AT_CMD_RSP", path, &cmd_atsw_fd), 0);

  struct Row {
    const char* cmd;
    std::string sent;
    int status;
    std::string answer;
  } rows[] = {
      {"AT+CEREG?\n\r", "AT+CEREG?\n\r\n", 0, "\r\n+CEREG: 2,1,\"1A2B\",\"01A2D101\",7\r\n\r\nOK\r\n"},
      {"AT+X", "AT+X\n", 1, "\r\nERROR\r\n"},
      {"+X", "AT+X\n", 1, "\r\nERROR\r\n"},
      {"at+x", "ATat+x\n", 1, "\r\nERROR\r\n"},
      {"At+x", "ATAt+x\n", 1, "\r\nERROR\r\n"},
      {"+CIMI\r", "AT+CIMI\r\n", 0, "\r\n+CIMI: 310410123456789\r\n\r\nOK\r\n"},
  };
  size_t sent = 0;
  for (const Row& row : rows) {
    int status = 7;
    char answer[ATSW_TEXT_SIZE] = {};
    zorSrv_sendATCmdToAtSwitch(row.cmd, &status, answer, sizeof answer);
    std::string bytes = sim.received_bytes(1);
    EXPECT_EQ(bytes.substr(sent), row.sent) << row.cmd;
    sent = bytes.size();
    EXPECT_EQ(status, row.status) << row.cmd;
    EXPECT_EQ(std::string(answer), row.answer) << row.cmd;
  }
  EXPECT_EQ(forwarded(), "");  // answers went to the buffer, not to the client
}

// A switch that answers with the given writes, each after the link has
// logged its read of the one before; then, if asked, closes.
void scripted_switch(int listen_fd, const std::string& log_path, std::vector<std::string> parts, bool close_after) {
  int fd = accept(listen_fd, nullptr, nullptr);
  zt::read_until(fd, "\n", zt::WAIT_MS);
  for (size_t k = 0; k < parts.size(); ++k) {
    if (k > 0)
      zt::wait_until([&] { return zt::count_of(zt::read_file(log_path), "### ATSW RSP:") >= k; }, zt::WAIT_MS);
    ssize_t ignored = write(fd, parts[k].data(), parts[k].size());
    (void)ignored;
  }
  if (close_after) close(fd);
  else zt::read_until_eof(fd, zt::WAIT_MS);  // until the link side goes
  if (!close_after) close(fd);
}

TEST_F(AtswLink, ReadsToTheFinalResultAndForwardsWhatItRead) {
  struct Row {
    const char* name;
    std::vector<std::string> parts;
    bool close_after;
    int status;  // 7: untouched
    std::string forwarded;
  } rows[] = {
      {"split over two reads", {"\r\n+CEREG: 0,1\r\n", "\r\nOK\r\n"}, false, 0, "\r\nOK\r\nEG: 0,1\r\n\r\n"},
      {"lone carriage returns", {"\r+CIMI: 1\r\rOK\r"}, false, 0, "\r\n+CIMI: 1\r\n\r\nOK\r\n\r\n"},
      {"CME ERROR", {"\r\n+CME ERROR: 10\r\n"}, false, 1, "\r\n+CME ERROR: 10\r\n\r\n"},
      {"OK and ERROR", {"\r\nERROR\r\n\r\nOK\r\n"}, false, 0, "\r\nERROR\r\n\r\nOK\r\n\r\n"},
      {"closed before a result", {"\r\n+CEREG: 0,1\r\n"}, true, 7, ""},
  };
  const std::string path = root_.path() + "/tmp/atsw11";
  for (const Row& row : rows) {
    int listen_fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
    unlink(path.c_str());
    ASSERT_EQ(bind(listen_fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    ASSERT_EQ(listen(listen_fd, 1), 0);
    std::thread peer(scripted_switch, listen_fd, root_.log_path(), row.parts, row.close_after);
    int fd = 0;
    ASSERT_EQ(zor_OpenSocketToAtSwitch("AT_CMD_RSP", path.c_str(), &fd), 0);
    cmd_atsw_fd = fd;

    int status = 7;
    zorSrv_sendATCmdToAtSwitch("AT+CEREG?\n\r", &status, nullptr);
    EXPECT_EQ(status, row.status) << row.name;
    EXPECT_EQ(forwarded(), row.forwarded) << row.name;
    close(fd);
    peer.join();
    close(listen_fd);
  }
  EXPECT_NE(log().find("finished reading at switch rsp before getting OK or ERROR\n"), std::string::npos);
  EXPECT_NE(log().find("at switch rsp ended (ERROR)\n"), std::string::npos);
}

TEST_F(AtswLink, CopiesNoMoreThanTheCallersBufferHolds) {
  int sv[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
  const std::string answer_bytes = "\r\n+CIMI: 310410123456789\r\n\r\nOK\r\n";
  ASSERT_EQ(write(sv[1], answer_bytes.data(), answer_bytes.size()), static_cast<ssize_t>(answer_bytes.size()));
  cmd_atsw_fd = sv[0];
  char answer[12] = {};
  answer[11] = 'Z';  // must stay: the copy stops one short of the size
  zorSrv_sendATCmdToAtSwitch("AT+CIMI\n\r", nullptr, answer, 11);
  EXPECT_EQ(std::string(answer, 10), answer_bytes.substr(0, 10));
  EXPECT_EQ(answer[10], '\0');
  EXPECT_EQ(answer[11], 'Z');
  close(sv[0]);
  close(sv[1]);
}

TEST_F(AtswLink, AReadErrorReturnsWithoutAnswerOrStatus) {
  cmd_atsw_fd = -1;
  int status = 7;
  zorSrv_sendATCmdToAtSwitch("AT+CEREG?\n\r", &status, nullptr);
  EXPECT_EQ(status, 7);
  EXPECT_EQ(forwarded(), "");
  EXPECT_NE(log().find("err:     error is: "), std::string::npos);
  EXPECT_NE(log().find("err: error reading from at switch\n"), std::string::npos);
}

TEST_F(AtswLink, APartialAnswerIsNotFinalAndIsDumped) {
  int status = 7;
  EXPECT_EQ(zor_checkRspOkOrError("\r\n+CEREG: 0,1\r\n", &status), 0);
  EXPECT_EQ(status, 7);
  std::string text = zt::without_time_text(log());
  EXPECT_NE(text.find(" 0D 0A 2B 43 45 52 45 47 3A 20 30 2C 31 0D 0A --- ..+CEREG: 0,1..\n"), std::string::npos) << text;
  EXPECT_NE(text.find("zor_checkRspOkOrError: msglen 15 retval 0\n"), std::string::npos);
}

TEST(ExpandLoneCr, PutsALineFeedAfterEveryLoneCarriageReturnWithinItsRoom) {
  struct Row {
    std::string text;
    size_t capacity;
    std::string expanded;
  } rows[] = {
      {"\r", 16, "\r\n"},
      {"a\rb", 16, "a\r\nb"},
      {"\r\n", 16, "\r\n"},
      {"\r\r\n", 16, "\r\n\r\n"},
      {"", 16, ""},
      {std::string(2048, '\r'), 4097, [] {
         std::string s;
         for (int i = 0; i < 2048; ++i) s += "\r\n";
         return s;
       }()},
      {std::string(2048, '\r'), 100, [] {
         std::string s;
         for (int i = 0; i < 49; ++i) s += "\r\n";
         return s + "\r";
       }()},
  };
  for (const Row& row : rows) {
    std::vector<char> buf(std::max(row.capacity, row.text.size() + 1), 'Z');
    memcpy(buf.data(), row.text.c_str(), row.text.size() + 1);
    EXPECT_EQ(zorSrv_ExpandLoneCr(buf.data(), row.capacity), static_cast<int>(row.expanded.size()));
    EXPECT_EQ(std::string(buf.data()), row.expanded) << row.text.size();
  }
}

// By design the daemon keeps SIGPIPE's default action: writing to a switch
// that has gone away ends the process.
TEST(AtswLinkDeathTest, WritingToAClosedSwitchEndsTheProcess) {
  EXPECT_EXIT(
      {
        int sv[2];
        socketpair(AF_UNIX, SOCK_STREAM, 0, sv);
        close(sv[1]);
        cmd_atsw_fd = sv[0];
        zorSrv_sendATCmdToAtSwitch("AT+CEREG?\n\r", nullptr, nullptr);
      },
      ::testing::KilledBySignal(SIGPIPE), "");
}

}  // namespace
