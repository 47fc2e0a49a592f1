// The native part of the Python package `ferrim`: start-up at import, the
// module's exceptions, and the conversions every binding shares.
#include <algorithm>
#include <bit>

#include "Bindings.h"
#include "Ferrim/Ferrim.h"
#include "Ferrim/Version.h"
#include "QuelinLib/Json.h"

namespace FerrimPython {

namespace {
// Kept for the life of the process: the interpreter may finalise before any
// static destructor could release them safely.
PyObject* gError = nullptr;
PyObject* gPropertyError = nullptr;
PyObject* gTextureError = nullptr;
bool gStarted = false;

String typeNameOf(py::handle value) { return py::str(py::type::handle_of(value).attr("__name__")).cast<String>(); }

String shapeText(py::buffer_info const& info) {
    String s = "(";
    for (std::size_t i = 0; i < info.shape.size(); ++i)
        s += (i ? ", " : "") + std::to_string(info.shape[i]);
    return s + (info.shape.size() == 1 ? ",)" : ")");
}

bool isFloat32(py::buffer_info const& info) {
    if (info.itemsize != 4)
        return false;
    String const& f = info.format;
    return f == "f" || ((f == "<f" || f == "=f") && std::endian::native == std::endian::little);
}

bool isCContiguous(py::buffer_info const& info) {
    py::ssize_t expected = info.itemsize;
    for (std::size_t i = info.shape.size(); i-- > 0;) {
        // An axis of length 1 may carry any stride.
        if (info.shape[i] != 1 && info.strides[i] != expected)
            return false;
        expected *= info.shape[i];
    }
    return true;
}
} // namespace

void createExceptions(py::module_& m) {
    gError = PyErr_NewExceptionWithDoc("ferrim.Error", "A Ferrim operation failed; the message says what and where.",
                                       nullptr, nullptr);
    py::tuple const bases = py::make_tuple(py::handle(gError), py::handle(PyExc_ValueError));
    gPropertyError = PyErr_NewExceptionWithDoc(
        "ferrim.PropertyError", "A property does not exist or refused a value; the message names the property.",
        bases.ptr(), nullptr);
    gTextureError = PyErr_NewExceptionWithDoc(
        "ferrim.TextureError", "A texture map's image could not be loaded; the message is the texture's error text.",
        gError, nullptr);
    if (!gError || !gPropertyError || !gTextureError)
        throw py::error_already_set();
    m.attr("Error") = py::handle(gError);
    m.attr("PropertyError") = py::handle(gPropertyError);
    m.attr("TextureError") = py::handle(gTextureError);
    py::register_exception_translator([](std::exception_ptr p) {
        try {
            if (p)
                std::rethrow_exception(p);
        } catch (Quelin::Exception const& e) {
            PyErr_SetString(gError, e.what());
        }
    });
}

void raiseError(String const& message) {
    PyErr_SetString(gError, message.c_str());
    throw py::error_already_set();
}

void raiseTextureError(String const& message) {
    PyErr_SetString(gTextureError, message.c_str());
    throw py::error_already_set();
}

void raisePropertyError(String const& message) {
    PyErr_SetString(gPropertyError, message.c_str());
    throw py::error_already_set();
}

py::object toPython(nlohmann::json const& value) {
    using T = nlohmann::json::value_t;
    switch (value.type()) {
    case T::null:
        return py::none();
    case T::boolean:
        return py::bool_(value.get<bool>());
    case T::number_integer:
        return py::int_(value.get<std::int64_t>());
    case T::number_unsigned:
        return py::int_(value.get<std::uint64_t>());
    case T::number_float:
        return py::float_(value.get<double>());
    case T::string:
        return py::str(value.get_ref<String const&>());
    case T::array: {
        py::list list;
        for (auto const& item : value)
            list.append(toPython(item));
        return list;
    }
    case T::object: {
        py::dict dict;
        for (auto const& [key, item] : value.items())
            dict[py::str(key)] = toPython(item);
        return dict;
    }
    default:
        return py::none();
    }
}

nlohmann::json toJson(py::handle value, String const& what) {
    if (value.is_none())
        return nullptr;
    if (PyBool_Check(value.ptr()))
        return value.cast<bool>();
    if (PyLong_Check(value.ptr()))
        return value.cast<std::int64_t>();
    if (PyFloat_Check(value.ptr()))
        return value.cast<double>();
    if (PyUnicode_Check(value.ptr()))
        return value.cast<String>();
    if (py::isinstance<Quelin::Entity>(value))
        return Quelin::entityToJson(value.cast<Quelin::Entity const&>());
    if (PyDict_Check(value.ptr())) {
        nlohmann::json object = nlohmann::json::object();
        for (auto const& [key, item] : py::reinterpret_borrow<py::dict>(value)) {
            if (!PyUnicode_Check(key.ptr()))
                throw py::type_error(what + ": keys must be text, not " + typeNameOf(key));
            String const name = key.cast<String>();
            object[name] = toJson(item, what + "[\"" + name + "\"]");
        }
        return object;
    }
    if (PyList_Check(value.ptr()) || PyTuple_Check(value.ptr())) {
        nlohmann::json array = nlohmann::json::array();
        std::size_t i = 0;
        for (auto const& item : value)
            array.push_back(toJson(item, what + "[" + std::to_string(i++) + "]"));
        return array;
    }
    // numpy arrays and scalars become lists and plain numbers.
    if (py::hasattr(value, "tolist") && py::hasattr(value, "dtype"))
        return toJson(value.attr("tolist")(), what);
    if (PyIndex_Check(value.ptr()))
        return py::int_(py::reinterpret_borrow<py::object>(value)).cast<std::int64_t>();
    if (py::hasattr(value, "__float__"))
        return py::float_(py::reinterpret_borrow<py::object>(value)).cast<double>();
    throw py::type_error(what + " cannot hold a value of type " + typeNameOf(value));
}

FloatRows requireFloatRows(py::handle value, char const* what, char const* shape,
                           std::initializer_list<std::size_t> channels, int ndim, bool writable,
                           bool requireContiguous) {
    String const name(what);
    if (!PyObject_CheckBuffer(value.ptr()))
        throw py::type_error(name + " must be a float32 numpy array of shape " + shape + ", not " + typeNameOf(value));
    FloatRows rows;
    try {
        rows.info = py::reinterpret_borrow<py::buffer>(value).request(writable);
    } catch (py::error_already_set& e) {
        // numpy refuses a writable view of a read-only array with a ValueError, others with a BufferError.
        if (!writable || !(e.matches(PyExc_BufferError) || e.matches(PyExc_ValueError)))
            throw;
        throw py::value_error(name + " is read-only; map it into a new array (in_place=False) instead");
    }
    py::buffer_info const& info = rows.info;
    if (!isFloat32(info)) {
        String got =
            py::hasattr(value, "dtype") ? String(py::str(value.attr("dtype"))) : "format '" + info.format + "'";
        throw py::type_error(name + " must hold float32 values, not " + got +
                             "; convert it with .astype(numpy.float32)");
    }
    bool const channelsOk =
        info.ndim >= 1 && std::find(channels.begin(), channels.end(), std::size_t(info.shape.back())) != channels.end();
    if (!channelsOk || (ndim > 0 && info.ndim != ndim))
        throw py::value_error(name + " must have shape " + shape + ", not " + shapeText(info));
    if (reinterpret_cast<std::uintptr_t>(info.ptr) % alignof(float) != 0)
        throw py::value_error(name + " is not aligned to its float32 values; pass a copy of it");
    if (requireContiguous && !isCContiguous(info))
        throw py::value_error(name + " must be C-contiguous; pass numpy.ascontiguousarray(" + name + ")");
    rows.data = static_cast<float*>(info.ptr);
    rows.channels = std::size_t(info.shape.back());
    rows.leadingShape.assign(info.shape.begin(), info.shape.end() - 1);
    rows.rows = 1;
    for (py::ssize_t n : rows.leadingShape)
        rows.rows *= std::size_t(n);
    return rows;
}

py::array_t<float> newFloatArray(Quelin::Stack<py::ssize_t> const& leadingShape, std::size_t channels) {
    Quelin::Stack<py::ssize_t> shape = leadingShape;
    shape.push_back(py::ssize_t(channels));
    return py::array_t<float>(shape);
}

} // namespace FerrimPython

PYBIND11_MODULE(_ferrim, m) {
    using namespace FerrimPython;
    m.doc() = "Native part of the ferrim package; import ferrim instead.";
    createExceptions(m);

    // The package starts the library once at import; ferrim/__init__.py
    // registers _shutdown to run when the interpreter exits.
    Quelin::Ferrim::startup();
    gStarted = true;
    m.def(
        "_shutdown",
        [] {
            if (!gStarted)
                return;
            gStarted = false;
            Quelin::Ferrim::shutdown();
        },
        "Stops the library; called once at interpreter exit.");
    m.def("is_started", &Quelin::Ferrim::isStarted, "Whether the library is started (it is from import until exit).");

    bindEntities(m);
    bindColorMapping(m);
    bindMaps(m);
    bindTextures(m);
    m.attr("__version__") = Quelin::Ferrim::version();
}
