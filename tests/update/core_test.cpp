// The engine's pure pieces: versions, safe paths, text files and the manifest parser. Hashing is
// checked against an independent digest by every test that installs a release. And the players'
// guide against the texts the engine and the job put on the screen.
#include <curl/curl.h>
#include <gtest/gtest.h>

#include <regex>
#include <set>
#include <sstream>

#include "tests/support/system.h"
#include "update/manifest.h"
#include "update/safe_path.h"
#include "update/version.h"

namespace th::test {
namespace {

using namespace update;

TEST(CompareVersion, ReadsPartsWrapsAndIsAntisymmetric) {
  const struct {
    std::string a, b;
    int expected;
  } table[] = {
      {"", "0.0", 0},
      {"1.2", "1.2.0.0.0", 0},
      {"1.2.3.4.1", "1.2.3.4", 1},
      {"1.2", "1.10", -1},
      {"1..2", "1.0.2", 0},
      {"1.2.3-beta", "1.2.3", 0},
      {"v1.2", "0", 0},
      {"1.02", "1.2", 0},
      {"10", "9.9.9", 1},
      // Beyond four parts, against shorter versions; leading zeros; empty parts; non-digits.
      {"1.2.3.4.0.0.1", "1.2.3.4.0", 1},
      {"1.2.3.4", "1.2.3.4.0.0", 0},
      {"1.2.3.4.5", "1.2.3.4.6.0.0", -1},
      {"001.0002.03", "1.2.3.0.0", 0},
      {".5", "0.5", 0},
      {"1...", "1", 0},
      {"1.2a.3", "1.2", 0},
      {" 1.2", "", 0},
      {"1.2.3.4.5x.9", "1.2.3.4.5", 0},
      // Parts wrap modulo 2^32 into a signed int, then compare accordingly.
      {"4294967297", "1", 0},
      {"2147483648", "1", -1},
      {"99999999999999999999", "1661992959", 0},
  };
  for (const auto& row : table) {
    EXPECT_EQ(compareVersion(row.a, row.b), row.expected) << row.a << " vs " << row.b;
    EXPECT_EQ(compareVersion(row.b, row.a), -row.expected) << row.b << " vs " << row.a;
  }
}

TEST(SafeRelativePath, AcceptsOrdinaryPathsAndRejectsEscapesAndReservedPlaces) {
  for (const std::string& path :
       std::vector<std::string>{"data/empty.flag", "a/.../b", "a\\..\\b", "save",
                                "data/update_public_key.pem.bak", std::string(240, 'a')})
    EXPECT_TRUE(safeRelativePath(path)) << path;
  for (const std::string& path :
       std::vector<std::string>{std::string(241, 'a'), std::string(), "/etc/passwd", "\\windows\\x",
                                "a:b", "a/../b", "x/.", "save//profile.sav", "userdata/x",
                                "data//update_public_key.pem", ".tarnhollow-update/stage-1/x"})
    EXPECT_FALSE(safeRelativePath(path)) << path;
}

const std::string kZero = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";
const std::string kSome = "5d41c0e7a09e3a4b6f28c1d9e7b05f3a2c8d4e6f1a0b9c7d3e5f2a4b6c8d0e1f";
const std::string kHeader =
    R"("product": "tarn-hollow", "platform": "linux", "version": "1", "channel": "stable")";

std::string entry(const std::string& path, const std::string& extra = "") {
  return R"({ "path": ")" + path + R"(", "sha256": ")" + kZero + "\"" + extra + " }";
}
std::string manifest(const std::string& header, const std::string& files) {
  return "{\n  " + header + ",\n  \"files\": " + files + "\n}";
}

// Every field in one line, so that "untouched" and "replaced" compare the whole record.
std::string describe(const Manifest& m) {
  std::string text = std::to_string(m.format) + "|" + m.product + "|" + m.channel + "|" +
                     m.platform + "|" + m.version + "|" + std::to_string(m.protocolVersion) + "|" +
                     m.minimumOnlineVersion + "|" + (m.mandatory ? "M" : "-") + "|" +
                     m.releaseNotes;
  for (const auto& f : m.files)
    text += "|" + f.path + (f.sha256 == kZero ? "" : "," + f.sha256) + "," +
            std::to_string(f.size) + (f.executable ? ",x" : "");
  return text;
}

// A rejected text gives the first failing check's code and leaves the output alone; an accepted
// one replaces every field, files too, and leaves the error alone.
TEST(ParseManifest, ReadsFieldsByTextSearchWithItsQuirksOrRejectsWithTheFirstFailingCheck) {
  const std::string a = "[" + entry("a") + "]", plain = "1|tarn-hollow|stable|linux|1|0||-|";
  const struct {
    std::string header, files;  // no files: the header is the whole text
    std::string expected;       // a description, or the error of a rejected text
  } table[] = {
      {R"("format": 2, )" + kHeader, "[" + entry("../x") + "]", "manifest_header_invalid"},
      {R"("product": "Tarn-Hollow", "platform": "linux", "version": "1")", a,
       "manifest_header_invalid"},
      {R"("product": "tarn-hollow", "platform": "linux")", a, "manifest_header_invalid"},
      {kHeader, "[" + entry("a") + ", " + entry("save/a.sav") + "]", "manifest_file_invalid"},
      {kHeader, R"([{ "path": "a", "sha256": ")" + kZero.substr(1) + "\" }]",
       "manifest_file_invalid"},
      {kHeader, "[ 1, \"x\", [] ]", "manifest_has_no_files"},
      {"{" + kHeader + ", \"files\": [", "", "manifest_has_no_files"},
      {R"("format": 1, "product": "tarn-hollow", "channel": "stable", "platform": "linux",
         "version": "1.4.2", "protocol_version": 3, "minimum_online_version": "1.4.0",
         "mandatory": false, "release_notes": "Faster loading.\nFixed a crash.")",
       R"([{ "path": "tarn-hollow", "sha256": ")" + kSome + R"(", "size": 48211968,
             "executable": true }, )" +
           entry("data/empty.flag", R"(, "size": 0)") + "]",
       "1|tarn-hollow|stable|linux|1.4.2|3|1.4.0|-|Faster loading.\nFixed a crash.|tarn-hollow," +
           kSome + ",48211968,x|data/empty.flag,0"},
      {R"("format": "1", )" + kHeader, a, plain + "|a,0"},
      {R"("format": 4294967297, "protocol_version": 4294967299, )" + kHeader, a,
       "1|tarn-hollow|stable|linux|1|3||-||a,0"},
      {R"("protocol_version": -7, "mandatory": trueish, )" + kHeader, a,
       "1|tarn-hollow|stable|linux|1|-7||M||a,0"},
      {R"("mandatory": "true", "release_notes": "a\nb\tc\\d\/e\"f\bg\u00e9", )" + kHeader, a,
       plain + "a\nb\tc\\d/e\"fbgu00e9|a,0"},
      // The first occurrence wins, key or value: "version" is first seen as the channel's value.
      {R"("channel": "version", "platform": "linux", "version": "1.4.2", "product": "tarn-hollow")",
       a, "1|tarn-hollow|version|linux|linux|0||-||a,0"},
      // Header keys found only inside a file entry are read from there.
      {kHeader, "[" + entry("a", R"(, "mandatory": true, "release_notes": "inner")") + "]",
       "1|tarn-hollow|stable|linux|1|0||M|inner|a,0"},
      {kHeader, "[" + entry("a", R"(, "size": -5, "executable": "true")") + "]", plain + "|a,0"},
      {kHeader, "[" + entry("a", R"(, "size": 12.7, "executable": true)") + "]", plain + "|a,12,x"},
      {kHeader, "[" + entry("a", R"(, "size": 18446744073709551617)") + "]", plain + "|a,1"},
      {kHeader, "[" + entry("x\\u002e") + "]", plain + "|xu002e,0"},
      {kHeader, R"([{ "meta": { "path": "inner" }, "path": "outer", "sha256": ")" + kZero + "\" }]",
       plain + "|inner,0"},
      // Splitting the array: strings hide brackets, stray items are skipped, the scan ends at
      // the first ']' or at an object left open.
      {kHeader,
       "[" + entry("a") + R"(, 7, "]", { "note": "} ] \" {", "path": "b", "sha256": ")" + kZero +
           "\" }, " + entry("a") + "]",
       plain + "|a,0|b,0|a,0"},
      {kHeader, a + " " + entry("b"), plain + "|a,0"},
      {kHeader, "[" + entry("a") + ", " + entry("b").substr(0, 20), plain + "|a,0"},
      // An unterminated string yields what was read; no colon is needed, nor a byte before '['.
      {"{" + kHeader + R"(, "files"[)" + entry("a") + R"(], "release_notes": "open)", "",
       "1|tarn-hollow|stable|linux|1|0||-|open|a,0"},
  };
  for (const auto& row : table) {
    Manifest out;
    out.version = "0.9";
    out.files.resize(3);  // replaced, not appended to
    const std::string before = describe(out),
                      text = row.files.empty() ? row.header : manifest(row.header, row.files);
    std::string error = "untouched";
    const bool read = parseManifest(text, out, error);
    EXPECT_EQ(read ? describe(out) : error, row.expected) << text;
    EXPECT_EQ(read ? error : describe(out), read ? "untouched" : before) << text;
  }
}

