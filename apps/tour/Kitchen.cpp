// A plugin of the tour: cooks dishes. Whatever it prints, the host shows.

#include <TolmPlugin/Plugin.h>

#include <chrono>
#include <iostream>
#include <string>
#include <thread>

#include "Processes.h"

using TolmPlugin::Message;
using TolmPlugin::Request;

namespace {

std::string LastSegment(const std::string& url) {
  return url.substr(url.rfind('/') + 1);
}

/// Answers with a header, a body, and a part of bytes that are no text.
Message CookDish(const Request& request) {
  Message dish;
  const auto table = request.message.headers.find("X-Table");
  dish.body = "dish " + LastSegment(request.message.url) + " for table " +
              (table == request.message.headers.end() ? "?" : table->second);
  for (const TolmPlugin::Part& wish : request.message.parts) dish.body += ", " + wish.body_data;
  dish.headers["X-Cooked-By"] = "process " + std::to_string(tour::OwnProcessId());
  TolmPlugin::Part photo;
  photo.content_type = "image/raw";
  photo.name = "photo";
  photo.file_name = "dish.raw";
  photo.body_data.assign({'\0', '\1', '\xff', '\0'});
  dish.parts.push_back(photo);
  return dish;
}

Message CookRoast(const Request&) {
  std::cout << "the roast is in the oven" << std::endl;
  std::this_thread::sleep_for(std::chrono::minutes(1));
  return {.body = "roast"};
}

Message HearBell(const Request& request) {
  std::cout << "heard the bell: " << request.message.body << std::endl;
  return {};  // a notification has no answer
}

}  // namespace

int main(int argc, char** argv) {
  TolmPlugin::Plugin plugin("kitchen", "cooks dishes");
  plugin.Serve("/kitchen/dish/<ID>", CookDish)
      .Serve("/kitchen/roast", CookRoast, 90000)
      .Serve("/kitchen/bell", HearBell)
      .UseHeaders({"X-Table"})
      .OnUninit([] { std::cout << "asked to uninitialise: the stove is off" << std::endl; });
  return plugin.Run(argc, argv);
}
