// SPDX-License-Identifier: Apache-2.0
// `fieldwarden log …`: what the data logger has kept, also while the library writes.
#pragma once

#include "apps/fieldwarden/Output.h"

#include <filesystem>
#include <optional>
#include <string>

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
    std::optional<std::string>
        since; ///< "10min", "2h", "1d" back from now, or "2026-11-21T14:00[:00]" (UTC).
    bool csv = false;
};

/// Lists the channels.
/// @throws WrongUsage, std::runtime_error  when there is no file to read.
int logList(LogOptions const& aOptions);

/// Shows the samples of a channel, oldest first.
/// @throws WrongUsage             for a time that cannot be read or a channel that is not there.
/// @throws std::runtime_error     when there is no file to read.
int logShow(LogOptions const& aOptions, LogShowOptions const& aShow);

} // namespace libfieldwarden::app
