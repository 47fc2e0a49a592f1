// Maps from Python: evaluating a map over arrays of shading points on all
// cores, and rendering swatches as the `ferrim render` command does.
#include <cmath>
#include <fstream>
#include <sstream>

#include "Bindings.h"
#include "DisplayOutput.h"
#include "Ferrim/IMap.h"
#include "Ferrim/TextureMap/TextureMap.h"
#include "PointShadeContext.h"
#include "QuelinLib/Io.h"
#include "QuelinLib/Json.h"
#include "QuelinLib/TaskScheduler.h"
#include "SwatchRenderer.h"

namespace FerrimPython {

using namespace Quelin;

namespace {

enum class Evaluation { Color, Mono, Bump };

String shapeText(Stack<py::ssize_t> const& leadingShape) {
    return py::str(py::tuple(py::cast(leadingShape))).cast<String>();
}

/// An optional array of points with the same leading shape as uvw; its last
/// axis one of `channels`.
Optional<FloatRows> pointAttribute(py::handle value, char const* what, FloatRows const& uvw, char const* shape = "(..., 3)",
                                   std::initializer_list<std::size_t> channels = {3}) {
    if (value.is_none())
        return std::nullopt;
    FloatRows rows = requireFloatRows(value, what, shape, channels, 0, false, true);
    if (rows.leadingShape != uvw.leadingShape)
        throw py::value_error(String(what) + " must have one point per uvw point: shape " + shapeText(uvw.leadingShape) +
                              " + (" + (channels.size() == 1 ? "3" : "2 or 3") + ",)");
    return rows;
}

Pos posAt(float const* data, std::size_t channels, std::size_t i) {
    float const* p = data + i * channels;
    return Pos(p[0], p[1], channels == 3 ? p[2] : 0.f);
}

bool finite(Pos const& p) { return std::isfinite(p.x) && std::isfinite(p.y) && std::isfinite(p.z); }

/// The filter widths given beside the points: one for all, one per point, or
/// the UV derivatives along the image's x and y.
struct Footprints {
    float all = 0.f;
    Optional<py::array> perPoint;
    Optional<FloatRows> dx, dy;

    /// Per axis, the width of the box around the pixel's parallelogram; the
    /// widest axis stands for the position's width.
    void apply(ShadingPoint& p, std::size_t i) const {
        if (dx) {
            Pos const a = posAt(dx->data, dx->channels, i), b = posAt(dy->data, dy->channels, i);
            Dir const w(std::abs(a.x) + std::abs(b.x), std::abs(a.y) + std::abs(b.y), std::abs(a.z) + std::abs(b.z));
            p.uvwFootprint = w;
            p.uvwDerivatives = UvwDerivatives{Dir(a.x, a.y, a.z), Dir(b.x, b.y, b.z)};
            p.footprint = std::max({w.x, w.y, w.z});
        } else {
            p.footprint = perPoint ? static_cast<float const*>(perPoint->data())[i] : all;
        }
    }
};

Footprints readFootprints(py::handle footprint, py::handle dx, py::handle dy, FloatRows const& uvw) {
    Footprints f;
    auto const bad = [] { return py::value_error("footprint must be finite and >= 0"); };
    if (py::isinstance<py::array>(footprint)) {
        auto const a = py::reinterpret_borrow<py::array>(footprint);
        if (a.dtype().kind() != 'f' || a.dtype().itemsize() != 4 || !a.dtype().attr("isnative").cast<bool>())
            throw py::type_error("footprint must hold float32 values, not " + py::str(a.dtype()).cast<String>());
        if (Stack<py::ssize_t>(a.shape(), a.shape() + a.ndim()) != uvw.leadingShape)
            throw py::value_error("footprint must have one value per uvw point: shape " + shapeText(uvw.leadingShape));
        if (!(a.flags() & py::array::c_style))
            throw py::value_error("footprint must be C-contiguous");
        auto const* values = static_cast<float const*>(a.data());
        for (std::size_t i = 0; i < uvw.rows; ++i)
            if (!(values[i] >= 0.f) || !std::isfinite(values[i])) throw bad();
        f.perPoint = a;
    } else {
        try {
            f.all = footprint.cast<float>();
        } catch (py::cast_error const&) {
            throw py::type_error("footprint must be a number or a float32 array");
        }
        if (!(f.all >= 0.f) || !std::isfinite(f.all)) throw bad();
    }
    if (dx.is_none() != dy.is_none())
        throw py::value_error("give both duvw_dx and duvw_dy, or neither");
    if (!dx.is_none()) {
        if (f.perPoint || f.all != 0.f)
            throw py::value_error("give a footprint or the UV derivatives, not both");
        f.dx = pointAttribute(dx, "duvw_dx", uvw, "(..., 2) or (..., 3)", {2, 3});
        f.dy = pointAttribute(dy, "duvw_dy", uvw, "(..., 2) or (..., 3)", {2, 3});
        for (FloatRows const* d : {&*f.dx, &*f.dy})
            for (std::size_t i = 0; i < d->rows; ++i)
                if (!finite(posAt(d->data, d->channels, i)))
                    throw py::value_error("duvw_dx and duvw_dy must be finite");
    }
    return f;
}

/// Raises ferrim.TextureError with the texture's own error text when a texture
/// map in the map's graph has no image: its lookups would all be (0, 0, 0, 0).
void requireLoadedTextures(IMap const& map) {
    Stack<TextureMap const*> textures;
    visitEntityGraphNodes(map, [&](Entity const& e) {
        if (auto const* t = dynamic_cast<TextureMap const*>(&e))
            textures.push_back(t);
        return VisitEntityGraphAction::Continue;
    });
    for (TextureMap const* t : textures) {
        Expected<TextureMap::TextureInfo, String> info = makeError(String());
        {
            py::gil_scoped_release release; // waits for the loader thread
            info = t->getTextureInfo();
        }
        if (!info)
            raiseTextureError(info.error());
    }
}

/// Whether the map's surface colour and value depend on nothing but the UVW
/// and its footprint, so that points may share the rest of one shade context:
/// texture maps reading a UV channel, not looking up by direction.
bool readsOnlyUvw(IMap const& map, IMapEvaluator const& evaluator) {
    auto const* texture = dynamic_cast<TextureMap const*>(&map);
    auto const* e = dynamic_cast<TextureMap::Evaluator const*>(&evaluator);
    return texture && e && e->getUvMapper().getMappingMode() == UvMappingMode::UvChannel &&
           texture->get<GenericDataObject>("enviroMode").get<TextureMap::EnvironmentMode>("mode") !=
               TextureMap::EnvironmentMode::Environment;
}

/// Points `begin` to `end` through the evaluator's batch entry, in runs of at
/// most BATCH points that agree on filtering, each run with the shade context
/// of its first point: equal bit for bit to one call per point.
void evaluateBatched(IMapEvaluator const& evaluator, Evaluation what, FloatRows const& points, Footprints const& footprints,
                     std::int64_t begin, std::int64_t end, float* target) {
    constexpr std::size_t BATCH = 64;
    MapLookupPoint lookups[BATCH];
    RgbAlpha colors[BATCH];
    MonoAlpha monos[BATCH];
    ShadingPoint first;
    std::size_t const channels = what == Evaluation::Color ? 4 : 2;
    for (auto i = std::size_t(begin); i < std::size_t(end);) {
        std::size_t n = 0;
        bool runFiltered = false;
        for (; n < BATCH && i + n < std::size_t(end); ++n) {
            ShadingPoint p;
            p.uvw = posAt(points.data, points.channels, i + n);
            p.position = p.uvw;
            footprints.apply(p, i + n);
            // As PointShadeContext answers it.
            Dir const w = p.uvwFootprint ? *p.uvwFootprint : Dir(0.f, 0.f, 0.f);
            bool const filtered = p.footprint > 0.f || w.x > 0.f || w.y > 0.f || w.z > 0.f;
            if (n == 0) {
                first = p;
                runFiltered = filtered;
            } else if (filtered != runFiltered) {
                break;
            }
            lookups[n] = {p.uvw, p.uvwFootprint ? *p.uvwFootprint : Dir(p.footprint, p.footprint, p.footprint)};
        }
        PointShadeContext const context(first);
        float* o = target + i * channels;
        if (what == Evaluation::Color) {
            evaluator.evalColors(context, std::span<MapLookupPoint const>(lookups, n), std::span(colors, n), nullptr);
            for (std::size_t k = 0; k < n; ++k, o += 4) o[0] = colors[k].r, o[1] = colors[k].g, o[2] = colors[k].b, o[3] = colors[k].alpha;
        } else {
            evaluator.evalMonos(context, std::span<MapLookupPoint const>(lookups, n), std::span(monos, n), nullptr);
            for (std::size_t k = 0; k < n; ++k, o += 2) o[0] = monos[k].value, o[1] = monos[k].alpha;
        }
        i += n;
    }
}

py::array_t<float> evaluate(IMap const& map, Evaluation what, py::handle uvw, py::handle position, py::handle normal,
                            py::handle footprint, py::handle duvwDx, py::handle duvwDy, py::handle direction) {
    FloatRows const points = requireFloatRows(uvw, "uvw", "(..., 2) or (..., 3)", {2, 3}, 0, false, true);
    Footprints const footprints = readFootprints(footprint, duvwDx, duvwDy, points);
    Optional<FloatRows> const positions = pointAttribute(position, "position", points);
    Optional<FloatRows> const normals = pointAttribute(normal, "normal", points);
    Optional<FloatRows> const directions = pointAttribute(direction, "direction", points);
    if (directions)
        for (std::size_t i = 0; i < directions->rows; ++i) {
            Pos const d = posAt(directions->data, 3, i);
            if (!finite(d) || (d.x == 0.f && d.y == 0.f && d.z == 0.f))
                throw py::value_error("direction must be finite and not (0, 0, 0)");
        }
    std::size_t const channels = what == Evaluation::Color ? 4 : (what == Evaluation::Mono ? 2 : 3);
    py::array_t<float> out = newFloatArray(points.leadingShape, channels);
    float* const target = out.mutable_data();
    // Built once from the record; the evaluator is immutable and shared by the workers.
    SharedPtr<IMapEvaluator> const evaluator = map.getEvaluatorImpl().evaluator;
    requireLoadedTextures(map);
    bool const batched = what != Evaluation::Bump && !positions && !normals && !directions && readsOnlyUvw(map, *evaluator);
    {
        py::gil_scoped_release release;
        parallelFor(0, std::int64_t(points.rows), 1024, [&](std::int64_t begin, std::int64_t end) {
            if (batched) return evaluateBatched(*evaluator, what, points, footprints, begin, end, target);
            for (auto i = std::size_t(begin); i < std::size_t(end); ++i) {
                ShadingPoint p;
                p.uvw = posAt(points.data, points.channels, i);
                p.position = positions ? posAt(positions->data, 3, i) : p.uvw;
                if (normals)
                    p.normal = toDir(posAt(normals->data, 3, i));
                if (directions)
                    p.direction = toDir(posAt(directions->data, 3, i));
                footprints.apply(p, i);
                PointShadeContext const context(p);
                float* o = target + i * channels;
                if (what == Evaluation::Color) {
                    RgbAlpha const c = evaluator->evalColor(context, nullptr);
                    o[0] = c.r, o[1] = c.g, o[2] = c.b, o[3] = c.alpha;
                } else if (what == Evaluation::Mono) {
                    MonoAlpha const v = evaluator->evalMono(context, nullptr);
                    o[0] = v.value, o[1] = v.alpha;
                } else {
                    Dir const d = evaluator->evalBump(context, nullptr);
                    o[0] = d.x, o[1] = d.y, o[2] = d.z;
                }
            }
        });
    }
    // A tile of a tiled file that could not be read was read as 0: raised, not returned.
    requireLoadedTextures(map);
    return out;
}

/// The scene text and the name its errors use.
std::pair<String, String> sceneText(py::handle scene, String const& shape) {
    if (scene.is_none())
        return {String(FerrimTool::getDemoSceneText()), "demo scene"};
    if (py::isinstance<IMap>(scene)) {
        nlohmann::json const one{{"map", entityToJson(scene.cast<IMap const&>())}, {"shape", shape}};
        return {one.dump(), "map"};
    }
    if (PyDict_Check(scene.ptr()))
        return {toJson(scene, "scene").dump(), "scene"};
    if (PyUnicode_Check(scene.ptr()) || py::hasattr(scene, "__fspath__")) {
        String const path = py::module_::import("os").attr("fspath")(scene).cast<String>();
        // Regular files only, checked before opening (a FIFO would block), of a bounded size.
        constexpr std::int64_t MAX_SCENE_FILE_BYTES = 64 << 20;
        auto text = Io::readTextFile(Io::pathFromUtf8(path), MAX_SCENE_FILE_BYTES);
        if (!text) {
            // The reason without the path that the error starts with: the path is quoted here.
            String reason = text.error();
            if (reason.starts_with(path + ": ")) reason.erase(0, path.size() + 2);
            raiseError("cannot read scene file \"" + path + "\": " + reason);
        }
        return {std::move(*text), path};
    }
    throw py::type_error("scene must be None (the demo scene), a ferrim.Map, a scene dict or a scene file path");
}

py::array_t<float> render(py::handle sceneSource, Optional<int> width, Optional<int> height, Optional<int> samples,
                          String const& shape, bool display) {
    if (shape != "sphere" && shape != "plane")
        throw py::value_error("shape must be \"sphere\" or \"plane\"");
    auto const [text, source] = sceneText(sceneSource, shape);
    auto scene = FerrimTool::parseScene(text, source);
    if (!scene)
        raiseError(scene.error());
    Expected<void> loaded;
    {
        py::gil_scoped_release release;
        loaded = FerrimTool::loadSceneTextures(*scene, source);
    }
    if (!loaded)
        raiseTextureError(loaded.error());
    if (samples) {
        if (*samples < 1 || *samples > 256)
            throw py::value_error("samples must be from 1 to 256");
        scene->samples = *samples;
    }
    if (width.has_value() != height.has_value())
        throw py::value_error("give both width and height, or neither");
    auto const [columns, rows] = FerrimTool::gridOf(*scene);
    int const w = width.value_or(256 * columns), h = height.value_or(256 * rows);
    if (w < 1 || h < 1 || w > 16384 || h > 16384)
        throw py::value_error("width and height must be from 1 to 16384");

    FerrimTool::LinearImage image;
    Expected<void> mapped;
    {
        py::gil_scoped_release release;
        image = FerrimTool::renderScene(*scene, w, h, {});
        if (display)
            mapped = FerrimTool::mapToDisplay(image, scene->pipeline);
    }
    if (!mapped)
        raiseError(mapped.error());
    // The array takes the pixels over without a copy.
    auto* pixels = new Stack<float>(std::move(image.rgba));
    py::capsule owner(pixels, [](void* p) { delete static_cast<Stack<float>*>(p); });
    return py::array_t<float>({py::ssize_t(h), py::ssize_t(w), py::ssize_t(4)}, pixels->data(), owner);
}

char const* const EVAL_DOC_TAIL = R"(

uvw: float32 array of shape (..., 3), or (..., 2) with w = 0.
position: optional float32 array (..., 3); the uvw points when omitted.
normal: optional float32 array (..., 3) of unit normals; (0, 0, 1) when omitted.
footprint: filter width around each point (0: no filtering), one for all
points or a float32 array with one per point (the leading shape of uvw).
duvw_dx, duvw_dy: instead of a footprint, the UV derivatives along the image's
x and y, float32 arrays (..., 2) or (..., 3); each axis is filtered over the box
around the pixel's parallelogram (|d/dx| + |d/dy|).
direction: optional float32 array (..., 3) of ray directions: the points are
then environment (background) rays, looked up by direction by maps that map
environments (a texture map's "enviroMode"); the footprint is then the ray's
width in radians.
ferrim.TextureError: a texture map of the graph has no image (its error text).
The points are evaluated in parallel on every core, without the interpreter lock.)";

} // namespace

void bindMaps(py::module_& m) {
    auto map = py::class_<IMap, Entity, SharedPtr<IMap>>(
        m, "Map", "A texture map: an entity that gives a colour, a value and a bump.");
    struct Method {
        char const* name;
        Evaluation what;
        char const* summary;
    };
    for (Method const& method : {
             Method{"eval_color", Evaluation::Color, "The map's colour and alpha at each point: an array (..., 4)."},
             Method{"eval_mono", Evaluation::Mono, "The map's value and alpha at each point: an array (..., 2)."},
             Method{"eval_bump", Evaluation::Bump,
                    "The map's bump perturbation of the normal at each point: an array (..., 3)."},
         }) {
        Evaluation const what = method.what;
        map.def(
            method.name,
            [what](IMap const& self, py::handle uvw, py::handle position, py::handle normal, py::handle footprint,
                   py::handle duvwDx, py::handle duvwDy, py::handle direction) {
                return evaluate(self, what, uvw, position, normal, footprint, duvwDx, duvwDy, direction);
            },
            py::arg("uvw"), py::arg("position") = py::none(), py::arg("normal") = py::none(), py::kw_only(),
            py::arg("footprint") = 0.f, py::arg("duvw_dx") = py::none(), py::arg("duvw_dy") = py::none(),
            py::arg("direction") = py::none(), (String(method.summary) + EVAL_DOC_TAIL).c_str());
    }

    m.def("render", &render, py::arg("scene") = py::none(), py::kw_only(), py::arg("width") = py::none(),
          py::arg("height") = py::none(), py::arg("samples") = py::none(), py::arg("shape") = "sphere",
          py::arg("display") = true,
          R"(Renders swatches as `ferrim render` does, into a float32 array (H, W, 4), top row first.

scene: None for the demo scene, a ferrim.Map (one swatch of the given shape,
"sphere" or "plane"), a scene dict, or the path of a scene file.
width, height: the image size (default 256 pixels per swatch).
samples: samples per pixel, rounded to a square (default: the scene's).
display: map the render through the scene's colour-mapping pipeline (default
pipeline when the scene has none) to display values; False keeps radiance.)");
}

} // namespace FerrimPython
