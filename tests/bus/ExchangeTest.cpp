// Both ends in processes of their own, over the exported functions and the host backend. They are
// forked from this one, which has neither the library nor a thread of GLib's at work.
#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <iostream>
#include <thread>

#include "ondaro/OndaroApi.h"
#include "support/Child.h"
#include "support/Files.h"
#include "support/PlainPeer.h"
#include "support/PrivateBus.h"
#include "support/ProcessUse.h"
#include "support/Tier.h"
#include "support/WaitUntil.h"

namespace ondaro::test {
namespace {

constexpr unsigned LONGEST = 3600;  // seconds

void AwaitDaemon() {
  PlainPeer peer;
  WaitUntil([&] { return !peer.Owner().empty(); });
}

/// A daemon with one handler, in a thread that may end; its process ends like any other once
/// `isDone` holds.
Child Daemon(
    const char* name, OndaroApi_IpcServerEventCallback handler,
    bool (*isDone)() = [] { return false; }) {
  const auto serve = [=] {
    OndaroApi_IpcServer_RegisterEventHandler(OndaroFactory_GetIpcServerHandle(), name, handler,
                                             nullptr);
    WaitUntil(isDone, std::chrono::hours(1));
    std::exit(EXIT_SUCCESS);
  };
  return Child(
      [=] {
        std::thread(serve).join();
        pause();
      },
      LONGEST);
}

void EchoAsPong(const char* data, void*) {
  OndaroApi_IpcServer_SendDataToClient(OndaroFactory_GetIpcServerHandle(), "pong", data);
}

void Send(const char* name, long number) {
  OndaroApi_IpcClient_SendDataToServer(OndaroFactory_GetIpcClientHandle(), name,
                                       std::to_string(number).c_str());
}

void Hear(const char* name, OndaroApi_IpcClientEventCallback handler, void* data) {
  OndaroApi_IpcClient_RegisterEventHandler(OndaroFactory_GetIpcClientHandle(), name, handler, data);
}

/// An application that ends like any other after `body`, which says whether all was well.
template <typename Body>
void RunApplication(Body body) {
  const auto application = [=] {
    AwaitDaemon();
    std::exit(body() ? EXIT_SUCCESS : EXIT_FAILURE);
  };
  EXPECT_EQ(Child(application, LONGEST).Wait(), 0);
}

/// A bus, and a state and a log of the host backend that are the test's own.
class Exchange : public testing::Test {
 protected:
  Exchange() {
    setenv("ONDARO_HOST_STATE", m_state.Path().c_str(), 1);
    setenv("ONDARO_HOST_LOG", ("verbose:" + m_state / "log").c_str(), 1);
  }

