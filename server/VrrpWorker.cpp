#include "server/VrrpWorker.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <string_view>
#include <utility>

#include "json/JsonParser.h"
#include "server/ProcessLog.h"
#include "server/lib/ConfigFile.h"
#include "server/lib/RRM.h"
#include "server/lib/RegularFile.h"

using rrm::JsonReader;
using rrm::JsonWriter;

namespace {

constexpr std::uint32_t kBackupTimer = 1;
/// Where backups are written before they are renamed: the other controller reads every file of the
/// backup folder itself, and a rename must stay on one file system.
constexpr std::string_view kWorkFolder = "/.new";

bool is_folder(const std::string& path) {
  struct stat state {};
  return ::stat(path.c_str(), &state) == 0;
}

/// Whether the folder exists, after creating it where it does not.
bool provide_folder(const std::string& path) {
  if (path.empty()) return false;
  if (is_folder(path)) return true;
  return ::mkdir(path.c_str(), 0777) == 0 && is_folder(path);
}

/// The whole file; false when it cannot be opened, with errno telling why.
bool read_file(const std::string& path, std::string& text) {
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(
      rrm::open_regular_stream(path, O_RDONLY, "r"), std::fclose);
  if (!file) return false;
  char piece[4096];
  for (std::size_t length = 0; (length = std::fread(piece, 1, sizeof(piece), file.get())) > 0;)
    text.append(piece, length);
  return true;
}

bool write_backup(const std::string& folder, const std::string& domain, const std::string& text) {
  // A name is no path: it must not lead out of the folder.
  if (domain.find('/') != std::string::npos) {
    PROCESS_LOG(Error) << "Domain " << domain << " is not backed up: its name is no file name";
    return false;
  }
  const std::string work = folder + std::string(kWorkFolder);
  const std::string name = "/" + domain + ".json";
  errno = 0;
  if (provide_folder(work) && rrm::replace_file_through(work + name, folder + name, text))
    return true;
  const int code = errno;
  PROCESS_LOG(Error) << "Writing backup file " << folder << name
                     << " failed with error code: " << code << " (" << std::strerror(code) << ").";
  return false;
}

/// Gives every radio interface of a status the VAPs of the radio with its id, key material
/// included.
void replace_vaps(yajson::JsonValue& access_point, const JsonReader& radios) {
  yajson::JsonValue* list = access_point.find("radios");
  yajson::JsonValue* interfaces = list != nullptr ? list->find("interfaces") : nullptr;
  if (interfaces == nullptr) return;
  for (yajson::JsonValue& interface : interfaces->as_array()) {
    const yajson::JsonValue* id = interface.find("id");
    for (std::size_t i = 0; id != nullptr && i < radios.size(); ++i) {
      const JsonReader radio = radios.child(static_cast<int>(i));
      if (radio.get_int("id") == id->as_int() && radio.has("vaps"))
        interface.set("vaps", radio.child("vaps").value()->copy());
    }
  }
}

}  // namespace

VrrpWorker::VrrpWorker(rrm::RRM* dispatcher, rrm::GlobalConfig* config)
    : Api(*dispatcher, *config) {}

void VrrpWorker::on_domain_changed(const std::string& domain) {
  const std::lock_guard lock(mutex_);
  if (!config().vrrp_enabled) return;
  pending_.insert(domain);
  timers_.rearm([this] { backup_due_ = true; }, kBackupTimer,
                static_cast<std::uint32_t>(config().vrrp_timeout.load()));
}

void VrrpWorker::poll_timers() {
  {
    const std::lock_guard lock(mutex_);
    timers_.poll();
    if (!std::exchange(backup_due_, false)) return;
  }
  make_domains_backup();
}

void VrrpWorker::make_domains_backup() {
  const std::string path = config().vrrp_backup_path;
  if (!provide_folder(path)) {
    PROCESS_LOG(Error) << "backup_path " << path << " invalid";
    return;
  }
  std::set<std::string> domains;
  {
    const std::lock_guard lock(mutex_);
    domains.swap(pending_);
  }
  for (const std::string& domain : domains) {
    // Whatever is wrong with a domain, memory that does not hold it included, the others are saved.
    try {
      JsonWriter document;
      if (make_backup(domain, document)) write_backup(path, domain, document.str());
    } catch (const std::exception& error) {
      PROCESS_LOG(Error) << "Domain " << domain << " is not backed up: " << error.what();
    }
  }
}

JsonReader VrrpWorker::ask(const JsonWriter& command) {
  const std::lock_guard lock(command_mutex());
  const Reply reply = process_rrm_command(JsonReader(command.c_str()));
  JsonReader answer(reply ? reply->c_str() : "");
  const std::string_view status = answer.get_str("status");
  if (status == "error" || status == "failure") return {};
  return answer;
}

