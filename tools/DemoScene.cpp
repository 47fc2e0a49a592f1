#include "Scene.h"

#include <OpenImageIO/filesystem.h>
#include <OpenImageIO/imageio.h>

#include <cmath>

#include "Ferrim/TextureMap/TextureMap.h"
#include "QuelinLib/DataSource.h"
#include "QuelinLibImage/Image.h"

using namespace Quelin;

namespace FerrimTool {

namespace {

std::uint32_t hash2(int x, int y) {
    std::uint32_t h = std::uint32_t(x) * 0x9E3779B1u ^ std::uint32_t(y) * 0x85EBCA77u;
    h ^= h >> 15;
    h *= 0x2C1B3C6Du;
    h ^= h >> 12;
    return h;
}

/// Bricks with mortar joints, each brick its own shade, speckled: 8-bit RGBA.
Image makeBrickImage() {
    int const size = 256, brickW = 64, brickH = 32, joint = 3;
    Image image(Image::Descriptor(Pixel(size, size), PixelFormat::Rgba8));
    for (int y = 0; y < size; ++y) {
        int const course = y / brickH;
        int const shift = (course & 1) * brickW / 2;
        for (int x = 0; x < size; ++x) {
            int const bx = (x + shift) % size / brickW;
            bool const mortar = y % brickH < joint || (x + shift) % brickW < joint;
            float const speckle = float(hash2(x, y) & 255) / 255.f * 0.12f;
            float const tone = float(hash2(bx, course) % 100) / 100.f;
            Rgb const c = mortar ? Rgb(0.78f, 0.76f, 0.7f) : Rgb(0.55f + 0.25f * tone, 0.2f + 0.1f * tone, 0.12f);
            image.setRgbAlpha(x, y, RgbAlpha(c * (0.94f + speckle), 1.f));
        }
    }
    return image;
}

/// A latitude-longitude sky over a chequered ground with a small bright sun:
/// float RGB, top row +z, u = 0 along +x.
Image makeSkyImage() {
    int const w = 512, h = 256;
    Dir const sun = normalize(Dir(0.5f, 0.8f, 0.35f));
    Image image(Image::Descriptor(Pixel(w, h), PixelFormat::RgbFloat));
    for (int y = 0; y < h; ++y) {
        float const theta = (float(y) + 0.5f) / float(h) * PI;
        for (int x = 0; x < w; ++x) {
            float const phi = (float(x) + 0.5f) / float(w) * TWO_PI;
            Dir const d(std::sin(theta) * std::cos(phi), std::sin(theta) * std::sin(phi), std::cos(theta));
            Rgb c;
            if (d.z >= 0.f) {
                float const t = std::pow(d.z, 0.6f);
                c = Rgb(0.85f, 0.88f, 0.95f) * (1.f - t) + Rgb(0.12f, 0.3f, 0.85f) * t;
                float const s = dot(d, sun);
                if (s > 0.9995f) c += Rgb(60.f, 55.f, 45.f);
                else c += Rgb(1.f, 0.8f, 0.5f) * (0.6f * std::pow(std::max(s, 0.f), 64.f));
            } else {
                bool const tile = ((x * 24 / w) + (y * 12 / h)) & 1;
                c = tile ? Rgb(0.35f, 0.3f, 0.22f) : Rgb(0.16f, 0.2f, 0.12f);
            }
            image.setRgbAlpha(x, y, RgbAlpha(c, 1.f));
        }
    }
    return image;
}

/// The image encoded as a file of the format `extension` names, in memory.
Expected<String> encodeInMemory(Image const& image, char const* extension) {
    OIIO::TypeDesc const type = getChannelType(image.getFormat()) == ChannelType::Float ? OIIO::TypeDesc::FLOAT
                                                                                        : OIIO::TypeDesc::UINT8;
    std::vector<unsigned char> bytes;
    OIIO::Filesystem::IOVecOutput proxy(bytes);
    auto out = OIIO::ImageOutput::create(extension);
    if (!out) return makeError(String("cannot encode a demo image as ") + extension);
    OIIO::ImageSpec spec(image.getWidth(), image.getHeight(), getChannelCount(image.getFormat()), type);
    void* proxyPointer = &proxy;
    spec.attribute("oiio:ioproxy", OIIO::TypeDesc::PTR, &proxyPointer);
    if (!out->open(String("demo.") + extension, spec) || !out->write_image(type, image.getData()) || !out->close())
        return makeError(String("cannot encode a demo image: ") + out->geterror());
    return String(reinterpret_cast<char const*>(bytes.data()), bytes.size());
}

Expected<Swatch> textureSwatch(String label, SwatchShape shape, Image const& image, char const* extension,
                               Function<void(TextureMap&)> const& configure) {
    auto bytes = encodeInMemory(image, extension);
    if (!bytes) return makeError(bytes.error());
    auto map = makeSharedPtr<TextureMap>();
    map->set("imageSource", EntityHolder<Entity>(MemoryDataSource::make(std::move(*bytes), extension)));
    configure(*map);
    Swatch s;
    s.label = std::move(label);
    s.shape = shape;
    s.map = EntityHolder<IMap>(map);
    return s;
}

} // namespace

// The contact sheet that `ferrim` renders without a scene file: every map of
// the library, two nested graphs, a material slot and a bump-shaded swatch.
Quelin::StringView getDemoSceneText() {
    return R"json({
  "columns": 4,
  "samples": 4,
  "swatches": [
    {"label": "checker, soft edges", "shape": "sphere",
     "map": {"@class": "Zatho.CheckerMap", "softenFactor": 0.02,
             "color1": {"color": [0.05, 0.12, 0.35]}, "color2": {"color": [0.9, 0.85, 0.7]},
             "uvMapper": {"@class": "Zatho.UvMapper", "scale": [4, 4, 1]}}},
    {"label": "noise, regular", "shape": "sphere",
     "map": {"@class": "Zatho.NoiseMap", "type": "REGULAR", "size": 0.15,
             "color1": {"color": [0.02, 0.1, 0.02]}, "color2": {"color": [0.6, 0.8, 0.3]}}},
    {"label": "noise, fractal with thresholds", "shape": "sphere",
     "map": {"@class": "Zatho.NoiseMap", "type": "FRACTAL", "size": 0.25, "levels": 5.5,
             "minThreshold": 0.3, "maxThreshold": 0.7,
             "color1": {"color": [0.9, 0.9, 0.95]}, "color2": {"color": [0.1, 0.25, 0.6]}}},
    {"label": "cellular, circular", "shape": "sphere",
     "map": {"@class": "Zatho.CellularMap", "shape": "CIRCULAR", "size": 0.12,
             "highColor": {"color": [1.0, 0.95, 0.8]}, "midColor": {"color": [0.8, 0.4, 0.1]},
             "lowColor": {"color": [0.15, 0.02, 0.0]}}},
    {"label": "cellular, chips", "shape": "sphere",
     "map": {"@class": "Zatho.CellularMap", "shape": "CHIPS", "size": 0.15,
             "highColor": {"color": [0.9, 0.9, 0.9]}, "midColor": {"color": [0.45, 0.5, 0.55]},
             "lowColor": {"color": [0.05, 0.05, 0.08]}}},
    {"label": "gradient, radial with eased stops", "shape": "plane",
     "map": {"@class": "Zatho.GradientMap", "type": "radial", "customInterpolation": true,
             "stops": [
               {"name": "Stop #1", "position": 0.0, "interpolation": "ease_in_out", "color": {"color": [1.0, 0.9, 0.3]}},
               {"name": "Stop #2", "position": 0.6, "interpolation": "linear", "color": {"color": [0.8, 0.1, 0.3]}},
               {"name": "Stop #3", "position": 1.0, "interpolation": "solid", "color": {"color": [0.05, 0.0, 0.15]}}]}},
    {"label": "material slot: base colour mixed with a spiral gradient", "shape": "plane",
     "slot": {"color": [0.9, 0.35, 0.1], "interpolationMode": "Mix", "alphaBlendMultiplier": 0.6,
              "mapTint": [0.6, 0.8, 1.0], "map": {"@class": "Zatho.GradientMap", "type": "spiral"}}},
    {"label": "checker whose input is a noise map", "shape": "sphere",
     "map": {"@class": "Zatho.CheckerMap",
             "uvMapper": {"@class": "Zatho.UvMapper", "scale": [3, 3, 1]},
             "color1": {"color": [0.1, 0.1, 0.1]},
             "color2": {"map": {"@class": "Zatho.NoiseMap", "type": "FRACTAL", "size": 0.05,
                                "color1": {"color": [0.7, 0.2, 0.05]}, "color2": {"color": [1.0, 0.8, 0.3]}}}}},
    {"label": "gradient whose stop is a cellular map", "shape": "plane",
     "map": {"@class": "Zatho.GradientMap", "type": "diagonal",
             "stops": [
               {"name": "Stop #1", "position": 0.0, "color": {"color": [0.0, 0.2, 0.4]}},
               {"name": "Stop #2", "position": 0.5,
                "color": {"map": {"@class": "Zatho.CellularMap", "size": 0.08,
                                  "highColor": {"color": [1, 1, 1]}, "midColor": {"color": [0.3, 0.7, 0.9]},
                                  "lowColor": {"color": [0.0, 0.1, 0.3]}}}},
               {"name": "Stop #3", "position": 1.0, "color": {"color": [0.9, 0.95, 1.0]}}]}},
    {"label": "mix: overlay of two noises through a cellular mask", "shape": "sphere",
     "map": {"@class": "Zatho.MixMap", "blendMode": "Overlay", "useCurve": true, "curveLower": 0.3, "curveUpper": 0.7,
             "color1": {"map": {"@class": "Zatho.NoiseMap", "size": 0.2,
                                "color1": {"color": [0.1, 0.3, 0.6]}, "color2": {"color": [0.6, 0.8, 0.9]}}},
             "color2": {"map": {"@class": "Zatho.NoiseMap", "type": "FRACTAL", "size": 0.05,
                                "color1": {"color": [0.2, 0.2, 0.2]}, "color2": {"color": [0.9, 0.6, 0.3]}}},
             "mask": {"@class": "Zatho.CellularMap", "size": 0.15}}},
    {"label": "multi: checker, multiplied noise, screened gradient", "shape": "plane",
     "map": {"@class": "Zatho.MultiMap", "layers": [
               {"input": {"map": {"@class": "Zatho.CheckerMap", "uvMapper": {"@class": "Zatho.UvMapper", "scale": [4, 4, 1]},
                                  "color1": {"color": [0.2, 0.2, 0.25]}, "color2": {"color": [0.8, 0.8, 0.75]}}}},
               {"input": {"map": {"@class": "Zatho.NoiseMap", "size": 0.1}}, "blendMode": "Multiply", "opacity": 0.8},
               {"input": {"map": {"@class": "Zatho.GradientMap", "type": "radial"}}, "blendMode": "Screen", "opacity": 0.5}]}},
    {"label": "falloff, perpendicular/parallel with a curve", "shape": "sphere",
     "map": {"@class": "Zatho.FalloffMap", "useCurve": true, "curveLower": 0.2, "curveUpper": 0.9,
             "color1": {"color": [0.05, 0.1, 0.4]}, "color2": {"color": [0.7, 0.9, 1.0]}}},
    {"label": "falloff, Fresnel over a noise", "shape": "sphere",
     "map": {"@class": "Zatho.FalloffMap", "falloffType": "Fresnel", "ior": 1.5,
             "color1": {"map": {"@class": "Zatho.NoiseMap", "size": 0.1,
                                "color1": {"color": [0.3, 0.05, 0.02]}, "color2": {"color": [0.5, 0.2, 0.05]}}},
             "color2": {"color": [1.0, 1.0, 1.0]}}},
    {"label": "Fresnel of gold (n, k)", "shape": "sphere",
     "map": {"@class": "Zatho.FresnelMap", "conductor": true}},
    {"label": "front/back (front shown)", "shape": "plane",
     "map": {"@class": "Zatho.FrontBackMap", "front": {"map": {"@class": "Zatho.CheckerMap"}}, "back": {"color": [1, 0, 0]}}},
    {"label": "colour math: noise to the power of a gradient", "shape": "plane",
     "map": {"@class": "Zatho.ColorMathMap", "operation": "Power",
             "a": {"map": {"@class": "Zatho.NoiseMap", "type": "FRACTAL", "size": 0.1}},
             "b": {"map": {"@class": "Zatho.GradientMap", "type": "linear"}}}},
    {"label": "select by an index map (three times a noise)", "shape": "sphere",
     "map": {"@class": "Zatho.SelectMap", "source": "IndexMap",
             "indexMap": {"@class": "Zatho.ColorMathMap", "operation": "Multiply", "b": {"color": [3, 3, 3]},
                          "a": {"map": {"@class": "Zatho.NoiseMap", "size": 0.3}}},
             "inputs": [{"input": {"color": [0.8, 0.2, 0.1]}}, {"input": {"color": [0.1, 0.6, 0.2]}},
                        {"input": {"color": [0.1, 0.3, 0.8]}}]}},
    {"label": "ray switcher (camera rays)", "shape": "sphere",
     "map": {"@class": "Zatho.RaySwitchMap", "camera": {"map": {"@class": "Zatho.CellularMap", "size": 0.1}},
             "reflection": {"color": [1, 0, 0]}, "shadow": {"color": [0, 0, 0]}}},
    {"label": "user property \"tint\" (absent: default)", "shape": "plane",
     "map": {"@class": "Zatho.UserPropertyMap", "propertyName": "tint",
             "default": {"map": {"@class": "Zatho.GradientMap", "type": "sweep"}}}},
    {"label": "normal map from a soft checker, with a noise bump", "shape": "sphere", "bump": true,
     "map": {"@class": "Zatho.NormalMap", "strength": 0.8, "bumpStrength": 0.5,
             "normalMap": {"map": {"@class": "Zatho.CheckerMap", "softenFactor": 0.1,
                                   "uvMapper": {"@class": "Zatho.UvMapper", "scale": [6, 3, 1]},
                                   "color1": {"color": [0.3, 0.5, 0.9]}, "color2": {"color": [0.7, 0.5, 0.9]}}},
             "bumpMap": {"@class": "Zatho.NoiseMap", "size": 0.05}}},
    {"label": "mapping randomizer: each tile turned and shifted", "shape": "plane", "tiling": 4,
     "map": {"@class": "Zatho.MappingRandomizerMap", "randomBy": "None", "perTile": true, "rotation": 180,
             "offsetU": 0.3, "offsetV": 0.3, "flipU": true,
             "map": {"@class": "Zatho.GradientMap", "type": "diagonal"}}},
    {"label": "mapping randomizer: a tiled radial gradient, stochastic tiling", "shape": "plane", "tiling": 4,
     "map": {"@class": "Zatho.MappingRandomizerMap", "randomBy": "None", "stochastic": true, "stochasticSize": 0.4,
             "map": {"@class": "Zatho.GradientMap", "type": "radial"}}},
    {"label": "debug: shading normals", "shape": "sphere",
     "map": {"@class": "Zatho.DebugMap", "show": "Normal"}},
    {"label": "bump of a cellular map", "shape": "sphere", "bump": true,
     "map": {"@class": "Zatho.CellularMap", "shape": "CHIPS", "size": 0.1}},
    {"label": "triplanar: one checker boxed along the object axes", "shape": "sphere",
     "map": {"@class": "Zatho.TriplanarMap", "size": 0.5, "blend": 0.3, "rotationZ": 30,
             "mapX": {"map": {"@class": "Zatho.CheckerMap",
                              "color1": {"color": [0.1, 0.2, 0.5]}, "color2": {"color": [0.95, 0.9, 0.8]}}}}},
    {"label": "triplanar: three maps, hard seams", "shape": "sphere",
     "map": {"@class": "Zatho.TriplanarMap", "sameMapOnEveryAxis": false, "size": 0.4, "blend": 0.0,
             "mapX": {"map": {"@class": "Zatho.CheckerMap", "color1": {"color": [0.6, 0.1, 0.1]}}},
             "mapY": {"map": {"@class": "Zatho.NoiseMap", "size": 0.1, "color2": {"color": [0.2, 0.8, 0.2]}}},
             "mapZ": {"map": {"@class": "Zatho.CellularMap", "size": 0.15,
                              "highColor": {"color": [0.3, 0.4, 1.0]}}}}},
    {"label": "colour correct: a noise turned, saturated and brightened", "shape": "sphere",
     "map": {"@class": "Zatho.ColorCorrectMap", "hueShift": 140, "saturation": 1.6, "exposure": 0.5,
             "gamma": 1.3, "contrast": 0.2,
             "color": {"map": {"@class": "Zatho.NoiseMap", "type": "FRACTAL", "size": 0.2,
                               "color1": {"color": [0.5, 0.1, 0.05]}, "color2": {"color": [0.9, 0.7, 0.2]}}}}},
    {"label": "colour correct: channels rewired (blue from red, red from mono)", "shape": "plane",
     "map": {"@class": "Zatho.ColorCorrectMap", "rewireRed": "MONO", "rewireBlue": "RED", "rewireGreen": "BLUE_INVERSE",
             "color": {"map": {"@class": "Zatho.GradientMap", "type": "radial"}}}},
    {"label": "fractal: fBm, 7 octaves", "shape": "sphere",
     "map": {"@class": "Zatho.FractalMap", "type": "FBM", "octaves": 7, "size": 0.4,
             "color1": {"color": [0.05, 0.1, 0.3]}, "color2": {"color": [0.9, 0.95, 1.0]}}},
    {"label": "fractal: ridged multifractal", "shape": "plane",
     "map": {"@class": "Zatho.FractalMap", "type": "RIDGED", "octaves": 6, "size": 0.5, "offset": 1.0,
             "color1": {"color": [0.1, 0.05, 0.02]}, "color2": {"color": [1.0, 0.85, 0.6]}}},
    {"label": "fractal: turbulence", "shape": "sphere",
     "map": {"@class": "Zatho.FractalMap", "type": "TURBULENCE", "octaves": 5, "size": 0.3,
             "color1": {"color": [0.9, 0.3, 0.0]}, "color2": {"color": [1.0, 1.0, 0.6]}}},
    {"label": "bump of a Worley fractal", "shape": "sphere", "bump": true,
     "map": {"@class": "Zatho.FractalMap", "type": "WORLEY", "octaves": 3, "size": 0.3}},
    {"label": "ambient occlusion from the ground and the box", "shape": "sphere",
     "map": {"@class": "Zatho.AmbientOcclusionMap", "samples": 16, "radius": 1.0,
             "occludedColor": {"color": [0.05, 0.04, 0.03]}, "unoccludedColor": {"color": [0.95, 0.9, 0.8]}}},
    {"label": "ambient occlusion around a box on a plane", "shape": "plane",
     "map": {"@class": "Zatho.AmbientOcclusionMap", "samples": 16, "radius": 0.3}},
    {"label": "distance to the box", "shape": "sphere",
     "map": {"@class": "Zatho.DistanceMap", "objectIds": "3", "farDistance": 0.8, "falloff": 0.7,
             "nearColor": {"color": [1.0, 0.35, 0.05]}, "farColor": {"color": [0.1, 0.2, 0.45]}}},
    {"label": "curvature of a box on a plane", "shape": "plane",
     "map": {"@class": "Zatho.CurvatureMap", "radius": 0.04, "scale": 0.04}},
    {"label": "round edges of a box on a plane", "shape": "plane", "bump": true,
     "map": {"@class": "Zatho.RoundEdgesMap", "radius": 0.06, "samples": 16, "mode": "all_objects"}},
    {"label": "wireframe, 1.5 pixels", "shape": "sphere",
     "map": {"@class": "Zatho.WireframeMap", "width": 1.5, "units": "pixels",
             "edgeColor": {"color": [0.9, 0.95, 1.0]}, "faceColor": {"color": [0.05, 0.1, 0.2]}}}
  ]
})json";
}

Expected<Scene> makeDemoScene() {
    auto scene = parseScene(getDemoSceneText(), "demo scene");
    if (!scene) return scene;
    auto bricks = textureSwatch("image texture made in memory, bicubic", SwatchShape::Sphere, makeBrickImage(), "png",
                                [](TextureMap& map) {
                                    map.set("interpolation", InterpolationMode::Bicubic);
                                    auto mapper = makeSharedPtr<UvMapper>();
                                    mapper->set("scale", Pos(2, 2, 1));
                                    map.set("uvMapper", EntityHolder<Entity>(mapper));
                                });
    if (!bricks) return makeError(bricks.error());
    auto sky = textureSwatch("latitude-longitude environment in a mirror ball", SwatchShape::Environment,
                             makeSkyImage(), "exr", [](TextureMap&) {});
    if (!sky) return makeError(sky.error());
    scene->swatches.push_back(std::move(*bricks));
    scene->swatches.push_back(std::move(*sky));
    return scene;
}

} // namespace FerrimTool
