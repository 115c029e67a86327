// SPDX-License-Identifier: Apache-2.0
// Something that the command heard from the library, and the queue by which it comes to the main thread.
#pragma once

#include <velmor/platform/Clock.h>

#include <mutex>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace libfieldwarden::app {

/// How much an event wants to be seen.
enum class Tone { Plain, Good, Warning, Alarm };

/// One thing heard, with both of its forms.
struct Event {
    velmor::platform::Clock::SystemTimePoint time; ///< The instrument's time of day.
    std::string source;                            ///< Who spoke: "lock", "library".
    std::string name;                              ///< What it said: "warningsChanged".
    std::string text;                              ///< The readable form, without time and source.
    nlohmann::ordered_json fields = nlohmann::ordered_json::object(); ///< What "--json" adds to the line.
    Tone tone = Tone::Plain;
};

/// Brings events from the library's threads to the main one, which may wait for them with poll(2).
class EventQueue {
public:
    EventQueue();
    ~EventQueue();
    EventQueue(EventQueue const&) = delete;
    EventQueue& operator=(EventQueue const&) = delete;

    /// Adds an event and stamps it with the time. Any thread; does not block.
    void push(Event aEvent);

    /// @return All events that wait, in order.
    std::vector<Event> take();

    /// @return A descriptor that is readable while events wait.
    int descriptor() const noexcept { return mDescriptor; }

private:
    std::mutex mMutex;
    std::vector<Event> mEvents;
    int mDescriptor = -1;
};

} // namespace libfieldwarden::app
