#include "server/FailureReport.h"

#include <cstring>
#include <iostream>
#include <string>

#include "server/ProcessLog.h"

namespace {

constexpr char kProgram[] = "wavelom: ";
constexpr char kFunction[] = "main";

}  // namespace

void report_failure(const std::exception& failure, int code) {
  std::string text = failure.what();
  if (code != 0) text += ", errno=" + std::to_string(code) + ": " + std::strerror(code);
  std::cerr << kProgram << kFunction << ": " << text << std::endl;
  el::base::Writer(el::Level::Error, __FILE__, __LINE__, kFunction)
          .construct(1, el::base::consts::kDefaultLoggerId)
      << text;
}
