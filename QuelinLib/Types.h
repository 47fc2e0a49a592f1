#pragma once
// Value types shared by every module: colours, points, directions, matrices.
#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>

namespace Quelin {

/// The "never computed" float: a quiet NaN with a payload that tells it apart
/// from NaNs produced by arithmetic.
inline constexpr std::uint32_t UNSET_FLOAT_BITS = 0x7FC00001u;
inline float unsetFloat() { return std::bit_cast<float>(UNSET_FLOAT_BITS); }
inline bool isUnsetFloat(float v) { return std::bit_cast<std::uint32_t>(v) == UNSET_FLOAT_BITS; }

/// The exact mean used everywhere a colour turns into a mono value: each channel
/// multiplied first, then summed in this grouping, so results match bit for bit.
inline constexpr float MEAN_WEIGHT = 0.33333334f;
inline float channelMean(float r, float g, float b) {
    return (r * MEAN_WEIGHT + g * MEAN_WEIGHT) + b * MEAN_WEIGHT;
}

template <typename Derived> struct Vec3Ops {
    friend Derived operator+(Derived a, Derived const& b) { return Derived(a.x + b.x, a.y + b.y, a.z + b.z); }
    friend Derived operator-(Derived a, Derived const& b) { return Derived(a.x - b.x, a.y - b.y, a.z - b.z); }
    friend Derived operator*(Derived a, float s) { return Derived(a.x * s, a.y * s, a.z * s); }
    friend Derived operator*(float s, Derived a) { return Derived(a.x * s, a.y * s, a.z * s); }
    friend Derived operator/(Derived a, float s) { return Derived(a.x / s, a.y / s, a.z / s); }
    friend Derived operator-(Derived a) { return Derived(-a.x, -a.y, -a.z); }
    Derived& operator+=(Derived const& b) { auto& d = self(); d.x += b.x; d.y += b.y; d.z += b.z; return d; }
    Derived& operator-=(Derived const& b) { auto& d = self(); d.x -= b.x; d.y -= b.y; d.z -= b.z; return d; }
    Derived& operator*=(float s) { auto& d = self(); d.x *= s; d.y *= s; d.z *= s; return d; }
    float& operator[](int i) { return i == 0 ? self().x : (i == 1 ? self().y : self().z); }
    float operator[](int i) const { auto const& d = static_cast<Derived const&>(*this); return i == 0 ? d.x : (i == 1 ? d.y : d.z); }
    friend bool operator==(Derived const& a, Derived const& b) { return a.x == b.x && a.y == b.y && a.z == b.z; }
private:
    Derived& self() { return static_cast<Derived&>(*this); }
};

/// A point in 3-D space (single precision).
struct Pos : Vec3Ops<Pos> {
    float x = 0, y = 0, z = 0;
    constexpr Pos() = default;
    constexpr Pos(float x_, float y_, float z_) : x(x_), y(y_), z(z_) {}
};

/// A direction or offset in 3-D space.
struct Dir : Vec3Ops<Dir> {
    float x = 0, y = 0, z = 0;
    constexpr Dir() = default;
    constexpr Dir(float x_, float y_, float z_) : x(x_), y(y_), z(z_) {}
    explicit constexpr Dir(Pos const& p) : x(p.x), y(p.y), z(p.z) {}
};

inline float dot(Dir const& a, Dir const& b) { return a.x * b.x + a.y * b.y + a.z * b.z; }
inline Dir cross(Dir const& a, Dir const& b) {
    return Dir(a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x);
}
inline float length(Dir const& a) { return std::sqrt(dot(a, a)); }
inline Dir normalize(Dir const& a) {
    float const l = length(a);
    return l > 0.f ? a / l : a;
}
inline Dir toDir(Pos const& p) { return Dir(p.x, p.y, p.z); }
inline Pos toPos(Dir const& d) { return Pos(d.x, d.y, d.z); }

/// A point in double precision, for world positions far from the origin.
struct PrecisePos {
    double x = 0, y = 0, z = 0;
    constexpr PrecisePos() = default;
    constexpr PrecisePos(double x_, double y_, double z_) : x(x_), y(y_), z(z_) {}
    Pos toPos() const { return Pos(float(x), float(y), float(z)); }
    bool operator==(PrecisePos const&) const = default;
};

struct Vector2 {
    float x = 0, y = 0;
    constexpr Vector2() = default;
    constexpr Vector2(float x_, float y_) : x(x_), y(y_) {}
    friend Vector2 operator+(Vector2 a, Vector2 b) { return {a.x + b.x, a.y + b.y}; }
    friend Vector2 operator-(Vector2 a, Vector2 b) { return {a.x - b.x, a.y - b.y}; }
    friend Vector2 operator*(Vector2 a, float s) { return {a.x * s, a.y * s}; }
    bool operator==(Vector2 const&) const = default;
};

/// Linear RGB colour, three 32-bit floats.
struct Rgb {
    float r = 0, g = 0, b = 0;
    constexpr Rgb() = default;
    constexpr Rgb(float r_, float g_, float b_) : r(r_), g(g_), b(b_) {}
    explicit constexpr Rgb(float v) : r(v), g(v), b(v) {}
    float& operator[](int i) { return i == 0 ? r : (i == 1 ? g : b); }
    float operator[](int i) const { return i == 0 ? r : (i == 1 ? g : b); }
    friend Rgb operator+(Rgb a, Rgb const& c) { return {a.r + c.r, a.g + c.g, a.b + c.b}; }
    friend Rgb operator-(Rgb a, Rgb const& c) { return {a.r - c.r, a.g - c.g, a.b - c.b}; }
    friend Rgb operator*(Rgb a, Rgb const& c) { return {a.r * c.r, a.g * c.g, a.b * c.b}; }
    friend Rgb operator/(Rgb a, Rgb const& c) { return {a.r / c.r, a.g / c.g, a.b / c.b}; }
    friend Rgb operator*(Rgb a, float s) { return {a.r * s, a.g * s, a.b * s}; }
    friend Rgb operator*(float s, Rgb a) { return {a.r * s, a.g * s, a.b * s}; }
    friend Rgb operator/(Rgb a, float s) { return {a.r / s, a.g / s, a.b / s}; }
    Rgb& operator+=(Rgb const& c) { r += c.r; g += c.g; b += c.b; return *this; }
    Rgb& operator*=(float s) { r *= s; g *= s; b *= s; return *this; }
    bool operator==(Rgb const&) const = default;
    float mean() const { return channelMean(r, g, b); }
    static Rgb invalid() { float const n = std::bit_cast<float>(0xFFFFFFFFu); return {n, n, n}; }
};

/// Colour with alpha: four 32-bit floats.
struct RgbAlpha {
    float r = 0, g = 0, b = 0, alpha = 0;
    constexpr RgbAlpha() = default;
    constexpr RgbAlpha(float r_, float g_, float b_, float a_) : r(r_), g(g_), b(b_), alpha(a_) {}
    constexpr RgbAlpha(Rgb const& c, float a_) : r(c.r), g(c.g), b(c.b), alpha(a_) {}
    Rgb rgb() const { return {r, g, b}; }
    friend RgbAlpha operator+(RgbAlpha a, RgbAlpha const& c) { return {a.r + c.r, a.g + c.g, a.b + c.b, a.alpha + c.alpha}; }
    friend RgbAlpha operator*(RgbAlpha a, float s) { return {a.r * s, a.g * s, a.b * s, a.alpha * s}; }
    friend RgbAlpha operator*(float s, RgbAlpha a) { return a * s; }
    bool operator==(RgbAlpha const&) const = default;
    static RgbAlpha unset() { float const n = unsetFloat(); return {n, n, n, n}; }
};

/// A scalar with alpha.
struct MonoAlpha {
    float value = 0, alpha = 0;
    constexpr MonoAlpha() = default;
    constexpr MonoAlpha(float v, float a) : value(v), alpha(a) {}
    bool operator==(MonoAlpha const&) const = default;
    static MonoAlpha unset() { return {unsetFloat(), unsetFloat()}; }
};

/// CIE XYZ colour.
struct XYZ {
    float x = 0, y = 0, z = 0;
    constexpr XYZ() = default;
    constexpr XYZ(float x_, float y_, float z_) : x(x_), y(y_), z(z_) {}
    bool operator==(XYZ const&) const = default;
};

/// Two signed 32-bit integers: an image position or size.
struct Pixel {
    std::int32_t x = 0, y = 0;
    constexpr Pixel() = default;
    constexpr Pixel(std::int32_t x_, std::int32_t y_) : x(x_), y(y_) {}
    static constexpr Pixel unknown() { return {std::numeric_limits<std::int32_t>::min(), std::numeric_limits<std::int32_t>::min()}; }
    bool operator==(Pixel const&) const = default;
};

/// Row-major 3x3 matrix; vectors are columns (m * v).
struct Matrix33 {
    float m[3][3] = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}};
    constexpr Matrix33() = default;
    constexpr Matrix33(float a, float b, float c, float d, float e, float f, float g, float h, float i)
        : m{{a, b, c}, {d, e, f}, {g, h, i}} {}
    static Matrix33 fromColumns(Dir const& c0, Dir const& c1, Dir const& c2) {
        return {c0.x, c1.x, c2.x, c0.y, c1.y, c2.y, c0.z, c1.z, c2.z};
    }
    Dir column(int i) const { return {m[0][i], m[1][i], m[2][i]}; }
    Dir row(int i) const { return {m[i][0], m[i][1], m[i][2]}; }
    Dir operator*(Dir const& v) const {
        return {m[0][0] * v.x + m[0][1] * v.y + m[0][2] * v.z, m[1][0] * v.x + m[1][1] * v.y + m[1][2] * v.z,
                m[2][0] * v.x + m[2][1] * v.y + m[2][2] * v.z};
    }
    Rgb operator*(Rgb const& v) const {
        Dir const d = (*this) * Dir(v.r, v.g, v.b);
        return {d.x, d.y, d.z};
    }
    Matrix33 operator*(Matrix33 const& o) const {
        Matrix33 r;
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j) r.m[i][j] = m[i][0] * o.m[0][j] + m[i][1] * o.m[1][j] + m[i][2] * o.m[2][j];
        return r;
    }
    Matrix33 transposed() const {
        return {m[0][0], m[1][0], m[2][0], m[0][1], m[1][1], m[2][1], m[0][2], m[1][2], m[2][2]};
    }
    float determinant() const {
        return m[0][0] * (m[1][1] * m[2][2] - m[1][2] * m[2][1]) - m[0][1] * (m[1][0] * m[2][2] - m[1][2] * m[2][0]) +
               m[0][2] * (m[1][0] * m[2][1] - m[1][1] * m[2][0]);
    }
    /// Inverse by cofactors (in double for accuracy); a singular matrix gives zeros.
    Matrix33 inverse() const {
        double a[3][3];
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j) a[i][j] = m[i][j];
        double const det = a[0][0] * (a[1][1] * a[2][2] - a[1][2] * a[2][1]) -
                           a[0][1] * (a[1][0] * a[2][2] - a[1][2] * a[2][0]) +
                           a[0][2] * (a[1][0] * a[2][1] - a[1][1] * a[2][0]);
        Matrix33 r(0, 0, 0, 0, 0, 0, 0, 0, 0);
        if (det == 0.0) return r;
        double const id = 1.0 / det;
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j) {
                int const i1 = (j + 1) % 3, i2 = (j + 2) % 3, j1 = (i + 1) % 3, j2 = (i + 2) % 3;
                r.m[i][j] = float((a[i1][j1] * a[i2][j2] - a[i1][j2] * a[i2][j1]) * id);
            }
        return r;
    }
    bool operator==(Matrix33 const& o) const {
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j)
                if (m[i][j] != o.m[i][j]) return false;
        return true;
    }
};

