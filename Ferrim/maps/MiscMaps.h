#pragma once
// Small utility maps that pick or combine their inputs by a property of the
// shading point: front/back face, an index or id, the ray kind, a user
// property of the object, and per-channel arithmetic.
#include "Ferrim/IMap.h"
#include "Ferrim/maps/CompositingSupport.h"

namespace Quelin {

/// "front" on front faces, "back" on back faces (IShadeContext::isBackFace).
class FERRIM_EXPORT FrontBackMap : public IMap {
public:
    struct Data {
        static SharedPtr<DataObjectDefinition const> const& definition();
    };
    FrontBackMap();
    SharedPtr<Entity> createNewInstance() const override;
    OptimizedResult getEvaluatorImpl() const override;
};

/// One of N inputs (the list "inputs", items "Zatho.SelectMapInput" with an
/// "input" colour-or-map) chosen per point. The index comes from "source": a
/// fixed "index", the mono value of "indexMap" rounded down, the object id,
/// the instance id, a hash of the material name (FNV-1a) or the face index.
/// Any index wraps into [0, N): -1 picks the last input. No inputs give black.
class FERRIM_EXPORT SelectMap : public IMap {
public:
    enum class Source : int { Index = 0, IndexMap, ObjectId, InstanceId, MaterialNameHash, FaceIndex };
    struct Data {
        static SharedPtr<DataObjectDefinition const> const& definition();
        static SharedPtr<DataObjectDefinition const> const& inputDefinition();
        static SharedPtr<TypeDefinition const> const& sourceType();
    };
    SelectMap();
    SharedPtr<Entity> createNewInstance() const override;
    OptimizedResult getEvaluatorImpl() const override;
    /// Appends an input item of this colour.
    void addInput(Rgb const& color);
    /// FNV-1a, 32 bits: the material name's id.
    static std::uint32_t hashName(StringView name);
};

/// One input per ray kind: "camera", "reflection", "refraction", "gi"
/// (diffuse rays) and "shadow"; light rays see the camera input.
class FERRIM_EXPORT RaySwitchMap : public IMap {
public:
    struct Data {
        static SharedPtr<DataObjectDefinition const> const& definition();
    };
    RaySwitchMap();
    SharedPtr<Entity> createNewInstance() const override;
    OptimizedResult getEvaluatorImpl() const override;
};

/// The object's user property "propertyName": a number fills the three
/// channels, a colour is taken as it is, a text is read as one number or three
/// (separated by spaces or commas). An absent property or a text that is not
/// a number shows "default". Alpha is 1.
class FERRIM_EXPORT UserPropertyMap : public IMap {
public:
    struct Data {
        static SharedPtr<DataObjectDefinition const> const& definition();
    };
    UserPropertyMap();
    SharedPtr<Entity> createNewInstance() const override;
    OptimizedResult getEvaluatorImpl() const override;
    /// The colour of a property value; empty for a text that is not numbers.
    static Optional<Rgb> toColor(UserPropertyValue const& value);
};

/// Per-channel arithmetic on "a" and "b"; alpha is a's. Conventions for the
/// cases without a plain answer:
///   Divide   a / b, 0 where b is 0
///   Power    a^b; 0 where a < 0 and b is not whole, or a = 0 and b < 0
///   Modulo   fmod(a, b) (the sign of a), 0 where b is 0
///   Fraction a - floor(a), in [0, 1) also for negatives
///   Clamp    a clamped to [0, 1] (b unused)
///   Compare  1 where |a - b| <= epsilon, else 0
///   Average  (a + b) / 2; Absolute, Floor, Fraction and Clamp use only a
/// NaN in gives NaN out, except Minimum and Maximum (the other input) and
/// Compare (0). The bump follows the chain rule on the inputs' mono values.
class FERRIM_EXPORT ColorMathMap : public IMap {
public:
    enum class Operation : int {
        Add = 0, Subtract, Multiply, Divide, Minimum, Maximum, Power, Average, Absolute, Floor, Fraction, Modulo,
        Clamp, Compare
    };
    struct Data {
        static SharedPtr<DataObjectDefinition const> const& definition();
        static SharedPtr<TypeDefinition const> const& operationType();
    };
    ColorMathMap();
    SharedPtr<Entity> createNewInstance() const override;
    OptimizedResult getEvaluatorImpl() const override;
    static float apply(Operation op, float a, float b, float epsilon);
    /// d(op)/da and d(op)/db at (a, b).
    static std::pair<float, float> slopes(Operation op, float a, float b);
};

} // namespace Quelin
