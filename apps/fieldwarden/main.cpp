// SPDX-License-Identifier: Apache-2.0
// The command line: which subcommand, with which options, and what its end means to the shell.
#include "apps/fieldwarden/AtCommand.h"
#include "apps/fieldwarden/BoardDumpCommand.h"
#include "apps/fieldwarden/ExitCode.h"
#include "apps/fieldwarden/HelpText.h"
#include "apps/fieldwarden/LockCommand.h"
#include "apps/fieldwarden/LockStart.h"
#include "apps/fieldwarden/LogCommand.h"
#include "apps/fieldwarden/Output.h"
#include "apps/fieldwarden/PlotCommand.h"
#include "apps/fieldwarden/RunCommand.h"
#include "apps/fieldwarden/ShimCommand.h"
#include "apps/fieldwarden/TemperatureCommand.h"
#include "apps/fieldwarden/WrongUsage.h"

#include <velmor/platform/ScaledClock.h>
#include <velmor/platform/Version.h>

#include <charconv>
#include <csignal>
#include <exception>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <CLI/CLI.hpp>

namespace libfieldwarden::app {

namespace {

/// The subcommands of the program, the one that was chosen, and how each is used.
class CommandLine {
public:
    CommandLine()
        : mProgram("Magnet control of the Q47 spectrometers, on the instrument or a simulated one",
                   "fieldwarden") {
        mProgram.set_version_flag("--version", std::string("fieldwarden ") + velmor::platform::version());
        mProgram.require_subcommand(1);
        mProgram.formatter(std::make_shared<HelpText>(mUsage)); // Subcommands inherit it.
        mUsage[&mProgram] = "SUBCOMMAND …";
        addRun();
        addLockCommands();
        addTemperature();
        addShim();
        addAt();
        addLog();
        addPlot();
    }

    int run(int aCount, char** aArguments) {
        try {
            mProgram.parse(aCount, aArguments);
        } catch (CLI::ParseError const& error) {
            if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) {
                return mProgram.exit(error); // --help and --version
            }
            complain(unknownSubcommand(aCount, aArguments).value_or(error.what()));
            complain(usage());
            return kWrongUsage;
        }
        int const end = mChosen();
        flushOutput();
        return end;
    }

private:
    using Work = std::function<int()>;

    static constexpr char const* kThrowAway =
        "With --simulate and without --data, the command works on a fresh instrument of its own, which is "
        "gone when "
        "it ends: what is set is then shown but not kept.";

    /// A check whose form does not stand in the help text: the option's own words say it better.
    static CLI::Validator quiet(CLI::Validator aValidator) { return aValidator.description(""); }

    /// Words that stand for the values of an enumeration.
    template <typename Value>
    static CLI::Validator oneOf(std::map<std::string, Value> aValues) {
        return {[values = std::move(aValues)](std::string& aWord) {
                    if (auto const found = values.find(aWord); found != values.end()) {
                        aWord = std::to_string(static_cast<int>(found->second)); // What the parser reads.
                        return std::string();
                    }
                    std::string known;
                    for (auto const& each : values) {
                        known += (known.empty() ? "" : ", ") + each.first;
                    }
                    return "'" + aWord + "' is none of " + known;
                },
                ""};
    }

    /// A finite number; the parser would take nan and inf, too.
    /// @param aRange  The range in words.
    static CLI::Validator number(double aLeast, double aGreatest, std::string aRange) {
        return {[=, range = std::move(aRange)](std::string& aText) {
                    double value = 0.0;
                    auto const* const textEnd = aText.data() + aText.size();
                    auto const [end, problem] = std::from_chars(aText.data(), textEnd, value);
                    bool const good =
                        problem == std::errc() && end == textEnd && value >= aLeast && value <= aGreatest;
                    return good ? std::string() : "'" + aText + "' is no number " + range;
                },
                ""};
    }

    /// Real seconds of a wait, which has to fit the clocks.
    static CLI::Validator seconds() { return number(0.0, 1.0e9, "from 0 to 1000000000"); }

