#pragma once
// Where this tree and its build lie. The texts live in one small library, so that the tests' objects don't depend on the
// folder they are built in and the compiler cache serves every clone.
#include <string>

namespace test_paths {

/// The top folder of the sources.
std::string Source();
/// The folder of the built programs.
std::string Programs();
/// tests/data of the sources: golden files and formats.
std::string Data();

}  // namespace test_paths
