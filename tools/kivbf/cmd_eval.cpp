// kivbf eval: the room-simulation benchmark. The simulator, the metrics and
// the runner are Python (tools/eval); this command finds them and the shared
// library their binding loads, and hands over every argument.
#include <cstdlib>
#include <string>
#include <vector>

#include "commands.h"
#include "plot_script.h"

int Command_Eval(int argc, char **argv) {
    // An explicit KIVBF_LIBRARY wins, so that another build can be measured.
    if (std::getenv("KIVBF_LIBRARY") == nullptr)
        setenv("KIVBF_LIBRARY", PythonBindingLibrary().c_str(), 1);
    std::vector<std::string> arguments(argv, argv + argc);
    // --locate: the direction finder's benchmark (its own scenes and targets).
    if (!arguments.empty() && arguments.front() == "--locate")
        return RunPythonScript("eval/locate_eval.py", {arguments.begin() + 1, arguments.end()});
    return RunPythonScript("eval/run_eval.py", arguments);
}
