// SPDX-License-Identifier: Apache-2.0
// Opening and closing of a private bus connection.
#include "dbus/BusConnection.h"

#include <memory>
#include <stdexcept>
#include <utility>

#include <glibmm/main.h>
#include <glibmm/utility.h>

namespace velmor::platform::dbus {

namespace {

constexpr unsigned int kCloseLimitMs = 1000;

Glib::RefPtr<Gio::DBus::Connection> connect(std::string const& aAddress,
                                            Glib::RefPtr<Gio::Cancellable> const& aCancellable) {
    using Flags = Gio::DBus::ConnectionFlags;
    try {
        return Gio::DBus::Connection::create_for_address_sync(
            aAddress, aCancellable, Flags::AUTHENTICATION_CLIENT | Flags::MESSAGE_BUS_CONNECTION);
    } catch (Glib::Error const& error) {
        std::string const reason = aCancellable->is_cancelled() ? "no answer in time" : wordsOf(error);
        throw std::runtime_error("Cannot connect to the D-Bus at '" + aAddress + "': " + reason);
    }
}

} // namespace

std::string wordsOf(Glib::Error const& aError) {
    // GLib's own thread may have written them: copied by GLib, whose locks the thread sanitizer cannot see.
    return Glib::make_unique_ptr_gfree(g_strdup(aError.what())).get();
}

BusConnection::BusConnection(std::string const& aAddress,
                             Glib::RefPtr<Gio::Cancellable> const& aCancellable,
                             std::function<void()> aVanished)
    : mVanished(std::move(aVanished))
    , mConnection(connect(aAddress, aCancellable)) {
    mClosedHandler = mConnection->signal_closed().connect([this](bool aRemote, Glib::Error const&) {
        mClosed = true;
        if (aRemote && mVanished) {
            mVanished();
        }
    });
}

BusConnection::~BusConnection() {
    mVanished = {};
    close();
    mClosedHandler.disconnect();
}

void BusConnection::close() {
    // Two things hold a reference to the connection until the thread's context has delivered them: the end of
    // the closing, and the news of it. Both are waited for, or the context and the connection would keep each
    // other.
    auto const ended = std::make_shared<bool>(mConnection->is_closed());
    if (!*ended) {
        mConnection->close([ended](Glib::RefPtr<Gio::AsyncResult> const&) { *ended = true; });
    }
    auto const context = Glib::MainContext::get_thread_default();
    bool expired = false;
    auto const limit = Glib::TimeoutSource::create(kCloseLimitMs);
    limit->connect([&expired] {
        expired = true;
        return false;
    });
    limit->attach(context);
    while (!(mClosed && *ended) && !expired) {
        context->iteration(true);
    }
    limit->destroy();
    while (context->iteration(false)) {
    }
}

} // namespace velmor::platform::dbus
