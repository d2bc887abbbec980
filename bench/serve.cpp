// Serves a project directory through the C++ endpoint until killed, doing
// nothing for each request: the binding's own cost. Usage: serve_cpp DIR
#include <iostream>
#include <string>

#include "project/endpoint.h"

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  std::string error;
  const auto endpoint = lockstep::project::Endpoint::open(argv[1], error);
  if (!endpoint || !endpoint->lock()) {
    std::cerr << "serve_cpp: " << (endpoint ? endpoint->error() : error) << "\n";
    return 1;
  }
  lockstep::project::Request request;
  while (endpoint->wait(request) == lockstep::project::WaitResult::kRequest &&
         endpoint->report_done() == lockstep::project::DoneResult::kDone) {
  }
  std::cerr << "serve_cpp: " << endpoint->error() << "\n";
  return 1;
}
