#include "RegistryInside.h"

#include <utility>

namespace tolm::test {
namespace {

using TolmLPCFrame::CLPCIntegrate;
using TolmLPCFrame::Guarded;

// A private member may be named in an explicit instantiation; a tag takes a pointer out of there.
template <typename Value>
using Member = Value CLPCIntegrate::*;

struct Timeouts {
  using Type = Member<Guarded<TolmLPCFrame::IndexedMap<std::int32_t>>>;
  friend Type Reach(Timeouts);
};
struct HostUrls {
  using Type = Member<Guarded<std::vector<std::string>>>;
  friend Type Reach(HostUrls);
};
struct FrameType {
  using Type = Member<Guarded<std::int32_t>>;
  friend Type Reach(FrameType);
};
struct Uniniting {
  using Type = Member<std::vector<std::string>>;
  friend Type Reach(Uniniting);
};
struct UninitingMutex {
  using Type = Member<os::Mutex>;
  friend Type Reach(UninitingMutex);
};

template <typename Tag, typename Tag::Type kMember>
struct Open {
  friend typename Tag::Type Reach(Tag) { return kMember; }
};

template struct Open<Timeouts, &CLPCIntegrate::map_url_timeout_>;
template struct Open<HostUrls, &CLPCIntegrate::vec_register_url_>;
template struct Open<FrameType, &CLPCIntegrate::frame_type_>;
template struct Open<Uniniting, &CLPCIntegrate::vec_uniniting_plugin_>;
template struct Open<UninitingMutex, &CLPCIntegrate::uniniting_mutex_>;

void ClearTables(CLPCIntegrate& registry);

template <auto... kTables>
struct Clear {
  friend void ClearTables(CLPCIntegrate& registry) {
    ((registry.*kTables).Write([](auto& table) { table = {}; }), ...);
  }
};

template struct Clear<&CLPCIntegrate::init_states_, &CLPCIntegrate::map_plugin_data_,
                      &CLPCIntegrate::map_url_plugin_id_, &CLPCIntegrate::map_url_timeout_,
                      &CLPCIntegrate::vec_http_header_, &CLPCIntegrate::vec_register_url_,
                      &CLPCIntegrate::frame_full_path_>;

}  // namespace

void ForgetEverything(CLPCIntegrate& registry) {
  // The first case of a process is to find what the constructor made.
  static bool is_fresh = true;
  if (!std::exchange(is_fresh, false)) {
    ClearTables(registry);
    (registry.*Reach(FrameType())).Write([](std::int32_t& type) { type = 2; });
    os::Mutex& mutex = registry.*Reach(UninitingMutex());
    const os::MutexLock lock(mutex);
    (registry.*Reach(Uniniting())).clear();
  }
}

void ForgetTimeout(CLPCIntegrate& registry, const std::string& lower_case_url) {
  (registry.*Reach(Timeouts())).Write([&](auto& timeouts) {
    const auto before = timeouts.ordered();
    timeouts.Clear();
    for (const auto& [url, time_out] : before) {
      if (url != lower_case_url) timeouts.InsertOrAssign(url, time_out);
    }
  });
}

std::map<std::string, std::int32_t> TimeoutsByUrl(const CLPCIntegrate& registry) {
  return (registry.*Reach(Timeouts())).Read([](const auto& timeouts) { return timeouts.ordered(); });
}

std::vector<std::string> UrlsOfHost(const CLPCIntegrate& registry) {
  return (registry.*Reach(HostUrls())).Read([](const auto& urls) { return urls; });
}

std::int32_t TypeOfFrame(const CLPCIntegrate& registry) {
  return (registry.*Reach(FrameType())).Read([](std::int32_t type) { return type; });
}

std::vector<std::string> StillUniniting(CLPCIntegrate& registry) {
  os::Mutex& mutex = registry.*Reach(UninitingMutex());
  const os::MutexLock lock(mutex);
  return registry.*Reach(Uniniting());
}

}  // namespace tolm::test
