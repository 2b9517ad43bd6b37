#include "tools/fleet/FleetRun.h"

#include <algorithm>

namespace rrm::fleet {
namespace {

AirSummary summarize(const std::vector<DomainRun>& domains) {
  AirSample before;
  AirSample after;
  for (const DomainRun& domain : domains) {
    if (!domain.before || !domain.after) continue;
    merge(before, *domain.before);
    merge(after, *domain.after);
  }
  AirSummary air;
  for (std::size_t band = 0; band < air.radios.size(); ++band) {
    air.radios[band] = after[band].radios();
    air.before_dbm[band] = mean(before[band].interference_dbm);
    air.after_dbm[band] = mean(after[band].interference_dbm);
  }
  return air;
}

}  // namespace

FleetRun::FleetRun(World& world, const RunOptions& options, Connections& connections, Millis now,
                   Crowd* steered, Crowd* unsteered)
    : world_(world),
      options_(options),
      connections_(connections),
      steered_(steered),
      unsteered_(unsteered),
      started_(now),
      last_advance_(now),
      random_(hash({world.scenario().seed, 0x43757263})) {
  const auto count = static_cast<std::uint32_t>(world.aps().size());
  agents_.reserve(count);
  for (std::uint32_t ap = 0; ap < count; ++ap) {
    agents_.emplace_back(world, ap, options_.timing, steered);
  }
  wires_.assign(count, Wire::Down);
  restarting_.assign(count, false);
  for (const Site& site : world.sites()) domains_.emplace_back(site.ap_count);
  // The sites take turns, so that all of them fill up together.
  for (std::uint32_t i = 0; waiting_.size() < count; ++i) {
    for (const Site& site : world.sites()) {
      if (i < site.ap_count) waiting_.push_back(site.first_ap + i);
    }
  }
}

std::uint32_t FleetRun::subscribed() const noexcept {
  std::uint32_t sum = 0;
  for (const DomainRun& domain : domains_) sum += domain.round.subscribed();
  return sum;
}

bool FleetRun::every_domain_planned() const noexcept {
  return std::all_of(domains_.begin(), domains_.end(),
                     [](const DomainRun& domain) { return domain.round.rounds() > 0; });
}

void FleetRun::advance(Millis now) {
  run_due(now);
  restart_some(now);
  start_connections(now);
  advance_crowds(now);
  finish_rounds(now);
}

void FleetRun::advance_crowds(Millis now) {
  if (options_.clients_at_once || every_domain_planned()) {
    for (Crowd* crowd : {steered_, unsteered_}) {
      if (crowd != nullptr) crowd->begin(now);
    }
  }
  if (steered_ != nullptr) steered_->advance(now);
  tell_events(now);
  if (unsteered_ == nullptr) return;
  unsteered_->advance(now);
  unsteered_->take_events();
}

void FleetRun::tell_events(Millis now) {
  if (steered_ == nullptr) return;
  for (const ClientEvent& event : steered_->take_events()) {
    if (restarting_[event.radio.ap]) continue;  // the dead say nothing
    AgentOutput out;
    agents_[event.radio.ap].on_client(event, out);
    apply(now, event.radio.ap, out);
  }
}

void FleetRun::set_alive(Millis now, std::uint32_t ap, bool alive) {
  if (steered_ != nullptr) steered_->set_alive(now, ap, alive);
  if (unsteered_ != nullptr) unsteered_->set_alive(now, ap, alive);
}

void FleetRun::start_connections(Millis now) {
  // What was not used is not saved up beyond a tenth of a second: no bursts after a stall.
  const double most = std::max(1.0, options_.rate / 10);
  tokens_ =
      std::min(most, tokens_ + options_.rate * static_cast<double>(now - last_advance_) / 1000);
  last_advance_ = now;
  while (tokens_ >= 1 && !waiting_.empty() && opening_ < options_.max_opening) {
    const std::uint32_t ap = waiting_.front();
    waiting_.pop_front();
    tokens_ -= 1;
    ++opening_;
    ++counters_.attempts;
    wires_[ap] = Wire::Opening;
    connections_.open(ap);
  }
}

void FleetRun::restart_some(Millis now) {
  if (options_.churn <= 0) return;
  restarts_due_ += options_.churn * static_cast<double>(now - last_advance_) / 60000;
  for (; restarts_due_ >= 1; restarts_due_ -= 1) {
    const std::uint32_t ap = random_.below(static_cast<std::uint32_t>(agents_.size()));
    if (agents_[ap].state() != ApAgent::State::Subscribed || restarting_[ap]) continue;
    restarting_[ap] = true;
    set_alive(now, ap, false);
    ++counters_.restarts;
    connections_.close(ap);
  }
}

void FleetRun::run_due(Millis now) {
  while (!due_.empty() && due_.top().when <= now) {
    const Due due = due_.top();
    due_.pop();
    if (due.reconnect) {
      if (restarting_[due.ap]) set_alive(now, due.ap, true);
      restarting_[due.ap] = false;
      waiting_.push_back(due.ap);
      continue;
    }
    // An entry may be out of date: the agent knows what is really due.
    const auto deadline = agents_[due.ap].deadline();
    if (!deadline || *deadline > now) continue;
    AgentOutput out;
    agents_[due.ap].on_deadline(now, out);
    apply(now, due.ap, out);
  }
}

void FleetRun::on_open(Millis now, std::uint32_t ap) {
  if (wires_[ap] == Wire::Opening) --opening_;
  wires_[ap] = Wire::Open;
  ++open_;
  AgentOutput out;
  agents_[ap].on_open(now, out);
  apply(now, ap, out);
}

void FleetRun::on_text(Millis now, std::uint32_t ap, std::string_view text) {
  ++counters_.received;
  counters_.received_bytes += text.size();
  AgentOutput out;
  agents_[ap].on_text(now, text, out);
  apply(now, ap, out);
}

void FleetRun::on_closed(Millis now, std::uint32_t ap) {
  if (wires_[ap] == Wire::Opening) {
    --opening_;
    ++counters_.failed;
  }
  if (wires_[ap] == Wire::Open) --open_;
  wires_[ap] = Wire::Down;
  if (agents_[ap].state() == ApAgent::State::Subscribed) {
    if (!restarting_[ap]) ++counters_.lost;
    const std::uint32_t site = world_.ap(ap).site;
    domains_[site].round.on_lost(ap - world_.sites()[site].first_ap);
  }
  const Millis back_off = agents_[ap].on_closed();
  due_.push({now + (restarting_[ap] ? options_.restart : back_off), ap, true});
}

void FleetRun::apply(Millis now, std::uint32_t ap, AgentOutput& out) {
  for (std::string& text : out.messages) {
    ++counters_.sent;
    counters_.sent_bytes += text.size();
    connections_.send(ap, std::move(text));
  }
  for (const ApEvent event : out.events) {
    count(event);
    follow(now, ap, event);
  }
  if (const auto deadline = agents_[ap].deadline()) due_.push({*deadline, ap, false});
  if (out.close) connections_.close(ap);
}

void FleetRun::count(ApEvent event) {
  switch (event) {
    case ApEvent::Subscribed:
      ++counters_.subscriptions;
      break;
    case ApEvent::Rejected:
      ++counters_.rejected;
      break;
    case ApEvent::ConfigTaken:
      ++counters_.configs;
      break;
    case ApEvent::ChannelChanged:
      ++counters_.channel_changes;
      break;
    case ApEvent::PowerChanged:
      ++counters_.power_changes;
      break;
    case ApEvent::KeysTaken:
      ++counters_.keys;
      break;
    case ApEvent::NotUnderstood:
      ++counters_.not_understood;
      break;
    default:
      break;
  }
}

void FleetRun::follow(Millis now, std::uint32_t ap, ApEvent event) {
  const std::uint32_t index = world_.ap(ap).site;
  const Site& site = world_.sites()[index];
  DomainRun& domain = domains_[index];
  const bool began = domain.round.on_event(now, ap - site.first_ap, event);
  if (began && !domain.before) domain.before = sample_site(world_, site);
  if (event == ApEvent::Subscribed && !all_subscribed_after_ && subscribed() == agents_.size()) {
    all_subscribed_after_ = now - started_;
  }
}

void FleetRun::finish_rounds(Millis now) {
  bool changed = false;
  for (std::size_t i = 0; i < domains_.size(); ++i) {
    if (!domains_[i].round.finished(now)) continue;
    domains_[i].after = sample_site(world_, world_.sites()[i]);
    changed = true;
  }
  if (changed) air_ = summarize(domains_);
}

}  // namespace rrm::fleet
