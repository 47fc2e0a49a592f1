#pragma once
// Internals shared by the cache, the textures and the mip-map manager.
#include "Ferrim/TextureMap/MipMapManager.h"

namespace Quelin {

/// The mip-map manager's access to a chain's private state.
struct MipChainAccess {
    static Stack<Image>& levels(MipChain& chain) { return chain.mLevels; }
    /// Installs the levels, all resident, and publishes their pixels.
    static void setLevels(MipChain& chain, Stack<Image> levels) {
        chain.mLevels = std::move(levels);
        chain.mPixels = std::make_unique<std::atomic<std::byte const*>[]>(chain.mLevels.size());
        for (std::size_t i = 0; i < chain.mLevels.size(); ++i) chain.mPixels[i].store(chain.mLevels[i].getData());
    }
    static std::atomic<std::byte const*>& pixels(MipChain& chain, int level) { return chain.mPixels[std::size_t(level)]; }
    static std::atomic<int>& offloaded(MipChain& chain) { return chain.mOffloaded; }
    static Io::Path& folder(MipChain& chain) { return chain.mFolder; }
    static void setOffloadable(MipChain& chain, bool offloadable) { chain.mOffloadable = offloadable; }
    static void setId(MipChain& chain, String id) { chain.mId = std::move(id); }
};

namespace MipMapManager::Detail {

/// One thread's announcement of its lookups: `sequence` is odd while the
/// thread reads level pixels. A reclaimer that saw it odd waits until it
/// changes before freeing a level unpublished before it looked.
struct alignas(64) LookupSlot {
    std::atomic<std::uint64_t> sequence{0};
    int depth = 0;                 ///< the owning thread's nesting, touched by it alone
    std::atomic<bool> taken{false};
    LookupSlot* next = nullptr;    ///< slots are never freed; a thread that ends frees its slot for reuse
};
/// The calling thread's slot, taken on its first lookup.
FERRIM_EXPORT LookupSlot* registerLookupThread();
// Not initial-exec: the library is also loaded at run time (the Python module),
// where the static TLS block may have no room left.
extern constinit thread_local LookupSlot* tLookupSlot;
/// Set once, before any thread's first lookup (see `registerLookupThread`):
/// the reclaimer makes every thread of the process pass a full barrier
/// (Linux `membarrier`, private expedited), so that a lookup announces itself
/// with a plain store instead of a locked instruction.
extern constinit bool gAsymmetricFence;

/// Brackets one lookup: level pixels read (see `MipChain::getPixels`) stay
/// allocated until it ends. A store in (an atomic add where the system has
/// no process-wide barrier), a store out.
class LookupGuard : Noncopyable {
  public:
    LookupGuard() {
        LookupSlot* s = tLookupSlot;
        if (!s) [[unlikely]]
            s = registerLookupThread();
        mSlot = s;
        if (s->depth++ == 0) {
            if (gAsymmetricFence) [[likely]] {
                s->sequence.store(s->sequence.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
                // The reclaimer's barrier does the rest; the compiler must not move the pixel loads above.
                std::atomic_signal_fence(std::memory_order_seq_cst);
            } else {
                s->sequence.fetch_add(1, std::memory_order_seq_cst);
            }
        }
    }
    ~LookupGuard() {
        if (--mSlot->depth == 0)
            mSlot->sequence.store(mSlot->sequence.load(std::memory_order_relaxed) + 1, std::memory_order_release);
    }

  private:
    LookupSlot* mSlot;
};

/// Frees the level buffers that offloading retired, once every lookup that
/// may have seen them has ended. A no-op when the calling thread is itself
/// inside a lookup (the buffers wait for the next call).
void reclaimRetired();

/// Removes the chain's level files and returns their bytes to the budget (a
/// chain that is destroyed while offloaded).
void discardOffloaded(MipChain& chain);
} // namespace MipMapManager::Detail

} // namespace Quelin
