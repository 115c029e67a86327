// SPDX-License-Identifier: Apache-2.0
// Values and texts of the sequencer's registers.
#include "simulator/sequencer/RegisterFile.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include <fmt/format.h>

namespace libfieldwarden::sim {

namespace {

constexpr std::uint32_t maskOf(unsigned aBits) {
    return aBits >= 32 ? ~0U : (1U << aBits) - 1U;
}

constexpr std::int32_t withSign(std::uint32_t aValue, unsigned aBits) {
    unsigned const unused = 32 - aBits;
    return static_cast<std::int32_t>(aValue << unused) >> unused;
}

/// The greatest unsigned number that a text of this form may be.
constexpr long long greatest(RegisterFile::Form aForm) {
    switch (aForm) {
        case RegisterFile::Form::Bit:
            return 1;
        case RegisterFile::Form::Byte:
            return 0xFF;
        case RegisterFile::Form::Half:
            return 0xFFFF;
        default:
            return 0xFFFF'FFFF;
    }
}

} // namespace

RegisterFile::RegisterFile() {
    for (std::size_t i = 0; i < kRows.size(); ++i) {
        mValues[i] = kRows[i].powerOn;
    }
}

std::optional<SequencerRegister> RegisterFile::find(std::string_view aPath) {
    auto const found =
        std::find_if(kRows.begin(), kRows.end(), [&](Row const& aRow) { return aRow.path == aPath; });
    if (found == kRows.end()) {
        return std::nullopt;
    }
    return static_cast<SequencerRegister>(found - kRows.begin());
}

std::int32_t RegisterFile::getSigned(SequencerRegister aRegister) const {
    return withSign(get(aRegister), row(aRegister).bits);
}

std::int64_t RegisterFile::getSigned48(SequencerRegister aHigh, SequencerRegister aLow) const {
    std::int64_t const high = withSign(get(aHigh), 16);
    return (high * (std::int64_t{1} << 32)) + get(aLow);
}

void RegisterFile::set(SequencerRegister aRegister, std::uint32_t aValue) {
    mValues[index(aRegister)] = aValue & maskOf(row(aRegister).bits);
}

std::string RegisterFile::text(SequencerRegister aRegister) const {
    switch (row(aRegister).form) {
        case Form::Word:
            return fmt::format("{:#010x}\n", get(aRegister));
        case Form::SignedWord:
            return fmt::format("{}\n", getSigned(aRegister));
        default:
            return fmt::format("{}\n", get(aRegister));
    }
}

std::optional<std::uint32_t> RegisterFile::parse(SequencerRegister aRegister, std::string_view aText) {
    Form const form = row(aRegister).form;
    std::string digits(aText);
    if (!digits.empty() && digits.back() == '\n') {
        digits.pop_back();
    }
    if (digits.empty() || digits.find('\0') != std::string::npos) {
        return std::nullopt;
    }
    errno = 0;
    char* end = nullptr;
    long long const value = std::strtoll(digits.c_str(), &end, 0);
    if (errno != 0 || *end != '\0') {
        return std::nullopt;
    }
    long long const least = form == Form::SignedWord ? -0x8000'0000LL : 0;
    if (value < least || value > greatest(form)) {
        return std::nullopt;
    }
    return static_cast<std::uint32_t>(value) & maskOf(row(aRegister).bits);
}

} // namespace libfieldwarden::sim
