// Certificates made from the input, and whether they name the host. One name a line: a letter for its kind, a colon and
// the name's bytes.
//   D DNS name   E mail   U URI   I address   M folder name     (subjectAltName)
//   C P T J B commonName as UTF-8, printable, T61, IA5 and BMP string     G organisation
//   Z an extension even without names   2 a second extension   H the host (otherwise broker.test)

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

struct naive_name {
  char kind;
  std::string bytes;
};

std::vector<naive_name> read_names(const std::string& text) {
  std::vector<naive_name> names;
  for (size_t begin = 0; begin < text.size();) {
    const size_t end = std::min(text.find('\n', begin), text.size());
    if (end - begin >= 2 && text[begin + 1] == ':') {
      names.push_back({text[begin], text.substr(begin + 2, end - begin - 2)});
    }
    begin = end + 1;
  }
  return names;
}

bool is_one_of(char kind, const char* kinds) {
  return kind != '\0' && std::string{kinds}.find(kind) != std::string::npos;
}

bool holds(const std::vector<naive_name>& names, const char* kinds) {
  return std::any_of(names.begin(), names.end(),
                     [=](const naive_name& name) { return is_one_of(name.kind, kinds); });
}

// --- the certificate

const unsigned char* bytes_of(const std::string& text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}

GENERAL_NAME* make_general_name(const naive_name& name) {
  GENERAL_NAME* made = GENERAL_NAME_new();
  if (name.kind == 'M') {
    X509_NAME* folder = X509_NAME_new();
    // Any bytes make a good T61 string, which can be written into the extension.
    X509_NAME_add_entry_by_NID(folder, NID_commonName, V_ASN1_T61STRING, bytes_of(name.bytes),
                               static_cast<int>(name.bytes.size()), -1, 0);
    GENERAL_NAME_set0_value(made, GEN_DIRNAME, folder);
    return made;
  }
  ASN1_STRING* value = name.kind == 'I' ? ASN1_OCTET_STRING_new() : ASN1_IA5STRING_new();
  ASN1_STRING_set(value, name.bytes.data(), static_cast<int>(name.bytes.size()));
  const int type = name.kind == 'D'   ? GEN_DNS
                   : name.kind == 'E' ? GEN_EMAIL
                   : name.kind == 'U' ? GEN_URI
                                      : GEN_IPADD;
  GENERAL_NAME_set0_value(made, type, value);
  return made;
}

void add_alt_names(X509* certificate, const std::vector<naive_name>& names) {
  if (!holds(names, "DEUIMZ2")) return;
  const names_ptr all{GENERAL_NAMES_new()};
  for (const naive_name& name : names) {
    if (is_one_of(name.kind, "DEUIM")) sk_GENERAL_NAME_push(all.get(), make_general_name(name));
  }
  const int extensions = holds(names, "2") ? 2 : 1;
  for (int i = 0; i < extensions; ++i) {
    CHECK(X509_add1_ext_i2d(certificate, NID_subject_alt_name, all.get(), 0, X509V3_ADD_APPEND) == 1);
  }
}

int string_type(char kind) {
  switch (kind) {
  case 'P':
    return V_ASN1_PRINTABLESTRING;
  case 'T':
    return V_ASN1_T61STRING;
  case 'J':
    return V_ASN1_IA5STRING;
  case 'B':
    return V_ASN1_BMPSTRING;
  default:
    return V_ASN1_UTF8STRING;
  }
}

// False when the library takes no such bytes for this kind of string.
bool add_subject_name(X509* certificate, const naive_name& name) {
  return X509_NAME_add_entry_by_NID(
             X509_get_subject_name(certificate), name.kind == 'G' ? NID_organizationName : NID_commonName,
             string_type(name.kind), bytes_of(name.bytes), static_cast<int>(name.bytes.size()), -1, 0) == 1;
}

// Names that can't be put into a certificate are taken out of the list.
certificate_ptr make_certificate(std::vector<naive_name>* names) {
  certificate_ptr certificate{X509_new()};
  std::erase_if(*names, [&](const naive_name& name) {
    return is_one_of(name.kind, "CPTJBG") && !add_subject_name(certificate.get(), name);
  });
  add_alt_names(certificate.get(), *names);
  return certificate;
}

// --- the naive matcher

char lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
}

bool same_name(const std::string& one, const std::string& other) {
  return std::equal(one.begin(), one.end(), other.begin(), other.end(),
                    [](char a, char b) { return lower(a) == lower(b); });
}

// 1 or -1. A zero byte in a name that is looked at ends the search.
int match_naively(const std::string& host, const std::vector<naive_name>& names) {
  const bool by_alt_name = holds(names, "DEUIMZ2");
  if (holds(names, "2")) return -1;
  for (const naive_name& name : names) {
    if (!is_one_of(name.kind, by_alt_name ? "D" : "CPTJB")) continue;
    if (name.bytes.find('\0') != std::string::npos) return -1;
    if (same_name(host, name.bytes)) return 1;
    if (!by_alt_name) return -1;  // only the first commonName counts
  }
  return -1;
}

bool is_plain_ascii(const std::string& text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return c > ' ' && c < 0x7f; });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  begin_run();
  std::vector<naive_name> names = read_names({reinterpret_cast<const char*>(data), size});
  std::string host = "broker.test";
  for (const naive_name& name : names) {
    if (name.kind == 'H') host = name.bytes.c_str();
  }
  const certificate_ptr certificate = make_certificate(&names);
  const int result = validate_hostname(host.c_str(), certificate.get());
  CHECK(result == match_naively(host, names));
  // Whatever is accepted here, OpenSSL's own check accepts too. (It converts BMP strings before it compares.)
  if (result == 1 && !host.empty() && is_plain_ascii(host) && !holds(names, "B")) {
    CHECK(X509_check_host(certificate.get(), host.c_str(), 0, X509_CHECK_FLAG_NO_WILDCARDS, nullptr) == 1);
  }
  ERR_clear_error();
  return 0;
}
