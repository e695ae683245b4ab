#include <gtest/gtest.h>
#include <stdio.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "taviweb_auth.h"

namespace {

/* openssl passwd -6 -salt unitsalt 'open sesame' and -salt othersalt 'pa:ss'. */
const char kOperatorHash[] =
    "$6$unitsalt$pscaa4I8r1/Sl8hhzuo3TvpVmcaY5w4qcfIWCIthXngckSoTVfEj6DLgbzUl8vVo3Kka1C/d7e3xB6TNb4r6Y1";
const char kColonHash[] =
    "$6$othersalt$YupCeJDk70DLtlplR/wWvD0pUCVnhwE9ieTc/ypfifdb8AK403pODdr/J6LoYDqCVbwwLfguphR/XoBVvi1A5.";

/* A file in the test's temporary directory, removed with the object. */
class users_file_t {
 public:
  explicit users_file_t(const std::string& text) {
    const char* dir = getenv("TAVID_TEST_TMP");
    path_ = std::string(dir != nullptr ? dir : "/tmp") + "/taviweb_users_" + std::to_string(getpid());
    std::ofstream(path_) << text;
  }
  users_file_t(const users_file_t&) = delete;
  users_file_t& operator=(const users_file_t&) = delete;
  ~users_file_t() { (void)remove(path_.c_str()); }
  const char* path() const { return path_.c_str(); }

