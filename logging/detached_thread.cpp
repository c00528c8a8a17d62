#include "detached_thread.h"

namespace {

// A destructor, because the forced unwind begins in its frame: there AddressSanitizer learns that
// the stack is given up. Frames without any clean-up of their own are dropped without its notice.
struct CancellationEnabled {
  CancellationEnabled() { (void)pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr); }
  ~CancellationEnabled() { (void)pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr); }
  CancellationEnabled(const CancellationEnabled&) = delete;
  CancellationEnabled& operator=(const CancellationEnabled&) = delete;
};

}  // namespace

int DetachedThread::start(Body body, void* argument, std::size_t stack_size) {
  body_ = body;
  argument_ = argument;
  {
    ScopedLock lock(mutex_);
    left_ = false;
  }
  pthread_attr_t attributes;
  int error = pthread_attr_init(&attributes);
  if (error == 0) {
    error = pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    if (error == 0 && stack_size != 0) {
      error = pthread_attr_setstacksize(&attributes, stack_size);
    }
    if (error == 0) {
      error = pthread_create(&thread_, &attributes, &DetachedThread::enter, this);
    }
    (void)pthread_attr_destroy(&attributes);
  }
  if (error != 0) {
    leave();
    return error;
  }
  running_.store(true, std::memory_order_release);
  return 0;
}

void* DetachedThread::enter(void* self) {
  auto* thread = static_cast<DetachedThread*>(self);
  (void)pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
  struct Leaving {
    DetachedThread* thread;
    ~Leaving() { thread->leave(); }
  } leaving{thread};
  thread->body_(thread->argument_);
  return nullptr;
}

void DetachedThread::leave() {
  ScopedLock lock(mutex_);
  left_ = true;
  left_changed_.notify_all();
}

void DetachedThread::cancel() {
  if (running_.exchange(false, std::memory_order_acq_rel)) {
    (void)pthread_cancel(thread_);
  }
}

bool DetachedThread::wait_until_left(std::chrono::milliseconds bound) {
  const auto deadline = std::chrono::steady_clock::now() + bound;
  ScopedLock lock(mutex_);
  while (!left_) {
    if (!left_changed_.wait_until(lock, deadline)) {
      return left_;
    }
  }
  return true;
}

void DetachedThread::cancellation_point() {
  const CancellationEnabled enabled;
  pthread_testcancel();
}
