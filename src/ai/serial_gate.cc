#include <kestrova/ai.h>

namespace kestrova {

void SerialGate::acquire() {
  std::unique_lock lock(mutex_);
  if (!busy_) {
    busy_ = true;
    return;
  }
  Waiter self;
  waiters_.push_back(&self);
  self.wake.wait(lock, [&self] { return self.admitted; });
}

void SerialGate::release() {
  std::lock_guard lock(mutex_);
  if (waiters_.empty()) {
    busy_ = false;
    return;
  }
  // The gate stays busy and passes straight to the first waiter. Notify under the lock: once the
  // lock is free the waiter may return and its condition variable cease to exist.
  Waiter* next = waiters_.front();
  waiters_.pop_front();
  next->admitted = true;
  next->wake.notify_one();
}

bool SerialGate::busy() const {
  std::lock_guard lock(mutex_);
  return busy_;
}

std::size_t SerialGate::waiting() const {
  std::lock_guard lock(mutex_);
  return waiters_.size();
}

}  // namespace kestrova
