// How long the filter service waits for others. All limits are in one place, because their sum
// matters: a stop ends the daemon within three seconds.
#pragma once

#include <chrono>

namespace time_limits {

using namespace std::chrono_literals;

// Counted from the first stop().
constexpr auto stop_grace = 1900ms;   // for workers inside the engine
constexpr auto leave = 150ms;         // for threads that only have to return
constexpr auto last_resort = 2600ms;  // for a main thread that is stuck
constexpr auto stop_bound = 2400ms;   // for everything

// For the queue.
constexpr auto arrival_order = 250ms;   // below this age of the oldest event, arrival order
constexpr auto wake_all = 900ms;        // before all workers are woken, not only one
constexpr auto queue_interval = 250ms;  // between two looks at the queue

static_assert(stop_grace + leave < stop_bound && stop_bound < last_resort && last_resort < 3s);

}  // namespace time_limits
