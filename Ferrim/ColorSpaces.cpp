#include "Ferrim/ColorSpaces.h"

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <map>
#include <mutex>
#include <sstream>

#include <OpenColorIO/OpenColorIO.h>

namespace OCIO = OCIO_NAMESPACE;

namespace Quelin::ColorSpaces {

namespace Detail {
/// The text of Config/ferrim.ocio, generated into the build.
extern char const* const FERRIM_OCIO_CONFIG_TEXT;
} // namespace Detail

struct Processor::Impl {
    OCIO::ConstProcessorRcPtr processor;
    OCIO::ConstCPUProcessorRcPtr cpu;
    String id;
    bool noOp = false;
    bool perChannel = false;
    std::optional<Stack<ProcessorStep>> steps;
};

namespace {

bool floatDepths(OCIO::BitDepth in, OCIO::BitDepth out) {
    auto plain = [](OCIO::BitDepth d) { return d == OCIO::BIT_DEPTH_UNKNOWN || d == OCIO::BIT_DEPTH_F32; };
    return plain(in) && plain(out);
}

std::optional<ProcessorStep> describeMatrix(OCIO::MatrixTransform const& t) {
    if (!floatDepths(t.getFileInputBitDepth(), t.getFileOutputBitDepth()) || t.getDirection() == OCIO::TRANSFORM_DIR_INVERSE)
        return {};
    double m[16], offset[4];
    t.getMatrix(m);
    t.getOffset(offset);
    // Alpha must not feed the colours.
    if (m[3] != 0.0 || m[7] != 0.0 || m[11] != 0.0) return {};
    ProcessorStep s;
    s.kind = ProcessorStep::Kind::Matrix;
    for (int r = 0; r < 3; ++r) {
        for (int c = 0; c < 3; ++c) s.matrix[3 * r + c] = m[4 * r + c];
        s.matrix[9 + r] = offset[r];
    }
    return s;
}

std::optional<ProcessorStep> describeRange(OCIO::RangeTransform const& t) {
    if (!floatDepths(t.getFileInputBitDepth(), t.getFileOutputBitDepth())) return {};
    bool const inverse = t.getDirection() == OCIO::TRANSFORM_DIR_INVERSE;
    // The inverse swaps what goes in and what comes out.
    bool const hasMin = t.hasMinInValue() && t.hasMinOutValue(), hasMax = t.hasMaxInValue() && t.hasMaxOutValue();
    if (hasMin != (t.hasMinInValue() || t.hasMinOutValue()) || hasMax != (t.hasMaxInValue() || t.hasMaxOutValue()))
        return {};
    double const minIn = inverse ? t.getMinOutValue() : t.getMinInValue();
    double const minOut = inverse ? t.getMinInValue() : t.getMinOutValue();
    double const maxIn = inverse ? t.getMaxOutValue() : t.getMaxInValue();
    double const maxOut = inverse ? t.getMaxInValue() : t.getMaxOutValue();
    ProcessorStep s;
    s.kind = ProcessorStep::Kind::Range;
    double const inf = std::numeric_limits<double>::infinity();
    s.low = -inf, s.high = inf;
    if (hasMin && hasMax) {
        if (!(maxIn > minIn)) return {};
        s.scale = (maxOut - minOut) / (maxIn - minIn);
        s.offset = minOut - s.scale * minIn;
    } else if (hasMin) {
        s.offset = minOut - minIn;
    } else if (hasMax) {
        s.offset = maxOut - maxIn;
    }
    // Without clamping only the scale of both ends is left.
    if (t.getStyle() == OCIO::RANGE_CLAMP || !(hasMin && hasMax)) {
        if (hasMin) s.low = std::min(minOut, hasMax ? maxOut : inf);
        if (hasMax) s.high = std::max(maxOut, hasMin ? minOut : -inf);
    }
    return s;
}

std::optional<ProcessorStep> describeExponent(OCIO::ExponentTransform const& t) {
    double value[4];
    t.getValue(value);
    ProcessorStep s;
    s.kind = ProcessorStep::Kind::Exponent;
    s.encode = t.getDirection() == OCIO::TRANSFORM_DIR_INVERSE;
    for (int ch = 0; ch < 3; ++ch) {
        if (!(value[ch] > 0.0)) return {};
        s.exponent[ch] = s.encode ? 1.0 / value[ch] : value[ch];
    }
    switch (t.getNegativeStyle()) {
    case OCIO::NEGATIVE_CLAMP: s.negative = ProcessorStep::Negative::Clamp; break;
    case OCIO::NEGATIVE_MIRROR: s.negative = ProcessorStep::Negative::Mirror; break;
    case OCIO::NEGATIVE_PASS_THRU: s.negative = ProcessorStep::Negative::PassThrough; break;
    default: return {};
    }
    return s;
}

std::optional<ProcessorStep> describeExponentWithLinear(OCIO::ExponentWithLinearTransform const& t) {
    double gamma[4], offset[4];
    t.getGamma(gamma);
    t.getOffset(offset);
    ProcessorStep s;
    s.kind = ProcessorStep::Kind::ExponentWithLinear;
    s.encode = t.getDirection() == OCIO::TRANSFORM_DIR_INVERSE;
    for (int ch = 0; ch < 3; ++ch) {
        s.exponent[ch] = gamma[ch];
        s.linearOffset[ch] = offset[ch];
    }
    switch (t.getNegativeStyle()) {
    case OCIO::NEGATIVE_LINEAR: s.negative = ProcessorStep::Negative::Linear; break;
    case OCIO::NEGATIVE_MIRROR: s.negative = ProcessorStep::Negative::Mirror; break;
    default: return {};
    }
    return s;
}

/// The optimized processor's transforms as plain steps, or nothing when one
/// is of another kind.
std::optional<Stack<ProcessorStep>> describe(OCIO::ConstProcessorRcPtr const& processor) {
    try {
        auto const group = processor->getOptimizedProcessor(OCIO::OPTIMIZATION_DEFAULT)->createGroupTransform();
        Stack<ProcessorStep> steps;
        for (int i = 0; i < group->getNumTransforms(); ++i) {
            OCIO::ConstTransformRcPtr const t = group->getTransform(i);
            std::optional<ProcessorStep> step;
            if (auto m = OCIO::DynamicPtrCast<OCIO::MatrixTransform const>(t)) step = describeMatrix(*m);
            else if (auto r = OCIO::DynamicPtrCast<OCIO::RangeTransform const>(t)) step = describeRange(*r);
            else if (auto e = OCIO::DynamicPtrCast<OCIO::ExponentTransform const>(t)) step = describeExponent(*e);
            else if (auto l = OCIO::DynamicPtrCast<OCIO::ExponentWithLinearTransform const>(t))
                step = describeExponentWithLinear(*l);
            if (!step) return {};
            steps.push_back(*step);
        }
        return steps;
    } catch (OCIO::Exception const&) {
        return {};
    }
}

} // namespace

struct ProcessorAccess {
    static Processor make(OCIO::ConstProcessorRcPtr const& processor) {
        auto impl = makeSharedPtr<Processor::Impl>();
        impl->processor = processor;
        // OpenColorIO's own choice for float pixels: the results are its processor's.
        impl->cpu = processor->getDefaultCPUProcessor();
        impl->id = processor->getCacheID();
        impl->noOp = processor->isNoOp();
        impl->perChannel = !processor->hasChannelCrosstalk();
        impl->steps = describe(processor);
        Processor p;
        p.mImpl = std::move(impl);
        return p;
    }
};

namespace {

constexpr StringView BUILTIN_NAME = "Ferrim's built-in config (ferrim.ocio)";

struct LoadedConfig {
    OCIO::ConstConfigRcPtr config;
    String name;
    String error;
};

/// The config for the current value of $OCIO; loaded once per value.
LoadedConfig const& currentConfig() {
    static std::mutex sMutex;
    static std::map<String, LoadedConfig> sConfigs;
    char const* env = std::getenv("OCIO");
    String const path = env ? String(env) : String();
    std::lock_guard lock(sMutex);
    auto it = sConfigs.find(path);
    if (it != sConfigs.end()) return it->second;
    LoadedConfig loaded;
    loaded.name = path.empty() ? String(BUILTIN_NAME) : "OCIO config " + path;
    try {
        if (path.empty()) {
            std::istringstream text{String(builtinConfigText())};
            loaded.config = OCIO::Config::CreateFromStream(text);
        } else {
            loaded.config = OCIO::Config::CreateFromFile(path.c_str());
        }
        loaded.config->validate();
    } catch (OCIO::Exception const& e) {
        loaded.config.reset();
        loaded.error = loaded.name + ": " + e.what();
    }
    return sConfigs.emplace(path, std::move(loaded)).first->second;
}

Expected<OCIO::ConstConfigRcPtr, String> config() {
    LoadedConfig const& c = currentConfig();
    if (!c.config) return makeError(c.error);
    return c.config;
}

String quoted(StringView s) { return "\"" + String(s) + "\""; }

/// A colour space or role of the config, or an error naming both.
Expected<void, String> checkSpace(OCIO::ConstConfigRcPtr const& c, StringView name) {
    if (!name.empty() && c->getColorSpace(String(name).c_str())) return {};
    return makeError(currentConfig().name + ": unknown colour space " + quoted(name));
}

Expected<Processor, String> compile(OCIO::ConstConfigRcPtr const& c, OCIO::ConstTransformRcPtr const& transform,
                                    StringView what) {
    try {
        return ProcessorAccess::make(c->getProcessor(transform));
    } catch (OCIO::Exception const& e) {
        return makeError(currentConfig().name + ": " + String(what) + ": " + e.what());
    }
}

bool equalsIgnoringCase(StringView a, StringView b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i)
        if (std::tolower(static_cast<unsigned char>(a[i])) != std::tolower(static_cast<unsigned char>(b[i])))
            return false;
    return true;
}

} // namespace

