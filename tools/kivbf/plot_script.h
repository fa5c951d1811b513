// Runs the tool's Python scripts with Debian's python3 (numpy, matplotlib,
// scipy). KIVBF_PYTHON names another interpreter, KIVBF_PYTHON_DIR another
// directory for the plotting scripts.
#pragma once

#include <string>
#include <vector>

// Where the Python files live: share/kivbf beside an installed executable
// (python/ and eval/ under it), else the source tree's tools/ directory.
std::string PythonFilesDirectory();

// The shared library copy the Python binding loads: lib/kivbf/libkivbf.so of
// an installation, else the one in the build tree.
std::string PythonBindingLibrary();

// Runs `script` (a path under PythonFilesDirectory()) with the arguments;
// returns its exit status, or 127 when it could not be started.
int RunPythonScript(const std::string &script, const std::vector<std::string> &arguments);

// True when the plotting script (in python/) ran and succeeded; otherwise
// prints the command to stderr and returns false.
bool RunPlotScript(const std::string &script, const std::vector<std::string> &arguments);
