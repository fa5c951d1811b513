#include <cstdio>

#include "commands.h"

int Command_Info(int, char **) {
    std::fprintf(stderr, "kivbf info: not built yet\n");
    return 1;
}
