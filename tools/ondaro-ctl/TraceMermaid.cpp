#include <algorithm>
#include <array>
#include <cstdio>
#include <set>
#include <string>

#include "TraceWriter.h"

namespace ondaro::ctl {
namespace {

constexpr std::size_t LONGEST_TEXT = 100;       // of a message, in characters
constexpr std::size_t LARGEST_DIAGRAM = 50000;  // that Mermaid takes by default, in characters
constexpr std::size_t MOST_DAEMONS = 4096;

constexpr std::string_view APPLICATION = "Application";
constexpr std::string_view LIBRARY = "Library";
constexpr std::string_view BUS = "Bus";
constexpr std::string_view DAEMON = "Daemon";
constexpr std::string_view STORE = "Store";

/// What a message of the log tells about two of the participants.
struct Meaning {
  std::string_view beginning;  // of the message
  std::string_view from;
  std::string_view to;
  std::string_view kind;
  std::string_view label;  // in place of the beginning
};

constexpr std::array<Meaning, 16> MEANINGS = {{
    {"key : ", LIBRARY, LIBRARY, "message", "key : "},
    {"Succeed to get key ", LIBRARY, STORE, "message", "get "},
    {"Failed to get key ", LIBRARY, STORE, "failure", "get "},
    {"Succeed to set key ", LIBRARY, STORE, "message", "set "},
    {"Failed to set key ", LIBRARY, STORE, "failure", "set "},
    {"Succeed to register for notification for key ", LIBRARY, STORE, "message", "watch "},
    {"Failed to register for setreg key ", LIBRARY, STORE, "failure", "watch "},
    {"Succeed to Un register for notification for key ", LIBRARY, STORE, "message", "unwatch "},
    {"Failed to Un register for setreg key ", LIBRARY, STORE, "failure", "unwatch "},
    {"Values are being sent. ", LIBRARY, BUS, "message", ""},
    {"Start sender:", BUS, LIBRARY, "message", "method call from "},
    {"appEvt : ", LIBRARY, DAEMON, "message", "appEvt : "},
    {"Finish sender:", LIBRARY, BUS, "answer", "answer to "},
    {"g_dbus_proxy_call result : ", BUS, LIBRARY, "answer", "result : "},
    {"g_dbus_proxy_call_finish error : ", BUS, LIBRARY, "failure", "error : "},
    {"Start sender_name:", BUS, LIBRARY, "message", "signal from "},
}};

struct Arrow {
  std::string_view kind;
  std::string_view sign;
};

constexpr std::array<Arrow, 5> ARROWS = {{{"call", "->>+"},
                                          {"return", "-->>-"},
                                          {"message", "->>"},
                                          {"answer", "-->>"},
                                          {"failure", "-x"}}};

struct Message {
  std::string_view from;
  std::string_view to;
  std::string_view kind;
  std::string text;
};

bool EndsWith(std::string_view text, std::string_view end) {
  return text.size() >= end.size() && text.substr(text.size() - end.size()) == end;
}

bool IsAnyOf(std::string_view name, std::initializer_list<std::string_view> ends) {
  return std::any_of(ends.begin(), ends.end(),
                     [name](std::string_view end) { return EndsWith(name, end); });
}

/// The beginning of a text, without cutting through a character.
std::string_view Beginning(std::string_view text) {
  const auto isContinuation = [](char c) {
    return (static_cast<unsigned char>(c) & 0xc0U) == 0x80U;
  };
  std::size_t length = 0;
  for (std::size_t characters = 0; length < text.size(); ++length) {
    if (!isContinuation(text[length]) && characters++ == LONGEST_TEXT) {
      break;
    }
  }
  return text.substr(0, length);
}

/// With a colon behind them, these are for Mermaid more than text.
bool HasWordOfMermaid(std::string_view text) {
  constexpr std::array<std::string_view, 3> WORDS = {"wrap", "style", "classDef"};
  return std::any_of(WORDS.begin(), WORDS.end(), [text](std::string_view word) {
    return text.find(word) != std::string_view::npos;
  });
}

/// As a text of the diagram: what Mermaid, or the page around it, could take for its own is written
/// as a character's number.
std::string Escape(std::string_view text) {
  const std::string_view plain =
      HasWordOfMermaid(text) ? " _.,/()[]*-=+~?!'|@^" : " _.,/()[]*-=+~?!'|@^:";
  std::string escaped;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    const bool isAlphanumeric =
        (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
    if (isAlphanumeric || byte >= 0x80 || plain.find(c) != std::string_view::npos) {
      escaped += c;
    } else {
      escaped += '#' + std::to_string(byte) + ';';
    }
  }
  return escaped;
}

std::string WithoutNamespace(std::string_view name) {
  const bool isOfLibrary = BeginsWith(name, "NOndaroAPI::") || BeginsWith(name, "NOndaroPAL::");
  return std::string(name.substr(isOfLibrary ? name.find(':') + 2 : 0));
}

std::string Milliseconds(std::int64_t microseconds) {
  char text[32];
  std::snprintf(text, sizeof text, "%.3f ms", static_cast<double>(microseconds) / 1000);
  return text;
}

class Mermaid : public TraceWriter {
 public:
  explicit Mermaid(const Output& output) : m_output(output) {
    if (m_output.IsJson()) {
      return;
    }
    Print("sequenceDiagram");
    for (const std::string_view participant : {APPLICATION, LIBRARY, BUS, DAEMON, STORE}) {
      Print("  participant " + std::string(participant));
    }
  }

