#pragma once
// The map that samples an image texture at a shading point.
//
// A lookup: the UV mapper gives the placed UVW and its footprint; U and V are
// wrapped by the mapper's wrap modes (a NoTiling axis outside [0, 1] makes the
// point outside); the crop rectangle ("transformation_*") either selects the
// part of the image that fills [0, 1] (Clip, footprint scaled by the
// rectangle's size) or places the whole image inside the rectangle
// (Placement, points outside it are outside, footprint divided by the size).
// Without filtering, level 0 is sampled (offloaded levels are read back
// first); with filtering the level is L = log2(min(du, dv)) + (n - 1) with a
// linear blend between the two nearest levels. Texels go to linear light
// before filtering (see TextureSampling.h); alpha is clamped to at most 1.
//
// Gamma: the texture's pixels are used as decoded (encoding gamma 1). The
// gamma in effect is "gamma" when "customGamma" is set, otherwise 2.2 for
// 8-bit and 16-bit images (display-referred files) and 1.0 for float and
// shared-exponent ones (scene-linear files).
//
// Colour space ("colorSpace"): empty keeps the gamma rule above. Otherwise the
// texture is read in that colour space of the colour-management config (see
// Ferrim/ColorSpaces.h), or with "auto" in the space the file names, else
// sRGB for 8- and 16-bit files and scene-linear for float ones, and converted
// to the config's scene-linear space; the gamma settings are then unused. An
// 8-bit file in a space with one curve for all channels is looked up through
// a table of that curve, as the gamma rule does; other conversions are done
// once when the texture loads. The mip levels are averaged in linear light.
// A name the config does not know is the texture's error.
//
// Environment lookups ("enviroMode"): with "mode" Auto, environment and
// background rays look up by their direction through "mapping" (see
// EnvironmentMapping.h) and surfaces use the UV mapper; Environment uses the
// direction everywhere, Texture the UV mapper everywhere. The mapper's
// "enviroTransform" turns the direction when "rotateEnviro" is set. "blur"
// multiplies the footprint. Spherical and Dome repeat across the panorama's
// vertical seam; the other mappings clamp at the image's border.
//
// Bump: the gradient of the scalar output over the placed (u, v), through the
// bump converter with the step tied to the footprint (half of it, and at
// least half a texel of level 0), times "bumpStrength": a texture whose value
// rises by 1 over one unit of u tilts the normal by bumpStrength along dP/du.
// The value is a height measured in units of the texture's placement.
// Environment lookups have no bump.
#include "Ferrim/IMap.h"
#include "Ferrim/TextureMap/EnvironmentMapping.h"
#include "Ferrim/TextureMap/ImageTexture.h"
#include "Ferrim/TextureMap/TextureSampling.h"
#include "Ferrim/UvMapper.h"

#if defined(__GNUC__)
#define FERRIM_TEXTURE_INTERNAL [[gnu::visibility("hidden")]]
/// Everything the routine calls is inlined into it (calls through pointers aside).
#define FERRIM_TEXTURE_FLATTEN [[gnu::flatten]]
#else
#define FERRIM_TEXTURE_INTERNAL
#define FERRIM_TEXTURE_FLATTEN
#endif

namespace Quelin {

class FERRIM_EXPORT TextureMap : public IMap {
public:
    enum class MonoOutput : int { RgbIntensity = 0, Alpha = 1 };
    enum class RgbOutput : int { Rgb = 0, Alpha = 1 };
    enum class AlphaSource : int { ImageAlpha = 0, RgbIntensity = 1, None = 2 };
    enum class TransformationMode : int { Clip = 0, Placement = 1 };
    /// When lookups go by direction instead of through the UV mapper.
    enum class EnvironmentMode : int { Auto = 0, Environment = 1, Texture = 2 };

    /// "imageSource", "uvMapper", "interpolation", "maxAnisotropy", "bumpStrength", "customGamma",
    /// "gamma", "colorSpace", "monoOutput", "rgbOutput", "alphaSource", "transformation_enabled",
    /// "transformation_mode", "transformation_lowerLeft",
    /// "transformation_upperRight", "enviroMode" (group "mapping", "mode",
    /// "blur"), "dome_origin", "dome_radius", "dome_cameraHeight".
    struct Data {
        static SharedPtr<DataObjectDefinition const> const& definition();
        static SharedPtr<DataObjectDefinition const> const& enviroModeDefinition();
    };

