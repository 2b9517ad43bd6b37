#include "tools/fleet/Crowd.h"

#include <algorithm>
#include <cmath>

namespace rrm::fleet {
namespace {

constexpr int kThinkSlots = 10;  ///< a tenth of the clients thinks in every tenth of a second
constexpr Millis kSlot = 100;
constexpr double kClientPower = 16;  ///< dBm
constexpr double kHand = 1.1;        ///< metres above the floor
constexpr double kJoinAt = -82;      ///< dBm: the weakest access point a client joins
constexpr double kGoneAt = -90;      ///< dBm: below it the link is lost
constexpr double kRoamBelow = -72;   ///< dBm: a client looks for a better radio below this
constexpr double kStickyBelow = -83;
constexpr double kUrgentBelow = -80;   ///< dBm: a client that has just moved looks again below this
constexpr Millis kSettle = 60000;      ///< for which it otherwise stays where it went
constexpr double kSetOut = 1.0 / 120;  ///< chance per second that one who stands walks on
constexpr double kRoamGain = 8;        ///< dB by which the other must be better
constexpr double kWideBandBonus = 6;   ///< dB by which clients prefer 5 and 6 GHz
constexpr int kHeardAt = -90;          ///< dBm: the weakest client an access point decodes
constexpr Millis kProbeMemory = 15000;
constexpr Millis kProbeEvery = 12000;
constexpr Millis kProbeRarely = 90000;
constexpr Millis kPingPong = 60000;
constexpr Millis kInsistEvery = 3000;  ///< between two tries of a client that takes no refusal
constexpr int kInsistTimes = 4;        ///< tries after which it goes elsewhere
constexpr Millis kRoamEvery = 4000;
constexpr Millis kAvoid = 300000;       ///< for which a client does not roam to who threw it out
constexpr std::size_t kRemembered = 4;  ///< radios that it knows to have done so
constexpr Millis kSignalEvery = 5000;
constexpr int kSignalStep = 4;      ///< dB that are worth a report
constexpr double kListenAgain = 3;  ///< metres after which the surroundings sound different

constexpr double kShadowGrid = 8;  ///< metres over which shadowing changes

enum Stream : std::uint64_t { kClient = 0xc11e47, kCrowd, kRooms, kAir };

double distance(double ax, double ay, double bx, double by) noexcept {
  return std::hypot(ax - bx, ay - by);
}

/// A smooth random field of mean 0 and deviation 1: between the corners of a grid the values of the
/// corners are weighed by nearness. Moving a few metres changes a signal a little, not at random.
double shadow(std::uint64_t field, const Place& place) noexcept {
  const double column = std::floor(place.x / kShadowGrid);
  const double row = std::floor(place.y / kShadowGrid);
  const double right = place.x / kShadowGrid - column;
  const double up = place.y / kShadowGrid - row;
  double sum = 0;
  double squares = 0;
  for (const int dx : {0, 1}) {
    for (const int dy : {0, 1}) {
      const double weight = (dx == 1 ? right : 1 - right) * (dy == 1 ? up : 1 - up);
      const auto x = static_cast<std::uint64_t>(static_cast<std::int64_t>(column) + dx);
      const auto y = static_cast<std::uint64_t>(static_cast<std::int64_t>(row) + dy);
      sum += weight * gaussian(hash({field, x, y}));
      squares += weight * weight;
    }
  }
  return sum / std::sqrt(squares);
}

/// Neither client nor controller wanted it.
bool is_forced(Parting why) noexcept { return why == Parting::Storm || why == Parting::Death; }

/// Where a building's access points stand in a site's list; those outdoors (-1) come first.
std::size_t list_of(const Place& place) noexcept {
  const int list = place.building + 1;
  return static_cast<std::size_t>(list);
}

}  // namespace

Crowd::Crowd(const World& world, const CrowdOptions& options)
    : world_(world),
      storms_per_minute_(options.storms),
      random_(hash({world.scenario().seed, kCrowd})),
      alive_(world.aps().size(), true),
      members_(world.aps().size() * 3),
      blocks_(world.aps().size() * 3) {
  for (const Site& site : world.sites()) buildings_.emplace_back(site.buildings.size() + 1);
  for (const AccessPoint& ap : world.aps()) {
    buildings_[ap.site][list_of(ap.place)].push_back(ap.index);
  }
  clients_.resize(options.clients);
  for (std::uint32_t i = 0; i < options.clients; ++i) make_client(i, options);
}

void Crowd::make_client(std::uint32_t index, const CrowdOptions& options) {
  Client& client = clients_[index];
  client.random = Random(hash({world_.scenario().seed, kClient, index}));
  Random& random = client.random;
  // Sites get clients as they have access points: everybody belongs to one, chosen at random.
  const AccessPoint& home =
      world_.ap(random.below(static_cast<std::uint32_t>(world_.aps().size())));
  client.site = home.site;
  client.place = home.place;
  client.place.above_floor = kHand;
  const Site& site = world_.sites()[home.site];
  if (home.place.building >= 0) {
    const Building& box = site.buildings[static_cast<std::size_t>(home.place.building)];
    client.place.x = box.x + random.uniform(0, box.width);
    client.place.y = box.y + random.uniform(0, box.depth);
    if (random.chance(options.gathered)) {
      // One meeting place per floor: people stand within 4 m of it.
      Random room(hash({world_.scenario().seed, kRooms, home.site,
                        static_cast<std::uint64_t>(home.place.building),
                        static_cast<std::uint64_t>(home.place.floor)}));
      client.place.x = box.x + room.uniform(0.2, 0.8) * box.width + random.uniform(-4, 4);
      client.place.y = box.y + room.uniform(0.2, 0.8) * box.depth + random.uniform(-4, 4);
    }
  }
  client.goal_x = client.place.x;
  client.goal_y = client.place.y;
  // Devices of the first name are most; the others share the rest.
  const auto names = static_cast<std::uint32_t>(world_.scenario().ssids.size());
  client.ssid = random.chance(0.6) ? 0 : static_cast<int>(random.below(names));
  client.speed = random.chance(options.moving) ? random.uniform(0.5, 1.5) : 0;
  client.sticky = random.chance(options.sticky);
  client.refusing = random.chance(options.refusing);
  client.rare = random.chance(options.rare);
  client.arrives = static_cast<Millis>(random.uniform(0, static_cast<double>(options.arrival)));
}

MacAddress Crowd::mac(std::uint32_t client) const noexcept {
  return MacAddress{{0x06, 0x43, 0x4c, static_cast<std::uint8_t>(client >> 16),
                     static_cast<std::uint8_t>(client >> 8), static_cast<std::uint8_t>(client)}};
}

std::optional<std::uint32_t> Crowd::index_of(const MacAddress& mac) const noexcept {
  const auto index = static_cast<std::uint32_t>(mac.number() & 0xffffff);
  if (index >= clients_.size() || this->mac(index) != mac) return std::nullopt;
  return index;
}

const SsidPlan& Crowd::ssid(std::uint32_t client) const noexcept {
  return world_.scenario().ssids[static_cast<std::size_t>(clients_[client].ssid)];
}

std::vector<ClientEvent> Crowd::take_events() {
  std::vector<ClientEvent> events;
  events.swap(events_);
  return events;
}

void Crowd::begin(Millis now) {
  if (begun_) return;
  begun_ = true;
  last_slot_ = now / kSlot;
  last_advance_ = now;
  for (Client& client : clients_) {
    client.arrives += now;
    client.unserved_since = client.arrives;
  }
}

void Crowd::advance(Millis now) {
  if (!begun_) return;
  storm(now);
  // At most one round of turns, however long the last call is ago.
  last_slot_ = std::max(last_slot_, now / kSlot - kThinkSlots);
  for (; last_slot_ < now / kSlot; ++last_slot_) {
    for (auto i = static_cast<std::uint32_t>(last_slot_ % kThinkSlots); i < clients_.size();
         i += kThinkSlots) {
      think(now, i);
    }
  }
  last_advance_ = now;
}

void Crowd::storm(Millis now) {
  storms_due_ += storms_per_minute_ * static_cast<double>(now - last_advance_) / 60000;
  for (; storms_due_ >= 1; storms_due_ -= 1) {
    const Place& centre =
        world_.ap(random_.below(static_cast<std::uint32_t>(world_.aps().size()))).place;
    for (std::uint32_t i = 0; i < clients_.size(); ++i) {
      const Client& client = clients_[i];
      const bool there =
          client.place.building == centre.building && client.place.floor == centre.floor;
      if (there && client.radio) leave(now, i, Parting::Storm);
    }
  }
}

void Crowd::think(Millis now, std::uint32_t index) {
  Client& client = clients_[index];
  if (now < client.arrives) return;
  walk(client);
  listen(index, client);
  probe(now, client);
  if (!client.radio) return try_to_join(now, index);
  if (downlink(client, *client.radio) < kGoneAt) return leave(now, index, Parting::Roamed);
  consider_roaming(now, index);
  if (client.radio) report_signal(now, index);
}

void Crowd::walk(Client& client) const {
  if (client.speed <= 0 || client.place.building < 0) return;
  const double left = distance(client.place.x, client.place.y, client.goal_x, client.goal_y);
  if (left <= client.speed) {
    client.place.x = client.goal_x;
    client.place.y = client.goal_y;
    if (!client.random.chance(kSetOut)) return;
    const Building& box =
        world_.sites()[client.site].buildings[static_cast<std::size_t>(client.place.building)];
    client.goal_x = box.x + client.random.uniform(0, box.width);
    client.goal_y = box.y + client.random.uniform(0, box.depth);
    return;
  }
  client.place.x += (client.goal_x - client.place.x) / left * client.speed;
  client.place.y += (client.goal_y - client.place.y) / left * client.speed;
}

void Crowd::listen(std::uint32_t index, Client& client) const {
  if (distance(client.place.x, client.place.y, client.heard_x, client.heard_y) < kListenAgain)
    return;
  client.heard_x = client.place.x;
  client.heard_y = client.place.y;
  client.candidates.clear();
  const Propagation& propagation = world_.scenario().propagation;
  const Site& site = world_.sites()[client.site];
  for (const std::uint32_t ap : buildings_[client.site][list_of(client.place)]) {
    const Obstacles obstacles = between(site.buildings, client.place, world_.ap(ap).place);
    Candidate candidate{ap, {}};
    for (int band = 0; band < 3; ++band) {
      candidate.loss_db[static_cast<std::size_t>(band)] = static_cast<float>(
          propagation.mean_loss_db(band, obstacles) +
          propagation.shadowing_db * shadow(hash({world_.scenario().seed, kAir, index, ap,
                                                  static_cast<std::uint64_t>(band)}),
                                            client.place));
    }
    if (candidate.loss_db[0] < kClientPower - kHeardAt + 6) client.candidates.push_back(candidate);
  }
}

void Crowd::probe(Millis now, Client& client) const {
  const Millis every = !client.radio ? 1000 : client.rare ? kProbeRarely : kProbeEvery;
  if (now - client.last_probe >= every) client.last_probe = now;
}

std::optional<float> Crowd::loss(const Client& client, RadioKey radio) const noexcept {
  for (const Candidate& candidate : client.candidates) {
    if (candidate.ap == radio.ap) return candidate.loss_db[static_cast<std::size_t>(radio.radio)];
  }
  return std::nullopt;
}

double Crowd::downlink(const Client& client, RadioKey radio) const noexcept {
  const auto path = loss(client, radio);
  const AccessPoint& ap = world_.ap(radio.ap);
  const RadioUnit* unit = ap.radio(radio.radio);
  if (!path || unit == nullptr) return -200;
  return ap.radiated_dbm(unit->power_dbm) - static_cast<double>(*path);
}

int Crowd::client_rssi(std::uint32_t client, RadioKey radio) const {
  const auto path = loss(clients_[client], radio);
  if (!path) return -100;
  const double gain = world_.ap(radio.ap).radiated_dbm(0);  // the antenna works both ways
  return static_cast<int>(std::lround(kClientPower + gain - static_cast<double>(*path)));
}

bool Crowd::serves(RadioKey radio, int ssid) const noexcept {
  if (!alive_[radio.ap]) return false;
  const RadioUnit* unit = world_.ap(radio.ap).radio(radio.radio);
  if (unit == nullptr) return false;
  const SsidPlan* wanted = &world_.scenario().ssids[static_cast<std::size_t>(ssid)];
  return std::any_of(unit->vaps.begin(), unit->vaps.end(),
                     [&](const Vap& vap) { return vap.ssid == wanted; });
}

std::optional<RadioKey> Crowd::best_radio(Millis now, std::uint32_t index, bool blocked_too) const {
  const Client& client = clients_[index];
  std::optional<RadioKey> best;
  double best_score = -1000;
  for (const Candidate& candidate : client.candidates) {
    for (int band = 0; band < 3; ++band) {
      const RadioKey radio{candidate.ap, band};
      const double signal = downlink(client, radio);
      const double score = signal + (band > 0 ? kWideBandBonus : 0);
      if (signal < kJoinAt || score <= best_score || !serves(radio, client.ssid)) continue;
      if (!blocked_too && is_blocked(now, radio, index)) continue;
      if (client.radio && avoids(now, client, radio)) continue;
      best = radio;
      best_score = score;
    }
  }
  return best;
}

bool Crowd::avoids(Millis now, const Client& client, RadioKey radio) const noexcept {
  return std::any_of(client.thrown_out.begin(), client.thrown_out.end(),
                     [&](const Departure& departure) {
                       return departure.radio == radio && now - departure.at < kAvoid;
                     });
}

bool Crowd::is_blocked(Millis now, RadioKey radio, std::uint32_t index) const {
  const auto& blocks = blocks_[slot(radio)];
  const auto found = blocks.find(index);
  if (found == blocks.end() || now >= found->second.until) return false;
  if (observer_ != nullptr) observer_->on_refused(now, radio, index);
  return true;
}

std::optional<RadioKey> Crowd::answering_radio(Millis now, std::uint32_t index) {
  Client& client = clients_[index];
  const auto best = best_radio(now, index, true);
  if (!best || !is_blocked(now, *best, index)) return best;
  ++counters_.refused;
  if (!client.refusing || client.insisted >= kInsistTimes) return best_radio(now, index, false);
  ++client.insisted;
  client.next_try = now + kInsistEvery;
  return std::nullopt;
}

void Crowd::try_to_join(Millis now, std::uint32_t index) {
  if (now < clients_[index].next_try) return;
  if (const auto radio = answering_radio(now, index)) associate(now, index, *radio);
}

void Crowd::consider_roaming(Millis now, std::uint32_t index) {
  Client& client = clients_[index];
  const double signal = downlink(client, *client.radio);
  const bool settled = now - client.joined_at >= kSettle || signal < kUrgentBelow;
  if (signal >= (client.sticky ? kStickyBelow : kRoamBelow) || !settled) return;
  if (now < client.next_try) return;
  client.next_try = now + kRoamEvery;
  const auto radio = answering_radio(now, index);
  if (!radio || *radio == *client.radio || downlink(client, *radio) < signal + kRoamGain) return;
  leave(now, index, Parting::Roamed);
  associate(now, index, *radio);
}

void Crowd::report_signal(Millis now, std::uint32_t index) {
  Client& client = clients_[index];
  if (now - client.reported_at < kSignalEvery) return;
  client.reported_at = now;
  const int rssi = client_rssi(index, *client.radio);
  if (std::abs(rssi - client.reported_rssi) < kSignalStep) return;
  client.reported_rssi = rssi;
  events_.push_back({ClientEvent::Kind::Signal, index, *client.radio, rssi});
}

void Crowd::count_move(Millis now, const Client& client, RadioKey radio) {
  if (!client.left || client.left->radio == radio) return;
  ++counters_.moves;
  const bool was_here = client.earlier && client.earlier->radio == radio;
  if (!was_here || now - client.earlier->at > kPingPong) return;
  ++counters_.ping_pong;
  if (is_forced(client.earlier->why) || is_forced(client.left->why)) ++counters_.ping_pong_forced;
}

void Crowd::associate(Millis now, std::uint32_t index, RadioKey radio) {
  Client& client = clients_[index];
  const Millis waited = now - client.unserved_since;
  counters_.longest_unserved = std::max(counters_.longest_unserved, waited);
  if (client.orphaned) counters_.longest_orphaned = std::max(counters_.longest_orphaned, waited);
  client.orphaned = false;
  client.insisted = 0;
  ++counters_.associations;
  count_move(now, client, radio);
  client.radio = radio;
  client.joined_at = now;
  client.reported_at = now;
  client.reported_rssi = client_rssi(index, radio);
  members_[slot(radio)].push_back(index);
  if (observer_ != nullptr) observer_->on_served(now, radio, index);
  events_.push_back({ClientEvent::Kind::Associated, index, radio, client.reported_rssi});
}

void Crowd::leave(Millis now, std::uint32_t index, Parting why) {
  Client& client = clients_[index];
  const RadioKey radio = *client.radio;
  std::vector<std::uint32_t>& members = members_[slot(radio)];
  members.erase(std::find(members.begin(), members.end(), index));
  client.radio.reset();
  if (client.left && client.left->radio != radio) client.earlier = client.left;
  client.left = Departure{radio, now, why};
  client.unserved_since = now;
  if (observer_ != nullptr) observer_->on_parted(now, radio, index, why);
  events_.push_back({ClientEvent::Kind::Left, index, radio, client.reported_rssi});
}

void Crowd::block(Millis now, RadioKey radio, const MacAddress& client, Millis until) {
  const auto index = index_of(client);
  if (!index) return;
  if (observer_ != nullptr) observer_->on_blocked(now, radio, *index, until);
  const auto [place, is_new] = blocks_[slot(radio)].try_emplace(*index, Block{now, until});
  Block& block = place->second;
  if (is_new) return;
  longest_block_ = std::max(longest_block_, std::min(now, block.until) - block.since);
  block = {now, until};
}

void Crowd::unblock(Millis now, RadioKey radio, const MacAddress& client) {
  const auto index = index_of(client);
  if (!index) return;
  if (observer_ != nullptr) observer_->on_unblocked(now, radio, *index);
  auto& blocks = blocks_[slot(radio)];
  const auto found = blocks.find(*index);
  if (found == blocks.end()) return;
  const Block& block = found->second;
  longest_block_ = std::max(longest_block_, std::min(now, block.until) - block.since);
  blocks.erase(found);
}

Millis Crowd::longest_block(Millis now) const noexcept {
  Millis longest = longest_block_;
  for (const auto& blocks : blocks_) {
    for (const auto& [client, block] : blocks) {
      longest = std::max(longest, std::min(now, block.until) - block.since);
    }
  }
  return longest;
}

void Crowd::kick(Millis now, RadioKey radio, const MacAddress& client, Millis until) {
  const auto index = index_of(client);
  if (!index) return;
  block(now, radio, client, until);
  if (clients_[*index].radio != radio) return;
  ++counters_.kicks;
  std::vector<Departure>& thrown_out = clients_[*index].thrown_out;
  if (!clients_[*index].refusing) {
    if (thrown_out.size() >= kRemembered) thrown_out.erase(thrown_out.begin());
    thrown_out.push_back({radio, now, Parting::Kicked});
  }
  leave(now, *index, Parting::Kicked);
}

std::optional<int> Crowd::probe_heard(Millis now, RadioKey radio, const MacAddress& mac) const {
  const auto index = index_of(mac);
  if (!index || !alive_[radio.ap]) return std::nullopt;
  const Client& client = clients_[*index];
  if (!begun_ || now < client.arrives || now - client.last_probe > kProbeMemory)
    return std::nullopt;
  const int rssi = client_rssi(*index, radio);
  if (rssi < kHeardAt) return std::nullopt;
  return rssi;
}

bool Crowd::ask_transition(Millis now, std::uint32_t index, RadioKey from, RadioKey to) {
  Client& client = clients_[index];
  if (client.radio != from || !serves(to, client.ssid)) return false;
  // Nobody agrees to a radio that it would leave again.
  if (client.refusing || downlink(client, to) < kRoamBelow) {
    ++counters_.declined;
    return false;
  }
  if (is_blocked(now, to, index)) {
    ++counters_.refused;
    return false;
  }
  leave(now, index, Parting::Transition);
  associate(now, index, to);
  ++counters_.transitions;
  return true;
}

void Crowd::set_alive(Millis now, std::uint32_t ap, bool alive) {
  alive_[ap] = alive;
  if (alive) return;
  for (int radio = 0; radio < 3; ++radio) {
    const std::vector<std::uint32_t> members = members_[slot({ap, radio})];
    for (const std::uint32_t client : members) {
      leave(now, client, Parting::Death);
      clients_[client].orphaned = true;
    }
    blocks_[slot({ap, radio})].clear();
  }
  if (observer_ != nullptr) observer_->on_death(now, ap);
}

std::optional<RadioKey> Crowd::served_by(std::uint32_t client) const noexcept {
  return clients_[client].radio;
}

std::vector<RadioKey> Crowd::radios_hearing(std::uint32_t index, int band, int rssi_dbm) const {
  const Client& client = clients_[index];
  std::vector<RadioKey> radios;
  for (const Candidate& candidate : client.candidates) {
    const RadioKey radio{candidate.ap, band_index(band)};
    if (serves(radio, client.ssid) && client_rssi(index, radio) >= rssi_dbm)
      radios.push_back(radio);
  }
  return radios;
}

Millis Crowd::unserved_for(Millis now, std::uint32_t index) const noexcept {
  const Client& client = clients_[index];
  return !begun_ || client.radio || now < client.arrives ? 0 : now - client.unserved_since;
}

}  // namespace rrm::fleet
