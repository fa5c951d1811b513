// kivbf locate: the library's direction finder over a two-channel WAV file,
// one line per 100 ms; --plot draws the estimate over the spectrogram. The
// work is Python (tools/python/kivbf_locate.py) over the library's binding.
#include <cstdlib>
#include <string>
#include <vector>

#include "commands.h"
#include "plot_script.h"

int Command_Locate(int argc, char **argv) {
    if (std::getenv("KIVBF_LIBRARY") == nullptr)
        setenv("KIVBF_LIBRARY", PythonBindingLibrary().c_str(), 1);
    std::vector<std::string> arguments(argv, argv + argc);
    return RunPythonScript("python/kivbf_locate.py", arguments);
}
