#include "Probes.h"

#include <unistd.h>

#include <algorithm>
#include <iterator>

#include "Process.h"

namespace conformance::probes {
namespace {

constexpr struct {
  const char* name;
  std::size_t arguments;
  bool (*run)(const Arguments&);
} PROBES[] = {{LOG_MESSAGES, 2, LogMessages},     {LOG_PRIORITIES, 1, LogPriorities},
              {LOG_FORMATS, 1, LogFormats},       {LOG_THREADS, 1, LogFromThreads},
              {LOG_TIMED, 1, LogTimed},           {RELEASE_TEXT, 1, ReleaseText},
              {READ_TEXT, 1, AnswerText},         {READ_INT, 1, AnswerInt},
              {WRITE_TEXT, 2, WriteText},         {WRITE_INT, 2, WriteInt},
              {APPLICATION, 0, RunAsApplication}, {JOIN_GROUP, 1, JoinGroup},
              {SYSTEM_ID, 0, AnswerSystemId},     {SAVE, 1, SaveState},
              {RESTORE, 1, RestoreState}};

}  // namespace

void Answer(const std::string& line) {
  const std::string whole = line + '\n';
  for (std::size_t done = 0; done < whole.size();) {
    const ssize_t written = write(CHANNEL, whole.data() + done, whole.size() - done);
    if (written <= 0) {
      return;
    }
    done += static_cast<std::size_t>(written);
  }
}

bool RunProbe(const std::string& name, const Arguments& arguments) {
  const auto* const found = std::find_if(std::begin(PROBES), std::end(PROBES),
                                         [&](const auto& probe) { return name == probe.name; });
  return found != std::end(PROBES) && arguments.size() == found->arguments && found->run(arguments);
}

}  // namespace conformance::probes
