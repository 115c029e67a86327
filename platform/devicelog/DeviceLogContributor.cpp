// SPDX-License-Identifier: Apache-2.0
// The published object, its bus name, and the way from a method call to the signal of its end.
#include <velmor/DeviceLogContributor.h>

#include "dbus/BusConnection.h"
#include "dbus/BusThread.h"

#include <velmor/kepla/utils/Defer.h>
#include <velmor/platform/Backend.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <utility>

#include <giomm/dbusinterfacevtable.h>
#include <giomm/dbusintrospection.h>
#include <giomm/dbusmethodinvocation.h>
#include <glibmm/variant.h>

namespace {

using velmor::kepla::log::Severity;
using velmor::platform::dbus::BusConnection;
using velmor::platform::dbus::BusThread;
using velmor::platform::dbus::wordsOf;

constexpr std::chrono::seconds kPublishLimit{3};
constexpr std::chrono::seconds kWithdrawLimit{1};

constexpr std::size_t kMaxBusName = 255;

// Flag and answers of RequestName, as the bus numbers them.
constexpr guint32 kNameFlagDoNotQueue = 4;
constexpr guint32 kPrimaryOwner = 1;

/// A text that may travel on the bus.
Glib::ustring busText(std::string const& aText) {
    return Glib::ustring(aText.c_str()).make_valid();
}

std::string busNameFor(std::string const& aName) {
    constexpr std::string_view allowed = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_";
    std::string element = aName;
    std::replace_if(
        element.begin(), element.end(),
        [&](char aCharacter) { return allowed.find(aCharacter) == std::string_view::npos; }, '_');
    if (element.empty() || (element.front() >= '0' && element.front() <= '9')) {
        element.insert(0, "_"); // An element must not be empty or begin with a digit.
    }
    return (DeviceLogContributor::kBusNamePrefix + element).substr(0, kMaxBusName);
}

template <typename Value>
Value argument(Glib::VariantContainerBase const& aArguments, gsize aIndex) {
    Glib::Variant<Value> child;
    aArguments.get_child(child, aIndex);
    return child.get();
}

/// One accepted call of createLog.
struct Job {
    std::string path;
    int type;
    int id;
};

} // namespace

/// The published object. Everything of the bus lives on the thread "device-log", the function runs on another
/// one.
class DeviceLogContributor::Endpoint : private virtual velmor::kepla::log::Logger {
public:
    Endpoint(Function aFunction, std::string aName, std::string aAddress)
        : Logger("DeviceLogContributor", "")
        , mFunction(std::move(aFunction))
        , mName(std::move(aName))
        , mBusName(busNameFor(mName))
        , mAddress(std::move(aAddress))
        , mThread("device-log")
        , mJobs(
              std::in_place, [this](Job const& aJob) { run(aJob); }, "device-log-job") {
        mThread.call([this](Cancel const& aCancel) { publish(aCancel); }, kPublishLimit);
        keplaDoLog(Severity::Info, "Device log published as '%s' at '%s'", {}, mBusName, mAddress);
    }

    ~Endpoint() {
        mThread.call([this](Cancel const&) { mPublication->object.reset(); }, kWithdrawLimit);
        mJobs.reset(); // The running job may still report.
        mThread.call([this](Cancel const& aCancel) { withdraw(aCancel); }, kWithdrawLimit);
    }

    Endpoint(Endpoint const&) = delete;
    Endpoint& operator=(Endpoint const&) = delete;

private:
    using Cancel = Glib::RefPtr<Gio::Cancellable>;
    using Invocation = Glib::RefPtr<Gio::DBus::MethodInvocation>;

    /// The registration of the object on a connection, which it must not outlive.
    class RegisteredObject {
    public:
        RegisteredObject(BusConnection& aConnection, Endpoint& aEndpoint)
            : mConnection(aConnection)
            , mInterface(Gio::DBus::NodeInfo::create_for_xml(kIntrospection)->lookup_interface(kInterface))
            , mTable([&aEndpoint](
                         auto const&,
                         auto const&,
                         auto const&,
                         auto const&,
                         auto const&,
                         Glib::VariantContainerBase const& aArguments,
                         Invocation const& aInvocation) { aEndpoint.createLog(aArguments, aInvocation); },
                     [&aEndpoint](Glib::VariantBase& aValue,
                                  auto const&,
                                  auto const&,
                                  auto const&,
                                  auto const&,
                                  auto const&) {
                         aValue = Glib::Variant<Glib::ustring>::create(busText(aEndpoint.mName));
                     })
            , mId(mConnection->register_object(kObjectPath, mInterface, mTable)) {}
        ~RegisteredObject() { mConnection->unregister_object(mId); }
        RegisteredObject(RegisteredObject const&) = delete;
        RegisteredObject& operator=(RegisteredObject const&) = delete;

    private:
        BusConnection& mConnection;
        Glib::RefPtr<Gio::DBus::InterfaceInfo> mInterface;
        Gio::DBus::InterfaceVTable mTable;
        guint mId;
    };

    /// What is there while the object is on the bus.
    struct Publication {
        Publication(Endpoint& aEndpoint, Cancel const& aCancel)
            : connection(aEndpoint.mAddress, aCancel, [&aEndpoint] { aEndpoint.busVanished(); })
            , object(std::in_place, connection, aEndpoint) {}

