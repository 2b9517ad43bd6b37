#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>

#include "server/lib/Config.h"
#include "tools/ctl/Commands.h"
#include "tools/ctl/OptionRange.h"

/// The manual pages against the tables that the programs themselves walk.
namespace rrm::ctl {
namespace {

/// A page without the marks that keep hyphens and quotes apart.
std::string page(const std::string& name) {
  std::ifstream file("docs/man/" + name);
  EXPECT_TRUE(file) << name;
  std::ostringstream text;
  text << file.rdbuf();
  std::string plain = text.str();
  for (std::size_t at = 0; (at = plain.find("\\-", at)) != std::string::npos; ++at)
    plain.erase(at, 1);
  return plain;
}

/// The entry that starts with these words; empty when there is none.
std::string entry(const std::string& text, const std::string& start) {
  const std::string heading = ".TP\n" + start;
  const std::size_t begin = text.find(heading);
  if (begin == std::string::npos) return {};
  const std::size_t end =
      std::min(text.find(".TP", begin + heading.size()), text.find(".SH", begin + heading.size()));
  return text.substr(begin + 4, end - begin - 4);
}

template <class Options, class Config>
void expect_described(const Options& options, const Config& write_defaults) {
  const std::string text = page("wavelom.conf.5");
  JsonWriter defaults;
  write_defaults(defaults);
  const JsonReader values(defaults.c_str());
  for (const auto& option : options) {
    const std::string start = std::string(".B ") + option.key + "\nDefault " +
                              values.child(option.key).c_str() + "; " + range_of(option) + ".\n";
    const std::string found = entry(text, start);
    EXPECT_NE(found, "") << start;
    EXPECT_GT(found.size(), start.size() + 10) << option.key << " needs a description";
  }
}

TEST(Manual, DescribesEveryGlobalOptionWithItsDefaultAndRange) {
  const GlobalConfig config;
  expect_described(global_options(), [&](JsonWriter& out) { config.global_to_json(out); });
}

TEST(Manual, DescribesEveryDomainSettingWithItsDefaultAndRange) {
  expect_described(domain_options(), [](JsonWriter& out) { DomainConfig().to_json(out); });
}

/// "[0.1 - 60]" of an option's type as "0.1 to 60"; empty without one.
std::string range_of_type(const std::string& type) {
  const std::size_t open = type.find("in [");
  if (open == std::string::npos) return {};
  std::string range = type.substr(open + 4, type.find(']') - open - 4);
  const std::size_t dash = range.find(" - ");
  return range.replace(dash, 3, " to ");
}

void expect_options_described(const CLI::App& command, const std::string& text) {
  for (const CLI::Option* option : command.get_options()) {
    for (const std::string& name : option->get_lnames()) {
      const std::string found = entry(text, "\\fB--" + name + "\\fR");
      EXPECT_NE(found, "") << command.get_name() << " --" << name;
      if (!option->get_default_str().empty()) {
        EXPECT_NE(found.find("Default " + option->get_default_str()), std::string::npos) << found;
      }
      EXPECT_NE(found.find(range_of_type(option->get_type_name())), std::string::npos) << found;
      if (!option->get_envname().empty()) {
        EXPECT_NE(found.find(option->get_envname()), std::string::npos) << found;
      }
    }
  }
}

void expect_commands_described(const CLI::App& command, const std::string& path,
                               const std::string& text) {
  expect_options_described(command, text);
  for (const CLI::App* below : command.get_subcommands({})) {
    const std::string name = path.empty() ? below->get_name() : path + " " + below->get_name();
    const std::string found = entry(text, "\\fB" + name + "\\fR");
    EXPECT_NE(found, "") << name;
    for (const CLI::Option* option : below->get_options())
      if (option->get_positional()) {
        EXPECT_NE(found.find(option->get_single_name()), std::string::npos) << name;
      }
    expect_commands_described(*below, name, text);
  }
}

TEST(Manual, DescribesEveryCommandAndOptionOfTheClient) {
  CLI::App app;
  Invocation invocation;
  define(app, invocation);
  ASSERT_GT(app.get_subcommands({}).size(), 10U);
  expect_commands_described(app, "", page("wavelomctl.1"));
}

TEST(Manual, NamesThePortsOfTheController) {
  const std::string text = page("wavelom.8");
  const GlobalConfig config;
  for (const int port :
       {config.api_port.load(), config.cli_api_port.load(), config.listen_port.load()})
    EXPECT_NE(entry(text, ".B " + std::to_string(port) + "\n"), "") << port;
}

}  // namespace
}  // namespace rrm::ctl
