#include "event_queue.h"

#include <cstring>
#include <functional>
#include <string_view>

#include "time_limits.h"

namespace {

constexpr int most_opens_in_a_row = 16;
constexpr int most_free_places = 256;  // about 4 KB each; more are freed after a burst

bool is_close(const QueuedEvent& place) {
  return place.event.type == FSFILTER_CLOSE_WR;
}

}  // namespace

EventQueue::~EventQueue() {
  for (Line* line : {&opens_, &closes_}) {
    while (QueuedEvent* place = line->first) {
      line->remove(place);
      delete place;
    }
  }
  while (QueuedEvent* place = free_) {
    free_ = place->after;
    delete place;
  }
}

EventQueue::Place EventQueue::make_place(const fsfilter_event_struct& event) noexcept {
  Place place(free_);
  if (place != nullptr) {
    free_ = place->after;
    --free_count_;
  } else {
    place.reset(new (std::nothrow) QueuedEvent);
  }
  if (place != nullptr) {
    std::memcpy(&place->event, &event,
                offsetof(fsfilter_event_struct, path) + std::strlen(event.path) + 1);
  }
  return place;
}

void EventQueue::recycle(Place place) {
  if (free_count_ < most_free_places) {
    place->after = free_;
    free_ = place.release();
    ++free_count_;
  }
}

void EventQueue::push(Place owned, Clock::time_point now) {
  QueuedEvent* place = owned.release();
  place->since = now;
  place->number = ++arrived_;
  place->slot = std::hash<std::string_view>{}(place->event.path) % slots;
  if (!is_close(*place)) {
    opens_.append(place);
    return;
  }
  closes_.append(place);
  place->same_slot = nullptr;
  Slot& slot = closes_by_path_[place->slot];
  (slot.first == nullptr ? slot.first : slot.last->same_slot) = place;
  slot.last = place;
}

EventQueue::Place EventQueue::take(int& opens_in_a_row, Clock::time_point now) {
  QueuedEvent* place = next(opens_in_a_row, now);
  opens_in_a_row = is_close(*place) ? 0 : opens_in_a_row + 1;
  return remove(place);
}

EventQueue::Place EventQueue::take_open_before(Clock::time_point bound) {
  return opens_.first != nullptr && opens_.first->since < bound ? remove(opens_.first) : nullptr;
}

const QueuedEvent* EventQueue::oldest() const {
  if (opens_.first == nullptr || closes_.first == nullptr) {
    return opens_.first == nullptr ? closes_.first : opens_.first;
  }
  return opens_.first->number < closes_.first->number ? opens_.first : closes_.first;
}

QueuedEvent* EventQueue::next(int opens_in_a_row, Clock::time_point now) const {
  QueuedEvent* open = opens_.first;
  QueuedEvent* close = closes_.first;
  if (open == nullptr || close == nullptr) {
    return open == nullptr ? close : open;
  }
  if (waits(now) < time_limits::arrival_order) {
    return open->number < close->number ? open : close;
  }
  if (opens_in_a_row >= most_opens_in_a_row) {
    return close;
  }
  QueuedEvent* first = close_before(*open);
  return first == nullptr ? open : first;
}

// The oldest close of the open's path that arrived before it, or null.
QueuedEvent* EventQueue::close_before(const QueuedEvent& open) const {
  for (QueuedEvent* close = closes_by_path_[open.slot].first;
       close != nullptr && close->number < open.number; close = close->same_slot) {
    if (std::strcmp(close->event.path, open.event.path) == 0) {
      return close;
    }
  }
  return nullptr;
}

EventQueue::Place EventQueue::remove(QueuedEvent* place) {
  if (is_close(*place)) {
    closes_.remove(place);
    Slot& slot = closes_by_path_[place->slot];
    QueuedEvent* before = nullptr;  // `place` is almost always the first
    for (QueuedEvent* other = slot.first; other != place; other = other->same_slot) {
      before = other;
    }
    (before == nullptr ? slot.first : before->same_slot) = place->same_slot;
    slot.last = slot.last == place ? before : slot.last;
  } else {
    opens_.remove(place);
  }
  return Place(place);
}

void EventQueue::Line::append(QueuedEvent* place) {
  place->before = last;
  place->after = nullptr;
  (last == nullptr ? first : last->after) = place;
  last = place;
}

void EventQueue::Line::remove(const QueuedEvent* place) {
  (place->before == nullptr ? first : place->before->after) = place->after;
  (place->after == nullptr ? last : place->after->before) = place->before;
}
