// SPDX-License-Identifier: Apache-2.0
// What the `at` subcommands do with the temperature service.
#include "apps/fieldwarden/AtCommand.h"

#include "apps/fieldwarden/ExitCode.h"
#include "apps/fieldwarden/StopSignal.h"
#include "apps/fieldwarden/TemperatureText.h"

#include <fieldwarden/FieldwardenInterface.h>
#include <fieldwarden/TemperatureInterface.h>
#include <velmor/platform/Clock.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <functional>
#include <stdexcept>
#include <system_error>

#include <fmt/format.h>
#include <poll.h>
#include <unistd.h>

namespace libfieldwarden::app {

namespace {

using velmor::platform::Clock;

TemperatureInterface& temperatureOf(Session const& aSession) {
    auto* const temperature = aSession.library().getTemperature();
    if (temperature == nullptr) {
        throw std::runtime_error("this instrument has no temperature service");
    }
    if (temperature->getProbeDeviceActiveChannel() == 0) {
        throw std::runtime_error("this instrument has no adjustable temperature option");
    }
    return *temperature;
}

/// @return How long the work took, in seconds of the instrument's time.
double secondsOf(std::function<void()> const& aWork) {
    auto const begin = Clock::current().now();
    aWork();
    return std::chrono::duration<double>(Clock::current().now() - begin).count();
}

/// Takes a line, or the end of what there is, from standard input.
/// @return Whether it is the end of the line, or of all.
bool takeInput() {
    std::array<char, 256> bytes{};
    ssize_t const count = ::read(STDIN_FILENO, bytes.data(), bytes.size());
    if (count < 0 && (errno == EINTR || errno == EAGAIN)) {
        return false;
    }
    return count <= 0 || std::find(bytes.begin(), bytes.begin() + count, '\n') != bytes.begin() + count;
}

/// Waits for Enter, the end of standard input, Ctrl-C, or the time.
void waitForUser(StopSignal const& aStop, std::optional<double> aSeconds) {
    using RealTime = std::chrono::steady_clock;
    constexpr double kLongestPoll = 3600.0;
    auto const begin = RealTime::now();
    while (!aStop.came()) {
        double left = kLongestPoll;
        if (aSeconds) {
            left = *aSeconds - std::chrono::duration<double>(RealTime::now() - begin).count();
            if (left <= 0.0) {
                break;
            }
        }
        // Whoever gave a time is not asked for Enter: a negative descriptor is passed over.
        std::array<pollfd, 2> watched{
            {{aStop.descriptor(), POLLIN, 0}, {aSeconds ? -1 : STDIN_FILENO, POLLIN, 0}}};
        constexpr double kMillisecondsPerSecond = 1000.0;
        poll(watched.data(), watched.size(),
             static_cast<int>(std::ceil(std::min(left, kLongestPoll) * kMillisecondsPerSecond)));
        if (watched[1].revents != 0 && takeInput()) {
            break;
        }
    }
    // Also where the signal came together with the end of the input.
    if (aStop.came()) {
        complain(aStop.name() + ", completing the exchange");
    }
}

} // namespace

std::string flowTable(std::vector<double> const& aFlows) {
    std::string table = "index  flow [l/h]\n";
    std::size_t index = 0;
    for (double const flow : aFlows) {
        table += fmt::format("{:>5}  {:>10g}\n", index, flow);
        ++index;
    }
    return table;
}

int atFlows(AtOptions const& aOptions) {
    Session session(aOptions.session);
    auto const flows = flowsFromXml(temperatureOf(session).getProbeGasFlowList());
    if (session.stop().came()) {
        return session.closeForSignal();
    }
    session.close();
    if (aOptions.form == Form::Json) {
        printJson({{"literPerHour", flows}});
    } else if (aOptions.form == Form::Quiet) {
        for (double const flow : flows) {
            print(fmt::format("{:g}\n", flow));
        }
    } else {
        print(flowTable(flows));
    }
    return kDone;
}

int atExchange(AtOptions const& aOptions, AtExchangeOptions const& aExchange) {
    Session session(aOptions.session);
    TemperatureInterface& temperature = temperatureOf(session);
    double const prepared = secondsOf([&] { temperature.setAirFlowForSampleExchange(true); });
    if (aOptions.form == Form::Text) {
        print(fmt::format("the probe gas is off after {:.1f} s: exchange the sample{}\n", prepared,
                          aExchange.waitSeconds ? "" : ", then press Enter"));
        flushOutput();
    }
    waitForUser(session.stop(), aExchange.waitSeconds);
    temperature.setSampleInMagnetForAirFlow(!aExchange.noSample);
    double const completed = secondsOf([&] { temperature.setAirFlowForSampleExchange(false); });
    session.close();
    if (aOptions.form == Form::Json) {
        printJson({{"sampleInMagnet", !aExchange.noSample},
                   {"preparedSeconds", prepared},
                   {"completedSeconds", completed}});
    } else if (aOptions.form == Form::Text) {
        print(aExchange.noSample
                  ? "the exchange is done; no sample is in the magnet, so the probe gas stays off\n"
                  : fmt::format("the exchange is done; the probe gas is as it was after {:.1f} s\n",
                                completed));
    }
    return kDone;
}

} // namespace libfieldwarden::app
