// SPDX-License-Identifier: Apache-2.0
// Channels and samples as tables, CSV and JSON.
#include "apps/fieldwarden/LogCommand.h"

#include "apps/fieldwarden/Chart.h"
#include "apps/fieldwarden/ExitCode.h"
#include "apps/fieldwarden/WriteWholeFile.h"
#include "apps/fieldwarden/WrongUsage.h"
#include "simulator/instrument/Instrument.h"

#include <velmor/kepla/datalogger/DataLoggerReader.h>
#include <velmor/kepla/utils/EnumUtils.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <cmath>
#include <ctime>
#include <limits>
#include <stdexcept>
#include <string_view>
#include <utility>

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

/// A value for people: plain numbers and flags have no unit to show.
std::string valueText(double aValue, DataLoggerUnit aUnit) {
    bool const plain = aUnit == DataLoggerUnit::Dimensionless || aUnit == DataLoggerUnit::Boolean;
    return fmt::format("{:>14.9g}{}", aValue, plain ? "" : " " + unitText(aUnit));
}

struct TimeUnit {
    std::string_view suffix;
    std::chrono::seconds length;
};
constexpr TimeUnit kTimeUnits[] = {{"min", std::chrono::minutes(1)},
                                   {"s", std::chrono::seconds(1)},
                                   {"h", std::chrono::hours(1)},
                                   {"d", std::chrono::hours(24)}};

std::optional<SystemTime> backFrom(SystemTime aNow, std::string const& aText) {
    using Seconds = std::chrono::duration<double>;
    for (TimeUnit const& unit : kTimeUnits) {
        if (aText.ends_with(unit.suffix)) {
            double count = 0.0;
            char const* const end = aText.data() + aText.size() - unit.suffix.size();
            auto const [stop, error] = std::from_chars(aText.data(), end, count);
            if (error != std::errc{} || stop != end || !std::isfinite(count) || count < 0.0) {
                return std::nullopt;
            }
            Seconds const back = std::min<Seconds>(count * unit.length, aNow.time_since_epoch());
            return aNow - std::chrono::duration_cast<SystemTime::duration>(back);
        }
    }
    return std::nullopt;
}

/// What may stand behind a point in time: parts of a second, and "Z".
std::optional<SystemTime::duration> restOfTime(std::string_view aText) {
    double seconds = 0.0;
    if (aText.starts_with('.')) {
        auto const [stop, error] =
            std::from_chars(aText.data(), aText.data() + aText.size(), seconds, std::chars_format::fixed);
        if (error != std::errc{}) {
            return std::nullopt;
        }
        aText.remove_prefix(static_cast<std::size_t>(stop - aText.data()));
    }
    if (!aText.empty() && aText != "Z") {
        return std::nullopt;
    }
    return std::chrono::round<std::chrono::microseconds>(std::chrono::duration<double>(seconds));
}

std::optional<SystemTime> pointInTime(std::string const& aText) {
    using namespace std::chrono;
    constexpr int kFirstYear = 1970;
    constexpr int kLastYear = 2200; // The clock's nanoseconds end in 2262.
    for (char const* const form : {"%Y-%m-%dT%H:%M:%S", "%Y-%m-%dT%H:%M", "%Y-%m-%d"}) {
        std::tm fields{};
        if (char const* const rest = strptime(aText.c_str(), form, &fields)) {
            int const inYear = fields.tm_year + 1900;
            year_month_day const date(year(inYear), month(static_cast<unsigned>(fields.tm_mon) + 1),
                                      day(static_cast<unsigned>(fields.tm_mday)));
            auto const more = restOfTime(rest);
            if (!date.ok() || inYear < kFirstYear || inYear > kLastYear || !more) {
                return std::nullopt;
            }
            return sys_days(date) + hours(fields.tm_hour) + minutes(fields.tm_min) + seconds(fields.tm_sec) +
                   *more;
        }
    }
    return std::nullopt;
}

nlohmann::ordered_json jsonOf(DataLoggerChannelSummary const& aChannel) {
    nlohmann::ordered_json json{{"channel", aChannel.name},
                                {"unit", unitText(aChannel.unit)},
                                {"description", aChannel.description},
                                {"count", aChannel.count},
                                {"lastTime", nullptr},
                                {"lastValue", nullptr}};
    if (aChannel.last) {
        json["lastTime"] = timeText(aChannel.last->time);
        json["lastValue"] = jsonNumber(aChannel.last->value);
    }
    return json;
}

