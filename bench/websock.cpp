// CPU of the access-point server per message of 300 bytes that is answered with as many: with 64
// and with 10,000 sessions, beside a bare libwebsockets echo on the same kind of loop. Memory per
// idle session.
//
// Every server is a process of its own whose CPU clock is read from outside. This process plays the
// clients, each message sent by the next session in turn, under two loads: 32 messages under way at
// a time, as when the server is busy and a wake-up serves many, and one at a time, as when it is
// not and each message pays for its own.

#include <arpa/inet.h>
#include <ev.h>
#include <libwebsockets.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "server/lib/Config.h"
#include "server/lib/FreeMemory.h"
#include "server/lib/RRM.h"
#include "server/lib/WebsockServerWorker.h"
#include "server/lib/Worker.h"

namespace {

constexpr std::size_t kMessage = 300;
constexpr std::size_t kLoads[] = {32, 1};  ///< messages under way
constexpr std::size_t kFew = 64;
constexpr std::size_t kMany = 10000;
constexpr std::size_t kSlices[] = {20000, 2000};  ///< messages of a slice under each load
constexpr int kRounds = 9;

[[noreturn]] void fail(const char* what) {
  std::perror(what);
  std::exit(1);
}

std::string message_text() {
  std::string text = R"({"service":"rrm","cmd":"rrm-client-assoc","domain":"site",)"
                     R"("ap-mac":"02:00:00:00:00:01","version":"2.4","clients":[)";
  for (int i = 0; text.size() < kMessage - 40; ++i)
    text += std::string(i == 0 ? "" : ",") + R"({"mac":"02:00:00:00:01:0)" +
            std::to_string(i % 10) + R"("})";
  text += R"(],"filler":")";
  return text + std::string(kMessage - 2 - text.size(), 'x') + "\"}";
}

// --- servers, each in a process of its own

/// Stands for a domain worker: one answer per message.
class Answering : public rrm::Worker {
 public:
  explicit Answering(rrm::RRM* owner) : Worker("site", owner, kIdleWait_us, kCapacity, true) {}
  void process_message(const rrm::JsonReader& document,
                       const rrm::SessionAddress& address) override {
    if (!process_internal_ipc_msg(document) && document.has("ap-mac"))
      owner()->send_text(answer_.c_str(), address);
  }
  void get_status(rrm::JsonWriter&) override {}
  void get_status_full(rrm::JsonWriter&) override {}

 private:
  const std::string answer_ = message_text();
};

void run_controller(int report) {
  rrm::FreeMemory::keep_little();
  static rrm::GlobalConfig config;
  config.listen_port = 0;
  static rrm::RRM rrm(&config);
  const auto site = std::make_shared<Answering>(&rrm);
  rrm.workers().insert("site", site);
  site->start();
  rrm.start();
  int port = 0;
  while ((port = rrm.websock_server().port()) == 0) usleep(1000);
  if (write(report, &port, sizeof port) != sizeof port) fail("write");
  for (;;) pause();
}

/// What libwebsockets itself needs to send a message back, by its rules: written when writeable.
struct Echo {
  unsigned char bytes[LWS_PRE + 4096];
  std::size_t length;
};

int echo(lws* wsi, lws_callback_reasons reason, void* user, void* in, std::size_t length) {
  auto* const kept = static_cast<Echo*>(user);
  if (reason == LWS_CALLBACK_RECEIVE) {
    kept->length = std::min<std::size_t>(length, 4096);
    std::memcpy(kept->bytes + LWS_PRE, in, kept->length);
    lws_callback_on_writable(wsi);
  } else if (reason == LWS_CALLBACK_SERVER_WRITEABLE && kept->length > 0) {
    const std::size_t size = std::exchange(kept->length, 0);
    return lws_write(wsi, kept->bytes + LWS_PRE, size, LWS_WRITE_TEXT) < 0 ? -1 : 0;
  }
  return 0;
}

