// The messaging beside plain GDBus calls that do the same, in the same run.
//
// Library and plain take turns, block by block, so that both see the same machine; a figure is the
// median over the blocks. The plain end has a name of equal length, its own daemon process and the
// same connection in this process. A daemon sends signals as told by letters on its standard
// input: 's' sends one, 'A' + n makes their data 2^n bytes long. The pipe is the same for both.
//
// Beside the time that passes stands the processor time of all three processes, the bus's too: it
// says much the same on an idle machine and can still be trusted on a busy one.
//
// usage: ondaro-bench-bus [BLOCKS]     (40 at least for figures to be quoted)
#include <gio/gio.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "BusLog.h"
#include "bus/ChildProcess.h"
#include "bus/PlainPeer.h"
#include "bus/PrivateBus.h"
#include "bus/WaitUntil.h"
#include "ondaro/OndaroApi.h"
#include "ondaro/pal/CPALFactory.h"

namespace ondaro::bench {
namespace {

using test::ChildProcess;
using Clock = std::chrono::steady_clock;

constexpr const char* PLAIN_NAME = "com.halvex.tv.plains";
constexpr const char* PLAIN_PATH = "/com/halvex/tv/plains";

double Median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

double Microseconds(Clock::duration time) {
  return std::chrono::duration<double, std::micro>(time).count();
}

struct Pair {
  double library;
  double plain;
  double Ratio() const { return library / plain; }
};

/// Medians of two measurements that take turns.
Pair Alternate(int blocks, const std::function<double()>& library,
               const std::function<double()>& plain) {
  std::vector<double> libraryTimes;
  std::vector<double> plainTimes;
  library();  // warm
  plain();
  for (int i = 0; i < blocks; ++i) {
    // Neither is always the one that comes after the other.
    if (i % 2 == 0) {
      libraryTimes.push_back(library());
    }
    plainTimes.push_back(plain());
    if (i % 2 != 0) {
      libraryTimes.push_back(library());
    }
  }
  return {Median(libraryTimes), Median(plainTimes)};
}

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

/// Microseconds an operation, with `window` of them begun and not complete at most.
double TimeWindow(int count, int window, const std::function<void()>& begin,
                  const std::function<long()>& completed) {
  const long base = completed();
  long begun = 0;
  const auto start = Clock::now();
  while (completed() - base < count) {
    while (begun < count && begun - (completed() - base) < window) {
      begin();
      ++begun;
    }
    g_main_context_iteration(nullptr, TRUE);
  }
  return Microseconds(Clock::now() - start) / count;
}

/// One way to talk to a daemon: the library's or the plain one.
struct End {
  std::function<void(const std::string&)> call;
  std::function<long()> answered;
  std::function<long()> heard;
  ChildProcess* daemon;
};

class LibraryEnd {
 public:
  LibraryEnd() : m_ipc(OndaroFactory_GetIpcClientHandle()) {
    OndaroApi_IpcClient_RegisterEventHandler(
        m_ipc, "event", [](const char*, void* heard) { ++*static_cast<long*>(heard); }, &m_heard);
  }
  End AsEnd(ChildProcess* daemon) {
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
  End AsEnd(ChildProcess* daemon) {
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

void WaitForOwner(test::PlainPeer& observer, const char* name) {
  test::WaitUntil([&] {
    return observer.Call(g_variant_new("(s)", name), "NameHasOwner", "org.freedesktop.DBus",
                         "/org/freedesktop/DBus", "org.freedesktop.DBus") == "(true,)";
  });
}

struct Load {
  int payloadBits;
  int count;
};
constexpr Load LOADS[] = {{4, 128}, {10, 128}, {16, 64}};

void Report(const char* what, const Load& load, int window, const Pair& time,
            const Pair& processor) {
  std::printf(
      "%-10s %6d B %3d outstanding  library %8.1f us  plain %8.1f us  ratio %.3f"
      "  processor %7.1f us %7.1f us  ratio %.3f\n",
      what, 1 << load.payloadBits, window, time.library, time.plain, time.Ratio(),
      processor.library, processor.plain, processor.Ratio());
}

/// Both kinds of time of one kind of traffic, from the same blocks.
void Compare(const char* what, int blocks, const Load& load, int window, pid_t bus,
             const End& library, const End& plain,
             const std::function<double(const End&)>& measure) {
  std::vector<double> processor[2];
  const auto block = [&](const End& end, int which) {
    return [&, which] {
      const std::vector<pid_t> processes = {getpid(), end.daemon->Pid(), bus};
      const double before = ProcessorTime(processes);
      const double time = measure(end);
      processor[which].push_back((ProcessorTime(processes) - before) / load.count);
      return time;
    };
  };
  const Pair time = Alternate(blocks, block(library, 0), block(plain, 1));
  Report(what, load, window, time, {Median(processor[0]), Median(processor[1])});
}

void MeasureTraffic(int blocks, pid_t bus, const End& library, const End& plain) {
  for (const Load& load : LOADS) {
    const std::string data(std::size_t{1} << load.payloadBits, 'x');
    const std::string size(1, static_cast<char>('A' + load.payloadBits));
    library.daemon->Write(size);
    plain.daemon->Write(size);
    for (const int window : {1, 64}) {
      Compare("round trip", blocks, load, window, bus, library, plain, [&](const End& end) {
        return TimeWindow(
            load.count, window, [&] { end.call(data); }, end.answered);
      });
      Compare("signal", blocks, load, window, bus, library, plain, [&](const End& end) {
        return TimeWindow(
            load.count, window, [&] { end.daemon->Write("s"); }, end.heard);
      });
    }
  }
}

/// Microseconds of processor time to dispatch one queued signal with `names` of them registered.
double TimeDispatch(test::PlainPeer& daemon, GDBusConnection* shared, int names) {
  constexpr int SIGNALS = 500;
  const std::unique_ptr<NOndaroAPI::IIpcClientImpl> client(
      NOndaroPAL::CPALFactory::CreateIpcClientImpl());
  int heard = 0;
  for (int i = 0; i < names; ++i) {
    client->RegisterEventHandler("event number " + std::to_string(i),
                                 [&heard](const std::string&) { ++heard; });
  }
  test::SyncWithBus(shared);
  for (int i = 0; i < SIGNALS; ++i) {
    const std::string name = "event number " + std::to_string(i * 7919L % names);
    g_dbus_connection_emit_signal(daemon.Connection(), nullptr, test::OBJECT_PATH, test::INTERFACE,
                                  test::SIGNAL, g_variant_new("(ss)", name.c_str(), "data"),
                                  nullptr);
  }
  test::SyncWithBus(daemon.Connection());
  test::SyncWithBus(shared);
  const double before = ProcessorTime({getpid()});
  while (heard < SIGNALS) {
    g_main_context_iteration(nullptr, TRUE);
  }
  return (ProcessorTime({getpid()}) - before) / SIGNALS;
}

struct Start {
  double milliseconds;
  double processorMilliseconds;
  double residentMiB;
  double ownMiB;  // in pages that no other process shares
};

/// A line of /proc/PID/smaps_rollup.
double MemoryMiB(pid_t process, const std::string& field) {
  std::ifstream rollup("/proc/" + std::to_string(process) + "/smaps_rollup");
  std::string line;
  while (std::getline(rollup, line) && line.rfind(field, 0) != 0) {
  }
  return std::atof(line.substr(field.size()).c_str()) / 1024;
}

/// From the start of the process to the bus's word that the name is owned.
Start TimeStart(test::PlainPeer& observer, const char* program, const char* name) {
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
  const ChildProcess daemon({program});
  while (!owned) {
    g_main_context_iteration(nullptr, TRUE);
  }
  const double time = Microseconds(Clock::now() - start) / 1000;
  const double processor = ProcessorTime({daemon.Pid()}) / 1000;
  g_bus_unwatch_name(watch);
  return {time, processor, MemoryMiB(daemon.Pid(), "Rss:"), MemoryMiB(daemon.Pid(), "Anonymous:")};
}

void MeasureStart(int blocks, test::PlainPeer& observer) {
  std::vector<double> resident[2];
  std::vector<double> own[2];
  std::vector<double> processor[2];
  const auto measure = [&](const char* program, const char* name, int which) {
    return [&, program, name, which] {
      const Start start = TimeStart(observer, program, name);
      resident[which].push_back(start.residentMiB);
      own[which].push_back(start.ownMiB);
      processor[which].push_back(start.processorMilliseconds);
      // The next one finds the name free.
      test::WaitUntil([&] {
        return observer.Call(g_variant_new("(s)", name), "NameHasOwner", "org.freedesktop.DBus",
                             "/org/freedesktop/DBus", "org.freedesktop.DBus") == "(false,)";
      });
      return start.milliseconds;
    };
  };
  const Pair time = Alternate(blocks, measure(ONDARO_BENCH_LIBRARY_DAEMON, test::BUS_NAME, 0),
                              measure(ONDARO_BENCH_PLAIN_DAEMON, PLAIN_NAME, 1));
  std::printf("start to name owned   library %.2f ms  plain %.2f ms  ratio %.3f\n", time.library,
              time.plain, time.Ratio());
  const Pair used{Median(processor[0]), Median(processor[1])};
  std::printf("  processor           library %.2f ms  plain %.2f ms  ratio %.3f\n", used.library,
              used.plain, used.Ratio());
  const auto report = [](const char* what, const std::vector<double>(&memory)[2]) {
    const Pair median{Median(memory[0]), Median(memory[1])};
    std::printf("%-21s library %.2f MiB  plain %.2f MiB  difference %.2f MiB\n", what,
                median.library, median.plain, median.library - median.plain);
  };
  report("resident", resident);
  report("own memory", own);
}

void Run(int blocks) {
  test::PrivateBus bus;
  test::PlainPeer observer;
  GDBusConnection* shared = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
  g_dbus_connection_set_exit_on_close(shared, FALSE);
  const std::string directory =
      std::filesystem::temp_directory_path() / ("ondaro-bench-" + std::to_string(getpid()));
  std::filesystem::create_directory(directory);

  MeasureStart(blocks, observer);
  {
    const Pair dispatch = Alternate(
        blocks, [&] { return TimeDispatch(observer, shared, 10000); },
        [&] { return TimeDispatch(observer, shared, 10); });
    std::printf("dispatch  10000 names %.2f us  10 names %.2f us  difference %.2f us\n",
                dispatch.library, dispatch.plain, dispatch.library - dispatch.plain);
  }
  std::unique_ptr<LibraryEnd> library;
  std::unique_ptr<PlainEnd> plain;
  for (const bool toFile : {false, true}) {
    std::printf("%s\n", toFile ? "every line of the log written to a file:" : "log discarded:");
    std::vector<std::string> command = {ONDARO_BENCH_LIBRARY_DAEMON};
    if (toFile) {
      command.push_back(directory + "/daemon.log");
    }
    if (toFile) {
      LogToFile((directory + "/application.log").c_str());
    }
    ChildProcess libraryDaemon(command);
    ChildProcess plainDaemon({ONDARO_BENCH_PLAIN_DAEMON});
    WaitForOwner(observer, test::BUS_NAME);
    WaitForOwner(observer, PLAIN_NAME);
    if (!library) {
      library = std::make_unique<LibraryEnd>();
    }
    if (!plain) {
      plain = std::make_unique<PlainEnd>();
    }
    MeasureTraffic(blocks, bus.Pid(), library->AsEnd(&libraryDaemon), plain->AsEnd(&plainDaemon));
    LogNowhere();
    libraryDaemon.Kill();
    plainDaemon.Kill();
    test::WaitUntil([&] { return observer.Owner().empty(); });
  }
  std::filesystem::remove_all(directory);
}

}  // namespace
}  // namespace ondaro::bench

int main(int argc, char** argv) {
  ondaro::bench::Run(argc > 1 ? std::atoi(argv[1]) : 40);
  return EXIT_SUCCESS;
}