String configName() { return currentConfig().name; }

StringView builtinConfigText() { return Detail::FERRIM_OCIO_CONFIG_TEXT; }

Expected<Stack<String>, String> colorSpaceNames() {
    auto c = config();
    if (!c) return makeError(c.error());
    Stack<String> names;
    for (int i = 0; i < (*c)->getNumColorSpaces(); ++i) names.push_back((*c)->getColorSpaceNameByIndex(i));
    return names;
}

Expected<String, String> sceneLinearSpace() {
    auto c = config();
    if (!c) return makeError(c.error());
    auto space = (*c)->getColorSpace(OCIO::ROLE_SCENE_LINEAR);
    if (!space) return makeError(currentConfig().name + ": no scene_linear role");
    return String(space->getName());
}

bool Processor::isNoOp() const { return !mImpl || mImpl->noOp; }
bool Processor::isPerChannel() const { return !mImpl || mImpl->perChannel; }
String const& Processor::getId() const {
    static String const none;
    return mImpl ? mImpl->id : none;
}

void Processor::applyRgb(float* rgb, std::size_t count) const {
    if (isNoOp() || count == 0) return;
    OCIO::PackedImageDesc image(rgb, long(count), 1, 3);
    mImpl->cpu->apply(image);
}

void Processor::applyRgba(float* rgba, std::size_t count) const {
    if (isNoOp() || count == 0) return;
    OCIO::PackedImageDesc image(rgba, long(count), 1, 4);
    mImpl->cpu->apply(image);
}

