// Colour mapping from Python: operators, pipelines (default, .ctm files,
// JSON), mapping numpy images in place on all cores, unmapping colours, and
// reading LUT files into arrays.
#include <climits>
#include <span>

#include "Bindings.h"
#include "Ferrim/ColorMapping.h"
#include "Ferrim/colorMappingOperators/Lut.h"
#include "Ferrim/colorMappingOperators/LutOperator.h"
#include "QuelinLib/TaskScheduler.h"

namespace FerrimPython {

using namespace Quelin;

namespace {

ColorMappingOperatorFactory& factory() { return ColorMappingOperatorFactory::getInstance(); }

constexpr std::pair<char const*, ColorMappingExclude> EXCLUDE_STAGES[] = {
    {"Exposure", ColorMappingExclude::Exposure},
    {"WhiteBalance", ColorMappingExclude::WhiteBalance},
    {"GreenMagentaTint", ColorMappingExclude::GreenMagentaTint},
    {"Saturation", ColorMappingExclude::Saturation},
    {"Reinhard", ColorMappingExclude::Reinhard},
    {"Filmic", ColorMappingExclude::Filmic},
    {"Contrast", ColorMappingExclude::Contrast},
    {"Lut", ColorMappingExclude::Lut},
    {"Tint", ColorMappingExclude::Tint},
    {"SrgbConversion", ColorMappingExclude::SrgbConversion},
    {"Curves", ColorMappingExclude::Curves},
    {"AdvancedFilmic", ColorMappingExclude::AdvancedFilmic},
    {"ToneCurve", ColorMappingExclude::ToneCurve},
    {"AcesOt", ColorMappingExclude::AcesOt},
};

String foldName(String s) {
    std::erase_if(s, [](char c) { return c == '_' || c == '-' || c == ' '; });
    for (char& c : s)
        c = char(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

std::uint32_t excludeBitsOf(py::handle item) {
    if (PyLong_Check(item.ptr())) {
        auto const bits = item.cast<long long>();
        if (bits < 0 || bits > COLOR_MAPPING_EXCLUDE_ALL)
            throw py::value_error("exclude: " + std::to_string(bits) + " is not a set of ferrim.Exclude bits");
        return std::uint32_t(bits);
    }
    if (PyUnicode_Check(item.ptr())) {
        String const name = foldName(item.cast<String>());
        if (name == "all")
            return COLOR_MAPPING_EXCLUDE_ALL;
        String known;
        for (auto const& [label, value] : EXCLUDE_STAGES) {
            if (foldName(label) == name)
                return std::uint32_t(value);
            known += (known.empty() ? "" : ", ") + String(label);
        }
        throw py::value_error("exclude: unknown stage \"" + item.cast<String>() + "\" (one of " + known + ", all)");
    }
    throw py::type_error("exclude: expected stage names, ferrim.Exclude values or an int");
}

/// None, an int (ferrim.Exclude is one), one name, or an iterable of names and values.
Flags<ColorMappingExclude> parseExclude(py::handle exclude) {
    std::uint32_t bits = 0;
    if (exclude.is_none())
        return {};
    if (PyUnicode_Check(exclude.ptr()) || PyLong_Check(exclude.ptr()))
        bits = excludeBitsOf(exclude);
    else
        for (auto const& item : py::iter(exclude))
            bits |= excludeBitsOf(item);
    return Flags<ColorMappingExclude>::fromBits(bits);
}

bool sameContext(ColorMappingContext const& a, ColorMappingContext const& b) {
    return a.gamma == b.gamma && a.iso == b.iso && a.fNumber == b.fNumber && a.shutterSpeed == b.shutterSpeed &&
           a.applyOperators == b.applyOperators && a.vignetteAllowed == b.vignetteAllowed &&
           a.resourceDirectory == b.resourceDirectory && a.imageSize == b.imageSize && a.regionOffset == b.regionOffset;
}

void warn(String const& message) {
    if (PyErr_WarnEx(PyExc_UserWarning, message.c_str(), 2) < 0)
        throw py::error_already_set();
}

/// The user's list of operators, first first, and the preparation settings.
/// Mapping works on a chain built from copies of the operators' records, so
/// editing an operator from another thread never races with a mapping, and
/// the next call sees the edit.
class Pipeline {
  public:
    Stack<EntityHolder<UnaryColorMappingOperator>> operators;
    CommonColorMappingContext context;

    static Pipeline fromChain(EntityHolder<const IColorMappingOperator> chain) {
        Pipeline p;
        for (auto const& record : convertPipelineToDataObjects(chain, HiddenItemsTreatment::Skip))
            if (auto op = factory().createOperator(record))
                p.operators.push_back(op);
        return p;
    }

    static Pipeline fromLoaded(Expected<LoadedPipeline> loaded) {
        if (!loaded)
            raiseError(loaded.error());
        if (!loaded->warning.empty())
            warn(loaded->warning);
        return fromChain(loaded->pipeline);
    }

    /// The flat form: one record per operator, "predecessor" empty.
    Stack<GenericDataObject> records() const {
        Stack<GenericDataObject> result;
        for (auto const& op : operators) {
            GenericDataObject record = op->getData();
            (void)record.setValue("predecessor", EntityHolder<Entity>());
            result.push_back(std::move(record));
        }
        return result;
    }

    EntityHolder<IColorMappingOperator> buildChain() const { return createPipeline(records()); }

    /// The mapping for the current records and settings, rebuilt only when
    /// they changed. Without a size the last one is kept (unmapping does not
    /// depend on it).
    SharedPtr<ColorMapping const> prepare(Optional<Vector2> imageSize) {
        Stack<GenericDataObject> current = records();
        ColorMappingContext prepared(context,
                                     imageSize.value_or(mPrepared ? mPrepared->context.imageSize : Vector2(1.f, 1.f)));
        if (mPrepared && mPrepared->records == current && sameContext(mPrepared->context, prepared))
            return mPrepared->mapping;
        auto mapping = makeSharedPtr<ColorMapping>(createPipeline(current), context, false);
        mapping->setContext(prepared);
        for (auto const& op : getPipelineOperators(mapping->getAppliedChain()))
            if (auto const* lut = dynamic_cast<LutOperator const*>(op.get()); lut && !lut->getLoadError().empty())
                warn("LUT operator left neutral: " + lut->getLoadError());
        mPrepared = makeSharedPtr<Prepared>(Prepared{std::move(current), prepared, mapping});
        return mapping;
    }

  private:
    struct Prepared {
        Stack<GenericDataObject> records;
        ColorMappingContext context;
        SharedPtr<ColorMapping const> mapping;
    };
    SharedPtr<Prepared const> mPrepared;
};

EntityHolder<UnaryColorMappingOperator> toOperator(py::handle value) {
    if (py::isinstance<UnaryColorMappingOperator>(value)) {
        auto op = value.cast<SharedPtr<UnaryColorMappingOperator>>();
        // Legacy operators only load; mapping through one would stop.
        if (!factory().containsDescriptor(op->getClassName()))
            raiseError("\"" + op->getClassName() + "\" is a legacy operator and cannot be part of a pipeline");
        return op;
    }
    if (!PyUnicode_Check(value.ptr()))
        throw py::type_error("a pipeline holds ferrim.Operator objects or operator type names");
    String const name = value.cast<String>();
    if (auto op = factory().createOperator(StringView(resolveTypeName(name))))
        return op;
    String known;
    for (auto const& [type, d] : factory().getAllDescriptors())
        known += (known.empty() ? "" : ", ") + type;
    raiseError("unknown operator type \"" + name + "\" (one of " + known + ")");
}

std::size_t checkedIndex(Pipeline const& p, py::ssize_t index) {
    py::ssize_t const n = py::ssize_t(p.operators.size());
    if (index < 0)
        index += n;
    if (index < 0 || index >= n)
        throw py::index_error("pipeline index out of range");
    return std::size_t(index);
}

py::object mapImage(Pipeline& p, py::object image, bool inPlace, int threads) {
    if (threads < 0)
        throw py::value_error("threads must be 0 (all cores) or a positive count");
    char const* const shape = "(H, W, 3) or (H, W, 4)";
    py::object target = image;
    if (!inPlace) {
        // Checked first so that a wrong array is refused before it is copied.
        requireFloatRows(image, "image", shape, {3, 4}, 3, false, false);
        target = py::module_::import("numpy").attr("array")(image, py::arg("order") = "C", py::arg("copy") = true);
    }
    FloatRows rows = requireFloatRows(target, "image", shape, {3, 4}, 3, true, true);
    py::ssize_t const height = rows.leadingShape[0], width = rows.leadingShape[1];
    if (width > INT_MAX || height > INT_MAX)
        throw py::value_error("image is too large to map");
    auto const mapping = p.prepare(Vector2(float(width), float(height)));
    std::size_t const pixels = rows.rows;
    {
        py::gil_scoped_release release;
        if (rows.channels == 3)
            mapping->mapFrameBuffer(std::span<Rgb>(reinterpret_cast<Rgb*>(rows.data), pixels), int(width), int(height),
                                    threads);
        else
            mapping->mapFrameBuffer(std::span<RgbAlpha>(reinterpret_cast<RgbAlpha*>(rows.data), pixels), int(width),
                                    int(height), threads);
    }
    return target;
}

py::array_t<float> unmapColors(Pipeline& p, py::handle colors, py::handle exclude) {
    FloatRows const in = requireFloatRows(colors, "colors", "(..., 3)", {3}, 0, false, true);
    Flags<ColorMappingExclude> const flags = parseExclude(exclude);
    auto const mapping = p.prepare(std::nullopt);
    py::array_t<float> out = newFloatArray(in.leadingShape, 3);
    Rgb const* source = reinterpret_cast<Rgb const*>(in.data);
    Rgb* target = reinterpret_cast<Rgb*>(out.mutable_data());
    {
        py::gil_scoped_release release;
        parallelFor(0, std::int64_t(in.rows), 4096, [&](std::int64_t begin, std::int64_t end) {
            for (std::int64_t i = begin; i < end; ++i)
                target[i] = mapping->unmap(source[i], flags);
        });
    }
    return out;
}

py::tuple rgbTuple(Rgb const& c) { return py::make_tuple(c.r, c.g, c.b); }

py::dict readLut(String const& path) {
    auto lut = readLutFile(path);
    if (!lut)
        raiseError(lut.error());
    py::dict result;
    result["title"] = lut->title;
    result["shaper"] = py::none();
    result["shaper_domain"] = py::none();
    result["cube"] = py::none();
    result["cube_domain"] = py::none();
    if (lut->lut1d) {
        Lut1D const& t = *lut->lut1d;
        py::array_t<float> a = newFloatArray({py::ssize_t(t.size)}, 3);
        std::copy(t.values.begin(), t.values.end(), a.mutable_data());
        result["shaper"] = a;
        result["shaper_domain"] = py::make_tuple(rgbTuple(t.domainMin), rgbTuple(t.domainMax));
    }
    if (lut->lut3d) {
        Lut3D const& t = *lut->lut3d;
        py::ssize_t const n = t.size;
        py::array_t<float> a = newFloatArray({n, n, n}, 3);
        auto v = a.mutable_unchecked<4>();
        // Stored red-fastest; the array is indexed [r, g, b].
        for (int r = 0; r < n; ++r)
            for (int g = 0; g < n; ++g)
                for (int b = 0; b < n; ++b) {
                    Rgb const c = t.entry(r, g, b);
                    v(r, g, b, 0) = c.r, v(r, g, b, 1) = c.g, v(r, g, b, 2) = c.b;
                }
        result["cube"] = a;
        result["cube_domain"] = py::make_tuple(rgbTuple(t.domainMin), rgbTuple(t.domainMax));
    }
    return result;
}

} // namespace

void bindColorMapping(py::module_& m) {
    // ferrim.Exclude is made from this table as an enum.IntFlag, which combines with |.
    py::list stages;
    for (auto const& [name, value] : EXCLUDE_STAGES)
        stages.append(py::make_tuple(name, std::uint32_t(value)));
    m.attr("_EXCLUDE_STAGES") = stages;

    py::class_<UnaryColorMappingOperator, Entity, SharedPtr<UnaryColorMappingOperator>>(
        m, "Operator", "A colour-mapping operator: an entity whose properties are its settings.")
        .def_property_readonly(
            "ui_name",
            [](UnaryColorMappingOperator const& op) {
                auto const* d = factory().findDescriptor(op.getClassName());
                return d ? d->uiName : op.getClassName();
            },
            "The name the add-operator menu shows, as \"Simple Exposure\".")
        .def_property_readonly(
            "group", [](UnaryColorMappingOperator const& op) { return String(getOperatorGroupCaption(op.getGroup())); },
            "The menu group: \"Basic\", \"Curve Control\", \"Highlight Control\", \"Final Look\" (empty for "
            "conversions).");

    m.def(
        "operator_menu",
        [] { return toPython(nlohmann::json::parse(ColorMappingWithObservers::getAddOperatorMenu())); },
        "The add-operator menu: [{\"group\": caption, \"items\": [{\"type\": ..., \"name\": ...}]}], in menu order.");

    py::class_<CommonColorMappingContext>(m, "ColorMappingContext",
                                          "Renderer settings that preparing a pipeline reads (the image size is "
                                          "taken from each mapped image).")
        .def(py::init([](float gamma, float iso, float fNumber, float shutterSpeed, bool applyOperators,
                         bool vignetteAllowed, String resourceDirectory) {
                 return CommonColorMappingContext{
                     gamma, iso, fNumber, shutterSpeed, applyOperators, vignetteAllowed, std::move(resourceDirectory)};
             }),
             py::kw_only(), py::arg("gamma") = 2.2f, py::arg("iso") = 100.f, py::arg("f_number") = 8.f,
             py::arg("shutter_speed") = 125.f, py::arg("apply_operators") = true, py::arg("vignette_allowed") = true,
             py::arg("resource_directory") = "")
        .def_readwrite("gamma", &CommonColorMappingContext::gamma, "Display gamma of the encoding conversions.")
        .def_readwrite("iso", &CommonColorMappingContext::iso, "Film speed of the camera.")
        .def_readwrite("f_number", &CommonColorMappingContext::fNumber, "Aperture f-number of the camera.")
        .def_readwrite("shutter_speed", &CommonColorMappingContext::shutterSpeed, "1 / exposure time in seconds.")
        .def_readwrite("apply_operators", &CommonColorMappingContext::applyOperators,
                       "False makes every operator neutral.")
        .def_readwrite("vignette_allowed", &CommonColorMappingContext::vignetteAllowed,
                       "False switches the vignette off.")
        .def_readwrite("resource_directory", &CommonColorMappingContext::resourceDirectory,
                       "Folder against which relative LUT paths are resolved.");

    py::class_<Pipeline>(m, "Pipeline", R"(An ordered list of colour-mapping operators, first first.

The operators are live ferrim.Operator objects: editing one changes what the
next map or unmap call does. Conversions between linear and sRGB values are
inserted where neighbouring operators need them, and the result is always
encoded for display.)")
        .def(py::init([](py::iterable operators) {
                 Pipeline p;
                 for (auto const& op : operators)
                     p.operators.push_back(toOperator(op));
                 return p;
             }),
             py::arg("operators") = py::tuple(), "A pipeline of the given operators or operator type names.")
        .def_static(
            "default", [] { return Pipeline::fromChain(createDefaultPipeline()); },
            "Simple Exposure, White Balance, Green-Magenta Tint, Contrast, Saturation and ACES Output Transform.")
        .def_static(
            "load",
            [](py::object path) { return Pipeline::fromLoaded(loadPipelinePreset(py::str(path).cast<String>())); },
            py::arg("path"), "Reads a .ctm file; legacy operators are removed with a warning.")
        .def_static(
            "from_json", [](String const& text) { return Pipeline::fromLoaded(deserializePipeline(text)); },
            py::arg("text"), "Reads the serialised form (the content of a .ctm file).")
        .def(
            "save",
            [](Pipeline const& p, py::object path) {
                if (auto r = savePipelinePreset(py::str(path).cast<String>(), p.buildChain()); !r)
                    raiseError(r.error());
            },
            py::arg("path"), "Writes a .ctm file.")
        .def(
            "to_json", [](Pipeline const& p) { return serializePipeline(p.buildChain()); }, "The serialised form.")
        .def_property_readonly(
            "operators",
            [](Pipeline const& p) {
                py::list list;
                for (auto const& op : p.operators)
                    list.append(wrapEntity(op.getShared()));
                return list;
            },
            "The operators, first first (a new list of the live operator objects).")
        .def("__len__", [](Pipeline const& p) { return p.operators.size(); })
        .def("__getitem__",
             [](Pipeline const& p, py::ssize_t i) { return wrapEntity(p.operators[checkedIndex(p, i)].getShared()); })
        .def("__delitem__",
             [](Pipeline& p, py::ssize_t i) {
                 p.operators.erase(p.operators.begin() + std::ptrdiff_t(checkedIndex(p, i)));
             })
        .def("__iter__", [](py::object self) { return py::iter(self.attr("operators")); })
        .def(
            "append",
            [](Pipeline& p, py::handle op) {
                p.operators.push_back(toOperator(op));
                return wrapEntity(p.operators.back().getShared());
            },
            py::arg("operator"), "Adds an operator (or a new one of a type name) at the end; returns it.")
        .def(
            "insert",
            [](Pipeline& p, py::ssize_t index, py::handle op) {
                py::ssize_t const n = py::ssize_t(p.operators.size());
                index = std::clamp(index < 0 ? index + n : index, py::ssize_t(0), n);
                auto const it = p.operators.insert(p.operators.begin() + index, toOperator(op));
                return wrapEntity(it->getShared());
            },
            py::arg("index"), py::arg("operator"),
            "Inserts an operator (or a new one of a type name) before index; returns it.")
        .def(
            "find",
            [](Pipeline const& p, String const& typeName) -> py::object {
                String const name = resolveTypeName(typeName);
                for (auto const& op : p.operators)
                    if (op->getClassName() == name)
                        return wrapEntity(op.getShared());
                return py::none();
            },
            py::arg("type_name"), "The first operator of a type, or None.")
        .def_readwrite("context", &Pipeline::context, "The preparation settings (camera, gamma, ...).")
        .def("map", &mapImage, py::arg("image"), py::kw_only(), py::arg("in_place") = false, py::arg("threads") = 0,
             R"(Maps linear colours to display colours.

image: float32 array of shape (H, W, 3) or (H, W, 4); alpha passes through.
in_place: map the array itself (it must be C-contiguous and writable) and
return it; otherwise a new array is returned and image is left unchanged.
threads: 0 uses every core. The interpreter lock is released meanwhile.)")
        .def("unmap", &unmapColors, py::arg("colors"), py::kw_only(), py::arg("exclude") = py::none(),
             R"(The linear colours that map to the given display colours.

colors: float32 array of shape (..., 3); a new array of the same shape is returned.
exclude: stages left in place: ferrim.Exclude values, their names ("Exposure",
"lut", ...), "all", or an int of Exclude bits.)")
        .def(
            "__eq__",
            [](Pipeline const& a, Pipeline const& b) { return areOperatorsDataSame(a.records(), b.records()); },
            "The same operators (by their ids) in the same order with the same settings.")
        .def("__repr__", [](Pipeline const& p) {
            String s = "ferrim.Pipeline([";
            for (std::size_t i = 0; i < p.operators.size(); ++i)
                s += (i ? ", " : "") + p.operators[i]->getClassName();
            return s + "])";
        });

    m.def("_read_lut", &readLut, py::arg("path"));
}

} // namespace FerrimPython
