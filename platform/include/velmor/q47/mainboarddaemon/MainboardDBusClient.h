// SPDX-License-Identifier: Apache-2.0
// The main board behind its daemon on the D-Bus.
#pragma once

#include <velmor/q47/mainboarddaemon/MainboardInterface.h>

#include <chrono>
#include <memory>
#include <string>

namespace velmor::q47::mainboarddaemon {

/// Calls the main board daemon: bus name "com.velmor.q47.mainboarddaemon", object
/// "/com/velmor/q47/mainboarddaemon", interface "com.velmor.q47.mainboarddaemon.interface", the methods named
/// as the operations, but with a capital.
///
/// The connection is made by the first call and made anew when the bus has gone; a daemon that was away is
/// found again. Any thread may call; calls of several threads take turns. A call blocks until the daemon has
/// answered, at most for the time limit, and throws std::runtime_error naming address, bus name and method
/// when it fails.
class MainboardDBusClient : public MainboardInterface {
public:
    /// Never fails for want of a bus or a daemon: nothing is connected yet.
    /// @param aBusAddress  D-Bus address, such as "unix:path=/run/dbus/system_bus_socket".
    /// @param aTimeLimit   Longest time for one call, in real time.
    explicit MainboardDBusClient(std::string aBusAddress,
                                 std::chrono::milliseconds aTimeLimit = std::chrono::seconds(5));

    /// Closes the connection.
    ~MainboardDBusClient() override;

    MainboardDBusClient(MainboardDBusClient const&) = delete;
    MainboardDBusClient& operator=(MainboardDBusClient const&) = delete;

    void setStatusLed(int aColour) override;
    void setTxEnable(unsigned int aChannel, bool aOn) override;
    std::uint32_t txFrequencyWord(unsigned int aChannel) override;
    void setTxFrequencyWord(unsigned int aChannel, std::uint32_t aWord) override;
    void setTxAmplitudeWord(std::uint32_t aWord) override;

private:
    class Daemon;
    std::unique_ptr<Daemon> mDaemon;
};

} // namespace velmor::q47::mainboarddaemon
