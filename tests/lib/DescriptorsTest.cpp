#include "server/lib/Descriptors.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

namespace rrm {
namespace {

/// A limit of open files, taken back at the end of the test.
class Descriptors : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &normal_), 0); }
  void TearDown() override { setrlimit(RLIMIT_NOFILE, &normal_); }
  void limit(rlim_t files) {
    const rlimit low{files, normal_.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
  }

 private:
  rlimit normal_{};
};

TEST_F(Descriptors, AShareOfALowLimitIsKept) {
  limit(160);
  EXPECT_TRUE(leaves_descriptors(139, kReserveOfAccessPoints));
  EXPECT_FALSE(leaves_descriptors(140, kReserveOfAccessPoints));
  EXPECT_TRUE(leaves_descriptors(149, kReserveOfHttp));
  EXPECT_FALSE(leaves_descriptors(150, kReserveOfHttp));
  EXPECT_TRUE(leaves_descriptors(154, kReserveOfTcp));
  EXPECT_FALSE(leaves_descriptors(155, kReserveOfTcp));
}

TEST_F(Descriptors, ANumberOfAHighLimitIsKept) {
  limit(1024);
  EXPECT_TRUE(leaves_descriptors(959, kReserveOfAccessPoints));
  EXPECT_FALSE(leaves_descriptors(960, kReserveOfAccessPoints));
  EXPECT_TRUE(leaves_descriptors(991, kReserveOfHttp));
  EXPECT_FALSE(leaves_descriptors(992, kReserveOfHttp));
  EXPECT_TRUE(leaves_descriptors(1007, kReserveOfTcp));
  EXPECT_FALSE(leaves_descriptors(1008, kReserveOfTcp));
}

TEST_F(Descriptors, AreAvailableUpToTheLimitAndGivenBack) {
  limit(64);
  EXPECT_TRUE(descriptors_available(16));
  EXPECT_FALSE(descriptors_available(64));
  EXPECT_TRUE(descriptors_available(16)) << "a look takes nothing";
  EXPECT_TRUE(descriptors_available(0));
}

}  // namespace
}  // namespace rrm
