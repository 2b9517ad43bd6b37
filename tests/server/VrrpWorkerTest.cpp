#include "server/VrrpWorker.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "server/LibraryHooks.h"
#include "server/lib/RRM.h"
#include "server/lib/RrmWorker.h"
#include "tests/server/CapturedProcessLog.h"
#include "tests/support/Engine.h"
#include "tests/support/FewDescriptors.h"
#include "tests/support/NoNewThreads.h"
#include "tests/support/TempFolder.h"

namespace {

using rrm::JsonReader;
using rrm::JsonWriter;
using rrm::VrrpRole;
using rrm::test::Engine;
using rrm::test::FewDescriptors;
using rrm::test::RadioSpec;
using rrm::test::TempFolder;

/// A domain "site" with access points, its dispatcher and a VRRP worker on a stopped clock.
class Vrrp : public testing::Test {
 protected:
  Vrrp() {
    config().vrrp_enabled = true;
    config().vrrp_timeout = 5;
    config().vrrp_backup_path = backups();
    config().vrrp_state_file = folder_.file("keep.mode");
    engine_.rrm().workers().insert("site", engine_.shared_worker());
  }
  rrm::GlobalConfig& config() { return engine_.global(); }
  std::string backups() const { return folder_.file("backup"); }
  void back_up() {
    vrrp_.on_domain_changed("site");
    engine_.clock().advance(5);
    vrrp_.poll_timers();
  }
  std::string restored() {
    JsonWriter document;
    JsonWriter array = JsonWriter::array(document, "domains");
    vrrp_.restore_domains_from_backup(array);
    return array.str();
  }

  static rrm::DomainConfig roaming_config() {
    rrm::DomainConfig config = Engine::quiet_config();
    config.use_80211k = true;
    config.use_80211r = true;
    return config;
  }

