/* HTTP Basic authentication against a file of users and SHA-512 crypt hashes. */

#ifndef TAVIWEB_AUTH_H
#define TAVIWEB_AUTH_H

#include <map>
#include <string>

/* The users of an authentication file and, per user, the last password that matched its hash:
 * checking a hash costs thousands of SHA-512 rounds, and a polling client sends the same
 * password every time. Used from one thread (the HTTP server's). */
class taviweb_auth_t {
 public:
  /* Reads lines "user:hash"; empty lines and lines starting with '#' are skipped. A hash must
   * be a SHA-512 crypt hash ("$6$..."). False with `error` naming the line that is wrong. */
  bool load(const char* path, std::string* error);
  /* Adds one user; false when the line is not a user and a SHA-512 crypt hash. */
  bool add(const std::string& line, std::string* error);
  size_t users() const { return hashes_.size(); }
  /* Whether the value of an Authorization header names a user with its password. */
  bool allows(const char* authorization);

 private:
  bool matches(const std::string& user, const std::string& password);

  std::map<std::string, std::string> hashes_;
  std::map<std::string, std::string> verified_;
};

/* The user and password of a Basic Authorization header value ("Basic dXNlcjpwYXNz"): the
 * scheme in any case, the credentials strict base64 of "user:password" (the password may hold
 * ':'). False for anything else. */
bool taviweb_auth_parse_basic(const char* value, std::string* user, std::string* password);

/* Strict base64 (standard alphabet, padded to a multiple of four). */
bool taviweb_auth_base64_decode(const std::string& text, std::string* decoded);

#endif
