#pragma once

#include "core/owned.h"
#include "temp_folder.h"

#include <filesystem>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <string>
#include <vector>

// Certificates made for one test run.

using certificate_ptr = std::unique_ptr<X509, releaser<X509_free>>;
using key_ptr = std::unique_ptr<EVP_PKEY, releaser<EVP_PKEY_free>>;

/// One entry of a subjectAltName extension: GEN_DNS, GEN_EMAIL or GEN_URI with text, GEN_IPADD with raw bytes.
struct alt_name {
  int type;
  std::string text;
};

struct certificate_plan {
  std::vector<std::string> common_names;
  std::vector<alt_name> alt_names = {};
  bool empty_alt_names = false;    ///< the extension is there, without a name
  std::string raw_alt_names = "";  ///< the extension holds these bytes
  long valid_from = -3600;         ///< seconds from now
  long valid_until = 86400;
  bool authority = false;
};

struct identity {
  certificate_ptr certificate;
  key_ptr key;
};

inline void add_alt_names(X509* certificate, const certificate_plan& plan) {
  if (!plan.raw_alt_names.empty()) {
    ASN1_OCTET_STRING* bytes = ASN1_OCTET_STRING_new();
    ASN1_STRING_set(bytes, plan.raw_alt_names.data(), static_cast<int>(plan.raw_alt_names.size()));
    X509_EXTENSION* extension = X509_EXTENSION_create_by_NID(nullptr, NID_subject_alt_name, 0, bytes);
    X509_add_ext(certificate, extension, -1);
    X509_EXTENSION_free(extension);
    ASN1_OCTET_STRING_free(bytes);
    return;
  }
  if (plan.alt_names.empty() && !plan.empty_alt_names) return;
  const std::unique_ptr<GENERAL_NAMES, releaser<GENERAL_NAMES_free>> names{GENERAL_NAMES_new()};
  for (const auto& [type, text] : plan.alt_names) {
    ASN1_STRING* value = type == GEN_IPADD ? ASN1_OCTET_STRING_new() : ASN1_IA5STRING_new();
    ASN1_STRING_set(value, text.data(), static_cast<int>(text.size()));
    GENERAL_NAME* name = GENERAL_NAME_new();
    GENERAL_NAME_set0_value(name, type, value);
    sk_GENERAL_NAME_push(names.get(), name);
  }
  X509_add1_ext_i2d(certificate, NID_subject_alt_name, names.get(), 0, X509V3_ADD_DEFAULT);
}

inline void add_extension(X509* certificate, int nid, const char* value) {
  X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, nullptr, nid, value);
  X509_add_ext(certificate, extension, -1);
  X509_EXTENSION_free(extension);
}

/// A certificate with a key of its own, signed by `issuer`, or by itself.
inline identity make_identity(const certificate_plan& plan, const identity* issuer = nullptr) {
  static long serial = 0;
  identity made{certificate_ptr{X509_new()}, key_ptr{EVP_EC_gen("P-256")}};
  X509* certificate = made.certificate.get();
  X509_set_version(certificate, X509_VERSION_3);
  ASN1_INTEGER_set(X509_get_serialNumber(certificate), ++serial);
  X509_gmtime_adj(X509_getm_notBefore(certificate), plan.valid_from);
  X509_gmtime_adj(X509_getm_notAfter(certificate), plan.valid_until);
  for (const std::string& name : plan.common_names) {
    X509_NAME_add_entry_by_NID(X509_get_subject_name(certificate), NID_commonName, V_ASN1_UTF8STRING,
                               reinterpret_cast<const unsigned char*>(name.data()),
                               static_cast<int>(name.size()), -1, 0);
  }
  X509_set_issuer_name(certificate,
                       X509_get_subject_name(issuer != nullptr ? issuer->certificate.get() : certificate));
  X509_set_pubkey(certificate, made.key.get());
  if (plan.authority) add_extension(certificate, NID_basic_constraints, "critical,CA:TRUE");
  add_alt_names(certificate, plan);
  X509_sign(certificate, issuer != nullptr ? issuer->key.get() : made.key.get(), EVP_sha256());
  return made;
}

inline void write_pem(const std::string& path, X509* certificate) {
  FILE* file = std::fopen(path.c_str(), "we");
  if (file == nullptr) std::abort();
  PEM_write_X509(file, certificate);
  std::fclose(file);
}

/// An authority whose certificate lies in a file, and in a folder under its hash.
class test_authority {
public:
  explicit test_authority(const std::string& name = "Test Authority")
      : identity_{make_identity({.common_names = {name}, .authority = true})} {
    write_pem(file(), identity_.certificate.get());
    char hash[32];
    std::snprintf(hash, sizeof hash, "%08lx.0", X509_subject_name_hash(identity_.certificate.get()));
    std::filesystem::create_directory(path());
    write_pem(path() + "/" + hash, identity_.certificate.get());
  }

  [[nodiscard]] std::string file() const { return folder_ / "ca.pem"; }
  [[nodiscard]] std::string path() const { return folder_ / "ca"; }
  [[nodiscard]] identity issue(const certificate_plan& plan) const { return make_identity(plan, &identity_); }

  /// A good certificate for a DNS name.
  [[nodiscard]] identity issue_for(const std::string& host) const {
    return issue({.common_names = {"server"}, .alt_names = {{GEN_DNS, host}}});
  }

private:
  temp_folder folder_;
  identity identity_;
};
