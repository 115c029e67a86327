// SPDX-License-Identifier: Apache-2.0
// A temperature board with a flow box behind its byte, by script.
#pragma once

#include "support/FakeTempBoard.h"

#include <functional>

namespace libfieldwarden::test {

/// The flow byte reads as the box makes it of what was written; as it was written unless the test says else.
class FakeFlowBoxBoard : public FakeTempBoard {
public:
    FakeFlowBoxBoard() { set("probeGasFlow", 0); }

    void setProbeGasFlow(unsigned char aFlowIndex) override {
        FakeTempBoard::setProbeGasFlow(aFlowIndex);
        set("probeGasFlow", readBack(aFlowIndex));
    }

    /// What reads back of a written byte.
    std::function<unsigned char(unsigned char)> readBack = [](unsigned char aWritten) { return aWritten; };
};

} // namespace libfieldwarden::test
