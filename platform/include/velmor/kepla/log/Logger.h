// SPDX-License-Identifier: Apache-2.0
// The logging base of every service class, and the free logging call for static code.
#pragma once

#include <velmor/kepla/log/LoggerImpl.h>
#include <velmor/kepla/log/Severity.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include <fmt/printf.h>

namespace velmor::kepla::log {

/// Text producer that a log call may carry; it runs only when the line is wanted, and its text follows the
/// message.
using LazyText = std::function<std::string()>;

namespace detail {

/// The least urgent severity that any sink wants; -1 while there is no sink. Read by every log call.
extern std::atomic<int> gActiveLevel;

inline bool isActive(Severity aSeverity) noexcept {
    return static_cast<int>(aSeverity) <= gActiveLevel.load(std::memory_order_relaxed);
}

/// Formats and delivers a line that somebody wants. A null receiver means the process's own.
void write(Origin const& aOrigin,
           LoggerImplInterface* aReceiver,
           Severity aSeverity,
           std::string_view aFormat,
           LazyText const& aLazy,
           fmt::basic_format_args<fmt::printf_context> aArguments) noexcept;

/// Keeps the formatting of one argument list out of the caller's hot path.
template <typename... Arguments>
[[gnu::noinline, gnu::cold]] void format(Origin const& aOrigin,
                                         LoggerImplInterface* aReceiver,
                                         Severity aSeverity,
                                         std::string_view aFormat,
                                         LazyText const& aLazy,
                                         Arguments const&... aArguments) noexcept {
    write(aOrigin, aReceiver, aSeverity, aFormat, aLazy,
          fmt::make_format_args<fmt::printf_context>(aArguments...));
}

/// The origin of the free logging call: no name, no category.
Origin const& anonymousOrigin() noexcept;

} // namespace detail

/// Logging base class, taken as a virtual base by the services.
///
/// The formats are those of printf, checked against the arguments' real types: the length modifiers may be
/// wrong or missing ("%lu" with an unsigned int is fine), strings may be std::string, and "%m" is the text of
/// errno. A format that does not fit its arguments yields the format itself with a remark, never an
/// exception.
///
/// Thread-safe. A line that no sink wants costs a load and a compare. Making a Logger allocates nothing once
/// its name and category have been used in the process.
class Logger {
public:
    /// @param aName      Class name of the speaker.
    /// @param aCategory  Subsystem word, such as "Lock"; may be empty.
    /// @param aReceiver  Receiver of the lines; null for the process's own sinks.
    Logger(std::string_view aName,
           std::string_view aCategory,
           std::shared_ptr<LoggerImplInterface> aReceiver = nullptr);

    /// Logs one line.
    /// @param aSeverity   Urgency.
    /// @param aFormat     printf-like format.
    /// @param aLazy       Optional producer of a text to append; an empty one ("{}") appends nothing.
    /// @param aArguments  The values for the format.
    template <typename... Arguments>
    void keplaDoLog(Severity aSeverity,
                    std::string_view const& aFormat,
                    LazyText const& aLazy,
                    Arguments const&... aArguments) const noexcept {
        if (detail::isActive(aSeverity)) [[unlikely]] {
            detail::format(*mOrigin, mReceiver.get(), aSeverity, aFormat, aLazy, aArguments...);
        }
    }

protected:
    ~Logger() = default;
    Logger(Logger const&) = default;
    Logger& operator=(Logger const&) = default;

private:
    Origin const* mOrigin;
    std::shared_ptr<LoggerImplInterface> mReceiver;
};

/// Logging call of static code, which has no Logger to derive from. Otherwise as Logger::keplaDoLog.
template <typename... Arguments>
void keplaDoLog(Severity aSeverity,
                std::string_view const& aFormat,
                LazyText const& aLazy,
                Arguments const&... aArguments) noexcept {
    if (detail::isActive(aSeverity)) [[unlikely]] {
        detail::format(detail::anonymousOrigin(), nullptr, aSeverity, aFormat, aLazy, aArguments...);
    }
}

} // namespace velmor::kepla::log
