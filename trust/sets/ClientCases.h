#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace trust {

/// What a server says, and how the guard's connection to it then has to stand.
struct ClientCase {
  std::string_view section;  ///< of RFC 6455
  std::string name;
  /// What the link tells of ("connected", "text <bytes>", "lost"), and how the connection stands at the
  /// server's end.
  std::string expected;
  /// The answer to the upgrade; "{accept}" stands for what proves that the request was read.
  std::string answer;
  /// What follows, each piece by itself.
  std::vector<std::string> pieces;
  /// How the answer comes: in one piece, byte by byte, or up to here and the rest.
  int cut = 0;
  /// For a verdict that is not the rule's.
  std::string_view why = {};
};

std::vector<ClientCase> ClientCases();

}  // namespace trust