  TempFolder folder_;
  CapturedProcessLog log_;
  Engine engine_{roaming_config()};
  VrrpWorker vrrp_{&engine_.rrm(), &engine_.global()};
};

TEST_F(Vrrp, ThreeChangesWithinTheTimeoutGiveOneBackupThatLongAfterTheLast) {
  engine_.subscribe(1, {RadioSpec{}});
  for (int i = 0; i < 3; ++i) {
    vrrp_.on_domain_changed("site");
    engine_.clock().advance(4);
    vrrp_.poll_timers();
    EXPECT_FALSE(folder_.has("backup/site.json")) << i;
  }
  engine_.clock().advance(1);
  vrrp_.poll_timers();
  EXPECT_TRUE(folder_.has("backup/site.json"));
  std::filesystem::remove(folder_.file("backup/site.json"));
  engine_.clock().advance(100);
  vrrp_.poll_timers();
  EXPECT_FALSE(folder_.has("backup/site.json")) << "one run for all";
}

TEST_F(Vrrp, WithoutVrrpNothingIsBackedUp) {
  config().vrrp_enabled = false;
  back_up();
  EXPECT_FALSE(folder_.has("backup"));
}

/// A domain whose description memory does not hold.
class CrowdedWorker : public rrm::RrmWorker {
 public:
  using RrmWorker::RrmWorker;
  void get_status(JsonWriter&) override { throw std::bad_alloc(); }
};

TEST_F(Vrrp, ADomainThatMemoryDoesNotHoldKeepsNoOtherFromBeingBackedUp) {
  engine_.subscribe(1, {RadioSpec{}});
  engine_.rrm().workers().insert(
      "crowded", std::make_shared<CrowdedWorker>(&config(), roaming_config(), &engine_.rrm(),
                                                 "crowded", 2048, 0));
  vrrp_.on_domain_changed("crowded");
  EXPECT_NO_THROW(back_up());
  EXPECT_TRUE(folder_.has("backup/site.json"));
  EXPECT_FALSE(folder_.has("backup/crowded.json"));
  EXPECT_TRUE(log_.has(el::Level::Error, "Domain crowded is not backed up: std::bad_alloc"));
}

TEST_F(Vrrp, BackupHoldsWhatARestoreReads) {
  engine_.subscribe(1, {RadioSpec{.vaps = {{.id = 1, .ssid = "a", .k = true, .r = true}}}});
  engine_.subscribe(2, {RadioSpec{}});
  engine_.close_session(102);
  back_up();
  const std::string text = folder_.read("backup/site.json");
  EXPECT_EQ(text.substr(0, text.find(":[{\"mac\"")),
            R"({"name":"site","rrm-status":0,"fbt-status":1,"aps")");
  const JsonReader document(text.c_str());
  ASSERT_EQ(document.child("aps").size(), 1U);
  EXPECT_EQ(document.child("unanswered-aps").size(), 0U);
  ASSERT_EQ(document.child("deleted-aps").size(), 1U);
  const JsonReader aps = document.child("aps");
  const JsonReader ap = aps.child(0);
  EXPECT_STREQ(ap.get_str("mac"), "00:11:22:00:01:00");
  EXPECT_STREQ(ap.get_str("board"), "KV-810");
  EXPECT_STREQ(ap.get_str("hw"), "A");
  EXPECT_STREQ(ap.get_str("serial"), "S1");
  const JsonReader radios = ap.child("radios");
  const JsonReader interfaces = radios.child("interfaces");
  const JsonReader radio = interfaces.child(0);
  const JsonReader vaps = radio.child("vaps");
  ASSERT_EQ(vaps.size(), 1U);
  EXPECT_TRUE(vaps.child(0).has("fbt-rrb-key")) << "the VAPs carry their key material";
}

TEST_F(Vrrp, BackupRestoresTheDomainAtAnotherController) {
  engine_.subscribe(1, {RadioSpec{.channel = 44}});
  back_up();
  Engine other;
  const JsonReader backup(folder_.read("backup/site.json").c_str());
  other.worker().load_backup(backup);
  ASSERT_EQ(other.worker().aps_to_delete().size(), 1U);
  const auto ap =
      other.worker().aps_to_delete().find(rrm::MacAddress::from_text("00:11:22:00:01:00"));
  ASSERT_NE(ap, nullptr);
  EXPECT_EQ(ap->description.serial, "S1");
  EXPECT_EQ(ap->radios.radios.at(0).channel, 44);
}

TEST_F(Vrrp, UnansweredAccessPointsAreBackedUpAsSuch) {
  engine_.subscribe(1, {RadioSpec{.channel = 0}});
  engine_.worker().aps().move_without_active_radio(engine_.worker().unanswered_aps(), 3);
  back_up();
  const JsonReader document(folder_.read("backup/site.json").c_str());
  EXPECT_EQ(document.child("aps").size(), 0U);
  const JsonReader unanswered = document.child("unanswered-aps");
  ASSERT_EQ(unanswered.size(), 1U);
  EXPECT_STREQ(unanswered.child(0).get_str("mac"), "00:11:22:00:01:00");
}

TEST_F(Vrrp, BackupIsNotMadeAgainForWhatHasNotChangedSince) {
  back_up();
  ASSERT_TRUE(folder_.has("backup/site.json"));
  EXPECT_NE(std::filesystem::status(backups()).permissions() & std::filesystem::perms::others_read,
            std::filesystem::perms::none);
  std::filesystem::remove(folder_.file("backup/site.json"));
  vrrp_.on_domain_changed("nosuch");
  engine_.clock().advance(5);
  vrrp_.poll_timers();
  EXPECT_FALSE(folder_.has("backup/site.json"));
}

TEST_F(Vrrp, DomainsThatGiveNoAnswerAreSkipped) {
  vrrp_.on_domain_changed("nosuch");
  vrrp_.on_domain_changed("../site");
  back_up();
  EXPECT_TRUE(folder_.has("backup/site.json"));
  EXPECT_FALSE(folder_.has("backup/nosuch.json"));
  EXPECT_FALSE(folder_.has("site.json"));
  EXPECT_TRUE(log_.texts(el::Level::Error).empty()) << "the first has no worker that could answer";
}

TEST_F(Vrrp, DomainWhoseAccessPointIsNoLongerWhereItWasListedIsSkipped) {
  engine_.subscribe(1, {RadioSpec{}});
  // What is listed under this address is not found under it.
  engine_.ap(1)->base_mac = rrm::MacAddress::from_text("00:11:22:00:99:00");
  back_up();
  EXPECT_FALSE(folder_.has("backup/site.json"));
  EXPECT_TRUE(log_.texts(el::Level::Error).empty());
}

TEST_F(Vrrp, NameThatIsAPathIsSkippedWithARecord) {
  engine_.rrm().workers().insert("../site", engine_.shared_worker());
  vrrp_.on_domain_changed("../site");
  vrrp_.make_domains_backup();
  EXPECT_FALSE(folder_.has("site.json"));
  EXPECT_EQ(log_.texts(el::Level::Error),
            std::vector<std::string>{"Domain ../site is not backed up: its name is no file name"});
}

TEST_F(Vrrp, BackupFolderNeverHoldsAnotherFileThanTheFinalOnes) {
  engine_.subscribe(1, {RadioSpec{}});
  back_up();
  back_up();
  std::vector<std::string> files;
  for (const auto& entry : std::filesystem::directory_iterator(backups()))
    if (entry.is_regular_file()) files.push_back(entry.path().filename());
  EXPECT_EQ(files, std::vector<std::string>{"site.json"});
  EXPECT_TRUE(std::filesystem::is_empty(backups() + "/.new"));
}

TEST_F(Vrrp, BackupThatCannotBeWrittenLeavesTheOldOneAndIsLogged) {
  back_up();
  const std::string old = folder_.read("backup/site.json");
  std::filesystem::remove(backups() + "/.new");
  folder_.write("backup/.new", "in the way");
  engine_.subscribe(1, {RadioSpec{}});
  back_up();
  EXPECT_EQ(folder_.read("backup/site.json"), old);
  EXPECT_EQ(log_.texts(el::Level::Error),
            std::vector<std::string>{"Writing backup file " + backups() +
                                     "/site.json failed with error code: 20 (Not a directory)."});
}

TEST_F(Vrrp, EmptyBackupPathIsLoggedAndNothingIsWritten) {
  config().vrrp_backup_path = "";
  back_up();
  EXPECT_EQ(log_.texts(el::Level::Error), std::vector<std::string>{"backup_path  invalid"});
  EXPECT_EQ(restored(), "[]");
  EXPECT_EQ(log_.texts(el::Level::Error),
            (std::vector<std::string>{"backup_path  invalid", "backup_path  invalid"}));
  // The domain still waits.
  config().vrrp_backup_path = backups();
  vrrp_.make_domains_backup();
  EXPECT_TRUE(folder_.has("backup/site.json"));
}

TEST_F(Vrrp, BackupFolderThatCannotBeCreatedIsLogged) {
  config().vrrp_backup_path = folder_.file("no/such/folder");
  back_up();
  EXPECT_TRUE(
      log_.has(el::Level::Error, "backup_path " + folder_.file("no/such/folder") + " invalid"));
}

TEST_F(Vrrp, FileThatIsNoJsonStillRestoresTheOthers) {
  std::filesystem::create_directory(backups());
  folder_.write("backup/bad.json", "{\"name\":");
  folder_.write("backup/good.json", "{\"name\":\"good\"}");
  std::filesystem::create_directory(folder_.file("backup/folder.json"));
  EXPECT_EQ(restored(), R"([{"name":"good"}])");
  const auto errors = log_.texts(el::Level::Error);
  ASSERT_EQ(errors.size(), 1U);
  EXPECT_EQ(errors[0],
            "Reading backup file " + folder_.file("backup/bad.json") +
                " failed: JSON parse error at line 1, column 9: unexpected end of input: "
                "unexpected end of input");
}

TEST_F(Vrrp, RestoreCreatesAMissingBackupFolder) {
  EXPECT_EQ(restored(), "[]");
  EXPECT_TRUE(std::filesystem::is_directory(backups()));
  EXPECT_TRUE(log_.texts(el::Level::Error).empty());
}

TEST_F(Vrrp, LongBackupIsReadWhole) {
  std::filesystem::create_directory(backups());
  for (const std::size_t size : {4095, 4096, 4097, 20000}) {
    const std::string head = R"({"name":")";
    const std::string text = head + std::string(size - head.size() - 2, 'x') + "\"}";
    folder_.write("backup/long.json", text);
    EXPECT_EQ(restored(), "[" + text + "]") << size;
  }
}

TEST_F(Vrrp, BackupsAndTheirFolderAreClosedAgain) {
  const auto open_files = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
  };
  back_up();
  const auto before = open_files();
  back_up();
  EXPECT_NE(restored(), "[]");
  EXPECT_EQ(open_files(), before);
}

TEST_F(Vrrp, FileThatMemoryDoesNotHoldStillRestoresTheOthers) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "sanitizers need all addresses there are";
#endif
  std::filesystem::create_directory(backups());
  folder_.write("backup/huge.json", "");
  std::filesystem::resize_file(folder_.file("backup/huge.json"), std::uintmax_t{1} << 30);
  folder_.write("backup/good.json", R"({"name":"good"})");
  std::uint64_t pages = 0;
  std::ifstream("/proc/self/statm") >> pages;
  rlimit old_limit{};
  ASSERT_EQ(::getrlimit(RLIMIT_AS, &old_limit), 0);
  const rlim_t room = rlim_t{32} << 20;
  const rlimit limit{pages * static_cast<rlim_t>(::getpagesize()) + room, old_limit.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_AS, &limit), 0);
  const std::string domains = restored();
  ::setrlimit(RLIMIT_AS, &old_limit);
  EXPECT_EQ(domains, R"([{"name":"good"}])");
  EXPECT_EQ(log_.texts(el::Level::Error),
            std::vector<std::string>{"Reading backup file " + folder_.file("backup/huge.json") +
                                     " failed: std::bad_alloc"});
}

TEST_F(Vrrp, FilesThatCannotBeOpenedAreLoggedOneByOne) {
  if (!FewDescriptors::kPossible) GTEST_SKIP() << FewDescriptors::kWhyNot;
  std::filesystem::create_directory(backups());
  folder_.write("backup/a.json", R"({"name":"a"})");
  folder_.write("backup/b.json", R"({"name":"b"})");
  {
    const FewDescriptors for_the_folder(1);
    EXPECT_EQ(restored(), "[]");
  }
  auto errors = log_.texts(el::Level::Error);
  std::sort(errors.begin(), errors.end());
  const auto text = [&](const char* name) {
    return "Opening backup file " + folder_.file("backup") + name +
           " failed with error code: 24 (Too many open files).";
  };
  EXPECT_EQ(errors, (std::vector<std::string>{text("/a.json"), text("/b.json")}));
  EXPECT_NE(restored().find(R"({"name":"a"})"), std::string::npos);
}

/// A backup controller that is asked to change its role, with a backup of "site" in its folder.
class VrrpRequest : public Vrrp {
 protected:
  VrrpRequest() {
    config().domain_add("site", {"common", 0, ""});
    std::filesystem::create_directory(backups());
    folder_.write("backup/site.json", R"({"name":"site"})");
    config().listen_port = 0;
    dispatcher_.update_vrrp_role(VrrpRole::Backup, nullptr);
  }
  std::string request(const std::string& command) {
    return vrrp_of_it_.handle_request(command).value_or("none");
  }

  rrm::RRM dispatcher_{&config()};
  VrrpWorker vrrp_of_it_{&dispatcher_, &config()};
};

