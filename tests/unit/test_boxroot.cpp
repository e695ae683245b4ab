#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

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

/* Refused as a relative root is: the same error line, and PATH left as it was. */
void expect_refused(const std::string& root) {
  setenv("TAVID_ROOT", root.c_str(), 1);
  const std::string path = getenv("PATH");
  testing::internal::CaptureStderr();
  EXPECT_EQ(boxroot_init(), -1) << root;
  EXPECT_EQ(without_lines(testing::internal::GetCapturedStderr()), kNoRoot) << root;
  EXPECT_EQ(std::string(getenv("PATH")), path) << root;
}

/* Directories made for the test in a temporary directory of its own. */
class BoxrootNames : public Boxroot {
 protected:
  void SetUp() override {
    Boxroot::SetUp();
    char dir[] = "/tmp/tvbXXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    base = dir;
  }
  void TearDown() override {
    for (const std::string& made : made_dirs) rmdir(made.c_str());
    rmdir(base.c_str());
    setenv("TAVID_ROOT", "/tmp", 1);
    EXPECT_EQ(boxroot_init(), 0);
  }
  std::string make(const std::string& name) {
    std::string path = base + "/" + name;
    EXPECT_EQ(mkdir(path.c_str(), 0755), 0) << path;
    made_dirs.insert(made_dirs.begin(), path);
    return path;
  }
  std::string base;
  std::vector<std::string> made_dirs;
};

/* A shell command or the PATH prefix would split these: each names an existing directory. */
TEST_F(BoxrootNames, RefusesARootThatAShellOrPathWouldSplit) {
  for (const char* name : {"a b", "a:b", "a;b", "a'b", "a\"b", "a$b", "a*b", "a\\b", "a\tb", "a\nb", "a|b",
                           "a&b", "a(b", "a=b", "a~b", "a\xc3\xa9"}) {
    expect_refused(make(name));
  }
}

TEST_F(BoxrootNames, TakesLettersDigitsAndDotUnderscoreMinusPlusComma) {
  const std::string root = make("Box_1.2-a+b,c");
  setenv("TAVID_ROOT", root.c_str(), 1);
  EXPECT_EQ(boxroot_init(), 0);
  char path[BOXROOT_PATH_LEN];
  EXPECT_EQ(std::string(boxroot_path(path, sizeof(path), "/data")), root + "/data");
}

/* The machine's own root, whatever name leads there. */
TEST_F(BoxrootNames, RefusesTheMachinesRoot) {
  for (const char* root : {"/", "//", "/.", "/tmp/..", "/./"}) expect_refused(root);
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
