#include "plot_script.h"

#include <cstdio>
#include <cstdlib>

namespace {

// Single-quotes text for the shell. Built with append only: GCC 12 warns
// (-Wrestrict, a known false positive) on chained operator+ at -O3.
std::string Quoted(const std::string &text) {
    std::string quoted(1, '\'');
    for (char c : text) {
        if (c == '\'')
            quoted.append("'\\''");
        else
            quoted.push_back(c);
    }
    quoted.push_back('\'');
    return quoted;
}

}  // namespace

bool RunPlotScript(const std::string &script, const std::vector<std::string> &arguments) {
    const char *python = std::getenv("KIVBF_PYTHON");
    const char *directory = std::getenv("KIVBF_PYTHON_DIR");
    std::string script_path(directory != nullptr ? directory : KIVBF_PYTHON_DIR);
    script_path.append("/").append(script);
    std::string command = Quoted(python != nullptr ? python : "/usr/bin/python3");
    command.append(" ").append(Quoted(script_path));
    for (const std::string &argument : arguments) command.append(" ").append(Quoted(argument));
    std::fflush(stdout);
    if (std::system(command.c_str()) == 0) return true;
    std::fprintf(stderr, "kivbf: plotting failed: %s\n", command.c_str());
    return false;
}
