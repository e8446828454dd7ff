// Cost of a whole check and apply on a large install. The release is served through file://
// URLs so the numbers show the engine's own work (verify, parse, hash, stage, rename) rather than
// a web server's.
#include <benchmark/benchmark.h>

#include <memory>
#include <string>
#include <vector>

#include "tests/support/system.h"
#include "tests/support/update_server.h"
#include "update/updater.h"

namespace {

using th::test::Release;

Release largeRelease(int files, size_t bytesEach) {
  Release release;
  release.version = "2.0.0";
  for (int i = 0; i < files; ++i) {
    std::string bytes(bytesEach, static_cast<char>('a' + i % 26));
    bytes.replace(0, std::to_string(i).size(), std::to_string(i));
    release.files.push_back(
        {"data/pack" + std::to_string(i / 100) + "/" + std::to_string(i), bytes});
  }
  return release;
}

// Every file already current: the check still hashes all of them.
void BM_CheckCurrentInstall(benchmark::State& state) {
  th::test::TempDir server, install;
  const Release release = largeRelease(static_cast<int>(state.range(0)), 32 << 10);
  th::test::publishRelease(server.path(), release);
  th::test::prepareInstall(install.path(), std::nullopt);
  for (const auto& file : release.files) {
    th::test::writeBytes(install / file.path, file.bytes);
  }
  th::update::Updater updater(install.path());
  updater.server = "file://" + server.path().string();
  for (auto _ : state) {
    th::update::UpdatePlan plan;
    std::string error;
    if (!updater.check("stable", plan, error) || !plan.files.empty())
      state.SkipWithError(error.c_str());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * state.range(0) * (32 << 10)));
}
BENCHMARK(BM_CheckCurrentInstall)->Arg(100)->Arg(2000)->Unit(benchmark::kMillisecond);

// A fresh install: download (file://), verify, install by rename, write the marker.
void applyFreshInstall(benchmark::State& state, int files, size_t bytesEach) {
  th::test::TempDir server;
  const Release release = largeRelease(files, bytesEach);
  th::test::publishRelease(server.path(), release);
  // Installs outlive the loop so that removing them is not timed.
  std::vector<std::unique_ptr<th::test::TempDir>> installs;
  for (auto _ : state) {
    state.PauseTiming();
    const auto& install = installs.emplace_back(std::make_unique<th::test::TempDir>());
    th::test::prepareInstall(install->path(), std::nullopt);
    th::update::Updater updater(install->path());
    updater.server = "file://" + server.path().string();
    th::update::UpdatePlan plan;
    std::string error;
    updater.check("stable", plan, error);
    state.ResumeTiming();
    if (!updater.apply(plan, nullptr, error, nullptr)) state.SkipWithError(error.c_str());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * files * bytesEach));
}

void BM_ApplyFreshInstall(benchmark::State& state) {
  applyFreshInstall(state, static_cast<int>(state.range(0)), 32 << 10);
}
BENCHMARK(BM_ApplyFreshInstall)->Arg(100)->Arg(1000)->Unit(benchmark::kMillisecond);

// 1 GiB in 256 files of 4 MiB: here the flushes that make an update durable cost the most.
void BM_ApplyOneGiB(benchmark::State& state) { applyFreshInstall(state, 256, 4 << 20); }
BENCHMARK(BM_ApplyOneGiB)->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace
