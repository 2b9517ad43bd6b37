#include "server/LibraryHooks.h"

#include <easylogging++.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "server/Logger.h"
#include "server/lib/Hooks.h"
#include "tests/server/CapturedProcessLog.h"
#include "tests/server/FrontEndParts.h"
#include "tests/support/FakeClock.h"
#include "tests/support/TempFolder.h"

namespace {

using rrm::EventCode;
using rrm::LogLevel;
using rrm::test::TempFolder;

class LibraryHooks : public testing::Test {
 protected:
  LibraryHooks() { install_library_hooks(); }
  ~LibraryHooks() override {
    set_domain_listener(nullptr);
    rrm::set_log_sink(nullptr);
    rrm::set_event_sink(nullptr);
  }

  CapturedProcessLog log_;
};

struct LevelCase {
  LogLevel library;
  el::Level process;
};

TEST_F(LibraryHooks, RecordsOfTheLibraryReachTheLoggerAtTheirLevelWithTheirFunction) {
  for (const LevelCase& row :
       {LevelCase{LogLevel::Trace, el::Level::Trace}, LevelCase{LogLevel::Debug, el::Level::Debug},
        LevelCase{LogLevel::Error, el::Level::Error},
        LevelCase{LogLevel::Warning, el::Level::Warning},
        LevelCase{LogLevel::Info, el::Level::Info}}) {
    rrm::log_write("server/lib/X.cpp", 7, "call_site", row.library, "%s is %d", "it", 5);
    const auto records = log_.records();
    ASSERT_FALSE(records.empty());
    EXPECT_EQ(records.back().level, row.process);
    EXPECT_EQ(records.back().function, "call_site");
    EXPECT_EQ(records.back().text, "it is 5");
  }
  EXPECT_EQ(log_.records().size(), 5U) << "one record each";
}

TEST_F(LibraryHooks, LevelsThatNobodyTakesAreNotEvenMade) {
  const TempFolder folder;
  LoggerSettings settings;
  settings.config_file = folder.write("logger.conf",
                                      "* GLOBAL:\n TO_STANDARD_OUTPUT = false\n"
                                      "* DEBUG:\n ENABLED = false\n");
  settings.log_folder = folder.path() + "/";
  settings.log_file = folder.file("wavelom.log");
  settings.set_aside_pattern = folder.file("%Y.log");
  const RRM_Logger logger(settings);
  EXPECT_FALSE(rrm::log_enabled(LogLevel::Debug));
  EXPECT_TRUE(rrm::log_enabled(LogLevel::Info));
}

TEST_F(LibraryHooks, FormatShowsTheCallSiteOfTheLibrary) {
  const TempFolder folder;
  el::Configurations configurations;
  configurations.setToDefault();
  configurations.setGlobally(el::ConfigurationType::Format, "%file|%line|%func|%msg");
  configurations.setGlobally(el::ConfigurationType::Filename, folder.file("log"));
  configurations.setGlobally(el::ConfigurationType::ToFile, "true");
  configurations.setGlobally(el::ConfigurationType::ToStandardOutput, "false");
  el::Loggers::reconfigureLogger("default", configurations);
  rrm::log_write("server/lib/X.cpp", 1234, "call_site", LogLevel::Info, "100%% of %s", "it");
  el::Loggers::flushAll();
  EXPECT_EQ(folder.read("log"), "server/lib/X.cpp|1234|call_site|100% of it\n");
}

TEST_F(LibraryHooks, LongRecordsArriveWhole) {
  const std::string text(100'000, 'x');
  rrm::log_write("f", 1, "g", LogLevel::Info, "%s!", text.c_str());
  EXPECT_EQ(log_.records().back().text, text + "!");
}

/// A controller of a pair with an empty backup folder: it asks for a backup of what has changed.
class DomainEvents : public LibraryHooks {
 protected:
  DomainEvents() { set_domain_listener(&parts_.vrrp); }
  /// Whether a backup falls due; it is refused at once for its path, which leaves a record.
  bool causes_a_backup(EventCode code, const std::shared_ptr<std::string>& payload) {
    rrm::raise_event(code, payload);
    ++rrm::test::FakeClock::now_s;
    parts_.vrrp.poll_timers();
    return log_.has(el::Level::Error, "backup_path  invalid");
  }

  rrm::test::FakeClock clock_;
  FrontEndParts parts_{R"("vrrp_enabled":1,"vrrp_timeout":1,"vrrp_backup_path":"")"};
};

TEST_F(DomainEvents, OnlyAChangedDomainWithItsNameIsHandedOn) {
  const auto site = std::make_shared<std::string>("site");
  for (int code = 0; code <= 26; ++code) {
    if (code == 23) continue;
    EXPECT_FALSE(causes_a_backup(static_cast<EventCode>(code), site)) << code;
  }
  EXPECT_FALSE(causes_a_backup(EventCode::DomainChanged, nullptr));
  EXPECT_FALSE(causes_a_backup(EventCode::DomainChanged, std::make_shared<std::string>()));
  EXPECT_TRUE(causes_a_backup(EventCode::DomainChanged, site));
}

TEST_F(DomainEvents, NobodyIsToldBeforeTheListenerExistsAndAfterItIsGone) {
  set_domain_listener(nullptr);
  EXPECT_FALSE(causes_a_backup(EventCode::DomainChanged, std::make_shared<std::string>("site")));
}

}  // namespace
