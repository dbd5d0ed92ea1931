#include <gtest/gtest.h>

#include "core/timeval.h"

namespace {

TEST(TimevalSubtract, CarriesMicrosecondsAndTellsTheSign) {
  struct Row {
    timeval x, y, diff;
    int result;
  } rows[] = {
      {{5, 200000}, {3, 500000}, {1, 700000}, 1},
      {{3, 500000}, {5, 200000}, {-2, 300000}, -1},
      {{7, 0}, {7, 0}, {0, 0}, 1},
      {{10, 999999}, {0, 1}, {10, 999998}, 1},
  };
  for (const Row& r : rows) {
    timeval diff{};
    EXPECT_EQ(timeval_subtract(&diff, &r.x, &r.y), r.result);
    EXPECT_EQ(diff.tv_sec, r.diff.tv_sec);
    EXPECT_EQ(diff.tv_usec, r.diff.tv_usec);
  }
}

}  // namespace
