// SPDX-License-Identifier: Apache-2.0
// Register texts into values and back.
#include "lock/hardware/LockQ47HardwareRegister.h"

#include <array>
#include <cstdio>
#include <limits>
#include <stdexcept>
#include <type_traits>

using velmor::kepla::log::Severity;
using velmor::q47::seqlock::SeqlockDriver;

namespace {

constexpr char const* kCategory = "Lock";
constexpr char const* kReadOnlyLogger = "LockQ47HardwareRegisterReadOnly";
constexpr char const* kReadWriteLogger = "LockQ47HardwareRegister";
constexpr char const* kClearableLogger = "LockQ47HardwareReigsterClearable"; // intended: the log knows it so

constexpr int kAnyBase = 0;

[[noreturn]] void refuse(std::string const& aText, std::string const& aEnding) {
    throw std::invalid_argument("Cannot convert value '" + aText + aEnding);
}

void parse(std::string const& aText, bool& aValue) {
    if (aText == "1" || aText == "0x1") {
        aValue = true;
    } else if (aText == "0" || aText == "0x0") {
        aValue = false;
    } else {
        refuse(aText, "' to boolean");
    }
}

void parse(std::string const& aText, std::uint8_t& aValue) {
    unsigned long number = 0;
    try {
        number = std::stoul(aText, nullptr, kAnyBase);
    } catch (std::out_of_range const&) {
        refuse(aText, "' to uint8_t: overflow");
    } catch (std::exception const& error) {
        refuse(aText, std::string("' to uint8_t: ") + error.what());
    }
    if (number > std::numeric_limits<std::uint8_t>::max()) {
        refuse(aText, "' to uint8_t");
    }
    aValue = static_cast<std::uint8_t>(number);
}

void parse(std::string const& aText, std::uint16_t& aValue) {
    // Intended: what the parser itself throws is not put into other words here.
    unsigned long const number = std::stoul(aText, nullptr, kAnyBase);
    if (number > std::numeric_limits<std::uint16_t>::max()) {
        refuse(aText, "' to uint16_t");
    }
    aValue = static_cast<std::uint16_t>(number);
}

void parse(std::string const& aText, std::int16_t& aValue) {
    unsigned long const number = std::stoul(aText, nullptr, kAnyBase);
    if (number > std::numeric_limits<std::uint16_t>::max()) {
        refuse(aText, "' to int16_t");
    }
    aValue = static_cast<std::int16_t>(number); // the low 16 bits with their sign
}

void parse(std::string const& aText, std::uint32_t& aValue) {
    if (aText.starts_with('-')) {
        refuse(aText, "' to uint32_t: negative number");
    }
    unsigned long number = 0;
    try {
        number = std::stoul(aText, nullptr, kAnyBase);
    } catch (std::out_of_range const&) {
        refuse(aText, "' to uint32_t: overflow");
    } catch (std::exception const& error) {
        refuse(aText, std::string("' to uint32_t: ") + error.what());
    }
    if (number > std::numeric_limits<std::uint32_t>::max()) { // where long is wider than the register
        refuse(aText, "' to uint32_t: overflow");
    }
    aValue = static_cast<std::uint32_t>(number);
}

void parse(std::string const& aText, std::int32_t& aValue) {
    try {
        aValue = std::stoi(aText, nullptr, kAnyBase);
    } catch (std::out_of_range const&) {
        refuse(aText, "' to int32_t: overflow");
    } catch (std::exception const& error) {
        refuse(aText, std::string("' to int32_t: ") + error.what());
    }
}

} // namespace

// --- read only

template <typename T>
LockQ47HardwareRegisterReadOnly<T>::LockQ47HardwareRegisterReadOnly(std::string aName,
                                                                    std::string aPath,
                                                                    Driver aDriver)
    : LockHardwareRegisterReadOnly<T>(std::move(aName))
    , Logger(kReadOnlyLogger, kCategory)
    , path(std::move(aPath))
    , mDriver(std::move(aDriver)) {
    if (!mDriver->canRead(path)) {
        throw std::invalid_argument("Cannot open register file at path '" + path + "'");
    }
}

template <typename T>
T LockQ47HardwareRegisterReadOnly<T>::get() const {
    keplaDoLog(Severity::Trace, "get() reg %s", {}, this->name);
    std::string text = mDriver->readRegister(path);
    if (text.ends_with('\n')) { // one and no more: a second one makes the text another one
        text.pop_back();
    }
    keplaDoLog(Severity::Trace, "~get() reg %s, got '%s' as string to parse", {}, this->name, text);
    return fromString(text);
}

