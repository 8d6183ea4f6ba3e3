// What a host may include, with something called behind each header. The frame exports all of cJSON.
#include <TolmLPCFrame.h>
#include <TolmLPCFrameDiagnostics.h>
#include <cjson/cJSON.h>

#include <cstdio>

namespace {

// The address of each: what is not exported does not link.
template <typename... Functions>
int Count(Functions*... functions) {
  return (0 + ... + (functions != nullptr ? 1 : 0));
}

bool Parses() {
  cJSON* const document = cJSON_Parse("{\"answer\": 42}");
  const bool right = cJSON_GetNumberValue(cJSON_GetObjectItem(document, "answer")) == 42;
  cJSON_Delete(document);
  return right;
}

}  // namespace

int main() {
  const int exported = Count(cJSON_Version
#include CJSON_FUNCTIONS
  );
  TolmLPCFrame::SetLogStderrLevel(TolmLPCFrame::kLogNothing);
  int time_out = 0;
  if (!Parses() || TolmLPCFrame::IsPluginURL(time_out, "/nowhere")) return 1;
  std::printf("%d functions of cJSON %s\n", exported, cJSON_Version());
  return 0;
}
