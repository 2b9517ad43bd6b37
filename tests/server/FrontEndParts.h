#pragma once

#include <string>

#include "server/VrrpWorker.h"
#include "server/lib/Config.h"
#include "server/lib/RRM.h"

/// What a management front-end stands on: a configuration without a file, its dispatcher, which is
/// not started, and the VRRP worker.
struct FrontEndParts {
  /// @param global  members of the configuration's "global"
  explicit FrontEndParts(const std::string& global)
      : config("", (R"({"global":{)" + global + "}}").c_str()) {}

  rrm::GlobalConfig config;
  rrm::RRM rrm{&config};
  VrrpWorker vrrp{&rrm, &config};
};
