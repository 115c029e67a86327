// SPDX-License-Identifier: Apache-2.0
// Owners of a SQLite connection and of its statements, whose errors are exceptions in words.
#pragma once

#include <velmor/platform/Clock.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>

#include <sqlite3.h>

namespace velmor::kepla::datalogger {

/// An operation that SQLite refused.
class SqliteError : public std::runtime_error {
public:
    /// @param aCode  Extended result code.
    /// @param aText  File and reason.
    SqliteError(int aCode, std::string const& aText)
        : std::runtime_error(aText)
        , mCode(aCode) {}

    /// @return The primary result code, such as SQLITE_BUSY.
    int code() const noexcept { return mCode & 0xFF; }
    /// Whether the file's content is at fault rather than the world around it.
    bool isDamage() const noexcept { return code() == SQLITE_CORRUPT || code() == SQLITE_NOTADB; }
    /// Whether the disk is full or fails, which may pass.
    bool isOutage() const noexcept { return code() == SQLITE_FULL || code() == SQLITE_IOERR; }

private:
    int mCode;
};

/// Whether an error of the system is one of a disk that is full or fails.
bool isDiskOutage(std::error_code aError) noexcept;

/// One statement, prepared once and run often. Texts that are bound outlive the run.
class SqliteStatement {
public:
    SqliteStatement(sqlite3* aDatabase, std::string const& aFile, char const* aSql);

    SqliteStatement& bind(int aIndex, std::int64_t aValue);
    SqliteStatement& bind(int aIndex, double aValue); ///< NaN becomes NULL.
    SqliteStatement& bind(int aIndex, std::string_view aValue);

    /// Runs to the end; rows are passed over.
    /// @throws SqliteError
    void run();
    /// @return Whether there is a row; after the last one the statement is ready for the next run.
    /// @throws SqliteError
    bool next();
    /// Ends a run before its last row.
    void reset() noexcept { sqlite3_reset(mStatement.get()); }

    std::int64_t integer(int aColumn) const { return sqlite3_column_int64(mStatement.get(), aColumn); }
    double real(int aColumn) const; ///< NULL becomes NaN.
    std::string text(int aColumn) const;

    /// Runs a statement that gives one number.
    /// @throws SqliteError
    std::int64_t number();

private:
    struct Finalize {
        void operator()(sqlite3_stmt* aStatement) const noexcept { sqlite3_finalize(aStatement); }
    };
    void check(int aResult) const;

    sqlite3* mDatabase;
    std::string const* mFile;
    std::unique_ptr<sqlite3_stmt, Finalize> mStatement;
};

/// One connection. For one thread at a time.
class SqliteConnection {
public:
    /// @param aName      The file's name, or a URI with SQLITE_OPEN_URI.
    /// @param aFlags     SQLITE_OPEN_….
    /// @param aPatience  How long an operation waits for another program's lock.
    /// @throws SqliteError
    SqliteConnection(std::string const& aName, int aFlags, velmor::platform::Clock::Duration aPatience);
    SqliteConnection(SqliteConnection const&) = delete;
    SqliteConnection& operator=(SqliteConnection const&) = delete;

    /// From now on a lock of another program is an error at once.
    void losePatience() noexcept;

    /// Runs statements that give nothing.
    /// @throws SqliteError
    void execute(std::string const& aSql);
    SqliteStatement prepare(char const* aSql) { return {mDatabase.get(), mName, aSql}; }
    /// @return The first value of a statement.
    /// @throws SqliteError
    std::int64_t number(char const* aSql) { return prepare(aSql).number(); }

    /// Whether the file has been removed or renamed since it was opened.
    bool hasMoved() noexcept;
    /// Closing does not remove the write-ahead log.
    void leaveLog() noexcept;
    /// Rows that the last statement changed.
    std::int64_t changes() noexcept { return sqlite3_changes64(mDatabase.get()); }
    /// Undoes a transaction that is under way.
    void rollback() noexcept;

private:
    struct Close {
        void operator()(sqlite3* aDatabase) const noexcept { sqlite3_close_v2(aDatabase); }
    };
    static int waitForLock(void* aSelf, int aTries) noexcept;

    std::string mName;
    velmor::platform::Clock::Duration mPatience;
    std::unique_ptr<sqlite3, Close> mDatabase;
};

} // namespace velmor::kepla::datalogger
