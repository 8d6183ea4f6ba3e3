#include "MemberIndex.h"

#include <algorithm>
#include <numeric>

namespace proto {
namespace {

const Value::Member& MemberAt(const Value& object, SizeType index) {
  return *(object.MemberBegin() + static_cast<std::ptrdiff_t>(index));
}

std::string_view NameAt(const Value& object, SizeType index) {
  return NameOf(MemberAt(object, index));
}

}  // namespace

void MemberIndex::Build(const Value& root) {
  std::vector<const Value*> containers{&root};
  const auto enter = [&containers](const Value& value) {
    if (value.IsObject() || value.IsArray()) containers.push_back(&value);
  };
  while (!containers.empty()) {
    const Value& container = *containers.back();
    containers.pop_back();
    if (container.IsArray()) {
      for (const Value& element : container.GetArray()) enter(element);
      continue;
    }
    if (!container.IsObject()) continue;
    for (const auto& member : container.GetObject()) enter(member.value);
    if (container.MemberCount() < kLarge) continue;
    Order order(container.MemberCount());
    std::iota(order.begin(), order.end(), SizeType{0});
    std::stable_sort(order.begin(), order.end(), [&container](SizeType left, SizeType right) {
      return NameAt(container, left) < NameAt(container, right);
    });
    orders_.emplace(&container, std::move(order));
  }
}

const Value* MemberIndex::FindInOrder(const Value& object, const Order& order, std::string_view name) {
  const auto at = std::lower_bound(
      order.begin(), order.end(), name,
      [&object](SizeType index, std::string_view wanted) { return NameAt(object, index) < wanted; });
  return at != order.end() && NameAt(object, *at) == name ? &MemberAt(object, *at).value : nullptr;
}

}  // namespace proto
