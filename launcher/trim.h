#pragma once

#include <cctype>
#include <string>

namespace {

inline bool isSpaceByte(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

// Removes leading and trailing C-locale whitespace; inner whitespace is kept.
inline std::string trim(std::string s) {
  std::size_t begin = 0;
  while (begin < s.size() && isSpaceByte(s[begin])) ++begin;
  std::size_t end = s.size();
  while (end > begin && isSpaceByte(s[end - 1])) --end;
  return s.substr(begin, end - begin);
}

}  // namespace
