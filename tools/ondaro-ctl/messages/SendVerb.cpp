#include <algorithm>

#include "Verbs.h"
#include "messages/Bus.h"
#include "messages/Recording.h"
#include "ondaro/OndaroApi.h"
#include "properties/Properties.h"
#include "text/Text.h"

namespace ondaro::ctl {
namespace {

struct SendOptions {
  std::optional<std::string> event;
  std::optional<std::string> data;
  std::optional<std::string> recording;
  double speed = 1;
  std::optional<double> seconds;
};

void RequireSuccess(const Reply& reply) {
  if (!reply.IsError()) {
    return;
  }
  Require(!reply.IsFromNobody(),
          std::string("no daemon answers on the bus (nobody owns ") + DAEMON_NAME +
              "); start it, or stand in for it with 'ondaro-ctl serve EVENT'",
          ExitCode::BusAbsent);
  if (reply.IsRefusal()) {
    FailRefused("the event", WHO_MAY_CALL);
  }
  throw Failure(std::string(reply.isOfBus ? "the bus" : "the daemon") +
                " answered with an error, " + reply.errorName + ": " + reply.errorMessage);
}

constexpr double MICROSECONDS = 1'000'000.0;

/// Sends events, each when the daemon has answered the one before.
class Sender {
 public:
  /// All is to be done within `seconds`, when given; else each answer has its time.
  explicit Sender(std::optional<double> seconds) : m_bus(m_loop) {
    if (seconds) {
      m_end = g_get_monotonic_time() + static_cast<gint64>(*seconds * MICROSECONDS);
    }
    m_bus.WatchReplies(DAEMON_METHOD, [this](const Reply& reply) {
      m_answer = reply;
      // The library gets to see the reply before the tool ends.
      m_bus.AfterRoundTrip([this] { m_loop.Stop(); });
    });
  }

  void Send(const std::string& event, const std::string& data) {
    constexpr double PATIENCE = 25.0;
    m_answer.reset();
    m_bus.Call(CallDaemon(), [&](const Reply& /*reply*/) {
      RequireOfSet(OndaroApi_IpcClient_SendDataToServer(Client(), event.c_str(), data.c_str()) == 0,
                   "the event was not sent: event and data must be UTF-8 and together shorter than "
                   "32 MiB");
    });
    m_loop.Run(m_end ? SecondsUntil(*m_end) : PATIENCE, "the daemon did not answer in time");
    Require(m_answer.has_value(), "interrupted before the daemon answered");
    RequireSuccess(*m_answer);
  }

  void WaitUntil(gint64 moment) {
    while (SecondsUntil(moment) > 0) {
      const gint64 next = std::min(moment, m_end.value_or(moment));
      Require(!m_loop.RunFor(std::min(LONGEST_TIMEOUT, SecondsUntil(next))),
              "interrupted before all was sent");
      Require(!m_end || SecondsUntil(*m_end) > 0, "the time is over", ExitCode::TimedOut);
    }
  }

 private:
  static double SecondsUntil(gint64 moment) {
    return std::max(0.0, static_cast<double>(moment - g_get_monotonic_time()) / MICROSECONDS);
  }

  std::optional<gint64> m_end;
  MainLoop m_loop;
  Bus m_bus;
  std::optional<Reply> m_answer;
};

void Replay(const Output& output, const SendOptions& options) {
  const std::vector<RecordedEvent> events = ReadRecording(*options.recording);
  std::size_t sent = 0;
  Sender sender(options.seconds);
  try {
    const gint64 begin = g_get_monotonic_time();
    for (const RecordedEvent& event : events) {
      constexpr double A_LIFETIME = 1e15;  // microseconds; a speed can be next to nothing
      const double offset =
          std::min(static_cast<double>(event.microseconds) / options.speed, A_LIFETIME);
      sender.WaitUntil(begin + static_cast<gint64>(offset));
      sender.Send(event.event, event.data);
      ++sent;
    }
  } catch (const Failure& failure) {
    output.Note(std::to_string(sent) + " of " + Count(events.size(), "event") + " sent");
    throw;
  }
}

void RunSend(const Output& output, const SendOptions& options) {
  const bool isReplay = options.recording.has_value();
  Require(options.event.has_value() != isReplay && options.data.has_value() != isReplay,
          "give EVENT and DATA, or --replay FILE", ExitCode::Usage);
  if (isReplay) {
    Replay(output, options);
  } else {
    Sender(options.seconds).Send(*options.event, *options.data);
  }
}

}  // namespace

void AddSendVerb(CLI::App& app, Session& session) {
  auto [send, options] =
      AddVerb(app, session, "send", "Be an application: send events to the daemon", RunSend);
  send.add_option("EVENT", options.event, "The event's name");
  send.add_option("DATA", options.data, "The event's data");
  CLI::Option* const replay =
      send.add_option("--replay", options.recording,
                      "Send what 'listen --json' printed, at its pace; '-' for standard input")
          ->type_name("FILE");
  AddSpeed(send, options.speed).needs(replay);
  AddTimeout(send, options.seconds,
             "Give up after SECONDS in all, with exit code 5;\n25 for each answer when left out");
}

}  // namespace ondaro::ctl
