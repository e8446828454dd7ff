// Throughput and memory of the engine's hot paths: hashing installed files, reading manifests,
// ordering versions. Run: cmake --preset bench && cmake --build --preset bench &&
// build/bench/bench/th_engine_bench
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <string>

#include "bench/bench_manifest.h"
#include "update/manifest.h"
#include "update/signature.h"
#include "update/version.h"

namespace {

long peakRssKiB() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

std::filesystem::path makeFile(size_t bytes) {
  std::string pattern = (std::filesystem::temp_directory_path() / "th-bench-XXXXXX").string();
  const int fd = mkstemp(pattern.data());
  if (fd >= 0) close(fd);
  std::ofstream out(pattern, std::ios::binary | std::ios::trunc);
  std::mt19937_64 random(42);
  std::string chunk(1 << 20, '\0');
  for (size_t written = 0; written < bytes; written += chunk.size()) {
    for (auto& c : chunk) c = static_cast<char>(random());
    out.write(chunk.data(), static_cast<std::streamsize>(std::min(chunk.size(), bytes - written)));
  }
  return pattern;
}

// Every check hashes every installed file, so this bounds how long a check of a large install
// takes; the peak resident set shows that hashing streams instead of loading files.
void BM_Sha256File(benchmark::State& state) {
  const size_t bytes = static_cast<size_t>(state.range(0)) << 20;
  const auto path = makeFile(bytes);
  const long rssBefore = peakRssKiB();
  for (auto _ : state) benchmark::DoNotOptimize(th::update::sha256File(path));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
  state.counters["peak_rss_growth_KiB"] = static_cast<double>(peakRssKiB() - rssBefore);
  std::filesystem::remove(path);
}
BENCHMARK(BM_Sha256File)->Arg(1)->Arg(64)->Arg(256)->Unit(benchmark::kMillisecond);

// A release of a few thousand files must still parse quickly.
void BM_ParseManifest(benchmark::State& state) {
  const std::string text = th::bench::sampleManifest(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    th::update::Manifest manifest;
    std::string error;
    benchmark::DoNotOptimize(th::update::parseManifest(text, manifest, error));
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}
BENCHMARK(BM_ParseManifest)->Arg(100)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);

void BM_CompareVersion(benchmark::State& state) {
  const std::string a = "1.16.117.3", b = "1.16.117.12";
  for (auto _ : state) benchmark::DoNotOptimize(th::update::compareVersion(a, b));
}
BENCHMARK(BM_CompareVersion);

}  // namespace

BENCHMARK_MAIN();
