#include "server/lib/TpcDcaPowerPlan.h"

namespace rrm {
namespace {

/// What counts as heard when nobody shares the channel, dBm.
constexpr std::int32_t kSilenceDbm = -100;

// Modes of Radio::rssi_threshold.
constexpr int kLoud = 0;
constexpr int kTarget = 1;
constexpr int kQuiet = 2;

bool takes_part(const ApEntry& ap) { return ap.active && ap.radios.any_enabled_with_channel(); }

bool is_adjustable(const Radio& radio) {
  return radio.status && radio.locked_for_tpc == 0 && !radio.available_channels.empty();
}

/// Of the entry, or of its channel when the entry has none; 0 when neither tells.
std::int32_t band_of(const HeardBss& bss) {
  return bss.band != 0 ? bss.band : infer_band(bss.use.channel);
}

ChannelUse use_of(const Radio& radio) {
  return {radio.channel, radio.bandwidth, radio.primary_channel};
}

/// Whether an entry of this band counts as heard in the radio's band (which is known).
bool in_band(std::int32_t radio_band, std::int32_t heard_band) {
  return heard_band == radio_band || (heard_band == 0 && radio_band != 6);
}

}  // namespace

TpcDcaPowerPlan::TpcDcaPowerPlan(const TpcDcaScene& scene, const DomainConfig& config)
    : scene_(scene), config_(config), changed_(scene.aps().size()) {}

void TpcDcaPowerPlan::run() {
  for (const SceneAp& ap : scene_.aps())
    if (takes_part(*ap.entry)) lower_neighbours_of(ap);
  for (std::size_t i = 0; i < scene_.aps().size(); ++i)
    if (takes_part(*scene_.aps()[i].entry)) raise_radios_of(i);
}

/// The access point with this index in the scene, unless it did not answer the scan or is none.
const ApEntry* TpcDcaPowerPlan::answering(std::int32_t owner) const {
  if (owner < 0) return nullptr;
  const ApEntry* entry = scene_.aps()[static_cast<std::size_t>(owner)].entry;
  return entry->active ? entry : nullptr;
}

/// Each owner ends lowered by the most that one of its entries asks for, whatever their order.
void TpcDcaPowerPlan::lower_neighbours_of(const SceneAp& ap) {
  const std::span<const HeardBss> heard = scene_.heard(ap);
  const std::span<const std::int32_t> owners = scene_.owners(ap);
  for (std::size_t i = 0; i < heard.size(); ++i) {
    const std::int32_t band = band_of(heard[i]);
    if (answering(owners[i]) == nullptr || band == 0) continue;
    const Radio* radio = disturbed_radio(ap, heard[i], band);
    if (radio == nullptr || !is_adjustable(*radio)) continue;
    if (heard[i].rssi_dbm() <= radio->rssi_threshold(kLoud)) continue;
    lower_owner(static_cast<std::size_t>(owners[i]), heard[i], band,
                radio->rssi_threshold(kTarget));
  }
}

/// The radio of `ap` that a BSS of this band disturbs.
const Radio* TpcDcaPowerPlan::disturbed_radio(const SceneAp& ap, const HeardBss& bss,
                                              std::int32_t band) const {
  const Radio* first = nullptr;
  for (const Radio& radio : ap.entry->radios.radios) {
    if (!radio.status || radio.band != band) continue;
    if (config_.use_hd_mode ? shares_wide_block(use_of(radio), bss.use)
                            : radio.channel == bss.use.channel)
      return &radio;
    if (first == nullptr) first = &radio;
  }
  return config_.use_hd_mode ? nullptr : first;
}

void TpcDcaPowerPlan::lower_owner(std::size_t owner, const HeardBss& bss, std::int32_t band,
                                  std::int32_t target_dbm) {
  RadioList& radios = scene_.aps()[owner].entry->radios;
  radios.mark_conflicted(bss.use.channel, band);
  if (radios.apply_power_step_for_band(bss.use.channel, band, bss.rssi_dbm(), target_dbm) != 0)
    changed_[owner] = true;
}

void TpcDcaPowerPlan::raise_radios_of(std::size_t ap) {
  const SceneAp& scene_ap = scene_.aps()[ap];
  for (Radio& radio : scene_ap.entry->radios.radios) {
    if (!is_adjustable(radio) || radio.conflicted || radio.band == 0) continue;
    if (raise(scene_ap, radio)) changed_[ap] = true;
  }
}

/// @return whether the power changed
bool TpcDcaPowerPlan::raise(const SceneAp& ap, Radio& radio) {
  const std::span<const HeardBss> heard = scene_.heard(ap);
  const std::span<const std::int32_t> owners = scene_.owners(ap);
  std::int32_t loudest = kSilenceDbm;
  for (std::size_t i = 0; i < heard.size(); ++i) {
    if (heard[i].rssi_dbm() <= loudest || !in_band(radio.band, heard[i].band)) continue;
    const ApEntry* owner = answering(owners[i]);
    if (owner != nullptr && is_co_channel(radio, *owner)) loudest = heard[i].rssi_dbm();
  }
  if (loudest == kSilenceDbm) return radio.apply_power_increase(kSilenceDbm, 0, 0) != 0;
  return radio.apply_power_increase(loudest, radio.rssi_threshold(kTarget),
                                    radio.rssi_threshold(kQuiet)) != 0;
}

/// Whether the owner of a heard BSS uses the radio's channel.
bool TpcDcaPowerPlan::is_co_channel(const Radio& radio, const ApEntry& owner) const {
  for (const Radio& other : owner.radios.radios) {
    if (other.band != radio.band) continue;
    if (other.channel == radio.channel) return true;
    if (config_.use_hd_mode ? shares_wide_block(use_of(radio), use_of(other)) : other.channel != 0)
      return true;
  }
  return false;
}

}  // namespace rrm
