#ifndef ONDARO_CTL_FEED_H
#define ONDARO_CTL_FEED_H

#include "Verbs.h"
#include "support/MainLoop.h"
#include "text/Output.h"
#include "text/Text.h"

namespace ondaro::ctl {

/// Shows what arrives in a loop, a line each with the time, until the limits are reached.
class Feed {
 public:
  Feed(const Output& output, const FeedOptions& limits) : m_output(output), m_limits(limits) {}

  const Output& Out() const { return m_output; }
  MainLoop& Loop() { return m_loop; }

  void Show(Json::Value object, std::string_view name, std::string_view text) {
    const std::string time = Now();
    object["time"] = time;
    m_output.Result(object, {time + " ", name, " " + std::string(text)});
    if (++m_shown == m_limits.count) {
      m_loop.Stop();
    }
  }

  void Run() { m_loop.Run(m_limits.seconds, "the time is over"); }

 private:
  const Output& m_output;
  const FeedOptions& m_limits;
  std::uint64_t m_shown = 0;
  MainLoop m_loop;
};

}  // namespace ondaro::ctl

#endif
