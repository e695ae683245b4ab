#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "boxroot.h"

namespace {

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

const char refused[] = "\x1B[31mtavid [ERR]: Error in function 'boxroot_init' [line ";
const char refused_text[] =
    "]:\n\r\tTAVID_ROOT must name an existing absolute directory (the simulated box)\x1B[0m\n\r";

/* Refuses the root as it refuses a relative one: one error line, and PATH left as it was. */
void expect_refused(const std::string& root) {
  setenv("TAVID_ROOT", root.c_str(), 1);
  const std::string path = getenv("PATH");
  testing::internal::CaptureStderr();
  EXPECT_EQ(boxroot_init(), -1) << root;
  const std::string err = testing::internal::GetCapturedStderr();
  const size_t line = sizeof(refused) - 1;
  const size_t text = err.find(refused_text);
  ASSERT_NE(text, std::string::npos) << root << ": " << err;
  EXPECT_EQ(err.substr(0, line), refused) << root;
  EXPECT_EQ(err.substr(line, text - line).find_first_not_of("0123456789"), std::string::npos) << err;
  EXPECT_EQ(err.substr(text), refused_text) << root;
  EXPECT_EQ(getenv("PATH"), path) << root;
}

/* A directory made for the test under the build's temporary directory, with `name` in its path. */
class BoxrootNames : public Boxroot {
 protected:
  void SetUp() override {
    Boxroot::SetUp();
    if (IsSkipped()) return;
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

}  // namespace
