#include "Ferrim/colorMappingOperators/DisplayViewOperator.h"
#include "Ferrim/colorMappingOperators/ColorProgram.h"

#include <algorithm>

namespace Quelin {

SharedPtr<DataObjectDefinition const> const& DisplayViewOperator::Data::definition() {
    static auto const def = [] {
        ShadingDataObjectBuilder b;
        addCommonOperatorProperties(b);
        b.addString("inputSpace", "scene_linear", "Input space",
                    "Colour space of the values the operator receives (a space or role of the config)");
        b.addString("display", "sRGB - Display", "Display", "Display of the config the image is shown on");
        b.addString("view", "Standard", "View", "View of the display: how scene colours are rendered for it");
        b.addString("looks", String(), "Looks", "Looks of the config applied first, comma-separated (optional)");
        return b.build("Zatho.DisplayViewOperator");
    }();
    return def;
}

FERRIM_REGISTER_COLOR_OPERATOR(DisplayViewOperator, "Display / View");

DisplayViewOperator::DisplayViewOperator()
    : UnaryColorMappingOperator(Data::definition(), OperatorColorEncoding::Linear, OperatorColorEncoding::Srgb,
                                OperatorGroup::FinalLook) {}

SharedPtr<Entity> DisplayViewOperator::createNewInstance() const { return makeSharedPtr<DisplayViewOperator>(); }

void DisplayViewOperator::prepareForApplicationImpl(ColorMappingContext const& context) {
    if (!isActive(context)) {
        setNeutral(true);
        return;
    }
    ColorSpaces::DisplayView const dv{get<String>("inputSpace"), get<String>("display"), get<String>("view"),
                                      get<String>("looks")};
    // The config may change between renders ($OCIO): it is part of the key.
    String const key = ColorSpaces::configName() + '\n' + dv.input + '\n' + dv.display + '\n' + dv.view + '\n' + dv.looks;
    if (key != mPreparedKey) {
        mPreparedKey = key;
        mError.clear();
        mForward = {};
        mInverse = {};
        mHasInverse = false;
        if (auto forward = ColorSpaces::makeDisplayView(dv)) {
            mForward = *forward;
            if (auto inverse = ColorSpaces::makeDisplayView(dv, true)) {
                mInverse = *inverse;
                mHasInverse = true;
            }
        } else {
            mError = forward.error();
        }
    }
    setNeutral(!mError.empty() || mForward.isNoOp());
}

Rgb DisplayViewOperator::mapImpl(Rgb const& color, Pixel) const {
    if (isNeutral()) return color;
    // NaN is taken as 0 (compiled programs send non-finite pixels here);
    // infinities as a huge finite value, so that a matrix of mixed signs
    // cannot turn them into NaN: the display's range then bounds them.
    auto const defined = [](float v) { return v == v ? std::clamp(v, -1e30f, 1e30f) : 0.f; };
    return mForward.apply(Rgb(defined(color.r), defined(color.g), defined(color.b)));
}

void DisplayViewOperator::mapImpl(std::span<Rgb> pixels, Pixel, Pixel extent) const {
    if (isNeutral()) return;
    static_assert(sizeof(Rgb) == 3 * sizeof(float));
    mForward.applyRgb(reinterpret_cast<float*>(pixels.data()), bucketSize(pixels.size(), extent));
}

void DisplayViewOperator::mapImpl(std::span<RgbAlpha> pixels, Pixel, Pixel extent) const {
    if (isNeutral()) return;
    // Through the colour channels only: alpha is not a colour.
    for (RgbAlpha& p : pixels.first(bucketSize(pixels.size(), extent))) {
        Rgb const c = mForward.apply(Rgb(p.r, p.g, p.b));
        p.r = c.r, p.g = c.g, p.b = c.b;
    }
}

Rgb DisplayViewOperator::unmapImpl(Rgb const& color, Flags<ColorMappingExclude> exclude) const {
    // A display encoding: excluded with the sRGB conversions.
    if (exclude.has(ColorMappingExclude::SrgbConversion) || isNeutral() || !mHasInverse) return color;
    return mInverse.apply(color);
}

void DisplayViewOperator::mapPlanes(void const* self, float* r, float* g, float* b, int count) {
    static_cast<DisplayViewOperator const*>(self)->mForward.applyPlanes(r, g, b, std::size_t(count));
}

void DisplayViewOperator::mapPacked(void const* self, float* pixels, int stride, std::size_t count) {
    auto const& forward = static_cast<DisplayViewOperator const*>(self)->mForward;
    if (stride == 4) forward.applyRgba(pixels, count);
    else forward.applyRgb(pixels, count);
}

void DisplayViewOperator::compileMapping(ColorProgramBuilder& builder) const {
    if (!isNeutral()) builder.appendPlanesCallback(&mapPlanes, &mapPacked, this);
}

} // namespace Quelin
