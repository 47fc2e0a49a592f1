#pragma once
// Runs the `ferrim` program as a user would and checks its one-line errors.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace Quelin::Testing {

struct ToolRun { int code; std::string out, err; };

/// `ferrim <arguments>`, started in the root folder so that relative paths
/// cannot resolve against the test's own.
inline ToolRun runTool(std::string const& arguments) {
    std::string const base = (std::filesystem::temp_directory_path() / ("ferrim_tool_" + std::to_string(::getpid()))).string();
    std::string const command = "cd / && " + std::string(FERRIM_TOOL_PATH) + " " + arguments + " >" + base + ".out 2>" + base + ".err";
    int const status = std::system(command.c_str());
    auto slurp = [](std::string const& path) {
        std::ostringstream text;
        text << std::ifstream(path).rdbuf();
        std::filesystem::remove(path);
        return text.str();
    };
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, slurp(base + ".out"), slurp(base + ".err")};
}

/// `ferrim <arguments>`, expected to succeed.
inline ToolRun runToolOk(std::string const& arguments) {
    ToolRun r = runTool(arguments);
    EXPECT_EQ(r.code, 0) << arguments << " -> " << r.err;
    return r;
}

/// Exit code 1 and a single line on standard error, with the program's prefix,
/// holding every needle.
inline void expectOneLineError(ToolRun const& r, std::vector<std::string> const& needles, std::string const& what) {
    EXPECT_EQ(r.code, 1) << what << " -> " << r.err;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << what << " -> " << r.err;
    EXPECT_EQ(r.err.rfind("ferrim: ", 0), 0u) << what << " -> " << r.err;
    for (std::string const& needle : needles)
        EXPECT_NE(r.err.find(needle), std::string::npos) << what << " -> " << r.err << " lacks " << needle;
}

} // namespace Quelin::Testing
