#include "broker/ssl_routine.h"

#include "libc_hooks.h"
#include "log_capture.h"
#include "tls_server.h"

#include <atomic>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <openssl/err.h>
#include <optional>

namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

const test_authority& authority() {
  static const test_authority one;
  return one;
}

// A connection and a TLS server at its other end. The log is collected from the start.
class TlsConnection : public testing::Test {
protected:
  TlsConnection() : ca_file_{authority().file()} {
    ignore_sigpipe();
    options.ca_file = ca_file_.c_str();
  }
  ~TlsConnection() override {
    conn_close(&pair_.connection);
    server_.reset();
    options.ca_file = nullptr;
    options.ca_path = nullptr;
  }

  void serve(identity server, tls_server_plan plan = {}) {
    identity_ = std::move(server);
    server_.emplace(
        identity_, [fd = pair_.peer.release()] { return fd_owner{fd}; }, std::move(plan));
  }

  int connect_to(const char* hostname) { return ssl_connect(&pair_.connection, hostname); }

  // Connects to a good server.
  void connect_well(std::function<void(SSL*)> after_handshake) {
    serve(authority().issue_for("broker.test"), {.after_handshake = std::move(after_handshake)});
    ASSERT_EQ(connect_to("broker.test"), 0) << log();
  }

  std::string log() { return log_.text(); }

  std::string ca_file_;
  connected_pair pair_;
  identity identity_;
  std::optional<tls_server> server_;
  log_capture log_;
};

// Waits for the client's close.
void read_to_end(SSL* ssl) {
  char byte = 0;
  while (SSL_read(ssl, &byte, 1) > 0) {
  }
}

// Reads until something other than "no data for now" comes.
int read_when_ready(net_connection* connection, char* buffer, size_t size) {
  for (;;) {
    const int result = conn_read(connection, buffer, size);
    if (result != 0 || errno != EAGAIN) return result;
    pollfd readable{connection->socket, POLLIN, 0};
    if (poll(&readable, 1, patience_ms) != 1) return -100;
  }
}

}  // namespace

TEST_F(TlsConnection, SpeaksTls12WithACipherOfTheListAndSendsNoServerName) {
  connect_well(read_to_end);
  EXPECT_NE(pair_.connection.ssl, nullptr);
  ASSERT_NE(pair_.connection.ssl_ctx, nullptr);
  EXPECT_EQ(SSL_CTX_get_min_proto_version(pair_.connection.ssl_ctx), TLS1_2_VERSION);
  EXPECT_EQ(SSL_CTX_get_max_proto_version(pair_.connection.ssl_ctx), TLS1_2_VERSION);
  EXPECT_EQ(conn_close(&pair_.connection), 0);
  server_->finish();
  EXPECT_EQ(server_->version, "TLSv1.2");
  EXPECT_THAT(server_->cipher, HasSubstr("ECDHE-ECDSA-"));
  EXPECT_FALSE(server_->server_name_sent);
  EXPECT_THAT(log(), IsEmpty());
}

TEST_F(TlsConnection, TheNameIsCheckedAfterTheHandshake) {
  serve(authority().issue_for("other.test"));
  EXPECT_EQ(connect_to("broker.test"), -1);
  EXPECT_EQ(pair_.connection.ssl, nullptr);
  EXPECT_EQ(pair_.connection.ssl_ctx, nullptr);
  EXPECT_GE(fcntl(pair_.connection.socket, F_GETFD), 0) << "the socket stays open";
  EXPECT_THAT(log(), HasSubstr("WARNING: Hostname validation failed.\n"));
}

TEST_F(TlsConnection, WithoutAHostNameTheCheckFails) {
  serve(authority().issue_for("broker.test"));
  EXPECT_EQ(connect_to(nullptr), -1);
  EXPECT_THAT(log(), HasSubstr("Hostname validation failed.\n"));
}

TEST_F(TlsConnection, ACommonNameAloneIsEnough) {
  serve(authority().issue({.common_names = {"broker.test"}}), {.after_handshake = read_to_end});
  EXPECT_EQ(connect_to("broker.test"), 0) << log();
}

