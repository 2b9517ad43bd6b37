#pragma once

/// Every member of a radio in an access point's messages, for tests that put hostile values there.
namespace rrm::test {

inline constexpr const char* kRadioMembers[] = {
    "id",
    "status",
    "channel",
    "band",
    "power",
    "power-max",
    "power-min",
    "bandwidth",
    "mac-offset",
    "radio-mac-count",
    "eirp",
    "eirp-min",
    "eirp-max",
    "antenna-configuration",
    "primary-channel",
    "available-channels",
    "locked-for-tpc",
    "locked-for-dca",
    "locked-for-balancer",
    "locked-for-80211v",
    "vaps",
    "assoclist",
    "probe-list",
};

}  // namespace rrm::test
