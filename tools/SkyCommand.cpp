// `ferrim sky`: where the sky, sun and clouds data files are found, and what
// loading the slices of given configurations reads and keeps.
#include <charconv>
#include <cstdio>
#include <set>

#include "Commands.h"
#include "Ferrim/SkyMap/ModelDataCache.h"
#include "Ferrim/SkyMap/PrgSkyModelData.h"
#include "Ferrim/SkyMap/PrgSunModelData.h"

namespace FerrimTool {

using namespace Quelin;

namespace {

struct SkyOptions {
    Stack<String> skyConfigs, sunConfigs;
    String dataDir;
};

/// "1,0,2" as exactly `count` integers.
Stack<std::int32_t> parseIndices(String const& text, std::size_t count, char const* option, char const* form) {
    Stack<std::int32_t> values;
    char const* p = text.data();
    char const* const end = p + text.size();
    while (p <= end) {
        std::int32_t value = 0;
        auto const [next, error] = std::from_chars(p, end, value);
        if (error != std::errc() || (next != end && *next != ','))
            break;
        values.push_back(value);
        p = next + 1;
    }
    if (p <= end || values.size() != count)
        throw CommandError{String(option) + " wants " + form + ", got \"" + text + "\""};
    return values;
}

String megabytes(std::int64_t bytes) {
    char text[32];
    std::snprintf(text, sizeof text, "%.1f MiB", double(bytes) / (1024.0 * 1024.0));
    return text;
}

/// Loads through the process-wide cache, as skies do, and says what it cost.
template <typename Data>
void loadAndReport(char const* kind, typename Data::Configuration const& configuration, std::int64_t fileSize,
                   std::set<Data const*>& seen) {
    auto const data = Data::getCache().get(configuration);
    if (!data)
        throw CommandError{String(kind) + " " + configuration.toString() + ": " + data.error()};
    if (!seen.insert(data->get()).second) {
        std::printf("%s %s: shared with the load above, nothing read\n", kind, configuration.toString().c_str());
        return;
    }
    SkyDataLoadStats const& stats = (*data)->getLoadStats();
    std::printf("%s %s: %lld of %lld bytes read (%.2f %%) in %lld reads and %lld seeks, %.1f ms, %s held\n", kind,
                configuration.toString().c_str(), (long long)stats.bytesRead, (long long)fileSize,
                100.0 * double(stats.bytesRead) / double(fileSize), (long long)stats.reads, (long long)stats.seeks,
                stats.seconds * 1e3, megabytes((*data)->getMemoryUsage()).c_str());
}

void runSky(SkyOptions const& options) {
    if (!options.dataDir.empty()) {
        if (!Io::folderExists(Io::pathFromUtf8(options.dataDir)))
            throw CommandError{"--data-dir: no folder \"" + options.dataDir + "\""};
        Io::StandardPaths::setPrgSkyModelData(Io::pathFromUtf8(options.dataDir));
    }
    // Parse everything first: a typo should not cost a load.
    Stack<PrgSkyModelData::Configuration> skies;
    for (String const& text : options.skyConfigs) {
        auto const v = parseIndices(text, 5, "--sky-config", "C0,C1,C2,A,B");
        skies.push_back({{v[0], v[1], v[2]}, v[3], v[4]});
    }
    Stack<PrgSunModelData::Configuration> suns;
    for (String const& text : options.sunConfigs) {
        auto const v = parseIndices(text, 2, "--sun-config", "A,B");
        suns.push_back({v[0], v[1]});
    }

    for (StringView name : {PRG_SKY_FILE_NAME, PRG_SUN_FILE_NAME, CLOUDS_FILE_NAME}) {
        auto const path = locateSkyDataFile(name);
        if (path)
            std::printf("%-24s %s\n", String(name).c_str(), Io::pathToUtf8(*path).c_str());
        else
            std::printf("%-24s not found: %s\n", String(name).c_str(), path.error().c_str());
    }
    std::set<PrgSkyModelData const*> seenSkies;
    for (auto const& c : skies)
        loadAndReport<PrgSkyModelData>("sky", c, PrgSkyModelData::FILE_SIZE, seenSkies);
    std::set<PrgSunModelData const*> seenSuns;
    for (auto const& c : suns)
        loadAndReport<PrgSunModelData>("sun", c, PrgSunModelData::FILE_SIZE, seenSuns);
}

} // namespace

void addSkyCommand(CLI::App& app) {
    auto options = std::make_shared<SkyOptions>();
    auto* sky = app.add_subcommand("sky", "Where the sky, sun and clouds data files are, and what loading the slices "
                                          "of sky configurations reads");
    sky->add_option("--sky-config", options->skyConfigs,
                    "Lower indices C0,C1,C2,A,B of a sky slice to load (repeatable)");
    sky->add_option("--sun-config", options->sunConfigs, "Lower indices A,B of a sun slice to load (repeatable)");
    sky->add_option("--data-dir", options->dataDir, "The installed data folder to search");
    sky->callback([options] { runSky(*options); });
}

} // namespace FerrimTool
