// What the library itself costs: each operation beside the calls of the set that it cannot do
// without. The log is discarded here.

#include <benchmark/benchmark.h>

#include <cstdlib>

#include "OndaroPALDebug.h"
#include "ondaro/OndaroApi.h"
#include "platform/Log.h"
#include "platform/SettingsStore.h"

namespace {

constexpr char PROPERTY[] = "ONDARO_STATUS";
constexpr char KEY[] = "memory/menu/network/ondaro_status";
constexpr char VALUE[] = "running";

void ReadProperty(benchmark::State& state) {
  const OndaroApi_SystemConfig_h config = OndaroFactory_GetSystemConfigHandle();
  platform_settings_set_string(KEY, VALUE);
  for (auto _ : state) {
    uint32_t length = 0;
    const char* value = OndaroApi_SystemConfig_GetProperty(config, PROPERTY, &length);
    benchmark::DoNotOptimize(value);
    OndaroApi_SystemConfig_DestroyProperty(value);
  }
}
BENCHMARK(ReadProperty)->Name("property read/library");

void ReadKey(benchmark::State& state) {
  platform_settings_set_string(KEY, VALUE);
  for (auto _ : state) {
    char* value = platform_settings_get_string(KEY);
    benchmark::DoNotOptimize(value);
    std::free(value);
  }
}
BENCHMARK(ReadKey)->Name("property read/plain");

void WriteProperty(benchmark::State& state) {
  const OndaroApi_SystemConfig_h config = OndaroFactory_GetSystemConfigHandle();
  for (auto _ : state) {
    OndaroApi_SystemConfig_SetProperty(config, PROPERTY, VALUE);
  }
}
BENCHMARK(WriteProperty)->Name("property write/library");

void WriteKey(benchmark::State& state) {
  for (auto _ : state) {
    platform_settings_set_string(KEY, VALUE);
  }
}
BENCHMARK(WriteKey)->Name("property write/plain");

void LogStatement(benchmark::State& state) {
  for (auto _ : state) {
    PAL_LOG_INFO("key : %s", KEY);
  }
}
BENCHMARK(LogStatement)->Name("log statement/library");

void LogCall(benchmark::State& state) {
  for (auto _ : state) {
    platform_log_print(0, 4, "ONDARO_PAL", "key : %s", KEY);
  }
}
BENCHMARK(LogCall)->Name("log statement/plain");

void Trace(benchmark::State& state) {
  for (auto _ : state) {
    const ONDAROCALLTRACE tracer(__PRETTY_FUNCTION__);
  }
}
BENCHMARK(Trace)->Name("tracer/library");

void TraceByHand(benchmark::State& state) {
  for (auto _ : state) {
    platform_log_print(0, 4, "ONDARO_PAL", "[%s]Entered ", __PRETTY_FUNCTION__);
    platform_log_print(0, 4, "ONDARO_PAL", "[%s]Left", __PRETTY_FUNCTION__);
  }
}
BENCHMARK(TraceByHand)->Name("tracer/plain");

}  // namespace
