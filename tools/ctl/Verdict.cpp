#include "tools/ctl/Verdict.h"

#include <string_view>

#include "tools/ctl/Render.h"

namespace rrm::ctl {
namespace {

using yajson::JsonValue;

std::string_view text_of(const JsonValue& reply, std::string_view key) {
  const JsonValue* value = reply.find(key);
  return value != nullptr && value->is_string() ? value->as_string() : std::string_view();
}

std::string refused_options(const JsonValue& reply) {
  const JsonValue* list = reply.find("invalid_parameters");
  if (list == nullptr || !list->is_array()) return {};
  std::string text;
  for (const JsonValue& entry : list->elements()) {
    if (!entry.is_object()) continue;
    for (const auto& member : entry.members())
      // The name of a domain that is not added stands there too: it is no option.
      if (member.key() != "domain")
        text += (text.empty() ? "" : ", ") + std::string(member.key()) + "=" + cell(member.value);
  }
  return text;
}

}  // namespace

std::string failure_of(const JsonValue& reply, const std::string& unnamed) {
  if (!reply.is_object()) return "the reply is no JSON object";
  const std::string refused = refused_options(reply);
  const std::string_view added = text_of(reply, "add_status");
  if (!added.empty() && added != "Success")
    return std::string(added) + (refused.empty() ? "" : " (refused: " + refused + ")");
  if (!refused.empty()) return "refused: " + refused;
  if (const std::string_view error = text_of(reply, "error"); !error.empty())
    return std::string(error);
  if (const JsonValue* removed = reply.find("remove_status");
      removed != nullptr && cell(*removed) != "0")
    return "there is nothing of that name";
  const std::string_view status = text_of(reply, "status");
  if (status == "error") return "the controller has no answer to this request";
  if (status == "failure") return unnamed;
  return {};
}

}  // namespace rrm::ctl
