#pragma once

#include <poll.h>

#include <atomic>
#include <chrono>
#include <map>
#include <string>
#include <vector>

#include "server/StopSignal.h"
#include "server/lib/Api.h"

class VrrpWorker;

/// Management commands over plain TCP for local tools: each read is one JSON request, each reply is
/// JSON on the same connection, which stays open.
///
/// Threading: run() belongs to one thread; stop() may be called from any, signal handlers included.
/// Errors:    an error of one connection ends that connection only. A client that does not read its
///            reply holds nobody up: the rest waits for it, and it loses its connection when it
///            takes nothing for a while. Beyond the most connections the oldest gives way. Without
///            a listening socket run() returns at once.
class ApiCli : public rrm::Api {
 public:
  /// What the configuration does not choose; the defaults are those of the process.
  struct Settings {
    std::size_t most_connections = 2048;  ///< access points need descriptors too
    std::chrono::milliseconds send_timeout = std::chrono::seconds(10);
  };

  /// Connects; the VRRP worker outlives it.
  ApiCli(rrm::RRM* dispatcher, VrrpWorker* vrrp_worker);
  ApiCli(rrm::RRM* dispatcher, VrrpWorker* vrrp_worker, Settings settings);
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
  /// The rest of a reply that its client has not read yet.
  struct Outgoing {
    std::string text;
    std::size_t sent = 0;  ///< bytes
    StopSignal::Clock::time_point deadline;
  };

  int accept_connection(int listen_fd);
  bool process_packet(int fd);
  static int port_of(int fd);
  std::vector<pollfd> events_to_wait_for() const;
  void serve_round();
  void serve_first_ready(const std::vector<pollfd>& polled);
  bool serve_connection(const pollfd& entry);
  bool try_serve_connection(const pollfd& entry);
  void close_connection(std::size_t index);
  Reply answer(const rrm::JsonReader& request);
  bool send_some(int fd, Outgoing& outgoing);

  VrrpWorker* vrrp_worker_;
  const Settings settings_;
  std::atomic<bool> running_ = false;
  std::atomic<int> port_ = 0;
  StopSignal stop_;
  std::vector<pollfd> list_;          ///< the listening socket first, then connections as accepted
  std::map<int, Outgoing> outgoing_;  ///< by descriptor; such a connection is not read meanwhile
};