bool VrrpWorker::make_backup(const std::string& domain, JsonWriter& document) {
  JsonWriter request;
  request.add("domain", domain);
  const JsonReader reply = ask(request);
  const JsonReader details = reply.child("details");
  if (details.is_null()) return false;
  document.add("name", domain);
  for (const char* key : {"rrm-status", "fbt-status"})
    if (details.has(key)) document.add(key, *details.child(key).value());
  static constexpr std::pair<const char*, const char*> kMaps[] = {
      {"aps", "active-ap"}, {"unanswered-aps", "unanswered-ap"}, {"deleted-aps", "deleted-ap"}};
  for (const auto& [list_key, ap_key] : kMaps) {
    JsonWriter array = JsonWriter::array(document, list_key);
    const JsonReader list = details.child(list_key);
    for (std::size_t i = 0; i < list.size(); ++i)
      if (!back_up_access_point(domain, list.child(static_cast<int>(i)), ap_key, array))
        return false;
  }
  return true;
}

bool VrrpWorker::back_up_access_point(const std::string& domain, const JsonReader& listed,
                                      const char* key, JsonWriter& array) {
  JsonWriter request;
  request.add("domain", domain);
  request.add("ap", listed.get_str("mac"));
  const JsonReader status = ask(request);
  JsonWriter::object(request, "fbt-links");
  const JsonReader links = ask(request);
  // It may have moved between the maps since it was listed; that change asks for a backup of its
  // own.
  const JsonReader access_point = status.child(key);
  if (access_point.is_null()) return false;
  JsonWriter entry = JsonWriter::object(array);
  for (const auto& member : access_point.value()->as_object())
    entry.add(member.key(), member.value);
  replace_vaps(entry.resolve(), links.child(key).child("radios"));
  for (const char* text : {"board", "hw", "serial"}) entry.add(text, listed.get_str(text));
  return true;
}

void VrrpWorker::restore_domains_from_backup(JsonWriter& array) {
  const std::string path = config().vrrp_backup_path;
  if (!provide_folder(path)) {
    PROCESS_LOG(Error) << "backup_path " << path << " invalid";
    return;
  }
  const std::unique_ptr<DIR, int (*)(DIR*)> folder(::opendir(path.c_str()), ::closedir);
  if (!folder) return;
  while (const dirent* entry = ::readdir(folder.get())) {
    const std::string file = path + "/" + entry->d_name;
    struct stat state {};
    if (::stat(file.c_str(), &state) != 0 || !S_ISREG(state.st_mode)) continue;
    // Whatever is wrong with a file, memory that does not hold it included, the others are read.
    try {
      std::string text;
      if (read_file(file, text)) {
        array.add({}, yajson::parse(text));
        continue;
      }
      const int code = errno;
      PROCESS_LOG(Error) << "Opening backup file " << file << " failed with error code: " << code
                         << " (" << std::strerror(code) << ").";
    } catch (const std::exception& error) {
      PROCESS_LOG(Error) << "Reading backup file " << file << " failed: " << error.what();
    }
  }
}

void VrrpWorker::set_vrrp_role_on_start() {
  if (!config().vrrp_enabled) return;
  bool master = true;
  const std::string path = config().vrrp_state_file;
  std::string text;
  if (read_file(path, text))
    master = text.substr(0, text.find('\n')) != "BACKUP";
  else
    PROCESS_LOG(Error) << "Error opening VRRP state file " << path;
  const std::lock_guard lock(command_mutex());
  bool switched = false;
  try {
    switched = switch_role(master).has_value();
  } catch (const std::exception& error) {
    PROCESS_LOG(Error) << error.what();
  }
  if (!switched)
    PROCESS_LOG(Error) << "Api request to set VRRP role " << (master ? "master" : "backup")
                       << " failed.";
}

rrm::Api::Reply VrrpWorker::switch_role(bool master) {
  JsonWriter request;
  request.add("role", master ? "master" : "backup");
  if (master) {
    JsonWriter domains = JsonWriter::array(request, "domains");
    if (config().vrrp_enabled) restore_domains_from_backup(domains);
  }
  return process_vrrp_command(JsonReader(request.c_str()));
}

rrm::Api::Reply VrrpWorker::handle_request(const std::string& command) {
  const JsonReader request(command.c_str());
  if (std::string_view(request.get_str("role")) != "master") return process_vrrp_command(request);
  // The other controller may have changed the shared configuration while it was master.
  config().reload();
  return switch_role(true);
}
