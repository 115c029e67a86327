// SPDX-License-Identifier: Apache-2.0
// The two forms of an event on standard output.
#include "apps/fieldwarden/EventPrinter.h"

#include <array>
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>

#include <gmock/gmock.h>

namespace {

using libfieldwarden::app::Event;
using libfieldwarden::app::EventPrinter;
using libfieldwarden::app::Tone;

struct Close {
    void operator()(std::FILE* aFile) const { std::fclose(aFile); }
};
using File = std::unique_ptr<std::FILE, Close>;

/// What a printer writes for an event.
std::string printed(bool aJson, Event const& aEvent) {
    File const file(std::tmpfile());
    EventPrinter printer(aJson, file.get());
    EXPECT_TRUE(printer.print(aEvent));
    std::rewind(file.get());
    std::string text;
    std::array<char, 4096> piece{};
    while (std::size_t const size = std::fread(piece.data(), 1, piece.size(), file.get())) {
        text.append(piece.data(), size);
    }
    return text;
}

Event event(std::string const& aWarnings) {
    using namespace std::chrono;
    // 2023-05-24 09:15:22.045 UTC
    return {sys_days(year(2023) / 5 / 24) + hours(9) + minutes(15) + seconds(22) + milliseconds(45),
            "lock",
            "warningsChanged",
            "warnings: 'hot', critical: none",
            {{"warnings", aWarnings}, {"criticalWarnings", ""}},
            Tone::Warning};
}

TEST(EventPrinter, WritesAJsonObjectALine) {
    EXPECT_EQ(
        printed(true, event("hot")),
        "{\"schema\":1,\"t\":\"2023-05-24T09:15:22.045Z\",\"source\":\"lock\",\"event\":\"warningsChanged\","
        "\"warnings\":\"hot\",\"criticalWarnings\":\"\"}\n");
}

TEST(EventPrinter, KeepsAJsonLineOneLineAndValidWhateverTheTextHolds) {
    auto const line = printed(true, event(std::string("a\nb\"\0\xff", 6)));
    EXPECT_THAT(line, testing::HasSubstr("\"warnings\":\"a\\nb\\\"\\u0000\xef\xbf\xbd\""));
    EXPECT_EQ(std::count(line.begin(), line.end(), '\n'), 1);
    EXPECT_TRUE(nlohmann::json::accept(line));
}

TEST(EventPrinter, WritesTimeSourceAndTextWithoutColourToAFile) {
    EXPECT_THAT(printed(false, event("hot")),
                testing::MatchesRegex("[0-9][0-9]:15:22\\.045  lock     warnings: 'hot', critical: none\n"));
}

TEST(EventPrinter, ReportsAReaderThatHasGone) {
    File const file(std::fopen("/dev/full", "w"));
    EventPrinter printer(true, file.get());
    EXPECT_FALSE(printer.print(event("hot")));
}

} // namespace
