// The speed figures of docs/BENCHMARKS.md, each beside its peer tool in one run: the same files,
// engine and peer alternating, medians of the runs. Then the cold-cache check (as root) and the
// resident-set growth of a 1 GiB apply. Run through scripts/bench.
// Usage: th_figures [--runs N] [--only P1,P2,...] [--sync-peer]
//   --only       the figures to run; the large-game ones (P2L, P6L) run only when named
//   --sync-peer  end the apply peer with `sync`, for engines that flush what they install
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "bench/bench_data.h"
#include "bench/bench_manifest.h"
#include "bench/start_phases.h"
#include "bench/timed_process.h"
#include "tests/support/system.h"
#include "tests/support/update_server.h"
#include "tests/support/xvfb.h"
#include "update/http.h"
#include "update/manifest.h"
#include "update/updater.h"

namespace {

namespace fs = std::filesystem;
using th::bench::Command;
using th::bench::Cost;
using th::bench::DataSet;
using Timed = std::function<std::optional<Cost>()>;

// The large-game figures take minutes and about a gigabyte of scratch space: run only by name.
bool isLargeFigure(const std::string& figure) { return figure == "P2L" || figure == "P6L"; }

struct Options {
  int runs = 7;
  bool syncPeer = false;
  std::string only;  // figure names to run, comma-separated; empty: all but the large ones
  bool named(const std::string& figure) const {
    return ("," + only + ",").find("," + figure + ",") != std::string::npos;
  }
  bool wants(const std::string& figure) const {
    return named(figure) || (only.empty() && !isLargeFigure(figure));
  }
};

struct Medians {
  Cost ours, peer;
  bool ok = false;
};

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

// One untimed warm-up of each side, then `runs` alternating runs.
Medians sideBySide(const Timed& ours, const Timed& peer, int runs) {
  if (!ours() || !peer()) return {};
  std::vector<double> oursWall, oursCpu, peerWall, peerCpu;
  for (int i = 0; i < runs; ++i) {
    const std::optional<Cost> a = ours(), b = peer();
    if (!a || !b) return {};
    oursWall.push_back(a->wall);
    oursCpu.push_back(a->cpu);
    peerWall.push_back(b->wall);
    peerCpu.push_back(b->cpu);
  }
  return {{median(oursWall), median(oursCpu)}, {median(peerWall), median(peerCpu)}, true};
}

// A `target` of 0: reported only.
void printRatio(const char* id, const char* work, const Medians& m, double target) {
  if (!m.ok) {
    std::printf("%-4s %-44s FAILED (see above)\n", id, work);
    return;
  }
  const double ratio = m.ours.wall / m.peer.wall;
  std::printf("%-4s %-44s %9.1f ms %9.1f ms %6.2f", id, work, m.ours.wall * 1e3, m.peer.wall * 1e3,
              ratio);
  if (m.peer.cpu > 0)
    std::printf(" %6.2f", m.ours.cpu / m.peer.cpu);
  else
    std::printf(" %6s", "-");
  if (target > 0) std::printf("   <= %.2f  %s", target, ratio <= target ? "met" : "MISSED");
  std::printf("\n");
  std::fflush(stdout);
}

std::string loadAverage() {
  std::string one, five, fifteen;
  std::ifstream("/proc/loadavg") >> one >> five >> fifteen;
  return one + " " + five + " " + fifteen;
}

bool reportFailure(const std::string& what, const std::string& error) {
  std::fprintf(stderr, "%s failed: %s\n", what.c_str(), error.c_str());
  return false;
}

// A check that must find the install current.
std::optional<Cost> checkCost(const fs::path& install, const std::string& server) {
  th::update::Updater updater(install);
  updater.server = server;
  th::update::UpdatePlan plan;
  std::string error;
  return th::bench::timeHere([&] {
    if (!updater.check("stable", plan, error)) return reportFailure("check", error);
    return plan.files.empty() || reportFailure("check", "install not current");
  });
}

// The engine flushes the file system before it installs, and the apply peer may end with `sync`:
// both would also write whatever the other side's previous run left dirty in the page cache.
// Written back before each timed apply, each side pays only for its own files.
void writeBackDirtyPages() { ::sync(); }

// Apply into a new install; the check before it is not timed. `around` runs just before and
// just after the apply.
std::optional<Cost> applyCost(
    const fs::path& install, const std::string& server,
    const std::function<void()>& around = [] {}) {
  th::test::prepareInstall(install, std::nullopt);
  th::update::Updater updater(install);
  updater.server = server;
  th::update::UpdatePlan plan;
  std::string error;
  std::size_t shown = 0;  // what a progress bar would show
  const auto progress = [&](std::size_t done, std::size_t) { shown = done; };
  std::optional<Cost> cost;
  if (updater.check("stable", plan, error)) {
    writeBackDirtyPages();
    around();
    cost = th::bench::timeHere([&] { return updater.apply(plan, progress, error, nullptr); });
    around();
  }
  if (!cost) reportFailure("apply", error);
  return cost;
}

// The transport alone: one bare httpDownload per file of `set`, into fresh files under `into`,
// with a progress function as the engine's own.
std::optional<Cost> bareDownloadsCost(const DataSet& set, const std::string& filesUrl,
                                      const fs::path& into) {
  std::size_t shown = 0;
  const auto progress = [&](std::size_t done, std::size_t) { shown = done; };
  std::string error;
  writeBackDirtyPages();
  return th::bench::timeHere([&] {
    for (const std::string& path : set.paths)
      if (!th::update::httpDownload(filesUrl + "/" + path, into / path, progress, error))
        return reportFailure("download", error);
    return true;
  });
}

Command xargsOpenssl(const fs::path& list) {
  Command xargs({"xargs", "-0", "openssl", "dgst", "-sha256"});
  xargs.input = list;
  return xargs;
}

Command opensslOver(const DataSet& set, const fs::path& folder) {
  Command command({"openssl", "dgst", "-sha256"});
  for (const std::string& path : set.paths) command.argv.push_back((folder / path).string());
  return command;
}

// curl fetching every file of `set` into `folder` in one process, reusing its connection.
Command curlInto(const DataSet& set, const std::string& filesUrl, const fs::path& folder,
                 const fs::path& config) {
  std::string text;
  for (const std::string& path : set.paths)
    text +=
        "url = \"" + filesUrl + "/" + path + "\"\noutput = \"" + (folder / path).string() + "\"\n";
  th::test::writeBytes(config, text);
  return Command({"curl", "--silent", "--fail", "--create-dirs", "--config", config.string()});
}

std::optional<Cost> sumOf(const std::vector<Command>& commands) {
  Cost total;
  for (const Command& command : commands) {
    const std::optional<Cost> cost = th::bench::timeCommand(command);
    if (!cost) return std::nullopt;
    total.wall += cost->wall;
    total.cpu += cost->cpu;
  }
  return total;
}

std::optional<Cost> thenRemove(std::optional<Cost> cost, const fs::path& folder) {
  std::error_code ignored;
  fs::remove_all(folder, ignored);
  return cost;
}

// From spawning `program` until it reports its first presented frame (wall time only); the
// phases of the start are added to `phases`.
std::optional<Cost> firstFrameCost(const fs::path& program,
                                   const std::map<std::string, std::optional<std::string>>& env,
                                   const fs::path& stampFile,
                                   std::vector<th::bench::StartPhases>& phases) {
  Command command({program.string()});
  command.env = env;
  command.output = stampFile;
  const std::optional<std::int64_t> start = th::bench::runCommand(command);
  if (!start) return std::nullopt;
  const std::optional<th::bench::StartPhases> run =
      th::bench::startPhasesOf(th::test::readBytes(stampFile), *start);
  if (!run) return std::nullopt;
  double total = 0;
  for (const auto& [name, ms] : *run) total += ms;
  phases.push_back(*run);
  return Cost{total / 1e3, 0};
}

// The bench build of the launcher placed in `installDir` with its icon and patch notes.
fs::path placeLauncher(const fs::path& installDir) {
  const fs::path source = TH_SOURCE_DIR;
  const auto overwrite = fs::copy_options::overwrite_existing;
  fs::create_directories(installDir / "assets" / "launcher");
  fs::copy_file(TH_BENCH_LAUNCHER, installDir / "tarn-hollow-launcher", overwrite);
  fs::copy_file(source / "assets" / "launcher" / "tarn_hollow_launcher.png",
                installDir / "assets" / "launcher" / "tarn_hollow_launcher.png", overwrite);
  fs::copy_file(source / "tools" / "demo" / "patch-notes-1.1.0.txt",
                installDir / "data" / "patch_notes.txt", overwrite);
  th::test::writeBytes(installDir / "data" / "game_version", "1.1.0\n");
  return installDir / "tarn-hollow-launcher";
}

bool dropCaches() {
  ::sync();
  std::ofstream drop("/proc/sys/vm/drop_caches");
  return static_cast<bool>(drop << "3" << std::flush);
}

long statusKiB(const std::string& field) {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind(field + ":", 0) == 0)
      return std::strtol(line.c_str() + field.size() + 1, nullptr, 10);
  }
  return -1;
}

