// A plugin of the tour: takes orders, and asks the kitchen and the host. Whatever it prints, the host shows.

#include <TolmPlugin/Plugin.h>

#include <iostream>
#include <stdexcept>
#include <string>

using TolmPlugin::Message;
using TolmPlugin::Plugin;
using TolmPlugin::Request;

namespace {

/// Asks whoever serves `url`: another plugin, or else the host.
Message Ask(Plugin& plugin, const Message& request) {
  Message answer;
  if (!plugin.Call(answer, request)) {
    throw std::runtime_error("no answer from " + request.url + ", error " +
                             std::to_string(Plugin::LastError()));
  }
  return answer;
}

}  // namespace

int main(int argc, char** argv) {
  Plugin plugin("waiter", "takes orders");
  plugin.Serve("/waiter/order/<ID>", [&](const Request& request) {
    const std::string dish = request.message.url.substr(request.message.url.rfind('/') + 1);
    Message order = request.message;
    order.url = "/kitchen/dish/" + dish;
    Message served = Ask(plugin, order);
    served.body = "here you are: " + served.body;
    return served;
  });
  plugin.Serve("/waiter/bill", [&](const Request&) {
    const Message price = Ask(plugin, {.url = "/host/price", .method = "GET"});
    return Message{.body = "that makes " + price.body};
  });
  plugin.Serve("/waiter/door", [&](const Request& request) {
    plugin.Push("guests", {.body = request.message.body});
    return Message{};
  });
  plugin.OnUninit([] { std::cout << "asked to uninitialise: the tables are wiped" << std::endl; });
  return plugin.Run(argc, argv);
}
