#pragma once

#include <gtest/gtest.h>

#include <string>
#include <utility>

namespace tolm::test {

/// Counts the rows of a table that a test goes through and those that came out wrong, and leaves both numbers
/// in the test's record, by which they can be read from outside.
class Rows {
 public:
  explicit Rows(std::string table) : table_(std::move(table)) {}
  ~Rows() {
    testing::Test::RecordProperty(table_ + ".rows", rows_);
    testing::Test::RecordProperty(table_ + ".wrong", wrong_);
  }
  Rows(const Rows&) = delete;
  Rows& operator=(const Rows&) = delete;

  template <typename T, typename U>
  void Expect(const T& expected, const U& seen, const std::string& row) {
    ++rows_;
    if (expected == seen) return;
    ++wrong_;
    ADD_FAILURE() << row << ": expected " << testing::PrintToString(expected) << ", got "
                  << testing::PrintToString(seen);
  }
  int rows() const { return rows_; }
  int wrong() const { return wrong_; }
  /// Rows that another process has gone through.
  void Add(int rows, int wrong) {
    rows_ += rows;
    wrong_ += wrong;
    EXPECT_EQ(wrong, 0);
  }

 private:
  const std::string table_;
  int rows_ = 0;
  int wrong_ = 0;
};

}  // namespace tolm::test
