#pragma once
// The colour-mapping operator model: operators, their chaining through
// predecessors, the preparation context and the factory that creates an
// operator from its record.
//
// A pipeline is the holder of its LAST operator; each operator holds its
// predecessor (record property "predecessor"), the first one none. `map` runs
// the chain first to last, `unmap` last to first; every operator's unmap
// skips itself when its ColorMappingExclude bit is set.
//
// Declaring an operator (header):
//
//     class FERRIM_EXPORT MyOperator : public UnaryColorMappingOperator {
//     public:
//         struct Data {
//             static SharedPtr<DataObjectDefinition const> const& definition();
//             static constexpr StringView UI_DESCRIPTION = "...";   // optional help text
//         };
//         MyOperator();   // : UnaryColorMappingOperator(Data::definition(), OperatorColorEncoding::Linear,
//                         //                             OperatorColorEncoding::Linear, OperatorGroup::Basic)
//         SharedPtr<Entity> createNewInstance() const override;
//     protected:
//         Rgb mapImpl(Rgb const& color, Pixel pixel) const override;
//         Rgb unmapImpl(Rgb const& color, Flags<ColorMappingExclude> exclude) const override;
//         void prepareForApplicationImpl(ColorMappingContext const& context) override;
//     private:
//         float mFactor = 1.f;   // prepared value; neutral until prepared
//     };
//
// and in its .cpp, the record (common properties first) and the registration:
//
//     SharedPtr<DataObjectDefinition const> const& MyOperator::Data::definition() {
//         static auto const def = [] {
//             ShadingDataObjectBuilder b;
//             addCommonOperatorProperties(b);   // "id", "predecessor", "enabled"
//             b.addFloat("strength", 1.f, "Strength", "...");
//             return b.build("Zatho.MyOperator");
//         }();
//         return def;
//     }
//     FERRIM_REGISTER_COLOR_OPERATOR(MyOperator, "My Operator");   // at namespace scope
//
// Operators whose forward transform does not depend on the pixel can derive
// from LaneColorMappingOperator<MyOperator> instead and supply a public inline
// `Float4 mapLanes(Float4 c) const` (red, green, blue and a fourth lane that
// is dropped): the single-colour and bucket `mapImpl` are then generated as
// tight loops over that function; `unmapImpl` stays the operator's own.
#include <algorithm>
#include <span>
#include "Ferrim/ColorMappingExclude.h"
#include "Ferrim/Export.h"
#include "Ferrim/Ferrim.h"
#include "Ferrim/ShadingDataObjectBuilder.h"
#include "QuelinLib/DataObjects.h"
#include "QuelinLib/Flags.h"
#include "QuelinLib/FlatMap.h"
#include "QuelinLib/Float4.h"

namespace Quelin {

/// The encoding an operator expects and produces.
enum class OperatorColorEncoding : std::uint32_t {
    Srgb = 0,         ///< display-referred, non-linear
    Linear = 1,       ///< scene-referred radiance
    Passthrough = 2,  ///< does not care; output equals input
};

/// Where the add-operator menu offers an operator.
enum class OperatorGroup : std::uint32_t {
    Basic = 0,
    CurveControl = 1,
    HighlightControl = 2,
    FinalLook = 3,
    Hidden = 4,  ///< conversion and identity operators: not offered
};

/// Menu caption of a group: "Basic", "Curve Control", "Highlight Control",
/// "Final Look"; empty for Hidden.
FERRIM_EXPORT StringView getOperatorGroupCaption(OperatorGroup group);

/// Renderer settings that preparation reads, shared by every image.
struct CommonColorMappingContext {
    float gamma = 2.2f;           ///< display gamma of the two encoding conversions
    float iso = 100.f;            ///< film speed of the current camera
    float fNumber = 8.f;          ///< aperture f-number of the current camera
    float shutterSpeed = 125.f;   ///< 1 / exposure time in seconds (125 means 1/125 s)
    bool applyOperators = true;   ///< false makes every operator neutral
    bool vignetteAllowed = true;  ///< false switches the vignette off
    /// Folder against which relative file paths (LUT files) are resolved; empty: as given.
    String resourceDirectory;
};

/// What `prepareForApplication` receives: the common settings plus the image.
struct ColorMappingContext : CommonColorMappingContext {
    Vector2 imageSize{1.f, 1.f};     ///< whole image, pixels
    Vector2 regionOffset{0.f, 0.f};  ///< rendered region within the image, added to pixel positions

