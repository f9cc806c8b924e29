#ifndef TOOLS_RECOGNIZER_POOL_H_
#define TOOLS_RECOGNIZER_POOL_H_

#include <atomic>
#include <condition_variable>
#include <deque>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tools/service.h"

namespace handwriting::tools {

/// A request that waits for a recognizer, and its answer.
struct Work {
  Request request;
  Clock::time_point queued{};
  /// Asked before the work is begun: whether nobody waits for the answer any more.
  std::function<bool()> is_gone;
  /// Called by the recognizer's thread at the end, with the answer in place or without one.
  std::function<void()> done;
  std::optional<Answer> answer;
};

/// Threads with a recognizer each, and the queue before them.
class RecognizerPool {
 public:
  /// Of recognizers that are still to be made.
  RecognizerPool(Service& service, size_t threads);
  RecognizerPool(const RecognizerPool&) = delete;
  RecognizerPool& operator=(const RecognizerPool&) = delete;
  /// Waits for what is being worked on and drops what waits.
  ~RecognizerPool();

  /// Reads the model, once, and makes all recognizers; throws what hindered one.
  void Load();
  /// Whether all recognizers are made and none has worked on one input for longer than it may.
  bool IsReady() const;
  /// Whether any recognizer is at work.
  bool IsWorking() const;
  /// Whether work waits for a recognizer.
  bool HasWaiting() const { return waiting_ != 0; }
  /// False where the queue is full.
  bool Add(std::shared_ptr<Work> work);

 private:
  // The time at which a thread took what it works on; 0 where it waits.
  struct Worker {
    std::atomic<Clock::rep> begin = 0;
    std::jthread thread;
  };

  void Run(Worker& worker);
  void AwaitNext() const;
  void ReportLoaded(std::exception_ptr failure);

  Service& service_;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<std::shared_ptr<Work>> queue_;
  std::atomic<size_t> waiting_ = 0;  // its size
  bool stopped_ = false;
  std::atomic<size_t> loaded_ = 0;
  std::exception_ptr failure_;
  std::string model_;  // its bytes, until all recognizers are made
  std::vector<std::unique_ptr<Worker>> workers_;
};

}  // namespace handwriting::tools

#endif  // TOOLS_RECOGNIZER_POOL_H_
