// zord's entry: options, daemon mode, shared state, log, signals, then the
// five long-lived threads, which main() only waits for.
#include <pthread.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "atserver/command_server.h"
#include "core/host.h"
#include "core/log.h"
#include "core/options.h"
#include "core/signals.h"
#include "core/threads.h"
#include "embms/lte_reg_thread.h"
#include "embms/unsol_thread.h"
#include "gateway/at_queue.h"
#include "gateway/dispatcher.h"
#include "gateway/listener.h"

namespace {

constexpr size_t SOCKET_PATH_SIZE = 108;

// The command server's argument: its own socket, the AT command socket and
// the default AT switch socket. Writable: the command server may replace them.
char prs_socket_path[SOCKET_PATH_SIZE];
char cmd_socket_path[SOCKET_PATH_SIZE];
char atsw_socket_path[SOCKET_PATH_SIZE];
char* zor_socket_names[3] = {prs_socket_path, cmd_socket_path, atsw_socket_path};

pthread_t at_thread;
pthread_t unsol_thread;
pthread_t listener_thread;
pthread_t at_q_thread;
pthread_t lte_reg_thread;
pthread_t server_thread;  // written by the AT thread

int zor_StartServer() {
  ZLOG_INFO("%s entry\n", "zor_StartServer");
  return start_thread(&server_thread, zorSrv_ThreadMain, zor_socket_names, LARGE_STACK) == 0 ? 1
                                                                                             : 0;
}

int wait_server_thread() {
  pthread_join(server_thread, nullptr);
  return 1;
}

// The AT thread lives exactly as long as the command server thread.
void* AtThreadMain(void*) {
  ZLOG_INFO("%s entry\n", "AtThreadMain");
  if (zor_StartServer()) {
    ZLOG_INFO("Create and wait for AT command thread listener start\n");
    wait_server_thread();
  } else {
    ZLOG_ERROR("Failed to create AT command thread listener\n");
  }
  return nullptr;
}

void root_socket_names() {
  rooted_path(prs_socket_path, sizeof prs_socket_path, "/tmp/zor-vvm_at_prs_srv");
  rooted_path(cmd_socket_path, sizeof cmd_socket_path, "/tmp/zor-vvm_at_cmd_srv");
  rooted_path(atsw_socket_path, sizeof atsw_socket_path, "/tmp/atsw11");
}

}  // namespace

int main(int argc, char** argv) {
  limit_malloc_arenas();
  tighten_timer_slack();
  bool daemonize_flag = false;
  parse_options(argc, argv, &daemonize_flag);

  // Development seams: a bad value stops the start while stderr is still seen.
  if (const char* error = host_seams_error()) {
    fprintf(stderr, "%s: %s\n", argv[0], error);
    return 1;
  }
  if (char missing[SOCKET_PATH_SIZE]; missing_root_directory(missing, sizeof missing)) {
    fprintf(stderr,
            "%s: ZORD_ROOT has no directory %s (the sockets go there; the log goes in its logs)\n",
            argv[0], missing);
    return 1;
  }
  set_foreground(!daemonize_flag);
  root_socket_names();

  if (daemonize_flag) daemonize(argv[0]);
  init_shared_ipc();

  char log_path[SOCKET_PATH_SIZE];
  rooted_path(log_path, sizeof log_path, "/tmp/logs/zord-vvm-app.log");
  if (log_open(log_path) == nullptr)
    foreground_warning("cannot open the log %s: %s; nothing will be logged", log_path,
                       strerror(errno));

  ZLOG_INFO("%s entry\n", "main");
  ZLOG_INFO("STARTING ZOR Daemon compile time %s:%s\n", zord_build_date, zord_build_time);
  setup_signals();

  // The dispatcher has no failure message of its own: the listener's is
  // used twice. strerror(errno) names the thread's errno, not the code that
  // pthread_create returned.
  static const char* const listener_failed = "cannot created main zor listener %s\n";
  const struct {
    pthread_t* handle;
    void* (*entry)(void*);
    const char* failed;
    size_t stack_size;
  } threads[] = {
      {&at_thread, AtThreadMain, "cannot created at thread %s\n", SMALL_STACK},
      {&unsol_thread, zorUnsol_ThreadMain, "cannot created at unsol thread %s\n", LARGE_STACK},
      {&listener_thread, run_listener_thread, listener_failed, SMALL_STACK},
      {&at_q_thread, run_at_q_thread, listener_failed, LARGE_STACK},
      {&lte_reg_thread, initial_LTE_reg_thread, "cannot created main initial_LTE_reg_thread %s\n",
       LARGE_STACK},
  };
  for (const auto& t : threads) {
    if (start_thread(t.handle, t.entry, nullptr, t.stack_size) != 0) {
      ZLOG_ERROR(t.failed, strerror(errno));
      return -1;
    }
  }
  ZLOG_INFO("ZOR main finished tarting threads\n");

  for (const auto& t : threads) {
    if (pthread_join(*t.handle, nullptr) != 0)
      ZLOG_ERROR("pthread_join failed %s\n", strerror(errno));
  }
  ZLOG_INFO("EXIT\n");
  return 0;
}
