// SPDX-License-Identifier: Apache-2.0
// SQLite's results in words.
#include "Sqlite.h"

#include <cerrno>
#include <cmath>
#include <limits>
#include <system_error>

namespace velmor::kepla::datalogger {

namespace {

constexpr std::chrono::milliseconds kLockRetry{20};

std::string withSystemReason(std::string const& aText, sqlite3* aDatabase) {
    int const error = aDatabase != nullptr ? sqlite3_system_errno(aDatabase) : 0;
    return error == 0 ? aText : aText + " (" + std::generic_category().message(error) + ")";
}

std::string reasonOf(int aCode, sqlite3* aDatabase) {
    switch (aCode & 0xFF) {
        case SQLITE_FULL:
            return "the disk is full";
        case SQLITE_BUSY:
        case SQLITE_LOCKED:
            return "another program holds it locked";
        case SQLITE_READONLY:
        case SQLITE_PERM:
            return "it may not be written";
        case SQLITE_CANTOPEN:
            return withSystemReason("it cannot be opened", aDatabase);
        case SQLITE_IOERR:
            return withSystemReason("the disk fails", aDatabase);
        case SQLITE_CORRUPT:
            return "it is damaged";
        case SQLITE_NOTADB:
            return "it is no database";
        default:
            return aDatabase != nullptr ? sqlite3_errmsg(aDatabase) : sqlite3_errstr(aCode);
    }
}

[[noreturn]] void refuse(int aCode, sqlite3* aDatabase, std::string const& aFile) {
    throw SqliteError(aCode, aFile + ": " + reasonOf(aCode, aDatabase));
}

} // namespace

bool isDiskOutage(std::error_code aError) noexcept {
    int const number = aError.value();
    return number == ENOSPC || number == EDQUOT || number == EIO;
}

SqliteStatement::SqliteStatement(sqlite3* aDatabase, std::string const& aFile, char const* aSql)
    : mDatabase(aDatabase)
    , mFile(&aFile) {
    sqlite3_stmt* statement = nullptr;
    check(sqlite3_prepare_v3(aDatabase, aSql, -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr));
    mStatement.reset(statement);
}

SqliteStatement& SqliteStatement::bind(int aIndex, std::int64_t aValue) {
    check(sqlite3_bind_int64(mStatement.get(), aIndex, aValue));
    return *this;
}

SqliteStatement& SqliteStatement::bind(int aIndex, double aValue) {
    check(sqlite3_bind_double(mStatement.get(), aIndex, aValue));
    return *this;
}

SqliteStatement& SqliteStatement::bind(int aIndex, std::string_view aValue) {
    check(sqlite3_bind_text64(mStatement.get(), aIndex, aValue.data(), aValue.size(), nullptr, SQLITE_UTF8));
    return *this;
}

void SqliteStatement::run() {
    while (next()) {
    }
}

bool SqliteStatement::next() {
    int const result = sqlite3_step(mStatement.get());
    if (result == SQLITE_ROW) {
        return true;
    }
    sqlite3_reset(mStatement.get());
    if (result != SQLITE_DONE) {
        refuse(result, mDatabase, *mFile);
    }
    return false;
}

double SqliteStatement::real(int aColumn) const {
    return sqlite3_column_type(mStatement.get(), aColumn) == SQLITE_NULL
               ? std::numeric_limits<double>::quiet_NaN()
               : sqlite3_column_double(mStatement.get(), aColumn);
}

std::string SqliteStatement::text(int aColumn) const {
    void const* const bytes = sqlite3_column_blob(mStatement.get(), aColumn);
    auto const size = static_cast<std::size_t>(sqlite3_column_bytes(mStatement.get(), aColumn));
    return bytes == nullptr ? std::string() : std::string(static_cast<char const*>(bytes), size);
}

std::int64_t SqliteStatement::number() {
    std::int64_t const value = next() ? integer(0) : 0;
    reset();
    return value;
}

void SqliteStatement::check(int aResult) const {
    if (aResult != SQLITE_OK) {
        refuse(aResult, mDatabase, *mFile);
    }
}

SqliteConnection::SqliteConnection(std::string const& aName,
                                   int aFlags,
                                   velmor::platform::Clock::Duration aPatience)
    : mName(aName)
    , mPatience(aPatience) {
    sqlite3* database = nullptr;
    int const result = sqlite3_open_v2(aName.c_str(), &database,
                                       aFlags | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_EXRESCODE, nullptr);
    mDatabase.reset(database);
    if (result != SQLITE_OK) {
        refuse(result, database, mName);
    }
    sqlite3_busy_handler(database, &waitForLock, this);
}

int SqliteConnection::waitForLock(void* aSelf, int aTries) noexcept {
    auto const* const self = static_cast<SqliteConnection*>(aSelf);
    if (aTries * kLockRetry >= self->mPatience) {
        return 0;
    }
    velmor::platform::Clock::current().sleepFor(kLockRetry);
    return 1;
}

void SqliteConnection::losePatience() noexcept {
    mPatience = {};
}

void SqliteConnection::execute(std::string const& aSql) {
    int const result = sqlite3_exec(mDatabase.get(), aSql.c_str(), nullptr, nullptr, nullptr);
    if (result != SQLITE_OK) {
        refuse(result, mDatabase.get(), mName);
    }
}

bool SqliteConnection::hasMoved() noexcept {
    int moved = 0;
    return sqlite3_file_control(mDatabase.get(), "main", SQLITE_FCNTL_HAS_MOVED, &moved) == SQLITE_OK &&
           moved != 0;
}

void SqliteConnection::leaveLog() noexcept {
    int leave = 1;
    sqlite3_file_control(mDatabase.get(), "main", SQLITE_FCNTL_PERSIST_WAL, &leave);
}

void SqliteConnection::rollback() noexcept {
    if (sqlite3_get_autocommit(mDatabase.get()) == 0) {
        sqlite3_exec(mDatabase.get(), "ROLLBACK", nullptr, nullptr, nullptr);
    }
}

} // namespace velmor::kepla::datalogger
