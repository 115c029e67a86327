// SPDX-License-Identifier: Apache-2.0
// Reading and writing the state of a simulated temperature board.
#include "simulator/boards/TemperatureBoardState.h"

#include "simulator/boards/StateDocument.h"

#include <algorithm>
#include <limits>
#include <stdexcept>

#include <fmt/format.h>

namespace libfieldwarden::sim {

using nlohmann::json;

namespace {

constexpr int kSchema = 1;
constexpr ObjectDictionary::SdoObject kShimTarget{0x3104, 1};

ObjectRow const& rowOf(ObjectDictionary::SdoObject aObject) {
    auto const found = std::find_if(
        kTemperatureBoardObjects.begin(), kTemperatureBoardObjects.end(), [&](ObjectRow const& aRow) {
            return aRow.index == aObject.index && aRow.first <= aObject.subindex &&
                   aObject.subindex <= aRow.last;
        });
    if (found == kTemperatureBoardObjects.end()) {
        throw std::logic_error("A setup holds an object that the board does not have");
    }
    return *found;
}

/// @return The values that the object may take.
ObjectRange rangeOf(ObjectDictionary::SdoObject aObject) {
    ObjectRow const& row = rowOf(aObject);
    return row.range.value_or(ObjectRange{0, std::numeric_limits<std::uint16_t>::max()});
}

std::string keyOf(ObjectDictionary::SdoObject aObject) {
    return fmt::format("{:04X}:{:02X}", aObject.index, aObject.subindex);
}

json documentOfSetup(TemperatureBoardState::Setup const& aSetup) {
    json document;
    for (std::size_t place = 0; place < aSetup.size(); ++place) {
        document[keyOf(kTemperatureSetup[place])] = aSetup[place];
    }
    return document;
}

TemperatureBoardState::Setup setupOf(json const& aDocument) {
    TemperatureBoardState::Setup setup{};
    for (std::size_t place = 0; place < setup.size(); ++place) {
        std::string const key = keyOf(kTemperatureSetup[place]);
        ObjectRange const range = rangeOf(kTemperatureSetup[place]);
        setup[place] =
            static_cast<std::int32_t>(wholeNumber(aDocument.at(key), key, range.lowest, range.highest));
    }
    return setup;
}

TemperatureBoardState stateOf(json const& aDocument) {
    TemperatureBoardState state;
    readBoardState(aDocument, kSchema, state);
    state.setup = setupOf(aDocument.at("setup"));
    state.storedSetup = setupOf(aDocument.at("storedSetup"));
    state.eepromWrites = static_cast<std::uint32_t>(wholeNumber(
        aDocument.at("eepromWrites"), "eepromWrites", 0, std::numeric_limits<std::uint32_t>::max()));
    json const& targets = aDocument.at("shimTargets");
    if (!targets.is_array() || targets.size() != state.shimTargets.size()) {
        throw std::runtime_error("'shimTargets' are not 2 numbers");
    }
    ObjectRange const range = rangeOf(kShimTarget);
    for (std::size_t end = 0; end < state.shimTargets.size(); ++end) {
        state.shimTargets[end] =
            static_cast<std::uint16_t>(wholeNumber(targets[end], "shimTargets", range.lowest, range.highest));
    }
    return state;
}

} // namespace

TemperatureBoardState::Setup TemperatureBoardState::factorySetup() {
    Setup setup{};
    std::transform(kTemperatureSetup.begin(), kTemperatureSetup.end(), setup.begin(),
                   [](ObjectDictionary::SdoObject aObject) {
                       return static_cast<std::int32_t>(rowOf(aObject).powerOn);
                   });
    return setup;
}

std::optional<TemperatureBoardState> TemperatureBoardState::load(std::filesystem::path const& aPath) {
    TemperatureBoardState state;
    bool const there = loadDocument(aPath, [&](json const& aDocument) { state = stateOf(aDocument); });
    return there ? std::optional(state) : std::nullopt;
}

void TemperatureBoardState::save(std::filesystem::path const& aPath) const {
    json document = documentOf(*this, kSchema);
    document["setup"] = documentOfSetup(setup);
    document["storedSetup"] = documentOfSetup(storedSetup);
    document["eepromWrites"] = eepromWrites;
    document["shimTargets"] = shimTargets;
    saveDocument(document, aPath);
}

} // namespace libfieldwarden::sim