TEST_F(TlsConnection, ACertificateThatDoesNotVerifyIsRefused) {
  const test_authority same_name;
  const certificate_plan good{.common_names = {"broker.test"}};
  certificate_plan expired = good;
  expired.valid_from = -7200;
  expired.valid_until = -3600;
  certificate_plan early = good;
  early.valid_from = 3600;

  std::vector<std::pair<const char*, identity>> cases;
  cases.emplace_back("self-signed", make_identity(good));
  cases.emplace_back("expired", authority().issue(expired));
  cases.emplace_back("not yet valid", authority().issue(early));
  cases.emplace_back("another authority of the same name", same_name.issue(good));
  for (auto& [what, server] : cases) {
    connected_pair pair;
    const tls_server peer{server, [fd = pair.peer.release()] { return fd_owner{fd}; }};
    log_.restart();
    EXPECT_EQ(ssl_connect(&pair.connection, "broker.test"), -1) << what;
    EXPECT_EQ(pair.connection.ssl, nullptr) << what;
    EXPECT_EQ(pair.connection.ssl_ctx, nullptr) << what;
    EXPECT_THAT(log(), AllOf(HasSubstr("Could not connect to SSL server 1.\n"),
                             HasSubstr("openssl read error: 'SSL_ERROR_SSL', errno: '"),
                             HasSubstr("certificate verify failed"), HasSubstr("openssl error: 'error:")))
        << what;
  }
}

TEST_F(TlsConnection, TheAuthorityComesFromFileOrFolderOrBoth) {
  const std::string file = authority().file();
  const std::string path = authority().path();
  struct {
    const char* file;
    const char* path;
    int result;
  } const cases[] = {
      {file.c_str(), nullptr, 0},
      {nullptr, path.c_str(), 0},
      {file.c_str(), path.c_str(), 0},
      {nullptr, nullptr, -1},
  };
  const identity server = authority().issue_for("broker.test");
  for (const auto& one : cases) {
    connected_pair pair;
    const tls_server peer{server, [fd = pair.peer.release()] { return fd_owner{fd}; }};
    options.ca_file = one.file;
    options.ca_path = one.path;
    EXPECT_EQ(ssl_connect(&pair.connection, "broker.test"), one.result);
    ssl_release(&pair.connection);
  }
}

TEST_F(TlsConnection, AnUnreadableAuthorityFileLeavesTheContextToTheCaller) {
  struct {
    const char* file;
    const char* path;
    const char* text;
  } const cases[] = {
      {"/nonexistent/ca.pem", nullptr,
       "WARNING: Cannot load SSL certificate chain : /nonexistent/ca.pem. (null).\n"},
      {"/nonexistent/ca.pem", "/tmp",
       "WARNING: Cannot load SSL certificate chain : /nonexistent/ca.pem. /tmp.\n"},
  };
  for (const auto& one : cases) {
    log_.restart();
    options.ca_file = one.file;
    options.ca_path = one.path;
    EXPECT_EQ(connect_to("broker.test"), -1);
    EXPECT_EQ(pair_.connection.ssl, nullptr);
    EXPECT_NE(pair_.connection.ssl_ctx, nullptr);
    ssl_release(&pair_.connection);
    EXPECT_EQ(pair_.connection.ssl_ctx, nullptr);
    EXPECT_THAT(log(), AllOf(HasSubstr(one.text), HasSubstr("openssl error: 'error:")));
  }
}

TEST_F(TlsConnection, EachFailedStepOfTheSetUpIsLogged) {
  struct {
    const char* call;
    const char* text;
  } const cases[] = {
      {"SSL_CTX_new", "WARNING: Cannot create SSL context.\n"},
      {"SSL_CTX_set_cipher_list", "WARNING: Cannot set SSL cipher suite.\n"},
      {"SSL_new", "WARNING: Cannot create SSL handle.\n"},
      {"SSL_set_fd", "WARNING: Cannot set SSL fd.\n"},
  };
  for (const auto& [call, text] : cases) {
    log_.restart();
    {
      const failing_call failing{call};
      EXPECT_EQ(connect_to("broker.test"), -1) << call;
    }
    EXPECT_EQ(pair_.connection.ssl, nullptr) << call;
    ssl_release(&pair_.connection);
    EXPECT_THAT(log(), HasSubstr(text));
  }
}

