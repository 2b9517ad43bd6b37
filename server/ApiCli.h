#pragma once

#include <poll.h>

#include <atomic>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "server/StopSignal.h"
#include "server/lib/Api.h"

class VrrpWorker;

/// Management commands over plain TCP for local tools: each read is one JSON request, each reply is
/// JSON on the same connection, which stays open.
///
/// Threading: run() belongs to one thread; stop() may be called from any, signal handlers included.
/// Errors:    an error of one connection ends that connection only. Without a listening socket
///            run() returns at once.
class ApiCli : public rrm::Api {
 public:
  /// Connects; the VRRP worker outlives it.
  ApiCli(rrm::RRM* dispatcher, VrrpWorker* vrrp_worker);
  ~ApiCli() override;

  bool connect() override;
  void stop() override;
  void run() override;

  /// The port listened on, which differs from the configured one when that is 0; 0 without one.
  int port() const noexcept { return port_; }
  /// Open connections; on the thread of run() or after it has ended.
  std::size_t connection_count() const noexcept { return list_.empty() ? 0 : list_.size() - 1; }

 protected:
  Reply process_role_command(const rrm::JsonReader& command) override;

 private:
  /// What a client has not taken of a reply yet; it loses its connection at the deadline.
  struct Unsent {
    std::string text;
    StopSignal::Clock::time_point deadline;
  };

  int accept_connection(int listen_fd);
  bool process_packet(int fd);
  static int port_of(int fd);
  void serve_first_ready(const std::vector<pollfd>& polled);
  static bool send_some(int fd, Unsent& reply);
  Reply answer(const rrm::JsonReader& request);
  bool serve(pollfd& entry, const pollfd& polled);
  bool send_reply(int fd, std::string_view text);

  VrrpWorker* vrrp_worker_;
  std::atomic<bool> running_ = false;
  std::atomic<int> port_ = 0;
  StopSignal stop_;
  std::vector<pollfd> list_;  ///< the listening socket first, then the connections as accepted
  std::unordered_map<int, Unsent> unsent_;  ///< by connection; only where a reply did not fit
};
