#include "Ferrim/TextureMap/TextureMap.h"

#include <bit>
#include <cmath>
#include <cstring>
#include <limits>

#include "Ferrim/Ferrim.h"
#include "Ferrim/ShadingDataObjectBuilder.h"
#include "Ferrim/TextureMap/BatchSampling.h"
#include "Ferrim/TextureMap/ImageTextureCache.h"
#include "Ferrim/TextureMap/ImageTextureCacheDetail.h"
#include "Ferrim/TextureMap/UdimTexture.h"
#include "Ferrim/maps/BumpConverterMap.h"
#include "Ferrim/maps/ProceduralSupport.h"

namespace Quelin {

using namespace TextureSampling;

// ------------------------------------------------------------------ record

namespace {

constexpr StringView SOURCE = "maps/TextureMap";

SharedPtr<TypeDefinition const> const& interpolationType() {
    static auto const t = TypeDefinition::makeEnum("Zatho.InterpolationMode",
                                                   {{0, "Bilinear"}, {1, "Bicubic"}, {2, "Nearest"}, {3, "Anisotropic"}});
    return t;
}
SharedPtr<TypeDefinition const> const& monoOutputType() {
    static auto const t = TypeDefinition::makeEnum("Zatho.MonoOutput", {{0, "RgbIntensity"}, {1, "Alpha"}});
    return t;
}
SharedPtr<TypeDefinition const> const& rgbOutputType() {
    static auto const t = TypeDefinition::makeEnum("Zatho.RgbOutput", {{0, "Rgb"}, {1, "Alpha"}});
    return t;
}
SharedPtr<TypeDefinition const> const& alphaSourceType() {
    static auto const t =
        TypeDefinition::makeEnum("Zatho.AlphaSource", {{0, "ImageAlpha"}, {1, "RgbIntensity"}, {2, "None"}});
    return t;
}
SharedPtr<TypeDefinition const> const& transformationModeType() {
    static auto const t = TypeDefinition::makeEnum("Zatho.TextureTransformationMode", {{0, "Clip"}, {1, "Placement"}});
    return t;
}
SharedPtr<TypeDefinition const> const& environmentMappingType() {
    static auto const t = TypeDefinition::makeEnum(
        "Zatho.EnvironmentMapping", {{0, "Spherical"}, {1, "Screen"}, {2, "Dome"}, {3, "Cross"}, {4, "MirrorBall"}});
    return t;
}
SharedPtr<TypeDefinition const> const& environmentModeType() {
    static auto const t =
        TypeDefinition::makeEnum("Zatho.EnvironmentMode", {{0, "Auto"}, {1, "Environment"}, {2, "Texture"}});
    return t;
}

MetadataPredicate whenSet(String property) {
    return {property, [property](GenericDataObject const& d) { return d.get<bool>(property); }};
}

MetadataPredicate whenAnisotropic() {
    return {"interpolation == Anisotropic",
            [](GenericDataObject const& d) { return d.get<InterpolationMode>("interpolation") == InterpolationMode::Anisotropic; }};
}

MetadataPredicate whenDome() {
    return {"enviroMode.mapping == Dome", [](GenericDataObject const& d) {
                return d.get<GenericDataObject>("enviroMode").get<EnvironmentMapping>("mapping") == EnvironmentMapping::Dome;
            }};
}

} // namespace

SharedPtr<DataObjectDefinition const> const& TextureMap::Data::enviroModeDefinition() {
    static SharedPtr<DataObjectDefinition const> const sDefinition = [] {
        ShadingDataObjectBuilder b;
        b.addEnum("mapping", environmentMappingType(), int(EnvironmentMapping::Spherical), "Mapping",
                  "How a direction finds its place in the image: latitude-longitude, screen backplate, "
                  "ground-projected dome, vertical cross of cube faces, or mirror ball");
        b.addEnum("mode", environmentModeType(), int(EnvironmentMode::Auto), "Lookup",
                  "Auto looks up environment and background rays by direction and surfaces through the UV "
                  "mapper; Environment always by direction; Texture always through the UV mapper");
        b.addFloat("blur", 1.f, "Blur", "Widens the filter footprint of environment lookups")
            .addValidator(makeSharedPtr<ClampValueToRangeValidator<float>>(0.f, std::numeric_limits<float>::infinity()));
        return b.build("Zatho.TextureMapEnviroMode");
    }();
    return sDefinition;
}

SharedPtr<DataObjectDefinition const> const& TextureMap::Data::definition() {
    static SharedPtr<DataObjectDefinition const> const sDefinition = [] {
        ShadingDataObjectBuilder b(ShadingDataObjectBuilder::Option::GroupByPrefix);
        b.addEntityRef("imageSource", TypeDefinition::makeEntityRef<IDataSource>("Zatho.IDataSource"), "Image",
                       "The image: a file, or a block of memory held by the scene");
        // Empty by default, unlike the procedural maps': evaluation falls back
        // to a default mapper.
        b.addUvMapper().setDefaultEntityFactory({});
        b.addEnum("interpolation", interpolationType(), int(InterpolationMode::Bilinear), "Filtering",
                  "Lookup filter: bilinear, smooth bicubic (no overshoot), nearest texel, or anisotropic (probes "
                  "along the long axis of footprints seen at a slant)");
        b.addFloat("maxAnisotropy", TextureSampling::DEFAULT_MAX_ANISOTROPY, "Max anisotropy",
                   "How many times longer than wide a footprint may be before anisotropic filtering blurs across it "
                   "instead (1 to 64)")
            .addValidator(makeSharedPtr<ClampValueToRangeValidator<float>>(1.f, float(TextureSampling::MAX_PROBES / 2)))
            .setMetadata(Metadata::UI_ENABLED_IF, whenAnisotropic());
        b.addFloat("bumpStrength", 1.f, "Bump strength",
                   "Scale of the bump: the texture's value as a height in units of its placement");
        b.addBool("customGamma", false, "Custom gamma", "Override loaded texture image gamma.");
        b.addFloat("gamma", 2.2f, "Gamma", "Gamma the image's values are decoded with when the custom gamma is on")
            .addValidator(makeSharedPtr<MinimumValueValidator<float>>(0.f))
            .setMetadata(Metadata::UI_ENABLED_IF, whenSet("customGamma"));
        b.addString("colorSpace", String(), "Color space",
                    "Colour space of the image, by its name in the colour-management config; \"auto\" takes the "
                    "file's own, else sRGB for 8- and 16-bit images and linear for float ones. Empty: the gamma "
                    "above");
        b.addEnum("monoOutput", monoOutputType(), int(MonoOutput::RgbIntensity), "Mono output",
                  "What the scalar output returns: the mean of the colour or the alpha");
        b.addEnum("rgbOutput", rgbOutputType(), int(RgbOutput::Rgb), "Color output",
                  "What the colour output returns: the colour or the alpha as grey");
        b.addEnum("alphaSource", alphaSourceType(), int(AlphaSource::ImageAlpha), "Alpha source",
                  "Where the colour output's alpha comes from: the image, the mean of the colour, or none (opaque)");
        b.addBool("transformation_enabled", false, "Crop / place", "Enables the crop or placement rectangle");
        b.addEnum("transformation_mode", transformationModeType(), int(TransformationMode::Clip), "Mode",
                  "Clip shows the rectangle's part of the image over the whole texture; Placement puts the whole "
                  "image inside the rectangle")
            .setMetadata(Metadata::UI_ENABLED_IF, whenSet("transformation_enabled"));
        b.addVector2("transformation_lowerLeft", Vector2(0, 0), "Lower left", "Lower-left corner of the rectangle in UV")
            .setMetadata(Metadata::UI_ENABLED_IF, whenSet("transformation_enabled"));
        b.addVector2("transformation_upperRight", Vector2(1, 1), "Upper right",
                     "Upper-right corner of the rectangle in UV")
            .setMetadata(Metadata::UI_ENABLED_IF, whenSet("transformation_enabled"));
        b.addGroup("enviroMode", Data::enviroModeDefinition(), "Environment", "Lookups by direction");
        b.addVector3("dome_origin", Pos(0, 0, 0), "Dome origin",
                     "Centre of the dome's floor, under the camera that took the panorama")
            .setMetadata(Metadata::QUANTITY, String("length"))
            .setMetadata(Metadata::UI_VISIBLE_IF, whenDome());
        b.addFloat("dome_radius", 100.f, "Dome radius", "Radius of the dome the panorama is projected on")
            .addValidator(makeSharedPtr<MinimumValueValidator<float>>(0.f))
            .setMetadata(Metadata::QUANTITY, String("length"))
            .setMetadata(Metadata::UI_VISIBLE_IF, whenDome());
        b.addFloat("dome_cameraHeight", 1.7f, "Camera height",
                   "Height above the floor of the camera that took the panorama")
            .addValidator(makeSharedPtr<MinimumValueValidator<float>>(0.f))
            .setMetadata(Metadata::QUANTITY, String("length"))
            .setMetadata(Metadata::UI_VISIBLE_IF, whenDome());
        return b.build("Zatho.TextureMap");
    }();
    return sDefinition;
}

TextureMap::Settings TextureMap::Settings::fromData(GenericDataObject const& d) {
    Settings s;
    s.interpolation = d.get<InterpolationMode>("interpolation");
    s.maxAnisotropy = d.get<float>("maxAnisotropy");
    s.bumpStrength = d.get<float>("bumpStrength");
    if (d.get<bool>("customGamma")) s.customGamma = d.get<float>("gamma");
    s.colorSpace = d.get<String>("colorSpace");
    s.monoOutput = d.get<MonoOutput>("monoOutput");
    s.rgbOutput = d.get<RgbOutput>("rgbOutput");
    s.alphaSource = d.get<AlphaSource>("alphaSource");
    s.cropEnabled = d.get<bool>("transformation_enabled");
    s.cropMode = d.get<TransformationMode>("transformation_mode");
    s.cropLowerLeft = d.get<Vector2>("transformation_lowerLeft");
    s.cropUpperRight = d.get<Vector2>("transformation_upperRight");
    GenericDataObject const enviro = d.get<GenericDataObject>("enviroMode");
    s.environmentMapping = enviro.get<EnvironmentMapping>("mapping");
    s.environmentMode = enviro.get<EnvironmentMode>("mode");
    s.blur = enviro.get<float>("blur");
    s.dome.origin = d.get<Pos>("dome_origin");
    s.dome.radius = d.get<float>("dome_radius");
    s.dome.cameraHeight = d.get<float>("dome_cameraHeight");
    return s;
}

// --------------------------------------------------------------------- map

FERRIM_REGISTER_ENTITY(TextureMap);

TextureMap::TextureMap() : IMap(Data::definition()) {}

SharedPtr<Entity> TextureMap::createNewInstance() const { return makeSharedPtr<TextureMap>(); }

Optional<int> TextureMap::getOwnUvChannel() const { return MapsDetail::ownUvChannel(getData()); }

IMap::OptimizedResult TextureMap::getEvaluatorImpl() const {
    GenericDataObject const& d = getData();
    EntityHolder<IDataSource const> const source = d.get<EntityHolder<IDataSource>>("imageSource");
    Settings settings = Settings::fromData(d);
    // UDIM: a file pattern of tiles gets the tile set's evaluator.
    SharedPtr<Evaluator> evaluator = UdimEvaluator::make(source, MapsDetail::evaluatorUvMapper(d), settings);
    if (!evaluator)
        evaluator = makeSharedPtr<Evaluator>(ImageTextureCache::getOrCreateInColorSpace(source, settings.colorSpace),
                                             MapsDetail::evaluatorUvMapper(d), settings);
    {
        std::lock_guard lock(mEvaluatorMutex);
        mEvaluator = evaluator;
    }
    OptimizedResult result;
    result.evaluator = std::move(evaluator);
    return result;
}

SharedPtr<TextureMap::Evaluator> TextureMap::currentEvaluator() const {
    {
        std::lock_guard lock(mEvaluatorMutex);
        if (mEvaluator) return mEvaluator;
    }
    // The one just built, even if an edit has dropped it from the map meanwhile.
    return std::static_pointer_cast<Evaluator>(getEvaluatorImpl().evaluator);
}

void TextureMap::onDataChanged(StringView) {
    std::lock_guard lock(mEvaluatorMutex);
    mEvaluator.reset();
}

Expected<TextureMap::TextureInfo, String> TextureMap::getTextureInfo() const {
    SharedPtr<Evaluator> const e = currentEvaluator();
    if (auto const* udim = dynamic_cast<UdimEvaluator const*>(e.get())) return udim->getTextureInfo();  // UDIM
    ImageTexture const& t = e->getTexture();
    Image::Descriptor const descriptor = t.getDescriptor();
    // A tiled file's error comes after loading (a tile that could not be read):
    // reported too, not hidden behind the pixels the other tiles have.
    if (String const error = t.getError(); !error.empty()) return makeError(error);
    if (t.hasPixels() && t.getLevelCount() >= 1 && !descriptor.isEmpty())
        return TextureInfo{descriptor, t.getName(), e->getGamma(), t.getColorSpace()};
    return makeError(t.getName() + ": the texture has no pixels");
}

float TextureMap::defaultGamma(PixelFormat format) {
    ChannelType const type = getChannelType(format);
    return type == ChannelType::UInt8 || type == ChannelType::UInt16 ? 2.2f : 1.f;
}

// --------------------------------------------------------------- evaluator

namespace {

bool isEnvironmentKind(ShadedKind kind) { return kind == ShadedKind::Environment || kind == ShadedKind::Background; }

/// NaN gives 0.
inline float clamp01(float x) {
    bool inside = true;
    return wrapCoordinate<WrapMode::Clamp>(x, inside);
}

/// Both axes by the wrap pair P = 4 U + V; false when a NoTiling axis leaves
/// [0, 1]. Every mode leaves the coordinate in [0, 1].
template <int P> inline bool wrapBoth(float& u, float& v) {
    bool inside = true;
    u = wrapCoordinate<WrapMode(P >> 2)>(u, inside);
    v = wrapCoordinate<WrapMode(P & 3)>(v, inside);
    return inside;
}

RgbAlpha toRgbAlpha(Float4 c) {
    static_assert(sizeof(RgbAlpha) == 4 * sizeof(float));
    float v[4];
    c.store(v);
    RgbAlpha out;
    std::memcpy(&out, v, sizeof out);  // one store and two loads, no per-channel shuffles
    return out;
}

/// Only float texels can hold an alpha above 1 (or a NaN, which min turns into the bound).
template <PixelFormat F> inline Float4 boundAlpha(Float4 c) {
    if constexpr (TextureSampling::Detail::isFloatFormat(F)) {
        constexpr float INF = std::numeric_limits<float>::infinity();
        return min(c, Float4(INF, INF, INF, 1.f));
    }
    return c;
}

} // namespace

[[gnu::noinline]] std::byte const* TextureMap::Evaluator::readBack(int level) const {
    // Second test under the lock: of several threads needing the level, one reads it back.
    std::lock_guard lock(mTexture->getMutex());
    if (level < mTexture->getOffloadedCount()) MipMapManager::readBack(*mTexture, level);
    // Offloading needs the lock, so the level is resident here; the caller's
    // lookup guard keeps the buffer alive once the lock is released.
    std::byte const* const pixels = mLevels[std::size_t(level)].pixels->load(std::memory_order_seq_cst);
    if (!pixels) Quelin::Detail::throwStopException(SOURCE, __LINE__);
    return pixels;
}

inline std::byte const* TextureMap::Evaluator::residentPixels(int level) const {
    std::byte const* const pixels = mLevels[std::size_t(level)].pixels->load(std::memory_order_seq_cst);
    if (!pixels) [[unlikely]]
        return readBack(level);
    return pixels;
}

// Unfiltered lookups of resident textures: level 0, of the format the routine
// is made for. The routine calls nothing, so it saves no registers.
template <PixelFormat F, Conversion C, InterpolationMode I>
Float4 TextureMap::Evaluator::sampleTexture(Evaluator const& e, float u, float v, float du, float dv, bool filtered,
                                            Addressing addressing) {
    MipMapManager::Detail::LookupGuard const guard;
    Level const& l = e.mLevels[0];
    std::byte const* const pixels = l.pixels->load(std::memory_order_seq_cst);
    if (filtered || !pixels) [[unlikely]]
        return sampleGeneral<F, C, I>(e, u, v, du, dv, filtered, addressing);
    return boundAlpha<F>(sample<F, C, I>(pixels, l.shape, u, v, addressing, e.mConversion));
}

// The level choice, reading back and the kernels of both levels in one routine.
// Runs inside the caller's lookup guard.
template <PixelFormat F, Conversion C, InterpolationMode I>
[[gnu::noinline]] Float4 TextureMap::Evaluator::sampleGeneral(Evaluator const& e, float u, float v, float du,
                                                              float dv, bool filtered, Addressing addressing) {
    auto const level = [&](int i, std::byte const* pixels) {
        Level const& l = e.mLevels[std::size_t(i)];
        if (l.likeFirst) [[likely]]
            return sample<F, C, I>(pixels, l.shape, u, v, addressing, e.mConversion);
        return l.sample(pixels, l.shape, u, v, addressing, e.mConversion);
    };
    auto const single = [&](int i) { return boundAlpha<F>(level(i, e.residentPixels(i))); };
    if (!filtered) return single(0);
    float w = du < dv ? du : dv;
    if (!(w >= 1e-8f)) w = 1e-8f;  // NaN too
    // L = log2(w) + (n - 1): its whole part is w's exponent and its fraction
    // the log2 of w's mantissa, so the levels are known without waiting for a
    // logarithm; only the final blend does.
    std::uint32_t const bits = std::bit_cast<std::uint32_t>(w);
    int const whole = int(bits >> 23) - 127 + e.mTopLevel;
    if (whole < 0) return single(0);  // L <= 0
    if (whole >= e.mTopLevel) return single(e.mTopLevel);
    float const fraction = log2Approx(std::bit_cast<float>((bits & 0x007FFFFFu) | 0x3F800000u));  // [0, 1]
    std::byte const* const finer = e.residentPixels(whole);
    Float4 const a = level(whole, finer);
    return boundAlpha<F>(a + (level(whole + 1, e.residentPixels(whole + 1)) - a) * Float4(fraction));
}

TextureMap::Evaluator::Evaluator(SharedPtr<ImageTexture const> texture, SharedPtr<UvMapper const> uvMapper,
                                 Settings const& settings)
    : mTexture(texture ? std::move(texture) : makeSharedPtr<ImageTexture const>(EntityHolder<IDataSource const>())),
      mUvMapper(uvMapper ? std::move(uvMapper) : makeSharedPtr<UvMapper const>()), mSettings(settings) {
    // Enumerations are resolved here so a bad value stops at set-up, not in a render.
    auto const checkRange = [](int value, int count) {
        if (value < 0 || value >= count) Quelin::Detail::throwStopException(SOURCE, __LINE__);
    };
    checkRange(int(settings.interpolation), 4);
    mAnisotropic = settings.interpolation == InterpolationMode::Anisotropic;
    checkRange(int(settings.monoOutput), 2);
    checkRange(int(settings.rgbOutput), 2);
    checkRange(int(settings.alphaSource), 3);
    checkRange(int(settings.cropMode), 2);
    checkRange(int(settings.environmentMapping), 5);
    checkRange(int(settings.environmentMode), 3);
    if (mUvMapper->getMappingMode() == UvMappingMode::UvChannel && mUvMapper->getTransform() == AffineTm::identity())
        mFootprintChannel = mUvMapper->getChannel();
    WrapMode const wrapU = mUvMapper->getMapping().wrapU, wrapV = mUvMapper->getMapping().wrapV;
    mUvAddressing = {Batch::addressOf(wrapU), Batch::addressOf(wrapV)};  // stops on an unknown mode
    mWrapPair = 4 * int(wrapU) + int(wrapV);
    if (settings.rgbOutput == RgbOutput::Alpha) mColorOutput = ColorOutput::AlphaAsGrey;
    else if (settings.alphaSource == AlphaSource::RgbIntensity) mColorOutput = ColorOutput::AlphaFromMean;
    else if (settings.alphaSource == AlphaSource::None) mColorOutput = ColorOutput::Opaque;

    ImageTexture const& t = *mTexture;
    if (!t.hasPixels() || t.getLevelCount() < 1) {
        mGamma = settings.customGamma.value_or(1.f);
        return;
    }
    PixelFormat const format = t.getDescriptor().format;
    mGamma = settings.customGamma.value_or(defaultGamma(format));
    // The pixels are stored as decoded: the texture's own gamma is 1.
    constexpr float TEXTURE_GAMMA = 1.f;
    Conversion conversion;
    if (!t.getRequestedColorSpace().empty()) {
        // Read in a colour space: linear already, or through the texture's table.
        mGamma = 1.f;
        if (TextureSampling::Table8 const* table = t.getTexelTable()) {
            conversion = Conversion::Table8;
            mConversion.table = table->data();
        } else {
            conversion = Conversion::None;
        }
    } else if (getChannelType(format) == ChannelType::UInt8) {
        conversion = Conversion::Table8;
        if (mGamma == 2.2f && TEXTURE_GAMMA == 1.f) {
            mConversion.table = gamma22Table();
        } else {
            mTable = makeTable8(mGamma == TEXTURE_GAMMA ? 1.f : mGamma / TEXTURE_GAMMA);
            mConversion.table = mTable.data();
        }
    } else if (mGamma == TEXTURE_GAMMA) {
        conversion = Conversion::None;
    } else {
        conversion = Conversion::Power;
        mConversion.power = mGamma / TEXTURE_GAMMA;
    }
    if (TiledImageFile* const tiled = t.getTiledFile()) {
        setUpTiled(*tiled, conversion);
        return;
    }
    int const n = t.getLevelCount();
    mLevels.reserve(std::size_t(n));
    for (int i = 0; i < n; ++i) {
        // Descriptors stay valid while a level is offloaded; its pixels are
        // looked up at each sample, through the chain's published pointer.
        Image const& level = t.getLevel(i);
        mLevels.push_back({selectSampleFunction(level.getFormat(), settings.interpolation, conversion),
                           LevelShape{level.getWidth(), level.getHeight(), float(level.getWidth()),
                                      float(level.getHeight()), level.getRowBytes()},
                           &MipChainAccess::pixels(t.getMipChain(), i),
                           level.getFormat() == format});
    }
    mSample = dispatch(format, conversion, settings.interpolation,
                       []<PixelFormat F, Conversion C, InterpolationMode I>() -> SampleTexture {
                           return &Evaluator::sampleTexture<F, C, I>;
                       });
    mSampleAnisotropic = dispatch(format, conversion, InterpolationMode::Bilinear,
                                  []<PixelFormat F, Conversion C, InterpolationMode>() -> SampleAnisotropic {
                                      return &Evaluator::sampleAnisotropic<F, C>;
                                  });
    mTopLevel = n - 1;
    // The bump converter's smallest step is STEP_FRACTION times its scale: half a texel of level 0.
    Pixel const size = t.getLevel(0).getResolution();
    mBumpScale = 0.5f / (float(std::max(size.x, size.y)) * BumpConverterMap::STEP_FRACTION);
}

// ------------------------------------------------- anisotropic and tiled lookups

// Each probe is the trilinear lookup of `sampleGeneral` with the bilinear
// kernel, at a coordinate wrapped back into the texture; the tile cache's
// probes do the same arithmetic, so tiled and whole results agree bit for bit.
template <PixelFormat F, Conversion C>
Float4 TextureMap::Evaluator::sampleAnisotropic(Evaluator const& e, float u, float v, UvDerivatives const& d,
                                                Addressing addressing) {
    MipMapManager::Detail::LookupGuard const guard;
    auto const level = [&](int i, float pu, float pv) {
        Level const& l = e.mLevels[std::size_t(i)];
        if (l.likeFirst) [[likely]]
            return sample<F, C, InterpolationMode::Bilinear>(e.residentPixels(i), l.shape, pu, pv, addressing, e.mConversion);
        return l.sample(e.residentPixels(i), l.shape, pu, pv, addressing, e.mConversion);
    };
    AnisotropicProbes const probes = planProbes(d, e.mSettings.maxAnisotropy);
    return boundAlpha<F>(filterAnisotropic(u, v, probes, [&](float pu, float pv, float width) {
        pu = clamp01(wrapProbe(pu, addressing.u));
        pv = clamp01(wrapProbe(pv, addressing.v));
        float w = width;
        if (!(w >= 1e-8f)) w = 1e-8f;  // NaN too
        std::uint32_t const bits = std::bit_cast<std::uint32_t>(w);
        int const whole = int(bits >> 23) - 127 + e.mTopLevel;
        if (whole < 0) return level(0, pu, pv);
        if (whole >= e.mTopLevel) return level(e.mTopLevel, pu, pv);
        float const fraction = log2Approx(std::bit_cast<float>((bits & 0x007FFFFFu) | 0x3F800000u));
        Float4 const finer = level(whole, pu, pv);
        return finer + (level(whole + 1, pu, pv) - finer) * Float4(fraction);
    }));
}

namespace {
/// The alpha bound of the whole path, for the formats it bounds (`boundAlpha`).
inline Float4 boundAlphaOfTiles(TiledImageFile const& file, Float4 c) {
    if (!TextureSampling::Detail::isFloatFormat(file.getFormat())) return c;
    constexpr float INF = std::numeric_limits<float>::infinity();
    return min(c, Float4(INF, INF, INF, 1.f));
}
} // namespace

Float4 TextureMap::Evaluator::sampleTiled(Evaluator const& e, float u, float v, float du, float dv, bool filtered,
                                          Addressing addressing) {
    return boundAlphaOfTiles(*e.mTiledFile, e.mTiledSampler.isotropic(*e.mTileCache, *e.mTiledFile, u, v, du < dv ? du : dv,
                                                                      filtered, addressing, e.mConversion));
}

Float4 TextureMap::Evaluator::sampleTiledAnisotropic(Evaluator const& e, float u, float v, UvDerivatives const& d,
                                                     Addressing addressing) {
    return boundAlphaOfTiles(*e.mTiledFile, e.mTiledSampler.anisotropic(*e.mTileCache, *e.mTiledFile, u, v,
                                                                        planProbes(d, e.mSettings.maxAnisotropy), addressing,
                                                                        e.mConversion));
}

void TextureMap::Evaluator::setUpTiled(TiledImageFile& file, Conversion conversion) {
    mTiledFile = &file;
    mTileCache = mTexture->getTileCache();
    mTiledSampler = TileCache::selectSampler(file.getFormat(), conversion, mSettings.interpolation);
    // Shapes only: the pixels are the tiles'.
    for (int i = 0; i < file.getLevelCount(); ++i)
        mLevels.push_back({nullptr, file.getLevel(i).shape, nullptr, true});
    mSample = &Evaluator::sampleTiled;
    mSampleAnisotropic = &Evaluator::sampleTiledAnisotropic;
    mTopLevel = file.getLevelCount() - 1;
    LevelShape const& first = file.getLevel(0).shape;
    mBumpScale = 0.5f / (float(std::max(first.width, first.height)) * BumpConverterMap::STEP_FRACTION);
}

[[gnu::noinline]] TextureMap::Evaluator::Found TextureMap::Evaluator::findSurfaceAnisotropic(IShadeContext const& context,
                                                                                             float u, float v) const {
    UvDerivatives d;
    if (mUvMapper->getMappingMode() == UvMappingMode::UvChannel) {
        // The channel's derivatives through the placement's linear part.
        UvwDerivatives const source = context.getUvwDerivatives(mUvMapper->getChannel());
        Dir const dx = mUvMapper->getTransform().transformDir(source.dx), dy = mUvMapper->getTransform().transformDir(source.dy);
        d = {dx.x, dx.y, dy.x, dy.y};
    } else {
        Dir const footprint = mUvMapper->computeDUvw(context);
        d = {footprint.x, 0.f, 0.f, footprint.y};
    }
    return findWrappedAnisotropic(u, v, d, mUvAddressing);
}

[[gnu::noinline]] TextureMap::Evaluator::Found TextureMap::Evaluator::findWrappedAnisotropic(float u, float v, UvDerivatives d,
                                                                                             Addressing addressing) const {
    if (!mSample) return {};
    if (mSettings.cropEnabled) {
        // As `findWrapped`: each axis's steps scale with the rectangle's side.
        Vector2 const ll = mSettings.cropLowerLeft, ur = mSettings.cropUpperRight;
        float const w = ur.x - ll.x, h = ur.y - ll.y;
        float su = std::fabs(w), sv = std::fabs(h);
        if (mSettings.cropMode == TransformationMode::Placement) {
            if (!(u >= ll.x && u <= ur.x && v >= ll.y && v <= ur.y)) return {};
            u = (u - ll.x) / w;
            v = (v - ll.y) / h;
            su = 1.f / su;
            sv = 1.f / sv;
        } else {
            u = ll.x + u * w;
            v = ll.y + v * h;
        }
        d = {d.dudx * su, d.dvdx * sv, d.dudy * su, d.dvdy * sv};
        u = clamp01(u);
        v = clamp01(v);
    }
    return {mSampleAnisotropic(*this, u, v, d, addressing), true};
}


// u and v are in [0, 1], where the kernels read inside the level.
inline TextureMap::Evaluator::Found TextureMap::Evaluator::findWrapped(float u, float v, float du, float dv,
                                                                       bool filtered, Addressing addressing) const {
    if (!mSample) return {};
    if (mAnisotropic && filtered) [[unlikely]]
        return findWrappedAnisotropic(u, v, {du, 0.f, 0.f, dv}, addressing);
    if (mSettings.cropEnabled) {
        Vector2 const ll = mSettings.cropLowerLeft, ur = mSettings.cropUpperRight;
        float const w = ur.x - ll.x, h = ur.y - ll.y;
        if (mSettings.cropMode == TransformationMode::Placement) {
            if (!(u >= ll.x && u <= ur.x && v >= ll.y && v <= ur.y)) return {};
            u = (u - ll.x) / w;
            v = (v - ll.y) / h;
            du /= std::fabs(w);
            dv /= std::fabs(h);
        } else {
            u = ll.x + u * w;
            v = ll.y + v * h;
            du *= std::fabs(w);
            dv *= std::fabs(h);
        }
        // A rectangle reaching past the image, or rounding, may leave [0, 1].
        u = clamp01(u);
        v = clamp01(v);
    }
    return {mSample(*this, u, v, du, dv, filtered, addressing), true};
}

inline bool TextureMap::Evaluator::wrap(float& u, float& v) const {
    // One jump for both axes.
    switch (mWrapPair) {
    case 0: return wrapBoth<0>(u, v);   case 1: return wrapBoth<1>(u, v);   case 2: return wrapBoth<2>(u, v);
    case 3: return wrapBoth<3>(u, v);   case 4: return wrapBoth<4>(u, v);   case 5: return wrapBoth<5>(u, v);
    case 6: return wrapBoth<6>(u, v);   case 7: return wrapBoth<7>(u, v);   case 8: return wrapBoth<8>(u, v);
    case 9: return wrapBoth<9>(u, v);   case 10: return wrapBoth<10>(u, v); case 11: return wrapBoth<11>(u, v);
    case 12: return wrapBoth<12>(u, v); case 13: return wrapBoth<13>(u, v); case 14: return wrapBoth<14>(u, v);
    case 15: return wrapBoth<15>(u, v);
    }
    Quelin::Detail::throwStopException("UvMapper", __LINE__);
}

inline bool TextureMap::Evaluator::usesEnvironment(IShadeContext const& context) const {
    switch (mSettings.environmentMode) {
    case EnvironmentMode::Environment: return true;
    case EnvironmentMode::Texture: return false;
    case EnvironmentMode::Auto: break;
    }
    return isEnvironmentKind(context.getShadedKind());
}

// Kept out of line: the surface path below is flattened and should stay short.
[[gnu::noinline]] TextureMap::Evaluator::Found TextureMap::Evaluator::findEnvironment(IShadeContext const& context) const {
    bool const filtered = context.wantsFilteredLookup();
    EnvironmentMapping const mapping = mSettings.environmentMapping;
    Addressing addressing;
    Vector2 uv, footprint;
    if (mapping == EnvironmentMapping::Screen) {
        // Any point on the ray projects to where the ray crosses the image plane.
        PrecisePos p = context.getPosition();
        if (isEnvironmentKind(context.getShadedKind())) {
            Dir const d = context.getViewDirection();
            p = PrecisePos(p.x + double(d.x), p.y + double(d.y), p.z + double(d.z));
        }
        uv = context.unprojectPoint(p, IShadeContext::UnprojectPoint::Normalized);
        Pixel const size = context.getImageSize();
        footprint = Vector2(size.x > 0 ? 1.f / float(size.x) : 0.f, size.y > 0 ? 1.f / float(size.y) : 0.f);
    } else {
        UvMapper::UvMapping const& m = mUvMapper->getMapping();
        Dir d = normalize(context.getViewDirection());
        if (mapping == EnvironmentMapping::Dome)
            d = EnvironmentMappings::domeDirection(mSettings.dome, context.getPosition().toPos(), d);
        if (m.rotateEnviro) d = normalize(m.enviroTransform.transformDir(d));
        switch (mapping) {
        case EnvironmentMapping::Spherical:
        case EnvironmentMapping::Dome:
            uv = EnvironmentMappings::spherical(d);
            addressing.u = Address::Repeat;
            break;
        case EnvironmentMapping::Cross: uv = EnvironmentMappings::cross(d, mLevels.empty() ? 1 : mLevels[0].shape.width / 3); break;
        case EnvironmentMapping::MirrorBall: uv = EnvironmentMappings::mirrorBall(d); break;
        default: Quelin::Detail::throwStopException(SOURCE, __LINE__);
        }
        footprint = EnvironmentMappings::footprintPerRadian(mapping) * context.getPositionFootprint();
    }
    footprint = footprint * mSettings.blur;
    return findWrapped(clamp01(uv.x), clamp01(uv.y), footprint.x, footprint.y, filtered, addressing);
}

inline TextureMap::Evaluator::Found TextureMap::Evaluator::find(IShadeContext const& context) const {
    return usesEnvironment(context) ? findEnvironment(context) : findSurface(context);
}

inline TextureMap::Evaluator::Found TextureMap::Evaluator::findSurface(IShadeContext const& context) const {
    bool const filtered = context.wantsFilteredLookup();
    Pos const uvw = mUvMapper->computeUvw(context);
    float u = uvw.x, v = uvw.y;
    if (!wrap(u, v)) return {};
    if (mAnisotropic && filtered) [[unlikely]]
        return findSurfaceAnisotropic(context, u, v);
    Dir footprint;
    if (filtered) footprint = mFootprintChannel ? context.getDUvw(*mFootprintChannel) : mUvMapper->computeDUvw(context);
    return findWrapped(u, v, footprint.x, footprint.y, filtered, mUvAddressing);
}

inline TextureMap::Evaluator::Found TextureMap::Evaluator::findSurfaceAt(IShadeContext const& context,
                                                                         MapLookupPoint const& point,
                                                                         bool filtered) const {
    // The mapper's own reading of a UV channel (computeUvw), with the point as the channel's answer.
    Pos const uvw = mFootprintChannel ? point.uvw : mUvMapper->getTransform().transformPoint(point.uvw);
    float u = uvw.x, v = uvw.y;
    if (!wrap(u, v)) return {};
    Dir footprint;
    if (filtered) {
        if (mFootprintChannel) {
            footprint = point.dUvw;
        } else {
            OverridableUvwShadeContext const at(context, point.uvw, point.dUvw);
            footprint = mUvMapper->computeDUvw(at);
        }
    }
    return findWrapped(u, v, footprint.x, footprint.y, filtered, mUvAddressing);
}

Optional<RgbAlpha> TextureMap::Evaluator::lookup(IShadeContext const& context) const {
    Found const f = find(context);
    if (!f.inside) return std::nullopt;
    return toRgbAlpha(f.colour);
}

Optional<RgbAlpha> TextureMap::Evaluator::lookupWrapped(float u, float v, float du, float dv, bool filtered,
                                                        Addressing addressing) const {
    Found const f = findWrapped(clamp01(u), clamp01(v), du, dv, filtered, addressing);
    if (!f.inside) return std::nullopt;
    return toRgbAlpha(f.colour);
}

inline RgbAlpha TextureMap::Evaluator::colorOutput(Float4 colour) const {
    if (mColorOutput != ColorOutput::Image) [[unlikely]] {
        switch (mColorOutput) {
        case ColorOutput::AlphaAsGrey: colour = Float4(colour[3]); break;
        case ColorOutput::AlphaFromMean: {
            RgbAlpha const c = toRgbAlpha(colour);
            return RgbAlpha(c.r, c.g, c.b, channelMean(c.r, c.g, c.b));
        }
        case ColorOutput::Opaque: colour = select(asFloat4(Int4(0, 0, 0, -1)), Float4(1.f), colour); break;
        case ColorOutput::Image: break;
        }
    }
    return toRgbAlpha(colour);
}

inline MonoAlpha TextureMap::Evaluator::monoOutput(Float4 colour) const {
    RgbAlpha const c = toRgbAlpha(colour);
    switch (mSettings.monoOutput) {
    case MonoOutput::Alpha: return MonoAlpha(c.alpha, 1.f);
    case MonoOutput::RgbIntensity: return MonoAlpha(channelMean(c.r, c.g, c.b), 1.f);
    }
    Quelin::Detail::throwStopException(SOURCE, __LINE__);
}

inline RgbAlpha TextureMap::Evaluator::colorOf(Found const& found) const {
    return found.inside ? colorOutput(found.colour) : RgbAlpha(0.f, 0.f, 0.f, 0.f);
}

inline MonoAlpha TextureMap::Evaluator::monoOf(Found const& found) const {
    return found.inside ? monoOutput(found.colour) : MonoAlpha(0.f, 1.f);
}

// The environment lookups apart: merged with the surface path, the colour
// would be passed through memory on both.
[[gnu::noinline]] RgbAlpha TextureMap::Evaluator::environmentColor(IShadeContext const& context) const {
    return colorOf(findEnvironment(context));
}

[[gnu::noinline]] MonoAlpha TextureMap::Evaluator::environmentMono(IShadeContext const& context) const {
    return monoOf(findEnvironment(context));
}

RgbAlpha TextureMap::Evaluator::evalColor(IShadeContext const& context, MapCache*) const {
    if (usesEnvironment(context)) [[unlikely]]
        return environmentColor(context);
    return colorOf(findSurface(context));
}

MonoAlpha TextureMap::Evaluator::evalMono(IShadeContext const& context, MapCache*) const {
    if (usesEnvironment(context)) [[unlikely]]
        return environmentMono(context);
    return monoOf(findSurface(context));
}

// ---- batched lookups: while one point is filtered, the texels of a point
// a few places ahead are on their way from memory.
namespace {
constexpr std::size_t BATCH_PREFETCH_DISTANCE = 8;
/// Below this many points (a triplanar map's three lookups) the batch's set-up
/// and prefetching cost more than they save: the points go one by one.
constexpr std::size_t SMALL_BATCH = 16;
}

inline void TextureMap::Evaluator::prefetch(MapLookupPoint const& point, bool filtered) const {
    // Only the common case is guessed: a channel read as it is, no crop, the
    // texture decoded whole (a tiled one's texels are in the tile cache).
    if (!mFootprintChannel || mSettings.cropEnabled || mLevels.empty() || mTiledFile) return;
    float u = point.uvw.x, v = point.uvw.y;
    // A NaN may survive some wrap modes; it reads nothing, so it needs nothing.
    if (!wrap(u, v) || !(u >= 0.f && u <= 1.f && v >= 0.f && v <= 1.f)) return;
    auto const ask = [&](int i) {
        Level const& l = mLevels[std::size_t(i)];
        std::byte const* const pixels = l.pixels->load(std::memory_order_relaxed);
        if (!pixels) return;
        // The texel row under the point and the next one: a bilinear footprint's two rows.
        int const y = std::min(int((1.f - v) * l.shape.heightF - 0.5f), l.shape.height - 1);
        std::byte const* const at = pixels + std::int64_t(y) * l.shape.rowBytes + std::int64_t(u * float(l.shape.rowBytes - 1));
        __builtin_prefetch(at);
        if (y + 1 < l.shape.height) __builtin_prefetch(at + l.shape.rowBytes);
    };
    if (!filtered) return ask(0);
    float w = std::min(point.dUvw.x, point.dUvw.y);
    if (!(w >= 1e-8f)) w = 1e-8f;
    int const whole = int(std::bit_cast<std::uint32_t>(w) >> 23) - 127 + mTopLevel;
    if (whole < 0) return ask(0);
    if (whole >= mTopLevel) return ask(mTopLevel);
    ask(whole);
    ask(whole + 1);
}

template <typename Emit>
bool TextureMap::Evaluator::runBatch(std::span<MapLookupPoint const> points, bool filtered, Emit&& emit) const {
    // The common case: a channel read as it is, no crop, bilinear, every level
    // of level 0's format and resident (an offloaded one is read back by the
    // one-point road), the texture decoded whole (not read by tiles).
    std::size_t const levels = mLevels.size();
    if (!mFootprintChannel || mSettings.cropEnabled || mSettings.interpolation != InterpolationMode::Bilinear ||
        levels == 0 || levels > std::size_t(Batch::MAX_LEVELS) || mTiledFile)
        return false;
    Batch::Setup setup;
    std::byte const* pixels[Batch::MAX_LEVELS];
    std::int64_t rowBytes[Batch::MAX_LEVELS];
    // Unfiltered lookups read level 0 only.
    std::size_t const used = filtered ? levels : 1;
    for (std::size_t i = 0; i < used; ++i) {
        Level const& l = mLevels[i];
        pixels[i] = l.pixels->load(std::memory_order_seq_cst);
        if (!pixels[i] || !l.likeFirst) return false;
        rowBytes[i] = l.shape.rowBytes;
        setup.width[i] = l.shape.width;
        setup.height[i] = l.shape.height;
        setup.widthF[i] = l.shape.widthF;
        setup.heightF[i] = l.shape.heightF;
    }
    setup.wrapU = WrapMode(mWrapPair >> 2);
    setup.wrapV = WrapMode(mWrapPair & 3);
    setup.addressing = mUvAddressing;
    setup.filtered = filtered;
    setup.topLevel = int(used) - 1;
    // The conversion the constructor chose, from what it set.
    PixelFormat const format = mTexture->getLevel(0).getFormat();
    Conversion const conversion = TextureSampling::Detail::isEightBit(format)
                                      ? (mConversion.table ? Conversion::Table8 : Conversion::None)
                                      : (mConversion.power == 1.f ? Conversion::None : Conversion::Power);
    Batch::Filter const filter = Batch::selectFilter(format, conversion, int(used));
    if (!filter) return false;
    // Storage the filter writes before anything reads it: not zeroed per call.
    alignas(Float4) unsigned char colourBytes[sizeof(Float4) * Batch::CHUNK];
    Float4* const colours = reinterpret_cast<Float4*>(colourBytes);
    bool inside[Batch::CHUNK];
    for (std::size_t first = 0; first < points.size(); first += Batch::CHUNK) {
        std::span<MapLookupPoint const> const chunk = points.subspan(first, std::min(Batch::CHUNK, points.size() - first));
        // The next chunk's points are read while this one is filtered.
        std::size_t const next = first + Batch::CHUNK, nextEnd = std::min(points.size(), next + Batch::CHUNK);
        for (std::size_t j = next; j < nextEnd; j += 64 / sizeof(MapLookupPoint))
            Batch::prefetchLine(&points[j]);
        filter(setup, chunk, pixels, rowBytes, mConversion, colours, inside);
        for (std::size_t i = 0; i < chunk.size(); ++i) emit(first + i, inside[i], colours[i]);
    }
    return true;
}

template <typename Put>
void TextureMap::Evaluator::evalSurfaceBatch(IShadeContext const& context, std::span<MapLookupPoint const> points,
                                             Put&& put) const {
    bool const filtered = context.wantsFilteredLookup();
    std::size_t const n = points.size();
    if (n < SMALL_BATCH) {
        for (std::size_t i = 0; i < n; ++i) put(i, findSurfaceAt(context, points[i], filtered));
        return;
    }
    // One guard for the batch: the lookups' own guards nest inside it at no cost.
    MipMapManager::Detail::LookupGuard const guard;
    if (runBatch(points, filtered, [&](std::size_t i, bool inside, Float4 c) { put(i, Found{c, inside}); })) return;
    for (std::size_t i = 0; i < std::min(n, BATCH_PREFETCH_DISTANCE); ++i) prefetch(points[i], filtered);
    for (std::size_t i = 0; i < n; ++i) {
        if (i + BATCH_PREFETCH_DISTANCE < n) prefetch(points[i + BATCH_PREFETCH_DISTANCE], filtered);
        put(i, findSurfaceAt(context, points[i], filtered));
    }
}

void TextureMap::Evaluator::evalColors(IShadeContext const& context, std::span<MapLookupPoint const> points,
                                       std::span<RgbAlpha> colors, MapCache* cache) const {
    // Environment lookups go by direction, and the position mappings by
    // position: neither reads the UVW, so they take the general road.
    if (usesEnvironment(context) || mUvMapper->getMappingMode() != UvMappingMode::UvChannel) [[unlikely]]
        return IMapEvaluator::evalColors(context, points, colors, cache);
    evalSurfaceBatch(context, points, [&](std::size_t i, Found const& found) {
        // The image's own colour is copied whole: through colorOf's returned
        // value it would be split into halves and shuffled back together.
        if (found.inside && mColorOutput == ColorOutput::Image) [[likely]] {
            float c[4];
            found.colour.store(c);
            std::memcpy(&colors[i], c, sizeof c);
        } else {
            colors[i] = colorOf(found);
        }
    });
}

void TextureMap::Evaluator::evalMonos(IShadeContext const& context, std::span<MapLookupPoint const> points,
                                      std::span<MonoAlpha> monos, MapCache* cache) const {
    if (usesEnvironment(context) || mUvMapper->getMappingMode() != UvMappingMode::UvChannel) [[unlikely]]
        return IMapEvaluator::evalMonos(context, points, monos, cache);
    evalSurfaceBatch(context, points, [&](std::size_t i, Found const& found) { monos[i] = monoOf(found); });
}

Dir TextureMap::Evaluator::evalBump(IShadeContext const& context, MapCache*) const {
    if (mLevels.empty() || usesEnvironment(context)) return Dir();
    return BumpConverterMap::evalBump(context, *this, *mUvMapper, mSettings.bumpStrength / mBumpScale, mBumpScale);
}

} // namespace Quelin
