#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

#include "boxroot.h"
#include "hal_test_support.h"

namespace {

using hal_test::without_lines;

const std::string kNoRoot =
    hal_test::err("boxroot_init", "TAVID_ROOT must name an existing absolute directory (the simulated box)");

class Boxroot : public ::testing::Test {
 protected:
  void SetUp() override {
    char probe[BOXROOT_PATH_LEN];
    setenv("TAVID_ROOT", "/tmp", 1);
    ASSERT_EQ(boxroot_init(), 0);
    if (std::string(boxroot_path(probe, sizeof(probe), "/x")) == "/x") GTEST_SKIP() << "board paths";
  }
};

TEST_F(Boxroot, PutsTheRootInFrontOfBoxPaths) {
  char path[BOXROOT_PATH_LEN];
  EXPECT_STREQ(boxroot_path(path, sizeof(path), "/data/settings.conf"), "/tmp/data/settings.conf");
  EXPECT_STREQ(boxroot_path(path, sizeof(path), "relative"), "relative");
}

TEST_F(Boxroot, PutsTheRootInFrontOfEveryPathOfACommand) {
  char command[2 * BOXROOT_PATH_LEN];
  EXPECT_STREQ(boxroot_command(command, sizeof(command), "rm -rf /data/*"), "rm -rf /tmp/data/*");
  EXPECT_STREQ(boxroot_command(command, sizeof(command), "cp -rf /opt/bin/a.conf /data/settings.conf"),
               "cp -rf /tmp/opt/bin/a.conf /tmp/data/settings.conf");
  EXPECT_STREQ(boxroot_command(command, sizeof(command), "/etc/rc.d/init.d/tavid restart"),
               "/tmp/etc/rc.d/init.d/tavid restart");
  EXPECT_STREQ(boxroot_command(command, sizeof(command), "reboot"), "reboot");
}

TEST_F(Boxroot, NeverOverrunsItsBuffer) {
  char small[12];
  boxroot_command(small, sizeof(small), "rm -rf /data/* /data/x");
  EXPECT_LT(std::string(small).size(), sizeof(small));
  boxroot_path(small, sizeof(small), "/data/settings.conf");
  EXPECT_EQ(std::string(small), "/tmp/data/s");
}

TEST_F(Boxroot, PutsTheRootsProgramsFirstInPath) {
  std::string path = getenv("PATH");
  EXPECT_EQ(path.rfind("/tmp/sbin:/tmp/bin:", 0), 0u) << path;
}

TEST_F(Boxroot, RefusesARootThatIsNotAnAbsoluteDirectory) {
  for (const char* root : {"", "relative/dir", "/no/such/dir"}) {
    setenv("TAVID_ROOT", root, 1);
    testing::internal::CaptureStderr();
    EXPECT_EQ(boxroot_init(), -1) << root;
    EXPECT_EQ(without_lines(testing::internal::GetCapturedStderr()), kNoRoot) << root;
  }
  unsetenv("TAVID_ROOT");
  testing::internal::CaptureStderr();
  EXPECT_EQ(boxroot_init(), -1);
  EXPECT_EQ(without_lines(testing::internal::GetCapturedStderr()), kNoRoot);
  setenv("TAVID_ROOT", "/tmp", 1);
  EXPECT_EQ(boxroot_init(), 0);
}

}  // namespace
