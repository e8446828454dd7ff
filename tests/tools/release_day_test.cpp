// Publishing in one step, and twenty players updating from nginx while a release goes live.
#include <gtest/gtest.h>

#include <atomic>
#include <iostream>
#include <map>
#include <thread>

#include "tests/support/files.h"
#include "tests/support/nginx_server.h"
#include "tests/support/release_builder.h"
#include "update/signature.h"

namespace th::test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr const char* kFiles[] = {"tarn-hollow", "data/world.pak", "data/level.pak"};

struct Studio {
  TempDir scratch;
  fs::path server = scratch / "server";
  fs::path served = channelFolder(server);

  // Release `version`: a game file naming it, a large file every release shares, and a level.
  std::vector<std::string> publishArgs(const std::string& version, char level) const {
    const fs::path from = scratch / version;
    writeBytes(from / kFiles[0], "#!/bin/sh\necho " + version + "\n");
    writeBytes(from / kFiles[1], std::string(3 << 20, 'w'));
    writeBytes(from / kFiles[2], std::string(1 << 20, level));
    return {TH_PUBLISH_DEVKEY, "release",       "--from", from.string(),
            "--version",       version,         "--key",  TH_DEV_PRIVATE_KEY,
            "--server-root",   server.string(), "--keep", "2"};
  }
};

TEST(OneStepPublishing, TakesOverAFolderLinksUnchangedFilesPrunesAndSurvivesAFailure) {
  Studio studio;
  Release byHand;  // a plain folder, as servers were laid out before
  byHand.files = {{"data/world.pak", std::string(3 << 20, 'w')}};
  publishRelease(studio.server, byHand);
  ASSERT_EQ(runProcess(studio.publishArgs("1.1.0", 'a')).exitCode, 0);
  EXPECT_TRUE(fs::is_symlink(studio.served));
  EXPECT_EQ(fs::hard_link_count(studio.served / "files" / "data" / "world.pak"), 2u);
  ASSERT_EQ(runProcess(studio.publishArgs("1.2.0", 'b')).exitCode, 0);
  ASSERT_EQ(runProcess(studio.publishArgs("1.3.0", 'c')).exitCode, 0);
  const fs::path releases = studio.server / "stable" / ".releases" / "linux";
  EXPECT_EQ(std::distance(fs::directory_iterator(releases), fs::directory_iterator()), 2);

  // Copying the changed level fails half-way (the file size limit stands in for a full disk).
  const FolderSnapshot before = snapshotFolder(studio.server);
  std::vector<std::string> argv{"/bin/sh", "-c", "ulimit -f 256; trap '' XFSZ; exec \"$@\"", "sh"};
  for (const std::string& word : studio.publishArgs("1.4.0", 'd')) argv.push_back(word);
  const ProcessResult failed = runProcess(argv);
  EXPECT_NE(failed.err.find("\n  data/level.pak: cannot be copied: "), std::string::npos)
      << failed.err;
  EXPECT_EQ(snapshotDiff(before, snapshotFolder(studio.server)), "");
}

bool holds(const fs::path& install, const fs::path& release) {
  for (const char* file : kFiles) {
    if (readBytes(install / file) != readBytes(release / file)) return false;
  }
  return true;
}

TEST(ReleaseDay, TwentyPlayersUpdateWhileTheNextReleaseGoesLive) {
  Studio studio;
  ASSERT_EQ(runProcess(studio.publishArgs("1.0.0", 'a')).exitCode, 0);
  NginxServer nginx(studio.server, "limit_rate 8m;");
  ASSERT_TRUE(nginx.ok()) << nginx.errorLog();
  // What the server holds at any moment: the manifest and signature of the release linked in.
  std::atomic<bool> publishing = true;
  std::atomic<int> samples = 0, mismatches = 0;
  std::thread sampler([&] {
    for (std::string error; publishing; ++samples) {
      const fs::path folder = fs::canonical(studio.served);
      mismatches += !th::update::verifySignedManifest(readBytes(folder / "manifest.json"),
                                                      readBytes(folder / "manifest.sig"),
                                                      TH_DEV_PUBLIC_KEY, error);
    }
  });
  const auto install = [&](int i) { return studio.scratch / ("player" + std::to_string(i)); };
  const auto player = [&](int i) {
    return std::vector<std::string>{TH_UPDATE_CLIENT, install(i).string(), nginx.url()};
  };
  std::vector<std::unique_ptr<ChildProcess>> players;
  std::unique_ptr<ChildProcess> publisher;
  for (int i = 0; i < 20; ++i) {
    prepareInstall(install(i), nginx.url());
    players.push_back(std::make_unique<ChildProcess>(player(i)));
    if (i == 10) publisher = std::make_unique<ChildProcess>(studio.publishArgs("1.1.0", 'b'));
    std::this_thread::sleep_for(100ms);  // players arrive over two seconds, the release among them
  }
  EXPECT_EQ(publisher->wait(120s), 0) << publisher->err();
  publishing = false;
  sampler.join();

  std::map<std::string, int> outcomes;
  for (int i = 0; i < 20; ++i) {
    players[i]->wait(120s);
    const std::string said = players[i]->out().substr(0, players[i]->out().find('\n'));
    ++outcomes[said.substr(0, said.find(':'))];
    const bool failed = said != "1.0.0" && said != "1.1.0";
    if (failed) {  // untouched, and current after the next run
      EXPECT_TRUE(said == "manifest_signature_verify_failed" ||
                  said.rfind("download_hash_mismatch:", 0) == 0);
      EXPECT_EQ(installSnapshot(install(i)).size(), 3u);  // data/ and its two files, as prepared
      EXPECT_EQ(runProcess(player(i)).out, "1.1.0\n");
    }
    EXPECT_TRUE(holds(install(i), studio.scratch / (failed ? "1.1.0" : said))) << said;
  }
  EXPECT_EQ(mismatches, 0);
  std::cout << "release day, 20 players:";
  for (const auto& [outcome, count] : outcomes) std::cout << ' ' << outcome << " x" << count;
  std::cout << " (each failed one converged on 1.1.0 at its next run); the served manifest and "
            << "signature matched in " << samples - mismatches << " of " << samples << " samples\n";
}

}  // namespace
}  // namespace th::test