TEST_F(TlsConnection, OtherVersionsAreRefused) {
  const identity server = authority().issue_for("broker.test");
  for (const int version : {TLS1_1_VERSION, TLS1_3_VERSION}) {
    connected_pair pair;
    tls_server peer{server,
                    [fd = pair.peer.release()] { return fd_owner{fd}; },
                    {.min_version = version, .max_version = version}};
    log_.restart();
    EXPECT_EQ(ssl_connect(&pair.connection, "broker.test"), -1);
    EXPECT_THAT(log(), AllOf(HasSubstr("Could not connect to SSL server 1.\n"),
                             HasSubstr("openssl read error: 'SSL_ERROR_SSL', errno: '")));
    peer.finish();
    EXPECT_FALSE(peer.accepted);
  }
}

TEST_F(TlsConnection, APeerThatClosesInsteadOfAnsweringIsAFailure) {
  pair_.peer.reset();
  EXPECT_EQ(connect_to("broker.test"), -1);
  EXPECT_EQ(pair_.connection.ssl, nullptr);
  EXPECT_THAT(log(), HasSubstr("Could not connect to SSL server "));
}

TEST_F(TlsConnection, TheTenthFailedAttemptIsLikeTheFirstAndThenAGoodOneWorks) {
  const identity bad = make_identity({.common_names = {"broker.test"}});
  std::string first;
  for (int attempt = 1; attempt <= 10; ++attempt) {
    connected_pair pair;
    const tls_server peer{bad, [fd = pair.peer.release()] { return fd_owner{fd}; }};
    log_.restart();
    EXPECT_EQ(ssl_connect(&pair.connection, "broker.test"), -1);
    EXPECT_EQ(ERR_peek_error(), 0UL);
    // Error texts begin with the thread's own number, the same each time.
    const std::string text = log();
    if (attempt == 1) first = text;
    EXPECT_EQ(text, first) << "attempt " << attempt;
  }
  serve(authority().issue_for("broker.test"), {.after_handshake = read_to_end});
  EXPECT_EQ(connect_to("broker.test"), 0);
}

TEST_F(TlsConnection, NoConnectionOrDescriptor0FailsAtOnce) {
  EXPECT_EQ(ssl_connect(nullptr, "broker.test"), -1);
  net_connection closed{0, nullptr, nullptr};
  EXPECT_EQ(ssl_connect(&closed, "broker.test"), -1);
  EXPECT_THAT(log(), IsEmpty());
}

TEST_F(TlsConnection, MovesBytesBothWays) {
  std::string received(5, '\0');
  connect_well([&received](SSL* ssl) {
    SSL_read(ssl, received.data(), 5);
    SSL_write(ssl, "world", 5);
    read_to_end(ssl);
  });
  EXPECT_EQ(conn_write(&pair_.connection, "hello", 5), 5);
  char buffer[16];
  EXPECT_EQ(conn_read(&pair_.connection, buffer, sizeof buffer), 5);
  EXPECT_EQ(std::string(buffer, 5), "world");
  conn_close(&pair_.connection);
  server_->finish();
  EXPECT_EQ(received, "hello");
}

TEST_F(TlsConnection, PendingCountsTheDecryptedBytes) {
  connect_well([](SSL* ssl) {
    SSL_write(ssl, "0123456789", 10);
    read_to_end(ssl);
  });
  char buffer[4];
  EXPECT_EQ(conn_read(&pair_.connection, buffer, sizeof buffer), 4);
  EXPECT_EQ(conn_pending(&pair_.connection), 6);
}

TEST_F(TlsConnection, ReadAheadKeepsTheNextRecordForTheNextRead) {
  connect_well([](SSL* ssl) {
    SSL_write(ssl, "one", 3);
    SSL_write(ssl, "two", 3);
  });
  server_->finish();  // both records have arrived
  EXPECT_FALSE(conn_buffered(&pair_.connection));
  conn_read_ahead(&pair_.connection);
  char buffer[16];
  EXPECT_EQ(conn_read(&pair_.connection, buffer, sizeof buffer), 3);
  EXPECT_EQ(conn_pending(&pair_.connection), 0);
  EXPECT_TRUE(conn_buffered(&pair_.connection));
  EXPECT_EQ(conn_read(&pair_.connection, buffer, sizeof buffer), 3);
  EXPECT_EQ(std::string(buffer, 3), "two");
}

