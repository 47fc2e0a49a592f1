#include "Ferrim/TextureMap/MipMapManager.h"

#include "Ferrim/TextureMap/ImageTexture.h"
#include "Ferrim/TextureMap/ImageTextureCache.h"
#include "Ferrim/TextureMap/ImageTextureCacheDetail.h"
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <limits>
#include <sstream>
#include <mutex>
#include <thread>

#if defined(__linux__)
#include <linux/membarrier.h>
#include <sys/syscall.h>
#include <unistd.h>
#endif

namespace Quelin {

namespace {

using Clock = std::chrono::steady_clock;

std::int64_t microsecondsSince(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start).count();
}

/// The manager's bookkeeping. Its mutex is taken last (after a texture's), so
/// that offloading under a texture's lock can reserve budget and
/// `getMemoryUsage` can run under the cache's lock without ordering trouble.
struct OffloadState {
    Mutex mutex;
    Io::Path folder;
    std::int64_t budget = 0;
    std::int64_t used = 0;
    /// A level read back with an error (still on disk and counted): the next
    /// `updateCache`, even with the same budget, tries again and reports it.
    bool readBackFailed = false;
    String lastWriteError;
    /// Serialises `updateCache` calls (taken before any texture's mutex).
    Mutex updateMutex;
    /// Level buffers unpublished by offloading, freed by `reclaimRetired`.
    Mutex retiredMutex;
    Stack<Image> retired;
    Mutex reclaimMutex;
    std::atomic<std::int64_t> offloadingUs{0};
    std::atomic<std::int64_t> reloadingUs{0};
    std::atomic<std::int64_t> levelsWritten{0};
    std::atomic<std::int64_t> levelsRead{0};
};

OffloadState& state() {
    // Never destroyed: textures released by static destructors still return their bytes.
    static OffloadState* const sState = [] {
        auto* s = new OffloadState;
        s->folder = MipMapManager::getDefaultOffloadDirectory();
        return s;
    }();
    return *sState;
}

bool reserve(std::int64_t bytes) {
    auto& s = state();
    std::lock_guard lock(s.mutex);
    if (s.used + bytes > s.budget)
        return false;
    s.used += bytes;
    return true;
}

void unreserve(std::int64_t bytes) {
    auto& s = state();
    std::lock_guard lock(s.mutex);
    s.used = std::max<std::int64_t>(0, s.used - bytes);
}

String const TEXTURE_FOLDER_PREFIX = "Ostrel_Out_Of_Core_Texture_";
String const LEVEL_FILE_PREFIX = "Ostrel_Mip_Map_";

Io::Path levelFile(MipChain& chain, int level) { return MipChainAccess::folder(chain) / (LEVEL_FILE_PREFIX + std::to_string(level)); }

void removeFolderIfEmpty(Io::Path const& folder) {
    std::error_code ec;
    if (!folder.empty() && std::filesystem::is_empty(folder, ec))
        std::filesystem::remove(folder, ec);
}

/// XXH64 (Yann Collet, "xxHash: extremely fast hash algorithm", the 64-bit
/// variant) with seed 0: several GB/s, so it costs nothing next to the disk.
std::uint64_t hash64(std::byte const* data, std::size_t size) {
    constexpr std::uint64_t P1 = 0x9E3779B185EBCA87ull, P2 = 0xC2B2AE3D27D4EB4Full, P3 = 0x165667B19E3779F9ull,
                            P4 = 0x85EBCA77C2B2AE63ull, P5 = 0x27D4EB2F165667C5ull;
    auto const rotl = [](std::uint64_t x, int r) { return (x << r) | (x >> (64 - r)); };
    auto const load64 = [](std::byte const* p) {
        std::uint64_t v;
        std::memcpy(&v, p, 8);
        return Io::Detail::fromLittleEndian(v);
    };
    auto const round = [&](std::uint64_t acc, std::uint64_t input) { return rotl(acc + input * P2, 31) * P1; };
    auto const merge = [&](std::uint64_t acc, std::uint64_t val) { return (acc ^ round(0, val)) * P1 + P4; };
    std::byte const* p = data;
    std::byte const* const end = data + size;
    std::uint64_t h;
    if (size >= 32) {
        std::uint64_t v1 = P1 + P2, v2 = P2, v3 = 0, v4 = 0 - P1;
        for (; p + 32 <= end; p += 32) {
            v1 = round(v1, load64(p));
            v2 = round(v2, load64(p + 8));
            v3 = round(v3, load64(p + 16));
            v4 = round(v4, load64(p + 24));
        }
        h = rotl(v1, 1) + rotl(v2, 7) + rotl(v3, 12) + rotl(v4, 18);
        h = merge(merge(merge(merge(h, v1), v2), v3), v4);
    } else {
        h = P5;
    }
    h += std::uint64_t(size);
    for (; p + 8 <= end; p += 8) h = rotl(h ^ round(0, load64(p)), 27) * P1 + P4;
    if (p + 4 <= end) {
        std::uint32_t v;
        std::memcpy(&v, p, 4);
        h = rotl(h ^ (std::uint64_t(Io::Detail::fromLittleEndian(v)) * P1), 23) * P2 + P3;
        p += 4;
    }
    for (; p < end; ++p) h = rotl(h ^ (std::uint64_t(std::to_integer<unsigned>(*p)) * P5), 11) * P1;
    h ^= h >> 33;
    h *= P2;
    h ^= h >> 29;
    h *= P3;
    h ^= h >> 32;
    return h;
}

/// A level file: the pixels as stored, then their XXH64 (little-endian).
constexpr std::int64_t CHECKSUM_BYTES = 8;

Expected<void> writeLevel(Image const& level, Io::Path const& path) {
    auto out = Io::FileOutputStream::open(path);
    if (!out)
        return makeError(out.error());
    Io::BinaryOutputStream binary(**out);
    std::size_t const size = std::size_t(level.getByteSize());
    if (auto r = binary.write(level.getData(), size); !r)
        return r;
    if (auto r = binary.write(hash64(level.getData(), size)); !r)
        return r;
    return (*out)->close();
}

/// Reads a level file into `image`'s buffer; false when it is missing, not a
/// regular file, of another size, short or altered.
bool readLevel(Image& image, Io::Path const& path) {
    auto in = Io::FileInputStream::open(path);
    if (!in)
        return false;
    std::size_t const size = std::size_t(image.getByteSize());
    if ((*in)->getSize().value_or(-1) != image.getByteSize() + CHECKSUM_BYTES)
        return false;
    Io::BinaryInputStream binary(**in);
    if (!binary.read(image.getData(), size))
        return false;
    auto const stored = binary.read<std::uint64_t>();
    return stored && *stored == hash64(image.getData(), size);
}

String formatBytes(std::int64_t bytes) {
    char text[32];
    std::snprintf(text, sizeof text, "%.2f MiB", double(bytes) / double(1 << 20));
    return text;
}

String resolutionText(ImageTexture const& t) {
    auto const r = t.getDescriptor().resolution;
    return std::to_string(r.x) + "x" + std::to_string(r.y);
}

/// CSV fields are quoted when they hold a separator, a quote or a line break.
String csvField(String const& text) {
    if (text.find_first_of(",\"\n\r") == String::npos)
        return text;
    String out = "\"";
    for (char c : text) {
        if (c == '"')
            out += '"';
        out += c;
    }
    return out + "\"";
}

} // namespace