    /// What the host shows about the image.
    struct TextureInfo {
        Image::Descriptor descriptor;
        String name;   ///< the texture's display name (the file's path for files)
        float gamma;   ///< the gamma in effect (1 with a colour space)
        String colorSpace;  ///< the space the file was read in; empty for the gamma rule
        int tileCount = 1;  ///< files of a UDIM set (see UdimTexture.h); the rest describes its first tile
    };

    /// Everything a lookup needs besides the texture and mapper, read from the
    /// record once.
    struct Settings {
        InterpolationMode interpolation = InterpolationMode::Bilinear;
        float maxAnisotropy = TextureSampling::DEFAULT_MAX_ANISOTROPY;
        float bumpStrength = 1.f;
        Optional<float> customGamma;  ///< set: overrides the texture's default gamma
        String colorSpace;  ///< empty: the gamma rule; "auto" or a colour space of the config
        MonoOutput monoOutput = MonoOutput::RgbIntensity;
        RgbOutput rgbOutput = RgbOutput::Rgb;
        AlphaSource alphaSource = AlphaSource::ImageAlpha;
        bool cropEnabled = false;
        TransformationMode cropMode = TransformationMode::Clip;
        Vector2 cropLowerLeft{0, 0}, cropUpperRight{1, 1};
        EnvironmentMapping environmentMapping = EnvironmentMapping::Spherical;
        EnvironmentMode environmentMode = EnvironmentMode::Auto;
        float blur = 1.f;
        EnvironmentMappings::DomeShape dome;

        static Settings fromData(GenericDataObject const& data);
    };

    class Evaluator;

    TextureMap();
    SharedPtr<Entity> createNewInstance() const override;
    Optional<int> getOwnUvChannel() const override;
    /// A new evaluator (waiting for the texture to load), also kept as the
    /// map's current one.
    OptimizedResult getEvaluatorImpl() const override;
    /// The image's descriptor, name and gamma, or the texture's error text when
    /// it has no pixels. Uses the current evaluator (built if there is none).
    Expected<TextureInfo, String> getTextureInfo() const;

    /// The gamma a texture of this format is read with when "customGamma" is off.
    static float defaultGamma(PixelFormat format);

protected:
    void onDataChanged(StringView propertyName) override;

private:
    SharedPtr<Evaluator> currentEvaluator() const;
    mutable Mutex mEvaluatorMutex;
    mutable SharedPtr<Evaluator> mEvaluator;
};

/// Immutable after construction and shared by render threads. The only
/// shared state it touches is the texture's levels: each lookup runs inside a
/// lookup guard, so that offloading (at any time, see
/// `MipMapManager::updateCache`) frees no level it reads; a level found
/// offloaded is read back under the texture's mutex.
class FERRIM_EXPORT TextureMap::Evaluator : public IMapEvaluator {
public:
    /// An unknown enumeration value in `settings` or a wrap mode of the
    /// mapper is an internal stop.
    Evaluator(SharedPtr<ImageTexture const> texture, SharedPtr<UvMapper const> uvMapper, Settings const& settings);

    // Flattened: the per-sample path up to the level kernel is one routine.
    FERRIM_TEXTURE_FLATTEN RgbAlpha evalColor(IShadeContext const& context, MapCache* cache) const override;
    FERRIM_TEXTURE_FLATTEN MonoAlpha evalMono(IShadeContext const& context, MapCache* cache) const override;
    Dir evalBump(IShadeContext const& context, MapCache* cache) const override;
    /// Surface lookups of a batch pay the context's questions and the
    /// environment test once, and their texel reads overlap.
    FERRIM_TEXTURE_FLATTEN void evalColors(IShadeContext const& context, std::span<MapLookupPoint const> points,
                                           std::span<RgbAlpha> colors, MapCache* cache) const override;
    FERRIM_TEXTURE_FLATTEN void evalMonos(IShadeContext const& context, std::span<MapLookupPoint const> points,
                                          std::span<MonoAlpha> monos, MapCache* cache) const override;