std::string textOf(DataLoggerChannelSummary const& aChannel) {
    std::string const last =
        aChannel.last ? valueText(aChannel.last->value, aChannel.unit) : fmt::format("{:>14}", "-");
    return fmt::format("{:<40} {:>8} {:<20} {}\n", aChannel.name, aChannel.count, last, aChannel.description);
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

    /// @return Whether somebody still reads.
    bool write(DataLoggerSample const& aSample) const {
        return print(mCsv                   ? csvOf(aSample)
                     : mForm == Form::Json  ? jsonLineOf(aSample)
                     : mForm == Form::Quiet ? bareOf(aSample)
                                            : textLineOf(aSample));
    }

private:
    static std::string statusOf(DataLoggerSample const& aSample) {
        return std::string(EnumUtils<DataLoggerStatusCode>::to_string(aSample.status));
    }

    /// Whether the sample is none: its value is the number of those that were lost then.
    static bool isGap(DataLoggerSample const& aSample) {
        return aSample.status == DataLoggerStatusCode::SamplesLost;
    }

    static std::string gapText(DataLoggerSample const& aSample) {
        return fmt::format("{:.0f} {}", aSample.value, statusOf(aSample));
    }

    static std::string csvOf(DataLoggerSample const& aSample) {
        std::string const time = timeText(aSample.time);
        return isGap(aSample) ? fmt::format("{},,{}\n", time, gapText(aSample))
                              : fmt::format("{},{},{}\n", time, aSample.value, statusOf(aSample));
    }

    std::string jsonLineOf(DataLoggerSample const& aSample) const {
        nlohmann::ordered_json line{{"schema", 1},
                                    {"t", timeText(aSample.time)},
                                    {"value", isGap(aSample) ? nullptr : jsonNumber(aSample.value)},
                                    {"unit", unitText(mChannel.unit)},
                                    {"status", statusOf(aSample)}};
        if (isGap(aSample)) {
            line["lost"] = static_cast<std::uint64_t>(aSample.value);
        }
        return line.dump() + "\n";
    }

    static std::string bareOf(DataLoggerSample const& aSample) {
        return isGap(aSample) ? "" : fmt::format("{}\n", aSample.value);
    }

    std::string textLineOf(DataLoggerSample const& aSample) const {
        std::string const time = timeText(aSample.time);
        if (isGap(aSample)) {
            return fmt::format("{}  {}\n", time, gapText(aSample));
        }
        std::string const value = valueText(aSample.value, mChannel.unit);
        return aSample.status == DataLoggerStatusCode::Good
                   ? fmt::format("{}  {}\n", time, value)
                   : fmt::format("{}  {} {}\n", time, value, statusOf(aSample));
    }

    Form mForm;
    bool mCsv;
    DataLoggerChannelSummary const& mChannel;
};

DataLoggerQuery queryOf(std::optional<std::string> const& aSince) {
    DataLoggerQuery query;
    if (aSince) {
        query.since = parseSince(*aSince, std::chrono::system_clock::now());
    }
    return query;
}

/// What the reader says of a channel that is not there, with what to do.
WrongUsage unknownChannel(std::invalid_argument const& aError) {
    return WrongUsage(std::string(aError.what()) + "; 'fieldwarden log list' names the channels");
}

double secondsOf(SystemTime aTime) {
    return std::chrono::duration<double>(aTime.time_since_epoch()).count();
}

SystemTime timeOf(double aSeconds) {
    return SystemTime(
        std::chrono::duration_cast<SystemTime::duration>(std::chrono::duration<double>(aSeconds)));
}

/// The samples of a channel that can be drawn.
Curve curveOf(DataLoggerReader const& aReader, std::string const& aChannel, DataLoggerQuery const& aQuery) {
    Curve curve{aChannel, {}, {}};
    aReader.samples(aChannel, aQuery, [&](DataLoggerSample const& aSample) {
        if (aSample.status != DataLoggerStatusCode::SamplesLost && std::isfinite(aSample.value)) {
            curve.places.push_back(secondsOf(aSample.time));
            curve.values.push_back(aSample.value);
        }
        return true;
    });
    return curve;
}

