// Any content of a small file, which is written over another one: it is read up to its last line feed,
// padding aside.

#include "net/WholeFile.h"

#include "support/Folder.h"
#include "support/Input.h"

namespace {

using fuzz::Require;

std::string UpToLastLineFeed(const std::string& text) {
  const std::size_t last = text.rfind('\n');
  return last == std::string::npos ? text : text.substr(0, last + 1);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  const std::string before = fuzz::WithLongRuns(input.Bytes(input.Byte()));
  const std::string content = fuzz::WithLongRuns(input.Rest());
  fuzz::OwnFolder().Write("file.data", content);
  const std::string path = fuzz::OwnFolder().Write("file.xml", before).string();

  std::string read = "untouched";
  if (TolmLPCFrame::ReadFileText(read, path)) {
    Require(read == UpToLastLineFeed(before.empty() ? content : before),
            "the file is read, or its companion");
  } else {
    Require(before.empty() && content.empty() && read == "untouched", "only what is empty cannot be read");
  }
  std::string other;
  Require(TolmLPCFrame::ReadFileText(other, path + ".none", path) == !before.empty(),
          "another one stands in");

  Require(TolmLPCFrame::WriteFileText(path, content) == !(before.empty() && content.empty()),
          "what holds something can be written");
  if (before.empty() && content.empty()) return 0;
  Require(TolmLPCFrame::ReadFileText(read, path), "what was written can be read");
  const std::string body = UpToLastLineFeed(content);
  Require(read.starts_with(body), "it begins with what was written");
  const std::string padding = read.substr(body.size());
  Require(padding.find_first_not_of('\n') == std::string::npos, "line feeds follow");
  const auto on_disk = std::filesystem::file_size(path);
  Require(on_disk % 512 == 0 && on_disk >= before.size(), "whole blocks, and never cut");
  return 0;
}
