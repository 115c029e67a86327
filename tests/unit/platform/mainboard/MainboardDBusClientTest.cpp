// SPDX-License-Identifier: Apache-2.0
// What the client of the main board daemon does where there is no bus.
#include "support/ProcessResources.h"
#include "support/TemporaryDirectory.h"

#include <velmor/q47/mainboarddaemon/MainboardDBusClient.h>

#include <chrono>
#include <cstring>
#include <locale>
#include <stdexcept>

#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

using libfieldwarden::test::ProcessResources;
using libfieldwarden::test::TemporaryDirectory;
using std::chrono::milliseconds;
using testing::AllOf;
using testing::HasSubstr;
using testing::ThrowsMessage;
using velmor::q47::mainboarddaemon::MainboardDBusClient;

/// A socket that connections may be made to, but behind which nobody answers.
class DeafSocket {
public:
    explicit DeafSocket(std::filesystem::path const& aPath)
        : mSocket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, aPath.c_str(), sizeof(address.sun_path) - 1);
        if (::bind(mSocket, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
            ::listen(mSocket, 5) != 0) {
            throw std::runtime_error("cannot listen at " + aPath.string());
        }
    }
    ~DeafSocket() { ::close(mSocket); }
    DeafSocket(DeafSocket const&) = delete;
    DeafSocket& operator=(DeafSocket const&) = delete;

private:
    int mSocket;
};

TEST(MainboardDBusClient, IsMadeWithoutABusAndFailsAtTheFirstCall) {
    TemporaryDirectory const folder;
    std::string const address = "unix:path=" + (folder.path() / "no bus").string();
    MainboardDBusClient client(address);
    EXPECT_THAT(
        [&] { client.setStatusLed(4); },
        ThrowsMessage<std::runtime_error>(AllOf(
            HasSubstr(address), HasSubstr("com.velmor.q47.mainboarddaemon"), HasSubstr("SetStatusLed"))));
    EXPECT_THROW(client.txFrequencyWord(1), std::runtime_error);
}

TEST(MainboardDBusClient, FailsCleanlyOnAnAddressThatIsNone) {
    MainboardDBusClient client("not an address");
    EXPECT_THAT(
        [&] { client.setTxEnable(1, true); },
        ThrowsMessage<std::runtime_error>(AllOf(HasSubstr("'not an address'"), HasSubstr("SetTxEnable"))));
}

TEST(MainboardDBusClient, GivesUpABusThatTakesTheConnectionAndSaysNothing) {
    TemporaryDirectory const folder;
    DeafSocket const bus(folder.path() / "bus");
    MainboardDBusClient client("unix:path=" + (folder.path() / "bus").string(), milliseconds(50));
    EXPECT_THAT([&] { client.setTxAmplitudeWord(1); },
                ThrowsMessage<std::runtime_error>(
                    AllOf(HasSubstr("SetTxAmplitudeWord"), HasSubstr("no answer within 50 ms"))));
}

TEST(MainboardDBusClient, LeavesNothingBehindAfterFailedCalls) {
    TemporaryDirectory const folder;
    std::string const address = "unix:path=" + (folder.path() / "no bus").string();
    auto const fail = [&] {
        MainboardDBusClient client(address);
        EXPECT_THROW(client.txFrequencyWord(1), std::runtime_error);
    };
    fail(); // GLib makes its own thread once and keeps it.
    auto const before = ProcessResources::now();
    for (int i = 0; i < 20; ++i) {
        fail();
    }
    EXPECT_TRUE(ProcessResources::settledTo(before).isNotAbove(before));
}

TEST(MainboardDBusClient, LeavesTheHostsLocaleAlone) {
    // A copy of the classic locale with a decimal comma: anything that sets a locale by name would replace
    // it.
    class Comma : public std::numpunct<char> {
        char do_decimal_point() const override { return ','; }
    };
    std::locale const hosts(std::locale::classic(), std::make_unique<Comma>().release());
    std::locale const former = std::locale::global(hosts);
    { MainboardDBusClient const client("unix:path=/nowhere"); }
    EXPECT_TRUE(std::locale() == hosts);
    std::locale::global(former);
}

} // namespace
