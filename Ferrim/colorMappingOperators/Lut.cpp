#include "Ferrim/colorMappingOperators/Lut.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "QuelinLib/Float4.h"
#include "QuelinLib/Io.h"
#include "QuelinLib/MessageText.h"

namespace Quelin {

// ---------------------------------------------------------------------------
// Interpolation
// ---------------------------------------------------------------------------

namespace {

/// Input to lattice coordinate: (x - min) * (n - 1) / (max - min), as one
/// multiply-add.
void deriveIndexMapping(int size, Rgb const& dmin, Rgb const& dmax, Rgb& scale, Rgb& offset) {
    for (int i = 0; i < 3; ++i) {
        float const span = dmax[i] - dmin[i];
        scale[i] = span > 0.f ? float(size - 1) / span : 0.f;
        offset[i] = -dmin[i] * scale[i];
    }
}

/// Clamped lattice coordinate; NaN goes to 0.
inline float toIndex(float x, float scale, float offset, float last) {
    float t = x * scale + offset;
    if (!(t > 0.f)) t = 0.f;
    return t < last ? t : last;
}

#if QUELIN_FLOAT4_SSE
struct Cell {
    float const* base; // entry of the lower corner
    float f[4];        // fractions within the cell, r g b
};

/// Lower lattice corner and fractions of a colour. Index clamped to n - 2 so
/// the upper corner exists; the fraction is then 1 at the upper end.
inline Cell locate(Lut3D const& lut, Float4 c, Float4 scale, Float4 offset, Float4 last, Float4 lastBase) {
    Float4 t = c * scale + offset;
    t = min(max(t, Float4(0.f)), last); // NaN lanes become 0
    Float4 const i0 = min(floor(t), lastBase);
    Cell cell;
    (t - i0).store(cell.f);
    Int4 const ii = toInt4Truncate(i0);
    alignas(16) int idx[4];
    _mm_store_si128(reinterpret_cast<__m128i*>(idx), ii.v);
    std::size_t const n = std::size_t(lut.size);
    cell.base = lut.values.data() + 4 * (std::size_t(idx[0]) + n * (std::size_t(idx[1]) + n * std::size_t(idx[2])));
    return cell;
}

inline Float4 tetrahedral(Lut3D const& lut, Float4 c, Float4 scale, Float4 offset, Float4 last, Float4 lastBase) {
    Cell const cell = locate(lut, c, scale, offset, last, lastBase);
    std::size_t const n = std::size_t(lut.size);
    std::size_t const dr = 4, dg = 4 * n, db = 4 * n * n;
    float const* p = cell.base;
    float const fr = cell.f[0], fg = cell.f[1], fb = cell.f[2];
    Float4 const c000 = Float4::load(p);
    Float4 const c111 = Float4::load(p + dr + dg + db);
    // The six tetrahedra of the cube that share its main diagonal, picked by
    // the order of the three fractions.
    if (fr > fg) {
        if (fg > fb) {
            return c000 * Float4(1.f - fr) + Float4::load(p + dr) * Float4(fr - fg) +
                   Float4::load(p + dr + dg) * Float4(fg - fb) + c111 * Float4(fb);
        }
        if (fr > fb) {
            return c000 * Float4(1.f - fr) + Float4::load(p + dr) * Float4(fr - fb) +
                   Float4::load(p + dr + db) * Float4(fb - fg) + c111 * Float4(fg);
        }
        return c000 * Float4(1.f - fb) + Float4::load(p + db) * Float4(fb - fr) +
               Float4::load(p + dr + db) * Float4(fr - fg) + c111 * Float4(fg);
    }
    if (fb > fg) {
        return c000 * Float4(1.f - fb) + Float4::load(p + db) * Float4(fb - fg) +
               Float4::load(p + dg + db) * Float4(fg - fr) + c111 * Float4(fr);
    }
    if (fb > fr) {
        return c000 * Float4(1.f - fg) + Float4::load(p + dg) * Float4(fg - fb) +
               Float4::load(p + dg + db) * Float4(fb - fr) + c111 * Float4(fr);
    }
    return c000 * Float4(1.f - fg) + Float4::load(p + dg) * Float4(fg - fr) + Float4::load(p + dr + dg) * Float4(fr - fb) +
           c111 * Float4(fb);
}

inline Float4 trilinear(Lut3D const& lut, Float4 c, Float4 scale, Float4 offset, Float4 last, Float4 lastBase) {
    Cell const cell = locate(lut, c, scale, offset, last, lastBase);
    std::size_t const n = std::size_t(lut.size);
    std::size_t const dr = 4, dg = 4 * n, db = 4 * n * n;
    float const* p = cell.base;
    Float4 const fr(cell.f[0]), fg(cell.f[1]), fb(cell.f[2]);
    auto lerp4 = [](Float4 a, Float4 b, Float4 t) { return a + (b - a) * t; };
    Float4 const x00 = lerp4(Float4::load(p), Float4::load(p + dr), fr);
    Float4 const x10 = lerp4(Float4::load(p + dg), Float4::load(p + dg + dr), fr);
    Float4 const x01 = lerp4(Float4::load(p + db), Float4::load(p + db + dr), fr);
    Float4 const x11 = lerp4(Float4::load(p + db + dg), Float4::load(p + db + dg + dr), fr);
    return lerp4(lerp4(x00, x10, fg), lerp4(x01, x11, fg), fb);
}

struct Kernel {
    Float4 scale, offset, last, lastBase;
    explicit Kernel(Lut3D const& lut)
        : scale(lut.indexScale.r, lut.indexScale.g, lut.indexScale.b, 0.f),
          offset(lut.indexOffset.r, lut.indexOffset.g, lut.indexOffset.b, 0.f), last(float(lut.size - 1)),
          lastBase(float(std::max(lut.size - 2, 0))) {}
};
#endif

} // namespace

void Lut1D::prepare() { deriveIndexMapping(size, domainMin, domainMax, indexScale, indexOffset); }

Rgb Lut1D::apply(Rgb const& c) const {
    Rgb out;
    float const last = float(size - 1);
    for (int ch = 0; ch < 3; ++ch) {
        float const t = toIndex(c[ch], indexScale[ch], indexOffset[ch], last);
        int const i0 = std::min(int(t), size - 2);
        float const f = t - float(i0);
        float const a = values[3 * i0 + ch], b = values[3 * (i0 + 1) + ch];
        out[ch] = a + (b - a) * f;
    }
    return out;
}

void Lut3D::resize(int n) {
    size = n;
    values.assign(std::size_t(n) * std::size_t(n) * std::size_t(n) * 4, 0.f);
}

void Lut3D::prepare() { deriveIndexMapping(size, domainMin, domainMax, indexScale, indexOffset); }

void Lut3D::setEntry(int r, int g, int b, Rgb const& c) {
    float* p = &values[4 * (std::size_t(r) + std::size_t(size) * (std::size_t(g) + std::size_t(size) * std::size_t(b)))];
    p[0] = c.r;
    p[1] = c.g;
    p[2] = c.b;
    p[3] = 0.f;
}

#if QUELIN_FLOAT4_SSE
Rgb Lut3D::applyTetrahedral(Rgb const& c) const {
    Kernel const k(*this);
    Float4 const r = tetrahedral(*this, Float4(c.r, c.g, c.b, 0.f), k.scale, k.offset, k.last, k.lastBase);
    alignas(16) float o[4];
    r.store(o);
    return {o[0], o[1], o[2]};
}

Rgb Lut3D::applyTrilinear(Rgb const& c) const {
    Kernel const k(*this);
    Float4 const r = trilinear(*this, Float4(c.r, c.g, c.b, 0.f), k.scale, k.offset, k.last, k.lastBase);
    alignas(16) float o[4];
    r.store(o);
    return {o[0], o[1], o[2]};
}

void Lut3D::applyTetrahedral(float* rgb, std::size_t pixelCount) const {
    Kernel const k(*this);
    alignas(16) float o[4];
    for (std::size_t i = 0; i < pixelCount; ++i, rgb += 3) {
        tetrahedral(*this, Float4(rgb[0], rgb[1], rgb[2], 0.f), k.scale, k.offset, k.last, k.lastBase).store(o);
        rgb[0] = o[0];
        rgb[1] = o[1];
        rgb[2] = o[2];
    }
}

void Lut3D::applyTrilinear(float* rgb, std::size_t pixelCount) const {
    Kernel const k(*this);
    alignas(16) float o[4];
    for (std::size_t i = 0; i < pixelCount; ++i, rgb += 3) {
        trilinear(*this, Float4(rgb[0], rgb[1], rgb[2], 0.f), k.scale, k.offset, k.last, k.lastBase).store(o);
        rgb[0] = o[0];
        rgb[1] = o[1];
        rgb[2] = o[2];
    }
}
#else
namespace {
struct ScalarCell {
    int i[3];
    float f[3];
};
ScalarCell locateScalar(Lut3D const& lut, Rgb const& c) {
    ScalarCell cell;
    float const last = float(lut.size - 1);
    for (int ch = 0; ch < 3; ++ch) {
        float const t = toIndex(c[ch], lut.indexScale[ch], lut.indexOffset[ch], last);
        cell.i[ch] = std::min(int(t), lut.size - 2);
        cell.f[ch] = t - float(cell.i[ch]);
    }
    return cell;
}
} // namespace

Rgb Lut3D::applyTrilinear(Rgb const& c) const {
    ScalarCell const s = locateScalar(*this, c);
    Rgb out;
    for (int ch = 0; ch < 3; ++ch) {
        auto e = [&](int dr, int dg, int db) { return entry(s.i[0] + dr, s.i[1] + dg, s.i[2] + db)[ch]; };
        float const x00 = lerp(e(0, 0, 0), e(1, 0, 0), s.f[0]), x10 = lerp(e(0, 1, 0), e(1, 1, 0), s.f[0]);
        float const x01 = lerp(e(0, 0, 1), e(1, 0, 1), s.f[0]), x11 = lerp(e(0, 1, 1), e(1, 1, 1), s.f[0]);
        out[ch] = lerp(lerp(x00, x10, s.f[1]), lerp(x01, x11, s.f[1]), s.f[2]);
    }
    return out;
}

Rgb Lut3D::applyTetrahedral(Rgb const& c) const {
    ScalarCell const s = locateScalar(*this, c);
    float const fr = s.f[0], fg = s.f[1], fb = s.f[2];
    auto e = [&](int dr, int dg, int db) { return entry(s.i[0] + dr, s.i[1] + dg, s.i[2] + db); };
    Rgb const c000 = e(0, 0, 0), c111 = e(1, 1, 1);
    if (fr > fg) {
        if (fg > fb) return c000 * (1.f - fr) + e(1, 0, 0) * (fr - fg) + e(1, 1, 0) * (fg - fb) + c111 * fb;
        if (fr > fb) return c000 * (1.f - fr) + e(1, 0, 0) * (fr - fb) + e(1, 0, 1) * (fb - fg) + c111 * fg;
        return c000 * (1.f - fb) + e(0, 0, 1) * (fb - fr) + e(1, 0, 1) * (fr - fg) + c111 * fg;
    }
    if (fb > fg) return c000 * (1.f - fb) + e(0, 0, 1) * (fb - fg) + e(0, 1, 1) * (fg - fr) + c111 * fr;
    if (fb > fr) return c000 * (1.f - fg) + e(0, 1, 0) * (fg - fb) + e(0, 1, 1) * (fb - fr) + c111 * fr;
    return c000 * (1.f - fg) + e(0, 1, 0) * (fg - fr) + e(1, 1, 0) * (fr - fb) + c111 * fb;
}

void Lut3D::applyTetrahedral(float* rgb, std::size_t pixelCount) const {
    for (std::size_t i = 0; i < pixelCount; ++i, rgb += 3) {
        Rgb const o = applyTetrahedral(Rgb(rgb[0], rgb[1], rgb[2]));
        rgb[0] = o.r, rgb[1] = o.g, rgb[2] = o.b;
    }
}

void Lut3D::applyTrilinear(float* rgb, std::size_t pixelCount) const {
    for (std::size_t i = 0; i < pixelCount; ++i, rgb += 3) {
        Rgb const o = applyTrilinear(Rgb(rgb[0], rgb[1], rgb[2]));
        rgb[0] = o.r, rgb[1] = o.g, rgb[2] = o.b;
    }
}
#endif

// ---------------------------------------------------------------------------
// Reading
// ---------------------------------------------------------------------------

namespace {

/// Lines of a text with their 1-based numbers; LF, CR-LF and lone CR all end a line.
class LineReader {
public:
    explicit LineReader(StringView text) : mText(text) {}
    bool next(StringView& line) {
        if (mPos >= mText.size()) return false;
        std::size_t end = mPos;
        while (end < mText.size() && mText[end] != '\n' && mText[end] != '\r') ++end;
        line = mText.substr(mPos, end - mPos);
        if (end < mText.size() && mText[end] == '\r' && end + 1 < mText.size() && mText[end + 1] == '\n') ++end;
        mPos = end + 1;
        ++mLine;
        return true;
    }
    int lineNumber() const { return mLine; }

private:
    StringView mText;
    std::size_t mPos = 0;
    int mLine = 0;
};

Stack<StringView> tokenize(StringView line) {
    Stack<StringView> tokens;
    std::size_t i = 0;
    while (i < line.size()) {
        while (i < line.size() && (line[i] == ' ' || line[i] == '\t')) ++i;
        std::size_t const start = i;
        while (i < line.size() && line[i] != ' ' && line[i] != '\t') ++i;
        if (i > start) tokens.push_back(line.substr(start, i - start));
    }
    return tokens;
}

StringView trim(StringView s) {
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
    while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
    return s;
}

Optional<float> parseFloat(StringView token) {
    if (!token.empty() && token.front() == '+') token.remove_prefix(1);
    float v = 0.f;
    auto const [ptr, ec] = std::from_chars(token.data(), token.data() + token.size(), v);
    if (ec != std::errc() || ptr != token.data() + token.size() || !std::isfinite(v)) return std::nullopt;
    return v;
}

Optional<long> parseInt(StringView token) {
    long v = 0;
    auto const [ptr, ec] = std::from_chars(token.data(), token.data() + token.size(), v);
    if (ec != std::errc() || ptr != token.data() + token.size()) return std::nullopt;
    return v;
}

Unexpected<String> lineError(StringView name, int line, String const& problem) {
    return makeError(String(name) + ":" + std::to_string(line) + ": " + problem);
}

/// Text from the file for a message: quoted, cut, and printable (a damaged
/// file may hold binary).
String quoted(StringView s) { return '"' + printableText(s, 40) + '"'; }

Expected<String> readWholeFile(String const& path) {
    return Io::readTextFile(Io::pathFromUtf8(path), MAX_LUT_FILE_BYTES);
}

/// A writer's own keyword ("LUT_IN_VIDEO_RANGE"): a capital letter, then
/// capitals, digits and underscores.
bool looksLikeKeyword(StringView token) {
    if (token.empty() || token[0] < 'A' || token[0] > 'Z') return false;
    return std::all_of(token.begin(), token.end(), [](char c) { return (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_'; });
}

bool isDigitStart(StringView token) {
    return !token.empty() && (std::isdigit(static_cast<unsigned char>(token[0])) || token[0] == '-' || token[0] == '+' ||
                              token[0] == '.');
}

} // namespace

Expected<Lut> parseCubeLut(StringView text, StringView name) {
    Lut lut;
    int size1d = 0, size3d = 0;
    Optional<Rgb> domainMin, domainMax;
    Optional<std::pair<float, float>> range1d, range3d;
    Stack<float> data;
    int dataLines = 0, lastDataLine = 0;
    LineReader reader(text);
    StringView raw;
    while (reader.next(raw)) {
        int const ln = reader.lineNumber();
        StringView const line = trim(raw);
        if (line.empty() || line.front() == '#') continue;
        auto const tokens = tokenize(line);
        StringView const key = tokens[0];
        if (!isDigitStart(key)) {
            if (dataLines > 0) return lineError(name, ln, "keyword " + quoted(key) + " after the table data");
            if (key == "TITLE") {
                StringView rest = trim(line.substr(5));
                if (rest.size() >= 2 && rest.front() == '"' && rest.back() == '"') rest = rest.substr(1, rest.size() - 2);
                lut.title = String(rest);
            } else if (key == "LUT_1D_SIZE" || key == "LUT_3D_SIZE") {
                bool const is3d = key == "LUT_3D_SIZE";
                long const maxSize = is3d ? 256 : 65536;
                Optional<long> const n = tokens.size() == 2 ? parseInt(tokens[1]) : std::nullopt;
                if (!n || *n < 2 || *n > maxSize)
                    return lineError(name, ln,
                                     String(key) + " needs one integer from 2 to " + std::to_string(maxSize) + ", found " +
                                         quoted(trim(line.substr(key.size()))));
                int& target = is3d ? size3d : size1d;
                if (target != 0) return lineError(name, ln, String(key) + " is given twice");
                target = int(*n);
            } else if (key == "DOMAIN_MIN" || key == "DOMAIN_MAX") {
                if (tokens.size() != 4)
                    return lineError(name, ln, String(key) + " needs 3 values, found " + std::to_string(tokens.size() - 1));
                Rgb v;
                for (int i = 0; i < 3; ++i) {
                    auto f = parseFloat(tokens[i + 1]);
                    if (!f) return lineError(name, ln, quoted(tokens[i + 1]) + " is not a number");
                    v[i] = *f;
                }
                (key == "DOMAIN_MIN" ? domainMin : domainMax) = v;
            } else if (key == "LUT_1D_INPUT_RANGE" || key == "LUT_3D_INPUT_RANGE") {
                if (tokens.size() != 3)
                    return lineError(name, ln, String(key) + " needs 2 values, found " + std::to_string(tokens.size() - 1));
                auto lo = parseFloat(tokens[1]), hi = parseFloat(tokens[2]);
                if (!lo) return lineError(name, ln, quoted(tokens[1]) + " is not a number");
                if (!hi) return lineError(name, ln, quoted(tokens[2]) + " is not a number");
                (key == "LUT_1D_INPUT_RANGE" ? range1d : range3d) = std::pair(*lo, *hi);
            } else if (tokens.size() == 3 && parseFloat(tokens[1]) && parseFloat(tokens[2])) {
                // Shaped like an entry whose first value is damaged ("nan",
                // "x.5"): the table would silently lose a line.
                return lineError(name, ln, quoted(key) + " is not a number");
            } else if (!looksLikeKeyword(key)) {
                return lineError(name, ln, quoted(key) + " is neither a keyword nor a number");
            } else {
                // Writers add their own keywords (video range flags and the
                // like); they do not change the table, so they are skipped.
            }
            continue;
        }
        if (size1d == 0 && size3d == 0) return lineError(name, ln, "table data before LUT_1D_SIZE or LUT_3D_SIZE");
        if (tokens.size() != 3) return lineError(name, ln, "expected 3 values, found " + std::to_string(tokens.size()));
        std::size_t const expected = std::size_t(size1d) + std::size_t(size3d) * size3d * size3d;
        if (std::size_t(dataLines) >= expected)
            return lineError(name, ln, "more entries than the " + std::to_string(expected) + " the size line announces");
        for (auto const& t : tokens) {
            auto f = parseFloat(t);
            if (!f) return lineError(name, ln, quoted(t) + " is not a number");
            data.push_back(*f);
        }
        ++dataLines;
        lastDataLine = ln;
    }
    if (size1d == 0 && size3d == 0) return lineError(name, std::max(reader.lineNumber(), 1), "no LUT_1D_SIZE or LUT_3D_SIZE line");
    std::size_t const expected = std::size_t(size1d) + std::size_t(size3d) * size3d * size3d;
    if (std::size_t(dataLines) != expected)
        return lineError(name, lastDataLine > 0 ? lastDataLine : reader.lineNumber(),
                         "expected " + std::to_string(expected) + " entries, found " + std::to_string(dataLines) +
                             " (the file is truncated)");

    Rgb const dmin = domainMin.value_or(Rgb(0.f)), dmax = domainMax.value_or(Rgb(1.f));
    auto checkDomain = [&](Rgb const& lo, Rgb const& hi) -> Expected<void> {
        for (int i = 0; i < 3; ++i)
            if (!(hi[i] > lo[i]))
                return lineError(name, 1, "the domain maximum must be above the minimum in every channel");
        return {};
    };
    std::size_t offset = 0;
    if (size1d > 0) {
        Lut1D l;
        l.size = size1d;
        l.domainMin = range1d ? Rgb(range1d->first) : dmin;
        l.domainMax = range1d ? Rgb(range1d->second) : dmax;
        if (auto ok = checkDomain(l.domainMin, l.domainMax); !ok) return makeError(ok.error());
        l.values.assign(data.begin(), data.begin() + std::ptrdiff_t(3 * size1d));
        l.prepare();
        lut.lut1d = std::move(l);
        offset = 3 * std::size_t(size1d);
    }
    if (size3d > 0) {
        Lut3D l;
        l.resize(size3d);
        l.domainMin = range3d ? Rgb(range3d->first) : dmin;
        l.domainMax = range3d ? Rgb(range3d->second) : dmax;
        if (auto ok = checkDomain(l.domainMin, l.domainMax); !ok) return makeError(ok.error());
        std::size_t const count = std::size_t(size3d) * size3d * size3d;
        for (std::size_t i = 0; i < count; ++i)
            for (int ch = 0; ch < 3; ++ch) l.values[4 * i + ch] = data[offset + 3 * i + ch];
        l.prepare();
        lut.lut3d = std::move(l);
    }
    return lut;
}

Expected<Lut> readCubeLut(String const& path) {
    auto text = readWholeFile(path);
    if (!text) return makeError(text.error());
    return parseCubeLut(*text, path);
}

namespace {
/// Smallest of the usual integer depths whose largest code holds `maxValue`.
int inferBitDepth(long maxValue) {
    for (int bits : {8, 10, 12, 14, 16})
        if (maxValue <= (1L << bits) - 1) return bits;
    return 0;
}
} // namespace

Expected<Lut> parse3dlLut(StringView text, StringView name) {
    Stack<long> mesh;
    int meshLine = 0;
    int declaredOutputBits = 0;
    Stack<long> data;
    int dataLines = 0, lastDataLine = 0;
    long maxValue = 0;
    LineReader reader(text);
    StringView raw;
    while (reader.next(raw)) {
        int const ln = reader.lineNumber();
        StringView const line = trim(raw);
        if (line.empty() || line.front() == '#') continue;
        auto const tokens = tokenize(line);
        bool const keyword = std::any_of(tokens[0].begin(), tokens[0].end(),
                                         [](char ch) { return std::isalpha(static_cast<unsigned char>(ch)) != 0; });
        if (keyword) {
            // Keyword lines ("3DMESH", "Mesh 4 12", "LUT8", "gamma 1.0"). The
            // mesh line declares the input and output depths in bits.
            if (tokens[0] == "Mesh" && tokens.size() == 3) {
                if (auto b = parseInt(tokens[2]); b && *b >= 8 && *b <= 16) declaredOutputBits = int(*b);
            } else if (tokens.size() == 3 && parseInt(tokens[1]) && parseInt(tokens[2])) {
                // Shaped like an entry whose first value is damaged.
                return lineError(name, ln, quoted(tokens[0]) + " is not an integer");
            }
            continue;
        }
        Stack<long> values;
        for (auto const& t : tokens) {
            auto v = parseInt(t);
            if (!v) return lineError(name, ln, quoted(t) + " is not an integer");
            if (*v < 0) return lineError(name, ln, "negative value " + String(t));
            values.push_back(*v);
        }
        if (values.size() > 3 && dataLines == 0 && mesh.empty()) {
            // The mesh holds input codes of at most 16 bits, one per lattice
            // plane, so its values and its length are bounded before use.
            if (values.size() > std::size_t(MAX_3DL_MESH_POINTS))
                return lineError(name, ln,
                                 "the mesh line has " + std::to_string(values.size()) + " points, more than " +
                                     std::to_string(MAX_3DL_MESH_POINTS));
            for (long v : values)
                if (v > 65535) return lineError(name, ln, "mesh value " + std::to_string(v) + " is above the largest 16-bit code");
            mesh = std::move(values);
            meshLine = ln;
            continue;
        }
        if (values.size() != 3) return lineError(name, ln, "expected 3 values, found " + std::to_string(values.size()));
        for (long v : values) {
            maxValue = std::max(maxValue, v);
            data.push_back(v);
        }
        ++dataLines;
        lastDataLine = ln;
    }
    int const endLine = std::max(lastDataLine, std::max(reader.lineNumber(), 1));
    if (dataLines == 0) return lineError(name, endLine, "no table data");
    int size = 0;
    if (!mesh.empty()) {
        size = int(mesh.size());
        std::size_t const expected = std::size_t(size) * size * size;
        if (std::size_t(dataLines) != expected)
            return lineError(name, lastDataLine,
                             "expected " + std::to_string(expected) + " entries (" + std::to_string(size) +
                                 "^3, from the mesh line " + std::to_string(meshLine) + "), found " +
                                 std::to_string(dataLines) + (std::size_t(dataLines) < expected ? " (the file is truncated)" : ""));
        for (std::size_t i = 1; i < mesh.size(); ++i)
            if (mesh[i] <= mesh[i - 1])
                return lineError(name, meshLine, "the input mesh must increase strictly");
    } else {
        size = int(std::lround(std::cbrt(double(dataLines))));
        if (std::size_t(size) * size * size != std::size_t(dataLines) || size < 2)
            return lineError(name, lastDataLine,
                             std::to_string(dataLines) + " entries do not make a cube (the file is truncated or has extra lines)");
    }

    int outputBits = inferBitDepth(maxValue);
    if (declaredOutputBits != 0 && maxValue <= (1L << declaredOutputBits) - 1) outputBits = declaredOutputBits;
    if (outputBits == 0)
        return lineError(name, lastDataLine, "value " + std::to_string(maxValue) + " is above the largest 16-bit code");
    float const outScale = 1.f / float((1L << outputBits) - 1);

    Lut lut;
    Lut3D l;
    l.resize(size);
    // Blue varies fastest in the file; the table keeps red fastest.
    std::size_t k = 0;
    for (int r = 0; r < size; ++r)
        for (int g = 0; g < size; ++g)
            for (int b = 0; b < size; ++b, k += 3)
                l.setEntry(r, g, b, Rgb(float(data[k]) * outScale, float(data[k + 1]) * outScale, float(data[k + 2]) * outScale));
    l.prepare();

    if (!mesh.empty()) {
        // The mesh gives each lattice plane's input code. An evenly spaced mesh
        // (within one code, as "0 64 ... 960 1023" is) is the plain [0, 1]
        // lattice; an uneven one becomes a 1D shaper that maps input to lattice
        // position.
        int const inputBits = inferBitDepth(mesh.back());
        double const inputMax = inputBits ? double((1L << inputBits) - 1) : double(mesh.back());
        bool even = true;
        for (int i = 0; i < size; ++i)
            if (std::abs(double(mesh[std::size_t(i)]) - double(i) * inputMax / double(size - 1)) > 1.0) even = false;
        if (!even) {
            Lut1D shaper;
            shaper.size = 4096;
            shaper.values.resize(3 * std::size_t(shaper.size));
            for (int i = 0; i < shaper.size; ++i) {
                double const code = double(i) / double(shaper.size - 1) * inputMax;
                auto it = std::upper_bound(mesh.begin(), mesh.end(), long(std::floor(code)));
                std::size_t j = std::size_t(std::clamp<std::ptrdiff_t>(it - mesh.begin(), 1, std::ptrdiff_t(mesh.size() - 1)));
                double const a = double(mesh[j - 1]), b = double(mesh[j]);
                double const pos = std::clamp((double(j - 1) + (code - a) / (b - a)) / double(size - 1), 0.0, 1.0);
                for (int ch = 0; ch < 3; ++ch) shaper.values[3 * std::size_t(i) + std::size_t(ch)] = float(pos);
            }
            shaper.prepare();
            lut.lut1d = std::move(shaper);
        }
    }
    lut.lut3d = std::move(l);
    return lut;
}

Expected<Lut> read3dlLut(String const& path) {
    auto text = readWholeFile(path);
    if (!text) return makeError(text.error());
    return parse3dlLut(*text, path);
}

Expected<Lut> readLutFile(String const& path) {
    String ext = std::filesystem::path(path).extension().string();
    std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return char(std::tolower(c)); });
    if (ext == ".cube") return readCubeLut(path);
    if (ext == ".3dl") return read3dlLut(path);
    return makeError(path + ": unknown LUT format \"" + ext + "\" (expected .cube or .3dl)");
}

String formatCubeLut(Lut const& lut) {
    std::ostringstream out;
    out.precision(9);
    if (!lut.title.empty()) out << "TITLE \"" << lut.title << "\"\n";
    auto domain = [&](Rgb const& lo, Rgb const& hi) {
        out << "DOMAIN_MIN " << lo.r << ' ' << lo.g << ' ' << lo.b << "\n";
        out << "DOMAIN_MAX " << hi.r << ' ' << hi.g << ' ' << hi.b << "\n";
    };
    if (lut.lut3d) {
        Lut3D const& l = *lut.lut3d;
        out << "LUT_3D_SIZE " << l.size << "\n";
        domain(l.domainMin, l.domainMax);
        for (int b = 0; b < l.size; ++b)
            for (int g = 0; g < l.size; ++g)
                for (int r = 0; r < l.size; ++r) {
                    Rgb const e = l.entry(r, g, b);
                    out << e.r << ' ' << e.g << ' ' << e.b << "\n";
                }
    } else if (lut.lut1d) {
        Lut1D const& l = *lut.lut1d;
        out << "LUT_1D_SIZE " << l.size << "\n";
        domain(l.domainMin, l.domainMax);
        for (int i = 0; i < l.size; ++i) {
            Rgb const e = l.entry(i);
            out << e.r << ' ' << e.g << ' ' << e.b << "\n";
        }
    }
    return out.str();
}

// ---------------------------------------------------------------------------
// The default look
// ---------------------------------------------------------------------------

namespace {
Lut buildDefaultLut() {
    constexpr int N = 33;
    Lut lut;
    lut.title = "Ferrim default look";
    Lut3D l;
    l.resize(N);
    for (int b = 0; b < N; ++b)
        for (int g = 0; g < N; ++g)
            for (int r = 0; r < N; ++r) {
                Rgb c(float(r) / (N - 1), float(g) / (N - 1), float(b) / (N - 1));
                // Gentle S-curve: a fifth of the way toward smoothstep, so black
                // and white stay fixed and mid-tones gain a little contrast.
                for (int ch = 0; ch < 3; ++ch) {
                    float const x = c[ch];
                    c[ch] = x + 0.2f * (x * x * (3.f - 2.f * x) - x);
                }
                float const luma = 0.2126f * c.r + 0.7152f * c.g + 0.0722f * c.b;
                // Split toning: warm highlights, slightly cool shadows; both
                // vanish at black and at white.
                float const hi = luma * luma * (1.f - luma);
                float const lo = luma * (1.f - luma) * (1.f - luma);
                c = c + Rgb(0.06f, 0.02f, -0.05f) * hi + Rgb(-0.03f, 0.f, 0.04f) * lo;
                // Highlights lose a little saturation, as film's do.
                float const desat = 0.15f * luma * luma * luma;
                c = c * (1.f - desat) + Rgb(luma) * desat;
                l.setEntry(r, g, b, Rgb(clamp(c.r, 0.f, 1.f), clamp(c.g, 0.f, 1.f), clamp(c.b, 0.f, 1.f)));
            }
    l.prepare();
    lut.lut3d = std::move(l);
    return lut;
}
} // namespace

Lut const& getDefaultLutData() {
    static Lut const sLut = buildDefaultLut();
    return sLut;
}

String getDefaultLut() {
    static Mutex sMutex;
    std::lock_guard lock(sMutex);
    std::error_code ec;
    std::filesystem::path const dir = std::filesystem::temp_directory_path(ec) / "ferrim";
    std::filesystem::path const file = dir / "FerrimDefaultLook.cube";
    if (!std::filesystem::exists(file, ec)) {
        std::filesystem::create_directories(dir, ec);
        // Written to a side file and renamed, so a reader never sees half a table.
        std::filesystem::path const tmp = dir / ("FerrimDefaultLook.cube." + std::to_string(std::hash<std::thread::id>{}(std::this_thread::get_id())));
        {
            std::ofstream out(tmp, std::ios::binary | std::ios::trunc);
            out << formatCubeLut(getDefaultLutData());
        }
        std::filesystem::rename(tmp, file, ec);
        if (ec) std::filesystem::remove(tmp, ec);
    }
    return file.string();
}

} // namespace Quelin