    ColorMappingContext() = default;
    explicit ColorMappingContext(CommonColorMappingContext const& common, Vector2 size = {1.f, 1.f},
                                 Vector2 offset = {0.f, 0.f})
        : CommonColorMappingContext(common), imageSize(size), regionOffset(offset) {}
};

/// One pipeline override: a property of every operator of a type, by name.
/// A std::monostate value removes an override set before.
struct ToneMappingPropertyOverride {
    String operatorType;  ///< record type name, as "Zatho.SimpleExposureOperator"
    String property;      ///< as "simpleExposure"
    PropertyValue value;
};

class UnaryColorMappingOperator;
class ColorProgramBuilder;

/// A colour-mapping operator: an entity whose record holds its parameters.
class FERRIM_EXPORT IColorMappingOperator : public Entity {
public:
    using Entity::Entity;

    /// Maps a rectangle in place: `pixels` holds extent.x * extent.y colours,
    /// row-major, pixel k at (origin.x + k % extent.x, origin.y + k / extent.x).
    /// For a whole image pass origin (0, 0) and the image size as extent.
    virtual void map(std::span<Rgb> pixels, Pixel origin, Pixel extent) const = 0;
    /// As above; alpha is carried through untouched.
    virtual void map(std::span<RgbAlpha> pixels, Pixel origin, Pixel extent) const = 0;
    virtual Rgb map(Rgb const& color, Pixel pixel) const = 0;
    /// Undoes the chain from this operator back to the first.
    virtual Rgb unmap(Rgb const& color, Flags<ColorMappingExclude> exclude) const = 0;
    /// Takes the record (and rebuilds the chain below from its "predecessor").
    virtual void update(GenericDataObject const& data) = 0;
    /// Prepares the chain, first operator first.
    virtual void prepareForApplication(ColorMappingContext const& context) = 0;
    /// Applies overrides to the chain, first operator first; problems are
    /// appended to `errorInfo`, one line each.
    virtual void applyOverrides(std::span<ToneMappingPropertyOverride const> overrides, String& errorInfo) = 0;
    virtual OperatorColorEncoding getOutputEncoding() const = 0;
    virtual OperatorColorEncoding getInputEncoding() const = 0;
    virtual OperatorGroup getGroup() const = 0;
    virtual EntityHolder<IColorMappingOperator> getPredecessor() const = 0;
    virtual void setPredecessor(EntityHolder<IColorMappingOperator> predecessor) = 0;
};

/// Base of every concrete operator: one input, its predecessor.
class FERRIM_EXPORT UnaryColorMappingOperator : public IColorMappingOperator {
public:
    void map(std::span<Rgb> pixels, Pixel origin, Pixel extent) const final;
    void map(std::span<RgbAlpha> pixels, Pixel origin, Pixel extent) const final;
    Rgb map(Rgb const& color, Pixel pixel) const final;
    Rgb unmap(Rgb const& color, Flags<ColorMappingExclude> exclude) const final;
    void update(GenericDataObject const& data) override;
    void prepareForApplication(ColorMappingContext const& context) final;
    void applyOverrides(std::span<ToneMappingPropertyOverride const> overrides, String& errorInfo) final;
    OperatorColorEncoding getOutputEncoding() const final { return mOutputEncoding; }
    OperatorColorEncoding getInputEncoding() const final { return mInputEncoding; }
    OperatorGroup getGroup() const final { return mGroup; }
    EntityHolder<IColorMappingOperator> getPredecessor() const final { return mPredecessor; }
    /// The predecessor without taking a reference, for loops over a chain.
    UnaryColorMappingOperator* getPredecessorPointer() const { return mPredecessor.get(); }
    /// Stores the predecessor in the record's "predecessor" and uses it.
    void setPredecessor(EntityHolder<IColorMappingOperator> predecessor) final;
    /// Convenience for a concrete operator: `b->setPredecessor(a)`.
    template <typename U, typename = std::enable_if_t<std::is_convertible_v<U*, IColorMappingOperator*>>>
    void setPredecessor(SharedPtr<U> predecessor) {
        setPredecessor(EntityHolder<IColorMappingOperator>(SharedPtr<IColorMappingOperator>(std::move(predecessor))));
    }

    /// The record's "enabled".
    bool isEnabled() const { return get<bool>("enabled"); }
    /// True when the last preparation left this operator (alone, not its
    /// chain) mapping every colour to itself.
    bool isNeutral() const { return mNeutral; }

    /// A fresh value for a record's "id", unique within the process.
    static int generateId();

    /// Appends this operator's own mapping (not its predecessors') to a
    /// colour program being compiled from the prepared chain (ColorProgram.h).
    /// The default leaves a neutral operator out and otherwise maps pixel by
    /// pixel through mapImpl; operators with a vector form append their steps.
    virtual void compileMapping(ColorProgramBuilder& builder) const;

protected:
    UnaryColorMappingOperator(SharedPtr<DataObjectDefinition const> definition, OperatorColorEncoding input,
                              OperatorColorEncoding output, OperatorGroup group);

