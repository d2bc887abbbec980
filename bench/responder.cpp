// Answers every request in the given project directories at once, through
// the project library, until killed. One process serves them all, so that a
// hundred projects do not take a hundred polling processes on a small
// machine. Usage: responder DIR...
#include <chrono>
#include <iostream>
#include <memory>
#include <thread>
#include <vector>

#include "project/endpoint.h"

int main(int argc, char** argv) {
  std::vector<std::unique_ptr<lockstep::project::Endpoint>> endpoints;
  for (int i = 1; i < argc; ++i) {
    std::string error;
    endpoints.push_back(lockstep::project::Endpoint::open(argv[i], error));
    if (!endpoints.back()) {
      std::cerr << "responder: " << error << "\n";
      return 1;
    }
  }
  for (;;) {
    bool answered = false;
    for (const auto& endpoint : endpoints) {
      lockstep::project::Request request;
      const lockstep::project::WaitResult result = endpoint->poll(request);
      if (result == lockstep::project::WaitResult::kError ||
          (result == lockstep::project::WaitResult::kRequest && endpoint->report_done() != lockstep::project::DoneResult::kDone)) {
        std::cerr << "responder: " << endpoint->error() << "\n";
        return 1;
      }
      answered = answered || result == lockstep::project::WaitResult::kRequest;
    }
    if (!answered) std::this_thread::sleep_for(std::chrono::microseconds(100));
  }
}
