#include "event_queue.h"

#include <cstring>
#include <utility>

namespace {

// One by one: a long list would otherwise be destroyed by as deep a recursion.
void destroy_list(std::unique_ptr<QueuedEvent> head) {
  while (head != nullptr) {
    head = std::move(head->next);
  }
}

}  // namespace

EventQueue::~EventQueue() {
  destroy_list(std::move(first_));
  destroy_list(std::move(free_));
}

bool EventQueue::push(const fsfilter_event_struct& event) noexcept {
  std::unique_ptr<QueuedEvent> place = free_place();
  if (place == nullptr) {
    return false;
  }
  std::memcpy(&place->event, &event,
              offsetof(fsfilter_event_struct, path) + std::strlen(event.path) + 1);
  place->let_go = false;
  QueuedEvent* added = place.get();
  (last_ == nullptr ? first_ : last_->next) = std::move(place);
  last_ = added;
  return true;
}

std::unique_ptr<QueuedEvent> EventQueue::pop() {
  std::unique_ptr<QueuedEvent> taken = std::move(first_);
  first_ = std::move(taken->next);
  if (first_ == nullptr) {
    last_ = nullptr;
  }
  return taken;
}

void EventQueue::recycle(std::unique_ptr<QueuedEvent> place) {
  if (place != nullptr) {
    place->next = std::move(free_);
    free_ = std::move(place);
  }
}

std::unique_ptr<QueuedEvent> EventQueue::free_place() noexcept {
  if (free_ == nullptr) {
    return std::unique_ptr<QueuedEvent>(new (std::nothrow) QueuedEvent);
  }
  std::unique_ptr<QueuedEvent> place = std::move(free_);
  free_ = std::move(place->next);
  return place;
}

FrontWatch::Clock::duration FrontWatch::look(std::uint64_t first, Clock::time_point now) {
  if (first == 0 || first != first_) {
    first_ = first;
    since_ = now;
  }
  return now - since_;
}
