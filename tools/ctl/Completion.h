#pragma once

#include <CLI/CLI.hpp>
#include <string>

namespace rrm::ctl {

/// A bash script that completes the commands and options of the program.
std::string bash_completion(const CLI::App& app);

}  // namespace rrm::ctl
