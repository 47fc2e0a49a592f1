#include "Ferrim/TextureMap/UdimTexture.h"

#include <algorithm>
#include <filesystem>
#include <system_error>

#include "Ferrim/TextureMap/ImageTextureCache.h"
#include "QuelinLib/Io.h"
#include "QuelinLib/TaskScheduler.h"

namespace Quelin {

namespace Udim {

namespace {

enum class Token { Literal, Udim, U0, V0, U1, V1, UvTile0, UvTile1 };

struct Segment {
    Token token;
    String literal;  ///< for Literal
};

struct TokenName {
    StringView text;
    Token token;
};
constexpr TokenName TOKENS[] = {{"<UDIM>", Token::Udim},    {"%(UDIM)d", Token::Udim}, {"<uvtile>", Token::UvTile0},
                                {"<UVTILE>", Token::UvTile1}, {"<u>", Token::U0},        {"<v>", Token::V0},
                                {"<U>", Token::U1},           {"<V>", Token::V1}};

Stack<Segment> parse(StringView name) {
    Stack<Segment> segments;
    std::size_t i = 0;
    while (i < name.size()) {
        bool matched = false;
        for (TokenName const& t : TOKENS)
            if (name.substr(i).starts_with(t.text)) {
                segments.push_back({t.token, String()});
                i += t.text.size();
                matched = true;
                break;
            }
        if (matched) continue;
        if (segments.empty() || segments.back().token != Token::Literal) segments.push_back({Token::Literal, String()});
        segments.back().literal += name[i++];
    }
    return segments;
}

bool hasToken(Stack<Segment> const& segments) {
    return std::any_of(segments.begin(), segments.end(), [](Segment const& s) { return s.token != Token::Literal; });
}

/// The tile coordinates a name sets while it is matched; -1 while unset.
struct TileIndex {
    int u = -1, v = -1;
    /// False when the axis was set to another value already or the value is out of range.
    bool set(int& axis, int value, int max) {
        if (value < 0 || value > max || (axis >= 0 && axis != value)) return false;
        axis = value;
        return true;
    }
};

/// Longest digit run a number of a tile name may have (leading zeros included).
constexpr std::size_t MAX_DIGITS = 6;

bool matchFrom(Stack<Segment> const& segments, std::size_t s, StringView name, TileIndex index, TileIndex& found);

/// A number at the start of `rest` for `token`, then the segments after it.
bool matchNumber(Stack<Segment> const& segments, std::size_t s, StringView rest, TileIndex const& index,
                 TileIndex& found, Token token, int axis) {
    std::size_t digits = 0;
    while (digits < rest.size() && digits < MAX_DIGITS && rest[digits] >= '0' && rest[digits] <= '9') ++digits;
    // Every split of the digit run: a literal after the number may start with digits.
    for (std::size_t n = 1; n <= digits; ++n) {
        int value = 0;
        for (std::size_t k = 0; k < n; ++k) value = 10 * value + (rest[k] - '0');
        TileIndex next = index;
        bool ok;
        if (token == Token::Udim) {
            ok = value >= 1001 && value <= 1001 + MAX_U + 10 * MAX_V && next.set(next.u, (value - 1001) % 10, MAX_U) &&
                 next.set(next.v, (value - 1001) / 10, MAX_V);
        } else {
            int const base = token == Token::U1 || token == Token::V1 ? 1 : 0;
            ok = axis == 0 ? next.set(next.u, value - base, MAX_U) : next.set(next.v, value - base, MAX_V);
        }
        if (ok && matchFrom(segments, s + 1, rest.substr(n), next, found)) return true;
    }
    return false;
}

bool matchFrom(Stack<Segment> const& segments, std::size_t s, StringView name, TileIndex index, TileIndex& found) {
    if (s == segments.size()) {
        if (!name.empty()) return false;
        found = index;
        return true;
    }
    Segment const& segment = segments[s];
    auto const prefixed = [&](StringView prefix, Token token, int axis) {
        return name.starts_with(prefix) && matchNumber(segments, s, name.substr(prefix.size()), index, found, token, axis);
    };
    switch (segment.token) {
    case Token::Literal:
        return name.starts_with(segment.literal) &&
               matchFrom(segments, s + 1, name.substr(segment.literal.size()), index, found);
    case Token::Udim: return matchNumber(segments, s, name, index, found, Token::Udim, 0);
    case Token::U0: return prefixed("u", Token::U0, 0);
    case Token::U1: return prefixed("u", Token::U1, 0);
    case Token::V0: return prefixed("v", Token::V0, 1);
    case Token::V1: return prefixed("v", Token::V1, 1);
    case Token::UvTile0:
    case Token::UvTile1: {
        // "u<n>_v<m>": matched as the two tokens with "_" between them.
        Token const u = segment.token == Token::UvTile0 ? Token::U0 : Token::U1;
        Token const v = segment.token == Token::UvTile0 ? Token::V0 : Token::V1;
        Stack<Segment> expanded(segments.begin(), segments.begin() + std::ptrdiff_t(s));
        expanded.push_back({u, String()});
        expanded.push_back({Token::Literal, "_"});
        expanded.push_back({v, String()});
        expanded.insert(expanded.end(), segments.begin() + std::ptrdiff_t(s) + 1, segments.end());
        return matchFrom(expanded, s, name, index, found);
    }
    }
    return false;
}

} // namespace

bool isPattern(StringView path) {
    std::size_t const slash = path.find_last_of("/\\");
    return hasToken(parse(slash == StringView::npos ? path : path.substr(slash + 1)));
}

String tileName(StringView name, int u, int v) {
    String out;
    auto const put = [&out](char letter, int value) {
        out += letter;
        out += std::to_string(value);
    };
    for (Segment const& s : parse(name)) {
        switch (s.token) {
        case Token::Literal: out += s.literal; break;
        case Token::Udim: out += std::to_string(1001 + u + 10 * v); break;
        case Token::U0: put('u', u); break;
        case Token::V0: put('v', v); break;
        case Token::U1: put('u', u + 1); break;
        case Token::V1: put('v', v + 1); break;
        case Token::UvTile0: put('u', u), out += '_', put('v', v); break;
        case Token::UvTile1: put('u', u + 1), out += '_', put('v', v + 1); break;
        }
    }
    return out;
}

Expected<Stack<Tile>, String> findTiles(Io::Path const& pattern) {
    String const text = Io::pathToUtf8(pattern);
    String const name = Io::pathToUtf8(pattern.filename());
    Io::Path const folder = pattern.has_parent_path() ? pattern.parent_path() : Io::Path(".");
    for (Io::Path const& part : folder)
        if (hasToken(parse(Io::pathToUtf8(part))))
            return makeError(text + ": tile tokens may stand only in the file name, not in a folder");
    Stack<Segment> const segments = parse(name);
    Stack<Tile> tiles;
    std::error_code ec;
    for (auto it = std::filesystem::directory_iterator(folder, ec); !ec && it != std::filesystem::directory_iterator();
         it.increment(ec)) {
        std::error_code typeError;
        if (!it->is_regular_file(typeError)) continue;
        TileIndex found;
        if (!matchFrom(segments, 0, Io::pathToUtf8(it->path().filename()), TileIndex(), found)) continue;
        // An axis the pattern does not name is tile 0.
        tiles.push_back({std::max(found.u, 0), std::max(found.v, 0), it->path()});
    }
    if (ec) return makeError(text + ": cannot read the folder of the tiles: " + ec.message());
    std::sort(tiles.begin(), tiles.end(), [](Tile const& a, Tile const& b) {
        return a.v != b.v ? a.v < b.v : (a.u != b.u ? a.u < b.u : a.path < b.path);
    });
    // Two names of one tile (leading zeros): the first in name order counts.
    tiles.erase(std::unique(tiles.begin(), tiles.end(), [](Tile const& a, Tile const& b) { return a.u == b.u && a.v == b.v; }),
                tiles.end());
    return tiles;
}

} // namespace Udim

// ------------------------------------------------------------------ evaluator

SharedPtr<UdimEvaluator> UdimEvaluator::make(EntityHolder<IDataSource const> const& source,
                                             SharedPtr<UvMapper const> uvMapper, TextureMap::Settings const& settings) {
    auto const* file = source ? dynamic_cast<FileDataSource const*>(source.get()) : nullptr;
    if (!file) return nullptr;
    Io::Path const pattern = file->getPhysicalPath();
    if (!Udim::isPattern(Io::pathToUtf8(pattern))) return nullptr;
    // A file really named so is read as it is.
    std::error_code ec;
    if (std::filesystem::is_regular_file(pattern, ec)) return nullptr;

    String const patternText = Io::pathToUtf8(pattern);
    Expected<Stack<Udim::Tile>, String> found = Udim::findTiles(pattern);
    String error;
    if (!found) error = found.error();
    else if (found->empty()) error = patternText + ": no tile of the pattern exists";
    Stack<Udim::Tile> const tiles = found ? std::move(*found) : Stack<Udim::Tile>();

    // Each tile its own map evaluator: no placement, clamped to its square.
    auto tileMapper = makeSharedPtr<UvMapper>();
    tileMapper->set("wrapU", WrapMode::Clamp);
    tileMapper->set("wrapV", WrapMode::Clamp);
    SharedPtr<UvMapper const> const frozen = tileMapper->snapshot();
    String const contentType = file->getContentType();
    Stack<LoadedTile> loaded(tiles.size());
    parallelFor(0, std::int64_t(tiles.size()), 1, [&](std::int64_t begin, std::int64_t end) {
        for (auto i = std::size_t(begin); i < std::size_t(end); ++i) {
            auto tileSource = FileDataSource::make(tiles[i].path, contentType);
            SharedPtr<ImageTexture const> texture = ImageTextureCache::getOrCreateInColorSpace(
                EntityHolder<IDataSource const>(SharedPtr<IDataSource const>(tileSource)), settings.colorSpace);
            loaded[i] = {tiles[i].u, tiles[i].v, makeSharedPtr<TextureMap::Evaluator>(texture, frozen, settings)};
        }
    });
    SharedPtr<ImageTexture const> first = loaded.empty() ? nullptr : loaded[0].evaluator->getTexturePtr();
    return makeSharedPtr<UdimEvaluator>(std::move(first), std::move(uvMapper), settings, patternText, std::move(loaded),
                                        std::move(error));
}

UdimEvaluator::UdimEvaluator(SharedPtr<ImageTexture const> first, SharedPtr<UvMapper const> uvMapper,
                             TextureMap::Settings const& settings, String pattern, Stack<LoadedTile> tiles, String error)
    : TextureMap::Evaluator(std::move(first), std::move(uvMapper), settings), mPattern(std::move(pattern)),
      mError(std::move(error)), mTileList(std::move(tiles)), mEnvironmentMode(settings.environmentMode) {
    for (LoadedTile const& t : mTileList) mTiles[std::size_t(t.v * (Udim::MAX_U + 1) + t.u)] = t.evaluator.get();
}

bool UdimEvaluator::looksUpByDirection(IShadeContext const& context) const {
    switch (mEnvironmentMode) {
    case TextureMap::EnvironmentMode::Environment: return true;
    case TextureMap::EnvironmentMode::Texture: return false;
    case TextureMap::EnvironmentMode::Auto: break;
    }
    ShadedKind const kind = context.getShadedKind();
    return kind == ShadedKind::Environment || kind == ShadedKind::Background;
}

inline TextureMap::Evaluator const* UdimEvaluator::tileAt(IShadeContext const& context, Pos& local) const {
    Pos const uvw = getUvMapper().computeUvw(context);
    // Written so that NaN fails too.
    if (!(uvw.x >= 0.f && uvw.y >= 0.f && uvw.x < float(Udim::MAX_U + 1) && uvw.y < float(Udim::MAX_V + 1)))
        return nullptr;
    int const u = int(uvw.x), v = int(uvw.y);
    TextureMap::Evaluator const* const tile = mTiles[std::size_t(v * (Udim::MAX_U + 1) + u)];
    // x - floor(x) is exact in floating point: the place inside the tile loses nothing.
    if (tile) local = Pos(uvw.x - float(u), uvw.y - float(v), uvw.z);
    return tile;
}

RgbAlpha UdimEvaluator::evalColor(IShadeContext const& context, MapCache* cache) const {
    if (looksUpByDirection(context)) return TextureMap::Evaluator::evalColor(context, cache);
    Pos local;
    TextureMap::Evaluator const* const tile = tileAt(context, local);
    if (!tile) return RgbAlpha(0.f, 0.f, 0.f, 0.f);
    Dir const footprint = context.wantsFilteredLookup() ? getUvMapper().computeDUvw(context) : Dir();
    return tile->evalColor(OverridableUvwShadeContext(context, local, footprint), cache);
}

MonoAlpha UdimEvaluator::evalMono(IShadeContext const& context, MapCache* cache) const {
    if (looksUpByDirection(context)) return TextureMap::Evaluator::evalMono(context, cache);
    Pos local;
    TextureMap::Evaluator const* const tile = tileAt(context, local);
    if (!tile) return MonoAlpha(0.f, 1.f);
    Dir const footprint = context.wantsFilteredLookup() ? getUvMapper().computeDUvw(context) : Dir();
    return tile->evalMono(OverridableUvwShadeContext(context, local, footprint), cache);
}

void UdimEvaluator::evalColors(IShadeContext const& context, std::span<MapLookupPoint const> points,
                               std::span<RgbAlpha> colors, MapCache* cache) const {
    IMapEvaluator::evalColors(context, points, colors, cache);
}

void UdimEvaluator::evalMonos(IShadeContext const& context, std::span<MapLookupPoint const> points,
                              std::span<MonoAlpha> monos, MapCache* cache) const {
    IMapEvaluator::evalMonos(context, points, monos, cache);
}

Expected<TextureMap::TextureInfo, String> UdimEvaluator::getTextureInfo() const {
    if (!mError.empty()) return makeError(mError);
    for (LoadedTile const& t : mTileList)
        if (!t.evaluator->getTexture().hasPixels()) {
            String const& e = t.evaluator->getTexture().getError();
            return makeError(e.empty() ? t.evaluator->getTexture().getName() + ": the texture has no pixels" : e);
        }
    ImageTexture const& first = mTileList[0].evaluator->getTexture();
    TextureMap::TextureInfo info{first.getDescriptor(), mPattern, mTileList[0].evaluator->getGamma(),
                                 first.getColorSpace()};
    info.tileCount = getTileCount();
    return info;
}

} // namespace Quelin
