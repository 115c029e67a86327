// SPDX-License-Identifier: Apache-2.0
// The sequencer's registers as the kernel driver publishes them: a small text file each.
#pragma once

#include "lock/hardware/LockHardwareEnums.h"
#include "lock/hardware/LockHardwareRegister.h"

#include <velmor/kepla/log/Logger.h>
#include <velmor/q47/seqlock/SeqlockDriver.h>

#include <cstdint>
#include <memory>
#include <string>
#include <utility>

/// A register that is read from a file. Nothing is kept between two accesses and no file stays open; each
/// call costs an open, a read and a close.
///
/// Numbers are read as strtoul() reads them with base 0: decimal, with "0x" hexadecimal, with a leading 0
/// octal; text behind the number is ignored.
template <typename T>
class LockQ47HardwareRegisterReadOnly : public virtual LockHardwareRegisterReadOnly<T>,
                                        protected virtual velmor::kepla::log::Logger {
public:
    using Driver = std::shared_ptr<velmor::q47::seqlock::SeqlockDriver>;

    /// @param aName    For logs and dumps.
    /// @param aPath    The register's file.
    /// @param aDriver  The way to it.
    /// @throws std::invalid_argument  when the file cannot be opened for reading.
    LockQ47HardwareRegisterReadOnly(std::string aName,
                                    std::string aPath,
                                    Driver aDriver = velmor::q47::seqlock::SeqlockDriver::current());

    /// @throws std::invalid_argument  when the text is no value of this type, an empty one neither; the words
    /// have it.
    /// @throws std::out_of_range      for 16 bits, when the number does not fit the parser.
    T get() const override;

    /// @param aText  The register's text without its end of line.
    T fromString(std::string const& aText) const;

    std::string const path;

protected:
    Driver const& driver() const noexcept { return mDriver; }

private:
    Driver mDriver;
};

/// A register that is read from and written to a file.
template <typename T>
class LockQ47HardwareRegister : public virtual LockHardwareRegister<T>,
                                public LockQ47HardwareRegisterReadOnly<T> {
public:
    using typename LockQ47HardwareRegisterReadOnly<T>::Driver;

    /// @throws std::invalid_argument  when the file cannot be opened for reading, or not for writing.
    LockQ47HardwareRegister(std::string aName,
                            std::string aPath,
                            Driver aDriver = velmor::q47::seqlock::SeqlockDriver::current());

    void set(T aValue) override;

    /// @return The value as it is written: unsigned decimal. Intended: a negative number is written as its
    /// bit pattern, which the driver takes, though it is read with a sign.
    std::string toString(T aValue) const;
};

/// A status register in a file.
template <typename T>
class LockQ47HardwareRegisterClearable : public virtual LockHardwareRegisterClearable<T>,
                                         public LockQ47HardwareRegister<T> {
public:
    using typename LockQ47HardwareRegisterReadOnly<T>::Driver;

    /// @throws std::invalid_argument  as LockQ47HardwareRegister.
    LockQ47HardwareRegisterClearable(std::string aName,
                                     std::string aPath,
                                     Driver aDriver = velmor::q47::seqlock::SeqlockDriver::current());

    T value4clear() const override;
};

/// A 64-bit register in two files of 32 bits. Not sign-extended: a signed quantity of 48 bits comes back as
/// it stands in the hardware. The two words are not read at once.
template <>
class LockQ47HardwareRegisterReadOnly<long long> : public virtual LockHardwareRegisterReadOnly<long long>,
                                                   protected virtual velmor::kepla::log::Logger {
public:
    using Driver = std::shared_ptr<velmor::q47::seqlock::SeqlockDriver>;

    /// @throws std::invalid_argument  when a file cannot be opened for reading.
    LockQ47HardwareRegisterReadOnly(std::string const& aName,
                                    std::string const& aPathHigh,
                                    std::string const& aPathLow,
                                    Driver const& aDriver = velmor::q47::seqlock::SeqlockDriver::current());

    /// Reads the high word, then the low one.
    long long get() const override;

private:
    LockQ47HardwareRegisterReadOnly<std::uint32_t> mHigh;
    LockQ47HardwareRegisterReadOnly<std::uint32_t> mLow;
};

template <>
class LockQ47HardwareRegister<long long> : public virtual LockHardwareRegister<long long>,
                                           public LockQ47HardwareRegisterReadOnly<long long> {
public:
    /// @throws std::invalid_argument  when a file cannot be opened for reading, or not for writing.
    LockQ47HardwareRegister(std::string const& aName,
                            std::string const& aPathHigh,
                            std::string const& aPathLow,
                            Driver const& aDriver = velmor::q47::seqlock::SeqlockDriver::current());

    /// Writes the high word, then the low one.
    void set(long long aValue) override;

private:
    LockQ47HardwareRegister<std::uint32_t> mHighWritten;
    LockQ47HardwareRegister<std::uint32_t> mLowWritten;
};

/// An enumeration that a register of numbers carries.
/// @tparam E  The enumeration.
/// @tparam U  The number in the file.
template <typename E, typename U>
class LockQ47HardwareRegisterCast : public virtual LockHardwareRegister<E> {
public:
    using Driver = std::shared_ptr<velmor::q47::seqlock::SeqlockDriver>;

    /// @throws std::invalid_argument  as LockQ47HardwareRegister.
    LockQ47HardwareRegisterCast(std::string const& aName,
                                std::string aPath,
                                Driver aDriver = velmor::q47::seqlock::SeqlockDriver::current())
        : LockHardwareRegisterReadOnly<E>(aName)
        , mNumber(aName, std::move(aPath), std::move(aDriver)) {}

    E get() const override { return static_cast<E>(mNumber.get()); }
    void set(E aValue) override { mNumber.set(static_cast<U>(aValue)); }

private:
    LockQ47HardwareRegister<U> mNumber;
};

/// A status register that carries an enumeration.
template <typename E, typename U>
class LockQ47HardwareRegisterCastClearable : public virtual LockHardwareRegisterClearable<E>,
                                             public LockQ47HardwareRegisterCast<E, U> {
public:
    using typename LockQ47HardwareRegisterCast<E, U>::Driver;

    /// @throws std::invalid_argument  as LockQ47HardwareRegister.
    LockQ47HardwareRegisterCastClearable(std::string const& aName,
                                         std::string aPath,
                                         Driver aDriver = velmor::q47::seqlock::SeqlockDriver::current())
        : LockHardwareRegisterReadOnly<E>(aName)
        , LockQ47HardwareRegisterCast<E, U>(aName, std::move(aPath), std::move(aDriver)) {}

    E value4clear() const override { return E::AllForClear; }
};
