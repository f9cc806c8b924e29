#include "tools/recognizer-pool.h"

#include <algorithm>
#include <optional>
#include <utility>

namespace handwriting::tools {

RecognizerPool::RecognizerPool(Service& service, size_t threads) : service_(service) {
  for (size_t i = 0; i < threads; ++i) workers_.push_back(std::make_unique<Worker>());
}

RecognizerPool::~RecognizerPool() {
  {
    const std::scoped_lock lock(mutex_);
    stopped_ = true;
    queue_.clear();
  }
  changed_.notify_all();
}

void RecognizerPool::ReportLoaded(std::exception_ptr failure) {
  const std::scoped_lock lock(mutex_);
  if (failure && !failure_) failure_ = std::move(failure);
  ++loaded_;
  changed_.notify_all();
}

void RecognizerPool::Load() {
  const std::string& name = service_.setup().model;
  model_ = BytesOfFile(name);
  service_.Describe({name, model_});
  for (const auto& worker : workers_) {
    worker->thread = std::jthread([this, &worker] { Run(*worker); });
  }
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [this] { return loaded_ == workers_.size(); });
  model_ = {};
  if (failure_) std::rethrow_exception(failure_);
}

bool RecognizerPool::IsReady() const {
  if (loaded_ < workers_.size()) return false;
  const Clock::rep now = Clock::now().time_since_epoch().count();
  const Clock::rep most =
      Clock::duration(std::chrono::seconds(service_.limits().work_seconds)).count();
  return std::ranges::none_of(workers_, [&](const auto& worker) {
    const Clock::rep begin = worker->begin;
    return begin != 0 && now - begin > most;
  });
}

bool RecognizerPool::IsWorking() const {
  return std::ranges::any_of(workers_, [](const auto& worker) { return worker->begin != 0; });
}

bool RecognizerPool::Add(std::shared_ptr<Work> work) {
  {
    const std::scoped_lock lock(mutex_);
    if (queue_.size() >= service_.limits().queue) return false;
    work->queued = Clock::now();
    queue_.push_back(std::move(work));
    waiting_ = queue_.size();
  }
  changed_.notify_one();
  return true;
}

// A client that has its answer often sends the next request at once. Falling asleep and being woken
// takes longer than the request that comes meanwhile to be read.
void RecognizerPool::AwaitNext() const {
  constexpr auto kLittle = std::chrono::microseconds(100);
  const Clock::time_point end = Clock::now() + kLittle;
  while (!HasWaiting() && Clock::now() < end) std::this_thread::yield();
}

void RecognizerPool::Run(Worker& worker) {
  std::optional<Recognizer> recognizer;
  try {
    recognizer.emplace(ModelSource(service_.setup().model, model_), service_.setup().nbest);
  } catch (...) {
    return ReportLoaded(std::current_exception());
  }
  ReportLoaded(nullptr);
  for (;;) {
    std::shared_ptr<Work> work;
    AwaitNext();
    {
      std::unique_lock lock(mutex_);
      changed_.wait(lock, [this] { return stopped_ || !queue_.empty(); });
      if (stopped_) return;
      work = std::move(queue_.front());
      queue_.pop_front();
      waiting_ = queue_.size();
    }
    const Clock::time_point begin = Clock::now();
    worker.begin = begin.time_since_epoch().count();
    service_.metrics().queue.Add(begin - work->queued);
    if (!work->is_gone()) work->answer = service_.Recognize(work->request, *recognizer);
    worker.begin = 0;
    std::exchange(work->done, nullptr)();  // what it holds may hold the work
  }
}

}  // namespace handwriting::tools
