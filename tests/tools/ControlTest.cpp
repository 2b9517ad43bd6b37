#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "json/JsonParser.h"
#include "server/ApiCli.h"
#include "server/VrrpWorker.h"
#include "server/lib/RRM.h"
#include "server/lib/RrmWorker.h"
#include "tests/server/CapturedProcessLog.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/TempFolder.h"
#include "tools/ctl/Commands.h"
#include "tools/ctl/ControlClient.h"
#include "tools/ctl/Render.h"
#include "tools/ctl/Run.h"
#include "tools/ctl/Verdict.h"
#include "tools/ctl/Watch.h"

namespace rrm::ctl {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

/// What a run of the program left behind.
struct Outcome {
  int status;
  std::string out;
  std::string errors;
};

Outcome run_with(std::vector<std::string> words) {
  words.insert(words.begin(), "wavelomctl");
  std::vector<const char*> arguments;
  for (const std::string& word : words) arguments.push_back(word.c_str());
  std::ostringstream out;
  std::ostringstream errors;
  const int status = run(static_cast<int>(arguments.size()), arguments.data(), out, errors);
  return {status, out.str(), errors.str()};
}

constexpr char kNoReports[] =
    "there is no such domain, a time is not as it should be, or a report cannot be read";
constexpr char kSettings[] =
    R"({"global":{"cli_api_port":0,"listen_port":0,"vrrp_enabled":0},)"
    R"("patterns":[{"pattern":"p1"}],"domains":[{"domain":"d1","pattern":"p1"}]})";

/// A controller's TCP port and the program that talks to it.
class Control : public testing::Test {
 protected:
  Control() : thread_([this] { api_.run(); }) { config_.reports_path = folder_.path(); }
  ~Control() override {
    api_.stop();
    thread_.join();
    rrm_.stop();
  }
  Outcome ctl(std::vector<std::string> words) {
    words.insert(words.end(), {"--port", std::to_string(api_.port())});
    return run_with(std::move(words));
  }
  void expect_output(std::vector<std::string> words, const std::string& out) {
    const Outcome outcome = ctl(std::move(words));
    EXPECT_EQ(outcome.out, out);
    EXPECT_EQ(outcome.errors, "");
    EXPECT_EQ(outcome.status, kDone);
  }
  void expect_refusal(std::vector<std::string> words, const std::string& error) {
    const Outcome outcome = ctl(std::move(words));
    EXPECT_EQ(outcome.errors, "wavelomctl: " + error + "\n");
    EXPECT_EQ(outcome.status, kRefused);
  }
  /// A domain worker without access points, which never gets a thread.
  void add_worker(const std::string& domain) {
    rrm_.workers().insert(domain, rrm_.make_rrm_worker(domain, 1));
  }

  test::TempFolder folder_;
  CapturedProcessLog process_log_;
  test::CapturedLog log_;
  GlobalConfig config_{"", kSettings};
  RRM rrm_{&config_};
  VrrpWorker vrrp_{&rrm_, &config_};
  ApiCli api_{&rrm_, &vrrp_};
  std::thread thread_;
};

TEST_F(Control, StatusListsTheRunningDomainsAsATable) {
  expect_output({"status"}, "domains  none\n");
  add_worker("d1");
  expect_output({"status"},
                "domains:\n"
                "  name  ap-count  unanswered-ap-count  deleted-ap-count  common-config\n"
                "  d1    0         0                    0                 0\n");
}

TEST_F(Control, JsonPrintsTheReplyAsItCame) {
  expect_output({"--json", "status"}, R"({"version":"2.1","server":")" + config_.host_name() +
                                          R"(","wavelom_version":"1.9.1.323-amd64","domains":[]})"
                                          "\n");
}

TEST_F(Control, ShowsADomain) {
  add_worker("d1");
  EXPECT_THAT(ctl({"show", "d1"}).out, StartsWith("details:\n  name                 d1\n"));
  expect_refusal({"show", "nosuch"}, "there is no domain 'nosuch'");
  expect_refusal({"ap", "d1", "00:11:22:33:44:55", "--links"}, "ap not found");
}

