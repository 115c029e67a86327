// SPDX-License-Identifier: Apache-2.0
// Why an SDO transfer was given up: the abort codes of CiA 301 with their words.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

namespace velmor::kepla::canopen {

/// The abort codes (CiA 301, table 22). Devices may use further codes of their own, so the type is open.
namespace sdoabort {
inline constexpr std::uint32_t kNone = 0;
inline constexpr std::uint32_t kToggleBit = 0x05030000;
inline constexpr std::uint32_t kTimeout = 0x05040000;
inline constexpr std::uint32_t kCommandSpecifier = 0x05040001;
inline constexpr std::uint32_t kBlockSize = 0x05040002;
inline constexpr std::uint32_t kSequenceNumber = 0x05040003;
inline constexpr std::uint32_t kCrc = 0x05040004;
inline constexpr std::uint32_t kOutOfMemory = 0x05040005;
inline constexpr std::uint32_t kUnsupportedAccess = 0x06010000;
inline constexpr std::uint32_t kWriteOnly = 0x06010001;
inline constexpr std::uint32_t kReadOnly = 0x06010002;
inline constexpr std::uint32_t kNoSuchObject = 0x06020000;
inline constexpr std::uint32_t kNotMappable = 0x06040041;
inline constexpr std::uint32_t kPdoLength = 0x06040042;
inline constexpr std::uint32_t kIncompatibleParameter = 0x06040043;
inline constexpr std::uint32_t kIncompatibleDevice = 0x06040047;
inline constexpr std::uint32_t kHardware = 0x06060000;
inline constexpr std::uint32_t kLength = 0x06070010;
inline constexpr std::uint32_t kTooLong = 0x06070012;
inline constexpr std::uint32_t kTooShort = 0x06070013;
inline constexpr std::uint32_t kNoSuchSubindex = 0x06090011;
inline constexpr std::uint32_t kInvalidValue = 0x06090030;
inline constexpr std::uint32_t kValueTooHigh = 0x06090031;
inline constexpr std::uint32_t kValueTooLow = 0x06090032;
inline constexpr std::uint32_t kMaximumBelowMinimum = 0x06090036;
inline constexpr std::uint32_t kNoSdoConnection = 0x060A0023;
inline constexpr std::uint32_t kGeneral = 0x08000000;
inline constexpr std::uint32_t kCannotStore = 0x08000020;
inline constexpr std::uint32_t kLocalControl = 0x08000021;
inline constexpr std::uint32_t kDeviceState = 0x08000022;
inline constexpr std::uint32_t kNoDictionary = 0x08000023;
inline constexpr std::uint32_t kNoData = 0x08000024;
} // namespace sdoabort

/// One abort code and what it means.
struct SdoAbort {
    std::uint32_t code;
    std::string_view words;
};

/// All codes of CiA 301, in rising order.
inline constexpr std::array<SdoAbort, 31> kSdoAborts{{
    {sdoabort::kToggleBit, "Toggle bit not alternated"},
    {sdoabort::kTimeout, "SDO protocol timed out"},
    {sdoabort::kCommandSpecifier, "Client/server command specifier not valid or unknown"},
    {sdoabort::kBlockSize, "Invalid block size"},
    {sdoabort::kSequenceNumber, "Invalid sequence number"},
    {sdoabort::kCrc, "CRC error"},
    {sdoabort::kOutOfMemory, "Out of memory"},
    {sdoabort::kUnsupportedAccess, "Unsupported access to an object"},
    {sdoabort::kWriteOnly, "Attempt to read a write only object"},
    {sdoabort::kReadOnly, "Attempt to write a read only object"},
    {sdoabort::kNoSuchObject, "Object does not exist in the object dictionary"},
    {sdoabort::kNotMappable, "Object cannot be mapped to the PDO"},
    {sdoabort::kPdoLength, "The number and length of the objects to be mapped would exceed PDO length"},
    {sdoabort::kIncompatibleParameter, "General parameter incompatibility reason"},
    {sdoabort::kIncompatibleDevice, "General internal incompatibility in the device"},
    {sdoabort::kHardware, "Access failed due to a hardware error"},
    {sdoabort::kLength, "Data type does not match, length of service parameter does not match"},
    {sdoabort::kTooLong, "Data type does not match, length of service parameter too high"},
    {sdoabort::kTooShort, "Data type does not match, length of service parameter too low"},
    {sdoabort::kNoSuchSubindex, "Sub-index does not exist"},
    {sdoabort::kInvalidValue, "Invalid value for parameter"},
    {sdoabort::kValueTooHigh, "Value of parameter written too high"},
    {sdoabort::kValueTooLow, "Value of parameter written too low"},
    {sdoabort::kMaximumBelowMinimum, "Maximum value is less than minimum value"},
    {sdoabort::kNoSdoConnection, "Resource not available: SDO connection"},
    {sdoabort::kGeneral, "General error"},
    {sdoabort::kCannotStore, "Data cannot be transferred or stored to the application"},
    {sdoabort::kLocalControl,
     "Data cannot be transferred or stored to the application because of local control"},
    {sdoabort::kDeviceState,
     "Data cannot be transferred or stored to the application because of the present device state"},
    {sdoabort::kNoDictionary,
     "Object dictionary dynamic generation fails or no object dictionary is present"},
    {sdoabort::kNoData, "No data available"},
}};

/// @param aCode  An abort code.
/// @return What it means; "Unknown abort code" for one that CiA 301 does not list.
constexpr std::string_view sdoAbortWords(std::uint32_t aCode) noexcept {
    for (SdoAbort const& abort : kSdoAborts) {
        if (abort.code == aCode) {
            return abort.words;
        }
    }
    return "Unknown abort code";
}

/// @param aCode  An abort code.
/// @return Code and words, such as "SDO abort 0x06020000: Object does not exist in the object dictionary".
std::string describeSdoAbort(std::uint32_t aCode);

} // namespace velmor::kepla::canopen