/// A panel for each unit, in the order in which they were asked for.
class ChannelChart {
public:
    void add(Curve aCurve, std::string const& aUnit) {
        constexpr std::array kColours{"#1f4e9c", "#d1661a", "#2e8b57", "#8e3b8e",
                                      "#b22222", "#008b8b", "#7a5c00", "#555555"};
        aCurve.colour = kColours[mCurves++ % kColours.size()];
        mFirst = std::min(mFirst, aCurve.places.front());
        mLast = std::max(mLast, aCurve.places.back());
        mSamples += aCurve.values.size();
        std::string const axis = "Value [" + aUnit + "]";
        auto panel = std::find_if(mPanels.begin(), mPanels.end(),
                                  [&](Panel const& aPanel) { return aPanel.axis == axis; });
        if (panel == mPanels.end()) {
            panel = mPanels.insert(panel, Panel{.axis = axis, .curves = {}, .fromZero = false});
        }
        panel->curves.push_back(std::move(aCurve));
    }

    bool empty() const { return mCurves == 0; }
    std::size_t curves() const { return mCurves; }
    std::size_t samples() const { return mSamples; }
    std::string first() const { return timeText(timeOf(mFirst)); }
    std::string last() const { return timeText(timeOf(mLast)); }

    Chart chart() && {
        std::string const title =
            mCurves == 1 ? mPanels.front().curves.front().title : fmt::format("{} channels", mCurves);
        return {title,
                fmt::format("Time [UTC], from {} to {}", first(), last()),
                {},
                std::move(mPanels),
                ChartAxis::Time};
    }

private:
    std::vector<Panel> mPanels;
    std::size_t mCurves = 0;
    std::size_t mSamples = 0;
    double mFirst = std::numeric_limits<double>::max();
    double mLast = std::numeric_limits<double>::lowest();
};

} // namespace

SystemTime parseSince(std::string const& aText, SystemTime aNow) {
    if (auto const back = backFrom(aNow, aText)) {
        return *back;
    }
    if (auto const point = pointInTime(aText)) {
        return *point;
    }
    throw WrongUsage("'" + aText + "' is not a time, as in 10min, 2h, 1d, 2026-11-21 or 2026-11-21T14:00");
}

int logList(LogOptions const& aOptions, bool aAll) {
    auto channels = DataLoggerReader(fileOf(aOptions)).channels();
    std::erase_if(channels,
                  [&](DataLoggerChannelSummary const& aChannel) { return aChannel.hidden && !aAll; });
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
    DataLoggerQuery const query = queryOf(aShow.since);
    DataLoggerReader const reader(fileOf(aOptions));
    try {
        auto const channel = reader.channel(aShow.channel);
        SampleWriter const writer(aOptions.form, aShow.csv, channel);
        writer.begin();
        reader.samples(aShow.channel, query,
                       [&](DataLoggerSample const& aSample) { return writer.write(aSample); });
    } catch (std::invalid_argument const& error) {
        throw unknownChannel(error);
    }
    return kDone;
}

int logPlot(LogOptions const& aOptions, LogPlotOptions const& aPlot) {
    auto const format = pictureFormatOf(aPlot.picture);
    if (!format) {
        throw WrongUsage("the picture '" + aPlot.picture.string() + "' must end in .png or .svg");
    }
    DataLoggerQuery const query = queryOf(aPlot.since);
    DataLoggerReader const reader(fileOf(aOptions));
    ChannelChart drawn;
    for (std::string const& name : aPlot.channels) {
        try {
            auto const channel = reader.channel(name);
            Curve curve = curveOf(reader, name, query);
            if (curve.values.empty()) {
                complain("the channel '" + name + "' has no samples" + (aPlot.since ? " since then" : ""));
                continue;
            }
            drawn.add(std::move(curve), unitText(channel.unit));
        } catch (std::invalid_argument const& error) {
            throw unknownChannel(error);
        }
    }
    if (drawn.empty()) {
        throw WrongUsage("there is nothing to draw");
    }
    nlohmann::ordered_json const summary{{"file", aPlot.picture.string()},
                                         {"channels", drawn.curves()},
                                         {"samples", drawn.samples()},
                                         {"first", drawn.first()},
                                         {"last", drawn.last()}};
    std::string const words =
        fmt::format("{}: {} samples of {} channels, from {} to {}\n", aPlot.picture.string(), drawn.samples(),
                    drawn.curves(), drawn.first(), drawn.last());
    std::string const script = gnuplotScript(std::move(drawn).chart(), *format);
    writeWholeFile(aPlot.picture, drawnByGnuplot(script), "picture");
    if (aOptions.form == Form::Json) {
        printJson(summary);
    } else {
        print(aOptions.form == Form::Quiet ? aPlot.picture.string() + "\n" : words);
    }
    return kDone;
}

} // namespace libfieldwarden::app
