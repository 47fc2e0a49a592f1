// `ferrim textures FILE... [--budget-gib G] [--percent P] [--folder DIR]`: loads
// image files through the texture cache, lists them, applies the out-of-core
// settings and prints the mip-map manager's report.
#include <atomic>
#include <cmath>
#include <cstdio>

#include "Commands.h"
#include "Ferrim/TextureMap/ImageTextureCache.h"

using namespace Quelin;

namespace FerrimTool {

namespace {

struct TexturesOptions {
    Stack<String> files;
    Optional<float> budgetGiB;
    Optional<float> percent;
    String folder;
};

String describe(ImageTexture const& texture) {
    char line[512];
    if (!texture.hasPixels()) {
        std::snprintf(line, sizeof line, "%s: error: %s", texture.getName().c_str(), texture.getError().c_str());
        return line;
    }
    Image::Descriptor const d = texture.getDescriptor();
    std::snprintf(line, sizeof line, "%s  %dx%d  %s  %d levels  %.2f MiB in memory", texture.getName().c_str(), d.resolution.x,
                  d.resolution.y, getPixelFormatName(d.format), texture.getLevelCount(),
                  double(texture.getMemoryUsage()) / double(1 << 20));
    return line;
}

void run(TexturesOptions const& options) {
    // Requests return at once; the loader thread decodes them in order.
    ProgressBar progress("Loading textures");
    std::atomic<int> loaded{0};
    int const count = int(options.files.size());
    Stack<ImageTextureCache::FutureTexture> futures;
    for (String const& file : options.files)
        futures.push_back(ImageTextureCache::getOrCreate(FileDataSource::make(Io::pathFromUtf8(file)), [&](ImageTexture const&) {
            progress.update(double(++loaded) / double(count));
        }));
    Stack<SharedPtr<ImageTexture>> textures;
    for (auto const& future : futures) textures.push_back(future.getImageTexture());
    progress.finish();

    // The first failure's file and reason make the error line; every texture is listed.
    String firstError;
    int failures = 0;
    for (auto const& texture : textures) {
        std::printf("%s\n", describe(*texture).c_str());
        if (!texture->hasPixels() && failures++ == 0)
            firstError = texture->getError().find(texture->getName()) != String::npos
                             ? texture->getError()
                             : texture->getName() + ": " + texture->getError();
    }
    bool failed = failures > 0;

    if (options.budgetGiB || options.percent || !options.folder.empty()) {
        Io::Path const folder =
            options.folder.empty() ? MipMapManager::getDefaultOffloadDirectory() : Io::pathFromUtf8(options.folder);
        auto const updated = MipMapManager::updateCache(true, options.budgetGiB, options.percent, folder);
        if (!updated) {
            if (failures++ == 0)
                firstError = updated.error();
            failed = true;
        }
        std::printf("Offloaded %.2f MiB of a budget of %.2f MiB\n", double(MipMapManager::getOffloadedBytes()) / double(1 << 20),
                    double(MipMapManager::getBudget()) / double(1 << 20));
        // The report (and textureStats.csv in the offload folder) only with the
        // out-of-core settings it reports on.
        std::printf("\n%s", MipMapManager::getStatsAndSaveReport().c_str());
    }
    if (failed)
        throw CommandError{failures == 1 ? firstError
                                         : firstError + " (and " + std::to_string(failures - 1) + " more failures listed above)"};
}

} // namespace

void addTexturesCommand(CLI::App& app) {
    auto options = std::make_shared<TexturesOptions>();
    CLI::App* command = app.add_subcommand("textures", "Load image files through the texture cache, offload mip levels to disk "
                                                       "under a budget and print the cache's report");
    command->add_option("files", options->files, "Image files (EXR, HDR, PNG, JPEG, TIFF, TGA, BMP)")->required();
    // NaN passes the range checks (every comparison is false): refused here.
    auto const finite = CLI::Validator(
        [](String& text) -> String {
            float value = 0.f;
            if (!CLI::detail::lexical_cast(text, value) || !std::isfinite(value)) return "not a finite number: " + text;
            return {};
        },
        "FINITE");
    command->add_option_function<float>(
               "--budget-gib", [options](float g) { options->budgetGiB = g; }, "Disk budget for offloaded mip levels, in GiB")
        ->check(finite)
        ->check(CLI::NonNegativeNumber);
    command->add_option_function<float>(
               "--percent", [options](float p) { options->percent = p; }, "Per cent of the offload disk to keep free")
        ->check(finite)
        ->check(CLI::Range(0.f, 100.f));
    command->add_option("--folder", options->folder, "Offload folder (default: the temporary folder's OstrelRenderer/ImageTextureCache)");
    command->callback([options] { run(*options); });
}

} // namespace FerrimTool
