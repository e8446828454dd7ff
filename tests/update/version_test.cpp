#include "update/version.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace th::test {
namespace {

using update::compareVersion;

// Each text must read as exactly the given parts: equal to their plain dotted form, and older
// than that form with any one part raised.
TEST(VersionParts, ReadAsTheListedParts) {
  const std::vector<std::pair<std::string, std::vector<int>>> table = {
      {"", {0, 0, 0, 0}},
      {"1.2", {1, 2, 0, 0}},
      {"1.2.3", {1, 2, 3, 0}},
      {"1.", {1, 0, 0, 0}},
      {".5", {0, 5, 0, 0}},
      {"1..2", {1, 0, 2, 0}},
      {"1.2.3-beta", {1, 2, 3, 0}},
      {"1.2a.3", {1, 2, 0, 0}},
      {"v1.2", {0, 0, 0, 0}},
      {" 1.2", {0, 0, 0, 0}},
      {"1.2.3.4.5", {1, 2, 3, 4, 5}},
      {"007", {7, 0, 0, 0}},
      {"1.4294967306", {1, 10, 0, 0}},
      {"99999999999999999999", {1661992959, 0, 0, 0}},
  };
  for (const auto& [text, parts] : table) {
    std::string plain;
    for (size_t i = 0; i < parts.size(); ++i) plain += (i ? "." : "") + std::to_string(parts[i]);
    EXPECT_EQ(compareVersion(text, plain), 0) << text << " vs " << plain;
    for (size_t raised = 0; raised < parts.size(); ++raised) {
      std::string higher;
      for (size_t i = 0; i < parts.size(); ++i)
        higher += (i ? "." : "") + std::to_string(parts[i] + (i == raised ? 1 : 0));
      EXPECT_EQ(compareVersion(text, higher), -1) << text << " vs " << higher;
    }
  }
}

TEST(CompareVersion, OrdersAsRequired) {
  const struct {
    const char* a;
    const char* b;
    int expected;
  } table[] = {
      {"", "", 0},
      {"", "0", 0},
      {"", "0.0", 0},
      {"", ".", 0},
      {"1.2", "1.2.0", 0},
      {"1.2.1", "1.2", 1},
      {"1.2", "1.10", -1},
      {"1.2.3.4.1", "1.2.3.4", 1},
      {"1.2.3.4.0", "1.2.3.4", 0},
      {"10", "9.9.9", 1},
      {"1.2 ", "1.2", 0},
      {" 1.2", "0", 0},
      {"1.2.0.0.0", "1.2", 0},
      {"1.02", "1.2", 0},
      {"1.2.3-rc1", "1.2.3", 0},
      {"4294967297", "1", 0},
      {"2.4294967297", "2.1", 0},
      {"4294967296", "0", 0},
      {"2147483648", "1", -1},
      {"2147483647", "2147483648", 1},
      {"1.2.3.4.-1", "1.2.3.4", 0},
  };
  for (const auto& row : table) {
    EXPECT_EQ(compareVersion(row.a, row.b), row.expected) << row.a << " vs " << row.b;
  }
}

TEST(CompareVersion, IsAntisymmetricOverGeneratedPairs) {
  const std::vector<std::string> pieces = {"",           "0",          "1", "9", "10", ".",  "..",
                                           "2147483648", "4294967295", "x", "-", " ",  "007"};
  std::vector<std::string> texts;
  for (const auto& first : pieces)
    for (const auto& second : pieces)
      for (const auto& third : {"", ".1", ".0.0.0.3", "a"}) texts.push_back(first + second + third);
  for (const auto& a : texts) {
    ASSERT_EQ(compareVersion(a, a), 0) << a;
    for (const auto& b : texts) {
      const int forward = compareVersion(a, b);
      ASSERT_TRUE(forward == -1 || forward == 0 || forward == 1) << a << " vs " << b;
      ASSERT_EQ(forward, -compareVersion(b, a)) << a << " vs " << b;
    }
  }
}

}  // namespace
}  // namespace th::test