    /// Adds a subcommand without its options.
    CLI::App& add(CLI::App& aParent, char const* aName, char const* aMeaning, std::string const& aUsage) {
        CLI::App& command = *aParent.add_subcommand(aName, aMeaning);
        mUsage[&command] = aUsage;
        return command;
    }

    /// What the program does when a subcommand was chosen.
    void does(CLI::App& aCommand, Work aWork) {
        aCommand.callback([this, work = std::move(aWork)] { mChosen = work; });
    }

    /// The options of every subcommand that opens the library.
    static void addSessionOptions(CLI::App& aCommand, SessionOptions& aOptions) {
        aCommand.add_flag("--simulate", aOptions.simulate,
                          "On the simulated instrument: needs no root, no D-Bus and no device");
        aCommand
            .add_option("--lock", aOptions.lock,
                        "Which lock: 'real', or 'mock', which takes warnings from control files")
            ->transform(
                oneOf(std::map<std::string, LockKind>{{"mock", LockKind::Mock}, {"real", LockKind::Real}}))
            ->type_name("mock|real");
        aCommand
            .add_option("--time-scale", aOptions.timeScale,
                        "Simulated seconds in a real second, at most 10000 (default 1)")
            ->check(number(std::numeric_limits<double>::min(), velmor::platform::ScaledClock::kLargestScale,
                           "above 0 and at most 10000"))
            ->type_name("N");
        aCommand
            .add_option("--data", aOptions.dataDirectory,
                        "Folder in which the simulated instrument keeps its files and its boards' state from "
                        "run to run; without --simulate the data root (default /data)")
            ->type_name("DIR");
        aCommand
            .add_option("--system", aOptions.shimSystem,
                        "The shim system, 8 to 11 (default: the one chosen last with 'shim system')")
            ->check(quiet(CLI::Range(8, 11)))
            ->type_name("N");
    }

    static void checkSessionOptions(CLI::App const& aCommand, SessionOptions& aOptions) {
        if (aOptions.dataDirectory && aOptions.dataDirectory->empty()) {
            throw WrongUsage("--data needs the name of a folder");
        }
        if (!aOptions.simulate && aCommand.count("--time-scale") != 0) {
            throw WrongUsage("--time-scale goes with --simulate: a real instrument has its own time");
        }
    }

    static void addFormOptions(CLI::App& aCommand, Form& aForm) {
        auto* const json = aCommand.add_flag_callback(
            "--json", [&aForm] { aForm = Form::Json; }, "As JSON, for programs");
        aCommand
            .add_flag_callback(
                "-q,--quiet", [&aForm] { aForm = Form::Quiet; }, "The bare values, one a line")
            ->excludes(json);
    }

    enum class DumpKind { Fid, Fft, Canopen };

    static int dumpOf(DumpKind aKind, LockOptions const& aOptions, std::filesystem::path const& aPath) {
        switch (aKind) {
            case DumpKind::Fid:
                return lockDump(aOptions, LockDumpKind::Fid, aPath);
            case DumpKind::Fft:
                return lockDump(aOptions, LockDumpKind::Fft, aPath);
            case DumpKind::Canopen:
                break;
        }
        if (aOptions.frequency) {
            throw WrongUsage("--frequency starts the lock, which 'dump canopen' does not need");
        }
        return boardDump(aOptions.session, aOptions.form, aPath);
    }

    static void addFrequencyOption(CLI::App& aCommand, std::optional<std::string>& aFrequency) {
        aCommand
            .add_option("--frequency", aFrequency,
                        fmt::format("The magnet's 1H frequency, as in 80.123 or 80.123MHz: what the lock "
                                    "starts with (default with --simulate: {})",
                                    kSimulatedMagnetHz / kHertzPerMegahertz))
            ->type_name("MHZ");
    }