TEST_F(TlsConnection, AReadThatWouldBlockIsNoDataForNow) {
  connect_well(read_to_end);
  EXPECT_EQ(set_nonblocking(&pair_.connection), 0);
  char byte = 0;
  EXPECT_EQ(conn_read(&pair_.connection, &byte, 1), 0);
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_THAT(log(), AllOf(HasSubstr("SSL_read < 0 errno: 'Resource temporarily unavailable'.\n"),
                           Not(HasSubstr("openssl read"))));
}

TEST_F(TlsConnection, AStreamThatEndsIsZeroWithAnotherErrno) {
  for (const bool with_notice : {true, false}) {
    connected_pair pair;
    const identity server = authority().issue_for("broker.test");
    tls_server peer{server,
                    [fd = pair.peer.release()] { return fd_owner{fd}; },
                    {.after_handshake = [with_notice](SSL* ssl) {
                      SSL_write(ssl, "bye", 3);
                      if (with_notice) SSL_shutdown(ssl);
                    }}};
    log_.restart();
    ASSERT_EQ(ssl_connect(&pair.connection, "broker.test"), 0);
    peer.finish();
    EXPECT_EQ(set_nonblocking(&pair.connection), 0);
    char buffer[16];
    EXPECT_EQ(read_when_ready(&pair.connection, buffer, sizeof buffer), 3);
    for (int i = 0; i < 3; ++i) {
      errno = EAGAIN;
      EXPECT_EQ(conn_read(&pair.connection, buffer, sizeof buffer), 0) << with_notice;
      EXPECT_NE(errno, EAGAIN) << with_notice;
    }
    EXPECT_THAT(log(), HasSubstr("SSL_read == 0 errno: 'Success'.\n"));
    ssl_release(&pair.connection);
  }
}

TEST_F(TlsConnection, GarbageIsAnError) {
  connect_well([](SSL* ssl) {
    send(SSL_get_fd(ssl), "this is no TLS record", 21, MSG_NOSIGNAL);
    read_to_end(ssl);
  });
  char byte = 0;
  EXPECT_LT(conn_read(&pair_.connection, &byte, 1), 0);
  conn_close(&pair_.connection);
  EXPECT_THAT(log(), AllOf(HasSubstr("SSL_read < 0 errno: '"),
                           HasSubstr("openssl read error: 'SSL_ERROR_SSL', errno: '"),
                           HasSubstr("WARNING: openssl read result: '-1', error: '1', errno: '0'.\n"),
                           HasSubstr("wrong version number")));
}

TEST_F(TlsConnection, AFailedReadOfTheSocketIsAnErrorWithItsErrno) {
  connect_well([](SSL* ssl) { read_to_end(ssl); });
  const int nothing = open("/dev/null", O_WRONLY | O_CLOEXEC);
  const fd_owner kept{dup(pair_.connection.socket)};
  dup2(nothing, pair_.connection.socket);  // reading fails with EBADF or ENOTSOCK
  close(nothing);
  char byte = 0;
  EXPECT_LT(conn_read(&pair_.connection, &byte, 1), 0);
  EXPECT_EQ(errno, EBADF);
  EXPECT_THAT(log(),
              AllOf(HasSubstr("openssl read error: 'SSL_ERROR_SYSCALL', errno: 'Bad file descriptor'.\n"),
                    HasSubstr("openssl read result: '-1', error: '5', errno: '9'.\n")));
  dup2(kept.get(), pair_.connection.socket);
  shutdown(pair_.connection.socket, SHUT_RDWR);
}

TEST_F(TlsConnection, AFailedWriteIsLoggedAndReturned) {
  connect_well({});
  server_->finish();
  EXPECT_LT(conn_write(&pair_.connection, "hello", 5), 0);
  EXPECT_THAT(log(), HasSubstr("WARNING: Wroted less then needed: -1\n"));
}

