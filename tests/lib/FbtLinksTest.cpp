#include "server/lib/FbtLinks.h"

#include <gtest/gtest.h>

#include <thread>
#include <utility>
#include <vector>

namespace rrm {
namespace {

const FbtLink kFirst{"r0", "00:11:22:33:44:55", "key"};
const FbtLink kSecond{"*", "ff:ff:ff:ff:ff:ff", "broadcast"};

TEST(SharedFbtLink, CopiesReferToTheSameLinkUntilTheLastIsGone) {
  SharedFbtLink copy;
  EXPECT_EQ(copy.get(), nullptr);
  {
    const SharedFbtLink link(kFirst);
    copy = link;
    EXPECT_EQ(copy.get(), link.get());
  }
  EXPECT_EQ(*copy, kFirst);
  const SharedFbtLink moved = std::move(copy);
  EXPECT_EQ(moved->remote_r1_kh_key, "key");
  const SharedFbtLink other(kFirst);
  EXPECT_NE(other.get(), moved.get());
  EXPECT_EQ(sizeof(SharedFbtLink), sizeof(void*));
}

TEST(SharedFbtLink, MayBeCopiedAndDroppedByManyThreads) {
  const SharedFbtLink link(kFirst);
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([copy = link] {
      for (int n = 0; n < 1000; ++n) {
        const SharedFbtLink another = copy;
        EXPECT_EQ(another->remote_r0_kh_id, "r0");
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(*link, kFirst);
}

TEST(SharedFbtLink, KeepsTheNoteForAllItsCopies) {
  const SharedFbtLink link(kFirst);
  const SharedFbtLink copy = link;
  link.set_note(17);
  EXPECT_EQ(copy.note(), 17u);
}

TEST(FbtLinkList, KeepsTheOrderOfAdding) {
  FbtLinks links = {kFirst};
  links.push_back(kSecond);
  ASSERT_EQ(links.size(), 2u);
  EXPECT_EQ(links[0], kFirst);
  EXPECT_EQ(links[1], kSecond);
  links.clear();
  EXPECT_TRUE(links.empty());
  EXPECT_TRUE(links.list().empty());
}

TEST(FbtLinkList, CopiesShareTheListUntilOneChanges) {
  FbtLinks links = {kFirst, kSecond};
  const FbtLinks copy = links;
  EXPECT_EQ(&copy.list(), &links.list());
  links.push_back(kFirst);
  EXPECT_EQ(copy.size(), 2u);
  EXPECT_EQ(links.size(), 3u);
  EXPECT_EQ(links.list()[1].get(), copy.list()[1].get());
  links.assign({});
  EXPECT_TRUE(links.empty());
  EXPECT_EQ(copy[1], kSecond);
}

}  // namespace
}  // namespace rrm
