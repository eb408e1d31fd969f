#ifndef ONDARO_FUZZ_PIPEBUS_H
#define ONDARO_FUZZ_PIPEBUS_H

#include <gio/gio.h>

#include <string>

/// Stands for the system bus: the library's connection and the fuzzer's are the two ends of one
/// socket. The executable defines g_bus_get_sync() and g_bus_own_name() itself, so the shipped
/// library gets this instead. The name is owned at once.
namespace ondaro::fuzz::bus {

constexpr const char* PATH = "/com/halvex/tv/ondaro";
constexpr const char* INTERFACE = "com.halvex.tv.ondaro";

/// A body of the type, from any bytes.
GVariant* MakeBody(const std::string& type, const std::string& bytes);

/// What the library's calls are answered with from now on; null for an error. Takes it over.
void SetReply(GVariant* body);

/// Sends to the library; what GLib refuses to send is left out. Takes the message over.
void Send(GDBusMessage* message);

/// Until both ends have dispatched all that was sent.
void Deliver();

}  // namespace ondaro::fuzz::bus

#endif
