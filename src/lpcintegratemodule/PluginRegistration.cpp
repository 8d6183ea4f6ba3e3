// A plugin's message about the urls that it serves and the header names that it uses.

#include <algorithm>
#include <cstddef>
#include <string>
#include <utility>

#include "TolmBase/LogLine.h"
#include "TolmBase/StringUtil.h"
#include "TolmProto/RapidJsonProto.h"
#include "common/Constants.h"
#include "common/MessageJson.h"
#include "common/UrlTemplate.h"
#include "lpcintegratemodule/LPCIntegrate.h"

namespace TolmLPCFrame {

using Tolm::Base::kLogLevelError;
using Tolm::Base::kLogLevelInfo;
using Tolm::Base::kLogLevelTrace;

namespace {

constexpr char kUrlList[] = "/RegisterInfo/SupportUrlList";
constexpr char kHeaderList[] = "/RegisterInfo/SupportHttpHeaderList";
/// They are kept for the life of the process.
constexpr std::size_t kMaxHttpHeaderNames = 65536;

/// The path of one element; the first one has index 1.
std::string Element(const std::string& list, int index) {
  return list + '[' + std::to_string(index) + ']';
}

/// A url's tasks as "<method>-<type>," each. For the log alone.
std::string TaskText(const proto::CRapidJsonProto& message, const std::string& entry) {
  const std::string list = entry + "/Extend/TaskInfo";
  std::string text;
  const int count = message.get_cnt(list);
  for (int i = 1; i <= count; ++i) {
    const std::string task = Element(list, i);
    text += std::to_string(message.get_int_v(task + "/Method", -1)) + '-' +
            std::to_string(message.get_int_v(task + "/TaskType", -1)) + ',';
  }
  return text;
}

}  // namespace

void CLPCIntegrate::PluginURLRegister(const tag_LPCCallBackData& request) {
  proto::CRapidJsonProto message;
  ReadMessage(message, request.body);

  const int url_count = message.get_cnt(kUrlList);
  for (int i = 1; i <= url_count; ++i) {
    const std::string entry = Element(kUrlList, i);
    std::string url = message.get_v(entry + "/Url", "");
    if (url.empty()) continue;
    url = Tolm::Base::StringUtil::LowerCase(url);
    const std::int32_t time_out = std::max(message.get_int_v(entry + "/Timeout", -1), kDefaultTimeOut);
    map_url_plugin_id_.Write([&](auto& ids) { ids.InsertOrAssign(url, request.src_id); });
    map_url_timeout_.Write([&](auto& time_outs) { time_outs.InsertOrAssign(url, time_out); });
    TOLM_LOG(kLogLevelInfo, kTagTrace,
             "[/QOMI/Vantrel/Integration/V1/Register], SupportUrlList = %s, Timeout = %d,  plugin_id = %s",
             MaskSidInUrl(url).c_str(), time_out, request.src_id.c_str());
    TOLM_LOG(kLogLevelInfo, kTagMessageBus, "Plugin[%s] add url = [%s], method-exec_type = [%s].",
             request.src_id.c_str(), MaskSidInUrl(url).c_str(), TaskText(message, entry).c_str());
  }

  const int header_count = message.get_cnt(kHeaderList);
  for (int k = 1; k <= header_count; ++k) {
    const std::string path = Element(kHeaderList, k);
    std::string header = message.get_v(path, "");
    TOLM_LOG(kLogLevelTrace, kTagTrace,
             "[/QOMI/Vantrel/Integration/V1/Register], SupportHttpHeaderList = %s, plugin_id = %s",
             path.c_str(), request.src_id.c_str());
    const bool has_place = vec_http_header_.Write([&](HttpHeaderNames& names) {
      if (names.known.contains(header)) return true;
      if (names.known.size() == kMaxHttpHeaderNames) return false;
      const auto known = names.known.insert(header).first;
      try {
        names.ordered.push_back(std::move(header));
      } catch (...) {
        names.known.erase(known);
        throw;
      }
      return true;
    });
    if (!has_place) {
      TOLM_LOG(kLogLevelError, kTagError, "plugin %s uses more http headers than there is place for",
               request.src_id.c_str());
      return;
    }
  }
}

}  // namespace TolmLPCFrame
