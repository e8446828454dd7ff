#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "launcher/screen.h"
#include "tests/launcher/screen_probe.h"
#include "tests/support/temp_dir.h"

namespace th::test {
namespace {

const std::string kLocalNotes = "Local notes line";

class Screen : public ::testing::Test {
 protected:
  Image draw(const Snapshot& snap, const std::string& notes = kLocalNotes) {
    return renderOffscreen(
        [&](SDL_Renderer* renderer) { drawFrame(renderer, snap, notes, install.path()); });
  }
  TempDir install;
};

Snapshot idle() {
  Snapshot snap;
  snap.state = JobState::Ready;
  snap.status = "READY TO PLAY";
  return snap;
}

TEST_F(Screen, DrawsTheFixedFrameTitlesAndFooters) {
  const Image image = draw(idle());
  EXPECT_EQ(image.at(10, 10), (Rgb{8, 13, 17}));
  EXPECT_EQ(image.at(1030, 10), (Rgb{7, 11, 14}));
  EXPECT_EQ(image.at(30, 30), (Rgb{12, 19, 24}));
  EXPECT_EQ(image.at(50, 590), (Rgb{17, 26, 31}));
  EXPECT_EQ(image.at(300, 174), (Rgb{72, 110, 101}));
  EXPECT_EQ(image.at(300, 175), (Rgb{17, 26, 31}));
  EXPECT_TRUE(showsText(image, 58, 64, "TARN HOLLOW", 2.45f, {225, 61, 48}));
  EXPECT_TRUE(showsText(image, 60, 104, "HOLD OR FALL // ONLINE WORLD", 0.92f, kNotesBody));
  EXPECT_TRUE(showsText(image, 60, 145, "PATCH NOTES // v0.16.117", 1.25f, {232, 236, 226}));
  EXPECT_TRUE(showsText(image, 60, 566, "PATCH NOTES ARE BUNDLED WITH EVERY RELEASE", 0.72f,
                        {105, 139, 132}));
  EXPECT_TRUE(showsText(image, 720, 72, "GAME STATUS", 1.45f, {226, 236, 232}));
  EXPECT_TRUE(showsText(image, 720, 245, "INSTALLED", 0.76f, {113, 144, 137}));
  EXPECT_TRUE(showsText(image, 720, 270, "LATEST", 0.76f, {113, 144, 137}));
  EXPECT_TRUE(showsText(image, 820, 270, "CHECKING", 0.82f, kVersionText));
  EXPECT_TRUE(
      showsText(image, 720, 594, "ENTER = PLAY // LAUNCHER v1.2.1", 0.72f, {137, 163, 159}));
  EXPECT_TRUE(showsText(image, 736, 466, "REPAIR", 0.95f, kSmallLabel));
  EXPECT_EQ(image.at(724, 455), (Rgb{31, 45, 54}));
  EXPECT_EQ(image.at(976, 490), (Rgb{31, 45, 54}));
}

TEST_F(Screen, ShowsTheInstalledVersionFromTheMarkerInEveryFrame) {
  writeBytes(install / "data" / "game_version", "  1.4.0\n");
  Snapshot snap = idle();
  snap.latestVersion = "1.5.0";
  const Image image = draw(snap);
  EXPECT_TRUE(showsText(image, 60, 145, "PATCH NOTES // v1.4.0", 1.25f, {232, 236, 226}));
  EXPECT_TRUE(showsText(image, 820, 245, "1.4.0", 0.82f, kVersionText));
  EXPECT_TRUE(showsText(image, 820, 270, "1.5.0", 0.82f, kVersionText));
}

TEST_F(Screen, ColoursTheStatusByState) {
  const struct {
    JobState state;
    Rgb colour;
  } cases[] = {
      {JobState::Starting, kStatusNormal},
      {JobState::Checking, kStatusNormal},
      {JobState::Updating, kStatusNormal},
      {JobState::Ready, kStatusNormal},
      {JobState::ServiceUnavailable, kStatusUnavailable},
      {JobState::Failed, kStatusFailed},
      {JobState::Restarting, kStatusNormal},
  };
  for (const auto& c : cases) {
    Snapshot snap = idle();
    snap.state = c.state;
    snap.status = "SOME STATUS";
    EXPECT_TRUE(showsText(draw(snap), 720, 118, "SOME STATUS", 1.02f, c.colour))
        << static_cast<int>(c.state);
  }
}

TEST_F(Screen, WrapsTheDetailToFourLinesOfThirtyEight) {
  Snapshot snap = idle();
  snap.detail =
      "manifest_signature_verify_failed // ONLINE LOGIN STILL REQUIRED one two three four five "
      "six seven eight nine ten eleven twelve thirteen fourteen";
  const Image image = draw(snap);
  const std::vector<std::string> lines = {
      "manifest_signature_verify_failed //", "ONLINE LOGIN STILL REQUIRED one two",
      "three four five six seven eight nine", "ten eleven twelve thirteen fourteen"};
  for (size_t i = 0; i < lines.size(); ++i) {
    EXPECT_TRUE(showsText(image, 720, 154 + 17.0f * i, lines[i], 0.72f, kDetail)) << lines[i];
  }
  snap.detail += " fifth line words that never show";
  EXPECT_EQ(countColour(draw(snap), 720, 222, 1040, 240, kDetail), 0);
  snap.detail.clear();
  EXPECT_EQ(countColour(draw(snap), 720, 150, 1040, 240, kDetail), 0);
}

TEST_F(Screen, ChoosesTheProgressBarTheUpdateNoticeOrTheChannelLine) {
  const struct {
    std::uint64_t done, total;
    bool updateAvailable;
    std::string label;
    float scale;
    Rgb colour;
    int filledPixels;  // in one row of the bar; -1: no bar; -2: a bar, fill not checked
  } cases[] = {
      {0, 0, false, "SIGNED UPDATE CHANNEL // STABLE", 0.72f, {121, 155, 148}, -1},
      {7, 0, true, "UPDATE AVAILABLE", 0.72f, {225, 175, 83}, -1},
      {3, 1000, true, "UPDATE 0%", 0.82f, kBarLabel, -2},
      {1, 2, false, "UPDATE 50%", 0.82f, kBarLabel, 130},
      {999, 1000, false, "UPDATE 99%", 0.82f, kBarLabel, 259},
      {1ULL << 41, 1ULL << 42, false, "UPDATE 50%", 0.82f, kBarLabel, 130},
      {5, 1, false, "UPDATE 100%", 0.82f, kBarLabel, 260},
  };
  for (const auto& c : cases) {
    Snapshot snap = idle();
    snap.progressDone = c.done;
    snap.progressTotal = c.total;
    snap.updateAvailable = c.updateAvailable;
    const Image image = draw(snap);
    EXPECT_TRUE(showsText(image, 720, 342, c.label, c.scale, c.colour)) << c.label;
    const int fill = countColour(image, 700, 327, 1000, 328, kBarFill);
    const int track = countColour(image, 700, 327, 1000, 328, kBarTrack);
    if (c.filledPixels == -1) {
      EXPECT_EQ(fill + track, 0) << c.label;
    } else {
      if (c.filledPixels >= 0) {
        EXPECT_EQ(fill, c.filledPixels) << c.label;
      }
      EXPECT_EQ(fill + track, 260) << c.label;
    }
  }
}

TEST_F(Screen, LabelsTheButtonsByBusyAndRequired) {
  const struct {
    bool busy, required;
    Rgb box;
    std::string label;
    float x, y, scale;
    Rgb labelColour;
    std::string refresh;
  } cases[] = {
      {false, false, kPlayBox, "PLAY", 818, 533, 1.65f, {255, 244, 226}, "REFRESH"},
      {true, false, {38, 48, 54}, "PLEASE WAIT", 790, 535, 1.25f, {212, 222, 220}, "WAIT"},
      {false, true, kRequiredBox, "UPDATE REQUIRED", 750, 535, 1.25f, {255, 230, 216}, "REFRESH"},
      {true, true, kRequiredBox, "UPDATE REQUIRED", 750, 535, 1.25f, {255, 230, 216}, "WAIT"},
  };
  for (const auto& c : cases) {
    Snapshot snap = idle();
    snap.busy = c.busy;
    snap.updateRequired = c.required;
    const Image image = draw(snap);
    EXPECT_EQ(image.at(722, 517), c.box) << c.label;
    EXPECT_EQ(image.at(978, 575), c.box) << c.label;
    EXPECT_TRUE(showsText(image, c.x, c.y, c.label, c.scale, c.labelColour)) << c.label;
    EXPECT_TRUE(showsText(image, 870, 466, c.refresh, 0.95f, kSmallLabel)) << c.label;
  }
}

TEST_F(Screen, ServerReleaseNotesReplaceTheLocalOnesFromEightyCharacters) {
  Snapshot snap = idle();
  snap.releaseNotes = std::string(78, 'x') + " y";  // 80 characters
  Image image = draw(snap);
  EXPECT_TRUE(showsText(image, 60, 193, std::string(78, 'x'), 0.78f, kNotesBody));
  EXPECT_TRUE(showsText(image, 60, 213, "y", 0.78f, kNotesBody));

  snap.releaseNotes.pop_back();  // 79 characters
  image = draw(snap);
  EXPECT_TRUE(showsText(image, 60, 193, kLocalNotes, 0.78f, kNotesBody));
}

TEST_F(Screen, DrawsSectionHeadingsInTheirOwnColour) {
  const std::string notes =
      "Tarn Hollow v1.3.0 released\n\n  ADDED  \n- a new map\nADDED:\nTarn Hollow 1.3.0";
  const Image image = draw(idle(), notes);
  EXPECT_TRUE(showsText(image, 60, 193, "Tarn Hollow v1.3.0 released", 0.78f, kNotesHeading));
  EXPECT_TRUE(showsText(image, 60, 213, "ADDED", 0.78f, kNotesHeading));
  EXPECT_TRUE(showsText(image, 60, 233, "- a new map", 0.78f, kNotesBody));
  EXPECT_TRUE(showsText(image, 60, 253, "ADDED:", 0.78f, kNotesBody));
  EXPECT_TRUE(showsText(image, 60, 273, "Tarn Hollow 1.3.0", 0.78f, kNotesBody));
}

TEST_F(Screen, DrawsHostileTextWithoutCrashing) {
  Snapshot snap = idle();
  snap.state = JobState::Failed;
  snap.status = "A STATUS FAR LONGER THAN THE RIGHT COLUMN CAN EVER HOLD";
  snap.detail = std::string("caf\xC3\xA9\r\n\x01\x7f\t") + std::string(5000, 'w');
  snap.latestVersion = "\xff\xfe";
  const Image image = draw(snap, std::string(100000, '\xE2'));
  // The status is neither wrapped nor clipped: it runs off the right edge.
  EXPECT_TRUE(showsText(image, 720, 118, snap.status, 1.02f, kStatusFailed));
  EXPECT_TRUE(showsText(image, 720, 154, "caf", 0.72f, kDetail));
}

}  // namespace
}  // namespace th::test
