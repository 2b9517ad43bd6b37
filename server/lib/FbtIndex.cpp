#include "server/lib/FbtIndex.h"

#include <algorithm>
#include <utility>

namespace rrm {
namespace {

bool has_6ghz(const ApEntry& ap) {
  return std::any_of(ap.radios.radios.begin(), ap.radios.radios.end(),
                     [](const Radio& radio) { return radio.status && radio.band == 6; });
}

/// Texts as one key; none of them holds a NUL.
std::string joined(const std::string& first, const std::string& second,
                   const std::string& third = {}) {
  std::string key;
  key.reserve(first.size() + second.size() + third.size() + 2);
  key.append(first).push_back('\0');
  key.append(second).push_back('\0');
  return key.append(third);
}

/// Key holder ids are compared without the locally administered bit; unreadable ones are all zeros.
std::string comparable(const std::string& r1_id) {
  MacAddress mac = MacAddress::from_text(r1_id.c_str());
  mac.bytes[0] = static_cast<std::uint8_t>(mac.bytes[0] & ~0x02U);
  return mac.lower().str();
}

std::uint32_t number_of(const std::unordered_map<std::string, std::uint32_t>& numbers,
                        const std::string& key) {
  const auto found = numbers.find(key);
  return found == numbers.end() ? FbtIndex::kNone : found->second;
}

/// The number of a key, the next free one when it is new.
std::uint32_t numbered(std::unordered_map<std::string, std::uint32_t>& numbers, std::string key) {
  const auto next = static_cast<std::uint32_t>(numbers.size());
  return numbers.try_emplace(std::move(key), next).first->second;
}

}  // namespace

FbtIndex::FbtIndex(const ApMap& aps) {
  for (const auto& [mac, ap] : aps.aps()) {
    Peer peer;
    peer.ap_mac = mac;
    peer.ap_has_6ghz = has_6ghz(*ap);
    for_each_fbt_vap(std::as_const(*ap), [&](const Radio& radio, const Vap& vap) {
      peer.band = radio.band;
      peer.vap = &vap;
      add(peer);
    });
  }
}

void FbtIndex::add(Peer peer) {
  const FbtLink& link = *peer.vap->own_link;
  const std::string r1 = comparable(link.remote_r1_kh_id);
  peer.ssid = numbered(ssids_, peer.vap->ssid);
  peer.identity = numbered(identities_, joined(link.remote_r0_kh_id, r1, link.remote_r1_kh_key));
  const std::uint32_t group = numbered(group_numbers_, joined(r1, link.remote_r1_kh_key));
  peer.holder = numbered(holder_numbers_,
                         joined(link.remote_r0_kh_id, link.remote_r1_kh_id, link.remote_r1_kh_key));
  if (peer.holder == holders_.size()) {
    peer.vap->own_link.set_note(peer.holder);
    holders_.push_back({peer.vap->own_link, peer.identity, group});
  }
  by_ssid_.resize(ssids_.size());
  by_ssid_[peer.ssid].push_back(peer);
  groups_.resize(group_numbers_.size());
  groups_[group].push_back(peer);
}

std::uint32_t FbtIndex::ssid_number(const std::string& ssid) const {
  return number_of(ssids_, ssid);
}

FbtIndex::Known FbtIndex::find(const SharedFbtLink& link) const {
  const auto known = [this](std::uint32_t number) {
    const Holder& holder = holders_[number];
    return Known{holder.identity, holder.group, &holder.link};
  };
  const std::uint32_t note = link.note();
  if (note < holders_.size() && holders_[note].link.get() == link.get()) return known(note);
  const std::string& key = link->remote_r1_kh_key;
  const std::uint32_t same_texts =
      number_of(holder_numbers_, joined(link->remote_r0_kh_id, link->remote_r1_kh_id, key));
  if (same_texts != kNone) return known(same_texts);
  const std::string r1 = comparable(link->remote_r1_kh_id);
  return {number_of(identities_, joined(link->remote_r0_kh_id, r1, key)),
          number_of(group_numbers_, joined(r1, key)), nullptr};
}

}  // namespace rrm
