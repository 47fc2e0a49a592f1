#pragma once
// Internals shared by the cache, the textures and the mip-map manager.
#include "Ferrim/TextureMap/MipMapManager.h"

namespace Quelin {

/// The mip-map manager's access to a chain's private state.
struct MipChainAccess {
    static Stack<Image>& levels(MipChain& chain) { return chain.mLevels; }
    static std::atomic<int>& offloaded(MipChain& chain) { return chain.mOffloaded; }
    static Io::Path& folder(MipChain& chain) { return chain.mFolder; }
    static void setOffloadable(MipChain& chain, bool offloadable) { chain.mOffloadable = offloadable; }
    static void setId(MipChain& chain, String id) { chain.mId = std::move(id); }
};

namespace MipMapManager::Detail {
/// Removes the chain's level files and returns their bytes to the budget (a
/// chain that is destroyed while offloaded).
void discardOffloaded(MipChain& chain);
} // namespace MipMapManager::Detail

} // namespace Quelin