Options parseOptions(int argc, char** argv) {
  Options options;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--runs" && i + 1 < argc) options.runs = std::max(1, std::atoi(argv[++i]));
    if (arg == "--sync-peer") options.syncPeer = true;
    if (arg == "--only" && i + 1 < argc) options.only = argv[++i];
  }
  return options;
}

// A figure for each side of which there is a peer tool.
struct Workspace {
  const Options& options;
  const fs::path& work;
  const th::test::NginxServer& nginx;

  std::string serverOf(const DataSet& set) const { return nginx.url() + "/" + set.name; }
  std::string filesUrl(const DataSet& set) const { return serverOf(set) + "/stable/linux/files"; }

  // Runs write into folders of their own, removed when the figure is done: removing thousands
  // of files right before creating as many again makes ext4 hunt for inodes it has not used
  // recently, and the figure would time that instead of the engine.
  fs::path runFolder(const char* id) const { return work / id / std::to_string(++runCount); }

  void compare(const char* id, const char* what, const Timed& ours, const Timed& peer,
               double target, int runs = 0) const {
    if (!options.wants(id)) return;
    printRatio(id, what, sideBySide(ours, peer, runs > 0 ? runs : options.runs), target);
    std::error_code ignored;
    fs::remove_all(work / id, ignored);
  }