TEST_F(Control, PatternsAreAddedShownChangedAndRemoved) {
  EXPECT_EQ(ctl({"pattern", "add", "p2", "dca_threshold=40", "use_tpc=off"}).status, kDone);
  EXPECT_EQ(config_.get_pattern_config("p2")->dca_threshold, 40);
  EXPECT_FALSE(config_.get_pattern_config("p2")->use_tpc);
  EXPECT_THAT(ctl({"pattern", "show", "p2"}).out, HasSubstr("\ndca_threshold                40\n"));
  EXPECT_EQ(ctl({"pattern", "set", "p2", "optimization_time=3:05", "use_tpc=yes"}).status, kDone);
  EXPECT_EQ(config_.get_pattern_config("p2")->optimization_time_s, 11100);
  expect_output({"pattern", "list"}, "patterns:\n  name\n  common\n  p1\n  p2\n");
  EXPECT_EQ(ctl({"pattern", "remove", "p2"}).status, kDone);
  EXPECT_EQ(config_.get_pattern_config("p2"), std::nullopt);
}

TEST_F(Control, RefusalsNameTheirReason) {
  expect_refusal({"pattern", "add", "p1"}, "Pattern exists");
  expect_refusal({"pattern", "add", "p3", "dca_threshold=100"},
                 "Pattern exists (refused: dca_threshold=100)");
  expect_refusal({"pattern", "set", "p1", "dca_threshold=100", "away_timeout=1"},
                 "refused: dca_threshold=100, away_timeout=1");
  expect_refusal({"pattern", "set", "nosuch", "dca_threshold=1"}, "there is no pattern 'nosuch'");
  expect_refusal({"pattern", "show", "nosuch"}, "there is no pattern 'nosuch'");
  expect_refusal({"pattern", "remove", "nosuch"}, "there is nothing of that name");
  expect_refusal({"domain", "add", "d1", "--pattern", "p1"},
                 "Domain exists or chosen pattern not exists.");
  expect_refusal({"domain", "add", "d9", "--pattern", "p9"}, "there is no pattern 'p9'");
  expect_refusal({"domain", "set", "d9", "--pattern", "p1"}, "there is no domain 'd9'");
  expect_refusal({"domain", "set", "d1", "--pattern", "p9"}, "there is no pattern 'p9'");
  expect_refusal({"domain", "set", "d1", "--pattern", "p1", "--time-zone", "15:00"},
                 "refused: time_zone=15:00");
  expect_refusal({"global", "set", "vrrp_timeout=0"}, "refused: vrrp_timeout=0");
  for (const char* command : {"optimize", "show", "watch"})
    expect_refusal({command, "d1"},
                   "domain 'd1' is not running: none of its access points has subscribed");
  expect_refusal({"report", "show", "2024-05-01,03:15:00,d1"},
                 "there is no such report, or it cannot be read");
  expect_refusal({"report", "last", "d9"}, kNoReports);
  expect_refusal({"report", "list", "d1", "--from", "yesterday"}, kNoReports);
  expect_refusal({"session", "drop", "7"}, "there is no session 7");
  EXPECT_EQ(ctl({"show", "d1"}).out, "") << "the reason says it all";
  EXPECT_THAT(ctl({"show", "d1", "--json"}).out, StartsWith(R"({"version":"2.1","server":)"));
  expect_refusal({"request", R"({"cfg":{}})"}, "the controller has no answer to this request");
}

TEST_F(Control, DomainsAreAddedMovedAndRemoved) {
  EXPECT_EQ(ctl({"domain", "add", "d2", "--pattern", "common", "--time-zone", "-5:30"}).status,
            kDone);
  EXPECT_EQ(*config_.get_domain_info("d2"), (DomainInfo{"common", -19800, "-5:30"}));
  EXPECT_EQ(ctl({"domain", "set", "d2", "--pattern", "p1"}).status, kDone);
  EXPECT_EQ(*config_.get_domain_info("d2"), (DomainInfo{"p1", -19800, "-5:30"}));
  expect_output({"domain", "list"},
                "domains:\n  name  config  time_zone\n  d1    p1\n  d2    p1      -5:30\n");
  EXPECT_EQ(ctl({"domain", "remove", "d2"}).status, kDone);
  EXPECT_FALSE(config_.is_domain_exist("d2"));
}

