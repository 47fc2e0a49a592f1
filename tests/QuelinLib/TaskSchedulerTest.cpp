#include "QuelinLib/TaskScheduler.h"
#include "QuelinLib/DebugLogger.h"
#include "QuelinLib/Lib.h"
#include "QuelinLib/Thread.h"
#include <atomic>
#include <gtest/gtest.h>
#include <stdexcept>

using namespace Quelin;

// ------------------------------------------------------------ parallel loops

class TaskSchedulerTest : public testing::Test {
  protected:
    TaskScheduler mScheduler{"Test.WorkerThread", 2};
};

TEST_F(TaskSchedulerTest, CoversEveryIndexOnceInRangesNoLargerThanTheGrain) {
    struct Case { std::int64_t begin, end, grain; };
    for (Case const c : {Case{0, 10007, 16}, Case{5, 25, 100}, Case{3, 3, 1}}) {
        Stack<std::atomic<int>> hits(std::size_t(c.end));
        std::atomic<int> calls{0}, tooBig{0};
        EXPECT_TRUE(mScheduler.parallelFor(c.begin, c.end, c.grain, [&](std::int64_t b, std::int64_t e) {
            ++calls;
            tooBig += e - b > c.grain;
            for (std::int64_t i = b; i < e; ++i) ++hits[i];
        }));
        EXPECT_EQ(tooBig, 0) << "ranges bigger than the grain were not split";
        for (std::int64_t i = 0; i < c.end; ++i) ASSERT_EQ(hits[i], i >= c.begin ? 1 : 0) << i;
        // A range within the grain runs as one call, an empty one as none.
        if (c.end - c.begin <= c.grain) {
            EXPECT_EQ(calls, c.end > c.begin ? 1 : 0) << c.begin << ".." << c.end;
        }
    }
}

TEST_F(TaskSchedulerTest, ProgressCountsAndReportsTheEnd) {
    std::atomic<std::int64_t> lastDone{0}, lastTotal{0};
    std::atomic<int> calls{0};
    TaskProgress progress([&](std::int64_t done, std::int64_t total) {
        ++calls;
        lastDone = done;
        lastTotal = total;
    });
    ASSERT_TRUE(mScheduler.parallelFor(0, 1000, 10, [](std::int64_t, std::int64_t) {}, &progress));
    ASSERT_TRUE(mScheduler.parallelFor(0, 500, 10, [](std::int64_t, std::int64_t) {}, &progress));
    EXPECT_EQ(progress.getDone(), 1500);
    EXPECT_GT(calls, 2);
    EXPECT_EQ(lastTotal, 1500);
    EXPECT_LE(lastDone, lastTotal);
}

TEST_F(TaskSchedulerTest, CancelStopsTheLoop) {
    TaskProgress progress;
    std::atomic<std::int64_t> processed{0};
    bool const finished = mScheduler.parallelFor(
        0, 100000, 1,
        [&](std::int64_t b, std::int64_t e) {
            processed += e - b;
            if (processed > 100) progress.cancel();
        },
        &progress);
    EXPECT_FALSE(finished);
    EXPECT_LT(processed, 100000);
    // A cancelled progress refuses further loops at once.
    std::atomic<int> calls{0};
    EXPECT_FALSE(mScheduler.parallelFor(0, 100, 1, [&](std::int64_t, std::int64_t) { ++calls; }, &progress));
    EXPECT_EQ(calls, 0);
}

TEST_F(TaskSchedulerTest, BodyExceptionReachesTheCaller) {
    auto const failing = [](std::int64_t b, std::int64_t) {
        if (b == 500) throw std::runtime_error("bad level");
    };
    EXPECT_THROW(mScheduler.parallelFor(0, 1000, 1, failing), std::runtime_error);
    // The scheduler is still fine afterwards.
    std::atomic<std::int64_t> count{0};
    EXPECT_TRUE(mScheduler.parallelFor(0, 100, 1, [&](std::int64_t b, std::int64_t e) { count += e - b; }));
    EXPECT_EQ(count, 100);
}

