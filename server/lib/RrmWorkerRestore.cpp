#include <memory>
#include <string_view>
#include <utility>

#include "server/lib/Hooks.h"
#include "server/lib/RrmWorker.h"
#include "server/lib/TpcDcaSubworker.h"

// A domain's return from its backup.

namespace rrm {

void RrmWorker::load_backup(const JsonReader& backup) {
  tpc_dca_->restore(backup.get_int("rrm-status"), backup.get_int("fbt-status"));
  for (const char* key : {"aps", "unanswered-aps", "deleted-aps"}) {
    const JsonReader array = backup.child(key);
    if (array.is_null()) return;
    restore_ap_map(aps_to_delete_, array);
  }
}

void RrmWorker::restore_ap_map(ApMap& target, const JsonReader& array) {
  const int count = static_cast<int>(array.size());
  for (int index = 0; index < count; ++index) {
    const JsonReader element = array.child(index);
    if (!element.is_null()) restore_ap(target, element);
  }
}

void RrmWorker::restore_ap(ApMap& target, const JsonReader& element) {
  const char* mac_text = element.get_str("mac");
  ApDescription description = ApDescription::from_json(element);
  if (std::string_view(mac_text).empty() || description.board.empty() || description.hw.empty() ||
      description.serial.empty()) {
    RRM_LOG(Debug, "Can't read factory settings from backup for ap '%s'", mac_text);
    return;
  }
  RRM_LOG(Debug, "Restore ap '%s' from backup", mac_text);
  const MacAddress mac = MacAddress::from_text(mac_text);
  const auto ap =
      std::make_shared<ApEntry>(domain_config_, mac, kNoSession, std::move(description));
  ap->restore(element, channel_sets_);
  ap->countdown = away_ticks();
  if (!check_mac_params(*ap)) {
    RRM_LOG(Error, "Can't restore ap '%s' from backup due to invalid MAC parameters", mac_text);
    raise_event(EventCode::AccessPointError, mac.upper().str());
    return;
  }
  target.insert(ap);
  target.index_ap(ap);
}

}  // namespace rrm