void run_bare_echo(int report) {
  static const lws_protocols protocols[] = {
      {"websock-rrm", echo, sizeof(Echo), 65536, 0, nullptr, 0},
      {nullptr, nullptr, 0, 0, 0, nullptr, 0}};
  struct ev_loop* const loop = ev_loop_new(EVFLAG_AUTO);
  void* loops[] = {loop};
  lws_set_log_level(0, nullptr);
  lws_context_creation_info info{};
  info.protocols = protocols;
  info.gid = static_cast<decltype(info.gid)>(-1);
  info.uid = static_cast<decltype(info.uid)>(-1);
  info.options = LWS_SERVER_OPTION_LIBEV | LWS_SERVER_OPTION_DISABLE_IPV6;
  info.foreign_loops = loops;
  lws_context* const context = lws_create_context(&info);
  if (context == nullptr) fail("bare echo");
  const int port = lws_get_vhost_listen_port(lws_get_vhost_by_name(context, "default"));
  if (write(report, &port, sizeof port) != sizeof port) fail("write");
  for (;;) ev_run(loop, EVRUN_ONCE);
}

struct Server {
  pid_t pid = 0;
  int port = 0;

  double cpu_seconds() const {
    clockid_t clock{};
    timespec now{};
    if (clock_getcpuclockid(pid, &clock) != 0 || clock_gettime(clock, &now) != 0) fail("cpu clock");
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
  }
  double resident_bytes() const {
    std::ifstream statm("/proc/" + std::to_string(pid) + "/statm");
    double total = 0;
    double resident = 0;
    statm >> total >> resident;
    return resident * static_cast<double>(sysconf(_SC_PAGESIZE));
  }
};

Server start(void (*run)(int)) {
  int ends[2];
  if (pipe(ends) != 0) fail("pipe");
  Server server;
  server.pid = fork();
  if (server.pid < 0) fail("fork");
  if (server.pid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    close(ends[0]);
    run(ends[1]);
  }
  close(ends[1]);
  if (read(ends[0], &server.port, sizeof server.port) != sizeof server.port) fail("no port");
  close(ends[0]);
  return server;
}

// --- clients

class Clients {
 public:
  Clients(const Server& server, std::size_t count) : epoll_(epoll_create1(EPOLL_CLOEXEC)) {
    frame_ = std::string("\x81\xfe", 2) + static_cast<char>(kMessage >> 8) +
             static_cast<char>(kMessage & 0xff) + std::string(4, '\0') + message_text();
    for (std::size_t i = 0; i < count; ++i) connect_one(server.port, i);
  }

  /// Sends so many messages, `under_way` at a time, and waits for all answers.
  void exchange(std::size_t count, std::size_t under_way) {
    std::size_t sent = 0;
    while (sent < std::min(under_way, count)) sent += send_next();
    std::vector<epoll_event> events(under_way);
    for (std::size_t answered = 0; answered < count;) {
      const int ready = epoll_wait(epoll_, events.data(), static_cast<int>(events.size()), 10000);
      if (ready <= 0) fail("no answer");
      for (int i = 0; i < ready; ++i) {
        const std::size_t answers = receive(events[static_cast<std::size_t>(i)].data.u32);
        answered += answers;
        for (std::size_t k = 0; k < answers && sent < count; ++k) sent += send_next();
      }
    }
  }

 private:
  struct Client {
    int fd;
    std::size_t received;  ///< bytes of the answer under way
    bool waits;            ///< for an answer
  };
  static constexpr std::size_t kAnswer = kMessage + 4;

  void connect_one(int port, std::size_t number) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (fd < 0 || connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
      fail("connect");
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    const std::string request =
        "GET /zunt/rrm HTTP/1.1\r\nHost: x\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
        "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n"
        "Sec-WebSocket-Protocol: websock-rrm\r\n\r\n";
    if (send(fd, request.data(), request.size(), 0) < 0) fail("handshake");
    std::string answer;
    while (answer.find("\r\n\r\n") == std::string::npos) {
      char bytes[1024];
      const ssize_t count = recv(fd, bytes, sizeof bytes, 0);
      if (count <= 0) fail("handshake");
      answer.append(bytes, static_cast<std::size_t>(count));
    }
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u32 = static_cast<std::uint32_t>(number);
    epoll_ctl(epoll_, EPOLL_CTL_ADD, fd, &event);
    clients_.push_back({fd, 0, false});
  }

