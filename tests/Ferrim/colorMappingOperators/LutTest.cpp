#include <gtest/gtest.h>

#include <random>

#include "Ferrim/colorMappingOperators/Lut.h"

#include <OpenColorIO/OpenColorIO.h>

using namespace Quelin;

namespace {

String testFile(char const* name) { return String(FERRIM_TESTDATA_DIR) + "/lut/" + name; }

Stack<Rgb> probeColors() {
    Stack<Rgb> colors = {Rgb(0.f), Rgb(1.f), Rgb(0.5f), Rgb(0.1f, 0.7f, 0.3f), Rgb(0.95f, 0.97f, 0.99f),
                         Rgb(-0.5f, 1.5f, 0.2f), Rgb(0.3f, 0.2f, 0.9f), Rgb(0.99f, 0.2f, 0.5f), Rgb(2.5f, -1.f, 1.2f)};
    std::mt19937 rng(7);
    std::uniform_real_distribution<float> u(-0.1f, 1.1f);
    for (int i = 0; i < 200; ++i) colors.push_back(Rgb(u(rng), u(rng), u(rng)));
    return colors;
}

namespace OCIO = OCIO_NAMESPACE;
/// The independent reference: a raw-config file transform.
Stack<Rgb> applyOcio(String const& path, LutInterpolation interpolation, Stack<Rgb> const& colors) {
    auto config = OCIO::Config::CreateRaw();
    auto transform = OCIO::FileTransform::Create();
    transform->setSrc(path.c_str());
    transform->setInterpolation(interpolation == LutInterpolation::Tetrahedral ? OCIO::INTERP_TETRAHEDRAL
                                                                               : OCIO::INTERP_LINEAR);
    auto cpu = config->getProcessor(transform)->getDefaultCPUProcessor();
    Stack<Rgb> out;
    for (Rgb c : colors) {
        float p[3] = {c.r, c.g, c.b};
        cpu->applyRGB(p);
        out.push_back(Rgb(p[0], p[1], p[2]));
    }
    return out;
}

void expectNear(Rgb const& a, Rgb const& b, float tolerance, Rgb const& input) {
    for (int ch = 0; ch < 3; ++ch)
        EXPECT_NEAR(a[ch], b[ch], tolerance) << "input " << input.r << " " << input.g << " " << input.b << " channel " << ch;
}

} // namespace

TEST(LutReaders, UnreadableFilesNameFileAndProblem) {
    String const path = testFile("error_truncated_file.3dl");
    auto lut = read3dlLut(path);
    ASSERT_FALSE(lut);
    for (String const& part : {path + ":375:", String("4913"), String("369")}) EXPECT_NE(lut.error().find(part), String::npos) << lut.error();
    auto const unknown = readLutFile(testFile("LICENSE")); // neither kind of LUT; missing files are the I/O tests'
    ASSERT_FALSE(unknown);
    EXPECT_NE(unknown.error().find(testFile("LICENSE")), String::npos) << unknown.error();
}

struct OcioCase {
    char const* file;  ///< nullptr: the default LUT as written
    LutInterpolation interpolation;
};
class LutMatchesOcio : public ::testing::TestWithParam<OcioCase> {};

TEST_P(LutMatchesOcio, SameResultsOnSameInputs) {
    String const path = GetParam().file ? testFile(GetParam().file) : getDefaultLut();
    auto lut = readLutFile(path);
    ASSERT_TRUE(lut) << lut.error();
    auto const colors = probeColors();
    auto const reference = applyOcio(path, GetParam().interpolation, colors);
    for (std::size_t i = 0; i < colors.size(); ++i)
        expectNear(lut->apply(colors[i], GetParam().interpolation), reference[i], 1e-5f, colors[i]);
}

INSTANTIATE_TEST_SUITE_P(SharedFiles, LutMatchesOcio,
                         ::testing::Values(OcioCase{"iridas_1d.cube", LutInterpolation::Trilinear},
                                           OcioCase{"iridas_3d.cube", LutInterpolation::Tetrahedral},
                                           OcioCase{"discreet-3d-lut.3dl", LutInterpolation::Tetrahedral},
                                           OcioCase{nullptr, LutInterpolation::Trilinear},
                                           OcioCase{nullptr, LutInterpolation::Tetrahedral}));

