// What only the off-screen frame shows cheaply: the bar's arithmetic, the busy and required
// buttons, the detail's wrap and the threshold for the server's release notes.
#include <gtest/gtest.h>

#include "launcher/screen.h"
#include "tests/launcher/screen_probe.h"
#include "tests/support/files.h"

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

}  // namespace
}  // namespace th::test
