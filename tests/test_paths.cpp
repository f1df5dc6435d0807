#include "tests/test_paths.h"

namespace test_paths {

std::string Source() { return QX_SOURCE_DIR; }
std::string Programs() { return QX_BINARY_DIR; }
std::string Data() { return QX_SOURCE_DIR "/tests/data"; }

}  // namespace test_paths
