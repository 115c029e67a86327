// SPDX-License-Identifier: Apache-2.0
// The words for what the lock says.
#include "apps/fieldwarden/LockEvents.h"

#include "apps/fieldwarden/Meaning.h"

#include <fieldwarden/LockInterface.h>

#include <array>
#include <utility>

namespace libfieldwarden::app {

namespace {

/// A number that the listener reports, and what it means.
struct Known {
    int number;
    Meaning meaning;
};

constexpr std::array kStates{Known{0, {"stopped"}}, Known{1, {"locked", Tone::Good}},
                             Known{2, {"running, not locked"}}, Known{6, {"error", Tone::Alarm}}};
constexpr std::array kLost{Known{0, {"not locked since the last reset"}},
                           Known{1, {"lock lost", Tone::Alarm}}, Known{2, {"locked", Tone::Good}}};
constexpr std::array kPidSets{Known{0, {"slow"}}, Known{1, {"fast"}}, Known{2, {"normal"}}};

template <typename Table>
Meaning meaningOf(Table const& aTable, int aNumber) {
    for (Known const& known : aTable) {
        if (known.number == aNumber) {
            return known.meaning;
        }
    }
    return {"unknown"};
}

/// A text of any bytes on one line.
std::string oneLine(std::string aText) {
    while (!aText.empty() && (aText.back() == '\n' || aText.back() == '\r')) {
        aText.pop_back();
    }
    for (char& c : aText) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) {
            c = ' ';
        }
    }
    constexpr std::size_t kLongest = 500;
    if (aText.size() > kLongest) {
        aText = aText.substr(0, kLongest) + "... (" + std::to_string(aText.size()) + " characters)";
    }
    return aText;
}

std::string quotedOrNone(std::string const& aText) {
    return aText.empty() ? "none" : "'" + oneLine(aText) + "'";
}

} // namespace

LockEvents::LockEvents(LockInterface& aLock, EventQueue& aQueue)
    : mLock(aLock)
    , mQueue(aQueue) {
    mLock.setListener(this);
}

LockEvents::~LockEvents() {
    mLock.removeListener();
}

void LockEvents::push(std::string aName, std::string aText, nlohmann::ordered_json aFields, Tone aTone) {
    mQueue.push({{}, "lock", std::move(aName), std::move(aText), std::move(aFields), aTone});
}

void LockEvents::error(std::string const& aText) {
    push("error", "error: " + oneLine(aText), {{"text", aText}}, Tone::Alarm);
}

void LockEvents::warningsChanged() {
    push("warningsChanged", {}, nlohmann::ordered_json::object(), Tone::Plain);
}

void LockEvents::doing(std::string const& aText) {
    push("doing", oneLine(aText), {{"text", aText}}, Tone::Plain);
}

void LockEvents::state(int aState) {
    Meaning const meaning = meaningOf(kStates, aState);
    push("state", "state: " + std::string(meaning.words), {{"state", aState}, {"meaning", meaning.words}},
         meaning.tone);
}

void LockEvents::updateLockPIDSet(int aSet) {
    Meaning const meaning = meaningOf(kPidSets, aSet);
    push("updateLockPIDSet", "PID set: " + std::string(meaning.words),
         {{"set", aSet}, {"meaning", meaning.words}}, meaning.tone);
}

void LockEvents::lost(int aStatus) {
    Meaning const meaning = meaningOf(kLost, aStatus);
    push("lost", std::string(meaning.words), {{"lost", aStatus}, {"meaning", meaning.words}}, meaning.tone);
}

void LockEvents::describe(Event& aEvent) const {
    if (aEvent.name != "warningsChanged") {
        return;
    }
    std::string const warnings = mLock.warnings();
    std::string const criticalWarnings = mLock.criticalWarnings();
    aEvent.text = "warnings: " + quotedOrNone(warnings) + ", critical: " + quotedOrNone(criticalWarnings);
    aEvent.fields = {{"warnings", warnings}, {"criticalWarnings", criticalWarnings}};
    aEvent.tone = !criticalWarnings.empty() ? Tone::Alarm : !warnings.empty() ? Tone::Warning : Tone::Good;
}

bool LockEvents::hasWarnings() const {
    return !mLock.warnings().empty() || !mLock.criticalWarnings().empty();
}

} // namespace libfieldwarden::app
