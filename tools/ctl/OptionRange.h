#pragma once

#include <cstdint>
#include <string>
#include <variant>

#include "server/lib/Overloaded.h"

namespace rrm::ctl {

/// "1:05" for 3900 seconds.
inline std::string hours_minutes(std::int32_t seconds) {
  const std::int32_t minutes = seconds % 3600 / 60;
  return std::to_string(seconds / 3600) + (minutes < 10 ? ":0" : ":") + std::to_string(minutes);
}

/// The range of a configuration option for people; of a DomainOption or a GlobalOption.
template <class Option>
std::string range_of(const Option& option) {
  return std::visit(Overloaded{[](const typename Option::Flag&) { return std::string("0 or 1"); },
                               [](const typename Option::Number& number) {
                                 return std::to_string(number.min) + " to " +
                                        std::to_string(number.max);
                               },
                               [](const typename Option::Time& time) {
                                 return hours_minutes(time.min) + " to " + hours_minutes(time.max);
                               },
                               [](const auto&) { return std::string("any text"); }},
                    option.kind);
}

}  // namespace rrm::ctl
