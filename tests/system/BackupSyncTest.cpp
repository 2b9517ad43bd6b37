#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/FreePort.h"
#include "tests/support/ProcessUnderTest.h"
#include "tests/support/TempFolder.h"
#include "tests/support/WebsockClients.h"

/// The script that copies a master's backups and configuration to its peer, through a program named
/// ssh: one that runs the peer's command here, or the real one with a server of the test.
namespace {

namespace fs = std::filesystem;
using rrm::test::ProcessUnderTest;
using rrm::test::TempFolder;
using rrm::test::wait_until;

/// What ssh is asked, one line a call; then the command as the peer's shell would run it.
constexpr char kLocalSsh[] = R"(#!/bin/sh
echo "$*" >>FOLDER/asked
[ ! -e FOLDER/unreachable ] || exit 255
while :; do
  case $1 in
    -o | -l) shift 2 ;;
    *) break ;;
  esac
done
shift
exec sh -c "$*"
)";

bool has_program(const std::string& name) {
  return std::system(("command -v " + name + " >/dev/null 2>&1").c_str()) == 0;
}

class BackupSync : public testing::Test {
 protected:
  void SetUp() override {
    if (!has_program("rsync")) GTEST_SKIP() << "rsync is not installed";
    for (const char* path : {"bin", "here/backup/.new", "there/backup"})
      fs::create_directories(folder_.file(path));
    folder_.write("here/wavelom.conf", "configuration");
    folder_.write("here/backup/site1.json", "backup of site1");
    folder_.write("here/backup/.new/site2.json", "half a backup");
  }
  void install_ssh(std::string script) {
    static const std::string kPlace = "FOLDER";
    for (std::size_t at = 0; (at = script.find(kPlace, at)) != std::string::npos;)
      script.replace(at, kPlace.size(), folder_.path());
    ASSERT_EQ(::chmod(folder_.write("bin/ssh", script).c_str(), 0700), 0);
  }
  void set_role(const std::string& role) { folder_.write("here/role", role + "\n"); }
  void start() { start_with(folder_.file("bin") + ":" + std::getenv("PATH")); }
  void start_with(const std::string& path) {
    const std::string here = folder_.file("here");
    const std::string there = folder_.file("there");
    sync_ = std::make_unique<ProcessUnderTest>(
        folder_.path(), std::vector<std::string>{
                            "/usr/bin/env", "PATH=" + path, "PEER=" + peer_, "INTERVAL=0.02",
                            "BACKUPS=" + here + "/backup", "CONFIG=" + here + "/wavelom.conf",
                            "STATE_FILE=" + here + "/role", "PEER_BACKUPS=" + there + "/backup",
                            "PEER_CONFIG=" + there + "/wavelom.conf",
                            WAVELOM_SOURCES "/packaging/keepalived/wavelom-sync"});
  }
  bool arrives(const std::string& name, const std::string& content) {
    return wait_until([&] { return folder_.read("there/" + name) == content; });
  }
  std::size_t asked() const {
    const std::string lines = folder_.read("asked");
    return static_cast<std::size_t>(std::count(lines.begin(), lines.end(), '\n'));
  }

  TempFolder folder_;
  std::string peer_ = "wavelom@other:";
  std::unique_ptr<ProcessUnderTest> sync_;
};

TEST_F(BackupSync, MasterCopiesItsBackupsAndConfigurationToThePeer) {
  install_ssh(kLocalSsh);
  set_role("MASTER");
  start();
  EXPECT_TRUE(arrives("backup/site1.json", "backup of site1")) << sync_->errors();
  EXPECT_TRUE(arrives("wavelom.conf", "configuration")) << sync_->errors();
  EXPECT_TRUE(folder_.read("asked").starts_with(
      "-o BatchMode=yes -o ConnectTimeout=5 -l wavelom other mkdir -p " +
      folder_.file("there/backup/.new") + " && rsync --server "))
      << folder_.read("asked");
  folder_.write("here/backup/site3.json", "a new domain");
  EXPECT_TRUE(arrives("backup/site3.json", "a new domain"));
  EXPECT_FALSE(folder_.has("there/backup/.new/site2.json")) << "it is not whole yet";
}

