// SPDX-License-Identifier: Apache-2.0
// The one set of sinks of the process, and its replacement while lines are coming.
#include <velmor/kepla/log/Configuration.h>

#include <velmor/kepla/log/ConsoleSink.h>
#include <velmor/kepla/log/FileSink.h>
#include <velmor/kepla/log/Logger.h>

#include <algorithm>
#include <mutex>
#include <new>
#include <shared_mutex>
#include <utility>

namespace velmor::kepla::log {

/// What the process has one of. Never destroyed, since lines may come until the very end.
struct Configuration::Process {
    std::shared_mutex mutex;
    std::shared_ptr<Configuration> current;
    std::filesystem::path fileRoot;
};

Configuration::Process& Configuration::process() noexcept {
    alignas(Process) static std::byte sStorage[sizeof(Process)];
    static Process& sProcess = *::new (sStorage) Process;
    return sProcess;
}

Configuration::Configuration(std::shared_ptr<LoggerImplInterface> aReceiver, std::vector<SinkAtLevel> aSinks)
    : mReceiver(std::move(aReceiver))
    , mSinks(std::move(aSinks)) {}

Configuration::~Configuration() = default;

std::shared_ptr<Configuration> Configuration::current() noexcept {
    std::shared_lock const lock(process().mutex);
    return process().current;
}

bool Configuration::isInitialized() noexcept {
    return current() != nullptr;
}

std::shared_ptr<Configuration> Configuration::initHosted(std::shared_ptr<LoggerImplInterface> aReceiver,
                                                         bool aConsole,
                                                         std::string const& aFile1,
                                                         Severity aLevel1,
                                                         std::string const& aFile2,
                                                         Severity aLevel2,
                                                         unsigned int aRotateKiB) {
    std::filesystem::path root;
    {
        std::shared_lock const lock(process().mutex);
        root = process().fileRoot;
    }
    auto const fileSink = [&](std::string const& aFile) {
        std::filesystem::path const file(aFile);
        return std::make_shared<FileSink>(root.empty() ? file : root / file.relative_path(), aRotateKiB);
    };
    std::vector<SinkAtLevel> sinks{{fileSink(aFile1), aLevel1}, {fileSink(aFile2), aLevel2}};
    if (aConsole) {
        sinks.push_back({std::make_shared<ConsoleSink>(), std::max(aLevel1, aLevel2)});
    }
    return install(std::move(aReceiver), std::move(sinks));
}

std::shared_ptr<Configuration> Configuration::initWith(std::vector<SinkAtLevel> aSinks) {
    return install(nullptr, std::move(aSinks));
}

std::shared_ptr<Configuration> Configuration::install(std::shared_ptr<LoggerImplInterface> aReceiver,
                                                      std::vector<SinkAtLevel> aSinks) {
    int activeLevel = -1;
    for (SinkAtLevel const& sink : aSinks) {
        activeLevel = std::max(activeLevel, static_cast<int>(sink.level));
    }
    std::unique_lock const lock(process().mutex);
    if (process().current == nullptr) {
        process().current =
            std::shared_ptr<Configuration>(new Configuration(std::move(aReceiver), std::move(aSinks)));
        detail::gActiveLevel.store(activeLevel, std::memory_order_relaxed);
    }
    return process().current;
}

void Configuration::redirectFiles(std::filesystem::path const& aRoot) {
    std::unique_lock const lock(process().mutex);
    process().fileRoot = aRoot;
}

void Configuration::shutdown() noexcept {
    std::shared_ptr<Configuration> last;
    {
        std::unique_lock const lock(process().mutex);
        last = std::exchange(process().current, nullptr);
        detail::gActiveLevel.store(-1, std::memory_order_relaxed);
    }
    if (last != nullptr) {
        for (SinkAtLevel const& sink : last->mSinks) {
            sink.sink->flush();
        }
    }
}

void Configuration::deliver(Line const& aLine) noexcept {
    if (auto const configuration = current()) {
        configuration->toSinks(aLine);
    }
}

void Configuration::receive(Line const& aLine) noexcept {
    if (auto const configuration = current()) {
        if (configuration->mReceiver != nullptr) {
            configuration->mReceiver->write(aLine);
        } else {
            configuration->toSinks(aLine);
        }
    }
}

void Configuration::toSinks(Line const& aLine) const noexcept {
    for (SinkAtLevel const& sink : mSinks) {
        if (aLine.severity <= sink.level) {
            sink.sink->write(aLine);
        }
    }
}

} // namespace velmor::kepla::log
