// The `ferrim` program: previews of map graphs, tone mapping of HDR images,
// colour unmapping and the registered data types.
#include <cstdio>

#include "Commands.h"
#include "Ferrim/Ferrim.h"
#include "Ferrim/Version.h"
#include "QuelinLib/MessageText.h"

int main(int argc, char** argv) {
    CLI::App app{"ferrim: previews of shading maps, colour mapping of images and the library's data types.\n"
                 "Without a command it renders the embedded demo scene."};
    app.require_subcommand(0, 1);
    app.set_version_flag("--version", std::string("ferrim ") + Quelin::Ferrim::version());
    app.add_flag_callback("-q,--quiet", [] { FerrimTool::setQuiet(true); }, "No progress bars");
    // Options of the program itself are also taken after a command's.
    app.fallthrough();
    FerrimTool::addTypesCommand(app);
    FerrimTool::addRenderCommand(app);
    FerrimTool::addColorCommands(app);
    FerrimTool::addSkyCommand(app);
    FerrimTool::addTexturesCommand(app);
    FerrimTool::addMaketxCommand(app);

    Quelin::Ferrim::startup();
    int code = 0;
    try {
        if (argc <= 1) {
            // The main job: render the demo scene with default options.
            char const* args[] = {argv[0], "render"};
            app.parse(2, const_cast<char**>(args));
        } else {
            app.parse(argc, argv);
        }
    } catch (CLI::ParseError const& e) {
        // Help and the version go to standard output as the parser writes them;
        // its errors get the program's one-line form.
        if (e.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) {
            code = app.exit(e);
        } else {
            std::fprintf(stderr, "ferrim: error: %s (see ferrim --help)\n", Quelin::singleLine(e.what()).c_str());
            code = 1;
        }
    } catch (FerrimTool::CommandError const& e) {
        std::fprintf(stderr, "ferrim: error: %s\n", Quelin::singleLine(e.message).c_str());
        code = 1;
    } catch (std::bad_alloc const&) {
        std::fprintf(stderr, "ferrim: error: not enough memory\n");
        code = 1;
    } catch (std::exception const& e) {
        std::fprintf(stderr, "ferrim: error: %s\n", Quelin::singleLine(e.what()).c_str());
        code = 1;
    }
    Quelin::Ferrim::shutdown();
    return code;
}
