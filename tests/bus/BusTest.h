#ifndef ONDARO_TESTS_BUS_BUSTEST_H
#define ONDARO_TESTS_BUS_BUSTEST_H

#include <gio/gio.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "bus/LogRecorder.h"
#include "bus/PlainPeer.h"
#include "bus/PrivateBus.h"
#include "bus/WaitUntil.h"
#include "ondaro/api/EventHandler.h"

namespace ondaro::test {

/// A bus and the process's shared connection to it, which is held to see what is left of it.
class BusTest : public testing::Test {
 protected:
  BusTest() {
    m_shared = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    g_dbus_connection_set_exit_on_close(m_shared, FALSE);
    LogRecorder::Clear();
  }

  /// Whatever the test did, nothing of the library holds the connection when it is over.
  ~BusTest() override {
    EXPECT_TRUE(WaitUntil([this] { return G_OBJECT(m_shared)->ref_count == 1; }))
        << "references to the connection: " << G_OBJECT(m_shared)->ref_count;
    g_dbus_connection_close_sync(m_shared, nullptr, nullptr);
    Drain();
    g_object_unref(m_shared);
  }

  /// A handler that records its events under a name.
  NOndaroAPI::IpcEventHandler Recorder(const std::string& name) {
    return [this, name](const std::string& data) { m_events.emplace_back(name, data); };
  }

  PrivateBus m_bus;
  GDBusConnection* m_shared;
  std::vector<Event> m_events;
};

}  // namespace ondaro::test

#endif
