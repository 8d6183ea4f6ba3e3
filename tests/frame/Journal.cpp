#include "Journal.h"

#include <algorithm>
#include <mutex>
#include <utility>

namespace tolm::test {
namespace {

struct Book {
  std::mutex mutex;
  std::vector<std::string> entries;
};

Book& TheBook() {
  static Book* const book = new Book;
  return *book;
}

}  // namespace

void Journal::Note(std::string entry) {
  const std::lock_guard lock(TheBook().mutex);
  TheBook().entries.push_back(std::move(entry));
}

void Journal::Clear() {
  const std::lock_guard lock(TheBook().mutex);
  TheBook().entries.clear();
}

std::vector<std::string> Journal::Entries() {
  const std::lock_guard lock(TheBook().mutex);
  return TheBook().entries;
}

std::vector<std::string> Journal::Of(std::string_view prefix) {
  std::vector<std::string> entries = Entries();
  std::erase_if(entries, [prefix](const std::string& entry) { return !entry.starts_with(prefix); });
  return entries;
}

std::size_t Journal::Count(std::string_view entry) {
  const std::vector<std::string> entries = Entries();
  return static_cast<std::size_t>(std::count(entries.begin(), entries.end(), entry));
}

::testing::AssertionResult HappenedInOrder(std::initializer_list<std::string_view> entries) {
  const std::vector<std::string> journal = Journal::Entries();
  auto from = journal.begin();
  for (const std::string_view entry : entries) {
    const auto found = std::find(from, journal.end(), entry);
    if (found == journal.end()) {
      auto failure = ::testing::AssertionFailure() << "not found, or not behind the one before: " << entry;
      failure << "\nin:";
      for (const std::string& line : journal) failure << "\n  " << line;
      return failure;
    }
    from = found + 1;
  }
  return ::testing::AssertionSuccess();
}

}  // namespace tolm::test
