// daemon/main.cpp: the program QxSchedService: puts the pieces together.
#include <cstdio>
#include <cstdlib>
#include <span>
#include <string>

#include "platform/standard_streams.h"
#include "platform/text.h"
#include "replication/node_channel.h"
#include "service/service_module.h"
#include "service/service_registration.h"

int main(int argc, char** argv) {
  platform::FillStandardStreams();
  platform::LetWritesFail();
  qx::ServiceOptions options;
  std::string error;
  if (!qx::ParseServiceArguments(std::span<const char* const>(argv + 1, argc > 0 ? argc - 1 : 0), options, error)) {
    qx::Complain(platform::WideFromUtf8(error));
    return EXIT_FAILURE;
  }
  qx::CNodeChannel nodes;
  qx::CServiceModule module(std::move(options), &nodes);
  const int code = module.Main();
  std::fflush(nullptr);
  // Threads of the service may still run: nothing that they use is destroyed.
  std::_Exit(code);
}
