#include "broker/ssl_routine.h"

#include "core/owned.h"

#include <cstring>
#include <openssl/x509v3.h>
#include <strings.h>

namespace {

constexpr int match = 1;
constexpr int no_match = -1;
constexpr int no_extension = 0;

using general_names = std::unique_ptr<GENERAL_NAMES, releaser<GENERAL_NAMES_free>>;

// A certificate's name as its raw bytes; they need not be terminated.
struct certificate_name {
  const char* bytes;
  size_t length;
};

certificate_name name_of(const ASN1_STRING* text) {
  return {reinterpret_cast<const char*>(ASN1_STRING_get0_data(text)),
          static_cast<size_t>(ASN1_STRING_length(text))};
}

// "good.example\0.evil.example" would pass for "good.example" in a comparison of C strings.
bool holds_nul(const certificate_name& name) {
  return name.bytes == nullptr || std::memchr(name.bytes, '\0', name.length) != nullptr;
}

// Exact but for letter case: an asterisk is an ordinary character.
bool names_host(const certificate_name& name, const char* hostname) {
  return std::strlen(hostname) == name.length && strncasecmp(hostname, name.bytes, name.length) == 0;
}

int match_subject_alt_name(const char* hostname, const X509* certificate) {
  if (X509_get_ext_by_NID(certificate, NID_subject_alt_name, -1) < 0) return no_extension;
  const general_names names{
      static_cast<GENERAL_NAMES*>(X509_get_ext_d2i(certificate, NID_subject_alt_name, nullptr, nullptr))};
  if (names == nullptr) return no_match;  // there, but unreadable: no reason to fall back
  for (int i = 0; i < sk_GENERAL_NAME_num(names.get()); ++i) {
    const GENERAL_NAME* entry = sk_GENERAL_NAME_value(names.get(), i);
    if (entry->type != GEN_DNS) continue;
    const certificate_name name = name_of(entry->d.dNSName);
    if (holds_nul(name)) return no_match;
    if (names_host(name, hostname)) return match;
  }
  return no_match;
}

int match_common_name(const char* hostname, const X509* certificate) {
  const X509_NAME* subject = X509_get_subject_name(certificate);
  const int index = X509_NAME_get_index_by_NID(subject, NID_commonName, -1);
  if (index < 0) return no_match;
  const X509_NAME_ENTRY* entry = X509_NAME_get_entry(subject, index);
  if (entry == nullptr) return no_match;
  const ASN1_STRING* text = X509_NAME_ENTRY_get_data(entry);
  if (text == nullptr) return no_match;
  const certificate_name name = name_of(text);
  if (holds_nul(name)) return no_match;
  return names_host(name, hostname) ? match : no_match;
}

}  // namespace

int validate_hostname(const char* hostname, X509* certificate) {
  if (hostname == nullptr || certificate == nullptr) return no_match;
  const int by_alt_name = match_subject_alt_name(hostname, certificate);
  return by_alt_name != no_extension ? by_alt_name : match_common_name(hostname, certificate);
}