/// 3x4 affine transform: three rows, each a linear part and a translation.
/// A point p maps to (row_i . p + t_i).
struct AffineTm {
    float m[3][4] = {{1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}};
    static AffineTm identity() { return {}; }
    Pos transformPoint(Pos const& p) const {
        return {m[0][0] * p.x + m[0][1] * p.y + m[0][2] * p.z + m[0][3],
                m[1][0] * p.x + m[1][1] * p.y + m[1][2] * p.z + m[1][3],
                m[2][0] * p.x + m[2][1] * p.y + m[2][2] * p.z + m[2][3]};
    }
    Dir transformDir(Dir const& d) const {
        return {m[0][0] * d.x + m[0][1] * d.y + m[0][2] * d.z, m[1][0] * d.x + m[1][1] * d.y + m[1][2] * d.z,
                m[2][0] * d.x + m[2][1] * d.y + m[2][2] * d.z};
    }
    Matrix33 linear() const {
        return {m[0][0], m[0][1], m[0][2], m[1][0], m[1][1], m[1][2], m[2][0], m[2][1], m[2][2]};
    }
    Dir translation() const { return {m[0][3], m[1][3], m[2][3]}; }
    /// this applied after `first`.
    AffineTm operator*(AffineTm const& first) const {
        AffineTm r;
        for (int i = 0; i < 3; ++i) {
            for (int j = 0; j < 4; ++j) {
                float v = m[i][0] * first.m[0][j] + m[i][1] * first.m[1][j] + m[i][2] * first.m[2][j];
                if (j == 3) v += m[i][3];
                r.m[i][j] = v;
            }
        }
        return r;
    }
    AffineTm inverse() const {
        Matrix33 const li = linear().inverse();
        AffineTm r;
        Dir const t = li * translation();
        for (int i = 0; i < 3; ++i) {
            for (int j = 0; j < 3; ++j) r.m[i][j] = li.m[i][j];
            r.m[i][3] = -t[i];
        }
        return r;
    }
    bool operator==(AffineTm const& o) const {
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 4; ++j)
                if (m[i][j] != o.m[i][j]) return false;
        return true;
    }
};

/// Axis-aligned box; the default box is empty (min +inf, max -inf).
template <typename P> struct BoundingBox {
    P min{std::numeric_limits<float>::infinity(), std::numeric_limits<float>::infinity(), std::numeric_limits<float>::infinity()};
    P max{-std::numeric_limits<float>::infinity(), -std::numeric_limits<float>::infinity(), -std::numeric_limits<float>::infinity()};
    bool isEmpty() const { return min.x > max.x || min.y > max.y || min.z > max.z; }
    void include(P const& p) {
        min = P(std::fmin(min.x, p.x), std::fmin(min.y, p.y), std::fmin(min.z, p.z));
        max = P(std::fmax(max.x, p.x), std::fmax(max.y, p.y), std::fmax(max.z, p.z));
    }
    bool operator==(BoundingBox const&) const = default;
};

inline constexpr float PI = 3.14159265358979f;
inline constexpr float TWO_PI = 6.2831855f;

template <typename T> constexpr T clamp(T v, T lo, T hi) { return v < lo ? lo : (v > hi ? hi : v); }
inline float lerp(float a, float b, float t) { return a + (b - a) * t; }

} // namespace Quelin
