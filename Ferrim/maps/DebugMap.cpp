#include "Ferrim/maps/DebugMap.h"

#include <cmath>

#include "Ferrim/Ferrim.h"
#include "Ferrim/ShadingDataObjectBuilder.h"
#include "Ferrim/maps/MiscMaps.h"

namespace Quelin {

SharedPtr<TypeDefinition const> const& DebugMap::Data::showType() {
    static SharedPtr<TypeDefinition const> const t = TypeDefinition::makeEnum(
        "Zatho.DebugMap.Show", {{0, "Uvw"}, {1, "Normal"}, {2, "GeometricNormal"}, {3, "Tangent"}, {4, "Bitangent"},
                                {5, "RayDepth"}, {6, "UvwFootprint"}, {7, "PositionFootprint"}, {8, "FaceIndex"},
                                {9, "ObjectId"}, {10, "MaterialName"}, {11, "BackFace"}});
    return t;
}

SharedPtr<DataObjectDefinition const> const& DebugMap::Data::definition() {
    static SharedPtr<DataObjectDefinition const> const d = [] {
        ShadingDataObjectBuilder b;
        b.addEnum("show", showType(), int(Show::Uvw), "Show", "The property of the shading point to show");
        b.addInt("uvChannel", 1, "UV channel", "The channel of UVW, footprint and tangent frame");
        b.addFloat("scale", 1.f, "Scale",
                   "Multiplies grey levels: ray depth (depth times scale / 10) and footprints (width times scale)");
        return b.build("Zatho.DebugMap");
    }();
    return d;
}

DebugMap::DebugMap() : IMap(Data::definition()) {}
SharedPtr<Entity> DebugMap::createNewInstance() const { return makeSharedPtr<DebugMap>(); }

Rgb DebugMap::idColor(std::uint32_t id) {
    std::uint32_t h = id * 0x9E3779B1u;
    h ^= h >> 15;
    h *= 0x2C1B3C6Du;
    h ^= h >> 12;
    auto channel = [](std::uint32_t bits) { return 0.1f + 0.9f * float(bits & 255u) / 255.f; };
    return Rgb(channel(h), channel(h >> 8), channel(h >> 16));
}

namespace {

inline Rgb encode(Dir const& n) { return Rgb(0.5f + 0.5f * n.x, 0.5f + 0.5f * n.y, 0.5f + 0.5f * n.z); }

class DebugEvaluator final : public IMapEvaluator {
public:
    DebugEvaluator(DebugMap::Show show, int channel, float scale) : mShow(show), mChannel(channel), mScale(scale) {}
    RgbAlpha evalColor(IShadeContext const& c, MapCache*) const override { return RgbAlpha(color(c), 1.f); }
    MonoAlpha evalMono(IShadeContext const& c, MapCache*) const override { return MonoAlpha(color(c).mean(), 1.f); }
    Dir evalBump(IShadeContext const&, MapCache*) const override { return Dir(); }

private:
    Rgb color(IShadeContext const& c) const {
        using Show = DebugMap::Show;
        switch (mShow) {
        case Show::Uvw: {
            Pos const p = c.getUvw(mChannel);
            return Rgb(p.x, p.y, p.z);
        }
        case Show::Normal: return encode(normalize(c.getNormal()));
        case Show::GeometricNormal: return encode(normalize(c.getGeometricNormal()));
        case Show::Tangent: return encode(normalize(c.getBumpBase(mChannel).column(0)));
        case Show::Bitangent: return encode(normalize(c.getBumpBase(mChannel).column(1)));
        case Show::RayDepth: return Rgb(float(c.getRayDepth()) * mScale * 0.1f);
        case Show::UvwFootprint: {
            Dir const d = c.getDUvw(mChannel);
            return Rgb(d.x * mScale, d.y * mScale, d.z * mScale);
        }
        case Show::PositionFootprint: return Rgb(c.getPositionFootprint() * mScale);
        case Show::FaceIndex: return DebugMap::idColor(std::uint32_t(c.getFaceIndex()));
        case Show::ObjectId: return DebugMap::idColor(std::uint32_t(c.getObjectId()));
        case Show::MaterialName: return DebugMap::idColor(SelectMap::hashName(c.getMaterialName()));
        case Show::BackFace: return c.isBackFace() ? Rgb(1, 0, 0) : Rgb(0, 1, 0);
        }
        return Rgb();
    }
    DebugMap::Show mShow;
    int mChannel;
    float mScale;
};

} // namespace

IMap::OptimizedResult DebugMap::getEvaluatorImpl() const {
    OptimizedResult r;
    float const scale = get<float>("scale");
    r.evaluator = makeSharedPtr<DebugEvaluator>(get<Show>("show"), get<int>("uvChannel"), std::isfinite(scale) ? scale : 1.f);
    return r;
}

FERRIM_REGISTER_ENTITY(DebugMap);

} // namespace Quelin
