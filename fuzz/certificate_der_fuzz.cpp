// Certificates as they come from the wire. Whatever host is accepted for one, OpenSSL's own check accepts too.

#include "broker/ssl_routine.h"
#include "core/owned.h"
#include "story.h"

#include <algorithm>
#include <cstdint>
#include <memory>
#include <openssl/err.h>
#include <openssl/x509v3.h>
#include <vector>

namespace {

using certificate_ptr = std::unique_ptr<X509, releaser<X509_free>>;
using names_ptr = std::unique_ptr<GENERAL_NAMES, releaser<GENERAL_NAMES_free>>;

std::string text_of(const ASN1_STRING* text) {
  return {reinterpret_cast<const char*>(ASN1_STRING_get0_data(text)),
          static_cast<size_t>(ASN1_STRING_length(text))};
}

// Every name of the certificate, of whatever kind: it, or one like it, might pass for the host.
std::vector<std::string> names_in(const X509* certificate) {
  std::vector<std::string> names;
  const names_ptr alt_names{
      static_cast<GENERAL_NAMES*>(X509_get_ext_d2i(certificate, NID_subject_alt_name, nullptr, nullptr))};
  for (int i = 0; i < sk_GENERAL_NAME_num(alt_names.get()); ++i) {
    const GENERAL_NAME* name = sk_GENERAL_NAME_value(alt_names.get(), i);
    const bool is_text = name->type == GEN_DNS || name->type == GEN_EMAIL || name->type == GEN_URI;
    if (is_text) names.push_back(text_of(name->d.ia5));
  }
  const X509_NAME* subject = X509_get_subject_name(certificate);
  for (int i = 0; i < X509_NAME_entry_count(subject); ++i) {
    names.push_back(text_of(X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, i))));
  }
  return names;
}

bool has_alt_names(const X509* certificate) {
  return X509_get_ext_by_NID(certificate, NID_subject_alt_name, -1) >= 0;
}

bool has_two_alt_name_extensions(const X509* certificate) {
  const int first = X509_get_ext_by_NID(certificate, NID_subject_alt_name, -1);
  return first >= 0 && X509_get_ext_by_NID(certificate, NID_subject_alt_name, first) >= 0;
}

// Whether the first commonName is a string with one byte for a character: OpenSSL converts others before it compares.
bool has_narrow_common_name(const X509* certificate) {
  const X509_NAME* subject = X509_get_subject_name(certificate);
  const int index = X509_NAME_get_index_by_NID(subject, NID_commonName, -1);
  if (index < 0) return false;
  const int type = ASN1_STRING_type(X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, index)));
  return type == V_ASN1_UTF8STRING || type == V_ASN1_PRINTABLESTRING || type == V_ASN1_IA5STRING ||
         type == V_ASN1_T61STRING;
}

bool is_plain_ascii(const std::string& text) {
  for (const char c : text) {
    if (c <= ' ' || c >= 0x7f) return false;
  }
  return true;
}

void check_host(X509* certificate, const std::string& name) {
  const std::string host = name.c_str();
  const int result = validate_hostname(host.c_str(), certificate);
  CHECK(result == 1 || result == -1);
  CHECK(result == -1 || !has_two_alt_name_extensions(certificate));
  if (result != 1 || host.empty() || !is_plain_ascii(host)) return;
  if (!has_alt_names(certificate) && !has_narrow_common_name(certificate)) return;
  CHECK(X509_check_host(certificate, host.c_str(), 0, X509_CHECK_FLAG_NO_WILDCARDS, nullptr) == 1);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  begin_run();
  const unsigned char* position = data;
  const certificate_ptr certificate{d2i_X509(nullptr, &position, static_cast<long>(size))};
  if (certificate != nullptr) {
    check_host(certificate.get(), "broker.test");
    for (const std::string& name : names_in(certificate.get())) {
      check_host(certificate.get(), name);
      check_host(certificate.get(), name.substr(0, name.size() / 2));
      check_host(certificate.get(), name + "x");
      check_host(certificate.get(), "x" + name);
      check_host(certificate.get(), name.substr(std::min(name.find('.'), name.size())));
    }
  }
  ERR_clear_error();
  return 0;
}
