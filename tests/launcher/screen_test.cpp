// The screen off-screen: every state against its reference frame; the text handling by itself.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string_view>

#include "launcher/patch_notes.h"
#include "launcher/screen.h"
#include "launcher/text_wrap.h"
#include "launcher/version_marker.h"
#include "tests/launcher/screen_probe.h"
#include "tests/support/system.h"

namespace th::test {
namespace {

// Patch notes as an install carries them; the long ones run past the panel's 18 lines.
const std::string kNotes =
    "Tarn Hollow v1.2.0 - harvest\nFIXED\n- Boats no longer sink at the northern pier.\n"
    "- The night market keeps its prices after a restart.\nNEW\n- Lanterns hang on any wall.";
const std::string kLongNotes =
    kNotes +
    "\r\nKNOWN ISSUES\n- A storm that starts while you fish ends the "
    "moment you put the rod away, and the catch of the day is counted "
    "twice.\n- Wolves\n- Fog\n- Ice\n- Rain\n- Snow\n- Mud\n- Wind\n- Hail\n- Last\n- Never shown";
constexpr std::string_view kServerNotes79 =
    "Tarn Hollow v1.3.0 - thaw\nFIXED\n- The ferry waits for each passenger at a pier.";
constexpr std::string_view kServerNotes80 =
    "Tarn Hollow v1.3.0 - thaw\nFIXED\n- The ferry waits for each passenger at the pier";
static_assert(kServerNotes79.size() == 79 && kServerNotes80.size() == 80);

enum Flags { kAvailable = 1, kRequired = 2, kBusy = 4, kQuit = 8 };

// Every state the job, the hand-off and the PLAY button leave the screen in, with the fields as
// they set them, against its reference frame. TH_UPDATE_FRAMES=1 rewrites the references.
TEST(Screen, DrawsEveryStateAsItsReferenceFrame) {
  const std::string fresh = loadPatchNotes("/nonexistent", kDefaultInstalledVersion);
  const std::string server80(kServerNotes80), ready = "READY TO PLAY", checking = "CHECKING";
  const std::uint64_t gb6 = 6ULL << 30;  // beyond 32 bits
  const struct {
    std::string name;
    JobState state;
    std::string status, detail, latest;
    int flags = 0;
    std::uint64_t done = 0, total = 0;
    std::string serverNotes = "", installed = "1.2.0", notes = kNotes;  // installed "": no marker
  } table[] = {
      {"starting", JobState::Starting, "STARTING...", "", ""},
      {"checking-short-notes", JobState::Checking, checking + " FOR UPDATES...", "", "", kBusy, 0,
       0, "", "1.2.0", "Tarn Hollow v1.2.0"},
      // Also a real window's first frame without a server: see window_test.cpp.
      {"no-server", JobState::ServiceUnavailable, "UPDATE SERVICE UNAVAILABLE",
       "update_server_not_configured // ONLINE LOGIN STILL REQUIRED", "", 0, 0, 0, "", "", fresh},
      {"service-unavailable", JobState::ServiceUnavailable, "UPDATE SERVICE UNAVAILABLE",
       "transport_error:Failed to connect to updates.tarn-hollow.example port 443 after 30002 ms: "
       "Could not connect to server (tried 3 times) // ONLINE LOGIN STILL REQUIRED",
       ""},
      {"downloading", JobState::Updating, "DOWNLOADING UPDATE...", "3 FILES REQUIRE UPDATE",
       "1.3.0", kAvailable | kBusy, 2ULL << 30, gb6, server80 + "\nNEW\n- Skates."},
      {"update-required", JobState::Updating, "DOWNLOADING UPDATE...", "12 FILES REQUIRE UPDATE",
       "1.3.0", kAvailable | kRequired | kBusy, 999, 1000, "", "0.16.117"},
      {"update-failed", JobState::Failed, "UPDATE FAILED - TRY AGAIN",
       "download_hash_mismatch:data/world.pak", "1.3.0", kAvailable, gb6 / 5, gb6},
      // The files were current, so nothing was downloaded: no bar, the update still offered.
      {"marker-failed", JobState::Failed, "VERSION MARKER UPDATE FAILED",
       "EXPECTED 1.3.0 // FOUND 1.2.0", "1.3.0", kAvailable},
      {"update-available", JobState::Checking, checking + " GAME FILES...", "", "1.3.0",
       kAvailable | kBusy},
      // Also a real window's frames after an update and on the next check: see window_test.cpp.
      {"installed", JobState::Ready, ready, "INSTALLED VERSION 1.3.0", "1.3.0", 0, 400123, 400123,
       "", "1.3.0", fresh},
      {"mandatory", JobState::Ready, ready, "VERSION 1.3.0 // stable", "1.3.0", kRequired, 0, 0, "",
       "1.3.0", fresh},
      {"ready-long-notes", JobState::Ready, ready, "VERSION 1.2.0 // stable", "1.2.0", 0, 0, 0, "",
       "1.2.0", kLongNotes},
      {"downgrade-blocked", JobState::Ready, ready,
       "INSTALLED 1.4.0 // SERVER 1.3.0 // DOWNGRADE BLOCKED", "1.3.0", 0, 0, 0, "", "1.4.0"},
      {"game-missing", JobState::Failed, "GAME EXECUTABLE MISSING",
       "/home/player/Games/Tarn Hollow/tarn-hollow", "1.2.0"},
      {"launcher-restarting", JobState::Restarting, "LAUNCHER UPDATED", "RESTARTING...", "1.3.0",
       kAvailable | kBusy | kQuit, 700, 700},
      {"notes-server-79", JobState::Ready, ready, "", "1.3.0", 0, 0, 0,
       std::string(kServerNotes79)},
      {"notes-server-80", JobState::Ready, ready, "", "1.3.0", 0, 0, 0, server80},
  };
  for (const auto& row : table) {
    TempDir install;
    if (!row.installed.empty()) writeBytes(install / "data" / "game_version", row.installed);
    const auto has = [&](int flag) { return (row.flags & flag) != 0; };
    const Snapshot snap{row.state,       row.status, row.detail, row.latest,
                        row.serverNotes, row.done,   row.total,  has(kAvailable),
                        has(kRequired),  has(kBusy), has(kQuit)};
    const Image frame = renderOffscreen(
        [&](SDL_Renderer* renderer) { drawFrame(renderer, snap, row.notes, install.path()); });
    if (std::getenv("TH_UPDATE_FRAMES") != nullptr) writeReference(frame, row.name);
    EXPECT_EQ(differenceFromReference(frame, row.name), "");
  }
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
