#pragma once
// Sharing of loaded model-data slices between skies. The map holds the slices
// weakly, so a slice lives as long as a sky uses it; a short list of the most
// recently used ones keeps them alive a little longer, so that a sky that
// changes back and forth (an animated sun) does not reload them.
#include "Ferrim/SkyMap/SkyDataFiles.h"
#include <algorithm>
#include <map>
#include <shared_mutex>

namespace Quelin {

template <typename Data> class ModelDataCache : Noncopyable {
  public:
    using Configuration = typename Data::Configuration;
    using Loader = Function<SharedPtr<Data const>(Configuration const&)>;

    /// `keepAliveCapacity` recently used slices stay alive (0: none). The
    /// loader is replaced only by tests that count or fail loads.
    explicit ModelDataCache(std::size_t keepAliveCapacity, Loader loader = {})
        : mCapacity(keepAliveCapacity), mLoader(std::move(loader)) {
        if (!mLoader)
            mLoader = [](Configuration const& c) { return SharedPtr<Data const>(makeSharedPtr<Data>(c)); };
    }

    /// The shared slice of `configuration`, loaded when no sky holds it. Two
    /// threads missing at once both load; the first to store its slice wins
    /// and the other's is dropped. A failed load leaves the cache as it was.
    Expected<SharedPtr<Data const>> get(Configuration const& configuration) {
        SharedPtr<Data const> data = find(configuration);
        if (!data) {
            SharedPtr<Data const> fresh;
            try {
                fresh = mLoader(configuration); // without any lock: loads take milliseconds
            } catch (std::exception const& e) {
                Detail::logSkyDataException(e.what());
                return makeError(e.what());
            }
            std::unique_lock lock(mMapMutex);
            // Slices no sky holds any more leave the map here.
            std::erase_if(mEntries, [](auto const& entry) { return entry.second.expired(); });
            auto& entry = mEntries[configuration];
            data = entry.lock(); // a concurrent loader's slice wins
            if (!data)
                entry = data = fresh;
        }
        keepAlive(data);
        return data;
    }

    void setKeepAliveCapacity(std::size_t capacity) {
        std::lock_guard lock(mRecentMutex);
        mCapacity = capacity;
        if (mRecent.size() > mCapacity)
            mRecent.resize(mCapacity);
    }
    std::size_t getKeepAliveCapacity() const {
        std::lock_guard lock(mRecentMutex);
        return mCapacity;
    }
    /// Drops the keep-alive list; slices that skies still hold stay shared.
    void releaseKeepAlive() {
        std::lock_guard lock(mRecentMutex);
        mRecent.clear();
    }

  private:
    SharedPtr<Data const> find(Configuration const& configuration) const {
        std::shared_lock lock(mMapMutex);
        auto const it = mEntries.find(configuration);
        return it == mEntries.end() ? nullptr : it->second.lock();
    }

    void keepAlive(SharedPtr<Data const> const& data) {
        std::lock_guard lock(mRecentMutex);
        if (mCapacity == 0)
            return;
        auto it = std::find(mRecent.begin(), mRecent.end(), data);
        if (it == mRecent.end()) {
            if (mRecent.size() == mCapacity)
                mRecent.pop_back();
            mRecent.insert(mRecent.begin(), data);
        } else {
            std::rotate(mRecent.begin(), it, it + 1); // to the front
        }
    }

    mutable std::shared_mutex mMapMutex;
    std::map<Configuration, WeakPtr<Data const>> mEntries;
    mutable Mutex mRecentMutex;
    Stack<SharedPtr<Data const>> mRecent; // most recent first, at most mCapacity
    std::size_t mCapacity;
    Loader mLoader;
};

} // namespace Quelin
