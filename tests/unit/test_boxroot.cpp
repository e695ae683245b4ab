#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

#include "boxroot.h"
#include "hal_test_support.h"

namespace {

/* What each build puts in front of a box path, with TAVID_ROOT naming /tmp: the host build the
 * root, the board build nothing, whatever the environment holds. */
#ifdef TAVID_HOST_ROOT
using hal_test::without_lines;

const std::string kRoot = "/tmp";
const std::string kNoRoot =
    hal_test::err("boxroot_init", "TAVID_ROOT must name an existing absolute directory (the simulated box)");
#else
const std::string kRoot;
#endif

class Boxroot : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("TAVID_ROOT", "/tmp", 1);
    ASSERT_EQ(boxroot_init(), 0);
  }
};

TEST_F(Boxroot, PutsTheRootInFrontOfBoxPaths) {
  char path[BOXROOT_PATH_LEN];
  EXPECT_EQ(std::string(boxroot_path(path, sizeof(path), "/data/settings.conf")),
            kRoot + "/data/settings.conf");
  EXPECT_STREQ(boxroot_path(path, sizeof(path), "relative"), "relative");
}

TEST_F(Boxroot, PutsTheRootInFrontOfEveryPathOfACommand) {
  char command[2 * BOXROOT_PATH_LEN];
  EXPECT_EQ(std::string(boxroot_command(command, sizeof(command), "rm -rf /data/*")),
            "rm -rf " + kRoot + "/data/*");
  EXPECT_EQ(
      std::string(boxroot_command(command, sizeof(command), "cp -rf /opt/bin/a.conf /data/settings.conf")),
      "cp -rf " + kRoot + "/opt/bin/a.conf " + kRoot + "/data/settings.conf");
  EXPECT_EQ(std::string(boxroot_command(command, sizeof(command), "/etc/rc.d/init.d/tavid restart")),
            kRoot + "/etc/rc.d/init.d/tavid restart");
  EXPECT_STREQ(boxroot_command(command, sizeof(command), "reboot"), "reboot");
}

TEST_F(Boxroot, NeverOverrunsItsBuffer) {
  char small[12];
  boxroot_command(small, sizeof(small), "rm -rf /data/* /data/x");
  EXPECT_LT(std::string(small).size(), sizeof(small));
  boxroot_path(small, sizeof(small), "/data/settings.conf");
  EXPECT_EQ(std::string(small), (kRoot + "/data/settings.conf").substr(0, sizeof(small) - 1));
}

#ifdef TAVID_HOST_ROOT

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

#else

TEST_F(Boxroot, NeedsNoRootAndLeavesPathAlone) {
  const std::string path = getenv("PATH");
  unsetenv("TAVID_ROOT");
  EXPECT_EQ(boxroot_init(), 0);
  EXPECT_EQ(std::string(getenv("PATH")), path);
}

#endif

}  // namespace