  std::size_t send_next() {
    while (clients_[next_].waits) next_ = (next_ + 1) % clients_.size();
    Client& client = clients_[next_];
    client.waits = true;
    next_ = (next_ + 1) % clients_.size();
    if (send(client.fd, frame_.data(), frame_.size(), MSG_NOSIGNAL) !=
        static_cast<ssize_t>(frame_.size()))
      fail("send");
    return 1;
  }

  std::size_t receive(std::size_t number) {
    Client& client = clients_[number];
    char bytes[65536];
    const ssize_t count = recv(client.fd, bytes, sizeof bytes, MSG_DONTWAIT);
    if (count <= 0) fail("recv");
    client.received += static_cast<std::size_t>(count);
    const std::size_t answers = client.received / kAnswer;
    if (answers > 0) client.waits = false;
    client.received %= kAnswer;
    return answers;
  }

  const int epoll_;
  std::string frame_;
  std::vector<Client> clients_;
  std::size_t next_ = 0;
};

struct Contender {
  const char* name;
  std::size_t sessions;
  Server server;
  Clients clients;
  std::vector<double> us[std::size(kLoads)] = {};  ///< CPU per message of each slice

  void measure(std::size_t load) {
    const double before = server.cpu_seconds();
    clients.exchange(kSlices[load], kLoads[load]);
    us[load].push_back((server.cpu_seconds() - before) / static_cast<double>(kSlices[load]) * 1e6);
  }
  double median(std::size_t load) {
    std::sort(us[load].begin(), us[load].end());
    return us[load][us[load].size() / 2];
  }
};

void measure_in_turn(std::vector<Contender>& contenders) {
  for (Contender& contender : contenders) contender.clients.exchange(kSlices[0], kLoads[0]);
  for (int round = 0; round < kRounds; ++round)
    for (std::size_t load = 0; load < std::size(kLoads); ++load)
      for (Contender& contender : contenders) contender.measure(load);
}

void report(std::vector<Contender>& contenders, std::size_t load) {
  std::printf("%zu under way\n", kLoads[load]);
  for (Contender& contender : contenders)
    std::printf("  %-12s %6zu sessions  %6.2f us of CPU per message of %zu bytes\n", contender.name,
                contender.sessions, contender.median(load), kMessage);
  const auto ratio = [&](std::size_t of, std::size_t to) {
    return contenders[of].median(load) / contenders[to].median(load);
  };
  std::printf("  controller / bare echo: %.2f (at most 1.6)\n", ratio(1, 0));
  std::printf("  %zu / %zu sessions: controller %.2f (at most 1.4), bare echo %.2f\n",
              contenders[2].sessions, kFew, ratio(2, 1), ratio(3, 0));
}

}  // namespace

int main() {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 2 * kMany + 1000);
  setrlimit(RLIMIT_NOFILE, &limit);
  const std::size_t many =
      std::min<std::size_t>(kMany, (static_cast<std::size_t>(limit.rlim_cur) - 300) / 2);

  const Server echo_server = start(&run_bare_echo);
  const Server many_echo_server = start(&run_bare_echo);
  const Server few_server = start(&run_controller);
  const Server many_server = start(&run_controller);

  usleep(300000);
  const double empty = many_server.resident_bytes();
  std::vector<Contender> contenders;
  contenders.push_back({"bare echo", kFew, echo_server, Clients(echo_server, kFew)});
  contenders.push_back({"controller", kFew, few_server, Clients(few_server, kFew)});
  contenders.push_back({"controller", many, many_server, Clients(many_server, many)});
  usleep(300000);
  const double idle = many_server.resident_bytes();
  contenders.push_back({"bare echo", many, many_echo_server, Clients(many_echo_server, many)});

  measure_in_turn(contenders);
  for (std::size_t load = 0; load < std::size(kLoads); ++load) report(contenders, load);
  std::printf("resident per idle session: %.1f KB (at most 9); with traffic behind it: %.1f KB\n",
              (idle - empty) / static_cast<double>(many) / 1024,
              (many_server.resident_bytes() - empty) / static_cast<double>(many) / 1024);
}
