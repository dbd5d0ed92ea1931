#include "core/timeval.h"

int timeval_subtract(timeval* result, const timeval* x, const timeval* y) {
  long long usec = (static_cast<long long>(x->tv_sec) - y->tv_sec) * 1000000LL +
                   (static_cast<long long>(x->tv_usec) - y->tv_usec);
  long long sec = usec / 1000000LL;
  long long rem = usec % 1000000LL;
  if (rem < 0) {
    rem += 1000000LL;
    sec -= 1;
  }
  result->tv_sec = static_cast<time_t>(sec);
  result->tv_usec = static_cast<suseconds_t>(rem);
  return usec < 0 ? -1 : 1;
}
