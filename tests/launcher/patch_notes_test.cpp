#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "launcher/patch_notes.h"
#include "launcher/text_wrap.h"
#include "launcher/trim.h"
#include "launcher/version_marker.h"
#include "tests/support/temp_dir.h"

namespace th::test {
namespace {

using Lines = std::vector<std::string>;

TEST(Trim, RemovesCLocaleWhitespaceAtBothEndsOnly) {
  const struct {
    std::string in, out;
  } cases[] = {
      {"", ""},
      {" \t\n\v\f\r", ""},
      {"  1.2.0\n", "1.2.0"},
      {"\r\nhttp://127.0.0.1:8080 \r\n", "http://127.0.0.1:8080"},
      {" a b\n c ", "a b\n c"},
      {"\xA0x\xA0", "\xA0x\xA0"},  // a non-ASCII byte is not whitespace
  };
  for (const auto& c : cases) EXPECT_EQ(trim(c.in), c.out) << c.in;
}

TEST(WrappedLines, LaysOutTextAsSpecifiedByteForByte) {
  const std::string word100(100, 'w');
  const struct {
    std::string name, text;
    size_t width, maxLines;
    Lines out;
  } cases[] = {
      {"empty", "", 10, 5, {}},
      {"fits", "one two three", 20, 5, {"one two three"}},
      {"wraps at width", "one two three", 7, 5, {"one two", "three"}},
      {"exact width", "abc def", 7, 5, {"abc def"}},
      {"collapses spaces", "  a    b  ", 10, 5, {"a b"}},
      {"blank lines vanish", "a\n\n\n b\n", 10, 5, {"a", "b"}},
      {"CR LF equals LF", "alpha\r\nbeta\r\n\r\ngamma", 40, 5, {"alpha", "beta", "gamma"}},
      {"tab is a space", "a\tb\t\tc", 40, 5, {"a b c"}},
      {"non-ASCII dropped",
       "caf\xC3\xA9 ok\n\xE2\x82\xAC\xE2\x82\xAC\nend",
       40,
       5,
       {"caf ok", "end"}},
      {"control bytes and DEL dropped",
       "a\x01\x1b\x7f"
       "b c",
       40,
       5,
       {"ab c"}},
      {"long word kept whole", "x " + word100 + " y", 74, 5, {"x", word100, "y"}},
      {"maxLines zero", "anything at all", 10, 0, {}},
      {"early stop discards the rest", "a\nb\nc d", 10, 2, {"a", "b"}},
      {"two lines at once are cut", "aaaa bbbb", 4, 1, {"aaaa"}},
      {"flush and line end at the close", "aaaa bbbb", 4, 2, {"aaaa", "bbbb"}},
  };
  for (const auto& c : cases) EXPECT_EQ(wrappedLines(c.text, c.width, c.maxLines), c.out) << c.name;
}

TEST(WrappedLines, CutsThirtyLinesToEighteenWithoutMarker) {
  std::string text;
  Lines first18;
  for (int i = 0; i < 30; ++i) {
    text += "line " + std::to_string(i) + "\n";
    if (i < 18) first18.push_back("line " + std::to_string(i));
  }
  EXPECT_EQ(wrappedLines(text, 74, 18), first18);
}

TEST(WrappedLines, SurvivesHugeBinaryInput) {
  std::string text;
  for (unsigned i = 0; i < 4'000'000; ++i) text += static_cast<char>(i * 239u % 256u);
  const Lines lines = wrappedLines(text, 74, 18);
  EXPECT_EQ(lines.size(), 18u);
  for (const std::string& line : lines) {
    for (const char c : line) EXPECT_TRUE(c >= 32 && c <= 126);
  }
}

TEST(SectionHeading, MatchesExactWordsAndReleaseLines) {
  const struct {
    std::string line;
    bool heading;
  } cases[] = {
      {"ADDED", true},
      {"IMPROVED", true},
      {"FIXED", true},
      {"PACKAGING", true},
      {"WEBSITE", true},
      {"LAUNCHER", true},
      {"ADDED:", false},
      {"Added", false},
      {"added", false},
      {"ADDED STUFF", false},
      {"", false},
      {"Tarn Hollow v", true},
      {"Tarn Hollow v1.3.0 - spring", true},
      {"Tarn Hollow V1.3.0", false},
      {"Tarn Hollow 1.3.0", false},
      {" Tarn Hollow v1", false},
  };
  for (const auto& c : cases) EXPECT_EQ(isSectionHeading(c.line), c.heading) << c.line;
}

class PatchNotesFiles : public ::testing::Test {
 protected:
  void write(const std::string& relative, const std::string& bytes) {
    writeBytes(install / relative, bytes);
  }
  TempDir install;
};

TEST_F(PatchNotesFiles, PrefersTheDataFileThenTheVersionedOneThenTheGeneric) {
  write("PATCH_NOTES.txt", "generic");
  EXPECT_EQ(loadPatchNotes(install.path(), "1.2.0"), "generic");
  write("PATCH_NOTES_v1.2.0.txt", "\n versioned \n");
  EXPECT_EQ(loadPatchNotes(install.path(), "1.2.0"), "versioned");
  EXPECT_EQ(loadPatchNotes(install.path(), "1.3.0"), "generic");
  write("data/patch_notes.txt", "from data\r\n");
  EXPECT_EQ(loadPatchNotes(install.path(), "1.2.0"), "from data");
}

TEST_F(PatchNotesFiles, SkipsBlankFilesAndFoldersAndFallsBackToBuiltInText) {
  write("data/patch_notes.txt", "  \n\n \t");
  std::filesystem::create_directories(install / "PATCH_NOTES_v1.2.0.txt");
  EXPECT_EQ(loadPatchNotes(install.path(), "1.2.0"),
            "Tarn Hollow 1.2.0\n- Current build ready.\n- No local patch notes file was found.");
  write("PATCH_NOTES.txt", "generic");
  EXPECT_EQ(loadPatchNotes(install.path(), "1.2.0"), "generic");
}

TEST_F(PatchNotesFiles, AnEmptyVersionLooksForTheBareVersionedName) {
  EXPECT_EQ(loadPatchNotes(install.path(), ""),
            "Tarn Hollow \n- Current build ready.\n- No local patch notes file was found.");
  write("PATCH_NOTES_v.txt", "bare");
  EXPECT_EQ(loadPatchNotes(install.path(), ""), "bare");
}

TEST(LocalVersion, ReadsTheTrimmedMarkerOrTheDefault) {
  const struct {
    std::optional<std::string> marker;
    std::string version;
  } cases[] = {
      {std::nullopt, "0.16.117"},
      {"", "0.16.117"},
      {"\n", "0.16.117"},
      {"1.2.0\n", "1.2.0"},
      {"  1.2.0  ", "1.2.0"},
      {"1.2 beta\r\n", "1.2 beta"},
      {"\t2.0.0\nextra\n", "2.0.0\nextra"},
  };
  for (const auto& c : cases) {
    TempDir install;
    if (c.marker) writeBytes(install / "data" / "game_version", *c.marker);
    EXPECT_EQ(localVersion(install.path()), c.version) << c.marker.value_or("(none)");
  }
}

TEST(LocalVersion, AFolderInPlaceOfTheMarkerReadsAsTheDefault) {
  TempDir install;
  std::filesystem::create_directories(install / "data" / "game_version");
  EXPECT_EQ(localVersion(install.path()), "0.16.117");
}

}  // namespace
}  // namespace th::test
