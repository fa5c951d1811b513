// Runs one of the plotting scripts in tools/python with Debian's python3
// (numpy and matplotlib). KIVBF_PYTHON names another interpreter and
// KIVBF_PYTHON_DIR another script directory.
#pragma once

#include <string>
#include <vector>

// True when the script ran and succeeded; otherwise prints the command to
// stderr and returns false.
bool RunPlotScript(const std::string &script, const std::vector<std::string> &arguments);