namespace fs = std::filesystem;

// The first capture of every match of `pattern` in `text`.
std::set<std::string> captures(const std::string& text, const std::string& pattern) {
  std::set<std::string> found;
  const std::regex expression(pattern);
  for (std::sregex_iterator at(text.begin(), text.end(), expression), end; at != end; ++at)
    found.insert((*at)[1]);
  return found;
}

// The pieces of a screen text, split where the job joins them with " // ", blanks trimmed.
std::vector<std::string> pieces(const std::string& text) {
  std::vector<std::string> found;
  for (const std::string& piece : captures(text + "//", R"(\s*(.*?)\s*//)"))
    if (!piece.empty()) found.push_back(piece);
  return found;
}

// The quoted string literals of the named product files, by their pieces.
std::set<std::string> literalPieces(const std::vector<fs::path>& files, bool upperCaseOnly) {
  std::set<std::string> found;
  for (const fs::path& file : files)
    for (const std::string& literal : captures(readBytes(file), R"re("([^"\n]*)")re"))
      for (const std::string& piece : pieces(literal))
        if (!upperCaseOnly || std::regex_match(piece, std::regex("[^a-z]*[A-Z][^a-z]*")))
          found.insert(piece);
  return found;
}

std::vector<fs::path> filesIn(const std::string& folder, const std::string& extension) {
  std::vector<fs::path> files;
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(fs::path(TH_SOURCE_DIR) / folder, error))
    if (entry.path().extension() == extension) files.push_back(entry.path());
  return files;
}

// Every code the engine gives its callers and every piece of a status or detail line the job
// shows (the job's "STARTING..." is replaced before the first frame) has a row in the players'
// guide; every piece the guide quotes there is one of those, a launcher text or libcurl's own.
TEST(PlayersGuide, HasARowForEveryTextOnTheScreenAndQuotesOnlyRealOnes) {
  std::string codeText;
  for (const fs::path& file : filesIn("update", ".cpp")) codeText += readBytes(file);
  const std::set<std::string> codes =
      captures(codeText, R"re((?:error = |fail\(error, )"([a-z0-9_]+:?)")re");
  const fs::path launcher = fs::path(TH_SOURCE_DIR) / "launcher";
  const std::set<std::string> shown = literalPieces(
      {launcher / "update_job.h", launcher / "helper_handoff.h", launcher / "input.h"}, true);
  const std::set<std::string> launcherTexts = literalPieces(filesIn("launcher", ".h"), false);
  std::set<std::string> curlTexts;
  for (int code = CURLE_OK; code < CURL_LAST; ++code)
    curlTexts.insert(curl_easy_strerror(static_cast<CURLcode>(code)));
  // A scan that finds little has lost its patterns, and would pass whatever the guide says.
  ASSERT_GE(codes.size(), 20u);
  ASSERT_GE(shown.size(), 20u);

  const std::string guide = readBytes(fs::path(TH_SOURCE_DIR) / "docs" / "PLAYERS.md");
  const std::size_t table = guide.find("\n## What the screen says");
  ASSERT_NE(table, std::string::npos);
  std::istringstream rows(guide.substr(table, guide.find("\n## ", table + 1) - table));
  std::set<std::string> quoted;
  for (std::string row; std::getline(rows, row);) {
    if (!row.starts_with("| ")) continue;
    const std::string firstCell = row.substr(0, row.find(" |", 1));
    for (const std::string& item : captures(firstCell, "`([^`]+)`"))
      for (const std::string& piece : pieces(std::regex_replace(item, std::regex("<[^>]*>"), "")))
        quoted.insert(piece);
  }
  for (const std::string& piece : quoted)
    EXPECT_TRUE(codes.contains(piece) || launcherTexts.contains(piece) || curlTexts.contains(piece))
        << "the guide quotes \"" << piece << "\", which nothing shows";
  for (const std::set<std::string>* texts : {&codes, &shown})
    for (const std::string& text : *texts)
      EXPECT_TRUE(quoted.contains(text)) << "no row in docs/PLAYERS.md for \"" << text << "\"";
}

}  // namespace
}  // namespace th::test
