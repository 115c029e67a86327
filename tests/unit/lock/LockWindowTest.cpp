// SPDX-License-Identifier: Apache-2.0
// The window's way from its file into the sequencer.
#include "lock/LockWindow.h"

#include "lock/LockParameters.h"

#include "support/ExpectThrow.h"
#include "support/FakeBackend.h"
#include "support/FakeLockHardware.h"
#include "support/TemporaryDirectory.h"

#include <filesystem>
#include <initializer_list>
#include <memory>
#include <stdexcept>
#include <string>

#include <gmock/gmock.h>

namespace {

using libfieldwarden::test::expectThrow;
using libfieldwarden::test::FakeBackendScope;
using libfieldwarden::test::FakeLockHardware;
using libfieldwarden::test::TemporaryDirectory;
using libfieldwarden::test::writeFile;
using testing::ElementsAre;
using testing::IsEmpty;

class LockWindowTest : public testing::Test {
protected:
    LockWindowTest() {
        mBackend->instrumentPathDoor = [this](std::filesystem::path const& aPath) {
            return mDirectory.path() / aPath.relative_path();
        };
    }

    TemporaryDirectory mDirectory;
    FakeBackendScope mBackend;
    std::shared_ptr<FakeLockHardware> mHardware = std::make_shared<FakeLockHardware>();
    LockWindow mWindow{mHardware, std::make_shared<LockParameters>("/nonexistent/lock.config")};
};

} // namespace

TEST_F(LockWindowTest, SetsTheZerosAndLoadsTheWholeFile) {
    std::string const window("\0\x01\r\n\xff\x1a", 6);
    writeFile(mDirectory.path() / "usr/share/firmware/Q47Lock/window.bin", window);
    mWindow.load(0xFC11);
    EXPECT_THAT(mHardware->takeJournal(), ElementsAre("set data/fft_zeros = 64529", "loadWindow(6 bytes)"));
    EXPECT_EQ(mHardware->window(), window);
}

TEST_F(LockWindowTest, HasNoWindowForAnotherNumberOfZeros) {
    writeFile(mDirectory.path() / "usr/share/firmware/Q47Lock/window.bin", "12345");
    // The first is the one that the words name.
    for (auto const zeros : std::initializer_list<unsigned short>{0xFE6D, 0, 0xFC10, 0xFFFF}) {
        expectThrow<std::invalid_argument>(
            [&] { mWindow.load(zeros); },
            "Current lock window implementation only supports FFT Zero padding of 0xFE6D");
    }
    EXPECT_THAT(mHardware->takeJournal(), IsEmpty());
}

TEST_F(LockWindowTest, NamesTheFileThatCannotBeOpened) {
    expectThrow<std::runtime_error>(
        [&] { mWindow.load(0xFC11); },
        "Could not open lock window file at '/usr/share/firmware/Q47Lock/window.bin'");
    EXPECT_THAT(mHardware->takeJournal(), IsEmpty());
}
