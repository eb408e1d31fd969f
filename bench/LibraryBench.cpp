// What the library itself costs: each operation beside the calls of the set that it cannot do
// without. The log is discarded here.

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "Compare.h"
#include "OndaroPALDebug.h"
#include "ondaro/OndaroApi.h"
#include "platform/Log.h"
#include "platform/SettingsStore.h"

namespace {

constexpr char PROPERTY[] = "ONDARO_STATUS";
constexpr char KEY[] = "memory/menu/network/ondaro_status";
constexpr char VALUE[] = "running";
constexpr int SHORT_BLOCK = 100'000;
constexpr int STORE_BLOCK = 10'000;
constexpr int WRITE_BLOCK = 500;

void PropertyRead(benchmark::State& state) {
  const OndaroApi_SystemConfig_h config = OndaroFactory_GetSystemConfigHandle();
  platform_settings_set_string(KEY, VALUE);
  Compare::Run(
      state, STORE_BLOCK,
      [config] {
        uint32_t length = 0;
        const char* value = OndaroApi_SystemConfig_GetProperty(config, PROPERTY, &length);
        benchmark::DoNotOptimize(value);
        OndaroApi_SystemConfig_DestroyProperty(value);
      },
      [] {
        char* value = platform_settings_get_string(KEY);
        benchmark::DoNotOptimize(value);
        std::free(value);
      });
}
BENCHMARK(PropertyRead)->Iterations(Compare::BLOCKS);

void PropertyWrite(benchmark::State& state) {
  const OndaroApi_SystemConfig_h config = OndaroFactory_GetSystemConfigHandle();
  Compare::Run(
      state, WRITE_BLOCK, [config] { OndaroApi_SystemConfig_SetProperty(config, PROPERTY, VALUE); },
      [] { platform_settings_set_string(KEY, VALUE); });
}
BENCHMARK(PropertyWrite)->Iterations(Compare::BLOCKS);

void LogKey() { PAL_LOG_INFO("key : %s", KEY); }

void LogStatement(benchmark::State& state) {
  Compare::Run(
      state, SHORT_BLOCK, [] { LogKey(); },
      [] { platform_log_print(0, 4, "ONDARO_PAL", "key : %s", KEY); });
}
BENCHMARK(LogStatement)->Iterations(Compare::BLOCKS);

void Tracer(benchmark::State& state) {
  Compare::Run(
      state, SHORT_BLOCK, [] { ONDAROCALLTRACE tracer(__PRETTY_FUNCTION__); },
      [] {
        platform_log_print(0, 4, "ONDARO_PAL", "[%s]Entered ", __PRETTY_FUNCTION__);
        platform_log_print(0, 4, "ONDARO_PAL", "[%s]Left", __PRETTY_FUNCTION__);
      });
}
BENCHMARK(Tracer)->Iterations(Compare::BLOCKS);

}  // namespace
