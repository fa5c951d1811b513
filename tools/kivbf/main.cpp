// kivbf: command-line front end of the beamforming library.
#include <cstdio>
#include <cstring>

#include "commands.h"

namespace {

struct Command {
    const char *name;
    int (*run)(int argc, char **argv);
    const char *summary;
};

constexpr Command kCommands[] = {
    {"info", Command_Info, "API version, working-buffer layout and default configuration"},
    {"process", Command_Process, "beamform a 2-channel WAV or raw s16le stream to mono"},
    {"demo", Command_Demo, "synthesise a scene, run every mode, report attenuation"},
    {"pattern", Command_Pattern, "fixed beam response, directivity and white-noise gain, as a picture"},
    {"eval", Command_Eval, "simulated rooms: how much each mode improves the talker (Python)"},
    {"locate", Command_Locate, "where the talker is: the direction finder over a WAV file (Python)"},
};

void PrintUsage() {
    std::fprintf(stderr, "usage: kivbf <command> [options]\n\ncommands:\n");
    for (const Command &c : kCommands) std::fprintf(stderr, "  %-8s %s\n", c.name, c.summary);
    std::fprintf(stderr, "\n'kivbf <command> --help' describes a command's options.\n");
}

}  // namespace

int main(int argc, char **argv) {
    if (argc < 2) {
        PrintUsage();
        return 2;
    }
    for (const Command &c : kCommands)
        if (std::strcmp(argv[1], c.name) == 0) return c.run(argc - 2, argv + 2);
    std::fprintf(stderr, "kivbf: unknown command '%s'\n", argv[1]);
    PrintUsage();
    return 2;
}
