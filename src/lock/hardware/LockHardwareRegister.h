// SPDX-License-Identifier: Apache-2.0
// The lock sequencer's registers as the lock code sees them, whatever stands behind: typed get and set.
#pragma once

#include <ostream>
#include <string>
#include <type_traits>
#include <utility>

/// A register of any type. Register objects have no state of their own but the name: any thread may call
/// them, every call may block for a file access.
class LockHardwareRegisterBase {
public:
    explicit LockHardwareRegisterBase(std::string aName)
        : name(std::move(aName)) {}
    virtual ~LockHardwareRegisterBase() = default;
    LockHardwareRegisterBase(LockHardwareRegisterBase const&) = delete;
    LockHardwareRegisterBase& operator=(LockHardwareRegisterBase const&) = delete;

    /// Writes the register's name, " = " and its value; no end of line.
    /// @throws std::invalid_argument  when the value cannot be read.
    virtual void dump(std::ostream& aStream) const = 0;

    /// The register's name for logs and dumps.
    std::string const name;
};

/// A register that can be read.
/// @tparam T  Type of its value.
template <typename T>
class LockHardwareRegisterReadOnly : public LockHardwareRegisterBase {
public:
    using LockHardwareRegisterBase::LockHardwareRegisterBase;

    /// @return The value that the hardware has now.
    /// @throws std::invalid_argument  when what the hardware says is no such value; for some types also
    ///                                std::out_of_range.
    virtual T get() const = 0;

    void dump(std::ostream& aStream) const override;
};

/// A register that can be read and written.
template <typename T>
class LockHardwareRegister : public virtual LockHardwareRegisterReadOnly<T> {
public:
    /// Writes the value. A failure to write is not told.
    virtual void set(T aValue) = 0;
};

/// A status register: writing ones to its bits acknowledges them.
template <typename T>
class LockHardwareRegisterClearable : public virtual LockHardwareRegister<T> {
public:
    /// @return The value whose writing clears the whole register: all ones.
    virtual T value4clear() const = 0;

    void clear() { this->set(value4clear()); }
};

template <typename T>
void LockHardwareRegisterReadOnly<T>::dump(std::ostream& aStream) const {
    aStream << name << " = ";
    T const value = get();
    if constexpr (sizeof(T) == 1 && std::is_integral_v<T> && !std::is_same_v<T, bool>) {
        aStream << static_cast<unsigned int>(value); // A byte is a number, not a character.
    } else {
        aStream << value;
    }
}
