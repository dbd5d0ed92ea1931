// Signals end the process: one entry in the log, then exit status 0.
//
// Writing the entry from the handler itself would deadlock when the signal
// lands in a thread that is in the middle of a log entry (the handler would
// wait for the lock that thread holds). So the handler only hands the signal
// number to a thread that waits for it, and that thread writes the entry under
// the ordinary log lock and exits. The handler returns for signals sent from
// outside, letting the interrupted thread finish its entry; for SIGSEGV and
// SIGABRT, which cannot go back to the code that raised them, it parks the
// thread until the process is gone.
#include "core/signals.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "core/log.h"
#include "core/threads.h"

namespace {

int exit_pipe[2] = {-1, -1};
pthread_t exit_thread;
std::atomic<bool> ending{false};  // set once the process has begun to end

// The thread that ends the process waits at most this long for a log entry in
// progress; past it the faulting thread must be holding the lock itself.
constexpr int LOG_LOCK_WAIT_MS = 2000;

bool parks_thread(int signal_number) {
  return signal_number == SIGSEGV || signal_number == SIGABRT;
}

// The message of the last entry, without time text and prefix.
void format_signal_message(char* out, size_t size, int signal_number) {
  if (signal_number == SIGSEGV)
    snprintf(out, size, "%s: Detected the 'Segmentation Fault' error, so app is terminated!\n",
             "signal_handler");
  else
    snprintf(out, size, "%s: signal_number=%d, so app is terminated!\n", "signal_handler",
             signal_number);
}

[[noreturn]] void end_process(int signal_number) {
  ending.store(true, std::memory_order_relaxed);
  char message[128];
  format_signal_message(message, sizeof message, signal_number);
  if (log_close_for_exit(LOG_LOCK_WAIT_MS)) {
    if (app_env >= 0) log_entry_locked(true, "%s", message);
    // A parked thread may hold any library lock (the allocator's, a stream's);
    // exit handlers could wait on it for ever, so a fault ends with _exit.
    if (parks_thread(signal_number)) _exit(0);
    exit(0);  // the lock stays held: nobody starts an entry while files close
  }
  if (logfile != nullptr && app_env >= 0) {
    // The lock holder is the parked thread: write past the stream and its lock.
    char entry[192];
    int n = snprintf(entry, sizeof entry, "%s err: %s", __current_time(), message);
    if (n > 0 && static_cast<size_t>(n) < sizeof entry) {
      ssize_t ignored = write(fileno(logfile), entry, static_cast<size_t>(n));
      (void)ignored;
    }
  }
  _exit(0);
}

void* signal_exit_thread(void*) {
  int signal_number = 0;
  for (;;) {
    ssize_t n = read(exit_pipe[0], &signal_number, sizeof signal_number);
    if (n == static_cast<ssize_t>(sizeof signal_number)) end_process(signal_number);
    if (n < 0 && errno == EINTR) continue;
    return nullptr;
  }
}

// The pipe and the thread that reads it, made before any handler is installed.
// The thread takes signals like any other: one that lands on it is written to
// the pipe and read back by the thread itself. (Blocking signals there would
// not keep them away under an emulator that leaves a process signal pending
// on whichever thread it first picked.)
bool start_exit_thread() {
  if (pipe2(exit_pipe, O_CLOEXEC | O_NONBLOCK) != 0) return false;
  int flags = fcntl(exit_pipe[0], F_GETFL);
  fcntl(exit_pipe[0], F_SETFL, flags & ~O_NONBLOCK);

  int rc = start_thread(&exit_thread, signal_exit_thread, nullptr, SMALL_STACK);
  if (rc != 0) {
    close(exit_pipe[0]);
    close(exit_pipe[1]);
    exit_pipe[0] = exit_pipe[1] = -1;
    return false;
  }
  pthread_detach(exit_thread);
  return true;
}

}  // namespace

int daemonize(const char* program_name) {
  int rc = daemon(0, 0);
  if (rc == -1) ZLOG_ERROR("%s: failed to daemonize\n", program_name);
  umask(0);
  return rc;
}

void signal_handler(int signal_number) {
  // No thread to hand over to: end the process from here.
  if (exit_pipe[1] < 0) end_process(signal_number);
  bool on_exit_thread = pthread_equal(pthread_self(), exit_thread);
  // A fault while the process is already ending: the entry is written.
  if (on_exit_thread && ending.load(std::memory_order_relaxed)) _exit(0);
  int saved_errno = errno;
  ssize_t ignored = write(exit_pipe[1], &signal_number, sizeof signal_number);
  (void)ignored;
  errno = saved_errno;
  // The exit thread itself goes back to its read and finds the number.
  if (parks_thread(signal_number) && !on_exit_thread)
    for (;;) pause();
}

int setup_signals() {
  start_exit_thread();

  struct sigaction sa {};
  sa.sa_handler = signal_handler;
  sigemptyset(&sa.sa_mask);
  sa.sa_flags = SA_RESTART;

  static const struct {
    int number;
    const char* message;
  } handled[] = {
      {SIGINT, "%s: Failed to set SIGINT handler\n"},
      {SIGSEGV, "%s: Failed to set SIGSEGV handler\n"},
      {SIGABRT, "%s: Failed to set SIGABRT handler\n"},
      {SIGQUIT, "%s: Failed to set SIGQUIT handler\n"},
      {SIGTERM, "%s: Failed to set SIGTERM handler\n"},
  };
  for (const auto& h : handled) {
    if (sigaction(h.number, &sa, nullptr) != 0) {
      ZLOG_ERROR(h.message, "setup_signals");
      return -1;
    }
  }
  // Refused by the system; the call is part of the set-up all the same.
  signal(SIGKILL, signal_handler);
  return 0;
}
