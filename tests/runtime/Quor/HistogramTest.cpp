#include <gtest/gtest.h>

#include "runtime/Quor/Histogram.h"

namespace Quor {
namespace {

// Fails if a duration falls beside the bucket whose bound it does not exceed: percentiles are read from the bounds.
TEST(Histogram, durationsFallIntoTheFirstBucketThatHoldsThem) {
  for (std::size_t bucket = 0; bucket < Histogram::bounds; ++bucket) {
    Histogram histogram;
    histogram.add(Histogram::bound(bucket) * 0.75);
    histogram.add(Histogram::bound(bucket));
    EXPECT_EQ(histogram.count(bucket), 2U) << "bucket " << bucket;
  }
  Histogram histogram;
  histogram.add(-1);
  histogram.add(0);
  EXPECT_EQ(histogram.count(0U), 2U);
  histogram.add(40);
  histogram.add(1e300);
  EXPECT_EQ(histogram.count(Histogram::bounds), 2U);
  EXPECT_EQ(histogram.count(), 4U);
  EXPECT_EQ(histogram.longest(), 1e9);
}

}  // namespace
}  // namespace Quor
