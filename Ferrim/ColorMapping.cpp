#include "Ferrim/ColorMapping.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>
#include <tbb/task_arena.h>

#include "Ferrim/colorMappingOperators/Lut.h"
#include "Ferrim/colorMappingOperators/LutOperator.h"
#include "Ferrim/colorMappingOperators/MiscOperators.h"
#include "QuelinLib/Io.h"
#include "QuelinLib/Json.h"

namespace Quelin {

namespace {

template <typename T> EntityHolder<UnaryColorMappingOperator> newOperator() {
    return ColorMappingOperatorFactory::getInstance().createOperator(StringView(T::Data::definition()->getName()));
}

/// About 8192 pixels per tile: every operator makes one pass over a tile, so a
/// tile should stay in the core's cache (8192 x 16 bytes = 128 KiB at most).
constexpr std::int64_t TILE_PIXELS = 8192;

/// Runs `mapTile(first, count, origin, extent)` over contiguous pieces of the
/// frame: whole rows where rows are short, pieces of one row where they are long.
template <typename MapTile>
void forEachTile(int width, int height, int threads, Function<void(double)> const* progress, MapTile const& mapTile) {
    if (width <= 0 || height <= 0) return;
    std::int64_t const rowsPerTile = std::max<std::int64_t>(1, TILE_PIXELS / width);
    std::int64_t const piecesPerRow = width > TILE_PIXELS ? (width + TILE_PIXELS - 1) / TILE_PIXELS : 1;
    std::int64_t const bands = (height + rowsPerTile - 1) / rowsPerTile;
    std::int64_t const tiles = bands * piecesPerRow;
    std::atomic<std::int64_t> done{0};
    auto body = [&](tbb::blocked_range<std::int64_t> const& range) {
        for (std::int64_t t = range.begin(); t != range.end(); ++t) {
            std::int64_t const band = t / piecesPerRow, piece = t % piecesPerRow;
            int const y0 = int(band * rowsPerTile);
            int const y1 = int(std::min<std::int64_t>(height, y0 + rowsPerTile));
            if (piecesPerRow == 1) {
                mapTile(std::size_t(y0) * std::size_t(width), std::size_t(y1 - y0) * std::size_t(width), Pixel(0, y0),
                        Pixel(width, y1 - y0));
            } else {
                int const x0 = int(piece * TILE_PIXELS);
                int const x1 = int(std::min<std::int64_t>(width, x0 + TILE_PIXELS));
                mapTile(std::size_t(y0) * std::size_t(width) + std::size_t(x0), std::size_t(x1 - x0), Pixel(x0, y0),
                        Pixel(x1 - x0, 1));
            }
            if (progress && *progress) (*progress)(double(++done) / double(tiles));
        }
    };
    if (threads == 1) {
        body(tbb::blocked_range<std::int64_t>(0, tiles));
        return;
    }
    if (threads <= 0) {
        tbb::parallel_for(tbb::blocked_range<std::int64_t>(0, tiles, 1), body);
        return;
    }
    tbb::task_arena arena(threads);
    arena.execute([&] { tbb::parallel_for(tbb::blocked_range<std::int64_t>(0, tiles, 1), body); });
}

} // namespace

// ---------------------------------------------------------------------------
// ColorMapping
// ---------------------------------------------------------------------------

SharedPtr<DataObjectDefinition const> const& ColorMapping::Data::definition() {
    static auto const def = [] {
        ShadingDataObjectBuilder b;
        b.addEntityRef("pipeline", TypeDefinition::makeEntityRef<IColorMappingOperator>("Zatho.IColorMappingOperator"),
                       "Pipeline", "The last operator of the colour-mapping pipeline; the others are its predecessors.");
        b.addBool("enabled", true, "Enabled", "When off, rendered colours are shown without colour mapping.");
        return b.build("Zatho.ColorMapping");
    }();
    return def;
}

ColorMapping::ColorMapping() : ColorMapping(createDefaultPipeline()) {}

ColorMapping::ColorMapping(EntityHolder<IColorMappingOperator> pipeline)
    : ColorMapping(std::move(pipeline), CommonColorMappingContext(), false) {}

ColorMapping::ColorMapping(EntityHolder<IColorMappingOperator> pipeline, CommonColorMappingContext context, bool isolate)
    : Entity(Data::definition()), mContext(context) {
    if (isolate) pipeline = createPipelineDeepCopy(pipeline);
    set("pipeline", pipeline);
    mInConstruction = false;
    rebuild();
}

void ColorMapping::onDataChanged(StringView propertyName) {
    if (mInConstruction) return;
    if (propertyName.empty() || propertyName == "pipeline" || propertyName == "enabled") rebuild();
}

void ColorMapping::setPipeline(EntityHolder<IColorMappingOperator> pipeline) { set("pipeline", pipeline); }

void ColorMapping::setContext(ColorMappingContext const& context) {
    std::lock_guard lock(mChainMutex);
    mContext = context;
    if (mAppliedChain) prepareLocked();
}

void ColorMapping::prepareLocked() {
    mAppliedChain->prepareForApplication(mContext);
    mProgram = ColorProgram::compile(mAppliedChain);
}

ColorMappingContext ColorMapping::getContext() const {
    std::lock_guard lock(mChainMutex);
    return mContext;
}

void ColorMapping::rebuild() {
    std::lock_guard lock(mChainMutex);
    rebuildLocked();
}

void ColorMapping::rebuildLocked() {
    mEnabled = get<bool>("enabled");
    EntityHolder<IColorMappingOperator> const pipeline = getPipeline();
    // Linear chain: the pipeline brought back to linear values if it ends in sRGB.
    mLinearChain = pipeline;
    if (pipeline && pipeline->getOutputEncoding() != OperatorColorEncoding::Linear) {
        auto toLinear = newOperator<SrgbToLinearOperator>();
        toLinear->setPredecessor(pipeline);
        mLinearChain = toLinear;
    }
    // Display chain: the linear chain encoded for display.
    if (mLinearChain && mLinearChain->getOutputEncoding() == OperatorColorEncoding::Srgb) {
        mDisplayChain = mLinearChain;
    } else {
        auto toDisplay = newOperator<LinearToSrgbOperator>();
        if (mLinearChain) toDisplay->setPredecessor(mLinearChain);
        mDisplayChain = toDisplay;
    }
    mAppliedChain = mDisplayChain;
    prepareLocked();
}

Rgb ColorMapping::map(Rgb const& color, Pixel pixel) const {
    if (!mEnabled || !mAppliedChain) return color;
    return mAppliedChain->map(color, pixel);
}

Rgb ColorMapping::unmap(Rgb const& color, Flags<ColorMappingExclude> exclude) const {
    if (!mEnabled || !mAppliedChain) return color;
    return mAppliedChain->unmap(color, exclude);
}

namespace {
template <typename P>
void mapFrame(ColorProgram const* program, std::span<P> pixels, int width, int height, int threads,
              Function<void(double)> const& progress) {
    if (!program) return;
    if (pixels.size() < std::size_t(std::max(width, 0)) * std::size_t(std::max(height, 0)))
        throw Exception("ColorMapping::mapFrameBuffer: the buffer holds fewer than width x height pixels");
    forEachTile(width, height, threads, &progress, [&](std::size_t first, std::size_t count, Pixel origin, Pixel extent) {
        program->map(pixels.subspan(first, count), origin, extent);
    });
}
} // namespace

void ColorMapping::mapFrameBuffer(std::span<Rgb> pixels, int width, int height, int threads,
                                  Function<void(double)> const& progress) const {
    mapFrame(mEnabled && mAppliedChain ? &mProgram : nullptr, pixels, width, height, threads, progress);
}

void ColorMapping::mapFrameBuffer(std::span<RgbAlpha> pixels, int width, int height, int threads,
                                  Function<void(double)> const& progress) const {
    mapFrame(mEnabled && mAppliedChain ? &mProgram : nullptr, pixels, width, height, threads, progress);
}

void ColorMapping::mapBucket(std::span<Rgb> pixels, Pixel origin, Pixel extent) const {
    if (mEnabled && mAppliedChain) mProgram.map(pixels, origin, extent);
}

void ColorMapping::mapBucket(std::span<RgbAlpha> pixels, Pixel origin, Pixel extent) const {
    if (mEnabled && mAppliedChain) mProgram.map(pixels, origin, extent);
}

FERRIM_REGISTER_ENTITY(ColorMapping);

void mapLinearImageToDisplay(EntityHolder<IColorMappingOperator> pipeline, std::span<float> rgba, int width, int height,
                             ColorMappingContext const& context) {
    static_assert(sizeof(RgbAlpha) == 4 * sizeof(float), "RgbAlpha rows are read as packed floats");
    ColorMapping mapping(pipeline, context, false);
    mapping.setContext(context);
    std::span<RgbAlpha> pixels(reinterpret_cast<RgbAlpha*>(rgba.data()), rgba.size() / 4);
    mapping.mapFrameBuffer(pixels, width, height, 0);
}

// ---------------------------------------------------------------------------
// ColorMappingWithObservers
// ---------------------------------------------------------------------------

namespace {
constexpr OperatorGroup MENU_GROUPS[] = {OperatorGroup::Basic, OperatorGroup::CurveControl, OperatorGroup::HighlightControl,
                                         OperatorGroup::FinalLook};

SharedPtr<TypeDefinition const> const& settingsSourceType() {
    static auto const type = TypeDefinition::makeEnum("Zatho.ToneMappingSettingsSource", {{0, "Scene"}, {1, "Preset"}});
    return type;
}

String presetListText() {
    nlohmann::json a = nlohmann::json::array();
    for (auto const& f : ColorMappingWithObservers::getPresetFiles()) a.push_back(f);
    return a.dump();
}
} // namespace

SharedPtr<DataObjectDefinition const> const& ColorMappingWithObservers::itemDefinition() {
    static auto const def = [] {
        ShadingDataObjectBuilder b;
        b.addEntityRef("operator", TypeDefinition::makeEntityRef<IColorMappingOperator>("Zatho.IColorMappingOperator"),
                       "Operator", "One operator of the pipeline, with its own parameters.");
        return b.build("Zatho.ToneMappingItem");
    }();
    return def;
}
static Ferrim::TypeRegistrar const sToneMappingItemRegistrar([] { return ColorMappingWithObservers::itemDefinition(); });

SharedPtr<DataObjectDefinition const> const& ColorMappingWithObservers::Data::definition() {
    static auto const def = [] {
        ShadingDataObjectBuilder b;
        b.addBool("enabled", true, "Enabled", "When off, rendered colours are shown without tone mapping.");
        b.addEnum("settingsSource", settingsSourceType(), 0, "Settings source",
                  "Where the tone-mapping settings come from: the scene itself or a preset file.");
        auto& list = b.addList("toneMapping", itemDefinition(), "Tone mapping",
                               "The operators applied to the rendered image, first to last.");
        list.setMetadata(Metadata::UI_LIST_ITEM_ADDER, getAddOperatorMenu());
        list.setMetadata(Metadata::UI_LIST_DEFAULT_VALUE,
                         String("A new operator of the chosen type with default values and a fresh id; a LUT starts "
                                "with the library's default look."));
        list.setMetadata(Metadata::UI_LIST_PRESETS, presetListText());
        return b.build("Zatho.ColorMappingWithObservers");
    }();
    return def;
}

ColorMappingWithObservers::ColorMappingWithObservers() : Entity(Data::definition()) {}

EntityHolder<IColorMappingOperator> ColorMappingWithObservers::getPipeline() const {
    Stack<GenericDataObject> records;
    auto const list = get<ListPropertyValue>("toneMapping");
    for (std::size_t i = 0; i < list.size(); ++i)
        if (auto op = list[i].get<EntityHolder<IColorMappingOperator>>("operator")) records.push_back(op->getData());
    return createPipeline(records);
}

void ColorMappingWithObservers::setPipeline(EntityHolder<const IColorMappingOperator> pipeline) {
    ListPropertyValue list;
    for (auto const& record : convertPipelineToDataObjects(pipeline, HiddenItemsTreatment::Skip)) {
        auto op = ColorMappingOperatorFactory::getInstance().createOperator(record);
        if (!op) continue;
        GenericDataObject item(itemDefinition());
        item.set("operator", EntityHolder<IColorMappingOperator>(op));
        list.push_back(std::move(item));
    }
    set("toneMapping", std::move(list));
}

Expected<String> ColorMappingWithObservers::loadPreset(String const& path) {
    auto loaded = loadPipelinePreset(path);
    if (!loaded) return makeError(loaded.error());
    setPipeline(loaded->pipeline);
    set("settingsSource", 1);
    return loaded->warning;
}

Optional<GenericDataObject> ColorMappingWithObservers::makeDefaultItem(StringView typeName) {
    auto op = ColorMappingOperatorFactory::getInstance().createOperator(typeName);
    if (!op) return std::nullopt;
    if (op->getClassName() == LutOperator::Data::definition()->getName()) op->set("path", getDefaultLut());
    GenericDataObject item(itemDefinition());
    item.set("operator", EntityHolder<IColorMappingOperator>(op));
    return item;
}

String ColorMappingWithObservers::getAddOperatorMenu() {
    nlohmann::json menu = nlohmann::json::array();
    auto const& descriptors = ColorMappingOperatorFactory::getInstance().getAllDescriptors();
    for (OperatorGroup group : MENU_GROUPS) {
        nlohmann::json items = nlohmann::json::array();
        for (auto const& [type, d] : descriptors)
            if (d.group == group) items.push_back({{"type", type}, {"name", d.uiName}});
        menu.push_back({{"group", String(getOperatorGroupCaption(group))}, {"items", std::move(items)}});
    }
    return menu.dump();
}

String ColorMappingWithObservers::getPresetFolder() {
    if (char const* env = std::getenv("FERRIM_TONE_MAPPING_PRESETS"); env && *env) return env;
    return Io::pathToUtf8(Io::StandardPaths::quelinWorkspaceDir() / "resources" / "OstrelCommonInstallerResources" /
                          "toneMapping");
}

Stack<String> ColorMappingWithObservers::getPresetFiles() {
    Stack<String> files;
    std::error_code ec;
    for (auto it = std::filesystem::directory_iterator(getPresetFolder(), ec); !ec && it != std::filesystem::directory_iterator();
         it.increment(ec)) {
        auto const ext = it->path().extension().string();
        if (it->is_regular_file(ec) && ext == "." + String(PIPELINE_PRESET_EXTENSION)) files.push_back(Io::pathToUtf8(it->path()));
    }
    std::sort(files.begin(), files.end());
    return files;
}

FERRIM_REGISTER_ENTITY(ColorMappingWithObservers);

} // namespace Quelin