    /// The colour with alpha at a shading point, before the output choices;
    /// empty when the point is outside the image.
    Optional<RgbAlpha> lookup(IShadeContext const& context) const;
    /// The same from wrapped coordinates in [0, 1] and their footprint: crop,
    /// level choice, filtering and conversion.
    Optional<RgbAlpha> lookupWrapped(float u, float v, float du, float dv, bool filtered,
                                     TextureSampling::Addressing addressing) const;

    ImageTexture const& getTexture() const { return *mTexture; }
    SharedPtr<ImageTexture const> const& getTexturePtr() const { return mTexture; }
    UvMapper const& getUvMapper() const { return *mUvMapper; }
    /// The gamma in effect.
    float getGamma() const { return mGamma; }

private:
    struct Level {
        TextureSampling::SampleFunction sample;  ///< for a level whose format differs from level 0's
        TextureSampling::LevelShape shape;
        std::atomic<std::byte const*> const* pixels;  ///< the chain's published pointer, null while offloaded
        bool likeFirst;  ///< of level 0's pixel format
    };
    /// Level choice, residency and filtering, specialised for level 0's format.
    using SampleTexture = Float4 (*)(Evaluator const& e, float u, float v, float du, float dv, bool filtered,
                                     TextureSampling::Addressing addressing);
    template <PixelFormat F, TextureSampling::Conversion C, InterpolationMode I>
    FERRIM_TEXTURE_INTERNAL FERRIM_TEXTURE_FLATTEN static Float4 sampleTexture(Evaluator const& e, float u, float v,
                                                                               float du, float dv, bool filtered,
                                                                               TextureSampling::Addressing addressing);
    /// What `sampleTexture` leaves to a routine of its own, so that the common
    /// lookup pays for none of its registers: filtered lookups and levels to
    /// read back.
    /// Anisotropic lookups, whole or tiled: probes, filtering, the alpha bound.
    using SampleAnisotropic = Float4 (*)(Evaluator const& e, float u, float v, TextureSampling::UvDerivatives const& d,
                                         TextureSampling::Addressing addressing);
    template <PixelFormat F, TextureSampling::Conversion C>
    FERRIM_TEXTURE_INTERNAL static Float4 sampleAnisotropic(Evaluator const& e, float u, float v,
                                                            TextureSampling::UvDerivatives const& d,
                                                            TextureSampling::Addressing addressing);
    FERRIM_TEXTURE_INTERNAL static Float4 sampleTiled(Evaluator const& e, float u, float v, float du, float dv, bool filtered,
                                                      TextureSampling::Addressing addressing);
    FERRIM_TEXTURE_INTERNAL static Float4 sampleTiledAnisotropic(Evaluator const& e, float u, float v,
                                                                 TextureSampling::UvDerivatives const& d,
                                                                 TextureSampling::Addressing addressing);
    /// The lookup of a tiled texture: its levels' shapes, its sampler.
    FERRIM_TEXTURE_INTERNAL void setUpTiled(TiledImageFile& file, TextureSampling::Conversion conversion);
    template <PixelFormat F, TextureSampling::Conversion C, InterpolationMode I>
    FERRIM_TEXTURE_INTERNAL FERRIM_TEXTURE_FLATTEN static Float4 sampleGeneral(Evaluator const& e, float u, float v,
                                                                               float du, float dv, bool filtered,
                                                                               TextureSampling::Addressing addressing);

