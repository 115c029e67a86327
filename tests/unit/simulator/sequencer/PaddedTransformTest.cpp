// SPDX-License-Identifier: Apache-2.0
// The zero-padded transform against the sum that defines it.
#include "simulator/sequencer/PaddedTransform.h"

#include <cmath>
#include <numbers>
#include <random>

#include <gmock/gmock.h>

namespace {

using libfieldwarden::sim::PaddedTransform;
using Values = std::vector<PaddedTransform::Value>;

Values randomPoints(std::size_t aCount) {
    std::mt19937_64 random(11);
    std::uniform_real_distribution<double> part(-1.0, 1.0);
    Values points(aCount);
    for (auto& point : points) {
        point = {part(random), part(random)};
    }
    return points;
}

PaddedTransform::Value byDefinition(Values const& aPoints, std::size_t aIndex) {
    PaddedTransform::Value sum;
    for (std::size_t n = 0; n < aPoints.size(); ++n) {
        double const turns = static_cast<double>(n * aIndex % 65'536) / 65'536.0;
        sum += aPoints[n] * std::polar(1.0, -2.0 * std::numbers::pi * turns);
    }
    return sum;
}

class PaddedTransformOf : public testing::TestWithParam<std::size_t> {};

TEST_P(PaddedTransformOf, IsTheSumThatDefinesIt) {
    Values const points = randomPoints(GetParam());
    PaddedTransform transform;
    transform.transform(points);
    for (std::size_t const k :
         {0U, 1U, 2U, 63U, 64U, 65U, 1023U, 1024U, 12'345U, 32'767U, 32'768U, 65'535U}) {
        auto const expected = byDefinition(points, k);
        EXPECT_NEAR(std::abs(transform.at(k) - expected), 0.0, 1e-8) << "at " << k;
    }
}

INSTANTIATE_TEST_SUITE_P(Points, PaddedTransformOf, testing::Values(0, 1, 2, 1007, 1024, 1025, 65'536));

TEST(PaddedTransform, GivesTheSameTheShortWayAndTheLongWay) {
    Values const points = randomPoints(1007);
    PaddedTransform quick;
    PaddedTransform plain;
    quick.transform(points);
    plain.transformPlainly(points);
    for (std::size_t k = 0; k < PaddedTransform::kLength; ++k) {
        ASSERT_NEAR(std::abs(quick.at(k) - plain.at(k)), 0.0, 1e-9) << "at " << k;
    }
    EXPECT_EQ(quick.peak().index, plain.peak().index);
}

TEST(PaddedTransform, FindsThePeakOfATone) {
    // A tone of bin 65,000 in 1,007 points sums up to 1,007 there.
    Values points(1007);
    for (std::size_t n = 0; n < points.size(); ++n) {
        points[n] = std::polar(1.0, 2.0 * std::numbers::pi * static_cast<double>(n) * 65'000.0 / 65'536.0);
    }
    PaddedTransform transform;
    transform.transform(points);
    EXPECT_EQ(transform.peak().index, 65'000U);
    EXPECT_NEAR(transform.peak().magnitude, 1007.0, 1e-8);
}

TEST(PaddedTransform, ForgetsTheFormerPoints) {
    PaddedTransform transform;
    transform.transform(randomPoints(1024));
    transform.transform(Values(3, {1.0, 0.0}));
    EXPECT_NEAR(std::abs(transform.at(0) - 3.0), 0.0, 1e-12);
    transform.transformPlainly(randomPoints(2000));
    transform.transformPlainly(Values(3, {1.0, 0.0}));
    EXPECT_NEAR(std::abs(transform.at(0) - 3.0), 0.0, 1e-12);
}

} // namespace
