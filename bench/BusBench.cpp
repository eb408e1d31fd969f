// The messaging beside plain GDBus calls that do the same, in the same run.
// usage: ondaro-bench-bus start|discarded|file [options of the benchmark library]
//
// The plain end has a name of equal length, its own daemon process and the same connection in this
// process. A daemon sends signals as told by letters on its standard input: 's' sends one, 'A' + n
// makes their data 2^n bytes long. The pipe is the same for both.
//
// Beside the time that passes stands the processor time of all three processes, the bus's too: it
// says much the same on an idle machine and can still be trusted on a busy one.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <gio/gio.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "BusLog.h"
#include "ondaro/OndaroApi.h"
#include "ondaro/pal/CPALFactory.h"
#include "support/Child.h"
#include "support/Files.h"
#include "support/PlainPeer.h"
#include "support/PrivateBus.h"
#include "support/WaitUntil.h"

namespace ondaro::bench {
namespace {

using test::PlainPeer;

constexpr const char* PLAIN_NAME = "com.halvex.tv.plains";
constexpr const char* PLAIN_PATH = "/com/halvex/tv/plains";
constexpr int BATCH = 64;

/// Microseconds of processor time that the processes have used so far.
double ProcessorTime(const std::vector<pid_t>& processes) {
  double sum = 0;
  for (const pid_t process : processes) {
    clockid_t clock{};
    timespec time{};
    clock_getcpuclockid(process, &clock);
    clock_gettime(clock, &time);
    sum += static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_nsec) / 1e3;
  }
  return sum;
}

/// Iterates the main context until `done`, with nothing of its own between the messages.
template <typename Predicate>
void Await(const char* what, const Predicate& done) {
  constexpr int SECONDS = 30;
  static int ticks = [] {
    g_timeout_add_seconds(
        1, [](gpointer counter) -> gboolean { return ++*static_cast<int*>(counter), TRUE; },
        &ticks);
    return 0;
  }();
  for (const int end = ticks + SECONDS; !done();) {
    g_main_context_iteration(nullptr, TRUE);
    if (ticks > end) {
      throw std::runtime_error(std::string("waited in vain for ") + what);
    }
  }
}

/// A program whose standard input is told what to do.
class Daemon {
 public:
  explicit Daemon(const std::vector<std::string>& command) : Daemon(command, Pipe()) {}
  ~Daemon() { close(m_input); }
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  pid_t Pid() const { return m_child.Pid(); }
  void Write(const std::string& text) const {
    if (write(m_input, text.data(), text.size()) < 0) {
      throw std::runtime_error("a daemon does not read");
    }
  }

 private:
  struct Ends {
    int reading = -1, writing = -1;
  };
  static Ends Pipe() {
    int ends[2] = {-1, -1};
    if (pipe2(ends, O_CLOEXEC) != 0) {
      throw std::runtime_error("no pipe");
    }
    return {ends[0], ends[1]};
  }
  Daemon(const std::vector<std::string>& command, Ends pipe)
      : m_child(
            [&] {
              dup2(pipe.reading, STDIN_FILENO);
              execl(command[0].c_str(), command[0].c_str(),
                    command.size() > 1 ? command[1].c_str() : nullptr, nullptr);
              _exit(1);
            },
            0),
        m_input(pipe.writing) {
    close(pipe.reading);
  }

  test::Child m_child;
  int m_input;
};

/// One way to talk to a daemon: the library's or the plain one.
struct End {
  std::function<void(const std::string&)> call;
  std::function<long()> answered;
  std::function<long()> heard;
  Daemon* daemon;
};

class LibraryEnd {
 public:
  LibraryEnd() : m_ipc(OndaroFactory_GetIpcClientHandle()) {
    OndaroApi_IpcClient_RegisterEventHandler(
        m_ipc, "event", [](const char*, void* heard) { ++*static_cast<long*>(heard); }, &m_heard);
  }
  End AsEnd(Daemon* daemon) {
    return {[this](const std::string& data) {
              OndaroApi_IpcClient_SendDataToServer(m_ipc, "event", data.c_str());
            },
            AnsweredCalls, [this] { return m_heard; }, daemon};
  }