TEST_F(TlsConnection, ReleaseAndCloseAreHarmlessTwice) {
  connect_well(read_to_end);
  ssl_release(&pair_.connection);
  EXPECT_EQ(pair_.connection.ssl, nullptr);
  ssl_release(&pair_.connection);
  EXPECT_EQ(conn_close(&pair_.connection), 0);
  EXPECT_EQ(pair_.connection.socket, -1);
  EXPECT_EQ(conn_close(&pair_.connection), 0);
}

TEST(PlainConnection, ReadsWhatIsThere) {
  connected_pair pair;
  ASSERT_EQ(send(pair.peer.get(), "abc", 3, 0), 3);
  char buffer[16];
  EXPECT_EQ(conn_read(&pair.connection, buffer, sizeof buffer), 3);
  EXPECT_EQ(conn_pending(&pair.connection), 0);
  conn_read_ahead(&pair.connection);
  EXPECT_FALSE(conn_buffered(&pair.connection));
}

TEST(PlainConnection, AReadThatWouldBlockIsNoDataForNow) {
  connected_pair pair;
  EXPECT_EQ(set_nonblocking(&pair.connection), 0);
  char byte = 0;
  EXPECT_EQ(conn_read(&pair.connection, &byte, 1), 0);
  EXPECT_EQ(errno, EAGAIN);
}

TEST(PlainConnection, AnEndedStreamIsZeroWithAnotherErrno) {
  connected_pair pair;
  pair.peer.reset();
  char byte = 0;
  errno = EAGAIN;
  EXPECT_EQ(conn_read(&pair.connection, &byte, 1), 0);
  EXPECT_NE(errno, EAGAIN);
}

TEST(PlainConnection, AFailedReadIsNegative) {
  net_connection closed{-1, nullptr, nullptr};
  char byte = 0;
  EXPECT_EQ(conn_read(&closed, &byte, 1), -1);
  EXPECT_EQ(errno, EBADF);
}

TEST(PlainConnection, AShortWriteIsLoggedAndNotCompleted) {
  connected_pair pair;
  EXPECT_EQ(set_nonblocking(&pair.connection), 0);
  const std::string bytes(4'000'000, 'x');
  log_capture log;
  const int result = conn_write(&pair.connection, bytes.data(), bytes.size());
  EXPECT_GT(result, 0);
  EXPECT_LT(result, 4'000'000);
  EXPECT_EQ(conn_write(&pair.connection, "more", 4), -1);
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_THAT(log.text(),
              AllOf(HasSubstr("WARNING: Wroted less then needed: " + std::to_string(result) + "\n"),
                    HasSubstr("WARNING: Wroted less then needed: -1\n")));
}

TEST(PlainConnection, WritingToAClosedPeerRaisesNoSignal) {
  connected_pair pair;
  pair.peer.reset();
  const auto previous = std::signal(SIGPIPE, SIG_DFL);
  log_capture log;
  EXPECT_EQ(conn_write(&pair.connection, "x", 1), -1);
  EXPECT_EQ(errno, EPIPE);
  std::signal(SIGPIPE, previous);
}

TEST(PlainConnection, NoConnectionIsRefusedEverywhere) {
  char byte = 0;
  EXPECT_EQ(conn_read(nullptr, &byte, 1), -1);
  EXPECT_EQ(conn_write(nullptr, &byte, 1), -1);
  EXPECT_EQ(conn_close(nullptr), -1);
}

TEST(PlainConnection, NonBlockingKeepsTheOtherFlags) {
  connected_pair pair;
  fcntl(pair.connection.socket, F_SETFL, O_APPEND);
  EXPECT_EQ(set_nonblocking(&pair.connection), 0);
  EXPECT_EQ(fcntl(pair.connection.socket, F_GETFL) & (O_APPEND | O_NONBLOCK), O_APPEND | O_NONBLOCK);
}

TEST(PlainConnection, AFailedNonBlockingIsLogged) {
  net_connection closed{-1, nullptr, nullptr};
  log_capture log;
  EXPECT_EQ(set_nonblocking(&closed), -1);
  EXPECT_THAT(log.text(), testing::ContainsRegex("DEBUG: ssl_routine:set_nonblocking:[0-9]+: error 9\n"));
}
