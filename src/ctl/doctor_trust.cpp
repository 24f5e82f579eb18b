#include "ctl/doctor_checks.h"

#include "core/owned.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fstream>
#include <iterator>
#include <openssl/pem.h>
#include <openssl/x509.h>

namespace {

using certificate_ptr = std::unique_ptr<X509, releaser<X509_free>>;
using bio_ptr = std::unique_ptr<BIO, releaser<BIO_free_all>>;
using folder_ptr = std::unique_ptr<DIR, releaser<closedir>>;

std::string local_time(time_t when) {
  char text[64] = "";
  tm local{};
  if (localtime_r(&when, &local) != nullptr) std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
  return text;
}

std::string subject_of(const X509* certificate) {
  char text[256];
  X509_NAME_oneline(X509_get_subject_name(certificate), text, sizeof text);
  return text;
}

finding check_validity(const std::string& name, const X509* certificate, time_t now) {
  const std::string what = name + ", " + subject_of(certificate);
  if (X509_cmp_time(X509_get0_notBefore(certificate), &now) > 0) {
    return wrong(what + " is not valid yet at " + local_time(now),
                 "set the clock, or get another certificate");
  }
  if (X509_cmp_time(X509_get0_notAfter(certificate), &now) < 0) {
    return wrong(what + " has expired", "get a new certificate, or set the clock if it is ahead");
  }
  return fine(what + " is valid");
}

findings check_ca_file(const std::string& path, time_t now) {
  std::ifstream file{path, std::ios::binary};
  if (!file || file.peek() == std::ifstream::traits_type::eof()) {
    return {wrong(path + " can't be read, or is empty: no server will be trusted",
                  "put the cloud's CA certificates there, readable for the agent")};
  }
  const std::string text{std::istreambuf_iterator<char>{file}, {}};
  return check_certificates(path, text, now);
}

/// The library finds a certificate by the hash of its subject: "1234abcd.0".
bool is_hash_name(const std::string& name) {
  constexpr size_t hash_size = 8;
  return name.size() > hash_size + 1 && name[hash_size] == '.' &&
         std::all_of(name.begin(), name.begin() + hash_size,
                     [](unsigned char c) { return std::isxdigit(c) != 0; }) &&
         std::all_of(name.begin() + hash_size + 1, name.end(),
                     [](unsigned char c) { return std::isdigit(c) != 0; });
}

findings check_ca_folder(const std::string& path, time_t now) {
  const folder_ptr folder{opendir(path.c_str())};
  if (!folder) {
    return {wrong(path + " can't be read (" + std::strerror(errno) + ")",
                  "name the folder of the cloud's CA certificates, readable for the agent")};
  }
  findings found;
  int files = 0;
  for (const dirent* entry = nullptr; (entry = readdir(folder.get())) != nullptr;) {
    if (!is_hash_name(entry->d_name)) continue;
    ++files;
    for (finding& one : check_ca_file(path + '/' + entry->d_name, now)) {
      if (one.wrong) found.push_back(std::move(one));
    }
  }
  if (files == 0) {
    return {wrong(path + " holds no certificate under its hash name: no server will be trusted",
                  "put certificates there and run openssl rehash " + path)};
  }
  if (found.empty()) found.push_back(fine(path + ": " + std::to_string(files) + " certificates"));
  return found;
}

}  // namespace

finding check_clock(time_t now, time_t built) {
  if (now < built) {
    return wrong("the clock says " + local_time(now) +
                     ", before this program was built: TLS will find certificates "
                     "not valid yet",
                 "set the clock, by NTP for instance");
  }
  return fine("the clock says " + local_time(now));
}

findings check_certificates(const std::string& name, std::string_view text, time_t now) {
  const bio_ptr source{BIO_new_mem_buf(text.data(), static_cast<int>(text.size()))};
  findings found;
  for (;;) {
    const certificate_ptr certificate{PEM_read_bio_X509(source.get(), nullptr, nullptr, nullptr)};
    if (!certificate) break;
    found.push_back(check_validity(name, certificate.get(), now));
  }
  if (found.empty()) {
    found.push_back(wrong(name + " holds no certificate", "put CA certificates in PEM form there"));
  }
  return found;
}

findings check_trust(const ctl_command_line& line) {
  if (line.ca_file.empty() && line.ca_path.empty()) {
    return {fine(
        "not looked at: name the agent's --ca_file or --ca_path (an agent without either does not verify "
        "HTTPS servers)")};
  }
  findings found;
  const time_t now = std::time(nullptr);
  if (!line.ca_file.empty()) found = check_ca_file(line.ca_file, now);
  if (!line.ca_path.empty()) {
    for (finding& one : check_ca_folder(line.ca_path, now)) {
      found.push_back(std::move(one));
    }
  }
  return found;
}
