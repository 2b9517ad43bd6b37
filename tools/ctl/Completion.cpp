#include "tools/ctl/Completion.h"

namespace rrm::ctl {
namespace {

void add_long_names(const CLI::App& app, std::string& words) {
  for (const CLI::Option* option : app.get_options())
    for (const std::string& name : option->get_lnames())
      if (app.get_parent() == nullptr || name != "help") words += " --" + name;
}

/// One branch of the script's "case" for a command, then those of the commands below it.
void add_branches(const CLI::App& app, const std::string& path, const std::string& everywhere,
                  std::string& script) {
  std::string words;
  for (const CLI::App* command : app.get_subcommands({})) words += " " + command->get_name();
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
_wavelomctl() {
  local current=${COMP_WORDS[COMP_CWORD]} path= word skip= words=
  for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
    if [ -n "$skip" ]; then skip=; continue; fi
    case $word in
      --json | --links | --start | --help | --version | -h) ;;
      --*=*) ;;
      -*) skip=1 ;;
      *) path="${path:+$path }$word" ;;
    esac
  done
  case $path in
)" + branches +
         R"(    'config check '*) words= ;;
    *) words=')" +
         everywhere.substr(1) + R"(' ;;
  esac
  if [ "$path" = 'config check' ] && [ "${current#-}" = "$current" ]; then
    COMPREPLY=($(compgen -f -- "$current"))
  else
    COMPREPLY=($(compgen -W "$words" -- "$current"))
  fi
}
complete -F _wavelomctl wavelomctl
)";
}

}  // namespace rrm::ctl
