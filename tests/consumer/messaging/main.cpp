// A program outside the tree: one session offers a service, another calls it.

#include <gvmessaging/session.h>
#include <gvtype/dynamicobjectbuilder.h>
#include <gvtype/object.h>

#include <boost/make_shared.hpp>
#include <iostream>
#include <string>

int main() {
  try {
    const auto server = boost::make_shared<gv::Session>();
    server->listenStandalone(gv::Url("tcp://127.0.0.1:0")).value();
    gv::DynamicObjectBuilder builder;
    builder.advertiseMethod("greet", [](const std::string& name) { return "hello " + name; });
    server->registerService("Greeter", builder.object()).value();

    const auto client = boost::make_shared<gv::Session>();
    client->connect(server->url().str()).value();
    auto greeter = client->service("Greeter").value();
    const auto answer = greeter.call<std::string>("greet", std::string("there"));
    client->close().value();
    server->close().value();
    std::cout << answer << '\n';
    return answer == "hello there" ? 0 : 1;
  } catch (const std::exception& error) {
    std::cerr << error.what() << '\n';
    return 1;
  }
}
