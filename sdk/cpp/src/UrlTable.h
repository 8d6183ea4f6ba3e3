#pragma once

#include <map>
#include <string>
#include <vector>

#include "TolmPlugin/Plugin.h"

namespace TolmPlugin {

/// The urls that a plugin serves, found by the rules that the frame uses for them.
class UrlTable {
 public:
  void Add(const std::string& url, Handler handler, int time_out_ms);
  /// Who serves the concrete `url`, or null.
  const Handler* Find(const std::string& url) const;

  struct Entry {
    std::string url;  // as given
    Handler handler;
    int time_out_ms;
  };
  /// By lower-cased url.
  const std::map<std::string, Entry>& entries() const { return entries_; }

 private:
  std::map<std::string, Entry> entries_;
};

/// The body of a registration: the urls of `table`, `extra_url` with them, and the header names.
std::string RegistrationBody(const UrlTable& table, const std::string& extra_url,
                             const std::vector<std::string>& header_names);

/// A url of this plugin's own that no pattern rule changes, whatever the id looks like.
std::string OwnUrl(const std::string& plugin_id);

}  // namespace TolmPlugin
