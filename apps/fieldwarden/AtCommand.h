// SPDX-License-Identifier: Apache-2.0
// `fieldwarden at …`: the gas of the adjustable temperature from the command line.
#pragma once

#include "apps/fieldwarden/Output.h"
#include "apps/fieldwarden/Session.h"

#include <optional>
#include <string>
#include <vector>

namespace libfieldwarden::app {

/// What every `at` subcommand may be told.
struct AtOptions {
    SessionOptions session;
    Form form = Form::Text;
};

/// What `at exchange` may be told besides.
struct AtExchangeOptions {
    std::optional<double> waitSeconds; ///< Real time for the exchange; without, until Enter.
    bool noSample = false;             ///< No sample is in the magnet afterwards: the gas stays off.
};

/// Each opens the library, does its work, closes it again, and returns the exit code.
/// @throws WrongUsage, std::exception  as Session, and what the temperature service throws.
int atFlows(AtOptions const& aOptions);
/// Takes the gas down, waits for the exchange, and brings the gas back. Ctrl-C ends the wait, too.
int atExchange(AtOptions const& aOptions, AtExchangeOptions const& aExchange);

/// @param aFlows  In l/h, in the order of their indexes.
/// @return A line a flow, with headings.
std::string flowTable(std::vector<double> const& aFlows);

} // namespace libfieldwarden::app
