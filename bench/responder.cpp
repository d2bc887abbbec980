// Answers every request in the given project directories at once, through
// the project library, until killed, run after run (a request out of order
// is the next run's first). One process serves them all, so that a
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
  using lockstep::project::WaitResult;
  for (;;) {
    bool answered = false;
    for (const auto& endpoint : endpoints) {
      lockstep::project::Request request;
      const WaitResult result = endpoint->poll(request);
      const bool pending = result == WaitResult::kRequest || result == WaitResult::kOutOfOrder;
      if (result == WaitResult::kError ||
          (pending && endpoint->report_done() != lockstep::project::DoneResult::kDone)) {
        std::cerr << "responder: " << endpoint->error() << "\n";
        return 1;
      }
      answered = answered || pending;
    }
    if (!answered) std::this_thread::sleep_for(std::chrono::microseconds(100));
  }
}
