#include "broker/ssl_routine.h"

#include "log_capture.h"

#include <cerrno>
#include <gmock/gmock.h>
#include <openssl/err.h>
#include <openssl/ssl.h>

namespace {

using testing::HasSubstr;

TEST(SslErrors, AreDescribedByCode) {
  struct {
    int code;
    const char* text;
  } const cases[] = {
      {0, "openssl read error: 'SSL_ERROR_NONE', errno: 'Broken pipe'.\n"},
      {1, "openssl read error: 'SSL_ERROR_SSL', errno: 'Broken pipe'.\n"},
      {2, "openssl read error: '2', errno: 'Broken pipe'.\n"},
      {3, "openssl read error: '3', errno: 'Broken pipe'.\n"},
      {4, "openssl read error: 'SSL_ERROR_WANT_X509_LOOKUP', errno: 'Broken pipe'.\n"},
      {5, "openssl read error: 'SSL_ERROR_SYSCALL', errno: 'Broken pipe'.\n"},
      {6, "openssl read error: 'SSL_ERROR_ZERO_RETURN', errno: 'Broken pipe'.\n"},
      {7, "openssl read error: '7', errno: 'Broken pipe'.\n"},
      {99, "openssl read error: '99', errno: 'Broken pipe'.\n"},
  };
  for (const auto& [code, text] : cases) {
    log_capture log;
    options.log_level = 5;  // written whatever the level is
    describe_ssl_error(code, EPIPE);
    EXPECT_THAT(log.text(), HasSubstr(text));
  }
}

TEST(SslErrors, TheQueueIsPrintedOldestFirstAndEmptied) {
  OPENSSL_init_ssl(OPENSSL_INIT_LOAD_SSL_STRINGS, nullptr);
  ERR_clear_error();
  ERR_raise(ERR_LIB_SSL, SSL_R_NO_CIPHERS_AVAILABLE);
  ERR_raise(ERR_LIB_SSL, SSL_R_BAD_LENGTH);
  log_capture log;
  print_openssl_errors();
  const std::string text = log.text();
  const size_t first = text.find("openssl error: 'error:0A0000B5:SSL routines::no ciphers available'.\n");
  const size_t second = text.find("openssl error: 'error:0A00010F:SSL routines::bad length'.\n");
  EXPECT_NE(first, std::string::npos) << text;
  EXPECT_NE(second, std::string::npos) << text;
  EXPECT_LT(first, second);
  EXPECT_THAT(text, HasSubstr("WARNING: error:0A0000B5:SSL routines::no ciphers available\n"));
  EXPECT_EQ(ERR_peek_error(), 0UL);
}

}  // namespace
