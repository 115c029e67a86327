// SPDX-License-Identifier: Apache-2.0
// The main job: open, listen, print, close.
#include "apps/fieldwarden/RunCommand.h"

#include "apps/fieldwarden/EventPrinter.h"
#include "apps/fieldwarden/ExitCode.h"
#include "apps/fieldwarden/LockEvents.h"
#include "apps/fieldwarden/LockStart.h"
#include "apps/fieldwarden/Output.h"
#include "apps/fieldwarden/PhaseClock.h"
#include "apps/fieldwarden/ProbeRun.h"
#include "apps/fieldwarden/ProgressBar.h"
#include "apps/fieldwarden/ShimEvents.h"
#include "apps/fieldwarden/StopSignal.h"
#include "apps/fieldwarden/TemperatureEvents.h"
#include "apps/fieldwarden/TemperatureText.h"
#include "apps/fieldwarden/TemperatureWatch.h"

#include <fieldwarden/BoundedValue.h>
#include <fieldwarden/FieldwardenInterface.h>
#include <fieldwarden/LockDiagnosticsInterface.h>
#include <fieldwarden/LockForTemperatureIfc.h>
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
#include <stdexcept>
#include <string>
#include <utility>

#include <fmt/format.h>
#include <poll.h>
#include <unistd.h>

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
        auto const target = mOptions.at ? std::optional(temperatureFromText(*mOptions.at)) : std::nullopt;
        Session session(mOptions.session);
        StopSignal const& stop = session.stop();
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
            mPhases.begin("lock start");
            if (auto* const temperature = session.library().getTemperature()) {
                startTempering(session, *temperature, target);
            }
            listen(stop);
            bringProbeDown(stop);
            mLockEvents = nullptr;
            mWatch.reset();
        }
        closeInOrder(session, stop, begin);
        return exitCode(stop);
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

    /// Watches the temperatures, and hands the probe over to its regulation where a target was given.
    void startTempering(Session& aSession,
                        TemperatureInterface& aTemperature,
                        std::optional<double> aTarget) {
        mWatch.emplace(aTemperature, mQueue);
        mTemperatureEvents.emplace(aTemperature, mQueue);
        if (aTarget) {
            mProbe.emplace(aTemperature, dynamic_cast<LockForTemperatureIfc*>(aSession.library().getLock()),
                           *aTarget, mQueue, mPhases);
        }
    }

    /// What is done once a second beside the events.
    void look() {
        if (RealTime::now() < mNextLook) {
            return;
        }
        mNextLook = RealTime::now() + std::chrono::milliseconds(kLookMilliseconds);
        tellH0();
        if (mWatch) {
            mWatch->look();
        }
        if (mProbe) {
            auto const& now = mWatch->temperatures();
            mProbe->look(now ? now->probeKelvin : std::nullopt);
        }
        mDrawn = false;
    }

    /// On a terminal, the line below the events: the start of the lock, the probe, and the temperatures.
    void drawLine() {
        if (!mBar.redraws() || mOptions.json || mDrawn || !mWatch) {
            return;
        }
        auto const& now = mWatch->temperatures();
        std::string line = mLockLine;
        if (mProbe && mLockLine.empty()) {
            line = mProbe->words(now ? now->flowLiterPerHour : 0.0);
        }
        line += (line.empty() ? "" : " | ") + mWatch->words(!mProbe);
        mBar.showLine(line);
        mDrawn = true;
    }

    /// What the terminal's line shows already. Events that go to a file are kept there all the same.
    bool isOnTheLine(Event const& aEvent) const {
        return mBesideEvents &&
               (aEvent.name == TemperatureWatch::kTemperatures || aEvent.name == ProbeRun::kRamp);
    }

    /// A step of a start: its bar on a terminal, and where events do not go there, too, a line when it
    /// begins.
    void showProgress(Event const& aEvent) {
        std::string const step = aEvent.fields["step"];
        if (mBar.redraws() && !mOptions.json) {
            unsigned const done = aEvent.fields["done"];
            unsigned const total = aEvent.fields["total"];
            mLockLine = fmt::format("{} {} {}/{}", barText(done, total), step, done, total);
            mDrawn = false;
        }
        if (step != mStep && !mBesideEvents) {
            mReaderThere = mReaderThere && mPrinter.print(aEvent);
        }
        mStep = step;
    }

    /// Tells the H0 output when it has moved by a percent of its range since it was told last. The data
    /// logger has it, a value a second.
    void tellH0() {
        if (!std::filesystem::exists(mH0File)) {
            return;
        }
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
        } catch (std::invalid_argument const&) {
            // No lock has run yet with this file: there is nothing to tell.
        } catch (std::exception const& error) {
            if (!std::exchange(mH0Unreadable, true)) {
                mBar.clear();
                mDrawn = false;
                complain(std::string("the H0 output cannot be shown: ") + error.what());
            }
        }
    }

    void listen(StopSignal const& aStop) {
        while (mReaderThere && !aStop.came() && (!mEnd || RealTime::now() < *mEnd) && !isDone()) {
            waitFor(aStop.descriptor(), waitMilliseconds(mEnd));
        }
    }

    /// Whether there is nothing left to wait for.
    bool isDone() const {
        return mOptions.untilStable && mProbe && (mProbe->wasStable() || mProbe->over() || mLockFailed);
    }

    /// Waits for news, for a second at most, and shows what there is.
    /// @param aStop  A descriptor that ends the wait, too; -1 for none.
    void waitFor(int aStop, int aMilliseconds) {
        std::array<pollfd, 2> watched{{{aStop, POLLIN, 0}, {mQueue.descriptor(), POLLIN, 0}}};
        poll(watched.data(), watched.size(),
             aMilliseconds < 0 ? kLookMilliseconds : std::min(aMilliseconds, kLookMilliseconds));
        look();
        printAll();
        drawLine();
    }

    /// Waits until the probe is off, with a bound; a second Ctrl-C ends the process.
    void bringProbeDown(StopSignal const& aStop) {
        if (!mProbe) {
            return;
        }
        mReachedStable = mProbe->wasStable();
        mProbe->switchOff();
        if (!mProbe->over()) {
            mBar.clear();
            complain((aStop.came() ? aStop.name() + ", " : "") +
                     std::string("bringing the probe down before closing"));
        }
        while (!mProbe->over() && !mProbe->overdue()) {
            waitFor(-1, kLookMilliseconds);
        }
        mBar.clear();
        if (mProbe->overdue()) {
            complain("the probe takes too long to come down; closing cuts its heating and gas");
        }
    }

    int exitCode(StopSignal const& aStop) const {
        if (!mProbe) {
            return kDone;
        }
        if (mProbe->stage() == ProbeRun::Stage::Failed) {
            return kLost;
        }
        if (mOptions.untilStable && mLockFailed) {
            return mProbe->wasOn() ? kLost : kLibraryError;
        }
        if (mProbe->overdue()) {
            return kTimedOut;
        }
        if (mOptions.untilStable && !mReachedStable) {
            return aStop.came() ? kLost : kTimedOut;
        }
        return kDone;
    }

    void printAll() {
        for (Event& event : mQueue.take()) {
            if (event.name == kProgress) {
                showProgress(event);
                continue;
            }
            if (event.source == "lock") {
                hearLock(event);
            }
            if (mProbe) {
                mProbe->hear(event);
            }
            if (!isOnTheLine(event)) {
                mBar.clear();
                mDrawn = false;
                mReaderThere = mReaderThere && mPrinter.print(event);
            }
        }
    }

    void hearLock(Event& aEvent) {
        if (mLockEvents != nullptr) {
            mLockEvents->describe(aEvent);
        }
        mLockFailed = mLockFailed || aEvent.name == "error";
        if (aEvent.name == "state" || aEvent.name == "error") {
            mLockLine.clear(); // The start has come to its end.
        }
    }

    void closeInOrder(Session& aSession, StopSignal const& aStop, RealTime::time_point aBegin) {
        if (aStop.came()) {
            complain(aStop.name() + ", closing");
        }
        mPhases.begin("close");
        aSession.close();
        mPhases.end();
        double const seconds = std::chrono::duration<double>(RealTime::now() - aBegin).count();
        Event closed{{}, "library", "closed", "closed", {{"seconds", seconds}}, Tone::Plain};
        if (mProbe) {
            closed.fields["phases"] = phasesAsJson();
        }
        mQueue.push(std::move(closed));
        printAll();
        if (mProbe && !mOptions.json && mReaderThere) {
            print("\n" + phaseTable(mPhases.phases()));
        }
        complain(fmt::format("closed after {:.1f} s, {} events", seconds, mPrinter.count()));
    }

    nlohmann::ordered_json phasesAsJson() const {
        auto phases = nlohmann::ordered_json::array();
        for (Phase const& phase : mPhases.phases()) {
            phases.push_back({{"phase", phase.name},
                              {"realSeconds", phase.realSeconds},
                              {"instrumentSeconds", phase.instrumentSeconds}});
        }
        return phases;
    }

    RunOptions const& mOptions;
    EventPrinter mPrinter;
    EventQueue mQueue;
    LockEvents* mLockEvents = nullptr;
    std::optional<RealTime::time_point> mEnd;
    ProgressBar mBar;
    /// Whether the terminal's line stands on the same terminal as the events.
    bool const mBesideEvents = mBar.redraws() && !mOptions.json && ::isatty(STDOUT_FILENO) == 1;
    std::string mStep; ///< The step of a start that was shown last.
    velmor::platform::Clock::SystemTimePoint const mBegin = velmor::platform::Clock::current().systemNow();
    std::filesystem::path mH0File;
    std::optional<double> mH0Percent; ///< As it was told last.
    RealTime::time_point mNextLook;
    bool mReaderThere = true;
    bool mH0Unreadable = false; ///< Whether it was told that the file cannot be read.
    PhaseClock mPhases{"opening"};
    std::optional<TemperatureWatch> mWatch;
    std::optional<TemperatureEvents> mTemperatureEvents; ///< Hears of the last steps, which closing awaits.
    std::optional<ProbeRun> mProbe;                      ///< Only with a target for the probe.
    bool mReachedStable = false;                         ///< Before the way down.
    bool mLockFailed = false;
    std::string mLockLine; ///< How far the start of the lock is; empty before and after.
    bool mDrawn = false;   ///< Whether the terminal's line shows all this.
};

} // namespace

int runCommand(RunOptions const& aOptions) {
    return Run(aOptions)();
}

} // namespace libfieldwarden::app
