#pragma once

#include <cstdarg>
#include <memory>
#include <string>

/// The two hooks through which the library speaks to its process: log records and events.
///
/// Purpose:   the library never writes a log or reacts to an event itself; it calls these, and they
///            do nothing until the process has installed a sink.
/// Threading: sinks are set once, before any library object exists; log_write and raise_event are
///            called from every thread, so a sink must be safe to call from several at once.
namespace rrm {

/// Level numbers are those of easylogging++.
enum class LogLevel : int { Trace = 2, Debug = 4, Error = 16, Warning = 32, Info = 128 };

/// What happened, as reported to the event sink; the payload is named in the comment.
enum class EventCode : int {
  MessageInvalid = 0,         ///< an invalid message was rejected; empty
  VersionIncompatible = 1,    ///< a domain worker rejected a message's version; empty
  BroadcastBufferFailed = 2,  ///< a domain worker's broadcast buffer failed
  AccessPointError = 3,       ///< an access point's MAC parameters are invalid; its MAC
  MessageHandlerThrew = 4,    ///< a domain worker's handler threw; the exception's text
  WorkerEnded = 5,            ///< an exception ended a worker; the thread name
  DefaultWorkerThrew = 6,     ///< the default worker's handler threw
  NullDocument = 7,           ///< an outgoing message has a null document
  SendFailed = 8,             ///< a websocket write failed or the message was too large
  ParsingThreadThrew = 10,    ///< a parsing thread's processing threw
  VapInvalid = 11,            ///< a VAP of an access point cannot be read; its MAC
  WorkerExitThrew = 12,       ///< handling a worker's own exit threw
  WorkerNotCreated = 13,      ///< a domain worker cannot be created
  TextDoesNotParse = 14,      ///< incoming or outgoing text does not parse; empty
  ReportCheckInactive = 15,   ///< report check of a domain without a worker failed; the domain
  ReportCheckFailed = 16,     ///< report check failed; the domain or the folder
  ReportAlarmInvalid = 17,    ///< bad daily deletion time; the configured text
  ReportSaveFailed = 18,      ///< saving a report failed; the domain
  ReportListFailed = 19,      ///< report list query failed; the domain
  ReportLastFailed = 20,      ///< last report query failed; the domain
  ReportFetchFailed = 21,     ///< report fetch failed; the report id
  Configuration = 22,         ///< the configuration reports an event
  DomainChanged = 23,         ///< a domain's state changed and should be backed up; the domain
  PlannerStatus = 24,         ///< the planner's state changed; the status text
  QueueOverflow = 25,         ///< a worker queue overflowed; the worker's name
  WebsocketOverflow = 26,     ///< a parsing or per-session queue overflowed
};

/// Receives one record: call site, level, and a printf format with its arguments.
using LogSink = void (*)(const char* file, int line, const char* function, LogLevel level,
                         const char* format, std::va_list arguments);
/// Tells whether records of a level are taken at all, so that costly ones need not be made.
using LogFilter = bool (*)(LogLevel level);
using EventSink = void (*)(EventCode code, const std::shared_ptr<std::string>& payload);

/// Installs the sink of every log record of the library; null takes it away. Without a filter every
/// level is taken.
void set_log_sink(LogSink sink, LogFilter filter = nullptr) noexcept;
void set_event_sink(EventSink sink) noexcept;

/// True when a sink is installed and takes records of this level.
bool log_enabled(LogLevel level) noexcept;

/// Formats a record and hands it to the sink; callers use RRM_LOG. Any thread.
[[gnu::format(printf, 5, 6)]] void log_write(const char* file, int line, const char* function,
                                             LogLevel level, const char* format, ...);

/// Hands an event to the sink, on the calling thread; nothing happens without one.
void raise_event(EventCode code, const std::shared_ptr<std::string>& payload);
/// The same with the payload's text (empty for none).
void raise_event(EventCode code, std::string payload = {});

}  // namespace rrm

/// One record of the calling function; the arguments are not evaluated when nobody takes the level.
#define RRM_LOG(level, ...)                                                                \
  do {                                                                                     \
    if (::rrm::log_enabled(::rrm::LogLevel::level))                                        \
      ::rrm::log_write(__FILE__, __LINE__, __func__, ::rrm::LogLevel::level, __VA_ARGS__); \
  } while (false)
