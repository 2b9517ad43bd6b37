#pragma once

#include <mutex>
#include <string>
#include <utility>

namespace rrm {

/// A text option that one thread may change while others read it; readers get copies.
class ConfigText {
 public:
  ConfigText(std::string text) : text_(std::move(text)) {}  // NOLINT: assigned like a string
  ConfigText(const char* text) : text_(text) {}             // NOLINT
  ConfigText(const ConfigText&) = delete;
  ConfigText& operator=(const ConfigText&) = delete;

  ConfigText& operator=(std::string text) {
    const std::lock_guard lock(mutex_);
    text_ = std::move(text);
    return *this;
  }
  ConfigText& operator=(const char* text) { return *this = std::string(text); }

  std::string get() const {
    const std::lock_guard lock(mutex_);
    return text_;
  }
  operator std::string() const { return get(); }  // NOLINT: reads like a string

 private:
  mutable std::mutex mutex_;
  std::string text_;  ///< guarded by mutex_
};

}  // namespace rrm
