// Evaluates a noise map and maps a colour through the default pipeline with
// the installed headers and libraries, compiled at the standard the package
// asks for; exits non-zero when a result is wrong.
#include <cmath>
#include <cstdio>

#include <cstring>

#include "Ferrim/ColorMapping.h"
#include "Ferrim/Ferrim.h"
#include "Ferrim/Version.h"
#include "Ferrim/maps/NoiseMap.h"
#ifdef CONSUMER_USES_OPENIMAGEIO
#include <OpenImageIO/imageio.h>
#endif

namespace {
class UvwContext final : public Quelin::NullShadeContext {
  public:
    explicit UvwContext(Quelin::Pos uvw) : mUvw(uvw) {}
    Quelin::Pos getUvw(int, std::uint32_t) const override { return mUvw; }
    Quelin::Dir getDUvw(int) const override { return {}; }

  private:
    Quelin::Pos mUvw;
};

int fail(char const* what) {
    std::fprintf(stderr, "consumer: %s\n", what);
    return 1;
}
} // namespace

int main() {
    char expected[32];
    std::snprintf(expected, sizeof expected, "%d.%d.%d", FERRIM_VERSION_MAJOR, FERRIM_VERSION_MINOR,
                  FERRIM_VERSION_PATCH);
    if (std::strcmp(Quelin::Ferrim::version(), expected) != 0)
        return fail("the library's version differs from its header's");
#ifdef CONSUMER_USES_OPENIMAGEIO
    if (OIIO::openimageio_version() <= 0)
        return fail("the consumer's own OpenImageIO does not answer");
#endif
    Quelin::Ferrim::startup();
    if (!Quelin::DataObjects::TypeDatabase::findType("Zatho.NoiseMap"))
        return fail("the noise map type is not registered");

    auto noise = Quelin::makeSharedPtr<Quelin::NoiseMap>();
    noise->set("size", 0.5f);
    auto const result = noise->getEvaluatorImpl();
    // Two points half a cell apart: noise must vary and stay between its colours.
    Quelin::RgbAlpha const a = result.evaluator->evalColor(UvwContext({0.13f, 0.71f, 0.f}), nullptr);
    Quelin::RgbAlpha const b = result.evaluator->evalColor(UvwContext({0.38f, 0.29f, 0.f}), nullptr);
    if (!(a.r >= 0.f && a.r <= 1.f && b.r >= 0.f && b.r <= 1.f) || a.r == b.r)
        return fail("noise values are wrong");

    bool refused = false;
    try {
        noise->set("size", -1.f);
    } catch (Quelin::Exception const&) {
        refused = true;
    }
    if (!refused)
        return fail("a negative noise size was accepted");

    Quelin::ColorMapping mapping;
    Quelin::Rgb const display = mapping.map(Quelin::Rgb(0.18f, 0.18f, 0.18f));
    Quelin::Rgb const back = mapping.unmap(display);
    if (!(display.g > 0.18f && display.g < 1.f) || std::abs(back.g - 0.18f) > 1e-3f)
        return fail("the default pipeline does not map mid grey to display and back");

    std::printf("Ferrim %s (C++ %ld): noise %.4f %.4f, mid grey displays as %.4f\n", Quelin::Ferrim::version(),
                long(__cplusplus), a.r, b.r, display.g);
    Quelin::Ferrim::shutdown();
    return 0;
}
