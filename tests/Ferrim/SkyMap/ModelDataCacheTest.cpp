// Sharing loaded slices between skies: one object per configuration, loads
// counted once, recently used slices kept alive, failures change nothing.
#include <gtest/gtest.h>

#include <atomic>
#include <latch>

#include "Ferrim/SkyMap/ModelDataCache.h"
#include "Ferrim/SkyMap/PrgSkyModelData.h"
#include "Ferrim/SkyMap/PrgSunModelData.h"
#include "QuelinLib/DebugLogger.h"
#include "SkyTestSupport.h"

using namespace Quelin;
using namespace Quelin::Testing;

namespace {

/// Loads real slices (from the shared files) and counts the loads.
template <typename Data> struct CountingLoader {
    std::shared_ptr<std::atomic<int>> loads = std::make_shared<std::atomic<int>>(0);
    SharedPtr<Data const> operator()(typename Data::Configuration const& c) const {
        ++*loads;
        return makeSharedPtr<Data>(c);
    }
};

TEST(ModelDataCacheTest, ThreadsAskingForOneConfigurationShareOneSlice) {
    SkyDataLocation const location(sharedSkyDataFolder());
    CountingLoader<PrgSkyModelData> loader;
    ModelDataCache<PrgSkyModelData> cache(0, loader);
    constexpr int THREADS = 8;
    std::latch start(THREADS);
    std::vector<SharedPtr<PrgSkyModelData const>> results(THREADS);
    std::vector<std::thread> threads;
    for (auto& result : results)
        threads.emplace_back([&] {
            start.arrive_and_wait();
            result = cache.get({{0, 0, 0}, 2, 7}).value();
        });
    for (auto& thread : threads) thread.join();

    EXPECT_EQ(std::count(results.begin(), results.end(), results[0]), THREADS);
    // Concurrent misses may each load, but the kept slice counts its own load only.
    EXPECT_TRUE(*loader.loads >= 1 && *loader.loads <= THREADS) << *loader.loads;
    EXPECT_EQ(results[0]->getLoadStats().bytesRead, 8'666'560);
}

TEST(ModelDataCacheTest, TheKeepAliveListHoldsTheMostRecentlyUsedSlices) {
    SkyDataLocation const location(sharedSkyDataFolder());
    CountingLoader<PrgSunModelData> loader;
    ModelDataCache<PrgSunModelData> cache(2, loader);
    auto weakGet = [&](int a) { return WeakPtr<PrgSunModelData const>(cache.get({a, 0}).value()); };

    auto const s0 = weakGet(0), s1 = weakGet(1); // no sky holds them: only the list
    EXPECT_FALSE(weakGet(0).expired());          // 0 is the most recent again
    auto const s2 = weakGet(2);                  // pushes out 1, the least recent
    EXPECT_TRUE(s1.expired());
    EXPECT_FALSE(s0.expired() || s2.expired());
    EXPECT_EQ(*loader.loads, 3);

    cache.setKeepAliveCapacity(0);
    EXPECT_TRUE(s0.expired() && s2.expired());
}

TEST(ModelDataCacheTest, AFailedLoadIsAnErrorLoggedInDevelopmentThatKeepsWhatWasLoaded) {
    SkyDataLocation const location(sharedSkyDataFolder());
    CountingLoader<PrgSunModelData> real;
    ModelDataCache<PrgSunModelData> cache(4, [&](PrgSunModelData::Configuration const& c) {
        if (c.indexA == 5) throw Exception("injected failure");
        return real(c);
    });
    auto const kept = cache.get({0, 0}).value();

    std::vector<String> lines;
    DebugLogger::enable("settings");
    DebugLogger::setSink([&](StringView, StringView line) { lines.emplace_back(line); });
    ::setenv("QUELIN_DEVELOPMENT", "1", 1);
    auto const failed = cache.get({5, 21});
    ::unsetenv("QUELIN_DEVELOPMENT");
    EXPECT_FALSE(cache.get({5, 21})); // not logged outside development
    DebugLogger::setSink({});
    DebugLogger::enable("settings", false);

    EXPECT_EQ(failed ? String("loaded") : failed.error(), "injected failure");
    EXPECT_EQ(lines, std::vector<String>{"[settings] Exception: injected failure"});
    EXPECT_EQ(cache.get({0, 0}).value(), kept);
    EXPECT_EQ(*real.loads, 1);
}

} // namespace
