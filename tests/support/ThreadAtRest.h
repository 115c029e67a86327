// SPDX-License-Identifier: Apache-2.0
// Whether a thread of this process has nothing to do, as the kernel sees it.
#pragma once

#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <system_error>
#include <utility>

namespace libfieldwarden::test {

/// Looks whether the thread of a name sleeps. It may come later, and go.
class ThreadAtRest {
public:
    /// @param aName  Of the thread; there should be one of it at a time.
    explicit ThreadAtRest(std::string aName)
        : mName(std::move(aName)) {}

    /// @return How often it has gone to sleep or was put aside; none while it runs, or is not there. Two
    /// equal answers tell that it has slept all the time between.
    std::optional<std::string> sleepCount() {
        auto counts = read();
        if (!counts) {
            find();
        }
        return counts;
    }

private:
    std::optional<std::string> read() const {
        std::ifstream file(mFolder / "status");
        std::string counts = mFolder.filename();
        bool sleeps = false;
        for (std::string text; std::getline(file, text);) {
            sleeps = sleeps || (text.starts_with("State:") && text.ends_with("(sleeping)"));
            if (text.find("ctxt_switches") != std::string::npos) {
                counts += text;
            }
        }
        return sleeps ? std::optional(counts) : std::nullopt;
    }

    void find() {
        std::error_code gone; // A thread may end while we look.
        for (std::filesystem::directory_iterator task("/proc/self/task", gone), end; task != end;
             task.increment(gone)) {
            std::string name;
            std::ifstream file(task->path() / "comm");
            if (std::getline(file, name) && name == mName) {
                mFolder = task->path();
            }
        }
    }

    std::string const mName;
    std::filesystem::path mFolder;
};

} // namespace libfieldwarden::test
