#pragma once
// Maps that look at the scene around the shading point through the shade
// context's queries (rays, the shaded triangle, distances to objects):
// distance, ambient occlusion, curvature, round edges and wireframe.
//
// Every map bounds its own work: sample counts are clamped when the evaluator
// is built and every ray has a finite length. Samples follow a fixed
// stratified pattern that the context's generateRandom2 rotates and jitters
// once per shading point, so a pixel shades the same way in every render. A
// context that cannot answer (NullShadeContext) makes each map return its
// "nothing found" result: fully unoccluded, flat, far away, no edge.
#include "Ferrim/IMap.h"
#include "Ferrim/MaterialMapSlot.h"

namespace Quelin {

/// Which objects a scene query counts.
enum class ObjectFilterMode : int { All = 0, Include = 1, Exclude = 2 };

namespace SceneMapsDetail {

/// Parses "3, 7 12" (commas or blanks between decimal ids); an error names the bad entry.
FERRIM_EXPORT Expected<Stack<int>, String> parseObjectIds(StringView text);

/// An orthonormal frame around a unit normal (tangent, bitangent, normal).
struct FERRIM_EXPORT Frame {
    Dir t, b, n;
    explicit Frame(Dir const& normal);
};

/// Origin offset that keeps a ray from finding the surface it leaves.
FERRIM_EXPORT float rayBias(PrecisePos const& p);

} // namespace SceneMapsDetail

// ---------------------------------------------------------------------------
// Distance

class FERRIM_EXPORT DistanceMap : public IMap {
public:
    /// "objectIds", "nearDistance", "farDistance", "falloff", "nearColor", "farColor".
    struct Data {
        static SharedPtr<DataObjectDefinition const> const& definition();
    };
    DistanceMap();
    SharedPtr<Entity> createNewInstance() const override;
    OptimizedResult getEvaluatorImpl() const override;
};

/// Mixes nearColor and farColor by t = clamp((d - near) / (far - near), 0, 1)^falloff,
/// d the distance from the shading point to the nearest chosen object. Nothing
/// within `far` (or a context that cannot tell) gives t = 1.
class FERRIM_EXPORT DistanceEvaluator : public IMapEvaluator {
public:
    struct Settings {
        Stack<int> objectIds; ///< empty: every object, the shaded one included
        float nearDistance = 0.f, farDistance = 1.f, falloff = 1.f;
    };
    DistanceEvaluator(Settings settings, ColorOrMap::Evaluator nearColor, ColorOrMap::Evaluator farColor);
    RgbAlpha evalColor(IShadeContext const& context, MapCache* cache) const override;
    MonoAlpha evalMono(IShadeContext const& context, MapCache* cache) const override;
    Dir evalBump(IShadeContext const&, MapCache*) const override { return Dir(); }
    /// The blend weight of farColor at the point.
    float weight(IShadeContext const& context) const;

private:
    Settings mSettings;
    float mInvRange;
    ColorOrMap::Evaluator mNear, mFar;
};

// ---------------------------------------------------------------------------
// Ambient occlusion

class FERRIM_EXPORT AmbientOcclusionMap : public IMap {
public:
    /// "samples", "radius", "onlySameObject", "invert", "objectFilter", "objectIds",
    /// "occludedColor", "unoccludedColor".
    struct Data {
        static SharedPtr<DataObjectDefinition const> const& definition();
        static SharedPtr<TypeDefinition const> const& objectFilterType();
    };
    AmbientOcclusionMap();
    SharedPtr<Entity> createNewInstance() const override;
    OptimizedResult getEvaluatorImpl() const override;
};

/// The cosine-weighted fraction of the hemisphere (above the surface, or below
/// it when inverted) that no counted surface closes within `radius`; mixes
/// occludedColor (0) to unoccludedColor (1) by it. With object options each ray
/// asks for its nearest surface: one of an uncounted object leaves the ray open
/// even if a counted one lies behind it.
class FERRIM_EXPORT AmbientOcclusionEvaluator : public IMapEvaluator {
public:
    static constexpr int MAX_SAMPLES = 256;
    struct Settings {
        int samples = 16;
        float radius = 1.f;
        bool onlySameObject = false;
        bool invert = false;
        ObjectFilterMode filter = ObjectFilterMode::All;
        Stack<int> objectIds;
    };
    AmbientOcclusionEvaluator(Settings settings, ColorOrMap::Evaluator occluded, ColorOrMap::Evaluator unoccluded);
    RgbAlpha evalColor(IShadeContext const& context, MapCache* cache) const override;
    MonoAlpha evalMono(IShadeContext const& context, MapCache* cache) const override;
    Dir evalBump(IShadeContext const&, MapCache*) const override { return Dir(); }
    /// The unoccluded fraction in [0, 1].
    float openness(IShadeContext const& context) const;

private:
    bool counts(int objectId, int ownId) const;

