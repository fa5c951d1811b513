#include "plot_script.h"

#include <cstdio>
#include <cstdlib>

namespace {

std::string Quoted(const std::string &text) {
    std::string quoted = "'";
    for (char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

}  // namespace

bool RunPlotScript(const std::string &script, const std::vector<std::string> &arguments) {
    const char *python = std::getenv("KIVBF_PYTHON");
    const char *directory = std::getenv("KIVBF_PYTHON_DIR");
    std::string command = Quoted(python != nullptr ? python : "/usr/bin/python3") + " " +
                          Quoted(std::string(directory != nullptr ? directory : KIVBF_PYTHON_DIR) +
                                 "/" + script);
    for (const std::string &argument : arguments) command += " " + Quoted(argument);
    std::fflush(stdout);
    if (std::system(command.c_str()) == 0) return true;
    std::fprintf(stderr, "kivbf: plotting failed: %s\n", command.c_str());
    return false;
}
