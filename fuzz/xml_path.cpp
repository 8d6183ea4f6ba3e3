// Any document under any path: reading gives a value or the default, writing and serialising survive, and
// what was serialised is read again.

#include <cstdint>
#include <cstdlib>
#include <string>

#include "TolmProto/XmlProto.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // The first line is the path, the rest the document.
  const std::string input(reinterpret_cast<const char*>(data), size);
  const std::size_t line = input.find('\n');
  const std::string path = input.substr(0, line);
  const std::string text = line == std::string::npos ? std::string() : input.substr(line + 1);

  proto::CXmlProto document;
  document.set_str(text);
  document.get_v(path, "");
  document.get_int_v(path, -1);
  if (document.get_cnt(path) < 0) std::abort();
  if (!document.set_v(path, 7)) return 0;
  if (document.get_int_v(path, -1) != 7) std::abort();
  const std::string written = document.get_str(0);
  if (written.empty() || written.back() != '\n') std::abort();
  proto::CXmlProto again;
  if (again.set_str(written) && again.get_int_v(path, -1) != 7) std::abort();
  return 0;
}
