// SPDX-License-Identifier: Apache-2.0
// Which program images a board takes and why it refuses the others.
#include "simulator/boards/ProgramImage.h"

#include "simulator/boards/ShimBoard.h"
#include "unit/simulator/boards/PackedImage.h"

#include <velmor/kepla/canopen/BuildInfo.h>
#include <velmor/kepla/canopen/FirmwareImage.h>

#include <string>

#include <gmock/gmock.h>

namespace {

using libfieldwarden::sim::FlashError;
using libfieldwarden::sim::ProgramImage;
using libfieldwarden::sim::ProgramImageError;
using libfieldwarden::sim::ShimBoard;
using libfieldwarden::test::gzipped;
using libfieldwarden::test::ImageBytes;
using libfieldwarden::test::PlainImage;

/// @return The error with which the image is refused.
FlashError refusal(ImageBytes const& aPacked) {
    try {
        ProgramImage::check(aPacked, "Q47-SHIM");
    } catch (ProgramImageError const& error) {
        return error.error();
    }
    return FlashError::None;
}

TEST(ProgramImage, TellsWhatItsHeaderSays) {
    auto const image = ProgramImage::check(PlainImage{}.packed(), "Q47-SHIM");
    EXPECT_EQ(image.buildId, 2000U);
    EXPECT_EQ(image.length, 1048U); // 48 + 1000
    EXPECT_EQ(image.version, "2.0.0");
    EXPECT_EQ(image.platform, "Q47-SHIM");
}

TEST(ProgramImage, IsRefusedWithAnotherMagicWord) {
    EXPECT_EQ(refusal(PlainImage{.magic = "Q47X"}.packed()), FlashError::UnknownFormat);
}

TEST(ProgramImage, IsRefusedForAnotherPlatform) {
    EXPECT_EQ(refusal(PlainImage{.platform = "Q47-TEMP"}.packed()), FlashError::UnknownFormat);
}

TEST(ProgramImage, IsRefusedWithAWrongCheckSum) {
    EXPECT_EQ(refusal(PlainImage{.crcError = 1}.packed()), FlashError::Damaged);
}

TEST(ProgramImage, IsRefusedWithAWrongLength) {
    EXPECT_EQ(refusal(PlainImage{.lengthError = 1}.packed()), FlashError::Damaged);
}

TEST(ProgramImage, IsRefusedWithoutABuildId) {
    EXPECT_EQ(refusal(PlainImage{.buildId = 0}.packed()), FlashError::Damaged);
}

TEST(ProgramImage, IsRefusedWhenItEndsWithinItsHeader) {
    ImageBytes bytes = PlainImage{}.bytes();
    bytes.resize(47);
    EXPECT_EQ(refusal(gzipped(bytes)), FlashError::Damaged);
    bytes.resize(3);
    EXPECT_EQ(refusal(gzipped(bytes)), FlashError::UnknownFormat);
}

TEST(ProgramImage, IsRefusedCutOffAtAnyPlace) {
    ImageBytes const packed = PlainImage{.programSize = 100}.packed();
    for (std::size_t size = 0; size < packed.size(); ++size) {
        EXPECT_NE(refusal({packed.begin(), packed.begin() + static_cast<std::ptrdiff_t>(size)}),
                  FlashError::None)
            << size;
    }
}

TEST(ProgramImage, IsRefusedWithAnyBitOfItsContentsTurnedOver) {
    ImageBytes const bytes = PlainImage{.programSize = 100}.bytes();
    for (std::size_t bit = 0; bit < 8 * bytes.size(); ++bit) {
        ImageBytes spoilt = bytes;
        spoilt[bit / 8] ^= static_cast<std::uint8_t>(1U << (bit % 8));
        EXPECT_NE(refusal(gzipped(spoilt)), FlashError::None) << bit;
    }
}

TEST(ProgramImage, IsRefusedWithACompressedByteTurnedOver) {
    ImageBytes const packed = PlainImage{.programSize = 100}.packed();
    constexpr std::size_t kHeader = 10;                    // Its time stamp and system byte mean nothing.
    constexpr std::size_t kTrailer = 8;                    // Check sum and length.
    std::size_t const last = packed.size() - kTrailer - 1; // Its upper bits may be padding.
    for (std::size_t byte = kHeader; byte < packed.size(); ++byte) {
        ImageBytes spoilt = packed;
        spoilt[byte] ^= byte == last ? 0x01U : 0xFFU;
        EXPECT_NE(refusal(spoilt), FlashError::None) << byte;
    }
}

TEST(ProgramImage, IsRefusedWhenItIsNotCompressed) {
    EXPECT_EQ(refusal(PlainImage{}.bytes()), FlashError::UnknownFormat);
}

TEST(ProgramImage, IsRefusedWithSomethingBehindIt) {
    ImageBytes packed = PlainImage{}.packed();
    packed.push_back(0);
    EXPECT_EQ(refusal(packed), FlashError::Damaged);
}

TEST(ProgramImage, IsRefusedWhenItIsLargerThanTheFlash) {
    EXPECT_EQ(refusal(PlainImage{.programSize = ProgramImage::kLargest - 48}.packed()), FlashError::None);
    EXPECT_EQ(refusal(PlainImage{.programSize = ProgramImage::kLargest - 47}.packed()), FlashError::Damaged);
}

TEST(StoredFirmware, IsTheOneThatANewBoardHas) {
    std::string const folder = FIRMWARE_FOLDER;
    auto const stored = velmor::kepla::canopen::FirmwareImage::load(folder + "/Q47_Shim_CAN_update.bin.gz");
    auto const info = velmor::kepla::canopen::BuildInfo::load(folder + "/build.info");
    ASSERT_TRUE(info.has_value());
    EXPECT_EQ(info->jenkinsBuildId, ShimBoard::kFactoryBuildId);
    EXPECT_EQ(info->platform, std::string(ShimBoard::kPlatform));
    auto const image = ProgramImage::check(stored.bytes(), std::string(ShimBoard::kPlatform));
    EXPECT_EQ(image.buildId, ShimBoard::kFactoryBuildId);
    EXPECT_EQ(image.version, ShimBoard::kFactoryVersion);
    velmor::platform::Clock& clock = velmor::platform::Clock::real();
    ShimBoard board({}, clock);
    std::vector<std::uint8_t> length;
    std::vector<std::uint8_t> crc;
    ASSERT_EQ(board.read({0x200C, 3}, length), 0U);
    ASSERT_EQ(board.read({0x200C, 4}, crc), 0U);
    auto const bytesOf = [](std::uint32_t aNumber) {
        return std::vector<std::uint8_t>{
            static_cast<std::uint8_t>(aNumber), static_cast<std::uint8_t>(aNumber >> 8U),
            static_cast<std::uint8_t>(aNumber >> 16U), static_cast<std::uint8_t>(aNumber >> 24U)};
    };
    EXPECT_EQ(length, bytesOf(image.length));
    EXPECT_EQ(crc, bytesOf(image.crc));
}

} // namespace
