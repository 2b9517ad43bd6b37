#include "server/lib/ClientEvent.h"

namespace rrm {

ClientEvent ClientEvent::from_json(const JsonReader& message) {
  ClientEvent event;
  event.radio_id = message.get_int("radio");
  event.rssi_dbm = message.get_int("rssi");
  event.mac_text = message.get_str("sta-mac");
  event.mac = MacAddress::from_text(event.mac_text.c_str());
  event.ssid = message.get_str("ssid");
  event.no_balance = message.get_int("no-balance") != 0;
  event.need_ack = message.get_int("need-ack") != 0;
  return event;
}

Radio* enabled_radio(ApEntry& ap, std::int32_t radio_id) {
  Radio* radio = ap.radios.find(radio_id);
  return radio != nullptr && radio->status ? radio : nullptr;
}

bool associate(Radio& radio, const ClientEvent& event) {
  AssocMap& clients = radio.assoc_clients;
  clients.add_client(event.mac, event.rssi_dbm, event.ssid, event.no_balance, false);
  if (clients.find(event.mac) == nullptr) return false;
  clients.forget_expected(event.mac);
  return true;
}

}  // namespace rrm
