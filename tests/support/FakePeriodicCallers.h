// SPDX-License-Identifier: Apache-2.0
// Periodic calls that a test makes by hand.
#pragma once

#include <velmor/kepla/utils/PeriodicCallerManagerIfc.h>

#include <functional>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

namespace libfieldwarden::test {

/// Remembers who wants to be called and how often; calls nobody by itself. Any thread.
class FakePeriodicCallers : public velmor::kepla::utils::PeriodicCallerManagerIfc {
public:
    /// What was asked for.
    struct Job {
        double periodSeconds;
        std::function<void()> call;
    };

    std::unique_ptr<velmor::kepla::utils::PeriodicCallerIfc> createPeriodicCaller(
        double aPeriodSeconds, std::function<void()> aCallback) override {
        auto job = std::make_shared<Job>(Job{aPeriodSeconds, std::move(aCallback)});
        std::lock_guard const lock(mMutex);
        mJobs.push_back(job);
        return std::make_unique<Handle>(std::move(job));
    }

    /// The jobs whose handles are alive, in the order of their making.
    std::vector<std::shared_ptr<Job>> jobs() {
        std::lock_guard const lock(mMutex);
        std::vector<std::shared_ptr<Job>> alive;
        for (auto const& each : mJobs) {
            if (auto job = each.lock()) {
                alive.push_back(std::move(job));
            }
        }
        return alive;
    }

private:
    class Handle : public velmor::kepla::utils::PeriodicCallerIfc {
    public:
        explicit Handle(std::shared_ptr<Job> aJob)
            : mJob(std::move(aJob)) {}

    private:
        std::shared_ptr<Job> mJob;
    };

    std::mutex mMutex;
    std::vector<std::weak_ptr<Job>> mJobs;
};

} // namespace libfieldwarden::test
