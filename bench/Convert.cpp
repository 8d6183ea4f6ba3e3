// What it takes to make a message's headers and parts ready for the wire, and to read them: for each byte of
// theirs.

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "Measurements.h"
#include "Samples.h"
#include "Shapes.h"
#include "TolmBase/Encrypt.h"
#include "Turns.h"
#include "common/DataConvert.h"

namespace bench {
namespace {

using TolmLPCFrame::LPCData;
namespace Encrypt = Tolm::Base::Encrypt;

constexpr std::size_t kPartBytes = 64u << 10;
constexpr int kRounds = 10;
constexpr std::size_t kSmallCount = 2000;
constexpr std::size_t kLargeCount = 200;

std::size_t SizeOf(const Headers& headers) {
  std::size_t size = 0;
  for (const auto& [name, value] : headers) size += name.size() + value.size();
  return size;
}

/// What the sender and the receiver do with `data`, one after the other.
void ThereAndBack(const LPCData& data) {
  tag_LPCRequestData sent;
  if (!TolmLPCFrame::LPCDataToRequestData(sent, data)) throw std::runtime_error("a message is not converted");
  tag_LPCCallBackData received;
  received.params = std::move(sent.params);
  LPCData out;
  TolmLPCFrame::LPCCallBackDataToLPCData(out, std::move(received));
  if (out.http_headers != data.http_headers || out.http_mime.size() != data.http_mime.size()) {
    throw std::runtime_error("a message is not what it was");
  }
}

/// Nanoseconds for each of `bytes` bytes.
template <typename Operation>
std::vector<double> SamplesOf(std::size_t count, std::size_t bytes, const Operation& operation) {
  std::vector<double> samples;
  samples.reserve(count);
  for (std::size_t i = 0; i < count; ++i) {
    samples.push_back(Microseconds(operation) * 1e3 / static_cast<double>(bytes));
  }
  return samples;
}

}  // namespace

std::vector<Row> MeasureConversion(const Settings& settings) {
  LPCData with_headers;
  with_headers.http_headers = ThreeHeaders();
  const std::size_t header_bytes = SizeOf(with_headers.http_headers);
  LPCData with_part;
  with_part.http_mime = {PartOf(kPartBytes)};
  const std::string bytes = with_part.http_mime[0].body_data;
  const std::string text = Encrypt::Base64Encode(bytes);
  std::string result;

  const std::size_t small = settings.Samples(kSmallCount);
  const std::size_t large = settings.Samples(kLargeCount);
  Turns turns;
  const Rounds& headers =
      turns.Add([&] { return SamplesOf(small, header_bytes, [&] { ThereAndBack(with_headers); }); });
  const Rounds& part =
      turns.Add([&] { return SamplesOf(large, kPartBytes, [&] { ThereAndBack(with_part); }); });
  const Rounds& encode =
      turns.Add([&] { return SamplesOf(large, kPartBytes, [&] { result = Encrypt::Base64Encode(bytes); }); });
  const Rounds& decode =
      turns.Add([&] { return SamplesOf(large, kPartBytes, [&] { result = Encrypt::Base64Decode(text); }); });
  turns.Run(settings.Rounds(kRounds));
  if (result != bytes) throw std::runtime_error("Base64 does not give back what it was given");

  std::vector<Row> rows{
      MakeRow("convert.headers3", "ns/B", headers), MakeRow("convert.part64K", "ns/B", part),
      MakeRow("convert.base64.encode", "ns/B", encode), MakeRow("convert.base64.decode", "ns/B", decode)};
  rows[0].note = "of " + std::to_string(header_bytes) + " bytes of names and values, there and back";
  rows[1].note = "there and back";
  rows[2].note = rows[3].note = "of 64 KiB of bytes";
  return rows;
}

}  // namespace bench
