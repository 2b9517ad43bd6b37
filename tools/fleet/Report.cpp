#include "tools/fleet/Report.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>

#include "server/lib/JsonWriter.h"

namespace rrm::fleet {
namespace {

constexpr double kLoudDbm = -68;  ///< where the controller's default settings call a neighbour loud
constexpr std::size_t kMostDomainRows = 12;
constexpr std::size_t kHistogramColumns = 76;
constexpr std::array<const char*, 3> kBandNames{"2.4 GHz", "5 GHz", "6 GHz"};
constexpr std::array<const char*, 3> kBandKeys{"2", "5", "6"};

[[gnu::format(printf, 2, 3)]] void line(std::string& text, const char* format, ...) {
  char buffer[256];
  std::va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(buffer, sizeof buffer, format, arguments);
  va_end(arguments);
  text += buffer;
  text += '\n';
}

double seconds(Millis ms) noexcept { return static_cast<double>(ms) / 1000; }
double megabytes(std::uint64_t bytes) noexcept { return static_cast<double>(bytes) / 1e6; }
unsigned long long big(std::uint64_t number) noexcept { return number; }

void summary(std::string& text, const Report& r) {
  const Counters& c = r.counters;
  line(text, "Fleet         %u access points in %zu domain%s, seed %llu, %.1f s", r.aps,
       r.domains.size(), r.domains.size() == 1 ? "" : "s", big(r.seed), seconds(r.elapsed));
  if (r.all_subscribed_after) {
    line(text, "Subscribed    %u of %u; all of them after %.1f s", r.subscribed, r.aps,
         seconds(*r.all_subscribed_after));
  } else {
    line(text, "Subscribed    %u of %u", r.subscribed, r.aps);
  }
  line(text, "Connections   %llu started, %llu failed, %llu lost; %llu subscriptions refused",
       big(c.attempts), big(c.failed), big(c.lost), big(c.rejected));
  if (c.restarts > 0) line(text, "Restarts      %llu access points", big(c.restarts));
  line(text, "Messages      %llu sent (%.1f MB), %llu received (%.1f MB)", big(c.sent),
       megabytes(c.sent_bytes), big(c.received), megabytes(c.received_bytes));
  line(text, "Plans         %llu channels and %llu powers changed", big(c.channel_changes),
       big(c.power_changes));
  line(text, "Roaming data  802.11k: %.1f neighbours, 802.11r: %.1f key links per access point",
       r.neighbours, r.fbt_links);
}

void stage_row(std::string& text, const char* name, const Report::Domain& d) {
  line(text, "%-20.20s %5u %6u %9.1f %10.1f %9.1f %11.1f %6.1f %7.1f", name, d.aps, d.rounds,
       seconds(d.times.waiting), seconds(d.times.measuring), seconds(d.times.scanning),
       seconds(d.times.optimising), seconds(d.times.distributing), seconds(d.times.total()));
}

void stages(std::string& text, const Report& r) {
  line(text, "\n%-20s %5s %6s %9s %10s %9s %11s %6s %7s", "Last round, seconds", "APs", "rounds",
       "waiting", "measuring", "scanning", "optimising", "plans", "total");
  const std::size_t rows = std::min(r.domains.size(), kMostDomainRows);
  for (std::size_t i = 0; i < rows; ++i) stage_row(text, r.domains[i].name.c_str(), r.domains[i]);
  if (rows < r.domains.size()) line(text, "... and %zu domains more", r.domains.size() - rows);
}

std::string histogram(const std::map<int, int>& channels) {
  std::string text;
  for (const auto& [channel, count] : channels) {
    if (!text.empty()) text += "  ";
    text += std::to_string(channel) + ":" + std::to_string(count);
  }
  return text;
}

void channel_rows(std::string& text, const char* name, const std::map<int, int>& channels) {
  std::string rest = histogram(channels);
  const char* head = name;
  while (!rest.empty()) {
    std::size_t end = rest.size();
    if (end > kHistogramColumns) end = rest.rfind("  ", kHistogramColumns);
    line(text, "  %-20s %s", head, rest.substr(0, end).c_str());
    rest.erase(0, std::min(end + 2, rest.size()));
    head = "";
  }
}

void air_row(std::string& text, const char* name, const char* unit, double before, double after) {
  line(text, "  %-36s %8.1f %8.1f %-4s %+8.1f", name, before, after, unit, after - before);
}

/// The same with a dash where nobody was heard: there is no mean of nothing.
void heard_row(std::string& text, const char* name, const std::vector<double>& before,
               const std::vector<double>& after) {
  if (!before.empty() && !after.empty())
    return air_row(text, name, "dBm", mean(before), mean(after));
  const auto cell = [](const std::vector<double>& values) {
    char number[32] = "-";
    if (!values.empty()) std::snprintf(number, sizeof number, "%.1f", mean(values));
    return std::string(number);
  };
  line(text, "  %-36s %8s %8s %-4s %8s", name, cell(before).c_str(), cell(after).c_str(), "dBm",
       "-");
}

void band_table(std::string& text, const char* name, const BandSample& before,
                const BandSample& after) {
  if (before.radios() == 0) return;
  line(text, "\n%s, %zu radios%*s", name, before.radios(), 0, "");
  air_row(text, "interference and noise, mean", "dBm", mean(before.interference_dbm),
          mean(after.interference_dbm));
  air_row(text, "... in the worst tenth", "dBm", percentile(before.interference_dbm, 0.9),
          percentile(after.interference_dbm, 0.9));
  heard_row(text, "loudest co-channel neighbour, mean", before.loudest_dbm, after.loudest_dbm);
  line(text, "  %-36s %8zu %8zu", "radios that hear one above -68 dBm",
       count_above(before.loudest_dbm, kLoudDbm), count_above(after.loudest_dbm, kLoudDbm));
  line(text, "  %-36s %8zu %8zu", "radios that hear none",
       before.radios() - before.loudest_dbm.size(), after.radios() - after.loudest_dbm.size());
  air_row(text, "transmit power, mean", "dBm", mean(before.power_dbm), mean(after.power_dbm));
  channel_rows(text, "channels before", before.channels);
  channel_rows(text, "channels after", after.channels);
}

/// One row of the clients' table; the second column only when there are unsteered ones.
void client_row(std::string& text, const Report& r, const char* name, int digits,
                double (*figure)(const Report::Clients&)) {
  char columns[64];
  if (r.unsteered) {
    std::snprintf(columns, sizeof columns, "%10.*f %10.*f", digits, figure(*r.unsteered), digits,
                  figure(*r.steered));
  } else {
    std::snprintf(columns, sizeof columns, "%10.*f", digits, figure(*r.steered));
  }
  line(text, "  %-46s %s", name, columns);
}

struct ClientFigure {
  const char* name;
  const char* key;
  int digits;
  double (*figure)(const Report::Clients&);
};

constexpr ClientFigure kClientFigures[] = {
    {"clients", "clients", 0, [](const Report::Clients& c) -> double { return c.sample.clients; }},
    {"served now", "served", 0, [](const Report::Clients& c) -> double { return c.sample.served; }},
    {"clients per radio, mean, 2.4 GHz", "mean_per_radio_2", 1,
     [](const Report::Clients& c) { return c.sample.mean_per_radio[0]; }},
    {"... 5 GHz", "mean_per_radio_5", 1,
     [](const Report::Clients& c) { return c.sample.mean_per_radio[1]; }},
    {"... 6 GHz", "mean_per_radio_6", 1,
     [](const Report::Clients& c) { return c.sample.mean_per_radio[2]; }},
    {"most clients on a radio, 2.4 GHz", "most_on_a_radio_2", 0,
     [](const Report::Clients& c) -> double { return c.sample.most_on_a_radio[0]; }},
    {"... 5 GHz", "most_on_a_radio_5", 0,
     [](const Report::Clients& c) -> double { return c.sample.most_on_a_radio[1]; }},
    {"... 6 GHz", "most_on_a_radio_6", 0,
     [](const Report::Clients& c) -> double { return c.sample.most_on_a_radio[2]; }},
    {"imbalance (most - mean around a client), 2.4 GHz", "imbalance_2", 2,
     [](const Report::Clients& c) { return c.sample.imbalance[0]; }},
    {"... 5 GHz", "imbalance_5", 2, [](const Report::Clients& c) { return c.sample.imbalance[1]; }},
    {"... 6 GHz", "imbalance_6", 2, [](const Report::Clients& c) { return c.sample.imbalance[2]; }},
    {"served at -75 dBm or less, %", "weak_percent", 1,
     [](const Report::Clients& c) { return 100 * c.sample.weak_share; }},
    {"moves", "moves", 0,
     [](const Report::Clients& c) { return static_cast<double>(c.counters.moves); }},
    {"... back within 60 s", "ping_pong", 0,
     [](const Report::Clients& c) { return static_cast<double>(c.counters.ping_pong); }},
    {"attempts refused by a block", "refused", 0,
     [](const Report::Clients& c) { return static_cast<double>(c.counters.refused); }},
    {"kicks", "kicks", 0,
     [](const Report::Clients& c) { return static_cast<double>(c.counters.kicks); }},
    {"transitions made", "transitions", 0,
     [](const Report::Clients& c) { return static_cast<double>(c.counters.transitions); }},
    {"transitions declined", "declined", 0,
     [](const Report::Clients& c) { return static_cast<double>(c.counters.declined); }},
    {"longest time without a radio, s", "longest_unserved_s", 1,
     [](const Report::Clients& c) { return seconds(c.sample.longest_unserved); }},
    {"... of those whose access point died", "longest_orphaned_s", 1,
     [](const Report::Clients& c) { return seconds(c.sample.longest_orphaned); }},
    {"longest block of a client by a radio, s", "longest_block_s", 1,
     [](const Report::Clients& c) { return seconds(c.sample.longest_block); }},
};

void clients_table(std::string& text, const Report& r) {
  if (!r.steered) return;
  line(text, "\n%-48s %10s%s", "Clients", r.unsteered ? "unsteered" : "steered",
       r.unsteered ? "    steered" : "");
  for (const ClientFigure& row : kClientFigures) {
    client_row(text, r, row.name, row.digits, row.figure);
  }
}

void add_number(JsonWriter& object, const char* key, double number) {
  object.add(key, yajson::JsonValue(number));
}

void write_air(JsonWriter& parent, const char* key, const BandSample& sample) {
  JsonWriter object = JsonWriter::object(parent, key);
  add_number(object, "interference_mean_dbm", mean(sample.interference_dbm));
  add_number(object, "interference_p90_dbm", percentile(sample.interference_dbm, 0.9));
  add_number(object, "loudest_co_channel_mean_dbm", mean(sample.loudest_dbm));
  object.add("with_co_channel", std::uint64_t{sample.loudest_dbm.size()});
  object.add("loud_co_channel", std::uint64_t{count_above(sample.loudest_dbm, kLoudDbm)});
  add_number(object, "power_mean_dbm", mean(sample.power_dbm));
  JsonWriter channels = JsonWriter::object(object, "channels");
  for (const auto& [channel, count] : sample.channels) {
    channels.add(std::to_string(channel), count);
  }
}

void write_counters(JsonWriter& parent, const Counters& c) {
  JsonWriter object = JsonWriter::object(parent, "counters");
  object.add("connections_started", c.attempts);
  object.add("connections_failed", c.failed);
  object.add("sessions_lost", c.lost);
  object.add("restarts", c.restarts);
  object.add("subscriptions", c.subscriptions);
  object.add("subscriptions_refused", c.rejected);
  object.add("messages_sent", c.sent);
  object.add("messages_received", c.received);
  object.add("bytes_sent", c.sent_bytes);
  object.add("bytes_received", c.received_bytes);
  object.add("not_understood", c.not_understood);
  object.add("channel_changes", c.channel_changes);
  object.add("power_changes", c.power_changes);
}

void write_clients(JsonWriter& parent, const char* key,
                   const std::optional<Report::Clients>& clients) {
  if (!clients) return;
  JsonWriter object = JsonWriter::object(parent, key);
  for (const ClientFigure& row : kClientFigures) add_number(object, row.key, row.figure(*clients));
}

void write_domain(JsonWriter& domains, const Report::Domain& domain) {
  JsonWriter object = JsonWriter::object(domains);
  object.add("domain", domain.name);
  object.add("aps", domain.aps);
  object.add("subscribed", domain.subscribed);
  object.add("rounds", domain.rounds);
  object.add("stage", name(domain.stage));
  JsonWriter times = JsonWriter::object(object, "stage_ms");
  times.add("waiting", domain.times.waiting);
  times.add("measuring", domain.times.measuring);
  times.add("scanning", domain.times.scanning);
  times.add("optimising", domain.times.optimising);
  times.add("plans", domain.times.distributing);
}

}  // namespace

Report make_report(const FleetRun& run, Millis now) {
  Report report;
  report.seed = run.world().scenario().seed;
  report.elapsed = now - run.started();
  report.aps = static_cast<std::uint32_t>(run.agents().size());
  report.subscribed = run.subscribed();
  report.all_subscribed_after = run.all_subscribed_after();
  report.counters = run.counters();
  for (const ApAgent& agent : run.agents()) {
    report.neighbours += static_cast<double>(agent.neighbours()) / report.aps;
    report.fbt_links += static_cast<double>(agent.fbt_links()) / report.aps;
  }
  const auto clients = [&](const Crowd* crowd) -> std::optional<Report::Clients> {
    if (crowd == nullptr) return std::nullopt;
    return Report::Clients{sample_crowd(run.world(), *crowd, now), crowd->counters()};
  };
  report.steered = clients(run.steered());
  report.unsteered = clients(run.unsteered());
  for (std::size_t i = 0; i < run.domains().size(); ++i) {
    const DomainRun& domain = run.domains()[i];
    report.domains.push_back({run.world().sites()[i].domain, domain.round.ap_count(),
                              domain.round.subscribed(), domain.round.rounds(),
                              domain.round.stage(), domain.round.times()});
    if (!domain.before || !domain.after) continue;
    ++report.measured;
    merge(report.before, *domain.before);
    merge(report.after, *domain.after);
  }
  return report;
}

std::string to_text(const Report& report) {
  std::string text;
  summary(text, report);
  stages(text, report);
  clients_table(text, report);
  if (report.measured == 0) {
    line(text, "\nNo domain has finished a round: there is no before and after.");
    return text;
  }
  line(text, "\n%-38s %8s %8s %4s %8s", "Radio situation", "before", "after", "", "change");
  for (std::size_t i = 0; i < kBandNames.size(); ++i) {
    band_table(text, kBandNames[i], report.before[i], report.after[i]);
  }
  return text;
}

std::string to_json(const Report& report) {
  JsonWriter writer;
  writer.add("seed", report.seed);
  writer.add("elapsed_ms", report.elapsed);
  writer.add("aps", report.aps);
  writer.add("subscribed", report.subscribed);
  if (report.all_subscribed_after)
    writer.add("all_subscribed_after_ms", *report.all_subscribed_after);
  write_counters(writer, report.counters);
  add_number(writer, "neighbours_per_ap", report.neighbours);
  add_number(writer, "fbt_links_per_ap", report.fbt_links);
  {
    JsonWriter domains = JsonWriter::array(writer, "domains");
    for (const Report::Domain& domain : report.domains) write_domain(domains, domain);
  }
  if (report.steered) {
    JsonWriter clients = JsonWriter::object(writer, "clients");
    write_clients(clients, "steered", report.steered);
    write_clients(clients, "unsteered", report.unsteered);
  }
  JsonWriter air = JsonWriter::object(writer, "air");
  for (std::size_t i = 0; i < kBandKeys.size(); ++i) {
    if (report.before[i].radios() == 0) continue;
    JsonWriter band = JsonWriter::object(air, kBandKeys[i]);
    band.add("radios", std::uint64_t{report.before[i].radios()});
    write_air(band, "before", report.before[i]);
    write_air(band, "after", report.after[i]);
  }
  return writer.pretty_str();
}

}  // namespace rrm::fleet
