// The log: entries of time text, blank, optional "err: ", message, flush.
#include "core/log.h"

#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <ctime>

#include "core/mutex_lock.h"

FILE* logfile = nullptr;
int32_t app_env = 1;

namespace {

// Entries are serialised so that a signal arriving mid-entry can wait for it
// to finish; the bytes of each entry are those of the unlocked original.
pthread_mutex_t log_mtx = PTHREAD_MUTEX_INITIALIZER;

// Set when the process is about to end: no new entry may start, so the last
// one gets the lock as soon as the entry in progress is done.
std::atomic<bool> entries_closed{false};

char pending[LOG_PENDING_SIZE];
size_t pending_len = 0;

void hold_pending_v(const char* fmt, va_list ap) {
  if (pending_len >= sizeof pending) return;
  int n = vsnprintf(pending + pending_len, sizeof pending - pending_len, fmt, ap);
  if (n > 0) pending_len += static_cast<size_t>(n);
  if (pending_len > sizeof pending) pending_len = sizeof pending;
}

void hold_pending(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
void hold_pending(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  hold_pending_v(fmt, ap);
  va_end(ap);
}

void write_entry_v(bool error, const char* fmt, va_list ap) {
  if (logfile == nullptr) {
    // Keep whole entries only: one that does not fit is dropped entirely.
    size_t before = pending_len;
    hold_pending("%s ", __current_time());
    if (error) hold_pending("err: ");
    hold_pending_v(fmt, ap);
    if (pending_len >= sizeof pending) pending_len = before;
    return;
  }
  // The time text, its blank and the prefix in one piece, then the message.
  char head[40];
  const char* time_text = __current_time();
  size_t used = strlen(time_text);
  memcpy(head, time_text, used);
  head[used++] = ' ';
  if (error) {
    memcpy(head + used, "err: ", 5);
    used += 5;
  }
  fwrite(head, 1, used, logfile);
  vfprintf(logfile, fmt, ap);
  fflush(logfile);
}

}  // namespace

void log_entry(bool error, const char* fmt, ...) {
  if (entries_closed.load(std::memory_order_relaxed)) return;
  MutexLock lock(log_mtx);
  va_list ap;
  va_start(ap, fmt);
  write_entry_v(error, fmt, ap);
  va_end(ap);
}

void log_entry_locked(bool error, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  write_entry_v(error, fmt, ap);
  va_end(ap);
}

bool log_close_for_exit(int timeout_ms) {
  entries_closed.store(true, std::memory_order_relaxed);
  timespec deadline{};
  clock_gettime(CLOCK_REALTIME, &deadline);
  deadline.tv_sec += timeout_ms / 1000;
  deadline.tv_nsec += static_cast<long>(timeout_ms % 1000) * 1000000L;
  if (deadline.tv_nsec >= 1000000000L) {
    deadline.tv_sec += 1;
    deadline.tv_nsec -= 1000000000L;
  }
  return pthread_mutex_timedlock(&log_mtx, &deadline) == 0;
}

FILE* log_open(const char* path) {
  MutexLock lock(log_mtx);
  logfile = fopen(path, "a");
  if (logfile != nullptr && pending_len > 0) {
    fwrite(pending, 1, pending_len, logfile);
    fflush(logfile);
  }
  pending_len = 0;
  return logfile;
}

namespace {

// "HH:MM:SS." of a second, local time; its length.
size_t put_second(time_t seconds, char* out, size_t size) {
  tm local{};
  localtime_r(&seconds, &local);
  return strftime(out, size, "%T.", &local);
}

// The milliseconds, rounded and not carried: 999500 microseconds and more
// read "1000". Needs 5 bytes.
void put_milliseconds(long usec, char* out) {
  long milliseconds = (usec + 500) / 1000;
  if (milliseconds >= 1000) *out++ = static_cast<char>('0' + milliseconds / 1000 % 10);
  *out++ = static_cast<char>('0' + milliseconds / 100 % 10);
  *out++ = static_cast<char>('0' + milliseconds / 10 % 10);
  *out++ = static_cast<char>('0' + milliseconds % 10);
  *out = '\0';
}

}  // namespace

void format_time_text(const timeval& tv, char* out, size_t size) {
  char scratch[32] = {};
  put_milliseconds(tv.tv_usec, scratch + put_second(tv.tv_sec, scratch, sizeof scratch - 5));
  snprintf(out, size, "%s", scratch);
}

const char* __current_time() {
  // Entries come many to a second: the second is formatted once a second and
  // only the milliseconds each time. Callers hold the log lock.
  static char text[32];
  static time_t formatted = -1;
  static size_t second_length = 0;
  timeval now{};
  gettimeofday(&now, nullptr);
  if (now.tv_sec != formatted) {
    second_length = put_second(now.tv_sec, text, sizeof text - 5);
    formatted = now.tv_sec;
  }
  put_milliseconds(now.tv_usec, text + second_length);
  return text;
}

namespace {

constexpr size_t AT_DUMP_SIZE = 2048;
constexpr size_t AT_DUMP_FLUSH_AT = 2039;

struct AtDump {
  int32_t level;
  char buf[AT_DUMP_SIZE];
  size_t pos;