TEST_F(Control, GlobalOptionsAreShownAndChanged) {
  EXPECT_EQ(ctl({"global", "set", "vrrp_timeout=20", "www_path=/srv"}).status, kDone);
  EXPECT_EQ(config_.vrrp_timeout, 20);
  EXPECT_THAT(ctl({"global", "show"}).out,
              HasSubstr("\nwww_path                   /srv\nvrrp_enabled               0\n"));
}

TEST_F(Control, SessionsRolesAndReports) {
  EXPECT_EQ(ctl({"session", "list"}).status, kDone);
  expect_output({"role"}, "role    master\nstatus  success\n");
  EXPECT_EQ(ctl({"role", "backup"}).status, kDone);
  EXPECT_EQ(rrm_.get_vrrp_role(), VrrpRole::Backup);
  expect_output({"report", "list", "d1"}, "data    none\ncount   0\nstatus  success\n");
  expect_output({"report", "last", "d1"}, "status  success\n");
}

TEST_F(Control, WatchTellsThatNothingIsPlanned) {
  add_worker("d1");
  expect_output({"watch", "d1"}, "   0.0 s  nothing planned (0 access points, 0 silent)\n");
}

TEST_F(Control, WatchGivesUpOnARoundThatDoesNotEnd) {
  add_worker("d1");  // without a thread that could go on
  const Outcome outcome = ctl({"watch", "d1", "--start", "--for", "1", "--interval", "0.4"});
  EXPECT_EQ(outcome.status, kTimeUp);
  EXPECT_EQ(outcome.out, "   0.0 s  planned, starts soon (0 access points, 0 silent)\n");
  EXPECT_EQ(outcome.errors, "wavelomctl: the round has not ended\n");
  for (const std::vector<std::string>& start :
       {std::vector<std::string>{"optimize", "d1"}, {"watch", "d1", "--start"}})
    expect_refusal(start, kNotStarted);
}

// --- without a controller -----------------------------------------------------------------------

TEST(ControlLine, WrongWordsEndWithStatus2) {
  for (const std::vector<std::string>& words :
       std::vector<std::vector<std::string>>{{},
                                             {"sing"},
                                             {"domain"},
                                             {"show"},
                                             {"domain", "add", "d1"},
                                             {"role", "observer"},
                                             {"global", "set", "dca_threshold=1"},
                                             {"global", "set", "api_port"},
                                             {"global", "set", "api_port=x"},
                                             {"global", "set", "enabled=maybe"},
                                             {"pattern", "add", "p", "api_port=1"},
                                             {"pattern", "remove", "common"},
                                             {"session", "drop", "x"},
                                             {"status", "--port", "0"},
                                             {"watch", "d", "--interval", "0"},
                                             {"watch", "d", "--interval", "nan"},
                                             {"watch", "d", "--for", "nan"},
                                             {"status", "--timeout", "nan"},
                                             {"completion", "fish"}}) {
    const Outcome outcome = run_with(words);
    EXPECT_EQ(outcome.status, kUsage) << testing::PrintToString(words);
    EXPECT_THAT(outcome.errors, StartsWith("wavelomctl: "));
  }
  EXPECT_THAT(run_with({"sing"}).errors, StartsWith("wavelomctl: there is no command 'sing'\n"));
  EXPECT_THAT(run_with({"domain", "sing"}).errors,
              StartsWith("wavelomctl: there is no command 'sing'\n"));
}

TEST(ControlLine, HelpAndVersionAreAnswers) {
  EXPECT_EQ(run_with({"--version"}).out, "wavelomctl " WAVELOM_VERSION "\n");
  EXPECT_EQ(run_with({"--version"}).status, kDone);
  EXPECT_THAT(run_with({"--help"}).out, HasSubstr("status"));
  EXPECT_EQ(run_with({"domain", "add", "--help"}).status, kDone);
}

