// SPDX-License-Identifier: Apache-2.0
// Emergency messages in words.
#include <velmor/kepla/canopen/EmergencyMessage.h>

#include <algorithm>

namespace velmor::kepla::canopen {

namespace {

struct CodeClass {
    std::uint16_t code;
    std::uint16_t mask;
    std::string_view words;
};

/// Error code classes of CiA 301, the finer ones before the coarser ones that hold them.
constexpr std::array kClasses{
    CodeClass{0x2100, 0xFF00, "current on the device's input side"},
    CodeClass{0x2200, 0xFF00, "current inside the device"},
    CodeClass{0x2300, 0xFF00, "current on the device's output side"},
    CodeClass{0x3100, 0xFF00, "mains voltage"},
    CodeClass{0x3200, 0xFF00, "voltage inside the device"},
    CodeClass{0x3300, 0xFF00, "output voltage"},
    CodeClass{0x4100, 0xFF00, "ambient temperature"},
    CodeClass{0x4200, 0xFF00, "temperature of the device"},
    CodeClass{0x6100, 0xFF00, "internal software"},
    CodeClass{0x6200, 0xFF00, "user software"},
    CodeClass{0x6300, 0xFF00, "data set"},
    CodeClass{0x8110, 0xFFFF, "CAN overrun"},
    CodeClass{0x8120, 0xFFFF, "CAN error passive"},
    CodeClass{0x8130, 0xFFFF, "life guard or heartbeat error"},
    CodeClass{0x8140, 0xFFFF, "recovered from bus-off"},
    CodeClass{0x8100, 0xFF00, "communication"},
    CodeClass{0x8200, 0xFF00, "protocol"},
    CodeClass{0x0000, 0xFF00, "error reset or no error"},
    CodeClass{0x1000, 0xFF00, "generic error"},
    CodeClass{0x2000, 0xF000, "current"},
    CodeClass{0x3000, 0xF000, "voltage"},
    CodeClass{0x4000, 0xF000, "temperature"},
    CodeClass{0x5000, 0xFF00, "device hardware"},
    CodeClass{0x6000, 0xF000, "device software"},
    CodeClass{0x7000, 0xFF00, "additional modules"},
    CodeClass{0x8000, 0xF000, "monitoring"},
    CodeClass{0x9000, 0xFF00, "external error"},
    CodeClass{0xF000, 0xFF00, "additional functions"},
    CodeClass{0xFF00, 0xFF00, "device specific"},
};

/// Bits of the error register 0x1001, bit 0 first.
constexpr std::array<std::string_view, 8> kRegisterBits{"generic",     "current",       "voltage",
                                                        "temperature", "communication", "device profile",
                                                        "reserved",    "manufacturer"};

} // namespace

std::optional<EmergencyMessage> EmergencyMessage::decode(CanFrame const& aFrame) noexcept {
    constexpr std::uint32_t kFunction = 0x080;
    std::uint32_t const node = aFrame.id - kFunction;
    if (aFrame.remote || aFrame.id <= kFunction || node > 127 || aFrame.length < aFrame.data.size()) {
        return std::nullopt;
    }
    EmergencyMessage result;
    result.node = static_cast<unsigned char>(node);
    result.code = static_cast<std::uint16_t>(aFrame.data[0] | (aFrame.data[1] << 8));
    result.errorRegister = aFrame.data[2];
    std::copy_n(aFrame.data.begin() + 3, result.manufacturer.size(), result.manufacturer.begin());
    return result;
}

std::string_view EmergencyMessage::words() const noexcept {
    auto const found = std::find_if(kClasses.begin(), kClasses.end(), [this](CodeClass const& aClass) {
        return (code & aClass.mask) == aClass.code;
    });
    return found == kClasses.end() ? "unknown error" : found->words;
}

std::string EmergencyMessage::registerWords() const {
    std::string result;
    for (std::size_t bit = 0; bit < kRegisterBits.size(); ++bit) {
        if ((errorRegister >> bit & 1) != 0) {
            result += result.empty() ? "" : ", ";
            result += kRegisterBits[bit];
        }
    }
    return result.empty() ? "none" : result;
}

} // namespace velmor::kepla::canopen
