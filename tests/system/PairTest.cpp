#include <gtest/gtest.h>
#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <string>

/// The script that runs two controllers under keepalived, with a small fleet.
namespace {

constexpr int kSkipped = 77;

struct Outcome {
  int status;
  std::string output;
};

Outcome run(const std::string& command) {
  std::FILE* const pipe = ::popen((command + " 2>&1").c_str(), "re");
  if (pipe == nullptr) return {-1, {}};
  std::string output;
  std::array<char, 4096> piece;
  for (std::size_t length = 0; (length = std::fread(piece.data(), 1, piece.size(), pipe)) > 0;)
    output.append(piece.data(), length);
  const int status = ::pclose(pipe);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output};
}

TEST(Pair, KilledMasterLosesNothingAndRoleChangesKeepTheirOrder) {
  const Outcome outcome =
      run("scripts/pair-test --aps 24 --domains 3 --flips 40 --build " WAVELOM_BUILD);
  if (outcome.status == kSkipped) GTEST_SKIP() << outcome.output;
  EXPECT_EQ(outcome.status, 0) << outcome.output;
  EXPECT_NE(outcome.output.find("40 of 40 in order"), std::string::npos) << outcome.output;
  EXPECT_NE(outcome.output.find("domains restored: 3 of 3, with 24 of 24 access points\n"),
            std::string::npos)
      << outcome.output;
}

}  // namespace
