#ifndef ONDARO_FUZZ_PIPEBUS_H
#define ONDARO_FUZZ_PIPEBUS_H

#include <gio/gio.h>

#include <string>

/// Stands for the system bus: the library's connection and the fuzzer's are the two ends of one
/// socket, and what the library sends comes back to it, since both of its ends are on it. The
/// executable defines g_bus_get_sync() and the functions that own a name itself, so the shipped
/// library gets this instead.
namespace ondaro::fuzz::bus {

constexpr const char* PATH = "/com/halvex/tv/ondaro";
constexpr const char* INTERFACE = "com.halvex.tv.ondaro";

/// A new bus, for who connects from now on.
void Open();

/// The bus goes away; the library's end is closed when this returns, and nothing dispatched yet.
void Close();

/// Of the name asked for last; to be told of what became of it, in the order that GLib has.
struct Owner {
  GBusAcquiredCallback busAcquired;
  GBusNameAcquiredCallback nameAcquired;
  GBusNameLostCallback nameLost;
  gpointer userData;
  GDBusConnection* connection;
};
extern Owner owner;

/// A body of the type, from any bytes.
GVariant* MakeBody(const std::string& type, const std::string& bytes);

/// Sends to the library, where it has arrived but is not dispatched when this returns. What GLib
/// refuses to send is left out. Takes the message over.
void Send(GDBusMessage* message);

/// Until what the library sent has arrived, where it goes, but is not dispatched.
void Sync();
/// Until both ends have dispatched all that was sent.
void Deliver();

}  // namespace ondaro::fuzz::bus

#endif
