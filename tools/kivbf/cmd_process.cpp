#include <cstdio>

#include "commands.h"

int Command_Process(int, char **) {
    std::fprintf(stderr, "kivbf process: not built yet\n");
    return 1;
}