MipChain::~MipChain() { MipMapManager::Detail::discardOffloaded(*this); }

std::int64_t MipChain::getMemoryUsage() const {
    // From the descriptors and k, not the buffers: readable without the texture's lock.
    std::int64_t bytes = 0;
    for (int i = getOffloadedCount(); i < getLevelCount(); ++i) bytes += mLevels[std::size_t(i)].getByteSize();
    return bytes;
}

std::int64_t MipChain::getTotalSize() const {
    std::int64_t bytes = 0;
    for (auto const& level : mLevels) bytes += level.getByteSize();
    return bytes;
}

std::int64_t MipChain::getOffloadedSize() const { return getTotalSize() - getMemoryUsage(); }

namespace MipMapManager {

namespace Detail {

constinit thread_local LookupSlot* tLookupSlot = nullptr;
constinit bool gAsymmetricFence = false;

namespace {
std::atomic<LookupSlot*> sLookupSlots{nullptr};

/// Registers the process for expedited barriers; false where they are missing.
bool registerProcessBarrier() {
#if defined(__linux__)
    return ::syscall(SYS_membarrier, MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED, 0, 0) == 0;
#else
    return false;
#endif
}

/// Chooses the kind of fence once; lookups and the reclaimer both pass here
/// first, so both see the same choice.
void chooseFence() {
    static std::once_flag sOnce;
    std::call_once(sOnce, [] { gAsymmetricFence = registerProcessBarrier(); });
}

/// A full memory barrier on every running thread of the process; false if
/// the system refused it (then nothing may be freed). Without one, lookups
/// announce themselves with a sequentially consistent add, and the
/// unpublishing store and the reclaimer's loads are sequentially consistent
/// too: nothing more is needed.
bool processBarrier() {
    chooseFence();
#if defined(__linux__)
    if (gAsymmetricFence)
        return ::syscall(SYS_membarrier, MEMBARRIER_CMD_PRIVATE_EXPEDITED, 0, 0) == 0;
#endif
    return true;
}

/// Hands the thread's slot back when the thread ends.
struct SlotRelease {
    LookupSlot* slot = nullptr;
    ~SlotRelease() {
        if (slot) {
            tLookupSlot = nullptr;
            slot->taken.store(false, std::memory_order_release);
        }
    }
};

/// Waits until every lookup that was running when it started has ended.
bool waitForLookups() {
    // Unpublished pointers before this barrier; every lookup after it sees
    // them gone, every lookup before it shows here as an odd sequence.
    if (!processBarrier())
        return false;
    Stack<std::pair<LookupSlot const*, std::uint64_t>> busy;
    for (LookupSlot const* s = sLookupSlots.load(std::memory_order_acquire); s; s = s->next) {
        std::uint64_t const sequence = s->sequence.load(std::memory_order_seq_cst);
        if (sequence & 1)
            busy.emplace_back(s, sequence);
    }
    // Lookups take microseconds, a read-back of a level milliseconds.
    for (auto const& [slot, sequence] : busy)
        while (slot->sequence.load(std::memory_order_acquire) == sequence) std::this_thread::yield();
    return true;
}
} // namespace

LookupSlot* registerLookupThread() {
    // Decided before the thread's first lookup: a guard never changes its kind of fence.
    chooseFence();
    static thread_local SlotRelease sRelease;
    LookupSlot* slot = nullptr;
    for (LookupSlot* s = sLookupSlots.load(std::memory_order_acquire); s && !slot; s = s->next) {
        bool expected = false;
        if (!s->taken.load(std::memory_order_relaxed) && s->taken.compare_exchange_strong(expected, true))
            slot = s;
    }
    if (!slot) {
        slot = new LookupSlot; // never freed: a reclaimer may be reading it
        slot->taken.store(true, std::memory_order_relaxed);
        slot->next = sLookupSlots.load(std::memory_order_relaxed);
        while (!sLookupSlots.compare_exchange_weak(slot->next, slot, std::memory_order_release, std::memory_order_relaxed)) {
        }
    }
    sRelease.slot = slot;
    tLookupSlot = slot;
    return slot;
}

void reclaimRetired() {
    if (tLookupSlot && tLookupSlot->depth > 0)
        return;
    auto& s = state();
    std::lock_guard reclaim(s.reclaimMutex);
    Stack<Image> batch;
    {
        std::lock_guard lock(s.retiredMutex);
        batch.swap(s.retired);
    }
    if (batch.empty())
        return;
    if (!waitForLookups()) {
        // Kept for a later call rather than freed under a lookup.
        std::lock_guard lock(s.retiredMutex);
        for (auto& image : batch) s.retired.push_back(std::move(image));
        return;
    }
    batch.clear();
}

} // namespace Detail

void Detail::discardOffloaded(MipChain& chain) {
    int const k = chain.getOffloadedCount();
    if (k == 0)
        return;
    std::int64_t bytes = 0;
    for (int level = 0; level < k; ++level) {
        (void)Io::removeFile(levelFile(chain, level));
        bytes += chain.getLevel(level).getByteSize();
    }
    MipChainAccess::offloaded(chain).store(0);
    unreserve(bytes);
    removeFolderIfEmpty(MipChainAccess::folder(chain));
}

Io::Path getDefaultOffloadDirectory() { return Io::StandardPaths::temporary() / "OstrelRenderer" / "ImageTextureCache"; }

Io::Path getOffloadDirectory() {
    auto& s = state();
    std::lock_guard lock(s.mutex);
    return s.folder;
}

std::int64_t getBudget() {
    auto& s = state();
    std::lock_guard lock(s.mutex);
    return s.budget;
}

std::int64_t getOffloadedBytes() {
    auto& s = state();
    std::lock_guard lock(s.mutex);
    return s.used;
}

String getLastWriteError() {
    auto& s = state();
    std::lock_guard lock(s.mutex);
    return s.lastWriteError;
}

void resetOffloadState() {
    auto& s = state();
    std::lock_guard lock(s.mutex);
    s.folder = getDefaultOffloadDirectory();
    s.budget = 0;
    // Bytes still on disk stay counted until their textures read them back or end.
}

namespace {
/// The offloading of one texture under its mutex; the buffers it unpublishes
/// go to the retired list.
int offloadLocked(ImageTexture const& texture, Io::Path const& folder) {
    std::lock_guard lock(texture.getMutex());
    MipChain& chain = texture.getMipChain();
    int const count = chain.getLevelCount();
    int k = chain.getOffloadedCount();
    if (!chain.isOffloadable() || k == count || getBudget() == 0)
        return 0;
    auto const start = Clock::now();
    // Levels already on disk stay where they are; new ones join them.
    if (k == 0)
        MipChainAccess::folder(chain) = folder / (TEXTURE_FOLDER_PREFIX + chain.getId());
    int written = 0;
    if (auto made = Io::createDirs(MipChainAccess::folder(chain)); !made) {
        std::lock_guard stateLock(state().mutex);
        state().lastWriteError = made.error();
    } else {
        for (; k < count; ++k, ++written) {
            Image& level = MipChainAccess::levels(chain)[std::size_t(k)];
            std::int64_t const bytes = level.getByteSize();
            if (!reserve(bytes))
                break;
            Io::Path const path = levelFile(chain, k);
            if (auto w = writeLevel(level, path); !w) {
                // A full or failing disk: keep the level in memory, and say so.
                unreserve(bytes);
                (void)Io::removeFile(path);
                std::lock_guard stateLock(state().mutex);
                state().lastWriteError = w.error();
                break;
            }
            // Unpublish first; lookups that saw the pixels keep them until they end.
            MipChainAccess::pixels(chain, k).store(nullptr, std::memory_order_seq_cst);
            MipChainAccess::offloaded(chain).store(k + 1, std::memory_order_release);
            // Moving out (not assigning) writes only the level's pixel storage,
            // which no lookup reads: its descriptor stays as it is, readable by all.
            Image retired(std::move(level));
            {
                std::lock_guard retiredLock(state().retiredMutex);
                state().retired.push_back(std::move(retired));
            }
            state().levelsWritten.fetch_add(1);
        }
    }
    if (chain.getOffloadedCount() == 0)
        removeFolderIfEmpty(MipChainAccess::folder(chain));
    state().offloadingUs.fetch_add(microsecondsSince(start));
    return written;
}
} // namespace

int offload(ImageTexture const& texture, Io::Path const& folder) {
    int const written = offloadLocked(texture, folder);
    Detail::reclaimRetired();
    return written;
}

void readBack(ImageTexture const& texture, int level) {
    MipChain& chain = texture.getMipChain();
    int const k = chain.getOffloadedCount();
    level = std::max(level, 0);
    if (level >= k)
        return;
    auto const start = Clock::now();
    // Coarsest first, k lowered after each level: a failure leaves every level
    // from k up resident and the rest on disk, as k says.
    for (int i = k - 1; i >= level; --i) {
        Image& image = MipChainAccess::levels(chain)[std::size_t(i)];
        Io::Path const path = levelFile(chain, i);
        // Published only once read and verified: no lookup sees a partly read level.
        image.allocatePixelsForOverwrite();
        if (!readLevel(image, path)) {
            image.releasePixels();
            {
                std::lock_guard lock(state().mutex);
                state().readBackFailed = true;
            }
            state().reloadingUs.fetch_add(microsecondsSince(start));
            throw Exception("EOF while reading mip map data! (" + Io::pathToUtf8(path) + ")");
        }
        state().levelsRead.fetch_add(1);
        (void)Io::removeFile(path);
        unreserve(image.getByteSize());
        MipChainAccess::pixels(chain, i).store(image.getData(), std::memory_order_seq_cst);
        MipChainAccess::offloaded(chain).store(i, std::memory_order_release);
    }
    if (level == 0)
        removeFolderIfEmpty(MipChainAccess::folder(chain));
    state().reloadingUs.fetch_add(microsecondsSince(start));
}

Expected<std::true_type, String> updateCache(bool enabled, Optional<float> sizeGiB, Optional<float> percent, Io::Path folder) {
    // Refused before anything changes: a NaN would otherwise become an undefined conversion.
    if (sizeGiB && !(std::isfinite(*sizeGiB) && *sizeGiB >= 0.f))
        return makeError("The out-of-core textures size must be a finite number of GiB, 0 or more (got " +
                         std::to_string(*sizeGiB) + ")");
    if (percent && !(std::isfinite(*percent) && *percent >= 0.f && *percent <= 100.f))
        return makeError("The out-of-core textures disk percentage must be a finite number from 0 to 100 (got " +
                         std::to_string(*percent) + ")");
    auto& s = state();
    std::lock_guard update(s.updateMutex);
    Optional<String> error;
    // The folder must take a file: create it, and a file in it, and remove that.
    Expected<Io::Path> probe = makeError("");
    if (Io::createDirs(folder))
        probe = Io::createRandomNamedFile(folder, "probe_");
    if (!probe || !Io::removeFile(*probe)) {
        error = "Unable to store files in the given out-of-core textures folder: " + Io::pathToUtf8(folder);
        enabled = false;
    }
    std::int64_t budget = 0;
    if (enabled) {
        budget = std::numeric_limits<std::int64_t>::max();
        if (sizeGiB) {
            double const bytes = double(*sizeGiB) * 1073741824.0;
            budget = bytes >= 9.2e18 ? budget : std::int64_t(bytes);
        }
        if (percent) {
            if (auto space = Io::getDiskSpace(folder))
                budget = std::min(budget, space->free - std::int64_t(double(space->total) * double(*percent) * 0.01));
        }
        budget = std::max<std::int64_t>(budget, 0);
    }

    bool below;
    {
        std::lock_guard lock(s.mutex);
        bool const retry = s.readBackFailed && s.used > budget;
        s.readBackFailed = false;
        s.lastWriteError.clear();
        s.folder = folder;
        if (budget == s.budget && !retry) {
            if (error)
                return makeError(*error);
            return std::true_type{};
        }
        s.budget = budget;
        below = budget < s.used;
    }
    Stack<SharedPtr<ImageTexture>> const textures = ImageTextureCache::getReadyTextures();
    if (below) {
        for (auto const& texture : textures) {
            try {
                std::lock_guard lock(texture->getMutex());
                readBack(*texture, 0);
            } catch (Exception const& e) {
                if (!error)
                    error = e.what();
            }
            if (getOffloadedBytes() <= getBudget())
                break;
        }
    } else {
        for (auto const& texture : textures) offloadLocked(*texture, folder);
        Detail::reclaimRetired();
        if (String const written = getLastWriteError(); !written.empty() && !error)
            error = "Some texture levels stay in memory: " + written;
    }
    if (error)
        return makeError(*error);
    return std::true_type{};
}

Stats getStats() {
    auto& s = state();
    return {s.offloadingUs.load() / 1000, s.reloadingUs.load() / 1000, s.levelsWritten.load(), s.levelsRead.load()};
}

void resetStats() {
    auto& s = state();
    s.offloadingUs.exchange(0);
    s.reloadingUs.exchange(0);
    s.levelsWritten.exchange(0);
    s.levelsRead.exchange(0);
}

String getStatsAndSaveReport() {
    Stack<SharedPtr<ImageTexture>> textures = ImageTextureCache::getReadyTextures();
    std::erase_if(textures, [](auto const& t) { return !t->hasPixels(); });
    std::sort(textures.begin(), textures.end(), [](auto const& a, auto const& b) { return a->getTotalSize() > b->getTotalSize(); });
    std::int64_t loaded = 0, total = 0;
    for (auto const& t : textures) loaded += t->getMemoryUsage(), total += t->getTotalSize();

    auto const levelsText = [](ImageTexture const& t) {
        return std::to_string(t.getLevelCount() - t.getOffloadedCount()) + "/" + std::to_string(t.getLevelCount());
    };
    constexpr std::size_t HEAVIEST = 10;
    std::ostringstream report;
    report << "Loaded mip maps size: " << formatBytes(loaded) << " out of " << formatBytes(total) << "\n";
    report << "The heaviest textures are:\n";
    report << "[Name] [Resolution] [Loaded/Total size] [Loaded/Total mip map levels]\n";
    for (std::size_t i = 0; i < std::min(HEAVIEST, textures.size()); ++i) {
        ImageTexture const& t = *textures[i];
        report << t.getName() << " " << resolutionText(t) << " " << formatBytes(t.getMemoryUsage()) << "/"
               << formatBytes(t.getTotalSize()) << " " << levelsText(t) << "\n";
    }

    // Tiled files read on demand: what their tiles cost, in total and per file.
    Stack<ImageTexture const*> tiled;
    for (auto const& t : textures)
        if (t->getTiledFile()) tiled.push_back(t.get());
    TileStats tileTotal;
    std::int64_t tilePeak = 0;
    if (!tiled.empty()) {
        TileCache const& cache = ImageTextureCache::getTileCache();
        tileTotal = cache.getStats();
        tilePeak = cache.getPeakMemoryUsage();
        report << "Tiles read on demand: " << formatBytes(cache.getMemoryUsage()) << " held of a cap of "
               << formatBytes(cache.getCapacity()) << ", peak " << formatBytes(tilePeak) << "; " << tileTotal.hits << " hits, "
               << tileTotal.misses << " misses, " << formatBytes(tileTotal.bytesRead) << " read, "
               << formatBytes(tileTotal.bytesReread) << " read again after eviction\n";
        report << "[Name] [Hits] [Misses] [Read] [Read again] [Peak]\n";
        for (std::size_t i = 0; i < std::min(HEAVIEST, tiled.size()); ++i) {
            TileStats const st = tiled[i]->getTileStats();
            report << tiled[i]->getName() << " " << st.hits << " " << st.misses << " " << formatBytes(st.bytesRead) << " "
                   << formatBytes(st.bytesReread) << " " << formatBytes(tiled[i]->getPeakTileMemory()) << "\n";
        }
    }

    Stats const stats = getStats();
    std::ostringstream csv;
    csv << "Loaded mip maps size, Total mip maps size\n" << loaded << ", " << total << "\n";
    csv << "Offloading time, Reloading time\n" << stats.offloadingMs << ", " << stats.reloadingMs << "\n";
    csv << "Name, Resolution, Loaded size, Total size, Loaded levels, Total levels\n";
    for (auto const& t : textures)
        csv << csvField(t->getName()) << ", " << resolutionText(*t) << ", " << t->getMemoryUsage() << ", " << t->getTotalSize()
            << ", " << (t->getLevelCount() - t->getOffloadedCount()) << ", " << t->getLevelCount() << "\n";
    if (!tiled.empty()) {
        TileCache const& cache = ImageTextureCache::getTileCache();
        csv << "Tile memory cap, Tile memory, Tile peak memory, Tile hits, Tile misses, Tile bytes read, Tile bytes read again\n"
            << cache.getCapacity() << ", " << cache.getMemoryUsage() << ", " << tilePeak << ", " << tileTotal.hits << ", "
            << tileTotal.misses << ", " << tileTotal.bytesRead << ", " << tileTotal.bytesReread << "\n";
        csv << "Name, Tile hits, Tile misses, Tile bytes read, Tile bytes read again, Tile peak memory\n";
        for (ImageTexture const* t : tiled) {
            TileStats const st = t->getTileStats();
            csv << csvField(t->getName()) << ", " << st.hits << ", " << st.misses << ", " << st.bytesRead << ", "
                << st.bytesReread << ", " << t->getPeakTileMemory() << "\n";
        }
    }

    Io::Path const folder = getOffloadDirectory();
    Io::Path const path = folder / "textureStats.csv";
    String const text = csv.str();
    auto const writeCsv = [&]() -> Expected<void> {
        if (auto made = Io::createDirs(folder); !made)
            return made;
        auto out = Io::FileOutputStream::open(path);
        if (!out)
            return makeError(out.error());
        if (auto r = (*out)->write(text.data(), text.size()); !r)
            return r;
        return (*out)->close();
    };
    Expected<void> const written = writeCsv();
    report << "\nAdditional texture statistics were dumped in this file:\n" << Io::pathToUtf8(path);
    if (!written)
        report << " (not written: " << written.error() << ")";
    report << "\n";
    return report.str();
}

} // namespace MipMapManager
} // namespace Quelin