TEST_F(BackupSync, ChangeOfTheSameSizeWithinASecondArrives) {
  install_ssh(kLocalSsh);
  set_role("MASTER");
  start();
  ASSERT_TRUE(arrives("backup/site1.json", "backup of site1"));
  const fs::path file = folder_.file("here/backup/site1.json");
  const auto second = std::chrono::floor<std::chrono::seconds>(fs::last_write_time(file));
  // As the controller writes: whole in another folder, then renamed.
  const fs::path written = folder_.write("here/backup/.new/site1.json", "backup of site4");
  fs::last_write_time(written, second + std::chrono::milliseconds(999));
  fs::rename(written, file);
  EXPECT_TRUE(arrives("backup/site1.json", "backup of site4"));
}

TEST_F(BackupSync, BackupCopiesNothingAndMasterBeginsAtOnce) {
  install_ssh(kLocalSsh);
  set_role("BACKUP");
  start();
  ::usleep(200'000);  // ten rounds
  EXPECT_EQ(asked(), 0U);
  set_role("MASTER");
  EXPECT_TRUE(arrives("backup/site1.json", "backup of site1"));
}

TEST_F(BackupSync, WithoutARoleNothingIsCopied) {
  install_ssh(kLocalSsh);
  start();
  ::usleep(200'000);
  EXPECT_EQ(asked(), 0U);
  EXPECT_TRUE(sync_->is_running());
}

TEST_F(BackupSync, MissingProgramEndsItAtOnce) {
  set_role("MASTER");
  start_with(folder_.file("bin"));
  EXPECT_EQ(sync_->wait(), 1);
  EXPECT_EQ(sync_->errors(), "wavelom-sync: rsync is not installed\n");
}

TEST_F(BackupSync, PeerThatCannotBeReachedIsTriedAgain) {
  install_ssh(kLocalSsh);
  folder_.write("unreachable", "");
  set_role("MASTER");
  start();
  ASSERT_TRUE(wait_until([&] { return asked() >= 3; }));
  EXPECT_FALSE(folder_.has("there/backup/site1.json"));
  fs::remove(folder_.file("unreachable"));
  EXPECT_TRUE(arrives("backup/site1.json", "backup of site1"));
}

/// A server of ssh for this user only, with keys of the test.
class BackupSyncOverSsh : public BackupSync {
 protected:
  void SetUp() override {
    BackupSync::SetUp();
    if (IsSkipped()) return;
    if (!fs::exists(kServer)) GTEST_SKIP() << "openssh-server is not installed";
    for (const char* key : {"host", "client"})
      ASSERT_EQ(std::system(("ssh-keygen -q -t ed25519 -N '' -f " + folder_.file(key)).c_str()), 0);
    folder_.write("authorized_keys", "restrict " + folder_.read("client.pub"));
    peer_ = "other:";  // as this user
    install_ssh("#!/bin/sh\nexec /usr/bin/ssh -F FOLDER/ssh_config \"$@\"\n");
  }
  void start_server() {
    const std::string port = std::to_string(rrm::test::free_port());
    folder_.write("known_hosts", "[127.0.0.1]:" + port + " " + folder_.read("host.pub"));
    folder_.write("ssh_config", "Host other\n  HostName 127.0.0.1\n  Port " + port +
                                    "\n  IdentityFile " + folder_.file("client") +
                                    "\n  UserKnownHostsFile " + folder_.file("known_hosts") + "\n");
    folder_.write("sshd_config", "ListenAddress 127.0.0.1:" + port + "\nHostKey " +
                                     folder_.file("host") + "\nAuthorizedKeysFile " +
                                     folder_.file("authorized_keys") +
                                     "\nPidFile none\nStrictModes no\nPermitRootLogin yes\n"
                                     "PasswordAuthentication no\n");
    fs::create_directory(folder_.file("server"));
    if (::geteuid() == 0) fs::create_directories("/run/sshd");  // as its own unit does
    server_ = std::make_unique<ProcessUnderTest>(
        folder_.file("server"),
        std::vector<std::string>{kServer, "-D", "-e", "-f", folder_.file("sshd_config")});
  }

  static constexpr char kServer[] = "/usr/sbin/sshd";
  std::unique_ptr<ProcessUnderTest> server_;
};

TEST_F(BackupSyncOverSsh, MasterCopiesToAPeerWhoseKeyAllowsNothingElse) {
  start_server();
  set_role("MASTER");
  start();
  EXPECT_TRUE(arrives("backup/site1.json", "backup of site1"))
      << sync_->errors() << server_->errors();
  EXPECT_TRUE(arrives("wavelom.conf", "configuration")) << sync_->errors();
  EXPECT_FALSE(folder_.has("there/backup/.new/site2.json"));
}

}  // namespace