  void append(const char* fmt, ...) __attribute__((format(printf, 2, 3))) {
    if (pos >= sizeof buf - 1) return;
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(buf + pos, sizeof buf - pos, fmt, ap);
    va_end(ap);
    if (n > 0) pos += static_cast<size_t>(n);
    if (pos > sizeof buf - 1) pos = sizeof buf - 1;
  }

  // " %02X" of value, written by hand: it runs once for every byte dumped.
  void append_hex(unsigned value) {
    static constexpr char digits[] = "0123456789ABCDEF";
    int width = value > 0xff ? 8 : 2;
    if (pos + 1 + static_cast<size_t>(width) >= sizeof buf) return append(" %02X", value);
    buf[pos++] = ' ';
    for (int shift = 4 * (width - 1); shift >= 0; shift -= 4)
      buf[pos++] = digits[(value >> shift) & 0xf];
    buf[pos] = '\0';
  }

  // The buffer goes out as data: a "%" in it is printed as it stands.
  void write_out() {
    if (app_env >= level && !entries_closed.load(std::memory_order_relaxed)) {
      MutexLock lock(log_mtx);
      log_entry_locked(level == 0, "%.*s", static_cast<int>(pos), buf);
    }
    pos = 0;
    buf[0] = '\0';
  }

  // Characters of bytes [from, to): control and high bytes as ".", and "%"
  // as "+" except in the closing line, which keeps it.
  void append_chars(const unsigned char* bytes, int from, int to, bool map_percent) {
    for (int j = from; j < to && pos < sizeof buf - 1; ++j) {
      unsigned char c = bytes[j];
      if (c == '%' && map_percent)
        c = '+';
      else if (c < 0x20 || c >= 0x80)
        c = '.';
      buf[pos++] = static_cast<char>(c);
    }
    buf[pos] = '\0';
  }
};

}  // namespace

int LOG_AT_MSG(int32_t level, int32_t length, const void* data) {
  const auto* bytes = static_cast<const unsigned char*>(data);
  AtDump dump{level, {}, 0};

  if (app_env >= 1)
    log_entry(false, "pStr is initialized to %X\n",
              static_cast<unsigned>(reinterpret_cast<uintptr_t>(dump.buf)));

  for (int32_t i = 0; i < length; ++i) {
    // Sign-extended: 0x80 and above print as FFFFFF80 and the like.
    dump.append_hex(static_cast<unsigned>(static_cast<int>(static_cast<signed char>(bytes[i]))));
    if (dump.pos >= AT_DUMP_FLUSH_AT) {
      if (app_env >= level) log_entry(level == 0, "flushing out AT Msg:\n");
      dump.write_out();
    }
    if (i % 16 == 15) {
      dump.append(" --- ");
      dump.append_chars(bytes, i - 15, i + 1, true);
      dump.append("\n");
      dump.write_out();
    }
  }
  if ((length - 1) % 16 != 15) {
    dump.append(" --- ");
    dump.append_chars(bytes, length - length % 16, length, false);
    dump.append("\n");
  }
  dump.append("\n");
  dump.write_out();
  return 0;
}
