// SPDX-License-Identifier: Apache-2.0
// A private connection to a bus, which leaves nothing behind when it goes.
#pragma once

#include <functional>
#include <string>

#include <giomm/cancellable.h>
#include <giomm/dbusconnection.h>
#include <glibmm/error.h>

namespace velmor::platform::dbus {

/// @return The words of a GLib error.
std::string wordsOf(Glib::Error const& aError);

/// A connection by address, shared with nobody, so that its end really closes it. To be made, used and
/// destroyed on one BusThread.
class BusConnection {
public:
    /// Connects and says hello to the bus. Blocks until that is done or cancelled.
    /// @param aAddress      D-Bus address, such as "unix:path=/run/dbus/system_bus_socket".
    /// @param aCancellable  Ends the attempt.
    /// @param aVanished     Called on the thread when the bus has gone, not when the connection is closed
    /// from here.
    /// @throws std::runtime_error  when there is no bus; the words name the address.
    BusConnection(std::string const& aAddress,
                  Glib::RefPtr<Gio::Cancellable> const& aCancellable,
                  std::function<void()> aVanished = {});

    /// Closes the connection and waits, at most a second, until GLib has let go of it.
    ~BusConnection();

    BusConnection(BusConnection const&) = delete;
    BusConnection& operator=(BusConnection const&) = delete;

    Gio::DBus::Connection* operator->() const noexcept { return mConnection.get(); }

private:
    void close();

    std::function<void()> mVanished;
    Glib::RefPtr<Gio::DBus::Connection> mConnection;
    sigc::connection mClosedHandler;
    bool mClosed = false;
};

} // namespace velmor::platform::dbus
