#include <algorithm>

#include "Bus.h"
#include "Client.h"
#include "Recording.h"
#include "ReplyWatch.h"
#include "Verbs.h"

namespace ondaro::ctl {
namespace {

struct SendOptions {
  std::optional<std::string> event;
  std::optional<std::string> data;
  std::optional<std::string> recording;
  double speed = 1;
  std::optional<double> seconds = 25.0;
};

void RequireSuccess(const Reply& reply) {
  if (!reply.isError) {
    return;
  }
  if (reply.IsFromNobody()) {
    throw Failure(ExitCode::BusAbsent,
                  std::string("no daemon answers on the bus (nobody owns ") + DAEMON_NAME +
                      "); start it, or stand in for it with 'ondaro-ctl serve EVENT'");
  }
  throw Failure(ExitCode::Failed, "the daemon's end refused the event: " + reply.errorMessage);
}

void StartSending(const std::string& event, const std::string& data) {
  if (OndaroApi_IpcClient_SendDataToServer(Client(), event.c_str(), data.c_str()) != 0) {
    throw Failure(ExitCode::Failed,
                  "the event was not sent: event and data must be UTF-8 and "
                  "together shorter than 32 MiB; '--log error' shows more");
  }
}

/// Sends events, each when the daemon has answered the one before.
class Sender {
 public:
  explicit Sender(std::optional<double> seconds) : m_seconds(seconds), m_bus(m_loop) {}

  void Send(const std::string& event, const std::string& data) {
    std::optional<Reply> answer;
    const ReplyWatch watch(m_bus, m_loop, DAEMON_METHOD, [&](const Reply& reply) {
      answer = reply;
      // The library gets to see the reply before the tool ends.
      m_bus.AfterRoundTrip([&] { m_loop.Stop(); });
    });
    m_bus.WhenDaemonAnswers([&] { StartSending(event, data); });
    m_loop.Run(m_seconds, "the daemon did not answer in time");
    if (!answer) {
      throw Failure(ExitCode::Failed, "interrupted before the daemon answered");
    }
    RequireSuccess(*answer);
  }

  void WaitUntil(gint64 moment) {
    constexpr double MICROSECONDS = 1'000'000.0;
    for (gint64 rest; (rest = moment - g_get_monotonic_time()) > 0;) {
      if (m_loop.RunFor(std::min(LONGEST_TIMEOUT, static_cast<double>(rest) / MICROSECONDS))) {
        throw Failure(ExitCode::Failed, "interrupted before all was sent");
      }
    }
  }

 private:
  std::optional<double> m_seconds;
  MainLoop m_loop;
  Bus m_bus;
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
    output.Note(std::to_string(sent) + " of " + std::to_string(events.size()) + " events sent");
    throw;
  }
}

void RunSend(const Output& output, const SendOptions& options) {
  const bool isReplay = options.recording.has_value();
  if (options.event.has_value() == isReplay || options.data.has_value() == isReplay) {
    throw Failure(ExitCode::Usage, "give EVENT and DATA, or --replay FILE");
  }
  if (isReplay) {
    Replay(output, options);
  } else {
    Sender(options.seconds).Send(*options.event, *options.data);
  }
}

}  // namespace

void AddSendVerb(CLI::App& app, Session& session) {
  auto options = std::make_shared<SendOptions>();
  CLI::App& send = *app.add_subcommand("send", "Be an application: send events to the daemon");
  send.add_option("EVENT", options->event, "The event's name");
  send.add_option("DATA", options->data, "The event's data");
  CLI::Option* const replay =
      send.add_option("--replay", options->recording,
                      "Send what 'listen --json' printed, at its pace; '-' for standard input")
          ->type_name("FILE");
  AddSpeed(send, options->speed).needs(replay);
  AddTimeout(send, options->seconds);
  OnVerb(send, session, options, RunSend);
}

}  // namespace ondaro::ctl
