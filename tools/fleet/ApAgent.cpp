#include "tools/fleet/ApAgent.h"

#include <algorithm>

#include "server/lib/JsonReader.h"
#include "tools/fleet/ApMessages.h"
#include "tools/fleet/ApSteering.h"
#include "tools/fleet/Crowd.h"
#include "tools/fleet/Random.h"

namespace rrm::fleet {
namespace {

constexpr std::size_t kArenaHint = 8192;

/// What own_share() is asked for.
enum Share : std::uint64_t { kAnswer = 1, kScan, kBackOff };

}  // namespace

ApAgent::ApAgent(World& world, std::uint32_t index, const AgentTiming& timing, Crowd* crowd)
    : world_(&world), timing_(&timing), index_(index), crowd_(crowd) {
  if (crowd != nullptr) steering_ = std::make_unique<ApSteering>(world, *crowd, index);
}

ApAgent::~ApAgent() = default;
ApAgent::ApAgent(ApAgent&&) noexcept = default;

double ApAgent::own_share(std::uint64_t what) const noexcept {
  return unit(hash({world_->scenario().seed, 0xa9e27, index_, what}));
}

void ApAgent::arm(Due due, Millis when) noexcept {
  due_ = due;
  when_ = when;
}

std::optional<Millis> ApAgent::deadline() const noexcept {
  const std::optional<Millis> steering = steering_ ? steering_->deadline() : std::nullopt;
  if (due_ == Due::Nothing) return steering;
  return steering ? std::min(when_, *steering) : when_;
}

void ApAgent::on_open(Millis now, AgentOutput& out) {
  state_ = State::Subscribing;
  out.messages.push_back(subscribe_request(*world_, index_, crowd_));
  arm(Due::SubscribeLimit, now + timing_->subscribe_limit);
}

Millis ApAgent::on_closed() {
  state_ = State::Offline;
  due_ = Due::Nothing;
  if (steering_) steering_->forget_requests();
  filter_.reset();
  const std::uint32_t doublings = std::min(attempts_, 16U);
  ++attempts_;
  const Millis longest = std::min(timing_->back_off_first << doublings, timing_->back_off_last);
  // Spread over the upper half, so that a fleet does not come back at once.
  const Millis half = longest / 2;
  return half + static_cast<Millis>(own_share(kBackOff + (std::uint64_t{attempts_} << 8)) *
                                    static_cast<double>(half));
}

void ApAgent::on_text(Millis now, std::string_view text, AgentOutput& out) {
  const std::string terminated(text);
  const JsonReader message(terminated.c_str(), kArenaHint);
  const std::string_view cmd = message.get_str("cmd");
  if (std::string_view(message.get_str("service")) != "rrm" || cmd.empty()) {
    out.events.push_back(ApEvent::NotUnderstood);
    return;
  }
  if (cmd == "subscribe-response") return take_subscribe_response(message, out);
  if (cmd == "rrm-request-mode") return take_mode_request(now, out);
  if (cmd == "rrm-update") return take_update(now, message, out);
  if (cmd == "rrm-info") return take_info(message, out);
  if (cmd == "fbt-info") return take_keys(message, out);
  if (steering_ && state_ == State::Subscribed) steering_->take(now, cmd, message);
}

void ApAgent::take_subscribe_response(const JsonReader& message, AgentOutput& out) {
  if (state_ != State::Subscribing) return;
  due_ = Due::Nothing;
  if (std::string_view(message.get_str("status")) != "success") {
    reject_code_ = message.get_int("code");
    out.events.push_back(ApEvent::Rejected);
    out.close = true;
    return;
  }
  state_ = State::Subscribed;
  attempts_ = 0;
  out.events.push_back(ApEvent::Subscribed);
  take_config(message, out);
}

void ApAgent::take_mode_request(Millis now, AgentOutput& out) {
  if (state_ != State::Subscribed) return;
  ++round_;
  out.events.push_back(ApEvent::ModesRequested);
  arm(Due::AnswerModes,
      now + static_cast<Millis>(own_share(kAnswer) * static_cast<double>(timing_->answer)));
}

void ApAgent::take_update(Millis now, const JsonReader& message, AgentOutput& out) {
  if (state_ != State::Subscribed) return;
  filter_ = read_channel_filter(message);
  out.events.push_back(ApEvent::ScanRequested);
  const Millis delay = Millis{std::max(message.get_int("rrm-scan-delay"), 0)} * 1000;
  const double scan = static_cast<double>(timing_->scan) * (0.75 + 0.5 * own_share(kScan));
  arm(Due::AnswerScan, now + delay + static_cast<Millis>(scan));
}

void ApAgent::take_info(const JsonReader& message, AgentOutput& out) {
  if (state_ != State::Subscribed) return;
  out.events.push_back(ApEvent::ConfigTaken);
  take_config(message, out);
}

void ApAgent::take_keys(const JsonReader& message, AgentOutput& out) {
  if (state_ != State::Subscribed) return;
  fbt_links_ = count_fbt_links(message);
  out.events.push_back(ApEvent::KeysTaken);
}

void ApAgent::take_config(const JsonReader& message, AgentOutput& out) {
  const ConfigPlan plan = read_config(message);
  if (plan.neighbours) neighbours_ = *plan.neighbours;
  if (steering_) steering_->take_settings(message.child("config"));
  if (plan.neighbours && steering_) {
    steering_->take_neighbours(message.child("config").child("802dot11k"));
  }
  for (const RadioPlan& radio : plan.radios) {
    const RadioUnit* unit = world_->ap(index_).radio(radio.id);
    if (unit == nullptr) continue;
    const RadioUnit before = *unit;
    if (!world_->set_radio(index_, radio.id, radio.channel, radio.primary, radio.power_dbm))
      continue;
    if (before.channel != unit->channel || before.primary != unit->primary) {
      out.events.push_back(ApEvent::ChannelChanged);
    }
    if (before.power_dbm != unit->power_dbm) out.events.push_back(ApEvent::PowerChanged);
  }
}

void ApAgent::on_client(const ClientEvent& event, AgentOutput& out) const {
  if (steering_ && state_ == State::Subscribed)
    out.messages.push_back(steering_->event_message(event));
}

void ApAgent::on_deadline(Millis now, AgentOutput& out) {
  if (steering_) steering_->on_deadline(now, out);
  if (due_ == Due::Nothing || now < when_) return;
  const Due due = due_;
  due_ = Due::Nothing;
  switch (due) {
    case Due::Nothing:
      break;
    case Due::SubscribeLimit:
      out.close = true;
      break;
    case Due::AnswerModes:
      out.messages.push_back(mode_response(*world_, index_));
      out.events.push_back(ApEvent::ModesAnswered);
      break;
    case Due::AnswerScan:
      out.messages.push_back(scan_response(*world_, index_, round_, filter_));
      out.events.push_back(ApEvent::ScanAnswered);
      break;
  }
}

}  // namespace rrm::fleet