TEST_F(TaskSchedulerTest, NestedLoopsRunOnTheSameSchedulerAndTheThreadDefaultIsPerThread) {
    std::atomic<int> wrongScheduler{0};
    std::atomic<std::int64_t> count{0};
    auto check = [&] { wrongScheduler += &TaskScheduler::getDefault() != &mScheduler; };
    mScheduler.parallelFor(0, 8, 1, [&](std::int64_t, std::int64_t) {
        check();
        parallelFor(0, 100, 4, [&](std::int64_t b, std::int64_t e) {
            check();
            count += e - b;
        });
    });
    EXPECT_EQ(wrongScheduler, 0);
    EXPECT_EQ(count, 800);
    TaskScheduler* seenInside = nullptr;
    Thread worker([&] {
        TaskScheduler::setThreadDefault(&mScheduler);
        seenInside = &TaskScheduler::getDefault();
        TaskScheduler::setThreadDefault(nullptr);
    });
    worker.join();
    EXPECT_EQ(seenInside, &mScheduler);
    EXPECT_NE(&TaskScheduler::getDefault(), &mScheduler);
}

namespace {
/// Runs f(t) on `count` threads of their own and waits for them.
template <typename F> void onThreads(int count, F f) {
    Stack<Thread> threads;
    for (int t = 0; t < count; ++t) threads.emplace_back([&f, t] { f(t); });
    for (auto& t : threads) t.join();
}
} // namespace

TEST(TaskProgressTest, ConcurrentUpdatesAddUp) {
    TaskProgress progress;
    progress.addTotal(4000);
    onThreads(4, [&](int) {
        for (int i = 0; i < 1000; ++i) progress.addDone();
    });
    EXPECT_EQ(progress.getDone(), 4000);
    EXPECT_FLOAT_EQ(TaskProgress().getFraction(), 0.f); // no total: no division by zero
}

// ------------------------------------------------------------ threads, logger, lifecycle

#if defined(__linux__)
TEST(ThreadNameTest, LongNamesAreCutToFifteenBytes) {
    auto nameInThread = [](char const* name) {
        String seen;
        Thread([&] {
            setThreadName(name);
            seen = getThreadName();
        }).join();
        return seen;
    };
    EXPECT_EQ(nameInThread("Ostrel.ImageTextureCache.Loader"), "Ostrel.ImageTex");
    // A two-byte character straddling the limit is dropped whole.
    EXPECT_EQ(nameInThread("abcdefghijklmn\xC3\xA9xyz"), "abcdefghijklmn");
}
#endif

class DebugLoggerTest : public testing::Test {
  protected:
    void SetUp() override {
        DebugLogger::setSink([this](StringView category, StringView line) {
            std::lock_guard lock(mMutex);
            mLines.emplace_back(String(category) + "|" + String(line));
        });
    }
    void TearDown() override {
        DebugLogger::disableAll();
        DebugLogger::setSink({});
    }
    Mutex mMutex;
    Stack<String> mLines;
};

TEST_F(DebugLoggerTest, OnlyEnabledCategoriesWrite) {
    DebugLogger::enable("texture");
    DebugLogger texture("texture", "Quelin::ImageTexture::ImageTexture", "TextureMap/ImageTexture");
    texture("Loading", "wood.png", 3);
    DebugLogger("settings")("Exception:", "ignored");
    ASSERT_EQ(mLines.size(), 1u);
    EXPECT_EQ(mLines[0],
              "texture|[texture] Quelin::ImageTexture::ImageTexture (TextureMap/ImageTexture): Loading wood.png 3");

    DebugLogger::enable("texture", false);
    EXPECT_FALSE(DebugLogger("texture").isEnabled());
    DebugLogger::enable("*");
    EXPECT_TRUE(DebugLogger("anything").isEnabled());
}

TEST_F(DebugLoggerTest, ConcurrentLinesStayWhole) {
    DebugLogger::enable("mip");
    onThreads(4, [](int t) {
        DebugLogger log("mip");
        for (int i = 0; i < 200; ++i) log("thread", t, "line", i);
    });
    ASSERT_EQ(mLines.size(), 800u);
    for (auto const& line : mLines) ASSERT_TRUE(line.starts_with("mip|[mip] thread ")) << line;
}

TEST(LibTest, StartupIsCountedAndLastShutdownRunsFunctions) {
    // The shutdown functions below capture locals: only run from a stopped library.
    if (Lib::getStartCount() != 0) GTEST_SKIP() << "the library is started elsewhere";
    Lib::startup();
    Lib::startup();
    Stack<int> order;
    Lib::addShutdownFunction([&] { order.push_back(1); });
    Lib::addShutdownFunction([&] { order.push_back(2); });
    Lib::shutdown();
    EXPECT_TRUE(Lib::isStarted());
    EXPECT_TRUE(order.empty());
    Lib::shutdown();
    EXPECT_FALSE(Lib::isStarted());
    EXPECT_EQ(order, (Stack<int>{2, 1}));
    Lib::shutdown(); // unmatched: ignored
    EXPECT_EQ(Lib::getStartCount(), 0);
}
