#include <iostream>

#include "client/cli_app.h"

int main(int argc, char** argv) {
  std::ios::sync_with_stdio(false);
  return qx::RunQxsched(argc, argv, std::cin, std::cout, std::cerr);
}
