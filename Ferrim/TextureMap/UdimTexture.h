#pragma once
// Texture atlases split over files, one file per unit square of UV ("UDIM"
// sets). A file name names its tiles by tokens, as OpenImageIO's texture
// system documents them ("UDIM texture atlases", TextureSystem manual), for
// the tile (ut, vt) holding the point (u, v) with ut = floor(u), vt = floor(v):
//   <UDIM>, %(UDIM)d  1001 + ut + 10 vt (four digits)
//   <u>, <v>          "u" ut, "v" vt         <U>, <V>  "u" (ut + 1), "v" (vt + 1)
//   <uvtile>          <u>_<v>                <UVTILE>  <U>_<V>
// Tiles range over ut in 0..9 and vt in 0..99; the numbers may carry leading
// zeros in the file names.
//
// The tile set is found once, when the evaluator is built, by one scan of the
// pattern's folder; each tile found is a texture of its own (shared through
// the image-texture cache) with its own mip chain. A lookup reads the tile
// under the point at the point's place inside it, clamped to the tile, so
// filtering never reaches into a neighbour. Points in no tile (a missing
// file, negative u or v, ut above 9, vt above 99, NaN) are outside, as a
// NoTiling map's points beyond its image. The mapper's placement applies; its
// wrap modes do not (the integer part of u and v chooses the tile). The crop
// rectangle and the output choices act inside each tile. Environment lookups
// by direction read the first tile.
#include "Ferrim/TextureMap/TextureMap.h"

namespace Quelin {

namespace Udim {

/// Largest tile index along u and v (tiles 0..MAX_U by 0..MAX_V).
constexpr int MAX_U = 9, MAX_V = 99;

/// Whether the file name of `path` holds a tile token.
FERRIM_EXPORT bool isPattern(StringView path);
/// The file name of tile (u, v) in the pattern `name` (a file name, no folder).
FERRIM_EXPORT String tileName(StringView name, int u, int v);

/// A tile file found for a pattern.
struct Tile {
    int u = 0, v = 0;
    Io::Path path;
};
/// The files of `pattern`'s folder whose names are tiles of its file name,
/// ordered by UDIM number; an error when a token stands in the folder part or
/// the folder cannot be read. Names that read as two different tiles (a
/// <UDIM> and a <u> that disagree) are not tiles.
FERRIM_EXPORT Expected<Stack<Tile>, String> findTiles(Io::Path const& pattern);

} // namespace Udim

/// The evaluator of a texture map whose image source is a file pattern of
/// tiles. Built on the first tile (its texture answers `getTexture`, its
/// descriptor the texture info), it sends every surface lookup to the
/// evaluator of the tile under the point.
class FERRIM_EXPORT UdimEvaluator final : public TextureMap::Evaluator {
public:
    /// The evaluator for `source` when it is a file source whose path holds a
    /// tile token and names no existing file; null otherwise. Loads every tile
    /// found (in parallel). A pattern without tiles gives an evaluator whose
    /// lookups are all outside and whose texture info is the error.
    static SharedPtr<UdimEvaluator> make(EntityHolder<IDataSource const> const& source,
                                         SharedPtr<UvMapper const> uvMapper, TextureMap::Settings const& settings);

    RgbAlpha evalColor(IShadeContext const& context, MapCache* cache) const override;
    MonoAlpha evalMono(IShadeContext const& context, MapCache* cache) const override;
    /// One point after the other, each through `evalColor` / `evalMono`.
    void evalColors(IShadeContext const& context, std::span<MapLookupPoint const> points, std::span<RgbAlpha> colors,
                    MapCache* cache) const override;
    void evalMonos(IShadeContext const& context, std::span<MapLookupPoint const> points, std::span<MonoAlpha> monos,
                   MapCache* cache) const override;

    /// The first tile's descriptor, gamma and colour space with the pattern as
    /// its name and the number of tiles; the error of a pattern without tiles
    /// or of the first tile that failed to load.
    Expected<TextureMap::TextureInfo, String> getTextureInfo() const;
    int getTileCount() const { return int(mTileList.size()); }
    String const& getPattern() const { return mPattern; }

    struct LoadedTile {
        int u, v;
        SharedPtr<TextureMap::Evaluator> evaluator;
    };
    /// Use `make`.
    UdimEvaluator(SharedPtr<ImageTexture const> first, SharedPtr<UvMapper const> uvMapper,
                  TextureMap::Settings const& settings, String pattern, Stack<LoadedTile> tiles, String error);

private:
    /// The tile under (u, v) and the point's place in it; null outside.
    TextureMap::Evaluator const* tileAt(IShadeContext const& context, Pos& local) const;
    bool looksUpByDirection(IShadeContext const& context) const;

    String mPattern;
    String mError;  ///< a pattern without tiles
    Stack<LoadedTile> mTileList;  ///< by UDIM number
    /// By 10 vt + ut; null where no tile exists.
    StaticArray<TextureMap::Evaluator const*, (Udim::MAX_U + 1) * (Udim::MAX_V + 1)> mTiles{};
    TextureMap::EnvironmentMode mEnvironmentMode;
};

} // namespace Quelin