TEST_F(VrrpRequest, MasterRestoresTheBackupsThatItReadsWhateverTheRequestHolds) {
  for (const char* command :
       {R"({"role":"master"})", R"({"role":"master","domains":["site","other"]})",
        R"({"role":"master","domains":[]})", R"({"role":"master","domains":[{"name":"other"}]})"}) {
    dispatcher_.update_vrrp_role(VrrpRole::Backup, nullptr);
    EXPECT_EQ(request(command), R"({"version":"2.1","server":")" + config().host_name() +
                                    R"(","wavelom_version":"1.9.1.323-amd64","status":"success"})");
    EXPECT_NE(dispatcher_.find_worker("site"), nullptr) << command;
    EXPECT_EQ(dispatcher_.find_worker("other"), nullptr) << command;
    EXPECT_EQ(dispatcher_.get_vrrp_role(), VrrpRole::Master);
  }
}

TEST_F(VrrpRequest, WithoutVrrpTheRoleChangesButNoBackupIsRead) {
  config().vrrp_enabled = false;
  EXPECT_NE(request(R"({"role":"master"})").find(R"("status":"success")"), std::string::npos);
  EXPECT_EQ(dispatcher_.get_vrrp_role(), VrrpRole::Master);
  EXPECT_EQ(dispatcher_.find_worker("site"), nullptr);
}

TEST_F(VrrpRequest, UnknownRolesAreRefusedByTheCommand) {
  for (const char* command : {R"({"role":"observer"})", R"({"role":7})", R"({"role":null})"})
    EXPECT_NE(request(command).find(R"("status":"failure","error":"role not supported"})"),
              std::string::npos)
        << command;
  EXPECT_EQ(dispatcher_.get_vrrp_role(), VrrpRole::Backup);
}

TEST_F(VrrpRequest, TwoHundredRoleFlipsEndInTheLastOne) {
  for (int i = 0; i < 200; ++i) {
    const bool master = i % 2 == 0;
    EXPECT_NE(request(master ? R"({"role":"master"})" : R"({"role":"backup"})").find("success"),
              std::string::npos);
    ASSERT_EQ(dispatcher_.get_vrrp_role(), master ? VrrpRole::Master : VrrpRole::Backup);
    ASSERT_EQ(dispatcher_.workers().size(), master ? 1U : 0U) << i;
  }
}

struct RoleCase {
  const char* name;
  const char* content;  ///< of the state file; null for no file
  VrrpRole role;
};

class VrrpStateFile : public Vrrp, public testing::WithParamInterface<RoleCase> {};

TEST_P(VrrpStateFile, GivesTheRoleOnStart) {
  if (GetParam().content != nullptr) folder_.write("keep.mode", GetParam().content);
  config().vrrp_enabled = true;
  config().listen_port = 0;
  engine_.rrm().workers().clear();
  rrm::RRM dispatcher(&config());
  VrrpWorker vrrp(&dispatcher, &config());
  dispatcher.start();
  EXPECT_EQ(dispatcher.get_vrrp_role(), VrrpRole::Backup);
  vrrp.set_vrrp_role_on_start();
  EXPECT_EQ(dispatcher.get_vrrp_role(), GetParam().role);
  const bool missing = GetParam().content == nullptr;
  EXPECT_EQ(
      log_.has(el::Level::Error, "Error opening VRRP state file " + folder_.file("keep.mode")),
      missing);
  EXPECT_EQ(log_.texts(el::Level::Error).size(), missing ? 1U : 0U);
}

TEST_F(Vrrp, APipeInPlaceOfTheStateFileCountsAsMissing) {
  ASSERT_EQ(::mkfifo(folder_.file("keep.mode").c_str(), 0600), 0);
  config().listen_port = 0;
  engine_.rrm().workers().clear();
  vrrp_.set_vrrp_role_on_start();
  EXPECT_EQ(engine_.rrm().get_vrrp_role(), VrrpRole::Master);
  EXPECT_TRUE(
      log_.has(el::Level::Error, "Error opening VRRP state file " + folder_.file("keep.mode")));
}