template <typename T>
T LockQ47HardwareRegisterReadOnly<T>::fromString(std::string const& aText) const {
    T value{};
    parse(aText, value);
    return value;
}

// --- read and write

template <typename T>
LockQ47HardwareRegister<T>::LockQ47HardwareRegister(std::string aName, std::string aPath, Driver aDriver)
    : LockHardwareRegisterReadOnly<T>(aName)
    , velmor::kepla::log::Logger(kReadWriteLogger, kCategory)
    , LockQ47HardwareRegisterReadOnly<T>(aName, std::move(aPath), std::move(aDriver)) {
    if (!this->driver()->canWrite(this->path)) {
        throw std::invalid_argument("Register file at path '" + this->path + "' is not writtable.");
    }
}

template <typename T>
void LockQ47HardwareRegister<T>::set(T aValue) {
    std::string const text = toString(aValue);
    this->keplaDoLog(Severity::Trace, "setting reg %s to %s", {}, this->name, text);
    this->driver()->writeRegister(this->path, text);
}

template <typename T>
std::string LockQ47HardwareRegister<T>::toString(T aValue) const {
    std::array<char, 16> text{};
    std::snprintf(text.data(), text.size(), "%u", static_cast<unsigned int>(aValue));
    return text.data();
}

// --- clearable

template <typename T>
LockQ47HardwareRegisterClearable<T>::LockQ47HardwareRegisterClearable(std::string aName,
                                                                      std::string aPath,
                                                                      Driver aDriver)
    : LockHardwareRegisterReadOnly<T>(aName)
    , velmor::kepla::log::Logger(kClearableLogger, kCategory)
    , LockQ47HardwareRegister<T>(aName, std::move(aPath), std::move(aDriver)) {}

template <typename T>
T LockQ47HardwareRegisterClearable<T>::value4clear() const {
    if constexpr (std::is_same_v<T, bool>) {
        return true;
    } else {
        return static_cast<T>(~T{0});
    }
}

// --- 64 bits

LockQ47HardwareRegisterReadOnly<long long>::LockQ47HardwareRegisterReadOnly(std::string const& aName,
                                                                            std::string const& aPathHigh,
                                                                            std::string const& aPathLow,
                                                                            Driver const& aDriver)
    : LockHardwareRegisterReadOnly<long long>(aName)
    , Logger(kReadOnlyLogger, kCategory)
    , mHigh(aName + "_high", aPathHigh, aDriver)
    , mLow(aName + "_low", aPathLow, aDriver) {}

long long LockQ47HardwareRegisterReadOnly<long long>::get() const {
    std::uint64_t const high = mHigh.get();
    std::uint64_t const low = mLow.get();
    return static_cast<long long>(high << 32U | low);
}

LockQ47HardwareRegister<long long>::LockQ47HardwareRegister(std::string const& aName,
                                                            std::string const& aPathHigh,
                                                            std::string const& aPathLow,
                                                            Driver const& aDriver)
    : LockHardwareRegisterReadOnly<long long>(aName)
    , Logger(kReadWriteLogger, kCategory)
    , LockQ47HardwareRegisterReadOnly<long long>(aName, aPathHigh, aPathLow, aDriver)
    , mHighWritten(aName + "_high", aPathHigh, aDriver)
    , mLowWritten(aName + "_low", aPathLow, aDriver) {}

void LockQ47HardwareRegister<long long>::set(long long aValue) {
    auto const bits = static_cast<std::uint64_t>(aValue);
    mHighWritten.set(static_cast<std::uint32_t>(bits >> 32U));
    mLowWritten.set(static_cast<std::uint32_t>(bits));
}

template class LockQ47HardwareRegisterReadOnly<bool>;
template class LockQ47HardwareRegisterReadOnly<std::uint8_t>;
template class LockQ47HardwareRegisterReadOnly<std::uint16_t>;
template class LockQ47HardwareRegisterReadOnly<std::int16_t>;
template class LockQ47HardwareRegisterReadOnly<std::uint32_t>;
template class LockQ47HardwareRegisterReadOnly<std::int32_t>;
template class LockQ47HardwareRegister<bool>;
template class LockQ47HardwareRegister<std::uint8_t>;
template class LockQ47HardwareRegister<std::uint16_t>;
template class LockQ47HardwareRegister<std::int16_t>;
template class LockQ47HardwareRegister<std::uint32_t>;
template class LockQ47HardwareRegister<std::int32_t>;
template class LockQ47HardwareRegisterClearable<bool>;
template class LockQ47HardwareRegisterClearable<std::uint16_t>;
template class LockQ47HardwareRegisterClearable<std::int16_t>;
