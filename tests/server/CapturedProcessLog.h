#pragma once

#include <easylogging++.h>

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

/// Keeps the records of the process's logger "default" for its lifetime, and keeps them off the
/// standard output. One at a time; records may come from any thread.
class CapturedProcessLog {
 public:
  struct Record {
    el::Level level;
    std::string function;
    std::string text;
  };

  CapturedProcessLog() {
    el::Configurations configurations;
    configurations.setToDefault();
    configurations.set(el::Level::Global, el::ConfigurationType::ToFile, "false");
    configurations.set(el::Level::Global, el::ConfigurationType::ToStandardOutput, "false");
    el::Loggers::reconfigureLogger("default", configurations);
    current() = this;
    el::Helpers::installLogDispatchCallback<Callback>("captured");
  }
  ~CapturedProcessLog() {
    el::Helpers::uninstallLogDispatchCallback<Callback>("captured");
    current() = nullptr;
  }
  CapturedProcessLog(const CapturedProcessLog&) = delete;
  CapturedProcessLog& operator=(const CapturedProcessLog&) = delete;

  std::vector<Record> records() const {
    const std::lock_guard lock(mutex_);
    return records_;
  }
  std::vector<std::string> texts(el::Level level) const {
    std::vector<std::string> found;
    for (const Record& record : records())
      if (record.level == level) found.push_back(record.text);
    return found;
  }
  bool has(el::Level level, const std::string& text) const {
    const auto found = texts(level);
    return std::find(found.begin(), found.end(), text) != found.end();
  }
  void clear() {
    const std::lock_guard lock(mutex_);
    records_.clear();
  }

 private:
  class Callback : public el::LogDispatchCallback {
    void handle(const el::LogDispatchData* data) override {
      if (current() == nullptr) return;
      const el::LogMessage& message = *data->logMessage();
      const std::lock_guard lock(current()->mutex_);
      current()->records_.push_back({message.level(), message.func(), message.message()});
    }
  };

  static CapturedProcessLog*& current() {
    static CapturedProcessLog* log = nullptr;
    return log;
  }

  mutable std::mutex mutex_;
  std::vector<Record> records_;
};
