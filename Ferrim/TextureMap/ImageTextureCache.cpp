#include "Ferrim/TextureMap/ImageTextureCache.h"

#include "Ferrim/ColorSpaces.h"
#include "Ferrim/Ferrim.h"
#include "QuelinLib/DebugLogger.h"
#include "QuelinLib/TaskScheduler.h"
#include "QuelinLib/Thread.h"
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <deque>
#include <unordered_map>

namespace Quelin::ImageTextureCache {

/// Callbacks waiting for a texture. Recursive, so that a callback may request
/// the same texture again (it is appended and called in the same pass).
class CallbackList {
  public:
    RecursiveMutex mutex;
    Stack<Function<void(ImageTexture const&)>> callbacks;
};

/// One distinct image source: its texture once built, and who waits for it.
class CacheRecord : Noncopyable {
  public:
    explicit CacheRecord(EntityHolder<IDataSource const> source_, String colorSpace_ = {})
        : source(std::move(source_)), colorSpace(std::move(colorSpace_)) {}

    /// Builds the texture and runs the callbacks, unless done already. A
    /// concurrent build is waited for (the recursive mutex), not repeated.
    void build();
    /// Calls `callback` now if the texture is ready, else when it is.
    void addCallback(Function<void(ImageTexture const&)> callback);

