// The screen's text and what only the off-screen frame shows cheaply: wrapping, patch notes, the
// bar, the buttons, the detail's wrap and the threshold for the server's release notes.
#include <gtest/gtest.h>

#include "launcher/patch_notes.h"
#include "launcher/screen.h"
#include "launcher/text_wrap.h"
#include "launcher/version_marker.h"
#include "tests/launcher/screen_probe.h"
#include "tests/support/system.h"

namespace th::test {
namespace {

Image draw(const Snapshot& snap) {
  TempDir install;
  return renderOffscreen(
      [&](SDL_Renderer* renderer) { drawFrame(renderer, snap, "Local notes", install.path()); });
}

TEST(Screen, FillsTheBarAndLabelsTheButtons) {
  const struct {
    std::uint64_t done, total;
    bool busy, required;
    int filled;  // pixels in one row of the bar
    Rgb box;
    std::string label;
    float x, scale;
    Rgb labelColour;
  } table[] = {
      {1ULL << 41, 1ULL << 42, false, false, 130, kPlayBox, "PLAY", 818, 1.65f, {255, 244, 226}},
      {999, 1000, true, false, 259, {38, 48, 54}, "PLEASE WAIT", 790, 1.25f, {212, 222, 220}},
      {5, 1, true, true, 260, kRequiredBox, "UPDATE REQUIRED", 750, 1.25f, {255, 230, 216}},
  };
  for (const auto& row : table) {
    Snapshot snap;
    snap.progressDone = row.done;
    snap.progressTotal = row.total;
    snap.busy = row.busy;
    snap.updateRequired = row.required;
    const Image image = draw(snap);
    EXPECT_EQ(countColour(image, 700, 327, 1000, 328, kBarFill), row.filled) << row.label;
    EXPECT_EQ(image.at(722, 517), row.box) << row.label;
    const float y = row.label == "PLAY" ? 533 : 535;
    EXPECT_TRUE(showsText(image, row.x, y, row.label, row.scale, row.labelColour)) << row.label;
  }
}

TEST(Screen, WrapsTheDetailToFourLinesAndUsesServerNotesFromEightyCharacters) {
  Snapshot snap;
  snap.detail =
      "manifest_signature_verify_failed // ONLINE LOGIN STILL REQUIRED one two three "
      "four five six seven eight nine ten eleven twelve thirteen fourteen never shown";
  snap.releaseNotes = std::string(78, 'x') + " y";
  Image image = draw(snap);
  EXPECT_TRUE(
      showsText(image, 720, 154 + 17 * 3, "ten eleven twelve thirteen fourteen", 0.72f, kDetail));
  EXPECT_EQ(countColour(image, 720, 222, 1040, 240, kDetail), 0);
  EXPECT_TRUE(showsText(image, 60, 213, "y", 0.78f, kNotesBody));
  snap.releaseNotes.pop_back();  // 79 characters
  EXPECT_TRUE(showsText(draw(snap), 60, 193, "Local notes", 0.78f, kNotesBody));
}

using Lines = std::vector<std::string>;

TEST(WrappedLines, LaysOutTextByteForByte) {
  const std::string word100(100, 'w');
  const struct {
    std::string name, text;
    size_t width, maxLines;
    Lines out;
  } table[] = {
      {"wraps at width", "one two three", 7, 5, {"one two", "three"}},
      {"collapses spaces, drops blank lines", "  a    b  \n\n\n c\n", 10, 5, {"a b", "c"}},
      {"CR LF equals LF", "alpha\r\nbeta\r\n\r\ngamma", 40, 5, {"alpha", "beta", "gamma"}},
      {"non-ASCII dropped", "caf\xC3\xA9 ok\n\xE2\x82\xAC\nend", 40, 5, {"caf ok", "end"}},
      {"long word kept whole", "x " + word100 + " y", 74, 5, {"x", word100, "y"}},
      {"cut after maxLines", "a\nb\nc", 40, 2, {"a", "b"}},
      {"maxLines zero", "anything at all", 10, 0, {}},
  };
  for (const auto& row : table) {
    EXPECT_EQ(wrappedLines(row.text, row.width, row.maxLines), row.out) << row.name;
  }
}

// The boundaries of a heading: whole upper-case words, or a release line "Tarn Hollow v...".
TEST(SectionHeading, MatchesWholeWordsAndReleaseLines) {
  for (const char* line : {"FIXED", "Tarn Hollow v", "Tarn Hollow v1.3.0 - spring"}) {
    EXPECT_TRUE(isSectionHeading(line)) << line;
  }
  for (const char* line : {"FIXED:", "Fixed", "", "Tarn Hollow V1.3.0", " Tarn Hollow v1"}) {
    EXPECT_FALSE(isSectionHeading(line)) << line;
  }
}

TEST(PatchNotes, PrefersDataThenVersionedThenGenericSkippingBlankFilesThenBuiltIn) {
  TempDir install;
  EXPECT_EQ(loadPatchNotes(install.path(), "1.2.0"),
            "Tarn Hollow 1.2.0\n- Current build ready.\n- No local patch notes file was found.");
  writeBytes(install / "PATCH_NOTES.txt", "generic");
  EXPECT_EQ(loadPatchNotes(install.path(), "1.2.0"), "generic");
  writeBytes(install / "PATCH_NOTES_v1.2.0.txt", "\n versioned \n");
  EXPECT_EQ(loadPatchNotes(install.path(), "1.2.0"), "versioned");
  EXPECT_EQ(loadPatchNotes(install.path(), "1.3.0"), "generic");
  writeBytes(install / "data" / "patch_notes.txt", "  \n\n \t");
  EXPECT_EQ(loadPatchNotes(install.path(), "1.2.0"), "versioned");
  writeBytes(install / "data" / "patch_notes.txt", "from data\r\n");
  EXPECT_EQ(loadPatchNotes(install.path(), "1.2.0"), "from data");
}

}  // namespace
}  // namespace th::test
