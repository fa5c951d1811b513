#include <cstdio>

#include "commands.h"

int Command_Demo(int, char **) {
    std::fprintf(stderr, "kivbf demo: not built yet\n");
    return 1;
}
