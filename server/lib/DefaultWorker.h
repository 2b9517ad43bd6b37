#pragma once

#include "server/lib/Worker.h"

namespace rrm {

/// Answers a subscription that no domain worker takes.
///
/// Purpose:   part of the service set; the present routing queues nothing on it.
/// Errors:    what a message throws is logged and raised; the worker goes on.
class DefaultWorker : public Worker {
 public:
  explicit DefaultWorker(RRM* owner);

  void process_message(const JsonReader& document, const SessionAddress& address) override;
  void get_status(JsonWriter&) override {}
  void get_status_full(JsonWriter&) override {}

 private:
  void answer(const JsonReader& document, const SessionAddress& address);
};

}  // namespace rrm