  // curl fetching the release in one process, then (for large files) openssl hashing it.
  std::optional<Cost> applyPeer(const DataSet& set, bool hashAfter, const fs::path& into) const {
    std::vector<Command> commands{curlInto(set, filesUrl(set), into, work / "curl.cfg")};
    if (hashAfter) commands.push_back(opensslOver(set, into));
    if (hashAfter && options.syncPeer) commands.push_back(Command({"sync"}));
    writeBackDirtyPages();
    return sumOf(commands);
  }

  mutable int runCount = 0;
};

void compareChecksAndApplies(const Workspace& w, const DataSet& big, const DataSet& small,
                             const DataSet& many) {
  const fs::path bigInstall = w.work / "big-install", smallInstall = w.work / "small-install";
  w.compare(
      "P1", "check, 1 GiB in 64 files, warm",
      [&] { return checkCost(bigInstall, w.serverOf(big)); },
      [&] { return th::bench::timeCommand(opensslOver(big, bigInstall)); }, 0.85);
  w.compare(
      "P2", "check, 20,000 files of 4 KiB",
      [&] { return checkCost(smallInstall, w.serverOf(small)); },
      [&] { return th::bench::timeCommand(xargsOpenssl(w.work / "small-list")); }, 0.80);
  w.compare(
      "P3",
      w.options.syncPeer ? "apply, 1 GiB in 64 files (peer + sync)" : "apply, 1 GiB in 64 files",
      // A gibibyte a run: removed at once.
      [&] {
        const fs::path into = w.runFolder("P3");
        return thenRemove(applyCost(into, w.serverOf(big)), into);
      },
      [&] {
        const fs::path into = w.runFolder("P3");
        return thenRemove(w.applyPeer(big, true, into), into);
      },
      1.30);
  w.compare(
      "P4", "apply, 2,000 files of 8 KiB",
      [&] { return applyCost(w.runFolder("P4"), w.serverOf(many)); },
      [&] { return w.applyPeer(many, false, w.runFolder("P4")); }, 1.20);
  w.compare(
      "P4x", "apply, 2,000 files of 8 KiB, over the transport",
      [&] { return applyCost(w.runFolder("P4x"), w.serverOf(many)); },
      [&] { return bareDownloadsCost(many, w.filesUrl(many), w.runFolder("P4x")); }, 1.10);
}