TEST(LutDefault, FileRoundTripsAndLookIsGentle) {
    auto lut = readCubeLut(getDefaultLut());
    ASSERT_TRUE(lut) << lut.error();
    ASSERT_TRUE(lut->lut3d);
    Lut const& data = getDefaultLutData();
    ASSERT_EQ(lut->lut3d->values.size(), data.lut3d->values.size());
    for (std::size_t i = 0; i < data.lut3d->values.size(); ++i) EXPECT_FLOAT_EQ(lut->lut3d->values[i], data.lut3d->values[i]);
    expectNear(data.apply(Rgb(0.f), LutInterpolation::Tetrahedral), Rgb(0.f), 1e-6f, Rgb(0.f));
    expectNear(data.apply(Rgb(1.f), LutInterpolation::Tetrahedral), Rgb(1.f), 1e-6f, Rgb(1.f));
    // Greys stay in order and close to themselves.
    float previous = -1.f;
    for (int i = 0; i <= 64; ++i) {
        float const x = float(i) / 64.f;
        Rgb const y = data.apply(Rgb(x), LutInterpolation::Tetrahedral);
        EXPECT_GT(y.mean(), previous);
        EXPECT_NEAR(y.mean(), x, 0.08f);
        previous = y.mean();
    }
}

TEST(LutInterpolation, IdentityLatticeIsExactAndTetrahedralKeepsGreys) {
    Lut3D identity;
    identity.resize(9);
    for (int b = 0; b < 9; ++b)
        for (int g = 0; g < 9; ++g)
            for (int r = 0; r < 9; ++r) identity.setEntry(r, g, b, Rgb(r / 8.f, g / 8.f, b / 8.f));
    identity.prepare();
    for (Rgb c : probeColors()) {
        Rgb const clamped(clamp(c.r, 0.f, 1.f), clamp(c.g, 0.f, 1.f), clamp(c.b, 0.f, 1.f));
        expectNear(identity.applyTetrahedral(c), clamped, 1e-6f, c);
        expectNear(identity.applyTrilinear(c), clamped, 1e-6f, c);
    }
    // A lattice that tints off-diagonal points: tetrahedral interpolation of a
    // grey only uses the diagonal corners, trilinear does not.
    Lut3D tinted = identity;
    tinted.setEntry(1, 0, 0, Rgb(1.f, 0.f, 0.f));
    tinted.prepare();
    Rgb const grey(0.06f);
    Rgb const t = tinted.applyTetrahedral(grey);
    EXPECT_FLOAT_EQ(t.r, t.g);
    EXPECT_FLOAT_EQ(t.g, t.b);
    EXPECT_NE(tinted.applyTrilinear(grey).r, tinted.applyTrilinear(grey).g);
    // Rows give the same results as single colours; NaN lands on the lattice start.
    Stack<float> row = {0.2f, 0.4f, 0.6f, std::nanf(""), 0.5f, 0.5f};
    tinted.applyTetrahedral(row.data(), 2);
    expectNear(Rgb(row[0], row[1], row[2]), tinted.applyTetrahedral(Rgb(0.2f, 0.4f, 0.6f)), 0.f, Rgb(0.2f, 0.4f, 0.6f));
    EXPECT_FLOAT_EQ(row[3], 0.f);
}

TEST(LutReaders, CrLfAndCommentsReadLikeLf) {
    String const lf = "# a comment\nTITLE \"crlf\"\nLUT_3D_SIZE 2\n\n0 0 0\n1 0 0\n0 1 0\n1 1 0\n0 0 1\n1 0 1\n0 1 1\n1 1 1\n";
    String crlf;
    for (char c : lf) crlf += c == '\n' ? String("\r\n") : String(1, c);
    auto a = parseCubeLut(lf, "lf.cube");
    auto b = parseCubeLut(crlf, "crlf.cube");
    ASSERT_TRUE(a) << a.error();
    ASSERT_TRUE(b) << b.error();
    EXPECT_EQ(b->title, "crlf");
    EXPECT_EQ(a->lut3d->values, b->lut3d->values);
}

TEST(LutReaders, UnevenMeshBecomesShaper) {
    // Lattice planes at uneven input codes, each holding its own input value:
    // the whole table is the identity only if the mesh is honoured.
    long const mesh[5] = {0, 100, 200, 300, 1023};
    String text = "0 100 200 300 1023\n";
    for (int r = 0; r < 5; ++r)
        for (int g = 0; g < 5; ++g)
            for (int b = 0; b < 5; ++b)
                text += std::to_string(mesh[r] * 4) + " " + std::to_string(mesh[g] * 4) + " " + std::to_string(mesh[b] * 4) + "\n";
    auto lut = parse3dlLut(text, "uneven.3dl");
    ASSERT_TRUE(lut) << lut.error();
    ASSERT_TRUE(lut->lut1d);
    for (float x : {0.05f, 0.15f, 0.25f, 0.5f, 0.9f}) {
        Rgb const in(x, 0.5f * x, 1.f - x);
        expectNear(lut->apply(in, LutInterpolation::Trilinear), in, 1e-3f, in);
    }
}
