#pragma once
// The basic colour-mapping operators: exposure (simple and photographic),
// white balance, tint, green-magenta tint, contrast, saturation, vignette, the
// two gamma conversions and the identity.
//
// Every operator prepares neutral values when it is disabled or the context's
// apply flag is off; mapping is then the identity. Overridable parameters
// ("simpleExposure", "tint", "intensity", "falloff") take pipeline overrides
// without touching the stored record.
//
// The two gamma conversions are pure power curves with the display gamma.
// Linear to sRGB clamps negative input to 0 first; sRGB to Linear, and both
// inverses, do not clamp: a negative value is carried through as
// -(|c| raised to the exponent), so negatives survive the round trip.
#include <cfloat>

#include "Ferrim/colorMappingOperators/ColorMappingOperator.h"

namespace Quelin {

class FERRIM_EXPORT SimpleExposureOperator : public LaneColorMappingOperator<SimpleExposureOperator> {
public:
    struct Data {
        static SharedPtr<DataObjectDefinition const> const& definition();
        static constexpr StringView UI_DESCRIPTION = "Changes the overall exposure of the image.";
    };
    SimpleExposureOperator();
    SharedPtr<Entity> createNewInstance() const override;
    void compileMapping(ColorProgramBuilder& builder) const override;
    Float4 mapLanes(Float4 c) const { return c * Float4(mMultiplier); }
    float getMultiplier() const { return mMultiplier; }

protected:
    Rgb unmapImpl(Rgb const& color, Flags<ColorMappingExclude> exclude) const override;
    void prepareForApplicationImpl(ColorMappingContext const& context) override;
    void applyOverridesImpl(std::span<ToneMappingPropertyOverride const> overrides, String& errorInfo) override;

private:
    Optional<float> mExposureOverride;
    float mMultiplier = 1.f;
};

class FERRIM_EXPORT PhotographicExposureOperator : public LaneColorMappingOperator<PhotographicExposureOperator> {
public:
    struct Data {
        static SharedPtr<DataObjectDefinition const> const& definition();
        static constexpr StringView UI_DESCRIPTION =
            "Changes overall exposure of the image based on the settings of the currently used camera.";
    };
    PhotographicExposureOperator();
    SharedPtr<Entity> createNewInstance() const override;
    void compileMapping(ColorProgramBuilder& builder) const override;
    Float4 mapLanes(Float4 c) const { return c * Float4(mMultiplier); }
    float getMultiplier() const { return mMultiplier; }

protected:
    Rgb unmapImpl(Rgb const& color, Flags<ColorMappingExclude> exclude) const override;
    void prepareForApplicationImpl(ColorMappingContext const& context) override;

private:
    float mMultiplier = 1.f;
};

class FERRIM_EXPORT WhiteBalanceOperator : public LaneColorMappingOperator<WhiteBalanceOperator> {
public:
    struct Data {
        static SharedPtr<DataObjectDefinition const> const& definition();
        static constexpr StringView UI_DESCRIPTION =
            "Removes the colour cast of a light source: the colour of a black body at the given temperature "
            "becomes white. 6500 K leaves the image unchanged.";
    };
    WhiteBalanceOperator();
    SharedPtr<Entity> createNewInstance() const override;
    void compileMapping(ColorProgramBuilder& builder) const override;
    Float4 mapLanes(Float4 c) const { return c * mFactor; }
    Rgb getFactor() const { return toRgb(mFactor); }

protected:
    Rgb unmapImpl(Rgb const& color, Flags<ColorMappingExclude> exclude) const override;
    void prepareForApplicationImpl(ColorMappingContext const& context) override;

private:
    Float4 mFactor{1.f};
};

class FERRIM_EXPORT TintOperator : public LaneColorMappingOperator<TintOperator> {
public:
    struct Data {
        static SharedPtr<DataObjectDefinition const> const& definition();
        static constexpr StringView UI_DESCRIPTION =
            "Sets the overall color tint of the scene. The entire image is multiplied by this color. This can be "
            "used both to add and remove color tint from the image. To remove a tint, use its complementary color.";
    };
    TintOperator();
    SharedPtr<Entity> createNewInstance() const override;
    void compileMapping(ColorProgramBuilder& builder) const override;
    Float4 mapLanes(Float4 c) const { return c * mFactor; }

protected:
    Rgb unmapImpl(Rgb const& color, Flags<ColorMappingExclude> exclude) const override;
    void prepareForApplicationImpl(ColorMappingContext const& context) override;
    void applyOverridesImpl(std::span<ToneMappingPropertyOverride const> overrides, String& errorInfo) override;

private:
    Optional<Rgb> mTintOverride;
    Float4 mFactor{1.f};
};

class FERRIM_EXPORT GreenMagentaTintOperator : public LaneColorMappingOperator<GreenMagentaTintOperator> {
public:
    struct Data {
        static SharedPtr<DataObjectDefinition const> const& definition();
        static constexpr StringView UI_DESCRIPTION =
            "Applies green-magenta tint - the complement of temperature in white balance. Setting a negative value "
            "will result in magenta-looking picture, while a positive value will lead to greenish picture. The "
            "default value 0.0 has no effect.";
    };
    GreenMagentaTintOperator();
    SharedPtr<Entity> createNewInstance() const override;
    void compileMapping(ColorProgramBuilder& builder) const override;
    Float4 mapLanes(Float4 c) const { return mActive ? applyExponents(c, mExponents) : c; }

protected:
    Rgb unmapImpl(Rgb const& color, Flags<ColorMappingExclude> exclude) const override;
    void prepareForApplicationImpl(ColorMappingContext const& context) override;

private:
    static Float4 applyExponents(Float4 c, Float4 exponents);
    float mAmount = 0.f;
    bool mActive = false;          ///< |amount| >= 0.0001
    Float4 mExponents{1.f};        ///< red, green, blue, fourth lane
    Float4 mInverseExponents{1.f};
};

class FERRIM_EXPORT SaturationOperator : public LaneColorMappingOperator<SaturationOperator> {
public:
    struct Data {
        static SharedPtr<DataObjectDefinition const> const& definition();
        static constexpr StringView UI_DESCRIPTION =
            "Controls the overall image saturation. Positive values increase image saturation, negative values "
            "decrease it. -1.0 turns the image grey.";
    };
    SaturationOperator();
    SharedPtr<Entity> createNewInstance() const override;
    void compileMapping(ColorProgramBuilder& builder) const override;
    /// Negative channels are read as 0 and +inf as the largest float, so hue
    /// and saturation stay defined.
    Float4 mapLanes(Float4 c) const {
        return mAmount == 0.f ? c : shiftSaturation(min(max(c, Float4(0.f)), Float4(FLT_MAX)), mAmount, false);
    }

protected:
    Rgb unmapImpl(Rgb const& color, Flags<ColorMappingExclude> exclude) const override;
    void prepareForApplicationImpl(ColorMappingContext const& context) override;

private:
    /// Hexcone HSV round trip with S shifted by `offset` (clamped at 0 when
    /// `inverse` is false, result clamped at 0 when it is true).
    static Float4 shiftSaturation(Float4 c, float offset, bool inverse);
    float mAmount = 0.f;
};

class FERRIM_EXPORT ContrastOperator : public LaneColorMappingOperator<ContrastOperator> {
public:
    struct Data {
        static SharedPtr<DataObjectDefinition const> const& definition();
        static constexpr StringView UI_DESCRIPTION =
            "Changes the image contrast around middle grey in a perceptual encoding. Values above 1.0 increase "
            "contrast, values below decrease it; black and white stay fixed.";
    };
    ContrastOperator();
    SharedPtr<Entity> createNewInstance() const override;
    void compileMapping(ColorProgramBuilder& builder) const override;
    Float4 mapLanes(Float4 c) const;

protected:
    Rgb unmapImpl(Rgb const& color, Flags<ColorMappingExclude> exclude) const override;
    void prepareForApplicationImpl(ColorMappingContext const& context) override;

private:
    /// The logistic curve (steepening) or its inverse (flattening) between
    /// the perceptual encoding and decoding, without the range rule.
    Float4 apply(Float4 c, bool steepening) const;
    float mSlope = 0.f, mScale = 1.f, mOffset = 0.f, mLow = 1.f, mHigh = 1.f;
    bool mActive = false;
    bool mSteepening = true;
    Optional<float> mPreparedContrast;
};

class FERRIM_EXPORT VignetteOperator : public UnaryColorMappingOperator {
public:
    struct Data {
        static SharedPtr<DataObjectDefinition const> const& definition();
        static constexpr StringView UI_DESCRIPTION =
            "Darkens the image towards its corners, as a real lens does. Unmapping never undoes the vignette.";
    };
    VignetteOperator();
    SharedPtr<Entity> createNewInstance() const override;
    void compileMapping(ColorProgramBuilder& builder) const override;

protected:
    Rgb mapImpl(Rgb const& color, Pixel pixel) const override;
    void mapImpl(std::span<Rgb> pixels, Pixel origin, Pixel extent) const override;
    void mapImpl(std::span<RgbAlpha> pixels, Pixel origin, Pixel extent) const override;
    Rgb unmapImpl(Rgb const& color, Flags<ColorMappingExclude> exclude) const override;
    void prepareForApplicationImpl(ColorMappingContext const& context) override;
    void applyOverridesImpl(std::span<ToneMappingPropertyOverride const> overrides, String& errorInfo) override;

private:
    float factor(float x, float y) const;
    template <typename Color> void mapRows(std::span<Color> pixels, Pixel origin, Pixel extent) const;
    Optional<float> mIntensityOverride, mFalloffOverride;
    bool mActive = false;
    float mStartRadius2 = 1.f, mSteepness = 0.f, mScale = 1.f;
    float mCenterX = 0.5f, mCenterY = 0.5f, mOffsetX = 0.f, mOffsetY = 0.f;
};

class FERRIM_EXPORT LinearToSrgbOperator : public LaneColorMappingOperator<LinearToSrgbOperator> {
public:
    struct Data {
        static SharedPtr<DataObjectDefinition const> const& definition();
        static constexpr StringView UI_DESCRIPTION = "Encodes linear colours for display with the display gamma.";
    };
    LinearToSrgbOperator();
    SharedPtr<Entity> createNewInstance() const override;
    void compileMapping(ColorProgramBuilder& builder) const override;
    /// Each channel is encoded on its own, so buckets map as flat float runs.
    static constexpr bool CHANNEL_INDEPENDENT = true;
    Float4 mapLanes(Float4 c) const;

protected:
    Rgb unmapImpl(Rgb const& color, Flags<ColorMappingExclude> exclude) const override;
    void prepareForApplicationImpl(ColorMappingContext const& context) override;

private:
    float mExponent = 1.f;
};

class FERRIM_EXPORT SrgbToLinearOperator : public LaneColorMappingOperator<SrgbToLinearOperator> {
public:
    struct Data {
        static SharedPtr<DataObjectDefinition const> const& definition();
        static constexpr StringView UI_DESCRIPTION = "Decodes display colours to linear with the display gamma.";
    };
    SrgbToLinearOperator();
    SharedPtr<Entity> createNewInstance() const override;
    void compileMapping(ColorProgramBuilder& builder) const override;
    /// Each channel is encoded on its own, so buckets map as flat float runs.
    static constexpr bool CHANNEL_INDEPENDENT = true;
    Float4 mapLanes(Float4 c) const;

protected:
    Rgb unmapImpl(Rgb const& color, Flags<ColorMappingExclude> exclude) const override;
    void prepareForApplicationImpl(ColorMappingContext const& context) override;

private:
    float mExponent = 1.f;
};

class FERRIM_EXPORT IdentityOperator : public LaneColorMappingOperator<IdentityOperator> {
public:
    struct Data {
        static SharedPtr<DataObjectDefinition const> const& definition();
        static constexpr StringView UI_DESCRIPTION = "Leaves colours unchanged.";
    };
    IdentityOperator();
    SharedPtr<Entity> createNewInstance() const override;
    Float4 mapLanes(Float4 c) const { return c; }

protected:
    Rgb unmapImpl(Rgb const& color, Flags<ColorMappingExclude> exclude) const override;
    void prepareForApplicationImpl(ColorMappingContext const& context) override;
};

} // namespace Quelin
