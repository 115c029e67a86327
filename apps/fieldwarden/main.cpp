// SPDX-License-Identifier: Apache-2.0
// The command line: which subcommand, with which options, and what its end means to the shell.
#include "apps/fieldwarden/ExitCode.h"
#include "apps/fieldwarden/RunCommand.h"
#include "apps/fieldwarden/WrongUsage.h"

#include <velmor/platform/Version.h>

#include <csignal>
#include <cstdio>
#include <exception>
#include <functional>
#include <map>
#include <optional>
#include <string>

#include <fmt/format.h>
#include <CLI/CLI.hpp>

namespace libfieldwarden::app {

namespace {

void complain(std::string const& aText) {
    std::fputs(("fieldwarden: " + aText + "\n").c_str(), stderr);
}

/// A check whose form does not stand in the help text: the option's own words say it better.
CLI::Validator quiet(CLI::Validator aValidator) {
    return aValidator.description("");
}

/// The options of every subcommand that opens the library.
void addSessionOptions(CLI::App& aCommand, SessionOptions& aOptions) {
    aCommand.add_flag("--simulate", aOptions.simulate,
                      "Open on the simulated instrument: needs no root, no D-Bus and no device");
    aCommand
        .add_option("--lock", aOptions.lock,
                    "Which lock: 'real', or 'mock', which takes warnings from control files")
        ->transform(quiet(CLI::CheckedTransformer(
            std::map<std::string, LockKind>{{"mock", LockKind::Mock}, {"real", LockKind::Real}})))
        ->type_name("mock|real");
    aCommand.add_option("--time-scale", aOptions.timeScale, "Simulated seconds in a real second (default 1)")
        ->check(quiet(CLI::PositiveNumber))
        ->type_name("N");
    aCommand
        .add_option(
            "--data", aOptions.dataDirectory,
            "Folder that the simulated instrument keeps its files in, from run to run; without --simulate "
            "the data root of the instrument (default /data)")
        ->type_name("DIR");
}

void checkSessionOptions(CLI::App const& aCommand, SessionOptions& aOptions) {
    if (!aOptions.simulate && aCommand.count("--time-scale") != 0) {
        throw WrongUsage("--time-scale goes with --simulate: a real instrument has its own time");
    }
    if (aOptions.simulate && aCommand.count("--lock") == 0) {
        aOptions.lock = LockKind::Mock; // The simulated instrument has no lock sequencer yet.
    }
}

void addRun(CLI::App& aProgram, std::function<int()>& aChosen) {
    auto* const command =
        aProgram.add_subcommand("run", "Open the library and print what it says until Ctrl-C");
    auto const options = std::make_shared<RunOptions>();
    addSessionOptions(*command, options->session);
    command->add_option("--for", options->seconds, "Close after so many seconds")
        ->check(quiet(CLI::NonNegativeNumber))
        ->type_name("SECONDS");
    command->add_flag("--json", options->json, "One JSON object a line instead of text");
    command->callback([&aChosen, command, options] {
        aChosen = [command, options] {
            checkSessionOptions(*command, options->session);
            return runCommand(*options);
        };
    });
}

/// What to say when the first word is no subcommand: the parser itself would only ask for one.
std::optional<std::string> unknownSubcommand(CLI::App const& aProgram, int aCount, char** aArguments) {
    std::string const first = aCount > 1 ? aArguments[1] : "";
    auto const isFirst = [&](CLI::App const* aCommand) { return aCommand->get_name() == first; };
    if (first.empty() || first.front() == '-' || !aProgram.get_subcommands(isFirst).empty()) {
        return std::nullopt;
    }
    return "there is no subcommand '" + first + "'";
}

int runProgram(int aCount, char** aArguments) {
    CLI::App program(
        "Magnet control of the Q47 spectrometers: opens libfieldwarden on the instrument or on a "
        "simulated one",
        "fieldwarden");
    program.set_version_flag("--version", std::string("fieldwarden ") + velmor::platform::version());
    program.require_subcommand(1);
    program.get_formatter()->column_width(30);
    std::function<int()> chosen;
    addRun(program, chosen);
    try {
        program.parse(aCount, aArguments);
    } catch (CLI::ParseError const& error) {
        if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) {
            return program.exit(error); // --help and --version
        }
        complain(unknownSubcommand(program, aCount, aArguments).value_or(error.what()));
        complain(
            "usage: fieldwarden run [--simulate] [--lock mock|real] [--time-scale N] [--for SECONDS] "
            "[--data DIR] [--json]; 'fieldwarden --help' says more");
        return kWrongUsage;
    }
    return chosen();
}

} // namespace

} // namespace libfieldwarden::app

int main(int aCount, char** aArguments) {
    using namespace libfieldwarden::app;
    // A reader that goes away is noticed by the failed write; the library is still to be closed then.
    std::signal(SIGPIPE, SIG_IGN);
    try {
        return runProgram(aCount, aArguments);
    } catch (WrongUsage const& error) {
        complain(error.what());
        return kWrongUsage;
    } catch (std::exception const& error) {
        complain(error.what());
        return kLibraryError;
    }
}
