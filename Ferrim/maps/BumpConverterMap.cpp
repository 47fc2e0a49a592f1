#include "Ferrim/maps/BumpConverterMap.h"

namespace Quelin {

namespace {

/// The shading point moved by `offset` in the space the mapper reads before
/// placement: the mapper's channel for UV mapping (and for particles and hair,
/// which always read it), the object or world position for the XYZ modes.
/// Other channels and queries answer as the parent does, so inputs mapped
/// differently still see the real point.
class OffsetShadeContext final : public OverridableUvwShadeContext {
public:
    OffsetShadeContext(IShadeContext const& parent, UvMapper const& mapper, bool readsChannel, Pos const& source,
                       Dir const& offset)
        : OverridableUvwShadeContext(parent, source + toPos(offset), Dir()), mChannel(mapper.getChannel()),
          mReadsChannel(readsChannel), mMode(mapper.getMappingMode()), mUvw(source + toPos(offset)), mOffset(offset) {}

    Pos getUvw(int uvChannel, std::uint32_t flags = 0) const override {
        return mReadsChannel && uvChannel == mChannel ? mUvw : getParent().getUvw(uvChannel, flags);
    }
    Dir getDUvw(int uvChannel) const override { return getParent().getDUvw(uvChannel); }
    Pos getObjectPosition() const override {
        Pos const p = getParent().getObjectPosition();
        return !mReadsChannel && mMode == UvMappingMode::ObjectXyz ? p + toPos(mOffset) : p;
    }
    PrecisePos getPosition() const override {
        PrecisePos const p = getParent().getPosition();
        if (mReadsChannel || mMode != UvMappingMode::WorldXyz) return p;
        return PrecisePos(p.x + double(mOffset.x), p.y + double(mOffset.y), p.z + double(mOffset.z));
    }

private:
    int mChannel;
    bool mReadsChannel;
    UvMappingMode mMode;
    Pos mUvw;
    Dir mOffset;
};

/// The step along one placed axis.
float stepFor(float footprint, float coordinate, float scale) {
    float h = std::fmax(0.5f * std::fabs(footprint), BumpConverterMap::STEP_FRACTION * std::fabs(scale));
    // Keep the step well above the float spacing of the coordinate (2^-23 relative).
    h = std::fmax(h, std::fabs(coordinate) * 0x1p-16f);
    return std::fmax(h, 1e-6f);
}

} // namespace

Dir BumpConverterMap::evalBump(IShadeContext const& context, IMapEvaluator const& evaluator, UvMapper const& uvMapper,
                               float strength, float scale) {
    ShadedKind const kind = context.getShadedKind();
    bool const readsChannel =
        kind == ShadedKind::Particle || kind == ShadedKind::Hair || uvMapper.getMappingMode() == UvMappingMode::UvChannel;
    // A screen or environment projection has no neighbourhood on the surface to differentiate over.
    if (!readsChannel && uvMapper.getMappingMode() == UvMappingMode::ScreenEnviro) return Dir();

    Pos const source = UvMapper::computeUnplacedUvw(context, uvMapper.getMappingMode(), uvMapper.getMapping());
    Pos const placed = uvMapper.getTransform().transformPoint(source);
    Dir const footprint = uvMapper.computeDUvw(context);
    float const hu = stepFor(footprint.x, placed.x, scale);
    float const hv = stepFor(footprint.y, placed.y, scale);
    if (!std::isfinite(hu) || !std::isfinite(hv)) return Dir();

    // Steps along the placed u and v, carried back to the space the mapper reads.
    Matrix33 const toSource = uvMapper.getTransform().linear().inverse();
    Dir const du = toSource.column(0) * hu;
    Dir const dv = toSource.column(1) * hv;
    if (dot(du, du) == 0.f || dot(dv, dv) == 0.f) return Dir();

    auto sample = [&](Dir const& offset) {
        return evaluator.evalMono(OffsetShadeContext(context, uvMapper, readsChannel, source, offset), nullptr).value;
    };
    float const gu = (sample(du) - sample(-du)) / (2.f * hu);
    float const gv = (sample(dv) - sample(-dv)) / (2.f * hv);

    Matrix33 const base = uvMapper.computeBumpBase(context);
    float const k = -strength * scale;
    return (base.column(0) * gu + base.column(1) * gv) * k;
}

} // namespace Quelin
