#pragma once
// The renderer's colour mapping at render time: a pipeline, the two chains
// derived from it (one ending in linear values, one ending in display values),
// frame-buffer mapping on all cores, and the inverse that shading code reaches
// through IShadeContext::colorUnMap.
#include <span>

#include "Ferrim/IShadeContext.h"
#include "Ferrim/colorMappingOperators/ColorMappingPipeline.h"
#include "Ferrim/colorMappingOperators/ColorProgram.h"

namespace Quelin {

/// Owns a pipeline and the chains actually applied.
///
/// Record: "pipeline" (reference to the pipeline's last operator) and
/// "enabled" (off: mapping and unmapping leave colours unchanged). Whenever
/// "pipeline" changes the chains are rebuilt and prepared under the object's
/// mutex; render threads then map without locking, so a rebuild must not
/// overlap rendering.
class FERRIM_EXPORT ColorMapping : public Entity {
public:
    struct Data {
        static SharedPtr<DataObjectDefinition const> const& definition();
    };

    /// The default pipeline.
    ColorMapping();
    explicit ColorMapping(EntityHolder<IColorMappingOperator> pipeline);
    /// `isolate`: work on a deep copy of `pipeline`, so that later edits of the
    /// caller's operators do not reach a render in progress (setPipeline or
    /// rebuild() takes them over explicitly).
    ColorMapping(EntityHolder<IColorMappingOperator> pipeline, CommonColorMappingContext context, bool isolate);

    SharedPtr<Entity> createNewInstance() const override { return makeSharedPtr<ColorMapping>(); }

    void setPipeline(EntityHolder<IColorMappingOperator> pipeline);
    EntityHolder<IColorMappingOperator> getPipeline() const { return get<EntityHolder<IColorMappingOperator>>("pipeline"); }
    /// New preparation context (camera, gamma, image size); prepares again.
    void setContext(ColorMappingContext const& context);
    ColorMappingContext getContext() const;
    /// Rebuilds and prepares the chains (after operators were edited in place).
    void rebuild();

    /// The pipeline, extended to end in linear values.
    EntityHolder<IColorMappingOperator> getLinearChain() const { return mLinearChain; }
    /// The linear chain, extended to end in display (sRGB) values.
    EntityHolder<IColorMappingOperator> getDisplayChain() const { return mDisplayChain; }
    /// The chain that map() and unmap() use: the display chain.
    EntityHolder<IColorMappingOperator> getAppliedChain() const { return mAppliedChain; }
    bool isEnabled() const { return mEnabled; }

    /// One colour, linear in, display out.
    Rgb map(Rgb const& color, Pixel pixel = {}) const;
    /// The colour that maps to `color`, with the excluded operators left in place.
    Rgb unmap(Rgb const& color, Flags<ColorMappingExclude> exclude = {}) const;
    /// Maps a whole width x height frame (row-major) in place, in tiles spread
    /// over `threads` threads (0: all cores). Results do not depend on the
    /// thread count. `progress`, when set, is called with the fraction done
    /// from the worker threads.
    void mapFrameBuffer(std::span<Rgb> pixels, int width, int height, int threads = 0,
                        Function<void(double)> const& progress = {}) const;
    /// As above; alpha passes through.
    void mapFrameBuffer(std::span<RgbAlpha> pixels, int width, int height, int threads = 0,
                        Function<void(double)> const& progress = {}) const;
    /// Maps one bucket in place on the calling thread; layout as
    /// IColorMappingOperator::map. Buckets and frames run the compiled
    /// program (getProgram), single colours and unmapping the chain itself.
    void mapBucket(std::span<Rgb> pixels, Pixel origin, Pixel extent) const;
    void mapBucket(std::span<RgbAlpha> pixels, Pixel origin, Pixel extent) const;
    /// The applied chain compiled for buckets, remade whenever the chain is
    /// prepared.
    ColorProgram const& getProgram() const { return mProgram; }

protected:
    void onDataChanged(StringView propertyName) override;

private:
    void rebuildLocked();
    void prepareLocked();

    mutable Mutex mChainMutex;
    EntityHolder<IColorMappingOperator> mLinearChain;
    EntityHolder<IColorMappingOperator> mDisplayChain;
    EntityHolder<IColorMappingOperator> mAppliedChain;
    ColorProgram mProgram;
    ColorMappingContext mContext;
    bool mEnabled = true;
    bool mInConstruction = true;
};

/// A shade context whose colorUnMap undoes a ColorMapping; everything else is
/// the parent's. A renderer's own context forwards colorUnMap to
/// ColorMapping::unmap the same way.
class FERRIM_EXPORT ColorUnmappingShadeContext : public OverridableShadeContext {
public:
    ColorUnmappingShadeContext(IShadeContext const& parent, ColorMapping const& mapping)
        : OverridableShadeContext(parent), mMapping(mapping) {}
    Rgb colorUnMap(Rgb const& color, Flags<ColorMappingExclude> exclude) const override {
        return mMapping.unmap(color, exclude);
    }

private:
    ColorMapping const& mMapping;
};

/// The record under which a renderer's tone-mapping settings are edited:
/// "enabled", "settingsSource" (where the settings come from: "Scene" or
/// "Preset") and "toneMapping", the operators as a list (one item per
/// operator, first first, each item holding the operator itself), with the
/// add-operator menu, the default of new items and the presets as UI metadata.
class FERRIM_EXPORT ColorMappingWithObservers : public Entity {
public:
    struct Data {
        static SharedPtr<DataObjectDefinition const> const& definition();
    };
    /// The list item record: "operator", a reference to one operator.
    static SharedPtr<DataObjectDefinition const> const& itemDefinition();

    ColorMappingWithObservers();
    SharedPtr<Entity> createNewInstance() const override { return makeSharedPtr<ColorMappingWithObservers>(); }

    /// The chain built from the list (conversions inserted).
    EntityHolder<IColorMappingOperator> getPipeline() const;
    /// Replaces the list with the pipeline's visible operators (copies).
    void setPipeline(EntityHolder<const IColorMappingOperator> pipeline);
    /// Loads a ".ctm" preset into the list; the result holds the loader's
    /// warning (empty when nothing legacy was removed). On error nothing changes.
    Expected<String> loadPreset(String const& path);

    /// A list item for a new operator of `typeName` with default values and a
    /// fresh id; a LUT operator starts with the library's default look.
    static Optional<GenericDataObject> makeDefaultItem(StringView typeName);
    /// The add-operator menu as JSON text: [{"group": caption, "items": [{"type", "name"}...]}...],
    /// groups in menu order, hidden operators left out.
    static String getAddOperatorMenu();
    /// The preset folder: FERRIM_TONE_MAPPING_PRESETS if set, else the
    /// workspace folder + "resources/OstrelCommonInstallerResources/toneMapping".
    static String getPresetFolder();
    /// The ".ctm" files of the preset folder, sorted.
    static Stack<String> getPresetFiles();
};

/// Maps a linear float RGBA image (row-major, four floats per pixel) in place
/// through `pipeline` to display values (the display chain: the pipeline plus
/// the conversion to sRGB), on all cores. Alpha is kept. An empty pipeline
/// only encodes for display.
FERRIM_EXPORT void mapLinearImageToDisplay(EntityHolder<IColorMappingOperator> pipeline, std::span<float> rgba, int width,
                                           int height, ColorMappingContext const& context = {});

} // namespace Quelin
