#include "support/nginx.h"

#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <stdexcept>

#include "support/socket.h"
#include "support/wait_until.h"

namespace kovo::test {
namespace {

constexpr int kStartAttempts = 5;

std::string listenBlock(uint16_t port, const char* parameters, const std::string& rest) {
  return "  server {\n    listen 127.0.0.1:" + std::to_string(port) + parameters + ";\n" + rest +
         "  }\n";
}

}  // namespace

Nginx::Nginx(const NginxOptions& options)
    : _options(options), _folder("kovo-nginx"), _root(options.root) {
  const std::filesystem::path base = _folder.path();
  if (_root.empty()) {
    _root = (base / "root").string();
    std::filesystem::create_directory(_root);
  }
  for (const char* name : {"dav", "body", "log", "proxy", "fastcgi", "uwsgi", "scgi"}) {
    std::filesystem::create_directory(base / name);
  }
  _certificates = makeCertificates(base.string());
  for (int attempt = 0; attempt < kStartAttempts; ++attempt) {
    /* Another process may take a port between here and nginx: hence the attempts. */
    _httpPort = freePort();
    _tlsPort = freePort();
    _http2Port = freePort();
    writeConfiguration();
    if (start()) return;
  }
  throw std::runtime_error("nginx does not start: " + readFile(_folder.file("nginx.out")) +
                           readFile(_folder.file("log/error.log")));
}

void Nginx::writeConfiguration() const {
  const std::string base = _folder.path().string();
  std::ostringstream text;
  /* With a master, root may hand its files to workers only when they stay root. */
  if (_options.workers == 0) {
    text << "master_process off;\n";
  } else {
    text << "worker_processes " << _options.workers << ";\n";
    if (::geteuid() == 0) text << "user root;\n";
  }
  text << "daemon off;\npid " << base << "/nginx.pid;\nerror_log " << base
       << "/log/error.log warn;\nevents { worker_connections 1024; }\nhttp {\n"
       << "  default_type application/octet-stream;\n  sendfile on;\n  tcp_nodelay on;\n"
       << "  keepalive_requests 100000;\n  keepalive_timeout 60s;\n"
       << "  client_body_temp_path " << base << "/body;\n  proxy_temp_path " << base
       << "/proxy;\n  fastcgi_temp_path " << base << "/fastcgi;\n  uwsgi_temp_path " << base
       << "/uwsgi;\n  scgi_temp_path " << base << "/scgi;\n"
       << "  log_format kovo '$connection $connection_requests $status $request_method "
          "$request_uri $server_protocol $body_bytes_sent $http_range';\n"
       << "  access_log " << base << "/log/access.log kovo;\n"
       << "  ssl_certificate " << _certificates.certificate << ";\n  ssl_certificate_key "
       << _certificates.key << ";\n  ssl_protocols TLSv1.2 TLSv1.3;\n"
       << _options.httpDirectives;
  std::ostringstream locations;
  locations << "    location / { root " << _root << "; }\n"
            << "    location /gzip/ { alias " << _root
            << "/; gzip on; gzip_types *; gzip_min_length 0; }\n"
            << "    location /dav/ { alias " << base
            << "/dav/; dav_methods PUT DELETE; create_full_put_path on; "
               "client_max_body_size 0; }\n"
            << _options.serverDirectives;
  text << listenBlock(_httpPort, "", locations.str())
       << listenBlock(_tlsPort, " ssl", locations.str())
       << listenBlock(_http2Port, " ssl http2", locations.str()) << "}\n";
  writeFile(_folder.file("nginx.conf"), text.str());
}

bool Nginx::start() {
  _process = std::make_unique<ChildProcess>(
      std::vector<std::string>{"nginx", "-p", _folder.path().string(), "-e",
                               _folder.file("log/error.log"), "-c", _folder.file("nginx.conf")},
      _folder.file("nginx.out"));
  bool answered = false;
  waitUntil(
      [this, &answered] {
        answered = static_cast<bool>(connectToLoopback(_httpPort)) &&
                   static_cast<bool>(connectToLoopback(_http2Port));
        return answered || !_process->running();
      },
      std::chrono::seconds(5));
  return answered && _process->running();
}

std::string Nginx::url(std::string_view path) const {
  return "http://127.0.0.1:" + std::to_string(_httpPort) + std::string(path);
}

std::string Nginx::tlsUrl(std::string_view path) const {
  return "https://127.0.0.1:" + std::to_string(_tlsPort) + std::string(path);
}

std::string Nginx::http2Url(std::string_view path) const {
  return "https://127.0.0.1:" + std::to_string(_http2Port) + std::string(path);
}

void Nginx::add(std::string_view name, const Resource& resource) const {
  resource.writeTo(_root + '/' + std::string(name));
}

std::string Nginx::davFile(std::string_view name) const {
  return _folder.file("dav/" + std::string(name));
}

std::vector<NginxAccess> Nginx::accesses() const {
  std::vector<NginxAccess> all;
  std::ifstream log(_folder.file("log/access.log"));
  for (std::string line; std::getline(log, line);) {
    NginxAccess access;
    std::istringstream fields(line);
    fields >> access.connection >> access.requestOnConnection >> access.status >> access.verb >>
        access.uri >> access.protocol >> access.bodyBytes >> access.range;
    all.push_back(access);
  }
  return all;
}

size_t Nginx::connectionCount() const {
  std::set<uint64_t> connections;
  for (const NginxAccess& access : accesses()) connections.insert(access.connection);
  return connections.size();
}

}  // namespace kovo::test
