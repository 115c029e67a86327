// SPDX-License-Identifier: Apache-2.0
// `fieldwarden registers`, `fieldwarden dump` and `fieldwarden lock scan`: a look behind the lock.
#pragma once

#include "apps/fieldwarden/Output.h"
#include "apps/fieldwarden/Session.h"

#include <filesystem>
#include <optional>
#include <string>

namespace libfieldwarden::app {

/// What these subcommands may be told.
struct LockOptions {
    SessionOptions session;
    Form form = Form::Text;
    std::optional<std::string> frequency; ///< Of the magnet, as text.
};

enum class LockDumpKind { Fid, Fft };

/// @return All bytes of a dump that the library has written.
/// @throws std::runtime_error  when it cannot be read or has none; the words name it.
std::string contentOfDump(std::filesystem::path const& aDump);

/// Each opens the library, does its work, closes it again, and returns the exit code.
/// @throws WrongUsage, std::exception  as Session, and what the lock throws.
int lockRegisters(LockOptions const& aOptions);
/// Brings the lock up first.
/// @param aFile  Takes the dump; a former one is replaced once the new one is whole.
int lockDump(LockOptions const& aOptions, LockDumpKind aKind, std::filesystem::path const& aFile);
/// @param aPicture  Of magnitude against frequency; none for no picture.
int lockScan(LockOptions const& aOptions, std::optional<std::filesystem::path> const& aPicture);

} // namespace libfieldwarden::app
