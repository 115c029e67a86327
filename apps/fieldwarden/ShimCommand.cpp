// SPDX-License-Identifier: Apache-2.0
// What the `shim` subcommands do with the shim service.
#include "apps/fieldwarden/ShimCommand.h"

#include "apps/fieldwarden/ExitCode.h"
#include "apps/fieldwarden/ShimText.h"
#include "apps/fieldwarden/WrongUsage.h"

#include <fieldwarden/BoundedValue.h>
#include <fieldwarden/ShimInterface.h>

#include <algorithm>
#include <functional>
#include <iterator>
#include <sstream>
#include <stdexcept>

#include <fmt/format.h>

namespace libfieldwarden::app {

namespace {

/// Opens the library with the shim system set, runs a piece of work, and closes in order. A Ctrl-C waits
/// until the work is done: it must leave neither half a parameter set nor a simulated instrument behind.
int withShim(ShimOptions const& aOptions, std::function<void(ShimInterface&, Session&)> const& aWork) {
    Session session(aOptions.session);
    aWork(session.shim(), session);
    if (session.stop().came()) {
        complain(session.stop().name() + ", closing; what was asked for is done");
    }
    session.close();
    return kDone;
}

std::vector<std::string> activeNames(ShimInterface& aShim) {
    std::istringstream names(aShim.getNamesOfActiveShimGradients());
    return {std::istream_iterator<std::string>(names), std::istream_iterator<std::string>()};
}

std::vector<Gradient> gradientsOf(ShimInterface& aShim, std::vector<std::string> const& aNames) {
    std::vector<Gradient> gradients;
    gradients.reserve(aNames.size());
    for (std::string const& name : aNames) {
        gradients.emplace_back(name, aShim.getSingleShim(name).value);
    }
    return gradients;
}

/// Sets gradients as one parameter set; when one of them fails, none is kept.
void setTogether(ShimInterface& aShim, std::function<void()> const& aSet) {
    aShim.beginOfOneParameterSet();
    try {
        aSet();
        aShim.endOfOneParameterSet();
    } catch (std::exception const&) {
        aShim.cancelOfOneParameterSet();
        throw;
    }
}

void printGradients(ShimInterface& aShim,
                    ShimOptions const& aOptions,
                    std::vector<Gradient> const& aGradients) {
    if (aOptions.form == Form::Json) {
        auto gradients = nlohmann::ordered_json::object();
        for (auto const& [name, value] : aGradients) {
            gradients[name] = value;
        }
        printJson(
            {{"system", aShim.getShimId()}, {"file", aShim.getTOSKFileName()}, {"gradients", gradients}});
        return;
    }
    std::string text;
    for (auto const& [name, value] : aGradients) {
        text += aOptions.form == Form::Quiet ? fmt::format("{}\n", value)
                                             : fmt::format("{:<12}{:>9}\n", name, value);
    }
    print(text);
}

/// The library takes these and leaves them at 0: their user should know.
void tellOfAbsent(ShimInterface& aShim, std::vector<std::string> const& aNames) {
    auto const active = activeNames(aShim);
    for (std::string const& name : aNames) {
        if (std::find(active.begin(), active.end(), name) == active.end()) {
            complain(fmt::format("shim system {} has no gradient '{}': it stays 0", aShim.getShimId(), name));
        }
    }
}

std::vector<std::string> namesOf(std::vector<ShimFileLine> const& aLines) {
    std::vector<std::string> names;
    names.reserve(aLines.size());
    for (ShimFileLine const& line : aLines) {
        names.push_back(line.gradient.first);
    }
    return names;
}

void setFromFile(ShimInterface& aShim, std::filesystem::path const& aFile, ShimFileLine const& aLine) {
    auto const& [name, value] = aLine.gradient;
    try {
        aShim.setSingleShim(name, value);
    } catch (std::invalid_argument const& error) {
        throw std::runtime_error(
            fmt::format("Shim file '{}', line {}: {}", aFile.string(), aLine.number, error.what()));
    }
}

} // namespace

int shimList(ShimOptions const& aOptions) {
    return withShim(aOptions, [&](ShimInterface& aShim, Session&) {
        printGradients(aShim, aOptions, gradientsOf(aShim, activeNames(aShim)));
    });
}

int shimGet(ShimOptions const& aOptions, std::vector<std::string> const& aNames) {
    return withShim(aOptions, [&](ShimInterface& aShim, Session&) {
        printGradients(aShim, aOptions, gradientsOf(aShim, aNames));
    });
}

int shimSet(ShimOptions const& aOptions, std::vector<std::string> const& aAssignments) {
    std::vector<std::string> names;
    std::vector<Gradient> wanted;
    for (std::string const& assignment : aAssignments) {
        wanted.push_back(parseAssignment(assignment));
        std::string const& name = wanted.back().first;
        if (std::find(names.begin(), names.end(), name) != names.end()) {
            throw WrongUsage("'" + name + "' is given two values");
        }
        names.push_back(name);
    }
    return withShim(aOptions, [&](ShimInterface& aShim, Session&) {
        setTogether(aShim, [&] {
            for (auto const& [name, value] : wanted) {
                aShim.setSingleShim(name, value);
            }
        });
        tellOfAbsent(aShim, names);
        printGradients(aShim, aOptions, gradientsOf(aShim, names));
    });
}

int shimCurrent(ShimOptions const& aOptions, unsigned int aIndex, std::optional<std::string> const& aValue) {
    std::optional<double> const wanted = aValue ? std::optional(parseCurrent(*aValue)) : std::nullopt;
    return withShim(aOptions, [&](ShimInterface& aShim, Session&) {
        if (wanted) {
            setTogether(aShim, [&] { aShim.setShimCurrent(aIndex, *wanted); });
        }
        double const ampere = aShim.getShimCurrent(aIndex).value;
        if (aOptions.form == Form::Json) {
            printJson({{"index", aIndex}, {"ampere", jsonNumber(ampere)}});
        } else {
            print(aOptions.form == Form::Quiet ? fmt::format("{:.6f}\n", ampere)
                                               : fmt::format("current {}: {:.6f} A\n", aIndex, ampere));
        }
    });
}

int shimLoad(ShimOptions const& aOptions, std::filesystem::path const& aFile) {
    auto const lines = readShimFile(aFile);
    if (lines.empty()) {
        complain("'" + aFile.string() + "' names no gradient: all of them become 0");
    }
    return withShim(aOptions, [&](ShimInterface& aShim, Session&) {
        auto const names = activeNames(aShim);
        setTogether(aShim, [&] {
            for (std::string const& name : names) {
                aShim.setSingleShim(name, 0);
            }
            for (ShimFileLine const& line : lines) {
                setFromFile(aShim, aFile, line);
            }
        });
        tellOfAbsent(aShim, namesOf(lines));
        printGradients(aShim, aOptions, gradientsOf(aShim, names));
    });
}

int shimSave(ShimOptions const& aOptions, std::filesystem::path const& aFile) {
    return withShim(aOptions, [&](ShimInterface& aShim, Session&) {
        auto const gradients = gradientsOf(aShim, activeNames(aShim));
        writeShimFile(aFile, gradients);
        if (aOptions.form == Form::Json) {
            printJson({{"file", aFile.string()}, {"gradients", gradients.size()}});
        } else if (aOptions.form == Form::Text) {
            print(fmt::format("{} gradients saved in '{}'\n", gradients.size(), aFile.string()));
        }
    });
}

int shimRelations(ShimOptions const& aOptions) {
    return withShim(aOptions, [&](ShimInterface& aShim, Session&) {
        std::string const relations = aShim.getTOSKMatrixRelations();
        if (aOptions.form == Form::Json) {
            printJson({{"system", aShim.getShimId()}, {"relations", relations}});
        } else {
            print(relations);
        }
    });
}

int shimSystem(ShimOptions const& aOptions, int aSystem) {
    ShimOptions options = aOptions;
    options.session.shimSystem = aSystem;
    return withShim(options, [&](ShimInterface& aShim, Session& aSession) {
        aSession.rememberShimSystem(aSystem);
        if (aOptions.form == Form::Json) {
            printJson(
                {{"number", aSystem}, {"system", aShim.getShimId()}, {"file", aShim.getTOSKFileName()}});
        } else {
            print(aOptions.form == Form::Quiet ? aShim.getShimId() + "\n"
                                               : fmt::format("shim system {}: {}, matrix file {}\n", aSystem,
                                                             aShim.getShimId(), aShim.getTOSKFileName()));
        }
    });
}

} // namespace libfieldwarden::app
