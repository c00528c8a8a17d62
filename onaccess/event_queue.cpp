#include "event_queue.h"

#include <cstring>
#include <functional>
#include <string_view>

#include "time_limits.h"

namespace {

constexpr int most_opens_in_a_row = 16;

bool is_close(const QueuedEvent& place) {
  return place.event.type == FSFILTER_CLOSE_WR;
}

}  // namespace

template <QueuedEvent::Neighbours QueuedEvent::*neighbours>
void EventQueue::Line<neighbours>::append(QueuedEvent* place) {
  place->*neighbours = {last, nullptr};
  (last == nullptr ? first : (last->*neighbours).after) = place;
  last = place;
}

template <QueuedEvent::Neighbours QueuedEvent::*neighbours>
void EventQueue::Line<neighbours>::remove(QueuedEvent* place) {
  const auto [before, after] = place->*neighbours;
  (before == nullptr ? first : (before->*neighbours).after) = after;
  (after == nullptr ? last : (after->*neighbours).before) = before;
}

EventQueue::~EventQueue() {
  while (!empty()) {
    (void)remove(oldest());
  }
}

EventQueue::Place EventQueue::make_place(const fsfilter_event_struct& event) noexcept {
  Place place;
  if (free_.empty()) {
    place.reset(new (std::nothrow) QueuedEvent);
  } else {
    place = std::move(free_.back());
    free_.pop_back();
  }
  if (place != nullptr) {
    std::memcpy(&place->event, &event,
                offsetof(fsfilter_event_struct, path) + std::strlen(event.path) + 1);
  }
  return place;
}

void EventQueue::recycle(Place place) {
  if (free_.size() < most_free_places) {
    free_.push_back(std::move(place));
  }
}

void EventQueue::push(Place owned, Clock::time_point now) {
  QueuedEvent* place = owned.release();
  place->since = now;
  place->number = ++arrived_;
  place->slot = std::hash<std::string_view>{}(place->event.path) % slots;
  if (is_close(*place)) {
    closes_.append(place);
    closes_by_path_[place->slot].append(place);
  } else {
    opens_.append(place);
  }
}

EventQueue::Place EventQueue::take(int& opens_in_a_row, Clock::time_point now) {
  QueuedEvent* place = next(opens_in_a_row, now);
  opens_in_a_row = is_close(*place) ? 0 : opens_in_a_row + 1;
  return remove(place);
}

EventQueue::Place EventQueue::take_open_before(Clock::time_point bound) {
  return opens_.first != nullptr && opens_.first->since < bound ? remove(opens_.first) : nullptr;
}

QueuedEvent* EventQueue::oldest() const {
  if (opens_.first == nullptr || closes_.first == nullptr) {
    return opens_.first == nullptr ? closes_.first : opens_.first;
  }
  return opens_.first->number < closes_.first->number ? opens_.first : closes_.first;
}

QueuedEvent* EventQueue::next(int opens_in_a_row, Clock::time_point now) const {
  if (opens_.first == nullptr || closes_.first == nullptr ||
      waits(now) < time_limits::arrival_order) {
    return oldest();
  }
  if (opens_in_a_row >= most_opens_in_a_row) {
    return closes_.first;
  }
  QueuedEvent* close = close_before(*opens_.first);
  return close == nullptr ? opens_.first : close;
}

// The oldest close of the open's path that arrived before it, or null.
QueuedEvent* EventQueue::close_before(const QueuedEvent& open) const {
  for (QueuedEvent* close = closes_by_path_[open.slot].first;
       close != nullptr && close->number < open.number; close = close->of_slot.after) {
    if (std::strcmp(close->event.path, open.event.path) == 0) {
      return close;
    }
  }
  return nullptr;
}

EventQueue::Place EventQueue::remove(QueuedEvent* place) {
  if (is_close(*place)) {
    closes_.remove(place);
    closes_by_path_[place->slot].remove(place);
  } else {
    opens_.remove(place);
  }
  return Place(place);
}
