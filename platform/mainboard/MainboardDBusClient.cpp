// SPDX-License-Identifier: Apache-2.0
// The calls to the main board daemon.
#include <velmor/q47/mainboarddaemon/MainboardDBusClient.h>

#include "dbus/BusConnection.h"
#include "dbus/BusThread.h"

#include <optional>
#include <stdexcept>
#include <utility>

#include <giomm/error.h>
#include <glibmm/variant.h>

namespace velmor::q47::mainboarddaemon {

namespace {

using velmor::platform::dbus::BusConnection;
using velmor::platform::dbus::BusThread;
using velmor::platform::dbus::wordsOf;

constexpr char const* kBusName = "com.velmor.q47.mainboarddaemon";
constexpr char const* kObjectPath = "/com/velmor/q47/mainboarddaemon";
constexpr char const* kInterface = "com.velmor.q47.mainboarddaemon.interface";

template <typename... Values>
Glib::VariantContainerBase tupleOf(Values... aValues) {
    return Glib::VariantContainerBase::create_tuple({Glib::Variant<Values>::create(aValues)...});
}

} // namespace

/// The daemon as seen from the thread that owns the connection.
class MainboardDBusClient::Daemon {
public:
    Daemon(std::string aAddress, std::chrono::milliseconds aTimeLimit)
        : mAddress(std::move(aAddress))
        , mTimeLimit(aTimeLimit)
        , mThread("mainboard") {}

    ~Daemon() {
        mThread.post([this] { mConnection.reset(); });
    }

    Daemon(Daemon const&) = delete;
    Daemon& operator=(Daemon const&) = delete;

    template <typename... Values>
    void call(char const* aMethod, Values... aValues) {
        onBus(aMethod,
              [&](auto const& aCancellable) { send(aMethod, tupleOf(aValues...), "()", aCancellable); });
    }

    template <typename... Values>
    std::uint32_t ask(char const* aMethod, Values... aValues) {
        std::uint32_t result = 0;
        onBus(aMethod, [&](auto const& aCancellable) {
            Glib::Variant<guint32> answer;
            send(aMethod, tupleOf(aValues...), "(u)", aCancellable).get_child(answer, 0);
            result = answer.get();
        });
        return result;
    }

private:
    void onBus(char const* aMethod, BusThread::CancellableTask const& aTask) {
        mThread.call(
            [&](Glib::RefPtr<Gio::Cancellable> const& aCancellable) {
                try {
                    aTask(aCancellable);
                } catch (Glib::Error const& error) {
                    fail(aMethod, *aCancellable.get(), wordsOf(error));
                } catch (std::exception const& error) {
                    fail(aMethod, *aCancellable.get(), error.what());
                }
            },
            mTimeLimit);
    }

    [[noreturn]] void fail(char const* aMethod,
                           Gio::Cancellable const& aCancellable,
                           std::string const& aReason) const {
        throw std::runtime_error(std::string("Main board call ") + aMethod + " to " + kBusName + " at '" +
                                 mAddress + "' failed: " +
                                 (aCancellable.is_cancelled()
                                      ? "no answer within " + std::to_string(mTimeLimit.count()) + " ms"
                                      : aReason));
    }

    /// A connection whose bus has gone is found out only by its use. The call is then made once more on a new
    /// one: every method sets or reads a value, so twice is as good as once.
    Glib::VariantContainerBase send(char const* aMethod,
                                    Glib::VariantContainerBase const& aArguments,
                                    char const* aAnswerType,
                                    Glib::RefPtr<Gio::Cancellable> const& aCancellable) {
        if (mConnection) {
            try {
                return sendOnce(aMethod, aArguments, aAnswerType, aCancellable);
            } catch (Glib::Error const&) {
                if (!(*mConnection)->is_closed()) {
                    throw;
                }
                mConnection.reset();
            }
        }
        mConnection.emplace(mAddress, aCancellable);
        return sendOnce(aMethod, aArguments, aAnswerType, aCancellable);
    }

    Glib::VariantContainerBase sendOnce(char const* aMethod,
                                        Glib::VariantContainerBase const& aArguments,
                                        char const* aAnswerType,
                                        Glib::RefPtr<Gio::Cancellable> const& aCancellable) {
        // GLib's own time-out is set just behind ours: one limit rules connection, turn and answer together.
        int const limitMs = static_cast<int>(mTimeLimit.count()) + 1000;
        return (*mConnection)
            ->call_sync(kObjectPath, kInterface, aMethod, aArguments, aCancellable, kBusName, limitMs,
                        Gio::DBus::CallFlags::NONE, Glib::VariantType(aAnswerType));
    }

    std::string const mAddress;
    std::chrono::milliseconds const mTimeLimit;
    std::optional<BusConnection> mConnection;
    BusThread mThread;
};

MainboardDBusClient::MainboardDBusClient(std::string aBusAddress, std::chrono::milliseconds aTimeLimit)
    : mDaemon(std::make_unique<Daemon>(std::move(aBusAddress), aTimeLimit)) {}

MainboardDBusClient::~MainboardDBusClient() = default;

void MainboardDBusClient::setStatusLed(int aColour) {
    mDaemon->call("SetStatusLed", gint32{aColour});
}

void MainboardDBusClient::setTxEnable(unsigned int aChannel, bool aOn) {
    mDaemon->call("SetTxEnable", guint32{aChannel}, aOn);
}

std::uint32_t MainboardDBusClient::txFrequencyWord(unsigned int aChannel) {
    return mDaemon->ask("TxFrequencyWord", guint32{aChannel});
}

void MainboardDBusClient::setTxFrequencyWord(unsigned int aChannel, std::uint32_t aWord) {
    mDaemon->call("SetTxFrequencyWord", guint32{aChannel}, guint32{aWord});
}

void MainboardDBusClient::setTxAmplitudeWord(std::uint32_t aWord) {
    mDaemon->call("SetTxAmplitudeWord", guint32{aWord});
}

} // namespace velmor::q47::mainboarddaemon
