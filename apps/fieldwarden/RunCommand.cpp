// SPDX-License-Identifier: Apache-2.0
// The main job: open, listen, print, close.
#include "apps/fieldwarden/RunCommand.h"

#include "apps/fieldwarden/EventPrinter.h"
#include "apps/fieldwarden/ExitCode.h"
#include "apps/fieldwarden/LockEvents.h"
#include "apps/fieldwarden/LockStart.h"
#include "apps/fieldwarden/Output.h"
#include "apps/fieldwarden/ProgressBar.h"
#include "apps/fieldwarden/ShimEvents.h"
#include "apps/fieldwarden/StopSignal.h"

#include <fieldwarden/BoundedValue.h>
#include <fieldwarden/FieldwardenInterface.h>
#include <fieldwarden/LockDiagnosticsInterface.h>
#include <fieldwarden/LockInterface.h>
#include <fieldwarden/ShimInterface.h>
#include <velmor/kepla/datalogger/DataLoggerReader.h>
#include <velmor/platform/Clock.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <exception>
#include <filesystem>
#include <sstream>
#include <string>

#include <fmt/format.h>
#include <poll.h>

namespace libfieldwarden::app {

namespace {

using RealTime = std::chrono::steady_clock;

constexpr char const* kProgress = "progress";
constexpr double kH0FullScale = 8388607.0;
constexpr double kH0StepPercent = 1.0;
constexpr int kLookMilliseconds = 1000;

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
        auto const frequency = frequencyFor(mOptions.session, mOptions.frequency);
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
                startLocking(*lock, frequency);
            }
            mH0File = session.dataLoggerFile();
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

    /// Tells the lock the magnet's frequency, on which it waits, and listens to how far its start is.
    void startLocking(LockInterface& aLock, std::optional<double> aFrequencyHz) {
        if (auto* const diagnostics = dynamic_cast<LockDiagnosticsInterface*>(&aLock)) {
            diagnostics->setProgressListener([this](LockStepProgress const& aProgress) {
                mQueue.push({{},
                             "lock",
                             kProgress,
                             aProgress.step,
                             {{"step", aProgress.step}, {"done", aProgress.done}, {"total", aProgress.total}},
                             Tone::Plain});
            });
        }
        if (aFrequencyHz) {
            aLock.setBasic1HFrequency(*aFrequencyHz);
        } else if (aLock.getBasic1HFrequency() == 0.0) {
            complain("the lock waits for the magnet's frequency: --frequency MHZ");
        }
    }

    /// A step of a start: its bar on a terminal, otherwise a line when it begins.
    void showProgress(Event const& aEvent) {
        std::string const step = aEvent.fields["step"];
        if (mBar.redraws() && !mOptions.json) {
            mBar.show(step, aEvent.fields["done"], aEvent.fields["total"]);
        } else if (step != mStep) {
            mReaderThere = mReaderThere && mPrinter.print(aEvent);
        }
        mStep = step;
    }

    /// Tells the H0 output when it has moved by a percent of its range since it was told last. The data
    /// logger has it, a value a second.
    void tellH0() {
        try {
            velmor::kepla::datalogger::DataLoggerReader const reader(mH0File);
            auto const newest = reader.channel("lock/pid/data_out").last;
            if (!newest || newest->time < mBegin) {
                return;
            }
            double const percent = newest->value / kH0FullScale * 100.0;
            if (mH0Percent && std::abs(percent - *mH0Percent) < kH0StepPercent) {
                return;
            }
            mH0Percent = percent;
            mQueue.push({{},
                         "lock",
                         "h0Output",
                         fmt::format("H0 output at {:.1f} % of its range", percent),
                         {{"percent", percent}},
                         Tone::Plain});
        } catch (std::exception const&) {
            // No lock has run yet with this file: there is nothing to tell.
        }
    }

    void listen(StopSignal const& aStop) {
        while (mReaderThere && aStop.name().empty() && (!mEnd || RealTime::now() < *mEnd)) {
            std::array<pollfd, 2> watched{
                {{aStop.descriptor(), POLLIN, 0}, {mQueue.descriptor(), POLLIN, 0}}};
            int const wait = waitMilliseconds(mEnd);
            poll(watched.data(), watched.size(),
                 wait < 0 ? kLookMilliseconds : std::min(wait, kLookMilliseconds));
            if (RealTime::now() >= mNextLook) {
                mNextLook = RealTime::now() + std::chrono::milliseconds(kLookMilliseconds);
                tellH0();
            }
            printAll();
        }
    }

    void printAll() {
        for (Event& event : mQueue.take()) {
            if (event.name == kProgress) {
                showProgress(event);
                continue;
            }
            if (mLockEvents != nullptr && event.source == "lock") {
                mLockEvents->describe(event);
            }
            mBar.clear();
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
    ProgressBar mBar;
    std::string mStep; ///< The step of a start that was shown last.
    velmor::platform::Clock::SystemTimePoint const mBegin = velmor::platform::Clock::current().systemNow();
    std::filesystem::path mH0File;
    std::optional<double> mH0Percent; ///< As it was told last.
    RealTime::time_point mNextLook;
    bool mReaderThere = true;
};

} // namespace

int runCommand(RunOptions const& aOptions) {
    return Run(aOptions)();
}

} // namespace libfieldwarden::app