TEST(VrrpConfiguration, IsReadAgainByWhoeverBecomesMaster) {
  const TempFolder folder;
  const CapturedProcessLog log;
  rrm::GlobalConfig config(folder.write("c.conf", R"({"global":{"listen_port":0}})"));
  rrm::RRM dispatcher(&config);
  VrrpWorker vrrp(&dispatcher, &config);
  folder.write("c.conf", R"({"domains":[{"domain":"d","pattern":"common","time_zone":"0:00"}]})");
  vrrp.handle_request(R"({"role":"backup"})");
  EXPECT_FALSE(config.is_domain_exist("d"));
  vrrp.handle_request(R"({"role":"master"})");
  EXPECT_TRUE(config.is_domain_exist("d"));
}

INSTANTIATE_TEST_SUITE_P(
    Content, VrrpStateFile,
    testing::Values(RoleCase{"Backup", "BACKUP\nmore\n", VrrpRole::Backup},
                    RoleCase{"BackupWithoutLineEnd", "BACKUP", VrrpRole::Backup},
                    RoleCase{"TrailingBlankMeansMaster", "BACKUP \n", VrrpRole::Master},
                    RoleCase{"Master", "MASTER\n", VrrpRole::Master},
                    RoleCase{"Empty", "", VrrpRole::Master},
                    RoleCase{"NoFile", nullptr, VrrpRole::Master}),
    [](const auto& row) { return row.param.name; });

TEST_F(Vrrp, RoleThatCannotBeTakenOnStartIsLoggedAndTheControllerStaysWhatItIs) {
  folder_.write("keep.mode", "MASTER\n");
  config().listen_port = 0;
  rrm::RRM dispatcher(&config());
  VrrpWorker vrrp(&dispatcher, &config());
  dispatcher.start();
  {
    const rrm::test::NoNewThreads none;
    vrrp.set_vrrp_role_on_start();
  }
  EXPECT_EQ(log_.texts(el::Level::Error),
            (std::vector<std::string>{"Resource temporarily unavailable",
                                      "Api request to set VRRP role master failed."}));
  EXPECT_EQ(dispatcher.get_vrrp_role(), VrrpRole::Backup);
}

TEST_F(Vrrp, WithoutVrrpTheStateFileIsNotRead) {
  config().vrrp_enabled = false;
  vrrp_.set_vrrp_role_on_start();
  EXPECT_TRUE(log_.texts(el::Level::Error).empty());
  EXPECT_EQ(engine_.rrm().get_vrrp_role(), VrrpRole::Master);
}

TEST_F(Vrrp, ChangedDomainsReachTheListenerThroughTheEventHook) {
  engine_.subscribe(1, {RadioSpec{}});
  install_library_hooks();
  set_domain_listener(&vrrp_);
  rrm::raise_event(rrm::EventCode::DomainChanged, std::string());
  rrm::raise_event(rrm::EventCode::QueueOverflow, "site");
  engine_.clock().advance(5);
  vrrp_.poll_timers();
  EXPECT_FALSE(folder_.has("backup")) << "no name, or another event";
  rrm::raise_event(rrm::EventCode::DomainChanged, "site");
  set_domain_listener(nullptr);
  rrm::raise_event(rrm::EventCode::DomainChanged, "site");
  engine_.clock().advance(5);
  vrrp_.poll_timers();
  EXPECT_TRUE(folder_.has("backup/site.json"));
  rrm::set_log_sink(nullptr);
  rrm::set_event_sink(nullptr);
}

TEST_F(Vrrp, LibraryRecordsReachTheProcessLogWithTheirCallSite) {
  install_library_hooks();
  rrm::log_write("server/lib/X.cpp", 7, "operator()", rrm::LogLevel::Warning, "%s %d %%", "text",
                 42);
  rrm::set_log_sink(nullptr);
  rrm::set_event_sink(nullptr);
  const auto records = log_.records();
  ASSERT_EQ(records.size(), 1U);
  EXPECT_EQ(records[0].level, el::Level::Warning);
  EXPECT_EQ(records[0].function, "operator()");
  EXPECT_EQ(records[0].text, "text 42 %");
}

}  // namespace
