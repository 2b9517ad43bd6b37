#pragma once

#include <string>

#include "json/JsonValue.h"

namespace rrm::ctl {

/// Why a reply tells of a failure; empty when it does not.
/// @param unnamed  the reason where the reply names none
std::string failure_of(const yajson::JsonValue& reply, const std::string& unnamed);

}  // namespace rrm::ctl
