// The host backend's log: what a message costs that is filtered out, and what one costs that is
// written, beside formatting and writing the same line by hand.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

#include "Compare.h"
#include "platform/Log.h"

namespace {

constexpr int DEBUG = 3;
constexpr int INFO = 4;
constexpr int FILTERED_BLOCK = 1'000'000;
constexpr int WRITE_BLOCK = 5'000;
constexpr char TAG[] = "ONDARO_PAL";
constexpr char SIGNATURE[] =
    "virtual bool NOndaroPAL::CIpcServerImpl::SendDataToClient(const string&, const string&)";

class File {
 public:
  File() : m_path((std::filesystem::temp_directory_path() / "ondaro-log-XXXXXX").string()) {
    const int created = mkstemp(m_path.data());
    if (created < 0) {
      throw std::runtime_error("no temporary file");
    }
    close(created);
    m_descriptor = open(m_path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
  }
  ~File() {
    close(m_descriptor);
    unlink(m_path.c_str());
  }
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  const std::string& Path() const { return m_path; }
  int Descriptor() const { return m_descriptor; }

 private:
  std::string m_path;
  int m_descriptor = -1;
};

/// The log reads its settings at the first message.
void LogToFile() {
  static const File file;
  setenv("ONDARO_HOST_LOG", ("info:" + file.Path()).c_str(), 1);
}

void Print(int priority) {
  platform_log_print(0, priority, TAG, "%s: %s(%d) > [%s]Entered ", "OndaroPALDebug.h",
                     "ONDAROCALLTRACE", __LINE__, SIGNATURE);
}

void LogFiltered(benchmark::State& state) {
  LogToFile();
  Compare::Run(
      state, FILTERED_BLOCK, [] { Print(DEBUG); }, [] { benchmark::ClobberMemory(); });
}
BENCHMARK(LogFiltered)->Iterations(Compare::BLOCKS);

void LogLineToFile(benchmark::State& state) {
  LogToFile();
  const File plain;
  Compare::Run(
      state, WRITE_BLOCK, [] { Print(INFO); },
      [&plain] {
        char line[512];
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        const int length = std::snprintf(
            line, sizeof line, "%5ld.%06ld %5d %5d %c %s: %s: %s(%d) > [%s]Entered \n", now.tv_sec,
            now.tv_nsec / 1000, 4242, 4243, 'I', TAG, "OndaroPALDebug.h", "ONDAROCALLTRACE",
            __LINE__, SIGNATURE);
        benchmark::DoNotOptimize(write(plain.Descriptor(), line, static_cast<std::size_t>(length)));
      });
}
BENCHMARK(LogLineToFile)->Iterations(Compare::BLOCKS);

/// A message of 64 KiB, of which a line keeps the beginning, beside formatting the message.
void LogLongMessage(benchmark::State& state) {
  LogToFile();
  const std::string data(std::size_t{64} * 1024, 'x');
  std::string plain(data.size() + 1024, '\0');
  Compare::Run(
      state, WRITE_BLOCK / 10,
      [&] { platform_log_print(0, INFO, TAG, "appEvt : %s, data : %s", "event", data.c_str()); },
      [&] {
        benchmark::DoNotOptimize(std::snprintf(plain.data(), plain.size(), "appEvt : %s, data : %s",
                                               "event", data.c_str()));
      });
}
BENCHMARK(LogLongMessage)->Iterations(Compare::BLOCKS);

}  // namespace
