#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

#include "boxroot.h"

namespace {

#ifdef TAVID_HOST_ROOT

class Boxroot : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("TAVID_ROOT", "/tmp", 1);
    ASSERT_EQ(boxroot_init(), 0);
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
    EXPECT_NE(testing::internal::GetCapturedStderr().find("[ERR]: Error in function 'boxroot_init'"),
              std::string::npos);
  }
  unsetenv("TAVID_ROOT");
  testing::internal::CaptureStderr();
  EXPECT_EQ(boxroot_init(), -1);
  testing::internal::GetCapturedStderr();
  setenv("TAVID_ROOT", "/tmp", 1);
  EXPECT_EQ(boxroot_init(), 0);
}

#else

/* On the box every path is used as it stands, whatever the environment holds. */
class BoxrootBoard : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("TAVID_ROOT", "/tmp", 1);
    ASSERT_EQ(boxroot_init(), 0);
  }
};

TEST_F(BoxrootBoard, UsesBoxPathsAsTheyStand) {
  char path[BOXROOT_PATH_LEN];
  EXPECT_STREQ(boxroot_path(path, sizeof(path), "/data/settings.conf"), "/data/settings.conf");
  EXPECT_STREQ(boxroot_path(path, sizeof(path), "/dev/i2c-0"), "/dev/i2c-0");
}

TEST_F(BoxrootBoard, RunsBoxCommandsAsTheyStand) {
  char command[2 * BOXROOT_PATH_LEN];
  EXPECT_STREQ(boxroot_command(command, sizeof(command), "rm -rf /data/*"), "rm -rf /data/*");
  EXPECT_STREQ(boxroot_command(command, sizeof(command), "/etc/rc.d/init.d/tavid restart"),
               "/etc/rc.d/init.d/tavid restart");
}

TEST_F(BoxrootBoard, NeverOverrunsItsBuffer) {
  char small[12];
  boxroot_path(small, sizeof(small), "/data/settings.conf");
  EXPECT_EQ(std::string(small), "/data/setti");
}

TEST_F(BoxrootBoard, NeedsNoRootAndLeavesPathAlone) {
  const std::string path = getenv("PATH");
  unsetenv("TAVID_ROOT");
  EXPECT_EQ(boxroot_init(), 0);
  EXPECT_EQ(std::string(getenv("PATH")), path);
}

#endif

}  // namespace
