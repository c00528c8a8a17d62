#include "detached_thread.h"

#include <pthread.h>

#include <utility>

namespace {

thread_local const DetachedThread* this_thread = nullptr;  // if it is such a one

}  // namespace

int DetachedThread::start(std::function<void()> body, std::size_t stack_size) {
  body_ = std::move(body);
  pthread_attr_t attributes;
  (void)pthread_attr_init(&attributes);
  (void)pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  if (stack_size != 0) {
    (void)pthread_attr_setstacksize(&attributes, stack_size);
  }
  pthread_t thread{};
  ScopedLock lock(mutex_);
  running_.store(true, std::memory_order_release);
  const int error = pthread_create(&thread, &attributes, &DetachedThread::enter, this);
  (void)pthread_attr_destroy(&attributes);
  left_ = error != 0;
  if (left_) {
    ask_to_stop();
  }
  return error;
}

void* DetachedThread::enter(void* self) {
  auto* thread = static_cast<DetachedThread*>(self);
  this_thread = thread;
  thread->body_();
  ScopedLock lock(thread->mutex_);
  thread->left_ = true;
  thread->left_changed_.notify_all();
  return nullptr;
}

void DetachedThread::ask_to_stop() {
  running_.store(false, std::memory_order_release);
}

bool DetachedThread::wait_until_left(std::chrono::milliseconds bound) {
  const auto deadline = Clock::now() + bound;
  ScopedLock lock(mutex_);
  while (!left_ && left_changed_.wait_until(lock, deadline)) {
  }
  return left_;
}

bool DetachedThread::stopping() {
  return this_thread != nullptr && !this_thread->running();
}