    /// This operator's own forward transform of one colour.
    virtual Rgb mapImpl(Rgb const& color, Pixel pixel) const = 0;
    /// This operator's own transform of a rectangle (layout as in `map`). The
    /// default calls the single-colour mapImpl per pixel; override for speed.
    virtual void mapImpl(std::span<Rgb> pixels, Pixel origin, Pixel extent) const;
    virtual void mapImpl(std::span<RgbAlpha> pixels, Pixel origin, Pixel extent) const;
    /// This operator's own inverse; tests its exclusion bit first.
    virtual Rgb unmapImpl(Rgb const& color, Flags<ColorMappingExclude> exclude) const = 0;
    /// Computes the prepared values from the record and the context.
    virtual void prepareForApplicationImpl(ColorMappingContext const& context) = 0;
    /// Default: every override naming this operator's type is written into the
    /// record (validated); unknown properties and refused values are reported.
    virtual void applyOverridesImpl(std::span<ToneMappingPropertyOverride const> overrides, String& errorInfo);

    /// Keeps the cached predecessor in step with the record.
    void onDataChanged(StringView propertyName) override;

    /// Whether the operator acts: the context's apply flag and "enabled".
    bool isActive(ColorMappingContext const& context) const { return context.applyOperators && isEnabled(); }
    /// Set by preparation: lets the bucket loops skip a neutral operator.
    void setNeutral(bool neutral) { mNeutral = neutral; }
    /// The number of pixels of a bucket: extent.x * extent.y, at most `available`.
    static std::size_t bucketSize(std::size_t available, Pixel extent) {
        if (extent.x <= 0 || extent.y <= 0) return 0;
        return std::min(available, std::size_t(extent.x) * std::size_t(extent.y));
    }

    /// The callback of the default compileMapping: mapImpl of one colour.
    static void mapOneForProgram(void const* self, float* rgb, int x, int y);

private:
    void refreshPredecessor();

    OperatorColorEncoding mInputEncoding;
    OperatorColorEncoding mOutputEncoding;
    OperatorGroup mGroup;
    EntityHolder<UnaryColorMappingOperator> mPredecessor;
    bool mNeutral = true;
};

inline Float4 toFloat4(Rgb const& c) { return Float4(c.r, c.g, c.b, 0.f); }
/// NaN lanes as 0: every operator reads a NaN channel as 0 (see the README's
/// table of out-of-range pixels); every other value is kept bit for bit.
inline Float4 zeroNaN(Float4 c) { return select(isNaN(c), Float4(0.f), c); }
inline Rgb zeroNaN(Rgb c) {
    for (int i = 0; i < 3; ++i)
        if (c[i] != c[i]) c[i] = 0.f;
    return c;
}
inline Rgb toRgb(Float4 v) {
    alignas(16) float t[4];
    v.store(t);
    return {t[0], t[1], t[2]};
}

/// Base of operators whose forward transform does not depend on the pixel:
/// Derived supplies `Float4 mapLanes(Float4) const` (inline), and the mapping
/// of one colour and of buckets are generated from it.
template <typename Derived> class LaneColorMappingOperator : public UnaryColorMappingOperator {
protected:
    using UnaryColorMappingOperator::UnaryColorMappingOperator;

    Rgb mapImpl(Rgb const& color, Pixel) const override { return toRgb(self().mapLanes(zeroNaN(toFloat4(color)))); }
    void mapImpl(std::span<Rgb> pixels, Pixel, Pixel extent) const override {
        if (isNeutral()) return;
        Derived const& d = self();
        std::span<Rgb> const bucket = pixels.first(bucketSize(pixels.size(), extent));
        if constexpr (requires { Derived::CHANNEL_INDEPENDENT; }) {
            // Packed RGB is a run of floats: four channels per lane group, no lane wasted.
            static_assert(sizeof(Rgb) == 3 * sizeof(float));
            float* f = reinterpret_cast<float*>(bucket.data());
            std::size_t const count = bucket.size() * 3;
            std::size_t i = 0;
            for (; i + 4 <= count; i += 4) d.mapLanes(zeroNaN(Float4::load(f + i))).store(f + i);
            for (; i < count; ++i) f[i] = d.mapLanes(zeroNaN(Float4(f[i]))).x();
        } else if constexpr (requires(Float4& x) { d.mapPlanes(x, x, x); }) {
            // Four pixels at a time as red, green and blue planes: matrices
            // become plain lane arithmetic and no lane is wasted.
            std::size_t k = 0;
            for (; k + 4 <= bucket.size(); k += 4) {
                alignas(16) float r[4], g[4], b[4];
                for (int i = 0; i < 4; ++i) r[i] = bucket[k + i].r, g[i] = bucket[k + i].g, b[i] = bucket[k + i].b;
                Float4 pr = zeroNaN(Float4::load(r)), pg = zeroNaN(Float4::load(g)), pb = zeroNaN(Float4::load(b));
                d.mapPlanes(pr, pg, pb);
                pr.store(r), pg.store(g), pb.store(b);
                for (int i = 0; i < 4; ++i) bucket[k + i] = Rgb(r[i], g[i], b[i]);
            }
            for (; k < bucket.size(); ++k) bucket[k] = toRgb(d.mapLanes(zeroNaN(toFloat4(bucket[k]))));
        } else {
            for (Rgb& p : bucket) p = toRgb(d.mapLanes(zeroNaN(toFloat4(p))));
        }
    }
    void mapImpl(std::span<RgbAlpha> pixels, Pixel, Pixel extent) const override {
        if (isNeutral()) return;
        Derived const& d = self();
        for (RgbAlpha& p : pixels.first(bucketSize(pixels.size(), extent))) {
            float const alpha = p.alpha;
            d.mapLanes(zeroNaN(Float4::load(&p.r))).store(&p.r);
            p.alpha = alpha;
        }
    }

private:
    Derived const& self() const { return static_cast<Derived const&>(*this); }
};

/// Adds the properties every operator record starts with: "id" (hidden int),
/// "predecessor" (reference to the previous operator) and "enabled" (true).
FERRIM_EXPORT void addCommonOperatorProperties(ShadingDataObjectBuilder& builder);

/// One registered operator type.
struct ColorMappingOperatorDescriptor {
    /// Makes a new operator and updates it from the record.
    Function<EntityHolder<UnaryColorMappingOperator>(GenericDataObject const&)> creator;
    String uiName;
    OperatorGroup group = OperatorGroup::Basic;
    /// The operator's record type (for new operators with default values).
    SharedPtr<DataObjectDefinition const> definition;
    /// The operator's help text (`Class::Data::UI_DESCRIPTION` when declared).
    String description;
    /// The record's own caption where it differs from the menu's ("ACES OT",
    /// "Filmic"; `Class::Data::UI_NAME` when declared), else empty.
    String recordUiName;
};

/// Process-wide registry of operator types, keyed by record type name.
class FERRIM_EXPORT ColorMappingOperatorFactory : public Noncopyable {
public:
    using Descriptors = FlatMap<String, ColorMappingOperatorDescriptor, std::less<>>;

