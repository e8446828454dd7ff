#pragma once
// Word wrapping for the debug font, which draws printable ASCII only.

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "launcher/trim.h"

namespace {

// What the debug font can show of a byte: line feeds and printable ASCII as they are, a tab as a
// space; nothing for everything else (carriage returns, other control bytes, DEL and every byte
// of a multi-byte character).
inline std::optional<char> printableByte(char c) {
  const auto byte = static_cast<unsigned char>(c);
  if (byte == '\t') return ' ';
  if (byte == '\n' || (byte >= 32 && byte <= 126)) return c;
  return std::nullopt;
}

class LineWrapper {
 public:
  explicit LineWrapper(std::size_t width) : width_(width) {}

  void addByte(char c) {
    if (c == '\n') {
      flushWord();
      endLine();
    } else if (isSpaceByte(c)) {
      flushWord();
    } else {
      word_ += c;
    }
  }

  std::size_t lineCount() const { return lines_.size(); }

  // The word and line still being built, as at the end of the text.
  void finishText() {
    flushWord();
    endLine();
  }

  std::vector<std::string> takeLines() { return std::move(lines_); }

 private:
  // A word is never split: one longer than the width stands alone on its own line.
  void flushWord() {
    if (word_.empty()) return;
    if (line_.empty()) {
      line_ = word_;
    } else if (line_.size() + 1 + word_.size() > width_) {
      lines_.push_back(line_);
      line_ = word_;
    } else {
      line_ += ' ';
      line_ += word_;
    }
    word_.clear();
  }

  // Blank lines add nothing.
  void endLine() {
    if (line_.empty()) return;
    lines_.push_back(line_);
    line_.clear();
  }

  std::size_t width_;
  std::string word_;
  std::string line_;
  std::vector<std::string> lines_;
};

// At most `maxLines` lines of at most `width` characters; whatever does not fit is cut without
// a marker. Reading stops as soon as enough lines exist, which bounds the work on long texts.
inline std::vector<std::string> wrappedLines(const std::string& text, std::size_t width,
                                             std::size_t maxLines) {
  LineWrapper wrapper(width);
  // Bytes are cleaned as they are read, so a huge text costs only what is shown of it.
  for (const char c : text) {
    const std::optional<char> shown = printableByte(c);
    if (!shown) continue;
    wrapper.addByte(*shown);
    if (wrapper.lineCount() >= maxLines) break;
  }
  if (wrapper.lineCount() < maxLines) wrapper.finishText();
  std::vector<std::string> lines = wrapper.takeLines();
  if (lines.size() > maxLines) lines.resize(maxLines);
  return lines;
}

}  // namespace
