#include "update/manifest.h"

#include <gtest/gtest.h>

#include <string>

namespace th::test {
namespace {

using update::Manifest;
using update::parseManifest;

const std::string kZeroDigest = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";
const std::string kHeader =
    R"("format": 1, "product": "tarn-hollow", "channel": "stable", "platform": "linux", )"
    R"("version": "1.4.2")";

std::string entry(const std::string& path, const std::string& extra = "") {
  return R"({ "path": ")" + path + R"(", "sha256": ")" + kZeroDigest + "\"" + extra + " }";
}
std::string manifestText(const std::string& header, const std::string& files) {
  return "{\n  " + header + ",\n  \"files\": " + files + "\n}";
}
std::string withFiles(const std::string& files) { return manifestText(kHeader, files); }

// Every field in one text, so that "untouched" and "replaced" compare the whole record.
std::string describe(const Manifest& m) {
  std::string text = std::to_string(m.format) + "|" + m.product + "|" + m.channel + "|" +
                     m.platform + "|" + m.version + "|" + std::to_string(m.protocolVersion) + "|" +
                     m.minimumOnlineVersion + "|" + (m.mandatory ? "M" : "-") + "|" +
                     m.releaseNotes;
  for (const auto& f : m.files)
    text +=
        "|" + f.path + "," + f.sha256 + "," + std::to_string(f.size) + (f.executable ? ",x" : "");
  return text;
}

Manifest parsed(const std::string& text) {
  Manifest out;
  std::string error = "untouched";
  EXPECT_TRUE(parseManifest(text, out, error)) << error << "\n" << text;
  EXPECT_EQ(error, "untouched");
  return out;
}

TEST(ParseManifest, ReadsTheSampleManifest) {
  const std::string text = R"({
  "format": 1,
  "product": "tarn-hollow",
  "channel": "stable",
  "platform": "linux",
  "version": "1.4.2",
  "protocol_version": 3,
  "minimum_online_version": "1.4.0",
  "mandatory": false,
  "release_notes": "Faster loading.\nFixed a crash when leaving a match.",
  "files": [
    { "path": "tarn-hollow", "sha256": "5d41c0e7a09e3a4b6f28c1d9e7b05f3a2c8d4e6f1a0b9c7d3e5f2a4b6c8d0e1f", "size": 48211968, "executable": true },
    { "path": "data/empty.flag", "sha256": "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855", "size": 0 }
  ]
})";
  Manifest out;
  out.files.resize(5);  // a previous manifest's list is replaced, not extended
  std::string error = "untouched";
  ASSERT_TRUE(parseManifest(text, out, error));
  EXPECT_EQ(error, "untouched");
  EXPECT_EQ(describe(out),
            "1|tarn-hollow|stable|linux|1.4.2|3|1.4.0|-|Faster loading.\nFixed a crash when "
            "leaving a match.|tarn-hollow,"
            "5d41c0e7a09e3a4b6f28c1d9e7b05f3a2c8d4e6f1a0b9c7d3e5f2a4b6c8d0e1f,48211968,x|"
            "data/empty.flag," +
                kZeroDigest + ",0");
}

TEST(ParseManifest, RejectsWithTheFirstFailingCheckAndLeavesOutputAlone) {
  const std::string good = entry("tarn-hollow");
  const struct {
    std::string text;
    const char* error;
  } table[] = {
      {manifestText(R"("format": 2, "product": "tarn-hollow", "platform": "linux", "version": "1")",
                    "[" + good + "]"),
       "manifest_header_invalid"},
      {manifestText(R"("product": "Tarn-Hollow", "platform": "linux", "version": "1")",
                    "[" + good + "]"),
       "manifest_header_invalid"},
      {manifestText(R"("product": "tarn-hollow", "platform": "linux", "version": 1)",
                    "[" + good + "]"),
       "manifest_header_invalid"},
      {manifestText(R"("product": "tarn-hollow", "platform": "", "version": "1")",
                    "[" + good + "]"),
       "manifest_header_invalid"},
      {manifestText(R"("product": "tarn-hollow", "version": "1")", "[]"),
       "manifest_header_invalid"},
      {withFiles("[" + entry("../x") + "]"), "manifest_file_invalid"},
      {withFiles("[" + good + ", " + entry("save/a.sav") + "]"), "manifest_file_invalid"},
      {withFiles(R"([{ "sha256": ")" + kZeroDigest + "\" }]"), "manifest_file_invalid"},
      {withFiles(R"([{ "path": "a", "sha256": ")" + kZeroDigest.substr(1) + "\" }]"),
       "manifest_file_invalid"},
      {withFiles("[]"), "manifest_has_no_files"},
      {withFiles("[ 1, \"x\", [] ]"), "manifest_has_no_files"},
      {"{" + kHeader + "}", "manifest_has_no_files"},
      {"{" + kHeader + ", \"files\": {}}", "manifest_has_no_files"},
      {"{" + kHeader + ", \"files\": [", "manifest_has_no_files"},
      {"{" + kHeader + ", \"files\": [" + good.substr(0, good.size() - 1), "manifest_has_no_files"},
      {withFiles("[ }, " + good + " ]"), "manifest_has_no_files"},
      {"", "manifest_header_invalid"},
  };
  for (const auto& row : table) {
    Manifest out;
    out.version = "0.9";
    out.files.resize(1);
    const std::string before = describe(out);
    std::string error = "previous";
    EXPECT_FALSE(parseManifest(row.text, out, error)) << row.text;
    EXPECT_EQ(error, row.error) << row.text;
    EXPECT_EQ(describe(out), before) << row.text;
  }
}

