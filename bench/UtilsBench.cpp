// SPDX-License-Identifier: Apache-2.0
// The small helpers beside the plain expressions that they stand for.
#include <velmor/kepla/utils/Bits.h>
#include <velmor/kepla/utils/EnumUtils.h>

#include <array>
#include <string_view>

#include <benchmark/benchmark.h>

namespace {

using velmor::kepla::utils::Bits;

enum class Unit { None, Kelvin, Ampere, Hertz };

} // namespace

template <>
struct velmor::kepla::utils::EnumTexts<Unit> {
    static constexpr std::array<EnumText<Unit>, 4> kTexts{
        {{Unit::None, "none"}, {Unit::Kelvin, "K"}, {Unit::Ampere, "A"}, {Unit::Hertz, "Hz"}}};
};

namespace {

using Units = velmor::kepla::utils::EnumUtils<Unit>;

void signed24Ours(benchmark::State& aState) {
    unsigned int word = 0x923456;
    for ([[maybe_unused]] auto _ : aState) {
        benchmark::DoNotOptimize(word);
        benchmark::DoNotOptimize(Bits::signed24bto32b(word));
    }
}
BENCHMARK(signed24Ours)->Name("sign of 24 bits/Bits");

void signed24Plain(benchmark::State& aState) {
    unsigned int word = 0x923456;
    for ([[maybe_unused]] auto _ : aState) {
        benchmark::DoNotOptimize(word);
        benchmark::DoNotOptimize(static_cast<int>(word << 8U) >> 8);
    }
}
BENCHMARK(signed24Plain)->Name("sign of 24 bits/plain");

void signed48Ours(benchmark::State& aState) {
    unsigned long long word = 0x923456789ABCULL;
    for ([[maybe_unused]] auto _ : aState) {
        benchmark::DoNotOptimize(word);
        benchmark::DoNotOptimize(Bits::signed48bto64b(word));
    }
}
BENCHMARK(signed48Ours)->Name("sign of 48 bits/Bits");

void signed48Plain(benchmark::State& aState) {
    unsigned long long word = 0x923456789ABCULL;
    for ([[maybe_unused]] auto _ : aState) {
        benchmark::DoNotOptimize(word);
        benchmark::DoNotOptimize(static_cast<long long>(word << 16U) >> 16);
    }
}
BENCHMARK(signed48Plain)->Name("sign of 48 bits/plain");

void patternOurs(benchmark::State& aState) {
    int value = -12345;
    for ([[maybe_unused]] auto _ : aState) {
        benchmark::DoNotOptimize(value);
        benchmark::DoNotOptimize(Bits::two_complement(value, 24));
    }
}
BENCHMARK(patternOurs)->Name("24-bit pattern/Bits");

void patternPlain(benchmark::State& aState) {
    int value = -12345;
    for ([[maybe_unused]] auto _ : aState) {
        benchmark::DoNotOptimize(value);
        benchmark::DoNotOptimize(static_cast<unsigned int>(value) & 0xFFFFFFU);
    }
}
BENCHMARK(patternPlain)->Name("24-bit pattern/plain");

std::string_view plainText(Unit aUnit) {
    switch (aUnit) {
        case Unit::Kelvin:
            return "K";
        case Unit::Ampere:
            return "A";
        case Unit::Hertz:
            return "Hz";
        default:
            return "none";
    }
}

void enumOurs(benchmark::State& aState) {
    auto unit = Unit::Ampere;
    for ([[maybe_unused]] auto _ : aState) {
        benchmark::DoNotOptimize(unit);
        benchmark::DoNotOptimize(Units::to_string(unit));
    }
}
BENCHMARK(enumOurs)->Name("text of a value/EnumUtils");

void enumPlain(benchmark::State& aState) {
    auto unit = Unit::Ampere;
    for ([[maybe_unused]] auto _ : aState) {
        benchmark::DoNotOptimize(unit);
        benchmark::DoNotOptimize(plainText(unit));
    }
}
BENCHMARK(enumPlain)->Name("text of a value/switch");

} // namespace
