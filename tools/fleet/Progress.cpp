#include "tools/fleet/Progress.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>

#include "tools/fleet/CrowdFigures.h"

namespace rrm::fleet {
namespace {

constexpr std::size_t kMostDomains = 12;
constexpr Millis kLineEvery = 10000;
constexpr Millis kClientsEvery = 5000;
constexpr int kBarWidth = 20;

double seconds(Millis ms) noexcept { return static_cast<double>(ms) / 1000; }

std::string bar(std::uint32_t done, std::uint32_t all) {
  const auto width = static_cast<std::uint32_t>(kBarWidth);
  const std::uint32_t filled = all == 0 ? 0 : std::min(width, done * width / all);
  return std::string(filled, '#') + std::string(width - filled, '.');
}

/// How far the domain is in its present stage, and what that counts.
struct Share {
  std::uint32_t done;
  std::uint32_t all;
  const char* what;
};

Share share_of(const DomainRound& round) noexcept {
  switch (round.stage()) {
    case Stage::Subscribing:
      return {round.subscribed(), round.ap_count(), "subscribed"};
    case Stage::Waiting:
      return {round.subscribed(), round.ap_count(), "planning delay"};
    case Stage::Measuring:
      return {round.modes(), round.ap_count(), "measurement mode"};
    case Stage::Scanning:
      return {round.scans(), round.scans_asked(), "scans reported"};
    case Stage::Optimising:
      return {round.scans(), round.scans_asked(), "plan being computed"};
    case Stage::Planned:
      return {round.plans(), round.scans(), "plans received"};
  }
  return {0, 0, ""};
}

std::string domain_line(const std::string& domain, const DomainRound& round) {
  const Share share = share_of(round);
  char text[256];
  std::snprintf(text, sizeof text, "%-16.16s %-11s [%s] %u/%u %s", domain.c_str(),
                name(round.stage()), bar(share.done, share.all).c_str(), share.done, share.all,
                share.what);
  std::string line = text;
  if (round.rounds() > 0) line += ", round " + std::to_string(round.rounds());
  return line;
}

std::string fleet_line(const FleetRun& run, Millis now) {
  const Counters& c = run.counters();
  char text[256];
  std::snprintf(
      text, sizeof text,
      "%6.1f s  %u/%zu subscribed, %u open, %llu lost, %llu refused, %llu sent, %llu received",
      seconds(now - run.started()), run.subscribed(), run.agents().size(), run.open(),
      static_cast<unsigned long long>(c.lost), static_cast<unsigned long long>(c.rejected),
      static_cast<unsigned long long>(c.sent), static_cast<unsigned long long>(c.received));
  return text;
}

/// What the plans have done so far; empty before the first one.
std::string air_line(const AirSummary& air) {
  constexpr std::array<const char*, 3> kNames{"2.4 GHz", "5 GHz", "6 GHz"};
  std::string line;
  for (std::size_t band = 0; band < kNames.size(); ++band) {
    if (air.radios[band] == 0) continue;
    char text[64];
    std::snprintf(text, sizeof text, "%s %s %.1f -> %.1f", line.empty() ? "" : ",", kNames[band],
                  air.before_dbm[band], air.after_dbm[band]);
    line += text;
  }
  return line.empty() ? line : "interference, mean dBm:" + line;
}

/// The domains that have no line of their own, by stage.
std::string rest_line(const FleetRun& run, std::size_t first) {
  std::array<int, kStages> counts{};
  for (std::size_t i = first; i < run.domains().size(); ++i) {
    ++counts[static_cast<std::size_t>(run.domains()[i].round.stage())];
  }
  std::string text = "and " + std::to_string(run.domains().size() - first) + " more:";
  for (std::size_t stage = 0; stage < kStages; ++stage) {
    if (counts[stage] == 0) continue;
    text += " " + std::to_string(counts[stage]) + " " + name(static_cast<Stage>(stage));
  }
  return text;
}

std::size_t terminal_columns(std::FILE* stream) noexcept {
  winsize size{};
  if (ioctl(fileno(stream), TIOCGWINSZ, &size) != 0 || size.ws_col < 20) return 80;
  return size.ws_col;
}

}  // namespace

std::vector<std::string> status_lines(const FleetRun& run, Millis now, std::size_t columns,
                                      std::size_t most_domains) {
  std::vector<std::string> lines{fleet_line(run, now)};
  const std::size_t shown = std::min(most_domains, run.domains().size());
  for (std::size_t i = 0; i < shown; ++i) {
    lines.push_back(domain_line(run.world().sites()[i].domain, run.domains()[i].round));
  }
  if (shown < run.domains().size()) lines.push_back(rest_line(run, shown));
  if (std::string air = air_line(run.air()); !air.empty()) lines.push_back(std::move(air));
  for (std::string& line : lines) line.resize(std::min(line.size(), columns));
  return lines;
}

std::string clients_line(const FleetRun& run, Millis now) {
  if (run.steered() == nullptr) return {};
  const CrowdSample steered = sample_crowd(run.world(), *run.steered(), now);
  char text[200];
  const int length =
      std::snprintf(text, sizeof text, "clients: %u of %u served, imbalance 5 GHz %.1f",
                    steered.served, steered.clients, steered.imbalance[1]);
  if (run.unsteered() != nullptr) {
    const CrowdSample unsteered = sample_crowd(run.world(), *run.unsteered(), now);
    std::snprintf(text + length, sizeof text - static_cast<std::size_t>(length),
                  " (%.1f without steering)", unsteered.imbalance[1]);
  }
  return text;
}

std::vector<std::string> Progress::lines(const FleetRun& run, Millis now, std::size_t columns,
                                         std::size_t most_domains) {
  std::vector<std::string> result = status_lines(run, now, columns, most_domains);
  if (now - clients_at_ >= kClientsEvery) {
    clients_at_ = now;
    clients_ = clients_line(run, now);
  }
  if (!clients_.empty()) result.push_back(clients_.substr(0, columns));
  return result;
}

Progress::Progress(std::FILE* stream) : stream_(stream), terminal_(isatty(fileno(stream)) == 1) {}

void Progress::show(const FleetRun& run, Millis now) {
  if (terminal_) {
    redraw(run, now);
  } else {
    print_changes(run, now);
  }
}

void Progress::redraw(const FleetRun& run, Millis now) {
  std::string out;
  if (drawn_ > 0) out += "\x1b[" + std::to_string(drawn_) + "A";
  const auto block = lines(run, now, terminal_columns(stream_) - 1, kMostDomains);
  for (const std::string& line : block) out += "\r\x1b[K" + line + "\n";
  drawn_ = block.size();
  std::fputs(out.c_str(), stream_);
  std::fflush(stream_);
}

void Progress::print_changes(const FleetRun& run, Millis now) {
  const bool first = stages_.empty();
  stages_.resize(run.domains().size(), {Stage::Subscribing, 0});
  bool printed = false;
  for (std::size_t i = 0; i < stages_.size(); ++i) {
    const DomainRound& round = run.domains()[i].round;
    const std::pair reached(round.stage(), round.rounds());
    if (reached == stages_[i]) continue;
    stages_[i] = reached;
    if (stages_.size() > kMostDomains) continue;
    std::fprintf(stream_, "%6.1f s  %s\n", seconds(now - run.started()),
                 domain_line(run.world().sites()[i].domain, round).c_str());
    printed = true;
  }
  if (first || now - last_line_ >= kLineEvery) {
    last_line_ = now;
    const std::size_t own_lines = stages_.size() > kMostDomains ? 0 : stages_.size();
    std::vector<std::string> summary = lines(run, now, 200, own_lines);
    // Domains that get a line whenever their stage changes need none here.
    summary.erase(summary.begin() + 1,
                  summary.begin() + 1 + static_cast<std::ptrdiff_t>(own_lines));
    for (const std::string& line : summary) std::fprintf(stream_, "%s\n", line.c_str());
    printed = true;
  }
  if (printed) std::fflush(stream_);
}

void Progress::finish(const FleetRun& run, Millis now) { show(run, now); }

}  // namespace rrm::fleet
