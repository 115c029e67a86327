// SPDX-License-Identifier: Apache-2.0
// The main job: open, listen, print, close.
#include "apps/fieldwarden/RunCommand.h"

#include "apps/fieldwarden/EventPrinter.h"
#include "apps/fieldwarden/ExitCode.h"
#include "apps/fieldwarden/LockEvents.h"
#include "apps/fieldwarden/Output.h"
#include "apps/fieldwarden/ShimEvents.h"
#include "apps/fieldwarden/StopSignal.h"

#include <fieldwarden/BoundedValue.h>
#include <fieldwarden/FieldwardenInterface.h>
#include <fieldwarden/ShimInterface.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <sstream>
#include <string>

#include <fmt/format.h>
#include <poll.h>

namespace libfieldwarden::app {

namespace {

using RealTime = std::chrono::steady_clock;

/// How long poll(2) may wait for something before the run is over; -1 for ever.
int waitMilliseconds(std::optional<RealTime::time_point> aEnd) {
    if (!aEnd) {
        return -1;
    }
    auto const left = std::chrono::ceil<std::chrono::milliseconds>(*aEnd - RealTime::now()).count();
    return static_cast<int>(std::clamp<long long>(left, 0, 3'600'000));
}

/// One run, from the first event to the last.
class Run {
public:
    explicit Run(RunOptions const& aOptions)
        : mOptions(aOptions)
        , mPrinter(aOptions.json) {}

    int operator()() {
        auto const begin = RealTime::now();
        if (mOptions.seconds) {
            mEnd = begin + std::chrono::duration_cast<RealTime::duration>(
                               std::chrono::duration<double>(*mOptions.seconds));
        }
        StopSignal const stop;
        Session session(mOptions.session);
        announceOpening(session);
        {
            std::optional<ShimEvents> shimEvents;
            if (session.library().getShim() != nullptr) {
                startShimming(session, shimEvents);
            }
            std::optional<LockEvents> lockEvents;
            if (auto* const lock = session.library().getLock()) {
                mLockEvents = &lockEvents.emplace(*lock, mQueue);
                if (lockEvents->hasWarnings()) {
                    lockEvents->warningsChanged(); // They were there before anybody listened.
                }
            }
            listen(stop);
            mLockEvents = nullptr;
        }
        closeInOrder(session, stop, begin);
        return kDone;
    }

private:
    void announceOpening(Session& aSession) {
        bool const mock = mOptions.session.lock == LockKind::Mock;
        std::string const lock = mock ? "mock" : aSession.library().getLock() != nullptr ? "real" : "none";
        std::string text =
            mOptions.session.simulate ? "open on the simulated instrument" : "open on the instrument";
        text += ", lock: " + lock;
        if (mock) {
            text += " (control files 'warnings' and 'critical_warnings' in " +
                    MockDirectory::path().string() + ")";
        } else if (lock == "none") {
            text += " (this version has the mock lock only: --lock mock)";
        }
        mQueue.push({{},
                     "library",
                     "opened",
                     text,
                     {{"simulated", mOptions.session.simulate}, {"lock", lock}},
                     Tone::Good});
        printAll();
    }

    /// Sets the shim system, as the daemon does after opening, and shows what the boards hold.
    void startShimming(Session& aSession, std::optional<ShimEvents>& aEvents) {
        ShimInterface& shim = aSession.shim();
        aEvents.emplace(shim, mQueue);
        std::istringstream names(shim.getNamesOfActiveShimGradients());
        for (std::string name; names >> name;) {
            if (int const value = shim.getSingleShim(name).value; value != 0) {
                aEvents->shimGradientChanged(name, value);
            }
        }
        for (unsigned int index = 0; index < shim.getShimCurrentsCount(); ++index) {
            if (double const ampere = shim.getShimCurrent(index).value; ampere != 0.0) {
                aEvents->shimCurrentChanged(index, ampere);
            }
        }
        mQueue.push({{},
                     "shim",
                     "shimSystem",
                     fmt::format("system {}, matrix file {}", shim.getShimId(), shim.getTOSKFileName()),
                     {{"system", shim.getShimId()}, {"file", shim.getTOSKFileName()}},
                     Tone::Good});
    }

    void listen(StopSignal const& aStop) {
        while (mReaderThere && aStop.name().empty() && (!mEnd || RealTime::now() < *mEnd)) {
            std::array<pollfd, 2> watched{
                {{aStop.descriptor(), POLLIN, 0}, {mQueue.descriptor(), POLLIN, 0}}};
            poll(watched.data(), watched.size(), waitMilliseconds(mEnd));
            printAll();
        }
    }

    void printAll() {
        for (Event& event : mQueue.take()) {
            if (mLockEvents != nullptr && event.source == "lock") {
                mLockEvents->describe(event);
            }
            mReaderThere = mReaderThere && mPrinter.print(event);
        }
    }

    void closeInOrder(Session& aSession, StopSignal const& aStop, RealTime::time_point aBegin) {
        if (!aStop.name().empty()) {
            complain(aStop.name() + ", closing");
        }
        aSession.close();
        double const seconds = std::chrono::duration<double>(RealTime::now() - aBegin).count();
        mQueue.push({{}, "library", "closed", "closed", {{"seconds", seconds}}, Tone::Plain});
        printAll();
        complain(fmt::format("closed after {:.1f} s, {} events", seconds, mPrinter.count()));
    }

    RunOptions const& mOptions;
    EventPrinter mPrinter;
    EventQueue mQueue;
    LockEvents* mLockEvents = nullptr;
    std::optional<RealTime::time_point> mEnd;
    bool mReaderThere = true;
};

} // namespace

int runCommand(RunOptions const& aOptions) {
    return Run(aOptions)();
}

} // namespace libfieldwarden::app
