#include "plot_script.h"

#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <system_error>

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

// The directory of the running executable ("" when /proc is not there).
std::filesystem::path ExecutableDirectory() {
    std::error_code ec;
    const std::filesystem::path exe = std::filesystem::read_symlink("/proc/self/exe", ec);
    return ec ? std::filesystem::path() : exe.parent_path();
}

// An installation keeps the Python files at KIVBF_INSTALLED_DATA, relative to
// the executable's directory.
bool Installed() {
    const std::filesystem::path dir = ExecutableDirectory();
    std::error_code ec;
    return !dir.empty() &&
           std::filesystem::exists(dir / KIVBF_INSTALLED_DATA / "eval" / "run_eval.py", ec);
}

std::string Command(const std::string &script_path, const std::vector<std::string> &arguments) {
    const char *python = std::getenv("KIVBF_PYTHON");
    std::string command = Quoted(python != nullptr ? python : "/usr/bin/python3");
    command.append(" ").append(Quoted(script_path));
    for (const std::string &argument : arguments) command.append(" ").append(Quoted(argument));
    return command;
}

}  // namespace

std::string PythonFilesDirectory() {
    if (Installed()) return (ExecutableDirectory() / KIVBF_INSTALLED_DATA).lexically_normal().string();
    return KIVBF_SOURCE_TOOLS_DIR;
}

std::string PythonBindingLibrary() {
    if (Installed())
        return (ExecutableDirectory() / KIVBF_INSTALLED_BINDING).lexically_normal().string();
    return KIVBF_BUILD_BINDING;
}

int RunPythonScript(const std::string &script, const std::vector<std::string> &arguments) {
    std::fflush(stdout);
    const int status = std::system(Command(PythonFilesDirectory() + "/" + script, arguments).c_str());
    return status != -1 && WIFEXITED(status) ? WEXITSTATUS(status) : 127;
}

bool RunPlotScript(const std::string &script, const std::vector<std::string> &arguments) {
    const char *directory = std::getenv("KIVBF_PYTHON_DIR");
    const std::string script_path =
        (directory != nullptr ? std::string(directory) : PythonFilesDirectory() + "/python") + "/" + script;
    const std::string command = Command(script_path, arguments);
    std::fflush(stdout);
    if (std::system(command.c_str()) == 0) return true;
    std::fprintf(stderr, "kivbf: plotting failed: %s\n", command.c_str());
    return false;
}
