#include "taviweb_auth.h"

#include <crypt.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include <memory>

#include "tavid_client.h"

namespace {

#define TAVIWEB_AUTH_SCHEME "Basic"
#define TAVIWEB_AUTH_HASH_PREFIX "$6$"
/* Checked when the user is unknown, so that an unknown user takes as long as a wrong password. */
#define TAVIWEB_AUTH_DUMMY_HASH \
  "$6$taviwebdummy$JayCpGjEEL2HAz0rPTVB54QSR12BOwFF85rR08pdACWlQv6u547g.fY7yoQ0cd5y5HEqLJA1NVcWwnSTfbFiH/"

int taviweb_auth_sextet(char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '+') return 62;
  if (c == '/') return 63;
  return -1;
}

/* Equal texts, in a time that depends on their lengths only. */
bool taviweb_auth_same(const std::string& a, const std::string& b) {
  if (a.size() != b.size()) return false;
  unsigned char difference = 0;
  for (size_t n = 0; n < a.size(); n++) difference |= static_cast<unsigned char>(a[n] ^ b[n]);
  return difference == 0;
}

std::string taviweb_auth_crypt(const std::string& password, const std::string& hash) {
  auto data = std::make_unique<struct crypt_data>();
  const char* result = crypt_r(password.c_str(), hash.c_str(), data.get());
  return result != NULL ? result : "";
}

/* A whole SHA-512 crypt hash: hashing with it as the setting gives a hash of the same form, the
 * same settings and salt before the last '$', and a digest of the same length after it. */
bool taviweb_auth_sha512(const std::string& hash) {
  if (hash.compare(0, strlen(TAVIWEB_AUTH_HASH_PREFIX), TAVIWEB_AUTH_HASH_PREFIX) != 0) return false;
  std::string again = taviweb_auth_crypt("", hash);
  size_t digest = hash.rfind('$');
  return again.size() == hash.size() && digest > strlen(TAVIWEB_AUTH_HASH_PREFIX) &&
         again.compare(0, digest + 1, hash, 0, digest + 1) == 0;
}

}  // namespace

bool taviweb_auth_base64_decode(const std::string& text, std::string* decoded) {
  if (text.empty() || text.size() % 4 != 0) return false;
  size_t padding = text.compare(text.size() - 2, 2, "==") == 0 ? 2 : text.back() == '=' ? 1 : 0;
  std::string out;
  unsigned bits = 0;
  int count = 0;
  for (size_t n = 0; n < text.size() - padding; n++) {
    int sextet = taviweb_auth_sextet(text[n]);
    if (sextet < 0) return false;
    bits = (bits << 6) | static_cast<unsigned>(sextet);
    count += 6;
    if (count >= 8) {
      count -= 8;
      out.push_back(static_cast<char>((bits >> count) & 0xFF));
    }
  }
  /* The bits that padding leaves over must be zero (one encoding per text). */
  if ((bits & ((1U << count) - 1)) != 0) return false;
  *decoded = out;
  return true;
}

bool taviweb_auth_parse_basic(const char* value, std::string* user, std::string* password) {
  if (value == NULL) return false;
  size_t scheme = strlen(TAVIWEB_AUTH_SCHEME);
  if (strncasecmp(value, TAVIWEB_AUTH_SCHEME, scheme) != 0 || value[scheme] != ' ') return false;
  const char* credentials = value + scheme;
  while (*credentials == ' ') credentials++;
  std::string decoded;
  if (!taviweb_auth_base64_decode(credentials, &decoded)) return false;
  size_t colon = decoded.find(':');
  if (colon == std::string::npos || decoded.find('\0') != std::string::npos) return false;
  *user = decoded.substr(0, colon);
  *password = decoded.substr(colon + 1);
  return true;
}

bool taviweb_auth_t::add(const std::string& line, std::string* error) {
  size_t colon = line.find(':');
  if (colon == std::string::npos || colon == 0) {
    *error = "not user:hash";
    return false;
  }
  std::string user = line.substr(0, colon);
  std::string hash = line.substr(colon + 1);
  if (!taviweb_auth_sha512(hash)) {
    *error = "the hash of '" + user + "' is not a SHA-512 crypt hash (openssl passwd -6)";
    return false;
  }
  if (!hashes_.emplace(user, hash).second) {
    *error = "user '" + user + "' given twice";
    return false;
  }
  return true;
}

struct taviweb_auth_file_closer {
  void operator()(FILE* file) const { (void)fclose(file); }
};

bool taviweb_auth_t::load(const char* path, std::string* error) {
  /* stdio rather than iostreams: the board links libstdc++ statically, and streams bring its
   * whole locale machinery. */
  std::unique_ptr<FILE, taviweb_auth_file_closer> file(fopen(path, "re"));
  if (!file) {
    *error = std::string("cannot read ") + path + " (" + tavid_client_strerror(errno) + ")";
    return false;
  }
  char* text = NULL;
  size_t size = 0;
  ssize_t length;
  bool good = true;
  for (unsigned number = 1; good && (length = getline(&text, &size, file.get())) >= 0; number++) {
    std::string line(text, static_cast<size_t>(length));
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.pop_back();
    if (line.empty() || line[0] == '#') continue;
    std::string why;
    good = add(line, &why);
    if (!good) *error = std::string(path) + " line " + std::to_string(number) + ": " + why;
  }
  free(text);
  if (good && hashes_.empty()) {
    *error = std::string(path) + " names no user";
    return false;
  }
  return good;
}

bool taviweb_auth_t::matches(const std::string& user, const std::string& password) {
  auto known = hashes_.find(user);
  if (known == hashes_.end()) {
    taviweb_auth_crypt(password, TAVIWEB_AUTH_DUMMY_HASH);
    return false;
  }
  auto verified = verified_.find(user);
  if (verified != verified_.end() && taviweb_auth_same(verified->second, password)) return true;
  if (!taviweb_auth_same(taviweb_auth_crypt(password, known->second), known->second)) return false;
  verified_[user] = password;
  return true;
}

bool taviweb_auth_t::allows(const char* authorization) {
  std::string user;
  std::string password;
  return taviweb_auth_parse_basic(authorization, &user, &password) && matches(user, password);
}