    /// Built on first use (thread-safe), from every FERRIM_REGISTER_COLOR_OPERATOR.
    static ColorMappingOperatorFactory& getInstance();

    /// Stores the descriptor; a name already present is replaced.
    void registerDescriptor(String typeName, ColorMappingOperatorDescriptor&& descriptor);
    /// An operator updated from `data`; empty if its type is not registered.
    EntityHolder<UnaryColorMappingOperator> createOperator(GenericDataObject const& data) const;
    /// A new operator with default values and a fresh "id"; empty if unknown.
    EntityHolder<UnaryColorMappingOperator> createOperator(StringView typeName) const;
    bool containsDescriptor(StringView typeName) const { return mDescriptors.contains(typeName); }
    ColorMappingOperatorDescriptor const* findDescriptor(StringView typeName) const;
    /// Sorted by type name.
    Descriptors const& getAllDescriptors() const { return mDescriptors; }

private:
    ColorMappingOperatorFactory() = default;
    Descriptors mDescriptors;
};

namespace Detail {
/// Static-initialiser list of the operator registrations run when the factory is built.
FERRIM_EXPORT void addColorOperatorRegistration(Function<void(ColorMappingOperatorFactory&)> registration);

template <typename T> struct ColorOperatorRegistrar {
    explicit ColorOperatorRegistrar(char const* uiName) {
        addColorOperatorRegistration([name = String(uiName)](ColorMappingOperatorFactory& factory) {
            ColorMappingOperatorDescriptor d;
            d.creator = [](GenericDataObject const& data) {
                auto op = makeSharedPtr<T>();
                op->update(data);
                return EntityHolder<UnaryColorMappingOperator>(std::move(op));
            };
            d.uiName = name;
            d.group = T().getGroup();
            d.definition = T::Data::definition();
            if constexpr (requires { T::Data::UI_DESCRIPTION; }) d.description = String(T::Data::UI_DESCRIPTION);
            if constexpr (requires { T::Data::UI_NAME; }) d.recordUiName = String(T::Data::UI_NAME);
            String typeName = d.definition->getName();
            factory.registerDescriptor(std::move(typeName), std::move(d));
        });
    }
};
} // namespace Detail

} // namespace Quelin

/// Registers an operator class as an entity class (record `Class::Data`) and
/// adds it to the operator factory under its UI name. Use once per class, in
/// its .cpp, at namespace scope.
#define FERRIM_REGISTER_COLOR_OPERATOR(Class, uiName)                                                                 \
    FERRIM_REGISTER_ENTITY(Class);                                                                                     \
    static ::Quelin::Detail::ColorOperatorRegistrar<Class> const sColorOperatorRegistrar_##Class(uiName)