  void Write(const TraceEvent& event) override {
    if (event.kind == TraceEvent::Kind::Message) {
      WriteMessage(event);
    } else {
      WriteCall(event);
    }
  }

  void Finish() override {
    if (m_size > LARGEST_DIAGRAM) {
      m_output.Note("the diagram has " + std::to_string(m_size) +
                    " characters; Mermaid takes 50000 unless its maxTextSize is raised: cut the "
                    "log down to what matters");
    }
  }

 private:
  void WriteMessage(const TraceEvent& event) {
    const std::string_view text = event.line->text;
    for (const Meaning& meaning : MEANINGS) {
      if (BeginsWith(text, meaning.beginning)) {
        const std::string_view rest = text.substr(meaning.beginning.size());
        Show(event, {meaning.from, meaning.to, meaning.kind,
                     std::string(meaning.label) + std::string(rest)});
        return;
      }
    }
    if (event.line->IsError()) {
      Show(event, {LIBRARY, LIBRARY, "note", std::string(text)});
    }
  }

  void WriteCall(const TraceEvent& event) {
    const std::string_view name = FunctionName(event.signature);
    if (m_daemons.size() >= MOST_DAEMONS) {
      m_daemons.clear();
    }
    if (name.find("IpcServer") != std::string_view::npos) {
      m_daemons.insert(event.process);
    }
    const std::string_view caller = m_daemons.count(event.process) != 0 ? DAEMON : APPLICATION;
    // Both ends of a call are shown or neither: only what they have in common decides.
    if (IsAnyOf(name, {"::_CallDbusClientCallback"})) {
      ShowCall(event, LIBRARY, APPLICATION, "event handler");
    } else if (IsAnyOf(name, {"CIpcServerImpl::SendDataToClient"})) {
      if (event.kind == TraceEvent::Kind::Enter) {
        Show(event, {LIBRARY, BUS, "message", "signal"});
      }
    } else if (IsAnyOf(name, {"::_DbusSignalCallback", "::HandleAppData"})) {
      // Their messages say more.
    } else if (event.depth == 0 || BeginsWith(name, "OndaroApi_")) {
      ShowCall(event, caller, LIBRARY, WithoutNamespace(name));
    }
  }

  void ShowCall(const TraceEvent& event, std::string_view from, std::string_view to,
                const std::string& name) {
    if (event.kind == TraceEvent::Kind::Enter) {
      Show(event, {from, to, "call", name});
    } else {
      const std::string time = event.isWhole ? Milliseconds(event.duration) : "incomplete";
      Show(event, {to, from, "return", name + ", " + time});
    }
  }

  void Show(const TraceEvent& event, const Message& message) {
    if (m_output.IsJson()) {
      m_output.Result("", Object(event, message));
      return;
    }
    const std::string valid = JsonText(message.text).asString();
    const std::string_view shown = Beginning(valid);
    const std::string text = ": " + Escape(shown) + (shown.size() < valid.size() ? "…" : "");
    if (message.kind == "note") {
      Print("  Note over " + std::string(message.from) + text);
    } else {
      Print("  " + std::string(message.from) + Sign(message.kind) + std::string(message.to) + text);
    }
  }

  static std::string Sign(std::string_view kind) {
    const auto* const arrow = std::find_if(
        ARROWS.begin(), ARROWS.end(), [kind](const Arrow& known) { return known.kind == kind; });
    return std::string(arrow->sign);
  }

  static Json::Value Object(const TraceEvent& event, const Message& message) {
    Json::Value object;
    object["time_us"] = static_cast<Json::Int64>(event.time);
    object["from"] = std::string(message.from);
    object["to"] = std::string(message.to);
    object["kind"] = std::string(message.kind);
    object["text"] = JsonText(message.text);
    return object;
  }

  void Print(const std::string& line) {
    m_size += line.size() + 1;
    m_output.Line(line);
  }

  const Output& m_output;
  std::set<int> m_daemons;  // processes that called the daemon's end of the messaging
  std::size_t m_size = 0;
};

}  // namespace

std::unique_ptr<TraceWriter> MakeTraceMermaid(const Output& output) {
  return std::make_unique<Mermaid>(output);
}

}  // namespace ondaro::ctl
