// SPDX-License-Identifier: Apache-2.0
// The configuration of the tests' message bus, and its start.
#include "support/DBusDaemon.h"

namespace libfieldwarden::test {

namespace {

constexpr char const* kOpenPolicy = R"(
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>)";

// The rules by which the system bus begins: no names, no calls, but answers, signals and the bus itself.
constexpr char const* kSystemPolicy = R"(
  <policy context="default">
    <allow user="*"/>
    <deny own="*"/>
    <deny send_type="method_call"/>
    <allow send_type="signal"/>
    <allow send_requested_reply="true" send_type="method_return"/>
    <allow send_requested_reply="true" send_type="error"/>
    <allow receive_type="method_call"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
    <allow receive_type="signal"/>
    <allow send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus"/>
  </policy>)";

} // namespace

DBusDaemon::DBusDaemon() {
    start(kOpenPolicy);
}

DBusDaemon::DBusDaemon(std::filesystem::path const& aPolicyFile) {
    // Other users have to reach the socket.
    std::filesystem::permissions(mDirectory.path(),
                                 std::filesystem::perms::group_exec | std::filesystem::perms::others_exec,
                                 std::filesystem::perm_options::add);
    start(kSystemPolicy + ("\n  <include>" + aPolicyFile.string() + "</include>"));
}

std::string DBusDaemon::address() const {
    return "unix:path=" + (mDirectory.path() / "bus").string();
}

void DBusDaemon::stop() {
    mDaemon.reset();
}

void DBusDaemon::start(std::string const& aPolicy) {
    writeFile(mDirectory.path() / "bus.conf",
              "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
              " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
              "<busconfig>\n  <listen>" +
                  address() + "</listen>\n  <auth>EXTERNAL</auth>" + aPolicy + "\n</busconfig>\n");
    start();
}

void DBusDaemon::start() {
    std::filesystem::remove(mDirectory.path() / "bus");
    mDaemon.emplace(std::vector<std::string>{"dbus-daemon", "--nofork", "--nopidfile", "--nosyslog",
                                             "--print-address=1",
                                             "--config-file=" + (mDirectory.path() / "bus.conf").string()});
    // The address comes when the socket listens; before it there may be remarks about limits.
    mDaemon->waitForOutput(",guid=");
}

} // namespace libfieldwarden::test
