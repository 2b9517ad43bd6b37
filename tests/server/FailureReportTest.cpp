#include "server/FailureReport.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <stdexcept>
#include <string>

#include "tests/server/CapturedProcessLog.h"

namespace {

/// What standard error shows; the record must be that of the function main.
std::string reported(const std::exception& failure, int code, const std::string& record) {
  const CapturedProcessLog log;
  testing::internal::CaptureStderr();
  report_failure(failure, code);
  const auto records = log.records();
  EXPECT_EQ(records.size(), 1U);
  if (!records.empty()) {
    EXPECT_EQ(records[0].level, el::Level::Error);
    EXPECT_EQ(records[0].function, "main");
    EXPECT_EQ(records[0].text, record);
  }
  return testing::internal::GetCapturedStderr();
}

TEST(FailureReport, HasTheShortFormWithoutErrno) {
  EXPECT_EQ(reported(std::runtime_error("no more threads"), 0, "no more threads"),
            "wavelom: main: no more threads\n");
}

TEST(FailureReport, NamesErrnoAndItsText) {
  EXPECT_EQ(
      reported(std::runtime_error("eventfd"), EMFILE, "eventfd, errno=24: Too many open files"),
      "wavelom: main: eventfd, errno=24: Too many open files\n");
}

}  // namespace
