// SPDX-License-Identifier: Apache-2.0
// From a log call that somebody wants to a finished line.
#include <velmor/kepla/log/Logger.h>

#include <velmor/kepla/log/Configuration.h>

#include <cerrno>
#include <mutex>
#include <new>
#include <set>
#include <shared_mutex>
#include <system_error>
#include <tuple>

namespace velmor::kepla::log {

namespace {

struct ByNameAndCategory {
    using is_transparent = void;
    using Key = std::pair<std::string_view, std::string_view>;
    static Key key(Origin const& aOrigin) noexcept { return {aOrigin.name, aOrigin.category}; }
    static Key key(Key const& aKey) noexcept { return aKey; }

    template <typename Left, typename Right>
    bool operator()(Left const& aLeft, Right const& aRight) const noexcept {
        return key(aLeft) < key(aRight);
    }
};

/// All origins of the process. A set, because its elements keep their addresses.
class OriginTable {
public:
    Origin const& intern(std::string_view aName, std::string_view aCategory) {
        ByNameAndCategory::Key const key{aName, aCategory};
        {
            std::shared_lock const lock(mMutex);
            if (auto const found = mOrigins.find(key); found != mOrigins.end()) {
                return *found;
            }
        }
        std::string label(aCategory);
        if (!label.empty()) {
            label += '/';
        }
        label += aName;
        std::unique_lock const lock(mMutex);
        return *mOrigins.insert(Origin{std::string(aName), std::string(aCategory), std::move(label)}).first;
    }

private:
    std::shared_mutex mMutex;
    std::set<Origin, ByNameAndCategory> mOrigins;
};

/// The table is never destroyed: objects with static lifetime may log until the very end of the process.
OriginTable& originTable() {
    alignas(OriginTable) static std::byte sStorage[sizeof(OriginTable)];
    static OriginTable& sTable = *::new (sStorage) OriginTable;
    return sTable;
}

/// Puts the text of an error number in the place of every "%m", which the formatter does not know.
std::string withErrorText(std::string_view aFormat, int aErrorNumber) {
    std::string result;
    for (std::size_t i = 0; i < aFormat.size(); ++i) {
        bool const conversion = aFormat[i] == '%' && i + 1 < aFormat.size();
        if (conversion && aFormat[i + 1] == 'm') {
            for (char const c : std::generic_category().message(aErrorNumber)) {
                result += (c == '%') ? "%%" : std::string(1, c);
            }
            ++i;
        } else if (conversion) {
            result += aFormat.substr(i, 2);
            ++i;
        } else {
            result += aFormat[i];
        }
    }
    return result;
}

std::string formatted(std::string_view aFormat,
                      int aErrorNumber,
                      fmt::basic_format_args<fmt::printf_context> aArguments) {
    try {
        if (aFormat.find("%m") != std::string_view::npos) {
            return fmt::vsprintf(fmt::string_view(withErrorText(aFormat, aErrorNumber)), aArguments);
        }
        return fmt::vsprintf(fmt::string_view(aFormat), aArguments);
    } catch (std::exception const& error) {
        return std::string(aFormat) + " (this line could not be formatted: " + error.what() + ")";
    }
}

} // namespace

namespace detail {

std::atomic<int> gActiveLevel{-1};

Origin const& anonymousOrigin() noexcept {
    static Origin const& sAnonymous = originTable().intern("", "");
    return sAnonymous;
}

void write(Origin const& aOrigin,
           LoggerImplInterface* aReceiver,
           Severity aSeverity,
           std::string_view aFormat,
           LazyText const& aLazy,
           fmt::basic_format_args<fmt::printf_context> aArguments) noexcept {
    int const errorNumber = errno;
    try {
        std::string text = formatted(aFormat, errorNumber, aArguments);
        if (aLazy) {
            text += aLazy();
        }
        Line const line{aSeverity, aOrigin, text, std::chrono::system_clock::now()};
        if (aReceiver != nullptr) {
            aReceiver->write(line);
        } else {
            Configuration::receive(line);
        }
    } catch (...) {
        // Out of memory, or a text producer that threw: the line is lost, the caller goes on.
    }
    errno = errorNumber;
}

} // namespace detail

Logger::Logger(std::string_view aName,
               std::string_view aCategory,
               std::shared_ptr<LoggerImplInterface> aReceiver)
    : mOrigin(&originTable().intern(aName, aCategory))
    , mReceiver(std::move(aReceiver)) {}

void LoggerImpl::write(Line const& aLine) noexcept {
    Configuration::deliver(aLine);
}

} // namespace velmor::kepla::log
