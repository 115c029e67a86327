// SPDX-License-Identifier: Apache-2.0
// `fieldwarden log …`: what the data logger has kept, also while the library writes.
#pragma once

#include "apps/fieldwarden/Output.h"

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace libfieldwarden::app {

/// Where the data logger's file is.
struct LogOptions {
    bool simulate = false;                     ///< The folder is that of a simulated instrument.
    std::optional<std::filesystem::path> data; ///< That folder, or the instrument's data root.
    Form form = Form::Text;
};

/// What of a channel is shown.
struct LogShowOptions {
    std::string channel;
    std::optional<std::string> since; ///< As parseSince() takes it.
    bool csv = false;
};

/// What is drawn of channels.
struct LogPlotOptions {
    std::vector<std::string> channels;
    std::optional<std::string> since; ///< As parseSince() takes it.
    std::filesystem::path picture;    ///< Ends in .png or .svg.
};

/// @param aText  "10min", "2h" or "1d" back from now, or "2026-11-21", "2026-11-21T14:00",
/// "2026-11-21T14:00:05.250Z"
///               (always UTC).
/// @param aNow   What "now" is.
/// @throws WrongUsage  when it is none of these.
std::chrono::system_clock::time_point parseSince(std::string const& aText,
                                                 std::chrono::system_clock::time_point aNow);

/// Lists the channels.
/// @param aAll  Those, too, that are meant for service only.
/// @throws WrongUsage, std::runtime_error  when there is no file to read.
int logList(LogOptions const& aOptions, bool aAll);

/// Shows the samples of a channel, oldest first.
/// @throws WrongUsage             for a time that cannot be read or a channel that is not there.
/// @throws std::runtime_error     when there is no file to read.
int logShow(LogOptions const& aOptions, LogShowOptions const& aShow);

/// Draws channels over time, those of one unit in one panel.
/// @throws WrongUsage             for a time that cannot be read, a channel that is not there, channels that
///                                all have no samples, or a picture with another ending.
/// @throws std::runtime_error     when there is no file to read, or no picture can be drawn or written.
int logPlot(LogOptions const& aOptions, LogPlotOptions const& aPlot);

} // namespace libfieldwarden::app