TEST(ControlLine, NobodyThereIsStatus3) {
  const Outcome outcome = run_with({"status", "--port", "1"});
  EXPECT_EQ(outcome.status, kNoAnswer);
  EXPECT_EQ(outcome.errors, "wavelomctl: cannot reach 127.0.0.1:1: Connection refused\n");
}

TEST(ControlLine, RequestThatTheControllerWouldCutIsNotSent) {
  CapturedProcessLog log;
  GlobalConfig config("", kSettings);
  RRM rrm(&config);
  VrrpWorker vrrp(&rrm, &config);
  ApiCli api(&rrm, &vrrp);
  const Outcome outcome = run_with(
      {"request", "{" + std::string(4095, ' ') + "}", "--port", std::to_string(api.port())});
  EXPECT_EQ(outcome.status, kUsage);
  EXPECT_THAT(outcome.errors, HasSubstr("4097 bytes"));
}

TEST(ControlLine, CompletionKnowsEveryLevel) {
  const std::string script = run_with({"completion", "bash"}).out;
  EXPECT_THAT(script, HasSubstr("    'domain') words='list add set remove --help "));
  EXPECT_THAT(script, HasSubstr("    'watch') words='--start --interval --for --help "));
  EXPECT_THAT(script, HasSubstr("complete -F _wavelomctl wavelomctl\n"));
}

/// What bash offers for the last of the words.
std::string completed(const std::vector<std::string>& words) {
  const test::TempFolder folder;
  std::string script = run_with({"completion", "bash"}).out + "COMP_WORDS=(wavelomctl";
  for (const std::string& word : words) script += " '" + word + "'";
  script += ")\nCOMP_CWORD=" + std::to_string(words.size()) +
            "\n_wavelomctl\nprintf '%s|' \"${COMPREPLY[@]}\"\n";
  const std::string command = "cd '" + folder.path() + "' && touch 'my file' && exec bash '" +
                              folder.write("script", script) + "'";
  FILE* output = ::popen(command.c_str(), "r");
  std::string text;
  for (int c = std::fgetc(output); c != EOF; c = std::fgetc(output)) text += static_cast<char>(c);
  ::pclose(output);
  return text;
}

TEST(ControlLine, CompletionOffersTheOptionsOfACommandBehindItsArguments) {
  EXPECT_EQ(completed({"domain", "add", "site1", "--p"}), "--pattern|--port|");
  EXPECT_EQ(completed({"ap", "site1", "00", ":", "11", "--l"}), "--links|");
  EXPECT_EQ(completed({"show", "list", "--j"}), "--json|");
}

TEST(ControlLine, CompletionKeepsValuesOfOptionsApartFromCommands) {
  EXPECT_EQ(completed({"--host", "=", "role", "sta"}), "status|");
  EXPECT_EQ(completed({"--host", "role", "sta"}), "status|");
  EXPECT_EQ(completed({"--json", "domain", "re"}), "remove|");
  EXPECT_EQ(completed({"--host", "s"}), "|");
}

TEST(ControlLine, CompletionOffersWordsThatAnArgumentCanBe) {
  EXPECT_EQ(completed({"role", "b"}), "backup|");
  EXPECT_EQ(completed({"completion", "b"}), "bash|");
  EXPECT_EQ(completed({"config", "check", "m"}), "my file|");
}

/// A port that is no controller: answers the first bytes that come with a text, then again and
/// again if wanted, until the peer goes away.
class Impostor {
 public:
  Impostor(std::string reply, bool endless) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    listener_ = ::socket(AF_INET, SOCK_STREAM, 0);
    if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        ::listen(listener_, 1) != 0 ||
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0)
      throw std::runtime_error("no port");
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this, reply = std::move(reply), endless] { serve(reply, endless); });
  }
  ~Impostor() {
    thread_.join();
    ::close(listener_);
  }
  std::string port() const { return std::to_string(port_); }

 private:
  void serve(const std::string& reply, bool endless) const {
    const int fd = ::accept(listener_, nullptr, nullptr);
    char request[4096];
    if (::recv(fd, request, sizeof(request), 0) > 0) {
      ::send(fd, reply.data(), reply.size(), MSG_NOSIGNAL);
      while (endless && ::send(fd, reply.data() + 1, reply.size() - 1, MSG_NOSIGNAL) > 0) continue;
      while (::recv(fd, request, sizeof(request), 0) > 0) continue;
    }
    ::close(fd);
  }

  int listener_ = -1;
  int port_ = 0;
  std::thread thread_;
};

