// SPDX-License-Identifier: Apache-2.0
// The event queue on an eventfd.
#include "apps/fieldwarden/Event.h"

#include <cerrno>
#include <cstdint>
#include <system_error>
#include <utility>

#include <sys/eventfd.h>
#include <unistd.h>

namespace libfieldwarden::app {

EventQueue::EventQueue()
    : mDescriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (mDescriptor < 0) {
        throw std::system_error(errno, std::generic_category(), "Cannot make an event descriptor");
    }
}

EventQueue::~EventQueue() {
    close(mDescriptor);
}

void EventQueue::push(Event aEvent) {
    aEvent.time = velmor::platform::Clock::current().systemNow();
    std::lock_guard const lock(mMutex);
    mEvents.push_back(std::move(aEvent));
    std::uint64_t const one = 1;
    [[maybe_unused]] auto const written = write(mDescriptor, &one, sizeof one);
}

std::vector<Event> EventQueue::take() {
    std::lock_guard const lock(mMutex);
    std::uint64_t count = 0;
    [[maybe_unused]] auto const got = read(mDescriptor, &count, sizeof count);
    return std::exchange(mEvents, {});
}

} // namespace libfieldwarden::app
