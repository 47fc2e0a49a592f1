#pragma once
// Sub-commands of the `ferrim` program, each in its own source.
#include <CLI/CLI.hpp>
#include <functional>
#include <new>

#include "QuelinLib/Base.h"

namespace FerrimTool {

/// Thrown by a command to end the program with one error line and exit code 1.
struct CommandError {
    Quelin::String message;
};

/// Runs `work` for `file`, turning an allocation failure into an error that
/// names the file.
template <typename F> decltype(auto) guardMemory(Quelin::String const& file, F&& work) {
    try {
        return work();
    } catch (std::bad_alloc const&) {
        throw CommandError{"not enough memory for \"" + file + "\""};
    }
}

/// A sub-command adds its options to `app` and returns what runs it.
void addTypesCommand(CLI::App& app);
void addRenderCommand(CLI::App& app);
/// `ferrim tonemap` and `ferrim unmap`.
void addColorCommands(CLI::App& app);
void addSkyCommand(CLI::App& app);
/// `ferrim textures`: the texture cache and its out-of-core report.
void addTexturesCommand(CLI::App& app);
/// `ferrim maketx`: tiled, mip-mapped texture files.
void addMaketxCommand(CLI::App& app);

/// Progress bars off for the whole run (`--quiet`).
void setQuiet(bool quiet);

/// A one-line progress bar on standard error, drawn only when that is a
/// terminal and the run is not quiet; otherwise it writes nothing, so standard
/// error carries only errors.
class ProgressBar {
public:
    explicit ProgressBar(Quelin::String label);
    ~ProgressBar();
    /// Thread-safe; `fraction` in [0, 1].
    void update(double fraction);
    void finish();

private:
    Quelin::String mLabel;
    Quelin::Mutex mMutex;
    int mShown = -1;
    bool mFinished = false;
};

} // namespace FerrimTool
