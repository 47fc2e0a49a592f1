#include "Ferrim/colorMappingOperators/LutOperator.h"
#include "Ferrim/colorMappingOperators/ColorProgram.h"

#include <cmath>
#include <filesystem>
#include <new>

namespace Quelin {

namespace {
SharedPtr<TypeDefinition const> const& interpolationType() {
    static auto const type = TypeDefinition::makeEnum(
        "Zatho.LutInterpolation", {{int(LutInterpolation::Trilinear), "Trilinear"}, {int(LutInterpolation::Tetrahedral), "Tetrahedral"}});
    return type;
}

std::int64_t fileTime(std::filesystem::path const& path) {
    std::error_code ec;
    auto const t = std::filesystem::last_write_time(path, ec);
    return ec ? -1 : std::int64_t(t.time_since_epoch().count());
}

float encodeChannel(float v, float exponent) { return std::pow(std::max(v, 0.f), exponent); }
} // namespace

SharedPtr<DataObjectDefinition const> const& LutOperator::Data::definition() {
    static auto const def = [] {
        ShadingDataObjectBuilder b;
        addCommonOperatorProperties(b);
        b.addPath("path", String(), "LUT file",
                  "A .cube or .3dl look-up table. Relative paths are looked up in the renderer's resource folder.")
            .setMetadata(Metadata::UI_PATH_FLAGS, String("open;filter=LUT files (*.cube *.3dl)|*.cube;*.3dl"));
        b.addFloat("lut_opacity", 1.f, "Opacity", "How much of the table's result is used: 0 none, 1 all.")
            .addValidator(makeSharedPtr<ClampValueToRangeValidator<float>>(0.f, 1.f));
        b.addEnum("lut_interpolation", interpolationType(), int(LutInterpolation::Tetrahedral), "Interpolation",
                  "How colours between the table's grid points are found. Tetrahedral is faster and keeps greys grey.");
        b.addBool("lut_applyInSrgb", true, "Apply in sRGB",
                  "Encodes colours with the display gamma before the table and decodes them after it; most looks are "
                  "made for display values. Turn off for tables made for linear values.");
        return b.build("Zatho.LutOperator");
    }();
    return def;
}
LutOperator::LutOperator()
    : UnaryColorMappingOperator(Data::definition(), OperatorColorEncoding::Linear, OperatorColorEncoding::Linear,
                                OperatorGroup::FinalLook) {}

void LutOperator::prepareForApplicationImpl(ColorMappingContext const& context) {
    String const path = get<String>("path");
    mOpacity = get<float>("lut_opacity");
    mInterpolation = get<LutInterpolation>("lut_interpolation");
    mInSrgb = get<bool>("lut_applyInSrgb");
    float const gamma = context.gamma > 0.f ? context.gamma : 2.2f;
    mEncode = 1.f / gamma;
    mDecode = gamma;
    if (!isActive(context) || path.empty()) {
        mLut.reset();
        mLoadError.clear();
        mLoadedPath.clear();
        setNeutral(true);
        return;
    }
    std::filesystem::path resolved(path);
    if (resolved.is_relative() && !context.resourceDirectory.empty())
        resolved = std::filesystem::path(context.resourceDirectory) / resolved;
    String const resolvedText = resolved.string();
    std::int64_t const time = fileTime(resolved);
    if (!mLut || resolvedText != mLoadedPath || time != mLoadedTime) {
        Expected<Lut> lut = makeError(resolvedText + ": not enough memory for the table");
        try {
            lut = readLutFile(resolvedText);
        } catch (std::bad_alloc const&) {
            // Kept as the load error like any other, so the file is named.
        }
        if (!lut) {
            // Neutral, with the reason kept for the user.
            mLut.reset();
            mLoadError = lut.error();
            mLoadedPath.clear();
            setNeutral(true);
            return;
        }
        mLut = makeSharedPtr<Lut const>(std::move(*lut));
        mLoadedPath = resolvedText;
        mLoadedTime = time;
    }
    mLoadError.clear();
    if (mLut->lut1d) {
        mDomainMin = mLut->lut1d->domainMin;
        mDomainMax = mLut->lut1d->domainMax;
    } else {
        mDomainMin = mLut->lut3d->domainMin;
        mDomainMax = mLut->lut3d->domainMax;
    }
    setNeutral(mOpacity <= 0.f);
}

Rgb LutOperator::apply(Rgb const& color) const {
    Rgb x = color;
    if (mInSrgb) x = Rgb(encodeChannel(x.r, mEncode), encodeChannel(x.g, mEncode), encodeChannel(x.b, mEncode));
    Rgb y = mLut->apply(x, mInterpolation);
    if (mInSrgb) y = Rgb(encodeChannel(y.r, mDecode), encodeChannel(y.g, mDecode), encodeChannel(y.b, mDecode));
    return mOpacity >= 1.f ? y : color + (y - color) * mOpacity;
}

Rgb LutOperator::mapImpl(Rgb const& color, Pixel) const {
    if (isNeutral() || !mLut) return color;
    return apply(color);
}

void LutOperator::mapImpl(std::span<Rgb> row, Pixel, Pixel extent) const {
    if (isNeutral() || !mLut) return;
    std::span<Rgb> const pixels = row.first(bucketSize(row.size(), extent));
    static_assert(sizeof(Rgb) == 3 * sizeof(float), "Rgb rows are read as packed floats");
    if (!mInSrgb && mOpacity >= 1.f && !mLut->lut1d && mLut->lut3d) {
        // The plain case: the table straight over the packed row.
        float* data = reinterpret_cast<float*>(pixels.data());
        if (mInterpolation == LutInterpolation::Tetrahedral)
            mLut->lut3d->applyTetrahedral(data, pixels.size());
        else
            mLut->lut3d->applyTrilinear(data, pixels.size());
        return;
    }
    for (Rgb& p : pixels) p = apply(p);
}

Rgb LutOperator::unmapImpl(Rgb const& color, Flags<ColorMappingExclude> exclude) const {
    if (exclude.has(ColorMappingExclude::Lut) || isNeutral() || !mLut) return color;
    // Newton's method with a finite-difference Jacobian. The interpolated table
    // is piecewise linear (tetrahedral) or multilinear (trilinear), so steps
    // converge in a few iterations inside one cell.
    auto residual = [&](Rgb const& x) { return apply(x) - color; };
    auto norm = [](Rgb const& r) { return std::max(std::abs(r.r), std::max(std::abs(r.g), std::abs(r.b))); };
    // The search stays inside the table's domain, expressed in linear values.
    Rgb lo, hi;
    for (int ch = 0; ch < 3; ++ch) {
        lo[ch] = mInSrgb ? encodeChannel(mDomainMin[ch], mDecode) : mDomainMin[ch];
        hi[ch] = mInSrgb ? encodeChannel(mDomainMax[ch], mDecode) : mDomainMax[ch];
    }
    auto clampToDomain = [&](Rgb x) {
        for (int ch = 0; ch < 3; ++ch) x[ch] = clamp(x[ch], lo[ch], hi[ch]);
        return x;
    };
    Rgb x = clampToDomain(color);
    Rgb f = residual(x);
    Rgb best = x;
    float bestNorm = norm(f);
    for (int iteration = 0; iteration < 40 && bestNorm > 1e-7f; ++iteration) {
        Matrix33 jacobian;
        for (int ch = 0; ch < 3; ++ch) {
            float const h = 1e-3f * std::max(1e-2f, std::abs(x[ch]));
            Rgb xp = x;
            // Step away from the domain edge so the difference sees the table.
            xp[ch] = x[ch] + h <= hi[ch] ? x[ch] + h : x[ch] - h;
            float const step = xp[ch] - x[ch];
            Rgb const d = (residual(xp) - f) / step;
            for (int row = 0; row < 3; ++row) jacobian.m[row][ch] = d[row];
        }
        Matrix33 const inverse = jacobian.inverse();
        Rgb const delta = inverse * f;
        if (norm(delta) == 0.f) break;
        // Halve the step while it makes things worse.
        float scale = 1.f;
        bool improved = false;
        for (int halving = 0; halving < 8; ++halving, scale *= 0.5f) {
            Rgb const candidate = clampToDomain(x - delta * scale);
            Rgb const fc = residual(candidate);
            if (norm(fc) < norm(f)) {
                x = candidate;
                f = fc;
                improved = true;
                break;
            }
        }
        if (!improved) break;
        if (norm(f) < bestNorm) {
            bestNorm = norm(f);
            best = x;
        }
    }
    return best;
}

void LutOperator::compileMapping(ColorProgramBuilder& builder) const {
    if (isNeutral() || !mLut) return;
    if (!mLut->lut3d) {
        UnaryColorMappingOperator::compileMapping(builder);  // a 1D-only table: pixel by pixel
        return;
    }
    ColorProgramBuilder::Step s;
    s.kind = ColorProgramBuilder::Kind::Lut;
    Lut3D const& cube = *mLut->lut3d;
    s.table[0] = cube.values.data();
    s.ints[0] = cube.size;
    for (int ch = 0; ch < 3; ++ch) s.p[ch] = cube.indexScale[ch], s.p[3 + ch] = cube.indexOffset[ch];
    if (mLut->lut1d) {
        Lut1D const& shaper = *mLut->lut1d;
        s.table[1] = shaper.values.data();
        s.ints[1] = shaper.size;
        for (int ch = 0; ch < 3; ++ch) s.p[6 + ch] = shaper.indexScale[ch], s.p[9 + ch] = shaper.indexOffset[ch];
    }
    s.p[12] = mEncode;
    s.p[13] = mDecode;
    s.p[14] = mOpacity;
    s.p[15] = mInterpolation == LutInterpolation::Tetrahedral ? 1.f : 0.f;
    s.p[16] = mInSrgb ? 1.f : 0.f;
    builder.append(s, mLut);
}

FERRIM_REGISTER_COLOR_OPERATOR(LutOperator, "LUT");

} // namespace Quelin