    Settings mSettings;
    bool mNeedsObjects; ///< the hit's object decides: nearest-hit rays instead of occlusion rays
    Stack<Vector2> mDisk; ///< angle cosine and sine of each sample of the pattern
    ColorOrMap::Evaluator mOccluded, mUnoccluded;
};

// ---------------------------------------------------------------------------
// Curvature

class FERRIM_EXPORT CurvatureMap : public IMap {
public:
    enum class Output : int { Signed = 0, Convex = 1, Concave = 2 };
    /// "samples", "radius", "scale", "output".
    struct Data {
        static SharedPtr<DataObjectDefinition const> const& definition();
        static SharedPtr<TypeDefinition const> const& outputType();
    };
    CurvatureMap();
    SharedPtr<Entity> createNewInstance() const override;
    OptimizedResult getEvaluatorImpl() const override;
};

/// Mean normal curvature k (1 / scene units, convex positive) from probes
/// around the point: each probe ray leaves `radius` above the point and goes
/// down at 45 degrees along a tangent T, landing `radius` away on a flat
/// surface; (N_hit . T) / s, s how far along T it landed, is the curvature
/// along T (exact on spheres). A probe that finds nothing counts as a surface
/// falling away (k = 1 / radius), one that meets a wall as a crease (its normal
/// faces back). The grey output is
/// Signed: 0.5 + 0.5 scale k, Convex: scale k, Concave: -scale k, each clamped to [0, 1].
class FERRIM_EXPORT CurvatureEvaluator : public IMapEvaluator {
public:
    static constexpr int MAX_SAMPLES = 64;
    struct Settings {
        int samples = 8;
        float radius = 0.1f;
        float scale = 0.1f;
        CurvatureMap::Output output = CurvatureMap::Output::Signed;
    };
    explicit CurvatureEvaluator(Settings settings);
    RgbAlpha evalColor(IShadeContext const& context, MapCache* cache) const override;
    MonoAlpha evalMono(IShadeContext const& context, MapCache* cache) const override;
    Dir evalBump(IShadeContext const&, MapCache*) const override { return Dir(); }
    /// The measured curvature, 0 where nothing answers.
    float curvature(IShadeContext const& context) const;

private:
    Settings mSettings;
    Stack<Vector2> mCircle; ///< cosine and sine of each probe's angle
};

// ---------------------------------------------------------------------------
// Round edges

class FERRIM_EXPORT RoundEdgesMap : public IMap {
public:
    enum class Mode : int { CornersOnly = 0, SameObject = 1, AllObjects = 2 };
    /// "samples", "radius", "mode".
    struct Data {
        static SharedPtr<DataObjectDefinition const> const& definition();
        static SharedPtr<TypeDefinition const> const& modeType();
    };
    RoundEdgesMap();
    SharedPtr<Entity> createNewInstance() const override;
    OptimizedResult getEvaluatorImpl() const override;
};

/// Rounds edges by averaging the normals of the surfaces around the point:
/// probe rays leave a point `radius` above the surface, fan out down to 45
/// degrees from -N and report the normal they land on. A probe past a convex
/// edge finds nothing and counts with the direction it went (the side of the
/// edge); one that meets a wall brings the wall's normal. The bump is the
/// averaged normal minus the shading normal, so flat surfaces farther than
/// `radius` from any edge get none.
///  - CornersOnly: this object's convex edges only (creases stay sharp),
///  - SameObject: this object's convex and concave edges,
///  - AllObjects: also where this object meets others.
/// Colour is the rounded normal in the point's bump frame (0.5 + 0.5 n);
/// mono is how far it tilted, 1 - N . N'.
class FERRIM_EXPORT RoundEdgesEvaluator : public IMapEvaluator {
public:
    static constexpr int MAX_SAMPLES = 64;
    struct Settings {
        int samples = 8;
        float radius = 0.05f;
        RoundEdgesMap::Mode mode = RoundEdgesMap::Mode::SameObject;
    };
    explicit RoundEdgesEvaluator(Settings settings);
    RgbAlpha evalColor(IShadeContext const& context, MapCache* cache) const override;
    MonoAlpha evalMono(IShadeContext const& context, MapCache* cache) const override;
    Dir evalBump(IShadeContext const& context, MapCache* cache) const override;
    /// The rounded unit normal.
    Dir roundedNormal(IShadeContext const& context) const;

private:
    Settings mSettings;
    Stack<Vector2> mCircle; ///< cosine and sine of each probe's azimuth
    Stack<float> mStrata;   ///< each probe's landing stratum before the per-point shift
};

// ---------------------------------------------------------------------------
// Wireframe

class FERRIM_EXPORT WireframeMap : public IMap {
public:
    enum class Units : int { World = 0, Pixels = 1 };
    /// "width", "units", "edgeColor", "faceColor".
    struct Data {
        static SharedPtr<DataObjectDefinition const> const& definition();
        static SharedPtr<TypeDefinition const> const& unitsType();
    };
    WireframeMap();
    SharedPtr<Entity> createNewInstance() const override;
    OptimizedResult getEvaluatorImpl() const override;
};

/// Lines `width` wide (world units, or pixels through the position footprint)
/// centred on the edges of the shaded triangle, box-filtered over the
/// footprint. Without a triangle the point shows faceColor.
class FERRIM_EXPORT WireframeEvaluator : public IMapEvaluator {
public:
    struct Settings {
        float width = 0.01f;
        WireframeMap::Units units = WireframeMap::Units::World;
    };
    WireframeEvaluator(Settings settings, ColorOrMap::Evaluator edgeColor, ColorOrMap::Evaluator faceColor);
    RgbAlpha evalColor(IShadeContext const& context, MapCache* cache) const override;
    MonoAlpha evalMono(IShadeContext const& context, MapCache* cache) const override;
    Dir evalBump(IShadeContext const&, MapCache*) const override { return Dir(); }
    /// World distance from the point to the nearest edge of its triangle; empty without one.
    static Optional<float> edgeDistance(ShadedTriangle const& triangle);
    /// The weight of edgeColor in [0, 1].
    float coverage(IShadeContext const& context) const;

private:
    Settings mSettings;
    ColorOrMap::Evaluator mEdge, mFace;
};

} // namespace Quelin
