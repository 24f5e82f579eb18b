#include "ctl/watch_endpoint.h"

#include "ctl/settings.h"

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

/// A folder in `parent` and the socket in it. No descriptor, with errno, when that fails.
watch_socket open_in(const std::string& parent) {
  std::string folder = parent + std::string{folder_mark} + std::string(unique_size, 'X');
  const std::string path = folder + std::string{socket_name};
  sockaddr_un address{};
  // A comma or a colon would give the endpoint another meaning.
  errno = parent.find_first_of(",:") != std::string::npos ? EINVAL : ENAMETOOLONG;
  if (errno == EINVAL || !make_address(path, &address) || mkdtemp(folder.data()) == nullptr) return {};
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

const char* reason_of(int error) {
  if (error == ENAMETOOLONG) return "its name is too long for a socket's path of 107 bytes";
  if (error == EINVAL) return "no endpoint may have a comma or a colon in its path";
  return std::strerror(error);
}

/// `path` without symbolic links; "" when there is no such thing.
std::string resolved(const char* path) {
  const c_string found{realpath(path, nullptr)};
  return found ? found.get() : "";
}

/// Can nobody but root and this user put anything else in the place of the folder, or into it? `path` is resolved.
bool is_out_of_others_reach(std::string path) {
  for (;;) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) return false;
    // Not even in a folder like /tmp, from which they can't take what isn't theirs: it may be gone one day.
    if ((status.st_uid != 0 && status.st_uid != geteuid()) || (status.st_mode & 022U) != 0) return false;
    if (path == "/") return true;
    path.resize(std::max<size_t>(path.rfind('/'), 1));
  }
}

bool is_own_runtime_folder(const std::string& path) {
  struct stat status {};
  return !path.empty() && stat(path.c_str(), &status) == 0 && status.st_uid == geteuid() &&
         (status.st_mode & 077U) == 0 && is_out_of_others_reach(path);
}

/// Whoever else could put something into it could change the settings themselves, unless everybody writes there.
bool is_settings_folder(const std::string& path) {
  struct stat status {};
  return !path.empty() && stat(path.c_str(), &status) == 0 && (status.st_mode & S_IWOTH) == 0;
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

std::string watch_danger(const std::string& endpoint, const std::string& storage) {
  if (!is_watch_endpoint(endpoint)) return "";
  struct stat settings {};
  const uid_t agent = stat(storage.c_str(), &settings) == 0 ? settings.st_uid : geteuid();
  for (const std::string& path : {folder_of(endpoint), endpoint}) {
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0) continue;
    if (status.st_uid != 0 && status.st_uid != geteuid() && status.st_uid != agent) {
      return "it belongs to another user, number " + std::to_string(status.st_uid);
    }
    if (path == endpoint && !S_ISSOCK(status.st_mode)) {
      return "it is no socket of a watch, and the agent executes such files";
    }
  }
  return "";
}

void remove_watch_files(const std::string& endpoint) {
  const std::string path = folder_of(endpoint);
  const char* name = socket_name.data() + 1;
  const fd_owner folder{open(path.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)};
  struct stat status {};
  const bool found = folder.valid() && fstatat(folder.get(), name, &status, AT_SYMLINK_NOFOLLOW) == 0;
  if (found && S_ISSOCK(status.st_mode)) unlinkat(folder.get(), name, 0);
  rmdir(path.c_str());
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

std::vector<std::string> watch_folders(const std::string& storage) {
  std::vector<std::string> folders;
  const char* named = std::getenv("XDG_RUNTIME_DIR");  // NOLINT(concurrency-mt-unsafe): one thread
  const std::string runtime = resolved(named != nullptr ? named : "");
  if (is_own_runtime_folder(runtime)) folders.push_back(runtime);
  if (geteuid() == 0 && is_out_of_others_reach("/run")) folders.emplace_back("/run");
  const std::string settings = resolved(folder_of_settings(storage).c_str());
  if (is_settings_folder(settings)) folders.push_back(settings);
  return folders;
}

watch_socket open_watch_socket(const std::vector<std::string>& folders, std::string* problems) {
  for (const std::string& folder : folders) {
    watch_socket opened = open_in(folder);
    if (opened.fd.valid()) return opened;
    *problems += (problems->empty() ? "" : "; ") + folder + ": " + reason_of(errno);
  }
  if (folders.empty()) *problems = "there is no folder that others can't write to";
  return {};
}
