#include "Supervisor.h"

#include <json/json.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "Probes.h"

namespace conformance {
namespace {

namespace fs = std::filesystem;

constexpr char SAVED[] = "/saved.json";

// A test may wait out its patience more than once.
constexpr int LONGEST_TEST_IN_PATIENCES = 12;

std::string MakeScratch() {
  std::string path = fs::temp_directory_path() / "ondaro-platform-check-XXXXXX";
  if (mkdtemp(path.data()) == nullptr) {
    throw std::system_error(errno, std::generic_category(), path);
  }
  return path;
}

Descriptor CatchSignals() {
  sigset_t caught;
  sigemptyset(&caught);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    sigaddset(&caught, signal);
  }
  sigprocmask(SIG_BLOCK, &caught, nullptr);
  return Descriptor(signalfd(-1, &caught, SFD_CLOEXEC));
}

std::string FilterFor(const std::vector<Clause>& clauses) {
  std::string filter;
  for (const Clause& clause : clauses) {
    filter += clause.test + ":";
  }
  return filter;
}

bool Parse(const std::string& line, Json::Value& message) {
  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  return reader->parse(line.data(), line.data() + line.size(), &message, nullptr) &&
         message.isObject();
}

Result Failure(const Clause& clause, const std::string& text) {
  return {clause.id, clause.title, Status::FAILED, text, 0};
}

}  // namespace

/// What the worker is at.
struct Supervisor::Current {
  std::string test;  // empty between two
};

Supervisor::Supervisor(std::string declaration, std::chrono::milliseconds patience)
    : m_declaration(std::move(declaration)),
      m_patience(patience),
      m_scratch(MakeScratch()),
      m_signals(CatchSignals()) {}

Supervisor::~Supervisor() {
  std::error_code ignored;
  fs::remove_all(m_scratch, ignored);
}

Start Supervisor::OwnProcess(const char* option, std::vector<std::string> arguments) const {
  arguments.insert(arguments.begin(),
                   {option, m_declaration, m_scratch, std::to_string(m_patience.count())});
  return {Self(std::move(arguments))};
}

Outcome Supervisor::RunProbe(const char* probe, bool isInterruptible) const {
  Start start = OwnProcess(probes::OPTION, {probe, m_scratch + SAVED});
  start.isInterruptible = isInterruptible;
  return RunProcess(start);
}

void Supervisor::Judge(std::vector<Clause> clauses, Report& report) {
  const Outcome saved = RunProbe(probes::SAVE, true);
  if (!saved.Succeeded()) {
    report.remarks.push_back("what is there could not be saved (" + saved.Describe() +
                             "); nothing was tested");
    return;
  }
  while (!clauses.empty() && m_interruption == 0) {
    RunWorker(clauses, report);
  }
  if (m_interruption != 0) {
    report.remarks.push_back("interrupted by signal " + std::to_string(m_interruption));
  }
  const Outcome restored = RunProbe(probes::RESTORE, false);
  if (!restored.Succeeded()) {
    report.remarks.push_back("not everything could be restored (" + restored.Describe() + ")");
  }
}

/// One process's share of the tests: all that are left, or as many as it lived to end.
void Supervisor::RunWorker(std::vector<Clause>& left, Report& report) {
  Child worker(OwnProcess(worker::OPTION, {FilterFor(left)}));
  const std::size_t before = left.size();
  Current current;
  std::string received;
  m_isStuck = false;
  while (WaitForMessage(worker, received)) {
    for (std::size_t end = received.find('\n'); end != std::string::npos;
         end = received.find('\n')) {
      Take(received.substr(0, end), current, left, report);
      received.erase(0, end + 1);
    }
  }
  if (m_isStuck || m_interruption != 0) {
    worker.Kill();
  }
  const Outcome outcome = worker.Finish(m_patience);
  if (m_interruption != 0) {
    return;
  }
  const std::string end = m_isStuck ? "no end in sight; killed" : outcome.Describe();
  if (!current.test.empty()) {
    Json::Value message;
    message[worker::TEST] = current.test;
    message[worker::STATUS] = Word(Status::FAILED);
    message[worker::TEXT] = "the process that ran the test: " + end;
    Take(Json::writeString(Json::StreamWriterBuilder(), message), current, left, report);
  } else if (!outcome.Succeeded()) {
    report.remarks.push_back("a process of the kit did not end well: " + end);
  }
  if (left.size() == before) {
    for (const Clause& clause : left) {
      report.results.push_back(Failure(clause, "the tests did not begin: " + end));
    }
    left.clear();
  }
}

/// False at the worker's end, when it is stuck, and on an interruption.
bool Supervisor::WaitForMessage(Child& child, std::string& received) {
  std::array<pollfd, 2> ready = {{{child.Output(), POLLIN, 0}, {m_signals.Get(), POLLIN, 0}}};
  const auto limit = m_patience * LONGEST_TEST_IN_PATIENCES;
  const int count = poll(ready.data(), ready.size(), static_cast<int>(limit.count()));
  if (count <= 0) {
    m_isStuck = true;
    return false;
  }
  if (ready[1].revents != 0) {
    signalfd_siginfo signal{};
    if (read(m_signals.Get(), &signal, sizeof signal) == sizeof signal) {
      m_interruption = static_cast<int>(signal.ssi_signo);
    }
    return false;
  }
  std::array<char, 4096> buffer;
  const ssize_t size = read(child.Output(), buffer.data(), buffer.size());
  if (size <= 0) {
    return false;
  }
  received.append(buffer.data(), static_cast<std::size_t>(size));
  return true;
}

void Supervisor::Take(const std::string& line, Current& current, std::vector<Clause>& left,
                      Report& report) {
  Json::Value message;
  if (!Parse(line, message)) {
    report.remarks.emplace_back("the port wrote on the kit's channel");
    return;
  }
  const std::string test = message[worker::TEST].asString();
  const auto found = std::find_if(left.begin(), left.end(),
                                  [&](const Clause& clause) { return clause.test == test; });
  if (!message.isMember(worker::STATUS)) {
    current.test = test;
    return;
  }
  current.test.clear();
  if (found == left.end()) {
    return;
  }
  const Result result{found->id, found->title, StatusOf(message[worker::STATUS].asString()),
                      message[worker::TEXT].asString(), message[worker::SECONDS].asDouble()};
  left.erase(found);
  PrintResult(result);
  report.results.push_back(result);
}

}  // namespace conformance
