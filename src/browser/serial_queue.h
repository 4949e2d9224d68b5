// SerialQueue: runs submitted work one piece at a time, in the order of submission, on the
// submitting thread. A ticket lock: each caller draws the next number and waits until that number
// is served, so the order is first come, first served (a plain mutex gives no such promise).
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <utility>

namespace kestrova {

class SerialQueue {
 public:
  explicit SerialQueue(std::string label) : label_(std::move(label)) {}

  const std::string& label() const { return label_; }

  // Number of submissions so far, finished, running or waiting.
  std::uint64_t submitted() {
    std::lock_guard lock(mutex_);
    return nextTicket_;
  }

  // Runs `work` once every earlier submission has finished; returns its result. Exceptions pass
  // through to the caller and the next submission still runs.
  template <typename Work>
  auto run(Work&& work) -> decltype(work()) {
    std::uint64_t ticket = 0;
    {
      std::unique_lock lock(mutex_);
      ticket = nextTicket_++;
      turn_.wait(lock, [&] { return serving_ == ticket; });
    }
    struct Done {
      SerialQueue* queue;
      ~Done() {
        {
          std::lock_guard lock(queue->mutex_);
          ++queue->serving_;
        }
        queue->turn_.notify_all();
      }
    } done{this};
    return work();
  }

 private:
  std::string label_;
  std::mutex mutex_;
  std::condition_variable turn_;
  std::uint64_t nextTicket_ = 0;
  std::uint64_t serving_ = 0;
};

}  // namespace kestrova
