#include "server/lib/TpcDcaCandidateQueue.h"

#include <gtest/gtest.h>

#include <map>
#include <random>

namespace rrm {
namespace {

TEST(TpcDcaCandidateQueue, GivesTheHighestCountAndThenTheLowestMember) {
  TpcDcaCandidateQueue queue(200);
  queue.insert(150, 7);
  queue.insert(3, 7);
  queue.insert(0, 6);
  EXPECT_EQ(queue.top(), 3U);
  queue.remove(3);
  EXPECT_EQ(queue.top(), 150U);
  queue.change(0, 255);
  EXPECT_EQ(queue.top(), 0U);
  queue.change(0, 0);
  queue.remove(150);
  EXPECT_EQ(queue.top(), 0U);
  queue.remove(0);
  EXPECT_TRUE(queue.empty());
}

TEST(TpcDcaCandidateQueue, IgnoresChangesOfMembersThatAreNotInIt) {
  TpcDcaCandidateQueue queue(2);
  queue.change(1, 9);
  EXPECT_TRUE(queue.empty());
}

TEST(TpcDcaCandidateQueue, AgreesWithASearchThroughAllMembers) {
  std::mt19937 dice(5);
  for (const std::size_t members : {1U, 63U, 64U, 65U, 300U}) {
    TpcDcaCandidateQueue queue(members);
    std::map<std::size_t, std::int32_t> counts;
    for (std::size_t i = 0; i < members; ++i) {
      counts[i] = static_cast<std::int32_t>(dice() % 256);
      queue.insert(i, counts[i]);
    }
    while (!counts.empty()) {
      std::size_t best = counts.begin()->first;
      for (const auto& [member, count] : counts)
        if (count > counts[best]) best = member;
      ASSERT_EQ(queue.top(), best);
      if (dice() % 2 == 0) {
        queue.remove(best);
        counts.erase(best);
      }
      const std::size_t other = dice() % members;
      const auto count = static_cast<std::int32_t>(dice() % 256);
      queue.change(other, count);
      if (counts.count(other) != 0) counts[other] = count;
    }
    EXPECT_TRUE(queue.empty());
  }
}

}  // namespace
}  // namespace rrm
