#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "support/certificates.h"
#include "support/child_process.h"
#include "support/resource.h"
#include "support/temp_dir.h"

namespace kovo::test {

struct NginxOptions {
  /* 0: one process does everything. */
  int workers = 0;
  /* Directives added inside "http" and inside every "server". */
  std::string httpDirectives;
  std::string serverDirectives;
  /* Folder served at "/"; empty: one of its own. */
  std::string root;
};

/** One line of nginx's access log. */
struct NginxAccess {
  uint64_t connection = 0;          /* names the connection */
  uint64_t requestOnConnection = 0; /* from 1 */
  int status = 0;
  std::string verb;
  std::string uri;
  std::string protocol; /* "HTTP/1.1", "HTTP/2.0" */
  uint64_t bodyBytes = 0;
  std::string range; /* as received, or "-" */
};

/**
 * An nginx of its own in a temporary directory: plain HTTP, TLS with HTTP/1.1 only, and TLS with
 * HTTP/2, each on a free port of 127.0.0.1. "/" serves root(), "/dav/" takes PUT and DELETE,
 * "/gzip/" serves the same files as "/" gzip-encoded. Needs no rights; ended by the destructor.
 */
class Nginx {
 public:
  explicit Nginx(const NginxOptions& options = {});
  Nginx(const Nginx&) = delete;
  Nginx& operator=(const Nginx&) = delete;

  /** Each with a path that starts with '/'. */
  std::string url(std::string_view path) const;
  std::string tlsUrl(std::string_view path) const;
  std::string http2Url(std::string_view path) const;
  uint16_t port() const { return _httpPort; }
  uint16_t tlsPort() const { return _tlsPort; }
  uint16_t http2Port() const { return _http2Port; }

  const std::string& root() const { return _root; }
  /** Puts a resource into root(). */
  void add(std::string_view name, const Resource& resource) const;
  /** The file a PUT to "/dav/" + name wrote. */
  std::string davFile(std::string_view name) const;

  /** PEM file of the authority that signed the server's certificate. */
  const std::string& authorityFile() const { return _certificates.authority; }

  /** The requests answered so far. nginx writes a line when an answer has been sent. */
  std::vector<NginxAccess> accesses() const;
  size_t connectionCount() const;
  pid_t pid() const { return _process->pid(); }

 private:
  void writeConfiguration() const;
  bool start();

  const NginxOptions _options;
  TempDir _folder;
  std::string _root;
  Certificates _certificates;
  uint16_t _httpPort = 0;
  uint16_t _tlsPort = 0;
  uint16_t _http2Port = 0;
  std::unique_ptr<ChildProcess> _process;
};

}  // namespace kovo::test