void Processor::applyPlanes(float* r, float* g, float* b, std::size_t count) const {
    if (isNoOp() || count == 0) return;
    OCIO::PlanarImageDesc image(r, g, b, nullptr, long(count), 1);
    mImpl->cpu->apply(image);
}

std::optional<Stack<ProcessorStep>> Processor::steps() const {
    if (!mImpl) return Stack<ProcessorStep>();
    return mImpl->steps;
}

Rgb Processor::apply(Rgb color) const {
    if (isNoOp()) return color;
    float rgb[3] = {color.r, color.g, color.b};
    mImpl->cpu->applyRGB(rgb);
    return {rgb[0], rgb[1], rgb[2]};
}

Expected<Processor, String> makeConversion(StringView from, StringView to) {
    auto c = config();
    if (!c) return makeError(c.error());
    if (auto ok = checkSpace(*c, from); !ok) return makeError(ok.error());
    if (auto ok = checkSpace(*c, to); !ok) return makeError(ok.error());
    auto t = OCIO::ColorSpaceTransform::Create();
    t->setSrc(String(from).c_str());
    t->setDst(String(to).c_str());
    return compile(*c, t, "from " + quoted(from) + " to " + quoted(to));
}

namespace {
Expected<void, String> checkDisplayView(OCIO::ConstConfigRcPtr const& c, StringView display, StringView view) {
    String const d(display), v(view);
    bool knownDisplay = false;
    for (int i = 0; i < c->getNumDisplays(); ++i) knownDisplay = knownDisplay || d == c->getDisplay(i);
    if (!knownDisplay) return makeError(currentConfig().name + ": unknown display " + quoted(display));
    for (int i = 0; i < c->getNumViews(d.c_str()); ++i)
        if (v == c->getView(d.c_str(), i)) return {};
    return makeError(currentConfig().name + ": display " + quoted(display) + " has no view " + quoted(view));
}
} // namespace

