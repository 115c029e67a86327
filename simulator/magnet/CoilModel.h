// SPDX-License-Identifier: Apache-2.0
// What field the shim coils make of the currents that the boards drive.
#pragma once

#include <array>
#include <cstddef>
#include <span>
#include <string_view>

namespace libfieldwarden::sim {

/// The shim systems that can be fitted to the simulated magnet.
enum class ShimSystem { Wmxs1a, Wmxs1b, Wmxs1c, Wmxs2a };

/// A field term: a solid harmonic that reads rho^m times cos(m phi), or for the sine ones sin(m phi), times
/// (z^(degree - m) + lower powers of z).
struct Harmonic {
    std::string_view name; ///< As a user calls it: "Z3", "XYZ2".
    int degree;            ///< n; the strength of the term is given in Hz/cm^n.
    int order;             ///< m.
    bool sine;             ///< Whether it is the second of its pair, such as Y beside X.
};

/// The coils of one shim system as physics: from 34 currents to the strength of each harmonic.
///
/// The model knows how the coils are wound, how they sit in their body and which wire goes where, and nothing
/// of matrix files: a wrong matrix shows up as a wrong field. Coils are wound for one harmonic each, bring
/// along some of the next but one of the same order, and sit a few tenths of a millimetre and about a degree
/// off; simulator/data/make-matrices.py tells the equations and works from the same build data on its own.
///
/// Immutable: any thread may call. Nothing blocks.
class CoilModel {
public:
    static constexpr std::size_t kSources = 34; ///< Current sources: 0 to 16 on board 1, 17 to 33 on board 2.
    static constexpr std::size_t kHarmonics = 39; ///< Harmonics that have a name.

    explicit CoilModel(ShimSystem aSystem);

    /// @return The harmonics in the order in which field() tells their strengths.
    static std::span<Harmonic const, kHarmonics> harmonics() noexcept;

    /// @return The place of a harmonic in harmonics().
    /// @throws std::invalid_argument  when there is none of that name.
    static std::size_t indexOf(std::string_view aName);

    /// @param aCurrentsAmpere  By source, in A.
    /// @return The strength of each harmonic, in Hz of the proton frequency per cm^degree.
    std::array<double, kHarmonics> field(std::span<double const, kSources> aCurrentsAmpere) const noexcept;

    /// @return What one source makes at 1 A, in Hz/cm^degree by harmonic.
    /// @throws std::out_of_range  when there is no such source.
    std::array<double, kHarmonics> const& response(std::size_t aSource) const;

private:
    std::array<std::array<double, kHarmonics>, kSources> mResponse{};
};

} // namespace libfieldwarden::sim
