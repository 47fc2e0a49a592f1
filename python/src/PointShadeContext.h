#pragma once
// A shading point given by arrays: texture coordinates with an optional
// position and normal, as a plane swatch would see them, or an environment
// ray's direction.
#include <cmath>

#include "Ferrim/IShadeContext.h"

namespace FerrimPython {

struct ShadingPoint {
    Quelin::Pos uvw;
    Quelin::Pos position;
    Quelin::Dir normal{0.f, 0.f, 1.f};
    /// Filter width: in texture units for every UVW axis, in world units for the
    /// position (in radians for an environment ray).
    float footprint = 0.f;
    /// Per-axis filter widths from UV derivatives; replace `footprint` for UVW lookups.
    Quelin::Optional<Quelin::Dir> uvwFootprint;
    /// The UV derivatives themselves, for anisotropic filtering.
    Quelin::Optional<Quelin::UvwDerivatives> uvwDerivatives;
    /// An environment ray's direction: the point is then shaded as background.
    Quelin::Optional<Quelin::Dir> direction;
};

/// Every UV channel answers the point's UVW. The tangent frame follows u along
/// x and v along y, projected onto the plane of the normal, so a normal of
/// (0, 0, 1) gives the frame of a flat plane in xy.
class PointShadeContext final : public Quelin::NullShadeContext {
  public:
    explicit PointShadeContext(ShadingPoint const& p) : mP(p) {
        using Quelin::Dir;
        Dir t = Dir(1.f, 0.f, 0.f) - mP.normal * mP.normal.x;
        if (Quelin::length(t) < 1e-6f)
            t = Dir(0.f, 1.f, 0.f) - mP.normal * mP.normal.y;
        mDpDu = Quelin::normalize(t);
        mDpDv = Quelin::cross(mP.normal, mDpDu);
    }
    Quelin::Matrix33 getBumpBase(int) const override { return Quelin::Matrix33::fromColumns(mDpDu, mDpDv, mP.normal); }
    Quelin::Pos getUvw(int, std::uint32_t) const override { return mP.uvw; }
    Quelin::Dir getDUvw(int) const override {
        return mP.uvwFootprint ? *mP.uvwFootprint : Quelin::Dir(mP.footprint, mP.footprint, mP.footprint);
    }
    Quelin::UvwDerivatives getUvwDerivatives(int channel) const override {
        return mP.uvwDerivatives ? *mP.uvwDerivatives : NullShadeContext::getUvwDerivatives(channel);
    }
    Quelin::Dir getDpDu(int) const override { return mDpDu; }
    Quelin::Dir getDpDv(int) const override { return mDpDv; }
    Quelin::PrecisePos getPosition() const override { return {mP.position.x, mP.position.y, mP.position.z}; }
    Quelin::Pos getObjectPosition() const override { return mP.position; }
    Quelin::Dir getNormal() const override { return mP.normal; }
    Quelin::Dir getGeometricNormal() const override { return mP.normal; }
    Quelin::Dir getObjectNormal() const override { return mP.normal; }
    Quelin::Dir getViewDirection() const override { return mP.direction ? *mP.direction : -mP.normal; }
    Quelin::ShadedKind getShadedKind() const override {
        return mP.direction ? Quelin::ShadedKind::Environment : Quelin::ShadedKind::Surface;
    }
    float getPositionFootprint() const override { return mP.footprint; }
    bool wantsFilteredLookup() const override {
        return mP.footprint > 0.f ||
               (mP.uvwFootprint && (mP.uvwFootprint->x > 0.f || mP.uvwFootprint->y > 0.f || mP.uvwFootprint->z > 0.f));
    }

  private:
    ShadingPoint const& mP;
    Quelin::Dir mDpDu, mDpDv;
};

} // namespace FerrimPython
