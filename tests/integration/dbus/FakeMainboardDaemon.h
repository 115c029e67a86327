// SPDX-License-Identifier: Apache-2.0
// A main board daemon that a test puts on its bus.
#pragma once

#include "dbus/BusConnection.h"
#include "dbus/BusThread.h"

#include <chrono>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <giomm/dbuserror.h>
#include <giomm/dbusinterfacevtable.h>
#include <giomm/dbusintrospection.h>
#include <giomm/dbusmethodinvocation.h>
#include <glibmm/variant.h>

namespace libfieldwarden::test {

/// Owns the daemon's name, notes every call as text and answers as told. A frequency word is asked for:
/// 0x40000000.
class FakeMainboardDaemon {
public:
    enum class Manner { Answers, Refuses, StaysSilent };

    FakeMainboardDaemon(std::string const& aAddress, Manner aManner)
        : mManner(aManner)
        , mThread("fake-mainboard") {
        mThread.call([&](auto const& aCancellable) { publish(aAddress, aCancellable); },
                     std::chrono::seconds(20));
    }
    ~FakeMainboardDaemon() {
        mThread.post([this] {
            mUnanswered.clear();
            mConnection.reset();
        });
    }
    FakeMainboardDaemon(FakeMainboardDaemon const&) = delete;
    FakeMainboardDaemon& operator=(FakeMainboardDaemon const&) = delete;

    /// The calls so far, such as "SetTxEnable(uint32 1, true)".
    std::vector<std::string> calls() const {
        std::lock_guard const lock(mMutex);
        return mCalls;
    }

private:
    static constexpr char const* kXml = R"xml(<node>
  <interface name="com.velmor.q47.mainboarddaemon.interface">
    <method name="SetStatusLed"><arg type="i" direction="in"/></method>
    <method name="SetTxEnable"><arg type="u" direction="in"/><arg type="b" direction="in"/></method>
    <method name="TxFrequencyWord"><arg type="u" direction="in"/><arg type="u" direction="out"/></method>
    <method name="SetTxFrequencyWord"><arg type="u" direction="in"/><arg type="u" direction="in"/></method>
    <method name="SetTxAmplitudeWord"><arg type="u" direction="in"/></method>
  </interface>
</node>)xml";

    void publish(std::string const& aAddress, Glib::RefPtr<Gio::Cancellable> const& aCancellable) {
        mConnection.emplace(aAddress, aCancellable);
        (*mConnection)
            ->register_object("/com/velmor/q47/mainboarddaemon",
                              Gio::DBus::NodeInfo::create_for_xml(kXml)->lookup_interface(), mTable);
        Glib::Variant<guint32> answer;
        (*mConnection)
            ->call_sync("/org/freedesktop/DBus", "org.freedesktop.DBus", "RequestName",
                        Glib::VariantContainerBase::create_tuple(
                            {Glib::Variant<Glib::ustring>::create("com.velmor.q47.mainboarddaemon"),
                             Glib::Variant<guint32>::create(4)}),
                        aCancellable, "org.freedesktop.DBus")
            .get_child(answer, 0);
        if (answer.get() != 1) {
            mConnection.reset();
            throw std::runtime_error("the name of the main board daemon is not free");
        }
    }

    void handle(Glib::ustring const& aMethod,
                Glib::VariantContainerBase const& aArguments,
                Glib::RefPtr<Gio::DBus::MethodInvocation> const& aInvocation) {
        {
            std::lock_guard const lock(mMutex);
            mCalls.push_back(aMethod.raw() + aArguments.print(true).raw());
        }
        switch (mManner) {
            case Manner::Refuses:
                aInvocation->return_error(
                    Gio::DBus::Error(Gio::DBus::Error::FAILED, "the transmitter is on fire"));
                break;
            case Manner::StaysSilent:
                mUnanswered.push_back(aInvocation);
                break;
            case Manner::Answers:
                aInvocation->return_value(aMethod == "TxFrequencyWord"
                                              ? Glib::VariantContainerBase::create_tuple(
                                                    Glib::Variant<guint32>::create(0x40000000U))
                                              : Glib::VariantContainerBase());
                break;
        }
    }

    Manner const mManner;
    mutable std::mutex mMutex;
    std::vector<std::string> mCalls;
    std::vector<Glib::RefPtr<Gio::DBus::MethodInvocation>> mUnanswered;
    Gio::DBus::InterfaceVTable mTable{
        [this](auto const&,
               auto const&,
               auto const&,
               auto const&,
               Glib::ustring const& aMethod,
               auto const& aArguments,
               auto const& aInvocation) { handle(aMethod, aArguments, aInvocation); }};
    std::optional<velmor::platform::dbus::BusConnection> mConnection;
    velmor::platform::dbus::BusThread mThread;
};

} // namespace libfieldwarden::test