    /// Adds a subcommand that looks behind the lock, with the options that all of them have.
    CLI::App& addLockCommand(CLI::App& aParent,
                             char const* aName,
                             char const* aMeaning,
                             std::string const& aUsage,
                             std::function<int(LockOptions const&)> aWork,
                             std::shared_ptr<LockOptions> const& aOptions) {
        CLI::App& command =
            add(aParent, aName, aMeaning, aUsage + " [--simulate] [--time-scale N] [--data DIR] [--json|-q]");
        addSessionOptions(command, aOptions->session);
        addFormOptions(command, aOptions->form);
        does(command, [&command, aOptions, work = std::move(aWork)] {
            checkSessionOptions(command, aOptions->session);
            return work(*aOptions);
        });
        return command;
    }

    void addLockCommands() {
        addLockCommand(mProgram, "registers", "All registers of the lock sequencer", "registers",
                       lockRegisters, std::make_shared<LockOptions>());

        auto const dumpOptions = std::make_shared<LockOptions>();
        auto const kind = std::make_shared<DumpKind>(DumpKind::Fid);
        auto const file = std::make_shared<std::filesystem::path>();
        CLI::App& dump = addLockCommand(
            mProgram, "dump", "Keep the lock's FID or FFT, or what the boards know, in files",
            "dump fid|fft FILE|canopen DIR [--frequency MHZ]",
            [kind, file](LockOptions const& aOptions) { return dumpOf(*kind, aOptions, *file); },
            dumpOptions);
        dump.add_option("KIND", *kind,
                        "'fid', the lock's signal in time, 'fft', its spectrum, or 'canopen', all objects of "
                        "the boards")
            ->required()
            ->transform(oneOf(std::map<std::string, DumpKind>{
                {"fid", DumpKind::Fid}, {"fft", DumpKind::Fft}, {"canopen", DumpKind::Canopen}}))
            ->type_name("fid|fft|canopen");
        dump.add_option("FILE", *file,
                        "The HDF5 file, or the folder of the boards' dumps; what is there is replaced")
            ->required()
            ->type_name("FILE");
        addFrequencyOption(dump, dumpOptions->frequency);

        CLI::App& lock = add(mProgram, "lock", "A closer look at the lock", "lock scan …");
        lock.require_subcommand(1);
        auto const picture = std::make_shared<std::optional<std::filesystem::path>>();
        CLI::App& scan = addLockCommand(
            lock, "scan", "Look for signals over the whole range of frequencies", "lock scan [--plot FILE]",
            [picture](LockOptions const& aOptions) { return lockScan(aOptions, *picture); },
            std::make_shared<LockOptions>());
        scan.add_option("--plot", *picture, "Also draw magnitude against frequency, to a .png or .svg file")
            ->type_name("FILE");
        scan.footer("Takes some minutes of the instrument's time.");
    }

    void addTemperature() {
        CLI::App& command =
            add(mProgram, "temperature", "The temperatures of magnet, shim coils, iso box and probe",
                "temperature [--simulate] [--data DIR] [--json|-q]");
        auto const session = std::make_shared<SessionOptions>();
        auto const form = std::make_shared<Form>(Form::Text);
        addSessionOptions(command, *session);
        addFormOptions(command, *form);
        does(command, [&command, session, form] {
            checkSessionOptions(command, *session);
            return temperatureCommand(*session, *form);
        });
    }

    void addRun() {
        CLI::App& command =
            add(mProgram, "run", "Open the library and print what it says until Ctrl-C",
                "run [--simulate] [--lock mock|real] [--frequency MHZ] [--at KELVIN] [--until-stable] "
                "[--time-scale N] [--cold] [--for SECONDS] [--data DIR] [--system N] [--json]");
        auto const options = std::make_shared<RunOptions>();
        addSessionOptions(command, options->session);
        command.add_option("--for", options->seconds, "Close after so many seconds")
            ->check(seconds())
            ->type_name("SECONDS");
        command.add_flag("--json", options->json, "One JSON object a line instead of text");
        addFrequencyOption(command, options->frequency);
        auto* const at = command.add_option("--at", options->at,
                                            "Bring the probe to this temperature, as in 310, 310K or 36.85C, "
                                            "once the lock is armed; it comes "
                                            "down again before the library closes");
        at->type_name("KELVIN");
        command
            .add_flag("--until-stable", options->untilStable,
                      "Bring the probe down and close as soon as it is stable at its target")
            ->needs(at);
        command.add_flag("--cold", options->session.cold,
                         "With --simulate: begin with all parts at the room's temperature");
        does(command, [&command, options] {
            checkSessionOptions(command, options->session);
            if (options->session.cold && !options->session.simulate) {
                throw WrongUsage("--cold goes with --simulate: a real instrument is as warm as it is");
            }
            return runCommand(*options);
        });
    }

