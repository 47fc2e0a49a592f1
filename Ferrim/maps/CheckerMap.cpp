#include "Ferrim/maps/CheckerMap.h"

#include "Ferrim/Ferrim.h"
#include "Ferrim/ShadingDataObjectBuilder.h"
#include "Ferrim/maps/BumpConverterMap.h"
#include "Ferrim/maps/ProceduralSupport.h"

namespace Quelin {

namespace {

SharedPtr<DataObjectDefinition const> buildDefinition() {
    ShadingDataObjectBuilder b;
    b.addUvMapper();
    b.addFloat("softenFactor", 0.f, "Soften",
               "Width of the soft transition between squares in texture units; 0 gives hard edges");
    b.addColorOrMap("color1", Rgb(0, 0, 0), "Color 1", "Colour (or map) of the odd squares");
    b.addColorOrMap("color2", Rgb(1, 1, 1), "Color 2", "Colour (or map) of the even squares");
    return b.build("Zatho.CheckerMap");
}

/// Parity of an integer-valued float: floats from 2^24 up are all even, NaN counts as even.
inline int parity(float x) {
    return std::fabs(x) < 16777216.f ? int(static_cast<std::int32_t>(x) & 1) : 0;
}

/// Triangle wave |frac(x) - 0.5|: its differences are the integrals of the square wave.
inline float triangle(float x) { return std::fabs((x - std::floor(x)) - 0.5f); }

} // namespace

SharedPtr<DataObjectDefinition const> const& CheckerMap::Data::definition() {
    static SharedPtr<DataObjectDefinition const> const d = buildDefinition();
    return d;
}

CheckerMap::CheckerMap() : IMap(Data::definition()) {}

SharedPtr<Entity> CheckerMap::createNewInstance() const { return makeSharedPtr<CheckerMap>(); }

Optional<int> CheckerMap::getOwnUvChannel() const { return MapsDetail::ownUvChannel(getData()); }

IMap::OptimizedResult CheckerMap::getEvaluatorImpl() const {
    GenericDataObject const& d = getData();
    OptimizedResult result;
    result.evaluator = makeSharedPtr<CheckerEvaluator>(MapsDetail::evaluatorUvMapper(d), d.get<float>("softenFactor"),
                                                       MapsDetail::colorOrMapEvaluator(d, "color1"),
                                                       MapsDetail::colorOrMapEvaluator(d, "color2"));
    return result;
}

CheckerEvaluator::CheckerEvaluator(SharedPtr<UvMapper const> uvMapper, float softenFactor,
                                   ColorOrMap::Evaluator color1, ColorOrMap::Evaluator color2, float bumpStrength)
    : mUvw(uvMapper ? std::move(uvMapper) : makeSharedPtr<UvMapper const>()),
      mWidth(softenFactor), mColor1(std::move(color1)), mColor2(std::move(color2)), mBumpStrength(bumpStrength) {}

float CheckerEvaluator::blendWeight(float u, float v) const {
    if (mWidth == 0.f) {
        // Squares 0.5 wide; odd square sums show color1.
        return (parity(std::floor(2.f * u)) ^ parity(std::floor(2.f * v))) ? 0.f : 1.f;
    }
    // Box average of the two square waves over a w x w box, then of their product.
    float const h = mWidth * 0.5f;
    float const fx = (triangle(u - h) - triangle(u + h)) / mWidth;
    float const fy = (triangle(v - h) - triangle(v + h)) / mWidth;
    return clamp(0.5f + 0.5f * fx * fy, 0.f, 1.f);
}

RgbAlpha CheckerEvaluator::evalColor(IShadeContext const& context, MapCache* cache) const {
    Pos const uvw = mUvw->computeUvw(context);
    float const t = blendWeight(uvw.x, uvw.y);
    if (t < 1e-6f) return mColor1.evalColor(context, cache);
    if (t > 0.999999f) return mColor2.evalColor(context, cache);
    return MapsDetail::mix(mColor1.evalColor(context, cache), mColor2.evalColor(context, cache), t);
}

MonoAlpha CheckerEvaluator::evalMono(IShadeContext const& context, MapCache* cache) const {
    Pos const uvw = mUvw->computeUvw(context);
    float const t = blendWeight(uvw.x, uvw.y);
    if (t < 1e-6f) return mColor1.evalMono(context, cache);
    if (t > 0.999999f) return mColor2.evalMono(context, cache);
    return MapsDetail::mix(mColor1.evalMono(context, cache), mColor2.evalMono(context, cache), t);
}

Dir CheckerEvaluator::evalBump(IShadeContext const& context, MapCache*) const {
    return BumpConverterMap::evalBump(context, *this, *mUvw, mBumpStrength, 1.f);
}

FERRIM_REGISTER_ENTITY(CheckerMap);

} // namespace Quelin
