#include "tests/support/Engine.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <stdexcept>

#include "server/lib/Envelope.h"
#include "server/lib/TpcDcaSubworker.h"

namespace rrm::test {

namespace {

constexpr std::int64_t kFirstMonotonic_s = 1'000'000;
constexpr std::int64_t kFirstWall_us = 1'714'521'600'000'000;
constexpr std::int64_t kDay_us = 86'400'000'000;

std::atomic<std::int64_t> monotonic_s{0};
std::atomic<std::int64_t> wall_us{0};
std::atomic<std::int64_t> wall_step_us{0};

}  // namespace

// --- clock

StoppedClock::StoppedClock() {
  monotonic_s = kFirstMonotonic_s;
  wall_us = kFirstWall_us;
  wall_step_us = 0;
  set_clock_sources([]() -> std::int64_t { return monotonic_s; },
                    []() -> std::int64_t { return wall_us += wall_step_us; });
}

StoppedClock::~StoppedClock() { set_clock_sources(nullptr, nullptr); }

void StoppedClock::advance(std::int64_t seconds) {
  monotonic_s += seconds;
  wall_us += seconds * 1'000'000;
}

void StoppedClock::set_time_of_day(std::int64_t seconds) {
  wall_us = wall_us - wall_us % kDay_us + seconds * 1'000'000;
}

void StoppedClock::set_wall_step_us(std::int64_t microseconds) { wall_step_us = microseconds; }

void StoppedClock::advance_wall_us(std::int64_t microseconds) { wall_us += microseconds; }

// --- dispatcher

void RecordingRrm::send_text(const char* text, const SessionAddress& address) {
  const std::lock_guard lock(mutex_);
  sent_.push_back({address.id, text});
}

void RecordingRrm::send_serialized(std::string&& text, const SessionAddress& address) {
  const std::lock_guard lock(mutex_);
  sent_.push_back({address.id, std::move(text)});
}

bool RecordingRrm::is_session_alive(const SessionAddress& address) const {
  const std::lock_guard lock(mutex_);
  return std::find(closed_.begin(), closed_.end(), address.id) == closed_.end();
}

void RecordingRrm::drop_session_at_websock_worker(const SessionAddress& address, bool force) {
  const std::lock_guard lock(mutex_);
  drops_.push_back({address.id, force});
}

void RecordingRrm::close(std::uint32_t session) {
  const std::lock_guard lock(mutex_);
  closed_.push_back(session);
}

std::vector<RecordingRrm::Sent> RecordingRrm::take() {
  const std::lock_guard lock(mutex_);
  return std::exchange(sent_, {});
}

std::vector<std::string> RecordingRrm::take(const std::string& cmd) {
  std::vector<std::string> texts;
  for (const Sent& sent : take()) {
    if (JsonReader(sent.text.c_str()).get_str("cmd") == cmd) texts.push_back(sent.text);
  }
  return texts;
}

std::vector<RecordingRrm::Drop> RecordingRrm::take_drops() {
  const std::lock_guard lock(mutex_);
  return std::exchange(drops_, {});
}

// --- descriptions

std::string RadioSpec::text() const {
  std::string text =
      "{\"id\":" + std::to_string(id) + ",\"status\":" + std::to_string(status) +
      ",\"channel\":" + std::to_string(channel) + ",\"band\":" + std::to_string(band) +
      ",\"power\":" + std::to_string(power) +
      ",\"power-max\":20,\"power-min\":5,\"bandwidth\":" + std::to_string(bandwidth) +
      ",\"available-channels\":\"" + channels +
      "\",\"locked-for-balancer\":" + std::to_string(locked_balancer) +
      ",\"locked-for-80211v\":" + std::to_string(locked_80211v) + extra;
  text += ",\"vaps\":[";
  for (std::size_t i = 0; i < vaps.size(); ++i) {
    const VapSpec& vap = vaps[i];
    text += (i == 0 ? "{\"id\":" : ",{\"id\":") + std::to_string(vap.id) + ",\"ssid\":\"" +
            vap.ssid + "\",\"802dot11k\":" + std::to_string(vap.k) +
            ",\"802dot11r\":" + std::to_string(vap.r) + ",\"802dot11v\":" + std::to_string(vap.v) +
            vap.extra + "}";
  }
  return text + "]}";
}

std::string radios_text(const std::vector<RadioSpec>& radios) {
  std::string text = "[";
  for (const RadioSpec& radio : radios) text += (text.size() > 1 ? "," : "") + radio.text();
  return text + "]";
}

std::string ap_mac(int n) {
  char text[18];
  std::snprintf(text, sizeof text, "00:11:22:00:%02x:00", n & 0xff);
  return text;
}

std::string client_mac(int n) {
  char text[18];
  std::snprintf(text, sizeof text, "02:aa:00:00:%02x:%02x", n >> 8 & 0xff, n & 0xff);
  return text;
}

// --- engine

DomainConfig Engine::quiet_config() {
  DomainConfig config;
  config.use_optimization_event = false;
  config.use_optimization_time = false;
  config.use_balance = false;
  config.use_80211k = false;
  config.use_80211r = false;
  config.use_80211v = false;
  config.use_rrm_report = false;
  return config;
}

Engine::Engine(const DomainConfig& domain, std::int32_t time_zone_s, const char* global)
    : global_({}, global),
      rrm_(&global_),
      worker_(std::make_shared<RrmWorker>(&global_, domain, &rrm_, "site", 2048, time_zone_s)) {}

SessionAddress Engine::address(std::uint32_t session) { return {nullptr, 0, session}; }

void Engine::receive(const std::string& text, std::uint32_t session) {
  const JsonReader document(text.c_str());
  worker_->process_message(document, address(session));
}

void Engine::receive(const std::string& cmd, int ap, std::uint32_t session,
                     const std::string& members) {
  receive("{\"service\":\"rrm\",\"cmd\":\"" + cmd +
              "\",\"version\":\"2.4\",\"domain\":\"site\",\"ap-mac\":\"" + ap_mac(ap) + "\"" +
              (members.empty() ? "" : ",") + members + "}",
          session);
}

void Engine::subscribe(int ap, const std::vector<RadioSpec>& radios, std::uint32_t session,
                       const std::string& members) {
  receive("subscribe-request", ap, session == 0 ? static_cast<std::uint32_t>(ap + 100) : session,
          "\"factory\":{\"board\":\"KV-810\",\"hw\":\"A\",\"serial\":\"S" + std::to_string(ap) +
              "\",\"mac\":\"" + ap_mac(ap) + "\"},\"radios\":" + radios_text(radios) + members);
}

void Engine::close_session(std::uint32_t session) { receive(kDropSessionDocument, session); }

void Engine::pass(std::int64_t seconds) {
  for (std::int64_t second = 0; second < seconds; ++second) {
    clock_.advance(1);
    worker_->on_loop();
  }
}

void Engine::finish_optimisation() {
  if (worker_->tpc_dca().state() != PlannerState::Optimising) {
    throw std::logic_error("no optimisation runs");
  }
  for (int i = 0; i < 30000 && worker_->tpc_dca().state() == PlannerState::Optimising; ++i) {
    pass(1);
    ::usleep(1000);
  }
}

std::shared_ptr<ApEntry> Engine::ap(int n) {
  const MacAddress mac = MacAddress::from_text(ap_mac(n).c_str());
  for (ApMap* map : {&worker_->aps(), &worker_->unanswered_aps(), &worker_->aps_to_delete()}) {
    if (auto entry = map->find(mac)) return entry;
  }
  return nullptr;
}

int Engine::state() const { return static_cast<int>(worker_->tpc_dca().state()); }

}  // namespace rrm::test