 private:
  std::string path_;
};

std::string load_error(const std::string& text) {
  users_file_t file(text);
  taviweb_auth_t auth;
  std::string error;
  EXPECT_FALSE(auth.load(file.path(), &error));
  std::string prefix = std::string(file.path()) + " ";
  return error.rfind(prefix, 0) == 0 ? error.substr(prefix.size()) : error;
}

std::string basic(const std::string& user_password_base64) { return "Basic " + user_password_base64; }

TEST(TaviwebAuth, Base64IsStrictAndPadded) {
  std::string decoded;
  EXPECT_TRUE(taviweb_auth_base64_decode("dXNlcjpwYXNz", &decoded));
  EXPECT_EQ(decoded, "user:pass");
  EXPECT_TRUE(taviweb_auth_base64_decode("YQ==", &decoded));
  EXPECT_EQ(decoded, "a");
  EXPECT_TRUE(taviweb_auth_base64_decode("YWI=", &decoded));
  EXPECT_EQ(decoded, "ab");
  EXPECT_TRUE(taviweb_auth_base64_decode("+/+/", &decoded));
  EXPECT_EQ(decoded, "\xfb\xff\xbf");
  decoded = "unchanged";
  for (const char* text : {"", "YQ", "YQ=", "YR==", "YWJ=", "Y=Q=", "YQ==YQ==", "dXNl-jpw", "dXNl cjpw", "====",
                           "dXNlcjpwYXNz\n"}) {
    EXPECT_FALSE(taviweb_auth_base64_decode(text, &decoded)) << text;
    EXPECT_EQ(decoded, "unchanged") << text;
  }
}

TEST(TaviwebAuth, BasicCredentialsSplitAtTheFirstColon) {
  std::string user;
  std::string password;
  EXPECT_TRUE(taviweb_auth_parse_basic("Basic dXNlcjpwYXNz", &user, &password));
  EXPECT_EQ(user, "user");
  EXPECT_EQ(password, "pass");
  EXPECT_TRUE(taviweb_auth_parse_basic("basic   b3A6cGE6c3M=", &user, &password));  /* op:pa:ss */
  EXPECT_EQ(user, "op");
  EXPECT_EQ(password, "pa:ss");
  EXPECT_TRUE(taviweb_auth_parse_basic("BASIC b3A6", &user, &password)); /* op: */
  EXPECT_EQ(user, "op");
  EXPECT_EQ(password, "");
  for (const char* value : {"", "Basic", "Basic ", "Bearer dXNlcjpwYXNz", "Basicx dXNlcjpwYXNz",
                            "Basic\tdXNlcjpwYXNz", "Basic dXNlcg==", /* no colon */
                            "Basic b3AAOnB3", /* op\0:pw */ "Basic dXNlcjpwYXNz extra"}) {
    EXPECT_FALSE(taviweb_auth_parse_basic(value, &user, &password)) << value;
  }
  EXPECT_FALSE(taviweb_auth_parse_basic(nullptr, &user, &password));
}

TEST(TaviwebAuth, TheFileTakesUsersWithSha512Hashes) {
  users_file_t file(std::string("# operators\n\noperator:") + kOperatorHash + "\r\nservice:" + kColonHash + "\n");
  taviweb_auth_t auth;
  std::string error;
  ASSERT_TRUE(auth.load(file.path(), &error)) << error;
  EXPECT_EQ(auth.users(), 2u);
  EXPECT_TRUE(auth.allows(basic("b3BlcmF0b3I6b3BlbiBzZXNhbWU=").c_str())); /* operator:open sesame */
  EXPECT_TRUE(auth.allows(basic("c2VydmljZTpwYTpzcw==").c_str()));         /* service:pa:ss */
}

TEST(TaviwebAuth, AWrongPasswordOrUserIsRefusedAlsoAfterTheRightOne) {
  taviweb_auth_t auth;
  std::string error;
  ASSERT_TRUE(auth.add(std::string("operator:") + kOperatorHash, &error)) << error;
  const std::string right = basic("b3BlcmF0b3I6b3BlbiBzZXNhbWU="); /* operator:open sesame */
  const std::string wrong = basic("b3BlcmF0b3I6b3BlbiBzZXNhbWU");  /* not base64 */
  EXPECT_FALSE(auth.allows(basic("b3BlcmF0b3I6b3BlbiBzZXNhbWY=").c_str())); /* operator:open sesamf */
  EXPECT_TRUE(auth.allows(right.c_str()));
  EXPECT_TRUE(auth.allows(right.c_str()));
  EXPECT_FALSE(auth.allows(basic("b3BlcmF0b3I6b3BlbiBzZXNhbWY=").c_str()));
  EXPECT_FALSE(auth.allows(basic("b3BlcmF0b3I6").c_str()));                  /* operator: */
  EXPECT_FALSE(auth.allows(basic("b3BlcmF0b3JzOm9wZW4gc2VzYW1l").c_str())); /* operators:open sesame */
  EXPECT_FALSE(auth.allows(wrong.c_str()));
  EXPECT_FALSE(auth.allows(nullptr));
}

TEST(TaviwebAuth, BadFilesNameTheirLine) {
  EXPECT_EQ(load_error("# nobody\n"), "names no user");
  EXPECT_EQ(load_error("\noperator\n"), "line 2: not user:hash");
  EXPECT_EQ(load_error(std::string(":") + kOperatorHash + "\n"), "line 1: not user:hash");
  EXPECT_EQ(load_error("operator:open sesame\n"),
            "line 1: the hash of 'operator' is not a SHA-512 crypt hash (openssl passwd -6)");
  EXPECT_EQ(load_error("operator:$1$md5salt$sVheoXpHpmNzHyr5a2r/V0\n"),
            "line 1: the hash of 'operator' is not a SHA-512 crypt hash (openssl passwd -6)");
  EXPECT_EQ(load_error("operator:$6$\n"),
            "line 1: the hash of 'operator' is not a SHA-512 crypt hash (openssl passwd -6)");
  EXPECT_EQ(load_error(std::string("operator:") + kOperatorHash + "\noperator:" + kColonHash + "\n"),
            "line 2: user 'operator' given twice");
  taviweb_auth_t auth;
  std::string error;
  EXPECT_FALSE(auth.load("/nonexistent/users", &error));
  EXPECT_EQ(error, "cannot read /nonexistent/users (No such file or directory)");
}

}  // namespace
