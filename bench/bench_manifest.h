#pragma once
// Manifests for the benchmarks, in the shape the publishing tool writes. The header leaves out
// the optional keys, so looking them up scans the whole text: the parser's worst case.

#include <cstdint>
#include <string>
#include <vector>

namespace th::bench {

struct ManifestEntry {
  std::string path;
  std::string sha256;
  std::uint64_t size = 0;
};

inline std::string manifestOf(const std::vector<ManifestEntry>& files) {
  std::string text =
      "{\n  \"format\": 1,\n  \"product\": \"tarn-hollow\",\n  \"channel\": \"stable\",\n"
      "  \"platform\": \"linux\",\n  \"version\": \"1.4.2\",\n  \"release_notes\": \"notes\",\n"
      "  \"files\": [\n";
  for (size_t i = 0; i < files.size(); ++i) {
    text += "    { \"path\": \"" + files[i].path + "\", \"sha256\": \"" + files[i].sha256 +
            "\", \"size\": " + std::to_string(files[i].size) + ", \"executable\": false }" +
            (i + 1 < files.size() ? ",\n" : "\n");
  }
  return text + "  ]\n}\n";
}

// `count` entries that all name the digest of zero bytes, then the game itself.
inline std::string sampleManifest(int count) {
  const std::string emptyDigest =
      "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";
  std::vector<ManifestEntry> files;
  for (int i = 0; i < count; ++i)
    files.push_back({"data/pack" + std::to_string(i) + ".bin", emptyDigest, 123456});
  files.push_back({"tarn-hollow", emptyDigest, 1});
  return manifestOf(files);
}

}  // namespace th::bench
