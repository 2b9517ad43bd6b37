#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "server/lib/Worker.h"

namespace rrm::test {

/// A worker that keeps the text of every message it is given, the controller's stop message
/// excepted.
class RecordingWorker : public Worker {
 public:
  using Record = std::pair<std::string, SessionAddress>;

  explicit RecordingWorker(std::string name, RRM* owner = nullptr, int capacity = 2048,
                           bool with_wakeup = true)
      : Worker(std::move(name), owner, kIdleWait_us, capacity, with_wakeup) {}

  void process_message(const JsonReader& document, const SessionAddress& address) override {
    if (process_internal_ipc_msg(document)) return;
    {
      const std::lock_guard lock(mutex_);
      records_.emplace_back(document.text(), address);
    }
    if (on_message) on_message(document);
  }
  void on_loop() override {
    if (on_pass) on_pass();
  }
  bool connect() override {
    ++connects;
    return on_connect ? on_connect() : Worker::connect();
  }
  void disconnect() override {
    ++disconnects;
    Worker::disconnect();
  }
  void get_status(JsonWriter&) override {}
  void get_status_full(JsonWriter&) override {}

  std::vector<Record> records() const {
    const std::lock_guard lock(mutex_);
    return records_;
  }
  std::size_t record_count() const {
    const std::lock_guard lock(mutex_);
    return records_.size();
  }
  std::vector<std::string> texts() const {
    std::vector<std::string> result;
    for (const Record& record : records()) result.push_back(record.first);
    return result;
  }

  // Set before the worker starts; called on its thread.
  std::function<void(const JsonReader&)> on_message;
  std::function<void()> on_pass;
  std::function<bool()> on_connect;
  std::atomic<int> connects{0};
  std::atomic<int> disconnects{0};

 private:
  mutable std::mutex mutex_;
  std::vector<Record> records_;
};

}  // namespace rrm::test