    EntityHolder<IDataSource const> source;
    String colorSpace;  ///< empty: the plain load
    WeakPtr<CacheRecord> self;
    std::atomic<bool> ready{false};
    RecursiveMutex buildMutex;
    SharedPtr<ImageTexture> texture;
    Optional<Io::TimeStamp> timeStamp;
    CallbackList callbacks;
};

namespace {

enum class LoaderState { Running = 0, Suspended = 1, Stopping = 2 };

String const LOADER_THREAD_NAME = "Ostrel.ImageTextureCache.Loader";

/// A source and the colour space it is loaded in (with the config that names it).
struct IndexKey {
    Io::FileId file;
    String colorSpace;
    bool operator==(IndexKey const&) const = default;
};
struct IndexKeyHash {
    std::size_t operator()(IndexKey const& k) const {
        return std::hash<Io::FileId>()(k.file) ^ (std::hash<String>()(k.colorSpace) * 31);
    }
};

/// Everything under the cache mutex.
struct Cache {
    Mutex mutex;
    std::condition_variable wake;
    std::unordered_map<IndexKey, WeakPtr<CacheRecord>, IndexKeyHash> index;
    std::deque<WeakPtr<CacheRecord>> queue;
    LoaderState state = LoaderState::Stopping;
    Thread loader;
    std::size_t indexSizeAtLastPrune = 0;
};

Cache& cache() {
    // Never destroyed: textures and records may outlive static destruction order.
    static Cache* const sCache = new Cache;
    return *sCache;
}

void logError(StringView what, StringView text) {
    DebugLogger("texture", "Quelin::ImageTextureCache", "TextureMap/ImageTextureCache")(what, text);
}

void loaderMain() {
    setThreadName(LOADER_THREAD_NAME);
    // Work spawned while decoding (mip generation) runs on the loader's own
    // workers, apart from the render threads' scheduler.
    TaskScheduler scheduler(LOADER_THREAD_NAME + ".WorkerThread");
    TaskScheduler::setThreadDefault(&scheduler);
    Cache& c = cache();
    std::unique_lock lock(c.mutex);
    for (;;) {
        c.wake.wait(lock, [&] { return c.state == LoaderState::Stopping || (c.state == LoaderState::Running && !c.queue.empty()); });
        if (c.state == LoaderState::Stopping)
            break;
        WeakPtr<CacheRecord> const next = std::move(c.queue.front());
        c.queue.pop_front();
        lock.unlock();
        // Nobody holds an abandoned request any more: it costs nothing.
        if (SharedPtr<CacheRecord> record = next.lock()) {
            try {
                record->build();
            } catch (...) {
                // A throwing callback must not end the loader: the other textures still load.
                logError("A texture callback failed:", exceptionToString(std::current_exception()));
            }
        }
        lock.lock();
    }
    TaskScheduler::setThreadDefault(nullptr);
}

bool sameTimeStamp(Optional<Io::TimeStamp> const& a, Optional<Io::TimeStamp> const& b) {
    return a.has_value() == b.has_value() && (!a || *a == *b);
}

/// Drops index entries of ended records once the index has doubled since the last sweep.
void pruneIndex(Cache& c) {
    if (c.index.size() < 64 || c.index.size() < 2 * c.indexSizeAtLastPrune)
        return;
    std::erase_if(c.index, [](auto const& entry) { return entry.second.expired(); });
    c.indexSizeAtLastPrune = c.index.size();
}

// Started after "Register obsolete operators" by the module's hook order.
Ferrim::HookRegistrar const sCacheHook(Ferrim::Hook{
    .startupFunction = &start,
    .shutdownFunction = &stop,
    .name = "Image Texture cache",
});

} // namespace

void CacheRecord::build() {
    if (ready.load(std::memory_order_acquire))
        return;
    std::lock_guard buildLock(buildMutex);
    if (ready.load(std::memory_order_acquire))
        return;
    // A build whose callback threw left its texture: keep it, do not decode again.
    if (!texture) {
        timeStamp = source ? source->getTimeStamp() : std::nullopt;
        texture = makeSharedPtr<ImageTexture>(source, colorSpace);
    }
    std::lock_guard callbackLock(callbacks.mutex);
    std::exception_ptr failure;
    // By index: a callback may append another (a nested request for this texture).
    for (std::size_t i = 0; i < callbacks.callbacks.size(); ++i) {
        try {
            if (callbacks.callbacks[i])
                callbacks.callbacks[i](*texture);
        } catch (...) {
            if (!failure)
                failure = std::current_exception();
        }
    }
    // Each callback runs once, also when one of them failed.
    callbacks.callbacks.clear();
    if (failure)
        std::rethrow_exception(failure);
    // Still under the list's lock: a callback added from now on sees `ready`.
    ready.exchange(true);
}

void CacheRecord::addCallback(Function<void(ImageTexture const&)> callback) {
    if (!callback)
        return;
    std::lock_guard lock(callbacks.mutex);
    if (ready.load(std::memory_order_acquire))
        callback(*texture);
    else
        callbacks.callbacks.push_back(std::move(callback));
}

bool FutureTexture::isReady() const { return mRecord && mRecord->ready.load(std::memory_order_acquire); }

SharedPtr<ImageTexture> FutureTexture::getImageTexture() const {
    if (!mRecord)
        return {};
    mRecord->build();
    // Shares the record's ownership: the record (and its index entry) lives as
    // long as any texture reference does.
    return SharedPtr<ImageTexture>(mRecord, mRecord->texture.get());
}

FutureTexture getOrCreate(EntityHolder<IDataSource const> const& source, Function<void(ImageTexture const&)> onReady) {
    return getOrCreateInColorSpace(source, String(), std::move(onReady));
}

FutureTexture getOrCreateInColorSpace(EntityHolder<IDataSource const> const& source, String const& colorSpace,
                          Function<void(ImageTexture const&)> onReady) {
    SharedPtr<CacheRecord> record;
    if (!source) {
        // Not indexed: every empty request builds its own failing texture.
        record = makeSharedPtr<CacheRecord>(source, colorSpace);
        record->self = record;
    } else {
        // File system queries before the lock: they may be slow.
        // The same name means other texels under another config.
        IndexKey const id{source->getFileId(),
                          colorSpace.empty() ? String() : ColorSpaces::configName() + '\n' + colorSpace};
        Optional<Io::TimeStamp> const stamp = source->getTimeStamp();
        Cache& c = cache();
        Stack<SharedPtr<CacheRecord>> dropped; // released after the lock
        {
            std::lock_guard lock(c.mutex);
            if (auto it = c.index.find(id); it != c.index.end()) {
                if (SharedPtr<CacheRecord> candidate = it->second.lock()) {
                    // A record still queued is joined; a ready one only while its source is unchanged.
                    if (!candidate->ready.load(std::memory_order_acquire) || sameTimeStamp(candidate->timeStamp, stamp))
                        record = candidate;
                    else
                        dropped.push_back(std::move(candidate));
                }
            }
            if (!record) {
                record = makeSharedPtr<CacheRecord>(source, colorSpace);
                record->self = record;
                pruneIndex(c);
                c.index[id] = record;
                c.queue.push_back(record);
                c.wake.notify_all();
            }
        }
    }
    record->addCallback(std::move(onReady));
    return FutureTexture(std::move(record));
}

SharedPtr<ImageTexture> getOrCreate(EntityHolder<IDataSource const> const& source) {
    return getOrCreateInColorSpace(source, String());
}

SharedPtr<ImageTexture> getOrCreateInColorSpace(EntityHolder<IDataSource const> const& source, String const& colorSpace) {
    if (!source)
        return makeSharedPtr<ImageTexture>(source, colorSpace);
    return getOrCreateInColorSpace(source, colorSpace, {}).getImageTexture();
}

namespace {
/// The index's live, ready records; taken under the cache mutex, released after it.
Stack<SharedPtr<CacheRecord>> readyRecords() {
    Cache& c = cache();
    Stack<SharedPtr<CacheRecord>> records;
    std::lock_guard lock(c.mutex);
    for (auto const& [id, weak] : c.index)
        if (SharedPtr<CacheRecord> record = weak.lock(); record && record->ready.load(std::memory_order_acquire))
            records.push_back(std::move(record));
    return records;
}
} // namespace

namespace {
struct TileSettings {
    std::mutex mutex;
    double capMib = DEFAULT_TILE_MEMORY_MIB;
    TileCache* cache = nullptr;  ///< never destroyed: textures may outlive static destruction
};
TileSettings& tileSettings() {
    static TileSettings* const sSettings = new TileSettings;
    return *sSettings;
}
std::int64_t bytesOf(double mib) { return std::int64_t(mib * double(1 << 20)); }
} // namespace

TileCache& getTileCache() {
    TileSettings& s = tileSettings();
    std::lock_guard lock(s.mutex);
    if (!s.cache) s.cache = new TileCache(bytesOf(s.capMib));
    return *s.cache;
}

Expected<std::true_type, String> setTileMemoryCap(double mebibytes) {
    // Written so that NaN fails too.
    if (!(mebibytes > 0.0 && mebibytes <= MAX_TILE_MEMORY_MIB)) {
        char text[160];
        std::snprintf(text, sizeof text, "texture memory cap %g MiB: give a number above 0 and at most %.0f MiB", mebibytes,
                      MAX_TILE_MEMORY_MIB);
        return makeError(String(text));
    }
    TileSettings& s = tileSettings();
    // Under the lock, so that concurrent calls leave the last one's cap.
    std::lock_guard lock(s.mutex);
    s.capMib = mebibytes;
    if (s.cache) s.cache->setCapacity(bytesOf(mebibytes));
    return std::true_type{};
}

double getTileMemoryCap() {
    TileSettings& s = tileSettings();
    std::lock_guard lock(s.mutex);
    return s.capMib;
}

std::int64_t getMemoryUsage() {
    std::int64_t bytes = 0;
    for (auto const& record : readyRecords()) bytes += record->texture->getMemoryUsage();
    return bytes;
}

Stack<SharedPtr<ImageTexture>> getReadyTextures() {
    Stack<SharedPtr<ImageTexture>> textures;
    for (auto& record : readyRecords()) textures.push_back(SharedPtr<ImageTexture>(record, record->texture.get()));
    return textures;
}

void suspend() {
    Cache& c = cache();
    std::lock_guard lock(c.mutex);
    if (c.state == LoaderState::Running)
        c.state = LoaderState::Suspended;
}

void resume() {
    Cache& c = cache();
    std::lock_guard lock(c.mutex);
    if (c.state == LoaderState::Suspended) {
        c.state = LoaderState::Running;
        c.wake.notify_all();
    }
}

bool isStarted() {
    Cache& c = cache();
    std::lock_guard lock(c.mutex);
    return c.loader.joinable();
}

void start() {
    getTileCache();
    MipMapManager::resetOffloadState();
    if (auto made = Io::createDirs(MipMapManager::getOffloadDirectory()); !made)
        logError("Offload folder not available:", made.error());
    MipMapManager::resetStats();
    Cache& c = cache();
    std::lock_guard lock(c.mutex);
    if (c.loader.joinable())
        return;
    c.state = LoaderState::Running;
    c.loader = Thread(&loaderMain);
}

void stop() {
    Cache& c = cache();
    Thread loader;
    std::unordered_map<IndexKey, WeakPtr<CacheRecord>, IndexKeyHash> index;
    std::deque<WeakPtr<CacheRecord>> queue;
    {
        std::lock_guard lock(c.mutex);
        c.state = LoaderState::Stopping;
        c.wake.notify_all();
        index.swap(c.index);
        queue.swap(c.queue);
        loader = std::move(c.loader);
        c.indexSizeAtLastPrune = 0;
    }
    if (loader.joinable())
        loader.join();
    MipMapManager::resetOffloadState();
}

} // namespace Quelin::ImageTextureCache
