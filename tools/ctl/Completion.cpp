#include "tools/ctl/Completion.h"

#include <algorithm>

namespace rrm::ctl {
namespace {

void add_long_names(const CLI::App& app, std::string& words) {
  for (const CLI::Option* option : app.get_options())
    for (const std::string& name : option->get_lnames())
      if (app.get_parent() == nullptr || name != "help") words += " --" + name;
}

/// What an argument can be that takes some words only; its type reads "TEXT:{master,backup}".
std::string choices_of(const CLI::App& app) {
  std::string words;
  for (const CLI::Option* option : app.get_options()) {
    const std::string type = option->get_type_name();
    const std::size_t open = type.find('{');
    if (!option->get_positional() || open == std::string::npos) continue;
    words += " " + type.substr(open + 1, type.find('}') - open - 1);
  }
  std::replace(words.begin(), words.end(), ',', ' ');
  return words;
}

/// One branch of the script's "case" for a command, then those of the commands below it.
void add_branches(const CLI::App& app, const std::string& path, const std::string& everywhere,
                  std::string& script) {
  std::string words;
  for (const CLI::App* command : app.get_subcommands({})) words += " " + command->get_name();
  words += choices_of(app);
  if (!path.empty()) add_long_names(app, words);
  words += everywhere;
  script += "    '" + path + "') words='" + words.substr(words.find_first_not_of(' ')) + "' ;;\n";
  for (const CLI::App* command : app.get_subcommands({}))
    add_branches(*command, path.empty() ? command->get_name() : path + " " + command->get_name(),
                 everywhere, script);
}

}  // namespace

std::string bash_completion(const CLI::App& app) {
  std::string everywhere;
  add_long_names(app, everywhere);
  std::string branches;
  add_branches(app, "", everywhere, branches);
  return R"(# Completion of wavelomctl for bash; printed by "wavelomctl completion bash".
_wavelomctl_words() {
  case $1 in
)" + branches +
         R"(    *) return 1 ;;
  esac
}
_wavelomctl() {
  local current=${COMP_WORDS[COMP_CWORD]} path='' takes_value='' words='' word
  COMPREPLY=()
  for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
    # The shell takes "--port=1" for three words.
    if [ "$word" = '=' ]; then continue; fi
    if [ -n "$takes_value" ]; then takes_value=''; continue; fi
    case $word in
      --json | --links | --start | --help | --version | -h) ;;
      -*) takes_value=1 ;;
      # Words behind the names of commands are arguments.
      *) if _wavelomctl_words "${path:+$path }$word"; then path="${path:+$path }$word"; fi ;;
    esac
  done
  if [ -n "$takes_value" ]; then return; fi
  _wavelomctl_words "$path"
  if [ "$path" = 'config check' ] && [ "${current#-}" = "$current" ]; then
    compopt -o filenames 2>/dev/null
    mapfile -t COMPREPLY < <(compgen -f -- "$current")
  else
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
  fi
}
complete -F _wavelomctl wavelomctl
)";
}

}  // namespace rrm::ctl