    /// A lookup's colour with alpha, or a point outside the image. Returned by
    /// value so that the colour stays in a register on the surface path.
    struct Found {
        Float4 colour;
        bool inside = false;
    };
    // The per-sample path, kept out of the library's exported symbols so that
    // calls inside it are direct and inlined.
    FERRIM_TEXTURE_INTERNAL Found find(IShadeContext const& context) const;
    FERRIM_TEXTURE_INTERNAL Found findSurface(IShadeContext const& context) const;
    /// `findSurface` of the context with its UVW and footprint replaced by `point`.
    FERRIM_TEXTURE_INTERNAL Found findSurfaceAt(IShadeContext const& context, MapLookupPoint const& point,
                                                bool filtered) const;
    /// Starts the memory reads of a batch point's texels (batched lookups).
    FERRIM_TEXTURE_INTERNAL void prefetch(MapLookupPoint const& point, bool filtered) const;
    /// Batched lookups of resident bilinear textures, eight points at a time
    /// (BatchSampling.h): `emit(index, inside, colour)` per point; false when
    /// the batch takes the one-point road.
    template <typename Emit>
    FERRIM_TEXTURE_INTERNAL bool runBatch(std::span<MapLookupPoint const> points, bool filtered, Emit&& emit) const;
    /// The surface lookups of `evalColors` and `evalMonos`: `put(i, found)` stores point i's result.
    template <typename Put>
    FERRIM_TEXTURE_INTERNAL void evalSurfaceBatch(IShadeContext const& context, std::span<MapLookupPoint const> points,
                                                  Put&& put) const;
    FERRIM_TEXTURE_INTERNAL Found findWrapped(float u, float v, float du, float dv, bool filtered,
                                              TextureSampling::Addressing addressing) const;
    /// Anisotropic filtered lookups: the surface's derivatives, then crop and filter.
    FERRIM_TEXTURE_INTERNAL Found findSurfaceAnisotropic(IShadeContext const& context, float u, float v) const;
    FERRIM_TEXTURE_INTERNAL Found findWrappedAnisotropic(float u, float v, TextureSampling::UvDerivatives d,
                                                         TextureSampling::Addressing addressing) const;
    FERRIM_TEXTURE_INTERNAL bool wrap(float& u, float& v) const;
    FERRIM_TEXTURE_INTERNAL RgbAlpha colorOf(Found const& found) const;
    FERRIM_TEXTURE_INTERNAL MonoAlpha monoOf(Found const& found) const;
    FERRIM_TEXTURE_INTERNAL RgbAlpha environmentColor(IShadeContext const& context) const;
    FERRIM_TEXTURE_INTERNAL MonoAlpha environmentMono(IShadeContext const& context) const;
    FERRIM_TEXTURE_INTERNAL RgbAlpha colorOutput(Float4 colour) const;
    FERRIM_TEXTURE_INTERNAL MonoAlpha monoOutput(Float4 colour) const;

    /// The pixels of `level`, read back (under the texture's mutex) when offloaded.
    FERRIM_TEXTURE_INTERNAL std::byte const* residentPixels(int level) const;
    /// Makes `level` and coarser levels resident and returns the pixels of `level`.
    FERRIM_TEXTURE_INTERNAL std::byte const* readBack(int level) const;
    FERRIM_TEXTURE_INTERNAL bool usesEnvironment(IShadeContext const& context) const;
    FERRIM_TEXTURE_INTERNAL Found findEnvironment(IShadeContext const& context) const;

    SharedPtr<ImageTexture const> mTexture;
    SharedPtr<UvMapper const> mUvMapper;
    Settings mSettings;
    float mGamma = 1.f;
    Stack<Level> mLevels;   ///< empty when the texture has no pixels
    SampleTexture mSample = nullptr;  ///< null when the texture has no pixels
    SampleAnisotropic mSampleAnisotropic = nullptr;  ///< set with mSample
    bool mAnisotropic = false;  ///< filtered lookups probe the footprint
    TiledImageFile* mTiledFile = nullptr;  ///< a tiled texture's file (kept by mTexture)
    TileCache* mTileCache = nullptr;
    TileCache::Sampler mTiledSampler{};
    int mTopLevel = 0;  ///< n - 1
    TextureSampling::TexelConversion mConversion;
    TextureSampling::Table8 mTable{};  ///< 8-bit table for exponents other than 2.2
    int mWrapPair = 0;  ///< 4 wrapU + wrapV of the mapper: both axes wrapped by one switch
    /// "rgbOutput" and "alphaSource" as one choice.
    enum class ColorOutput : std::uint8_t { Image, AlphaAsGrey, AlphaFromMean, Opaque };
    ColorOutput mColorOutput = ColorOutput::Image;
    TextureSampling::Addressing mUvAddressing;
    float mBumpScale = 1.f;  ///< the bump converter's scale: sets its smallest step
    /// A UV channel placed as it is: its footprint is the context's, read directly.
    Optional<int> mFootprintChannel;
};

} // namespace Quelin