        BusConnection connection;
        std::optional<RegisteredObject> object;
    };

    // On the thread "device-log":

    void publish(Cancel const& aCancel) {
        try {
            // The object comes first: who sees the name finds it.
            mPublication.emplace(*this, aCancel);
            takeName(aCancel);
        } catch (Glib::Error const& error) {
            mPublication.reset();
            throw std::runtime_error("Cannot publish the device log as '" + mBusName + "' on the D-Bus at '" +
                                     mAddress + "': " + wordsOf(error));
        } catch (...) {
            mPublication.reset();
            throw;
        }
    }

    void takeName(Cancel const& aCancel) {
        auto const arguments =
            Glib::VariantContainerBase::create_tuple({Glib::Variant<Glib::ustring>::create(mBusName),
                                                      Glib::Variant<guint32>::create(kNameFlagDoNotQueue)});
        if (argument<guint32>(callBus("RequestName", arguments, aCancel), 0) != kPrimaryOwner) {
            throw std::runtime_error("The name '" + mBusName + "' on the D-Bus at '" + mAddress +
                                     "' is owned by another already");
        }
    }

    void withdraw(Cancel const& aCancel) {
        while (mPending > 0) {
            --mPending;
            emitFinished("The device log was closed before the call was worked on", 1);
        }
        try {
            // Its answer also tells that the bus has got all signals.
            callBus("ReleaseName",
                    Glib::VariantContainerBase::create_tuple(Glib::Variant<Glib::ustring>::create(mBusName)),
                    aCancel);
        } catch (Glib::Error const& error) {
            keplaDoLog(Severity::Debug, "Device log name '%s' not released: %s", {}, mBusName,
                       wordsOf(error));
        }
        mPublication.reset();
    }

    Glib::VariantContainerBase callBus(char const* aMethod,
                                       Glib::VariantContainerBase const& aArguments,
                                       Cancel const& aCancel) {
        return mPublication->connection->call_sync("/org/freedesktop/DBus", "org.freedesktop.DBus", aMethod,
                                                   aArguments, aCancel, "org.freedesktop.DBus", -1,
                                                   Gio::DBus::CallFlags::NONE, Glib::VariantType("(u)"));
    }

    /// The bus has checked the arguments against the introspection text, and there is one method only.
    void createLog(Glib::VariantContainerBase const& aArguments, Invocation const& aInvocation) {
        Job job{argument<Glib::ustring>(aArguments, 0).raw(), argument<gint32>(aArguments, 1),
                argument<gint32>(aArguments, 2)};
        keplaDoLog(Severity::Info, "+createLog(path='%s', type=%d, id=%d)", {}, job.path, job.type, job.id);
        aInvocation->return_value(Glib::VariantContainerBase());
        ++mPending;
        mJobs->trigger(std::move(job));
    }

    void emitFinished(std::string const& aText, int aStatus) {
        using Status = std::tuple<Glib::ustring, gint32>;
        try {
            mPublication->connection->emit_signal(
                kObjectPath, kInterface, "finished", {},
                Glib::VariantContainerBase::create_tuple(
                    Glib::Variant<Status>::create(Status(busText(aText), aStatus))));
        } catch (Glib::Error const& error) {
            keplaDoLog(Severity::Warning, "Cannot tell the end of createLog: %s", {}, wordsOf(error));
        }
    }

    void busVanished() {
        keplaDoLog(Severity::Error, "The D-Bus at '%s' has gone and with it the device log '%s'", {},
                   mAddress, mBusName);
    }

    // On the thread "device-log-job":

    void run(Job const& aJob) {
        --mPending;
        try {
            mFunction(aJob.path, aJob.type, aJob.id);
            finish("", 0);
        } catch (std::exception const& error) {
            fail(aJob, error.what());
        } catch (...) {
            fail(aJob, "unknown exception");
        }
        keplaDoLog(Severity::Info, "-createLog(path='%s')", {}, aJob.path);
    }

    void fail(Job const& aJob, std::string const& aText) {
        keplaDoLog(Severity::Error, "createLog(path='%s', type=%d, id=%d) failed: %s", {}, aJob.path,
                   aJob.type, aJob.id, aText);
        finish(aText, 1);
    }

    void finish(std::string const& aText, int aStatus) {
        mThread.post([this, text = aText, aStatus] { emitFinished(text, aStatus); });
    }

    Function const mFunction;
    std::string const mName;
    std::string const mBusName;
    std::string const mAddress;
    std::atomic<int> mPending{0}; ///< Accepted calls whose work has not begun.
    std::optional<Publication> mPublication;
    BusThread mThread;
    std::optional<velmor::kepla::utils::Defer<Job>> mJobs;
};

DeviceLogContributor::DeviceLogContributor(Function aFunction, std::string aName, Gio::DBus::BusType aBusType)
    : Logger("DeviceLogContributor", "") {
    bool const systemBus = aBusType == Gio::DBus::BusType::SYSTEM;
    auto address = velmor::platform::Backend::current()->deviceLogBusAddress(systemBus);
    if (!address) {
        keplaDoLog(Severity::Debug, "There is no D-Bus: the device log '%s' is not published", {}, aName);
        return;
    }
    mEndpoint = std::make_unique<Endpoint>(std::move(aFunction), std::move(aName), *std::move(address));
}

DeviceLogContributor::~DeviceLogContributor() = default;
