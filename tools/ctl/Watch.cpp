#include "tools/ctl/Watch.h"

#include <cstdio>

#include "server/lib/JsonReader.h"
#include "tools/ctl/Commands.h"
#include "tools/ctl/Verdict.h"

namespace rrm::ctl {
namespace {

constexpr int kIdle = 0;
constexpr int kWaitsForItsTime = 1;

std::string refusal_in(const JsonReader& reply) {
  return reply.is_null() ? "the reply is no JSON" : failure_of(*reply.value(), kNotStarted);
}

/// Answers that have come and that are awaited at this step.
std::string progress_of(const JsonReader& details, int state) {
  const JsonReader metrics = details.child("metrics");
  const char* count = state == 2 ? "rrm-mode-response-count" : "rrm-response-count";
  if (state != 2 && state != 3) return {};
  return ", " + std::to_string(metrics.get_int(count)) + " answers so far";
}

std::string line_of(double elapsed_s, const JsonReader& details) {
  const int state = details.get_int("rrm-status");
  char time[32];
  std::snprintf(time, sizeof(time), "%6.1f s  ", elapsed_s);
  return time + std::string(round_state_name(state)) + " (" +
         std::to_string(details.get_int("ap-count")) + " access points, " +
         std::to_string(details.get_int("unanswered-ap-count")) + " silent" +
         progress_of(details, state) + ")";
}

}  // namespace

const char* round_state_name(int state) noexcept {
  static constexpr const char* kNames[] = {"nothing planned",      "waits for its time of day",
                                           "modes requested",      "scan requested",
                                           "planned, starts soon", "optimising"};
  return state >= 0 && state < static_cast<int>(std::size(kNames)) ? kNames[state] : "unknown";
}

WatchEnd Watch::run(bool start, std::string& failure) const {
  if (start) {
    const std::string reply = ask(start_request(domain));
    failure = refusal_in(JsonReader(reply.c_str()));
    if (!failure.empty()) return WatchEnd::Refused;
  }
  std::string last;
  const double begin_s = now_s();
  for (double elapsed_s = 0; elapsed_s <= timeout_s; elapsed_s = now_s() - begin_s) {
    const std::string text = ask(domain_request(domain));
    const JsonReader reply(text.c_str());
    failure = refusal_in(reply);
    if (!failure.empty()) return WatchEnd::Refused;
    const JsonReader details = reply.child("details");
    const std::string line = line_of(elapsed_s, details);
    const std::string news = line.substr(line.find('s') + 1);
    if (news != last) tell(line);
    last = news;
    const int state = details.get_int("rrm-status");
    if (state == kIdle || state == kWaitsForItsTime) return WatchEnd::Idle;
    sleep(interval_s);
  }
  return WatchEnd::TimeUp;
}

}  // namespace rrm::ctl
