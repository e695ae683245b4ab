#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>

#include <string>
#include <vector>

#include "taviweb_options.h"

namespace {

/* Parses a command line given as words after the program's name. */
bool parse(std::vector<std::string> words, taviweb_options_t* options, std::string* error) {
  words.insert(words.begin(), "taviweb");
  std::vector<char*> argv;
  argv.reserve(words.size() + 1);
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  return taviweb_parse_options(static_cast<int>(words.size()), argv.data(), options, error);
}

std::string error_of(const std::vector<std::string>& words) {
  taviweb_options_t options;
  std::string error;
  EXPECT_FALSE(parse(words, &options, &error));
  return error;
}

uint16_t port_of(const taviweb_listen_t& listen) {
  if (listen.addr.ss_family == AF_INET6) {
    return ntohs(reinterpret_cast<const struct sockaddr_in6*>(&listen.addr)->sin6_port);
  }
  return ntohs(reinterpret_cast<const struct sockaddr_in*>(&listen.addr)->sin_port);
}

std::string address_of(const taviweb_listen_t& listen) {
  char text[INET6_ADDRSTRLEN];
  if (listen.addr.ss_family == AF_INET6) {
    inet_ntop(AF_INET6, &reinterpret_cast<const struct sockaddr_in6*>(&listen.addr)->sin6_addr, text, sizeof(text));
  } else {
    inet_ntop(AF_INET, &reinterpret_cast<const struct sockaddr_in*>(&listen.addr)->sin_addr, text, sizeof(text));
  }
  return text;
}

void expect_listen(const taviweb_listen_t& listen, int family, const char* address, uint16_t port) {
  EXPECT_EQ(listen.addr.ss_family, family);
  EXPECT_EQ(listen.length, family == AF_INET6 ? sizeof(struct sockaddr_in6) : sizeof(struct sockaddr_in));
  EXPECT_EQ(address_of(listen), address);
  EXPECT_EQ(port_of(listen), port);
}

TEST(TaviwebOptions, DefaultsServeLoopbackPort8080ForTheDaemonHere) {
  taviweb_options_t options;
  std::string error;
  ASSERT_TRUE(parse({}, &options, &error)) << error;
  EXPECT_EQ(options.listen.text, "127.0.0.1:8080");
  expect_listen(options.listen, AF_INET, "127.0.0.1", 8080);
  EXPECT_EQ(options.tavid.host, "127.0.0.1");
  EXPECT_EQ(options.tavid.port, "49999");
  EXPECT_EQ(options.tavid.timeout_s, 35.0);
  EXPECT_EQ(options.interval_s, 5.0);
  EXPECT_EQ(options.auth_file, "");
  EXPECT_FALSE(options.verbose);
  EXPECT_FALSE(options.help);
}

TEST(TaviwebOptions, EveryOptionShortAndLong) {
  taviweb_options_t options;
  std::string error;
  ASSERT_TRUE(parse({"-l", "0.0.0.0:80", "-H", "box7", "-p", "50000", "-i", "0.5", "-t", "2", "--auth", "/etc/users",
                     "-v"},
                    &options, &error))
      << error;
  expect_listen(options.listen, AF_INET, "0.0.0.0", 80);
  EXPECT_EQ(options.tavid.host, "box7");
  EXPECT_EQ(options.tavid.port, "50000");
  EXPECT_EQ(options.interval_s, 0.5);
  EXPECT_EQ(options.tavid.timeout_s, 2.0);
  EXPECT_EQ(options.auth_file, "/etc/users");
  EXPECT_TRUE(options.verbose);

  taviweb_options_t longer;
  ASSERT_TRUE(parse({"--listen", "[::1]:8443", "--host", "box8", "--port", "1", "--interval", "60", "--timeout",
                     "3600", "--verbose", "--help"},
                    &longer, &error))
      << error;
  expect_listen(longer.listen, AF_INET6, "::1", 8443);
  EXPECT_EQ(longer.listen.text, "[::1]:8443");
  EXPECT_EQ(longer.tavid.host, "box8");
  EXPECT_EQ(longer.tavid.port, "1");
  EXPECT_EQ(longer.interval_s, 60.0);
  EXPECT_EQ(longer.tavid.timeout_s, 3600.0);
  EXPECT_TRUE(longer.verbose);
  EXPECT_TRUE(longer.help);
}

TEST(TaviwebOptions, ListeningAddressesAreNumericWithAPort) {
  for (const char* text : {"localhost:8080", "127.0.0.1", "127.0.0.1:", "127.0.0.1:0", "127.0.0.1:65536",
                           "[::1]", "::1:8080", "[::1:8080", "[]:80", "[127.0.0.1]:80", "1.2.3:80", ":8080"}) {
    taviweb_listen_t listen;
    EXPECT_FALSE(taviweb_parse_listen(text, &listen)) << text;
    EXPECT_EQ(listen.text, "127.0.0.1:8080") << text;
    EXPECT_EQ(error_of({"-l", text}), std::string("invalid listening address '") + text +
                                          "' (ADDRESS:PORT, for example 127.0.0.1:8080 or [::1]:8080)");
  }
}

TEST(TaviwebOptions, BadValuesAreNamed) {
  EXPECT_EQ(error_of({"-p", "0"}), "invalid port '0' (1 to 65535)");
  EXPECT_EQ(error_of({"-p", "49999x"}), "invalid port '49999x' (1 to 65535)");
  for (const char* text : {"0", "-1", "3600.5", "soon", "", "nan"}) {
    EXPECT_EQ(error_of({"-i", text}), std::string("invalid interval '") + text + "' (seconds, above 0, at most 3600)");
    EXPECT_EQ(error_of({"-t", text}), std::string("invalid time-out '") + text + "' (seconds, above 0, at most 3600)");
  }
  EXPECT_EQ(error_of({"-x"}), "unknown option '-x'");
  EXPECT_EQ(error_of({"--listen-on", "x"}), "unknown option '--listen-on'");
  EXPECT_EQ(error_of({"-l"}), "option '-l' needs a value");
  EXPECT_EQ(error_of({"--auth"}), "option '--auth' needs a value");
  EXPECT_EQ(error_of({"serve"}), "unexpected argument 'serve'");
}

TEST(TaviwebOptions, HelpIsAManualPageNamingEveryOptionAndPath) {
  std::string help = taviweb_help;
  std::vector<std::string> sections;
  size_t start = 0;
  while (start < help.size()) {
    size_t end = help.find('\n', start);
    std::string line = help.substr(start, end - start);
    if (!line.empty() && line[0] != ' ') sections.push_back(line);
    start = end + 1;
  }
  EXPECT_EQ(sections, (std::vector<std::string>{"NAME", "SYNOPSIS", "DESCRIPTION", "OPTIONS", "EXIT STATUS",
                                                "EXAMPLES"}));
  for (const char* text : {"-l, --listen ADDRESS:PORT", "-H, --host TAVID_HOST", "-p, --port TAVID_PORT",
                           "-i, --interval SECONDS", "-t, --timeout SECONDS", "--auth FILE", "-v, --verbose",
                           "-h, --help", "POST /api", "GET /api/status", "GET /metrics", "127.0.0.1:8080", "49999",
                           "openssl passwd -6"}) {
    EXPECT_NE(help.find(text), std::string::npos) << text;
  }
}

}  // namespace