TEST(ControlLine, AnswerWithoutAnEndIsGivenUp) {
  const Impostor impostor("{" + std::string(1000, ' '), true);
  const Outcome outcome = run_with({"status", "--timeout", "0.1", "--port", impostor.port()});
  EXPECT_EQ(outcome.status, kNoAnswer);
  EXPECT_EQ(outcome.errors,
            "wavelomctl: no answer from 127.0.0.1:" + impostor.port() + " in time\n");
}

TEST(ControlLine, AnswerOfAnotherServiceIsKnownAtItsFirstByte) {
  const Impostor impostor("SSH-2.0-x\r\n", false);
  const Outcome outcome = run_with({"status", "--timeout", "600", "--port", impostor.port()});
  EXPECT_EQ(outcome.status, kNoAnswer);
  EXPECT_EQ(outcome.errors,
            "wavelomctl: what answers at 127.0.0.1:" + impostor.port() + " is no controller\n");
}

TEST(ControlLine, ErrorsOfAReplyAreKeptFromTheTerminalToo) {
  const Impostor impostor(R"({"error":"\u001b[2J"})", false);
  const Outcome outcome = run_with({"status", "--port", impostor.port()});
  EXPECT_EQ(outcome.status, kRefused);
  EXPECT_EQ(outcome.errors, "wavelomctl: ?[2J\n");
}

TEST(ControlLine, EmptyRequestIsNotSent) {
  const Impostor impostor("", false);
  const Outcome outcome = run_with({"request", "", "--port", impostor.port()});
  EXPECT_EQ(outcome.status, kUsage);
  EXPECT_EQ(outcome.errors, "wavelomctl: the request is empty\n");
}

TEST(ObjectEnd, IsFoundBehindTextsAndInnerObjects) {
  const std::string text = R"({"a":"}\"]{","b":[{},[]],"c":{"d":1}})";
  for (std::size_t cut = 1; cut < text.size(); ++cut) {
    ObjectEnd end;
    EXPECT_FALSE(end.take(text.data(), cut)) << cut;
    EXPECT_TRUE(end.take(text.data() + cut, text.size() - cut)) << cut;
  }
}

// --- rendering ----------------------------------------------------------------------------------

std::string rendered(const char* text) { return render(yajson::parse(text)); }

TEST(Render, FlattensInnerObjectsIntoColumns) {
  EXPECT_EQ(rendered(R"({"radios":[{"id":0,"before":{"power":9},"list":[1,2]},{"id":1,"x":"y"}]})"),
            "radios:\n"
            "  id  before.power  list  x\n"
            "  0   9             1 2\n"
            "  1                       y\n");
}

TEST(Render, ListsOfNestedObjectsGetAHeadingEach) {
  EXPECT_EQ(rendered(R"({"aps":[{"mac":"A","radios":[{"id":0}]},7]})"),
            "aps 1:\n  mac  A\n  radios:\n    id\n    0\naps 2:\n  7\n");
}

