// The launcher's text handling: wrapping, patch notes and the version marker.
#include <gtest/gtest.h>

#include "launcher/patch_notes.h"
#include "launcher/text_wrap.h"
#include "launcher/version_marker.h"
#include "tests/support/files.h"

namespace th::test {
namespace {

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
      {"tab is a space", "a\tb\t\tc", 40, 5, {"a b c"}},
      {"non-ASCII dropped", "caf\xC3\xA9 ok\n\xE2\x82\xAC\nend", 40, 5, {"caf ok", "end"}},
      {"long word kept whole", "x " + word100 + " y", 74, 5, {"x", word100, "y"}},
      {"cut after maxLines", "a\nb\nc", 40, 2, {"a", "b"}},
      {"two lines at once are cut", "aaaa bbbb", 4, 1, {"aaaa"}},
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

TEST(LocalVersion, ReadsTheTrimmedMarkerOrTheDefault) {
  TempDir install;
  EXPECT_EQ(localVersion(install.path()), "0.16.117");
  for (const auto& [marker, version] :
       std::vector<std::pair<std::string, std::string>>{{"\n", "0.16.117"},
                                                        {"\v\f 1.2 beta\r\n", "1.2 beta"},
                                                        {"\t2.0.0\nextra\n", "2.0.0\nextra"}}) {
    writeBytes(install / "data" / "game_version", marker);
    EXPECT_EQ(localVersion(install.path()), version) << marker;
  }
}

}  // namespace
}  // namespace th::test
