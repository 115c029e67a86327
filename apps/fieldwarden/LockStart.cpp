// SPDX-License-Identifier: Apache-2.0
// The start of the lock as a subcommand waits for it.
#include "apps/fieldwarden/LockStart.h"

#include "apps/fieldwarden/WrongUsage.h"

#include <fieldwarden/FieldwardenInterface.h>
#include <fieldwarden/LockDiagnosticsInterface.h>
#include <fieldwarden/LockInterface.h>
#include <fieldwarden/LockInterfaceListener.h>

#include <charconv>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string_view>
#include <utility>

namespace libfieldwarden::app {

namespace {

constexpr double kLowestMegahertz = 1.0;
constexpr double kHighestMegahertz = 1000.0;
/// Real time; the longest start, with its search, takes some minutes on an instrument.
constexpr std::chrono::minutes kLongestStart{20};
constexpr std::chrono::milliseconds kLook{50};
constexpr int kLocked = 1; ///< Of LockInterfaceListener::state().

/// Hears how the start goes; the main thread takes the news.
class StartListener : public LockInterfaceListener {
public:
    void error(std::string const& aText) override {
        std::lock_guard const lock(mMutex);
        mError = aText;
        mNews.notify_all();
    }
    void warningsChanged() override {}
    void doing(std::string const& aText) override {
        std::lock_guard const lock(mMutex);
        // state() is 2 from the first step of a start on: only the words tell that the last one is behind.
        mRegulating = mRegulating || aText.starts_with("lock is regulating");
        mNews.notify_all();
    }
    void state(int aStatus) override {
        std::lock_guard const lock(mMutex);
        mRegulating = mRegulating || aStatus == kLocked;
        mNews.notify_all();
    }
    void updateLockPIDSet(int /*aPIDSet*/) override {}
    void lost(int /*aStatus*/) override {}

    void progress(LockStepProgress const& aProgress) {
        std::lock_guard const lock(mMutex);
        mProgress = aProgress;
    }

    /// Waits a moment for news and shows the progress.
    /// @return How the start ended; none while it goes on.
    std::optional<StartEnd> look(ProgressBar& aBar, std::string& aWords) {
        std::unique_lock lock(mMutex);
        mNews.wait_for(lock, kLook, [this] { return mRegulating || mError; });
        if (mError) {
            aWords = *mError;
            return StartEnd::Failed;
        }
        if (mRegulating) {
            return StartEnd::Regulating;
        }
        if (mProgress) {
            aBar.show(mProgress->step, mProgress->done, mProgress->total);
        }
        return std::nullopt;
    }

private:
    std::mutex mMutex;
    std::condition_variable mNews;
    std::optional<LockStepProgress> mProgress;
    std::optional<std::string> mError;
    bool mRegulating = false;
};

} // namespace

double frequencyFromText(std::string const& aText) {
    double number = 0.0;
    auto const [end, problem] = std::from_chars(aText.data(), aText.data() + aText.size(), number);
    std::string_view const unit(end, static_cast<std::size_t>(aText.data() + aText.size() - end));
    double const megahertz = unit == "Hz" ? number / kHertzPerMegahertz : number;
    bool const known = unit.empty() || unit == "MHz" || unit == "Hz";
    if (problem != std::errc() || !known ||
        !(megahertz >= kLowestMegahertz && megahertz <= kHighestMegahertz)) {
        throw WrongUsage("'" + aText +
                         "' is no 1H frequency of a magnet: 80.123, 80.123MHz or 80123000Hz would be");
    }
    return megahertz * kHertzPerMegahertz;
}

std::optional<double> frequencyFor(SessionOptions const& aOptions, std::optional<std::string> const& aText) {
    if (aText) {
        return frequencyFromText(*aText);
    }
    return aOptions.simulate ? std::optional(kSimulatedMagnetHz) : std::nullopt;
}

LockDiagnosticsInterface& diagnosticsOf(Session& aSession) {
    auto* const diagnostics = dynamic_cast<LockDiagnosticsInterface*>(aSession.library().getLock());
    if (diagnostics == nullptr) {
        throw WrongUsage("the mock lock has no hardware to look at: --lock real");
    }
    return *diagnostics;
}

StartEnd startLock(Session& aSession, double aFrequencyHz, std::string& aWords) {
    LockInterface& lock = *aSession.library().getLock();
    LockDiagnosticsInterface& diagnostics = diagnosticsOf(aSession);
    StartListener listener;
    ProgressBar bar;
    lock.setListener(&listener);
    diagnostics.setProgressListener([&](LockStepProgress const& aProgress) { listener.progress(aProgress); });
    lock.setBasic1HFrequency(aFrequencyHz);
    auto const deadline = std::chrono::steady_clock::now() + kLongestStart;
    std::optional<StartEnd> end;
    while (!end) {
        end = listener.look(bar, aWords);
        if (!end && aSession.stop().came()) {
            end = StartEnd::Interrupted;
        } else if (!end && std::chrono::steady_clock::now() > deadline) {
            end = StartEnd::TimedOut;
        }
    }
    lock.removeListener();
    if (end != StartEnd::Regulating) {
        aSession.close(); // ends the start, and with it all calls of the listener above
    } else {
        diagnostics.setProgressListener({});
    }
    return *end;
}

} // namespace libfieldwarden::app