Expected<Processor, String> makeDisplayView(DisplayView const& dv, bool inverse) {
    auto c = config();
    if (!c) return makeError(c.error());
    if (auto ok = checkSpace(*c, dv.input); !ok) return makeError(ok.error());
    if (auto ok = checkDisplayView(*c, dv.display, dv.view); !ok) return makeError(ok.error());
    auto group = OCIO::GroupTransform::Create();
    if (!dv.looks.empty()) {
        // The looks in their process spaces, back to the input space.
        auto looks = OCIO::LookTransform::Create();
        looks->setSrc(dv.input.c_str());
        looks->setDst(dv.input.c_str());
        looks->setLooks(dv.looks.c_str());
        group->appendTransform(looks);
    }
    auto view = OCIO::DisplayViewTransform::Create();
    view->setSrc(dv.input.c_str());
    view->setDisplay(dv.display.c_str());
    view->setView(dv.view.c_str());
    group->appendTransform(view);
    if (inverse) group->setDirection(OCIO::TRANSFORM_DIR_INVERSE);
    String const what = String(inverse ? "inverse of " : "") + "display " + quoted(dv.display) + ", view " +
                        quoted(dv.view) + (dv.looks.empty() ? String() : ", looks " + quoted(dv.looks));
    return compile(*c, group, what);
}

Expected<String, String> displayViewSpace(StringView display, StringView view) {
    auto c = config();
    if (!c) return makeError(c.error());
    if (auto ok = checkDisplayView(*c, display, view); !ok) return makeError(ok.error());
    String const d(display), v(view);
    char const* space = (*c)->getDisplayViewColorSpaceName(d.c_str(), v.c_str());
    return String(space ? space : "");
}

String spaceForFile(StringView tag, float fileGamma, PixelFormat format) {
    ChannelType const type = getChannelType(format);
    bool const integer = type == ChannelType::UInt8 || type == ChannelType::UInt16;
    String const linear = sceneLinearSpace().value_or("Linear Rec.709 (sRGB)");
    if (!tag.empty()) {
        if (auto c = config(); c && (*c)->getColorSpace(String(tag).c_str())) return String(tag);
        // OpenImageIO's own names for what its readers find in files.
        if (equalsIgnoringCase(tag, "sRGB")) return "sRGB - Texture";
        if (equalsIgnoringCase(tag, "Linear") || equalsIgnoringCase(tag, "scene_linear")) return linear;
        bool const gamma = equalsIgnoringCase(tag, "GammaCorrected") || tag.starts_with("Gamma") ||
                           tag.starts_with("gamma") || equalsIgnoringCase(tag, "Rec709");
        if (gamma) {
            float g = fileGamma;
            if (g <= 0.f && tag.size() > 5) g = std::strtof(String(tag.substr(5)).c_str(), nullptr);
            if (std::abs(g - 2.2f) < 0.01f) return "Gamma 2.2 Rec.709 - Texture";
            if (std::abs(g - 1.f) < 0.01f) return linear;
        }
    }
    return integer ? String("sRGB - Texture") : linear;
}

FileEncoding fileEncodingOf(StringView space) {
    // CIE xy of the primaries and white: ITU-R BT.709 (D65), ACES AP1
    // (Academy S-2014-004) and AP0 (SMPTE ST 2065-1), white of both ACES at
    // the ACES white point.
    static constexpr StaticArray<float, 8> REC709 = {0.64f, 0.33f, 0.30f, 0.60f, 0.15f, 0.06f, 0.3127f, 0.3290f};
    static constexpr StaticArray<float, 8> AP1 = {0.713f, 0.293f, 0.165f, 0.830f, 0.128f, 0.044f, 0.32168f, 0.33767f};
    static constexpr StaticArray<float, 8> AP0 = {0.7347f, 0.2653f, 0.f, 1.f, 0.0001f, -0.077f, 0.32168f, 0.33767f};
    using Curve = FileEncoding::Curve;
    if (space == "Linear Rec.709 (sRGB)" || equalsIgnoringCase(space, "Linear") ||
        equalsIgnoringCase(space, "scene_linear"))
        return {Curve::Linear, REC709};
    if (space == "ACEScg") return {Curve::Linear, AP1};
    if (space == "ACES2065-1") return {Curve::Linear, AP0};
    if (space == "sRGB - Texture" || space == "sRGB - Display" || equalsIgnoringCase(space, "sRGB"))
        return {Curve::Srgb, REC709};
    if (space == "Gamma 2.2 Rec.709 - Texture" || space == "Gamma 2.2 Rec.709 - Display" ||
        equalsIgnoringCase(space, "Gamma2.2"))
        return {Curve::Gamma22, REC709};
    return {};
}

String fileTagOf(StringView space) {
    switch (fileEncodingOf(space).curve) {
    case FileEncoding::Curve::Srgb: return "sRGB";
    case FileEncoding::Curve::Gamma22: return "Gamma2.2";
    case FileEncoding::Curve::Linear: return "Linear";
    case FileEncoding::Curve::Other: break;
    }
    return String(space);
}

} // namespace Quelin::ColorSpaces