    /// Adds a `shim` subcommand with the options that all of them have.
    CLI::App& addShimCommand(CLI::App& aShim,
                             char const* aName,
                             char const* aMeaning,
                             std::string const& aArguments,
                             std::function<int(ShimOptions const&)> aWork) {
        CLI::App& command = add(aShim, aName, aMeaning,
                                std::string("shim ") + aName + aArguments +
                                    " [--simulate] [--data DIR] [--system N] [--json|-q]");
        command.footer(kThrowAway);
        auto const options = std::make_shared<ShimOptions>();
        addSessionOptions(command, options->session);
        addFormOptions(command, options->form);
        does(command, [&command, options, work = std::move(aWork)] {
            checkSessionOptions(command, options->session);
            return work(*options);
        });
        return command;
    }

    void addShim() {
        CLI::App& shim = add(mProgram, "shim", "Gradients and currents of the shim coils",
                             "shim list|get|set|current|load|save|relations|system …");
        shim.require_subcommand(1);
        shim.footer(kThrowAway);
        addShimCommand(shim, "list", "All gradients that the shim system has", "", shimList);
        addShimCommand(shim, "relations", "How gradients and coils depend on each other", "", shimRelations);

        auto const names = std::make_shared<std::vector<std::string>>();
        addShimCommand(shim, "get", "Gradients by name", " NAME…",
                       [names](ShimOptions const& aOptions) { return shimGet(aOptions, *names); })
            .add_option("NAME", *names, "Names of gradients, as 'shim list' gives them")
            ->required()
            ->type_name("NAME…");

        auto const assignments = std::make_shared<std::vector<std::string>>();
        addShimCommand(shim, "set", "Set gradients, all at once", " NAME=VALUE…",
                       [assignments](ShimOptions const& aOptions) { return shimSet(aOptions, *assignments); })
            .add_option("ASSIGNMENT", *assignments, "A gradient and its value in units, as in Z=1200")
            ->required()
            ->type_name("NAME=VALUE…");

        auto const index = std::make_shared<unsigned int>(0);
        auto const value = std::make_shared<std::optional<std::string>>();
        CLI::App& current = addShimCommand(
            shim, "current", "Show or set one current", " INDEX [VALUE]",
            [index, value](ShimOptions const& aOptions) { return shimCurrent(aOptions, *index, *value); });
        current.add_option("INDEX", *index, "0 to 16 on the first board, 17 to 33 on the second")
            ->required()
            ->check(quiet(CLI::Range(0, 33)))
            ->type_name("INDEX");
        current.add_option("VALUE", *value, "The new current, -1 A to 1 A, as in 0.25, 0.25A or 250mA")
            ->type_name("VALUE");

        auto const file = std::make_shared<std::filesystem::path>();
        addShimCommand(shim, "load", "Set all gradients from a shim file", " FILE",
                       [file](ShimOptions const& aOptions) { return shimLoad(aOptions, *file); })
            .add_option(
                "FILE", *file,
                "The shim file: a gradient a line, as in 'Z 1200'; those that it does not name become 0")
            ->required()
            ->type_name("FILE");
        addShimCommand(shim, "save", "Write all gradients to a shim file", " FILE",
                       [file](ShimOptions const& aOptions) { return shimSave(aOptions, *file); })
            .add_option("FILE", *file, "The shim file; one that is there is replaced")
            ->required()
            ->type_name("FILE");

        auto const system = std::make_shared<int>(0);
        CLI::App& choose =
            addShimCommand(shim, "system", "Choose the shim system, also for later runs", " 8|9|10|11",
                           [system](ShimOptions const& aOptions) { return shimSystem(aOptions, *system); });
        choose.remove_option(choose.get_option("--system")); // The same, said twice.
        mUsage[&choose] = "shim system 8|9|10|11 [--simulate] [--data DIR] [--json|-q]";
        choose.add_option("SYSTEM", *system, "8 wmxs1a, 9 wmxs1b, 10 wmxs1c, 11 wmxs2a")
            ->required()
            ->check(quiet(CLI::Range(8, 11)))
            ->type_name("8|9|10|11");
    }

