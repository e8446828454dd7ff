#include "bench/bench_data.h"

#include "bench/bench_manifest.h"
#include "tests/support/system.h"
#include "tests/support/update_server.h"

namespace th::bench {
namespace {

// splitmix64: fast, and a different stream for every seed.
std::string pseudoRandomBytes(std::size_t size, std::uint64_t seed) {
  std::string bytes(size, '\0');
  for (std::size_t at = 0; at < size; at += sizeof(std::uint64_t)) {
    std::uint64_t z = (seed += 0x9e3779b97f4a7c15ULL);
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
    z ^= z >> 31;
    for (std::size_t i = 0; i < sizeof z && at + i < size; ++i)
      bytes[at + i] = static_cast<char>(z >> (8 * i));
  }
  return bytes;
}

}  // namespace

DataSet publishDataSet(const std::filesystem::path& serverRoot, const std::string& name, int count,
                       std::size_t size) {
  DataSet set{name, test::channelFolder(serverRoot / name) / "files", {}, 0};
  std::vector<ManifestEntry> entries;
  for (int i = 0; i < count; ++i) {
    const std::string path =
        "data/pack" + std::to_string(i / 200) + "/file" + std::to_string(i) + ".bin";
    const std::string bytes = pseudoRandomBytes(size, static_cast<std::uint64_t>(i) << 32);
    test::writeBytes(set.files / path, bytes);
    entries.push_back({path, test::sha256Hex(bytes), size});
    set.paths.push_back(path);
    set.bytes += size;
  }
  const std::string manifest = manifestOf(entries);
  test::publishRawManifest(serverRoot / name, manifest, test::signHex(manifest));
  return set;
}

void linkInstall(const DataSet& set, const std::filesystem::path& installDir,
                 const std::string& serverUrl) {
  test::prepareInstall(installDir, serverUrl + "/" + set.name);
  for (const std::string& path : set.paths) {
    std::error_code ignored;
    std::filesystem::create_directories((installDir / path).parent_path(), ignored);
    std::filesystem::create_hard_link(set.files / path, installDir / path, ignored);
  }
}

}  // namespace th::bench
