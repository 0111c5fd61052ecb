#include "kr/util/runtime_dir.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>
#include <string>

namespace {

// Sets (or unsets) KR_RUNTIME_DIR for one test and restores it afterwards.
class RuntimeDirTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (const char* v = std::getenv("KR_RUNTIME_DIR")) saved_ = v;
    unsetenv("KR_RUNTIME_DIR");
  }
  void TearDown() override {
    if (saved_)
      setenv("KR_RUNTIME_DIR", saved_->c_str(), 1);
    else
      unsetenv("KR_RUNTIME_DIR");
  }
  static void set(const char* v) { setenv("KR_RUNTIME_DIR", v, 1); }

 private:
  std::optional<std::string> saved_;
};

TEST_F(RuntimeDirTest, UnsetGivesTheFixedPaths) {
  EXPECT_EQ(kr::runtimeDir(), "/ram");
  EXPECT_EQ(kr::loaderSocketPath(), "/ram/korasock");
  EXPECT_EQ(kr::storeSocketPath(), "/ram/storereg");
  EXPECT_EQ(kr::logSocketPath(), "/ram/logsocket");
  EXPECT_EQ(kr::runMarkerPath("ifmgr"), "/ram/run/ifmgr");
  EXPECT_EQ(kr::rtracePath(), "/ram/rtrace");
  EXPECT_EQ(kr::crashReportDir(), "/ram/crash");
}

TEST_F(RuntimeDirTest, EmptyCountsAsUnset) {
  set("");
  EXPECT_EQ(kr::loaderSocketPath(), "/ram/korasock");
}

TEST_F(RuntimeDirTest, VariableReplacesThePrefixOfEveryPath) {
  set("/tmp/kr-x");
  EXPECT_EQ(kr::runtimeDir(), "/tmp/kr-x");
  EXPECT_EQ(kr::loaderSocketPath(), "/tmp/kr-x/korasock");
  EXPECT_EQ(kr::storeSocketPath(), "/tmp/kr-x/storereg");
  EXPECT_EQ(kr::logSocketPath(), "/tmp/kr-x/logsocket");
  EXPECT_EQ(kr::runMarkerPath("ifmgr"), "/tmp/kr-x/run/ifmgr");
  EXPECT_EQ(kr::rtracePath(), "/tmp/kr-x/rtrace");
  EXPECT_EQ(kr::crashReportDir(), "/tmp/kr-x/crash");
}

TEST_F(RuntimeDirTest, TrailingSlashesAreDropped) {
  set("/tmp/kr-x//");
  EXPECT_EQ(kr::runtimePath("/korasock"), "/tmp/kr-x/korasock");
  set("/");
  EXPECT_EQ(kr::runtimeDir(), "");
  EXPECT_EQ(kr::loaderSocketPath(), "/korasock");
}

TEST_F(RuntimeDirTest, EnvironmentIsReadOnEveryCall) {
  set("/a");
  EXPECT_EQ(kr::rtracePath(), "/a/rtrace");
  set("/b");
  EXPECT_EQ(kr::rtracePath(), "/b/rtrace");
  unsetenv("KR_RUNTIME_DIR");
  EXPECT_EQ(kr::rtracePath(), "/ram/rtrace");
}

}  // namespace
