#include "detached_thread.h"

#include <pthread.h>

namespace {

thread_local const std::atomic<bool>* told_to_stop = nullptr;  // this thread, if it is such a one

}  // namespace

int DetachedThread::start(Body body, void* argument, std::size_t stack_size) {
  body_ = body;
  argument_ = argument;
  asked_to_stop_.store(false);
  {
    ScopedLock lock(mutex_);
    left_ = false;
  }
  pthread_attr_t attributes;
  (void)pthread_attr_init(&attributes);
  (void)pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  if (stack_size != 0) {
    (void)pthread_attr_setstacksize(&attributes, stack_size);
  }
  pthread_t thread{};
  const int error = pthread_create(&thread, &attributes, &DetachedThread::enter, this);
  (void)pthread_attr_destroy(&attributes);
  if (error != 0) {
    leave();
  }
  running_.store(error == 0, std::memory_order_release);
  return error;
}

void* DetachedThread::enter(void* self) {
  auto* thread = static_cast<DetachedThread*>(self);
  told_to_stop = &thread->asked_to_stop_;
  thread->body_(thread->argument_);
  thread->leave();
  return nullptr;
}

void DetachedThread::leave() {
  ScopedLock lock(mutex_);
  left_ = true;
  left_changed_.notify_all();
}

void DetachedThread::ask_to_stop() {
  running_.store(false, std::memory_order_release);
  asked_to_stop_.store(true);
}

bool DetachedThread::wait_until_left(std::chrono::milliseconds bound) {
  const auto deadline = std::chrono::steady_clock::now() + bound;
  ScopedLock lock(mutex_);
  while (!left_ && left_changed_.wait_until(lock, deadline)) {
  }
  return left_;
}

bool DetachedThread::stopping() {
  return told_to_stop != nullptr && told_to_stop->load();
}
