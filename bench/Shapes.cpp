#include "Shapes.h"

#include <cstdint>
#include <random>
#include <stdexcept>

namespace bench {
namespace {

constexpr std::size_t kHeaders = 3;

}  // namespace

Headers ThreeHeaders() {
  return {{"Accept-Language", "en-GB"},
          {"Content-Type", "application/json; charset=utf-8"},
          {"X-Request-Id", "6f1d3c0a9b7e4d52a8c1f0e3b2a49587"}};
}

TolmLPCFrame::MimePart PartOf(std::size_t size) {
  TolmLPCFrame::MimePart part;
  part.content_type = "application/octet-stream";
  part.disposition = "form-data";
  part.name = "file";
  part.file_name = "picture.raw";
  part.encoding = "binary";
  std::mt19937 random(4711);
  part.body_data.reserve(size);
  for (std::size_t i = 0; i < size; ++i) part.body_data += static_cast<char>(random() & 0xFF);
  return part;
}

void Fill(const Order& order, Headers& headers, Parts& parts, std::string& body) {
  if (order.shape == Shape::kPart) {
    parts = {PartOf(order.size)};
    return;
  }
  if (order.shape == Shape::kHeaders) headers = ThreeHeaders();
  body.assign(order.size, 'x');
}

void Check(const Order& order, const Headers& headers, const Parts& parts, const std::string& body) {
  const bool in_part = order.shape == Shape::kPart;
  const std::string* const bytes = !in_part ? &body : parts.size() == 1 ? &parts[0].body_data : nullptr;
  const std::size_t headers_wanted = order.shape == Shape::kHeaders ? kHeaders : 0;
  if (bytes == nullptr || bytes->size() != order.size || headers.size() != headers_wanted) {
    throw std::runtime_error("an answer that is not what was sent");
  }
}

}  // namespace bench
