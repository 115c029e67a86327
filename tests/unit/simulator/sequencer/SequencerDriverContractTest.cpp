// SPDX-License-Identifier: Apache-2.0
// The simulated sequencer's driver keeps the contract of all drivers.
#include "SequencerFixture.h"
#include "support/SeqlockDriverContract.h"

namespace libfieldwarden::sim {

namespace {

/// A sequencer that runs, stepped by hand.
class SimulatedDriverRig final : public test::SeqlockDriverRig, private SequencerFixture {
public:
    SimulatedDriverRig() {
        make(magnetAt(100.0));
        write("irq/fid_done_mask", 1);
        write("log/pid_itf_enable", 1);
    }

    SequencerDriver& driver() override { return *mDriver; }
    void interrupt() override { step(); }
    void packet() override { step(); }
    bool programCame() override {
        return read("status/seq_instr_mem_error") == 1; // it runs, so its memory is closed
    }

private:
    void TestBody() override {}
};

} // namespace

} // namespace libfieldwarden::sim

namespace libfieldwarden::test {

INSTANTIATE_TYPED_TEST_SUITE_P(Simulated, SeqlockDriverContract, libfieldwarden::sim::SimulatedDriverRig);

} // namespace libfieldwarden::test
