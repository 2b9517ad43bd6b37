// Any bytes as a management request: nothing but the documented exceptions leaves the commands, a
// reply is always JSON, and the configuration stays one that can be saved and read.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string>

#include "server/lib/Api.h"
#include "server/lib/Config.h"
#include "server/lib/RRM.h"

namespace {

class PlainApi : public rrm::Api {
 public:
  using Api::Api;
  bool connect() override { return true; }
  void stop() override {}
  void run() override {}

 private:
  // A role switch would start the network.
  Reply process_role_command(const rrm::JsonReader&) override { return std::nullopt; }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  rrm::GlobalConfig config(
      "", R"({"global":{"enabled":0,"reports_path":"/nonexistent"},"patterns":[{"pattern":"p1"}],)"
          R"("domains":[{"domain":"d1","pattern":"p1","time_zone":"3:00"}]})");
  rrm::RRM dispatcher(&config);
  PlainApi api(dispatcher, config);
  try {
    const rrm::JsonReader request(text.c_str());
    // A request may switch the controller on, which must not open ports here.
    const rrm::JsonReader command = request.child("cfg");
    if (command.child("config").has("enabled")) return 0;
    const auto reply = api.process_request(request);
    if (reply && rrm::JsonReader(reply->c_str()).is_null()) std::abort();
  } catch (const std::invalid_argument&) {
  }
  const std::string saved = config.to_file_text();
  if (rrm::GlobalConfig("", saved.c_str()).to_file_text() != saved) std::abort();
  return 0;
}
