#include "tools/fleet/DomainRound.h"

#include <algorithm>
#include <array>

namespace rrm::fleet {
namespace {

constexpr Millis kStragglers = 3000;  ///< a round ends so long after its last plan

constexpr std::array<const char*, kStages> kStageNames{"subscribing", "waiting",    "measuring",
                                                       "scanning",    "optimising", "planned"};

}  // namespace

const char* name(Stage stage) noexcept { return kStageNames[static_cast<std::size_t>(stage)]; }

Stage DomainRound::stage() const noexcept {
  if (running_ && plans_ > 0) return Stage::Planned;
  if (running_ && scans_ > 0 && scans_ >= scans_asked_) return Stage::Optimising;
  if (running_ && scans_asked_ > 0) return Stage::Scanning;
  if (running_) return Stage::Measuring;
  if (rounds_ > 0) return Stage::Planned;
  return subscribed_ < ap_count() ? Stage::Subscribing : Stage::Waiting;
}

void DomainRound::begin(Millis now) {
  std::fill(phases_.begin(), phases_.end(), Phase::None);
  modes_ = scans_asked_ = scans_ = plans_ = 0;
  running_ = true;
  began_ = now;
}

bool DomainRound::on_event(Millis now, std::uint32_t ap, ApEvent event) {
  Phase& phase = phases_[ap];
  switch (event) {
    case ApEvent::Subscribed:
      ++subscribed_;
      last_subscribed_ = now;
      return false;
    case ApEvent::ModesRequested: {
      const bool begins = !running_ || scans_asked_ > 0 || phase != Phase::None;
      if (begins) begin(now);
      phase = Phase::Modes;
      ++modes_;
      return begins;
    }
    case ApEvent::ScanRequested:
      if (!running_ || phase != Phase::Modes) return false;
      if (scans_asked_++ == 0) scan_began_ = now;
      phase = Phase::Asked;
      return false;
    case ApEvent::ScanAnswered:
      if (!running_ || phase != Phase::Asked) return false;
      ++scans_;
      last_scan_ = now;
      phase = Phase::Reported;
      return false;
    case ApEvent::ConfigTaken:
      if (running_ && phase == Phase::Reported) on_plan(now, phase);
      return false;
    default:
      return false;
  }
}

void DomainRound::on_plan(Millis now, Phase& phase) {
  if (plans_++ == 0) first_plan_ = now;
  last_plan_ = now;
  phase = Phase::Planned;
}

void DomainRound::on_lost(std::uint32_t ap) {
  if (subscribed_ > 0) --subscribed_;
  Phase& phase = phases_[ap];
  if (phase == Phase::Asked && scans_asked_ > 0) --scans_asked_;
  if (phase == Phase::Reported && scans_ > 0) {
    --scans_;
    --scans_asked_;
  }
  phase = Phase::None;
}

bool DomainRound::finished(Millis now) {
  if (!running_ || plans_ == 0) return false;
  if (plans_ < scans_ && now - last_plan_ < kStragglers) return false;
  running_ = false;
  times_.waiting = rounds_ == 0 ? std::max<Millis>(began_ - last_subscribed_, 0) : 0;
  times_.measuring = scan_began_ - began_;
  times_.scanning = last_scan_ - scan_began_;
  times_.optimising = first_plan_ - last_scan_;
  times_.distributing = last_plan_ - first_plan_;
  ++rounds_;
  return true;
}

}  // namespace rrm::fleet
