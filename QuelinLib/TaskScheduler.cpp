#include "QuelinLib/TaskScheduler.h"
#include <algorithm>
#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>
#include <tbb/partitioner.h>
#include <tbb/task_arena.h>
#include <tbb/task_group.h>

namespace Quelin {

void TaskProgress::addTotal(std::int64_t units) {
    mTotal.fetch_add(units, std::memory_order_relaxed);
    notify();
}

void TaskProgress::addDone(std::int64_t units) {
    mDone.fetch_add(units, std::memory_order_relaxed);
    notify();
}

float TaskProgress::getFraction() const {
    std::int64_t const total = getTotal();
    if (total <= 0)
        return 0.f;
    return std::clamp(float(double(getDone()) / double(total)), 0.f, 1.f);
}

void TaskProgress::notify() {
    if (!mCallback)
        return;
    std::lock_guard lock(mCallbackMutex);
    mCallback(getDone(), getTotal());
}

struct TaskScheduler::Impl {
    tbb::task_arena arena;
    explicit Impl(int threads) : arena(threads > 0 ? threads : tbb::task_arena::automatic) {}
};

namespace {
/// The scheduler whose loop body runs on this thread (workers included).
thread_local TaskScheduler* tCurrent = nullptr;
/// The scheduler this thread chose for itself.
thread_local TaskScheduler* tThreadDefault = nullptr;

struct CurrentScope {
    TaskScheduler* previous;
    explicit CurrentScope(TaskScheduler* s) : previous(tCurrent) { tCurrent = s; }
    ~CurrentScope() { tCurrent = previous; }
};
} // namespace

TaskScheduler::TaskScheduler(String name, int threadCount)
    : mName(std::move(name)), mImpl(std::make_unique<Impl>(threadCount)) {}

TaskScheduler::~TaskScheduler() {
    if (tThreadDefault == this)
        tThreadDefault = nullptr;
}

int TaskScheduler::getThreadCount() const { return mImpl->arena.max_concurrency(); }

void TaskScheduler::execute(Function<void()> const& work) {
    mImpl->arena.execute([&] {
        CurrentScope scope(this);
        work();
    });
}

bool TaskScheduler::parallelFor(std::int64_t begin, std::int64_t end, std::int64_t grain, RangeBody const& body,
                                TaskProgress* progress) {
    if (end <= begin)
        return !(progress && progress->isCancelled());
    if (progress)
        progress->addTotal(end - begin);
    std::int64_t const grainSize = std::max<std::int64_t>(grain, 1);
    // Own context: a cancelled or throwing loop must not cancel the caller's.
    tbb::task_group_context context(tbb::task_group_context::isolated);
    auto run = [&] {
        tbb::parallel_for(
            tbb::blocked_range<std::int64_t>(begin, end, std::size_t(grainSize)),
            [&](tbb::blocked_range<std::int64_t> const& range) {
                if (progress && progress->isCancelled()) {
                    context.cancel_group_execution();
                    return;
                }
                CurrentScope scope(this);
                body(range.begin(), range.end());
                if (progress)
                    progress->addDone(std::int64_t(range.size()));
            },
            tbb::simple_partitioner(), context);
    };
    // Already inside this arena (a nested loop): run there directly.
    if (tbb::this_task_arena::current_thread_index() != tbb::task_arena::not_initialized && tCurrent == this)
        run();
    else
        mImpl->arena.execute(run);
    return !(progress && progress->isCancelled());
}

TaskScheduler& TaskScheduler::getDefault() {
    if (tCurrent)
        return *tCurrent;
    if (tThreadDefault)
        return *tThreadDefault;
    // Never destroyed: loops may still run while statics are torn down.
    static TaskScheduler* processDefault = new TaskScheduler("Quelin.TaskScheduler");
    return *processDefault;
}

void TaskScheduler::setThreadDefault(TaskScheduler* scheduler) { tThreadDefault = scheduler; }

} // namespace Quelin
