// SPDX-License-Identifier: Apache-2.0
// Events on standard output: a readable line each, or a JSON object a line for programs.
#pragma once

#include "apps/fieldwarden/Event.h"

#include <cstddef>
#include <cstdio>

namespace libfieldwarden::app {

/// Writes one line an event and brings it to the reader at once. One thread.
class EventPrinter {
public:
    /// The number of the JSON lines' form; it changes when a program that reads them would have to.
    static constexpr int kSchema = 1;

    /// @param aJson    JSON Lines instead of text.
    /// @param aStream  Where to; coloured when it is a terminal and NO_COLOR is not set.
    explicit EventPrinter(bool aJson, std::FILE* aStream = stdout);

    /// @return Whether somebody still reads: false once a write has failed, as when a pipe's reader has gone.
    bool print(Event const& aEvent);

    /// @return How many events were printed.
    std::size_t count() const noexcept { return mCount; }

private:
    std::string textLine(Event const& aEvent) const;
    static std::string jsonLine(Event const& aEvent);

    bool mJson;
    std::FILE* mStream;
    bool mColour;
    std::size_t mCount = 0;
};

} // namespace libfieldwarden::app