 private:
  OndaroApi_IpcClient_h m_ipc;
  long m_heard = 0;
};

class PlainEnd {
 public:
  PlainEnd() {
    GDBusConnection* connection = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    m_proxy = g_dbus_proxy_new_sync(connection, G_DBUS_PROXY_FLAGS_NONE, nullptr, PLAIN_NAME,
                                    PLAIN_PATH, PLAIN_NAME, nullptr, nullptr);
    g_dbus_connection_signal_subscribe(connection, nullptr, PLAIN_NAME, test::SIGNAL, PLAIN_PATH,
                                       nullptr, G_DBUS_SIGNAL_FLAGS_NONE, OnSignal, this, nullptr);
  }
  End AsEnd(Daemon* daemon) {
    return {[this](const std::string& data) {
              g_dbus_proxy_call(m_proxy, test::METHOD, g_variant_new("(ss)", "event", data.c_str()),
                                G_DBUS_CALL_FLAGS_NONE, -1, nullptr, OnAnswer, this);
            },
            [this] { return m_answered; }, [this] { return m_heard; }, daemon};
  }

 private:
  static void OnAnswer(GObject* proxy, GAsyncResult* ready, gpointer self) {
    GVariant* reply =
        g_dbus_proxy_call_finish(reinterpret_cast<GDBusProxy*>(proxy), ready, nullptr);
    gint32 result = 0;
    g_variant_get(reply, "(i)", &result);
    g_variant_unref(reply);
    ++static_cast<PlainEnd*>(self)->m_answered;
  }
  static void OnSignal(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*,
                       GVariant* body, gpointer self) {
    const gchar* event = nullptr;
    const gchar* data = nullptr;
    g_variant_get(body, "(&s&s)", &event, &data);
    ++static_cast<PlainEnd*>(self)->m_heard;
  }

