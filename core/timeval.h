// Difference of two time values. Carried with the core; nothing calls it yet.
#pragma once

#include <sys/time.h>

// *result = *x - *y, the microseconds carried into whole seconds so that they
// end in 0..999999. Returns -1 when the difference is negative, else 1.
int timeval_subtract(timeval* result, const timeval* x, const timeval* y);