    /// Adds an `at` subcommand with the options that both of them have.
    CLI::App& addAtCommand(CLI::App& aAt,
                           char const* aName,
                           char const* aMeaning,
                           std::string const& aArguments,
                           std::function<int(AtOptions const&)> aWork) {
        CLI::App& command = add(aAt, aName, aMeaning,
                                std::string("at ") + aName + aArguments +
                                    " [--simulate] [--time-scale N] [--data DIR] [--system N] [--json|-q]");
        auto const options = std::make_shared<AtOptions>();
        addSessionOptions(command, options->session);
        addFormOptions(command, options->form);
        does(command, [&command, options, work = std::move(aWork)] {
            checkSessionOptions(command, options->session);
            return work(*options);
        });
        return command;
    }

    void addAt() {
        CLI::App& at =
            add(mProgram, "at", "The probe gas of the adjustable temperature", "at exchange|flows …");
        at.require_subcommand(1);
        at.footer("'run --at KELVIN' brings the probe to a temperature and down again.");
        addAtCommand(at, "flows", "The gas flows that can be set", "", atFlows);
        auto const exchange = std::make_shared<AtExchangeOptions>();
        CLI::App& command =
            addAtCommand(at, "exchange", "Take the gas down for the exchange of a sample, and bring it back",
                         " [--wait SECONDS] [--no-sample]",
                         [exchange](AtOptions const& aOptions) { return atExchange(aOptions, *exchange); });
        command
            .add_option("--wait", exchange->waitSeconds,
                        "Real time for the exchange (default: until Enter is pressed)")
            ->check(seconds())
            ->type_name("SECONDS");
        command.add_flag("--no-sample", exchange->noSample,
                         "No sample is in the magnet afterwards: the gas stays off");
        command.footer("Not to be had with a prototype of the flow box.");
    }

    /// Adds a `log` subcommand with the options that both of them have.
    CLI::App& addLogCommand(CLI::App& aLog,
                            char const* aName,
                            char const* aMeaning,
                            std::string const& aArguments,
                            std::function<int(LogOptions const&)> aWork) {
        CLI::App& command =
            add(aLog, aName, aMeaning,
                std::string("log ") + aName + aArguments + " [--simulate] [--data DIR] [--json|-q]");
        auto const options = std::make_shared<LogOptions>();
        command.add_flag("--simulate", options->simulate, "The log of a simulated instrument; needs --data");
        command
            .add_option(
                "--data", options->data,
                "Folder of the simulated instrument; without --simulate the data root (default /data)")
            ->type_name("DIR");
        addFormOptions(command, options->form);
        does(command, [options, work = std::move(aWork)] { return work(*options); });
        return command;
    }

