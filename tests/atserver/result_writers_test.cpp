// The bytes the command server writes back, and when a line's ERROR goes out.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <thread>

#include "atserver/parser_hooks.h"
#include "atserver/result_writers.h"
#include "core/log.h"
#include "tests/support/process.h"

namespace {

class ResultWriters : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NE(log_open(root_.log_path().c_str()), nullptr);
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair_), 0);
    zorSrv_OutSocket = pair_[0];
  }
  void TearDown() override {
    close(pair_[0]);
    close(pair_[1]);
  }
  std::string written() { return zt::read_available(pair_[1]); }
  zt::TempRoot root_;
  int pair_[2] = {-1, -1};
};

TEST_F(ResultWriters, WriteExactlyTheseBytes) {
  const std::string L = "\r\n";
  struct Row {
    const char* call;
    std::function<void()> write;
    std::string bytes;
  } rows[] = {
      {"SendResponse(0)", [] { zorSrv_SendResponse(0); }, L + "OK" + L},
      {"SendResponse(1)", [] { zorSrv_SendResponse(1); }, L + "ERROR" + L},
      {"SendResponse(2)", [] { zorSrv_SendResponse(2); }, L + "AOK" + L},
      {"SendResponse(3)", [] { zorSrv_SendResponse(3); }, L + "NOK" + L},
      {"SendResponse(4)", [] { zorSrv_SendResponse(4); }, ""},
      {"SendResponseText(t, 0)", [] { zorSrv_SendResponseText("+CEVVMCMD:1,2", 0); }, L + "+CEVVMCMD:1,2" + L + "OK" + L},
      {"SendResponseText(t, 1)", [] { zorSrv_SendResponseText("t", 1); }, L + "t" + L + L + "ERROR" + L},
      {"SendResponseText(t, 2)", [] { zorSrv_SendResponseText("+CEVVMEV:x,FDD", 2); }, L + "+CEVVMEV:x,FDD" + L + "AOK" + L},
      {"SendResponseText(t, 3)", [] { zorSrv_SendResponseText("t", 3); }, L + "t" + L + "NOK" + L},
      {"SendResponseText(t, 4)", [] { zorSrv_SendResponseText("t", 4); }, L + "t" + L},
      {"ForwardAtSwitchRsp(t)", [] { zorSrv_ForwardAtSwitchRsp("\r\nI\r\n\r\nOK\r\n"); }, "\r\nI\r\n\r\nOK\r\n" + L},
  };
  for (const Row& row : rows) {
    row.write();
    EXPECT_EQ(written(), row.bytes) << row.call;
  }
  EXPECT_NE(zt::read_file(root_.log_path()).find("zorSrv_SendResponse entry code 3\n"), std::string::npos);
}

TEST_F(ResultWriters, WithoutAnOutputSocketWriteNothingAndSaySo) {
  zorSrv_OutSocket = -1;
  zorSrv_SendResponse(0);
  zorSrv_SendResponseText("t", 2);
  zorSrv_ForwardAtSwitchRsp("t");
  EXPECT_EQ(written(), "");
  // One entry for the response alone, two each where a text was given.
  EXPECT_EQ(zt::count_of(zt::read_file(root_.log_path()), "err: no output socket!\n"), 5u);
}

TEST_F(ResultWriters, AForwardWaitsForTheResponseLock) {
  pthread_mutex_lock(&send_atcmd_lock);
  std::thread forward([] { zorSrv_ForwardAtSwitchRsp("\r\nOK\r\n"); });
  pollfd p{pair_[1], POLLIN, 0};
  EXPECT_EQ(poll(&p, 1, 100), 0);  // nothing while the lock is held
  pthread_mutex_unlock(&send_atcmd_lock);
  forward.join();
  EXPECT_EQ(written(), "\r\nOK\r\n\r\n");
}

TEST_F(ResultWriters, ASyntaxErrorGetsOneErrorAtTheRightTime) {
  const std::string ERROR = "\r\nERROR\r\n";
  struct Row {
    const char* name;
    int eol_seen;
    std::string at_error;     // written by the syntax-error hook
    std::string at_line_end;  // written by the next line end
  } rows[] = {
      {"line end already scanned: at once", 1, ERROR, ""},
      {"earlier in the line: at its line end", 0, "", ERROR},
  };
  for (const Row& row : rows) {
    gATParser_CmdEOLSeen = row.eol_seen;
    zorSrv_HandleSyntaxError("syntax error");
    EXPECT_EQ(written(), row.at_error) << row.name;
    zorSrv_HandleEOL();
    EXPECT_EQ(written(), row.at_line_end) << row.name;
    zorSrv_HandleEOL();
    EXPECT_EQ(written(), "") << row.name << ": never twice";
    EXPECT_EQ(zorSrv_SyntaxErrorPending, 0) << row.name;
  }
  EXPECT_NE(zt::read_file(root_.log_path()).find("err: zorSrv_HandleSyntaxError: syntax error\n"), std::string::npos);
}

}  // namespace
