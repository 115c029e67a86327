// SPDX-License-Identifier: Apache-2.0
// A thousand openings of the library in one process: nothing may pile up.
#include "simulator/instrument/Instrument.h"
#include "simulator/instrument/SimulatedBackend.h"
#include "support/TemporaryDirectory.h"

#include <fieldwarden/FieldwardenInterface.h>
#include <velmor/kepla/log/Configuration.h>
#include <velmor/platform/Backend.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>

#include <gtest/gtest.h>
#include <malloc.h>
#include <unistd.h>

namespace {

using libfieldwarden::sim::Instrument;
using libfieldwarden::test::TemporaryDirectory;
using velmor::platform::Backend;

std::ptrdiff_t entriesOf(char const* aFolder) {
    return std::distance(std::filesystem::directory_iterator(aFolder), std::filesystem::directory_iterator());
}

/// What a process may pile up.
struct Footprint {
    std::ptrdiff_t threads = entriesOf("/proc/self/task");
    std::ptrdiff_t descriptors = entriesOf("/proc/self/fd");
    long residentPages = [] {
        long size = 0;
        long resident = 0;
        std::ifstream("/proc/self/statm") >> size >> resident;
        return resident;
    }();
};

/// Opens and closes the library often, and expects that nothing piles up.
/// @param aTimes  At least 10 more than are to be counted: the first ten let the process take what it keeps.
void expectNothingLeftBehindBy(int aTimes) {
    constexpr int kWarmUp = 10;
    // Without this the allocator keeps the first large blocks for good, which would look like growth.
    mallopt(M_MMAP_THRESHOLD, 128 * 1024); // NOLINT(concurrency-mt-unsafe): there is no other thread yet.
    TemporaryDirectory const directory;
    Backend::use(libfieldwarden::sim::makeSimulatedBackend(
        std::make_shared<Instrument>(Instrument::Options{.folder = directory.path()})));
    velmor::kepla::log::Configuration::initWith({});
    Footprint before;
    for (int i = 0; i < aTimes; ++i) {
        if (i == kWarmUp) {
            before = Footprint();
        }
        FieldwardenInterface::openInterface();
        FieldwardenInterface::closeInterface();
    }
    Footprint const after;
    EXPECT_EQ(after.threads, before.threads);
    EXPECT_EQ(after.descriptors, before.descriptors);
    testing::Test::RecordProperty("resident pages before", static_cast<int>(before.residentPages));
    testing::Test::RecordProperty("resident pages after", static_cast<int>(after.residentPages));
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    // A leak of a single small block an opening would be as many blocks as openings; a quarter of a MiB is
    // the allocator's own play.
    long const quarterMiB = 256L * 1024 / sysconf(_SC_PAGESIZE);
    EXPECT_LE(after.residentPages - before.residentPages, quarterMiB);
#endif
    Backend::use(nullptr);
}

TEST(OpenClose, LeavesNoThreadDescriptorOrMemoryBehindInAThousandTimes) {
    std::filesystem::create_directory("/tmp/lockmock");
#if defined(__SANITIZE_THREAD__)
    expectNothingLeftBehindBy(250); // A thousand take minutes there.
#else
    expectNothingLeftBehindBy(1000);
#endif
    std::filesystem::remove_all("/tmp/lockmock");
}

// Lock and temperature service keep each other: were the ring not opened on the way down, each opening would
// leave both behind, with the threads of the lock and of the adjustable temperature.
TEST(OpenClose, LeavesNothingOfTheRealLockAndTheTemperatureServiceBehind) {
    ASSERT_FALSE(std::filesystem::exists("/tmp/lockmock"));
    expectNothingLeftBehindBy(100);
}

} // namespace
