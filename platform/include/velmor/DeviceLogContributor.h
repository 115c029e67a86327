// SPDX-License-Identifier: Apache-2.0
// The endpoint on the D-Bus by which a service tool has this process write its device log.
#pragma once

#include <velmor/kepla/log/Logger.h>

#include <functional>
#include <memory>
#include <string>

#include <giomm/dbusconnection.h>

/// Publishes the log-plugin object, from construction to destruction, under the bus name
/// "com.velmor.utils.logplugin." followed by the contributor's name.
///
/// A call of its method `createLog` is answered at once; the work is done by a thread of its own, one call
/// after the other, while the bus goes on being served. The signal `finished` tells the end of each: ("", 0)
/// when all went well, otherwise the words of the exception and 1.
///
/// Where the process's backend has no bus, nothing is published and nothing fails. When the bus goes away the
/// endpoint is gone, which is logged; it does not come back by itself.
class DeviceLogContributor : private virtual velmor::kepla::log::Logger {
public:
    static constexpr char const* kObjectPath = "/com/velmor/utils/logplugin";
    static constexpr char const* kInterface = "com.velmor.utils.logplugin.interface";
    static constexpr char const* kBusNamePrefix = "com.velmor.utils.logplugin.";
    /// The contract on the wire.
    static constexpr char const* kIntrospection = R"xml(<node>
  <interface name="com.velmor.utils.logplugin.interface">
    <property name="Name" type="s" access="read"/>
    <method name="createLog">
      <arg name="path" type="s" direction="in"/>
      <!-- full or minimal -->
      <arg name="type" type="i" direction="in"/>
      <arg name="id" type="i" direction="in"/>
    </method>
    <signal name="finished">
      <arg name="status" type="(si)"/>
    </signal>
  </interface>
</node>)xml";

    /// The function behind `createLog`: path, type and id as called. Its exceptions are reported, not passed
    /// on.
    using Function = std::function<void(std::string const&, int, int)>;

    /// Blocks until the object is published, at most a few seconds.
    /// @param aFunction  Called on the worker thread "device-log-job"; must not destroy this object.
    /// @param aName      The property `Name`. In the bus name, whatever may not stand there becomes "_".
    /// @param aBusType   The system bus, or else the session bus, as the backend addresses them.
    /// @throws std::runtime_error  when there is no bus at the backend's address, or when the bus does not
    /// give the name; the words name what was tried.
    DeviceLogContributor(Function aFunction, std::string aName, Gio::DBus::BusType aBusType);

    /// Takes the object off the bus and ends the threads. A call being worked on is waited for and reported;
    /// those that wait behind it are reported as failed.
    ~DeviceLogContributor();

    DeviceLogContributor(DeviceLogContributor const&) = delete;
    DeviceLogContributor& operator=(DeviceLogContributor const&) = delete;

private:
    class Endpoint;
    std::unique_ptr<Endpoint> mEndpoint;
};
