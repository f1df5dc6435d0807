#include <iostream>

#include "client/cli_app.h"
#include "platform/standard_streams.h"

int main(int argc, char** argv) {
  platform::FillStandardStreams();
  std::ios::sync_with_stdio(false);
  return qx::RunQxsched(argc, argv, std::cin, std::cout, std::cerr);
}
