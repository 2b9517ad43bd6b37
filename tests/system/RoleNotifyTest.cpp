#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "tests/support/ProcessUnderTest.h"
#include "tests/support/TempFolder.h"
#include "tests/support/WebsockClients.h"

/// The script that keepalived starts with its pipe, and a client that only keeps what it is asked.
namespace {

using rrm::test::ProcessUnderTest;
using rrm::test::TempFolder;
using rrm::test::wait_until;

class RoleNotify : public testing::Test {
 protected:
  RoleNotify() {
    const std::string client = folder_.write(
        "client", "#!/bin/sh\n[ ! -e '" + folder_.file("dumb") + "' ] || exit 3\necho \"$*\" >>'" +
                      folder_.file("asked") + "'\n");
    ::chmod(client.c_str(), 0700);
    const std::string pipe = folder_.file("pipe");
    ::mkfifo(pipe.c_str(), 0600);
    pipe_ = ::open(pipe.c_str(), O_RDWR | O_CLOEXEC);
    script_ = std::make_unique<ProcessUnderTest>(
        folder_.path(),
        std::vector<std::string>{"/usr/bin/env", "WAVELOM_STATE_FILE=" + folder_.file("role"),
                                 "WAVELOMCTL=" + client,
                                 WAVELOM_SOURCES "/packaging/keepalived/wavelom-notify", pipe});
  }
  ~RoleNotify() override { ::close(pipe_); }
  void tell(const std::string& line) {
    ASSERT_EQ(::write(pipe_, (line + "\n").data(), line.size() + 1),
              static_cast<ssize_t>(line.size() + 1));
  }
  bool is_asked(const std::string& lines) {
    return wait_until([&] { return folder_.read("asked") == lines; });
  }

  TempFolder folder_;
  int pipe_ = -1;
  std::unique_ptr<ProcessUnderTest> script_;
};

constexpr char kMaster[] = "--timeout 30 role master\n";
constexpr char kBackup[] = "--timeout 30 role backup\n";

TEST_F(RoleNotify, TellsFileAndControllerEachChangeInOrder) {
  tell(R"(INSTANCE "wavelom" MASTER 100)");
  ASSERT_TRUE(is_asked(kMaster)) << script_->errors();
  EXPECT_EQ(folder_.read("role"), "MASTER\n");
  tell(R"(INSTANCE "wavelom" FAULT 100)");
  tell(R"(INSTANCE "wavelom" MASTER 100)");
  tell(R"(INSTANCE "wavelom" STOP 100)");
  EXPECT_TRUE(is_asked(std::string(kMaster) + kBackup + kMaster + kBackup));
  EXPECT_EQ(folder_.read("role"), "BACKUP\n");
}

TEST_F(RoleNotify, PassesOverLinesThatTellOfNoRole) {
  for (const char* line : {"", "VS [192.0.2.10]:tcp:80 UP", R"(INSTANCE "wavelom" MASTER_PRIO 9)",
                           "INSTANCE", R"(INSTANCE "wavelom")"})
    tell(line);
  tell(R"(GROUP "all" BACKUP 0)");
  EXPECT_TRUE(is_asked(kBackup)) << folder_.read("asked");
}

TEST_F(RoleNotify, KnowsInstancesWithBlanksInTheirNames) {
  tell(R"(INSTANCE "head office" MASTER 100)");
  EXPECT_TRUE(is_asked(kMaster)) << folder_.read("asked");
}

TEST_F(RoleNotify, NewerChangeCountsWhenTheControllerDidNotAnswer) {
  folder_.write("dumb", "");
  tell(R"(INSTANCE "wavelom" MASTER 100)");
  ASSERT_TRUE(wait_until([&] { return folder_.read("role") == "MASTER\n"; }));
  tell(R"(INSTANCE "wavelom" BACKUP 100)");
  ASSERT_TRUE(wait_until([&] { return folder_.read("role") == "BACKUP\n"; }));
  ::unlink(folder_.file("dumb").c_str());
  EXPECT_TRUE(is_asked(kBackup)) << folder_.read("asked");
}

}  // namespace
