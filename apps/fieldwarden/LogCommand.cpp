// SPDX-License-Identifier: Apache-2.0
// Channels and samples as tables, CSV and JSON.
#include "apps/fieldwarden/LogCommand.h"

#include "apps/fieldwarden/ExitCode.h"
#include "apps/fieldwarden/WrongUsage.h"
#include "simulator/instrument/Instrument.h"

#include <velmor/kepla/datalogger/DataLoggerReader.h>
#include <velmor/kepla/utils/EnumUtils.h>

#include <charconv>
#include <chrono>
#include <cmath>
#include <sstream>
#include <stdexcept>

#include <fmt/chrono.h>
#include <fmt/format.h>

namespace libfieldwarden::app {

using velmor::kepla::datalogger::DataLoggerChannelSummary;
using velmor::kepla::datalogger::DataLoggerQuery;
using velmor::kepla::datalogger::DataLoggerReader;
using velmor::kepla::datalogger::DataLoggerSample;
using velmor::kepla::datalogger::DataLoggerStatusCode;
using velmor::kepla::datalogger::DataLoggerUnit;
using velmor::kepla::utils::EnumUtils;
using SystemTime = std::chrono::system_clock::time_point;

namespace {

std::filesystem::path fileOf(LogOptions const& aOptions) {
    if (!aOptions.simulate) {
        return aOptions.data.value_or("/data") / "libfieldwarden/datalogger.sqlite";
    }
    if (!aOptions.data) {
        throw WrongUsage(
            "with --simulate, --data says which instrument's log is meant: one that ran with that folder");
    }
    return sim::Folders(*aOptions.data).dataLogger;
}

std::string timeText(SystemTime aTime) {
    auto const milliseconds =
        std::chrono::duration_cast<std::chrono::milliseconds>(aTime.time_since_epoch()).count() % 1000;
    return fmt::format("{:%Y-%m-%dT%H:%M:%S}.{:03}Z",
                       fmt::gmtime(std::chrono::system_clock::to_time_t(aTime)), milliseconds);
}

std::string unitText(DataLoggerUnit aUnit) {
    return std::string(EnumUtils<DataLoggerUnit>::to_string(aUnit));
}

/// JSON has no word for a number that is none.
nlohmann::ordered_json jsonNumber(double aValue) {
    return std::isfinite(aValue) ? nlohmann::ordered_json(aValue) : nlohmann::ordered_json(nullptr);
}

struct TimeUnit {
    std::string_view suffix;
    std::chrono::seconds length;
};
constexpr TimeUnit kTimeUnits[] = {{"min", std::chrono::minutes(1)},
                                   {"s", std::chrono::seconds(1)},
                                   {"h", std::chrono::hours(1)},
                                   {"d", std::chrono::hours(24)}};

std::optional<SystemTime> backFromNow(std::string const& aText) {
    for (TimeUnit const& unit : kTimeUnits) {
        if (!aText.ends_with(unit.suffix)) {
            continue;
        }
        double count = 0.0;
        char const* const end = aText.data() + aText.size() - unit.suffix.size();
        auto const [stop, error] = std::from_chars(aText.data(), end, count);
        if (error == std::errc{} && stop == end && count >= 0.0 && count < 1e9) {
            return std::chrono::system_clock::now() -
                   std::chrono::duration_cast<std::chrono::system_clock::duration>(count * unit.length);
        }
        return std::nullopt;
    }
    return std::nullopt;
}

std::optional<SystemTime> pointInTime(std::string const& aText) {
    for (char const* const form : {"%Y-%m-%dT%H:%M:%S", "%Y-%m-%dT%H:%M", "%Y-%m-%d"}) {
        std::tm fields{};
        std::istringstream stream(aText);
        stream >> std::get_time(&fields, form);
        if (!stream.fail() && (stream.peek() == std::char_traits<char>::eof() || stream.peek() == 'Z')) {
            return std::chrono::system_clock::from_time_t(timegm(&fields));
        }
    }
    return std::nullopt;
}

SystemTime parseSince(std::string const& aText) {
    if (auto const back = backFromNow(aText)) {
        return *back;
    }
    if (auto const point = pointInTime(aText)) {
        return *point;
    }
    throw WrongUsage("'" + aText + "' is not a time, as in 10min, 2h, 1d or 2026-11-21T14:00");
}

nlohmann::ordered_json jsonOf(DataLoggerChannelSummary const& aChannel) {
    nlohmann::ordered_json json{{"channel", aChannel.name},
                                {"unit", unitText(aChannel.unit)},
                                {"description", aChannel.description},
                                {"count", aChannel.count}};
    if (aChannel.last) {
        json["lastTime"] = timeText(aChannel.last->time);
        json["lastValue"] = jsonNumber(aChannel.last->value);
    }
    return json;
}

std::string textOf(DataLoggerChannelSummary const& aChannel) {
    std::string const last = aChannel.last ? fmt::format("{:.6g}", aChannel.last->value) : "-";
    return fmt::format("{:<44} {:>8}  {:>12} {:<8} {}\n", aChannel.name, aChannel.count, last,
                       unitText(aChannel.unit), aChannel.description);
}

/// Writes the samples of a channel, one by one, in the wanted form.
class SampleWriter {
public:
    SampleWriter(Form aForm, bool aCsv, DataLoggerChannelSummary const& aChannel)
        : mForm(aForm)
        , mCsv(aCsv)
        , mChannel(aChannel) {}

