// SPDX-License-Identifier: Apache-2.0
// The folder, the dumps in it, and what is said of them.
#include "apps/fieldwarden/BoardDumpCommand.h"

#include "apps/fieldwarden/ExitCode.h"
#include "apps/fieldwarden/WrongUsage.h"

#include <fieldwarden/DeviceLogInterface.h>
#include <fieldwarden/FieldwardenInterface.h>

#include <algorithm>
#include <array>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <system_error>

#include <fmt/format.h>

namespace libfieldwarden::app {

namespace {

constexpr std::array kDumps{"canopen_temperature.dump", "canopen_shim_8.dump", "canopen_shim_9.dump"};

void makeFolder(std::filesystem::path const& aFolder) {
    std::error_code error;
    std::filesystem::create_directories(aFolder, error);
    if (error || !std::filesystem::is_directory(aFolder)) {
        throw WrongUsage("'" + aFolder.string() +
                         "' cannot be the folder of the dumps: " + (error ? error.message() : "it is none"));
    }
}

/// So that no dump of an earlier day is taken for one that has just failed.
void removeFormer(std::filesystem::path const& aFolder) {
    for (char const* const name : kDumps) {
        std::error_code error;
        std::filesystem::remove(aFolder / name, error);
        if (error) {
            throw WrongUsage("the former dump '" + (aFolder / name).string() +
                             "' cannot be replaced: " + error.message());
        }
    }
}

/// @throws std::runtime_error  when the library has not written it.
std::ptrdiff_t linesOf(std::filesystem::path const& aDump) {
    std::ifstream file(aDump, std::ios::binary);
    if (!file) {
        throw std::runtime_error("the dump '" + aDump.string() +
                                 "' was not written: is the folder writable, and does the board answer? The "
                                 "library's log tells more");
    }
    return std::count(std::istreambuf_iterator<char>(file), {}, '\n');
}

} // namespace

int boardDump(SessionOptions const& aOptions, Form aForm, std::filesystem::path const& aFolder) {
    makeFolder(aFolder);
    removeFormer(aFolder);
    Session session(aOptions);
    auto* const log = dynamic_cast<DeviceLogInterface*>(&session.library());
    if (log == nullptr) {
        throw std::logic_error("this library writes no device log");
    }
    if (session.stop().came()) {
        return session.closeForSignal();
    }
    log->createLog(aFolder.string(), 0, 0);
    session.close();
    auto dumps = nlohmann::ordered_json::array();
    for (char const* const name : kDumps) {
        auto const file = aFolder / name;
        auto const lines = linesOf(file);
        dumps.push_back({{"file", file.string()}, {"lines", lines}});
        if (aForm != Form::Json) {
            print(aForm == Form::Quiet ? file.string() + "\n"
                                       : fmt::format("{}: {} lines\n", file.string(), lines));
        }
    }
    if (aForm == Form::Json) {
        printJson({{"dumps", dumps}});
    }
    return kDone;
}

} // namespace libfieldwarden::app