TEST(Render, KeepsControlCharactersFromTheTerminal) {
  EXPECT_EQ(rendered(R"({"name":"a\u001b[2Jb\n"})"), "name  a?[2Jb?\n");
}

TEST(Render, KeepsControlCharactersOfNamesFromTheTerminal) {
  EXPECT_EQ(rendered(R"({"\u001b":1,"\u0007":{"\u007f":[{"\u0001":1}]}})"),
            "?  1\n?:\n  ?:\n    ?\n    1\n");
}

TEST(Render, KeepsFurtherControlCharactersFromTheTerminalToo) {
  EXPECT_EQ(rendered("{\"name\":\"a\u009b2Jb\u00a0\u00e9\"}"), "name  a?2Jb\u00a0\u00e9\n");
}

TEST(Render, ColumnsAreAsWideAsTheirLongestTextHasCharacters) {
  EXPECT_EQ(rendered("{\"d\":[{\"name\":\"M\u00fcnchen\",\"n\":1},{\"name\":\"Bonn\",\"n\":2}]}"),
            "d:\n  name     n\n  M\u00fcnchen  1\n  Bonn     2\n");
}

TEST(Verdict, SuccessHasNoFailure) {
  for (const char* text : {"{}", R"({"status":"success"})", R"({"add_status":"Success"})",
                           R"({"remove_status":0,"invalid_parameters":[]})"})
    EXPECT_EQ(failure_of(yajson::parse(text), "why"), "") << text;
  EXPECT_NE(failure_of(yajson::parse("[]"), "why"), "");
  EXPECT_EQ(failure_of(yajson::parse(R"({"status":"failure"})"), "why"), "why");
}

// --- watching -----------------------------------------------------------------------------------

std::string details(int state, int answers) {
  return R"({"details":{"rrm-status":)" + std::to_string(state) +
         R"(,"ap-count":3,"unanswered-ap-count":1,"metrics":{"rrm-mode-response-count":)" +
         std::to_string(answers) + R"(,"rrm-response-count":)" + std::to_string(answers) + "}}}";
}

/// A watch of scripted replies.
class WatchedRound : public testing::Test {
 protected:
  WatchEnd follow(std::vector<std::string> replies, bool start = false) {
    std::size_t next = 0;
    const Watch watch{"d1",
                      2,
                      100,
                      [&](const std::string& request) {
                        requests.push_back(request);
                        now_s += answer_s;
                        return replies.at(std::min(next++, replies.size() - 1));
                      },
                      [&](const std::string& line) { lines.push_back(line); },
                      [&](double seconds) {
                        EXPECT_EQ(seconds, 2);
                        now_s += seconds;
                      },
                      [&] { return now_s; }};
    return watch.run(start, failure);
  }
  double now_s = 5000;
  double answer_s = 0;  ///< what the controller takes for each
  std::vector<std::string> requests;
  std::vector<std::string> lines;
  std::string failure;
};

TEST_F(WatchedRound, TellsEachStepOnceUntilNothingIsPlanned) {
  EXPECT_EQ(follow({R"({"status":"success"})", details(4, 0), details(4, 0), details(2, 1),
                    details(3, 2), details(5, 0), details(0, 0)},
                   true),
            WatchEnd::Idle);
  EXPECT_EQ(requests[0], R"({"rrm":{"domain":"d1","start_optimization":"true"}})");
  EXPECT_EQ(requests[1], R"({"rrm":{"domain":"d1"}})");
  EXPECT_EQ(lines, (std::vector<std::string>{
                       "   0.0 s  planned, starts soon (3 access points, 1 silent)",
                       "   4.0 s  modes requested (3 access points, 1 silent, 1 answers so far)",
                       "   6.0 s  scan requested (3 access points, 1 silent, 2 answers so far)",
                       "   8.0 s  optimising (3 access points, 1 silent)",
                       "  10.0 s  nothing planned (3 access points, 1 silent)"}));
}

TEST_F(WatchedRound, GivesUpWhenTimeIsUp) {
  EXPECT_EQ(follow({details(3, 0)}), WatchEnd::TimeUp);
  EXPECT_EQ(lines.size(), 1U);
}

TEST_F(WatchedRound, TimeThatAnswersTakeCountsToo) {
  answer_s = 8;  // a look each 10 s: at 0, 10, ... 100
  EXPECT_EQ(follow({details(3, 0)}), WatchEnd::TimeUp);
  EXPECT_EQ(requests.size(), 11U);
}

TEST_F(WatchedRound, EndsWhenTheDomainHasGone) {
  EXPECT_EQ(follow({details(3, 0), R"({"error":"domain not found"})"}), WatchEnd::Refused);
  EXPECT_EQ(failure, "domain not found");
}

TEST_F(WatchedRound, WaitingForItsTimeOfDayIsTheEndToo) {
  EXPECT_EQ(follow({details(5, 0), details(1, 0)}), WatchEnd::Idle);
}

}  // namespace
}  // namespace rrm::ctl