    void begin() const {
        if (mCsv) {
            print(fmt::format("time,value [{}],status\n", unitText(mChannel.unit)));
        }
    }

    void write(DataLoggerSample const& aSample) const {
        auto const status = EnumUtils<DataLoggerStatusCode>::to_string(aSample.status);
        if (mCsv) {
            print(fmt::format("{},{:.17g},{}\n", timeText(aSample.time), aSample.value, status));
        } else if (mForm == Form::Json) {
            nlohmann::ordered_json const line{{"schema", 1},
                                              {"t", timeText(aSample.time)},
                                              {"value", jsonNumber(aSample.value)},
                                              {"status", status}};
            print(line.dump() + "\n");
        } else if (mForm == Form::Quiet) {
            print(fmt::format("{:.9g}\n", aSample.value));
        } else {
            print(fmt::format("{}  {:>14.9g} {}\n", timeText(aSample.time), aSample.value,
                              unitText(mChannel.unit)));
        }
    }

private:
    Form mForm;
    bool mCsv;
    DataLoggerChannelSummary const& mChannel;
};

} // namespace

int logList(LogOptions const& aOptions) {
    auto const channels = DataLoggerReader(fileOf(aOptions)).channels();
    if (aOptions.form == Form::Json) {
        auto list = nlohmann::ordered_json::array();
        for (auto const& channel : channels) {
            list.push_back(jsonOf(channel));
        }
        printJson({{"channels", list}});
        return kDone;
    }
    for (auto const& channel : channels) {
        print(aOptions.form == Form::Quiet ? channel.name + "\n" : textOf(channel));
    }
    return kDone;
}

int logShow(LogOptions const& aOptions, LogShowOptions const& aShow) {
    DataLoggerQuery query;
    if (aShow.since) {
        query.since = parseSince(*aShow.since);
    }
    DataLoggerReader const reader(fileOf(aOptions));
    try {
        auto const channel = reader.channel(aShow.channel);
        SampleWriter const writer(aOptions.form, aShow.csv, channel);
        writer.begin();
        reader.samples(aShow.channel, query, [&](DataLoggerSample const& aSample) {
            writer.write(aSample);
            return true;
        });
    } catch (std::invalid_argument const& error) {
        throw WrongUsage(std::string(error.what()) + "; 'fieldwarden log list' names the channels");
    }
    return kDone;
}

} // namespace libfieldwarden::app