// Median wall and processor time of `reads` readings of a manifest of `entries` entries.
Cost parseCost(int entries, int reads) {
  const std::string manifest = th::bench::sampleManifest(entries);
  std::vector<double> walls, cpus;
  for (int i = 0; i < reads; ++i) {
    th::update::Manifest parsed;
    std::string error;
    const Cost cost =
        *th::bench::timeHere([&] { return th::update::parseManifest(manifest, parsed, error); });
    walls.push_back(cost.wall);
    cpus.push_back(cost.cpu);
  }
  return {median(walls), median(cpus)};
}

void reportParse(const Options& options) {
  if (!options.wants("P6") && !options.wants("P6L")) return;
  const Cost cost = parseCost(10000, 10 * options.runs);
  const double ms = cost.wall * 1e3;
  std::printf("%-4s %-44s %9.1f ms %12s %6s %6s   <= 5 ms %s (processor: %.1f ms)\n", "P6",
              "parseManifest, 10,000 entries", ms, "-", "-", "-", ms <= 5 ? "met" : "MISSED",
              cost.cpu * 1e3);
  if (!options.wants("P6L")) return;
  // Per entry against the 10,000-entry reading of this run: a cost that grows with the size shows.
  const Cost large = parseCost(100000, 2 * options.runs);
  const double perEntry = (large.cpu / 100000) / (cost.cpu / 10000);
  std::printf(
      "%-4s %-44s %9.1f ms %12s %6s %6s   reported: %.2f per entry of P6 (processor: "
      "%.1f ms)\n",
      "P6L", "parseManifest, 100,000 entries", large.wall * 1e3, "-", "-", "-", perEntry,
      large.cpu * 1e3);
}

// A check of an install of `set`, beside `xargs openssl dgst` over the same paths; prints files
// per second of both.
Medians compareCheckRate(const Workspace& w, const char* id, const char* what, const DataSet& set) {
  const fs::path install = w.work / (set.name + "-install"), list = w.work / (set.name + "-list");
  const Medians m =
      sideBySide([&] { return checkCost(install, w.serverOf(set)); },
                 [&] { return th::bench::timeCommand(xargsOpenssl(list)); }, w.options.runs);
  printRatio(id, what, m, 0);
  if (m.ok)
    std::printf("     %-44s %9.0f /s   %9.0f /s\n", "files per second",
                set.paths.size() / m.ours.wall, set.paths.size() / m.peer.wall);
  return m;
}

// A large game: the check's cost per file at 200,000 files against 20,000 in the same run.
void compareCheckScales(const Workspace& w, const DataSet& some, const DataSet& many) {
  if (!w.options.wants("P2L")) return;
  const Medians base = compareCheckRate(w, "P2s", "check, 20,000 files of 1 KiB", some);
  const Medians large = compareCheckRate(w, "P2L", "check, 200,000 files of 1 KiB", many);
  if (!base.ok || !large.ok) return;
  const double perFile = (large.ours.cpu / many.paths.size()) / (base.ours.cpu / some.paths.size());
  const double peerPerFile =
      (large.peer.cpu / many.paths.size()) / (base.peer.cpu / some.paths.size());
  std::printf("     processor time per file, 200,000 over 20,000: %.2f (peer %.2f)   <= 1.05 %s\n",
              perFile, peerPerFile, perFile <= 1.05 ? "met" : "MISSED");
  std::fflush(stdout);
}

void compareFirstFrames(const Workspace& w) {
  if (!w.options.wants("P7") && !w.options.wants("P7c")) return;
  th::test::XvfbDisplay display;
  const auto env = display.optionsFor().env;
  th::test::prepareInstall(w.work / "idle-install", std::nullopt);
  const fs::path idle = placeLauncher(w.work / "idle-install");
  const fs::path checking = placeLauncher(w.work / "big-install");
  th::bench::StartPhaseMedians idlePhases, checkingPhases;
  const auto frame = [&](const fs::path& program, std::vector<th::bench::StartPhases>& phases) {
    return firstFrameCost(program, env, w.work / "frame-stamp", phases);
  };
  w.compare(
      "P7", "start to first frame, Xvfb", [&] { return frame(idle, idlePhases.ours); },
      [&] { return frame(TH_BENCH_BARE_WINDOW, idlePhases.peer); }, 1.05, 3 * w.options.runs);
  idlePhases.print();
  w.compare(
      "P7c", "the same while a 1 GiB check runs",
      [&] { return frame(checking, checkingPhases.ours); },
      [&] { return frame(TH_BENCH_BARE_WINDOW, checkingPhases.peer); }, 1.05, 3 * w.options.runs);
  checkingPhases.print();
}

