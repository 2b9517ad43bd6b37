#pragma once

#include <string>

#include "json/JsonValue.h"

namespace rrm::ctl {

/// Why a reply tells of a failure; empty when it does not.
std::string failure_of(const yajson::JsonValue& reply);

}  // namespace rrm::ctl
