// Any texts of access points on the road that they take: parsed into an arena, dispatched to the
// worker of their domain, checked and handled there. Each line is one text; a digit before it says
// on which session it came; an empty line lets a second pass.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "fuzz/CheckingRrm.h"
#include "server/lib/Clock.h"
#include "server/lib/Config.h"
#include "server/lib/Envelope.h"
#include "server/lib/JsonWriter.h"
#include "server/lib/RrmWorker.h"

namespace {

using namespace rrm;
using fuzz::require;

constexpr std::size_t kParserArena = 8192;
constexpr int kMostTexts = 100;

std::int64_t now_s = 1'000'000;

class Site {
 public:
  Site()
      : rrm_(&global_),
        worker_(std::make_shared<RrmWorker>(&global_, settings(), &rrm_, "site", 16, 0)) {
    rrm_.workers().insert("site", worker_);
    require(worker_->connect());
  }
  ~Site() { worker_->disconnect(); }
  Site(const Site&) = delete;
  Site& operator=(const Site&) = delete;

  void receive(std::string text) {
    std::uint32_t session = 1;
    if (!text.empty() && text[0] >= '1' && text[0] <= '9') {
      session = static_cast<std::uint32_t>(text[0] - '0');
      text.erase(0, 1);
    }
    JsonReader document(text.c_str(), kParserArena);
    // What a worker may look at is for somebody.
    if (is_valid_message(document)) require(*document.get_str("cmd") != '\0');
    is_version_compatible(document);
    rrm_.process_incoming_message(std::move(document), SessionAddress{nullptr, 0, session});
    while (!worker_->process_queues()) {
    }
    require(worker_->dropped_count() == 0);
  }

  void pass_second() {
    ++now_s;
    worker_->on_loop();
  }

  /// Its state is a document, whatever was received.
  void check_status() {
    JsonWriter status;
    worker_->get_status(status);
    worker_->get_status_full(status);
    require(!JsonReader(status.c_str()).is_null());
  }

 private:
  static DomainConfig settings() {
    DomainConfig config;
    config.use_rrm_report = false;
    config.planning_delay = 1;
    config.scan_wait = 1;
    return config;
  }

  GlobalConfig global_{"", R"({"domains":[{"domain":"site","pattern":"common"}]})"};
  fuzz::CheckingRrm rrm_;
  std::shared_ptr<RrmWorker> worker_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  set_clock_sources([] { return now_s; }, [] { return now_s * 1'000'000; });
  Site site;
  std::string_view rest(reinterpret_cast<const char*>(data), size);
  for (int texts = 0; texts < kMostTexts && !rest.empty(); ++texts) {
    const std::string_view line = rest.substr(0, rest.find('\n'));
    rest.remove_prefix(std::min(line.size() + 1, rest.size()));
    if (line.empty())
      site.pass_second();
    else
      site.receive(std::string(line));
  }
  site.check_status();
  return 0;
}
