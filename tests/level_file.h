// Points DML_PATH at a message-level file written for the test.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>

namespace kivbf_test {

// Writes `contents` to a file of the test's own and points DML_PATH at it.
inline std::string SetLevelFile(const std::string &contents) {
    const std::string path = testing::TempDir() + "kivbf_level_" + std::to_string(getpid()) + ".json";
    std::ofstream(path, std::ios::binary | std::ios::trunc) << contents;
    setenv("DML_PATH", path.c_str(), 1);
    return path;
}

inline void SetMessageLevel(int level) {
    SetLevelFile("{\"debug_level\": " + std::to_string(level) + "}");
}

}  // namespace kivbf_test