void compareColdCheck(const Workspace& w, const DataSet& big) {
  if (!w.options.wants("cold")) return;
  if (geteuid() != 0) {
    std::printf("cold: skipped, dropping the page cache needs root\n");
    return;
  }
  const auto cold = [](const Timed& work) {
    return [work]() -> std::optional<Cost> { return dropCaches() ? work() : std::nullopt; };
  };
  const fs::path install = w.work / "big-install";
  w.compare("cold", "check, 1 GiB in 64 files, cold page cache",
            cold([&] { return checkCost(install, w.serverOf(big)); }),
            cold([&] { return th::bench::timeCommand(opensslOver(big, install)); }), 0,
            std::max(1, w.options.runs / 2));
}

// The peak resident set is restarted just before the apply and read just after it.
void reportApplyMemory(const Workspace& w, const DataSet& single) {
  if (!w.options.wants("mem")) return;
  long before = 0, peak = 0;
  const auto measure = [&] {
    if (before == 0) {
      std::ofstream("/proc/self/clear_refs") << "5";
      before = statusKiB("VmRSS");
    } else {
      peak = statusKiB("VmHWM");
    }
  };
  const fs::path into = w.runFolder("mem");
  const bool applied = thenRemove(applyCost(into, w.serverOf(single), measure), into).has_value();
  std::printf("%-4s %-44s %9ld KiB %26s <= 4096 KiB %s\n", "mem",
              "resident-set growth, 1 GiB single-file apply", peak - before, "",
              applied && peak - before <= 4096 ? "met" : "MISSED");
}

}  // namespace

int main(int argc, char** argv) {
  const Options options = parseOptions(argc, argv);
  std::printf("load average at start: %s\npreparing data sets...\n", loadAverage().c_str());
  std::fflush(stdout);
  th::test::TempDir work;
  const fs::path servers = work / "servers";
  // Only the data sets of the chosen figures are written.
  const auto publish = [&](std::vector<const char*> figures, const char* name, int count,
                           std::size_t size) {
    for (const char* figure : figures)
      if (options.wants(figure)) return th::bench::publishDataSet(servers, name, count, size);
    return DataSet{name, {}, {}, 0};
  };
  const DataSet big = publish({"P1", "P3", "P7c", "cold"}, "big", 64, 16 << 20);
  const DataSet small = publish({"P2"}, "small", 20000, 4 << 10);
  const DataSet many = publish({"P4", "P4x"}, "many", 2000, 8 << 10);
  const DataSet single = publish({"mem"}, "single", 1, std::size_t{1} << 30);
  const DataSet some = publish({"P2L"}, "some", 20000, 1 << 10);
  const DataSet huge = publish({"P2L"}, "huge", 200000, 1 << 10);
  const th::test::NginxServer nginx(servers);
  if (!nginx.ok()) return reportFailure("nginx", nginx.errorLog()) ? 0 : 1;
  // Each check's install, and the list of its paths for the xargs peer.
  for (const DataSet* set : {&big, &small, &some, &huge}) {
    const fs::path install = work / (set->name + "-install");
    th::bench::linkInstall(*set, install, nginx.url());
    std::string list;
    for (const std::string& path : set->paths) list += (install / path).string() + '\0';
    th::test::writeBytes(work / (set->name + "-list"), list);
  }

  const Workspace w{options, work.path(), nginx};
  std::printf("\n%-4s %-44s %12s %12s %6s %6s %8s\n", "", "work (medians)", "engine", "peer",
              "ratio", "cpu", "target");
  compareChecksAndApplies(w, big, small, many);
  compareCheckScales(w, some, huge);
  reportParse(options);
  compareFirstFrames(w);
  compareColdCheck(w, big);
  reportApplyMemory(w, single);
  std::printf("\nload average at end: %s\n", loadAverage().c_str());
  return 0;
}
