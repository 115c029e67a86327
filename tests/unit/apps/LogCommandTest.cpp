// SPDX-License-Identifier: Apache-2.0
// The times that `log show --since` takes.
#include "apps/fieldwarden/LogCommand.h"

#include "apps/fieldwarden/WrongUsage.h"

#include <chrono>

#include <gmock/gmock.h>

namespace {

using libfieldwarden::app::parseSince;
using libfieldwarden::app::WrongUsage;
using namespace std::chrono;
using namespace std::chrono_literals;

// 2026-11-21 14:00:00 UTC
constexpr system_clock::time_point kNow = sys_days(2026y / 11 / 21) + 14h;

TEST(ParseSince, GoesBackFromNow) {
    EXPECT_EQ(parseSince("30s", kNow), kNow - 30s);
    EXPECT_EQ(parseSince("10min", kNow), kNow - 600s);
    EXPECT_EQ(parseSince("1.5h", kNow), kNow - 5400s);
    EXPECT_EQ(parseSince("2d", kNow), kNow - 48h);
    EXPECT_EQ(parseSince("0s", kNow), kNow);
}

TEST(ParseSince, EndsAtTheBeginningOfTime) {
    EXPECT_EQ(parseSince("1e300d", kNow), system_clock::time_point{});
}

TEST(ParseSince, TakesAPointInTime) {
    EXPECT_EQ(parseSince("2026-11-20", kNow), sys_days(2026y / 11 / 20));
    EXPECT_EQ(parseSince("2026-11-20Z", kNow), sys_days(2026y / 11 / 20));
    EXPECT_EQ(parseSince("2026-11-20T23:05", kNow), sys_days(2026y / 11 / 20) + 23h + 5min);
    EXPECT_EQ(parseSince("2026-11-20T23:05:07", kNow), sys_days(2026y / 11 / 20) + 23h + 5min + 7s);
    EXPECT_EQ(parseSince("2026-11-20T23:05:07.250Z", kNow),
              sys_days(2026y / 11 / 20) + 23h + 5min + 7s + 250ms); // As 'log show' itself writes it.
}

TEST(ParseSince, RefusesAnythingElse) {
    for (char const* const text : {"",
                                   "s",
                                   "min",
                                   "soon",
                                   "-5min",
                                   "nans",
                                   "infd",
                                   "5",
                                   "5 min",
                                   "5weeks",
                                   "2026",
                                   "2026-11",
                                   "2026-13-01",
                                   "2026-02-30",
                                   "2026-11-21Zulu",
                                   "2026-11-21T25:00",
                                   "2026-11-21T14:00:00.Z",
                                   "2026-11-21T14:00+02:00",
                                   "1969-12-31",
                                   "9999-01-01"}) {
        EXPECT_THROW(parseSince(text, kNow), WrongUsage) << text;
    }
}

} // namespace
