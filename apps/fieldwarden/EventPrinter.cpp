// SPDX-License-Identifier: Apache-2.0
// The two forms of an event.
#include "apps/fieldwarden/EventPrinter.h"

#include <chrono>
#include <cstdlib>

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <unistd.h>

namespace libfieldwarden::app {

namespace {

using SystemTime = velmor::platform::Clock::SystemTimePoint;

int milliseconds(SystemTime aTime) {
    auto const sinceEpoch = std::chrono::duration_cast<std::chrono::milliseconds>(aTime.time_since_epoch());
    return static_cast<int>(sinceEpoch.count() % 1000);
}

bool wantsColour(std::FILE* aStream) {
    char const* const noColour = std::getenv("NO_COLOR"); // NOLINT(concurrency-mt-unsafe): before any thread
    return isatty(fileno(aStream)) == 1 && (noColour == nullptr || *noColour == '\0');
}

char const* colourOf(Tone aTone) {
    switch (aTone) {
        case Tone::Good:
            return "\x1b[32m";
        case Tone::Warning:
            return "\x1b[33m";
        case Tone::Alarm:
            return "\x1b[1;31m";
        default:
            return "";
    }
}

} // namespace

EventPrinter::EventPrinter(bool aJson, std::FILE* aStream)
    : mJson(aJson)
    , mStream(aStream)
    , mColour(!aJson && wantsColour(aStream)) {}

bool EventPrinter::print(Event const& aEvent) {
    std::string const line = mJson ? jsonLine(aEvent) : textLine(aEvent);
    ++mCount;
    return std::fwrite(line.data(), 1, line.size(), mStream) == line.size() && std::fflush(mStream) == 0;
}

std::string EventPrinter::textLine(Event const& aEvent) const {
    std::tm const local = fmt::localtime(std::chrono::system_clock::to_time_t(aEvent.time));
    std::string const colour = mColour ? colourOf(aEvent.tone) : "";
    return fmt::format("{:%H:%M:%S}.{:03}  {:<9}{}{}{}\n", local, milliseconds(aEvent.time), aEvent.source,
                       colour, aEvent.text, colour.empty() ? "" : "\x1b[0m");
}

std::string EventPrinter::jsonLine(Event const& aEvent) {
    std::tm const utc = fmt::gmtime(std::chrono::system_clock::to_time_t(aEvent.time));
    nlohmann::ordered_json line{
        {"schema", kSchema},
        {"t", fmt::format("{:%Y-%m-%dT%H:%M:%S}.{:03}Z", utc, milliseconds(aEvent.time))},
        {"source", aEvent.source},
        {"event", aEvent.name}};
    line.update(aEvent.fields);
    // What a control file holds need not be UTF-8.
    return line.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

} // namespace libfieldwarden::app
