#pragma once
// Parallel loops over oneTBB, with progress and cancellation.
#include "QuelinLib/Base.h"
#include <atomic>

namespace Quelin {

/// Progress of a long job: done and total work units, updated from any thread.
/// The optional callback runs after each update, one call at a time.
class TaskProgress : Noncopyable {
  public:
    using Callback = Function<void(std::int64_t done, std::int64_t total)>;

    TaskProgress() = default;
    explicit TaskProgress(Callback callback) : mCallback(std::move(callback)) {}

    void addTotal(std::int64_t units);
    void addDone(std::int64_t units = 1);
    std::int64_t getDone() const { return mDone.load(std::memory_order_relaxed); }
    std::int64_t getTotal() const { return mTotal.load(std::memory_order_relaxed); }
    /// Done over total in [0, 1]; 0 while nothing is known.
    float getFraction() const;

    /// Asks running work to stop; parallel loops skip their remaining chunks.
    void cancel() { mCancelled.store(true, std::memory_order_relaxed); }
    bool isCancelled() const { return mCancelled.load(std::memory_order_relaxed); }

  private:
    void notify();

    std::atomic<std::int64_t> mDone{0};
    std::atomic<std::int64_t> mTotal{0};
    std::atomic<bool> mCancelled{false};
    Callback mCallback;
    Mutex mCallbackMutex;
};

/// A pool of worker threads (a oneTBB task arena). The process has a default
/// one; a thread that wants its work kept apart (the image loader) makes its
/// own and sets it as its thread's default.
class TaskScheduler : Noncopyable {
  public:
    /// `threadCount` 0 takes every hardware thread.
    explicit TaskScheduler(String name, int threadCount = 0);
    ~TaskScheduler();

    String const& getName() const { return mName; }
    int getThreadCount() const;

    using RangeBody = Function<void(std::int64_t rangeBegin, std::int64_t rangeEnd)>;
    /// Calls `body` on disjoint sub-ranges covering [begin, end), each of at
    /// most `grain` elements (the unit of progress and of cancelling: pick it
    /// so that one call does a useful amount of work). With `progress`, adds end - begin to
    /// its total and each finished sub-range to its done count, and stops taking
    /// new sub-ranges once it is cancelled. Returns false when cancelled.
    /// An exception thrown by the body cancels the loop and reaches the caller.
    bool parallelFor(std::int64_t begin, std::int64_t end, std::int64_t grain, RangeBody const& body,
                     TaskProgress* progress = nullptr);

    /// Runs `work` on the calling thread with this scheduler's workers serving
    /// the parallel loops it starts.
    void execute(Function<void()> const& work);

    /// The scheduler of the calling thread: the one whose loop is running this
    /// code, else the thread's own default, else the process-wide one.
    static TaskScheduler& getDefault();
    /// Sets (or with nullptr clears) the calling thread's default scheduler.
    static void setThreadDefault(TaskScheduler* scheduler);

  private:
    struct Impl;
    String mName;
    std::unique_ptr<Impl> mImpl;
};

/// `TaskScheduler::getDefault().parallelFor(...)`.
inline bool parallelFor(std::int64_t begin, std::int64_t end, std::int64_t grain, TaskScheduler::RangeBody const& body,
                        TaskProgress* progress = nullptr) {
    return TaskScheduler::getDefault().parallelFor(begin, end, grain, body, progress);
}

} // namespace Quelin
