#include "ctl/watch_endpoint.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

namespace {

constexpr std::string_view folder_mark = "/orvelctl-watch-";
constexpr size_t unique_size = 6;  // what mkdtemp(3) puts in place of the X
constexpr std::string_view socket_name = "/events";

std::string folder_of(const std::string& endpoint) {
  return endpoint.substr(0, endpoint.size() - socket_name.size());
}

bool make_address(const std::string& path, sockaddr_un* address) {
  if (path.size() >= sizeof address->sun_path) return false;
  address->sun_family = AF_UNIX;
  std::memcpy(address->sun_path, path.c_str(), path.size() + 1);
  return true;
}

/// A folder in `parent` and the socket in it. A comma or a colon would give the endpoint another meaning.
watch_socket open_in(const std::string& parent) {
  if (parent.empty() || parent.front() != '/' || parent.find_first_of(",:") != std::string::npos) return {};
  std::string folder = parent + std::string{folder_mark} + std::string(unique_size, 'X');
  const std::string path = folder + std::string{socket_name};
  sockaddr_un address{};
  if (!make_address(path, &address) || mkdtemp(folder.data()) == nullptr) return {};
  const std::string endpoint = folder + std::string{socket_name};
  make_address(endpoint, &address);
  fd_owner fd{socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
  // Nobody else gets into the folder while the socket's mode is being set.
  const bool listens = fd.valid() &&
                       bind(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
                       chmod(endpoint.c_str(), S_IRUSR | S_IWUSR) == 0 && listen(fd.get(), SOMAXCONN) == 0;
  if (listens) return {std::move(fd), endpoint};
  const int saved_errno = errno;
  remove_watch_files(endpoint);
  errno = saved_errno;
  return {};
}

/// The endpoints of `value` that `keep` wants.
template <typename Keep> std::string filtered(const std::string& value, Keep keep) {
  std::string kept;
  bool first = true;
  for (size_t start = 0; start <= value.size();) {
    const size_t end = std::min(value.find(',', start), value.size());
    const std::string endpoint = value.substr(start, end - start);
    start = end + 1;
    if (!keep(endpoint)) continue;
    if (!first) kept += ',';
    kept += endpoint;
    first = false;
  }
  return kept;
}

}  // namespace

bool is_watch_endpoint(const std::string& endpoint) {
  const size_t tail = folder_mark.size() + unique_size + socket_name.size();
  if (endpoint.size() <= tail || endpoint.front() != '/') return false;
  const std::string_view end = std::string_view{endpoint}.substr(endpoint.size() - tail);
  const std::string_view unique = end.substr(folder_mark.size(), unique_size);
  return end.starts_with(folder_mark) && end.ends_with(socket_name) &&
         unique.find('/') == std::string_view::npos && endpoint.find(':') == std::string::npos;
}

bool is_stale_watch(const std::string& endpoint) {
  sockaddr_un address{};
  if (!is_watch_endpoint(endpoint) || !make_address(endpoint, &address)) return false;
  const fd_owner fd{socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
  if (!fd.valid()) return false;
  if (connect(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) return false;
  return errno == ECONNREFUSED || errno == ENOENT || errno == ENOTDIR;
}

void remove_watch_files(const std::string& endpoint) {
  struct stat status {};
  if (lstat(endpoint.c_str(), &status) == 0 && S_ISSOCK(status.st_mode)) unlink(endpoint.c_str());
  rmdir(folder_of(endpoint).c_str());
}

std::string with_endpoint(const std::string& value, const std::string& endpoint) {
  return value.empty() ? endpoint : value + ',' + endpoint;
}

std::string without_endpoint(const std::string& value, const std::string& endpoint) {
  return filtered(value, [&endpoint](const std::string& other) { return other != endpoint; });
}

std::string without_stale_watches(const std::string& value) {
  return filtered(value, [](const std::string& endpoint) {
    if (!is_stale_watch(endpoint)) return true;
    remove_watch_files(endpoint);
    return false;
  });
}

watch_socket open_watch_socket() {
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");  // NOLINT(concurrency-mt-unsafe): one thread
  for (const char* parent : {runtime != nullptr ? runtime : "", "/run", "/tmp"}) {
    watch_socket opened = open_in(parent);
    if (opened.fd.valid()) return opened;
  }
  return {};
}
