// SPDX-License-Identifier: Apache-2.0
// Any text as the file of a register, read as every type: it is a value, and the one that an independent
// reading of the digits gives, or it is refused with the words that name it.
//
// The input is the text of the file, newline and all.
#include "lock/hardware/LockQ47HardwareRegister.h"
#include "support/FakeRegisterTree.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>

namespace {

using libfieldwarden::test::FakeRegisterTree;

void expect(bool aHolds) {
    if (!aHolds) {
        std::abort();
    }
}

/// A number in C's notation, saturated well beyond 64 bits.
struct Number {
    bool negative = false;
    long double magnitude = 0.0L;
};

constexpr int kNoDigit = 99;

int digitOf(char aCharacter) {
    if (aCharacter >= '0' && aCharacter <= '9') {
        return aCharacter - '0';
    }
    char const lower = static_cast<char>(static_cast<unsigned char>(aCharacter) | 0x20U);
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : kNoDigit;
}

/// The number at the start of a text, by hand; none when there is no digit.
std::optional<Number> numberIn(std::string_view aText) {
    std::size_t at = 0;
    auto const peek = [&](std::size_t aAhead) {
        return at + aAhead < aText.size() ? aText[at + aAhead] : '\0';
    };
    while (peek(0) == ' ' || (peek(0) >= '\t' && peek(0) <= '\r')) {
        ++at;
    }
    Number number;
    if (peek(0) == '+' || peek(0) == '-') {
        number.negative = peek(0) == '-';
        ++at;
    }
    int base = 10;
    if (peek(0) == '0' && (peek(1) == 'x' || peek(1) == 'X') && digitOf(peek(2)) < 16) {
        base = 16;
        at += 2;
    } else if (peek(0) == '0') {
        base = 8;
    }
    if (digitOf(peek(0)) >= base) {
        return std::nullopt;
    }
    for (; digitOf(peek(0)) < base; ++at) {
        number.magnitude = number.magnitude * base + digitOf(peek(0));
    }
    return number;
}

/// What the unsigned parser of this machine makes of it; none when it is out of range.
std::optional<unsigned long> wrapped(Number const& aNumber) {
    if (aNumber.magnitude > static_cast<long double>(std::numeric_limits<unsigned long>::max())) {
        return std::nullopt;
    }
    auto const magnitude = static_cast<unsigned long>(aNumber.magnitude);
    return aNumber.negative ? 0UL - magnitude : magnitude;
}

/// The value that a text is for a type; none when it is refused.
template <typename T>
std::optional<T> expected(std::string const& aText) {
    if constexpr (std::is_same_v<T, bool>) {
        if (aText == "1" || aText == "0x1") {
            return true;
        }
        return aText == "0" || aText == "0x0" ? std::optional(false) : std::nullopt;
    } else {
        auto const number = numberIn(aText);
        if (!number) {
            return std::nullopt;
        }
        if constexpr (std::is_same_v<T, std::int32_t>) {
            long double const value = number->negative ? -number->magnitude : number->magnitude;
            return value >= -2147483648.0L && value <= 2147483647.0L ? std::optional(static_cast<T>(value))
                                                                     : std::nullopt;
        } else {
            auto const value = wrapped(*number);
            if (!value || *value > std::numeric_limits<std::make_unsigned_t<T>>::max() ||
                (std::is_same_v<T, std::uint32_t> && aText.front() == '-')) {
                return std::nullopt;
            }
            return static_cast<T>(*value);
        }
    }
}

/// Whether a refusal has the words of its type, which end at a zero byte.
bool isRefusal(std::string const& aWords, std::string const& aText, std::string const& aType) {
    std::string const begin = "Cannot convert value '" + aText + "' to " + aType;
    return aWords.starts_with(begin.c_str());
}

template <typename Register, typename T>
void tryAs(std::shared_ptr<FakeRegisterTree> const& aTree, std::string const& aText, char const* aType) {
    constexpr bool kWraps = sizeof(T) != 2; // 16 bits let the parser's own exceptions out
    auto const wanted = expected<T>(aText);
    Register const file("fuzz", "/reg", aTree);
    try {
        T const value = file.get();
        expect(wanted && value == *wanted);
    } catch (std::invalid_argument const& error) {
        expect(!wanted);
        expect(isRefusal(error.what(), aText, aType) || (!kWraps && std::string(error.what()) == "stoul"));
    } catch (std::out_of_range const& error) {
        expect(!wanted && !kWraps && std::string(error.what()) == "stoul");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* aData, std::size_t aSize) {
    static auto const kTree = std::make_shared<FakeRegisterTree>();
    std::string text(reinterpret_cast<char const*>(aData), aSize);
    kTree->put("/reg", text);
    if (text.ends_with('\n')) {
        text.pop_back();
    }
    tryAs<LockQ47HardwareRegister<bool>, bool>(kTree, text, "boolean");
    tryAs<LockQ47HardwareRegister<std::uint8_t>, std::uint8_t>(kTree, text, "uint8_t");
    tryAs<LockQ47HardwareRegisterClearable<std::uint16_t>, std::uint16_t>(kTree, text, "uint16_t");
    tryAs<LockQ47HardwareRegisterReadOnly<std::int16_t>, std::int16_t>(kTree, text, "int16_t");
    tryAs<LockQ47HardwareRegister<std::uint32_t>, std::uint32_t>(kTree, text, "uint32_t");
    tryAs<LockQ47HardwareRegister<std::int32_t>, std::int32_t>(kTree, text, "int32_t");

    // Both words of a 64-bit register.
    auto const word = expected<std::uint32_t>(text);
    LockQ47HardwareRegisterReadOnly<long long> const wide("fuzz", "/reg", "/reg", kTree);
    try {
        auto const value = static_cast<std::uint64_t>(wide.get());
        expect(word && value == (std::uint64_t{*word} << 32U | *word));
    } catch (std::invalid_argument const& error) {
        expect(!word && isRefusal(error.what(), text, "uint32_t"));
    }

    // An enumeration takes every byte.
    auto const byte = expected<std::uint8_t>(text);
    LockQ47HardwareRegisterCast<LockHardwareFredSource, std::uint8_t> const cast("fuzz", "/reg", kTree);
    try {
        auto const value = static_cast<std::uint8_t>(cast.get());
        expect(byte && value == *byte);
    } catch (std::invalid_argument const& error) {
        expect(!byte && isRefusal(error.what(), text, "uint8_t"));
    }
    kTree->takeJournal();
    return 0;
}
