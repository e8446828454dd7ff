#include "tools/publish/release/manifest_json.h"

#include <algorithm>

namespace th::publish {
namespace {

std::string quoted(std::string_view text) {
  std::string out = "\"";
  for (const char c : text) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        out += c;
    }
  }
  return out + "\"";
}

std::string fileLine(const update::ManifestFile& file) {
  return "    { \"path\": " + quoted(file.path) + ", \"sha256\": " + quoted(file.sha256) +
         ", \"size\": " + std::to_string(file.size) +
         ", \"executable\": " + (file.executable ? "true" : "false") + " }";
}

std::string fileDifference(const update::ManifestFile& a, const update::ManifestFile& b) {
  if (a.path != b.path) return "path";
  if (a.sha256 != b.sha256) return "sha256";
  if (a.size != b.size) return "size";
  if (a.executable != b.executable) return "executable";
  return {};
}

}  // namespace

bool needsUnicodeEscape(std::string_view text) {
  return std::any_of(text.begin(), text.end(), [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte < 0x20 && c != '\n' && c != '\r' && c != '\t';
  });
}

std::string manifestJson(const update::Manifest& m) {
  std::string text = "{\n";
  text += "  \"format\": " + std::to_string(m.format) + ",\n";
  text += "  \"product\": " + quoted(m.product) + ",\n";
  text += "  \"channel\": " + quoted(m.channel) + ",\n";
  text += "  \"platform\": " + quoted(m.platform) + ",\n";
  text += "  \"version\": " + quoted(m.version) + ",\n";
  text += "  \"protocol_version\": " + std::to_string(m.protocolVersion) + ",\n";
  text += "  \"minimum_online_version\": " + quoted(m.minimumOnlineVersion) + ",\n";
  text += std::string("  \"mandatory\": ") + (m.mandatory ? "true" : "false") + ",\n";
  text += "  \"release_notes\": " + quoted(m.releaseNotes) + ",\n";
  text += "  \"files\": [\n";
  for (size_t i = 0; i < m.files.size(); ++i) {
    text += fileLine(m.files[i]) + (i + 1 < m.files.size() ? ",\n" : "\n");
  }
  return text + "  ]\n}\n";
}

std::string firstDifference(const update::Manifest& a, const update::Manifest& b) {
  if (a.format != b.format) return "format";
  if (a.product != b.product) return "product";
  if (a.channel != b.channel) return "channel";
  if (a.platform != b.platform) return "platform";
  if (a.version != b.version) return "version";
  if (a.protocolVersion != b.protocolVersion) return "protocol_version";
  if (a.minimumOnlineVersion != b.minimumOnlineVersion) return "minimum_online_version";
  if (a.mandatory != b.mandatory) return "mandatory";
  if (a.releaseNotes != b.releaseNotes) return "release_notes";
  if (a.files.size() != b.files.size()) return "files";
  for (size_t i = 0; i < a.files.size(); ++i) {
    const std::string field = fileDifference(a.files[i], b.files[i]);
    if (!field.empty()) return "files[" + std::to_string(i) + "]." + field;
  }
  return {};
}

}  // namespace th::publish
