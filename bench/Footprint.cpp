// Starts programs in turn, many times, and tells of each how long it takes to be ready and what
// memory it holds then. A program is ready when it has written a byte; it ends when its input does.
// usage: footprint ROUNDS PROGRAM...

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

struct Sample {
  double readyMs = 0;  // from the start to the first byte
  double cpuMs = 0;    // of the whole process, its end included
  double residentKb = 0;
  double ownKb = 0;  // in pages that it alone has
};

double Field(const std::string& line) { return std::atof(line.c_str() + line.find(':') + 1); }

void ReadMemory(pid_t pid, Sample& sample) {
  std::ifstream rollup("/proc/" + std::to_string(pid) + "/smaps_rollup");
  for (std::string line; std::getline(rollup, line);) {
    if (line.rfind("Rss:", 0) == 0) sample.residentKb = Field(line);
    if (line.rfind("Anonymous:", 0) == 0) sample.ownKb = Field(line);
  }
}

/// Resident and own memory of each mapped file whose name holds "ondaro", in kB.
std::map<std::string, std::pair<double, double>> ReadOwnMappings(pid_t pid) {
  std::map<std::string, std::pair<double, double>> result;
  std::ifstream maps("/proc/" + std::to_string(pid) + "/smaps");
  std::string file;
  for (std::string line; std::getline(maps, line);) {
    if (line.find('-') < line.find(' ')) {
      const auto name = line.rfind('/');
      file = name == std::string::npos ? "" : line.substr(name + 1);
    }
    if (file.find("ondaro-") == std::string::npos) continue;
    if (line.rfind("Rss:", 0) == 0) result[file].first += Field(line);
    if (line.rfind("Anonymous:", 0) == 0) result[file].second += Field(line);
  }
  return result;
}

class CProgram {
 public:
  explicit CProgram(const std::string& path) : m_start(std::chrono::steady_clock::now()) {
    int in[2];
    int out[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    std::string name = path;
    char* arguments[] = {name.data(), nullptr};
    const int error = posix_spawn(&m_pid, path.c_str(), &actions, nullptr, arguments, environ);
    posix_spawn_file_actions_destroy(&actions);
    close(in[0]);
    close(out[1]);
    m_input = in[1];
    m_output = out[0];
    if (error != 0) throw std::runtime_error("cannot start " + path);
    char byte = 0;
    if (read(m_output, &byte, 1) != 1) throw std::runtime_error(path + " did not get ready");
    m_ready = std::chrono::steady_clock::now();
  }
  CProgram(const CProgram&) = delete;
  CProgram& operator=(const CProgram&) = delete;
  ~CProgram() { End(); }

  pid_t Pid() const { return m_pid; }
  double ReadyMs() const {
    return std::chrono::duration<double, std::milli>(m_ready - m_start).count();
  }

  /// Lets the program end; the processor time it used in all.
  double End() {
    if (m_pid == 0) return 0;
    close(m_input);
    close(m_output);
    rusage usage{};
    int status = 0;
    wait4(m_pid, &status, 0, &usage);
    m_pid = 0;
    const auto milliseconds = [](const timeval& time) {
      return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_usec) / 1e3;
    };
    return milliseconds(usage.ru_utime) + milliseconds(usage.ru_stime);
  }

 private:
  std::chrono::steady_clock::time_point m_start;
  std::chrono::steady_clock::time_point m_ready;
  pid_t m_pid = 0;
  int m_input = -1;
  int m_output = -1;
};

Sample RunOnce(const std::string& path) {
  CProgram program(path);
  Sample sample;
  sample.readyMs = program.ReadyMs();
  ReadMemory(program.Pid(), sample);
  sample.cpuMs = program.End();
  return sample;
}

double Quantile(const std::vector<Sample>& samples, double Sample::*field, double part) {
  std::vector<double> values;
  for (const Sample& sample : samples) values.push_back(sample.*field);
  std::sort(values.begin(), values.end());
  return values[static_cast<std::size_t>(part * static_cast<double>(values.size() - 1))];
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: footprint ROUNDS PROGRAM...\n");
    return 2;
  }
  try {
    const int rounds = std::atoi(argv[1]);
    const std::vector<std::string> paths(argv + 2, argv + argc);
    std::map<std::string, std::vector<Sample>> samples;
    for (const std::string& path : paths) RunOnce(path);
    for (int round = 0; round < rounds; ++round) {
      for (const std::string& path : paths) samples[path].push_back(RunOnce(path));
    }
    std::printf("%-14s %10s %10s %10s %12s %12s\n", "program", "ready ms", "(fastest)", "cpu ms",
                "resident kB", "own kB");
    for (const std::string& path : paths) {
      const auto& of = samples[path];
      std::printf("%-14s %10.2f %10.2f %10.2f %12.0f %12.0f\n",
                  path.substr(path.rfind('/') + 1).c_str(), Quantile(of, &Sample::readyMs, 0.5),
                  Quantile(of, &Sample::readyMs, 0), Quantile(of, &Sample::cpuMs, 0.5),
                  Quantile(of, &Sample::residentKb, 0.5), Quantile(of, &Sample::ownKb, 0.5));
    }
    const CProgram last(paths.back());
    std::printf("\nmapped file of %s%*sresident kB        own kB\n",
                paths.back().substr(paths.back().rfind('/') + 1).c_str(), 4, "");
    for (const auto& [file, memory] : ReadOwnMappings(last.Pid())) {
      std::printf("%-36s %8.0f %12.0f\n", file.c_str(), memory.first, memory.second);
    }
  } catch (const std::exception& error) {
    std::fprintf(stderr, "footprint: %s\n", error.what());
    return 1;
  }
  return 0;
}
