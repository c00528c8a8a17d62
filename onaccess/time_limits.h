// How long the filter service waits before it goes on without somebody. In one place, because the
// sum matters: a stop ends the daemon within three seconds.
#pragma once

#include <chrono>

namespace time_limits {

using namespace std::chrono_literals;

// From the first stop() on.
constexpr auto stop_grace = 2000ms;    // for workers inside the engine
constexpr auto last_resort = 2500ms;   // for a main thread that is stuck
constexpr auto stop_bound = 2700ms;    // for everything
constexpr auto drain_bound = 200ms;    // for the kernel's last events
constexpr auto teardown_lock = 150ms;  // for the mount table, at each of its two uses
constexpr auto standby_stop = 150ms;   // for the standby readers

// The lookout's, and what it judges by.
constexpr auto look_interval = 200ms;
constexpr auto stuck = 100ms;  // the main thread, with one event
// The main thread between the first mark and its loop, and after it. The first is long: what
// standby readers allow then is not scanned.
constexpr auto before_loop = 2000ms;
constexpr auto after_loop = 300ms;
constexpr auto patience = 30000ms;  // for a worker to take the first waiting event

// The loop's.
constexpr auto front = 900ms;           // for the worker that was woken, before all are
constexpr auto front_interval = 250ms;  // between two looks at that

static_assert(last_resort + look_interval + drain_bound < 3s);
static_assert(stop_grace + 2 * teardown_lock + standby_stop + drain_bound <= stop_bound);

}  // namespace time_limits
