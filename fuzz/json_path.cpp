// Any document under any path: reading gives a value or the default, writing and serialising survive.

#include <cstdint>
#include <cstdlib>
#include <string>

#include "TolmProto/RapidJsonProto.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // The first line is the path, the rest the document.
  const std::string input(reinterpret_cast<const char*>(data), size);
  const std::size_t line = input.find('\n');
  const std::string path = input.substr(0, line);
  const std::string text = line == std::string::npos ? std::string() : input.substr(line + 1);

  proto::CRapidJsonProto document;
  document.set_str(text);
  document.get_v(path, "");
  document.get_int_v(path, -1);
  if (document.get_cnt(path) < 0) std::abort();
  if (document.set_v(path, 7) && document.get_int_v(path, -1) != 7) std::abort();
  if (document.set_v(path, std::string("text")) && document.get_v(path, "") != "text") std::abort();
  document.get_str(0);
  return 0;
}
