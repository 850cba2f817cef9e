#pragma once

#include <pthread.h>
#include <signal.h>

#include <exception>
#include <iostream>
#include <string>

#include <boost/make_shared.hpp>

#include <gvmessaging/session.h>

namespace example {

/// What one side of an example does with its session: the robot offers, the client uses.
using Side = void (*)(gv::Session& session);

/// Listens at a URL, lets the robot offer its object, and serves it until interrupted.
inline void serve(const std::string& url, Side robot) {
  // Before any thread is made: threads inherit the mask, so that the signals wait for sigwait.
  sigset_t endSignals;
  sigemptyset(&endSignals);
  sigaddset(&endSignals, SIGINT);
  sigaddset(&endSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &endSignals, nullptr);
  const auto session = boost::make_shared<gv::Session>();
  session->listenStandalone(url).value();
  robot(*session);
  std::cout << "listening on " << session->url().str() << std::endl;
  int signal = 0;
  sigwait(&endSignals, &signal);
  session->close().value();
}

/// Joins the robot's network, and leaves it when the client's part is done.
inline void join(const std::string& url, Side client) {
  const auto session = boost::make_shared<gv::Session>();
  session->connect(url).value();
  client(*session);
  session->close().value();
}

/// Plays the side that the command line asks for; returns the exit code.
inline int play(int count, char** arguments, Side robot, Side client) {
  const std::string role = count == 3 ? arguments[1] : "";
  try {
    if (role == "robot") return serve(arguments[2], robot), 0;
    if (role == "client") return join(arguments[2], client), 0;
    std::cerr << "usage: " << arguments[0] << " robot|client <url>, in two terminals; for example "
              << "tcp://127.0.0.1:9559\n";
  } catch (const std::exception& error) {
    std::cerr << arguments[0] << ": " << error.what() << '\n';
  }
  return 1;
}

}  // namespace example
