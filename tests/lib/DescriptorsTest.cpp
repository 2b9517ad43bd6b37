#include "server/lib/Descriptors.h"

#include <gtest/gtest.h>

#include "tests/support/FileLimit.h"

namespace rrm {
namespace {

TEST(Descriptors, AShareOfALowLimitIsKept) {
  const test::FileLimit limit(160);
  EXPECT_TRUE(leaves_descriptors(139, kReserveOfAccessPoints));
  EXPECT_FALSE(leaves_descriptors(140, kReserveOfAccessPoints));
  EXPECT_TRUE(leaves_descriptors(149, kReserveOfHttp));
  EXPECT_FALSE(leaves_descriptors(150, kReserveOfHttp));
  EXPECT_TRUE(leaves_descriptors(154, kReserveOfTcp));
  EXPECT_FALSE(leaves_descriptors(155, kReserveOfTcp));
}

TEST(Descriptors, ANumberOfAHighLimitIsKept) {
  const test::FileLimit limit(1024);
  EXPECT_TRUE(leaves_descriptors(959, kReserveOfAccessPoints));
  EXPECT_FALSE(leaves_descriptors(960, kReserveOfAccessPoints));
  EXPECT_TRUE(leaves_descriptors(991, kReserveOfHttp));
  EXPECT_FALSE(leaves_descriptors(992, kReserveOfHttp));
  EXPECT_TRUE(leaves_descriptors(1007, kReserveOfTcp));
  EXPECT_FALSE(leaves_descriptors(1008, kReserveOfTcp));
}

TEST(Descriptors, AreAvailableUpToTheLimitAndGivenBack) {
  const test::FileLimit limit(64);
  EXPECT_TRUE(descriptors_available(16));
  EXPECT_FALSE(descriptors_available(64));
  EXPECT_TRUE(descriptors_available(16)) << "a look takes nothing";
  EXPECT_TRUE(descriptors_available(0));
}

}  // namespace
}  // namespace rrm
