#include "atserver/command_server.h"

#include <pthread.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "atserver/at_parser.h"
#include "atserver/at_scanner.h"
#include "atserver/atsw_link.h"
#include "atserver/result_writers.h"
#include "core/log.h"

int echo_enabled = 1;

namespace {

// The switch path outlives the thread: the link keeps pointing at it.
char atsw_path[ATSW_PATH_SIZE];

}  // namespace

int zorSrv_OpenServerSocket(const char* path) {
  unlink(path);
  ZLOG_INFO("create the socket\n");
  int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  if (fd < 0) {
    perror("socket");
    _exit(1);  // other threads are running: no exit handlers under their feet
  }
  sockaddr_un addr{};
  static_assert(sizeof addr == 110);
  addr.sun_family = AF_UNIX;
  strncpy(addr.sun_path, path, sizeof addr.sun_path - 1);
  ZLOG_INFO("bind the socket\n");
  if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) < 0) {
    perror("bind");
    _exit(1);
  }
  ZLOG_INFO("listen the socket\n");
  if (listen(fd, 1) < 0) {
    perror("listen");
    _exit(1);
  }
  ZLOG_INFO("Waiting to accept connection on %s .... \n", path);
  int conn = accept(fd, nullptr, nullptr);
  ZLOG_INFO("ZOR AT Ssrver - Accepted connection on %s with fd = %d \n", path, conn);
  // One dispatcher per process life: later connects are refused.
  shutdown(fd, SHUT_RDWR);
  close(fd);
  return conn;
}

void* zorSrv_ThreadMain(void* arg) {
  const char* server_path = static_cast<char**>(arg)[0];
  memset(atsw_path, 0, sizeof atsw_path);
  findSocketName("CUSTOM2",
                 atsw_path);  // without it the connect below fails, and that is tolerated

  if (pthread_mutex_init(&send_atcmd_lock, nullptr) != 0) {
    ZLOG_ERROR("%s: mutex init failed\n", "zorSrv_ThreadMain");
    return nullptr;
  }
  cmd_atsw_path = atsw_path;
  ZLOG_INFO("%s entry will work with:\n prs: %s\n atsw %s\n", "zorSrv_ThreadMain", server_path,
            cmd_atsw_path);

  zorSrv_OutSocket = zorSrv_OpenServerSocket(server_path);
  yyin_socket = zorSrv_OutSocket;
  if (zor_OpenSocketToAtSwitch("AT_CMD_RSP", cmd_atsw_path, &cmd_atsw_fd) != 0)
    ZLOG_ERROR("cannot open connection to AT switch\n");

  if (zorSrv_OutSocket != -1) {
    ZLOG_INFO("zorSrv thread ID = %ul, waits on AT commands on socket:%s\n",
              static_cast<unsigned>(pthread_self()), server_path);
    yyparse();
  } else {
    ZLOG_ERROR("Failure open socket=%s for AT commands\n", server_path);
  }
  return nullptr;
}

int zorSrv_HandleEcho(int on) {
  echo_enabled = on;
  ZLOG_INFO("%s: setting echo to %s\n", "zorSrv_HandleEcho", on ? "ON" : "OFF");
  return zorSrv_SendResponse(RESULT_OK);
}

int zorSrv_HandleOk() { return zorSrv_SendResponse(RESULT_OK); }