  const TemporaryDirectory m_state;
  const PrivateBus m_bus;
};

// Nothing that was accepted is lost.
TEST_F(Exchange, OutlivesWhoSends) {
  constexpr long SENT = 100;
  static long heard = 0;
  Child daemon = Daemon(
      "up", [](const char* data, void*) { heard += data == std::to_string(heard) ? 1 : 0; },
      [] { return heard == SENT; });
  RunApplication([] {
    for (long number = 0; number < SENT; ++number) {
      Send("up", number);
    }
    return true;
  });
  EXPECT_EQ(daemon.Wait(), 0);
}

// The thread ends in a handler, and no more than the thread.
TEST_F(Exchange, GoesOnWhenAHandlerEndsItsThread) {
  Child daemon = Daemon("up", [](const char*, void*) { pthread_exit(nullptr); });
  RunApplication([this] {
    Send("up", 0);
    const auto isLogged = [this](const char* text) {
      return ReadFile(m_state / "log").find(text) != std::string::npos;
    };
    return WaitUntil([&] {
      return isLogged("g_dbus_proxy_call result : 0") &&
             isLogged("the thread ends in [void NOndaroPAL::CIpcServerImpl::HandleAppData");
    });
  });
  kill(daemon.Pid(), SIGTERM);
  EXPECT_EQ(daemon.Wait(), SIGTERM);
}

/// Sends events, with 100 unanswered at most; each must come back, in order.
bool Volley(long count) {
  struct {
    long count = 0;
    bool areInOrder = true;
  } answers;
  const auto onPong = [](const char* data, void* heard) {
    auto& all = *static_cast<decltype(answers)*>(heard);
    all.areInOrder &= data == std::to_string(all.count++);
  };
  Hear("pong", onPong, &answers);
  for (long sent = 0; answers.count < count; g_main_context_iteration(nullptr, TRUE)) {
    while (sent < count && sent - answers.count < 100) {
      Send("ping", sent++);
    }
  }
  return answers.areInOrder;
}

TEST_F(Exchange, CarriesALoadInOrderAtFlatMemory) {
  const long count = ByTier(5000, 100000, 1000000);
  constexpr long GROWTH_KIB = 1024;
  const Child daemon = Daemon("ping", EchoAsPong);
  RunApplication([&] {
    bool isWell = Volley(count / 5);
    const pid_t ends[] = {daemon.Pid(), getpid()};
    const ProcessUse before[] = {ProcessUse(ends[0]), ProcessUse(ends[1])};
    isWell = Volley(count - count / 5) && isWell;
    for (const int end : {0, 1}) {
      const ProcessUse after(ends[end]);
      std::cout << (end == 0 ? "daemon: " : "application: ") << before[end].kilobytes
                << " KiB, then " << after.kilobytes << "; descriptors " << after.descriptors
                << '\n';
      isWell = isWell && after.descriptors == before[end].descriptors &&
               (SANITIZED || after.kilobytes - before[end].kilobytes < GROWTH_KIB);
    }
    return isWell;
  });
}

const void* Get(std::size_t service) {
  return service == 0   ? static_cast<const void*>(OndaroFactory_GetIpcServerHandle())
         : service == 1 ? static_cast<const void*>(OndaroFactory_GetIpcClientHandle())
         : service == 2 ? static_cast<const void*>(OndaroFactory_GetSystemConfigHandle())
                        : OndaroFactory_GetCoreAuthHandle();
}

TEST_F(Exchange, EndsCleanlyInTheMiddleOfTraffic) {
  const int exits = ByTier(32, 200, 1000);
  const Child daemon = Daemon("ping", EchoAsPong);
  std::array<std::size_t, 4> order = {0, 1, 2, 3};
  for (int number = 0; number < exits; ++number) {
    std::next_permutation(order.begin(), order.end());
    RunApplication([&] {
      std::for_each(order.begin(), order.end(), Get);
      long heard = 0;
      const auto count = [](const char*, void* counter) { ++*static_cast<long*>(counter); };
      Hear("pong", count, &heard);
      for (long sent = 0; sent < 100; ++sent) {
        Send("ping", sent);
      }
      return WaitUntil([&] { return heard >= number % 3; });
    });
  }
}

/// Each thread begins with another service. True when all were given the same handles.
bool Race(std::size_t count) {
  std::vector<std::array<const void*, 4>> got(count);
  std::atomic<std::size_t> waiting{count};
  std::vector<std::thread> threads;
  for (std::size_t number = 0; number < count; ++number) {
    threads.emplace_back([&, number] {
      for (--waiting; waiting > 0;) {
        std::this_thread::yield();
      }
      for (std::size_t turn = number; turn < number + 4; ++turn) {
        got[number][turn % 4] = Get(turn % 4);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  const bool isAnyNull = std::count(got[0].begin(), got[0].end(), nullptr) > 0;
  return !isAnyNull && std::count(got.begin(), got.end(), got[0]) == std::ptrdiff_t(count);
}

TEST_F(Exchange, IsTheSameForAllThreadsThatBeginIt) {
  const int rounds = ByTier(5, 100, 1000);
  const Child daemon = Daemon("ping", EchoAsPong);
  RunInChild(AwaitDaemon);
  for (int round = 0; round < rounds; ++round) {
    EXPECT_EQ(RunInChild([] { std::exit(Race(32) && Volley(1) ? 0 : 1); }), 0) << round;
  }
}

}  // namespace
}  // namespace ondaro::test
