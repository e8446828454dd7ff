#pragma once

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "tests/support/digest.h"
#include "tests/support/folder_snapshot.h"
#include "tests/support/nginx_server.h"
#include "tests/support/release_builder.h"
#include "tests/support/temp_dir.h"
#include "update/updater.h"

namespace th::test {

// Every (done, total) pair a transfer reported, in order.
struct ProgressLog {
  std::vector<std::pair<size_t, size_t>> calls;
  update::ProgressCallback sink() {
    return [this](size_t done, size_t total) { calls.emplace_back(done, total); };
  }
};

// A real nginx serving `www`, an install folder with the development key, and an Updater on it.
class UpdateServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(nginx.ok()) << nginx.errorLog();
    prepareInstall(install.path(), nginx.url());
    writeBytes(install / "save" / "profile_v07.sav", "the player's progress");
    writeBytes(install / "userdata" / "settings.cfg", "volume=7");
    updater.server = nginx.url();
  }

  update::UpdatePlan checked() {
    update::UpdatePlan plan;
    std::string error;
    EXPECT_TRUE(updater.check("stable", plan, error)) << error;
    return plan;
  }

  // The install folder without the updater's work folder, which failures may leave behind.
  FolderSnapshot installSnapshot() const {
    FolderSnapshot snapshot = snapshotFolder(install.path());
    std::erase_if(snapshot,
                  [](const auto& entry) { return entry.first.starts_with(".tarnhollow-update"); });
    return snapshot;
  }

  TempDir www;
  TempDir install;
  NginxServer nginx{www.path()};
  update::Updater updater{install.path()};
};

}  // namespace th::test
