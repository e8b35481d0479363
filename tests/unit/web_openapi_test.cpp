// Whether the description of the interface has every route of the server, and no other.
#include <gtest/gtest.h>

#include <cctype>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <vector>

#include "interface.h"
#include "openapi_text.h"
#include "web_account.h"
#include "web_live.h"
#include "web_people.h"
#include "web_sessions.h"
#include "web_workers.h"

namespace zevweb {
namespace {

std::string InLowerCase(std::string text) {
  for (char& byte : text) byte = static_cast<char>(std::tolower(static_cast<unsigned char>(byte)));
  return text;
}

std::set<std::string> Described() {
  std::set<std::string> operations;
  const nlohmann::json description = nlohmann::json::parse(kOpenApiText);
  for (const auto& [path, methods] : description.at("paths").items()) {
    for (const auto& [method, operation] : methods.items()) operations.insert(method + " " + path);
  }
  return operations;
}

TEST(OpenApiTest, DescribesEveryRouteAndNoOther) {
  WebSessions sessions("sessions", 12, 60);
  WebPeople people;
  WorkerPool workers([] {});
  Account account({zevctl::Settings(), "journal"}, sessions, people);
  Interface interface({zevctl::Settings(), "journal", "logs", "fleet.json"});
  Live live({zevctl::Settings(), "journal"}, workers);
  std::vector<Route> routes;
  std::vector<ChannelRoute> channels;
  account.AddRoutes(&routes);
  interface.AddRoutes(&routes);
  live.AddRoutes(&routes);
  live.AddChannels(&channels);
  std::set<std::string> served = {"get /healthz"};  // which the server answers itself
  for (const Route& route : routes) served.insert(InLowerCase(route.method) + " " + route.path);
  for (const ChannelRoute& channel : channels) served.insert("get " + channel.path);
  EXPECT_GT(routes.size() + channels.size(), 15U);
  EXPECT_EQ(served, Described());
  workers.Stop();
}

}  // namespace
}  // namespace zevweb
