#include "server/lib/Hooks.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "tests/support/CapturedLog.h"

namespace rrm {
namespace {

int evaluated() {
  static int count = 0;
  return ++count;
}

TEST(Hooks, WithNoSinkInstalledNothingIsWrittenRaisedOrEvaluated) {
  EXPECT_FALSE(log_enabled(LogLevel::Error));
  log_write(__FILE__, __LINE__, __func__, LogLevel::Error, "%s", "nobody reads this");
  RRM_LOG(Error, "%d", evaluated());
  raise_event(EventCode::QueueOverflow, "nobody hears this");
  raise_event(EventCode::QueueOverflow, std::make_shared<std::string>("nor this"));
  raise_event(EventCode::QueueOverflow);
  EXPECT_EQ(evaluated(), 1);

  const test::CapturedLog log;
  EXPECT_TRUE(log.records().empty());
  EXPECT_TRUE(log.events().empty());
}

TEST(Hooks, ASinkThatIsTakenAwayReceivesNothingMore) {
  {
    const test::CapturedLog log;
    EXPECT_TRUE(log_enabled(LogLevel::Debug));
  }
  EXPECT_FALSE(log_enabled(LogLevel::Debug));
  RRM_LOG(Debug, "late");
  raise_event(EventCode::DomainChanged, "late");
}

TEST(Hooks, ARecordCarriesItsSourceFunctionLevelAndFormattedText) {
  struct Seen {
    std::string file;
    int line = 0;
    std::string function;
    LogLevel level = LogLevel::Trace;
    std::string text;
  };
  static Seen seen;
  set_log_sink([](const char* file, int line, const char* function, LogLevel level,
                  const char* format, std::va_list arguments) {
    char text[64];
    std::vsnprintf(text, sizeof text, format, arguments);
    seen = {file, line, function, level, text};
  });
  RRM_LOG(Warning, "%s %d", "session", 5);
  const int line = __LINE__ - 1;
  set_log_sink(nullptr);
  EXPECT_EQ(seen.file, __FILE__);
  EXPECT_EQ(seen.line, line);
  EXPECT_EQ(seen.function, __func__);
  EXPECT_EQ(seen.level, LogLevel::Warning);
  EXPECT_EQ(seen.text, "session 5");
}

TEST(Hooks, AFilterKeepsTheLevelsThatNobodyTakesFromBeingMade) {
  static int records = 0;
  set_log_sink(
      [](const char*, int, const char*, LogLevel, const char*, std::va_list) { ++records; },
      [](LogLevel level) { return level != LogLevel::Debug; });
  EXPECT_FALSE(log_enabled(LogLevel::Debug));
  EXPECT_TRUE(log_enabled(LogLevel::Info));
  const int before = evaluated();
  RRM_LOG(Debug, "%d", evaluated());
  RRM_LOG(Info, "%d", evaluated());
  set_log_sink(nullptr);
  EXPECT_EQ(evaluated(), before + 2);
  EXPECT_EQ(records, 1);
}

TEST(Hooks, AnEventCarriesItsCodeAndAPayloadThatMayBeEmpty) {
  const test::CapturedLog log;
  raise_event(EventCode::DomainChanged, "site");
  raise_event(EventCode::TextDoesNotParse);
  raise_event(EventCode::PlannerStatus, std::make_shared<std::string>("status"));
  EXPECT_EQ(log.events(),
            (std::vector<std::pair<EventCode, std::string>>{{EventCode::DomainChanged, "site"},
                                                            {EventCode::TextDoesNotParse, ""},
                                                            {EventCode::PlannerStatus, "status"}}));
}

TEST(Hooks, LevelsAndEventsHaveTheNumbersThatTheProcessKnows) {
  EXPECT_EQ(static_cast<int>(LogLevel::Trace), 2);
  EXPECT_EQ(static_cast<int>(LogLevel::Debug), 4);
  EXPECT_EQ(static_cast<int>(LogLevel::Error), 16);
  EXPECT_EQ(static_cast<int>(LogLevel::Warning), 32);
  EXPECT_EQ(static_cast<int>(LogLevel::Info), 128);
  EXPECT_EQ(static_cast<int>(EventCode::MessageInvalid), 0);
  EXPECT_EQ(static_cast<int>(EventCode::SendFailed), 8);
  EXPECT_EQ(static_cast<int>(EventCode::ParsingThreadThrew), 10);
  EXPECT_EQ(static_cast<int>(EventCode::WebsocketOverflow), 26);
}

}  // namespace
}  // namespace rrm
