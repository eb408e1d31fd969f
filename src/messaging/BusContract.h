#ifndef ONDARO_SRC_BUSCONTRACT_H
#define ONDARO_SRC_BUSCONTRACT_H

#include <gio/gio.h>

#include <string>

/// What the daemon's and the application's end agree on.
namespace BusContract {

constexpr GBusType BUS_TYPE = G_BUS_TYPE_SYSTEM;
constexpr const char* NAME = "com.halvex.tv.ondaro";
constexpr const char* OBJECT_PATH = "/com/halvex/tv/ondaro";
constexpr const char* INTERFACE = NAME;
constexpr const char* METHOD_TO_SERVER = "sendDataToServer";
constexpr const char* SIGNAL_TO_CLIENT = "sendDataToClient";
constexpr const char* EVENT_TYPE = "(ss)";  // event name, event data
constexpr const char* REPLY_TYPE = "(i)";

/// The body of an event, floating. Throws CInvalidCaseException for what the bus cannot carry: a
/// string that is not UTF-8 or holds a NUL, which GLib would only complain about, and a body over
/// the bus's message limit, for which the bus would drop the connection.
GVariant* MakeEvent(const std::string& appEvt, const std::string& data);

}  // namespace BusContract

#endif
