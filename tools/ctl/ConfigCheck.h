#pragma once

#include <string>
#include <vector>

namespace rrm::ctl {

/// One place of a configuration file that does not mean what it says.
struct Finding {
  std::string where;  ///< for example "patterns[0].dca_threshold", or "line 3, column 7"
  std::string what;
};

/// What the controller would pass over, replace or read as something else when it loads this text.
///
/// Purpose:   loading never fails, so mistakes show only in what the controller then does. The
///            controller's own tables and operations decide here, so that both cannot differ.
std::vector<Finding> check_config(const std::string& text);

/// {"findings":[{"where":W,"what":T}]}
std::string to_json(const std::vector<Finding>& findings);

}  // namespace rrm::ctl