  GDBusProxy* m_proxy;
  long m_answered = 0;
  long m_heard = 0;
};

void AwaitOwner(PlainPeer& observer, const char* name, bool owned) {
  if (!test::WaitUntil([&] {
        return test::CallBus(observer.Connection(), "NameHasOwner", g_variant_new("(s)", name)) ==
               (owned ? "(true,)" : "(false,)");
      })) {
    throw std::runtime_error(std::string("waited in vain for the owner of ") + name);
  }
}

/// One operation an iteration in the end; `window` of them are begun and not complete at most.
void Traffic(benchmark::State& state, const End& end, bool isCall, int payloadBits, int window,
             pid_t bus) {
  const std::string data(std::size_t{1} << payloadBits, 'x');
  end.daemon->Write(std::string(1, static_cast<char>('A' + payloadBits)));
  const auto& completed = isCall ? end.answered : end.heard;
  const std::vector<pid_t> processes = {getpid(), end.daemon->Pid(), bus};
  const double before = ProcessorTime(processes);
  while (state.KeepRunningBatch(BATCH)) {
    const long base = completed();
    for (long begun = 0; begun < BATCH;) {
      isCall ? end.call(data) : end.daemon->Write("s");
      ++begun;
      Await("a message", [&] { return begun - (completed() - base) < window; });
    }
    Await("the last message", [&] { return completed() - base == BATCH; });
  }
  state.counters["processor_us"] =
      (ProcessorTime(processes) - before) / static_cast<double>(state.iterations());
}

/// The processor's part in dispatching queued signals, with `names` of them registered.
void Dispatch(benchmark::State& state, PlainPeer& daemon, GDBusConnection* shared, int names) {
  const std::unique_ptr<NOndaroAPI::IIpcClientImpl> client(
      NOndaroPAL::CPALFactory::CreateIpcClientImpl());
  long heard = 0;
  for (int i = 0; i < names; ++i) {
    client->RegisterEventHandler("event number " + std::to_string(i),
                                 [&heard](const std::string&) { ++heard; });
  }
  test::SyncWithBus(shared);
  while (state.KeepRunningBatch(BATCH)) {
    for (int i = 0; i < BATCH; ++i) {
      const std::string name = "event number " + std::to_string(i * 7919L % names);
      g_dbus_connection_emit_signal(daemon.Connection(), nullptr, test::OBJECT_PATH,
                                    test::INTERFACE, test::SIGNAL,
                                    g_variant_new("(ss)", name.c_str(), "data"), nullptr);
    }
    test::SyncWithBus(daemon.Connection());
    test::SyncWithBus(shared);
    const double before = ProcessorTime({getpid()});
    Await("the signals", [&, end = heard + BATCH] { return heard >= end; });
    state.SetIterationTime((ProcessorTime({getpid()}) - before) / 1e6);
  }
}

/// A line of /proc/PID/smaps_rollup.
double MemoryMiB(pid_t process, const std::string& field) {
  std::ifstream rollup("/proc/" + std::to_string(process) + "/smaps_rollup");
  std::string line;
  while (std::getline(rollup, line) && line.rfind(field, 0) != 0) {
  }
  return std::atof(line.substr(field.size()).c_str()) / 1024;
}

/// From the start of the process to the bus's word that the name is owned.
void Start(benchmark::State& state, PlainPeer& observer, const char* program, const char* name) {
  using Clock = std::chrono::steady_clock;
  for (auto _ : state) {
    bool owned = false;
    const guint watch = g_bus_watch_name_on_connection(
        observer.Connection(), name, G_BUS_NAME_WATCHER_FLAGS_NONE,
        [](GDBusConnection*, const gchar*, const gchar*, gpointer flag) {
          *static_cast<bool*>(flag) = true;
        },
        nullptr, &owned, nullptr);
    test::SyncWithBus(observer.Connection());
    test::Drain();
    const auto start = Clock::now();
    const Daemon daemon({program});
    Await("the daemon's name", [&] { return owned; });
    state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
    state.counters["processor_us"] = ProcessorTime({daemon.Pid()});
    state.counters["resident_MiB"] = MemoryMiB(daemon.Pid(), "Rss:");
    state.counters["own_MiB"] = MemoryMiB(daemon.Pid(), "Anonymous:");
    g_bus_unwatch_name(watch);
  }
  AwaitOwner(observer, name, false);  // the next one finds it free
}

template <typename Function>
benchmark::internal::Benchmark* Register(const std::string& name, const Function& function) {
  return benchmark::RegisterBenchmark(name.c_str(), function)->Unit(benchmark::kMicrosecond);
}

/// Each benchmark of the library's is paired by name with one of plain GDBus.
void RegisterTraffic(const std::string& log, const End& library, const End& plain, pid_t bus) {
  for (const bool isCall : {true, false}) {
    for (const int bits : {4, 10, 16}) {
      for (const int window : {1, BATCH}) {
        const std::string name = log + (isCall ? "/call/" : "/signal/") +
                                 std::to_string(1 << bits) + "B/" + std::to_string(window) + "/";
        for (const End* end : {&library, &plain}) {
          Register(name + (end == &library ? "library" : "plain"), [=](benchmark::State& state) {
            Traffic(state, *end, isCall, bits, window, bus);
          })->UseRealTime();
        }
      }
    }
  }
}

void RunStart(PlainPeer& observer) {
  GDBusConnection* shared = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
  g_dbus_connection_set_exit_on_close(shared, FALSE);
  const std::tuple<const char*, const char*, const char*, int> kinds[] = {
      {"library", ONDARO_BENCH_LIBRARY_DAEMON, test::BUS_NAME, 10000},
      {"plain", ONDARO_BENCH_PLAIN_DAEMON, PLAIN_NAME, 10}};
  for (const auto& [kind, program, name, names] : kinds) {
    Register(std::string("start/") + kind, [&observer, program = program,
                                            name = name](benchmark::State& state) {
      Start(state, observer, program, name);
    })->UseManualTime();
    Register(std::string("dispatch among 10000 names, and among 10/") + kind,
             [&observer, shared, names = names](benchmark::State& state) {
               Dispatch(state, observer, shared, names);
             })
        ->UseManualTime();
  }
  benchmark::RunSpecifiedBenchmarks();
}

void RunTraffic(PlainPeer& observer, pid_t bus, bool toFile) {
  const test::TemporaryDirectory directory;
  std::vector<std::string> command = {ONDARO_BENCH_LIBRARY_DAEMON};
  if (toFile) {
    command.push_back(directory / "daemon.log");
    LogToFile((directory / "application.log").c_str());
  }
  Daemon libraryDaemon(command);
  Daemon plainDaemon({ONDARO_BENCH_PLAIN_DAEMON});
  AwaitOwner(observer, test::BUS_NAME, true);
  AwaitOwner(observer, PLAIN_NAME, true);
  LibraryEnd library;
  PlainEnd plain;
  const End libraryEnd = library.AsEnd(&libraryDaemon);
  const End plainEnd = plain.AsEnd(&plainDaemon);
  RegisterTraffic(toFile ? "log to a file" : "log discarded", libraryEnd, plainEnd, bus);
  benchmark::RunSpecifiedBenchmarks();
  LogNowhere();
}

void Run(const std::string& what) {
  const test::PrivateBus bus;
  PlainPeer observer;
  if (what == "start") {
    RunStart(observer);
  } else {
    RunTraffic(observer, bus.Pid(), what == "file");
  }
}

}  // namespace
}  // namespace ondaro::bench

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  ondaro::bench::Run(argc > 1 ? argv[1] : "discarded");
  return EXIT_SUCCESS;
}