TEST(ParseManifest, HeaderQuirks) {
  const std::string files = "[" + entry("a") + "]";
  const std::string rest = R"("product": "tarn-hollow", "platform": "linux", "version": "1")";
  const struct {
    std::string header;
    std::string expected;  // describe() without the file list
  } table[] = {
      {rest, "1|tarn-hollow||linux|1|0||-|"},
      {R"("format": "1", )" + rest, "1|tarn-hollow||linux|1|0||-|"},
      {R"("format": 4294967297, )" + rest, "1|tarn-hollow||linux|1|0||-|"},
      {R"("protocol_version": 4294967299, )" + rest, "1|tarn-hollow||linux|1|3||-|"},
      {R"("protocol_version": -7, "mandatory": trueish, )" + rest, "1|tarn-hollow||linux|1|-7||M|"},
      {R"("mandatory": "true", "release_notes": "a\nb\tc\\d\/e\"f\bg\u00e9", )" + rest,
       "1|tarn-hollow||linux|1|0||-|a\nb\tc\\d/e\"fbgu00e9"},
      {R"("mandatory": True, "channel": "version", "platform": "linux", "version": "1.4.2",)"
       R"( "product": "tarn-hollow")",
       "1|tarn-hollow|version|linux|linux|0||-|"},
  };
  for (const auto& row : table) {
    const Manifest out = parsed(manifestText(row.header, files));
    EXPECT_EQ(describe(out), row.expected + "|a," + kZeroDigest + ",0") << row.header;
  }
}

TEST(ParseManifest, KeysAreFoundAnywhereFirstOccurrenceWins) {
  // Header keys that appear only inside a file entry are found there.
  const Manifest out = parsed(manifestText(
      R"("product": "tarn-hollow", "platform": "linux", "version": "2")",
      "[" + entry("a", R"(, "mandatory": true, "release_notes": "inner", "size": 3)") + "]"));
  EXPECT_TRUE(out.mandatory);
  EXPECT_EQ(out.releaseNotes, "inner");
  // An unterminated string yields what was read; the colon may stand anywhere later.
  EXPECT_EQ(parsed("{" + kHeader + R"(, "files" [)" + entry("a") + R"(], "release_notes": "open)")
                .releaseNotes,
            "open");
}

TEST(ParseManifest, FileEntryQuirks) {
  const struct {
    std::string extra;
    std::string expected;  // path,sha256,size[,x]
  } table[] = {
      {"", "a," + kZeroDigest + ",0"},
      {R"(, "size": -5)", "a," + kZeroDigest + ",0"},
      {R"(, "size": 12.7)", "a," + kZeroDigest + ",12"},
      {R"(, "size": 1e3)", "a," + kZeroDigest + ",1"},
      {R"(, "size": "9")", "a," + kZeroDigest + ",0"},
      {R"(, "size": +9)", "a," + kZeroDigest + ",0"},
      {R"(, "size": 18446744073709551617)", "a," + kZeroDigest + ",1"},
      {R"(, "executable": "true")", "a," + kZeroDigest + ",0"},
      {R"(, "executable": true)", "a," + kZeroDigest + ",0,x"},
      {R"(, "executable": 1)", "a," + kZeroDigest + ",0"},
  };
  for (const auto& row : table) {
    const Manifest out = parsed(withFiles("[" + entry("a", row.extra) + "]"));
    ASSERT_EQ(out.files.size(), 1u);
    EXPECT_EQ(describe(out).substr(describe(out).find("|a,") + 1), row.expected) << row.extra;
  }
  EXPECT_EQ(parsed(withFiles("[" + entry("x\\u002e") + "]")).files[0].path, "xu002e");
  // A nested object's key comes first in the text, so it wins.
  const std::string nested =
      R"({ "meta": { "path": "inner" }, "path": "outer", "sha256": ")" + kZeroDigest + "\" }";
  EXPECT_EQ(parsed(withFiles("[" + nested + "]")).files[0].path, "inner");
}

TEST(ParseManifest, SplitsTheFileArray) {
  const std::string tricky =
      R"({ "note": "} ] \" {", "path": "b", "sha256": ")" + kZeroDigest + "\" }";
  const struct {
    std::string files;
    std::string paths;
  } table[] = {
      {"[" + entry("a") + ", " + tricky + "]", "a b"},
      {"[" + entry("a") + ", " + entry("a") + "]", "a a"},
      {"[" + entry("a") + ", 7, \"]\", " + entry("b") + "]", "a b"},
      {"[" + entry("a") + "] " + entry("b"), "a"},
      {"[" + entry("a") + ", }, " + entry("b") + " ]", "a"},
      {"[" + entry("a") + ", " + entry("b").substr(0, 20), "a"},
  };
  for (const auto& row : table) {
    std::string paths;
    for (const auto& f : parsed(withFiles(row.files)).files)
      paths += (paths.empty() ? "" : " ") + f.path;
    EXPECT_EQ(paths, row.paths) << row.files;
  }
}

}  // namespace
}  // namespace th::test