    void addLog() {
        CLI::App& log = add(mProgram, "log", "What the data logger has kept", "log list|show|plot …");
        log.require_subcommand(1);
        auto const all = std::make_shared<bool>(false);
        addLogCommand(log, "list", "The channels with their newest values", " [--all]",
                      [all](LogOptions const& aOptions) { return logList(aOptions, *all); })
            .add_flag("--all", *all, "Also the channels that are meant for service only");
        auto const show = std::make_shared<LogShowOptions>();
        CLI::App& command = addLogCommand(
            log, "show", "The samples of a channel, oldest first", " CHANNEL [--since TIME] [--csv]",
            [show](LogOptions const& aOptions) { return logShow(aOptions, *show); });
        command.add_option("CHANNEL", show->channel, "Name of the channel, as 'log list' gives it")
            ->required()
            ->type_name("CHANNEL");
        command
            .add_option("--since", show->since,
                        "From then on: 30s, 10min, 2h or 1d back from now, or a time in UTC: 2026-11-21, "
                        "2026-11-21T14:00, "
                        "2026-11-21T14:00:05.250Z")
            ->type_name("TIME");
        command.add_flag("--csv", show->csv, "As CSV with a header line")
            ->excludes(command.get_option("--json"))
            ->excludes(command.get_option("--quiet"));
        auto const plot = std::make_shared<LogPlotOptions>();
        CLI::App& draw =
            addLogCommand(log, "plot", "Draw channels over time", " CHANNEL… --out FILE [--since TIME]",
                          [plot](LogOptions const& aOptions) { return logPlot(aOptions, *plot); });
        draw.add_option("CHANNEL", plot->channels, "Names of channels, as 'log list' gives them")
            ->required()
            ->type_name("CHANNEL…");
        draw.add_option("--out", plot->picture, "The picture, ending in .png or .svg")
            ->required()
            ->type_name("FILE");
        draw.add_option("--since", plot->since, "From then on, as of 'log show'")->type_name("TIME");
    }

    void addPlot() {
        CLI::App& command = add(mProgram, "plot", "Draw a dump of the lock's signal",
                                "plot FILE [--out FILE] [--fid|--fft] [--json|-q]");
        auto const options = std::make_shared<PlotOptions>();
        command
            .add_option("FILE", options->dump, "The dump, an HDF5 file with the datasets '/Real' and '/Imag'")
            ->required()
            ->type_name("FILE");
        command
            .add_option("--out", options->picture,
                        "The picture, ending in .png or .svg (default: beside the dump, as PNG)")
            ->type_name("FILE");
        auto* const fid = command.add_flag_callback(
            "--fid", [options] { options->kind = LockSignalKind::Fid; },
            "Points in time (default when the name begins with lock_fid_)");
        command
            .add_flag_callback(
                "--fft", [options] { options->kind = LockSignalKind::Fft; },
                "Points in frequency (default when the name begins with lock_fft_)")
            ->excludes(fid);
        addFormOptions(command, options->form);
        does(command, [options] { return plotCommand(*options); });
    }

    /// What to say when a word is no subcommand: the parser itself would only ask for one.
    std::optional<std::string> unknownSubcommand(int aCount, char** aArguments) const {
        CLI::App const* parent = &mProgram;
        for (int i = 1; i < aCount; ++i) {
            std::string const word = aArguments[i];
            if (word.empty() || word.front() == '-' || parent->get_require_subcommand_min() == 0) {
                return std::nullopt;
            }
            auto const children = parent->get_subcommands(
                [&](CLI::App const* aCommand) { return aCommand->get_name() == word; });
            if (children.empty()) {
                return "there is no subcommand '" + word + "'";
            }
            parent = children.front();
        }
        return std::nullopt;
    }

    /// The usage line of the innermost subcommand that was named.
    std::string usage() const {
        CLI::App const* innermost = &mProgram;
        while (!innermost->get_subcommands().empty()) {
            innermost = innermost->get_subcommands().front();
        }
        return "usage: fieldwarden " + mUsage.at(innermost) + "; --help says more";
    }

    CLI::App mProgram;
    HelpText::Usage mUsage;
    Work mChosen;
};

} // namespace

} // namespace libfieldwarden::app

int main(int aCount, char** aArguments) {
    using namespace libfieldwarden::app;
    // A reader that goes away is noticed by the failed write; the library is still to be closed then.
    std::signal(SIGPIPE, SIG_IGN);
    try {
        return CommandLine().run(aCount, aArguments);
    } catch (WrongUsage const& error) {
        complain(error.what());
        return kWrongUsage;
    } catch (std::exception const& error) {
        complain(error.what());
        return kLibraryError;
    }
}
