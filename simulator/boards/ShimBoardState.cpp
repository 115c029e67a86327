// SPDX-License-Identifier: Apache-2.0
// Reading and writing the state of a simulated shim board.
#include "simulator/boards/ShimBoardState.h"

#include "simulator/boards/StateDocument.h"

#include <stdexcept>

namespace libfieldwarden::sim {

using nlohmann::json;

namespace {

constexpr int kSchema = 1;

ShimBoardState stateOf(json const& aDocument) {
    ShimBoardState state;
    readBoardState(aDocument, kSchema, state);
    json const& currents = aDocument.at("currentsUA");
    if (!currents.is_array() || currents.size() != state.currentsUA.size()) {
        throw std::runtime_error("'currentsUA' are not 17 numbers");
    }
    for (std::size_t source = 0; source < state.currentsUA.size(); ++source) {
        constexpr std::int64_t kLimit = ShimBoardState::kLargestCurrentUA;
        state.currentsUA[source] =
            static_cast<std::int32_t>(wholeNumber(currents[source], "currentsUA", -kLimit, kLimit));
    }
    return state;
}

} // namespace

std::optional<ShimBoardState> ShimBoardState::load(std::filesystem::path const& aPath) {
    ShimBoardState state;
    bool const there = loadDocument(aPath, [&](json const& aDocument) { state = stateOf(aDocument); });
    return there ? std::optional(state) : std::nullopt;
}

void ShimBoardState::save(std::filesystem::path const& aPath) const {
    json document = documentOf(*this, kSchema);
    document["currentsUA"] = currentsUA;
    saveDocument(document, aPath);
}

} // namespace libfieldwarden::sim
